// Runs N operations of one kind, and nothing else worth counting, so that a tool that counts
// instructions, simulated cache misses and locked instructions (callgrind) can give the cost of
// one operation: scripts/op-costs.sh runs each kind at N and at 2N and divides the difference
// by N, which takes the start-up and the filling out.
//
// Usage: op_costs KIND N    KIND: hit, compute-hit, lru-hit, tbb-hit, miss, lru-miss, tbb-miss
// Hits are over 10,000 cached keys drawn from the benchmarks' request ring, as in cache_bench;
// compute-hit is a compute-cache hit through the plug-in table, as in compute_bench.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "simple_lru.h"
#ifdef JX_HAVE_TBB
#define TBB_PREVIEW_CONCURRENT_LRU_CACHE 1
#include <tbb/concurrent_lru_cache.h>
#endif

namespace cf = jx::checkout_flags;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr uint64_t kKeys = 10000;
constexpr int kHitFlags = cf::kReadOnly | cf::kNoDiskRead;

std::vector<uint64_t> KeyRing() {
  std::mt19937_64 rng(17);
  std::vector<uint64_t> keys(jx::bench::kRequestRing);
  for (auto& k : keys) k = rng() % kKeys;
  return keys;
}

int32_t EntryKeyOf(void* request, KQGP_GUID* out) {
  *out = KQGP_GUID{};
  std::memcpy(out->bytes, request, sizeof(int));
  return 0;
}
int32_t EntryCompute(void* request, intptr_t* out) {
  *out = static_cast<intptr_t>(*static_cast<int*>(request)) + 1;  // never 0
  return 0;
}
size_t EntrySize(intptr_t) { return 1024; }
void EntryDelete(intptr_t) {}

#ifdef JX_HAVE_TBB
uint64_t Compute(uint64_t key) { return key * 2654435761u; }
using TbbCache = tbb::concurrent_lru_cache<uint64_t, uint64_t, uint64_t (*)(uint64_t)>;
#endif

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr,
                 "usage: op_costs hit|compute-hit|lru-hit|tbb-hit|miss|lru-miss|tbb-miss N\n");
    return 2;
  }
  const std::string kind = argv[1];
  const long n = std::strtol(argv[2], nullptr, 10);
  if (n <= 0) {
    std::fprintf(stderr, "op_costs: N must be a positive count\n");
    return 2;
  }
  // glibc leaves the lock prefix out of a mutex while the process has only ever had one thread;
  // a host never is that process, so the peers' locks are counted as they would run there.
  std::thread([] {}).join();
  long done = 0;
  if (kind == "hit") {
    jx::bench::Requests requests(jx::bench::FillBag(kKeys), 0);
    for (long i = 0; i < n; ++i) {
      JX_ScCheckout handle;
      done += handle.FindAndCheckout(requests.Next(), kHitFlags) == kJX_CheckedOut;
    }
  } else if (kind == "compute-hit") {
    const char* classId = "bench.compute";
    // One class whose values are worth nothing but their key.
    const KQGP_ComputeCacheSuite1& suite = jx::bench::ComputeSuiteWithClass(
        classId, {EntryKeyOf, EntryCompute, EntrySize, EntryDelete});
    const std::vector<uint64_t> ring = KeyRing();
    std::vector<int> keys(ring.begin(), ring.end());
    // The first pass computes every key and checks what the table hands back; the counted
    // passes do what compute_bench times: ask, and check the receipt in.
    for (int key = 0; key < static_cast<int>(kKeys); ++key) {
      KQGP_JXComputeReceipt receipt = nullptr;
      intptr_t value = 0;
      if (suite.ComputeIfNeededAndCheckout(classId, &key, true, &receipt) != 0 ||
          suite.GetReceiptComputeValue(receipt, &value) != 0 || value != key + 1) {
        std::fprintf(stderr, "op_costs: the compute cache did not fill\n");
        return 1;
      }
      suite.CheckinReceipt(receipt);
    }
    for (long i = 0; i < n; ++i) {
      KQGP_JXComputeReceipt receipt = nullptr;
      int* key = &keys[static_cast<size_t>(i) & (keys.size() - 1)];
      if (suite.ComputeIfNeededAndCheckout(classId, key, true, &receipt) == 0) {
        done += suite.CheckinReceipt(receipt) == 0;
      }
    }
  } else if (kind == "miss") {
    jx::bench::EnsureLibrary();
    auto bag = JX_GlobalBag();
    for (long i = 0; i < n; ++i) {
      IntrusivePtr<JX_Stuff> found;
      bool isNew = false;
      if (bag->FindAndCheckout(jx::bench::Request(Guid::CreateUnique()),
                               kHitFlags | cf::kCreatePending, &found,
                               &isNew) == kJX_CreatedPending) {
        found->SetStuffDataFromPendingRender(
            IntrusivePtr<JX_StuffData>(new jx::bench::SizedPayload(1024)), 0.0);
        found->Checkin(jx::checkin_flags::kRemove, 0.0);
        ++done;
      }
    }
  } else if (kind == "lru-hit" || kind == "lru-miss") {
    jx::bench::SimpleLru cache(kKeys);
    const std::vector<uint64_t> keys = KeyRing();
    if (kind == "lru-hit") {
      for (uint64_t k = 0; k < kKeys; ++k) cache.Put(k, k * 3);
      for (long i = 0; i < n; ++i) {
        uint64_t v = 0;
        const uint64_t key = keys[static_cast<size_t>(i) & (jx::bench::kRequestRing - 1)];
        done += cache.Get(key, &v) && v == key * 3;
      }
    } else {
      for (long i = 0; i < n; ++i) {
        const uint64_t key = (1ull << 40) + static_cast<uint64_t>(i);
        uint64_t v;
        if (!cache.Get(key, &v)) cache.Put(key, key * 3);
        ++done;
      }
    }
#ifdef JX_HAVE_TBB
  } else if (kind == "tbb-hit" || kind == "tbb-miss") {
    TbbCache cache(&Compute, kKeys);
    const std::vector<uint64_t> keys = KeyRing();
    if (kind == "tbb-hit") {
      for (uint64_t k = 0; k < kKeys; ++k) cache[k];
      for (long i = 0; i < n; ++i) {
        const uint64_t key = keys[static_cast<size_t>(i) & (jx::bench::kRequestRing - 1)];
        done += cache[key].value() == Compute(key);
      }
    } else {
      for (long i = 0; i < n; ++i) {
        done += cache[(1ull << 40) + static_cast<uint64_t>(i)].value() != 0;
      }
    }
#endif
  } else {
    std::fprintf(stderr, "op_costs: unknown or unavailable kind '%s'\n", kind.c_str());
    return 2;
  }
  if (done != n) {
    std::fprintf(stderr, "op_costs: %ld of %ld operations did what they claim\n", done, n);
    return 1;
  }
  return 0;
}
