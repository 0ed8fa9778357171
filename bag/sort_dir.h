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

  // Visits the items with `guid` (caller holds the library lock). `fn` returns false to stop.
  template <class Fn>
  void ForEachWithGuid(const zelcore::utility::Guid& guid, Fn&& fn) const;

  // Boost's hash_range over the GUID's sixteen bytes.
  static size_t HashGuid(const zelcore::utility::Guid& guid);

 private:
  struct Hash {
    size_t operator()(const StuffPtr& s) const { return HashGuid(s->GetGuid()); }
    size_t operator()(const zelcore::utility::Guid& g) const { return HashGuid(g); }
  };
  struct Equal {
    bool operator()(const StuffPtr& a, const StuffPtr& b) const {
      return a->GetGuid() == b->GetGuid();
    }
    bool operator()(const zelcore::utility::Guid& g, const StuffPtr& b) const {
      return g == b->GetGuid();
    }
    bool operator()(const StuffPtr& a, const zelcore::utility::Guid& g) const {
      return a->GetGuid() == g;
    }
  };
  using Set = boost::unordered_multiset<StuffPtr, Hash, Equal>;

  void EraseNode(const StuffPtr& stuff);

  Set items_;  // guarded by the library lock
};

template <class Fn>
void JX_SortDir::ForEachWithGuid(const zelcore::utility::Guid& guid, Fn&& fn) const {
  // Equal elements of a multiset are adjacent: walk from the first until the GUID changes.
  Equal equal;
  for (auto it = items_.find(guid, Hash(), equal); it != items_.end() && equal(guid, *it); ++it) {
    if (!fn(*it)) return;
  }
}
