// JX_SortDir and the directory side of JX_Bag and JX_Stuff: adding, removing, superseding and
// re-keying items.
#include "bag/sort_dir.h"

#include <array>
#include <boost/functional/hash.hpp>
#include <boost/version.hpp>
#include <cstdint>
#include <deque>
#include <memory>
#include <new>
#include <vector>

#include "bag/miss_reasons.h"
#include "common/failures.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/host/profiler.h"

using zelcore::threads::ScopedReadLockWrapper;
using zelcore::threads::ScopedWriteLockWrapper;

namespace {
constexpr unsigned int kDirectoryInitialBuckets = 1024;
constexpr float kDirectoryMaxLoadFactor = 1.0f;

// Frees what `old` owns once the library lock is let go, as all memory is; at once only when
// there is no memory left to queue it.
template <class T>
void FreeOutsideLock(std::unique_ptr<T> old) {
  if (!old) return;
  try {
    std::deque<std::shared_ptr<void>> owners;
    owners.push_back(std::shared_ptr<T>(std::move(old)));
    JXp_ScLock::ReleaseOutsideLock(std::move(owners));
  } catch (const std::bad_alloc&) {
  }
}

// boost::hash_range over bytes, in the boost releases whose 64-bit hash_combine is
//   h = (h ^ mix(byte)) * m + 0xe6546b64,  mix(b) = ((b * m) ^ ((b * m) >> 47)) * m.
// mix depends on the byte alone, so a table of its 256 values gives the very same hash with a
// third of the instructions; every search, add and re-key hashes a GUID. Other releases (and
// 32-bit size_t) take boost's own loop; a unit test holds HashGuid to boost::hash_range.
#if BOOST_VERSION >= 107400 && BOOST_VERSION < 108100 && SIZE_MAX == UINT64_MAX
#define JX_HASH_GUID_BY_TABLE 1
constexpr uint64_t kHashMultiplier = 0xc6a4a7935bd1e995ull;
constexpr std::array<uint64_t, 256> kMixedByte = [] {
  std::array<uint64_t, 256> table{};
  for (uint64_t b = 0; b < 256; ++b) {
    uint64_t k = b * kHashMultiplier;
    k ^= k >> 47;
    table[b] = k * kHashMultiplier;
  }
  return table;
}();
#endif

// Dead: keeps nothing a request could use.
bool IsDead(const JX_Stuff& s) {
  return !s.IsInMemory() && !s.HasDiskCacheFile() && !s.IsPendingRender();
}
}  // namespace

JX_SortDir::JX_SortDir() : shards_(new Shard[kShards]) {
  for (size_t i = 0; i < kShards; ++i) {
    shards_[i].items.rehash(kDirectoryInitialBuckets / kShards);
    shards_[i].items.max_load_factor(kDirectoryMaxLoadFactor);
  }
}

size_t JX_SortDir::Size() const {
  size_t n = 0;
  for (size_t i = 0; i < kShards; ++i) n += shards_[i].items.size();
  return n;
}

JX_SortDir::~JX_SortDir() {
  // Items outliving their directory are filed nowhere any more.
  for (size_t i = 0; i < kShards; ++i) {
    for (const Entry& e : shards_[i].items) e.stuff->key_.Unfile();
  }
}

size_t JX_SortDir::HashGuid(const zelcore::utility::Guid& guid) {
  const auto& bytes = guid.Bytes();
#ifdef JX_HASH_GUID_BY_TABLE
  uint64_t h = 0;
  for (uint8_t b : bytes) h = (h ^ kMixedByte[b]) * kHashMultiplier + 0xe6546b64;
  return h;
#else
  return boost::hash_range(bytes.begin(), bytes.end());
#endif
}

void JX_SortDir::AddStuff(const StuffPtr& stuff) {
  ZC_PROFILE_SCOPE("KQ.JX_SortDir::AddStuff", 7);
  if (!stuff) jx::ThrowNullPtr("JX_Stuff");
  JXp_ScLock lock;
  auto key = stuff->GetFindKeyData();
  const bool compressed = stuff->IsCompressed();
  std::vector<StuffPtr> superseded;
  size_t hash;
  bool wasFiled;
  // Marked filed as it is read: from here on a re-key by another thread comes through the
  // directory (after this add, under the library lock) instead of changing the key under it.
  const zelcore::utility::Guid guid = stuff->key_.LoadAndFile(&hash, &wasFiled);
  bool inserted = wasFiled;
  struct UnfileUnlessInserted {
    JX_Stuff& stuff;
    const bool& inserted;
    ~UnfileUnlessInserted() {
      if (!inserted) stuff.key_.Unfile();
    }
  } unfileOnFailure{*stuff, inserted};
  ForEachWithGuid(guid, hash, [&](const StuffPtr& old) {
    if (old == stuff) return true;
    bool sameCompression = old->IsCompressed() == compressed;
    // No find-key data: the new item answers any request for its GUID.
    if (IsDead(*old) ||
        (sameCompression && (!key || key->CanSatisfyRequest(old->GetFindKeyData())))) {
      superseded.push_back(old);
    }
    return true;
  });
  // Inserted before anything else changes: a refused allocation leaves the directory as it was.
  {
    Shard& shard = ShardOf(hash);
    // Made before the spin word; the old slots are freed after the library lock.
    std::unique_ptr<jx::SoleItemTable> grown = shard.sole.GrownForOneMore();
    {
      ShardSpin spin(shard.spin);
      shard.items.insert(Entry{stuff});
      if (grown) shard.sole.Adopt(*grown);
      shard.sole.Add(hash, stuff.get());
    }
    inserted = true;
    FreeOutsideLock(std::move(grown));
  }
  for (const StuffPtr& old : superseded) {
    // A dead item went for a reason recorded when it died; a live one goes now, for this one.
    if (!IsDead(*old)) jx::miss::NoteDeparture(hash, jx::miss::Reason::kReplaced);
    if (JX_Bag* bag = old->LiveBag(lock)) bag->RemoveStuffGuts(old, lock, true);
    old->RemoveFromBagAndSortDir();
    // Nobody can find the old item any more: its disk copy would only take room in the folder,
    // unless the new item answers from that very file.
    if (!old->HasDiskCacheFile()) continue;
    if (stuff->GetDiskCacheFile() == old->GetDiskCacheFile()) continue;
    old->DropDiskCacheFileOutsideLock();
  }
  {
    ScopedWriteLockWrapper wl(stuff->mutex_);
    stuff->sortDir_ = weak_from_this();
    stuff->tempRemovedFromSortDir_ = false;
    stuff->inSortDir_.store(true, std::memory_order_release);
  }
  // The replaced items, and their payloads when nobody else holds them, go once the library lock
  // is released: a payload's owner may wait for a thread of its own that uses the cache.
  if (!superseded.empty()) {
    try {
      std::deque<std::shared_ptr<void>> owners;
      owners.push_back(std::make_shared<std::vector<StuffPtr>>(std::move(superseded)));
      JXp_ScLock::ReleaseOutsideLock(std::move(owners));
    } catch (const std::bad_alloc&) {
      // No memory to put them off: they go now, under the lock.
    }
  }
}

void JX_SortDir::RemoveStuff(const StuffPtr& stuff) {
  ZC_PROFILE_SCOPE("KQ.JX_SortDir::RemoveStuff", 7);
  if (!stuff) jx::ThrowNullPtr("JX_Stuff");
  JXp_ScLock lock;
  {
    ScopedReadLockWrapper r(stuff->mutex_);
    if (stuff->sortDir_.lock().get() != this) {
      jx::FailVerification("stuff not in the right sortdir");
    }
    if (stuff->writeable_) jx::FailVerification("can't remove a writeable stuff from sortdir");
  }
  {
    ScopedWriteLockWrapper wl(stuff->mutex_);
    stuff->sortDir_.reset();
    stuff->inSortDir_.store(false, std::memory_order_release);
  }
  EraseNode(stuff);
}

void JX_SortDir::TempRemove(const StuffPtr& stuff, const JXp_ScLock&) { EraseNode(stuff); }

void JX_SortDir::EraseNode(const StuffPtr& stuff) {
  size_t hash;
  const zelcore::utility::Guid guid = stuff->GetGuidAndHash(&hash);
  const Key key{guid, hash};
  Equal equal;
  Shard& shard = ShardOf(hash);
  {
    // The caller holds a reference to the item: erasing the node never releases it under the
    // spin.
    ShardSpin spin(shard.spin);
    for (auto it = shard.items.find(key, Hash(), equal); it != shard.items.end() && equal(key, *it);
         ++it) {
      if (it->stuff != stuff) continue;
      const size_t bucket = shard.items.bucket(*it);
      shard.items.erase(it);
      // What is left under the hash (other GUIDs may share it) decides its slot.
      size_t left = 0;
      JX_Stuff* other = nullptr;
      for (auto b = shard.items.begin(bucket); b != shard.items.end(bucket); ++b) {
        if (FiledHash(*b->stuff) != hash) continue;
        ++left;
        other = b->stuff.get();
      }
      shard.sole.Remove(hash, left, other);
      // Out of the directory: the key may change again without it.
      stuff->key_.Unfile();
      break;
    }
  }
  // Only changes, all under the library lock, write the table: this one may read it without the
  // spin. The old slots are freed after the library lock.
  if (std::unique_ptr<jx::SoleItemTable> smaller = shard.sole.ShrunkIfSparse()) {
    {
      ShardSpin spin(shard.spin);
      shard.sole.Adopt(*smaller);
    }
    FreeOutsideLock(std::move(smaller));
  }
}

void JX_Stuff::TempRemoveFromSortDir(const JXp_ScLock& lock) {
  IntrusivePtr<JX_Stuff> self(this);
  ScopedWriteLockWrapper wl(mutex_);
  if (tempRemovedFromSortDir_) return;
  if (auto dir = sortDir_.lock()) {
    dir->TempRemove(self, lock);
    tempRemovedFromSortDir_ = true;
    inSortDir_.store(false, std::memory_order_release);
  }
}

void JX_Stuff::UpdateWithNewGuid(const Guid& guid) {
  IntrusivePtr<JX_Stuff> self(this);
  JXp_ScLock lock;
  bool writeable;
  std::shared_ptr<JX_SortDir> dir;
  {
    ScopedReadLockWrapper r(mutex_);
    writeable = writeable_;
    dir = sortDir_.lock();
  }
  // The disk copy is filed under the old key: read back, or adopted by a later process, it
  // would answer the old key with what the item now holds for the new one.
  const bool rekeyed = (writeable || dir) && GetGuid() != guid;
  if (rekeyed) DiscardDiskCopy(/*onlyIfInMemory=*/false);
  // So would a compressed copy, which is an item of its own under the old key.
  std::vector<IntrusivePtr<JX_Stuff>> oldCopies;  // empty: no allocation
  if (rekeyed && dir) oldCopies = CompressedCopiesIn(*dir, GetGuid());
  if (writeable || !dir) {
    // Out of the directory for now: check-in (or the next add) files it under the new key.
    StoreGuid(guid);
  } else {
    dir->RemoveStuff(self);
    StoreGuid(guid);
    dir->AddStuff(self);
  }
  // A write under way links its file only while the item still answers the key the file is
  // named after; one that linked between the discard above and the new key is undone here.
  if (rekeyed) DiscardDiskCopy(/*onlyIfInMemory=*/false);
  DropCopies(std::move(oldCopies));
  // A payload only on disk went with its copy: an item that nobody holds and that keeps nothing
  // leaves the bag now (a holder's check-in asks again).
  if (mayKeepNothing_.load(std::memory_order_acquire)) LeaveIfKeepsNothing();
}

void JX_Stuff::AddToBagAndSortDir(const std::shared_ptr<JX_Bag>& bag) {
  if (!bag) jx::ThrowNullPtr("JX_Bag");
  bag->AddToBagAndSortDir(IntrusivePtr<JX_Stuff>(this));
}

void JX_Stuff::RemoveFromBagAndSortDir() {
  ZC_PROFILE_SCOPE("KQ.JX_Stuff::RemoveFromBagAndSortDir", 7);
  IntrusivePtr<JX_Stuff> self(this);
  JXp_ScLock lock;
  ZC_PROFILE_SCOPE("JX_Stuff::RemoveFromBagAndSortDir - postLock", 7);
  std::shared_ptr<JX_SortDir> dir;
  bool tempRemoved;
  {
    ScopedReadLockWrapper r(mutex_);
    dir = sortDir_.lock();
    tempRemoved = tempRemovedFromSortDir_;
  }
  if (dir && tempRemoved) {
    // A writeable item is already out of the directory: forget where it would have returned.
    ScopedWriteLockWrapper wl(mutex_);
    sortDir_.reset();
    tempRemovedFromSortDir_ = false;
    inSortDir_.store(false, std::memory_order_release);
  } else if (dir) {
    dir->RemoveStuff(self);
  }
  if (JX_Bag* bag = LiveBag(lock)) bag->RemoveStuffGuts(self, lock, true);
}

void JX_Bag::AddToBagAndSortDir(const StuffPtr& stuff) {
  ZC_PROFILE_SCOPE("KQ.JX_Bag::AddToBagAndSortDir", 7);
  if (!stuff) jx::ThrowNullPtr("JX_Stuff");
  JXp_ScLock lock;
  ZC_PROFILE_SCOPE("KQ.JX_Bag::AddToBagAndSortDir - post lock", 7);
  const bool countedBefore = stuff->GetAccountedMemorySize() != 0;
  AddStuff(stuff);
  try {
    sortDir_->AddStuff(stuff);
  } catch (...) {
    // Refused (for memory, say): the item is in neither, and counted as before the call.
    RemoveStuffGuts(stuff, lock, true);
    if (JX_Bag* global = jx::GlobalBagUnretained(); global && !countedBefore) {
      stuff->ForgetAccountedSizes(*global);
    }
    throw;
  }
}

void JX_Bag::RemoveStuffFromBagAndSortDir(const StuffPtr& stuff, const JXp_ScLock& lock,
                                          bool removeFromMediaMap) {
  ZC_PROFILE_SCOPE("KQ.JX_Bag::RemoveStuffFromBagAndSortDir", 7);
  sortDir_->RemoveStuff(stuff);
  RemoveStuffGuts(stuff, lock, removeFromMediaMap);
}

void JX_Bag::ClearBagAndSortDir() {
  ZC_PROFILE_SCOPE("KQ.JX_Bag::ClearBagAndSortDir", 7);
  std::deque<StuffPtr> items = CopyMruItems();
  for (const StuffPtr& s : items) s->RemoveFromBagAndSortDir();
}
