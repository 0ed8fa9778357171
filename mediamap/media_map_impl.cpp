// The media-map adapter: mirroring items, erasing their entries, and the host's purge by ID.
#include "mediamap/media_map_impl.h"

#include <optional>
#include <utility>

#include "host/trace.h"
#include "mediamap/manager_outbox.h"

namespace kq {

namespace {
constexpr const char* kAddOrUpdateLabel = "JX_MediaMapImpl::AddOrUpdate";
constexpr const char* kEraseLabel = "JX_MediaMapImpl::EraseStuff";
constexpr const char* kPurgeEntryLabel = "JX_MediaMapImpl::PurgeEntry";
constexpr const char* kSizeLabel = "JX_MediaMapImpl::Size";
constexpr const char* kCloseLabel = "JX_MediaMapImpl::Close";
}  // namespace

using jx::mediamap::ManagerOutbox;

// The letters hold the adapter: a call queued for the manager keeps the map it speaks for. Once
// the manager has heard the map is gone, it hears nothing more about the map's entries: a
// renewal posted after the map closed (AddOrUpdate posts it before it takes the mutex) would
// otherwise reach it after the unregistration.
ManagerOutbox::Letter JX_MediaMapImpl::RegisterLetter(uint64_t size) {
  auto self = std::static_pointer_cast<JX_MediaMapImpl>(shared_from_this());
  return ManagerOutbox::Letter([self, size](uint64_t id) {
    if (!self->unregistered_.load(std::memory_order_acquire)) self->RegisterWithManager(id, size);
  });
}

ManagerOutbox::Letter JX_MediaMapImpl::NotifyLetter(uint64_t id) {
  auto self = std::static_pointer_cast<JX_MediaMapImpl>(shared_from_this());
  return ManagerOutbox::Letter(
      [self](uint64_t entry) {
        if (!self->unregistered_.load(std::memory_order_acquire)) self->NotifyManager(entry);
      },
      id);
}

ManagerOutbox::Letter JX_MediaMapImpl::ForgetLetter() {
  auto self = std::static_pointer_cast<JX_MediaMapImpl>(shared_from_this());
  return ManagerOutbox::Letter([self](uint64_t id) {
    if (!self->unregistered_.load(std::memory_order_acquire)) self->ForgetWithManager(id);
  });
}

ManagerOutbox::Letter JX_MediaMapImpl::UnregisterLetter() {
  auto self = std::static_pointer_cast<JX_MediaMapImpl>(shared_from_this());
  return ManagerOutbox::Letter([self](uint64_t) {
    if (self->unregistered_.exchange(true, std::memory_order_acq_rel)) return;
    self->UnregisterFromManager();
  });
}

bool JX_MediaMapImpl::AddOrUpdate(const StuffPtr& stuff) {
  if (!stuff) return false;
  // An item still mirrored under its previous GUID: the host hears that the entry was used again
  // before it goes, and the item is counted once.
  if (auto stored = Find(JX_MediaMapDataKey(stuff->GetMediaMapGuid(), 0))) {
    ManagerOutbox::Post(NotifyLetter(stored->id));
    EraseStuff(stuff);
  }
  const zelcore::utility::Guid guid = zelcore::utility::Guid::CreateUnique();
  stuff->SetMediaMapGuid(guid);
  if (!stuff->IsInMemory()) return false;
  auto data = stuff->GetDataPtr();
  const uint32_t size = data ? data->GetApproximateMemorySize() : 0;
  if (size == 0) return false;

  JX_MediaMapDataKey key(guid, 0);
  uint64_t id;
  {
    // The template entry and our own record appear together, before the manager knows the ID:
    // a purge of the ID can then never find one without the other. The registration is posted
    // in the same hold, so that it reaches the manager before any later call about the entry.
    ManagerOutbox::Letter letter = RegisterLetter(size);
    RV::ScopedLabelledLock lock(Mutex(), Holder(), kAddOrUpdateLabel);
    // Closed: its unregistration is posted already, and an entry made now would outlive it in
    // the manager's pool.
    if (closed_) return false;
    id = InsertEntry(key, JX_MediaMapData{stuff, size});
    mirrored_.try_emplace(id, Mirror{stuff, size});
    cacheSize_ += size;
    letter.SetID(id);
    ManagerOutbox::Post(std::move(letter));
  }
  stuff->SetMediaMapID(id);
  ManagerOutbox::ScheduleDelivery();
  return true;
}

bool JX_MediaMapImpl::AddIfMissing(const StuffPtr& stuff) {
  // A purge by ID may take the entry between the two looks: AddOrUpdate then mirrors the item
  // afresh, which is what is wanted.
  if (!stuff || Find(JX_MediaMapDataKey(stuff->GetMediaMapGuid(), 0))) return false;
  return AddOrUpdate(stuff);
}

bool JX_MediaMapImpl::EraseStuff(const StuffPtr& stuff) {
  if (!stuff) return false;
  const zelcore::utility::Guid guid = stuff->GetMediaMapGuid();
  const JX_MediaMapDataKey key(guid, stuff->GetMediaMapID());
  // Declared before the lock so that the item references they hold go after it.
  std::optional<Removed> removed;
  Mirror dropped;
  ManagerOutbox::Letter letter = ForgetLetter();
  {
    RV::ScopedLabelledLock lock(Mutex(), Holder(), kEraseLabel);
    removed = EraseEntry(key);
    if (!removed) return false;
    letter.SetID(removed->first);
    ManagerOutbox::Post(std::move(letter));
    auto it = mirrored_.find(removed->first);
    if (it != mirrored_.end()) {
      ZC_TRACE("KQLIB.MediaMapImpl", 6,
               "Purged entry " << removed->first << " hash " << guid.AsString() << " with "
                               << it->second.size << " bytes. Current cache size " << cacheSize_
                               << "\n");
      cacheSize_ -= it->second.size;
      dropped = std::move(it->second);
      mirrored_.erase(it);
    }
  }
  ManagerOutbox::ScheduleDelivery();
  return true;
}

void JX_MediaMapImpl::PurgeEntry(uint64_t id) {
  // The host may hold locks of its own around this call: whatever the purge posts for the
  // manager waits for a thread outside the host's callback.
  ManagerOutbox::ScInHostCallback inCallback;
  StuffPtr stuff;
  std::optional<Removed> flushed;
  {
    RV::ScopedLabelledLock lock(Mutex(), Holder(), kPurgeEntryLabel);
    auto it = mirrored_.find(id);
    if (it != mirrored_.end()) {
      stuff = std::move(it->second.stuff);
      cacheSize_ -= it->second.size;
      mirrored_.erase(it);
    }
    flushed = Flush(id);
  }
  // With nothing held: the item's purge takes the library lock and the item's lock.
  if (stuff && stuff->IsInMemory()) stuff->PurgeFromMediaMap();
}

uint64_t JX_MediaMapImpl::GetCacheSize() const {
  RV::ScopedLabelledLock lock(Mutex(), Holder(), kSizeLabel);
  return cacheSize_;
}

uint64_t JX_MediaMapImpl::GetNumEntries() const {
  RV::ScopedLabelledLock lock(Mutex(), Holder(), kSizeLabel);
  return mirrored_.size();
}

void JX_MediaMapImpl::Close() {
  // Declared before the lock so that the item references they hold go after it.
  std::map<uint64_t, Mirror> dropped;
  std::vector<Removed> cleared;
  ManagerOutbox::Letter letter = UnregisterLetter();
  RV::ScopedLabelledLock lock(Mutex(), Holder(), kCloseLabel);
  if (closed_) return;
  closed_ = true;
  dropped.swap(mirrored_);
  cacheSize_ = 0;
  cleared = Clear();
  // Under the mutex, as every other call of the map is posted: none can come in behind it.
  ManagerOutbox::Post(std::move(letter));
}

std::vector<JX_MediaMapImpl::Mirrored> JX_MediaMapImpl::Snapshot() const {
  std::vector<Mirrored> out;
  RV::ScopedLabelledLock lock(Mutex(), Holder(), kSizeLabel);
  for (const auto& [id, m] : mirrored_) out.push_back({id, m.stuff, m.size});
  return out;
}

}  // namespace kq
