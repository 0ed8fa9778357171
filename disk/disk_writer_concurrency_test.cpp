// The background writer with a live disk executor: what a check-in queues, what the queue holds
// on to, how the queue drains, and that shutting down mid-queue leaves nothing checked out.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "disk/disk_counters.h"
#include "disk/disk_test_support.h"
#include "disk/disk_writer.h"
#include "disk/performance_counters.h"
#include "items/sc_checkout.h"
#include "lifecycle/lifecycle.h"

namespace ci = jx::checkin_flags;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr unsigned kPayload = 1 << 20;

class DiskWriterTest : public jx::testing::DiskTest {
 protected:
  // Keeps queued writes from starting, so a test can look at the queue.
  static void HoldWritesBack() {
    jx::DiskExecutor()->HoldBackUntil(std::chrono::steady_clock::now() + std::chrono::minutes(5));
  }
  static void WriteableCheckin(const IntrusivePtr<JX_Stuff>& item, double computeTime) {
    ASSERT_EQ(item->Checkout(0), kJX_CheckedOut);
    item->Checkin(0, computeTime);
  }
  // Waits (bounded) until the writer has finished with every entry.
  static bool Drained() {
    for (int i = 0; i < 1000; ++i) {
      if (JX_GetQueuedDiskWriteCount() == 0 && JX_GetStuffCounters().itemsCheckedOut == 0) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
};

TEST_F(DiskWriterTest, CheckinQueuesAndTheQueuePinsTheItem) {
  HoldWritesBack();
  const JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
  auto item = AddDiskCacheableItem(kPayload);
  WriteableCheckin(item, 10.0);

  const JX_DiskPerformanceCounters after = JX_GetDiskPerformanceCounters();
  EXPECT_EQ(after.normalWriteRequests, before.normalWriteRequests + 1);
  EXPECT_EQ(after.normalQueueLength, 1u);
  EXPECT_EQ(after.highPriorityQueueLength, 0u);
  EXPECT_EQ(JX_GetQueuedDiskWriteCount(), 1u);
  EXPECT_TRUE(item->WasTaggedToWriteToDisk());
  EXPECT_EQ(item->GetCheckoutCount(), 1u) << "held by the queue";
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), kPayload);
  EXPECT_EQ(item->FreeUpAsMuchAsPossible(true, nullptr), 0u);
  jx::PurgeOverBudget(*bag_, 1ull << 40);
  EXPECT_TRUE(item->IsInMemory()) << "a queued item cannot be purged";

  // A read-only check-in never writes; one that took no time to compute is not worth a file.
  const auto reads = JX_GetStuffCounters().itemsCheckedOut.load();
  ASSERT_EQ(item->Checkout(jx::checkout_flags::kReadOnly), kJX_CheckedOut);
  item->Checkin(0, 10.0);
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut.load(), reads);
  auto cheap = AddDiskCacheableItem(kPayload, 0.0);
  WriteableCheckin(cheap, 0.0);
  cheap->MaybeWriteToDisk();
  EXPECT_FALSE(cheap->WasTaggedToWriteToDisk());
  EXPECT_EQ(JX_GetQueuedDiskWriteCount(), 1u);

  // "Write now" goes to the front of the line, whatever the check-in.
  auto urgent = AddDiskCacheableItem(kPayload);
  ASSERT_EQ(urgent->Checkout(jx::checkout_flags::kReadOnly), kJX_CheckedOut);
  urgent->Checkin(ci::kWriteNow, 0.0);
  EXPECT_EQ(JX_GetDiskPerformanceCounters().highPriorityQueueLength, 1u);

  // Shutting down cancels the queued writes: every hold is given back.
  JX_StopAllAsyncWork();
  EXPECT_EQ(JX_GetQueuedDiskWriteCount(), 0u);
  EXPECT_EQ(item->GetCheckoutCount(), 0u);
  EXPECT_EQ(urgent->GetCheckoutCount(), 0u);
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut.load(), 0);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);

  // Without a disk thread nothing is queued at all.
  auto late = AddDiskCacheableItem(kPayload);
  WriteableCheckin(late, 10.0);
  late->MaybeWriteToDisk();
  EXPECT_FALSE(late->WasTaggedToWriteToDisk());
  EXPECT_EQ(late->GetCheckoutCount(), 0u);
}

// Each declined write is counted exactly once: under the reason the payload carries, or, when it
// carries none, as the rule finding it not worth a file.
TEST_F(DiskWriterTest, RefusalsAreCountedUnderTheirReason) {
  HoldWritesBack();
  const JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
  // A microsecond to compute a MiB: reading it back can never be faster.
  auto cheap = AddDiskCacheableItem(kPayload, 1e-6);
  WriteableCheckin(cheap, 1e-6);
  auto flagged = AddDiskCacheableItem(kPayload, 1e-6);
  flagged->GetDataPtr()->SetReasonWhyNoDiskCache(2);
  WriteableCheckin(flagged, 1e-6);
  auto worth = AddDiskCacheableItem(kPayload);
  WriteableCheckin(worth, 10.0);

  const JX_DiskPerformanceCounters after = JX_GetDiskPerformanceCounters();
  EXPECT_EQ(after.notWorthWriting, before.notWorthWriting + 1);
  EXPECT_EQ(after.notWrittenForReason[1], before.notWrittenForReason[1] + 1);  // reason 2
  EXPECT_EQ(after.normalWriteRequests, before.normalWriteRequests + 1);
  EXPECT_FALSE(cheap->WasTaggedToWriteToDisk());
  EXPECT_TRUE(worth->WasTaggedToWriteToDisk());
  JX_StopAllAsyncWork();
}

TEST_F(DiskWriterTest, ManyThreadsQueueAndTheWriterDrains) {
  constexpr int kThreads = 4, kPerThread = 25;
  std::vector<std::thread> threads;
  std::vector<IntrusivePtr<JX_Stuff>> items(kThreads * kPerThread);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        auto& item = items[t * kPerThread + i];
        item = AddDiskCacheableItem(4096);
        WriteableCheckin(item, 1.0);
        if (i % 5 == 0) JX_DeprioritizeBackgroundWrites();
      }
    });
  }
  for (auto& th : threads) th.join();
  ASSERT_TRUE(Drained());
  for (const auto& item : items) {
    EXPECT_TRUE(item->WasTaggedToWriteToDisk());
    EXPECT_EQ(item->GetCheckoutCount(), 0u);
    EXPECT_TRUE(item->IsInMemory());
  }
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
}

TEST_F(DiskWriterTest, WriterMakesRoomFromOlderFilesOnly) {
  // Three files fill the folder; the item to write was used after the first two.
  bag_->SetDiskCacheInfo(tempDir_, 300);
  auto old1 = AddItemWithFile(100);
  auto old2 = AddItemWithFile(100);
  auto item = AddDiskCacheableItem(150);
  auto newer = AddItemWithFile(100);
  ASSERT_EQ(bag_->GetCurFreeSpace(), 0);
  ASSERT_TRUE(item->Checkout(0) == kJX_CheckedOut);
  // Check the item in without renewing its use, so that `newer` stays more recent.
  item->Checkin(ci::kKeepRecency, 10.0);
  ASSERT_TRUE(item->WasTaggedToWriteToDisk());
  ASSERT_TRUE(Drained());
  EXPECT_FALSE(old1->HasDiskCacheFile());
  EXPECT_FALSE(old2->HasDiskCacheFile());
  EXPECT_TRUE(newer->HasDiskCacheFile()) << "used after the item being written";
  EXPECT_TRUE(item->HasDiskCacheFile());
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 100 + 150);
}

}  // namespace
