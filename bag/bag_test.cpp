// The bag: recency order, size accounting, directory supersession and rejected misuse.
#include <gtest/gtest.h>

#include <thread>

#include "bag/sort_dir.h"
#include "host/config.h"
#include "host/standalone_host.h"
#include "lifecycle/failures.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using jx::HostReport;
using jx::StandaloneHost;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using jx::testing::MakeRequest;
using jx::testing::SumOfItemSizes;
using jx::testing::TestPayload;
using jx::testing::ThrownCode;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

class BagTest : public LibraryTest {
 protected:
  std::vector<JX_Stuff*> Order() {
    std::vector<JX_Stuff*> order;
    for (auto& s : bag_->CopyMruItems()) order.push_back(s.get());
    return order;
  }
  void ExpectTotalsMatchItems() {
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), SumOfItemSizes(*bag_));
    EXPECT_EQ(bag_->GetNumMruSortedItems(), bag_->GetNumGuidSortedItems());
  }
};

TEST_F(BagTest, RecencyOrderFollowsUseAndFlagOneKeepsThePlace) {
  auto a = MakeItem(1), b = MakeItem(2), c = MakeItem(3);
  for (auto& s : {a, b, c}) bag_->AddToBagAndSortDir(s);
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{a.get(), b.get(), c.get()}));
  ASSERT_EQ(a->Checkout(cf::kReadOnly), 1);
  a->Checkin(0, 0.0);
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{b.get(), c.get(), a.get()}));
  const uint64_t before = b->GetLastUsedTime();
  ASSERT_EQ(b->Checkout(cf::kReadOnly), 1);
  b->Checkin(ci::kKeepRecency, 0.0);
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{b.get(), c.get(), a.get()}));
  EXPECT_EQ(b->GetLastUsedTime(), before);
}

TEST_F(BagTest, SizesAreExactAfterEveryKindOfChange) {
  auto item = MakeItem(100);
  auto* payload = static_cast<TestPayload*>(item->GetDataPtr().get());
  bag_->AddToBagAndSortDir(item);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 100);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);

  ASSERT_EQ(item->Checkout(cf::kReadOnly), 1);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 100);
  payload->SetReportedSize(40);  // shrinks in place while checked out
  bag_->AccountForStuffDataModification(item);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 40);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 40);
  bag_->AccountForStuffDataModification(item);  // same size again: nothing moves
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 40);
  item->Checkin(0, 0.0);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
  ExpectTotalsMatchItems();

  // Out of the bag the bytes still count in the global bag, until the item goes away.
  auto other = MakeItem(7);
  bag_->AddToBagAndSortDir(other);
  other->RemoveFromBagAndSortDir();
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 47);
  other.reset();
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 40);

  unsigned long long inMemory = 0, withDisk = 0;
  bag_->GetCacheSizesInBytes(inMemory, withDisk);
  EXPECT_EQ(inMemory, 40u);
  EXPECT_EQ(withDisk, 0u);
}

TEST_F(BagTest, ItemSyncedWithNoGlobalBagChangesNothing) {
  auto item = MakeItem(10);
  bag_->AddToBagAndSortDir(item);
  item->RemoveFromBagAndSortDir();
  auto bag = bag_;
  bag_.reset();
  JX_Death();
  EXPECT_FALSE(JX_GlobalBag());
  item->SyncMemorySizeWithBag(99);  // no bag anywhere: ignored
  EXPECT_EQ(bag->GetInMemoryCacheSizeInBytes_LockFree(), 10);
  item.reset();
  JX_Birth(false, 1, false);
  bag_ = JX_GlobalBag();
}

TEST_F(BagTest, AppVersionKeepsTheLowBits) {
  JX_Bag bag(0x80000005u);
  EXPECT_EQ(bag.GetAppVersion(), 5u);
}

TEST_F(BagTest, SameGuidItemsCoexistOrSupersedeByRequest) {
  const Guid g = Guid::CreateUnique();
  auto first = MakeItem(10, g), other = MakeItem(20, g), replacement = MakeItem(30, g);
  static_cast<TestPayload*>(other->GetDataPtr().get())->SetVariant(1);
  bag_->AddToBagAndSortDir(first);
  bag_->AddToBagAndSortDir(other);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2) << "different requests share the GUID";
  bag_->AddToBagAndSortDir(replacement);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2);
  EXPECT_FALSE(first->GetBag()) << "superseded by an item answering the same request";
  EXPECT_TRUE(other->GetBag());

  other->RemoveFromBagAndSortDir();
  IntrusivePtr<JX_Stuff> found;
  bool created = false;
  ASSERT_EQ(bag_->FindAndCheckout(MakeRequest(g), cf::kReadOnly, &found, &created), 1);
  EXPECT_EQ(found, replacement);
  found->Checkin(0, 0.0);
  // Items out of the bag count in it until their last reference goes.
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 60);
  first.reset();
  other.reset();
  ExpectTotalsMatchItems();
}

// Regression: an item created for a request without a payload has no find-key data; it must
// still answer requests for its GUID instead of every caller creating its own pending item.
TEST_F(BagTest, ItemWithoutFindKeyAnswersByGuid) {
  const Guid g = Guid::CreateUnique();
  auto bare = [&] {
    auto r = JX_Stuff::CreateNew({}, 0.0);
    r->SetGuid(g);
    return r;
  };
  IntrusivePtr<JX_Stuff> pending, again;
  bool created = false;
  ASSERT_EQ(bag_->FindAndCheckout(bare(), cf::kReadOnly | cf::kCreatePending, &pending, &created),
            kJX_CreatedPending);
  std::thread other([&] {
    IntrusivePtr<JX_Stuff> found;
    bool c = false;
    EXPECT_EQ(bag_->FindAndCheckout(bare(), cf::kReadOnly | cf::kCreatePending, &found, &c),
              kJX_CheckoutRefused)
        << "being rendered: no second pending item";
    EXPECT_FALSE(c);
  });
  other.join();
  pending->SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData>(new TestPayload(4)), 0.0);
  pending->Checkin(0, 0.0);
  ASSERT_EQ(bag_->FindAndCheckout(bare(), cf::kReadOnly | cf::kCreatePending, &again, &created),
            kJX_CheckedOut);
  EXPECT_EQ(again, pending);
  again->Checkin(0, 0.0);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
}

TEST_F(BagTest, MisuseIsReportedThrownAndChangesNothing) {
  auto item = MakeItem(10);
  bag_->AddToBagAndSortDir(item);
  const long long size = bag_->GetInMemoryCacheSizeInBytes_LockFree();
  auto& host = StandaloneHost::Instance();

  EXPECT_EQ(ThrownCode([&] { bag_->AddStuff(item); }), jx::kErrBadCall);
  EXPECT_EQ(host.CountReports(HostReport::Kind::kFailedVerification, "stuff already in a bag"), 1u);

  JX_Bag foreign(1);
  EXPECT_EQ(ThrownCode([&] { foreign.RemoveStuff(item); }), jx::kErrBadCall);
  EXPECT_EQ(host.CountReports(HostReport::Kind::kFailedVerification, "stuff not in the right bag"),
            1u);

  ASSERT_EQ(item->Checkout(0), 1);
  {
    JXp_ScLock lock;
    // A writeable item is out of the directory but still linked to it.
    EXPECT_EQ(ThrownCode([&] { bag_->RemoveStuffFromBagAndSortDir(item, lock, true); }),
              jx::kErrBadCall);
  }
  EXPECT_EQ(host.CountReports(HostReport::Kind::kFailedVerification,
                              "can't remove a writeable stuff from sortdir"),
            1u);
  item->Checkin(0, 0.0);

  auto stranger = MakeItem(3);
  EXPECT_EQ(ThrownCode([&] { bag_->GetSortDir()->RemoveStuff(stranger); }), jx::kErrBadCall);
  EXPECT_EQ(
      host.CountReports(HostReport::Kind::kFailedVerification, "stuff not in the right sortdir"),
      1u);
  EXPECT_THROW(bag_->AddStuff({}), zelcore::config::NullPtrException);

  EXPECT_EQ(bag_->GetNumItems(), 1);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), size);
}

TEST_F(BagTest, FloorAndCeilingFollowTheHostBudget) {
  auto& host = StandaloneHost::Instance();
  host.SetMemoryLimit(1000);
  host.SetAmountAvailableBeforePurge(500);
  auto item = MakeItem(99);
  bag_->AddToBagAndSortDir(item);
  EXPECT_EQ(bag_->GetCurrentMaxCacheSize(), 599u);
  EXPECT_FALSE(JX_IsGlobalBagSizeAboveMinimum()) << "99 < 10% of 1000";
  auto more = MakeItem(1);
  bag_->AddToBagAndSortDir(more);
  EXPECT_TRUE(JX_IsGlobalBagSizeAboveMinimum());
  host.SetMemUsageLimitsStatus(-7);
  EXPECT_EQ(ThrownCode([] { JX_IsGlobalBagSizeAboveMinimum(); }), -7);
  host.SetMemUsageLimitsStatus(0);
}

}  // namespace
