// The content map: every item once, in recency order, whatever the chunk size; each row
// describing its item's state (pending, checked out, purged to disk, both).
#include <gtest/gtest.h>

#include <set>

#include "disk/disk_test_support.h"
#include "jxcache/bag/content_map.h"
#include "jxcache/items/sc_checkout.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::testing::MakeItem;
using jx::testing::MakeRequest;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

class ContentMapTest : public jx::testing::DiskTest {};

std::vector<std::string> Keys(const JX_ContentSnapshot& snap) {
  std::vector<std::string> keys;
  for (const auto& r : snap.rows) keys.push_back(r.key);
  return keys;
}

TEST_F(ContentMapTest, EveryItemOnceInRecencyOrderWhateverTheChunk) {
  std::vector<std::string> expected;
  for (int i = 0; i < 50; ++i) {
    auto item = MakeItem(100 + i);
    bag_->AddToBagAndSortDir(item);
    expected.push_back(item->GetGuid().AsString());
  }
  for (uint32_t chunk : {1u, 7u, 50u, 4096u}) {
    JX_ContentSnapshotOptions options;
    options.maxItemsPerHold = chunk;
    const JX_ContentSnapshot snap = JX_TakeContentSnapshot(*bag_, options);
    EXPECT_EQ(Keys(snap), expected) << "chunk " << chunk;
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
  bool created = false;
  ASSERT_EQ(bag_->FindAndCheckout(MakeRequest(pendingKey), cf::kReadOnly | cf::kCreatePending,
                                  &pending, &created),
            kJX_CreatedPending);
  // Checked out twice.
  auto held = MakeItem(64);
  bag_->AddToBagAndSortDir(held);
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

}  // namespace
