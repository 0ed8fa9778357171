// A recursive mutex that knows its owner, so callers can ask whether they already hold it.
// Any thread may lock it; the owning thread may lock it again and must unlock as often.
//
// It is the library lock, taken twice on every cache hit, so the uncontended lock and unlock are
// inline and cost one atomic operation each. A thread that finds it taken spins briefly (the
// holder usually leaves within a few hundred nanoseconds) and then sleeps in the parking table.
#pragma once

#include <atomic>
#include <cstdint>

#include "jxcache/host/export.h"
#include "jxcache/host/multi_tenant_mutex.h"
#include "jxcache/host/thread_id.h"

namespace zelcore::threads {

class JX_EXPORT RecursiveMutex {
 public:
  // Constant-initialised, so a process-wide instance needs no guard on every use;
  // ThreadSanitizer learns of the mutex at its first acquisition.
  constexpr RecursiveMutex() = default;
  ~RecursiveMutex() { detail::TsanDestroy(this); }
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void lock() {
    const ThreadId me = CurrentThreadId();
    if (owner_.load(std::memory_order_relaxed) == me) {
      ++depth_;
      return;
    }
    detail::TsanPreLock(this, false);
    uint32_t expected = kFree;
    if (!state_.compare_exchange_strong(expected, kLocked, std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
      LockSlow();
    }
    detail::TsanPostLock(this, false);
    owner_.store(me, std::memory_order_relaxed);
    depth_ = 1;
  }
  bool try_lock();
  void unlock() {
    // Unlocking a mutex the thread does not hold would corrupt the owner's depth: fail loudly.
    if (!IsLockedByCurrentThread()) ThrowNotOwner();
    if (--depth_ != 0) return;
    owner_.store(kNoThread, std::memory_order_relaxed);
    detail::TsanPreUnlock(this, false);
    if (state_.exchange(kFree, std::memory_order_release) == kLockedWithSleepers) WakeSleepers();
    detail::TsanPostUnlock(this, false);
  }
  // owner_ can be read relaxed: the only thread that can ever store the caller's id into it is
  // the caller itself, so a stale value can never look like "mine" when it is not, nor the
  // reverse.
  bool IsLockedByCurrentThread() const {
    return owner_.load(std::memory_order_relaxed) == CurrentThreadId();
  }

 private:
  static constexpr uint32_t kFree = 0;
  static constexpr uint32_t kLocked = 1;
  static constexpr uint32_t kLockedWithSleepers = 2;

  void LockSlow();
  void WakeSleepers();
  [[noreturn]] static void ThrowNotOwner();

  std::atomic<uint32_t> state_{kFree};
  std::atomic<ThreadId> owner_{kNoThread};
  uint32_t depth_ = 0;  // touched only by the owner
};

}  // namespace zelcore::threads
