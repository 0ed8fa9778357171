// The process-wide adapter behind the calls the rest of the library makes.
#include "mediamap/media_map_hooks.h"

#include <atomic>
#include <mutex>

#include "host/media_manager.h"
#include "jxcache/host/recursive_mutex.h"
#include "mediamap/manager_outbox.h"
#include "mediamap/media_map_impl.h"

namespace {

// Taken by start-up and shut-down for the whole replacement or tear-down of the adapter, which
// calls the host's media manager under it. Nothing else takes it: the adapter is read through
// an atomic handle, because a host may call its purges back under a lock of its own that
// UnregisterMediaMap also takes, and a purge frees an item through the adapter.
// Made without allocating: start-up takes it after it has replaced the bag, where nothing may
// fail any more.
constinit zelcore::threads::RecursiveMutex gMediaMapLock;
zelcore::threads::RecursiveMutex& MediaMapLock() { return gMediaMapLock; }
std::atomic<std::shared_ptr<kq::JX_MediaMapImpl>> gAdapter;  // changed under MediaMapLock()

// Flushes the adapter, unregisters it from the manager and drops the handle. Caller holds
// MediaMapLock().
void TearDownAdapterLocked() {
  const std::shared_ptr<kq::JX_MediaMapImpl> adapter = gAdapter.load();
  if (!adapter) return;
  adapter->FlushAll();
  adapter->UnregisterFromManager();
  gAdapter.store(nullptr);
}

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
  // What the earlier adapter still has to tell the manager goes before it is unregistered.
  jx::mediamap::ManagerOutbox::Deliver();
  std::lock_guard<zelcore::threads::RecursiveMutex> lock(MediaMapLock());
  TearDownAdapterLocked();  // a second start-up replaces the adapter
  gAdapter.store(std::make_shared<kq::JX_MediaMapImpl>());
}

void JX_MediaMapDeath() {
  jx::mediamap::ManagerOutbox::Deliver();
  // A failure to release the lock escapes the guard's destructor and ends the process: the
  // adapter's state could no longer be trusted.
  std::lock_guard<zelcore::threads::RecursiveMutex> lock(MediaMapLock());
  TearDownAdapterLocked();
}

void JX_MediaMapSetCacheLimit(const zelcore::utility::Guid& cacheIdentity, uint64_t bytes) {
  if (auto manager = RV::GetMediaManager()) manager->SetCacheMaxSize(cacheIdentity, bytes);
}
