// The cache's hot paths: a hit (find and check out a cached key, then check in), a miss (create
// the pending item, fill it, check it in) and the purge walk. Each benchmark checks that its
// operations really did what they claim, so a broken path cannot pass as a fast one.
#include <benchmark/benchmark.h>

#include <atomic>

#include "bench_support.h"
#include "jxcache/disk/performance_counters.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"

namespace cf = jx::checkout_flags;
using jx::bench::FillBag;
using jx::bench::Request;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr int kHitFlags = cf::kReadOnly | cf::kNoDiskRead;

using jx::bench::kRequestRing;
using jx::bench::Requests;

// Fills the bag before the benchmark's threads start, so that none reads it while it is filled.
void FillForHits(const benchmark::State& state) { FillBag(static_cast<size_t>(state.range(0))); }

void BM_BagFindAndCheckoutHit(benchmark::State& state) {
  const std::vector<Guid>& guids = FillBag(static_cast<size_t>(state.range(0)));  // filled already
  auto bag = JX_GlobalBag();
  Requests requests(guids, state.thread_index());
  size_t hits = 0;
  for (auto _ : state) {
    IntrusivePtr<JX_Stuff> found;
    bool created = false;
    if (bag->FindAndCheckout(requests.Next(), kHitFlags, &found, &created) == kJX_CheckedOut) {
      ++hits;
      found->Checkin(0, 0.0);
    }
  }
  if (hits != static_cast<size_t>(state.iterations())) state.SkipWithError("a lookup missed");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BagFindAndCheckoutHit)
    ->Arg(10000)
    ->Arg(100000)
    ->Threads(1)
    ->Threads(2)
    ->UseRealTime()
    ->Setup(FillForHits);

void BM_ScCheckoutHit(benchmark::State& state) {
  const std::vector<Guid>& guids = FillBag(static_cast<size_t>(state.range(0)));  // filled already
  Requests requests(guids, state.thread_index());
  size_t hits = 0;
  for (auto _ : state) {
    JX_ScCheckout handle;
    hits += handle.FindAndCheckout(requests.Next(), kHitFlags) == kJX_CheckedOut;
  }
  if (hits != static_cast<size_t>(state.iterations())) state.SkipWithError("a lookup missed");
  state.SetItemsProcessed(state.iterations());
}
// A million items: how the hit holds up once the directory and the items outgrow the caches.
BENCHMARK(BM_ScCheckoutHit)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Threads(1)
    ->Threads(2)
    ->UseRealTime()
    ->Setup(FillForHits);

void BM_MissCreateFillCheckin(benchmark::State& state) {
  jx::bench::EnsureLibrary();
  auto bag = JX_GlobalBag();
  size_t created = 0;
  for (auto _ : state) {
    IntrusivePtr<JX_Stuff> found;
    bool isNew = false;
    if (bag->FindAndCheckout(Request(Guid::CreateUnique()), kHitFlags | cf::kCreatePending, &found,
                             &isNew) == kJX_CreatedPending) {
      ++created;
      found->SetStuffDataFromPendingRender(
          IntrusivePtr<JX_StuffData>(new jx::bench::SizedPayload(1024)), 0.0);
      found->Checkin(jx::checkin_flags::kRemove, 0.0);  // keeps the bag at its size
    }
  }
  if (created != static_cast<size_t>(state.iterations())) state.SkipWithError("not a miss");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MissCreateFillCheckin)->Threads(1)->Threads(2)->UseRealTime();

// FreeUpSomeMemory over 100,000 (or 1,000,000) items without disk copies, freeing half of them.
// Counters: ns per item examined (the library counts them: the disk-backed pass looks at every item
// and frees none, the general pass looks at the half it frees) and ns per item freed.
void BM_PurgeWalkHalf(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  double seconds = 0;
  uint64_t examined = 0;
  size_t freed = 0;
  bool halfEachTime = true;
  auto& host = jx::StandaloneHost::Instance();
  for (auto _ : state) {
    state.PauseTiming();
    FillBag(0);
    FillBag(n);
    auto bag = JX_GlobalBag();
    const long long before = bag->GetInMemoryCacheSizeInBytes_LockFree();
    // The walk stops at the cache's floor, a share of the host's memory limit: a limit of the
    // cache's own size puts the floor well below the half that is freed.
    host.SetMemoryLimit(static_cast<uint64_t>(before));
    const uint64_t examinedBefore = JX_GetPurgeExaminedCount();
    state.ResumeTiming();
    auto t0 = std::chrono::steady_clock::now();
    jx::PurgeOverBudget(*bag, static_cast<unsigned long long>(before / 2));
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    state.PauseTiming();
    examined += JX_GetPurgeExaminedCount() - examinedBefore;
    const size_t freedNow =
        n - static_cast<size_t>(bag->GetInMemoryCacheSizeInBytes_LockFree() / 1024);
    halfEachTime = halfEachTime && freedNow == n / 2;
    freed += freedNow;
    host.SetMemoryLimit(1ull << 40);
    state.ResumeTiming();
  }
  // Reported after the loop: an error raised while the timer is paused aborts the whole run.
  if (!halfEachTime) state.SkipWithError("did not free half");
  const double walks = static_cast<double>(state.iterations());
  state.counters["examined_per_walk"] = static_cast<double>(examined) / walks;
  state.counters["freed_per_walk"] = static_cast<double>(freed) / walks;
  state.counters["ns_per_examined"] = seconds * 1e9 / static_cast<double>(examined);
  state.counters["ns_per_freed"] = seconds * 1e9 / static_cast<double>(freed);
}
BENCHMARK(BM_PurgeWalkHalf)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
