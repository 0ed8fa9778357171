// The mutex+map+list LRU's hit and miss, the upper reference for the cache's own.
#include <benchmark/benchmark.h>

#include "bench_support.h"
#include "simple_lru.h"

#include <atomic>
#include <random>

namespace {

using jx::bench::SimpleLru;

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
