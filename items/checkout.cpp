// The check-out protocol of JX_Stuff: check-out (read-only and writeable), check-in and the
// conversion of a read-only check-out into the writeable one.
#include <optional>
#include <vector>

#include "bag/recency_log.h"
#include "bag/sort_dir.h"
#include "common/failures.h"
#include "common/settings.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/host/high_precision_time.h"
#include "jxcache/host/profiler.h"
#include "jxcache/items/stuff.h"
#include "mediamap/media_map_hooks.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using zelcore::threads::ScopedReadLockWrapper;
using zelcore::threads::ScopedUpgradeLockWrapper;
using zelcore::threads::ScopedWriteLockWrapper;

namespace {

struct WaitDecision {
  bool wait;
  bool askedAboutPending;
};

WaitDecision DecodeWait(int flags) {
  bool always = (flags & cf::kWaitAlways) != 0;
  bool unlessHostLock = (flags & cf::kWaitUnlessHostLock) != 0;
  return {always || (unlessHostLock && !Y::ScNotifyHoldingMutexLock::IsHoldingLock()),
          always || unlessHostLock};
}

}  // namespace

JX_CheckoutResult JX_Stuff::Checkout(int flags) { return CheckoutInBag(flags, nullptr); }

JX_CheckoutResult JX_Stuff::CheckoutInBag(int flags, JX_Bag* bag, bool* wasPending,
                                          const MatchRequest* match) {
  if (!(flags & cf::kReadOnly)) return CheckoutForWrite(flags, bag, wasPending, match);
  DiskCopyGone gone;
  JX_CheckoutResult result;
  {
    ScopedUpgradeLockWrapper up(mutex_);
    result = CheckoutLocked(flags, up, nullptr, bag, wasPending, match, &gone);
  }
  // A read back that failed dropped the file: the item's handler hears of it with no lock held.
  if (gone.signal) [[unlikely]]
    gone.Tell();
  // Refused because that read failed: nobody else may come back for an item left with nothing.
  if (result == kJX_CheckoutRefused && !(flags & cf::kNoDiskRead) &&
      mayKeepNothing_.load(std::memory_order_acquire)) [[unlikely]]
    LeaveIfKeepsNothing();
  return result;
}

JX_CheckoutResult JX_Stuff::CheckoutForWrite(int flags, JX_Bag* knownBag, bool* wasPending,
                                             const MatchRequest* match) {
  // Taking the item out of the directory may drop the directory's reference to it.
  IntrusivePtr<JX_Stuff> self(this);
  JX_CheckoutResult result;
  {
    // The directory removal needs the library lock, and it comes before the item lock. The disk
    // read, if one is needed, waits until the lock is released.
    JXp_ScLock lock;
    ScopedUpgradeLockWrapper up(mutex_);
    result =
        CheckoutLocked(flags | cf::kNoDiskRead, up, &lock, knownBag, wasPending, match, nullptr);
  }
  if (result != kJX_CheckedOut || (flags & cf::kNoDiskRead) || match) return result;
  // Refused after all: the check-out is undone and the item left where it was.
  return ReadBackOrUndoCheckout(ci::kKeepRecency, flags) ? result : kJX_CheckoutRefused;
}

bool JX_Stuff::ReadBackOrUndoCheckout(int undoCheckinFlags, int checkoutFlags) {
  if (ReadBackIfOnDiskOnly(checkoutFlags)) return true;
  Checkin(undoCheckinFlags, 0.0);
  return false;
}

bool JX_Stuff::ReadBackIfOnDiskOnly(int checkoutFlags) {
  {
    // One look at all three, so that they describe one state of the item.
    ScopedReadLockWrapper r(mutex_);
    const bool pending = pending_.load(std::memory_order_acquire);
    if (pending || (data_ && data_->IsInMemory())) return true;
    // Checked out on disk only, its file dropped since: a new render of the key replaced it, or
    // it was re-keyed. Served as it stands, the caller would get a payload with no pixels.
    if (!diskFile_) return (checkoutFlags & cf::kAcceptNotInMemory) != 0;
  }
  try {
    return EnsureInMemory();
  } catch (...) {
    return false;
  }
}

JX_CheckoutResult JX_Stuff::CheckoutLocked(int flags, const ScopedUpgradeLockWrapper&,
                                           JXp_ScLock* libraryLock, JX_Bag* knownBag,
                                           bool* wasPending, const MatchRequest* match,
                                           DiskCopyGone* gone) {
  if (match && !AnswersRequestLocked(*match)) return kJX_CheckoutRefused;
  const bool forWrite = libraryLock != nullptr;
  // Stable while the upgrade lock is held: only the write lock completes a pending item.
  const bool pending = pending_.load(std::memory_order_acquire);
  if (!MayCheckOutLocked(flags, forWrite, pending)) return kJX_CheckoutRefused;
  StepCheckoutCountLocked(+1);
  // A candidate found without the library lock was just seen in memory under this same hold of
  // the lock, which keeps purging out: no need to ask its payload again.
  if (!PayloadUsableLocked(flags, pending, match && match->unlockedIn, gone)) {
    StepCheckoutCountLocked(-1);
    return kJX_CheckoutRefused;
  }
  if (forWrite) MakeWriteableLocked(*libraryLock);
  JX_GetStuffCounters().itemsCheckedOut.fetch_add(1);
  // The upgrade lock held here is what a size sync needs.
  SyncMemorySizeLocked(data_ ? data_->GetApproximateMemorySize() : 0, knownBag);
  if (wasPending) *wasPending = pending;
  return kJX_CheckedOut;
}

inline bool JX_Stuff::AnswersRequestLocked(const MatchRequest& match) {
  // No find-key data: the item answers any request for its GUID, as the base class does.
  const IntrusivePtr<JX_StuffData>& key = KeyLocked();
  const bool compressed = key && key->IsCompressed();
  bool matched = compressed == match.wantCompressed;
  if (matched && key) {
    matched = match.lastUseOfKey ? key->CanSatisfyRequest(std::move(*match.lastUseOfKey))
                                 : key->CanSatisfyRequest(*match.key);
  }
  *match.matched = matched;
  if (!matched) return false;
  // Found without the library lock: taken only in a state a locked search could have found it
  // in, which this hold of the item's lock keeps (membership changes need its write lock).
  return !match.unlockedIn || IsFindableUnlocked(*match.unlockedIn, *match.guid);
}

inline bool JX_Stuff::MayCheckOutLocked(int flags, bool forWrite, bool pending) const {
  if (writeable_) return false;
  if (forWrite && checkoutCount_.load(std::memory_order_acquire) != 0) return false;
  const WaitDecision w = DecodeWait(flags);
  if (pending && !w.wait) {
    if (w.askedAboutPending) {
      JX_GetStuffCounters().pendingRefusals.fetch_add(1, std::memory_order_relaxed);
    }
    return false;
  }
  if (!data_ && !pending) return false;
  // A thread never waits for the item it is rendering itself.
  if (!pending) return true;
  const Extras* extras = FindExtras();
  return !(extras && extras->pendingThread == zelcore::threads::CurrentThreadId());
}

inline bool JX_Stuff::PayloadUsableLocked(int flags, bool pending, bool seenInMemory,
                                          DiskCopyGone* gone) {
  const bool onDisk = diskFile_ != nullptr;
  bool inMemory = seenInMemory || (data_ && data_->IsInMemory());
  if (!inMemory && onDisk && !(flags & cf::kNoDiskRead)) {
    bool readOk = false;
    try {
      readOk = EnsureInMemory(gone);
    } catch (...) {
      readOk = false;
    }
    if (!readOk) return false;
    inMemory = true;
  }
  if (inMemory || pending || (flags & cf::kAcceptNotInMemory)) return true;
  // Left on disk for the caller to read back once the library lock is released.
  return diskFile_ != nullptr && (flags & cf::kNoDiskRead);
}

void JX_Stuff::MakeWriteableLocked(const JXp_ScLock& libraryLock) {
  TempRemoveFromSortDir(libraryLock);
  // On top of the caller's upgrade lock: waits for the readers to leave.
  ScopedWriteLockWrapper wl(mutex_);
  writeable_ = true;
}

bool JX_Stuff::IsFindableUnlocked(const JX_Bag& bag, const Guid& guid) const {
  if (!inSortDir_.load(std::memory_order_relaxed) || mruBag_ != &bag) return false;
  // Re-keyed meanwhile (out of the directory and back under another GUID)?
  if (GetGuid() != guid) return false;
  // The locked search handles the rest: waiting for a render, reading back from disk.
  return !pending_.load(std::memory_order_acquire) && !writeable_ && data_ && data_->IsInMemory();
}

void JX_Stuff::CheckoutNewPending() {
  {
    // Already in the directory: a waiter may be checking it out meanwhile.
    ScopedUpgradeLockWrapper up(mutex_);
    StepCheckoutCountLocked(+1);
  }
  JX_GetStuffCounters().itemsCheckedOut.fetch_add(1);
  ResyncMemorySize(nullptr);
}

void JX_Stuff::Checkin(int flags, double computeTime) {
  // The caller's reference keeps the item alive for the call; removal, purging and a media-map
  // refresh may drop the bag's, so those paths hold their own.
  IntrusivePtr<JX_Stuff> self;
  if ((flags & (ci::kRemove | ci::kPurge)) || jx::settings::UseMediaMap()) self.reset(this);
  CheckinImpl(flags, computeTime);
}

void JX_Stuff::CheckinImpl(int flags, double computeTime) {
  ZC_PROFILE_SCOPE("KQ.JX_Stuff::Checkin", 6);
  if (CheckinReadOnly(flags)) return;
  bool wasWriteable;
  DetachedDiskCopy stale;
  std::vector<IntrusivePtr<JX_Stuff>> oldCopies;  // empty: no allocation
  bool rewritten = false;
  {
    JXp_ScLock lock;
    std::shared_ptr<JX_SortDir> dir;
    JX_Bag* bag;
    {
      // One hold of the item's lock for all of the item's own bookkeeping.
      ScopedWriteLockWrapper wl(mutex_);
      wasWriteable = writeable_;
      // Whoever held the item writeable may have changed its payload: the disk copy holds the
      // old one, and would be read back after the next purge. It goes before the item can be
      // found again.
      if (wasWriteable) stale = DetachDiskCopyLocked(/*onlyIfInMemory=*/true);
      // So may the compressed copies of it, which requests that take compressed frames find.
      rewritten = wasWriteable && data_ && data_->IsInMemory();
      if (wasWriteable && tempRemovedFromSortDir_) {
        dir = sortDir_.lock();
        if (!dir) tempRemovedFromSortDir_ = false;
      }
      writeable_ = false;
      if (checkoutCount_.load(std::memory_order_relaxed) > 0) StepCheckoutCountLocked(-1);
      // The bag whose recency order links the item; the library lock keeps it alive.
      bag = mruBag_;
      // The checked-out share drops with the count, in this same hold. Removal and purging
      // below re-synchronise again after they change the item.
      SyncMemorySizeLocked(data_ ? data_->GetApproximateMemorySize() : 0, bag);
    }
    if (dir) {
      // Back into the directory under the (possibly new) GUID; holding the library lock is what
      // keeps membership consistent.
      dir->AddStuff(IntrusivePtr<JX_Stuff>(this));
      ZC_TRACE("JX_Stuff", 6, "check-in updated w/ guid:" << GetGuid().AsString());
    }
    if (bag && !(flags & ci::kKeepRecency)) {
      bag->MoveToYoungEnd(*this, lock);
    } else if (bag && jx::settings::UseMediaMap()) {
      // An item in memory without an entry: read back from disk while checked out (the
      // read-ahead), or its entry taken back by the host while checked out, which freed
      // nothing. Without an entry the host could never purge it. The move above renews the
      // entry; a check-in that keeps the item's place must still make one when there is none.
      JX_MediaMapAddIfMissing(IntrusivePtr<JX_Stuff>(this));
    }
    if (rewritten && bag) oldCopies = CompressedCopiesIn(*bag->GetSortDir(), GetGuid());
  }
  // With every lock released.
  JX_GetStuffCounters().itemsCheckedOut.fetch_sub(1);
  DropDetachedDiskCopy(std::move(stale));
  DropCopies(std::move(oldCopies));
  if (flags & ci::kRemove) {
    RemoveFromBagAndSortDir();
    // Nobody can find the item any more: its disk copy would only take room in the folder.
    DropDiskCacheFileOutsideLock();
  } else if (flags & ci::kPurge) {
    FreeUpAsMuchAsPossible(true, nullptr);
  } else {
    OfferToDiskAtCheckin(flags, wasWriteable, computeTime);
    if (mayKeepNothing_.load(std::memory_order_acquire)) [[unlikely]]
      LeaveIfKeepsNothing();
    return;
  }
  // Always re-synchronise: the checked-out share must drop even when a purge freed nothing.
  ResyncMemorySize(nullptr);
}

void JX_Stuff::ConvertToWriteable() {
  {
    JXp_ScLock lock;
    ScopedWriteLockWrapper wl(mutex_);
    if (writeable_) jx::FailWithMessage(11, jx::kErrCheckedOutWrite);
    uint32_t n = checkoutCount_.load(std::memory_order_acquire);
    if (n > 1) jx::FailWithMessage(12, jx::kErrCheckedOutWrite);
    if (n == 0) jx::FailWithMessage(22, jx::kErrNotCheckedOut);
    TempRemoveFromSortDir(lock);
    writeable_ = true;
  }
  // The disk copy no longer matches what the writer will make of the payload.
  DeleteDiskCacheFile();
}

uint64_t JX_Stuff::RenewLastUsedTimeLocked() {
  const uint64_t now = zelcore::utility::HighPrecisionTime::GetCurrentTimeStamp();
  if (now > lastUsedTime_.load(std::memory_order_relaxed)) {
    lastUsedTime_.store(now, std::memory_order_release);
  }
  return now;
}

bool JX_Stuff::CheckinReadOnly(int flags) {
  // The media map renews an item's entry as the item moves; that needs the library lock. So does
  // taking an item left with nothing out of the bag.
  if ((flags & (ci::kRemove | ci::kPurge | ci::kWriteNow)) || jx::settings::UseMediaMap() ||
      mayKeepNothing_.load(std::memory_order_acquire)) {
    return false;
  }
  // The move is noted for later (see bag/recency_log.h): no library lock. Moving some items at
  // once and noting others would make the noted ones, older, walk back past the moved ones.
  uint64_t renewedAt = 0;
  {
    ScopedWriteLockWrapper wl(mutex_);
    if (writeable_) return false;
    if (checkoutCount_.load(std::memory_order_relaxed) > 0) StepCheckoutCountLocked(-1);
    // Holding the item's lock keeps its bag alive and linked while the sizes move.
    JX_Bag* const bag = mruBag_;
    SyncMemorySizeLocked(data_ ? data_->GetApproximateMemorySize() : 0, bag);
    if (bag && !(flags & ci::kKeepRecency)) renewedAt = RenewLastUsedTimeLocked();
  }
  if (renewedAt != 0) jx::recency::Note(*this, renewedAt);
  JX_GetStuffCounters().itemsCheckedOut.fetch_sub(1);
  return true;
}

JX_CheckoutResult JX_Stuff::CheckinAndCheckout(int checkinFlags, double computeTime,
                                               int checkoutFlags) {
  IntrusivePtr<JX_Stuff> self(this);
  JX_CheckoutResult result;
  {
    JXp_ScLock lock;
    Checkin(checkinFlags, computeTime);
    // A read back from disk waits until nobody is kept out of the library lock by it.
    result = Checkout(checkoutFlags | cf::kNoDiskRead);
  }
  if (result != kJX_CheckedOut || (checkoutFlags & cf::kNoDiskRead)) return result;
  return ReadBackOrUndoCheckout(ci::kKeepRecency, checkoutFlags) ? result : kJX_CheckoutRefused;
}
