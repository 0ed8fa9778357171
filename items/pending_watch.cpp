// The pending watchdog: a registry of pending items and the periodic check that reports the
// overdue ones.
#include "items/pending_watch.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <sstream>
#include <unordered_map>

#include "common/settings.h"
#include "host/text_encoding.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "jxcache/host/high_precision_time.h"
#include "jxcache/host/thread_annotations.h"
#include "jxcache/items/stuff.h"

using zelcore::utility::HighPrecisionTime;

namespace jx::pending {
namespace {

constexpr int32_t kCacheErrorClass = 0x3a0000;
constexpr int32_t kSeverityWarning = 1;
constexpr uint32_t kMinTickMs = 10;
constexpr uint32_t kMaxTickMs = 1000;
constexpr uint64_t kNanosPerMs = 1'000'000;

struct Entry {
  zelcore::utility::Guid guid;
  zelcore::threads::ThreadId creator;
  uint64_t since;
  bool reported = false;
};

struct Registry {
  jx::Mutex mu;
  std::unordered_map<const JX_Stuff*, Entry> entries GUARDED_BY(mu);
};
// Never destroyed (items may be destroyed during static destruction), and made without
// allocating: an item's destructor reaches it, and must not fail for memory.
Registry& TheRegistry() {
  alignas(Registry) static unsigned char storage[sizeof(Registry)];
  static Registry* const registry = new (storage) Registry;
  return *registry;
}

struct Watchdog {
  jx::Mutex mu;
  std::shared_ptr<zelcore::threads::Executor> executor GUARDED_BY(mu);
  std::shared_ptr<zelcore::threads::QueueOnlyOnce> check GUARDED_BY(mu);
};
Watchdog& TheWatchdog() {
  alignas(Watchdog) static unsigned char storage[sizeof(Watchdog)];
  static Watchdog* const watchdog = new (storage) Watchdog;
  return *watchdog;
}

// -1: no test override; the setting decides.
std::atomic<int64_t> gLimitOverrideMs{-1};

uint32_t TickMs() { return std::clamp(OverdueLimitMs() / 4, kMinTickMs, kMaxTickMs); }

void RunCheck();

std::shared_ptr<zelcore::threads::QueueOnlyOnce> MakeCheck(
    std::shared_ptr<zelcore::threads::Executor> executor) {
  return std::make_shared<zelcore::threads::QueueOnlyOnce>(
      std::move(executor), [] { RunCheck(); }, TickMs(), 0);
}

// Set while a check is queued or running, which looks at every item watched by then: an item
// created pending meanwhile needs no queuing of its own. Every miss creates a pending item, and
// queuing (a mutex, a shared pointer, the check's own mutex) cost more than the rest of watching.
std::atomic<bool> gCheckQueued{false};

// Queued outside the watchdog's mutex: the check being stopped may itself be queuing. False when
// no check was queued by this call (none running, or one queued already).
bool QueueCheck() {
  std::shared_ptr<zelcore::threads::QueueOnlyOnce> check;
  {
    Watchdog& w = TheWatchdog();
    jx::MutexLock lock(w.mu);
    check = w.check;
  }
  return check && check->Queue();
}

// Queues a check unless one is queued or running already.
void EnsureCheckQueued() {
  if (gCheckQueued.load(std::memory_order_acquire)) return;
  if (gCheckQueued.exchange(true, std::memory_order_acq_rel)) return;
  bool queued = false;
  try {
    queued = QueueCheck();
  } catch (...) {
    gCheckQueued.store(false, std::memory_order_release);
    throw;
  }
  // Not queued: no watchdog runs, or its executor takes no more work. The next item watched
  // tries again.
  if (!queued) gCheckQueued.store(false, std::memory_order_release);
}

void RunCheck() {
  // Cleared before looking, so that an item watched from here on queues the next check itself
  // should this one not.
  gCheckQueued.store(false, std::memory_order_release);
  CheckAndReport();
  // Checks continue only while something is pending; the next Watch queues them again.
  if (WatchedCount() > 0) EnsureCheckQueued();
}

std::string Describe(const Overdue& o) {
  std::ostringstream os;
  os << "A pending cache item has not been filled after " << o.pendingMs << " ms: key " << o.key
     << ", rendered by thread " << o.creator << ", " << o.waiters << " thread(s) waiting for it.";
  return os.str();
}

// Swaps the watchdog's executor and check; the old ones are stopped by the caller, outside the
// mutex (stopping waits for a running check, which may be queuing through the mutex).
void SwapWatchdog(std::shared_ptr<zelcore::threads::Executor>& executor,
                  std::shared_ptr<zelcore::threads::QueueOnlyOnce>& check) {
  Watchdog& w = TheWatchdog();
  jx::MutexLock lock(w.mu);
  std::swap(w.executor, executor);
  std::swap(w.check, check);
}

}  // namespace

void Watch(const JX_Stuff& item, const zelcore::utility::Guid& guid) {
  if (OverdueLimitMs() == 0) return;
  {
    Registry& r = TheRegistry();
    jx::MutexLock lock(r.mu);
    r.entries[&item] =
        Entry{guid, zelcore::threads::CurrentThreadId(), HighPrecisionTime::GetCurrentTimeStamp()};
  }
  EnsureCheckQueued();
}

void Forget(const JX_Stuff& item) {
  Registry& r = TheRegistry();
  jx::MutexLock lock(r.mu);
  r.entries.erase(&item);
}

size_t WatchedCount() {
  Registry& r = TheRegistry();
  jx::MutexLock lock(r.mu);
  return r.entries.size();
}

std::vector<Overdue> TakeNewlyOverdue() {
  std::vector<Overdue> found;
  const uint32_t limitMs = OverdueLimitMs();
  if (limitMs == 0) return found;
  const uint64_t now = HighPrecisionTime::GetCurrentTimeStamp();
  Registry& r = TheRegistry();
  jx::MutexLock lock(r.mu);
  for (auto& [item, e] : r.entries) {
    const uint64_t age = now > e.since ? now - e.since : 0;
    if (e.reported || age < uint64_t{limitMs} * kNanosPerMs) continue;
    e.reported = true;
    // The item cannot go while it is registered: its destructor forgets it under this mutex.
    found.push_back(
        {e.guid.AsString(), e.creator, item->GetPendingWaiterCount(), age / kNanosPerMs});
  }
  JX_GetStuffCounters().pendingOverdue.fetch_add(found.size(), std::memory_order_relaxed);
  return found;
}

size_t CheckAndReport() {
  const std::vector<Overdue> overdue = TakeNewlyOverdue();
  for (const Overdue& o : overdue) {
    const std::string text = Describe(o);
    ZC_TRACE("JX", 1, text);
    Yp_ReportErrString(kCacheErrorClass, kSeverityWarning, zelcore::utility::UTF8ToUTF16(text));
  }
  return overdue.size();
}

PreparedWatchdog PrepareWatchdog(std::shared_ptr<zelcore::threads::Executor> executor) {
  PreparedWatchdog prepared{executor, MakeCheck(executor)};
  return prepared;
}

void StartWatchdog(PreparedWatchdog prepared) noexcept {
  std::shared_ptr<zelcore::threads::Executor> old = prepared.executor;
  SwapWatchdog(old, prepared.check);
  prepared.check.reset();
  if (old && old != prepared.executor) old->Shutdown();
  // A check queued on the old watchdog is gone with it.
  gCheckQueued.store(false, std::memory_order_release);
  // Items still pending from before are watched by the new check. A queuing refused for memory
  // is made good by the next item created pending.
  try {
    if (WatchedCount() > 0) EnsureCheckQueued();
  } catch (...) {
  }
}

void StopWatchdog() noexcept {
  std::shared_ptr<zelcore::threads::Executor> executor;
  std::shared_ptr<zelcore::threads::QueueOnlyOnce> check;
  SwapWatchdog(executor, check);
  check.reset();
  if (executor) executor->Shutdown();
  gCheckQueued.store(false, std::memory_order_release);
}

uint32_t OverdueLimitMs() {
  const int64_t forced = gLimitOverrideMs.load(std::memory_order_relaxed);
  if (forced >= 0) return static_cast<uint32_t>(forced);
  return jx::settings::PendingOverdueMs();
}

void SetOverdueLimitMsForTests(uint32_t ms) {
  gLimitOverrideMs.store(ms, std::memory_order_relaxed);
  // The check's period follows the limit.
  std::shared_ptr<zelcore::threads::Executor> executor;
  {
    Watchdog& w = TheWatchdog();
    jx::MutexLock lock(w.mu);
    executor = w.executor;
  }
  if (executor) StartWatchdog(PrepareWatchdog(executor));
}

}  // namespace jx::pending
