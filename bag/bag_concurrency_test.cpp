// A bag dying while its items are still used on other threads: an item that outlives its bag
// ends up with its bytes counted once, in the global bag, whichever of the bag's tear-down and
// the item's own size syncs got there first; and the bag's end never runs under an item's lock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "host/trace.h"
#include "jxcache/bag/library_lock.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using jx::testing::TestPayload;
using zelcore::debug::Tracing;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;
using namespace std::chrono_literals;

namespace {

class BagDeathTest : public LibraryTest {};

// Once the last owner of a bag lets go, its destructor may wait for the library lock while the
// item, which needs no library lock for a read-only check-out, is still used and synced: its
// bytes and the disk writer's record of a finished write land in the dying bag or in the global
// one. Whichever it is, the destructor must forget only what is its own: bytes it forgot that
// the global bag still counted would stay in the global totals for good, and the item's next
// sync would count them again.
TEST_F(BagDeathTest, ItemSyncedWhileItsBagDiesIsCountedOnce) {
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
    jx::testing::LibraryLockHolder holder;  // the destructor cannot unlink the item meanwhile
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
  }
  ASSERT_EQ(destroyed.wait_for(10s), std::future_status::ready) << "the bag's destructor hangs";
  EXPECT_EQ(item->GetBag(), nullptr);
  item->Checkin(0, 0.0);

  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), checkedOutBefore);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), inMemoryBefore + kSize);
  EXPECT_EQ(item->GetAccountedMemorySize(), kSize);
  item.reset();
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), inMemoryBefore);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), onDiskBefore);
}

// A payload that records, as it goes, whether its thread held a given item's lock or the library
// lock: memory must be freed with no lock held, and a bag's destructor takes the library lock,
// which comes before every item lock.
class WatchingPayload : public TestPayload {
 public:
  WatchingPayload(unsigned int size, const JX_Stuff*& watched, int& freedUnderItsLock)
      : TestPayload(size), watched_(watched), freedUnderItsLock_(freedUnderItsLock) {}
  ~WatchingPayload() override {
    const auto& m = watched_->GetMutex();
    if (m.IsUpgradeLockedByCurrentThread() || m.IsWriteLockedByCurrentThread() ||
        JXp_ScLock::IsLockedByCurrentThread()) {
      ++freedUnderItsLock_;
    }
  }

 private:
  const JX_Stuff*& watched_;
  int& freedUnderItsLock_;
};

// Lets go of a bag's last owner on another thread, at a moment of the test's choosing (Drop,
// from inside the operation under test), and comes back once that release has returned or has
// begun the bag's destruction (which waits for a lock the operation holds).
class LastOwnerDropper {
 public:
  explicit LastOwnerDropper(std::shared_ptr<JX_Bag> owner)
      : watch_(owner),
        thread_(std::async(std::launch::async,
                           [this, owner = std::move(owner), go = letGo_.get_future()]() mutable {
                             go.wait();
                             owner.reset();
                             released_ = true;
                           })) {}
  ~LastOwnerDropper() { Finish(); }
  // Once: later calls do nothing.
  void Drop() {
    if (drops_++ != 0) return;
    letGo_.set_value();
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!released_ && !watch_.expired() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
  }
  // Lets go now if Drop never came; true once the release has returned.
  bool Finish() {
    if (drops_ == 0) {
      drops_ = -1;
      letGo_.set_value();
    }
    return thread_.wait_for(10s) == std::future_status::ready;
  }
  int Drops() const { return drops_ > 0 ? drops_ : 0; }
  bool BagGone() const { return watch_.expired(); }

 private:
  const std::weak_ptr<JX_Bag> watch_;
  std::promise<void> letGo_;
  std::atomic<bool> released_{false};
  int drops_ = 0;
  std::future<void> thread_;
};

// A size sync asks the item for its bag under the item's lock. Had it taken an owning reference,
// the bag's last owner letting go meanwhile (a restart, on another thread) would leave that
// reference the last: the bag's destructor would run on the syncing thread, under the item's
// lock, taking the library lock there (a thread holding the library lock and waiting for this
// item's lock deadlocks with it) and freeing the bag's items there.
TEST_F(BagDeathTest, ASizeSyncNeverEndsItsBagsLifeUnderTheItemsLock) {
  const JX_Stuff* watched = nullptr;
  int freedUnderItsLock = 0;
  auto local = std::make_shared<JX_Bag>(2);
  auto item = MakeItem(1000);
  watched = item.get();
  {
    // Held by the bag alone: it goes with the bag's last reference.
    auto other = JX_Stuff::CreateNew(
        IntrusivePtr<JX_StuffData>(new WatchingPayload(10, watched, freedUnderItsLock)), 0.0);
    other->SetGuid(Guid::CreateUnique());
    local->AddToBagAndSortDir(other);
  }
  local->AddToBagAndSortDir(item);
  // The sync moves the checked-out share and traces it: the trace is where another thread lets
  // go of the bag's last owner, in the middle of the sync.
  LastOwnerDropper dropper(std::move(local));
  Tracing::Configure("JX:7");
  Tracing::SetSink([&](const char*, int, const std::string&) {
    if (item->GetMutex().IsUpgradeLockedByCurrentThread()) dropper.Drop();
  });
  const JX_CheckoutResult result = item->Checkout(jx::checkout_flags::kReadOnly);
  Tracing::SetSink(nullptr);
  Tracing::Configure("");
  ASSERT_TRUE(dropper.Finish()) << "the bag's release hangs";
  ASSERT_EQ(result, kJX_CheckedOut);
  ASSERT_EQ(dropper.Drops(), 1) << "the last owner never let go in the middle of the sync";
  EXPECT_TRUE(dropper.BagGone());
  EXPECT_EQ(freedUnderItsLock, 0);
  item->Checkin(0, 0.0);
  EXPECT_EQ(item->GetBag(), nullptr);
}

// A payload whose purge calls back into the test while the purge holds its locks.
class PurgeHookPayload : public TestPayload {
 public:
  PurgeHookPayload(unsigned int size, std::function<void()> onPurge)
      : TestPayload(size), onPurge_(std::move(onPurge)) {}
  bool PurgeIfPossible(ReleaseQueue* toRelease) override {
    onPurge_();
    return TestPayload::PurgeIfPossible(toRelease);
  }

 private:
  std::function<void()> onPurge_;
};

// A purge (the host's media manager asking an item to go, say) holds the library lock and the
// item's lock, and needs the item's bag to take the item out of it. Had it held an owning
// reference, the bag's last owner letting go meanwhile would leave that reference the last: the
// bag's destructor would run on the purging thread, freeing the bag's other items under both
// locks.
TEST_F(BagDeathTest, APurgeNeverEndsItsBagsLifeUnderItsLocks) {
  const JX_Stuff* watched = nullptr;
  int freedUnderALock = 0;
  auto local = std::make_shared<JX_Bag>(2);
  {
    auto other = JX_Stuff::CreateNew(
        IntrusivePtr<JX_StuffData>(new WatchingPayload(10, watched, freedUnderALock)), 0.0);
    other->SetGuid(Guid::CreateUnique());
    local->AddToBagAndSortDir(other);
  }
  // In the middle of the purge, the bag's last owner lets go on another thread.
  LastOwnerDropper* dropper = nullptr;
  auto item = JX_Stuff::CreateNew(
      IntrusivePtr<JX_StuffData>(new PurgeHookPayload(1000, [&] { dropper->Drop(); })), 0.0);
  item->SetGuid(Guid::CreateUnique());
  watched = item.get();
  local->AddToBagAndSortDir(item);
  LastOwnerDropper drops(std::move(local));
  dropper = &drops;

  EXPECT_EQ(item->FreeUpAsMuchAsPossible(true, nullptr), 1000u);
  ASSERT_TRUE(drops.Finish()) << "the bag's release hangs";
  ASSERT_EQ(drops.Drops(), 1) << "the last owner never let go in the middle of the purge";
  EXPECT_TRUE(drops.BagGone());
  EXPECT_EQ(freedUnderALock, 0);
  EXPECT_EQ(item->GetBag(), nullptr);
  EXPECT_FALSE(item->IsInMemory());
}

}  // namespace
