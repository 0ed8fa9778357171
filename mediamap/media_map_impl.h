// kq::JX_MediaMapImpl: the adapter that mirrors the global bag's in-memory items into the host's
// media manager, so that the host purges its own media and our items as one pool. When the host
// takes an entry back, the adapter frees the item's memory in the cache.
//
// Each mirrored item carries a media-map GUID (fresh each time it is entered) and the entry ID
// the map gave it; the entry keeps a counted reference to the item and the payload's size. Next
// to the template's maps the adapter keeps its own ID -> (item, size) map and the running total
// of those sizes ("cache size"), all under the template's recursive mutex.
//
// Ownership: one adapter per process, made by JX_MediaMapBirth and dropped by JX_MediaMapDeath
// (mediamap/media_map_hooks.h); held by std::shared_ptr, weakly by the media manager.
// Threads: any. Adding and erasing come from the bag under the library lock (and, when freeing
// an item, under the item's write lock); the host's PurgeEntry comes with none of our locks held
// (the host may hold its own). The adapter's mutex is a leaf: the manager is never called from
// here directly but through the outbox (mediamap/manager_outbox.h), once the library's locks are
// released, and an item's own purge (which takes the library lock) runs last, with nothing held.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "jxcache/host/guid.h"
#include "jxcache/host/ref_counted.h"
#include "jxcache/items/stuff.h"
#include "mediamap/manager_outbox.h"
#include "mediamap/media_map.h"

namespace kq {

// An entry's key: the item's media-map GUID and the entry ID given on insertion. Keys are found
// by GUID alone (JX_MediaMapSearcher), since the caller of a lookup does not know the ID.
struct JX_MediaMapDataKey {
  uint8_t guid[16] = {};
  uint64_t id = 0;

  JX_MediaMapDataKey() = default;
  JX_MediaMapDataKey(const zelcore::utility::Guid& g, uint64_t entryID) : id(entryID) {
    zelcore::utility::GuidToBytes(g, guid);
  }
};

// An entry's data: the item and the size it was mirrored with.
struct JX_MediaMapData {
  zelcore::utility::IntrusivePtr<JX_Stuff> stuff;
  uint32_t size = 0;
};

struct JX_MediaMapSearcher {
  bool operator()(const JX_MediaMapDataKey& a, const JX_MediaMapDataKey& b) const {
    return std::memcmp(a.guid, b.guid, sizeof a.guid) < 0;
  }
  static void SetID(JX_MediaMapDataKey& key, uint64_t id) { key.id = id; }
  static uint64_t GetID(const JX_MediaMapDataKey& key) { return key.id; }
  static uint64_t SizeOf(const JX_MediaMapData& data) { return data.size; }
};

using JX_MediaMapBase = RV::MediaMap<JX_MediaMapDataKey, JX_MediaMapData, JX_MediaMapSearcher>;

class JX_MediaMapImpl final : public JX_MediaMapBase {
 public:
  using StuffPtr = zelcore::utility::IntrusivePtr<JX_Stuff>;

  // Mirrors the item (erasing an entry it still has first) and gives it a new media-map GUID.
  // Returns false, mirroring nothing, when the item is not in memory or its payload's size is 0.
  bool AddOrUpdate(const StuffPtr& stuff);
  // Mirrors the item as AddOrUpdate does, but only when it has no entry; false otherwise.
  bool AddIfMissing(const StuffPtr& stuff);
  // Erases the item's entry; false when it has none.
  bool EraseStuff(const StuffPtr& stuff);
  // The host took entry `id` back: forget it and free the item's memory. An ID the adapter does
  // not mirror only flushes the template's entry.
  void PurgeEntry(uint64_t id) override;
  // Running total of mirrored bytes, and the number of mirrored items.
  uint64_t GetCacheSize() const;
  uint64_t GetNumEntries() const;
  // Shut-down: forgets every entry, mirrors nothing from now on, and posts the map's
  // unregistration behind every call the map posted before. The manager hears nothing more of
  // the map after that, though a delivery on another thread may still be making an earlier call,
  // and a thread that read the adapter's handle before may still try to mirror an item.
  void Close();

  // What the adapter mirrors now, by entry ID (for tools and tests).
  struct Mirrored {
    uint64_t id;
    StuffPtr stuff;
    uint32_t size;
  };
  std::vector<Mirrored> Snapshot() const;

 private:
  // The manager calls about an entry, written before the adapter's mutex is taken.
  jx::mediamap::ManagerOutbox::Letter RegisterLetter(uint64_t size);
  jx::mediamap::ManagerOutbox::Letter NotifyLetter(uint64_t id);
  jx::mediamap::ManagerOutbox::Letter ForgetLetter();
  jx::mediamap::ManagerOutbox::Letter UnregisterLetter();

  struct Mirror {
    StuffPtr stuff;
    uint32_t size = 0;
  };
  std::map<uint64_t, Mirror> mirrored_;  // guarded by Mutex()
  uint64_t cacheSize_ = 0;               // guarded by Mutex()
  bool closed_ = false;                  // guarded by Mutex()
  // The manager was told the map is gone; read and written only by the delivering thread.
  std::atomic<bool> unregistered_{false};
};

}  // namespace kq

namespace jx::mediamap {
// The process-wide adapter, or empty while the media map is not in use.
std::shared_ptr<kq::JX_MediaMapImpl> CurrentAdapter();
}  // namespace jx::mediamap
