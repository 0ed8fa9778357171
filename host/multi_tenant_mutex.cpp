// MultiTenantRecursiveMutex: the waiting, converting and reporting paths.
//
// The shared word counts tenants (see the header). Writers that have to wait (including an
// upgrader waiting for readers to leave) count themselves in it; new tenants stop at that count,
// which is what keeps a stream of readers from starving a writer. Threads that already hold the
// mutex are never held up by it.
//
// A thread that must wait spins briefly, then sets the parked bit and sleeps in the parking
// table. Any release that sees the parked bit clears it and wakes the slot, unless the release
// cannot let anybody in (a reader leaving while other readers stay). Because setting and
// clearing that bit are read-modify-writes of the word, a sleeper can never miss its wake-up,
// and an uncontended unlock is one atomic operation.
#include "jxcache/host/multi_tenant_mutex.h"

#include <string>
#include <vector>

#include "host/parking.h"
#include "host/y_api.h"
#include "jxcache/host/cpu_relax.h"

namespace zelcore::threads {

namespace detail {
thread_local constinit MtHoldings t_mtHoldings{};
}  // namespace detail

namespace {

using detail::MtHolding;
using detail::MtHoldings;

constexpr int kSpinLimit = 40;

constexpr const char* kReadHeldMessage =
    "read lock held: cannot take upgrade/write lock on MultiTenantRecursiveMutex (would "
    "deadlock)";

// Read holdings past the inline array; rare, so a plain vector.
thread_local std::vector<MtHolding> t_overflow;

// Waits until `ready(state)` holds, then applies `next(state)` by compare-and-swap. A writer
// (`isWriter`) counts itself as waiting from its first failed attempt until the attempt that
// succeeds; `next` is given whether it did, so it can take that count back.
template <class Ready, class Next>
void WaitAndApply(std::atomic<uint32_t>& state, bool isWriter, uint32_t oneWaitingWriter,
                  uint32_t parked, Ready ready, Next next) {
  uint32_t s = state.load(std::memory_order_relaxed);
  bool counted = false;
  int spins = 0;
  for (;;) {
    if (ready(s)) {
      if (state.compare_exchange_weak(s, next(s, counted), std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
        return;
      }
      continue;
    }
    if (isWriter && !counted) {
      if (state.compare_exchange_weak(s, s + oneWaitingWriter, std::memory_order_relaxed,
                                      std::memory_order_relaxed)) {
        counted = true;
        s += oneWaitingWriter;
      }
      continue;
    }
    if (spins < kSpinLimit) {
      ++spins;
      CpuRelax();
      s = state.load(std::memory_order_relaxed);
      continue;
    }
    if ((s & parked) == 0) {
      if (!state.compare_exchange_weak(s, s | parked, std::memory_order_relaxed,
                                       std::memory_order_relaxed)) {
        continue;
      }
    }
    // Sleep until a release clears the parked bit (it then wakes us) or the way is free.
    detail::ParkUntil(&state, [&state, parked, &ready] {
      const uint32_t now = state.load(std::memory_order_relaxed);
      return (now & parked) == 0 || ready(now);
    });
    s = state.load(std::memory_order_relaxed);
  }
}

}  // namespace

MtHolding* MultiTenantRecursiveMutex::FindOverflowReader() const {
  for (MtHolding& h : t_overflow) {
    if (h.mutex == this) return &h;
  }
  return nullptr;
}

void MultiTenantRecursiveMutex::AddOverflowReader(uint32_t depth) {
  MtHoldings& table = detail::t_mtHoldings;
  if (table.count < detail::kInlineMtHoldings) {
    table.items[table.count++] = MtHolding{this, depth};
    return;
  }
  t_overflow.push_back(MtHolding{this, depth});
  ++table.overflowCount;
}

void MultiTenantRecursiveMutex::RemoveReaderSlow(MtHolding* h) {
  MtHoldings& table = detail::t_mtHoldings;
  if (h >= table.items && h < table.items + detail::kInlineMtHoldings) {
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

void MultiTenantRecursiveMutex::AcquireSlow(uint32_t blockers, uint32_t add, bool isWriter) {
  WaitAndApply(
      state_, isWriter, kOneWaitingWriter, kParked,
      [blockers](uint32_t s) { return (s & blockers) == 0; },
      [add](uint32_t s, bool counted) { return s + add - (counted ? kOneWaitingWriter : 0); });
}

// The upgrader bit is the caller's: wait for the other readers to leave, then add the writer.
void MultiTenantRecursiveMutex::ConvertToWrite() {
  if (upgradeDepth_ == 0) ThrowReadHeld();  // the owner holds only reads: cannot happen
  detail::TsanPreUnlock(this, true);
  detail::TsanPostUnlock(this, true);
  detail::TsanPreLock(this, false);
  WaitAndApply(
      state_, true, kOneWaitingWriter, kParked, [](uint32_t s) { return (s & kReaderMask) == 0; },
      [](uint32_t s, bool counted) { return s + kWriter - (counted ? kOneWaitingWriter : 0); });
  detail::TsanPostLock(this, false);
  writeDepth_ = 1;
}

// The owner gave up upgrade and write but still holds read locks: it becomes a plain reader.
void MultiTenantRecursiveMutex::BecomeReader(uint32_t before) {
  const uint32_t reads = ownerReads_;
  ownerReads_ = 0;
  AddOverflowReader(reads);
  Weaken(before, kOneReader);
}

// Replaces the thread's contribution `before` by the weaker, non-zero `after` (never waits).
void MultiTenantRecursiveMutex::Weaken(uint32_t before, uint32_t after) {
  const bool wasRead = (before & kWriter) == 0;
  const bool isRead = (after & kWriter) == 0;
  if (wasRead != isRead) detail::TsanPreUnlock(this, wasRead);
  const uint32_t old = state_.fetch_sub(before - after, std::memory_order_release);
  if ((old & kParked) != 0) WakeAfterRelease(old - (before - after), before, after);
  if (wasRead != isRead) {
    detail::TsanPostUnlock(this, wasRead);
    detail::TsanPreLock(this, isRead);
    detail::TsanPostLock(this, isRead);
  }
}

// A release saw the parked bit. One reader leaving while others stay lets nobody in (readers
// and upgraders that wait are blocked by a writer bit or waiting writers, and writers need the
// readers gone); any other release clears the bit and wakes the sleepers, who re-check.
void MultiTenantRecursiveMutex::WakeAfterRelease(uint32_t now, uint32_t before, uint32_t after) {
  if (before == kOneReader && after == 0 && (now & kReaderMask) != 0) return;
  state_.fetch_and(~kParked, std::memory_order_relaxed);
  detail::WakeAll(&state_);
}

// Two readers that both upgrade would wait for each other for ever: tell the host, then throw.
void MultiTenantRecursiveMutex::ThrowReadHeld() {
  Y_ReportFailedVerification(kReadHeldMessage);
  throw LockUsageError(kReadHeldMessage);
}

void MultiTenantRecursiveMutex::ThrowBadUnlock(const char* mode) {
  throw LockUsageError(std::string("unlock of a ") + mode +
                       " lock the thread does not hold on MultiTenantRecursiveMutex");
}

}  // namespace zelcore::threads
