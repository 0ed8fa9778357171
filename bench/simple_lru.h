// The simplest possible design, as the upper reference for the hit path: one mutex, a hash map
// and a recency list. No pinning, no pending items, no accounting.
#pragma once

#include <cstdint>
#include <list>
#include <mutex>
#include <unordered_map>

namespace jx::bench {

class SimpleLru {
 public:
  explicit SimpleLru(size_t capacity) : capacity_(capacity) { map_.reserve(capacity * 2); }
  bool Get(uint64_t key, uint64_t* value) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = map_.find(key);
    if (it == map_.end()) return false;
    order_.splice(order_.end(), order_, it->second);
    *value = it->second->second;
    return true;
  }
  void Put(uint64_t key, uint64_t value) {
    std::lock_guard<std::mutex> lock(mutex_);
    order_.emplace_back(key, value);
    map_[key] = std::prev(order_.end());
    if (order_.size() > capacity_) {
      map_.erase(order_.front().first);
      order_.pop_front();
    }
  }

 private:
  size_t capacity_;
  std::mutex mutex_;
  std::list<std::pair<uint64_t, uint64_t>> order_;
  std::unordered_map<uint64_t, std::list<std::pair<uint64_t, uint64_t>>::iterator> map_;
};

}  // namespace jx::bench
