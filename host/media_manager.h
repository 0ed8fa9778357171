// The host's media manager, as the library sees it: one memory pool for the host's own media and
// for the entries that caches mirror into it, so that memory pressure is relieved oldest first
// across all of them instead of by several budgets that fight.
//
// A cache takes part through a media map (IMediaMap): the manager hands the map a 16-byte
// identifier, the map registers each entry (its entry ID and size), notifies the manager when an
// entry is renewed and tells it to forget entries that went away. When the pool is over budget,
// the manager takes entries back oldest first, handing a map's entries back through the map's
// IPurgeableSupport::PurgeEntry so that the map frees what they stand for.
//
// A host implements IMediaManager and installs it (host/host_services.h); without one the
// library does not use a media map. The stand-in host's pool is standalone/media_manager_pool.h.
//
// The contract between the two, both ways:
// - The library calls RegisterEntry, NotifyEntry and ForgetEntry from threads that hold none of
//   its locks, in the order of the changes they report (possibly a little after the change, from
//   another of the library's threads). A host may therefore enforce its budget inside those calls
//   (calling PurgeEntry back on the same thread), and may hold locks of its own around its calls
//   to PurgeEntry and IsNonPurgeable.
// - In return, a thread inside PurgeEntry must be free to take the cache's locks: that is where
//   the cache frees the item. A host must not call PurgeEntry from a thread that is waiting for
//   another thread that uses the cache.
// - IDs the owner no longer knows are harmless both ways (the manager ignores unknown entries;
//   the map ignores purges of entries it has forgotten).
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "jxcache/host/export.h"
#include "jxcache/host/guid.h"

namespace RV {

using MediaMapID = std::array<uint8_t, 16>;

// What the manager calls on the owner of entries. Both calls may come from any thread, with
// the host's own locks held, never with the cache's; an ID the owner no longer knows must be
// harmless.
class IPurgeableSupport {
 public:
  // The manager has taken entry `id` back (it no longer counts it): free what it stands for.
  virtual void PurgeEntry(uint64_t id) = 0;
  // Whether the owner has pinned entry `id`; the manager passes over pinned entries.
  virtual bool IsNonPurgeable(uint64_t id) const = 0;

 protected:
  virtual ~IPurgeableSupport() = default;
};

// A map of entries mirrored into the manager.
class IMediaMap : public IPurgeableSupport {
 public:
  // The identifier the manager handed out when the map was made; fixed for the map's life.
  virtual const MediaMapID& GetMediaMapID() const = 0;

 protected:
  ~IMediaMap() override = default;
};

// What the library asks of the host's media manager. Any thread may call any method.
class JX_EXPORT IMediaManager {
 public:
  virtual ~IMediaManager() = default;
  // A fresh identifier for a new map.
  virtual MediaMapID NewMediaMapID() = 0;
  // Adds entry `id` of `owner`'s map (or renews it) as the youngest entry. `purgeable` 0 keeps
  // the entry out of budget purges; `flags` is the host's.
  virtual void RegisterEntry(uint64_t id, uint64_t size, int32_t purgeable, int32_t flags,
                             const std::shared_ptr<IMediaMap>& owner) = 0;
  // The entry was used again: it becomes the youngest. Unknown entries are ignored.
  virtual void NotifyEntry(uint64_t id, const MediaMapID& map) = 0;
  // Drops the entry without calling its owner. Unknown entries are ignored.
  virtual void ForgetEntry(uint64_t id, const MediaMapID& map) = 0;
  // Drops every entry of the map (its owner is going away).
  virtual void UnregisterMediaMap(const MediaMapID& map) = 0;
  // A cache's maximum size, by the cache's identity.
  virtual void SetCacheMaxSize(const zelcore::utility::Guid& cache, uint64_t bytes) = 0;
  // The media layer's fixed maximum cache size in bytes.
  virtual uint64_t GetFixedMaxCacheSize() = 0;
};

// The host's media manager, or empty when it has none.
JX_EXPORT std::shared_ptr<IMediaManager> GetMediaManager();

}  // namespace RV

namespace RV::MM {

// The media layer's fixed maximum cache size in bytes (4 GiB when the host has no manager).
JX_EXPORT uint64_t GetFixedMaxCacheSize();

}  // namespace RV::MM
