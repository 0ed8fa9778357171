// Check-out of one item (exclusion, conversion, re-keying, pending items, check-in flags), and
// the scoped handle: check-in on every path, release, swap, suspension, disk holds (also of items
// with a real disk file), and the stuff setter that abandons an unfilled pending item.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "common/failures.h"
#include "disk/disk_test_support.h"
#include "host/y_api.h"
#include "jxcache/items/sc_checkout.h"
#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using jx::HostReport;
using jx::StandaloneHost;
using namespace jx::testing;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

class CheckoutTest : public LibraryTest {
 protected:
  IntrusivePtr<JX_Stuff> Added(unsigned size, const Guid& guid = {}) {
    return AddedItem(*bag_, size, guid);
  }
  JX_CheckoutResult Find(const IntrusivePtr<JX_Stuff>& request, int flags,
                         IntrusivePtr<JX_Stuff>* found) {
    bool created = false;
    return bag_->FindAndCheckout(request, flags, found, &created);
  }
};
class ScCheckoutTest : public CheckoutTest {};

size_t ErrStringReports(const std::string& fragment) {
  return StandaloneHost::Instance().CountReports(HostReport::Kind::kErrString, fragment);
}

TEST_F(CheckoutTest, ReadOnlyAndWriteableCheckoutsExcludeEachOther) {
  auto item = Added(100);
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
  // Checked in and out again in one step: now read-only, the item kept.
  EXPECT_EQ(item->CheckinAndCheckout(0, 0.0, cf::kReadOnly), kJX_CheckedOut);
  EXPECT_FALSE(item->IsCheckedOutWriteable());
  EXPECT_EQ(item->GetCheckoutCount(), 1u);
  item->Checkin(0, 0.0);
  EXPECT_EQ(item->GetCheckoutCount(), 0u);
}

TEST_F(CheckoutTest, ConvertToWriteableRejectsMisuseWithItsMessageAndCode) {
  auto item = Added(64);
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

  // Off the main thread misuse still throws, but is not reported.
  StandaloneHost::Instance().SetMainThread(zelcore::threads::kNoThread);
  EXPECT_EQ(ThrownCode([&] { item->ConvertToWriteable(); }), jx::kErrNotCheckedOut);
  StandaloneHost::Instance().MakeCurrentThreadMain();
  // Reported to the host as the cache's error class, at error severity.
  const auto reports = StandaloneHost::Instance().GetReports();
  ASSERT_EQ(reports.size(), 3u);
  for (const HostReport& r : reports) {
    EXPECT_EQ(r.kind, HostReport::Kind::kErrString) << r.text;
    EXPECT_EQ(r.code, 0x3a0000) << r.text;
    EXPECT_EQ(r.severity, 2) << r.text;
  }
}

// A writeable item is re-keyed outside the directory and filed under its new key at check-in;
// one that nobody holds is re-keyed through the directory at once.
TEST_F(CheckoutTest, AReKeyedItemIsFoundUnderItsNewKeyOnly) {
  for (bool writeable : {true, false}) {
    SCOPED_TRACE(writeable ? "writeable" : "not checked out");
    const Guid oldGuid = Guid::CreateUnique(), newGuid = Guid::CreateUnique();
    auto item = Added(32, oldGuid);
    if (writeable) {
      ASSERT_EQ(item->Checkout(0), kJX_CheckedOut);
      item->UpdateWithNewGuid(newGuid);
      EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0) << "the directory is left alone";
      item->Checkin(0, 0.0);
    } else {
      item->SetGuid(newGuid);
    }
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
    IntrusivePtr<JX_Stuff> found;
    EXPECT_EQ(Find(MakeRequest(oldGuid), cf::kReadOnly, &found), kJX_CheckoutRefused);
    ASSERT_EQ(Find(MakeRequest(newGuid), cf::kReadOnly, &found), kJX_CheckedOut);
    EXPECT_EQ(found, item);
    found->Checkin(0, 0.0);
    bag_->ClearBagAndSortDir();
  }
}

TEST_F(CheckoutTest, PendingItemIsRefusedWithoutWaitBitsAndCountedWhenAsked) {
  IntrusivePtr<JX_Stuff> pending;
  bool created = false;
  const auto request = MakeRequest(Guid::CreateUnique());
  ASSERT_EQ(bag_->FindAndCheckout(request, cf::kReadOnly | cf::kCreatePending, &pending, &created),
            kJX_CreatedPending);
  EXPECT_TRUE(created);
  EXPECT_TRUE(pending->IsPendingFromThisThread());
  // A search reads the key without the item's lock: pending, it is the request's.
  EXPECT_EQ(pending->GetFindKeyData(), request->GetFindKeyData());
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
  const IntrusivePtr<JX_StuffData> filled(new TestPayload(10));
  pending->SetStuffDataFromPendingRender(filled, 0.5);
  EXPECT_FALSE(pending->IsPendingRender());
  EXPECT_DOUBLE_EQ(pending->GetComputeTime(), 0.5);
  EXPECT_EQ(pending->GetFindKeyData(), filled) << "filled, the key is the payload";
  pending->Checkin(0, 0.0);
}

// A search reads the key without the item's lock: each change of find-key data must show in it.
// (A pending item's fill: PendingItemIsRefusedWithoutWaitBitsAndCountedWhenAsked.)
TEST_F(CheckoutTest, TheFindKeyFollowsFindKeyDataAndAPendingItemsFill) {
  auto item = MakeItem(100);
  const auto payload = item->GetDataPtr();
  EXPECT_EQ(item->GetFindKeyData(), payload);
  const IntrusivePtr<JX_StuffData> key(new TestPayload(1));
  item->SetFindKeyData(key);
  EXPECT_EQ(item->GetFindKeyData(), key);
  item->SetFindKeyData({});
  EXPECT_EQ(item->GetFindKeyData(), payload);
}

// Nothing on disk to fall back on: an item checked in with kPurge keeps nothing and leaves.
TEST_F(CheckoutTest, ACheckinThatPurgesLeavesNothingWithoutADiskCopy) {
  auto purged = Added(70);
  ASSERT_EQ(purged->Checkout(cf::kReadOnly), kJX_CheckedOut);
  purged->Checkin(ci::kPurge, 0.0);
  EXPECT_FALSE(purged->IsInMemory());
  EXPECT_FALSE(purged->GetBag());
  EXPECT_EQ(bag_->GetNumItems(), 0);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
}

// A payload whose size query, which the check-in makes, throws once armed.
class ThrowingSizePayload : public TestPayload {
 public:
  ThrowingSizePayload() : TestPayload(10) {}
  unsigned int GetApproximateMemorySize() const override {
    if (armed) throw 77;
    return TestPayload::GetApproximateMemorySize();
  }
  bool armed = false;
};

TEST_F(ScCheckoutTest, DestructorChecksInSwallowsCheckinErrorsAndSkipsAReleasedItem) {
  auto* payload = new ThrowingSizePayload;
  auto item = AddNewItem(*bag_, payload);
  {
    JX_ScCheckout handle(item, cf::kReadOnly);
    EXPECT_EQ(handle.GetResult(), kJX_CheckedOut);
    EXPECT_EQ(item->GetCheckoutCount(), 1u);
  }
  EXPECT_EQ(item->GetCheckoutCount(), 0u);
  {
    JX_ScCheckout handle(item, cf::kReadOnly);
    payload->armed = true;  // leaving the scope must not throw although the check-in does
  }
  payload->armed = false;
  EXPECT_EQ(item->GetCheckoutCount(), 0u) << "the count dropped before the size sync threw";
  item->SyncMemorySizeWithBag(payload->GetApproximateMemorySize());

  IntrusivePtr<JX_Stuff> released;
  {
    JX_ScCheckout handle(item, cf::kReadOnly);
    released = handle.Release();
    EXPECT_FALSE(handle.DidCheckout());
  }
  EXPECT_EQ(item->GetCheckoutCount(), 1u) << "the check-in is the caller's after Release";
  released->Checkin(0, 0.0);
}

TEST_F(ScCheckoutTest, HoldWithoutCheckoutBit) {
  auto item = Added(10);
  // A real check-out held elsewhere: a stray check-in by the result-3 handle would undo it.
  JX_ScCheckout real(item, cf::kReadOnly);
  const int64_t checkedOut = JX_GetStuffCounters().itemsCheckedOut.load();
  const uint64_t usedTime = item->GetLastUsedTime();
  auto expectUntouched = [&](const char* when) {
    EXPECT_EQ(item->GetCheckoutCount(), 1u) << when;
    EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut.load(), checkedOut) << when;
    EXPECT_EQ(item->GetLastUsedTime(), usedTime) << when;
  };
  const int hold = cf::kHoldWithoutCheckout | cf::kReadOnly;
  {
    JX_ScCheckout handle;
    EXPECT_EQ(handle.Checkout(item, hold), kJX_HeldWithoutCheckout);
    EXPECT_EQ(handle.GetStuffPtr(), item);
    expectUntouched("held");
    EXPECT_EQ(handle.Checkout(item, hold), kJX_HeldWithoutCheckout);
    expectUntouched("held again, which checks the first hold in");
    EXPECT_EQ(handle.FindAndCheckout(MakeRequest(item->GetGuid()), hold), kJX_CheckoutRefused);
    expectUntouched("bit 7 never looks");
    EXPECT_EQ(handle.Checkout(item, hold), kJX_HeldWithoutCheckout);
  }
  expectUntouched("destroyed while holding");
}

TEST_F(ScCheckoutTest, SwapLeavesFlagsAndSuspendedItemsInPlace) {
  auto a = Added(10), b = Added(20);
  JX_ScCheckout ha(a, cf::kReadOnly | cf::kPassAlong);
  JX_ScCheckout hb(b, cf::kReadOnly);
  hb.SuspendCheckout();
  ha.SetCheckinFlags(ci::kKeepRecency);
  ha.Swap(hb);
  EXPECT_EQ(ha.GetStuffPtr(), nullptr);
  EXPECT_EQ(hb.GetStuffPtr(), a);
  EXPECT_EQ(hb.GetCheckinFlags(), ci::kKeepRecency);
  EXPECT_EQ(ha.GetCheckoutFlags(), cf::kReadOnly | cf::kPassAlong);
  EXPECT_EQ(hb.GetCheckoutFlags(), cf::kReadOnly);
  EXPECT_FALSE(ha.HasSuspendedCheckout());
  hb.Checkin();
  EXPECT_TRUE(hb.HasSuspendedCheckout()) << "the suspended item stayed with its handle";
  EXPECT_TRUE(hb.ReacquireSuspendedCheckout());
  EXPECT_EQ(hb.GetStuffPtr(), b);
}

TEST_F(ScCheckoutTest, SuspendAndReacquireFindsAReplacedItem) {
  const Guid g = Guid::CreateUnique();
  auto item = Added(10, g);
  JX_ScCheckout handle;
  ASSERT_EQ(handle.FindAndCheckout(MakeRequest(g), cf::kReadOnly | cf::kNoDiskRead),
            kJX_CheckedOut);
  handle.SuspendCheckout();
  EXPECT_TRUE(handle.HasSuspendedCheckout());
  EXPECT_TRUE(handle.DidCheckout()) << "the result survives suspension";
  EXPECT_FALSE(handle.GetStuffPtr());
  EXPECT_EQ(item->GetCheckoutCount(), 0u);

  // The item is replaced in the directory while the handle holds nothing.
  auto replacement = Added(12, g);
  item->RemoveFromBagAndSortDir();
  item->GetDataPtr()->PurgeIfPossible(nullptr);  // the old one can no longer be checked out

  EXPECT_TRUE(handle.ReacquireSuspendedCheckout());
  EXPECT_EQ(handle.GetStuffPtr(), replacement);
  EXPECT_EQ(handle.GetCheckoutFlags(), cf::kReadOnly | cf::kNoDiskRead) << "stored flags restored";
  EXPECT_EQ(replacement->GetCheckoutCount(), 1u);
}

TEST_F(ScCheckoutTest, StuffSetterAbandonsAnUnfilledRenderAndReleasesWaiters) {
  const Guid g = Guid::CreateUnique();
  JX_ScCheckout creator;
  ASSERT_EQ(creator.FindAndCheckout(MakeRequest(g), cf::kReadOnly | cf::kCreatePending),
            kJX_CreatedPending);
  auto pending = creator.GetStuffPtr();
  constexpr int kWaiters = 3;
  std::atomic<uint64_t>& waits = JX_GetStuffCounters().pendingWaits;
  const uint64_t waitsBefore = waits.load();
  std::atomic<int> results[kWaiters];
  std::atomic<bool> held[kWaiters];
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&, i] {
      JX_ScCheckout h;
      results[i] = h.FindAndCheckout(MakeRequest(g), cf::kReadOnly | cf::kWaitAlways);
      held[i] = h.GetStuffPtr() != nullptr;
    });
  }
  // Every waiter has checked the pending item out and gone to its gate.
  EXPECT_TRUE(EventuallyTrue([&] { return waits.load() >= waitsBefore + kWaiters; }));
  EXPECT_EQ(waits.load(), waitsBefore + kWaiters);
  EXPECT_EQ(pending->GetCheckoutCount(), 1u + kWaiters);
  try {
    JX_ScStuffSetter setter(pending);
    throw std::runtime_error("render failed");
  } catch (const std::runtime_error&) {
  }
  for (auto& w : waiters) w.join();
  for (int i = 0; i < kWaiters; ++i) {
    EXPECT_EQ(results[i].load(), kJX_CheckoutRefused) << i;
    EXPECT_FALSE(held[i].load()) << i;
  }
  EXPECT_EQ(pending->GetCheckoutCount(), 1u) << "only the creator's check-out is left";
  EXPECT_FALSE(pending->IsPendingRender());
  EXPECT_FALSE(pending->GetBag());
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);

  // A setter destroyed after the item was filled changes nothing.
  JX_ScCheckout second;
  ASSERT_EQ(second.FindAndCheckout(MakeRequest(g), cf::kReadOnly | cf::kCreatePending),
            kJX_CreatedPending);
  {
    JX_ScStuffSetter setter(second.GetStuffPtr());
    second.GetStuffPtr()->SetStuffDataFromPendingRender(
        IntrusivePtr<JX_StuffData>(new TestPayload(5)), 0.0);
  }
  EXPECT_TRUE(second.GetStuffPtr()->GetBag());
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
}

// Regression: the handle used to hold its own lock across the search, which made the search
// refuse to wait and hand back the still-pending item.
TEST_F(ScCheckoutTest, FindAndCheckoutWaitsForAnotherThreadsRender) {
  const Guid g = Guid::CreateUnique();
  JX_ScCheckout creator;
  ASSERT_EQ(creator.FindAndCheckout(MakeRequest(g), cf::kReadOnly | cf::kCreatePending),
            kJX_CreatedPending);
  std::atomic<bool> filled{false};
  std::thread waiter([&] {
    JX_ScCheckout h;
    EXPECT_EQ(h.FindAndCheckout(MakeRequest(g), cf::kReadOnly | cf::kWaitAlways), kJX_CheckedOut);
    EXPECT_TRUE(filled.load()) << "came back before the render finished";
    EXPECT_FALSE(h.IsPendingRender());
    EXPECT_TRUE(h.IsInMemory());
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  filled = true;
  creator.GetStuffPtr()->SetStuffDataFromPendingRender(
      IntrusivePtr<JX_StuffData>(new TestPayload(5)), 0.0);
  waiter.join();
}

TEST_F(ScCheckoutTest, ForeignGuardWordIsIgnoredByCheckin) {
  auto item = Added(10);
  alignas(JX_ScCheckout) unsigned char storage[sizeof(JX_ScCheckout)];
  auto* handle = new (storage) JX_ScCheckout(item, cf::kReadOnly);
  // What a stale receipt looks like: same object, guard word overwritten.
  reinterpret_cast<std::atomic<uint32_t>*>(storage + sizeof(void*))->store(0);
  ASSERT_EQ(handle->GetGuardWord(), 0u);
  handle->Checkin();
  EXPECT_EQ(item->GetCheckoutCount(), 1u);
  reinterpret_cast<std::atomic<uint32_t>*>(storage + sizeof(void*))
      ->store(JX_ScCheckout::kGuardWord);
  handle->~JX_ScCheckout();
  EXPECT_EQ(item->GetCheckoutCount(), 0u);
}

// A disk cache folder, and items whose payloads are really written to it.
class ScCheckoutDiskTest : public DiskTest {};

TEST_F(ScCheckoutDiskTest, ReacquisitionReadsFromDiskWhateverTheStoredFlags) {
  auto item = AddDiskCacheableItem(64);
  item->PrepAndWrite(bag_);
  ASSERT_TRUE(item->HasDiskCacheFile());
  const int flags = cf::kReadOnly | cf::kNoDiskRead;
  JX_ScCheckout handle(item, flags);
  ASSERT_EQ(handle.GetResult(), kJX_CheckedOut);
  handle.SuspendCheckout();
  JX_Stuff::ReleaseQueue queue;
  ASSERT_EQ(item->FreeUpAsMuchAsPossible(false, &queue), 64u);
  ASSERT_FALSE(item->IsInMemory());
  ASSERT_TRUE(handle.ReacquireSuspendedCheckout());
  EXPECT_TRUE(handle.IsInMemory()) << "read back although the stored flags forbid disk reads";
  EXPECT_EQ(handle.GetCheckoutFlags(), flags);
}

TEST_F(ScCheckoutDiskTest, DiskHoldsCountUntilCheckinAndFollowSwap) {
  auto& global = JX_Stuff::GetNumDiskCacheCheckoutsGlobal();
  const uint32_t globalBefore = global.load();
  auto plain = AddedItem(*bag_, 10);
  {
    JX_ScCheckout handle(plain, cf::kReadOnly);
    EXPECT_TRUE(handle.HasDiskHoldIfWanted()) << "no disk copy: no hold needed";
    EXPECT_FALSE(handle.AcquireDiskHold()) << "no file to hold";
    EXPECT_EQ(plain->GetNumDiskCacheCheckouts(), 1u);
    EXPECT_EQ(global.load(), globalBefore + 1);
    handle.SuspendCheckout();
    EXPECT_EQ(plain->GetNumDiskCacheCheckouts(), 1u) << "suspension keeps the hold";
    ASSERT_TRUE(handle.ReacquireSuspendedCheckout());
    EXPECT_EQ(plain->GetNumDiskCacheCheckouts(), 1u) << "reacquisition renews it, once";
  }
  EXPECT_EQ(plain->GetNumDiskCacheCheckouts(), 0u);
  EXPECT_EQ(global.load(), globalBefore);

  auto item = AddItemWithFile(100);
  JX_ScCheckout a(item, cf::kReadOnly);
  EXPECT_FALSE(a.HasDiskHold());
  EXPECT_FALSE(a.HasDiskHoldIfWanted()) << "the item has a file that nobody holds";
  EXPECT_TRUE(a.AcquireDiskHold());
  EXPECT_TRUE(a.HasDiskHoldIfWanted());
  a.SuspendCheckout();
  EXPECT_TRUE(a.HasDiskHold()) << "answered for the suspended item";
  ASSERT_TRUE(a.ReacquireSuspendedCheckout());

  // The hold and the opaque slot travel with the check-out.
  int tag = 0;
  a.SetOpaque(&tag);
  JX_ScCheckout b;
  a.Swap(b);
  EXPECT_TRUE(b.HasDiskHold());
  EXPECT_EQ(b.GetOpaque(), &tag);
  EXPECT_EQ(a.GetOpaque(), nullptr);
  EXPECT_EQ(item->GetNumDiskCacheCheckouts(), 1u);
  EXPECT_EQ(global.load(), globalBefore + 1);
  b.Checkin();
  EXPECT_EQ(item->GetNumDiskCacheCheckouts(), 0u) << "the hold went with b's check-in";
  EXPECT_EQ(global.load(), globalBefore);
  EXPECT_FALSE(b.HasDiskHold());
}

}  // namespace
