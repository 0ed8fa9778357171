// The content map: every item once, in recency order, rows true to their items, even under churn.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
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
using jx::testing::AddedItem;
using jx::testing::PayloadOf;
using jx::testing::TestPayload;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

class ContentMapTest : public jx::testing::DiskTest {};

TEST_F(ContentMapTest, EveryItemOnceInRecencyOrderWhateverTheChunk) {
  std::vector<std::string> expected;
  for (int i = 0; i < 50; ++i) expected.push_back(AddedItem(*bag_, 100 + i)->GetGuid().AsString());
  for (uint32_t chunk : {1u, 7u, 50u, 4096u}) {
    JX_ContentSnapshotOptions options;
    options.maxItemsPerHold = chunk;
    const JX_ContentSnapshot snap = JX_TakeContentSnapshot(*bag_, options);
    std::vector<std::string> keys;
    for (const auto& r : snap.rows) keys.push_back(r.key);
    EXPECT_EQ(keys, expected) << "chunk " << chunk;
    EXPECT_GE(snap.lockHolds, (50 + chunk - 1) / chunk);
    EXPECT_EQ(snap.resumesLost, 0u);
    EXPECT_LE(snap.maxLockHoldNanos, snap.totalNanos);
  }
  const JX_ContentSnapshot snap = JX_TakeGlobalContentSnapshot();
  ASSERT_EQ(snap.rows.size(), 50u);
  EXPECT_EQ(snap.rows[3].payloadClass, "TestPayload");
  EXPECT_EQ(snap.rows[3].memorySize, 103u);
  EXPECT_TRUE(snap.rows[3].inMemory);
  EXPECT_FALSE(snap.rows[3].onDisk);
  EXPECT_LE(snap.rows[3].lastUsedTime, snap.rows[4].lastUsedTime);
}

TEST_F(ContentMapTest, RowsDescribePendingCheckedOutAndDiskStates) {
  // Pending: created by a find that missed, not filled yet.
  const Guid pendingKey = Guid::CreateUnique();
  IntrusivePtr<JX_Stuff> pending;
  ASSERT_EQ(Ask(pendingKey, cf::kReadOnly | cf::kCreatePending, &pending), kJX_CreatedPending);
  // Checked out twice.
  auto held = AddedItem(*bag_, 64);
  ASSERT_EQ(held->Checkout(cf::kReadOnly), kJX_CheckedOut);
  ASSERT_EQ(held->Checkout(cf::kReadOnly), kJX_CheckedOut);
  // On disk and in memory, then on disk only.
  auto both = AddDiskCacheableItem(80);
  both->PrepAndWrite(bag_);
  auto diskOnly = AddDiskCacheableItem(90);
  diskOnly->PrepAndWrite(bag_);
  JX_Stuff::ReleaseQueue queue;
  ASSERT_EQ(diskOnly->FreeUpAsMuchAsPossible(false, &queue), 90u);

  std::map<std::string, JX_ContentRow> rows;
  for (auto& r : JX_TakeContentSnapshot(*bag_).rows) rows[r.key] = r;
  const JX_ContentRow& p = rows.at(pendingKey.AsString());
  EXPECT_TRUE(p.pending);
  EXPECT_FALSE(p.inMemory);
  EXPECT_EQ(p.payloadClass, "TestPayload") << "the request's class while pending";
  EXPECT_EQ(p.checkoutCount, 1u);
  EXPECT_EQ(rows.at(held->GetGuid().AsString()).checkoutCount, 2u);
  const JX_ContentRow& b = rows.at(both->GetGuid().AsString());
  EXPECT_TRUE(b.inMemory && b.onDisk);
  EXPECT_GT(b.diskSize, 0u);
  EXPECT_EQ(b.memorySize, 80u);
  const JX_ContentRow& d = rows.at(diskOnly->GetGuid().AsString());
  EXPECT_TRUE(!d.inMemory && d.onDisk);
  EXPECT_EQ(d.memorySize, 0u);
  EXPECT_GT(d.diskSize, 0u);

  pending->SetStuffDataFromPendingRender({}, 0.0);
  pending->Checkin(0, 0.0);
  held->Checkin(0, 0.0);
  held->Checkin(0, 0.0);
  EXPECT_EQ(JX_TakeContentSnapshot(*bag_).rows.size(), 3u) << "the abandoned render left";
}

TEST_F(ContentMapTest, ConsistentRowsAndNoDeadlockUnderChurn) {
  constexpr int kStable = 400;  // never purged, never removed: must be in every snapshot
  constexpr int kSnapshots = 60;
  constexpr auto kHangLimit = std::chrono::seconds(60);
  std::vector<Guid> stable;
  std::set<std::string> stableKeys;
  for (int i = 0; i < kStable; ++i) {
    auto item = AddDiskCacheableItem(100, 5.0);
    PayloadOf(*item)->SetAllowPurge(false);
    stable.push_back(item->GetGuid());
    stableKeys.insert(item->GetGuid().AsString());
  }

  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  // Two readers renew the stable items' recency, so they keep moving to the young end between
  // the walk's chunks.
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(t);
      while (!stop.load()) {
        IntrusivePtr<JX_Stuff> found;
        if (Ask(stable[rng() % stable.size()], cf::kReadOnly, &found) == kJX_CheckedOut) {
          found->Checkin(0, 0.0);
        }
      }
    });
  }
  // One adds purgeable items, writes some to disk, and removes some again.
  threads.emplace_back([&] {
    std::mt19937 rng(7);
    while (!stop.load()) {
      auto item = AddDiskCacheableItem(50 + rng() % 50, 5.0);
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
      if (Ask(Guid::CreateUnique(), cf::kReadOnly | cf::kCreatePending, &found) ==
          kJX_CreatedPending) {
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
        EXPECT_EQ(r.inMemory, r.memorySize > 0) << r.key;
        EXPECT_TRUE(r.onDisk || r.diskSize == 0) << r.key;
        EXPECT_FALSE(r.pending && r.inMemory) << r.key;
        EXPECT_EQ(r.payloadClass, "TestPayload") << r.key;
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
