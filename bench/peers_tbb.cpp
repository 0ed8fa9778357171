// The peer a developer would otherwise embed: tbb::concurrent_lru_cache (compute on miss, pinning
// handles). Measured in the same run as the cache's own hit path.
#define TBB_PREVIEW_CONCURRENT_LRU_CACHE 1
#include <benchmark/benchmark.h>

#include <tbb/concurrent_lru_cache.h>
#include "bench_support.h"

#include <random>

namespace {

uint64_t Compute(uint64_t key) { return key * 2654435761u; }

using Cache = tbb::concurrent_lru_cache<uint64_t, uint64_t, uint64_t (*)(uint64_t)>;

void BM_TbbLruHit(benchmark::State& state) {
  static Cache* cache;
  const uint64_t n = static_cast<uint64_t>(state.range(0));
  if (state.thread_index() == 0) {
    delete cache;
    cache = new Cache(&Compute, n);
    for (uint64_t k = 0; k < n; ++k) cache->operator[](k);
  }
  std::mt19937_64 rng(17 + state.thread_index());
  std::vector<uint64_t> keys(jx::bench::kRequestRing);
  for (auto& k : keys) k = rng() % n;
  size_t i = 0, ok = 0;
  for (auto _ : state) {
    auto handle = cache->operator[](keys[i++ & (jx::bench::kRequestRing - 1)]);
    ok += handle.value() == Compute(keys[(i - 1) & (jx::bench::kRequestRing - 1)]);
  }
  if (ok != static_cast<size_t>(state.iterations())) state.SkipWithError("wrong value");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TbbLruHit)->Arg(10000)->Arg(100000)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

namespace {

// A miss: a key never seen, computed trivially, evicting the oldest once the cache is full.
void BM_TbbLruMiss(benchmark::State& state) {
  static Cache* cache;
  static std::atomic<uint64_t> next{1ull << 40};
  if (state.thread_index() == 0) {
    delete cache;
    cache = new Cache(&Compute, 10000);
  }
  for (auto _ : state) {
    auto handle = cache->operator[](next.fetch_add(1));
    benchmark::DoNotOptimize(handle.value());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TbbLruMiss)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
