// The background disk writer: the two write queues, the tasks that drain them, and the holding
// back of writes while the foreground reads.
#include "disk/disk_writer.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>

#include <boost/smart_ptr/make_shared.hpp>

#include "common/failures.h"
#include "common/settings.h"
#include "disk/disk_counters.h"
#include "disk/disk_folder.h"
#include "disk/write_policy.h"
#include "host/config.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/disk/disk_executor.h"
#include "jxcache/host/host_services.h"
#include "jxcache/host/profiler.h"
#include "jxcache/items/sc_checkout.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
// Hold-back deadlines are on the host's clock (nanoseconds, host/host_services.h).
using Nanos = std::chrono::nanoseconds;

namespace {

constexpr uint32_t kImprovedQueueCapacity = 200;
constexpr uint32_t kQueueCapacity = 1000;
// Read-only, passed along: the writer only needs the payload to stay.
constexpr int kWriterCheckoutFlags = cf::kReadOnly | cf::kPassAlong;
constexpr auto kHoldBackAfterForegroundRead = std::chrono::milliseconds(250);

struct Entry {
  zelcore::utility::IntrusivePtr<JX_Stuff> item;
  boost::shared_ptr<JX_ScCheckout> checkout;
  // The item's tagged-to-write flag when the entry writes the item itself; null for a
  // compressed copy, which never tags the item.
  std::atomic<bool>* tag = nullptr;
  uint64_t id = 0;
  uint8_t flag = 0;
  bool urgent = false;  // asked for "now": never held back
};

struct WriteQueues {
  std::mutex mutex;
  std::condition_variable changed;  // an urgent entry arrived, or the hold ended
  std::deque<Entry> high;
  std::deque<Entry> normal;
  uint64_t holdUntil = 0;  // the host clock's nanoseconds; 0: no hold
  uint64_t lastId = 0;
};

// Never destroyed: entries still queued at exit must not check items in while the library's
// other statics are being torn down.
WriteQueues& Queues() {
  static WriteQueues* queues = new WriteQueues;
  return *queues;
}

// Takes `it` out of `from` and lowers that queue's counter. Caller holds the queue mutex.
Entry PopLocked(WriteQueues& q, std::deque<Entry>& from, std::deque<Entry>::iterator it) {
  Entry e = std::move(*it);
  from.erase(it);
  auto& counters = jx::disk::GetCounters();
  (&from == &q.high ? counters.highPriorityQueued : counters.normalQueued)
      .fetch_sub(1, std::memory_order_relaxed);
  return e;
}

// The oldest entry of the highest class present. Caller holds the queue mutex.
std::optional<Entry> TakeFrontLocked(WriteQueues& q) {
  std::deque<Entry>& from = !q.high.empty() ? q.high : q.normal;
  if (from.empty()) return std::nullopt;
  return PopLocked(q, from, from.begin());
}

// The entry a task is to write: the oldest of the highest class, once any hold-back has passed.
// A write asked for "now" sits at the head of the high-priority queue and goes at once.
std::optional<Entry> TakeNextEntryToWrite() {
  WriteQueues& q = Queues();
  std::unique_lock<std::mutex> lock(q.mutex);
  for (;;) {
    if (q.high.empty() && q.normal.empty()) return std::nullopt;
    if (!q.high.empty() && q.high.front().urgent) break;
    const uint64_t until = q.holdUntil;
    const uint64_t now = jx::host::GetClock().NowNanoseconds();
    if (now >= until) break;
    q.changed.wait_for(lock, Nanos(until - now));
  }
  return TakeFrontLocked(q);
}

// Takes entry `id` back out of the queues, or the next one when a task has taken it already:
// either way the queues keep exactly one entry per task still to run.
std::optional<Entry> TakeBackEntry(uint64_t id) {
  WriteQueues& q = Queues();
  std::lock_guard<std::mutex> lock(q.mutex);
  for (std::deque<Entry>* from : {&q.high, &q.normal}) {
    auto it = std::find_if(from->begin(), from->end(), [id](const Entry& e) { return e.id == id; });
    if (it != from->end()) return PopLocked(q, *from, it);
  }
  return TakeFrontLocked(q);
}

// After a write of the item is over, whatever its outcome: an item left without a file loses
// its tag, unless another write of it is still queued. Decided under the queue mutex, where
// queuing sets the tag, so a tag set by a new entry is never lost.
void SettleTag(const Entry& e) {
  if (!e.tag || e.item->HasDiskCacheFile()) return;
  WriteQueues& q = Queues();
  std::lock_guard<std::mutex> lock(q.mutex);
  auto carriesTag = [&e](const Entry& other) { return other.tag == e.tag; };
  if (std::none_of(q.high.begin(), q.high.end(), carriesTag) &&
      std::none_of(q.normal.begin(), q.normal.end(), carriesTag)) {
    e.tag->store(false, std::memory_order_release);
  }
}

// Gives the item back without touching its place in the recency order.
void HandBack(boost::shared_ptr<JX_ScCheckout>& checkout) {
  if (!checkout) return;
  checkout->SetCheckinFlags(ci::kKeepRecency);
  checkout.reset();
}

// An entry whose write is over or will not happen. The tag is settled before the item is handed
// back: whoever sees the item checked in with no write of it queued also sees its tag settled.
void Drop(Entry& e) {
  zelcore::config::ExecuteTopLevelFunction handBack([&e] { HandBack(e.checkout); });
  SettleTag(e);
}

// Travels with each posted task. A task that is destroyed without having run takes one entry
// with it, so that every entry is matched by exactly one task. It owes an entry only once its
// entry is in the queue.
struct Ticket {
  uint64_t id = 0;  // the entry queued with it
  bool owesEntry = false;
  ~Ticket() {
    if (!owesEntry) return;
    try {
      if (std::optional<Entry> e = TakeBackEntry(id)) Drop(*e);
    } catch (...) {
      ZC_TRACE("JX", 1, "dropping a cancelled disk write failed");
    }
  }
};

std::atomic<uint64_t> gLastForegroundReadMs{0};
std::atomic<uint64_t> gQueuedCountReads{0};

}  // namespace

namespace jx::disk {

uint32_t WriteQueueCapacity() {
  return JX_IsImprovedDiskCacheBehaviorFullyEnabled() ? kImprovedQueueCapacity : kQueueCapacity;
}

double QueueFreeFraction(uint32_t normalQueued, uint32_t highQueued, uint32_t capacity) {
  const double used = static_cast<double>(normalQueued) + 2.0 * static_cast<double>(highQueued);
  const double cap = static_cast<double>(capacity);
  if (used > cap) return 0.0;
  return (cap - used) / cap;
}

double CurrentQueueFreeFraction() {
  const auto& c = GetCounters();
  return QueueFreeFraction(c.normalQueued.load(std::memory_order_relaxed),
                           c.highPriorityQueued.load(std::memory_order_relaxed),
                           WriteQueueCapacity());
}

void HoldBackWritesFor(std::chrono::nanoseconds duration) {
  const uint64_t until =
      jx::host::GetClock().NowNanoseconds() + static_cast<uint64_t>(duration.count());
  WriteQueues& q = Queues();
  std::lock_guard<std::mutex> lock(q.mutex);
  // Waiting tasks see a longer hold when their current wait ends; nobody needs waking.
  q.holdUntil = std::max(q.holdUntil, until);
}

void EndHoldBack() {
  WriteQueues& q = Queues();
  {
    std::lock_guard<std::mutex> lock(q.mutex);
    q.holdUntil = 0;
  }
  q.changed.notify_all();
}

uint64_t QueuedWriteCountReads() { return gQueuedCountReads.load(std::memory_order_relaxed); }

}  // namespace jx::disk

uint32_t JX_GetQueuedDiskWriteCount() {
  gQueuedCountReads.fetch_add(1, std::memory_order_relaxed);
  const auto& c = jx::disk::GetCounters();
  return c.normalQueued.load(std::memory_order_relaxed) +
         c.highPriorityQueued.load(std::memory_order_relaxed);
}

void JX_DeprioritizeBackgroundWrites() {
  if (JX_IsImprovedDiskCacheBehaviorFullyEnabled()) return;
  gLastForegroundReadMs.store(Y_MillisecondsSinceBoot(), std::memory_order_relaxed);
  jx::disk::HoldBackWritesFor(kHoldBackAfterForegroundRead);
}

bool JX_Stuff::WriteToDiskAsyncOnDiskThread(IntrusivePtr<JX_Stuff> item, bool flag, bool now) {
  std::shared_ptr<zelcore::threads::Executor> executor = jx::DiskExecutor();
  if (!executor || !item) return false;
  auto checkout = boost::make_shared<JX_ScCheckout>(item, kWriterCheckoutFlags);
  if (checkout->GetResult() != kJX_CheckedOut) return false;
  const IntrusivePtr<JX_StuffData> data = item->GetDataPtr();
  const bool high = now || jx::disk::IsHighWritePriority(
                               flag, data ? data->GetCachePriority() : kJX_CachePriorityDefault);
  Entry e;
  e.item = item;
  e.checkout = std::move(checkout);
  e.tag = flag ? nullptr : &item->taggedToWrite_;
  e.flag = flag ? 1 : 0;
  e.urgent = now;
  // Made before the entry is queued: an entry must never be in the queue without a ticket that
  // will take it (it would hold its check-out for good).
  auto ticket = std::make_shared<Ticket>();
  {
    WriteQueues& q = Queues();
    std::lock_guard<std::mutex> lock(q.mutex);
    ticket->id = e.id = ++q.lastId;
    if (e.tag) e.tag->store(true, std::memory_order_release);
    auto& counters = jx::disk::GetCounters();
    if (high) {
      // Asked for "now": ahead of everything else; otherwise in arrival order of its class.
      if (now) {
        q.high.push_front(std::move(e));
      } else {
        q.high.push_back(std::move(e));
      }
      counters.highPriorityQueued.fetch_add(1, std::memory_order_relaxed);
    } else {
      q.normal.push_back(std::move(e));
      counters.normalQueued.fetch_add(1, std::memory_order_relaxed);
    }
    ticket->owesEntry = true;
  }
  // A task waiting out a hold-back takes an urgent entry at once.
  if (now) Queues().changed.notify_all();
  // When Post refuses (the executor stopped taking work after we looked) or throws, the last copy
  // of the ticket (this one) takes the entry back out of the queue as it goes, and nothing stays
  // counted as queued.
  return executor->Post([ticket] {
    ticket->owesEntry = false;
    WriteToDiskAsyncFromQueue();
  });
}

void JX_Stuff::WriteToDiskAsyncFromQueue() {
  std::optional<Entry> e = TakeNextEntryToWrite();
  if (!e) return;
  // The boundary of background work: nothing gets past it, everything is traced.
  try {
    // A copy: the entry keeps the item checked out until Drop has settled the tag.
    WriteToDiskAsync(e->item, e->checkout, e->flag != 0);
  } catch (int code) {
    ZC_TRACE("JX", 1, "WriteToDiskAsync failed with code " << code);
  } catch (const std::exception& ex) {
    ZC_TRACE("JX", 1, "WriteToDiskAsync failed: " << ex.what());
  } catch (...) {
    ZC_TRACE("JX", 1, "WriteToDiskAsync failed");
  }
  try {
    Drop(*e);
  } catch (...) {
    ZC_TRACE("JX", 1, "settling a disk write failed");
  }
}

void JX_Stuff::WriteToDiskAsync(IntrusivePtr<JX_Stuff> item,
                                boost::shared_ptr<JX_ScCheckout> checkout, bool flag) {
  ZC_PROFILE_SCOPE("KQ.JX_Stuff::WriteToDiskAsync", 6);
  zelcore::config::ExecuteTopLevelFunction handBack([&checkout] { HandBack(checkout); });
  if (!item) return;
  IntrusivePtr<JX_StuffData> data = item->GetDataPtr();
  if (!data) jx::FailVerification("WriteToDiskAsync() called on stuff with no data");
  const std::shared_ptr<JX_Bag> bag = item->GetBag();
  if (!bag || !bag->IsDiskCacheEnabled()) return;  // left the cache, or disk caching went off

  IntrusivePtr<JX_Stuff> target = item;
  if (flag) {
    IntrusivePtr<JX_StuffData> clone = data->CreateCloneForCompression();
    if (!clone) return;
    clone->SetIsCompressed(true);
    target = CreateNew(clone, item->GetComputeTime());
    target->SetGuid(item->GetGuid());
    data = clone;
  }
  auto& counters = jx::disk::GetCounters();
  const unsigned int bytes = data->GetApproximateMemorySize();
  // The cache's own limit is not the only one: the volume keeps its margin for everyone else.
  const auto keepsVolumeMargin = [&](int64_t growth) {
    if (jx::disk::VolumeKeepsMarginAfter(*bag, growth)) return true;
    counters.writesSkippedForVolume.fetch_add(1, std::memory_order_relaxed);
    jx::disk::NoteDiskOutOfSpace(*bag);
    ZC_TRACE("JX", 3,
             "WriteToDiskAsync: " << bytes << " bytes would cut into the volume's free-space "
                                  << "margin; write skipped");
    return false;
  };
  // Decided before room is made: making room deletes files, and a write skipped for the margin
  // afterwards would have cost them for nothing. What it deletes goes back to the volume, so the
  // volume loses only what the write takes beyond the cache's free room.
  if (!keepsVolumeMargin(std::min<int64_t>(bytes, bag->GetCurFreeSpace()))) return;
  std::optional<jx::disk::ScWriteRoom> room;
  {
    ZC_PROFILE_SCOPE("KQ.JX_Stuff::WriteToDiskAsync - EnsureDisk", 6);
    // Room is made only from files used before this item: a write never evicts something more
    // recently wanted than itself. Without room the write is skipped rather than overrunning
    // the folder's limit. The room is held until the write is over.
    room.emplace(*bag, bytes, item->GetLastUsedTime());
    if (!room->Made()) {
      counters.writesSkippedForRoom.fetch_add(1, std::memory_order_relaxed);
      ZC_TRACE("JX", 3, "WriteToDiskAsync: no room for " << bytes << " bytes; write skipped");
      return;
    }
  }
  // Asked again with the room made: the volume may have filled meanwhile, or the files deleted
  // may have been gone already (another process's deletion).
  if (!keepsVolumeMargin(bytes)) return;
  if (target->IsInMemory() && !target->HasDiskCacheFile()) target->PrepAndWrite(bag);
  if (flag && target->HasDiskCacheFile()) {
    bool added = false;
    {
      // The key is looked at and the copy added under one hold of the library lock, which a
      // re-key holds throughout: it either comes first (and the copy, made under the key the item
      // left, is not added) or finds the copy in the directory and lets it go.
      JXp_ScLock lock;
      if (item->GetGuid() == target->GetGuid()) {
        bag->AddToBagAndSortDir(target);
        added = true;
      }
    }
    if (!added) target->DeleteDiskCacheFile();
  }
}

void JX_RunIdleDiskTask() {
  std::shared_ptr<JX_Bag> bag = JX_GlobalBag();
  if (!bag) return;
  try {
    bag->ScanDiskCacheDir();
    // Payloads that asked to be looked at again once things settled.
    for (const auto& item : bag->CopyMruItems()) {
      const auto data = item->GetDataPtr();
      if (data && data->GetReasonWhyNoDiskCache() == JX_StuffData::kReconsiderLater) {
        item->ReconsiderWriteToDisk();
      }
    }
  } catch (...) {
    ZC_TRACE("JX", 1, "deferred disk task failed");
  }
}
