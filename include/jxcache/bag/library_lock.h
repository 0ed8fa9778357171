// JXp_ScLock: the library lock, one process-wide recursive mutex held through a scoped object.
//
// It guards every bag's recency set and counts, every change to a sort directory, and every
// item's bag membership. (A read-only search reads a directory shard under that shard's spin
// word instead, and takes an item only after checking, under the item's lock, that it is still
// there.) It is the first lock in the order: library lock -> item lock -> item GUID spin lock.
// A thread holding it must not wait on a pending item's gate, a condition, an executor or a
// sleep, and must not free payload memory (purges hand memory to a deferred queue instead).
// Functions taking `const JXp_ScLock&` require the caller to hold it; the argument proves it.
//
// Construction and destruction are inline, and only open the profiler scopes
// ("KQ.JXp_ScLock - wait", "KQ.JXp_ScLock - held") when conditional profiling runs at volume 6
// or more.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <optional>

#include "jxcache/host/export.h"
#include "jxcache/host/multi_tenant_mutex.h"
#include "jxcache/host/profiler.h"
#include "jxcache/host/recursive_mutex.h"

namespace jx {
// The tag of a purge's hold of the library lock (see JXp_ScLock(jx::TryIfItemLockHeld)).
struct TryIfItemLockHeld {};
inline constexpr TryIfItemLockHeld kTryIfItemLockHeld{};
}  // namespace jx

namespace jx::detail {
extern JX_EXPORT constinit zelcore::threads::RecursiveMutex g_libraryMutex;
// Set while the calling thread has memory waiting for its outermost release of the lock.
extern JX_EXPORT thread_local constinit bool t_releaseDeferred;
// Set while the calling thread runs a payload's own code under its item's lock (a read back).
extern JX_EXPORT thread_local constinit bool t_payloadCodeUnderItemLock;
}  // namespace jx::detail

namespace jx {
// Marks the scope in which a payload's own code runs under its item's lock: the host code it
// calls may purge, and such a purge must not wait for the library lock (see JXp_ScLock).
class ScPayloadCodeUnderItemLock {
 public:
  ScPayloadCodeUnderItemLock() : previous_(detail::t_payloadCodeUnderItemLock) {
    detail::t_payloadCodeUnderItemLock = true;
  }
  ~ScPayloadCodeUnderItemLock() { detail::t_payloadCodeUnderItemLock = previous_; }
  ScPayloadCodeUnderItemLock(const ScPayloadCodeUnderItemLock&) = delete;
  ScPayloadCodeUnderItemLock& operator=(const ScPayloadCodeUnderItemLock&) = delete;

 private:
  const bool previous_;
};
}  // namespace jx

class JX_EXPORT JXp_ScLock {
 public:
  JXp_ScLock() { Lock(); }
  // For a purge, which a payload's own code may ask for while its item's lock is held (a read
  // back that makes room for what it reads, see ScPayloadCodeUnderItemLock). Such a thread,
  // unless it holds this lock already, must not wait for this one, whose holder may be waiting
  // for that very item: it only tries it (see owns_lock()). Any other thread takes it, also one
  // that holds a check-out handle's lock, which comes before this one.
  explicit JXp_ScLock(jx::TryIfItemLockHeld) {
    if (jx::detail::t_payloadCodeUnderItemLock && !IsLockedByCurrentThread()) {
      locked_ = !zelcore::debug::CodeProfiler::IsConditionalProfiling(kProfileVolume) &&
                Mutex().try_lock();
    } else {
      Lock();
    }
  }
  // Takes the lock only if nobody holds it (or the caller already does); see owns_lock().
  explicit JXp_ScLock(std::try_to_lock_t) {
    locked_ =
        !zelcore::debug::CodeProfiler::IsConditionalProfiling(kProfileVolume) && Mutex().try_lock();
  }
  ~JXp_ScLock() { Unlock(); }
  bool owns_lock() const { return locked_; }
  JXp_ScLock(const JXp_ScLock&) = delete;
  JXp_ScLock& operator=(const JXp_ScLock&) = delete;

  // Releases early; the destructor then does nothing.
  void Unlock() {
    if (!locked_) return;
    heldProfile_.reset();
    locked_ = false;
    Mutex().unlock();
    if (jx::detail::t_releaseDeferred) [[unlikely]]
      ReleaseDeferred();
  }
  // Releases `owners` (memory, files to drop) once the calling thread holds no library lock:
  // at once when it holds none, else when its outermost hold ends. Freeing a large payload, or
  // running a plug-in's delete callback, must never stall the threads waiting for the lock.
  static void ReleaseOutsideLock(std::deque<std::shared_ptr<void>>&& owners);
  static bool IsLockedByCurrentThread() { return Mutex().IsLockedByCurrentThread(); }
  // Whether the calling thread holds neither this lock nor an item's lock: what any wait of the
  // library's (a gate, a condition, a join, a sleep) needs, since the thread it waits for may
  // need one of them to finish.
  static bool CurrentThreadHoldsNoCacheLock() {
    return !IsLockedByCurrentThread() &&
           !zelcore::threads::MultiTenantRecursiveMutex::CurrentThreadHoldsAny();
  }
  static zelcore::threads::RecursiveMutex& Mutex() { return jx::detail::g_libraryMutex; }

 private:
  static constexpr int kProfileVolume = 6;
  void Lock() {
    if (zelcore::debug::CodeProfiler::IsConditionalProfiling(kProfileVolume)) {
      LockProfiled();
    } else {
      Mutex().lock();
    }
    locked_ = true;
  }
  void LockProfiled();
  static void ReleaseDeferred();

  bool locked_ = false;
  std::optional<zelcore::debug::CodeProfiler> heldProfile_;
};
