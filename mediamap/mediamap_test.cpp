// The media-map adapter: what is mirrored, purges by ID and through the host's manager, the miss
// reason of what the manager took, and exact totals over random sequences.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>
#include <vector>

#include "disk/disk_test_support.h"
#include "jxcache/bag/bag.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/miss_reasons.h"
#include "jxcache/lifecycle/statistics.h"
#include "mediamap/media_map_hooks.h"
#include "mediamap/mediamap_test_support.h"
#include "standalone/standalone_host.h"

namespace cf = jx::checkout_flags;
using namespace jx::testing;
using kq::JX_MediaMapDataKey;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

// Only items in memory with a size are mirrored, each once; re-adding one (as every check-in
// does) tells the host the old entry was used, then replaces it.
TEST_F(MediaMapTest, MirrorsInMemoryItemsOnceAndRenewsTheirEntry) {
  auto item = AddedItem(*bag_, 100), purged = MakeItem(70);
  EXPECT_EQ(item->GetMediaMapID(), 1u) << "entry IDs start at 1";
  AddedItem(*bag_, 0);
  PayloadOf(*purged)->PurgeIfPossible(nullptr);
  bag_->AddToBagAndSortDir(purged);
  EXPECT_FALSE(JX_MediaMapAddOrUpdate(purged));
  EXPECT_EQ(adapter_->GetNumEntries(), 1u);

  const Guid oldGuid = item->GetMediaMapGuid();
  const uint64_t notified = jx::standalone::MediaManagerPool()->GetNotifyCount();
  EXPECT_TRUE(JX_MediaMapAddOrUpdate(item));
  EXPECT_FALSE(adapter_->Find(JX_MediaMapDataKey(oldGuid, 0)));
  EXPECT_EQ(jx::standalone::MediaManagerPool()->GetNotifyCount(), notified + 1);
  const uint64_t beforeCheckin = item->GetMediaMapID();
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  item->Checkin(0, 0.0);
  EXPECT_GT(item->GetMediaMapID(), beforeCheckin) << "a check-in renews the entry";
  EXPECT_EQ(adapter_->GetNumTemplateEntries(), 1u);
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// An unknown ID, an entry without an item, or that of an item no longer in the bag frees nothing.
TEST_F(MediaMapTest, PurgesOfEntriesWithoutAnItemInTheBagFreeNothing) {
  const int liveBefore = TestPayload::LiveCount().load();
  auto kept = AddedItem(*bag_, 100), removed = AddedItem(*bag_, 50);
  {
    JXp_ScLock lock;
    bag_->RemoveStuffFromBagAndSortDir(removed, lock, false);  // leaves the entry behind
  }
  JX_MediaMapDataKey bare(Guid::CreateUnique(), 0);
  const uint64_t bareID = adapter_->Insert(bare, kq::JX_MediaMapData{kept, 100});
  ASSERT_EQ(JX_GetMediaMapSize(), 150u);
  for (uint64_t id : {bareID, uint64_t{999999}, removed->GetMediaMapID()}) adapter_->PurgeEntry(id);
  EXPECT_FALSE(adapter_->Find(bare));
  EXPECT_TRUE(kept->IsInMemory() && removed->IsInMemory());
  EXPECT_EQ(JX_GetMediaMapSize(), 100u);
  removed.reset();
  EXPECT_EQ(TestPayload::LiveCount().load(), liveBefore + 1);
}

// The host's budget drops the oldest entries, its media and our items alike, but never a checked
// out or pinned item. One MakePurgeable undoes any number of MakeNonPurgeable.
TEST_F(MediaMapTest, HostPurgeFreesTheOldestButNeverACheckedOutOrPinnedItem) {
  auto manager = jx::standalone::MediaManagerPool();
  manager->AddHostMedia(100);  // the oldest entry of the pool
  std::vector<IntrusivePtr<JX_Stuff>> items;
  for (uint32_t i = 0; i < 4; ++i) items.push_back(AddedItem(*bag_, 100, {}, i));
  ASSERT_EQ(items[0]->Checkout(cf::kReadOnly), kJX_CheckedOut);
  const JX_MediaMapDataKey pin(items[1]->GetMediaMapGuid(), 0);
  adapter_->MakeNonPurgeable(pin);
  adapter_->MakeNonPurgeable(pin);

  manager->SetBudget(250);  // 500 held: the host's media, item 0's entry and item 2 go
  EXPECT_EQ(manager->GetHostMediaBytes(), 0u);
  EXPECT_TRUE(items[0]->IsInMemory() && PayloadOf(*items[0])->Verify()) << "checked out";
  EXPECT_TRUE(items[1]->IsInMemory()) << "pinned";
  EXPECT_FALSE(items[2]->IsInMemory());
  EXPECT_FALSE(items[2]->GetBag()) << "no disk copy: nothing left to keep";
  EXPECT_TRUE(items[3]->IsInMemory());
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 300);
  EXPECT_EQ(JX_GetMediaMapSize(), 200u);

  items[0]->Checkin(0, 0.0);  // mirrored again, now the youngest entry
  EXPECT_EQ(JX_GetMediaMapSize(), 300u);
  adapter_->MakePurgeable(pin);
  EXPECT_FALSE(adapter_->IsNonPurgeable(items[1]->GetMediaMapID()));
  manager->EnforceBudget();
  EXPECT_FALSE(items[1]->IsInMemory());
  EXPECT_TRUE(items[0]->IsInMemory() && items[3]->IsInMemory());
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 200);
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// The host may take back the entry of a checked-out item (the disk writer holds what it writes):
// the item must be mirrored again at check-in, even one keeping its recency, or the host never
// sees those bytes again and can never purge them.
TEST_F(MediaMapTest, AnItemPurgedByTheHostWhileCheckedOutIsMirroredAgainAtCheckin) {
  auto manager = jx::standalone::MediaManagerPool();
  for (int flags : {0, jx::checkin_flags::kKeepRecency}) {
    SCOPED_TRACE(flags);
    auto item = AddedItem(*bag_, 100, {}, static_cast<uint32_t>(flags));
    ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
    ASSERT_TRUE(manager->PurgeEntry(adapter_->GetMediaMapID(), item->GetMediaMapID()));
    EXPECT_TRUE(item->IsInMemory()) << "a checked-out item keeps its memory";
    item->Checkin(flags, 0.0);
    EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
    const uint64_t entries = adapter_->GetNumEntries();
    manager->PurgeEntry(adapter_->GetMediaMapID(), item->GetMediaMapID());
    EXPECT_FALSE(item->IsInMemory()) << "the host can take it back once it is idle";
    EXPECT_EQ(adapter_->GetNumEntries(), entries - 1);
  }
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// The read-ahead checks frames in keeping their recency: what it read back must be mirrored
// all the same, so that the host can take those bytes back.
TEST_F(MediaMapDiskTest, AFrameReadBackAheadOfPlaybackIsMirrored) {
  auto item = AddNewItem(*bag_, new TestPayload(100, 7, true), 10.0);
  ASSERT_TRUE(WriteToDisk(bag_, item, /*leaveMemory=*/true));
  ASSERT_EQ(adapter_->GetNumEntries(), 0u);

  JX_ScCheckout handle;  // what the read-ahead does with a frame on disk only
  ASSERT_EQ(handle.FindAndCheckout(MakeRequest(item->GetGuid()), cf::kReadOnly | cf::kNoDiskRead),
            kJX_CheckedOut);
  ASSERT_TRUE(handle.EnsureInMemory());
  handle.Checkin(jx::checkin_flags::kKeepRecency, 0.0);
  EXPECT_TRUE(item->IsInMemory());
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
  EXPECT_EQ(JX_GetMediaMapSize(), 100u);
}

TEST_F(MediaMapTest, AnItemTheMediaManagerTookBackMissesForThatReason) {
  JX_ResetStatistics();
  auto item = AddedItem(*bag_, 100);
  jx::standalone::MediaManagerPool()->SetBudget(0);
  ASSERT_FALSE(item->IsInMemory());
  JX_ScCheckout handle;
  EXPECT_EQ(handle.FindAndCheckout(MakeRequest(item->GetGuid()), cf::kReadOnly),
            kJX_CheckoutRefused);
  const JX_MissReasons all = JX_GetMissReasonsTotal();
  EXPECT_EQ(all.byReason[kJX_MissMediaManager], 1);
  EXPECT_EQ(all.total, 1);
}

// A thread that took the adapter's handle just before a shut-down mirrors an item after it: the
// dead map must neither keep the item nor tell the manager about it, before or after a restart.
TEST_F(MediaMapTest, AnAdapterShutDownMirrorsNothingMore) {
  auto manager = jx::standalone::MediaManagerPool();
  auto kept = AddedItem(*bag_, 100), late = MakeItem(50);
  const RV::MediaMapID oldMap = adapter_->GetMediaMapID();
  ASSERT_EQ(manager->GetBytesOfMap(oldMap), 100u);
  JX_MediaMapDeath();
  EXPECT_EQ(manager->GetBytesOfMap(oldMap), 0u);
  for (int restarted : {0, 1}) {
    if (restarted) JX_MediaMapBirth();
    EXPECT_FALSE(adapter_->AddOrUpdate(late)) << "restarted " << restarted;
    EXPECT_EQ(manager->GetBytesOfMap(oldMap), 0u) << "restarted " << restarted;
    EXPECT_EQ(adapter_->GetNumEntries(), 0u) << "restarted " << restarted;
  }
  ASSERT_TRUE(jx::mediamap::CurrentAdapter());
  EXPECT_NE(jx::mediamap::CurrentAdapter(), adapter_);
}

// Any sequence of adds, check-outs and check-ins, purges, removals and re-adds keeps the books.
TEST_F(MediaMapTest, RandomSequencesKeepTheTotalsExact) {
  const uint32_t seed = std::getenv("JX_SEED") ? std::atoi(std::getenv("JX_SEED")) : 7;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  auto manager = jx::standalone::MediaManagerPool();
  std::vector<IntrusivePtr<JX_Stuff>> held;
  std::vector<uint64_t> hostMedia;
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
  for (int step = 0; step < 600; ++step) {
    auto items = bag_->CopyMruItems();
    const int op = static_cast<int>(pick(items.empty() ? 1 : 10));
    auto any = items.empty() ? IntrusivePtr<JX_Stuff>() : items[pick(items.size())];
    if (op == 0) {
      bag_->AddToBagAndSortDir(MakeItem(static_cast<unsigned>(pick(200)), {}, step));
    } else if (op == 1) {
      if (any->Checkout(cf::kReadOnly) == kJX_CheckedOut) any->Checkin(0, 0.0);
    } else if (op == 2) {  // hold up to three items checked out
      if (held.size() < 3 && any->Checkout(cf::kReadOnly) == kJX_CheckedOut) {
        held.push_back(any);
      } else if (!held.empty()) {
        held.back()->Checkin(0, 0.0);
        held.pop_back();
      }
    } else if (op == 3) {
      any->FreeUpAsMuchAsPossible(true, nullptr);
    } else if (op == 4) {
      jx::PurgeOverBudget(*bag_, pick(400));
    } else if (op == 5) {
      manager->SetBudget(pick(1500));
      manager->SetBudget(RV::MediaManager::kUnlimited);
    } else if (op == 6) {
      if (pick(2)) {
        manager->PurgeEntry(adapter_->GetMediaMapID(), any->GetMediaMapID());
      } else {
        adapter_->PurgeEntry(1000000 + pick(1000));  // never handed out
      }
    } else if (op == 7) {
      if (any->GetCheckoutCount() == 0) any->RemoveFromBagAndSortDir();
    } else if (op == 8) {
      JX_MediaMapAddOrUpdate(any);
    } else if (pick(2) || hostMedia.empty()) {
      hostMedia.push_back(manager->AddHostMedia(pick(300)));
    } else {
      manager->RemoveHostMedia(hostMedia[pick(hostMedia.size())]);
    }
    ASSERT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "") << "step " << step << " op " << op;
    ASSERT_EQ(adapter_->GetNumTemplateEntries(), adapter_->GetNumEntries()) << "step " << step;
  }
  for (auto& s : held) s->Checkin(0, 0.0);
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

}  // namespace
