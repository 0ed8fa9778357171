// StripedCounter: a process-wide statistic that many threads change at once.
//
// A single atomic word bounced between the cores of every thread that touches it, and even
// uncontended, a locked add costs as much as an uncontended lock. Here each live thread owns a
// stripe (see CurrentThreadSlot): only the owner writes it, with a plain load and store, and a
// read sums the stripes. Threads beyond the stripes share one word with locked adds. A read that
// races changes may be momentarily off, as any counter read is; at rest it is exact.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "jxcache/host/thread_id.h"

namespace zelcore::utility {

template <class T>
class StripedCounter {
 public:
  constexpr StripedCounter() = default;
  StripedCounter(const StripedCounter&) = delete;
  StripedCounter& operator=(const StripedCounter&) = delete;

  // Relaxed: a counter orders nothing else. A thread's own changes stay in its order.
  void fetch_add(T delta) {
    const uint32_t slot = zelcore::threads::CurrentThreadSlot();
    if (slot < zelcore::threads::kThreadSlots) {
      std::atomic<T>& mine = stripes_[slot].value;
      mine.store(mine.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
    } else {
      shared_.fetch_add(delta, std::memory_order_relaxed);
    }
  }
  void fetch_sub(T delta) { fetch_add(static_cast<T>(T{} - delta)); }
  T load() const {
    T sum = shared_.load(std::memory_order_relaxed);
    for (const Stripe& s : stripes_) sum += s.value.load(std::memory_order_relaxed);
    return sum;
  }
  operator T() const { return load(); }

 private:
  struct alignas(128) Stripe {
    std::atomic<T> value{};
  };
  Stripe stripes_[zelcore::threads::kThreadSlots];
  alignas(128) std::atomic<T> shared_{};
};

}  // namespace zelcore::utility
