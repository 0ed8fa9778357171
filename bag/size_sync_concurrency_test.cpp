// A size sync measures the payload and exchanges the item's accounted size as one step with
// respect to purges: a purge that frees the payload between another thread's measurement and
// its exchange would otherwise be overwritten by the stale size, leaving the bag's totals off for
// good.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::testing::LibraryTest;
using jx::testing::SumOfItemSizes;
using zelcore::utility::IntrusivePtr;

namespace {

// A payload that stops the first thread to measure it after arming, at the moment between
// reading its size and returning it, and lets a purge run there.
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

class SizeSyncTest : public LibraryTest {};

TEST_F(SizeSyncTest, PurgeBetweenACheckinsMeasurementAndItsExchangeLeavesExactTotals) {
  auto* payload = new GatedPayload(1000);
  auto item = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(payload), 0.0);
  item->SetGuid(zelcore::utility::Guid::CreateUnique());
  bag_->AddToBagAndSortDir(item);
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  ASSERT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 1000);

  std::mutex mutex;
  std::condition_variable cv;
  bool measured = false, purged = false;
  std::thread purger([&] {
    {
      std::unique_lock lock(mutex);
      cv.wait(lock, [&] { return measured; });
    }
    JX_Stuff::ReleaseQueue queue;
    item->FreeUpAsMuchAsPossible(true, &queue);
    std::lock_guard lock(mutex);
    purged = true;
    cv.notify_all();
  });
  payload->Arm([&] {
    std::unique_lock lock(mutex);
    measured = true;
    cv.notify_all();
    // Holding the item's upgrade or write lock keeps the purge out until the exchange is done;
    // waiting for it then would never end. Without it, the purge runs to its end right here.
    const auto& m = item->GetMutex();
    if (!m.IsUpgradeLockedByCurrentThread() && !m.IsWriteLockedByCurrentThread())
      cv.wait(lock, [&] { return purged; });
  });
  item->Checkin(0, 0.0);
  purger.join();

  EXPECT_FALSE(payload->IsInMemory()) << "the purge ran";
  EXPECT_EQ(item->GetAccountedMemorySize(), payload->GetApproximateMemorySize());
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), SumOfItemSizes(*bag_));
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
}

}  // namespace
