// MultiTenantRecursiveMutex: a reader/writer lock with an upgrade mode, recursive per thread.
//
// Modes: any number of readers; or one upgrader together with any number of readers; or one
// writer alone. An upgrader may take the write lock: it then waits for the other readers to
// leave, and new readers wait behind it. Recursion is per thread: a writer may take read,
// upgrade or write again; an upgrader may take read or upgrade again, or write; a reader may
// take read again. A thread that holds only a read lock must not take upgrade or write (two such
// threads would wait for each other for ever): that misuse is reported and throws
// LockUsageError instead of deadlocking. A reader that already holds the lock is never blocked
// by a waiting writer. Unlock calls must mirror lock calls (per mode).
//
// Waiting threads sleep on a process-wide parking table, so a mutex costs one word plus the
// annotations ThreadSanitizer needs.
//
// Item locks are taken several times on every cache hit, so the uncontended cases (a first
// acquisition that finds the way free, recursion, a release that wakes nobody) are inline and
// cost one atomic operation; everything that may wait or must report lives in the .cpp.
//
// For Clang's thread-safety analysis (host/thread_annotations.h), which knows only shared and
// exclusive holders, the mutex is a capability held shared by readers and upgraders and
// exclusively by a writer; and it carries a second capability, its owner role (OwnerRole()),
// held exclusively by the upgrader or writer, the one thread at a time that may change what
// readers only read. So data readers may read is GUARDED_BY(mu); data that only the upgrader or
// writer touches is GUARDED_BY(mu.OwnerRole()); and a function that needs the upgrade lock at
// least is REQUIRES_SHARED(mu) REQUIRES(mu.OwnerRole()). The scoped wrappers below carry the
// annotations; the bare Lock and Unlock calls do not, for the mutex's own tests drive them in
// patterns (recursion, misuse) the analysis cannot follow, and nothing else calls them. The
// analysis sees no recursion either: a wrapper taken in a function that already holds the mutex
// is reported, so the code takes the write lock on top of an upgrade lock in a function of its
// own.
#pragma once

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "jxcache/host/export.h"
#include "jxcache/host/thread_annotations.h"
#include "jxcache/host/thread_id.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define JX_TSAN_ANNOTATIONS 1
#endif
#endif
#if !defined(JX_TSAN_ANNOTATIONS) && defined(__SANITIZE_THREAD__)
#define JX_TSAN_ANNOTATIONS 1
#endif
#if defined(JX_TSAN_ANNOTATIONS)
#include <sanitizer/tsan_interface.h>
#endif

namespace zelcore::threads {

class LockUsageError : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

namespace detail {

// ThreadSanitizer hears about hand-written locks through these; they compile to nothing
// otherwise. `read` marks a shared acquisition.
#if defined(JX_TSAN_ANNOTATIONS)
inline unsigned TsanReadFlag(bool read) { return read ? __tsan_mutex_read_lock : 0u; }
inline void TsanCreate(void* m) { __tsan_mutex_create(m, 0); }
inline void TsanDestroy(void* m) { __tsan_mutex_destroy(m, 0); }
inline void TsanPreLock(void* m, bool read) { __tsan_mutex_pre_lock(m, TsanReadFlag(read)); }
inline void TsanPostLock(void* m, bool read) { __tsan_mutex_post_lock(m, TsanReadFlag(read), 0); }
inline void TsanPreUnlock(void* m, bool read) { __tsan_mutex_pre_unlock(m, TsanReadFlag(read)); }
inline void TsanPostUnlock(void* m, bool read) { __tsan_mutex_post_unlock(m, TsanReadFlag(read)); }
inline void TsanPreTryLock(void* m) { __tsan_mutex_pre_lock(m, __tsan_mutex_try_lock); }
inline void TsanPostTryLock(void* m, bool ok) {
  __tsan_mutex_post_lock(m, ok ? __tsan_mutex_try_lock : __tsan_mutex_try_lock_failed, 0);
}
#else
inline void TsanCreate(void*) {}
inline void TsanDestroy(void*) {}
inline void TsanPreLock(void*, bool) {}
inline void TsanPostLock(void*, bool) {}
inline void TsanPreUnlock(void*, bool) {}
inline void TsanPostUnlock(void*, bool) {}
inline void TsanPreTryLock(void*) {}
inline void TsanPostTryLock(void*, bool) {}
#endif

// A mutex the calling thread holds as a reader only, and how often.
struct MtHolding {
  const void* mutex;
  uint32_t read;
};

// The calling thread's read holdings. A thread rarely holds more than a handful of item locks:
// the inline array is trivially destructible, so reaching it needs no thread-local
// initialisation check; holdings past it go to an overflow vector in the .cpp. `owned` counts
// the mutexes the thread holds as upgrader or writer (those record their owner in the mutex).
inline constexpr uint32_t kInlineMtHoldings = 8;
struct MtHoldings {
  MtHolding items[kInlineMtHoldings];
  uint32_t count;
  uint32_t overflowCount;
  uint32_t owned;
};
extern JX_EXPORT thread_local constinit MtHoldings t_mtHoldings;

}  // namespace detail

class JX_EXPORT CAPABILITY("mutex") MultiTenantRecursiveMutex {
 public:
  // The owner role (see the top of this file): a capability with no state of its own.
  struct CAPABILITY("owner role") OwnerRoleCapability {};
  const OwnerRoleCapability& OwnerRole() const RETURN_CAPABILITY(ownerRole_) { return ownerRole_; }

  MultiTenantRecursiveMutex() { detail::TsanCreate(this); }
  ~MultiTenantRecursiveMutex() { detail::TsanDestroy(this); }
  MultiTenantRecursiveMutex(const MultiTenantRecursiveMutex&) = delete;
  MultiTenantRecursiveMutex& operator=(const MultiTenantRecursiveMutex&) = delete;

  void LockRead() {
    if (IsOwner()) {
      ++ownerReads_;  // the upgrade or write lock already covers reading
      return;
    }
    if (detail::MtHolding* h = FindReader()) {
      ++h->read;  // a reader already in is never held up, whoever waits
      return;
    }
    detail::TsanPreLock(this, true);
    Acquire(kReaderBlockers, kOneReader, false);
    detail::TsanPostLock(this, true);
    AddReader();
  }
  void LockUpgrade() {
    if (IsOwner()) {
      ++upgradeDepth_;
      return;
    }
    if (FindReader() != nullptr) ThrowReadHeld();
    detail::TsanPreLock(this, true);  // an upgrader reads, as far as ThreadSanitizer knows
    Acquire(kUpgraderBlockers, kUpgrader, false);
    detail::TsanPostLock(this, true);
    TakeOwnership();
    upgradeDepth_ = 1;
  }
  void LockWrite() {
    if (IsOwner()) {
      if (writeDepth_ != 0) {
        ++writeDepth_;
      } else {
        ConvertToWrite();  // the upgrader waits for the other readers to leave
      }
      return;
    }
    if (FindReader() != nullptr) ThrowReadHeld();
    detail::TsanPreLock(this, false);
    Acquire(kWriterBlockers, kUpgrader | kWriter, true);
    detail::TsanPostLock(this, false);
    TakeOwnership();
    writeDepth_ = 1;
  }

  void UnlockRead() {
    if (IsOwner()) {
      if (ownerReads_ == 0) ThrowBadUnlock("read");
      --ownerReads_;
      return;
    }
    detail::MtHolding* h = FindReader();
    if (h == nullptr) ThrowBadUnlock("read");
    if (--h->read != 0) return;
    RemoveReader(h);
    Release(kOneReader);
  }
  void UnlockUpgrade() {
    if (!IsOwner() || upgradeDepth_ == 0) ThrowBadUnlock("upgrade");
    if (--upgradeDepth_ != 0 || writeDepth_ != 0) return;
    GiveUpOwnership(kUpgrader);
  }
  void UnlockWrite() {
    if (!IsOwner() || writeDepth_ == 0) ThrowBadUnlock("write");
    if (--writeDepth_ != 0) return;
    if (upgradeDepth_ != 0) return Weaken(kUpgrader | kWriter, kUpgrader);
    GiveUpOwnership(kUpgrader | kWriter);
  }

  // What the calling thread holds (any depth).
  bool IsReadLockedByCurrentThread() const {
    if (IsOwner()) return ownerReads_ != 0;
    return FindReader() != nullptr;
  }
  bool IsUpgradeLockedByCurrentThread() const { return IsOwner() && upgradeDepth_ != 0; }
  bool IsWriteLockedByCurrentThread() const { return IsOwner() && writeDepth_ != 0; }
  // Whether the calling thread holds this mutex in any mode.
  bool IsHeldByCurrentThread() const { return IsOwner() || FindReader() != nullptr; }
  // Whether the calling thread holds any MultiTenantRecursiveMutex at all (used to assert that
  // nobody waits while holding an item lock).
  static bool CurrentThreadHoldsAny() {
    const detail::MtHoldings& table = detail::t_mtHoldings;
    return (table.count | table.overflowCount | table.owned) != 0;
  }

 private:
  // The shared word counts tenants, not lock calls: every thread that holds the mutex
  // contributes exactly once, according to the strongest mode it holds (read only: one reader;
  // upgrade: the upgrader bit; write: the upgrader and writer bits). There is at most one
  // upgrader-or-writer, and it records itself in owner_ with its depths, which only it touches;
  // readers keep their depth in their thread's holdings. Taking a lock the thread already holds
  // therefore never touches the shared word and never waits.
  static constexpr uint32_t kOneReader = 1;
  static constexpr uint32_t kReaderMask = 0xFFFFu;
  static constexpr uint32_t kOneWaitingWriter = 1u << 16;
  static constexpr uint32_t kWaitingWriterMask = 0x1FFFu << 16;
  static constexpr uint32_t kUpgrader = 1u << 29;
  static constexpr uint32_t kWriter = 1u << 30;
  static constexpr uint32_t kParked = 1u << 31;
  // New tenants stop behind a writer and behind writers waiting for one; a writer needs the
  // word empty.
  static constexpr uint32_t kReaderBlockers = kWriter | kWaitingWriterMask;
  static constexpr uint32_t kUpgraderBlockers = kUpgrader | kWriter | kWaitingWriterMask;
  static constexpr uint32_t kWriterBlockers = kReaderMask | kUpgrader | kWriter;

  // Only the calling thread ever stores its own id here, so a relaxed read cannot mistake
  // another thread's ownership for its own, nor the reverse.
  bool IsOwner() const { return owner_.load(std::memory_order_relaxed) == CurrentThreadId(); }

  detail::MtHolding* FindReader() const {
    detail::MtHoldings& table = detail::t_mtHoldings;
    // Newest first: a thread usually releases what it took last.
    for (uint32_t i = table.count; i-- > 0;) {
      if (table.items[i].mutex == this) return &table.items[i];
    }
    return table.overflowCount != 0 ? FindOverflowReader() : nullptr;
  }
  void AddReader() {
    detail::MtHoldings& table = detail::t_mtHoldings;
    if (table.count < detail::kInlineMtHoldings) {
      table.items[table.count++] = detail::MtHolding{this, 1};
    } else {
      AddOverflowReader(1);
    }
  }
  void RemoveReader(detail::MtHolding* h) {
    detail::MtHoldings& table = detail::t_mtHoldings;
    if (table.overflowCount == 0) {
      // Usually the newest holding: copying it onto itself would read back, as one wide load,
      // the narrow stores that just made it, which stalls the store forwarding.
      detail::MtHolding* last = &table.items[--table.count];
      if (h != last) *h = *last;
    } else {
      RemoveReaderSlow(h);
    }
  }
  void TakeOwnership() {
    owner_.store(CurrentThreadId(), std::memory_order_relaxed);
    ++detail::t_mtHoldings.owned;
  }
  // The owner lets go of upgrade and write; `before` is what it contributed. It stays a reader
  // when it still holds read locks.
  void GiveUpOwnership(uint32_t before) {
    owner_.store(kNoOwner, std::memory_order_relaxed);
    --detail::t_mtHoldings.owned;
    if (ownerReads_ != 0) return BecomeReader(before);
    Release(before);
  }

  // Adds `add` to the shared word once none of `blockers` is set.
  void Acquire(uint32_t blockers, uint32_t add, bool isWriter) {
    uint32_t s = state_.load(std::memory_order_relaxed);
    if ((s & blockers) != 0 ||
        !state_.compare_exchange_strong(s, s + add, std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
      AcquireSlow(blockers, add, isWriter);
    }
  }
  void Release(uint32_t before) {
    const bool read = (before & kWriter) == 0;
    detail::TsanPreUnlock(this, read);
    const uint32_t old = state_.fetch_sub(before, std::memory_order_release);
    if ((old & kParked) != 0) WakeAfterRelease(old - before, before, 0);
    detail::TsanPostUnlock(this, read);
  }

  // Out of line: waiting, conversions, overflow, misuse.
  void AcquireSlow(uint32_t blockers, uint32_t add, bool isWriter);
  void ConvertToWrite();
  void BecomeReader(uint32_t before);
  void Weaken(uint32_t before, uint32_t after);
  void WakeAfterRelease(uint32_t now, uint32_t before, uint32_t after);
  detail::MtHolding* FindOverflowReader() const;
  void AddOverflowReader(uint32_t depth);
  static void RemoveReaderSlow(detail::MtHolding* h);
  [[noreturn]] static void ThrowReadHeld();
  [[noreturn]] static void ThrowBadUnlock(const char* mode);

  static constexpr ThreadId kNoOwner = kNoThread;

  // The owner first: the four 32-bit words then pack behind it without padding (the mutex sits
  // in every cached item).
  std::atomic<ThreadId> owner_{kNoOwner};
  std::atomic<uint32_t> state_{0};
  // Touched only by the owner, but one owner follows another: relaxed atomics, because
  // ThreadSanitizer sees no order between an upgrader leaving and the next one arriving (both are
  // shared holders to it), although the shared word orders them.
  struct OwnerCount {
    std::atomic<uint32_t> n{0};
    operator uint32_t() const { return n.load(std::memory_order_relaxed); }
    OwnerCount& operator=(uint32_t v) {
      n.store(v, std::memory_order_relaxed);
      return *this;
    }
    uint32_t operator++() { return (*this = *this + 1), *this; }
    uint32_t operator--() { return (*this = *this - 1), *this; }
  };
  OwnerCount upgradeDepth_;
  OwnerCount writeDepth_;
  OwnerCount ownerReads_;  // read locks taken while upgrader or writer
  [[no_unique_address]] OwnerRoleCapability ownerRole_;
};

class SCOPED_CAPABILITY ScopedReadLockWrapper {
 public:
  explicit ScopedReadLockWrapper(MultiTenantRecursiveMutex& m) ACQUIRE_SHARED(m) : m_(&m) {
    m_->LockRead();
  }
  ~ScopedReadLockWrapper() RELEASE() { Unlock(); }
  void Unlock() RELEASE() {
    if (m_) std::exchange(m_, nullptr)->UnlockRead();
  }
  ScopedReadLockWrapper(const ScopedReadLockWrapper&) = delete;
  ScopedReadLockWrapper& operator=(const ScopedReadLockWrapper&) = delete;

 private:
  MultiTenantRecursiveMutex* m_;
};

class SCOPED_CAPABILITY ScopedUpgradeLockWrapper {
 public:
  explicit ScopedUpgradeLockWrapper(MultiTenantRecursiveMutex& m) ACQUIRE_SHARED(m)
      ACQUIRE(m.OwnerRole())
      : m_(&m) {
    m_->LockUpgrade();
  }
  ~ScopedUpgradeLockWrapper() RELEASE() { Unlock(); }
  void Unlock() RELEASE() {
    if (m_) std::exchange(m_, nullptr)->UnlockUpgrade();
  }
  MultiTenantRecursiveMutex& mutex() const { return *m_; }
  ScopedUpgradeLockWrapper(const ScopedUpgradeLockWrapper&) = delete;
  ScopedUpgradeLockWrapper& operator=(const ScopedUpgradeLockWrapper&) = delete;

 private:
  MultiTenantRecursiveMutex* m_;
};

class SCOPED_CAPABILITY ScopedWriteLockWrapper {
 public:
  explicit ScopedWriteLockWrapper(MultiTenantRecursiveMutex& m) ACQUIRE(m, m.OwnerRole()) : m_(&m) {
    m_->LockWrite();
  }
  ~ScopedWriteLockWrapper() RELEASE() { Unlock(); }
  void Unlock() RELEASE() {
    if (m_) std::exchange(m_, nullptr)->UnlockWrite();
  }
  ScopedWriteLockWrapper(const ScopedWriteLockWrapper&) = delete;
  ScopedWriteLockWrapper& operator=(const ScopedWriteLockWrapper&) = delete;

 private:
  MultiTenantRecursiveMutex* m_;
};

}  // namespace zelcore::threads
