// RV::MediaMap: a map of entries mirrored into the host's media manager.
//
// Each entry is a key (found by the Searcher's ordering, which ignores the entry ID) mapped to
// data, plus an entry ID that the map assigns on insertion (1, 2, 3... never reused) and a
// non-purgeable flag. The map gets its identifier from the media manager when it is made and
// registers, renews and forgets its entries there. Subclasses keep their own bookkeeping under
// the same mutex by calling the building blocks (InsertEntry, EraseEntry...) while holding a
// ScopedLabelledLock, and talk to the manager after letting go.
//
// The Searcher supplies what the map cannot know about Key and Data:
//   bool operator()(const Key&, const Key&) const   ordering used to find keys
//   static void SetID(Key&, uint64_t) / static uint64_t GetID(const Key&)
//   static uint64_t SizeOf(const Data&)             bytes the entry stands for
//
// Ownership: held by std::shared_ptr (it hands the manager a reference to itself when it
// registers entries). Threads: any. Lock: mutex_ guards both maps and the ID counter; it is a
// leaf (see host/media_manager.h): never call the manager or an item while holding it.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "host/media_manager.h"
#include "jxcache/host/recursive_mutex.h"

namespace RV {

// Holds a media map's recursive mutex and names the holder, so that the host's lock diagnostics
// can tell who holds it (LockHolder). Nested holders restore the outer label when they leave.
class ScopedLabelledLock {
 public:
  ScopedLabelledLock(zelcore::threads::RecursiveMutex& mutex, std::atomic<const char*>& holder,
                     const char* label)
      : mutex_(mutex), holder_(holder) {
    mutex_.lock();
    previous_ = holder_.exchange(label, std::memory_order_relaxed);
  }
  ~ScopedLabelledLock() {
    holder_.store(previous_, std::memory_order_relaxed);
    mutex_.unlock();
  }
  ScopedLabelledLock(const ScopedLabelledLock&) = delete;
  ScopedLabelledLock& operator=(const ScopedLabelledLock&) = delete;

 private:
  zelcore::threads::RecursiveMutex& mutex_;
  std::atomic<const char*>& holder_;
  const char* previous_ = nullptr;
};

inline constexpr const char* kMediaMapInsert = "MediaMap::Insert";
inline constexpr const char* kMediaMapFind = "MediaMap::Find";
inline constexpr const char* kMediaMapErase = "MediaMap::Erase";
inline constexpr const char* kMediaMapFlush = "MediaMap::Flush";
inline constexpr const char* kMediaMapClear = "MediaMap::Clear";
inline constexpr const char* kMediaMapMakePurgeable = "MediaMap::MakePurgeable";
inline constexpr const char* kMediaMapMakeNonPurgeable = "MediaMap::MakeNonPurgeable";
inline constexpr const char* kMediaMapIsNonPurgeable = "MediaMap::IsNonPurgeable";

template <class Key, class Data, class Searcher>
class MediaMap : public IMediaMap,
                 public std::enable_shared_from_this<MediaMap<Key, Data, Searcher>> {
 public:
  // An entry that left the map: its ID and its data. The data is handed to the caller so that
  // whatever it owns is released after the mutex.
  using Removed = std::pair<uint64_t, Data>;

  MediaMap() : manager_(GetMediaManager()), id_(manager_->NewMediaMapID()) {}
  virtual ~MediaMap() = default;
  MediaMap(const MediaMap&) = delete;
  MediaMap& operator=(const MediaMap&) = delete;

  const MediaMapID& GetMediaMapID() const override { return id_; }
  // Tells the manager that made the map that the map is going away.
  void UnregisterFromManager() { manager_->UnregisterMediaMap(id_); }

  // Stores `data` under `key` with the next entry ID (also written into `key`), then registers
  // the entry with the manager. Returns the ID.
  uint64_t Insert(Key& key, Data data) {
    const uint64_t size = Searcher::SizeOf(data);
    const uint64_t id = InsertEntry(key, std::move(data));
    RegisterWithManager(id, size);
    return id;
  }
  // The stored key (with its entry ID) of the entry found by `key`.
  std::optional<Key> Find(const Key& key) const {
    ScopedLabelledLock lock(mutex_, holder_, kMediaMapFind);
    auto it = entries_.find(key);
    if (it == entries_.end()) return std::nullopt;
    return it->first;
  }
  // Removes the entry found by `key` and tells the manager to forget it.
  std::optional<Removed> Erase(const Key& key) {
    std::optional<Removed> removed = EraseEntry(key);
    if (removed) ForgetWithManager(removed->first);
    return removed;
  }
  // Removes entry `id` without telling the manager: for entries the manager already let go.
  std::optional<Removed> Flush(uint64_t id) {
    ScopedLabelledLock lock(mutex_, holder_, kMediaMapFlush);
    auto byId = ids_.find(id);
    if (byId == ids_.end()) return std::nullopt;
    auto it = entries_.find(byId->second);
    ids_.erase(byId);
    Removed removed{id, std::move(it->second.data)};
    entries_.erase(it);
    return removed;
  }
  // Removes every entry without telling the manager (the map is being unregistered).
  std::vector<Removed> Clear() {
    ScopedLabelledLock lock(mutex_, holder_, kMediaMapClear);
    std::vector<Removed> removed;
    removed.reserve(entries_.size());
    for (auto& [key, entry] : entries_)
      removed.emplace_back(Searcher::GetID(key), std::move(entry.data));
    entries_.clear();
    ids_.clear();
    return removed;
  }
  // Pins the entry against the manager's purges. The flag does not count: one MakePurgeable
  // undoes any number of MakeNonPurgeable.
  void MakeNonPurgeable(const Key& key) {
    ScopedLabelledLock lock(mutex_, holder_, kMediaMapMakeNonPurgeable);
    auto it = entries_.find(key);
    if (it == entries_.end()) return;
    uint32_t flag = it->second.nonPurgeable.load();
    while (flag < 1 && !it->second.nonPurgeable.compare_exchange_weak(flag, 1)) {
    }
  }
  void MakePurgeable(const Key& key) {
    ScopedLabelledLock lock(mutex_, holder_, kMediaMapMakePurgeable);
    auto it = entries_.find(key);
    if (it == entries_.end()) return;
    uint32_t flag = it->second.nonPurgeable.load();
    while (flag > 0 && !it->second.nonPurgeable.compare_exchange_weak(flag, 0)) {
    }
  }
  // False for an unknown ID.
  bool IsNonPurgeable(uint64_t id) const override {
    ScopedLabelledLock lock(mutex_, holder_, kMediaMapIsNonPurgeable);
    auto byId = ids_.find(id);
    if (byId == ids_.end()) return false;
    return entries_.find(byId->second)->second.nonPurgeable.load() >= 1;
  }

  size_t GetNumTemplateEntries() const {
    ScopedLabelledLock lock(mutex_, holder_, kMediaMapFind);
    return entries_.size();
  }
  // The label of the scope that holds the mutex now, or null.
  const char* LockHolder() const { return holder_.load(std::memory_order_relaxed); }

 protected:
  // Building blocks: each takes the mutex (recursively) under its label and never calls out, so
  // a subclass can combine them with its own bookkeeping in one critical section.
  uint64_t InsertEntry(Key& key, Data data) {
    ScopedLabelledLock lock(mutex_, holder_, kMediaMapInsert);
    const uint64_t id = ++lastID_;
    Searcher::SetID(key, id);
    entries_.try_emplace(key, std::move(data));
    ids_.emplace(id, key);
    return id;
  }
  std::optional<Removed> EraseEntry(const Key& key) {
    ScopedLabelledLock lock(mutex_, holder_, kMediaMapErase);
    auto it = entries_.find(key);
    if (it == entries_.end()) return std::nullopt;
    const uint64_t id = Searcher::GetID(it->first);
    ids_.erase(id);
    Removed removed{id, std::move(it->second.data)};
    entries_.erase(it);
    return removed;
  }
  // Manager calls: only with the mutex released.
  void RegisterWithManager(uint64_t id, uint64_t size) {
    manager_->RegisterEntry(id, size, 1, 0, this->weak_from_this().lock());
  }
  void NotifyManager(uint64_t id) { manager_->NotifyEntry(id, id_); }
  void ForgetWithManager(uint64_t id) { manager_->ForgetEntry(id, id_); }

  zelcore::threads::RecursiveMutex& Mutex() const { return mutex_; }
  std::atomic<const char*>& Holder() const { return holder_; }
  const std::shared_ptr<IMediaManager>& Manager() const { return manager_; }

 private:
  struct Entry {
    explicit Entry(Data d) : data(std::move(d)) {}
    Data data;
    std::atomic<uint32_t> nonPurgeable{0};
  };

  const std::shared_ptr<IMediaManager> manager_;
  const MediaMapID id_;
  mutable zelcore::threads::RecursiveMutex mutex_;
  mutable std::atomic<const char*> holder_{nullptr};
  uint64_t lastID_ = 0;                     // guarded by mutex_
  std::map<Key, Entry, Searcher> entries_;  // guarded by mutex_
  std::map<uint64_t, Key> ids_;             // guarded by mutex_
};

}  // namespace RV
