#include "jxcache/items/sc_checkout.h"

#include "common/failures.h"
#include "host/config.h"
#include "host/y_api.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/host/profiler.h"

namespace cf = jx::checkout_flags;
using zelcore::threads::ScopedReadLockWrapper;
using zelcore::threads::ScopedUpgradeLockWrapper;
using zelcore::threads::ScopedWriteLockWrapper;

JX_ScCheckout::DiskHold::~DiskHold() {
  if (tookGlobal)
    JX_Stuff::GetNumDiskCacheCheckoutsGlobal().fetch_sub(1, std::memory_order_acq_rel);
  if (tookItem) stuff->ReleaseDiskCheckout();
}

JX_ScCheckout::JX_ScCheckout() = default;

JX_ScCheckout::JX_ScCheckout(IntrusivePtr<JX_Stuff> item, int flags) {
  Checkout(std::move(item), flags);
}

JX_ScCheckout::~JX_ScCheckout() {
  try {
    // No other thread may use a handle that is being destroyed: its lock would guard nothing.
    CheckinLocked(checkinFlags_, 0.0);
  } catch (...) {
    // A destructor must not throw; the item's own state already reflects the failure.
  }
  suspended_.reset();
  diskHold_.reset();
  item_.reset();
}

JX_CheckoutResult JX_ScCheckout::Checkout(IntrusivePtr<JX_Stuff> item, int flags) {
  ScopedUpgradeLockWrapper up(mutex_);
  return CheckoutImpl(std::move(item), flags);
}

JX_CheckoutResult JX_ScCheckout::CheckoutImpl(IntrusivePtr<JX_Stuff> item, int flags) {
  {
    ScopedWriteLockWrapper wl(mutex_);
    CheckinLocked(checkinFlags_, 0.0);
  }
  JX_CheckoutResult result = kJX_HeldWithoutCheckout;
  if (!(flags & cf::kHoldWithoutCheckout)) {
    if (!item) return kJX_CheckoutRefused;
    result = item->Checkout(flags);
  }
  ScopedWriteLockWrapper wl(mutex_);
  checkoutFlags_ = flags;
  return KeepLocked(result, std::move(item));
}

JX_CheckoutResult JX_ScCheckout::FindAndCheckout(const IntrusivePtr<JX_Stuff>& item, int flags) {
  JX_Bag* bag = jx::GlobalBagUnretained();
  // A search that cannot wait (no wait bits, or a thread under a notifying host lock, which
  // the bag never blocks) can run under one hold of the handle's lock.
  const bool mayWait =
      (flags & cf::kWaitBits) != 0 && !Y::ScNotifyHoldingMutexLock::IsHoldingLock();
  if (!mayWait && !(flags & cf::kHoldWithoutCheckout) && bag && item) {
    ScopedWriteLockWrapper wl(mutex_);
    CheckinLocked(checkinFlags_, 0.0);
    checkoutFlags_ = flags;
    IntrusivePtr<JX_Stuff> found;
    bool created = false;
    return KeepLocked(bag->FindAndCheckout(item, flags, &found, &created), std::move(found));
  }
  {
    ScopedWriteLockWrapper wl(mutex_);
    CheckinLocked(checkinFlags_, 0.0);
    checkoutFlags_ = flags;
  }
  if (flags & cf::kHoldWithoutCheckout) return kJX_CheckoutRefused;
  if (!bag || !item) return kJX_CheckoutRefused;
  // The handle's lock is not held across a search that may wait for another thread's render:
  // a thread holding any reader/writer lock is never allowed to wait.
  IntrusivePtr<JX_Stuff> found;
  bool created = false;
  JX_CheckoutResult result = bag->FindAndCheckout(item, flags, &found, &created);
  ScopedWriteLockWrapper wl(mutex_);
  // Another thread may have used the handle meanwhile: what it left is checked in first.
  CheckinLocked(checkinFlags_, 0.0);
  return KeepLocked(result, std::move(found));
}

JX_CheckoutResult JX_ScCheckout::FindAndCheckoutUnsharedHandle(const IntrusivePtr<JX_Stuff>& item,
                                                               int flags) {
  CheckinLocked(checkinFlags_, 0.0);
  checkoutFlags_ = flags;
  JX_Bag* bag = jx::GlobalBagUnretained();
  if ((flags & cf::kHoldWithoutCheckout) || !bag || !item) return kJX_CheckoutRefused;
  IntrusivePtr<JX_Stuff> found;
  bool created = false;
  return KeepLocked(bag->FindAndCheckout(item, flags, &found, &created), std::move(found));
}

JX_CheckoutResult JX_ScCheckout::AddToBagAndSortDirAndCheckout(IntrusivePtr<JX_Stuff> item,
                                                               const std::shared_ptr<JX_Bag>& bag,
                                                               int flags) {
  if (!bag) jx::ThrowNullPtr("JX_Bag");
  bag->AddToBagAndSortDir(item);
  return Checkout(std::move(item), flags);
}

void JX_ScCheckout::Checkin(int flags, double computeTime) {
  ScopedWriteLockWrapper wl(mutex_);
  CheckinLocked(flags, computeTime);
}

void JX_ScCheckout::Checkin() {
  ScopedWriteLockWrapper wl(mutex_);
  CheckinLocked(checkinFlags_, 0.0);
}

void JX_ScCheckout::CheckinLocked(int flags, double computeTime) {
  if (guard_.load(std::memory_order_acquire) != kGuardWord) return;
  if (result_ == kJX_CheckoutRefused) return;
  IntrusivePtr<JX_Stuff> item = std::move(item_);
  const JX_CheckoutResult result = result_;
  // The handle is empty afterwards even when the item's check-in throws: a second check-in of
  // the same check-out would corrupt the item's count.
  result_ = kJX_CheckoutRefused;
  checkinFlags_ = 0;
  diskHold_.reset();
  if (item && result != kJX_HeldWithoutCheckout) item->Checkin(flags, computeTime);
}

void JX_ScCheckout::SetCheckinFlags(int flags) {
  ScopedWriteLockWrapper wl(mutex_);
  checkinFlags_ = flags;
}

int JX_ScCheckout::GetCheckinFlags() const {
  ScopedReadLockWrapper r(mutex_);
  return checkinFlags_;
}

int JX_ScCheckout::GetCheckoutFlags() const {
  ScopedReadLockWrapper r(mutex_);
  return checkoutFlags_;
}

JX_CheckoutResult JX_ScCheckout::GetResult() const {
  ScopedReadLockWrapper r(mutex_);
  return result_;
}

JX_ScCheckout::IntrusivePtr<JX_Stuff> JX_ScCheckout::GetStuffPtr() const {
  return GetStuffPtrImpl(false);
}

JX_ScCheckout::IntrusivePtr<JX_Stuff> JX_ScCheckout::GetStuffPtrImpl(bool includeSuspended) const {
  ScopedReadLockWrapper r(mutex_);
  if (!item_ && includeSuspended) return suspended_;
  return item_;
}

JX_ScCheckout::IntrusivePtr<JX_Stuff> JX_ScCheckout::Release() {
  ScopedWriteLockWrapper wl(mutex_);
  result_ = kJX_CheckoutRefused;
  checkinFlags_ = 0;
  return item_;
}

void JX_ScCheckout::Swap(JX_ScCheckout& other) {
  ScopedWriteLockWrapper wl(mutex_);
  std::swap(result_, other.result_);
  std::swap(checkinFlags_, other.checkinFlags_);
  std::swap(opaque_, other.opaque_);
  std::swap(diskHold_, other.diskHold_);
  item_.swap(other.item_);
}

void JX_ScCheckout::SuspendCheckout() {
  ScopedWriteLockWrapper wl(mutex_);
  if (!item_) return;
  suspended_ = item_;
  std::unique_ptr<DiskHold> hold = std::move(diskHold_);
  const JX_CheckoutResult saved = result_;
  zelcore::config::ExecuteTopLevelFunction restore([&] {
    result_ = saved;
    diskHold_ = std::move(hold);
  });
  CheckinLocked(checkinFlags_, 0.0);
}

bool JX_ScCheckout::ReacquireSuspendedCheckout() {
  ScopedUpgradeLockWrapper up(mutex_);
  ZC_PROFILE_SCOPE("KQ.JX_ScCheckout.ReacquireSuspendedCheckout",
                   zelcore::debug::CodeProfiler::kDefaultVolume);
  IntrusivePtr<JX_Stuff> suspended;
  std::unique_ptr<DiskHold> hold;
  int storedFlags;
  if (!TakeSuspended(&suspended, &hold, &storedFlags)) return false;
  const int reduced = storedFlags & ~cf::kReacquireClearMask;
  JX_CheckoutResult result = CheckoutImpl(suspended, reduced);
  // The item may have been replaced in the directory while we did not hold it.
  if (result != kJX_CheckedOut) result = FindAndCheckout(suspended, reduced);
  return EndReacquire(result, std::move(hold), storedFlags);
}

bool JX_ScCheckout::TakeSuspended(IntrusivePtr<JX_Stuff>* suspended,
                                  std::unique_ptr<DiskHold>* hold, int* storedFlags) {
  ScopedWriteLockWrapper wl(mutex_);
  if (!suspended_) return false;
  *suspended = suspended_;
  *hold = std::move(diskHold_);
  *storedFlags = checkoutFlags_;
  return true;
}

bool JX_ScCheckout::EndReacquire(JX_CheckoutResult result, std::unique_ptr<DiskHold> hold,
                                 int storedFlags) {
  ScopedWriteLockWrapper wl(mutex_);
  if (hold && result == kJX_CheckedOut) AcquireDiskHoldLocked();
  checkoutFlags_ = storedFlags;
  if (result == kJX_CheckedOut) suspended_.reset();
  hold.reset();
  return result == kJX_CheckedOut;
}

void JX_ScCheckout::ReleaseSuspendedCheckout() {
  ScopedWriteLockWrapper wl(mutex_);
  suspended_.reset();
  if (!item_) result_ = kJX_CheckoutRefused;
}

bool JX_ScCheckout::HasSuspendedCheckout() const {
  ScopedReadLockWrapper r(mutex_);
  return !item_ && suspended_;
}

bool JX_ScCheckout::AcquireDiskHold() {
  ScopedWriteLockWrapper wl(mutex_);
  AcquireDiskHoldLocked();
  return HasDiskHold();
}

bool JX_ScCheckout::AcquireDiskHoldLocked() {
  if (diskHold_ || !item_) return false;
  auto hold = std::make_unique<DiskHold>();
  hold->stuff = item_;
  item_->diskCheckouts_.fetch_add(1, std::memory_order_acq_rel);
  hold->tookItem = true;
  JX_Stuff::GetNumDiskCacheCheckoutsGlobal().fetch_add(1, std::memory_order_acq_rel);
  hold->tookGlobal = true;
  diskHold_ = std::move(hold);
  return true;
}

void JX_ScCheckout::ReleaseDiskHold() {
  ScopedWriteLockWrapper wl(mutex_);
  diskHold_.reset();
}

bool JX_ScCheckout::HasDiskHold() const {
  ScopedReadLockWrapper r(mutex_);
  auto item = GetStuffPtrImpl(true);
  return diskHold_ && item && item->HasDiskCacheFile();
}

bool JX_ScCheckout::HasDiskHoldIfWanted() const {
  auto item = GetStuffPtrImpl(true);
  if (!item || !item->HasDiskCacheFile()) return true;
  return HasDiskHold();
}

bool JX_ScCheckout::IsInMemory() const {
  auto item = GetStuffPtr();
  return item && item->IsInMemory();
}

bool JX_ScCheckout::IsOnDisk() const {
  auto item = GetStuffPtr();
  return item && item->IsOnDisk();
}

bool JX_ScCheckout::IsCompressed() const {
  auto item = GetStuffPtr();
  return item && item->IsCompressed();
}

bool JX_ScCheckout::IsPendingRender() const {
  auto item = GetStuffPtr();
  return item && item->IsPendingRender();
}

bool JX_ScCheckout::WasTaggedToWriteToDisk() const {
  auto item = GetStuffPtr();
  return item && item->WasTaggedToWriteToDisk();
}

JX_StuffData::NoDiskCacheReason JX_ScCheckout::GetReasonWhyNoDiskCache() const {
  auto item = GetStuffPtr();
  auto data = item ? item->GetDataPtr() : IntrusivePtr<JX_StuffData>();
  return data ? data->GetReasonWhyNoDiskCache() : JX_StuffData::kNoReason;
}

bool JX_ScCheckout::EnsureInMemory() {
  auto item = GetStuffPtr();
  return item && item->EnsureInMemory();
}

JX_ScStuffSetter::~JX_ScStuffSetter() {
  try {
    if (item_ && item_->IsPendingRender()) {
      item_->SetStuffDataFromPendingRender_Impl({}, 0.0, false);
    }
  } catch (...) {
  }
}
