// The process-wide adapter behind the calls the rest of the library makes.
#include "mediamap/media_map_hooks.h"

#include <atomic>
#include <mutex>

#include "host/media_manager.h"
#include "jxcache/host/recursive_mutex.h"
#include "mediamap/manager_outbox.h"
#include "mediamap/media_map_impl.h"

namespace {

// Taken by start-up and shut-down for the whole replacement or tear-down of the adapter (a new
// adapter asks the manager for its identifier under it; the old one's unregistration is only
// posted). Nothing else takes it: the adapter is read through an atomic handle, because a host
// may call its purges back under a lock of its own that UnregisterMediaMap also takes, and a
// purge frees an item through the adapter.
// Made without allocating: start-up takes it after it has replaced the bag, where nothing may
// fail any more.
constinit zelcore::threads::RecursiveMutex gMediaMapLock;
zelcore::threads::RecursiveMutex& MediaMapLock() { return gMediaMapLock; }
std::atomic<std::shared_ptr<kq::JX_MediaMapImpl>> gAdapter;  // changed under MediaMapLock()

// Closes the adapter (its unregistration is posted behind its other calls to the manager) and
// drops the handle. Caller holds MediaMapLock().
void TearDownAdapterLocked() {
  const std::shared_ptr<kq::JX_MediaMapImpl> adapter = gAdapter.load();
  if (!adapter) return;
  adapter->Close();
  gAdapter.store(nullptr);
}

// The earlier adapter's unregistration reaches the manager before start-up or shut-down
// returns, behind every call that adapter posted, those a delivery on another thread is still
// making included. Inside a host callback or a delivery of our own, where waiting could close a
// cycle, it goes with the delivery under way or the next one instead. Called with
// MediaMapLock() released: a thread we wait for may start up or shut down from its callback.
void DeliverUnregistration() { jx::mediamap::ManagerOutbox::DeliverAll(); }

}  // namespace

namespace jx::mediamap {
std::shared_ptr<kq::JX_MediaMapImpl> CurrentAdapter() { return gAdapter.load(); }
}  // namespace jx::mediamap

bool JX_MediaMapAddOrUpdate(const zelcore::utility::IntrusivePtr<JX_Stuff>& stuff) {
  auto adapter = jx::mediamap::CurrentAdapter();
  return adapter && adapter->AddOrUpdate(stuff);
}

bool JX_MediaMapAddIfMissing(const zelcore::utility::IntrusivePtr<JX_Stuff>& stuff) {
  auto adapter = jx::mediamap::CurrentAdapter();
  return adapter && adapter->AddIfMissing(stuff);
}

bool JX_MediaMapErase(const zelcore::utility::IntrusivePtr<JX_Stuff>& stuff) {
  auto adapter = jx::mediamap::CurrentAdapter();
  return adapter && adapter->EraseStuff(stuff);
}

uint64_t JX_MediaMapSizeBytes() {
  auto adapter = jx::mediamap::CurrentAdapter();
  return adapter ? adapter->GetCacheSize() : 0;
}

uint64_t JX_MediaMapEntryCount() {
  auto adapter = jx::mediamap::CurrentAdapter();
  return adapter ? adapter->GetNumEntries() : 0;
}

void JX_MediaMapBirth() {
  {
    std::lock_guard<zelcore::threads::RecursiveMutex> lock(MediaMapLock());
    TearDownAdapterLocked();  // a second start-up replaces the adapter
    gAdapter.store(std::make_shared<kq::JX_MediaMapImpl>());
  }
  DeliverUnregistration();
}

void JX_MediaMapDeath() {
  {
    // A failure to release the lock escapes the guard's destructor and ends the process: the
    // adapter's state could no longer be trusted.
    std::lock_guard<zelcore::threads::RecursiveMutex> lock(MediaMapLock());
    TearDownAdapterLocked();
  }
  DeliverUnregistration();
}

void JX_MediaMapSetCacheLimit(const zelcore::utility::Guid& cacheIdentity, uint64_t bytes) {
  if (auto manager = RV::GetMediaManager()) manager->SetCacheMaxSize(cacheIdentity, bytes);
}
