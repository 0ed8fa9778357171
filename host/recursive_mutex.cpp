// RecursiveMutex: the lock word is free, locked, or locked with sleepers. A thread that must
// wait marks the word "with sleepers" by exchange and sleeps until the word changes; the unlock
// that finds sleepers wakes them, and each woken thread marks the word again as it takes it, so
// no sleeper is forgotten while others still wait.
#include "jxcache/host/recursive_mutex.h"

#include <stdexcept>

#include "host/parking.h"
#include "jxcache/host/cpu_relax.h"

namespace zelcore::threads {
namespace {

// About 25 microseconds of pauses. The library lock is held for a few hundred nanoseconds at a
// time, but on a virtual machine its holder can lose its processor for a while; parking sooner
// turns every such moment into a sleep and a wake-up of several microseconds each, which under
// two render threads cost a third of the throughput and made it swing from run to run.
constexpr int kSpinLimit = 1000;

}  // namespace

void RecursiveMutex::LockSlow() {
  for (int spins = 0; spins < kSpinLimit; ++spins) {
    CpuRelax();
    uint32_t expected = kFree;
    if (state_.load(std::memory_order_relaxed) == kFree &&
        state_.compare_exchange_weak(expected, kLocked, std::memory_order_acquire,
                                     std::memory_order_relaxed)) {
      return;
    }
  }
  while (state_.exchange(kLockedWithSleepers, std::memory_order_acquire) != kFree) {
    detail::ParkUntil(
        &state_, [this] { return state_.load(std::memory_order_relaxed) != kLockedWithSleepers; });
  }
}

void RecursiveMutex::WakeSleepers() { detail::WakeAll(&state_); }

bool RecursiveMutex::try_lock() {
  const ThreadId me = CurrentThreadId();
  if (owner_.load(std::memory_order_relaxed) == me) {
    ++depth_;
    return true;
  }
  detail::TsanPreTryLock(this);
  uint32_t expected = kFree;
  const bool ok = state_.compare_exchange_strong(expected, kLocked, std::memory_order_acquire,
                                                 std::memory_order_relaxed);
  detail::TsanPostTryLock(this, ok);
  if (!ok) return false;
  owner_.store(me, std::memory_order_relaxed);
  depth_ = 1;
  return true;
}

void RecursiveMutex::ThrowNotOwner() {
  throw std::logic_error("RecursiveMutex unlocked by a thread that does not hold it");
}

}  // namespace zelcore::threads
