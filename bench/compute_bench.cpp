// The compute cache's hit path as a plug-in drives it, through the C table: ask for a value that
// is already cached and check its receipt back in. Compare with BM_ScCheckoutHit/10000, the
// library's own hit path for a bag of the same size.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <random>
#include <vector>

#include "bench_support.h"
#include "kqgp_compute_cache.h"
#include "lifecycle/lifecycle.h"
#include "y_vx_suite.h"

namespace {

constexpr const char* kBenchClass = "bench.compute";
constexpr int kKeys = 10000;

std::atomic<int> gComputes{0};

int32_t KeyOf(void* request, KQGP_GUID* out) {
  std::memset(out, 0, sizeof *out);
  std::memcpy(out->bytes, request, sizeof(int));
  return 0;
}
int32_t Compute(void* request, intptr_t* out) {
  gComputes.fetch_add(1, std::memory_order_relaxed);
  *out = static_cast<intptr_t>(*static_cast<int*>(request)) + 1;  // never 0
  return 0;
}
size_t Size(intptr_t) { return 1024; }
void Delete(intptr_t) {}

const KQGP_ComputeCacheSuite1& Suite() {
  static const KQGP_ComputeCacheSuite1* suite = [] {
    jx::bench::EnsureLibrary();
    JX_VX_Birth();
    const void* table = nullptr;
    Y_VX_AcquireVXSuite(kKQGPComputeCacheSuite, kKQGPComputeCacheSuiteVersion1, &table);
    auto* s = static_cast<const KQGP_ComputeCacheSuite1*>(table);
    const KQGP_ComputeCacheCallbacks callbacks = {KeyOf, Compute, Size, Delete};
    s->ClassRegister(kBenchClass, &callbacks);
    return s;
  }();
  return *suite;
}

// Computes every key that is not cached (other benchmarks may have emptied the bag).
void FillComputeCache(std::vector<int>& keys) {
  const KQGP_ComputeCacheSuite1& suite = Suite();
  for (int& key : keys) {
    KQGP_JXComputeReceipt receipt = nullptr;
    if (suite.ComputeIfNeededAndCheckout(kBenchClass, &key, true, &receipt) == 0) {
      suite.CheckinReceipt(receipt);
    }
  }
}

void BM_ComputeHitAndCheckin(benchmark::State& state) {
  static std::vector<int> keys(kKeys);
  static int computesAfterFill = 0;
  const KQGP_ComputeCacheSuite1& suite = Suite();
  if (state.thread_index() == 0) {
    // Only the entries in the bag, as BM_ScCheckoutHit/10000 has only its items: what the
    // benchmarks before this one left (100,000 items and more) would make every look-up here
    // slower than the one it is compared with.
    jx::bench::FillBag(0);
    for (int i = 0; i < kKeys; ++i) keys[i] = i;
    FillComputeCache(keys);
    computesAfterFill = gComputes.load();
  }
  // Requests are drawn outside the timed loop, as in the library's hit benchmark.
  std::mt19937 rng(17 + state.thread_index());
  std::vector<int> requests(jx::bench::kRequestRing);
  for (int& r : requests) r = static_cast<int>(rng() % kKeys);
  size_t i = 0, hits = 0;
  for (auto _ : state) {
    KQGP_JXComputeReceipt receipt = nullptr;
    if (suite.ComputeIfNeededAndCheckout(
            kBenchClass, &requests[i++ & (jx::bench::kRequestRing - 1)], true, &receipt) == 0) {
      ++hits;
      suite.CheckinReceipt(receipt);
    }
  }
  if (hits != static_cast<size_t>(state.iterations())) state.SkipWithError("a request failed");
  if (state.thread_index() == 0 && gComputes.load() != computesAfterFill) {
    state.SkipWithError("a hit computed");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ComputeHitAndCheckin)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
