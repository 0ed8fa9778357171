// JX_Bag: membership in the recency order and size accounting.
#include "jxcache/bag/bag.h"

#include <mutex>
#include <unordered_map>

#include "bag/recency_log.h"
#include "bag/sort_dir.h"
#include "common/failures.h"
#include "common/settings.h"
#include "host/media_manager.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/host/high_precision_time.h"
#include "mediamap/media_map_hooks.h"

using zelcore::threads::ScopedReadLockWrapper;
using zelcore::threads::ScopedUpgradeLockWrapper;
using zelcore::threads::ScopedWriteLockWrapper;
using zelcore::utility::HighPrecisionTime;

namespace {
constexpr unsigned int kAppVersionMask = 0x7FFFFFFF;

// The bags that exist, by serial number: where an item's sizes go back to when it finds them
// counted in another bag than the one it now counts in. The mutex is a leaf; the bag's counters
// are changed under it, so that a bag cannot be destroyed in the middle.
struct LiveBags {
  std::mutex mutex;
  std::unordered_map<uint64_t, JX_Bag*> bags;
  uint64_t nextSerial = 1;
};
LiveBags& Bags() {
  static auto* bags = new LiveBags();  // never destroyed: items may outlive static destruction
  return *bags;
}

uint64_t RegisterBag(JX_Bag* bag) {
  LiveBags& live = Bags();
  std::lock_guard<std::mutex> lock(live.mutex);
  const uint64_t serial = live.nextSerial++;
  live.bags.emplace(serial, bag);
  return serial;
}
}  // namespace

JX_Bag::JX_Bag(unsigned int appVersion)
    : serial_(RegisterBag(this)),
      sortDir_(std::make_shared<JX_SortDir>()),
      appVersion_(appVersion & kAppVersionMask),
      diskOutOfSpace_(std::make_shared<DiskOutOfSpaceSignal>()) {}

JX_Bag::~JX_Bag() {
  {
    LiveBags& live = Bags();
    std::lock_guard<std::mutex> lock(live.mutex);
    live.bags.erase(serial_);
  }
  // The items' bytes counted here go with this bag's counters: forget them, so that an item
  // outliving its bag does not take them out of another bag. Only those counted here: bytes an
  // item counts in another bag (the global one) must stay known to the item, or that bag's
  // totals keep them for good. Then drop the set's references; the items' own links are weak
  // and expire with this bag. Under the library lock, which is what lets a check-in use its
  // item's plain link to this bag; and under each item's lock, because size syncs hold it while
  // they compare and store.
  std::deque<StuffPtr> items;
  {
    JXp_ScLock lock;
    mru_.clear_and_dispose([this, &items](JX_Stuff* s) {
      {
        ScopedWriteLockWrapper wl(s->mutex_);
        if (s->accountedIn_ == serial_) {
          s->memSize_.store(0, std::memory_order_relaxed);
          s->checkedOutSize_.store(0, std::memory_order_relaxed);
          s->diskSize_.store(0, std::memory_order_relaxed);
          s->accountedIn_ = 0;
        }
        s->mruBag_ = nullptr;
      }
      items.emplace_back(s);
      s->ReleaseObject();
    });
  }
  // The items go, if these were the last references, after the lock is released.
}

void JX_Bag::AddStuff(const StuffPtr& stuff) {
  ZC_PROFILE_SCOPE("KQ.JX_Bag::AddStuff", 7);
  if (!stuff) jx::ThrowNullPtr("JX_Stuff");
  JXp_ScLock lock;
  // Checked before the time stamp moves: an item's time is its key in the recency set.
  if (stuff->mruBag_) jx::FailVerification("stuff already in a bag");
  stuff->lastUsedTime_.store(HighPrecisionTime::GetCurrentTimeStamp(), std::memory_order_release);
  AddStuffGuts(stuff, lock, true);
}

void JX_Bag::RemoveStuff(const StuffPtr& stuff) {
  ZC_PROFILE_SCOPE("KQ.JX_Bag::RemoveStuff", 7);
  if (!stuff) jx::ThrowNullPtr("JX_Stuff");
  JXp_ScLock lock;
  RemoveStuffGuts(stuff, lock, true);
}

void JX_Bag::AddStuffGuts(const StuffPtr& stuff, const JXp_ScLock&, bool addToMediaMap) {
  if (!stuff) jx::ThrowNullPtr("JX_Stuff");
  if (stuff->mruBag_) jx::FailVerification("stuff already in a bag");
  const bool mediaMap = jx::settings::UseMediaMap() && addToMediaMap;
  if (mediaMap && stuff->IsInMemory()) JX_MediaMapAddOrUpdate(stuff);
  stuff->mruStamp_ = stuff->GetLastUsedTime();
  InsertByTime(*stuff);
  stuff->RetainObject();  // the set's reference
  stuff->SetBagAndInMru(this);
  // Out of a bag, an item counts in the global bag (see RemoveStuffGuts): entering another bag,
  // its bytes leave the global totals here and join this bag's in the sync below.
  if (JX_Bag* global = jx::GlobalBagUnretained(); global && global != this) {
    stuff->ForgetAccountedSizes(*global);
  }
  if (auto data = stuff->GetDataPtr())
    stuff->SyncMemorySizeWithBag(data->GetApproximateMemorySize());
  if (mediaMap) TraceMediaMapChange("Added stuff ", *stuff);
}

void JX_Bag::RemoveStuffGuts(const StuffPtr& stuff, const JXp_ScLock&, bool removeFromMediaMap) {
  if (!stuff) jx::ThrowNullPtr("JX_Stuff");
  if (stuff->mruBag_ != this) jx::FailVerification("stuff not in the right bag");
  mru_.erase(mru_.iterator_to(*stuff));
  stuff->SetBagAndInMru(nullptr);
  const bool mediaMap = jx::settings::UseMediaMap() && removeFromMediaMap;
  if (mediaMap) {
    JX_MediaMapErase(stuff);
    TraceMediaMapChange("Removed stuff ", *stuff);
  }
  // Out of a bag, an item counts in the global bag: when this is another bag, its bytes move.
  if (this != jx::GlobalBagUnretained()) stuff->ForgetAccountedSizes(*this);
  stuff->ResyncMemorySize(nullptr);
  stuff->ReleaseObject();  // the set's reference; the caller still holds one
}

void JX_Bag::UpdateWithNewLastUsedTime(const StuffPtr& stuff, const JXp_ScLock& lock) {
  ZC_PROFILE_SCOPE("KQ.JX_Bag::UpdateWithNewLastUsedTime", 7);
  if (!stuff) jx::ThrowNullPtr("JX_Stuff");
  if (stuff->mruBag_ != this) jx::FailVerification("stuff not in the right bag");
  MoveToYoungEnd(*stuff, lock);
  // Leaving and re-entering the bag re-synchronises the item's size; the shortcut above keeps
  // that promise here.
  stuff->ResyncMemorySize(this);
}

void JX_Bag::MoveToYoungEnd(JX_Stuff& stuff, const JXp_ScLock& lock) {
  // Only the item's place in the recency set moves: it keeps its bag link and its accounted
  // sizes. The link must never blink: the disk writer, a write's link and an offer to the disk
  // ask an item for its bag under the item's lock alone, and an item seen out of its bag has
  // its write dropped as if it had left the cache.
  uint64_t now;
  {
    // Stamped and stored under the item's lock, as a read-only check-in renews it.
    ScopedWriteLockWrapper wl(stuff.mutex_);
    now = stuff.RenewLastUsedTimeLocked();
  }
  if (!jx::settings::UseMediaMap()) {
    Reposition(stuff, now, lock);
    return;
  }
  // The media map must see the item leave and come back so that its entry is renewed.
  const StuffPtr held(&stuff);
  JX_MediaMapErase(held);
  TraceMediaMapChange("Removed stuff ", stuff);
  Reposition(stuff, now, lock);
  if (stuff.IsInMemory()) JX_MediaMapAddOrUpdate(held);
  TraceMediaMapChange("Added stuff ", stuff);
}

void JX_Bag::Reposition(JX_Stuff& stuff, uint64_t stamp, const JXp_ScLock&) {
  mru_.erase(mru_.iterator_to(stuff));
  stuff.mruStamp_ = stamp;
  InsertByTime(stuff);
}

void JX_Bag::InsertByTime(JX_Stuff& stuff) {
  const uint64_t t = stuff.mruStamp_;
  auto pos = mru_.end();
  while (pos != mru_.begin()) {
    auto prev = std::prev(pos);
    if (prev->mruStamp_ <= t) break;
    pos = prev;
  }
  mru_.insert(pos, stuff);
}

void JX_Bag::AccountForStuffDataModification(const StuffPtr& stuff) {
  ZC_PROFILE_SCOPE("KQ.JX_Bag::AccountForStuffDataModification", 7);
  if (!stuff) jx::ThrowNullPtr("JX_Stuff");
  if (auto data = stuff->GetDataPtr())
    stuff->SyncMemorySizeWithBag(data->GetApproximateMemorySize());
}

void JX_Bag::TraceMediaMapChange(const char* what, const JX_Stuff& stuff) {
  if (!ZC_TRACE_ENABLED("JX_MediaMap", 6)) return;
  unsigned long long inMemory = 0, withDisk = 0;
  GetCacheSizesInBytes(inMemory, withDisk);
  ZC_TRACE("JX_MediaMap", 6,
           what << stuff.GetGuid().AsString() << " JX Cache size " << inMemory
                << " num entries = " << mru_.size() << " MediaMap size " << JX_MediaMapSizeBytes()
                << " num entries = " << JX_MediaMapEntryCount());
}

void JX_Stuff::SetBagAndInMru(JX_Bag* bag) {
  ScopedWriteLockWrapper wl(mutex_);
  mruBag_ = bag;
}

JX_Bag* JX_Stuff::LiveBagLocked() const {
  return mruBag_ && !mruBag_->weak_from_this().expired() ? mruBag_ : nullptr;
}

JX_Bag* JX_Stuff::LiveBag(const JXp_ScLock&) const {
  ScopedReadLockWrapper r(mutex_);
  return LiveBagLocked();
}

std::shared_ptr<JX_Bag> JX_Stuff::BagLocked() const {
  // The bag clears mruBag_ under this item's write lock before its destruction gets past its
  // own body, so the caller's hold keeps the bag object there to ask; a bag whose last owner
  // has gone (its destructor may be waiting for this very lock) answers empty.
  return mruBag_ ? mruBag_->weak_from_this().lock() : nullptr;
}

void JX_Stuff::SyncMemorySizeWithBag(unsigned int newSize) {
  ScopedUpgradeLockWrapper up(mutex_);
  SyncMemorySizeLocked(newSize, nullptr);
}

void JX_Stuff::ResyncMemorySize(JX_Bag* knownBag) {
  ScopedUpgradeLockWrapper up(mutex_);
  SyncMemorySizeLocked(data_ ? data_->GetApproximateMemorySize() : 0, knownBag);
}

void JX_Stuff::SyncMemorySizeLocked(unsigned int newSize, JX_Bag* knownBag) {
  const unsigned int newCheckedOut = GetCheckoutCount() != 0 ? newSize : 0;
  // Nothing to move: skip the bag look-up (a weak-pointer lock every item of the bag shares).
  if (memSize_.load(std::memory_order_acquire) == newSize &&
      checkedOutSize_.load(std::memory_order_acquire) == newCheckedOut) {
    return;
  }
  // The bag that links the item, by its plain link: the item's lock held here keeps that bag
  // alive (it unlinks its items under their locks as it dies). Never an owning reference: were
  // it the last one, the bag's destructor would run here, under the item's lock.
  if (!knownBag) knownBag = mruBag_;
  if (knownBag) {
    MoveAccountedSizes(newSize, newCheckedOut, *knownBag);
    return;
  }
  if (std::shared_ptr<JX_Bag> global = JX_GlobalBag()) {
    MoveAccountedSizes(newSize, newCheckedOut, *global);
  }
}

void JX_Stuff::MoveAccountedSizes(unsigned int newSize, unsigned int newCheckedOut, JX_Bag& bag) {
  if (accountedIn_ != bag.serial_) [[unlikely]]
    AccountIn(bag);
  // Every caller holds the item's upgrade or write lock, so these fields have one writer at a
  // time: a load and a store do, without the cost of an atomic exchange on the hit path.
  const unsigned int old = memSize_.load(std::memory_order_relaxed);
  if (old != newSize) {
    memSize_.store(newSize, std::memory_order_release);
    bag.AdjustInMemoryCacheSize(static_cast<long long>(newSize) - static_cast<long long>(old));
  }
  const unsigned int oldOut = checkedOutSize_.load(std::memory_order_relaxed);
  if (oldOut != newCheckedOut) {
    checkedOutSize_.store(newCheckedOut, std::memory_order_release);
    bag.AdjustCheckedOutMemoryCacheSize(static_cast<long long>(newCheckedOut) -
                                        static_cast<long long>(oldOut));
  }
}

void JX_Stuff::AccountIn(JX_Bag& bag) {
  const unsigned int mem = memSize_.exchange(0, std::memory_order_acq_rel);
  const unsigned int out = checkedOutSize_.exchange(0, std::memory_order_acq_rel);
  const unsigned int disk = diskSize_.load(std::memory_order_acquire);
  if (accountedIn_ != 0) JX_Bag::TakeBackAccounts(accountedIn_, mem, out, disk);
  accountedIn_ = bag.serial_;
  if (disk != 0) bag.AdjustOnDiskCacheSize(disk);
}

void JX_Bag::TakeBackAccounts(uint64_t serial, long long memory, long long checkedOut,
                              long long disk) {
  if (memory == 0 && checkedOut == 0 && disk == 0) return;
  LiveBags& live = Bags();
  std::lock_guard<std::mutex> lock(live.mutex);
  auto it = live.bags.find(serial);
  if (it == live.bags.end()) return;  // gone, and its counts with it
  JX_Bag& bag = *it->second;
  if (memory != 0) bag.AdjustInMemoryCacheSize(-memory);
  if (checkedOut != 0) bag.AdjustCheckedOutMemoryCacheSize(-checkedOut);
  if (disk != 0) bag.AdjustOnDiskCacheSize(-disk);
}

void JX_Stuff::ForgetAccountedSizes(JX_Bag& bag) {
  ScopedUpgradeLockWrapper up(mutex_);
  // Counted elsewhere: nothing of it is in `bag` to forget.
  if (accountedIn_ != bag.serial_) return;
  const unsigned int old = memSize_.exchange(0, std::memory_order_acq_rel);
  const unsigned int oldOut = checkedOutSize_.exchange(0, std::memory_order_acq_rel);
  if (old != 0) bag.AdjustInMemoryCacheSize(-static_cast<long long>(old));
  if (oldOut != 0) bag.AdjustCheckedOutMemoryCacheSize(-static_cast<long long>(oldOut));
}

void JX_Stuff::SyncDiskSizeWithBag(unsigned int newSize) {
  ScopedUpgradeLockWrapper up(mutex_);
  // The linking bag by its plain link, never an owning reference (see SyncMemorySizeLocked).
  std::shared_ptr<JX_Bag> global;
  JX_Bag* bag = mruBag_;
  if (!bag) {
    global = JX_GlobalBag();
    bag = global.get();
  }
  if (!bag) return;
  if (accountedIn_ != bag->serial_) AccountIn(*bag);
  unsigned int old = diskSize_.exchange(newSize, std::memory_order_acq_rel);
  if (old != newSize) {
    bag->AdjustOnDiskCacheSize(static_cast<long long>(newSize) - static_cast<long long>(old));
  }
}

void JX_Bag::AdjustInMemoryCacheSize(long long delta) {
  inMemorySize_.fetch_add(delta);
  ZC_TRACE("JX", 7, "AdjustInMemoryCacheSize: " << delta);
}

void JX_Bag::AdjustCheckedOutMemoryCacheSize(long long delta) {
  checkedOutSize_.fetch_add(delta);
  ZC_TRACE("JX", 7, "AdjustCheckedOutMemoryCacheSize: " << delta);
}

void JX_Bag::AdjustOnDiskCacheSize(long long delta) {
  onDiskSize_.fetch_add(delta);
  ZC_TRACE("JX", 7, "AdjustOnDiskCacheSize: " << delta);
}

void JX_Bag::GetCacheSizesInBytes(unsigned long long& inMemory,
                                  unsigned long long& inMemoryWithDiskCopy) const {
  ZC_PROFILE_SCOPE("KQ.JX_Bag::GetCacheSizesInBytes", 7);
  inMemory = 0;
  inMemoryWithDiskCopy = 0;
  JXp_ScLock lock;
  for (const JX_Stuff& s : mru_) {
    auto data = s.GetDataPtr();
    if (!data) continue;
    unsigned int size = data->GetApproximateMemorySize();
    if (!data->IsInMemory()) continue;
    inMemory += size;
    if (s.HasDiskCacheFile()) inMemoryWithDiskCopy += size;
  }
}

unsigned long long JX_Bag::GetCurrentMaxCacheSize() const {
  return Y_AmountAvailableBeforePurge() +
         static_cast<unsigned long long>(std::max(0LL, GetInMemoryCacheSizeInBytes_LockFree()));
}

float JX_Bag::GetPercentOfAvailableMemoryCheckedOut() const {
  auto global = JX_GlobalBag();
  double checkedOut =
      global ? static_cast<double>(global->GetCheckedOutMemoryCacheSizeInBytes()) : 0.0;
  double denominator = static_cast<double>(GetCurrentMaxCacheSize());
  return denominator > 0 ? static_cast<float>(checkedOut / denominator) : 0.0f;
}

float JX_Bag::GetPercentOfAvailableMemoryFree() const {
  // What the host still grants, over the same ceiling: neither checked out nor held by items.
  double denominator = static_cast<double>(GetCurrentMaxCacheSize());
  double available = static_cast<double>(Y_AmountAvailableBeforePurge());
  return denominator > 0 ? static_cast<float>(available / denominator) : 0.0f;
}

int JX_Bag::GetNumItems() const {
  JXp_ScLock lock;
  return static_cast<int>(mru_.size());
}

int JX_Bag::GetNumGuidSortedItems() const {
  JXp_ScLock lock;
  return static_cast<int>(sortDir_->Size());
}

std::deque<JX_Bag::StuffPtr> JX_Bag::CopyMruItems() const {
  std::deque<StuffPtr> items;
  JXp_ScLock lock;
  jx::recency::ApplyAll(lock);
  for (const JX_Stuff& s : mru_) items.emplace_back(const_cast<JX_Stuff*>(&s));
  return items;
}

void JX_Bag::TrackLastPurgedUsedTime(unsigned long long usedTime) {
  lastPurgedUsedTime_.exchange(usedTime);
}

unsigned long long JX_GetMaxJXCacheSize() {
  double max = static_cast<double>(RV::MM::GetFixedMaxCacheSize()) *
               jx::settings::GfxpaksCacheLimitMultiplier();
  return static_cast<unsigned long long>(max);
}

bool JX_IsGlobalBagSizeAboveMinimum() {
  if (JX_IsSetJXCacheLimitForGfxpaksEnabled()) return true;
  uint64_t memoryLimit = 0, softLimit = 0;
  if (int32_t status = Y_GetMemUsageLimits(&memoryLimit, &softLimit))
    throw static_cast<int>(status);
  auto minimum = static_cast<unsigned long long>(static_cast<double>(memoryLimit) *
                                                 jx::settings::MinJXSizeToPurgeLimitRatio());
  auto bag = JX_GlobalBag();
  long long size = bag ? bag->GetInMemoryCacheSizeInBytes_LockFree() : 0;
  bool above = size >= 0 && static_cast<unsigned long long>(size) >= minimum;
  ZC_TRACE("JX", 7,
           "(memCacheSize, minMemCacheSize, memCacheAboveMin):" << size << ", " << minimum << ", "
                                                                << above);
  return above;
}
