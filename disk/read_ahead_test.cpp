// Read-ahead around a playhead: what it reads, what it holds and for how long, what it does when
// the playhead jumps, and how it treats keys it cannot read.
#include <gtest/gtest.h>

#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <latch>
#include <new>
#include <optional>
#include <thread>

#include "disk/disk_counters.h"
#include "disk/disk_test_support.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/disk/read_ahead.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/miss_reasons.h"
#include "standalone/standalone_host.h"

namespace cf = jx::checkout_flags;
using namespace jx::testing;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;
using StuffPtr = IntrusivePtr<JX_Stuff>;

namespace {

constexpr unsigned int kSize = 40000;
constexpr auto kLong = std::chrono::seconds(30);  // a hang guard, never a measure

class ReadAheadTest : public DiskTest {
 protected:
  void SetUp() override {
    DiskTest::SetUp();
    RegisterTestPayloadFactory();
    // The cache may grow to what it holds plus this much: the read-ahead's share is of that.
    jx::StandaloneHost::Instance().SetAmountAvailableBeforePurgeFunction([this] {
      return room_ - static_cast<uint64_t>(bag_->GetInMemoryCacheSizeInBytes_LockFree());
    });
  }
  void TearDown() override {
    jx::StandaloneHost::Instance().SetAmountAvailableBeforePurgeFunction({});
    DiskTest::TearDown();
  }

  // `n` items whose payloads (of `make`, else TestPayloads) are on disk only, in playback order.
  std::vector<Guid> FramesOnDiskOnly(int n, const std::function<TestPayload*()>& make = {}) {
    std::vector<Guid> guids;
    for (int i = 0; i < n; ++i) {
      items_.push_back(AddNewItem(*bag_, make ? make() : new TestPayload(kSize, 7, true), 10.0));
      EXPECT_TRUE(WriteToDisk(bag_, items_.back(), /*leaveMemory=*/true));
      guids.push_back(items_.back()->GetGuid());
    }
    fileBytes_ = items_.at(0)->GetAccountedDiskSize();
    room_ = 100 * fileBytes_;
    return guids;
  }
  // Stops the read-ahead, which must then hold nothing.
  static void StopAndExpectNothingHeld(JX_ReadAhead& readAhead) {
    readAhead.Stop();
    EXPECT_EQ(readAhead.GetCounters().heldBytes, 0u);
    EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut, 0);
  }
  static bool Play(JX_ReadAhead& readAhead, const StuffPtr& playhead, int direction,
                   const std::vector<StuffPtr>& ahead) {
    readAhead.SetPlayhead(playhead, direction, ahead);
    return readAhead.WaitIdle(kLong);
  }
  static std::vector<StuffPtr> Requests(const std::vector<Guid>& guids, size_t from, size_t to) {
    std::vector<StuffPtr> out;
    for (size_t i = from; i < to && i < guids.size(); ++i) {
      out.push_back(MakeRequest(guids[i]));
    }
    return out;
  }
  int InMemory(size_t from, size_t to) const {
    int n = 0;
    for (size_t i = from; i < to; ++i) n += items_[i]->IsInMemory() ? 1 : 0;
    return n;
  }
  // What a viewer does with a frame: checks it out and back in.
  static bool Use(const Guid& guid) {
    JX_ScCheckout handle;
    if (handle.FindAndCheckout(MakeRequest(guid), cf::kReadOnly | cf::kNoDiskRead) !=
        kJX_CheckedOut)
      return false;
    return handle.IsInMemory();
  }

  uint64_t fileBytes_ = 0;
  uint64_t room_ = 1ull << 30;  // a cache of 100 frames once they are made
  std::vector<StuffPtr> items_;
};

TEST_F(ReadAheadTest, ReadsNearestFirstWithinItsShareAndHoldsWhatItReadAgainstPurges) {
  const auto guids = FramesOnDiskOnly(40);
  JX_ReadAhead::Options options;
  options.budgetShare = 0.1;  // 10 frames of the 100
  uint64_t reads = 0;
  options.beforeRead = [&](uint64_t bytes) {
    EXPECT_EQ(bytes, fileBytes_);
    ++reads;
  };
  JX_ReadAhead readAhead(options);
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[0]), 1, Requests(guids, 1, 40)));
  auto c = readAhead.GetCounters();
  // The playhead's frame and the nine after it: frame 10 would take more than the share.
  EXPECT_EQ(InMemory(0, 10), 10);
  EXPECT_EQ(InMemory(10, 40), 0);
  EXPECT_EQ(c.prefetched, 10u);
  EXPECT_EQ(reads, 10u);
  EXPECT_EQ(c.stoppedAtShare, 1u);
  EXPECT_EQ(c.heldBytes, 10u * fileBytes_);
  // What it holds is checked out: a purge of everything leaves it in memory.
  bag_->PurgeAllMemoryCaches();
  EXPECT_EQ(InMemory(0, 10), 10);

  // The viewer uses frames 1 to 4; at playhead 5, 0 to 4 are let go and the share reaches 14.
  for (int i = 1; i <= 4; ++i) ASSERT_TRUE(Use(guids[i]));
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[5]), 1, Requests(guids, 6, 40)));
  c = readAhead.GetCounters();
  EXPECT_EQ(c.hitsOnPrefetched, 4u);
  EXPECT_EQ(c.wasted, 1u);  // frame 0, read but never used, has been passed by the playhead
  EXPECT_EQ(c.jumps, 0u);
  EXPECT_EQ(InMemory(5, 15), 10);
  EXPECT_EQ(c.prefetched, 15u);
  readAhead.Stop();
  c = readAhead.GetCounters();
  EXPECT_EQ(c.wasted, 11u);  // 5..14, let go unused at the stop
  EXPECT_EQ(c.heldBytes, 0u);
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut, 0);
}

// A share of a cache the host does not bound is all of it; a share of nothing, or one that is not
// a number, holds nothing.
TEST_F(ReadAheadTest, TheShareOfAnUnboundedCacheIsAllOfItAndANonShareIsNothing) {
  const auto guids = FramesOnDiskOnly(3);
  room_ = UINT64_MAX;
  for (const double share : {1.0, 0.0, std::nan("")}) {
    JX_ReadAhead::Options options;
    options.budgetShare = share;
    JX_ReadAhead readAhead(options);
    ASSERT_TRUE(Play(readAhead, MakeRequest(guids[0]), 1, Requests(guids, 1, 3)));
    EXPECT_EQ(readAhead.GetCounters().heldBytes, share == 1.0 ? 3 * fileBytes_ : 0) << share;
    StopAndExpectNothingHeld(readAhead);
    bag_->PurgeAllMemoryCaches();
  }
}

TEST_F(ReadAheadTest, AJumpStopsTheOldPlanAfterTheReadUnderWay) {
  const auto guids = FramesOnDiskOnly(30);
  std::latch firstReadStarted(1), jumped(1);
  std::atomic<int> reads{0};
  JX_ReadAhead::Options options;
  options.budgetShare = 1.0;
  options.beforeRead = [&](uint64_t) {
    if (reads.fetch_add(1) == 0) {
      firstReadStarted.count_down();
      jumped.wait();
    }
  };
  JX_ReadAhead readAhead(options);
  readAhead.SetPlayhead(MakeRequest(guids[0]), 1, Requests(guids, 1, 10));
  firstReadStarted.wait();
  readAhead.SetPlayhead(MakeRequest(guids[20]), 1, Requests(guids, 21, 25));
  jumped.count_down();
  ASSERT_TRUE(readAhead.WaitIdle(kLong));
  const auto c = readAhead.GetCounters();
  EXPECT_EQ(c.jumps, 1u);
  // Of the old plan only the read under way (the playhead's frame) happened, let go unused.
  EXPECT_EQ(InMemory(1, 10), 0);
  EXPECT_EQ(InMemory(20, 25), 5);
  EXPECT_EQ(c.prefetched, 6u);
  EXPECT_EQ(c.wasted, 1u);
  // Going backwards is a jump too, even onto a frame the plan listed.
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[22]), -1, Requests(guids, 21, 22)));
  EXPECT_EQ(readAhead.GetCounters().jumps, 2u);
  // A pause on the frame shown, and playing on from it, are not; a jump out of a pause is, and
  // so is a reversal across a pause.
  readAhead.SetPlayhead(MakeRequest(guids[22]), 0, {});
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[22]), -1, Requests(guids, 21, 22)));
  EXPECT_EQ(readAhead.GetCounters().jumps, 2u);
  readAhead.SetPlayhead(MakeRequest(guids[21]), 0, {});
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[5]), 1, Requests(guids, 6, 8)));
  EXPECT_EQ(readAhead.GetCounters().jumps, 3u);
  readAhead.SetPlayhead(MakeRequest(guids[5]), 0, Requests(guids, 6, 8));
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[5]), -1, Requests(guids, 4, 5)));
  EXPECT_EQ(readAhead.GetCounters().jumps, 4u);
}

// Stop returns once nothing is held, whichever thread asks and however many at once. Asked on the
// walk's own thread (from a callback of a read), neither it nor WaitIdle can wait for the walk:
// they answer at once, and a stop's walk lets go of everything as it ends.
TEST_F(ReadAheadTest, StopHoldsNothingOnceItReturnsAndNothingWaitsOnTheWalksOwnThread) {
  const auto guids = FramesOnDiskOnly(4);
  auto stuffCheckedOut = [] { return JX_GetStuffCounters().itemsCheckedOut.load(); };
  {
    std::optional<JX_ReadAhead> stopped;
    int reads = 0;
    bool idleInRead = true;
    JX_ReadAhead::Options options;
    options.beforeRead = [&](uint64_t) {
      if (++reads == 1) idleInRead = stopped->WaitIdle(kLong);
      if (reads == 2) stopped->Stop();
    };
    stopped.emplace(options);
    stopped->SetPlayhead(MakeRequest(guids[0]), 1, Requests(guids, 1, 4));
    EXPECT_TRUE(stopped->WaitIdle(std::chrono::seconds(10))) << "the walk waited for itself";
    stopped->Stop();
    EXPECT_FALSE(idleInRead);
    EXPECT_EQ(reads, 2);
    EXPECT_EQ(stuffCheckedOut(), 0);
  }
  bag_->PurgeAllMemoryCaches();
  std::promise<void> fourthRead;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  JX_ReadAhead::Options options;
  int reads = 0;
  options.beforeRead = [&](uint64_t) {
    if (++reads != 4) return;
    fourthRead.set_value();
    EXPECT_EQ(released.wait_for(kLong), std::future_status::ready);
  };
  JX_ReadAhead readAhead(options);
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[0]), 1, Requests(guids, 1, 3)));
  readAhead.SetPlayhead(MakeRequest(guids[0]), 1, Requests(guids, 1, 4));
  ASSERT_EQ(fourthRead.get_future().wait_for(kLong), std::future_status::ready);
  std::thread first([&] { readAhead.Stop(); });
  // Idle as soon as the first stop is under way.
  for (int i = 0; i < 30000 && !readAhead.WaitIdle(std::chrono::milliseconds(0)); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    release.set_value();
  });
  readAhead.Stop();
  EXPECT_EQ(stuffCheckedOut(), 0) << "a second stop returned while frames were held";
  releaser.join();
  first.join();
}

// A payload whose destructor is handed in by the test: the host's code, run where the request
// holding it goes.
class PayloadWithDestructor : public TestPayload {
 public:
  using TestPayload::TestPayload;
  ~PayloadWithDestructor() override {
    if (onDestroyed) onDestroyed();
  }
  std::function<void()> onDestroyed;
};

// A request goes with the plan that listed it, and its payload's destructor (the host's code) may
// ask the read-ahead something: it never runs under the read-ahead's own lock.
TEST_F(ReadAheadTest, ARequestLetGoWithItsPlanIsNotDestroyedUnderTheReadAheadsLock) {
  JX_ReadAhead readAhead;
  std::future<bool> asked;
  bool answered = false;
  auto* payload = new PayloadWithDestructor(kSize, 1);
  payload->onDestroyed = [&] {
    asked = std::async(std::launch::async,
                       [&] { return readAhead.WaitIdle(std::chrono::milliseconds(0)); });
    answered = asked.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  };
  auto request = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(payload), 0.0);
  request->SetGuid(Guid::CreateUnique());
  ASSERT_TRUE(Play(readAhead, request, 1, {}));
  request.reset();
  ASSERT_TRUE(Play(readAhead, MakeRequest(Guid::CreateUnique()), 1, {}));
  ASSERT_TRUE(asked.valid()) << "the request was not let go";
  EXPECT_TRUE(answered) << "the request was destroyed under the read-ahead's lock";
}

// A new render replaces a frame between the walk's check-out and its read, dropping the old
// file: that is "not in the cache", not a failed read (a damaged file), and the walk goes on.
TEST_F(ReadAheadTest, AFrameWhoseFileGoesBeforeItsReadCountsAsNotInTheCache) {
  const auto guids = FramesOnDiskOnly(3);
  int reads = 0, replaced = 0;
  JX_ReadAhead::Options options;
  options.beforeRead = [&](uint64_t) {
    if (reads++ != 0) return;  // the playhead's frame, 0
    // A new render of frame 0, in memory only.
    auto fresh =
        JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new TestPayload(kSize, 9, true)), 0.0);
    fresh->SetGuid(guids[0]);
    bag_->AddToBagAndSortDir(fresh);
    replaced += items_[0]->HasDiskCacheFile() ? 0 : 1;
  };
  JX_ReadAhead readAhead(options);
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[0]), 1, Requests(guids, 1, 3)));
  ASSERT_EQ(replaced, 1) << "the old frame's file was not dropped before its read";
  const auto c = readAhead.GetCounters();
  EXPECT_EQ(reads, 3);
  EXPECT_EQ(c.notInCache, 1u);
  EXPECT_EQ(c.failedReads, 0u);
  EXPECT_EQ(c.prefetched, 2u);
  EXPECT_FALSE(items_[0]->IsInMemory());
  EXPECT_EQ(items_[0]->GetCheckoutCount(), 0u);
  EXPECT_EQ(InMemory(1, 3), 2);
}

TEST_F(ReadAheadTest, KeysItCannotReadAreSkippedAndAFailedReadIsCountedAndDeleted) {
  const auto guids = FramesOnDiskOnly(5);
  // Frame 2's file is cut short, as a crash or a full volume leaves it.
  const std::string damaged = items_[2]->GetDiskCacheFile().GetPath();
  std::filesystem::resize_file(damaged, kSize / 2);
  const uint32_t failedBefore = jx::disk::GetCounters().failedReads.load();
  std::vector<StuffPtr> ahead = Requests(guids, 1, 5);
  ahead.insert(ahead.begin() + 1, MakeRequest(Guid::CreateUnique()));  // not cached
  ahead.insert(ahead.begin() + 2, nullptr);
  JX_ReadAhead readAhead;
  ASSERT_TRUE(Play(readAhead, MakeRequest(Guid::CreateUnique()), 1, ahead));
  const auto c = readAhead.GetCounters();
  EXPECT_EQ(c.notInCache, 2u);  // the playhead's key and one ahead
  EXPECT_EQ(c.failedReads, 1u);
  EXPECT_EQ(jx::disk::GetCounters().failedReads.load(), failedBefore + 1);
  EXPECT_FALSE(std::filesystem::exists(damaged));
  EXPECT_EQ(c.prefetched, 3u);
  EXPECT_EQ(InMemory(1, 2) + InMemory(3, 5), 3);
  EXPECT_FALSE(items_[2]->IsInMemory());
}

TEST_F(ReadAheadTest, FramesAlreadyInMemoryAreHeldButNotCountedAsRead) {
  const auto guids = FramesOnDiskOnly(6);
  for (int i = 1; i <= 2; ++i) ASSERT_TRUE(items_[i]->EnsureInMemory());
  JX_ReadAhead readAhead;
  const auto playhead = MakeRequest(Guid::CreateUnique());  // a frame not cached
  ASSERT_TRUE(Play(readAhead, playhead, 1, Requests(guids, 1, 6)));
  auto c = readAhead.GetCounters();
  EXPECT_EQ(c.prefetched, 3u);
  EXPECT_EQ(c.heldBytes, 2u * kSize + 3u * fileBytes_);
  bag_->PurgeAllMemoryCaches();
  EXPECT_EQ(InMemory(1, 6), 5);
  readAhead.SetPlayhead(playhead, 1, {});  // lets go of everything
  ASSERT_TRUE(readAhead.WaitIdle(kLong));
  c = readAhead.GetCounters();
  EXPECT_EQ(c.heldBytes, 0u);
  EXPECT_EQ(c.wasted, 3u);  // only what it read counts as waste
  bag_->PurgeAllMemoryCaches();
  EXPECT_EQ(InMemory(1, 6), 0);
}

TEST_F(ReadAheadTest, AHostThatRefusesRoomOrFailsItsAccountingCostsOneFrameNotTheProcess) {
  const auto guids = FramesOnDiskOnly(4);
  JX_ReadAhead::Options options;
  int befores = 0, afters = 0, refused = 0, afterFailures = 0;
  // The host's allocator refuses the playhead's frame, and its accounting after the third read.
  options.beforeRead = [&](uint64_t) {
    if (++befores == 1) {
      ++refused;
      throw std::bad_alloc();
    }
  };
  options.afterRead = [&](uint64_t) {
    if (++afters == 2) {
      ++afterFailures;
      throw std::bad_alloc();
    }
  };
  JX_ReadAhead readAhead(options);
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[0]), 1, Requests(guids, 1, 4)));
  ASSERT_EQ(refused, 1);
  ASSERT_EQ(afterFailures, 1);
  EXPECT_EQ(befores, 4);
  EXPECT_EQ(afters, 3);  // no accounting after for the read the host refused
  auto c = readAhead.GetCounters();
  // The refused frame is skipped; its file is sound and stays.
  EXPECT_EQ(c.failedReads, 1u);
  EXPECT_FALSE(items_[0]->IsInMemory());
  EXPECT_TRUE(items_[0]->HasDiskCacheFile());
  EXPECT_EQ(items_[0]->GetCheckoutCount(), 0u);
  // The read whose accounting failed did happen: it is held like the others.
  EXPECT_EQ(c.prefetched, 3u);
  EXPECT_EQ(InMemory(1, 4), 3);
  EXPECT_EQ(c.heldBytes, 3u * fileBytes_);
  StopAndExpectNothingHeld(readAhead);
}

TEST_F(ReadAheadTest, AHeldFrameReplacedRemovedOrReKeyedIsLetGoWhenThePlanStillListsItsKey) {
  const auto guids = FramesOnDiskOnly(4);
  JX_ReadAhead readAhead;
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[0]), 1, Requests(guids, 1, 4)));
  ASSERT_EQ(readAhead.GetCounters().prefetched, 4u);
  ASSERT_EQ(items_[1]->GetCheckoutCount(), 1u);
  // While held: frame 1 is rendered again, frame 2's item re-keyed, frame 3's removed.
  auto fresh =
      JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new TestPayload(kSize, 9, true)), 10.0);
  fresh->SetGuid(guids[1]);
  bag_->AddToBagAndSortDir(fresh);
  ASSERT_FALSE(items_[1]->IsInSortDir());
  items_[2]->SetGuid(Guid::CreateUnique());
  items_[3]->RemoveFromBagAndSortDir();
  // The playhead has not moved: the plan lists the same keys.
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[0]), 1, Requests(guids, 1, 4)));
  // Nobody can find those items under the plan's keys: holding them keeps memory no one uses.
  EXPECT_EQ(items_[1]->GetCheckoutCount(), 0u);
  EXPECT_EQ(items_[2]->GetCheckoutCount(), 0u);
  EXPECT_EQ(items_[3]->GetCheckoutCount(), 0u);
  EXPECT_EQ(fresh->GetCheckoutCount(), 1u);
  const auto c = readAhead.GetCounters();
  EXPECT_EQ(c.heldBytes, fileBytes_ + kSize);  // frame 0, and frame 1's new item in memory
  EXPECT_EQ(c.notInCache, 2u);                 // frames 2 and 3: no item answers their keys now
  bag_->PurgeAllMemoryCaches();
  EXPECT_TRUE(fresh->IsInMemory());
  StopAndExpectNothingHeld(readAhead);
}

// Two variants of one frame share its GUID and differ in their find-key data (as a proxy and a
// full-size render may): the plan's requests, not the GUIDs alone, say which items to hold.
TEST_F(ReadAheadTest, AnotherVariantOfAHeldKeyIsReadAndTheHeldOneLetGo) {
  const Guid guid = Guid::CreateUnique();
  std::vector<StuffPtr> variants;
  for (int v = 0; v < 2; ++v) {
    auto* payload = new TestPayload(kSize, 20 + v, true);
    payload->SetVariant(v);
    auto item = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(payload), 10.0);
    item->SetGuid(guid);
    bag_->AddToBagAndSortDir(item);
    ASSERT_TRUE(WriteToDisk(bag_, item, /*leaveMemory=*/true));
    variants.push_back(item);
  }
  JX_ReadAhead readAhead;
  ASSERT_TRUE(Play(readAhead, MakeRequest(guid, 0), 1, {}));
  ASSERT_EQ(variants[0]->GetCheckoutCount(), 1u);
  ASSERT_TRUE(Play(readAhead, MakeRequest(guid, 1), 1, {}));
  EXPECT_EQ(variants[1]->GetCheckoutCount(), 1u);
  EXPECT_TRUE(variants[1]->IsInMemory());
  EXPECT_EQ(variants[0]->GetCheckoutCount(), 0u);
  // A plan that asks for both holds both.
  ASSERT_TRUE(Play(readAhead, MakeRequest(guid, 0), 1, {MakeRequest(guid, 1)}));
  EXPECT_EQ(variants[0]->GetCheckoutCount(), 1u);
  EXPECT_EQ(variants[1]->GetCheckoutCount(), 1u);
  EXPECT_TRUE(variants[0]->IsInMemory());
  StopAndExpectNothingHeld(readAhead);
}

// A viewer often reads the playhead's frame back itself just before the walk would: the walk
// holds it, but must not report it as read ahead (nor later as used or wasted).
TEST_F(ReadAheadTest, AFrameAViewerReadBackFirstIsHeldButNotCountedAsReadAhead) {
  const auto guids = FramesOnDiskOnly(2);
  auto& disk = jx::disk::GetCounters();
  const uint64_t readsBefore = disk.filesRead.load();
  int viewerReads = 0;
  JX_ReadAhead::Options options;
  options.beforeRead = [&](uint64_t) {
    if (viewerReads != 0) return;
    // The viewer, on a thread of its own, reads frame 0 back before the walk gets to it.
    std::thread viewer([&] {
      JX_ScCheckout handle;
      if (handle.FindAndCheckout(MakeRequest(guids[0]), cf::kReadOnly) == kJX_CheckedOut &&
          handle.IsInMemory()) {
        ++viewerReads;
      }
    });
    viewer.join();
  };
  JX_ReadAhead readAhead(options);
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[0]), 1, Requests(guids, 1, 2)));
  ASSERT_EQ(viewerReads, 1);
  // Two files read in all: frame 0 by the viewer, frame 1 by the walk.
  ASSERT_EQ(disk.filesRead.load(), readsBefore + 2);
  auto c = readAhead.GetCounters();
  EXPECT_EQ(c.prefetched, 1u);
  EXPECT_EQ(c.prefetchedBytes, fileBytes_);
  EXPECT_EQ(c.heldBytes, 2u * fileBytes_);  // both are held all the same
  EXPECT_EQ(items_[0]->GetCheckoutCount(), 1u);
  readAhead.Stop();
  c = readAhead.GetCounters();
  // Frame 1 was read ahead and never used; frame 0 was not read ahead at all.
  EXPECT_EQ(c.hitsOnPrefetched, 0u);
  EXPECT_EQ(c.wasted, 1u);
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut, 0);
}

// A payload kept compressed on disk: in memory it takes four times its file.
class UnpackedPayload : public TestPayload {
 public:
  using TestPayload::TestPayload;
  unsigned int GetApproximateMemorySize() const override {
    return 4 * TestPayload::GetApproximateMemorySize();
  }
};

// The share is of memory: a frame counts for what it takes once read, which its file understates.
TEST_F(ReadAheadTest, FramesLargerInMemoryThanOnDiskStillStayWithinTheShare) {
  const auto guids = FramesOnDiskOnly(12, [] { return new UnpackedPayload(kSize, 7, true); });
  ASSERT_LT(fileBytes_, 2u * kSize);
  JX_ReadAhead::Options options;
  options.budgetShare = 0.1;  // ten files' worth, but only two frames' memory
  const uint64_t limit = static_cast<uint64_t>(0.1 * static_cast<double>(room_));
  JX_ReadAhead readAhead(options);
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[0]), 1, Requests(guids, 1, 12)));
  uint64_t heldMemory = 0;
  int held = 0;
  for (auto& item : items_) {
    if (item->GetCheckoutCount() == 0) continue;
    ++held;
    heldMemory += item->GetAccountedMemorySize();
  }
  EXPECT_GT(held, 0);
  EXPECT_LE(heldMemory, limit) << held << " frames held";
  EXPECT_GE(readAhead.GetCounters().heldBytes, heldMemory);
  EXPECT_EQ(readAhead.GetCounters().stoppedAtShare, 1u);
  // What it holds cannot be purged; what it let go of can.
  bag_->PurgeAllMemoryCaches();
  EXPECT_EQ(InMemory(0, 12), held);
  StopAndExpectNothingHeld(readAhead);
}

// A frame a viewer still has checked out when the playhead moves on was used all the same.
TEST_F(ReadAheadTest, AFrameStillCheckedOutByAViewerWhenLetGoCountsAsUsed) {
  const auto guids = FramesOnDiskOnly(3);
  JX_ReadAhead readAhead;
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[0]), 1, Requests(guids, 1, 3)));
  ASSERT_EQ(readAhead.GetCounters().prefetched, 3u);
  {
    JX_ScCheckout onScreen;
    ASSERT_EQ(onScreen.FindAndCheckout(MakeRequest(guids[0]), cf::kReadOnly), kJX_CheckedOut);
    ASSERT_TRUE(onScreen.IsInMemory());
    ASSERT_TRUE(Play(readAhead, MakeRequest(guids[1]), 1, Requests(guids, 2, 3)));
    EXPECT_EQ(items_[0]->GetCheckoutCount(), 1u);  // the viewer's own
  }
  readAhead.Stop();
  const auto c = readAhead.GetCounters();
  EXPECT_EQ(c.hitsOnPrefetched, 1u);  // frame 0
  EXPECT_EQ(c.wasted, 2u);            // frames 1 and 2, never used
}

// Two viewers of one clip, each with its plan: a frame both plans hold is not in use for either,
// and one a viewer has checked out is.
TEST_F(ReadAheadTest, AFrameAnotherPlanHoldsIsNotCountedAsUsed) {
  const auto guids = FramesOnDiskOnly(3);
  JX_ReadAhead first, second;
  ASSERT_TRUE(Play(first, MakeRequest(guids[0]), 1, Requests(guids, 1, 3)));
  ASSERT_TRUE(Play(second, MakeRequest(guids[0]), 1, Requests(guids, 1, 3)));
  ASSERT_EQ(first.GetCounters().prefetched, 3u);
  ASSERT_EQ(items_[0]->GetCheckoutCount(), 2u);
  {
    JX_ScCheckout onScreen;
    ASSERT_EQ(onScreen.FindAndCheckout(MakeRequest(guids[1]), cf::kReadOnly), kJX_CheckedOut);
    first.Stop();
  }
  const auto c = first.GetCounters();
  EXPECT_EQ(c.hitsOnPrefetched, 1u);  // frame 1, on screen
  EXPECT_EQ(c.wasted, 2u);            // frames 0 and 2, which only the other plan holds
  StopAndExpectNothingHeld(second);
}

// A payload whose file turns out damaged when read back. It lets a test hold a viewer's look-up
// at the point where the viewer, having checked the frame out, looks whether it must read it.
class DamagedOnDiskPayload : public TestPayload {
 public:
  using TestPayload::TestPayload;
  bool IsInMemory() const override {
    if (onViewerThread && std::this_thread::get_id() == viewer) onViewerThread();
    return TestPayload::IsInMemory();
  }
  double Read(zelcore::filesupport::IByteStream&,
              zelcore::threads::MultiTenantRecursiveMutex&) override {
    if (duringRead) duringRead();
    throw std::runtime_error("damaged frame");
  }
  static inline std::thread::id viewer;
  static inline std::function<void()> onViewerThread, duringRead;
};

// The walk's read of a frame fails while a viewer has the frame checked out, about to read it
// itself: the viewer's look-up then misses because the file was damaged, and counts so.
TEST_F(ReadAheadTest, AViewerMissingAFrameWhoseReadFailedOnTheWalkCountsAFailedRead) {
  const Guid guid = FramesOnDiskOnly(1, [] { return new DamagedOnDiskPayload(kSize, 7, true); })[0];

  // Not the id of an earlier run's viewer, which a thread made since may have been given.
  DamagedOnDiskPayload::viewer = std::thread::id();
  std::mutex m;
  std::condition_variable cv;
  bool viewerWaits = false, readStarted = false, sawLibraryLock = false;
  int viewerHeld = 0, reads = 0;
  auto waitFor = [&](const bool& flag) {
    std::unique_lock<std::mutex> l(m);
    return cv.wait_for(l, std::chrono::seconds(10), [&] { return flag; });
  };
  // The viewer's check-out asks under the library lock; the next question, without it, is the
  // one that decides whether to read. It waits there until the walk's read is under way.
  DamagedOnDiskPayload::onViewerThread = [&] {
    if (JXp_ScLock::IsLockedByCurrentThread()) {
      sawLibraryLock = true;
      return;
    }
    if (!sawLibraryLock || viewerHeld != 0) return;
    ++viewerHeld;
    {
      std::lock_guard<std::mutex> l(m);
      viewerWaits = true;
    }
    cv.notify_all();
    EXPECT_TRUE(waitFor(readStarted)) << "the walk's read never started";
  };
  DamagedOnDiskPayload::duringRead = [&] {
    ++reads;
    {
      std::lock_guard<std::mutex> l(m);
      readStarted = true;
    }
    cv.notify_all();
    // The viewer goes on meanwhile, to wait for this read.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  };
  const JX_MissReasons before = JX_GetMissReasonsTotal();
  JX_CheckoutResult viewerResult = kJX_CheckedOut;
  std::thread viewer;
  JX_ReadAhead::Options options;
  options.beforeRead = [&](uint64_t) {
    viewer = std::thread([&] {
      DamagedOnDiskPayload::viewer = std::this_thread::get_id();
      JX_ScCheckout handle;
      viewerResult = handle.FindAndCheckout(MakeRequest(guid), cf::kReadOnly);
    });
    EXPECT_TRUE(waitFor(viewerWaits)) << "the viewer never checked the frame out";
  };
  {
    JX_ReadAhead readAhead(options);
    readAhead.SetPlayhead(MakeRequest(guid), 1, {});
    EXPECT_TRUE(readAhead.WaitIdle(kLong));
    EXPECT_EQ(readAhead.GetCounters().failedReads, 1u);
  }
  if (viewer.joinable()) viewer.join();
  DamagedOnDiskPayload::onViewerThread = nullptr;
  DamagedOnDiskPayload::duringRead = nullptr;
  DamagedOnDiskPayload::viewer = std::thread::id();
  ASSERT_EQ(reads, 1);  // the walk's read failed, and the viewer never read
  ASSERT_EQ(viewerHeld, 1);
  EXPECT_EQ(viewerResult, kJX_CheckoutRefused);
  const JX_MissReasons after = JX_GetMissReasonsTotal();
  EXPECT_EQ(after.total, before.total + 1);
  EXPECT_EQ(after.byReason[kJX_MissFailedRead], before.byReason[kJX_MissFailedRead] + 1);
  EXPECT_EQ(after.byReason[kJX_MissPendingDeadline], before.byReason[kJX_MissPendingDeadline]);
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut, 0);
}

}  // namespace

// After a jump back (looped playback) or a smaller share, the read-ahead holds the nearest frames,
// not frames further on held from before while the ones shown next go to the purges.
TEST_F(ReadAheadTest, HoldsTheNearestFramesWithinTheShareAfterTheMoveOrTheShareShrinks) {
  const auto guids = FramesOnDiskOnly(40);
  JX_ReadAhead::Options options;
  options.budgetShare = 0.1;  // 10 frames of the 100
  JX_ReadAhead readAhead(options);
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[10]), 1, Requests(guids, 11, 40)));
  ASSERT_EQ(InMemory(10, 20), 10);

  // Back to frame 5, playing on: 5..14 are the ten nearest; 15..19 are further than the share.
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[5]), 1, Requests(guids, 6, 40)));
  auto c = readAhead.GetCounters();
  EXPECT_LE(c.heldBytes, 10u * fileBytes_);
  bag_->PurgeAllMemoryCaches();
  EXPECT_EQ(InMemory(5, 15), 10) << "the playhead's frame and the nine after it are not all held";
  EXPECT_EQ(InMemory(15, 20), 0) << "frames past the share are still held";

  // The host now has room for 50 frames: the share is 5, the nearest of them.
  room_ = 50 * fileBytes_;
  ASSERT_TRUE(Play(readAhead, MakeRequest(guids[5]), 0, Requests(guids, 6, 40)));
  c = readAhead.GetCounters();
  EXPECT_LE(c.heldBytes, 5u * fileBytes_);
  bag_->PurgeAllMemoryCaches();
  EXPECT_EQ(InMemory(5, 10), 5);
  EXPECT_EQ(InMemory(10, 40), 0) << "more than the share stays held";
  StopAndExpectNothingHeld(readAhead);
}
