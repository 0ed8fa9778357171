// The compute cache's hit path as a plug-in drives it, through the C table, beside the library's
// own hit path.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <vector>

#include "bench_support.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/kqgp_compute_cache.h"
#include "jxcache/lifecycle/lifecycle.h"

namespace {

constexpr const char* kBenchClass = "bench.compute";
constexpr int kKeys = 10000;
// The flags of BM_ScCheckoutHit: read-only, without a read back from disk.
constexpr int kScopedHitFlags = jx::checkout_flags::kReadOnly | jx::checkout_flags::kNoDiskRead;

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
  static const KQGP_ComputeCacheSuite1& suite =
      jx::bench::ComputeSuiteWithClass(kBenchClass, {KeyOf, Compute, Size, Delete});
  return suite;
}

// Computes every key that is not cached.
void FillComputeCache() {
  const KQGP_ComputeCacheSuite1& suite = Suite();
  for (int key = 0; key < kKeys; ++key) {
    KQGP_JXComputeReceipt receipt = nullptr;
    if (suite.ComputeIfNeededAndCheckout(kBenchClass, &key, true, &receipt) == 0) {
      suite.CheckinReceipt(receipt);
    }
  }
}

// One bag of 10,000 library items and 10,000 compute entries, filled before the threads start.
void FillBothKinds(const benchmark::State&) {
  jx::bench::FillBag(kKeys);
  FillComputeCache();
}

constexpr int kBurst = 2048;  // hits of one kind between two clock readings

// The compute-cache hit through the C table (ask for a cached value, check its receipt back in)
// and the library's own hit (BM_ScCheckoutHit's loop), measured in turns on each thread, each
// on its own clock, the order alternating. Two benchmarks run a minute apart would compare two
// different machines: a shared machine's speed drifts, and with two threads it halves or doubles
// as its two processors land on nearer or farther parts of the host. Both kinds are in one bag,
// so each looks up among the same 20,000 items. Counters (summed over threads):
// compute_per_second and scoped_per_second.
void BM_ComputeHitBesideScCheckoutHit(benchmark::State& state) {
  const KQGP_ComputeCacheSuite1& suite = Suite();
  const int computesBefore = gComputes.load();
  // Requests are drawn outside the timed loop, as in the library's hit benchmark.
  std::mt19937 rng(17 + state.thread_index());
  std::vector<int> computeKeys(jx::bench::kRequestRing);
  for (int& r : computeKeys) r = static_cast<int>(rng() % kKeys);
  jx::bench::Requests requests(jx::bench::FillBag(kKeys), state.thread_index());
  size_t next = 0, computeHits = 0, scopedHits = 0;
  double seconds[2] = {0, 0};  // compute, scoped
  bool computeFirst = true;
  for (auto _ : state) {
    for (int turn = 0; turn < 2; ++turn) {
      const bool compute = (turn == 0) == computeFirst;
      const auto t0 = std::chrono::steady_clock::now();
      if (compute) {
        for (int i = 0; i < kBurst; ++i) {
          KQGP_JXComputeReceipt receipt = nullptr;
          if (suite.ComputeIfNeededAndCheckout(kBenchClass,
                                               &computeKeys[next++ & (jx::bench::kRequestRing - 1)],
                                               true, &receipt) == 0) {
            ++computeHits;
            suite.CheckinReceipt(receipt);
          }
        }
      } else {
        for (int i = 0; i < kBurst; ++i) {
          JX_ScCheckout handle;
          scopedHits += handle.FindAndCheckout(requests.Next(), kScopedHitFlags) == kJX_CheckedOut;
        }
      }
      seconds[compute ? 0 : 1] +=
          std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
    computeFirst = !computeFirst;
  }
  const size_t each = static_cast<size_t>(state.iterations()) * kBurst;
  if (computeHits != each || scopedHits != each) state.SkipWithError("a request missed");
  if (gComputes.load() != computesBefore) state.SkipWithError("a hit computed");
  if (seconds[0] > 0 && seconds[1] > 0) {
    state.counters["compute_per_second"] = static_cast<double>(each) / seconds[0];
    state.counters["scoped_per_second"] = static_cast<double>(each) / seconds[1];
  }
  state.SetItemsProcessed(static_cast<int64_t>(2 * each));
}
BENCHMARK(BM_ComputeHitBesideScCheckoutHit)
    ->Threads(1)
    ->Threads(2)
    ->UseRealTime()
    ->MinTime(2.0)
    ->Setup(FillBothKinds);

}  // namespace
