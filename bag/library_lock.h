// JXp_ScLock: the library lock, one process-wide recursive mutex held through a scoped object.
//
// It guards every bag's recency set and counts, every sort directory, and every item's bag
// membership. It is the first lock in the order: library lock -> item lock -> item GUID spin
// lock. A thread holding it must not wait on a pending item's gate, a condition, an executor or
// a sleep, and must not free payload memory (purges hand memory to a deferred queue instead).
// Functions taking `const JXp_ScLock&` require the caller to hold it; the argument proves it.
#pragma once

#include <optional>

#include "host/export.h"
#include "host/profiler.h"
#include "host/recursive_mutex.h"

class JX_EXPORT JXp_ScLock {
 public:
  JXp_ScLock();
  ~JXp_ScLock();
  JXp_ScLock(const JXp_ScLock&) = delete;
  JXp_ScLock& operator=(const JXp_ScLock&) = delete;

  // Releases early; the destructor then does nothing.
  void Unlock();
  static bool IsLockedByCurrentThread() { return Mutex().IsLockedByCurrentThread(); }
  static zelcore::threads::RecursiveMutex& Mutex();

 private:
  bool locked_ = false;
  std::optional<zelcore::debug::CodeProfiler> heldProfile_;
};
