// Time stamps and timers.
//
// GetCurrentTimeStamp is monotonic and cheap (it sits on every check-in): nanoseconds since an
// arbitrary start. Time stamps only order events and measure intervals; they are not wall time.
//
// Where the kernel itself keeps time by the processor's time-stamp counter (invariant, and
// synchronised across processors, or the kernel would not use it), a stamp is that counter scaled
// to nanoseconds: a third of the cost of asking the kernel's clock. Elsewhere it is the steady
// clock. The scale is measured against the steady clock once, on the first call.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "jxcache/host/export.h"

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace jx::host {
class Clock;
}

namespace zelcore::utility {

namespace detail {
struct TscScale {
  // 0: not decided yet; 1: the counter; 2: the steady clock; 3: the host's clock.
  std::atomic<int> source{0};
  int defaultSource = 0;  // 1 or 2, once decided
  std::atomic<jx::host::Clock*> hostClock{nullptr};
  uint64_t baseTicks = 0;
  uint64_t baseNanos = 0;
  uint64_t nanosPerTick32 = 0;  // nanoseconds per tick, 32.32 fixed point
};
extern JX_EXPORT constinit TscScale g_tscScale;
JX_EXPORT uint64_t FirstTimeStamp();
JX_EXPORT uint64_t HostTimeStamp();

inline uint64_t SteadyNanos() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}
}  // namespace detail

// The time stamps of the host's clock (jx::host::Clock, host/host_services.h) when the host
// installed one, else of the default clock described above, read inline.
class HighPrecisionTime {
 public:
  static uint64_t GetCurrentTimeStamp() {
    const detail::TscScale& s = detail::g_tscScale;
    const int source = s.source.load(std::memory_order_acquire);
#if defined(__x86_64__)
    if (source == 1) [[likely]] {
      const uint64_t ticks = __rdtsc() - s.baseTicks;
      return s.baseNanos + static_cast<uint64_t>(
                               (static_cast<unsigned __int128>(ticks) * s.nanosPerTick32) >> 32);
    }
#endif
    if (source == 2) return detail::SteadyNanos();
    if (source == 3) return detail::HostTimeStamp();
    return detail::FirstTimeStamp();
  }
  // The default clock's stamp, whatever the host installed.
  static uint64_t DefaultTimeStamp();
  // Stamps from `clock` from now on (null: the default clock again).
  static void UseHostClock(jx::host::Clock* clock);
  static double ToSeconds(uint64_t stampDelta) { return static_cast<double>(stampDelta) * 1e-9; }
  static uint64_t FromSeconds(double seconds) { return static_cast<uint64_t>(seconds * 1e9); }
};

// Measures elapsed time from construction (or the last Restart).
class Timer {
 public:
  Timer() : start_(HighPrecisionTime::GetCurrentTimeStamp()) {}
  void Restart() { start_ = HighPrecisionTime::GetCurrentTimeStamp(); }
  double GetElapsedSeconds() const {
    return HighPrecisionTime::ToSeconds(HighPrecisionTime::GetCurrentTimeStamp() - start_);
  }

 private:
  uint64_t start_;
};

}  // namespace zelcore::utility
