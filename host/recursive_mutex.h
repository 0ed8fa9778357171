// A recursive mutex that knows its owner, so callers can ask whether they already hold it.
// Any thread may lock it; the owning thread may lock it again and must unlock as often.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "host/thread_id.h"

namespace zelcore::threads {

class RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void lock();
  bool try_lock();
  void unlock();
  bool IsLockedByCurrentThread() const {
    return owner_.load(std::memory_order_relaxed) == CurrentThreadId();
  }

 private:
  std::mutex mutex_;
  std::atomic<ThreadId> owner_{kNoThread};
  uint32_t depth_ = 0;  // touched only by the owner
};

}  // namespace zelcore::threads
