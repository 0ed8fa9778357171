// RecursiveMutex: a std::mutex plus the owner's id and a depth only the owner touches.
//
// owner_ can be read relaxed: the only thread that can ever store the caller's id into it is the
// caller itself, so a stale value can never look like "mine" when it is not, nor the reverse.
#include "host/recursive_mutex.h"

#include <stdexcept>

namespace zelcore::threads {

void RecursiveMutex::lock() {
  const ThreadId me = CurrentThreadId();
  if (owner_.load(std::memory_order_relaxed) == me) {
    ++depth_;
    return;
  }
  mutex_.lock();
  owner_.store(me, std::memory_order_relaxed);
  depth_ = 1;
}

bool RecursiveMutex::try_lock() {
  const ThreadId me = CurrentThreadId();
  if (owner_.load(std::memory_order_relaxed) == me) {
    ++depth_;
    return true;
  }
  if (!mutex_.try_lock()) return false;
  owner_.store(me, std::memory_order_relaxed);
  depth_ = 1;
  return true;
}

void RecursiveMutex::unlock() {
  // Unlocking a mutex the thread does not hold would corrupt the owner's depth: fail loudly.
  if (!IsLockedByCurrentThread()) {
    throw std::logic_error("RecursiveMutex unlocked by a thread that does not hold it");
  }
  if (--depth_ == 0) {
    owner_.store(kNoThread, std::memory_order_relaxed);
    mutex_.unlock();
  }
}

}  // namespace zelcore::threads
