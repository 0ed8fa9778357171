#include "jxcache/host/high_precision_time.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "jxcache/host/host_services.h"

namespace zelcore::utility::detail {

constinit TscScale g_tscScale;

namespace {

#if defined(__x86_64__)
// Read without allocating: the first stamp may be taken where an allocation must not fail.
bool KernelKeepsTimeByTsc() {
  const int fd = ::open("/sys/devices/system/clocksource/clocksource0/current_clocksource",
                        O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char name[16] = {};
  const ssize_t n = ::read(fd, name, sizeof(name) - 1);
  ::close(fd);
  return n >= 3 && std::strncmp(name, "tsc", 3) == 0 && (n == 3 || name[3] == '\n');
}

// One (counter, clock) pair, taken between two counter reads; the tightest of a few keeps an
// interruption between the reads out of the measurement.
struct Pair {
  uint64_t ticks;
  uint64_t nanos;
};
Pair ReadPair() {
  Pair best{};
  uint64_t bestSpread = ~uint64_t{0};
  for (int i = 0; i < 16; ++i) {
    const uint64_t before = __rdtsc();
    const uint64_t nanos = SteadyNanos();
    const uint64_t after = __rdtsc();
    if (after - before < bestSpread) {
      bestSpread = after - before;
      best = {before + (after - before) / 2, nanos};
    }
  }
  return best;
}

// Measures the counter's rate against the steady clock over a few milliseconds.
bool Calibrate(TscScale& s) {
  constexpr uint64_t kWindowNanos = 4'000'000;
  const Pair first = ReadPair();
  while (SteadyNanos() - first.nanos < kWindowNanos) {
  }
  const Pair last = ReadPair();
  const uint64_t ticks = last.ticks - first.ticks;
  const uint64_t nanos = last.nanos - first.nanos;
  // A counter slower than 100 MHz or faster than 100 GHz is not one to trust.
  if (ticks < nanos / 10 || ticks > nanos * 100) return false;
  s.nanosPerTick32 = static_cast<uint64_t>((static_cast<unsigned __int128>(nanos) << 32) / ticks);
  s.baseTicks = last.ticks;
  s.baseNanos = last.nanos;
  return true;
}
#endif

}  // namespace

// Decides between the counter and the steady clock, once.
int DefaultSource() {
  static std::once_flag once;
  std::call_once(once, [] {
    TscScale& s = g_tscScale;
    int source = 2;
#if defined(__x86_64__)
    if (KernelKeepsTimeByTsc() && Calibrate(s)) source = 1;
#endif
    s.defaultSource = source;
  });
  return g_tscScale.defaultSource;
}

uint64_t FirstTimeStamp() {
  TscScale& s = g_tscScale;
  const int source = DefaultSource();
  // A host clock installed meanwhile keeps its place.
  int undecided = 0;
  s.source.compare_exchange_strong(undecided, source, std::memory_order_acq_rel);
  return HighPrecisionTime::GetCurrentTimeStamp();
}

uint64_t HostTimeStamp() {
  jx::host::Clock* clock = g_tscScale.hostClock.load(std::memory_order_acquire);
  return clock ? clock->NowNanoseconds() : HighPrecisionTime::DefaultTimeStamp();
}

}  // namespace zelcore::utility::detail

namespace zelcore::utility {

uint64_t HighPrecisionTime::DefaultTimeStamp() {
  const detail::TscScale& s = detail::g_tscScale;
  const int source = detail::DefaultSource();
#if defined(__x86_64__)
  if (source == 1) {
    const uint64_t ticks = __rdtsc() - s.baseTicks;
    return s.baseNanos +
           static_cast<uint64_t>((static_cast<unsigned __int128>(ticks) * s.nanosPerTick32) >> 32);
  }
#endif
  return detail::SteadyNanos();
}

void HighPrecisionTime::UseHostClock(jx::host::Clock* clock) {
  detail::TscScale& s = detail::g_tscScale;
  s.hostClock.store(clock, std::memory_order_release);
  s.source.store(clock ? 3 : detail::DefaultSource(), std::memory_order_release);
}

}  // namespace zelcore::utility
