// The stand-in media manager: a pool ordered by age, and the budget walk that hands entries back
// to their owners without ever holding the manager's mutex across a call into an owner.
#include "standalone/media_manager_pool.h"

#include <algorithm>

namespace RV {

namespace {
MediaMapID FreshID() { return zelcore::utility::Guid::CreateUnique().Bytes(); }
}  // namespace

MediaManager::MediaManager() : hostMap_(FreshID()) {}

MediaMapID MediaManager::NewMediaMapID() { return FreshID(); }

std::unique_lock<std::recursive_mutex> MediaManager::HostLock() const {
  if (!callbacksUnderHostLock_.load(std::memory_order_acquire)) return {};
  return std::unique_lock<std::recursive_mutex>(hostLock_);
}

void MediaManager::SetPurgeDuringRegistration(bool on) { purgeDuringRegistration_ = on; }
void MediaManager::SetCallbacksUnderHostLock(bool on) { callbacksUnderHostLock_ = on; }
uint64_t MediaManager::GetPurgesDuringRegistration() const { return purgesDuringRegistration_; }

void MediaManager::SetCallbackHook(std::function<void()> hook) {
  auto shared = hook ? std::make_shared<const std::function<void()>>(std::move(hook)) : nullptr;
  std::lock_guard<std::mutex> lock(hookMutex_);
  hook_ = std::move(shared);
}

void MediaManager::RunCallbackHook() {
  std::shared_ptr<const std::function<void()>> hook;
  {
    std::lock_guard<std::mutex> lock(hookMutex_);
    hook = hook_;
  }
  if (hook) (*hook)();
}

void MediaManager::RegisterEntry(uint64_t id, uint64_t size, int32_t purgeable, int32_t flags,
                                 const std::shared_ptr<IMediaMap>& owner) {
  if (!owner) return;
  auto host = HostLock();
  // Read before locking: the identifier is fixed, but it is still a call into the owner.
  const MediaMapID map = owner->GetMediaMapID();
  {
    jx::MutexLock lock(mutex_);
    RemoveLocked({map, id});
    AddLocked({{map, id}, size, purgeable, flags, owner});
  }
  if (purgeDuringRegistration_.load(std::memory_order_acquire)) {
    const uint64_t before = GetPurgeCallCount();
    EnforceBudget();
    purgesDuringRegistration_ += GetPurgeCallCount() - before;
  }
  RunCallbackHook();
}

void MediaManager::NotifyEntry(uint64_t id, const MediaMapID& map) {
  auto host = HostLock();
  {
    jx::MutexLock lock(mutex_);
    ++notifyCount_;
    auto it = index_.find({map, id});
    if (it != index_.end()) order_.splice(order_.end(), order_, it->second);
  }
  RunCallbackHook();
}

void MediaManager::ForgetEntry(uint64_t id, const MediaMapID& map) {
  auto host = HostLock();
  {
    jx::MutexLock lock(mutex_);
    RemoveLocked({map, id});
  }
  RunCallbackHook();
}

void MediaManager::UnregisterMediaMap(const MediaMapID& map) {
  auto host = HostLock();
  jx::MutexLock lock(mutex_);
  for (auto it = index_.lower_bound({map, 0}); it != index_.end() && it->first.first == map;) {
    total_ -= it->second->size;
    order_.erase(it->second);
    it = index_.erase(it);
  }
}

void MediaManager::SetCacheMaxSize(const zelcore::utility::Guid& cache, uint64_t bytes) {
  jx::MutexLock lock(mutex_);
  cacheMaxSizes_[cache] = bytes;
}

std::optional<uint64_t> MediaManager::GetCacheMaxSize(const zelcore::utility::Guid& cache) const {
  jx::MutexLock lock(mutex_);
  auto it = cacheMaxSizes_.find(cache);
  if (it == cacheMaxSizes_.end()) return std::nullopt;
  return it->second;
}

uint64_t MediaManager::AddHostMedia(uint64_t bytes) {
  auto host = HostLock();
  uint64_t handle;
  {
    jx::MutexLock lock(mutex_);
    handle = ++nextHostMedia_;
    AddLocked({{hostMap_, handle}, bytes, 1, 0, {}});
  }
  EnforceBudget();
  return handle;
}

bool MediaManager::RemoveHostMedia(uint64_t handle) {
  jx::MutexLock lock(mutex_);
  return RemoveLocked({hostMap_, handle});
}

bool MediaManager::PurgeEntry(const MediaMapID& map, uint64_t id) {
  auto host = HostLock();
  std::shared_ptr<IMediaMap> owner;
  {
    jx::MutexLock lock(mutex_);
    auto it = index_.find({map, id});
    if (it == index_.end()) return false;
    owner = it->second->owner.lock();
    RemoveLocked({map, id});
    if (owner) ++purgeCalls_;
  }
  if (owner) owner->PurgeEntry(id);
  return true;
}

void MediaManager::SetBudget(uint64_t bytes) {
  auto host = HostLock();
  {
    jx::MutexLock lock(mutex_);
    budget_ = bytes;
  }
  EnforceBudget();
}

uint64_t MediaManager::GetBudget() const {
  jx::MutexLock lock(mutex_);
  return budget_;
}

uint64_t MediaManager::EnforceBudget() {
  auto host = HostLock();
  uint64_t taken = 0;
  // Entries whose owner pinned them when asked; passed over for the rest of this walk.
  std::vector<EntryKey> pinned;
  for (;;) {
    std::optional<Victim> victim;
    {
      jx::MutexLock lock(mutex_);
      if (total_ <= budget_) break;
      victim = OldestCandidateLocked(pinned);
      if (!victim) break;
      if (victim->key.first == hostMap_) {  // the host's own media: just dropped
        RemoveLocked(victim->key);
        taken += victim->size;
        continue;
      }
    }
    // The owner is asked and told with the mutex released: it takes its own locks, and the
    // entry may come and go meanwhile, which the second look under the mutex settles.
    std::shared_ptr<IMediaMap> owner = victim->owner.lock();
    if (owner && owner->IsNonPurgeable(victim->key.second)) {
      pinned.push_back(victim->key);
      continue;
    }
    {
      jx::MutexLock lock(mutex_);
      if (!RemoveLocked(victim->key)) continue;  // forgotten meanwhile: nothing to hand back
      taken += victim->size;
      if (owner) ++purgeCalls_;
    }
    if (owner) owner->PurgeEntry(victim->key.second);
  }
  return taken;
}

uint64_t MediaManager::GetTotalBytes() const {
  jx::MutexLock lock(mutex_);
  return total_;
}

uint64_t MediaManager::GetHostMediaBytes() const { return GetBytesOfMap(hostMap_); }

uint64_t MediaManager::GetBytesOfMap(const MediaMapID& map) const {
  jx::MutexLock lock(mutex_);
  uint64_t sum = 0;
  for (auto it = index_.lower_bound({map, 0}); it != index_.end() && it->first.first == map; ++it)
    sum += it->second->size;
  return sum;
}

std::vector<uint64_t> MediaManager::GetEntryIDsOfMap(const MediaMapID& map) const {
  jx::MutexLock lock(mutex_);
  std::vector<uint64_t> ids;
  for (const Entry& e : order_) {
    if (e.key.first == map) ids.push_back(e.key.second);
  }
  return ids;
}

uint64_t MediaManager::GetNotifyCount() const {
  jx::MutexLock lock(mutex_);
  return notifyCount_;
}

uint64_t MediaManager::GetPurgeCallCount() const {
  jx::MutexLock lock(mutex_);
  return purgeCalls_;
}

void MediaManager::Reset() {
  jx::MutexLock lock(mutex_);
  order_.clear();
  index_.clear();
  cacheMaxSizes_.clear();
  total_ = 0;
  budget_ = kUnlimited;
  notifyCount_ = 0;
  purgeCalls_ = 0;
  purgeDuringRegistration_ = false;
  callbacksUnderHostLock_ = false;
  purgesDuringRegistration_ = 0;
  std::lock_guard<std::mutex> hookLock(hookMutex_);
  hook_.reset();
}

void MediaManager::AddLocked(Entry entry) {
  total_ += entry.size;
  EntryKey key = entry.key;
  order_.push_back(std::move(entry));
  index_[key] = std::prev(order_.end());
}

bool MediaManager::RemoveLocked(const EntryKey& key) {
  auto it = index_.find(key);
  if (it == index_.end()) return false;
  total_ -= it->second->size;
  order_.erase(it->second);
  index_.erase(it);
  return true;
}

std::optional<MediaManager::Victim> MediaManager::OldestCandidateLocked(
    const std::vector<EntryKey>& pinned) {
  for (const Entry& e : order_) {
    if (!e.purgeable) continue;
    if (std::find(pinned.begin(), pinned.end(), e.key) != pinned.end()) continue;
    return Victim{e.key, e.size, e.owner};
  }
  return std::nullopt;
}

uint64_t MediaManager::GetFixedMaxCacheSize() {
  return fixedMaxCacheSize_.load(std::memory_order_relaxed);
}

void MediaManager::SetFixedMaxCacheSize(uint64_t bytes) {
  fixedMaxCacheSize_.store(bytes, std::memory_order_relaxed);
}

}  // namespace RV

namespace jx::standalone {
std::shared_ptr<RV::MediaManager> MediaManagerPool() {
  // Never destroyed: maps may still let go of it from static destructors.
  static auto* manager =
      new std::shared_ptr<RV::MediaManager>(std::make_shared<RV::MediaManager>());
  return *manager;
}
}  // namespace jx::standalone
