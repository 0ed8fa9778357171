// The link between an item and its disk cache file, and the pins that keep the file.
#include <atomic>
#include <new>
#include <vector>

#include "bag/miss_reasons.h"
#include "bag/sort_dir.h"
#include "disk/claimed_file.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/items/stuff.h"

using jx::disk::ClaimedFile;
using zelcore::filesupport::File;
using zelcore::threads::ScopedReadLockWrapper;
using zelcore::threads::ScopedWriteLockWrapper;

bool JX_Stuff::SetDiskCacheFile(const File& file, bool onlyIfNone) {
  {
    ScopedReadLockWrapper r(mutex_);
    if (diskFile_ && (onlyIfNone || diskFile_->File() == file)) return !onlyIfNone;
  }
  std::shared_ptr<ClaimedFile> claim = ClaimedFile::TryClaim(file);
  return claim && TakeDiskCacheFile(claim, onlyIfNone);
}

bool JX_Stuff::TakeDiskCacheFile(std::shared_ptr<ClaimedFile>& claim, bool onlyIfNone,
                                 std::optional<unsigned int> size) {
  if (!claim) return false;
  std::shared_ptr<ClaimedFile> previous;  // released after the lock
  ScopedWriteLockWrapper wl(mutex_);
  if (onlyIfNone && diskFile_) return false;
  previous = std::exchange(diskFile_, std::move(claim));
  if (size) SyncDiskSizeWithBag(*size);
  return true;
}

File JX_Stuff::GetDiskCacheFile() const {
  ScopedReadLockWrapper r(mutex_);
  return diskFile_ ? diskFile_->File() : File();
}

bool JX_Stuff::HasDiskCacheFile() const {
  ScopedReadLockWrapper r(mutex_);
  return diskFile_ != nullptr;
}

void JX_Stuff::ClearDiskCacheFile() {
  std::shared_ptr<ClaimedFile> forgotten;
  {
    ScopedWriteLockWrapper wl(mutex_);
    forgotten = std::move(diskFile_);
  }
  SyncDiskSizeWithBag(0);
}

void JX_Stuff::DiskCopyGone::Tell() const {
  if (signal) item->TellMemDiskState(*signal);
}

void JX_Stuff::TellMemDiskState(MemDiskChangedSignal& signal) const {
  bool inMemory = IsInMemory(), onDisk = HasDiskCacheFile();
  // Bounded: a handler that changes the item on every call would otherwise never be done.
  for (int round = 0; round < 4; ++round) {
    signal.Fire(inMemory, onDisk);
    const bool nowInMemory = IsInMemory(), nowOnDisk = HasDiskCacheFile();
    if (nowInMemory == inMemory && nowOnDisk == onDisk) return;
    inMemory = nowInMemory;
    onDisk = nowOnDisk;
  }
}

bool JX_Stuff::DeleteDiskCacheFile() {
  DiskCopyGone gone;
  const bool deleted = DeleteDiskCacheFile(&gone);
  gone.Tell();
  return deleted;
}

bool JX_Stuff::DeleteDiskCacheFile(DiskCopyGone* gone) {
  // Released once the file is gone: until then no scan can adopt it.
  std::shared_ptr<ClaimedFile> claim;
  {
    ScopedWriteLockWrapper wl(mutex_);
    if (!diskFile_) return false;
    claim = std::move(diskFile_);
    uint64_t size = 0;
    try {
      size = claim->File().Size();
    } catch (...) {
      size = 0;
    }
    try {
      claim->File().Delete();
    } catch (...) {
    }
    if (size == 0) {
      // An empty or unreadable file still leaves the item: its counted size must go too.
      wl.Unlock();
      SyncDiskSizeWithBag(0);
      return false;
    }
    // The signal is created under this lock; read it here, fire it after.
    if (gone) {
      gone->signal = MemDiskChangedLocked();
      if (gone->signal) gone->item.reset(this);
    }
  }
  SyncDiskSizeWithBag(0);
  return true;
}

void JX_Stuff::DropDiskCacheFileOutsideLock() {
  if (!HasDiskCacheFile()) return;
  // Left to the pins' last release when pinned: nobody else would ever delete the file, and the
  // bag stops counting it once the item is gone. The flag is set before the pins are counted and
  // the release counts down before it reads the flag, so one of the two always sees the other.
  dropFileWhenUnpinned_.store(true, std::memory_order_seq_cst);
  if (diskCheckouts_.load(std::memory_order_seq_cst) != 0) return;
  IntrusivePtr<JX_Stuff> self(this);
  std::deque<std::shared_ptr<void>> owners;
  owners.emplace_back(nullptr, [self](void*) {
    if (self->GetNumDiskCacheCheckouts() == 0) self->DeleteDiskCacheFile();
  });
  JXp_ScLock::ReleaseOutsideLock(std::move(owners));
}

void JX_Stuff::DiscardDiskCopy(bool onlyIfInMemory) {
  DetachedDiskCopy stale;
  {
    ScopedWriteLockWrapper wl(mutex_);
    stale = DetachDiskCopyLocked(onlyIfInMemory);
  }
  DropDetachedDiskCopy(std::move(stale));
}

JX_Stuff::DetachedDiskCopy JX_Stuff::DetachDiskCopyLocked(bool onlyIfInMemory) {
  DetachedDiskCopy stale;
  if (!diskFile_) return stale;
  stale.inMemory = data_ && data_->IsInMemory();
  if (onlyIfInMemory && !stale.inMemory) return stale;
  stale.claim = std::move(diskFile_);
  // Its only copy gone, the item may keep nothing: whoever leaves it idle asks.
  if (!stale.inMemory) mayKeepNothing_.store(true, std::memory_order_release);
  stale.signal = MemDiskChangedLocked();
  return stale;
}

void JX_Stuff::DropDetachedDiskCopy(DetachedDiskCopy stale) {
  if (!stale.claim) return;
  // The written or re-keyed payload is not what the old copy holds; it is a candidate again.
  taggedToWrite_.store(false, std::memory_order_release);
  SyncDiskSizeWithBag(0);
  // The handler is the host's: it hears of the drop once the calling thread holds no lock of the
  // cache (a re-key and CheckinAndCheckout hold the library lock here), and may then wait for a
  // thread of its own that uses the cache. It hears the item's state as it is then. The claim
  // goes with the file, after the handler, so that no scan adopts the file in between.
  struct TellAndUnlink {
    IntrusivePtr<JX_Stuff> item;
    MemDiskChangedSignal* signal;
    std::shared_ptr<jx::disk::ClaimedFile> claim;
    void operator()() const noexcept {
      if (signal) {
        try {
          item->TellMemDiskState(*signal);
        } catch (...) {
          // A handler's failure is the host's own; the copy is dropped all the same.
        }
      }
      try {
        claim->File().Delete();
      } catch (...) {
        // Gone already, or the folder refuses: either way no item links to it any more.
      }
    }
  };
  TellAndUnlink later{IntrusivePtr<JX_Stuff>(this), stale.signal, std::move(stale.claim)};
  try {
    std::deque<std::shared_ptr<void>> owners;
    owners.emplace_back(nullptr, [later](void*) { later(); });
    JXp_ScLock::ReleaseOutsideLock(std::move(owners));
  } catch (const std::bad_alloc&) {
    later();  // no memory to put it off: now, even under the lock
  }
}

std::vector<JX_Stuff::IntrusivePtr<JX_Stuff>> JX_Stuff::CompressedCopiesIn(const JX_SortDir& dir,
                                                                           const Guid& guid) const {
  std::vector<IntrusivePtr<JX_Stuff>> copies;
  const IntrusivePtr<JX_StuffData> data = GetDataPtr();
  if (!data || data->IsCompressed()) return copies;
  try {
    dir.ForEachWithGuid(guid, [&](const IntrusivePtr<JX_Stuff>& other) {
      if (other.get() == this) return true;
      const IntrusivePtr<JX_StuffData> otherData = other->GetDataPtr();
      if (otherData && otherData->IsCompressed() && data->CanSatisfyRequest(otherData)) {
        copies.push_back(other);
      }
      return true;
    });
  } catch (const std::bad_alloc&) {
    // Called where a check-in or a re-key is half done and must not fail: out of memory, the
    // copies found so far go, and any others stay (a copy is found only by requests that accept
    // compressed frames, and only while the item itself cannot be checked out).
  }
  return copies;
}

void JX_Stuff::DropCopies(std::vector<IntrusivePtr<JX_Stuff>>&& copies) {
  if (copies.empty()) return;
  for (const IntrusivePtr<JX_Stuff>& copy : copies) {
    try {
      copy->RemoveFromBagAndSortDir();
      copy->DropDiskCacheFileOutsideLock();
    } catch (...) {
      // Checked out writeable by someone (who holds it out of the directory): theirs to settle.
    }
  }
  // Out of the bag, these references may be a copy's last, and a re-key holds the library lock:
  // its payload is freed after that lock, like any other memory.
  try {
    std::deque<std::shared_ptr<void>> owners;
    owners.emplace_back(nullptr, [held = std::move(copies)](void*) {});
    JXp_ScLock::ReleaseOutsideLock(std::move(owners));
  } catch (const std::bad_alloc&) {
    copies.clear();  // no memory to put it off: now, even under the lock
  }
}

void JX_Stuff::MaybeDeleteDiskCacheFile(uint64_t lastUsedThreshold, bool* deleted, bool* skipped) {
  if (deleted) *deleted = false;
  if (skipped) *skipped = false;
  DiskCopyGone gone;
  {
    ScopedWriteLockWrapper wl(mutex_);
    MaybeDeleteDiskCacheFileLocked(lastUsedThreshold, deleted, skipped, &gone);
  }
  gone.Tell();
}

void JX_Stuff::MaybeDeleteDiskCacheFileLocked(uint64_t lastUsedThreshold, bool* deleted,
                                              bool* skipped, DiskCopyGone* gone) {
  if (GetCheckoutCount() != 0 || !diskFile_ || GetNumDiskCacheCheckouts() != 0) return;
  if (GetLastUsedTime() < lastUsedThreshold) {
    bool d = DeleteDiskCacheFile(gone);
    // The file was all that was left of a payload already gone from memory.
    if (d && !(data_ && data_->IsInMemory())) {
      size_t hash;
      GetGuidAndHash(&hash);
      jx::miss::NoteDeparture(hash, jx::miss::Reason::kFolderLimit);
    }
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
  GetNumDiskCacheCheckoutsGlobal().fetch_sub(1, std::memory_order_acq_rel);
  stuff_->ReleaseDiskCheckout();
}

void JX_Stuff::ReleaseDiskCheckout() noexcept {
  if (diskCheckouts_.fetch_sub(1, std::memory_order_seq_cst) != 1) return;
  if (!dropFileWhenUnpinned_.load(std::memory_order_seq_cst)) return;
  try {
    DropDiskCacheFileOutsideLock();
  } catch (...) {
    // Out of memory to put the deletion off: the file stays, as it did under the pin.
  }
}

std::unique_ptr<JX_Stuff::DiskCacheCheckoutScoper> JX_Stuff::CheckoutDiskCache(bool) {
  ScopedReadLockWrapper r(mutex_);
  if (!diskFile_) return nullptr;
  return std::make_unique<DiskCacheCheckoutScoper>(IntrusivePtr<JX_Stuff>(this));
}

JX_Stuff::MemDiskChangedSignal& JX_Stuff::GetMemDiskChangedSignal() {
  ScopedWriteLockWrapper wl(mutex_);
  Extras& extras = ExtrasLocked();
  if (!extras.memDiskChanged) extras.memDiskChanged = std::make_unique<MemDiskChangedSignal>();
  return *extras.memDiskChanged;
}
