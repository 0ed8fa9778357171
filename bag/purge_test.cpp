// The purge walk: which items go, in which order, where it stops, and that freed memory is
// released only after the library lock is let go.
#include <gtest/gtest.h>

#include "bag/sort_dir.h"
#include "host/standalone_host.h"
#include "items/sc_checkout.h"
#include "lifecycle/settings.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::StandaloneHost;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using jx::testing::SumOfItemSizes;
using jx::testing::TestPayload;
using zelcore::utility::IntrusivePtr;

namespace {

class PurgeTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    // Floor = 10% of 1000 bytes.
    StandaloneHost::Instance().SetMemoryLimit(1000);
  }
  void TearDown() override {
    TestPayload::OnRelease() = nullptr;
    LibraryTest::TearDown();
  }
  std::vector<IntrusivePtr<JX_Stuff>> AddItems(int n, unsigned int size, bool withDiskCopy) {
    std::vector<IntrusivePtr<JX_Stuff>> items;
    for (int i = 0; i < n; ++i) {
      auto item = MakeItem(size);
      // Purging only looks at the link to the file; no file is read here.
      if (withDiskCopy)
        item->SetDiskCacheFile(zelcore::filesupport::File("/nonexistent.kqcache"), false);
      bag_->AddToBagAndSortDir(item);
      items.push_back(item);
    }
    return items;
  }
};

TEST_F(PurgeTest, StopsWhenTheHostIsSatisfiedAndIgnoresTheArgument) {
  for (unsigned long long argument : {0ull, 1ull << 40}) {
    auto items = AddItems(6, 50, false);
    jx::ScAmountToPurge amount(120);
    bag_->FreeUpSomeMemory(argument);
    // 120 bytes asked: three items of 50, oldest first.
    for (int i = 0; i < 6; ++i) EXPECT_EQ(items[i]->IsInMemory(), i >= 3) << i;
    bag_->ClearBagAndSortDir();
  }
}

TEST_F(PurgeTest, StopsAtTheFloor) {
  auto items = AddItems(10, 50, false);
  jx::PurgeOverBudget(*bag_, 1 << 20);
  // Frees while the cache holds at least 100 bytes: 500 -> 50.
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 50);
  EXPECT_TRUE(items.back()->IsInMemory());
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), SumOfItemSizes(*bag_));
}

TEST_F(PurgeTest, DiskBackedItemsGoFirstAndKeepTheirPlace) {
  auto plain = AddItems(3, 50, false);
  auto backed = AddItems(3, 50, true);
  jx::PurgeOverBudget(*bag_, 100);
  EXPECT_FALSE(backed[0]->IsInMemory());
  EXPECT_FALSE(backed[1]->IsInMemory());
  EXPECT_TRUE(backed[2]->IsInMemory());
  for (auto& p : plain) EXPECT_TRUE(p->IsInMemory()) << "older, but without a disk copy";
  EXPECT_TRUE(backed[0]->GetBag()) << "a disk copy is worth keeping the item for";
  EXPECT_EQ(bag_->GetNumItems(), 6);
  EXPECT_GT(bag_->GetLastPurgedUsedTime(), 0u);
  EXPECT_EQ(bag_->GetLastPurgedUsedTime(), backed[1]->GetLastUsedTime());
}

TEST_F(PurgeTest, PlaybackFromDiskLogicGoesByRecencyAlone) {
  JX_PlaybackFromDiskLogicIsEnabled();
  auto plain = AddItems(3, 50, false);
  auto backed = AddItems(3, 50, true);
  jx::PurgeOverBudget(*bag_, 100);
  EXPECT_FALSE(plain[0]->GetBag()) << "freed and, keeping nothing, removed";
  EXPECT_FALSE(plain[1]->GetBag());
  EXPECT_TRUE(plain[2]->IsInMemory());
  for (auto& b : backed) EXPECT_TRUE(b->IsInMemory());
  EXPECT_EQ(bag_->GetNumItems(), 4);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 4);
}

TEST_F(PurgeTest, CheckedOutAndRefusingItemsAreSkipped) {
  auto items = AddItems(4, 50, false);
  static_cast<TestPayload*>(items[1]->GetDataPtr().get())->SetAllowPurge(false);
  JX_ScCheckout held(items[0], cf::kReadOnly);
  const uint64_t heldTime = items[0]->GetLastUsedTime();
  jx::PurgeOverBudget(*bag_, 50);
  EXPECT_TRUE(items[0]->IsInMemory());
  EXPECT_TRUE(items[1]->IsInMemory());
  EXPECT_FALSE(items[2]->GetBag());
  EXPECT_TRUE(items[3]->IsInMemory());
  EXPECT_EQ(items[0]->GetLastUsedTime(), heldTime);
  EXPECT_EQ(bag_->CopyMruItems().front(), items[0]) << "a checked-out item keeps its place";
}

TEST_F(PurgeTest, MemoryIsReleasedOnlyAfterTheLibraryLockIsFree) {
  AddItems(5, 50, false);
  int released = 0, releasedUnderLock = 0;
  TestPayload::OnRelease() = [&] {
    ++released;
    if (JXp_ScLock::IsLockedByCurrentThread()) ++releasedUnderLock;
  };
  jx::PurgeOverBudget(*bag_, 150);
  EXPECT_EQ(released, 3);
  EXPECT_EQ(releasedUnderLock, 0);
  EXPECT_GE(StandaloneHost::Instance().GetRecycledMemoryPurged(), 150u);
}

TEST_F(PurgeTest, FailingMemoryLimitsEscapeWithNothingHalfFreed) {
  auto items = AddItems(4, 50, false);
  int released = 0;
  TestPayload::OnRelease() = [&] { ++released; };
  StandaloneHost::Instance().SetMemUsageLimitsStatus(-12);
  int thrown = 0;
  try {
    jx::PurgeOverBudget(*bag_, 100);
  } catch (int code) {
    thrown = code;
  }
  StandaloneHost::Instance().SetMemUsageLimitsStatus(0);
  EXPECT_EQ(thrown, -12);
  EXPECT_EQ(released, 0);
  for (auto& i : items) EXPECT_TRUE(i->IsInMemory());
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 200);
}

TEST_F(PurgeTest, EmptyBagAndPurgeAll) {
  jx::PurgeOverBudget(*bag_, 100);
  EXPECT_EQ(bag_->GetLastPurgedUsedTime(), 0u);
  auto items = AddItems(3, 10, false);  // below the floor: the walk would free nothing
  static_cast<TestPayload*>(items[0]->GetDataPtr().get())->SetAllowPurge(false);
  jx::PurgeOverBudget(*bag_, 100);
  EXPECT_EQ(bag_->GetNumItems(), 3);
  bag_->PurgeAllMemoryCaches();  // ignores the floor, the host and the payload's wish
  EXPECT_EQ(bag_->GetNumItems(), 0);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
}

}  // namespace
