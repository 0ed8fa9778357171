// The stand-in host's media manager (RV::IMediaManager, host/media_manager.h): one pool ordered
// by age, and the budget walk that hands entries back to their owners.
//
// Locks. This stand-in never calls a map while holding its mutex (it picks its victims under the
// mutex, lets go, then calls PurgeEntry / IsNonPurgeable). A real host may not be so careful: it
// may purge inside RegisterEntry, or call PurgeEntry with a lock of its own held that
// RegisterEntry also takes (SetPurgeDuringRegistration and SetCallbacksUnderHostLock act that
// way). The cache copes with both because it calls RegisterEntry, NotifyEntry and ForgetEntry
// only with none of its locks held; in return a host must let the thread that is inside its
// PurgeEntry callback take the cache's locks (the callback frees the item there).
// Threads: any thread may call any method.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "host/media_manager.h"
#include "jxcache/host/guid.h"
#include "jxcache/host/thread_annotations.h"

namespace RV {

class MediaManager final : public IMediaManager {
 public:
  static constexpr uint64_t kUnlimited = std::numeric_limits<uint64_t>::max();

  MediaManager();
  MediaManager(const MediaManager&) = delete;
  MediaManager& operator=(const MediaManager&) = delete;

  // ---- what a media map uses, in the order it uses it ----------------------------------------
  // A fresh identifier for a new map.
  MediaMapID NewMediaMapID() override;
  // Adds entry `id` of `owner`'s map (or renews it) as the youngest entry. `purgeable` 0 keeps
  // the entry out of budget purges; `flags` is kept for inspection. Never purges by itself: the
  // caller is usually in the middle of adding an item under the library lock. The budget is
  // enforced by the host's next AddHostMedia, SetBudget or EnforceBudget.
  void RegisterEntry(uint64_t id, uint64_t size, int32_t purgeable, int32_t flags,
                     const std::shared_ptr<IMediaMap>& owner) override;
  // The entry was used again: it becomes the youngest. Unknown entries are ignored.
  void NotifyEntry(uint64_t id, const MediaMapID& map) override;
  // Drops the entry without calling its owner. Unknown entries are ignored.
  void ForgetEntry(uint64_t id, const MediaMapID& map) override;
  // Drops every entry of the map (its owner is going away).
  void UnregisterMediaMap(const MediaMapID& map) override;
  // A cache's maximum size, by the cache's identity.
  void SetCacheMaxSize(const zelcore::utility::Guid& cache, uint64_t bytes) override;
  // The media layer's fixed maximum cache size (4 GiB unless set).
  uint64_t GetFixedMaxCacheSize() override;
  void SetFixedMaxCacheSize(uint64_t bytes);
  std::optional<uint64_t> GetCacheMaxSize(const zelcore::utility::Guid& cache) const;

  // ---- the host's side of the pool -----------------------------------------------------------
  // The host's own media of `bytes` joins the pool as its youngest entry; returns its handle.
  // Enforces the budget.
  uint64_t AddHostMedia(uint64_t bytes);
  // The host released that media itself; false when it was already gone (e.g. purged).
  bool RemoveHostMedia(uint64_t handle);
  // Takes one entry back now, whatever the budget (the host's own choice of a victim); false
  // when the pool does not hold it. Same calling rules as EnforceBudget.
  bool PurgeEntry(const MediaMapID& map, uint64_t id);
  // Sets the pool's budget and enforces it.
  void SetBudget(uint64_t bytes);
  uint64_t GetBudget() const;
  // Takes entries back, oldest first, until the total is within the budget or only pinned
  // entries remain. Returns the bytes taken back. Must be called with no library or item lock
  // held: owners' purge callbacks run on this thread.
  uint64_t EnforceBudget();

  // ---- inspection ----------------------------------------------------------------------------
  uint64_t GetTotalBytes() const;
  uint64_t GetHostMediaBytes() const;
  uint64_t GetBytesOfMap(const MediaMapID& map) const;
  // The map's entry IDs, oldest first.
  std::vector<uint64_t> GetEntryIDsOfMap(const MediaMapID& map) const;
  uint64_t GetNotifyCount() const;
  // Entries handed back to their owners through PurgeEntry so far.
  uint64_t GetPurgeCallCount() const;
  // Back to an empty pool with an unlimited budget and the plain behaviour; only while no map is
  // registered.
  void Reset();

  // ---- how real hosts behave, for tests ------------------------------------------------------
  // A host may enforce its budget inside a registration: owners' PurgeEntry then runs on the
  // registering thread before RegisterEntry returns.
  void SetPurgeDuringRegistration(bool on);
  // A host may serialise its manager under one big lock of its own (recursive, as such locks
  // usually are) and call owners back with it held: every method takes it for its whole run,
  // callbacks included.
  void SetCallbacksUnderHostLock(bool on);
  // PurgeEntry callbacks made from inside a registration so far.
  uint64_t GetPurgesDuringRegistration() const;
  // A host may call back into the cache from inside RegisterEntry, NotifyEntry and ForgetEntry
  // (under its host lock when SetCallbacksUnderHostLock is on): `hook` runs at the end of each,
  // with the manager's mutex released. Empty: nothing runs.
  void SetCallbackHook(std::function<void()> hook);

 private:
  using EntryKey = std::pair<MediaMapID, uint64_t>;
  struct Entry {
    EntryKey key;
    uint64_t size;
    int32_t purgeable;
    int32_t flags;
    std::weak_ptr<IMediaMap> owner;  // empty for the host's own media
  };
  struct Victim {
    EntryKey key;
    uint64_t size = 0;
    std::weak_ptr<IMediaMap> owner;
  };

  void AddLocked(Entry entry) REQUIRES(mutex_);
  bool RemoveLocked(const EntryKey& key) REQUIRES(mutex_);
  std::optional<Victim> OldestCandidateLocked(const std::vector<EntryKey>& pinned) REQUIRES(mutex_);

  // Holds the host lock when SetCallbacksUnderHostLock is on, nothing otherwise.
  std::unique_lock<std::recursive_mutex> HostLock() const;

  const MediaMapID hostMap_;  // the map the host's own media is filed under
  std::atomic<uint64_t> fixedMaxCacheSize_{4ull << 30};
  std::atomic<bool> purgeDuringRegistration_{false};
  std::atomic<bool> callbacksUnderHostLock_{false};
  std::atomic<uint64_t> purgesDuringRegistration_{0};
  void RunCallbackHook();
  std::mutex hookMutex_;
  std::shared_ptr<const std::function<void()>> hook_;  // guarded by hookMutex_
  mutable std::recursive_mutex hostLock_;  // the big host lock of SetCallbacksUnderHostLock
  mutable jx::Mutex mutex_;
  std::list<Entry> order_ GUARDED_BY(mutex_);  // oldest first
  std::map<EntryKey, std::list<Entry>::iterator> index_ GUARDED_BY(mutex_);
  std::map<zelcore::utility::Guid, uint64_t> cacheMaxSizes_ GUARDED_BY(mutex_);
  uint64_t total_ GUARDED_BY(mutex_) = 0;
  uint64_t budget_ GUARDED_BY(mutex_) = kUnlimited;
  uint64_t nextHostMedia_ GUARDED_BY(mutex_) = 0;
  uint64_t notifyCount_ GUARDED_BY(mutex_) = 0;
  uint64_t purgeCalls_ GUARDED_BY(mutex_) = 0;
};

}  // namespace RV

namespace jx::standalone {
// The stand-in's media manager: made on first use; installed as the host's by the stand-in.
std::shared_ptr<RV::MediaManager> MediaManagerPool();
}  // namespace jx::standalone
