#include "bag/library_lock.h"

namespace {
constexpr int kLockProfileVolume = 6;
}

zelcore::threads::RecursiveMutex& JXp_ScLock::Mutex() {
  static zelcore::threads::RecursiveMutex mutex;
  return mutex;
}

JXp_ScLock::JXp_ScLock() {
  auto& m = Mutex();
  if (zelcore::debug::CodeProfiler::IsConditionalProfiling(kLockProfileVolume) &&
      !m.IsLockedByCurrentThread()) {
    {
      zelcore::debug::CodeProfiler wait("KQ.JXp_ScLock - wait");
      m.lock();
    }
    heldProfile_.emplace("KQ.JXp_ScLock - held");
  } else {
    m.lock();
  }
  locked_ = true;
}

JXp_ScLock::~JXp_ScLock() { Unlock(); }

void JXp_ScLock::Unlock() {
  if (!locked_) return;
  heldProfile_.reset();
  locked_ = false;
  Mutex().unlock();
}
