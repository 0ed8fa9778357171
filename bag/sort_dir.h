// JX_SortDir: a bag's lookup directory, finding the items whose GUID matches a request.
//
// Several items may share a GUID (they answer different requests, or one is compressed); a new
// item supersedes older same-GUID items it can stand for. Items that are in the bag and readable
// are in the directory; a writeable item leaves it while its key may change and returns at
// check-in. Internal to the library: callers reach it through JX_Bag and JX_Stuff.
//
// Ownership: held by its bag through std::shared_ptr; items refer to it by weak pointer; it holds
// one reference per item. Locks: every method requires or takes the library lock; item GUIDs are
// read under each item's GUID spin lock (innermost lock).
#pragma once

#include <cstddef>
#include <memory>
#include <utility>

#include <boost/unordered_set.hpp>

#include "bag/library_lock.h"
#include "host/guid.h"
#include "items/stuff.h"

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
  size_t Size() const { return items_.size(); }

  // Visits the items with `guid`, whose directory hash is `hash` (caller holds the library
  // lock). `fn` returns false to stop.
  template <class Fn>
  void ForEachWithGuid(const zelcore::utility::Guid& guid, size_t hash, Fn&& fn) const;
  template <class Fn>
  void ForEachWithGuid(const zelcore::utility::Guid& guid, Fn&& fn) const {
    ForEachWithGuid(guid, HashGuid(guid), std::forward<Fn>(fn));
  }

  // Boost's hash_range over the GUID's sixteen bytes.
  static size_t HashGuid(const zelcore::utility::Guid& guid);

 private:
  // A node keeps a copy of its item's key and hash: a search compares keys without touching
  // (and missing the cache on) every item that shares the bucket. The copy cannot go stale: an
  // item's GUID changes only while it is out of the directory.
  struct Entry {
    zelcore::utility::Guid guid;
    size_t hash;
    StuffPtr stuff;
  };
  struct Key {
    const zelcore::utility::Guid& guid;
    size_t hash;
  };
  struct Hash {
    size_t operator()(const Entry& e) const { return e.hash; }
    size_t operator()(const Key& k) const { return k.hash; }
  };
  struct Equal {
    bool operator()(const Entry& a, const Entry& b) const { return a.guid == b.guid; }
    bool operator()(const Key& k, const Entry& e) const { return k.guid == e.guid; }
    bool operator()(const Entry& e, const Key& k) const { return e.guid == k.guid; }
  };
  using Set = boost::unordered_multiset<Entry, Hash, Equal>;

  void EraseNode(const StuffPtr& stuff);

  Set items_;  // guarded by the library lock
};

template <class Fn>
void JX_SortDir::ForEachWithGuid(const zelcore::utility::Guid& guid, size_t hash, Fn&& fn) const {
  // Equal elements of a multiset are adjacent: walk from the first until the GUID changes.
  const Key key{guid, hash};
  Equal equal;
  for (auto it = items_.find(key, Hash(), equal); it != items_.end() && equal(key, *it); ++it) {
    if (!fn(it->stuff)) return;
  }
}
