#include "jxcache/bag/library_lock.h"

namespace jx::detail {
constinit zelcore::threads::RecursiveMutex g_libraryMutex;
thread_local constinit bool t_releaseDeferred = false;
thread_local constinit bool t_payloadCodeUnderItemLock = false;
}  // namespace jx::detail

namespace {
// What the calling thread handed over while it held the library lock.
thread_local std::deque<std::shared_ptr<void>> t_deferred;
}  // namespace

void JXp_ScLock::ReleaseOutsideLock(std::deque<std::shared_ptr<void>>&& owners) {
  if (owners.empty()) return;
  if (!IsLockedByCurrentThread()) {
    owners.clear();
    return;
  }
  for (auto& owner : owners) t_deferred.push_back(std::move(owner));
  owners.clear();
  jx::detail::t_releaseDeferred = true;
}

void JXp_ScLock::ReleaseDeferred() {
  if (IsLockedByCurrentThread()) return;  // an inner hold ended; the outermost is still held
  jx::detail::t_releaseDeferred = false;
  // Destructors may take the library lock again (and defer more): swap before releasing.
  std::deque<std::shared_ptr<void>> owners;
  owners.swap(t_deferred);
  owners.clear();
}

void JXp_ScLock::LockProfiled() {
  auto& m = Mutex();
  if (m.IsLockedByCurrentThread()) {
    m.lock();
    return;
  }
  {
    zelcore::debug::CodeProfiler wait("KQ.JXp_ScLock - wait");
    m.lock();
  }
  heldProfile_.emplace("KQ.JXp_ScLock - held");
}
