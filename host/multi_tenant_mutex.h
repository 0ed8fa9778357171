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
#pragma once

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace zelcore::threads {

class LockUsageError : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

class MultiTenantRecursiveMutex {
 public:
  MultiTenantRecursiveMutex();
  ~MultiTenantRecursiveMutex();
  MultiTenantRecursiveMutex(const MultiTenantRecursiveMutex&) = delete;
  MultiTenantRecursiveMutex& operator=(const MultiTenantRecursiveMutex&) = delete;

  void LockRead();
  void UnlockRead();
  void LockUpgrade();
  void UnlockUpgrade();
  void LockWrite();
  void UnlockWrite();

  // What the calling thread holds (any depth).
  bool IsReadLockedByCurrentThread() const;
  bool IsUpgradeLockedByCurrentThread() const;
  bool IsWriteLockedByCurrentThread() const;
  // Whether the calling thread holds this mutex in any mode.
  bool IsHeldByCurrentThread() const;
  // Whether the calling thread holds any MultiTenantRecursiveMutex at all (used to assert that
  // nobody waits while holding an item lock).
  static bool CurrentThreadHoldsAny();

 private:
  std::atomic<uint32_t> state_{0};
};

class ScopedReadLockWrapper {
 public:
  explicit ScopedReadLockWrapper(MultiTenantRecursiveMutex& m) : m_(&m) { m_->LockRead(); }
  ~ScopedReadLockWrapper() { Unlock(); }
  void Unlock() {
    if (m_) std::exchange(m_, nullptr)->UnlockRead();
  }
  ScopedReadLockWrapper(const ScopedReadLockWrapper&) = delete;
  ScopedReadLockWrapper& operator=(const ScopedReadLockWrapper&) = delete;

 private:
  MultiTenantRecursiveMutex* m_;
};

class ScopedUpgradeLockWrapper {
 public:
  explicit ScopedUpgradeLockWrapper(MultiTenantRecursiveMutex& m) : m_(&m) { m_->LockUpgrade(); }
  ~ScopedUpgradeLockWrapper() { Unlock(); }
  void Unlock() {
    if (m_) std::exchange(m_, nullptr)->UnlockUpgrade();
  }
  MultiTenantRecursiveMutex& mutex() const { return *m_; }
  ScopedUpgradeLockWrapper(const ScopedUpgradeLockWrapper&) = delete;
  ScopedUpgradeLockWrapper& operator=(const ScopedUpgradeLockWrapper&) = delete;

 private:
  MultiTenantRecursiveMutex* m_;
};

class ScopedWriteLockWrapper {
 public:
  explicit ScopedWriteLockWrapper(MultiTenantRecursiveMutex& m) : m_(&m) { m_->LockWrite(); }
  ~ScopedWriteLockWrapper() { Unlock(); }
  void Unlock() {
    if (m_) std::exchange(m_, nullptr)->UnlockWrite();
  }
  ScopedWriteLockWrapper(const ScopedWriteLockWrapper&) = delete;
  ScopedWriteLockWrapper& operator=(const ScopedWriteLockWrapper&) = delete;

 private:
  MultiTenantRecursiveMutex* m_;
};

}  // namespace zelcore::threads
