// The link between an item and its disk cache file, and the pins that keep the file.
#include <atomic>

#include "bag/bag.h"
#include "bag/library_lock.h"
#include "items/stuff.h"

using zelcore::filesupport::File;
using zelcore::threads::ScopedReadLockWrapper;
using zelcore::threads::ScopedWriteLockWrapper;

bool JX_Stuff::SetDiskCacheFile(const File& file, bool onlyIfNone) {
  ScopedWriteLockWrapper wl(mutex_);
  if (onlyIfNone && diskFile_) return false;
  diskFile_ = std::make_shared<File>(file);
  return true;
}

File JX_Stuff::GetDiskCacheFile() const {
  ScopedReadLockWrapper r(mutex_);
  return diskFile_ ? *diskFile_ : File();
}

bool JX_Stuff::HasDiskCacheFile() const {
  ScopedReadLockWrapper r(mutex_);
  return diskFile_ != nullptr;
}

void JX_Stuff::ClearDiskCacheFile() {
  {
    ScopedWriteLockWrapper wl(mutex_);
    diskFile_.reset();
  }
  SyncDiskSizeWithBag(0);
}

bool JX_Stuff::DeleteDiskCacheFile() {
  bool inMemory;
  MemDiskChangedSignal* signal = nullptr;
  {
    ScopedWriteLockWrapper wl(mutex_);
    if (!diskFile_) return false;
    uint64_t size = 0;
    try {
      size = diskFile_->Size();
    } catch (...) {
      size = 0;
    }
    try {
      diskFile_->Delete();
    } catch (...) {
    }
    diskFile_.reset();
    inMemory = data_ && data_->IsInMemory();
    // The signal is created under this lock; read it here, fire it after.
    signal = memDiskChanged_.get();
    if (size == 0) {
      // An empty or unreadable file still leaves the item: its counted size must go too.
      wl.Unlock();
      SyncDiskSizeWithBag(0);
      return false;
    }
  }
  if (signal) signal->Fire(inMemory, false);
  SyncDiskSizeWithBag(0);
  return true;
}

void JX_Stuff::DropDiskCacheFileOutsideLock() {
  if (!HasDiskCacheFile() || GetNumDiskCacheCheckouts() != 0) return;
  IntrusivePtr<JX_Stuff> self(this);
  std::deque<std::shared_ptr<void>> owners;
  owners.emplace_back(nullptr, [self](void*) {
    if (self->GetNumDiskCacheCheckouts() == 0) self->DeleteDiskCacheFile();
  });
  JXp_ScLock::ReleaseOutsideLock(std::move(owners));
}

void JX_Stuff::MaybeDeleteDiskCacheFile(uint64_t lastUsedThreshold, bool* deleted, bool* skipped) {
  if (deleted) *deleted = false;
  if (skipped) *skipped = false;
  ScopedWriteLockWrapper wl(mutex_);
  if (GetCheckoutCount() != 0 || !diskFile_ || GetNumDiskCacheCheckouts() != 0) return;
  if (GetLastUsedTime() < lastUsedThreshold) {
    bool d = DeleteDiskCacheFile();
    if (deleted) *deleted = d;
  } else if (skipped) {
    *skipped = true;
  }
}

std::atomic<uint32_t>& JX_Stuff::GetNumDiskCacheCheckoutsGlobal() {
  static std::atomic<uint32_t> count{0};
  return count;
}

JX_Stuff::DiskCacheCheckoutScoper::DiskCacheCheckoutScoper(IntrusivePtr<JX_Stuff> stuff)
    : stuff_(std::move(stuff)) {
  stuff_->diskCheckouts_.fetch_add(1, std::memory_order_acq_rel);
  GetNumDiskCacheCheckoutsGlobal().fetch_add(1, std::memory_order_acq_rel);
}

JX_Stuff::DiskCacheCheckoutScoper::~DiskCacheCheckoutScoper() {
  stuff_->diskCheckouts_.fetch_sub(1, std::memory_order_acq_rel);
  GetNumDiskCacheCheckoutsGlobal().fetch_sub(1, std::memory_order_acq_rel);
}

std::unique_ptr<JX_Stuff::DiskCacheCheckoutScoper> JX_Stuff::CheckoutDiskCache(bool) {
  ScopedReadLockWrapper r(mutex_);
  if (!diskFile_) return nullptr;
  return std::make_unique<DiskCacheCheckoutScoper>(IntrusivePtr<JX_Stuff>(this));
}

JX_Stuff::MemDiskChangedSignal& JX_Stuff::GetMemDiskChangedSignal() {
  ScopedWriteLockWrapper wl(mutex_);
  if (!memDiskChanged_) memDiskChanged_ = std::make_unique<MemDiskChangedSignal>();
  return *memDiskChanged_;
}
