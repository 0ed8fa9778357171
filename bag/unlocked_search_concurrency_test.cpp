// Read-only searches look items up without the library lock. Whatever they take must be what a
// locked search could have returned at that moment: an item under the GUID asked for, in the
// bag, with its payload. Other threads meanwhile re-key, take writeable, remove and re-add the
// very items being searched for.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using jx::testing::MakeRequest;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

class UnlockedSearchTest : public LibraryTest {};

TEST_F(UnlockedSearchTest, WhatASearchTakesIsUnderItsKeyInTheBagAndReadable) {
  constexpr int kItems = 8;
  constexpr int kSearches = 20000;
  std::vector<Guid> home(kItems), away(kItems);
  std::vector<IntrusivePtr<JX_Stuff>> items;
  for (int i = 0; i < kItems; ++i) {
    home[i] = Guid::CreateUnique();
    away[i] = Guid::CreateUnique();
    items.push_back(MakeItem(64, home[i]));
    bag_->AddToBagAndSortDir(items.back());
  }
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0}, hits{0};
  // Re-keys items through writeable check-outs (out of the directory and back under the other
  // GUID), and takes others out of the bag and puts them back.
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
        bool created = false;
        if (bag_->FindAndCheckout(MakeRequest(want), cf::kReadOnly, &found, &created) !=
            kJX_CheckedOut) {
          continue;
        }
        hits.fetch_add(1, std::memory_order_relaxed);
        // A read-only check-out keeps the item from being re-keyed by the changer, which needs
        // a writeable one: its key is the one it was found under.
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
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut, 0);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
  EXPECT_EQ(bag_->GetNumItems(), kItems);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), kItems);
}

}  // namespace
