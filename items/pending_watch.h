// The pending watchdog: notices a pending item whose creator has not filled it within the time
// "JX.PendingOverdueMs" allows (default 30 s; 0 turns the watchdog off) and reports it once,
// naming the item, the thread rendering it and how many threads wait for it.
//
// A renderer that never fills its item stalls every thread that asked for the same frame, with
// nothing in the cache's state to tell why; this says which item and whose thread.
//
// Cost: an item is noted when it is created pending and forgotten when it is completed or
// destroyed (a miss path, under a leaf mutex); a hit never touches the registry. The check runs
// on an executor of its own, queued only while some item is pending, every quarter of the
// allowed time (at least 10 ms, at most 1 s). It reports to the host with no lock of the
// library held: the host may call back into the cache.
//
// Locks: the registry's mutex is a leaf; it may be taken under the library lock and item locks.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "jxcache/host/executor.h"
#include "jxcache/host/guid.h"
#include "jxcache/host/thread_id.h"

class JX_Stuff;

namespace jx::pending {

// Notes a newly created pending item, rendered by the calling thread. Does nothing while the
// watchdog is off. The item must call Forget before its memory goes.
void Watch(const JX_Stuff& item, const zelcore::utility::Guid& guid);
// The item is no longer pending (or is being destroyed).
void Forget(const JX_Stuff& item);

// An item found overdue by a check.
struct Overdue {
  std::string key;
  zelcore::threads::ThreadId creator = zelcore::threads::kNoThread;
  uint32_t waiters = 0;
  uint64_t pendingMs = 0;
};
// Items pending for longer than the allowed time that no earlier check reported; each one is
// returned once. Counts them (JX_StuffCounters::pendingOverdue). Takes no lock but the
// registry's, and calls nobody.
std::vector<Overdue> TakeNewlyOverdue();
// One check as the watchdog runs it: TakeNewlyOverdue, then a report and a trace for each item.
// Must be called holding no library lock and no item lock. Returns the items reported.
size_t CheckAndReport();

// The periodic check on `executor`, made (it allocates) before a start-up changes anything, so
// that a start-up refused for memory leaves the running watchdog as it was.
struct PreparedWatchdog {
  std::shared_ptr<zelcore::threads::Executor> executor;
  std::shared_ptr<zelcore::threads::QueueOnlyOnce> check;
};
PreparedWatchdog PrepareWatchdog(std::shared_ptr<zelcore::threads::Executor> executor);
// Puts `prepared` in force, replacing the previous watchdog (whose executor is shut down), and
// stops it: queued checks are dropped and a running one waited for. Neither throws.
void StartWatchdog(PreparedWatchdog prepared) noexcept;
void StopWatchdog() noexcept;

// The allowed time in milliseconds (0: off): "JX.PendingOverdueMs", unless a test set another.
uint32_t OverdueLimitMs();
// Tests only: replaces the setting for the rest of the process (items already pending keep
// being watched; items created while it is 0 are not).
void SetOverdueLimitMsForTests(uint32_t ms);
// The number of pending items being watched.
size_t WatchedCount();

}  // namespace jx::pending
