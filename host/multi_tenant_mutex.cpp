// MultiTenantRecursiveMutex.
//
// The shared word counts tenants, not lock calls: every thread that holds the mutex contributes
// exactly once to state_, according to the strongest mode it holds:
//   read only      -> one reader (low 16 bits)
//   upgrade        -> the upgrader bit
//   write          -> the upgrader and writer bits (a writer excludes upgraders anyway, and
//                     keeping both makes "release write, keep upgrade" a matter of dropping W)
// Recursion and the weaker modes a thread holds beside its strongest one live in a thread-local
// table, so taking a lock the thread already holds never touches the shared word and never waits.
//
// Writers that have to wait (including an upgrader waiting for readers to leave) count
// themselves in state_; new tenants stop at that count, which is what keeps a stream of readers
// from starving a writer. Threads that already hold the mutex are never held up by it.
//
// A thread that must wait spins briefly, then sets the parked bit and sleeps in the parking
// table. Any release that sees the parked bit clears it and wakes the slot, unless the release
// cannot let anybody in (a reader leaving while other readers stay). Because setting and
// clearing that bit are read-modify-writes of state_, a sleeper can never miss its wake-up, and
// an uncontended unlock is one atomic operation.
#include "host/multi_tenant_mutex.h"

#include <functional>
#include <string>
#include <vector>

#include "host/parking.h"

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
namespace {

constexpr uint32_t kOneReader = 1;
constexpr uint32_t kReaderMask = 0xFFFFu;
constexpr uint32_t kOneWaitingWriter = 1u << 16;
constexpr uint32_t kWaitingWriterMask = 0x1FFFu << 16;
constexpr uint32_t kUpgrader = 1u << 29;
constexpr uint32_t kWriter = 1u << 30;
constexpr uint32_t kParked = 1u << 31;

constexpr int kSpinLimit = 40;

constexpr const char* kReadHeldMessage =
    "read lock held: cannot take upgrade/write lock on MultiTenantRecursiveMutex (would "
    "deadlock)";

using Predicate = bool (*)(uint32_t);

// New tenants: stop behind a writer and behind writers waiting for one.
bool CanRead(uint32_t s) { return (s & (kWriter | kWaitingWriterMask)) == 0; }
bool CanUpgrade(uint32_t s) { return (s & (kUpgrader | kWriter | kWaitingWriterMask)) == 0; }
bool CanWrite(uint32_t s) { return (s & (kReaderMask | kUpgrader | kWriter)) == 0; }
// The calling thread holds the upgrader bit: only the readers have to go.
bool CanConvertToWrite(uint32_t s) { return (s & kReaderMask) == 0; }

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  __asm__ __volatile__("yield");
#endif
}

// ThreadSanitizer sees upgrade as a read lock and write as a write lock, and only hears about a
// thread's first acquisition, last release and changes between those two kinds.
enum class TsanMode { kNone, kRead, kWrite };

#if defined(JX_TSAN_ANNOTATIONS)
unsigned TsanFlags(TsanMode mode) {
  return mode == TsanMode::kRead ? static_cast<unsigned>(__tsan_mutex_read_lock) : 0u;
}
void TsanCreate(void* m) { __tsan_mutex_create(m, 0); }
void TsanDestroy(void* m) { __tsan_mutex_destroy(m, 0); }
void TsanPreLock(void* m, TsanMode mode) { __tsan_mutex_pre_lock(m, TsanFlags(mode)); }
void TsanPostLock(void* m, TsanMode mode) { __tsan_mutex_post_lock(m, TsanFlags(mode), 0); }
void TsanPreUnlock(void* m, TsanMode mode) { __tsan_mutex_pre_unlock(m, TsanFlags(mode)); }
void TsanPostUnlock(void* m, TsanMode mode) { __tsan_mutex_post_unlock(m, TsanFlags(mode)); }
#else
void TsanCreate(void*) {}
void TsanDestroy(void*) {}
void TsanPreLock(void*, TsanMode) {}
void TsanPostLock(void*, TsanMode) {}
void TsanPreUnlock(void*, TsanMode) {}
void TsanPostUnlock(void*, TsanMode) {}
#endif

// ---- The calling thread's holdings -------------------------------------------------------

struct Holding {
  const void* mutex;
  uint32_t read;
  uint32_t upgrade;
  uint32_t write;
};

// A thread rarely holds more than a handful of item locks; the inline array is trivially
// destructible so the hot path needs no thread-local initialisation check. The vector only
// comes into play past that.
constexpr uint32_t kInlineHoldings = 8;
struct InlineHoldings {
  Holding items[kInlineHoldings];
  uint32_t count;
  uint32_t overflowCount;
};
constinit thread_local InlineHoldings t_holdings{};
thread_local std::vector<Holding> t_overflow;

Holding* FindHolding(const void* mutex) {
  InlineHoldings& table = t_holdings;
  for (uint32_t i = 0; i < table.count; ++i) {
    if (table.items[i].mutex == mutex) return &table.items[i];
  }
  if (table.overflowCount != 0) {
    for (Holding& h : t_overflow) {
      if (h.mutex == mutex) return &h;
    }
  }
  return nullptr;
}

// The reference stays valid until the table is next modified.
Holding& AddHolding(const void* mutex) {
  InlineHoldings& table = t_holdings;
  if (table.count < kInlineHoldings) {
    table.items[table.count] = Holding{mutex, 0, 0, 0};
    return table.items[table.count++];
  }
  t_overflow.push_back(Holding{mutex, 0, 0, 0});
  ++table.overflowCount;
  return t_overflow.back();
}

void RemoveHolding(Holding* h) {
  InlineHoldings& table = t_holdings;
  if (h >= table.items && h < table.items + kInlineHoldings) {
    *h = table.items[--table.count];
    if (table.overflowCount != 0) {
      table.items[table.count++] = t_overflow.back();
      t_overflow.pop_back();
      --table.overflowCount;
    }
    return;
  }
  *h = t_overflow.back();
  t_overflow.pop_back();
  --table.overflowCount;
}

// What a thread with these holdings contributes to state_.
uint32_t Contribution(const Holding& h) {
  if (h.write != 0) return kUpgrader | kWriter;
  if (h.upgrade != 0) return kUpgrader;
  if (h.read != 0) return kOneReader;
  return 0;
}

TsanMode TsanModeOf(uint32_t contribution) {
  if (contribution & kWriter) return TsanMode::kWrite;
  return contribution != 0 ? TsanMode::kRead : TsanMode::kNone;
}

// ---- Acquiring and releasing the shared word ---------------------------------------------

// Adds `add` to state_ once `can` holds. Writers (`isWriter`) count themselves as waiting from
// their first failed attempt until the attempt that succeeds.
void AcquireSlow(std::atomic<uint32_t>& state, Predicate can, uint32_t add, bool isWriter) {
  uint32_t s = state.load(std::memory_order_relaxed);
  bool counted = false;
  int spins = 0;
  for (;;) {
    if (can(s)) {
      const uint32_t next = s + add - (counted ? kOneWaitingWriter : 0);
      if (state.compare_exchange_weak(s, next, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
        return;
      }
      continue;
    }
    if (isWriter && !counted) {
      if (state.compare_exchange_weak(s, s + kOneWaitingWriter, std::memory_order_relaxed,
                                      std::memory_order_relaxed)) {
        counted = true;
        s += kOneWaitingWriter;
      }
      continue;
    }
    if (spins < kSpinLimit) {
      ++spins;
      CpuRelax();
      s = state.load(std::memory_order_relaxed);
      continue;
    }
    if ((s & kParked) == 0) {
      if (!state.compare_exchange_weak(s, s | kParked, std::memory_order_relaxed,
                                       std::memory_order_relaxed)) {
        continue;
      }
    }
    // Sleep until a release clears the parked bit (it then wakes us) or the way is free.
    detail::ParkUntil(&state, [&state, can] {
      const uint32_t now = state.load(std::memory_order_relaxed);
      return (now & kParked) == 0 || can(now);
    });
    s = state.load(std::memory_order_relaxed);
  }
}

inline void Acquire(std::atomic<uint32_t>& state, Predicate can, uint32_t add, bool isWriter) {
  uint32_t s = state.load(std::memory_order_relaxed);
  if (can(s) && state.compare_exchange_strong(s, s + add, std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
    return;
  }
  AcquireSlow(state, can, add, isWriter);
}

// Replaces the thread's contribution `before` by the weaker `after` (never waits).
void Release(std::atomic<uint32_t>& state, uint32_t before, uint32_t after) {
  // `before` is part of state_, so subtracting it cannot borrow from the other fields.
  const uint32_t delta = after - before;
  const uint32_t old = state.fetch_add(delta, std::memory_order_release);
  if ((old & kParked) == 0) return;
  const uint32_t now = old + delta;
  // One reader leaving while others stay lets nobody in: readers and upgraders that wait are
  // blocked by a writer bit or waiting writers, and writers need the readers gone.
  if (before == kOneReader && after == 0 && (now & kReaderMask) != 0) return;
  state.fetch_and(~kParked, std::memory_order_relaxed);
  detail::WakeAll(&state);
}

void Transition(std::atomic<uint32_t>& state, void* self, uint32_t before, uint32_t after) {
  const TsanMode was = TsanModeOf(before);
  const TsanMode is = TsanModeOf(after);
  if (was == is) {
    Release(state, before, after);
    return;
  }
  TsanPreUnlock(self, was);
  Release(state, before, after);
  TsanPostUnlock(self, was);
  if (is != TsanMode::kNone) {
    TsanPreLock(self, is);
    TsanPostLock(self, is);
  }
}

// Drops one level of the mode `field` and gives back to state_ what the thread no longer holds.
void Unlock(std::atomic<uint32_t>& state, void* self, uint32_t Holding::*field, const char* mode) {
  Holding* h = FindHolding(self);
  if (h == nullptr || h->*field == 0) {
    throw LockUsageError(std::string("unlock of a ") + mode +
                         " lock the thread does not hold on MultiTenantRecursiveMutex");
  }
  const uint32_t before = Contribution(*h);
  --(h->*field);
  const uint32_t after = Contribution(*h);
  if (after == 0) RemoveHolding(h);
  if (before != after) Transition(state, self, before, after);
}

}  // namespace

MultiTenantRecursiveMutex::MultiTenantRecursiveMutex() { TsanCreate(this); }

MultiTenantRecursiveMutex::~MultiTenantRecursiveMutex() { TsanDestroy(this); }

void MultiTenantRecursiveMutex::LockRead() {
  if (Holding* h = FindHolding(this)) {
    ++h->read;  // any mode already held covers reading, whoever waits
    return;
  }
  Holding& h = AddHolding(this);
  TsanPreLock(this, TsanMode::kRead);
  Acquire(state_, CanRead, kOneReader, false);
  TsanPostLock(this, TsanMode::kRead);
  h.read = 1;
}

void MultiTenantRecursiveMutex::LockUpgrade() {
  if (Holding* h = FindHolding(this)) {
    if (h->write == 0 && h->upgrade == 0) throw LockUsageError(kReadHeldMessage);
    ++h->upgrade;
    return;
  }
  Holding& h = AddHolding(this);
  TsanPreLock(this, TsanMode::kRead);
  Acquire(state_, CanUpgrade, kUpgrader, false);
  TsanPostLock(this, TsanMode::kRead);
  h.upgrade = 1;
}

void MultiTenantRecursiveMutex::LockWrite() {
  if (Holding* h = FindHolding(this)) {
    if (h->write != 0) {
      ++h->write;
      return;
    }
    if (h->upgrade == 0) throw LockUsageError(kReadHeldMessage);
    // Upgrade to write: the upgrader bit is ours, wait for the other readers to leave.
    TsanPreUnlock(this, TsanMode::kRead);
    TsanPostUnlock(this, TsanMode::kRead);
    TsanPreLock(this, TsanMode::kWrite);
    Acquire(state_, CanConvertToWrite, kWriter, true);
    TsanPostLock(this, TsanMode::kWrite);
    h->write = 1;
    return;
  }
  Holding& h = AddHolding(this);
  TsanPreLock(this, TsanMode::kWrite);
  Acquire(state_, CanWrite, kUpgrader | kWriter, true);
  TsanPostLock(this, TsanMode::kWrite);
  h.write = 1;
}

void MultiTenantRecursiveMutex::UnlockRead() { Unlock(state_, this, &Holding::read, "read"); }

void MultiTenantRecursiveMutex::UnlockUpgrade() {
  Unlock(state_, this, &Holding::upgrade, "upgrade");
}

void MultiTenantRecursiveMutex::UnlockWrite() { Unlock(state_, this, &Holding::write, "write"); }

bool MultiTenantRecursiveMutex::IsReadLockedByCurrentThread() const {
  const Holding* h = FindHolding(this);
  return h != nullptr && h->read != 0;
}

bool MultiTenantRecursiveMutex::IsUpgradeLockedByCurrentThread() const {
  const Holding* h = FindHolding(this);
  return h != nullptr && h->upgrade != 0;
}

bool MultiTenantRecursiveMutex::IsWriteLockedByCurrentThread() const {
  const Holding* h = FindHolding(this);
  return h != nullptr && h->write != 0;
}

bool MultiTenantRecursiveMutex::IsHeldByCurrentThread() const {
  return FindHolding(this) != nullptr;
}

bool MultiTenantRecursiveMutex::CurrentThreadHoldsAny() {
  const InlineHoldings& table = t_holdings;
  return table.count != 0 || table.overflowCount != 0;
}

}  // namespace zelcore::threads
