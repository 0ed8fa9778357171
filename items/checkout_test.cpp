// The check-out protocol of one item: exclusion, conversion, directory round trips, accounting.
#include <gtest/gtest.h>

#include <thread>

#include "bag/sort_dir.h"
#include "common/failures.h"
#include "host/y_api.h"
#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using jx::HostReport;
using jx::StandaloneHost;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using jx::testing::MakeRequest;
using jx::testing::TestPayload;
using jx::testing::ThrownCode;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

class CheckoutTest : public LibraryTest {};

size_t ErrStringReports(const std::string& fragment) {
  return StandaloneHost::Instance().CountReports(HostReport::Kind::kErrString, fragment);
}

TEST_F(CheckoutTest, ReadOnlyAndWriteableCheckoutsExcludeEachOther) {
  auto item = MakeItem(100);
  bag_->AddToBagAndSortDir(item);
  EXPECT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  EXPECT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  EXPECT_EQ(item->GetCheckoutCount(), 2u);
  EXPECT_EQ(item->Checkout(0), kJX_CheckoutRefused) << "writeable while readers hold it";
  item->Checkin(0, 0.0);
  item->Checkin(0, 0.0);
  ASSERT_EQ(item->Checkout(0), kJX_CheckedOut);
  EXPECT_TRUE(item->IsCheckedOutWriteable());
  EXPECT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckoutRefused) << "reader beside a writer";
  EXPECT_EQ(item->Checkout(0), kJX_CheckoutRefused) << "second writer";
  item->Checkin(0, 0.0);
  EXPECT_FALSE(item->IsCheckedOutWriteable());
  EXPECT_EQ(item->GetCheckoutCount(), 0u);
}

TEST_F(CheckoutTest, ConvertToWriteableRejectsMisuseWithItsMessageAndCode) {
  auto item = MakeItem(64);
  bag_->AddToBagAndSortDir(item);
  const int dirBefore = bag_->GetNumGuidSortedItems();

  EXPECT_EQ(ThrownCode([&] { item->ConvertToWriteable(); }), jx::kErrNotCheckedOut);
  EXPECT_EQ(ErrStringReports("convert to writeable when not checked out"), 1u);

  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  EXPECT_EQ(ThrownCode([&] { item->ConvertToWriteable(); }), jx::kErrCheckedOutWrite);
  EXPECT_EQ(ErrStringReports("cannot check-out read/write already checked-out item"), 1u);
  item->Checkin(0, 0.0);

  item->ConvertToWriteable();
  EXPECT_TRUE(item->IsCheckedOutWriteable());
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), dirBefore - 1)
      << "a writeable item leaves the directory";
  EXPECT_EQ(ThrownCode([&] { item->ConvertToWriteable(); }), jx::kErrCheckedOutWrite);
  EXPECT_EQ(ErrStringReports("already checked-out read/write"), 1u);
  item->Checkin(0, 0.0);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), dirBefore);
  EXPECT_EQ(bag_->GetNumItems(), 1);
  // Reported to the host as the cache's error class, at error severity.
  const auto reports = StandaloneHost::Instance().GetReports();
  ASSERT_EQ(reports.size(), 3u);
  for (const HostReport& r : reports) {
    EXPECT_EQ(r.kind, HostReport::Kind::kErrString) << r.text;
    EXPECT_EQ(r.code, 0x3a0000) << r.text;
    EXPECT_EQ(r.severity, 2) << r.text;
  }
}

TEST_F(CheckoutTest, MisuseIsReportedOnlyOnTheMainThread) {
  auto item = MakeItem(8);
  bag_->AddToBagAndSortDir(item);
  StandaloneHost::Instance().SetMainThread(zelcore::threads::kNoThread);
  EXPECT_EQ(ThrownCode([&] { item->ConvertToWriteable(); }), jx::kErrNotCheckedOut);
  EXPECT_EQ(ErrStringReports(""), 0u);
  StandaloneHost::Instance().MakeCurrentThreadMain();
}

TEST_F(CheckoutTest, WriteableItemReturnsUnderItsNewGuid) {
  const Guid oldGuid = Guid::CreateUnique(), newGuid = Guid::CreateUnique();
  auto item = MakeItem(32, oldGuid);
  bag_->AddToBagAndSortDir(item);
  ASSERT_EQ(item->Checkout(0), kJX_CheckedOut);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);
  item->UpdateWithNewGuid(newGuid);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0)
      << "re-keying a writeable item leaves the directory alone";
  item->Checkin(0, 0.0);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);

  IntrusivePtr<JX_Stuff> found;
  bool created = false;
  EXPECT_EQ(bag_->FindAndCheckout(MakeRequest(oldGuid), cf::kReadOnly, &found, &created),
            kJX_CheckoutRefused);
  ASSERT_EQ(bag_->FindAndCheckout(MakeRequest(newGuid), cf::kReadOnly, &found, &created),
            kJX_CheckedOut);
  EXPECT_EQ(found, item);
  found->Checkin(0, 0.0);
}

TEST_F(CheckoutTest, ReadOnlyItemIsReKeyedThroughTheDirectory) {
  const Guid a = Guid::CreateUnique(), b = Guid::CreateUnique();
  auto item = MakeItem(16, a);
  bag_->AddToBagAndSortDir(item);
  item->SetGuid(b);
  IntrusivePtr<JX_Stuff> found;
  bool created = false;
  EXPECT_EQ(bag_->FindAndCheckout(MakeRequest(a), cf::kReadOnly, &found, &created), 0);
  ASSERT_EQ(bag_->FindAndCheckout(MakeRequest(b), cf::kReadOnly, &found, &created), 1);
  found->Checkin(0, 0.0);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
}

TEST_F(CheckoutTest, PendingItemIsRefusedWithoutWaitBitsAndCountedWhenAsked) {
  const Guid g = Guid::CreateUnique();
  IntrusivePtr<JX_Stuff> pending;
  bool created = false;
  ASSERT_EQ(
      bag_->FindAndCheckout(MakeRequest(g), cf::kReadOnly | cf::kCreatePending, &pending, &created),
      kJX_CreatedPending);
  ASSERT_TRUE(created);
  EXPECT_TRUE(pending->IsPendingFromThisThread());
  const auto refusals = JX_GetStuffCounters().pendingRefusals.load();
  EXPECT_EQ(pending->Checkout(cf::kReadOnly), kJX_CheckoutRefused);
  EXPECT_EQ(JX_GetStuffCounters().pendingRefusals.load(), refusals);
  // The renderer itself never waits for its own item, even when it asks to.
  EXPECT_EQ(pending->Checkout(cf::kReadOnly | cf::kWaitAlways), kJX_CheckoutRefused);
  std::thread other([&] {
    EXPECT_EQ(pending->Checkout(cf::kReadOnly | cf::kWaitUnlessHostLock), kJX_CheckedOut);
    pending->Checkin(0, 0.0);
    Y::ScNotifyHoldingMutexLock hostLock;
    EXPECT_EQ(pending->Checkout(cf::kReadOnly | cf::kWaitUnlessHostLock), kJX_CheckoutRefused);
  });
  other.join();
  EXPECT_EQ(JX_GetStuffCounters().pendingRefusals.load(), refusals + 1);
  pending->SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData>(new TestPayload(10)), 0.5);
  EXPECT_FALSE(pending->IsPendingRender());
  EXPECT_DOUBLE_EQ(pending->GetComputeTime(), 0.5);
  pending->Checkin(0, 0.0);
}

// A search reads its request's key without the request's lock once that key can no longer
// change: each change of find-key data or pending state must show in what it reads.
TEST_F(CheckoutTest, TheFindKeyFollowsFindKeyDataAndAPendingItemsFill) {
  auto item = MakeItem(100);
  const auto payload = item->GetDataPtr();
  EXPECT_EQ(item->GetFindKeyData(), payload);
  const IntrusivePtr<JX_StuffData> key(new TestPayload(1));
  item->SetFindKeyData(key);
  EXPECT_EQ(item->GetFindKeyData(), key);
  item->SetFindKeyData({});
  EXPECT_EQ(item->GetFindKeyData(), payload);

  auto request = MakeRequest(Guid::CreateUnique());
  IntrusivePtr<JX_Stuff> pending;
  bool created = false;
  ASSERT_EQ(bag_->FindAndCheckout(request, cf::kReadOnly | cf::kCreatePending, &pending, &created),
            kJX_CreatedPending);
  // Pending, the item answers with the request's key; filled, with its payload.
  EXPECT_EQ(pending->GetFindKeyData(), request->GetFindKeyData());
  const IntrusivePtr<JX_StuffData> filled(new TestPayload(10));
  pending->SetStuffDataFromPendingRender(filled, 0.0);
  EXPECT_EQ(pending->GetFindKeyData(), filled);
  pending->Checkin(0, 0.0);
}

TEST_F(CheckoutTest, CheckinFlagsRemoveAndPurge) {
  auto removed = MakeItem(50);
  auto purged = MakeItem(70);
  bag_->AddToBagAndSortDir(removed);
  bag_->AddToBagAndSortDir(purged);
  ASSERT_EQ(removed->Checkout(cf::kReadOnly), 1);
  removed->Checkin(ci::kRemove, 0.0);
  EXPECT_FALSE(removed->GetBag());
  EXPECT_FALSE(removed->IsInSortDir());
  ASSERT_EQ(purged->Checkout(cf::kReadOnly), 1);
  purged->Checkin(ci::kPurge, 0.0);
  // Nothing on disk to fall back on: the purged item keeps nothing and leaves the bag.
  EXPECT_FALSE(purged->IsInMemory());
  EXPECT_FALSE(purged->GetBag());
  EXPECT_EQ(bag_->GetNumItems(), 0);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
}

TEST_F(CheckoutTest, CheckinAndCheckoutKeepsTheItem) {
  auto item = MakeItem(20);
  bag_->AddToBagAndSortDir(item);
  ASSERT_EQ(item->Checkout(0), 1);
  EXPECT_EQ(item->CheckinAndCheckout(0, 0.0, cf::kReadOnly), kJX_CheckedOut);
  EXPECT_FALSE(item->IsCheckedOutWriteable());
  EXPECT_EQ(item->GetCheckoutCount(), 1u);
  item->Checkin(0, 0.0);
}

}  // namespace
