// The content map taken while other threads check items out and in (moving them to the young
// end between the walk's chunks), purge them to disk, add and remove them: each snapshot lists
// every item that stayed in the bag throughout exactly once, each row agrees with itself, and
// nothing deadlocks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "disk/disk_test_support.h"
#include "jxcache/bag/content_map.h"
#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using jx::testing::MakeRequest;
using jx::testing::TestPayload;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr int kStable = 400;  // never purged, never removed: must be in every snapshot
constexpr int kSnapshots = 60;
constexpr auto kHangLimit = std::chrono::seconds(60);

class ContentMapConcurrencyTest : public jx::testing::DiskTest {
 protected:
  IntrusivePtr<JX_Stuff> AddItem(unsigned size, bool purgeable) {
    auto* payload = new TestPayload(size, 1, /*diskCacheable=*/true);
    payload->SetAllowPurge(purgeable);
    auto item = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(payload), 5.0);
    item->SetGuid(Guid::CreateUnique());
    bag_->AddToBagAndSortDir(item);
    return item;
  }
};

void ExpectRowAgreesWithItself(const JX_ContentRow& r) {
  EXPECT_EQ(r.inMemory, r.memorySize > 0) << r.key;
  EXPECT_EQ(r.onDisk || r.diskSize == 0, true) << r.key;
  EXPECT_FALSE(r.pending && r.inMemory) << r.key;
  EXPECT_EQ(r.payloadClass, "TestPayload") << r.key;
}

TEST_F(ContentMapConcurrencyTest, ConsistentRowsAndNoDeadlockUnderChurn) {
  std::vector<Guid> stable;
  for (int i = 0; i < kStable; ++i) stable.push_back(AddItem(100, false)->GetGuid());
  std::set<std::string> stableKeys;
  for (const Guid& g : stable) stableKeys.insert(g.AsString());

  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  // Two readers renew the stable items' recency, so they keep moving to the young end.
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(t);
      while (!stop.load()) {
        IntrusivePtr<JX_Stuff> found;
        bool created = false;
        const Guid& key = stable[rng() % stable.size()];
        if (bag_->FindAndCheckout(MakeRequest(key), cf::kReadOnly, &found, &created) ==
            kJX_CheckedOut) {
          found->Checkin(0, 0.0);
        }
      }
    });
  }
  // One adds purgeable items, writes some to disk, and removes some again.
  threads.emplace_back([&] {
    std::mt19937 rng(7);
    while (!stop.load()) {
      auto item = AddItem(50 + rng() % 50, true);
      // Written while checked out, as the disk writer does: a checked-out payload is not purged.
      if (rng() % 3 == 0 && item->Checkout(cf::kReadOnly) == kJX_CheckedOut) {
        item->PrepAndWrite(bag_);
        item->Checkin(ci::kKeepRecency, 0.0);
      }
      if (rng() % 4 == 0) item->RemoveFromBagAndSortDir();
    }
  });
  // One purges, oldest first, as a host over its budget does (the stable items refuse).
  jx::StandaloneHost::Instance().SetMemoryLimit(1000);  // a floor that stays out of the way
  threads.emplace_back([&] {
    while (!stop.load()) {
      jx::PurgeOverBudget(*bag_, 1 << 20);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  // One keeps a find-or-create render going: pending items come and go.
  threads.emplace_back([&] {
    while (!stop.load()) {
      IntrusivePtr<JX_Stuff> found;
      bool created = false;
      if (bag_->FindAndCheckout(MakeRequest(Guid::CreateUnique()),
                                cf::kReadOnly | cf::kCreatePending, &found,
                                &created) == kJX_CreatedPending) {
        std::this_thread::yield();
        found->SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData>(new TestPayload(30)), 1.0);
        found->Checkin(ci::kKeepRecency, 1.0);
      }
    }
  });

  auto snapshots = std::async(std::launch::async, [&] {
    JX_ContentSnapshotOptions options;
    options.maxItemsPerHold = 16;  // many chunks, many chances to lose the place
    uint32_t lost = 0;
    for (int i = 0; i < kSnapshots; ++i) {
      const JX_ContentSnapshot snap = JX_TakeContentSnapshot(*bag_, options);
      lost += snap.resumesLost;
      std::set<std::string> keys;
      size_t stableSeen = 0;
      for (const JX_ContentRow& r : snap.rows) {
        EXPECT_TRUE(keys.insert(r.key).second) << "listed twice: " << r.key;
        ExpectRowAgreesWithItself(r);
        stableSeen += stableKeys.count(r.key);
      }
      EXPECT_EQ(stableSeen, stableKeys.size()) << "snapshot " << i;
    }
    return lost;
  });
  if (snapshots.wait_for(kHangLimit) != std::future_status::ready) {
    std::fprintf(stderr, "content snapshot hung under churn for %llds: deadlock\n",
                 static_cast<long long>(kHangLimit.count()));
    std::abort();
  }
  stop = true;
  for (auto& t : threads) t.join();
  std::printf("resumes that lost their place: %u\n", snapshots.get());
}

}  // namespace
