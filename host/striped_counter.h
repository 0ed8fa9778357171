// StripedCounter: a process-wide statistic that many threads change at once.
//
// A single atomic word bounced between the cores of every thread that touches it; here each
// thread adds to the stripe of its own id, and a read sums the stripes. A read that races
// changes may be momentarily off, as any counter read is; at rest it is exact.
#pragma once

#include <atomic>
#include <cstddef>

#include "host/thread_id.h"

namespace zelcore::utility {

template <class T>
class StripedCounter {
 public:
  constexpr StripedCounter() = default;
  StripedCounter(const StripedCounter&) = delete;
  StripedCounter& operator=(const StripedCounter&) = delete;

  void fetch_add(T delta, std::memory_order order = std::memory_order_relaxed) {
    Mine().fetch_add(delta, order);
  }
  void fetch_sub(T delta, std::memory_order order = std::memory_order_relaxed) {
    Mine().fetch_sub(delta, order);
  }
  T load(std::memory_order order = std::memory_order_relaxed) const {
    T sum{};
    for (const Stripe& s : stripes_) sum += s.value.load(order);
    return sum;
  }
  operator T() const { return load(); }

 private:
  static constexpr size_t kStripes = 16;
  struct alignas(64) Stripe {
    std::atomic<T> value{};
  };
  std::atomic<T>& Mine() { return stripes_[zelcore::threads::CurrentThreadId() % kStripes].value; }

  Stripe stripes_[kStripes];
};

}  // namespace zelcore::utility
