// The purge walk: which items go, in which order, where it stops, and that freed memory is
// released only after the library lock is let go.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bag/sort_dir.h"
#include "disk/performance_counters.h"
#include "host/feature.h"
#include "host/media_manager.h"
#include "host/standalone_host.h"
#include "host/trace.h"
#include "items/sc_checkout.h"
#include "lifecycle/settings.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::StandaloneHost;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using jx::testing::SumOfItemSizes;
using jx::testing::TestPayload;
using jx::testing::ThrownCode;
using zelcore::debug::Tracing;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

// Turns the categories of `config` on and collects their lines for the life of the scope.
struct TraceLines {
  explicit TraceLines(const std::string& config) {
    Tracing::Configure(config);
    Tracing::SetSink([this](const char*, int, const std::string& text) { lines.push_back(text); });
  }
  ~TraceLines() {
    Tracing::SetSink(nullptr);
    Tracing::Configure("");
  }
  std::vector<std::string> lines;  // single-threaded tests only
};

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
  IntrusivePtr<JX_Stuff> Add(TestPayload* payload) {
    auto item = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(payload), 0.0);
    item->SetGuid(Guid::CreateUnique());
    bag_->AddToBagAndSortDir(item);
    return item;
  }
  std::vector<IntrusivePtr<JX_Stuff>> AddItems(int n, unsigned int size, bool withDiskCopy) {
    std::vector<IntrusivePtr<JX_Stuff>> items;
    for (int i = 0; i < n; ++i) {
      auto item = MakeItem(size);
      // Purging only looks at the link to the file; no file is read here.
      if (withDiskCopy)
        item->SetDiskCacheFile(zelcore::filesupport::File("/nonexistent.kqcache"), false);
      bag_->AddToBagAndSortDir(item);
      items.push_back(item);
    }
    return items;
  }
};

TEST_F(PurgeTest, StopsWhenTheHostIsSatisfiedAndIgnoresTheArgument) {
  for (unsigned long long argument : {0ull, 1ull << 40}) {
    auto items = AddItems(6, 50, false);
    jx::ScAmountToPurge amount(120);
    bag_->FreeUpSomeMemory(argument);
    // 120 bytes asked: three items of 50, oldest first.
    for (int i = 0; i < 6; ++i) EXPECT_EQ(items[i]->IsInMemory(), i >= 3) << i;
    bag_->ClearBagAndSortDir();
  }
}

TEST_F(PurgeTest, StopsAtTheFloor) {
  auto items = AddItems(10, 50, false);
  jx::PurgeOverBudget(*bag_, 1 << 20);
  // Frees while the cache holds at least 100 bytes: 500 -> 50.
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 50);
  EXPECT_TRUE(items.back()->IsInMemory());
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), SumOfItemSizes(*bag_));
}

TEST_F(PurgeTest, DiskBackedItemsGoFirstAndKeepTheirPlace) {
  auto plain = AddItems(3, 50, false);
  auto backed = AddItems(3, 50, true);
  const uint64_t examined = JX_GetPurgeExaminedCount();
  jx::PurgeOverBudget(*bag_, 100);
  EXPECT_EQ(JX_GetPurgeExaminedCount() - examined, 5u) << "three passed over, two freed";
  EXPECT_FALSE(backed[0]->IsInMemory());
  EXPECT_FALSE(backed[1]->IsInMemory());
  EXPECT_TRUE(backed[2]->IsInMemory());
  for (auto& p : plain) EXPECT_TRUE(p->IsInMemory()) << "older, but without a disk copy";
  EXPECT_TRUE(backed[0]->GetBag()) << "a disk copy is worth keeping the item for";
  EXPECT_EQ(bag_->GetNumItems(), 6);
  EXPECT_GT(bag_->GetLastPurgedUsedTime(), 0u);
  EXPECT_EQ(bag_->GetLastPurgedUsedTime(), backed[1]->GetLastUsedTime());
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

TEST_F(PurgeTest, AHostSatisfiedByTheLastItemOfPassZeroIsNotAskedForMore) {
  auto plain = AddItems(2, 50, false);
  auto backed = AddItems(1, 50, true);
  TraceLines traces("JX_Purge:6");
  jx::PurgeOverBudget(*bag_, 50);
  EXPECT_FALSE(backed[0]->IsInMemory());
  for (auto& p : plain) EXPECT_TRUE(p->IsInMemory()) << "pass 1 stops before its first item";
  // Pass 0 ran off its end without meeting a stop rule, so it did not succeed.
  const std::string pass =
      "Pass-Stats: pass, totalStuffs, attemptedStuffs, freedStuffs, amountFreedInPass, "
      "amtToPurge, success:";
  EXPECT_EQ(traces.lines, (std::vector<std::string>{
                              "Stuff-Stats: pass, index, stuffFreedAmount, amtToPurge:0, 2, 50, 50",
                              pass + "0, 3, 1, 1, 50, 50, 0",
                              pass + "1, 3, 0, 0, 0, 50, 1",
                          }));
}

TEST_F(PurgeTest, CheckedOutAndRefusingItemsAreSkipped) {
  auto items = AddItems(4, 50, false);
  static_cast<TestPayload*>(items[1]->GetDataPtr().get())->SetAllowPurge(false);
  JX_ScCheckout held(items[0], cf::kReadOnly);
  const uint64_t heldTime = items[0]->GetLastUsedTime();
  jx::PurgeOverBudget(*bag_, 50);
  EXPECT_TRUE(items[0]->IsInMemory());
  EXPECT_TRUE(items[1]->IsInMemory());
  EXPECT_FALSE(items[2]->GetBag());
  EXPECT_TRUE(items[3]->IsInMemory());
  EXPECT_EQ(items[0]->GetLastUsedTime(), heldTime);
  EXPECT_EQ(bag_->CopyMruItems().front(), items[0]) << "a checked-out item keeps its place";
}

TEST_F(PurgeTest, MemoryAndTheHostsRecycledMemoryGoAfterTheLibraryLockIsFree) {
  auto items = AddItems(5, 50, false);
  int released = 0, releasedUnderLock = 0;
  TestPayload::OnRelease() = [&] {
    ++released;
    if (JXp_ScLock::IsLockedByCurrentThread()) ++releasedUnderLock;
  };
  std::vector<uint64_t> told;
  int toldUnderLock = 0, releasedWhenTold = -1;
  StandaloneHost::Instance().SetRecycledMemoryPurgeObserver([&](uint64_t bytes) {
    told.push_back(bytes);
    toldUnderLock += JXp_ScLock::IsLockedByCurrentThread();
    releasedWhenTold = released;
  });
  jx::PurgeOverBudget(*bag_, 150);
  EXPECT_EQ(released, 3);
  EXPECT_EQ(releasedUnderLock, 0);
  EXPECT_EQ(told, std::vector<uint64_t>{150}) << "told once, the call's total";
  EXPECT_EQ(toldUnderLock, 0);
  EXPECT_EQ(releasedWhenTold, 0) << "the host hears of it before the blocks go";

  // Nothing freed: the host is not told.
  for (auto& i : items) static_cast<TestPayload*>(i->GetDataPtr().get())->SetAllowPurge(false);
  jx::PurgeOverBudget(*bag_, 150);
  EXPECT_EQ(told.size(), 1u);
}

TEST_F(PurgeTest, FailingMemoryLimitsEscapeWithTheQueueReleasedAndExactBooks) {
  auto first = Add(new LimitsFailAfterPurgePayload(50));
  auto rest = AddItems(3, 50, false);
  int released = 0, releasedUnderLock = 0;
  TestPayload::OnRelease() = [&] {
    ++released;
    if (JXp_ScLock::IsLockedByCurrentThread()) ++releasedUnderLock;
  };
  // The first item goes into the deferred queue; the floor check before the second throws.
  const int thrown = ThrownCode([&] { jx::PurgeOverBudget(*bag_, 100); });
  StandaloneHost::Instance().SetMemUsageLimitsStatus(0);
  EXPECT_EQ(thrown, -12);
  EXPECT_EQ(released, 1) << "the queued block, once";
  EXPECT_EQ(releasedUnderLock, 0);
  EXPECT_FALSE(first->GetBag()) << "freed and, keeping nothing, removed";
  for (auto& i : rest) EXPECT_TRUE(i->IsInMemory());
  EXPECT_EQ(bag_->GetNumItems(), 3);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 3);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 150);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), SumOfItemSizes(*bag_));
}

TEST_F(PurgeTest, AnItemKeepingNothingLeavesAndCountsItsNotedSize) {
  auto outside = Add(new NotInMemoryPayload(40));
  auto backed = AddItems(1, 50, true)[0];
  JX_Stuff::ReleaseQueue queue;
  EXPECT_EQ(outside->FreeUpAsMuchAsPossible(true, &queue), 40u) << "nothing freed, but removed";
  EXPECT_FALSE(outside->GetBag());
  EXPECT_FALSE(outside->IsInSortDir());
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(backed->FreeUpAsMuchAsPossible(true, &queue), 50u);
  EXPECT_TRUE(backed->GetBag()) << "a disk copy is worth keeping the item for";
  EXPECT_EQ(queue.size(), 1u);
  EXPECT_EQ(backed->FreeUpAsMuchAsPossible(true, &queue), 0u) << "freed once, counted once";
}

TEST_F(PurgeTest, EmptyBagAndPurgeAll) {
  jx::PurgeOverBudget(*bag_, 100);
  EXPECT_EQ(bag_->GetLastPurgedUsedTime(), 0u);
  auto items = AddItems(3, 10, false);  // below the floor: the walk would free nothing
  static_cast<TestPayload*>(items[0]->GetDataPtr().get())->SetAllowPurge(false);
  jx::PurgeOverBudget(*bag_, 100);
  EXPECT_EQ(bag_->GetNumItems(), 3);
  bag_->PurgeAllMemoryCaches();  // ignores the floor, the host and the payload's wish
  EXPECT_EQ(bag_->GetNumItems(), 0);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
}

class PurgeMediaMapTest : public PurgeTest {
 protected:
  void Birth() override {
    RV::GetMediaManager()->Reset();
    JX_Birth(true, 1, false);
    ASSERT_TRUE(jx::settings::UseMediaMap());
  }
};

TEST_F(PurgeMediaMapTest, TracesTheSizesAfterEachItem) {
  auto backed = AddItems(1, 50, true)[0];
  auto plain = AddItems(1, 60, false)[0];
  const std::string plainGuid = plain->GetGuid().AsString();
  JX_Stuff::ReleaseQueue queue;
  TraceLines traces("JX_MediaMap:6");
  backed->FreeUpAsMuchAsPossible(true, &queue);  // freed, kept for its disk copy: entry erased
  backed->FreeUpAsMuchAsPossible(true, &queue);  // nothing left to free
  plain->FreeUpAsMuchAsPossible(true, &queue);   // freed and removed, which erases the entry
  EXPECT_EQ(traces.lines,
            (std::vector<std::string>{
                "FreeUpAsMuchAsPossible  JX Cache size 60 num entries = 2 MediaMap size 60 "
                "num entries = 1",
                "Stuff was purged from Strandel  JX Cache size 60 num entries = 2 MediaMap size "
                "60 num entries = 1",
                "FreeUpAsMuchAsPossible - couldn't free anything  JX Cache size 60 num entries = "
                "2 MediaMap size 60 num entries = 1 freed_anything = 0 removedFromBag = 0",
                "Removed stuff " + plainGuid +
                    " JX Cache size 0 num entries = 1 MediaMap size 0 num entries = 0",
                "FreeUpAsMuchAsPossible  JX Cache size 0 num entries = 1 MediaMap size 0 "
                "num entries = 0",
            }));
}

// The fixed limit for templates is a feature read once per process, so this purge runs in a
// fresh one. Returns what went wrong, or "".
std::string PurgeUnderTheTemplateLimit() {
  auto& host = StandaloneHost::Instance();
  host.Reset();
  host.SetEchoReports(false);
  host.SetMemoryLimit(1000);
  char folder[] = "/tmp/jxtest.XXXXXX";
  if (!mkdtemp(folder)) return "no temporary folder";
  setenv("TMPDIR", folder, 1);
  zelappsupport::feature::SetFeatureEnabled(kJX_GfxpakLimitFeature, true);
  RV::MM::SetFixedMaxCacheSize(1500);  // the limit is a tenth of it: 150 bytes
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
