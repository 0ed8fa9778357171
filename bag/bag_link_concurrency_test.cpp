// An item's link to its bag is a plain pointer that the bag clears as it dies; a strong reference
// to the bag is had from the bag itself. Threads asking items for their bag while the bag is
// destroyed (on whichever thread drops its last reference) get it or nothing, never a bag
// being torn down, and what they count lands in a bag that still exists.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "jxcache/bag/bag.h"
#include "testing/jx_test_support.h"

using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using zelcore::utility::IntrusivePtr;

namespace {

class BagLinkTest : public LibraryTest {};

TEST_F(BagLinkTest, ItemsAskedForADyingBagGetItOrNothing) {
  constexpr int kItems = 64;
  constexpr int kThreads = 2;
  for (int round = 0; round < 20; ++round) {
    auto local = std::make_shared<JX_Bag>(1);
    JX_Bag* const address = local.get();
    std::vector<IntrusivePtr<JX_Stuff>> items;
    for (int i = 0; i < kItems; ++i) {
      items.push_back(MakeItem(10));
      local->AddToBagAndSortDir(items.back());
    }
    std::atomic<int> started{0};
    std::atomic<bool> wrongBag{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        started.fetch_add(1);
        // Until one whole pass finds every item without a bag. A thread may hold the last
        // reference, and so destroy the bag itself.
        for (bool anyLinked = true; anyLinked;) {
          anyLinked = false;
          for (int i = t; i < kItems + t; ++i) {
            const auto& item = items[i % kItems];
            std::shared_ptr<JX_Bag> bag = item->GetBag();
            if (bag && bag.get() != address) wrongBag = true;
            anyLinked = anyLinked || bag != nullptr;
            // Resizing while the bag dies: the bytes go to the dying bag (which forgets them) or
            // to the global one, never to freed memory.
            item->SyncMemorySizeWithBag(10 + (i & 1));
          }
        }
      });
    }
    while (started.load() < kThreads) std::this_thread::yield();
    local.reset();
    for (auto& th : threads) th.join();
    EXPECT_FALSE(wrongBag.load());
    for (const auto& item : items) EXPECT_EQ(item->GetBag(), nullptr);
    // The items outlive their bag; once gone, they take what they counted back out of the
    // global bag (the fixture checks its totals at the end).
    items.clear();
  }
}

}  // namespace
