// The background disk writer: the two write queues, the tasks that drain them, and the holding
// back of writes while the foreground reads.
#include "disk/disk_writer.h"

#include <chrono>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>

#include <boost/smart_ptr/make_shared.hpp>

#include "bag/bag.h"
#include "disk/disk_counters.h"
#include "disk/write_policy.h"
#include "host/config.h"
#include "host/profiler.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "items/sc_checkout.h"
#include "lifecycle/failures.h"
#include "lifecycle/lifecycle.h"
#include "lifecycle/settings.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;

namespace {

constexpr uint32_t kImprovedQueueCapacity = 200;
constexpr uint32_t kQueueCapacity = 1000;
// Read-only, passed along: the writer only needs the payload to stay.
constexpr int kWriterCheckoutFlags = cf::kReadOnly | cf::kPassAlong;
constexpr auto kHoldBackAfterForegroundRead = std::chrono::milliseconds(250);

struct Entry {
  zelcore::utility::IntrusivePtr<JX_Stuff> item;
  boost::shared_ptr<JX_ScCheckout> checkout;
  uint8_t flag = 0;
};

struct WriteQueues {
  std::mutex mutex;
  std::deque<Entry> high;
  std::deque<Entry> normal;
};

// Never destroyed: entries still queued at exit must not check items in while the library's
// other statics are being torn down.
WriteQueues& Queues() {
  static WriteQueues* queues = new WriteQueues;
  return *queues;
}

// The oldest entry of the highest class present.
std::optional<Entry> TakeNextEntry() {
  WriteQueues& q = Queues();
  auto& counters = jx::disk::GetCounters();
  std::lock_guard<std::mutex> lock(q.mutex);
  std::deque<Entry>* from = !q.high.empty() ? &q.high : &q.normal;
  if (from->empty()) return std::nullopt;
  Entry e = std::move(from->front());
  from->pop_front();
  (from == &q.high ? counters.highPriorityQueued : counters.normalQueued)
      .fetch_sub(1, std::memory_order_relaxed);
  return e;
}

// Gives the item back without touching its place in the recency order.
void HandBack(boost::shared_ptr<JX_ScCheckout>& checkout) {
  if (!checkout) return;
  checkout->SetCheckinFlags(ci::kKeepRecency);
  checkout.reset();
}

// Travels with each posted task. A task that is destroyed without having run takes one entry
// with it, so that every entry is matched by exactly one task. It owes an entry only once its
// entry is in the queue.
struct Ticket {
  bool owesEntry = false;
  ~Ticket() {
    if (!owesEntry) return;
    try {
      if (std::optional<Entry> e = TakeNextEntry()) HandBack(e->checkout);
    } catch (...) {
      ZC_TRACE("JX", 1, "dropping a cancelled disk write failed");
    }
  }
};

std::atomic<uint64_t> gLastForegroundReadMs{0};

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

}  // namespace jx::disk

uint32_t JX_GetQueuedDiskWriteCount() {
  const auto& c = jx::disk::GetCounters();
  return c.normalQueued.load(std::memory_order_relaxed) +
         c.highPriorityQueued.load(std::memory_order_relaxed);
}

void JX_DeprioritizeBackgroundWrites() {
  if (JX_IsImprovedDiskCacheBehaviorFullyEnabled()) return;
  gLastForegroundReadMs.store(Y_MillisecondsSinceBoot(), std::memory_order_relaxed);
  if (auto executor = jx::DiskExecutor()) {
    executor->HoldBackUntil(std::chrono::steady_clock::now() + kHoldBackAfterForegroundRead);
  }
}

bool JX_Stuff::WriteToDiskAsyncOnDiskThread(IntrusivePtr<JX_Stuff> item, bool flag, bool now) {
  std::shared_ptr<zelcore::threads::Executor> executor = jx::DiskExecutor();
  if (!executor || !item) return false;
  auto checkout = boost::make_shared<JX_ScCheckout>(item, kWriterCheckoutFlags);
  if (checkout->GetResult() != kJX_CheckedOut) return false;
  const IntrusivePtr<JX_StuffData> data = item->GetDataPtr();
  const bool high = now || jx::disk::IsHighWritePriority(
                               flag, data ? data->GetCachePriority() : kJX_CachePriorityDefault);
  // Made before the entry is queued: an entry must never be in the queue without a ticket that
  // will take it (it would hold its check-out for good).
  auto ticket = std::make_shared<Ticket>();
  {
    WriteQueues& q = Queues();
    std::lock_guard<std::mutex> lock(q.mutex);
    Entry e{item, std::move(checkout), static_cast<uint8_t>(flag ? 1 : 0)};
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
  // When Post refuses or throws, the last copy of the ticket (this one) takes the entry back out
  // of the queue as it goes.
  return executor->Post([ticket] {
    ticket->owesEntry = false;
    WriteToDiskAsyncFromQueue();
  });
}

void JX_Stuff::WriteToDiskAsyncFromQueue() {
  std::optional<Entry> e = TakeNextEntry();
  if (!e) return;
  // The boundary of background work: nothing gets past it, everything is traced.
  try {
    WriteToDiskAsync(e->item, std::move(e->checkout), e->flag != 0);
  } catch (int code) {
    ZC_TRACE("JX", 1, "WriteToDiskAsync failed with code " << code);
  } catch (const std::exception& ex) {
    ZC_TRACE("JX", 1, "WriteToDiskAsync failed: " << ex.what());
  } catch (...) {
    ZC_TRACE("JX", 1, "WriteToDiskAsync failed");
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
  {
    ZC_PROFILE_SCOPE("KQ.JX_Stuff::WriteToDiskAsync - EnsureDisk", 6);
    // Room is made only from files used before this item: a write never evicts something more
    // recently wanted than itself. Without room the write is skipped rather than overrunning
    // the folder's limit.
    if (!bag->EnsureDiskSpace(data->GetApproximateMemorySize(), item->GetLastUsedTime())) return;
  }
  if (target->IsInMemory() && !target->HasDiskCacheFile()) target->PrepAndWrite(bag);
  if (flag && target->HasDiskCacheFile()) bag->AddToBagAndSortDir(target);
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
