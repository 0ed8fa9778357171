// Find-or-create and search under contention: one creator per key, every waiter released, no
// thread blocked on its own render or under a notifying host lock, re-keys racing searches.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <random>
#include <thread>
#include <vector>

#include "bag/sort_dir.h"
#include "host/y_api.h"
#include "jxcache/items/stuff.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using jx::testing::AddedItem;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using jx::testing::PayloadBytesInBag;
using jx::testing::TestPayload;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr int kFindOrCreate = cf::kReadOnly | cf::kCreatePending | cf::kWaitAlways;

class FindOrCreateTest : public LibraryTest {
 protected:
  // Once every thread is done, nothing is checked out and the totals are what the payloads hold.
  void ExpectAtRest() {
    EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut.load(), 0);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), PayloadBytesInBag(*bag_));
    EXPECT_EQ(bag_->GetNumMruSortedItems(), bag_->GetNumGuidSortedItems());
  }
};

// Threads ask for one new key at once: one creates (and fills or abandons), the rest get its
// payload or nothing.
TEST_F(FindOrCreateTest, ExactlyOneCreatorAndEveryWaiterReleased) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 60;
  struct Round {
    Guid key = Guid::CreateUnique();
    std::atomic<int> creators{0}, payloads{0}, nothing{0};
  };
  std::vector<Round> rounds(kRounds);
  std::barrier sync(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int r = 0; r < kRounds; ++r) {
        sync.arrive_and_wait();
        IntrusivePtr<JX_Stuff> found;
        const JX_CheckoutResult res = Ask(rounds[r].key, kFindOrCreate, &found);
        if (res == kJX_CreatedPending) {
          ++rounds[r].creators;
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
          EXPECT_TRUE(payload && payload->Seed() == static_cast<uint32_t>(r) && payload->Verify());
          ++rounds[r].payloads;
          found->Checkin(0, 0.0);
        } else {
          ++rounds[r].nothing;
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  ExpectAtRest();
  for (int r = 0; r < kRounds; ++r) {
    const Round& round = rounds[r];
    if (r % 3 == 2) {
      // Waiters of an abandoned render get nothing; a later arrival creates afresh.
      EXPECT_GE(round.creators, 1) << "round " << r;
      EXPECT_EQ(round.payloads, 0) << "round " << r;
      EXPECT_EQ(round.creators + round.nothing, kThreads) << "round " << r;
    } else {
      EXPECT_EQ(round.creators, 1) << "round " << r;
      EXPECT_EQ(round.payloads, kThreads - 1) << "round " << r;
    }
  }
}

// Neither the renderer nor a notifying host lock holder may block on the pending item, which must
// answer a request without a payload by GUID (every caller used to create its own).
TEST_F(FindOrCreateTest, HostLockHolderAndRendererNeverBlock) {
  const Guid key = Guid::CreateUnique();
  auto ask = [&](IntrusivePtr<JX_Stuff>* found) {
    auto bare = JX_Stuff::CreateNew({}, 0.0);
    bare->SetGuid(key);
    bool created = false;
    return bag_->FindAndCheckout(bare, kFindOrCreate, found, &created);
  };
  IntrusivePtr<JX_Stuff> pending, again;
  ASSERT_EQ(ask(&pending), kJX_CreatedPending);
  EXPECT_EQ(ask(&again), kJX_CheckoutRefused) << "no wait, no second pending item";
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
  std::thread holder([&] {
    Y::ScNotifyHoldingMutexLock hostLock;
    IntrusivePtr<JX_Stuff> found;
    // Would wait for ever if it blocked: the renderer fills only after this thread is done.
    EXPECT_EQ(ask(&found), kJX_CheckedOut);
    EXPECT_EQ(found, pending);
    EXPECT_TRUE(found->IsPendingRender()) << "handed back as it stands";
    found->Checkin(0, 0.0);
  });
  holder.join();
  pending->SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData>(new TestPayload(8)), 0.0);
  pending->Checkin(0, 0.0);
  ASSERT_EQ(ask(&again), kJX_CheckedOut);
  EXPECT_EQ(again, pending);
  again->Checkin(0, 0.0);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
}

// A lock-free read-only search takes the item under its GUID, payload and all, while another
// thread re-keys, removes and re-adds the items.
TEST_F(FindOrCreateTest, WhatASearchTakesIsUnderItsKeyInTheBagAndReadable) {
  constexpr int kItems = 8;
  constexpr int kSearches = 20000;
  std::vector<Guid> home(kItems), away(kItems);
  std::vector<IntrusivePtr<JX_Stuff>> items;
  for (int i = 0; i < kItems; ++i) {
    home[i] = Guid::CreateUnique();
    away[i] = Guid::CreateUnique();
    items.push_back(AddedItem(*bag_, 64, home[i]));
  }
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0}, hits{0};
  std::thread changer([&] {
    for (unsigned n = 0; !stop.load(std::memory_order_relaxed); ++n) {
      const int i = static_cast<int>(n % kItems);
      if (n % 3 == 0) {
        items[i]->RemoveFromBagAndSortDir();
        bag_->AddToBagAndSortDir(items[i]);
      } else if (items[i]->Checkout(0) == kJX_CheckedOut) {
        const Guid now = items[i]->GetGuid();
        items[i]->SetGuid(now == home[i] ? away[i] : home[i]);
        items[i]->Checkin(0, 0.0);
      }
    }
  });
  std::vector<std::thread> searchers;
  for (int t = 0; t < 2; ++t) {
    searchers.emplace_back([&, t] {
      for (int n = 0; n < kSearches; ++n) {
        const int i = (n + t) % kItems;
        const Guid& want = n % 2 ? home[i] : away[i];
        IntrusivePtr<JX_Stuff> found;
        if (Ask(want, cf::kReadOnly, &found) != kJX_CheckedOut) continue;
        hits.fetch_add(1, std::memory_order_relaxed);
        // Held read-only, the item cannot be re-keyed (the changer needs it writeable).
        if (found->GetGuid() != want || !found->IsInMemory() || found.get() != items[i].get()) {
          wrong.fetch_add(1);
        }
        found->Checkin(0, 0.0);
      }
    });
  }
  for (auto& s : searchers) s.join();
  stop = true;
  changer.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_GT(hits.load(), 0);
  EXPECT_EQ(bag_->GetNumItems(), kItems);
  ExpectAtRest();
}

// Mixed operations on a small hot key set leave totals equal to what the payloads hold.
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
        const JX_CheckoutResult res = Ask(key, flags, &found);
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
  ExpectAtRest();
  // Each item is found under the key it holds now, however often it was re-keyed.
  for (auto& s : bag_->CopyMruItems()) {
    IntrusivePtr<JX_Stuff> found;
    EXPECT_EQ(Ask(s->GetGuid(), cf::kReadOnly, &found), kJX_CheckedOut);
    EXPECT_EQ(found, s);
    if (found) found->Checkin(0, 0.0);
  }
}

// A re-key racing the item's add files it under the new key only (it was filed under the old
// key's hash when the re-key landed between the add's read of the key and its insertion).
TEST_F(FindOrCreateTest, AReKeyDuringAnAddFilesTheItemUnderTheNewKey) {
  constexpr int kRounds = 4000;
  const int flags = cf::kReadOnly | cf::kNoDiskRead;
  std::barrier<> start(2);
  int lostUnderNewKey = 0, foundUnderOldKey = 0, leftBehind = 0;
  const size_t before = bag_->GetSortDir()->Size();
  for (int round = 0; round < kRounds; ++round) {
    const Guid oldKey = Guid::CreateUnique(), newKey = Guid::CreateUnique();
    IntrusivePtr<JX_Stuff> item = MakeItem(16, oldKey);
    std::thread rekey([&] {
      start.arrive_and_wait();
      item->SetGuid(newKey);
    });
    start.arrive_and_wait();
    bag_->AddToBagAndSortDir(item);
    rekey.join();
    IntrusivePtr<JX_Stuff> found;
    if (Ask(newKey, flags, &found) != kJX_CheckedOut || found != item) ++lostUnderNewKey;
    if (found) found->Checkin(0, 0.0);
    found.reset();
    if (Ask(oldKey, flags, &found) == kJX_CheckedOut) {
      ++foundUnderOldKey;
      found->Checkin(0, 0.0);
    }
    item->RemoveFromBagAndSortDir();
    if (bag_->GetSortDir()->Size() != before) ++leftBehind;
  }
  EXPECT_EQ(lostUnderNewKey, 0);
  EXPECT_EQ(foundUnderOldKey, 0);
  EXPECT_EQ(leftBehind, 0);
  ExpectAtRest();
}

}  // namespace
