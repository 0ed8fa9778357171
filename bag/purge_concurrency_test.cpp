// Purges that run at once on several threads: each is satisfied by its own thread's amount.
#include <gtest/gtest.h>

#include <barrier>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "host/standalone_host.h"
#include "host/y_api.h"
#include "testing/jx_test_support.h"

using jx::StandaloneHost;
using jx::testing::LibraryTest;
using jx::testing::TestPayload;
using zelcore::utility::Guid;
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
  for (int i = 0; i < 20; ++i) {
    auto item =
        JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new AmountRecordingPayload(50, seen_)), 0.0);
    item->SetGuid(Guid::CreateUnique());
    bag_->AddToBagAndSortDir(item);
  }
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

}  // namespace
