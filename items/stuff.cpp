// JX_Stuff: construction, destruction and the state accessors.
#include "jxcache/items/stuff.h"

#include "bag/sort_dir.h"
#include "common/failures.h"
#include "items/pending_watch.h"
#include "jxcache/bag/bag.h"
#include "jxcache/host/high_precision_time.h"

using zelcore::threads::ScopedReadLockWrapper;
using zelcore::threads::ScopedWriteLockWrapper;
using zelcore::utility::HighPrecisionTime;

namespace jx::detail {
constinit JX_StuffCounters g_stuffCounters;
}  // namespace jx::detail

namespace {
uint64_t EmptyGuidHash() {
  static const uint64_t hash = JX_SortDir::HashGuid(zelcore::utility::Guid());
  return hash;
}
}  // namespace

JX_Stuff::JX_Stuff(IntrusivePtr<JX_StuffData> data, double computeTime, bool pending,
                   IntrusivePtr<JX_StuffData> findKeyData)
    : key_(EmptyGuidHash()),
      pending_(pending),
      data_(std::move(data)),
      lastUsedTime_(HighPrecisionTime::GetCurrentTimeStamp()),
      computeTime_(computeTime) {
  // Made before the item is shared: while the item is pending its side record is reached
  // without the item's lock.
  if (pending || findKeyData) {
    Extras& extras = ExtrasLocked();
    extras.findKeyData = std::move(findKeyData);
    if (pending) extras.pendingThread = zelcore::threads::CurrentThreadId();
  }
  UpdateKeyIsFinalPayload();
}

JX_Stuff::Extras& JX_Stuff::ExtrasLocked() {
  if (Extras* extras = FindExtras()) return *extras;
  // One writer at a time (the write lock, or the constructor): no other thread can be making
  // one. Published with release: a reader without the lock sees it whole.
  auto* extras = new Extras;
  extras_.store(extras, std::memory_order_release);
  return *extras;
}

const JX_Stuff::IntrusivePtr<JX_StuffData>& JX_Stuff::FindKeyDataLocked() const {
  static const IntrusivePtr<JX_StuffData> kNone;
  const Extras* extras = FindExtras();
  return extras ? extras->findKeyData : kNone;
}

JX_Stuff::MemDiskChangedSignal* JX_Stuff::MemDiskChangedLocked() const {
  const Extras* extras = FindExtras();
  return extras ? extras->memDiskChanged.get() : nullptr;
}

JX_Stuff::IntrusivePtr<JX_Stuff> JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData> data,
                                                     double computeTime) {
  return IntrusivePtr<JX_Stuff>(new JX_Stuff(std::move(data), computeTime, false));
}

JX_Stuff::IntrusivePtr<JX_Stuff> JX_Stuff::CreatePending(const Guid& guid,
                                                         IntrusivePtr<JX_StuffData> findKeyData) {
  IntrusivePtr<JX_Stuff> stuff(new JX_Stuff({}, 0.0, true, std::move(findKeyData)));
  stuff->StoreGuid(guid);
  jx::pending::Watch(*stuff, guid);
  return stuff;
}

JX_Stuff::~JX_Stuff() {
  // Nothing in here, nor in any member's destructor, may write mruBag_: the recency apply reads
  // it through a weak reference's memory after the item's last strong reference went (see
  // Applier::InBagPeeked), and relies on it staying null once the bag let go of the item.
  // An item outside any bag still counted its bytes in the global bag; take them out so that the
  // totals stay exact when the last reference goes.
  // An item dropped while still pending leaves the watchdog's registry before its memory goes.
  if (pending_.load(std::memory_order_acquire)) jx::pending::Forget(*this);
  try {
    SyncMemorySizeWithBag(0);
    SyncDiskSizeWithBag(0);
  } catch (...) {
  }
  delete FindExtras();
}

bool JX_Stuff::IsCheckedOutWriteable() const {
  ScopedReadLockWrapper r(mutex_);
  return writeable_;
}

bool JX_Stuff::IsPendingFromThisThread() const {
  ScopedReadLockWrapper r(mutex_);
  if (!pending_.load(std::memory_order_acquire)) return false;
  const Extras* extras = FindExtras();
  return extras && extras->pendingThread == zelcore::threads::CurrentThreadId();
}

void JX_Stuff::ThrowIfCheckedOutWriteable() const {
  if (IsCheckedOutWriteable()) jx::FailWithMessage(11, jx::kErrCheckedOutWrite);
}

void JX_Stuff::ThrowIfCheckedOutMoreThan(uint32_t count) const {
  if (GetCheckoutCount() > count) jx::FailWithMessage(12, jx::kErrCheckedOutWrite);
}

void JX_Stuff::ThrowIfCheckedOutLessThan(uint32_t count) const {
  if (GetCheckoutCount() < count) jx::FailWithMessage(22, jx::kErrNotCheckedOut);
}

JX_Stuff::IntrusivePtr<JX_StuffData> JX_Stuff::GetDataPtr() const {
  ScopedReadLockWrapper r(mutex_);
  return data_;
}

JX_Stuff::IntrusivePtr<JX_StuffData> JX_Stuff::GetFindKeyData() const {
  bool keptByItem;
  return GetFindKeyData(&keptByItem);
}

JX_Stuff::IntrusivePtr<JX_StuffData> JX_Stuff::GetFindKeyData(bool* keptByItem) const {
  // Every search asks its request for this: most requests are plain items whose key cannot
  // change any more.
  *keptByItem = keyIsFinalPayload_.load(std::memory_order_acquire);
  if (*keptByItem) return FinalData();
  ScopedReadLockWrapper r(mutex_);
  return KeyLocked();
}

void JX_Stuff::SetFindKeyData(IntrusivePtr<JX_StuffData> data) {
  ScopedWriteLockWrapper w(mutex_);
  // Clearing what was never set needs no side record.
  if (data || FindExtras()) ExtrasLocked().findKeyData = std::move(data);
  UpdateKeyIsFinalPayload();
}

bool JX_Stuff::IsInMemory() const {
  ScopedReadLockWrapper r(mutex_);
  return data_ && data_->IsInMemory();
}

JX_Stuff::IntrusivePtr<JX_StuffData> JX_Stuff::GetFindKeyDataAndCompression(
    bool* compressed) const {
  ScopedReadLockWrapper r(mutex_);
  const auto& key = KeyLocked();
  *compressed = key && key->IsCompressed();
  return key;
}

bool JX_Stuff::IsCompressed() const {
  ScopedReadLockWrapper r(mutex_);
  const auto& key = data_ ? data_ : FindKeyDataLocked();
  return key && key->IsCompressed();
}

double JX_Stuff::GetComputeTime() const {
  ScopedReadLockWrapper r(mutex_);
  return computeTime_;
}

zelcore::utility::Guid JX_Stuff::GetGuid() const { return key_.Load(); }

zelcore::utility::Guid JX_Stuff::GetGuidAndHash(size_t* hash) const { return key_.Load(hash); }

void JX_Stuff::SetGuid(const Guid& guid) {
  // The directory hashes items by GUID: an item it has filed must be re-keyed through it. The
  // check and the store are one step, so that an add on another thread cannot file the item in
  // between under the old key.
  if (!key_.StoreUnlessFiled(guid, JX_SortDir::HashGuid(guid))) UpdateWithNewGuid(guid);
}

void JX_Stuff::StoreGuid(const Guid& guid) { key_.Store(guid, JX_SortDir::HashGuid(guid)); }

std::shared_ptr<JX_Bag> JX_Stuff::GetBag() const {
  ScopedReadLockWrapper r(mutex_);
  return BagLocked();
}

std::shared_ptr<JX_SortDir> JX_Stuff::GetSortDir() const {
  ScopedReadLockWrapper r(mutex_);
  return sortDir_.lock();
}

bool JX_Stuff::IsInSortDir() const { return inSortDir_.load(std::memory_order_acquire); }

JX_Stuff::Guid JX_Stuff::GetMediaMapGuid() const {
  ScopedReadLockWrapper r(mutex_);
  const Extras* extras = FindExtras();
  return extras ? extras->mediaMapGuid : Guid();
}

void JX_Stuff::SetMediaMapGuid(const Guid& guid) {
  ScopedWriteLockWrapper w(mutex_);
  // Clearing what was never set needs no side record.
  if (guid != Guid() || FindExtras()) ExtrasLocked().mediaMapGuid = guid;
}

uint64_t JX_Stuff::GetMediaMapID() const {
  ScopedReadLockWrapper r(mutex_);
  const Extras* extras = FindExtras();
  return extras ? extras->mediaMapID : 0;
}

void JX_Stuff::SetMediaMapID(uint64_t id) {
  ScopedWriteLockWrapper w(mutex_);
  if (id != 0 || FindExtras()) ExtrasLocked().mediaMapID = id;
}
