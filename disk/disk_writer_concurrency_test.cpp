// The background writer with a live disk executor: what it queues, holds and drains, and how it
// holds back a renderer that outruns it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "common/settings.h"
#include "disk/disk_test_support.h"
#include "disk/disk_writer.h"
#include "jxcache/disk/performance_counters.h"
#include "jxcache/host/host_services.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using jx::testing::EventuallyTrue;
using jx::testing::ScQueueLengths;
using jx::testing::TestPayload;
using jx::testing::WriterDrained;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr unsigned kPayload = 1 << 20;

class DiskWriterTest : public jx::testing::DiskTest {
 protected:
  void TearDown() override {
    // A task waiting out a hold would keep the shut-down waiting with it.
    jx::disk::EndHoldBack();
    DiskTest::TearDown();
  }
  static void WriteableCheckin(const IntrusivePtr<JX_Stuff>& item, double computeTime) {
    ASSERT_EQ(item->Checkout(0), kJX_CheckedOut);
    item->Checkin(0, computeTime);
  }
  static void WriteNowCheckin(const IntrusivePtr<JX_Stuff>& item) {
    ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
    item->Checkin(ci::kWriteNow, 0.0);
  }
};

// Whether `complete` returned by itself while the counters said `queued` (each in turn); a waiter
// keeps reading the queue's length, so two more reads without a return mean it is still waiting.
bool CompletesWhileWritesAreQueued(const std::function<void()>& complete,
                                   std::initializer_list<std::pair<uint32_t, uint32_t>> queued) {
  std::atomic<bool> returned{false};
  ScQueueLengths::Set(queued.begin()->first, queued.begin()->second);
  std::thread t([&] {
    complete();
    returned = true;
  });
  for (auto [normal, high] : queued) {
    ScQueueLengths::Set(normal, high);
    const uint64_t reads = jx::disk::QueuedWriteCountReads();
    EXPECT_TRUE(
        EventuallyTrue([&] { return returned || jx::disk::QueuedWriteCountReads() >= reads + 2; }));
  }
  const bool byItself = returned;
  ScQueueLengths::Set(0, 0);
  t.join();
  return byItself;
}

// Waits for `work`; a hang ends the process, saying what hung.
void FinishesOrExits(std::future<void>& work, const char* what) {
  if (work.wait_for(std::chrono::minutes(2)) != std::future_status::ready) {
    std::fprintf(stderr, "HANG: %s\n", what);
    std::_Exit(3);
  }
  work.get();
}

TEST_F(DiskWriterTest, CheckinQueuesAndTheQueuePinsTheItem) {
  // Keeps queued writes from starting, so that the test can look at the queue.
  jx::DiskExecutor()->HoldBackUntil(std::chrono::steady_clock::now() + std::chrono::minutes(5));
  const JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
  auto item = AddDiskCacheableItem(kPayload);
  WriteableCheckin(item, 10.0);
  EXPECT_EQ(JX_GetDiskPerformanceCounters().normalQueueLength, 1u);
  EXPECT_EQ(JX_GetDiskPerformanceCounters().highPriorityQueueLength, 0u);
  EXPECT_TRUE(item->WasTaggedToWriteToDisk());
  EXPECT_EQ(item->GetCheckoutCount(), 1u) << "held by the queue";
  jx::PurgeOverBudget(*bag_, 1ull << 40);
  EXPECT_TRUE(item->IsInMemory()) << "a queued item cannot be purged";

  // A read-only check-in never writes. Each declined offer is counted once: under the reason
  // the payload carries, or, when it carries none, as not worth a file (a microsecond to compute
  // a MiB: reading it back can never be faster).
  const auto reads = JX_GetStuffCounters().itemsCheckedOut.load();
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  item->Checkin(0, 10.0);
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut.load(), reads);
  auto cheap = AddDiskCacheableItem(kPayload, 1e-6);
  WriteableCheckin(cheap, 1e-6);
  auto flagged = AddDiskCacheableItem(kPayload, 1e-6);
  flagged->GetDataPtr()->SetReasonWhyNoDiskCache(2);
  WriteableCheckin(flagged, 1e-6);
  const JX_DiskPerformanceCounters after = JX_GetDiskPerformanceCounters();
  EXPECT_EQ(after.normalWriteRequests, before.normalWriteRequests + 1);
  EXPECT_EQ(after.notWorthWriting, before.notWorthWriting + 1);
  EXPECT_EQ(after.notWrittenForReason[1], before.notWrittenForReason[1] + 1);  // reason 2
  EXPECT_FALSE(cheap->WasTaggedToWriteToDisk());
  EXPECT_EQ(JX_GetQueuedDiskWriteCount(), 1u);

  // "Write now" goes to the front of the line, whatever the check-in.
  auto urgent = AddDiskCacheableItem(kPayload);
  WriteNowCheckin(urgent);
  EXPECT_EQ(JX_GetDiskPerformanceCounters().highPriorityQueueLength, 1u);

  // Shutting down cancels the queued writes: every hold is given back.
  JX_StopAllAsyncWork();
  EXPECT_EQ(JX_GetQueuedDiskWriteCount(), 0u);
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut.load(), 0);

  // Without a disk thread nothing is queued at all.
  auto late = AddDiskCacheableItem(kPayload);
  WriteableCheckin(late, 10.0);
  late->MaybeWriteToDisk();
  EXPECT_FALSE(late->WasTaggedToWriteToDisk());
  EXPECT_EQ(late->GetCheckoutCount(), 0u);
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
  ASSERT_TRUE(WriterDrained()) << "a write still queued, or an item never handed back";
  for (const auto& item : items) {
    EXPECT_TRUE(item->WasTaggedToWriteToDisk());
    EXPECT_TRUE(item->IsInMemory());
  }
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
  ASSERT_TRUE(WriterDrained());
  EXPECT_FALSE(old1->HasDiskCacheFile());
  EXPECT_FALSE(old2->HasDiskCacheFile());
  EXPECT_TRUE(newer->HasDiskCacheFile()) << "used after the item being written";
  EXPECT_TRUE(item->HasDiskCacheFile());
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 100 + 150);
}

TEST_F(DiskWriterTest, WriteNowIsNotHeldBackByAForegroundRead) {
  // A foreground read's hold, stretched so that nothing held can slip through during the test.
  jx::disk::HoldBackWritesFor(std::chrono::hours(1));
  auto waiting = AddDiskCacheableItem(kPayload);
  WriteableCheckin(waiting, 10.0);
  ASSERT_EQ(JX_GetDiskPerformanceCounters().normalQueueLength, 1u);

  auto urgent = AddDiskCacheableItem(kPayload);
  WriteNowCheckin(urgent);
  EXPECT_TRUE(EventuallyTrue([&] { return urgent->HasDiskCacheFile(); }))
      << "the urgent write waited behind the hold";
  EXPECT_TRUE(urgent->WasTaggedToWriteToDisk());
  EXPECT_FALSE(waiting->HasDiskCacheFile()) << "the hold still holds the others";
  EXPECT_EQ(JX_GetQueuedDiskWriteCount(), 1u);

  jx::disk::EndHoldBack();
  ASSERT_TRUE(WriterDrained());
  EXPECT_TRUE(waiting->HasDiskCacheFile());
}

TEST_F(DiskWriterTest, ARefusedPostLeavesNothingQueued) {
  // The executor stops taking work between the writer's look at it and its post.
  jx::DiskExecutor()->StopTakingWork();
  const JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
  auto item = AddDiskCacheableItem(kPayload);
  WriteableCheckin(item, 10.0);
  item->MaybeWriteToDisk();
  WriteNowCheckin(item);

  EXPECT_EQ(JX_GetQueuedDiskWriteCount(), 0u);
  EXPECT_EQ(JX_GetDiskPerformanceCounters().normalWriteRequests, before.normalWriteRequests)
      << "nothing was queued";
  EXPECT_FALSE(item->WasTaggedToWriteToDisk());
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut.load(), 0);
}

TEST_F(DiskWriterTest, BackPressureHoldsARendererUntilTheQueueIsEmpty) {
  auto small = [] { return IntrusivePtr<JX_StuffData>(new TestPayload(16)); };
  auto renderer = JX_Stuff::CreatePending(zelcore::utility::Guid::CreateUnique(), {});
  auto fill = [&] { renderer->SetStuffDataFromPendingRender(small(), 1.0); };
  // Without the improved behaviour a renderer is never held back.
  ASSERT_FALSE(JX_IsImprovedDiskCacheBehaviorFullyEnabled());
  EXPECT_TRUE(CompletesWhileWritesAreQueued(fill, {{1000, 0}}));

  JX_PlaybackFromDiskLogicIsEnabled();
  renderer = JX_Stuff::CreatePending(zelcore::utility::Guid::CreateUnique(), {});
  EXPECT_TRUE(CompletesWhileWritesAreQueued(fill, {{200, 0}})) << "at the threshold";
  // Over it the renderer waits; under it again, and with only high-priority writes left, it still
  // waits: it is let go only when the queue is empty.
  renderer = JX_Stuff::CreatePending(zelcore::utility::Guid::CreateUnique(), {});
  EXPECT_FALSE(CompletesWhileWritesAreQueued(fill, {{201, 0}, {150, 0}, {0, 1}}));
  EXPECT_FALSE(renderer->IsPendingRender()) << "filled once the queue was empty";

  // The disk writer completing an item itself is never held back.
  auto own = JX_Stuff::CreatePending(zelcore::utility::Guid::CreateUnique(), {});
  EXPECT_TRUE(CompletesWhileWritesAreQueued(
      [&] { own->SetStuffDataFromPendingRender_Impl(small(), 0.0, true); }, {{201, 0}}));
}

// A folder purge while files are written and linked: the count of every item stays that of the
// file it links (none once its file is gone), so the bag counts what the folder holds.
TEST_F(DiskWriterTest, AFolderPurgeDuringWritesLeavesTheSizesExact) {
  constexpr int kItems = 2000;
  constexpr unsigned kSmall = 4096;
  std::vector<IntrusivePtr<JX_Stuff>> items;
  for (int i = 0; i < kItems; ++i)
    items.push_back(jx::testing::AddNewItem(*bag_, new TestPayload(kSmall, 5, true)));
  std::atomic<bool> stop{false};
  std::atomic<int> purges{0};
  auto run = std::async(std::launch::async, [&] {
    std::thread purger([&] {
      while (!stop) {
        bag_->PurgeAllDiskCaches();
        ++purges;
      }
    });
    for (const auto& item : items) item->PrepAndWrite(bag_);
    stop = true;
    purger.join();
  });
  FinishesOrExits(run, "writes beside a folder purge");
  ASSERT_GT(purges, 1);
  int countedWithoutFile = 0, linkedToNothing = 0;
  for (const auto& item : items) {
    if (!item->HasDiskCacheFile() && item->GetAccountedDiskSize() != 0) ++countedWithoutFile;
    if (item->HasDiskCacheFile() && !item->GetDiskCacheFile().Exists()) ++linkedToNothing;
  }
  EXPECT_EQ(countedWithoutFile, 0);
  EXPECT_EQ(linkedToNothing, 0);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), jx::testing::SumOfFileSizes(Folder()));
}

// Holds a write just after its rename into the folder (before it links the file to its item) until
// the first deletion of that file by the thread that made this file system (the purge's), which
// then waits until the write has linked the file.
class CommitMeetsPurge final : public jx::testing::ForwardingFileSystem {
 public:
  explicit CommitMeetsPurge(std::function<bool()> linked) : linked_(std::move(linked)) {}

  int Rename(const char* from, const char* to) override {
    const int result = in_.Rename(from, to);
    if (result == 0 && std::string_view(to).ends_with(jx::disk::kCacheFileSuffix) && !committed_) {
      committedPath_ = to;
      committed_ = true;
      EventuallyTrue([this] { return writeMayLink_.load(); });
    }
    return result;
  }
  int Unlink(const char* path) override {
    if (committed_ && path == committedPath_ && std::this_thread::get_id() == purger_ &&
        purgeDeletions_++ == 0) {
      writeMayLink_ = true;
      EventuallyTrue(linked_);
    }
    return in_.Unlink(path);
  }

  bool Committed() const { return committed_; }
  int PurgeDeletions() const { return purgeDeletions_; }
  void LetTheWriteLink() { writeMayLink_ = true; }

 private:
  const std::function<bool()> linked_;
  const std::thread::id purger_ = std::this_thread::get_id();
  std::string committedPath_;  // written before committed_ is set, read after it is seen
  std::atomic<bool> committed_{false};
  std::atomic<bool> writeMayLink_{false};
  std::atomic<int> purgeDeletions_{0};
};

// A folder purge between a write's rename into the folder and its link of the file to the item
// deletes nothing under the item: the bag counts what the folder holds, and the item, gone from
// memory, is read back without a failed read.
TEST_F(DiskWriterTest, AFolderPurgeBetweenAWritesCommitAndItsLinkLeavesTheItemsFile) {
  auto item = AddDiskCacheableItem(4096);
  CommitMeetsPurge files([&] { return item->HasDiskCacheFile(); });
  auto installed = std::make_unique<jx::testing::InstalledFileSystem>(files);
  auto write = std::async(std::launch::async, [&] { item->PrepAndWrite(bag_); });
  const bool committed = EventuallyTrue([&] { return files.Committed(); });
  const bool linkedBeforePurge = item->HasDiskCacheFile();
  if (committed) bag_->PurgeAllDiskCaches();
  files.LetTheWriteLink();
  FinishesOrExits(write, "a write that met a folder purge");
  installed.reset();
  ASSERT_TRUE(committed) << "the write never renamed its file into the folder";
  ASSERT_FALSE(linkedBeforePurge) << "the purge came after the link, not between";

  ASSERT_TRUE(item->HasDiskCacheFile());
  EXPECT_TRUE(item->GetDiskCacheFile().Exists())
      << "linked to a file the purge deleted (" << files.PurgeDeletions() << " deletion)";
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), jx::testing::SumOfFileSizes(Folder()));

  JX_Stuff::ReleaseQueue queue;
  item->FreeUpAsMuchAsPossible(false, &queue);
  ASSERT_FALSE(item->IsInMemory());
  const uint64_t failedReads = jx::disk::GetCounters().failedReads;
  JX_ScCheckout handle;
  EXPECT_EQ(handle.FindAndCheckout(jx::testing::MakeRequest(item->GetGuid()), cf::kReadOnly),
            kJX_CheckedOut);
  EXPECT_EQ(jx::disk::GetCounters().failedReads, failedReads);
}

}  // namespace
