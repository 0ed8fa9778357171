// Find-or-create under contention: one creator per key, every waiter released, no thread ever
// blocked on its own render or while holding a notifying host lock; and a mixed stress run.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <random>
#include <thread>
#include <vector>

#include "bag/sort_dir.h"
#include "host/y_api.h"
#include "items/stuff.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using jx::testing::MakeRequest;
using jx::testing::PayloadBytesInBag;
using jx::testing::TestPayload;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

class FindOrCreateTest : public LibraryTest {};

constexpr int kFindOrCreate = cf::kReadOnly | cf::kCreatePending | cf::kWaitAlways;

// Rounds of N threads asking for one new key at once. The creator fills the item (or abandons it
// every third round); every other thread must come back with the creator's payload, or nothing.
TEST_F(FindOrCreateTest, ExactlyOneCreatorAndEveryWaiterReleased) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 60;
  std::vector<Guid> keys(kRounds);
  for (auto& k : keys) k = Guid::CreateUnique();
  std::atomic<int> creators[kRounds] = {};
  std::atomic<int> gotPayload[kRounds] = {};
  std::atomic<int> gotNothing[kRounds] = {};
  std::barrier sync(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int r = 0; r < kRounds; ++r) {
        sync.arrive_and_wait();
        IntrusivePtr<JX_Stuff> found;
        bool created = false;
        JX_CheckoutResult res =
            bag_->FindAndCheckout(MakeRequest(keys[r]), kFindOrCreate, &found, &created);
        if (res == kJX_CreatedPending) {
          creators[r].fetch_add(1);
          std::this_thread::sleep_for(std::chrono::microseconds(200));
          if (r % 3 == 2) {
            found->SetStuffDataFromPendingRender({}, 0.0);  // the render failed
          } else {
            found->SetStuffDataFromPendingRender(
                IntrusivePtr<JX_StuffData>(new TestPayload(64, static_cast<uint32_t>(r))), 0.01);
          }
          found->Checkin(0, 0.0);
        } else if (res == kJX_CheckedOut) {
          auto* payload = dynamic_cast<TestPayload*>(found->GetDataPtr().get());
          EXPECT_FALSE(found->IsPendingRender());
          ASSERT_NE(payload, nullptr);
          EXPECT_EQ(payload->Seed(), static_cast<uint32_t>(r));
          EXPECT_TRUE(payload->Verify());
          gotPayload[r].fetch_add(1);
          found->Checkin(0, 0.0);
        } else {
          gotNothing[r].fetch_add(1);
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  for (int r = 0; r < kRounds; ++r) {
    if (r % 3 == 2) {
      // Waiters of an abandoned render get nothing. A thread that arrives only after the
      // abandonment finds the key free and starts a fresh attempt of its own.
      EXPECT_GE(creators[r].load(), 1) << "round " << r;
      EXPECT_EQ(gotPayload[r].load(), 0) << "round " << r;
      EXPECT_EQ(creators[r].load() + gotNothing[r].load(), kThreads) << "round " << r;
    } else {
      EXPECT_EQ(creators[r].load(), 1) << "round " << r;
      EXPECT_EQ(gotNothing[r].load(), 0) << "round " << r;
      EXPECT_EQ(gotPayload[r].load(), kThreads - 1) << "round " << r;
    }
  }
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), PayloadBytesInBag(*bag_));
}

TEST_F(FindOrCreateTest, HostLockHolderAndRendererNeverBlock) {
  const Guid key = Guid::CreateUnique();
  IntrusivePtr<JX_Stuff> pending;
  bool created = false;
  ASSERT_EQ(bag_->FindAndCheckout(MakeRequest(key), kFindOrCreate, &pending, &created),
            kJX_CreatedPending);
  // The renderer asking again for its own key: no wait, no second pending item.
  IntrusivePtr<JX_Stuff> again;
  EXPECT_EQ(bag_->FindAndCheckout(MakeRequest(key), kFindOrCreate, &again, &created),
            kJX_CheckoutRefused);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);

  std::thread holder([&] {
    Y::ScNotifyHoldingMutexLock hostLock;
    IntrusivePtr<JX_Stuff> found;
    bool c = false;
    // Would wait for ever if it blocked: the renderer fills only after this thread is done.
    EXPECT_EQ(bag_->FindAndCheckout(MakeRequest(key), kFindOrCreate, &found, &c), kJX_CheckedOut);
    EXPECT_TRUE(found->IsPendingRender()) << "handed back as it stands";
    found->Checkin(0, 0.0);
  });
  holder.join();
  pending->SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData>(new TestPayload(8)), 0.0);
  pending->Checkin(0, 0.0);
}

// Threads over a small hot key set: find-or-create with waits, read and writeable check-outs,
// GUID changes of writeable items (directory untouched until check-in) and of read-only ones
// (out of the directory and back in at once, superseding), abandoned renders. Bounded in
// operations. At rest the totals must equal what the payloads in the bag say they hold.
TEST_F(FindOrCreateTest, MixedOperationsKeepTheCountersConsistent) {
  constexpr int kThreads = 4;
  constexpr int kOpsPerThread = 3000;
  constexpr int kKeys = 16;
  std::vector<Guid> keys(kKeys);
  for (auto& k : keys) k = Guid::CreateUnique();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(1234 + t);
      for (int i = 0; i < kOpsPerThread; ++i) {
        const Guid& key = keys[rng() % kKeys];
        const int op = static_cast<int>(rng() % 10);
        const int flags = op < 3 ? (kFindOrCreate & ~cf::kReadOnly) : kFindOrCreate;
        IntrusivePtr<JX_Stuff> found;
        bool created = false;
        JX_CheckoutResult res = bag_->FindAndCheckout(MakeRequest(key), flags, &found, &created);
        if (res == kJX_CreatedPending) {
          if (op == 9) {
            found->SetStuffDataFromPendingRender({}, 0.0);
          } else {
            found->SetStuffDataFromPendingRender(
                IntrusivePtr<JX_StuffData>(new TestPayload(16 + op)), 0.001);
          }
          found->Checkin(0, 0.0);
        } else if (res == kJX_CheckedOut) {
          if (!(flags & cf::kReadOnly)) {
            EXPECT_TRUE(found->IsCheckedOutWriteable());
            EXPECT_EQ(found->GetCheckoutCount(), 1u) << "a writer shares its item";
            if (op == 0) found->UpdateWithNewGuid(keys[rng() % kKeys]);
            found->Checkin(op == 1 ? ci::kRemove : 0, 0.0);
          } else {
            EXPECT_FALSE(found->IsCheckedOutWriteable());
            if (op == 7) found->UpdateWithNewGuid(keys[rng() % kKeys]);
            found->Checkin(op == 8 ? ci::kPurge : 0, 0.0);
          }
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), PayloadBytesInBag(*bag_));
  EXPECT_EQ(bag_->GetNumMruSortedItems(), bag_->GetNumGuidSortedItems());
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut.load(), 0);
  // Every request here is the same one, so supersession leaves one item per key, and each item
  // must be found under the key it holds now, however often it was re-keyed.
  for (auto& s : bag_->CopyMruItems()) {
    EXPECT_EQ(s->GetCheckoutCount(), 0u);
    IntrusivePtr<JX_Stuff> found;
    bool created = false;
    EXPECT_EQ(bag_->FindAndCheckout(MakeRequest(s->GetGuid()), cf::kReadOnly, &found, &created),
              kJX_CheckedOut);
    EXPECT_EQ(found, s);
    if (found) found->Checkin(0, 0.0);
  }
}

}  // namespace
