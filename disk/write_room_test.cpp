// Writes that find no room (the cache's limit, the volume's margin, a volume filling up): each is
// skipped or failed cleanly, counted, untags the item, and tells the host once per shortage.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "disk/disk_folder.h"
#include "disk/disk_test_support.h"
#include "disk/disk_writer.h"
#include "host/file_utils.h"
#include "jxcache/disk/performance_counters.h"
#include "testing/fault_injection.h"

using zelcore::filesupport::FaultInjection;
using zelcore::filesupport::FileOp;
using zelcore::utility::FileUtils;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr unsigned kSize = 64 * 1024;

// A disk-cacheable payload whose Write runs `hook` first, on the writer's thread.
class HookedWritePayload : public jx::testing::TestPayload {
 public:
  HookedWritePayload(unsigned size, std::function<void()> hook)
      : TestPayload(size, 7, true), hook_(std::move(hook)) {}
  double Write(zelcore::filesupport::OByteStream& out) const override {
    hook_();
    return TestPayload::Write(out);
  }

 private:
  const std::function<void()> hook_;
};
constexpr long long kGiB = 1LL << 30;

class WriteRoomTest : public jx::testing::DiskTest {
 protected:
  void SetUp() override {
    DiskTest::SetUp();
    bag_->GetDiskOutOfSpaceSignal()->Connect([this] { ++outOfSpace_; });
  }
  void TearDown() override {
    jx::disk::EndHoldBack();
    FileUtils::StopFakingVolumeFreeSpace();
    FaultInjection::Reset();
    DiskTest::TearDown();
  }
  // Offers the item to the writer and waits until the writer is done with it.
  static void OfferAndWait(const IntrusivePtr<JX_Stuff>& item) {
    item->MaybeWriteToDisk();
    ASSERT_TRUE(jx::testing::WriterDrained());
  }
  bool FolderHasCacheFiles() const {
    for (const auto& name : jx::testing::FolderNames(Folder())) {
      if (jx::disk::IsCacheFileName(name)) return true;
    }
    return false;
  }

  std::atomic<int> outOfSpace_{0};  // raised on the writer's thread
};

TEST_F(WriteRoomTest, AWriteWithoutRoomInTheLimitIsSkippedCountedAndUntagged) {
  bag_->SetDiskCacheInfo(tempDir_, 1000);
  auto pinned = AddItemWithFile(900);
  auto pin = pinned->CheckoutDiskCache();
  auto item = AddDiskCacheableItem(500);
  const JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
  // Tagged while it waits in the queue...
  jx::disk::HoldBackWritesFor(std::chrono::hours(1));
  item->MaybeWriteToDisk();
  EXPECT_TRUE(item->WasTaggedToWriteToDisk());
  jx::disk::EndHoldBack();
  ASSERT_TRUE(jx::testing::WriterDrained());
  // ...and no longer once the write has been given up: it is neither queued nor written.
  EXPECT_FALSE(item->HasDiskCacheFile());
  EXPECT_FALSE(item->WasTaggedToWriteToDisk());
  const JX_DiskPerformanceCounters after = JX_GetDiskPerformanceCounters();
  EXPECT_EQ(after.writesSkippedForRoom, before.writesSkippedForRoom + 1);
  EXPECT_EQ(after.failedWrites, before.failedWrites);
  EXPECT_EQ(outOfSpace_, 1);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 900);
}

// Room is made by deleting other items' files. When the write cannot fit even once every file it
// may take is gone (it is larger than the whole limit, or what it may take is too little), those
// files are kept: deleting them would lose cached frames and still not make the write.
TEST_F(WriteRoomTest, AWriteThatCannotFitDeletesNoFileForIt) {
  for (const bool tooLargeForTheLimit : {true, false}) {
    SCOPED_TRACE(tooLargeForTheLimit ? "larger than the limit" : "more than could be freed");
    bag_->SetDiskCacheInfo(tempDir_, 1000);
    auto pinned = AddItemWithFile(400);
    auto pin = pinned->CheckoutDiskCache();
    auto older = AddItemWithFile(300);
    const auto file = older->GetDiskCacheFile();
    // 300 free and 300 more that may go: 600 at most, and the limit is 1000.
    auto item = AddDiskCacheableItem(tooLargeForTheLimit ? 1001 : 601);
    ASSERT_LT(older->GetLastUsedTime(), item->GetLastUsedTime());
    const JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
    OfferAndWait(item);
    EXPECT_FALSE(item->HasDiskCacheFile());
    EXPECT_EQ(JX_GetDiskPerformanceCounters().writesSkippedForRoom,
              before.writesSkippedForRoom + 1);
    EXPECT_TRUE(older->HasDiskCacheFile()) << "a file was deleted for a write that was skipped";
    EXPECT_TRUE(file.Exists());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 700);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), jx::testing::SumOfFileSizes(Folder()));
    pin.reset();
    pinned->DeleteDiskCacheFile();
    older->DeleteDiskCacheFile();
    ASSERT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
    for (const auto& i : {pinned, older, item}) i->RemoveFromBagAndSortDir();
  }
}

// The writer runs two writes at once. Each makes room before it writes; room that one of them
// counted on must not be counted on again by the other, or the two overrun the limit together.
TEST_F(WriteRoomTest, WritesRunningAtOnceNeverCountOnTheSameRoom) {
  bag_->SetDiskCacheInfo(tempDir_, 1000);
  auto older = AddItemWithFile(800);
  std::atomic<bool> secondWriting{false};
  std::atomic<int> waitsTimedOut{0};
  auto add = [&](std::function<void()> hook) {
    auto item = JX_Stuff::CreateNew(
        IntrusivePtr<JX_StuffData>(new HookedWritePayload(200, std::move(hook))), 10.0);
    item->SetGuid(zelcore::utility::Guid::CreateUnique());
    bag_->AddToBagAndSortDir(item);
    return item;
  };
  // The first write, once it has its room, waits (a few seconds at most) for the second to be
  // writing too.
  auto first = add([&] {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!secondWriting && std::chrono::steady_clock::now() < giveUp)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!secondWriting) ++waitsTimedOut;
  });
  auto second = add([&] { secondWriting = true; });
  first->MaybeWriteToDisk();
  second->MaybeWriteToDisk();
  ASSERT_TRUE(jx::testing::WriterDrained());
  ASSERT_EQ(waitsTimedOut, 0) << "the two writes never ran at once";
  EXPECT_TRUE(first->HasDiskCacheFile());
  EXPECT_TRUE(second->HasDiskCacheFile());
  EXPECT_LE(bag_->GetCurrentDiskCacheSize(), 1000) << "the folder is over its limit";
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), jx::testing::SumOfFileSizes(Folder()));
  EXPECT_FALSE(older->HasDiskCacheFile());
}

TEST_F(WriteRoomTest, WritesLeaveTheVolumeItsMargin) {
  zelappsupport::preferences::SetValue(jx::disk::kPreferencesGroup,
                                       jx::disk::kMinVolumeFreeSpaceName, "1");
  bag_->SetDiskCacheInfo(tempDir_, kDefaultMaxDisk);
  ASSERT_EQ(jx::disk::GetMinimumVolumeFreeSpace(), kGiB);
  const JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();

  // One byte short of margin plus payload: skipped, however much room the cache's limit has.
  FileUtils::FakeVolumeFreeSpace(kGiB + kSize - 1);
  auto a = AddDiskCacheableItem(kSize);
  auto b = AddDiskCacheableItem(kSize);
  OfferAndWait(a);
  OfferAndWait(b);
  EXPECT_FALSE(a->HasDiskCacheFile());
  EXPECT_FALSE(b->WasTaggedToWriteToDisk());
  EXPECT_FALSE(FolderHasCacheFiles());
  EXPECT_EQ(JX_GetDiskPerformanceCounters().writesSkippedForVolume,
            before.writesSkippedForVolume + 2);
  EXPECT_EQ(outOfSpace_, 1) << "one shortage, one signal";
  EXPECT_TRUE(bag_->IsDiskCacheLimitedDueToDriveSpace());

  // Exactly enough: written. A shortage after that is news again.
  FileUtils::FakeVolumeFreeSpace(kGiB + kSize);
  OfferAndWait(a);
  EXPECT_TRUE(a->HasDiskCacheFile());
  FileUtils::FakeVolumeFreeSpace(0);
  OfferAndWait(b);
  EXPECT_FALSE(b->HasDiskCacheFile());
  EXPECT_EQ(outOfSpace_, 2);
  EXPECT_EQ(JX_GetDiskPerformanceCounters().writesSkippedForRoom, before.writesSkippedForRoom);

  // A full cache makes room by deleting older files, and the volume gets their bytes back. When
  // even that leaves it short of its margin, the write is skipped before anything is deleted.
  a->DeleteDiskCacheFile();
  bag_->SetDiskCacheInfo(tempDir_, kSize);
  auto older = AddItemWithFile(kSize);
  int64_t volumeFree = kGiB - 1;
  older->GetMemDiskChangedSignal().Connect([&](bool, bool onDisk) {
    if (!onDisk) FileUtils::FakeVolumeFreeSpace(volumeFree += kSize);
  });
  auto c = AddDiskCacheableItem(kSize);
  FileUtils::FakeVolumeFreeSpace(volumeFree);
  OfferAndWait(c);
  EXPECT_FALSE(c->HasDiskCacheFile());
  EXPECT_TRUE(older->HasDiskCacheFile()) << "a file was deleted for a write that was skipped";
  // Deleting as much as it writes, the write keeps the margin the volume has now.
  FileUtils::FakeVolumeFreeSpace(volumeFree = kGiB);
  OfferAndWait(c);
  EXPECT_TRUE(c->HasDiskCacheFile());
  EXPECT_FALSE(older->HasDiskCacheFile());
}

TEST_F(WriteRoomTest, AVolumeThatFillsUpFailsTheWriteCleanlyAndTellsTheHost) {
  JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
  auto item = AddDiskCacheableItem(kSize);
  // Any other failure is a failed write, not a shortage.
  FaultInjection::FailNth(FileOp::kWrite, 1, EIO);
  OfferAndWait(item);
  EXPECT_EQ(JX_GetDiskPerformanceCounters().failedWrites, before.failedWrites + 1);
  EXPECT_EQ(outOfSpace_, 0);

  for (int err : {ENOSPC, EDQUOT}) {
    FaultInjection::Reset();
    FaultInjection::FailNth(FileOp::kWrite, 1, err);
    before = JX_GetDiskPerformanceCounters();
    OfferAndWait(item);
    EXPECT_EQ(JX_GetDiskPerformanceCounters().failedWrites, before.failedWrites + 1) << err;
    EXPECT_FALSE(item->HasDiskCacheFile());
    EXPECT_FALSE(item->WasTaggedToWriteToDisk());
    EXPECT_FALSE(FolderHasCacheFiles());
    EXPECT_FALSE(jx::testing::HasTempFiles(Folder()));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
  }
  EXPECT_EQ(outOfSpace_, 1) << "still the same shortage";

  // Room again: the same item is written, and the next full volume is reported again.
  FaultInjection::Reset();
  OfferAndWait(item);
  EXPECT_TRUE(item->HasDiskCacheFile());
  auto other = AddDiskCacheableItem(kSize);
  FaultInjection::FailNth(FileOp::kWrite, 1, ENOSPC);
  OfferAndWait(other);
  EXPECT_EQ(outOfSpace_, 2);
  EXPECT_TRUE(item->IsInMemory());
  EXPECT_TRUE(other->IsInMemory()) << "a failed write loses nothing from memory";
}

}  // namespace

// Room is made one write at a time, under a mutex of its own; what making room tells the host
// (an older item's copy deleted, the folder out of space) is told once that mutex is let go. A
// host's handler may wait for a thread of its own whose write needs room too.
TEST_F(WriteRoomTest, WhatMakingRoomTellsTheHostIsToldOnceOtherWritesMayMakeRoom) {
  bag_->SetDiskCacheInfo(tempDir_, 1000);
  auto older = AddItemWithFile(800);
  std::atomic<int> told{0}, hostThreadStuck{0};
  std::vector<std::thread> hostThreads;  // joined at the end: a stuck one gets on once let go
  auto hostWrite = [&] {
    // What another write does first: it needs the room's mutex.
    auto made = std::make_shared<std::promise<void>>();
    auto done = made->get_future();
    hostThreads.emplace_back([this, made] {
      jx::disk::ScWriteRoom room(*bag_, 1, 0);
      made->set_value();
    });
    if (done.wait_for(std::chrono::seconds(5)) != std::future_status::ready) ++hostThreadStuck;
  };
  older->GetMemDiskChangedSignal().Connect([&](bool, bool onDisk) {
    if (onDisk) return;
    ++told;
    hostWrite();
  });
  bag_->GetDiskOutOfSpaceSignal()->Connect([&] { hostWrite(); });
  auto item = AddDiskCacheableItem(500);
  OfferAndWait(item);
  ASSERT_EQ(told, 1) << "the older item's copy must have gone to make room";
  EXPECT_TRUE(item->HasDiskCacheFile());
  // Out of space: nothing may go for a write larger than the limit.
  auto tooLarge = AddDiskCacheableItem(2000);
  const int outOfSpaceBefore = outOfSpace_;
  OfferAndWait(tooLarge);
  EXPECT_EQ(outOfSpace_, outOfSpaceBefore + 1) << "the shortage must have been told";
  for (std::thread& t : hostThreads) t.join();
  EXPECT_EQ(hostThreads.size(), 2u) << "told of the lost copy and of the shortage";
  EXPECT_EQ(hostThreadStuck, 0) << "the host's thread could not make room while told";
  for (const auto& i : {older, item, tooLarge}) i->RemoveFromBagAndSortDir();
}

// A host often watches an item through its change handler alone, having let go of the item
// itself. When making room deletes such an item's last copy (its payload purged already), the
// item leaves the bag; the handler must hear of it while the item, and with it the handler, still
// live, and may ask the cache for the key again from there.
TEST_F(WriteRoomTest, AnItemLetGoToMakeRoomLivesUntilItsHandlerHasHeard) {
  bag_->SetDiskCacheInfo(tempDir_, 1000);
  auto older = AddItemWithFile(800);
  const zelcore::utility::Guid key = older->GetGuid();
  ASSERT_GT(older->FreeUpAsMuchAsPossible(true, nullptr), 0u);
  ASSERT_FALSE(older->IsInMemory());
  ASSERT_TRUE(older->HasDiskCacheFile());

  struct Events {
    std::atomic<int> toldGone{0}, handlerGone{0}, handlerGoneUntold{0}, foundAgain{0};
  };
  auto events = std::make_shared<Events>();
  // Goes with the handler, which goes with the item.
  struct Sentinel {
    explicit Sentinel(Events* e) : events(e) {}
    Events* events;
    ~Sentinel() {
      if (events->toldGone == 0) ++events->handlerGoneUntold;
      ++events->handlerGone;
    }
  };
  auto sentinel = std::make_shared<Sentinel>(events.get());
  older->GetMemDiskChangedSignal().Connect([this, key, events, sentinel](bool, bool onDisk) {
    if (onDisk) return;
    ++events->toldGone;
    JX_Bag::StuffPtr found;
    bool created = false;
    if (bag_->FindAndCheckout(jx::testing::MakeRequest(key), jx::checkout_flags::kReadOnly, &found,
                              &created) == kJX_CheckedOut) {
      ++events->foundAgain;
      found->Checkin(0, 0.0);
    }
  });
  sentinel.reset();
  older.reset();  // the bag's reference is the item's last

  auto item = AddDiskCacheableItem(500);
  OfferAndWait(item);
  EXPECT_EQ(events->handlerGoneUntold, 0) << "the item and its handler went before it was told";
  EXPECT_EQ(events->toldGone, 1);
  EXPECT_EQ(events->foundAgain, 0) << "nothing is left of the key";
  EXPECT_EQ(events->handlerGone, 1) << "the item left the bag and went";
  EXPECT_TRUE(item->HasDiskCacheFile());
  EXPECT_EQ(bag_->GetNumItems(), 1);
  item->RemoveFromBagAndSortDir();
}
