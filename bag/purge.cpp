// Memory purging: the host's purge walk over the recency order, and the purge of one item.
#include <algorithm>
#include <atomic>

#include "bag/bag.h"
#include "bag/recency_log.h"
#include "bag/sort_dir.h"
#include "host/profiler.h"
#include "host/standalone_host.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "lifecycle/failures.h"
#include "lifecycle/settings.h"
#include "mediamap/media_map_hooks.h"

using zelcore::threads::ScopedReadLockWrapper;
using zelcore::threads::ScopedWriteLockWrapper;

namespace {

constexpr uint32_t kPurgeIdle = 0;
constexpr uint32_t kPurgeRunning = 2;

struct PurgeCounters {
  std::atomic<uint32_t> calls{0};
  std::atomic<uint32_t> freedDiskBacked{0};
  std::atomic<uint32_t> freedGeneral{0};
};
PurgeCounters gPurgeCounters;

// One pass of the walk. Pass 0 frees only items with a disk copy; pass 1 any purgeable item.
struct PassResult {
  bool success = false;
  uint32_t attempted = 0;
  uint32_t freed = 0;
  unsigned long long bytes = 0;
};

}  // namespace

uint32_t JX_GetPurgeCallCount() { return gPurgeCounters.calls.load(); }
uint32_t JX_GetPurgeFreedDiskBackedCount() { return gPurgeCounters.freedDiskBacked.load(); }
uint32_t JX_GetPurgeFreedGeneralCount() { return gPurgeCounters.freedGeneral.load(); }

void JX_Bag::FreeUpSomeMemory(unsigned long long /*amount: the host is asked instead*/) {
  gPurgeCounters.calls.fetch_add(1, std::memory_order_relaxed);
  ZC_PROFILE_SCOPE("KQ.JX_Bag::FreeUpSomeMemory", 7);
  // Declared before the lock so that it is destroyed after the lock is released: the memory it
  // owns is freed outside the library lock, also when an exception leaves the walk.
  ReleaseQueue toRelease;
  unsigned long long totalFreed = 0;
  {
    JXp_ScLock lock;
    jx::recency::ApplyAll(lock);  // the walk goes by recency: every check-in's move first
    const bool templateLimit = JX_IsSetJXCacheLimitForGfxpaksEnabled();
    const unsigned long long limit = templateLimit ? JX_GetMaxJXCacheSize() : 0;
    const int firstPass = jx::settings::PlaybackFromDiskLogic() ? 1 : 0;
    unsigned long long newestFreed = 0;
    bool anyFreed = false;

    for (int pass = firstPass; pass <= 1; ++pass) {
      PassResult r;
      bool previousFreed = false;
      uint32_t index = 0;
      for (auto it = mru_.begin(); it != mru_.end(); ++index) {
        if (!JX_IsGlobalBagSizeAboveMinimum()) break;  // at the floor: the pass fails
        if (previousFreed && Y_AmountToPurge() <= totalFreed) {
          r.success = true;
          break;
        }
        if (templateLimit && static_cast<unsigned long long>(
                                 std::max(0LL, GetInMemoryCacheSizeInBytes_LockFree())) <= limit) {
          r.success = true;
          break;
        }
        // Advance first: freeing may take the item out of the set.
        StuffPtr stuff(&*it);
        ++it;
        if (!stuff) jx::ThrowNullPtr("JX_Stuff");
        previousFreed = false;
        if (!stuff->ShouldAllowPurge() || !stuff->IsInMemory()) continue;
        if (pass == 0 && !stuff->HasDiskCacheFile()) continue;
        ++r.attempted;
        const unsigned long long usedTime = stuff->GetLastUsedTime();
        const unsigned int freed = stuff->FreeUpAsMuchAsPossible(true, &toRelease);
        ZC_TRACE("JX_Purge", 6,
                 "Stuff-Stats: pass, index, stuffFreedAmount, amtToPurge:"
                     << pass << ", " << index << ", " << freed << ", " << Y_AmountToPurge());
        if (freed == 0) continue;
        previousFreed = true;
        ++r.freed;
        r.bytes += freed;
        totalFreed += freed;
        newestFreed = std::max(newestFreed, usedTime);
        anyFreed = true;
        (pass == 0 ? gPurgeCounters.freedDiskBacked : gPurgeCounters.freedGeneral)
            .fetch_add(1, std::memory_order_relaxed);
      }
      // The walk ran off the end right after freeing what the host asked for: that is success.
      if (!r.success && previousFreed && Y_AmountToPurge() <= totalFreed) r.success = true;
      ZC_TRACE("JX_Purge", 6,
               "Pass-Stats: pass, totalStuffs, attemptedStuffs, freedStuffs, amountFreedInPass, "
               "amtToPurge, success:"
                   << pass << ", " << mru_.size() << ", " << r.attempted << ", " << r.freed << ", "
                   << r.bytes << ", " << Y_AmountToPurge() << ", " << r.success);
      if (r.success) break;
    }
    if (anyFreed) TrackLastPurgedUsedTime(newestFreed);
  }
  if (totalFreed > 0) Y_PurgeRecycledMemory(totalFreed);
}

void jx::PurgeOverBudget(JX_Bag& bag, unsigned long long bytes) {
  jx::ScAmountToPurge overBudget(bytes);
  bag.FreeUpSomeMemory(bytes);
}

void JX_Bag::PurgeAllMemoryCaches() {
  std::deque<StuffPtr> items = CopyMruItems();
  for (const StuffPtr& s : items) s->FreeUpAsMuchAsPossible(true, nullptr);
}

bool JX_Stuff::ShouldAllowPurge() {
  ScopedReadLockWrapper r(mutex_);
  return !data_ || data_->ShouldAllowPurge();
}

unsigned int JX_Stuff::FreeUpAsMuchAsPossible(bool removeFromMediaMap, ReleaseQueue* toRelease) {
  if (!toRelease) {
    // A caller without a queue of its own: the memory is still released only once the library
    // lock is let go.
    ReleaseQueue owners;
    const unsigned int freed = FreeUpAsMuchAsPossible(removeFromMediaMap, &owners);
    JXp_ScLock::ReleaseOutsideLock(std::move(owners));
    return freed;
  }
  IntrusivePtr<JX_Stuff> self(this);
  JXp_ScLock lock;
  ScopedWriteLockWrapper wl(mutex_);
  if (checkoutCount_.load(std::memory_order_acquire) != 0) return 0;
  const unsigned int size = data_ ? data_->GetApproximateMemorySize() : 0;
  bool freedAnything = false;
  if (data_ && data_->IsInMemory()) freedAnything = PurgeIfPossiblePrivate(wl, toRelease);
  bool removedFromBag = false;
  const bool inMemory = data_ && data_->IsInMemory();
  if (!inMemory && !diskFile_ && !pending_.load(std::memory_order_acquire)) {
    // Nothing worth keeping: the item leaves the bag and the directory.
    if (auto bag = bag_.lock()) {
      bag->RemoveStuffFromBagAndSortDir(self, lock, removeFromMediaMap);
      removedFromBag = true;
    }
  }
  const bool mediaMap = jx::settings::UseMediaMap();
  if (mediaMap && freedAnything && !removedFromBag && removeFromMediaMap) JX_MediaMapErase(self);
  if (mediaMap) {
    if (freedAnything || removedFromBag) {
      ZC_TRACE("JX_MediaMap", 6,
               "FreeUpAsMuchAsPossible " << GetGuid().AsString() << " MediaMap size "
                                         << JX_MediaMapSizeBytes()
                                         << " num entries = " << JX_MediaMapEntryCount());
    } else {
      ZC_TRACE("JX_MediaMap", 6,
               "FreeUpAsMuchAsPossible - couldn't free anything "
                   << GetGuid().AsString() << " MediaMap size " << JX_MediaMapSizeBytes()
                   << " num entries = " << JX_MediaMapEntryCount() << " freed_anything = "
                   << freedAnything << " removedFromBag = " << removedFromBag);
    }
  }
  return (freedAnything || removedFromBag) ? size : 0;
}

bool JX_Stuff::PurgeIfPossiblePrivate(const ScopedWriteLockWrapper&, ReleaseQueue* toRelease) {
  uint32_t idle = kPurgeIdle;
  if (!purgeState_.compare_exchange_strong(idle, kPurgeRunning, std::memory_order_acq_rel)) {
    return false;  // another purge of this item is running
  }
  bool freed = false;
  IntrusivePtr<JX_StuffData> data = data_;
  if (data) {
    freed = data->PurgeIfPossible(toRelease);
    if (freed) ResyncMemorySize(nullptr);
  }
  purgeState_.store(kPurgeIdle, std::memory_order_release);
  if (freed && memDiskChanged_) memDiskChanged_->Fire(false, diskFile_ != nullptr);
  return freed;
}
