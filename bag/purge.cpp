// Memory purging: the host's purge walk over the recency order, and the purge of one item.
#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <ostream>

#include "bag/miss_reasons.h"
#include "bag/recency_log.h"
#include "bag/sort_dir.h"
#include "common/settings.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "jxcache/bag/bag.h"
#include "jxcache/host/profiler.h"
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
  // 64 bits: every walk adds up to twice the number of items in the bag.
  std::atomic<uint64_t> examined{0};
};
PurgeCounters gPurgeCounters;

// One FreeUpSomeMemory call: its stop rules, the work on each item, and what it has freed over
// all of its passes. Pass 0 frees only items with a disk copy; pass 1 any purgeable item. Lives
// under the library lock.
class PurgeWalk {
 public:
  PurgeWalk(const JX_Bag& bag, JX_Bag::ReleaseQueue* toRelease);
  ~PurgeWalk() { gPurgeCounters.examined.fetch_add(examined_, std::memory_order_relaxed); }
  PurgeWalk(const PurgeWalk&) = delete;
  PurgeWalk& operator=(const PurgeWalk&) = delete;

  int FirstPass() const { return jx::settings::PlaybackFromDiskLogic() ? 1 : 0; }
  void StartPass(int pass) { pass_ = Pass{pass}; }
  // The stop rules, asked before each item; true when the pass ends here.
  bool ShouldStop();
  void Visit(JX_Stuff& item);
  // Traces the pass; true when it succeeded, which ends the walk.
  bool EndPass(size_t itemCount) const;

  unsigned long long TotalFreed() const { return totalFreed_; }
  bool AnyFreed() const { return anyFreed_; }
  unsigned long long NewestFreedUsedTime() const { return newestFreed_; }

 private:
  struct Pass {
    int number = 0;
    bool success = false;
    uint32_t index = 0;
    uint32_t attempted = 0;
    uint32_t freed = 0;
    unsigned long long bytes = 0;
  };
  bool Eligible(JX_Stuff& item) const;
  void CountFreed(unsigned int bytes, unsigned long long usedTime);

  const JX_Bag& bag_;
  JX_Bag::ReleaseQueue* const toRelease_;
  const bool templateLimit_;
  const unsigned long long limit_;
  Pass pass_;
  // Whether the item just before this one freed something. Carried from pass 0 into pass 1:
  // the host is asked again only after an item that freed something.
  bool previousFreed_ = false;
  bool anyFreed_ = false;
  unsigned long long totalFreed_ = 0;
  unsigned long long newestFreed_ = 0;
  uint64_t examined_ = 0;
};

PurgeWalk::PurgeWalk(const JX_Bag& bag, JX_Bag::ReleaseQueue* toRelease)
    : bag_(bag),
      toRelease_(toRelease),
      templateLimit_(JX_IsSetJXCacheLimitForGfxpaksEnabled()),
      limit_(templateLimit_ ? JX_GetMaxJXCacheSize() : 0) {}

bool PurgeWalk::ShouldStop() {
  if (!JX_IsGlobalBagSizeAboveMinimum()) return true;  // at the floor: the pass fails
  if (previousFreed_ && Y_AmountToPurge() <= totalFreed_) return pass_.success = true;
  if (templateLimit_) {
    const long long inMemory = bag_.GetInMemoryCacheSizeInBytes_LockFree();
    if (static_cast<unsigned long long>(std::max(0LL, inMemory)) <= limit_)
      return pass_.success = true;
  }
  return false;
}

void PurgeWalk::Visit(JX_Stuff& item) {
  const uint32_t index = pass_.index++;
  ++examined_;
  previousFreed_ = false;
  // Our own reference: freeing may take the item out of the set, which drops the set's.
  const JX_Bag::StuffPtr stuff(&item);
  if (!Eligible(*stuff)) return;
  ++pass_.attempted;
  const unsigned long long usedTime = stuff->GetLastUsedTime();
  const unsigned int freed = stuff->FreeUpAsMuchAsPossible(true, toRelease_);
  if (!stuff->IsInSortDir()) {
    // Out of the directory (and the bag, when it kept nothing), the item may be held by this
    // reference alone, which goes under the library lock. The queue keeps it instead: the item and
    // its payload go once the lock is released, like the memory the walk freed.
    try {
      toRelease_->push_back(std::make_shared<JX_Bag::StuffPtr>(stuff));
    } catch (const std::bad_alloc&) {
      // No memory to put it off: it goes now, under the lock.
    }
  }
  ZC_TRACE("JX_Purge", 6,
           "Stuff-Stats: pass, index, stuffFreedAmount, amtToPurge:"
               << pass_.number << ", " << index << ", " << freed << ", " << Y_AmountToPurge());
  if (freed != 0) CountFreed(freed, usedTime);
}

bool PurgeWalk::Eligible(JX_Stuff& item) const { return item.IsPurgeCandidate(pass_.number == 0); }

void PurgeWalk::CountFreed(unsigned int bytes, unsigned long long usedTime) {
  previousFreed_ = true;
  anyFreed_ = true;
  ++pass_.freed;
  pass_.bytes += bytes;
  totalFreed_ += bytes;
  newestFreed_ = std::max(newestFreed_, usedTime);
  (pass_.number == 0 ? gPurgeCounters.freedDiskBacked : gPurgeCounters.freedGeneral)
      .fetch_add(1, std::memory_order_relaxed);
}

bool PurgeWalk::EndPass(size_t itemCount) const {
  ZC_TRACE("JX_Purge", 6,
           "Pass-Stats: pass, totalStuffs, attemptedStuffs, freedStuffs, amountFreedInPass, "
           "amtToPurge, success:"
               << pass_.number << ", " << itemCount << ", " << pass_.attempted << ", "
               << pass_.freed << ", " << pass_.bytes << ", " << Y_AmountToPurge() << ", "
               << pass_.success);
  return pass_.success;
}

// What every media-map trace of a purge ends with: the bag's in-memory total and item count,
// then the media map's. Streamed only when the trace is on (the total walks the whole bag).
struct CacheSizes {
  const JX_Bag* bag;
};

std::ostream& operator<<(std::ostream& os, const CacheSizes& s) {
  unsigned long long inMemory = 0, withDiskCopy = 0;
  if (s.bag) s.bag->GetCacheSizesInBytes(inMemory, withDiskCopy);
  return os << " JX Cache size " << inMemory
            << " num entries = " << (s.bag ? s.bag->GetNumMruSortedItems() : 0) << " MediaMap size "
            << JX_MediaMapSizeBytes() << " num entries = " << JX_MediaMapEntryCount();
}

void TraceMediaMapAfterPurge(const JX_Bag* bag, bool freedAnything, bool removedFromBag,
                             bool erased) {
  if (freedAnything || removedFromBag) {
    ZC_TRACE("JX_MediaMap", 6, "FreeUpAsMuchAsPossible " << CacheSizes{bag});
  } else {
    ZC_TRACE("JX_MediaMap", 6,
             "FreeUpAsMuchAsPossible - couldn't free anything "
                 << CacheSizes{bag} << " freed_anything = " << freedAnything
                 << " removedFromBag = " << removedFromBag);
  }
  if (erased) ZC_TRACE("JX_MediaMap", 6, "Stuff was purged from Strandel " << CacheSizes{bag});
}

}  // namespace

uint32_t JX_GetPurgeCallCount() { return gPurgeCounters.calls.load(); }
uint32_t JX_GetPurgeFreedDiskBackedCount() { return gPurgeCounters.freedDiskBacked.load(); }
uint32_t JX_GetPurgeFreedGeneralCount() { return gPurgeCounters.freedGeneral.load(); }
// Exported for the benchmarks, which tell items examined from items freed.
JX_EXPORT uint64_t JX_GetPurgeExaminedCount() { return gPurgeCounters.examined.load(); }
void JX_ResetPurgeCounters() {
  gPurgeCounters.calls = 0;
  gPurgeCounters.freedDiskBacked = 0;
  gPurgeCounters.freedGeneral = 0;
  gPurgeCounters.examined = 0;
}

void JX_Bag::FreeUpSomeMemory(unsigned long long /*amount: the host is asked instead*/) {
  gPurgeCounters.calls.fetch_add(1, std::memory_order_relaxed);
  ZC_PROFILE_SCOPE("KQ.JX_Bag::FreeUpSomeMemory", 7);
  // Declared before the lock so that it is destroyed after the lock is released: the memory it
  // owns is freed outside the library lock, also when an exception leaves the walk.
  ReleaseQueue toRelease;
  unsigned long long totalFreed = 0;
  try {
    // On a thread inside a payload's own code under its item's lock, only when the lock is free
    // now: otherwise nothing is freed this time.
    JXp_ScLock lock(jx::kTryIfItemLockHeld);
    if (!lock.owns_lock()) return;
    jx::recency::ApplyAll(lock);  // the walk goes by recency: every check-in's move first
    PurgeWalk walk(*this, &toRelease);
    for (int pass = walk.FirstPass(); pass <= 1; ++pass) {
      walk.StartPass(pass);
      // The set is intrusive: it links live items, never a null. The iterator moves on before
      // the item is worked on, because freeing may take the item out of the set.
      for (auto it = mru_.begin(); it != mru_.end() && !walk.ShouldStop();) walk.Visit(*it++);
      if (walk.EndPass(mru_.size())) break;
    }
    if (walk.AnyFreed()) TrackLastPurgedUsedTime(walk.NewestFreedUsedTime());
    totalFreed = walk.TotalFreed();
  } catch (...) {
    // A caller that holds the library lock itself would otherwise see the queue destroyed, and
    // the memory freed, while it still holds the lock.
    JXp_ScLock::ReleaseOutsideLock(std::move(toRelease));
    throw;
  }
  if (totalFreed > 0) Y_PurgeRecycledMemory(totalFreed);
  // Freed here, or, when the caller itself holds the library lock, once it lets go.
  JXp_ScLock::ReleaseOutsideLock(std::move(toRelease));
}

void JX_Bag::PurgeAllMemoryCaches() {
  std::deque<StuffPtr> items = CopyMruItems();
  for (const StuffPtr& s : items) s->FreeUpAsMuchAsPossible(true, nullptr);
}

bool JX_Stuff::IsPurgeCandidate(bool needsDiskCopy) const {
  ScopedReadLockWrapper r(mutex_);
  return data_ && data_->ShouldAllowPurge() && data_->IsInMemory() &&
         (!needsDiskCopy || diskFile_ != nullptr);
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
  JXp_ScLock lock(jx::kTryIfItemLockHeld);  // see FreeUpSomeMemory
  if (!lock.owns_lock()) return 0;
  ScopedWriteLockWrapper wl(mutex_);
  if (checkoutCount_.load(std::memory_order_acquire) != 0) return 0;
  // Taken now: the traces below still describe the bag after the item has left it. The locks
  // held keep it there; an owning reference, were it the last, would run the bag's destructor
  // here, freeing its items under both locks.
  JX_Bag* const bag = LiveBagLocked();
  const unsigned int size = data_ ? data_->GetApproximateMemorySize() : 0;
  const bool freedAnything = data_ && data_->IsInMemory() && PurgeIfPossiblePrivate(wl, toRelease);
  const bool removedFromBag = KeepsNothingLocked() && bag;
  if (removedFromBag) bag->RemoveStuffFromBagAndSortDir(self, lock, removeFromMediaMap);
  // Gone from memory: a later miss of its key says why. An item that had nothing in memory
  // already went for a reason recorded then, unless the caller names a new one.
  if (freedAnything || (removedFromBag && jx::miss::HasExplicitCause())) {
    size_t hash;
    GetGuidAndHash(&hash);
    jx::miss::NotePurged(hash, diskFile_ != nullptr);
  }
  if (jx::settings::UseMediaMap()) {
    const bool erase = freedAnything && !removedFromBag && removeFromMediaMap;
    if (erase) JX_MediaMapErase(self);
    TraceMediaMapAfterPurge(bag, freedAnything, removedFromBag, erase);
  }
  return (freedAnything || removedFromBag) ? size : 0;
}

void JX_Stuff::LeaveIfKeepsNothing(ReleaseQueue* toRelease) {
  ReleaseQueue owners;
  {
    IntrusivePtr<JX_Stuff> self(this);
    JXp_ScLock lock;
    ScopedWriteLockWrapper wl(mutex_);
    // Still held: the last holder's check-in asks again.
    if (checkoutCount_.load(std::memory_order_acquire) != 0) return;
    mayKeepNothing_.store(false, std::memory_order_relaxed);
    if (!KeepsNothingLocked()) return;
    RemoveFromBagAndSortDir();
    // The caller's reference may be the last, and go under a library lock the caller holds.
    try {
      (toRelease ? *toRelease : owners).push_back(std::make_shared<IntrusivePtr<JX_Stuff>>(self));
    } catch (const std::bad_alloc&) {
      // No memory to put it off: it goes with the caller's reference.
    }
  }
  JXp_ScLock::ReleaseOutsideLock(std::move(owners));
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
  if (MemDiskChangedSignal* changed = freed ? MemDiskChangedLocked() : nullptr) {
    // The host's handler runs once the purge has let go of its locks, with the memory it freed:
    // it may use the cache again, or wait for a thread of its own that does; and a purge walk
    // under way is not disturbed by an item the handler renews or drops. It hears the item's
    // state as it is then, not as the purge left it: a change made meanwhile (its disk copy
    // deleted, its payload read back) has told the handler already, and must stay the last word.
    struct TellAtRelease {
      IntrusivePtr<JX_Stuff> item;
      MemDiskChangedSignal* changed;
      bool armed = false;
      ~TellAtRelease() {
        if (!armed) return;
        try {
          item->TellMemDiskState(*changed);
        } catch (...) {
          // A handler's failure is the host's own; the purge stands.
        }
      }
    };
    try {
      auto tell = std::make_shared<TellAtRelease>();
      tell->item.reset(this);
      tell->changed = changed;
      toRelease->push_back(tell);
      tell->armed = true;  // queued: it tells once, when the queue lets go of it
    } catch (const std::bad_alloc&) {
      // No memory to put it off: told now, under the locks, rather than never.
      changed->Fire(false, diskFile_ != nullptr);
    }
  }
  return freed;
}
