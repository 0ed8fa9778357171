// Purges and bag links racing other threads.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "host/y_api.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/host/open_once_gate.h"
#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::StandaloneHost;
using jx::testing::AddedItem;
using jx::testing::AddNewItem;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using jx::testing::SumOfItemSizes;
using jx::testing::TestPayload;
using zelcore::utility::IntrusivePtr;

namespace {

// What each thread's purge saw: the amount the host asked of it, once per item it freed.
struct Sightings {
  std::mutex mutex;
  std::map<std::thread::id, std::vector<uint64_t>> amounts;
};

class AmountRecordingPayload : public TestPayload {
 public:
  AmountRecordingPayload(unsigned int size, Sightings& seen) : TestPayload(size), seen_(seen) {}
  bool PurgeIfPossible(ReleaseQueue* toRelease) override {
    const uint64_t amount = Y_AmountToPurge();
    {
      std::lock_guard<std::mutex> lock(seen_.mutex);
      seen_.amounts[std::this_thread::get_id()].push_back(amount);
    }
    return TestPayload::PurgeIfPossible(toRelease);
  }

 private:
  Sightings& seen_;
};

class PurgeConcurrencyTest : public LibraryTest {
 protected:
  Sightings seen_;  // outlives the library's tear-down, which may still purge
};

TEST_F(PurgeConcurrencyTest, EachPurgeIsSatisfiedByItsOwnThreadsAmount) {
  StandaloneHost::Instance().SetMemoryLimit(1000);  // the floor, 100 bytes, stays out of the way
  for (int i = 0; i < 20; ++i) AddNewItem(*bag_, new AmountRecordingPayload(50, seen_));
  std::barrier sync(2);
  auto purge = [&](uint64_t amount, uint64_t* amountAfter, std::thread::id* id) {
    *id = std::this_thread::get_id();
    jx::ScAmountToPurge overBudget(amount);
    sync.arrive_and_wait();  // both amounts are set before either purge starts
    bag_->FreeUpSomeMemory(amount);
    sync.arrive_and_wait();  // both purges are done; both scopes are still open
    *amountAfter = Y_AmountToPurge();
    sync.arrive_and_wait();  // neither scope closes before the other thread has looked
  };
  uint64_t afterA = 0, afterB = 0;
  std::thread::id idA, idB;
  std::thread a(purge, 100, &afterA, &idA);
  std::thread b(purge, 300, &afterB, &idB);
  a.join();
  b.join();

  EXPECT_EQ(seen_.amounts[idA], std::vector<uint64_t>(2, 100));
  EXPECT_EQ(seen_.amounts[idB], std::vector<uint64_t>(6, 300));
  EXPECT_EQ(afterA, 100u);
  EXPECT_EQ(afterB, 300u);
  EXPECT_EQ(Y_AmountToPurge(), 0u) << "no thread's amount is left behind";
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 1000 - 8 * 50);
}

// A payload whose armed thread runs a purge between reading its size and returning it.
class GatedPayload : public JX_StuffData {
 public:
  explicit GatedPayload(unsigned int size) : size_(size) {}
  unsigned int GetApproximateMemorySize() const override {
    const unsigned int size = size_.load();
    if (armedFor_.load() == std::this_thread::get_id()) {
      armedFor_.store({});
      if (onMeasured_) onMeasured_();
    }
    return size;
  }
  bool IsInMemory() const override { return size_.load() != 0; }
  bool PurgeIfPossible(ReleaseQueue*) override { return size_.exchange(0) != 0; }

  // The calling thread's next measurement runs `onMeasured` before it returns.
  void Arm(std::function<void()> onMeasured) {
    onMeasured_ = std::move(onMeasured);
    armedFor_.store(std::this_thread::get_id());
  }

 private:
  std::atomic<unsigned int> size_;
  mutable std::atomic<std::thread::id> armedFor_{};
  std::function<void()> onMeasured_;  // used by the armed thread only
};

// Unless measured and exchanged in one step, the stale size overwrites the purge's for good.
TEST_F(PurgeConcurrencyTest, PurgeBetweenACheckinsMeasurementAndItsExchangeLeavesExactTotals) {
  auto* payload = new GatedPayload(1000);
  auto item = AddNewItem(*bag_, payload);
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  ASSERT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 1000);

  zelcore::threads::OpenOnceGate measured, purged;
  std::thread purger([&] {
    measured.Wait();
    JX_Stuff::ReleaseQueue queue;
    item->FreeUpAsMuchAsPossible(true, &queue);
    purged.Open();
  });
  payload->Arm([&] {
    measured.Open();
    // Holding the item's upgrade or write lock keeps the purge out until the exchange is done;
    // waiting for it then would never end. Without it, the purge runs to its end right here.
    const auto& m = item->GetMutex();
    if (!m.IsUpgradeLockedByCurrentThread() && !m.IsWriteLockedByCurrentThread()) purged.Wait();
  });
  item->Checkin(0, 0.0);
  purger.join();

  EXPECT_FALSE(payload->IsInMemory()) << "the purge ran";
  EXPECT_EQ(item->GetAccountedMemorySize(), payload->GetApproximateMemorySize());
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), SumOfItemSizes(*bag_));
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
}

// Items asked for their bag while it dies get it or nothing, never a bag being torn down, and what
// they count lands in a bag that exists.
TEST_F(PurgeConcurrencyTest, ItemsAskedForADyingBagGetItOrNothing) {
  constexpr int kItems = 64;
  constexpr int kThreads = 2;
  for (int round = 0; round < 20; ++round) {
    auto local = std::make_shared<JX_Bag>(1);
    JX_Bag* const address = local.get();
    std::vector<IntrusivePtr<JX_Stuff>> items;
    for (int i = 0; i < kItems; ++i) items.push_back(AddedItem(*local, 10));
    std::atomic<int> started{0};
    std::atomic<bool> wrongBag{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        started.fetch_add(1);
        // Until one whole pass finds every item without a bag.
        for (bool anyLinked = true; anyLinked;) {
          anyLinked = false;
          for (int i = t; i < kItems + t; ++i) {
            const auto& item = items[i % kItems];
            std::shared_ptr<JX_Bag> bag = item->GetBag();
            if (bag && bag.get() != address) wrongBag = true;
            anyLinked = anyLinked || bag != nullptr;
            // The bytes go to the dying bag (which forgets them) or to the global one.
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
    // Gone, the items take their counts back out of the global bag (the fixture checks it).
    items.clear();
  }
}

}  // namespace

// A purge asked for under an item-style lock waits for the library lock held elsewhere rather than
// freeing nothing.
TEST_F(PurgeConcurrencyTest, APurgeUnderAnotherLockWaitsForTheLibraryLock) {
  auto item = MakeItem(70);
  JX_GlobalBag()->AddToBagAndSortDir(item);
  zelcore::threads::MultiTenantRecursiveMutex own;
  zelcore::threads::ScopedWriteLockWrapper ownHeld(own);
  std::promise<void> held;
  std::thread holder([&held] {
    JXp_ScLock lock;
    held.set_value();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  });
  held.get_future().wait();
  EXPECT_EQ(item->FreeUpAsMuchAsPossible(true, nullptr), 70u) << "the purge gave up";
  holder.join();
  EXPECT_FALSE(item->IsInMemory());
}
