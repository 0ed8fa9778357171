// The simplest possible design, as the upper reference for the hit path: one mutex, a hash map
// and a recency list. No pinning, no pending items, no accounting.
#include <benchmark/benchmark.h>

#include "bench_support.h"

#include <list>
#include <mutex>
#include <random>
#include <unordered_map>

namespace {

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

void BM_SimpleLruHit(benchmark::State& state) {
  static SimpleLru* cache;
  const uint64_t n = static_cast<uint64_t>(state.range(0));
  if (state.thread_index() == 0) {
    delete cache;
    cache = new SimpleLru(n);
    for (uint64_t k = 0; k < n; ++k) cache->Put(k, k * 3);
  }
  std::mt19937_64 rng(17 + state.thread_index());
  std::vector<uint64_t> keys(jx::bench::kRequestRing);
  for (auto& k : keys) k = rng() % n;
  size_t i = 0, ok = 0;
  for (auto _ : state) {
    uint64_t v = 0;
    const uint64_t key = keys[i++ & (jx::bench::kRequestRing - 1)];
    ok += cache->Get(key, &v) && v == key * 3;
  }
  if (ok != static_cast<size_t>(state.iterations())) state.SkipWithError("a lookup missed");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SimpleLruHit)->Arg(10000)->Arg(100000)->Threads(1)->Threads(2)->UseRealTime();

void BM_SimpleLruMiss(benchmark::State& state) {
  static SimpleLru* cache;
  if (state.thread_index() == 0) {
    delete cache;
    cache = new SimpleLru(10000);
  }
  std::atomic<uint64_t>* next = nullptr;
  static std::atomic<uint64_t> counter{1ull << 40};
  next = &counter;
  for (auto _ : state) {
    const uint64_t key = next->fetch_add(1);
    uint64_t v;
    if (!cache->Get(key, &v)) cache->Put(key, key * 3);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SimpleLruMiss)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
