// A bag dying while its items are still used on other threads: an item that outlives its bag
// ends up with its bytes counted once, in the global bag, whichever of the bag's tear-down and
// the item's own size syncs got there first.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "jxcache/bag/library_lock.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using namespace std::chrono_literals;

namespace {

// Holds the library lock on a thread of its own for its lifetime.
class LockHolder {
 public:
  LockHolder() { held_.get_future().wait(); }
  ~LockHolder() {
    release_.set_value();
    thread_.join();
  }

 private:
  std::promise<void> held_, release_;
  std::future<void> released_ = release_.get_future();
  std::thread thread_{[this] {
    JXp_ScLock lock;
    held_.set_value();
    released_.wait();
  }};
};

class BagDeathTest : public LibraryTest {};

// Once the last owner of a bag lets go, the bag no longer answers for its items: a size sync
// made then (a read-only check-out needs no library lock) counts the item in the global bag,
// while the bag's destructor, kept waiting for the library lock, has not unlinked it yet. So is
// the disk writer's record of a finished write. When the destructor then reaches the item it
// must not forget bytes that are no longer its own: they would stay in the global totals for
// good, and the item's next sync would count them again.
TEST_F(BagDeathTest, ItemSyncedIntoTheGlobalBagWhileItsBagDiesIsCountedOnce) {
  constexpr unsigned int kSize = 1000;
  constexpr unsigned int kDiskSize = 300;
  auto local = std::make_shared<JX_Bag>(2);
  auto item = MakeItem(kSize);
  local->AddToBagAndSortDir(item);
  const long long inMemoryBefore = bag_->GetInMemoryCacheSizeInBytes_LockFree();
  const long long checkedOutBefore = bag_->GetCheckedOutMemoryCacheSizeInBytes();
  const long long onDiskBefore = bag_->GetCurrentDiskCacheSize();
  const std::weak_ptr<JX_Bag> watch = local;
  std::future<void> destroyed;
  {
    LockHolder holder;  // the destructor cannot unlink the item meanwhile
    destroyed = std::async(std::launch::async, [b = std::move(local)]() mutable { b.reset(); });
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!watch.expired()) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the bag's last owner never let go";
      std::this_thread::yield();
    }
    ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
    item->SyncDiskSizeWithBag(kDiskSize);
    // The interleaving really happened: the destructor is still held up by the lock.
    ASSERT_EQ(destroyed.wait_for(0s), std::future_status::timeout);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), checkedOutBefore + kSize);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), onDiskBefore + kDiskSize);
  }
  ASSERT_EQ(destroyed.wait_for(10s), std::future_status::ready) << "the bag's destructor hangs";
  EXPECT_EQ(item->GetBag(), nullptr);
  item->Checkin(0, 0.0);

  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), checkedOutBefore);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), inMemoryBefore + kSize);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), onDiskBefore + kDiskSize);
  EXPECT_EQ(item->GetAccountedMemorySize(), kSize);
  item.reset();
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), inMemoryBefore);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), onDiskBefore);
}

}  // namespace
