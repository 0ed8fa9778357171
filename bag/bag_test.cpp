// The bag: recency order, size accounting, the host's budget, directory supersession and search
// (with and without the library lock), and rejected misuse.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <boost/functional/hash.hpp>
#include <functional>
#include <random>

#include "bag/sort_dir.h"
#include "common/failures.h"
#include "host/config.h"
#include "jxcache/items/sc_checkout.h"
#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using jx::HostReport;
using jx::StandaloneHost;
using namespace jx::testing;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

// Adds items with a last-used time of the test's choosing: equal times are otherwise a matter of
// clock resolution.
struct JX_BagTestAccess {
  static void AddUsedAt(JX_Bag& bag, const IntrusivePtr<JX_Stuff>& s, uint64_t usedAt) {
    JXp_ScLock lock;
    s->lastUsedTime_.store(usedAt);
    bag.AddStuffGuts(s, lock, false);
    bag.GetSortDir()->AddStuff(s);
  }
};

namespace {

class BagTest : public LibraryTest {
 protected:
  std::vector<JX_Stuff*> Order() {
    std::vector<JX_Stuff*> order;
    for (auto& s : bag_->CopyMruItems()) order.push_back(s.get());
    return order;
  }
  // The running totals, which at rest must also equal what the payloads hold: those in the bag,
  // plus `heldOutside` bytes of items that left the bag but are still referenced.
  ::testing::AssertionResult Sizes(long long inMemory, long long checkedOut,
                                   long long heldOutside = 0) {
    const long long payloads = PayloadBytesInBag(*bag_) + heldOutside;
    const long long memory = bag_->GetInMemoryCacheSizeInBytes_LockFree();
    const long long out = bag_->GetCheckedOutMemoryCacheSizeInBytes();
    if (memory == inMemory && out == checkedOut && payloads == inMemory) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "in memory " << memory << ", checked out " << out << ", payloads " << payloads;
  }
  // An item of `guid` answering requests of `variant`, in its compressed form or not.
  IntrusivePtr<JX_Stuff> Variant(const Guid& guid, unsigned size, int variant, bool compressed,
                                 bool satisfiesAny = false) {
    auto item = MakeItem(size, guid);
    PayloadOf(*item)->SetVariant(variant);
    PayloadOf(*item)->SetIsCompressed(compressed);
    PayloadOf(*item)->SetSatisfiesAnyVariant(satisfiesAny);
    return item;
  }
  IntrusivePtr<JX_Stuff> Find(const Guid& guid,
                              JX_CompressedAllowedOption option = kJX_CompressionNotAllowed,
                              int flags = cf::kReadOnly) {
    IntrusivePtr<JX_Stuff> found;
    bool created = false;
    bag_->FindAndCheckout(MakeRequest(guid, 0, option), flags, &found, &created);
    return found;
  }
  // A new pending item for a fresh key, checked out to this thread.
  IntrusivePtr<JX_Stuff> CreatePending() {
    IntrusivePtr<JX_Stuff> pending;
    bool created = false;
    EXPECT_EQ(bag_->FindAndCheckout(MakeRequest(Guid::CreateUnique()),
                                    cf::kReadOnly | cf::kCreatePending, &pending, &created),
              kJX_CreatedPending);
    return pending;
  }
  static bool InDirectory(const IntrusivePtr<JX_Stuff>& item) {
    return item->GetBag() && item->IsInSortDir();
  }
};

// The purge frees from the old end. Equal times (a coarse clock) keep insertion order; moves land
// in stamp order; a check-in with kKeepRecency leaves the item, and its time, where they were.
TEST_F(BagTest, RecencyOrderFollowsUseAndKeepsTiesInInsertionOrder) {
  auto a = MakeItem(1), b = MakeItem(2), c = MakeItem(3), late = MakeItem(4), x = MakeItem(5);
  const uint64_t t = 1000;
  for (auto& s : {a, b, c}) JX_BagTestAccess::AddUsedAt(*bag_, s, t);
  JX_BagTestAccess::AddUsedAt(*bag_, late, t + 5);
  JX_BagTestAccess::AddUsedAt(*bag_, x, t);  // behind every item of its time, ahead of `late`
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{a.get(), b.get(), c.get(), x.get(), late.get()}));

  ASSERT_EQ(a->Checkout(cf::kReadOnly), kJX_CheckedOut);
  a->Checkin(0, 0.0);
  {
    JXp_ScLock lock;
    bag_->UpdateWithNewLastUsedTime(b, lock);
  }
  const uint64_t cTime = c->GetLastUsedTime();
  ASSERT_EQ(c->Checkout(cf::kReadOnly), kJX_CheckedOut);
  c->Checkin(ci::kKeepRecency, 0.0);
  EXPECT_EQ(c->GetLastUsedTime(), cTime);
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{c.get(), x.get(), late.get(), a.get(), b.get()}));
}

// The running totals drive every purge decision: after each kind of change they must equal what
// the payloads hold, the checked-out share following the check-outs.
TEST_F(BagTest, SizesAreExactAfterEveryKindOfChange) {
  auto item = AddedItem(*bag_, 100), removed = AddedItem(*bag_, 50);
  EXPECT_TRUE(Sizes(150, 0));

  // Resized in place while checked out.
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  EXPECT_TRUE(Sizes(150, 100));
  PayloadOf(*item)->SetReportedSize(40);
  bag_->AccountForStuffDataModification(item);
  EXPECT_TRUE(Sizes(90, 40));
  item->Checkin(0, 0.0);
  EXPECT_TRUE(Sizes(90, 0));

  // Writeable: out of the directory, never out of the bag.
  ASSERT_EQ(item->Checkout(0), kJX_CheckedOut);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
  EXPECT_TRUE(Sizes(90, 40));
  item->Checkin(0, 0.0);
  EXPECT_TRUE(Sizes(90, 0));

  // Removed at check-in while still held: counted in the global bag until its last reference goes.
  ASSERT_EQ(removed->Checkout(cf::kReadOnly), kJX_CheckedOut);
  removed->Checkin(ci::kRemove, 0.0);
  EXPECT_FALSE(removed->GetBag());
  EXPECT_TRUE(Sizes(90, 0, 50));
  removed.reset();
  EXPECT_TRUE(Sizes(40, 0));

  // A pending item costs nothing until it is filled; an abandoned one leaves nothing behind.
  auto pending = CreatePending();
  EXPECT_TRUE(Sizes(40, 0));
  pending->SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData>(new TestPayload(123)), 0.0);
  EXPECT_TRUE(Sizes(163, 123)) << "the renderer still has it checked out";
  pending->Checkin(0, 0.0);
  auto abandoned = CreatePending();
  abandoned->SetStuffDataFromPendingRender({}, 0.0);
  EXPECT_FALSE(abandoned->GetBag() || abandoned->IsInSortDir());
  abandoned->Checkin(0, 0.0);
  abandoned.reset();
  EXPECT_EQ(bag_->GetNumItems(), 2);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2);
  EXPECT_TRUE(Sizes(163, 0));

  // An item leaving another bag takes its bytes to the global one, and back when it returns.
  auto local = std::make_shared<JX_Bag>(1);
  auto visitor = MakeItem(5);
  for (int round = 0; round < 2; ++round) {
    local->AddToBagAndSortDir(visitor);
    EXPECT_EQ(local->GetInMemoryCacheSizeInBytes_LockFree(), 5);
    EXPECT_TRUE(Sizes(163, 0));
    visitor->RemoveFromBagAndSortDir();
    EXPECT_EQ(local->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    EXPECT_TRUE(Sizes(168, 0, 5));
  }
  visitor.reset();
  EXPECT_TRUE(Sizes(163, 0));
}

TEST_F(BagTest, ItemSyncedWithNoGlobalBagChangesNothing) {
  auto item = AddedItem(*bag_, 10);
  item->RemoveFromBagAndSortDir();
  auto bag = bag_;
  bag_.reset();
  JX_Death();
  EXPECT_FALSE(JX_GlobalBag());
  item->SyncMemorySizeWithBag(99);  // no bag anywhere: ignored
  EXPECT_EQ(bag->GetInMemoryCacheSizeInBytes_LockFree(), 10);
  EXPECT_EQ(item->GetAccountedMemorySize(), 10u) << "nothing was moved, so nothing is owed";
  item.reset();
  JX_Birth(false, 1, false);
  bag_ = JX_GlobalBag();
}

// The ceiling is the host's remaining budget plus what the asking bag holds; the checked-out
// share over it is always the global bag's; the floor is a tenth of the host's memory limit.
TEST_F(BagTest, CeilingRatioAndFloorFollowTheHostBudget) {
  auto& host = StandaloneHost::Instance();
  host.SetMemoryLimit(2000);
  host.SetAmountAvailableBeforePurge(400);
  auto item = AddedItem(*bag_, 100);
  EXPECT_FALSE(JX_IsGlobalBagSizeAboveMinimum()) << "100 < 200";
  bag_->AddToBagAndSortDir(MakeItem(100));
  EXPECT_TRUE(JX_IsGlobalBagSizeAboveMinimum()) << "at the floor";
  EXPECT_EQ(bag_->GetCurrentMaxCacheSize(), 600u);

  EXPECT_FLOAT_EQ(bag_->GetPercentOfAvailableMemoryCheckedOut(), 0.0f);
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  EXPECT_FLOAT_EQ(bag_->GetPercentOfAvailableMemoryCheckedOut(), static_cast<float>(100.0 / 600));
  auto other = std::make_shared<JX_Bag>(1);
  other->AddToBagAndSortDir(MakeItem(300));
  EXPECT_FLOAT_EQ(other->GetPercentOfAvailableMemoryCheckedOut(), static_cast<float>(100.0 / 700));
  item->Checkin(0, 0.0);
  EXPECT_FLOAT_EQ(other->GetPercentOfAvailableMemoryCheckedOut(), 0.0f);

  host.SetMemUsageLimitsStatus(-7);
  EXPECT_EQ(ThrownCode([] { JX_IsGlobalBagSizeAboveMinimum(); }), -7);
  host.SetMemUsageLimitsStatus(0);
}

TEST_F(BagTest, SearchPrefersTheUncompressedFormAndTakesCompressedOnlyWhenAllowed) {
  // Both insertion orders; both searches (read-only may go without the library lock).
  for (bool compressedFirst : {true, false}) {
    for (int flags : {int{cf::kReadOnly}, 0}) {
      SCOPED_TRACE(testing::Message()
                   << "compressed first " << compressedFirst << ", flags " << flags);
      const Guid g = Guid::CreateUnique();
      auto compressed = Variant(g, 10, 0, true), plain = Variant(g, 20, 0, false);
      bag_->AddToBagAndSortDir(compressedFirst ? compressed : plain);
      bag_->AddToBagAndSortDir(compressedFirst ? plain : compressed);
      ASSERT_EQ(bag_->GetNumGuidSortedItems(), 2) << "the two forms coexist";

      for (auto option :
           {kJX_CompressionNotAllowed, kJX_CompressionAllowed, kJX_CompressionAllowedForPlayback}) {
        auto found = Find(g, option, flags);
        EXPECT_EQ(found, plain) << "option " << option;
        if (found) found->Checkin(0, 0.0);
      }
      if (flags == 0) {
        // A writeable check-in of the uncompressed form took the compressed one, now stale.
        EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
        bag_->AddToBagAndSortDir(compressed);
      }
      // With the uncompressed form writeable (out of the directory), only requesters that
      // accept it find the compressed one.
      ASSERT_EQ(plain->Checkout(0), kJX_CheckedOut);
      EXPECT_FALSE(Find(g, kJX_CompressionNotAllowed, flags));
      for (auto option : {kJX_CompressionAllowed, kJX_CompressionAllowedForPlayback}) {
        auto found = Find(g, option, flags);
        EXPECT_EQ(found, compressed) << "option " << option;
        if (found) found->Checkin(0, 0.0);
      }
      plain->Checkin(0, 0.0);
      bag_->ClearBagAndSortDir();
    }
  }
}

TEST_F(BagTest, NewItemSupersedesDeadItemsAndThoseItCanStandFor) {
  const Guid g = Guid::CreateUnique();
  // Two items the newcomer cannot stand for, nor each other; one of them holds nothing any more.
  auto dead = Variant(g, 10, 1, false), alive = Variant(g, 11, 2, false);
  bag_->AddToBagAndSortDir(dead);
  bag_->AddToBagAndSortDir(alive);
  ASSERT_TRUE(InDirectory(dead));
  ASSERT_TRUE(PayloadOf(*dead)->PurgeIfPossible(nullptr));
  bag_->AddToBagAndSortDir(Variant(g, 12, 0, true));
  EXPECT_FALSE(dead->GetBag()) << "a dead item goes whatever it answered";
  EXPECT_FALSE(dead->IsInSortDir());
  EXPECT_TRUE(InDirectory(alive));
  bag_->ClearBagAndSortDir();
  dead.reset();
  alive.reset();

  // Otherwise only items of its compression whose request the newcomer can satisfy go (not the
  // reverse).
  const Guid h = Guid::CreateUnique();
  auto standsForAll = Variant(h, 1, 2, false, /*satisfiesAny=*/true);
  auto same = Variant(h, 2, 0, false), compressedSame = Variant(h, 4, 0, true),
       otherVariant = Variant(h, 8, 1, false);
  for (auto& s : {standsForAll, same, compressedSame, otherVariant}) bag_->AddToBagAndSortDir(s);
  ASSERT_EQ(bag_->GetNumGuidSortedItems(), 4);
  auto newcomer = Variant(h, 16, 0, false);
  bag_->AddToBagAndSortDir(newcomer);
  EXPECT_FALSE(same->GetBag()) << "same request, same compression";
  EXPECT_TRUE(InDirectory(compressedSame)) << "other compression";
  EXPECT_TRUE(InDirectory(otherVariant)) << "a request the newcomer cannot satisfy";
  EXPECT_TRUE(InDirectory(standsForAll)) << "it could stand for the newcomer, not the reverse";
  EXPECT_TRUE(InDirectory(newcomer));

  auto wildcard = Variant(h, 32, 1, false, /*satisfiesAny=*/true);
  bag_->AddToBagAndSortDir(wildcard);
  EXPECT_FALSE(newcomer->GetBag());
  EXPECT_FALSE(otherVariant->GetBag());
  EXPECT_FALSE(standsForAll->GetBag());
  EXPECT_TRUE(InDirectory(compressedSame));
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2);
  auto found = Find(h);
  EXPECT_EQ(found, wildcard);
  if (found) found->Checkin(0, 0.0);
  // Superseded items count in the global bag until their last reference goes.
  EXPECT_TRUE(Sizes(1 + 2 + 4 + 8 + 16 + 32, 0, 1 + 2 + 8 + 16));
  for (auto* s : {&standsForAll, &same, &otherVariant, &newcomer}) s->reset();
  EXPECT_TRUE(Sizes(4 + 32, 0));
}

// The unlocked read-only search goes through each shard's table: after adds, supersessions,
// removals and re-keyings, growing and shrinking, it must agree with the locked one on every GUID.
TEST_F(BagTest, TheSearchWithoutTheLibraryLockSeesWhatTheDirectoryHolds) {
  std::mt19937 rng(7);
  std::vector<Guid> guids(1500);
  for (Guid& g : guids) g = Guid::CreateUnique();
  auto dir = bag_->GetSortDir();
  auto lookUp = [&](const Guid& g, bool unlocked) {
    std::vector<JX_Stuff*> found;
    JXp_ScLock lock;
    const size_t hash = JX_SortDir::HashGuid(g);
    if (unlocked) {
      dir->ForEachWithGuidUnlocked(g, hash, [&](JX_Stuff& s) { return found.push_back(&s), true; });
    } else {
      dir->ForEachWithGuid(
          g, hash, [&](const IntrusivePtr<JX_Stuff>& s) { return found.push_back(s.get()), true; });
    }
    return found;
  };
  auto agree = [&](const Guid& g) { return lookUp(g, false) == lookUp(g, true); };
  auto allAgree = [&] { return std::all_of(guids.begin(), guids.end(), agree); };
  std::vector<IntrusivePtr<JX_Stuff>> live;
  size_t several = 0;
  for (int step = 0; step < 20000; ++step) {
    const Guid& g = guids[rng() % guids.size()];
    const unsigned op = rng() % 10;
    if (op < 6 || live.empty()) {
      // Variants 0..2 coexist under one GUID; the same variant supersedes.
      live.push_back(Variant(g, 1, static_cast<int>(rng() % 3), false));
      bag_->AddToBagAndSortDir(live.back());
    } else if (op < 9) {
      const size_t i = rng() % live.size();
      live[i]->RemoveFromBagAndSortDir();
      live[i] = std::move(live.back());
      live.pop_back();
    } else {
      live[rng() % live.size()]->SetGuid(g);  // re-keyed through the directory
    }
    std::erase_if(live, [](const IntrusivePtr<JX_Stuff>& s) { return !s->IsInSortDir(); });
    ASSERT_TRUE(agree(g)) << "step " << step;
    ASSERT_TRUE(step % 500 != 0 || allAgree()) << "step " << step;
    several += lookUp(g, false).size() > 1;
  }
  EXPECT_GT(several, 1000u) << "shared GUIDs were exercised";
  EXPECT_GT(live.size(), 64u * 16u) << "the tables grew past their first size";
  // Emptied one by one, the tables shrink back with items still in them.
  for (size_t k = 0; live.size() > 8; ++k) {
    live.back()->RemoveFromBagAndSortDir();
    live.pop_back();
    ASSERT_TRUE(k % 100 != 0 || allAgree()) << live.size() << " left";
  }
  ASSERT_TRUE(allAgree());
  bag_->ClearBagAndSortDir();
  EXPECT_TRUE(allAgree());
}

TEST_F(BagTest, MisuseIsReportedThrownAndChangesNothing) {
  auto item = AddedItem(*bag_, 10), stranger = MakeItem(3);
  JX_Bag foreign(1);
  const struct {
    const char* report;
    std::function<void()> misuse;
  } cases[] = {
      {"stuff already in a bag", [&] { bag_->AddStuff(item); }},
      {"stuff not in the right bag", [&] { foreign.RemoveStuff(item); }},
      {"stuff not in the right sortdir", [&] { bag_->GetSortDir()->RemoveStuff(stranger); }},
      // A writeable item is out of the directory but still linked to it.
      {"can't remove a writeable stuff from sortdir",
       [&] {
         JX_ScCheckout writer(item, 0);
         JXp_ScLock lock;
         bag_->RemoveStuffFromBagAndSortDir(item, lock, true);
       }},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ThrownCode(c.misuse), jx::kErrBadCall) << c.report;
    EXPECT_EQ(
        StandaloneHost::Instance().CountReports(HostReport::Kind::kFailedVerification, c.report),
        1u)
        << c.report;
  }
  EXPECT_THROW(bag_->AddStuff({}), zelcore::config::NullPtrException);
  EXPECT_EQ(bag_->GetNumItems(), 1);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
  EXPECT_TRUE(Sizes(10, 0));
}

// A field added to every item, or padding let in, is paid for once per cached payload: what only
// some items need belongs in the side record (JX_Stuff::Extras).
TEST(BagBookkeepingTest, AnItemStaysWithinItsBytes) {
  static_assert(sizeof(void*) == 8, "the budget is for 64-bit builds");
  EXPECT_LE(sizeof(JX_Stuff), 216u);
}

// The directory's hash is boost::hash_range over the GUID's bytes, computed by a table: any
// difference would scatter the items of other builds and tools. GUIDs with one byte set to each
// of its values at each position, then random ones.
TEST(DirectoryHashTest, IsBoostHashRangeOverTheBytes) {
  std::mt19937_64 rng(11);
  for (int i = 0; i < 16 * 256 + 2000; ++i) {
    std::array<uint8_t, 16> bytes{};
    if (i < 16 * 256) {
      bytes[i / 256] = static_cast<uint8_t>(i);  // position i / 256, value i % 256
    } else {
      for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
    }
    const Guid g = Guid::FromBytes(bytes.data());
    ASSERT_EQ(JX_SortDir::HashGuid(g), boost::hash_range(g.Bytes().begin(), g.Bytes().end()))
        << g.AsString();
  }
}
}  // namespace
