// JX_SortDir: a bag's lookup directory, finding the items whose GUID matches a request.
//
// Several items may share a GUID (they answer different requests, or one is compressed); a new
// item supersedes older same-GUID items it can stand for. Items that are in the bag and readable
// are in the directory; a writeable item leaves it while its key may change and returns at
// check-in. Internal to the library: callers reach it through JX_Bag and JX_Stuff.
//
// Ownership: held by its bag through std::shared_ptr; items refer to it by weak pointer; it holds
// one reference per item. Locks: every change requires or takes the library lock. The entries are
// split into shards by hash, each with a spin word that a change also holds while it edits the
// shard: a read-only search looks up under that word alone (ForEachWithGuidUnlocked), so that
// render threads hitting the cache do not queue behind one another on the library lock. The spin
// word is a leaf: nothing else is taken, and no item is released, while it is held.
//
// Beside its set, each shard keeps a flat table from hash to item for the hashes that exactly
// one of its entries has (bag/sole_item_table.h): a search reaches most items through one
// dependent read instead of the set's three. The table is changed under the same library lock
// and spin word as the set, and searched under the spin word.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include <boost/unordered_set.hpp>

#include "bag/sole_item_table.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/host/guid.h"
#include "jxcache/host/spin_word.h"
#include "jxcache/items/stuff.h"

class JX_SortDir : public std::enable_shared_from_this<JX_SortDir> {
 public:
  using StuffPtr = zelcore::utility::IntrusivePtr<JX_Stuff>;

  JX_SortDir();
  ~JX_SortDir();

  // Evicts the items `stuff` supersedes (same GUID: dead ones, and those of equal compression
  // state whose request its own can satisfy), inserts it and links it to this directory.
  void AddStuff(const StuffPtr& stuff);
  // Erases this very item. Reports and throws 3 for an item of another directory ("stuff not in
  // the right sortdir") or a writeable one ("can't remove a writeable stuff from sortdir").
  void RemoveStuff(const StuffPtr& stuff);
  // Erases the node of a writeable item but keeps its link, so check-in can put it back.
  void TempRemove(const StuffPtr& stuff, const JXp_ScLock& lock);
  size_t Size() const;

  // Visits the items with `guid`, whose directory hash is `hash` (caller holds the library
  // lock). `fn` returns false to stop.
  template <class Fn>
  void ForEachWithGuid(const zelcore::utility::Guid& guid, size_t hash, Fn&& fn) const;
  template <class Fn>
  void ForEachWithGuid(const zelcore::utility::Guid& guid, Fn&& fn) const {
    ForEachWithGuid(guid, HashGuid(guid), std::forward<Fn>(fn));
  }

  // The same walk without the library lock, under the shard's spin word: `fn(JX_Stuff&)` may
  // only copy what it is given (taking a reference is fine); it must not take a lock or release
  // an item.
  template <class Fn>
  void ForEachWithGuidUnlocked(const zelcore::utility::Guid& guid, size_t hash, Fn&& fn) const;

  // Boost's hash_range over the GUID's sixteen bytes.
  static size_t HashGuid(const zelcore::utility::Guid& guid);

 private:
  // A node holds its item and nothing else: the set hashes and compares the item's own key,
  // which is stable while the node exists (an item is re-keyed only while out of the directory).
  // Every cached item pays for its node, and copies of the key would double what it holds; the
  // searches that matter go through the sole-item table, which keeps the hashes, and an item a
  // search compares is most likely the one it is after, whose key it was going to read anyway.
  struct Entry {
    StuffPtr stuff;
  };
  struct Key {
    const zelcore::utility::Guid& guid;
    size_t hash;
  };
  struct Hash {
    size_t operator()(const Entry& e) const { return FiledHash(*e.stuff); }
    size_t operator()(const Key& k) const { return k.hash; }
  };
  struct Equal {
    bool operator()(const Entry& a, const Entry& b) const {
      return a.stuff == b.stuff || IsFiledUnder(*a.stuff, b.stuff->GetGuid());
    }
    bool operator()(const Key& k, const Entry& e) const { return IsFiledUnder(*e.stuff, k.guid); }
    bool operator()(const Entry& e, const Key& k) const { return (*this)(k, e); }
  };
  using Set = boost::unordered_multiset<Entry, Hash, Equal>;

  // Changed under the library lock and `spin`; read under either. On its own cache line, so that
  // threads searching different shards share nothing.
  struct alignas(64) Shard {
    mutable std::atomic<uint32_t> spin{0};
    Set items;
    jx::SoleItemTable sole;
  };
  static constexpr size_t kShardBits = 6;
  static constexpr size_t kShards = size_t{1} << kShardBits;

  using ShardSpin = zelcore::threads::SpinWordGuard;

  // The top bits of the hash, mixed once more, pick the shard; the set's own bucket choice
  // works on the whole hash.
  static size_t ShardIndex(size_t hash) {
    return static_cast<size_t>((static_cast<uint64_t>(hash) * 0x9E3779B97F4A7C15ull) >>
                               (64 - kShardBits));
  }
  Shard& ShardOf(size_t hash) { return shards_[ShardIndex(hash)]; }
  const Shard& ShardOf(size_t hash) const { return shards_[ShardIndex(hash)]; }
  template <class Fn>
  static void Walk(const Set& items, const zelcore::utility::Guid& guid, size_t hash, Fn&& fn);

  void EraseNode(const StuffPtr& stuff);
  // Whether the item in the directory is filed under `guid` (it cannot be re-keyed while in it).
  static bool IsFiledUnder(const JX_Stuff& stuff, const zelcore::utility::Guid& guid) {
    return stuff.key_.EqualsStable(guid);
  }
  // The directory hash the item in the directory is filed under.
  static size_t FiledHash(const JX_Stuff& stuff) {
    size_t hash;
    stuff.key_.Load(&hash);
    return hash;
  }

  std::unique_ptr<Shard[]> shards_;
};

template <class Fn>
void JX_SortDir::Walk(const Set& items, const zelcore::utility::Guid& guid, size_t hash, Fn&& fn) {
  // Equal elements of a multiset are adjacent: walk from the first until the GUID changes.
  const Key key{guid, hash};
  Equal equal;
  for (auto it = items.find(key, Hash(), equal); it != items.end() && equal(key, *it); ++it) {
    if (!fn(it->stuff)) return;
  }
}

template <class Fn>
void JX_SortDir::ForEachWithGuid(const zelcore::utility::Guid& guid, size_t hash, Fn&& fn) const {
  Walk(ShardOf(hash).items, guid, hash, std::forward<Fn>(fn));
}

template <class Fn>
void JX_SortDir::ForEachWithGuidUnlocked(const zelcore::utility::Guid& guid, size_t hash,
                                         Fn&& fn) const {
  const Shard& shard = ShardOf(hash);
  ShardSpin spin(shard.spin);
  const uintptr_t sole = shard.sole.Find(hash);
  if (sole == jx::SoleItemTable::kNone) return;
  if (sole != jx::SoleItemTable::kSeveral) {
    JX_Stuff& stuff = *reinterpret_cast<JX_Stuff*>(sole);
    if (IsFiledUnder(stuff, guid)) fn(stuff);
    return;
  }
  Walk(shard.items, guid, hash, [&](const StuffPtr& s) { return fn(*s); });
}
