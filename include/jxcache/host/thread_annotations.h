// Clang thread-safety annotations, and a mutex that carries them.
//
// With clang and -Wthread-safety the compiler checks that a field marked GUARDED_BY(mu) is
// touched only with `mu` held (writes: held exclusively; reads: at least shared) and that a
// function marked REQUIRES(mu) or REQUIRES_SHARED(mu) is called only with it so held. The check
// is per function: a lock taken again inside a function that already holds it is reported, even
// where the lock is recursive, while a callee that takes it again is not. Other compilers see
// nothing. The standard library's std::mutex carries no annotations,
// so annotated state is guarded by jx::Mutex and locked through jx::MutexLock; a condition
// variable waits on MutexLock::Native(). A host that defines the same macros keeps its own.
#pragma once

#include <mutex>

#if defined(__clang__)
#define JX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define JX_THREAD_ANNOTATION(x)
#endif

#ifndef CAPABILITY
#define CAPABILITY(x) JX_THREAD_ANNOTATION(capability(x))
#endif
#ifndef SCOPED_CAPABILITY
#define SCOPED_CAPABILITY JX_THREAD_ANNOTATION(scoped_lockable)
#endif
#ifndef GUARDED_BY
#define GUARDED_BY(x) JX_THREAD_ANNOTATION(guarded_by(x))
#endif
#ifndef PT_GUARDED_BY
#define PT_GUARDED_BY(x) JX_THREAD_ANNOTATION(pt_guarded_by(x))
#endif
#ifndef REQUIRES
#define REQUIRES(...) JX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#endif
#ifndef REQUIRES_SHARED
#define REQUIRES_SHARED(...) JX_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#endif
#ifndef ACQUIRE
#define ACQUIRE(...) JX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#endif
#ifndef ACQUIRE_SHARED
#define ACQUIRE_SHARED(...) JX_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#endif
#ifndef RELEASE
#define RELEASE(...) JX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#endif
#ifndef RELEASE_SHARED
#define RELEASE_SHARED(...) JX_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#endif
#ifndef RETURN_CAPABILITY
#define RETURN_CAPABILITY(x) JX_THREAD_ANNOTATION(lock_returned(x))
#endif
#ifndef EXCLUDES
#define EXCLUDES(...) JX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#endif
#ifndef NO_THREAD_SAFETY_ANALYSIS
#define NO_THREAD_SAFETY_ANALYSIS JX_THREAD_ANNOTATION(no_thread_safety_analysis)
#endif

namespace jx {

// A std::mutex the analysis knows about. Not recursive.
class CAPABILITY("mutex") Mutex {
 public:
  void Lock() ACQUIRE() { mu_.lock(); }
  void Unlock() RELEASE() { mu_.unlock(); }

 private:
  friend class MutexLock;
  std::mutex mu_;
};

// Holds a Mutex for its scope. Unlock and Lock let a scope step out of the lock for a while
// (to call out or to free memory) and come back.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mu) ACQUIRE(mu) : lock_(mu.mu_) {}
  ~MutexLock() RELEASE() {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void Unlock() RELEASE() { lock_.unlock(); }
  void Lock() ACQUIRE() { lock_.lock(); }
  // For std::condition_variable, which releases and retakes the lock inside its waits; to the
  // analysis the lock stays held throughout, which is what the code around a wait relies on.
  std::unique_lock<std::mutex>& Native() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace jx
