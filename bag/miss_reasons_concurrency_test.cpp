// Miss reasons while render threads share keys and purges run beside them: every miss a caller
// sees is counted exactly once, under one reason, and nothing else is.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/miss_reasons.h"
#include "jxcache/lifecycle/statistics.h"
#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::StandaloneHost;
using jx::testing::LibraryTest;
using jx::testing::MakeRequest;
using jx::testing::TestPayload;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr int kKeys = 48;
constexpr int kLookupsPerThread = 3000;
constexpr int kMinPurges = 20;

class MissReasonsConcurrencyTest : public LibraryTest {};

TEST_F(MissReasonsConcurrencyTest, EveryMissSeenIsCountedOnceUnderOneReason) {
  StandaloneHost::Instance().SetMemoryLimit(2000);  // room for a few dozen items, not all
  JX_ResetStatistics();
  std::vector<Guid> keys(kKeys);
  for (Guid& k : keys) k = Guid::CreateUnique();

  std::atomic<int> purges{0};
  // Render threads that wait for each other's renders, and one that never waits (its look-ups
  // of a key being rendered miss). They go on until the purger has run often enough beside
  // them: on a loaded machine it may otherwise get no turn before they are done.
  auto renderer = [&](int seed, int flags, int64_t* misses) {
    std::mt19937 rng(seed);
    for (int i = 0; i < kLookupsPerThread || purges.load() < kMinPurges; ++i) {
      JX_ScCheckout handle;
      const JX_CheckoutResult r = handle.FindAndCheckout(MakeRequest(keys[rng() % kKeys]), flags);
      if (r != kJX_CheckedOut) ++*misses;
      if (r == kJX_CreatedPending) {
        handle.GetStuffPtr()->SetStuffDataFromPendingRender(
            IntrusivePtr<JX_StuffData>(new TestPayload(100)), 0.5);
      }
    }
  };
  std::atomic<bool> done{false};
  std::thread purger([&] {
    while (!done.load()) {
      // Only a purge that freed something counts towards the renderers' minimum.
      const long long before = bag_->GetInMemoryCacheSizeInBytes_LockFree();
      bag_->PurgeAllMemoryCaches();
      if (bag_->GetInMemoryCacheSizeInBytes_LockFree() < before) purges.fetch_add(1);
      std::this_thread::yield();
    }
  });
  constexpr int kRenderers = 4;
  std::vector<int64_t> misses(kRenderers, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kRenderers; ++t) {
    const int flags = cf::kReadOnly | cf::kCreatePending | (t == 0 ? 0 : cf::kWaitAlways);
    threads.emplace_back(renderer, 1000 + t, flags, &misses[t]);
  }
  for (auto& t : threads) t.join();
  done.store(true);
  purger.join();

  int64_t seen = 0;
  for (int64_t m : misses) seen += m;
  const JX_MissReasons all = JX_GetMissReasonsTotal();
  int64_t sum = 0;
  for (int r = 0; r < kJX_MissReasonCount; ++r) sum += all.byReason[r];
  EXPECT_EQ(all.total, seen);
  EXPECT_EQ(sum, seen);
  // The purges and the budget took items away, and every key was new once.
  EXPECT_GT(purges.load(), 0);
  EXPECT_GT(all.byReason[kJX_MissMemoryPurge], 0);
  EXPECT_GT(all.byReason[kJX_MissNeverSeen], 0);
  // Nothing here reads from disk, replaces or hands the media manager anything.
  EXPECT_EQ(all.byReason[kJX_MissFailedRead], 0);
  EXPECT_EQ(all.byReason[kJX_MissMediaManager], 0);
  EXPECT_EQ(all.byReason[kJX_MissFolderLimit], 0);
  for (const JX_Statistic& s : JX_GetStatistics()) {
    if (s.group == "misses" && s.name == "total") {
      EXPECT_EQ(s.value, seen);
    }
  }
}

}  // namespace
