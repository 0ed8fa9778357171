// The purge walk: which items go, in which order, where it stops, and that freed memory is
// released only after the library lock is let go.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "bag/sort_dir.h"
#include "common/settings.h"
#include "jxcache/disk/performance_counters.h"
#include "jxcache/items/sc_checkout.h"
#include "mediamap/media_map_hooks.h"
#include "standalone/media_manager_pool.h"
#include "standalone/standalone_host.h"
#include "standalone/standalone_settings.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::StandaloneHost;
using namespace jx::testing;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

// Queues its memory like any payload, then makes the host's memory limits fail.
class LimitsFailAfterPurgePayload : public TestPayload {
 public:
  using TestPayload::TestPayload;
  bool PurgeIfPossible(ReleaseQueue* toRelease) override {
    const bool freed = TestPayload::PurgeIfPossible(toRelease);
    StandaloneHost::Instance().SetMemUsageLimitsStatus(-12);
    return freed;
  }
};

// Reports a size but holds nothing in memory: there is nothing to free.
class NotInMemoryPayload : public TestPayload {
 public:
  using TestPayload::TestPayload;
  bool IsInMemory() const override { return false; }
};

// Its owner, as it goes, has a thread of its own use the cache and waits for it (bounded), as an
// owner flushing a render queue does.
class OwnerWaitsOnDestroyPayload : public TestPayload {
 public:
  OwnerWaitsOnDestroyPayload(unsigned int size, JX_Bag& bag, HostThreadWatch& owner)
      : TestPayload(size), bag_(bag), owner_(owner) {}
  ~OwnerWaitsOnDestroyPayload() override {
    owner_.Called([bag = &bag_] { bag->GetNumItems(); });  // takes the library lock
  }

 private:
  JX_Bag& bag_;
  HostThreadWatch& owner_;
};

class PurgeTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    // Floor = 10% of 1000 bytes.
    StandaloneHost::Instance().SetMemoryLimit(1000);
  }
  void TearDown() override {
    TestPayload::OnRelease() = nullptr;
    LibraryTest::TearDown();
  }
  IntrusivePtr<JX_Stuff> Add(TestPayload* payload) { return AddNewItem(*bag_, payload); }
  std::vector<IntrusivePtr<JX_Stuff>> AddItems(int n, unsigned int size, bool withDiskCopy) {
    std::vector<IntrusivePtr<JX_Stuff>> items;
    for (int i = 0; i < n; ++i) {
      auto item = MakeItem(size);
      // Purging only looks at the link to a file (one per item); no file is read here.
      if (withDiskCopy) {
        EXPECT_TRUE(item->SetDiskCacheFile(
            zelcore::filesupport::File("/nonexistent/" + item->GetGuid().AsString() + ".kqcache"),
            false));
      }
      bag_->AddToBagAndSortDir(item);
      items.push_back(item);
    }
    return items;
  }
  // Counts the payloads whose memory goes from now on, and those that go under the library lock.
  void CountReleases() {
    TestPayload::OnRelease() = [this] {
      ++released_;
      if (JXp_ScLock::IsLockedByCurrentThread()) ++releasedUnderLock_;
    };
  }
  long long InMemory() const { return bag_->GetInMemoryCacheSizeInBytes_LockFree(); }

  int released_ = 0, releasedUnderLock_ = 0;
};

// The host's amount, never the argument, says when a purge has done enough; the floor stops it.
TEST_F(PurgeTest, StopsWhenTheHostIsSatisfiedOrAtTheFloor) {
  const struct {
    int items;
    unsigned long long hostAmount, argument;
    int freed;  // the oldest ones
  } cases[] = {
      {6, 120, 0, 3},           // three items of 50 cover 120 bytes
      {6, 120, 1ull << 40, 3},  // the argument is not consulted
      {10, 1 << 20, 0, 9},      // 500 -> 50: frees while the cache holds the floor's 100 bytes
  };
  for (const auto& c : cases) {
    auto items = AddItems(c.items, 50, false);
    jx::ScAmountToPurge amount(c.hostAmount);
    bag_->FreeUpSomeMemory(c.argument);
    for (int i = 0; i < c.items; ++i) EXPECT_EQ(items[i]->IsInMemory(), i >= c.freed) << i;
    EXPECT_EQ(InMemory(), 50 * (c.items - c.freed));
    EXPECT_EQ(InMemory(), SumOfItemSizes(*bag_));
    bag_->ClearBagAndSortDir();
  }
}

// Pass 0 frees only items with a disk copy, pass 1 any. The host is asked again only after an
// item that freed something, also across passes: satisfied by pass 0's last item, pass 1 frees
// none.
TEST_F(PurgeTest, DiskBackedItemsGoFirstAndKeepTheirPlace) {
  auto plain = AddItems(3, 50, false);
  auto backed = AddItems(3, 50, true);
  uint64_t examined = JX_GetPurgeExaminedCount();
  jx::PurgeOverBudget(*bag_, 100);
  EXPECT_EQ(JX_GetPurgeExaminedCount() - examined, 5u) << "three passed over, two freed";
  EXPECT_FALSE(backed[0]->IsInMemory());
  EXPECT_FALSE(backed[1]->IsInMemory());
  EXPECT_TRUE(backed[2]->IsInMemory());
  for (auto& p : plain) EXPECT_TRUE(p->IsInMemory()) << "older, but without a disk copy";
  EXPECT_TRUE(backed[0]->GetBag()) << "a disk copy is worth keeping the item for";
  EXPECT_EQ(bag_->GetNumItems(), 6);
  EXPECT_EQ(bag_->GetLastPurgedUsedTime(), backed[1]->GetLastUsedTime());

  examined = JX_GetPurgeExaminedCount();
  jx::PurgeOverBudget(*bag_, 50);
  EXPECT_FALSE(backed[2]->IsInMemory());
  for (auto& p : plain) EXPECT_TRUE(p->IsInMemory());
  EXPECT_EQ(JX_GetPurgeExaminedCount() - examined, 6u) << "pass 1 stops before its first item";
}

TEST_F(PurgeTest, PlaybackFromDiskLogicGoesByRecencyAlone) {
  JX_PlaybackFromDiskLogicIsEnabled();
  auto plain = AddItems(3, 50, false);
  auto backed = AddItems(3, 50, true);
  jx::PurgeOverBudget(*bag_, 100);
  EXPECT_FALSE(plain[0]->GetBag()) << "freed and, keeping nothing, removed";
  EXPECT_FALSE(plain[1]->GetBag());
  EXPECT_TRUE(plain[2]->IsInMemory());
  for (auto& b : backed) EXPECT_TRUE(b->IsInMemory());
  EXPECT_EQ(bag_->GetNumItems(), 4);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 4);
}

// A checked-out item and one whose payload refuses keep their places. Freed memory goes after
// the library lock is let go: freeing a large payload under it stalls every thread.
TEST_F(PurgeTest, SkipsHeldAndRefusingItemsAndFreesMemoryOutsideTheLock) {
  auto items = AddItems(5, 50, false);
  PayloadOf(*items[1])->SetAllowPurge(false);
  JX_ScCheckout held(items[0], cf::kReadOnly);
  const uint64_t heldTime = items[0]->GetLastUsedTime();
  CountReleases();
  std::vector<uint64_t> told;
  int toldUnderLock = 0, releasedWhenTold = -1;
  StandaloneHost::Instance().SetRecycledMemoryPurgeObserver([&](uint64_t bytes) {
    told.push_back(bytes);
    toldUnderLock += JXp_ScLock::IsLockedByCurrentThread();
    releasedWhenTold = released_;
  });
  jx::PurgeOverBudget(*bag_, 150);
  EXPECT_TRUE(items[0]->IsInMemory());
  EXPECT_TRUE(items[1]->IsInMemory());
  for (int i = 2; i < 5; ++i) EXPECT_FALSE(items[i]->GetBag()) << i;
  EXPECT_EQ(items[0]->GetLastUsedTime(), heldTime);
  EXPECT_EQ(bag_->CopyMruItems().front(), items[0]) << "a checked-out item keeps its place";
  EXPECT_EQ(released_, 3);
  EXPECT_EQ(releasedUnderLock_, 0);
  EXPECT_EQ(told, std::vector<uint64_t>{150}) << "told once, the call's total";
  EXPECT_EQ(toldUnderLock, 0);
  EXPECT_EQ(releasedWhenTold, 0) << "the host hears of it before the blocks go";

  // Nothing freed: the host is not told.
  jx::PurgeOverBudget(*bag_, 150);
  EXPECT_EQ(told.size(), 1u);
}

// An exception out of the walk must still release what was queued, outside the lock.
TEST_F(PurgeTest, FailingMemoryLimitsEscapeWithTheQueueReleasedAndExactBooks) {
  auto first = Add(new LimitsFailAfterPurgePayload(50));
  auto rest = AddItems(3, 50, false);
  CountReleases();
  // The first item goes into the deferred queue; the floor check before the second throws.
  const int thrown = ThrownCode([&] { jx::PurgeOverBudget(*bag_, 100); });
  StandaloneHost::Instance().SetMemUsageLimitsStatus(0);
  EXPECT_EQ(thrown, -12);
  EXPECT_EQ(released_, 1) << "the queued block, once";
  EXPECT_EQ(releasedUnderLock_, 0);
  EXPECT_FALSE(first->GetBag()) << "freed and, keeping nothing, removed";
  for (auto& i : rest) EXPECT_TRUE(i->IsInMemory());
  EXPECT_EQ(bag_->GetNumItems(), 3);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 3);
  EXPECT_EQ(InMemory(), 150);
  EXPECT_EQ(InMemory(), SumOfItemSizes(*bag_));
}

TEST_F(PurgeTest, EmptyBagAndPurgeAll) {
  jx::PurgeOverBudget(*bag_, 100);
  EXPECT_EQ(bag_->GetLastPurgedUsedTime(), 0u);
  auto items = AddItems(3, 10, false);  // below the floor: the walk would free nothing
  PayloadOf(*items[0])->SetAllowPurge(false);
  jx::PurgeOverBudget(*bag_, 100);
  EXPECT_EQ(bag_->GetNumItems(), 3);
  bag_->PurgeAllMemoryCaches();  // ignores the floor, the host and the payload's wish
  EXPECT_EQ(bag_->GetNumItems(), 0);
  EXPECT_EQ(InMemory(), 0);
}

class PurgeMediaMapTest : public PurgeTest {
 protected:
  void Birth() override {
    jx::standalone::MediaManagerPool()->Reset();
    JX_Birth(true, 1, false);
    ASSERT_TRUE(jx::settings::UseMediaMap());
  }
};

// An item freed but kept for its disk copy stays in the bag: the purge must erase its media-map
// entry, or the host keeps counting bytes that are gone.
TEST_F(PurgeMediaMapTest, FreedItemsLeaveTheMediaMapAndCountTheirSizeOnce) {
  auto backed = AddItems(1, 50, true)[0];
  auto plain = AddItems(1, 60, false)[0];
  ASSERT_EQ(JX_MediaMapSizeBytes(), 110u);
  JX_Stuff::ReleaseQueue queue;
  EXPECT_EQ(backed->FreeUpAsMuchAsPossible(true, &queue), 50u);
  EXPECT_TRUE(backed->GetBag()) << "a disk copy is worth keeping the item for";
  EXPECT_EQ(queue.size(), 1u);
  EXPECT_EQ(JX_MediaMapSizeBytes(), 60u);
  EXPECT_EQ(JX_MediaMapEntryCount(), 1u);
  EXPECT_EQ(backed->FreeUpAsMuchAsPossible(true, &queue), 0u) << "freed once, counted once";
  EXPECT_EQ(plain->FreeUpAsMuchAsPossible(true, &queue), 60u);  // freed and removed
  EXPECT_EQ(JX_MediaMapSizeBytes(), 0u);
  EXPECT_EQ(JX_MediaMapEntryCount(), 0u);

  // Holding nothing in memory, an item frees nothing but leaves, counting its noted size.
  auto outside = Add(new NotInMemoryPayload(40));
  const size_t queued = queue.size();
  EXPECT_EQ(outside->FreeUpAsMuchAsPossible(true, &queue), 40u);
  EXPECT_FALSE(outside->GetBag());
  EXPECT_FALSE(outside->IsInSortDir());
  EXPECT_EQ(queue.size(), queued);
}

// The fixed limit for templates is read once per process: this purge runs in a fresh one.
// Returns what went wrong, or "".
std::string PurgeUnderTheTemplateLimit() {
  auto& host = StandaloneHost::Instance();
  host.Reset();
  host.SetEchoReports(false);
  host.SetMemoryLimit(1000);
  char folder[] = "/tmp/jxtest.XXXXXX";
  if (!mkdtemp(folder)) return "no temporary folder";
  setenv("TMPDIR", folder, 1);
  zelappsupport::feature::SetFeatureEnabled(kJX_GfxpakLimitFeature, true);
  jx::standalone::MediaManagerPool()->SetFixedMaxCacheSize(1500);  // a limit of 150 bytes
  JX_Birth(false, 1, true);
  std::string wrong;
  {
    auto bag = JX_GlobalBag();
    std::vector<IntrusivePtr<JX_Stuff>> items;
    for (int i = 0; i < 6; ++i) {
      items.push_back(MakeItem(50));
      bag->AddToBagAndSortDir(items.back());
    }
    // The host asks for everything, and under this limit there is no floor.
    jx::PurgeOverBudget(*bag, 1ull << 30);
    if (bag->GetInMemoryCacheSizeInBytes_LockFree() != 150) wrong += "not down to the limit; ";
    for (int i = 0; i < 6; ++i)
      if (items[i]->IsInMemory() != (i >= 3)) wrong += "not the oldest freed; ";
  }
  JX_StopAllAsyncWork();
  JX_Death();
  std::error_code ec;
  std::filesystem::remove_all(folder, ec);
  return wrong;
}

TEST(PurgeTemplateLimitTest, StopsOnceTheBagIsWithinTheLimit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const std::string wrong = PurgeUnderTheTemplateLimit();
        std::fputs(wrong.c_str(), stderr);
        std::exit(wrong.empty() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace

// The walk's reference may be the last of an item it removes: the item and its payload must go
// after the library lock is released, as the payload's owner may wait for a thread that uses it.
TEST_F(PurgeTest, AnItemThePurgeRemovesIsDestroyedOutsideTheLock) {
  HostThreadWatch owner;
  Add(new OwnerWaitsOnDestroyPayload(50, *bag_, owner));
  auto kept = AddItems(3, 50, false);
  jx::PurgeOverBudget(*bag_, 50);
  EXPECT_EQ(owner.Calls(), 1) << "the oldest item was not freed and dropped";
  EXPECT_EQ(owner.UnderLibraryLock(), 0) << "its payload was destroyed under the library lock";
  EXPECT_EQ(owner.Stuck(), 0) << "the owner's helper waited for the purging thread's lock";
  ASSERT_TRUE(owner.AllAnswered());
  EXPECT_EQ(bag_->GetNumItems(), 3);
  for (auto& i : kept) EXPECT_TRUE(i->IsInMemory());
  EXPECT_EQ(InMemory(), 150);
  EXPECT_EQ(InMemory(), SumOfItemSizes(*bag_));
}
