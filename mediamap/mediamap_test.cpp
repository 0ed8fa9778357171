// The media-map adapter: what is mirrored, re-adding, purges by ID, the pin flag, the switch,
// host purges through the manager, and exact totals over random sequences.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "bag/bag.h"
#include "host/feature.h"
#include "host/trace.h"
#include "lifecycle/settings.h"
#include "mediamap/media_map_hooks.h"
#include "mediamap/mediamap_test_support.h"

namespace cf = jx::checkout_flags;
using jx::testing::CheckMediaMapBooks;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using jx::testing::MediaMapTest;
using jx::testing::TestPayload;
using kq::JX_MediaMapDataKey;
using zelcore::debug::Tracing;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

// Turns the categories of `config` on and collects their lines for the life of the scope.
struct TraceCapture {
  explicit TraceCapture(const std::string& config) {
    Tracing::Configure(config);
    Tracing::SetSink([this](const char*, int, const std::string& text) { text_ += text; });
  }
  ~TraceCapture() {
    Tracing::SetSink(nullptr);
    Tracing::Configure("");
  }
  bool Contains(const std::string& text) const { return text_.find(text) != std::string::npos; }
  std::string text_;  // single-threaded tests only
};

TestPayload* Payload(const IntrusivePtr<JX_Stuff>& s) {
  return static_cast<TestPayload*>(s->GetDataPtr().get());
}

TEST_F(MediaMapTest, MirrorsOnlyItemsInMemoryWithASize) {
  auto item = MakeItem(100);
  bag_->AddToBagAndSortDir(item);
  EXPECT_EQ(JX_GetMediaMapSize(), 100u);
  EXPECT_EQ(ManagerBytes(), 100u);
  EXPECT_EQ(item->GetMediaMapID(), 1u) << "entry IDs start at 1";

  auto empty = MakeItem(0);
  bag_->AddToBagAndSortDir(empty);
  auto purged = MakeItem(70);
  Payload(purged)->PurgeIfPossible(nullptr);
  ASSERT_FALSE(purged->IsInMemory());
  bag_->AddToBagAndSortDir(purged);
  EXPECT_FALSE(JX_MediaMapAddOrUpdate(purged));
  EXPECT_EQ(JX_GetMediaMapSize(), 100u);
  EXPECT_EQ(adapter_->GetNumEntries(), 1u);
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

TEST_F(MediaMapTest, ReaddingErasesTheOldEntryFirstAndCountsOnce) {
  auto item = MakeItem(100);
  bag_->AddToBagAndSortDir(item);
  const Guid oldGuid = item->GetMediaMapGuid();
  const uint64_t oldID = item->GetMediaMapID();
  const uint64_t notified = RV::GetMediaManager()->GetNotifyCount();
  {
    TraceCapture traces("KQLIB.MediaMapImpl:6");
    EXPECT_TRUE(JX_MediaMapAddOrUpdate(item));
    EXPECT_TRUE(traces.Contains("Purged entry " + std::to_string(oldID) + " hash " +
                                oldGuid.AsString() + " with 100 bytes. Current cache size 100\n"));
  }
  EXPECT_NE(item->GetMediaMapGuid(), oldGuid);
  EXPECT_GT(item->GetMediaMapID(), oldID);
  EXPECT_FALSE(adapter_->Find(JX_MediaMapDataKey(oldGuid, 0)));
  EXPECT_EQ(RV::GetMediaManager()->GetNotifyCount(), notified + 1);
  EXPECT_EQ(RV::GetMediaManager()->GetEntryIDsOfMap(adapter_->GetMediaMapID()),
            std::vector<uint64_t>{item->GetMediaMapID()});
  EXPECT_EQ(JX_GetMediaMapSize(), 100u);

  // A check-in renews the entry the same way.
  const uint64_t beforeCheckin = item->GetMediaMapID();
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  item->Checkin(0, 0.0);
  EXPECT_GT(item->GetMediaMapID(), beforeCheckin);
  EXPECT_EQ(JX_GetMediaMapSize(), 100u);
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

TEST_F(MediaMapTest, PurgingAnUnknownIDFlushesTheTemplateEntryOnly) {
  auto item = MakeItem(100);
  bag_->AddToBagAndSortDir(item);
  // An entry the template holds but the adapter does not mirror.
  JX_MediaMapDataKey key(Guid::CreateUnique(), 0);
  const uint64_t id = adapter_->Insert(key, kq::JX_MediaMapData{item, 100});
  ASSERT_TRUE(adapter_->Find(key));
  adapter_->PurgeEntry(id);
  adapter_->PurgeEntry(999999);
  EXPECT_FALSE(adapter_->Find(key));
  EXPECT_TRUE(item->IsInMemory());
  EXPECT_EQ(item->GetBag(), bag_);
  EXPECT_EQ(JX_GetMediaMapSize(), 100u);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 100);
}

TEST_F(MediaMapTest, PurgingAnItemWhoseBagIsGoneOnlyTraces) {
  const int liveBefore = TestPayload::LiveCount().load();
  auto item = MakeItem(100);
  bag_->AddToBagAndSortDir(item);
  {
    JXp_ScLock lock;
    bag_->RemoveStuffFromBagAndSortDir(item, lock, false);  // leaves the entry behind
  }
  ASSERT_EQ(JX_GetMediaMapSize(), 100u);
  std::ostringstream address;
  address << static_cast<const void*>(item.get());
  {
    TraceCapture traces("JX_MediaMap:6");
    adapter_->PurgeEntry(item->GetMediaMapID());
    EXPECT_TRUE(traces.Contains("PurgeFromMediaMap " + address.str() +
                                " stuff ain't got no bag, this should be harmless and mem will "
                                "go away when stuff ref does."));
  }
  EXPECT_TRUE(item->IsInMemory());
  EXPECT_EQ(JX_GetMediaMapSize(), 0u);
  item.reset();
  EXPECT_EQ(TestPayload::LiveCount().load(), liveBefore) << "memory goes with the last reference";
}

TEST_F(MediaMapTest, PinFlagDoesNotCountAndTheManagerHonoursIt) {
  auto pinned = MakeItem(100);
  auto other = MakeItem(100);
  bag_->AddToBagAndSortDir(pinned);
  bag_->AddToBagAndSortDir(other);
  JX_MediaMapDataKey key(pinned->GetMediaMapGuid(), 0);
  adapter_->MakeNonPurgeable(key);
  adapter_->MakeNonPurgeable(key);
  EXPECT_TRUE(adapter_->IsNonPurgeable(pinned->GetMediaMapID()));
  adapter_->MakePurgeable(key);
  EXPECT_FALSE(adapter_->IsNonPurgeable(pinned->GetMediaMapID()));
  EXPECT_FALSE(adapter_->IsNonPurgeable(424242));

  adapter_->MakeNonPurgeable(key);
  RV::GetMediaManager()->SetBudget(0);
  EXPECT_TRUE(pinned->IsInMemory()) << "the older entry is pinned";
  EXPECT_FALSE(other->IsInMemory());
  EXPECT_EQ(JX_GetMediaMapSize(), 100u);
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

TEST_F(MediaMapTest, HostPurgeFreesTheOldestButNeverACheckedOutItem) {
  auto manager = RV::GetMediaManager();
  manager->AddHostMedia(100);  // the oldest entry of the pool
  std::vector<IntrusivePtr<JX_Stuff>> items;
  for (uint32_t i = 0; i < 4; ++i) {
    items.push_back(MakeItem(100, {}, i));
    bag_->AddToBagAndSortDir(items.back());
  }
  ASSERT_EQ(items[0]->Checkout(cf::kReadOnly), kJX_CheckedOut);

  manager->SetBudget(250);  // 500 held: host media, item 0 and item 1 go, in that order
  EXPECT_EQ(manager->GetHostMediaBytes(), 0u);
  EXPECT_TRUE(items[0]->IsInMemory() && Payload(items[0])->Verify()) << "checked out";
  EXPECT_FALSE(items[1]->IsInMemory());
  EXPECT_FALSE(items[1]->GetBag()) << "no disk copy: nothing left to keep";
  EXPECT_TRUE(items[2]->IsInMemory() && items[3]->IsInMemory());
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 300);
  EXPECT_EQ(JX_GetMediaMapSize(), 200u);

  items[0]->Checkin(0, 0.0);  // mirrored again, now the youngest entry
  EXPECT_EQ(JX_GetMediaMapSize(), 300u);
  manager->EnforceBudget();
  EXPECT_FALSE(items[2]->IsInMemory());
  EXPECT_TRUE(items[0]->IsInMemory());
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 200);
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// Any sequence of adds, check-outs and check-ins, purges of every kind, removals and re-adds
// leaves the books exact after every step.
TEST_F(MediaMapTest, RandomSequencesKeepTheTotalsExact) {
  const uint32_t seed = std::getenv("JX_SEED") ? std::atoi(std::getenv("JX_SEED")) : 7;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  auto manager = RV::GetMediaManager();
  std::vector<IntrusivePtr<JX_Stuff>> held;
  std::vector<uint64_t> hostMedia;
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
  for (int step = 0; step < 600; ++step) {
    auto items = bag_->CopyMruItems();
    const int op = static_cast<int>(pick(items.empty() ? 1 : 10));
    auto any = items.empty() ? IntrusivePtr<JX_Stuff>() : items[pick(items.size())];
    switch (op) {
      case 0:
        bag_->AddToBagAndSortDir(MakeItem(static_cast<unsigned>(pick(200)), {}, step));
        break;
      case 1:
        if (any->Checkout(cf::kReadOnly) == kJX_CheckedOut) any->Checkin(0, 0.0);
        break;
      case 2:
        if (held.size() < 3 && any->Checkout(cf::kReadOnly) == kJX_CheckedOut) {
          held.push_back(any);
        } else if (!held.empty()) {
          held.back()->Checkin(0, 0.0);
          held.pop_back();
        }
        break;
      case 3:
        any->FreeUpAsMuchAsPossible(true, nullptr);
        break;
      case 4:
        jx::PurgeOverBudget(*bag_, pick(400));
        break;
      case 5:
        manager->SetBudget(pick(1500));
        manager->SetBudget(RV::MediaManager::kUnlimited);
        break;
      case 6:
        if (pick(2)) {
          manager->PurgeEntry(adapter_->GetMediaMapID(), any->GetMediaMapID());
        } else {
          adapter_->PurgeEntry(1000000 + pick(1000));  // never handed out
        }
        break;
      case 7:
        if (any->GetCheckoutCount() == 0) any->RemoveFromBagAndSortDir();
        break;
      case 8:
        JX_MediaMapAddOrUpdate(any);
        break;
      case 9:
        if (pick(2) || hostMedia.empty()) {
          hostMedia.push_back(manager->AddHostMedia(pick(300)));
        } else {
          manager->RemoveHostMedia(hostMedia[pick(hostMedia.size())]);
        }
        break;
    }
    ASSERT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "") << "step " << step << " op " << op;
  }
  for (auto& s : held) s->Checkin(0, 0.0);
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

class MediaMapOffTest : public LibraryTest {
  void Birth() override {
    RV::GetMediaManager()->Reset();
    JX_Birth(false, 1, false);
  }
};

TEST_F(MediaMapOffTest, NothingIsMirrored) {
  auto item = MakeItem(100);
  bag_->AddToBagAndSortDir(item);
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  item->Checkin(0, 0.0);
  item->FreeUpAsMuchAsPossible(true, nullptr);
  EXPECT_FALSE(jx::mediamap::CurrentAdapter());
  EXPECT_EQ(JX_GetMediaMapSize(), 0u);
  EXPECT_EQ(item->GetMediaMapID(), 0u);
  EXPECT_EQ(RV::GetMediaManager()->GetTotalBytes(), 0u);
}

// The feature is read once per process, so the start-up runs in a fresh one.
TEST(MediaMapGfxpakTest, LimitBranchTellsTheManagerTheCacheMaximum) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        jx::StandaloneHost::Instance().SetEchoReports(false);
        RV::MM::SetFixedMaxCacheSize(5000);
        zelappsupport::feature::SetFeatureEnabled(kJX_GfxpakLimitFeature, true);
        JX_Birth(true, 1, true);
        auto limit = RV::GetMediaManager()->GetCacheMaxSize(jx::settings::CacheIdentity());
        const bool ok = limit && *limit == JX_GetMaxJXCacheSize() && *limit == 500 &&
                        !jx::settings::UseMediaMap() && !jx::mediamap::CurrentAdapter();
        JX_StopAllAsyncWork();
        JX_Death();
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
