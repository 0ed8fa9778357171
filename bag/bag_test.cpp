// The bag: recency order, size accounting, directory supersession and rejected misuse.
#include <gtest/gtest.h>

#include <boost/functional/hash.hpp>
#include <random>
#include <thread>

#include "bag/sort_dir.h"
#include "host/config.h"
#include "host/standalone_host.h"
#include "lifecycle/failures.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using jx::HostReport;
using jx::StandaloneHost;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using jx::testing::MakeRequest;
using jx::testing::PayloadBytesInBag;
using jx::testing::PayloadOf;
using jx::testing::TestPayload;
using jx::testing::ThrownCode;
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
  // At rest the running total equals what the payloads say they hold: those in the bag, plus
  // `heldOutside` bytes of items that left the bag but are still referenced.
  void ExpectTotalsMatchPayloads(long long heldOutside = 0) {
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), PayloadBytesInBag(*bag_) + heldOutside);
    EXPECT_EQ(bag_->GetNumMruSortedItems(), bag_->GetNumGuidSortedItems());
  }
  long long InMemory() const { return bag_->GetInMemoryCacheSizeInBytes_LockFree(); }
  long long CheckedOut() const { return bag_->GetCheckedOutMemoryCacheSizeInBytes(); }
  static long long PayloadSize(const IntrusivePtr<JX_Stuff>& item) {
    return item->GetDataPtr()->GetApproximateMemorySize();
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
  IntrusivePtr<JX_Stuff> Find(const Guid& guid, JX_CompressedAllowedOption option,
                              int flags = cf::kReadOnly) {
    IntrusivePtr<JX_Stuff> found;
    bool created = false;
    bag_->FindAndCheckout(MakeRequest(guid, 0, option), flags, &found, &created);
    return found;
  }
  static bool InDirectory(const IntrusivePtr<JX_Stuff>& item) {
    return item->GetBag() && item->IsInSortDir();
  }
};

TEST_F(BagTest, RecencyOrderFollowsUseAndFlagOneKeepsThePlace) {
  auto a = MakeItem(1), b = MakeItem(2), c = MakeItem(3);
  for (auto& s : {a, b, c}) bag_->AddToBagAndSortDir(s);
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{a.get(), b.get(), c.get()}));
  ASSERT_EQ(a->Checkout(cf::kReadOnly), 1);
  a->Checkin(0, 0.0);
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{b.get(), c.get(), a.get()}));
  const uint64_t before = b->GetLastUsedTime();
  ASSERT_EQ(b->Checkout(cf::kReadOnly), 1);
  b->Checkin(ci::kKeepRecency, 0.0);
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{b.get(), c.get(), a.get()}));
  EXPECT_EQ(b->GetLastUsedTime(), before);
}

TEST_F(BagTest, EqualTimesKeepTheirInsertionOrder) {
  auto a = MakeItem(1), b = MakeItem(2), c = MakeItem(3), late = MakeItem(4), x = MakeItem(5);
  const uint64_t t = 1000;
  for (auto& s : {a, b, c}) JX_BagTestAccess::AddUsedAt(*bag_, s, t);
  JX_BagTestAccess::AddUsedAt(*bag_, late, t + 5);
  // Behind every item of its own time, ahead of the later one.
  JX_BagTestAccess::AddUsedAt(*bag_, x, t);
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{a.get(), b.get(), c.get(), x.get(), late.get()}));
  {
    JXp_ScLock lock;
    bag_->UpdateWithNewLastUsedTime(b, lock);
  }
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{a.get(), c.get(), x.get(), late.get(), b.get()}));
}

TEST_F(BagTest, SizesAreExactAfterEveryKindOfChange) {
  auto item = MakeItem(100);
  auto* payload = static_cast<TestPayload*>(item->GetDataPtr().get());
  bag_->AddToBagAndSortDir(item);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 100);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);

  ASSERT_EQ(item->Checkout(cf::kReadOnly), 1);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 100);
  payload->SetReportedSize(40);  // shrinks in place while checked out
  bag_->AccountForStuffDataModification(item);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 40);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 40);
  bag_->AccountForStuffDataModification(item);  // same size again: nothing moves
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 40);
  item->Checkin(0, 0.0);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
  ExpectTotalsMatchPayloads();

  // Out of the bag the bytes still count in the global bag, until the item goes away.
  auto other = MakeItem(7);
  bag_->AddToBagAndSortDir(other);
  other->RemoveFromBagAndSortDir();
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 47);
  other.reset();
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 40);

  unsigned long long inMemory = 0, withDisk = 0;
  bag_->GetCacheSizesInBytes(inMemory, withDisk);
  EXPECT_EQ(inMemory, 40u);
  EXPECT_EQ(withDisk, 0u);

  // An item leaving another bag takes its bytes from that bag to the global one.
  auto local = std::make_shared<JX_Bag>(1);
  auto visitor = MakeItem(5);
  local->AddToBagAndSortDir(visitor);
  EXPECT_EQ(local->GetInMemoryCacheSizeInBytes_LockFree(), 5);
  visitor->RemoveFromBagAndSortDir();
  EXPECT_EQ(local->GetInMemoryCacheSizeInBytes_LockFree(), 0);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 45);
  visitor.reset();
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 40);
}

TEST_F(BagTest, ItemSyncedWithNoGlobalBagChangesNothing) {
  auto item = MakeItem(10);
  bag_->AddToBagAndSortDir(item);
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

TEST_F(BagTest, AppVersionKeepsTheLowBits) {
  JX_Bag bag(0x80000005u);
  EXPECT_EQ(bag.GetAppVersion(), 5u);
}

TEST_F(BagTest, SameGuidItemsCoexistOrSupersedeByRequest) {
  const Guid g = Guid::CreateUnique();
  auto first = MakeItem(10, g), other = MakeItem(20, g), replacement = MakeItem(30, g);
  static_cast<TestPayload*>(other->GetDataPtr().get())->SetVariant(1);
  bag_->AddToBagAndSortDir(first);
  bag_->AddToBagAndSortDir(other);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2) << "different requests share the GUID";
  bag_->AddToBagAndSortDir(replacement);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2);
  EXPECT_FALSE(first->GetBag()) << "superseded by an item answering the same request";
  EXPECT_TRUE(other->GetBag());

  other->RemoveFromBagAndSortDir();
  IntrusivePtr<JX_Stuff> found;
  bool created = false;
  ASSERT_EQ(bag_->FindAndCheckout(MakeRequest(g), cf::kReadOnly, &found, &created), 1);
  EXPECT_EQ(found, replacement);
  found->Checkin(0, 0.0);
  // Items out of the bag count in it until their last reference goes.
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 60);
  first.reset();
  other.reset();
  ExpectTotalsMatchPayloads();
}

// Regression: an item created for a request without a payload has no find-key data; it must
// still answer requests for its GUID instead of every caller creating its own pending item.
TEST_F(BagTest, ItemWithoutFindKeyAnswersByGuid) {
  const Guid g = Guid::CreateUnique();
  auto bare = [&] {
    auto r = JX_Stuff::CreateNew({}, 0.0);
    r->SetGuid(g);
    return r;
  };
  IntrusivePtr<JX_Stuff> pending, again;
  bool created = false;
  ASSERT_EQ(bag_->FindAndCheckout(bare(), cf::kReadOnly | cf::kCreatePending, &pending, &created),
            kJX_CreatedPending);
  std::thread other([&] {
    IntrusivePtr<JX_Stuff> found;
    bool c = false;
    EXPECT_EQ(bag_->FindAndCheckout(bare(), cf::kReadOnly | cf::kCreatePending, &found, &c),
              kJX_CheckoutRefused)
        << "being rendered: no second pending item";
    EXPECT_FALSE(c);
  });
  other.join();
  pending->SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData>(new TestPayload(4)), 0.0);
  pending->Checkin(0, 0.0);
  ASSERT_EQ(bag_->FindAndCheckout(bare(), cf::kReadOnly | cf::kCreatePending, &again, &created),
            kJX_CheckedOut);
  EXPECT_EQ(again, pending);
  again->Checkin(0, 0.0);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
}

// A pending item costs nothing until it is filled; an abandoned one leaves nothing behind.
TEST_F(BagTest, FindOrCreateAccountsExactlyFromPendingToFilledOrAbandoned) {
  auto resident = MakeItem(100);
  bag_->AddToBagAndSortDir(resident);
  ExpectTotalsMatchPayloads();
  ASSERT_EQ(InMemory(), 100);

  IntrusivePtr<JX_Stuff> pending;
  bool created = false;
  ASSERT_EQ(bag_->FindAndCheckout(MakeRequest(Guid::CreateUnique()),
                                  cf::kReadOnly | cf::kCreatePending, &pending, &created),
            kJX_CreatedPending);
  EXPECT_EQ(bag_->GetNumItems(), 2);
  EXPECT_EQ(InMemory(), 100);
  EXPECT_EQ(CheckedOut(), 0);
  ExpectTotalsMatchPayloads();

  pending->SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData>(new TestPayload(123)), 0.0);
  EXPECT_EQ(InMemory(), 223);
  EXPECT_EQ(CheckedOut(), 123) << "the renderer still has it checked out";
  ExpectTotalsMatchPayloads();
  pending->Checkin(0, 0.0);
  EXPECT_EQ(CheckedOut(), 0);
  EXPECT_EQ(InMemory(), 223);

  IntrusivePtr<JX_Stuff> abandoned;
  ASSERT_EQ(bag_->FindAndCheckout(MakeRequest(Guid::CreateUnique()),
                                  cf::kReadOnly | cf::kCreatePending, &abandoned, &created),
            kJX_CreatedPending);
  abandoned->SetStuffDataFromPendingRender({}, 0.0);
  EXPECT_FALSE(abandoned->GetBag());
  EXPECT_FALSE(abandoned->IsInSortDir());
  abandoned->Checkin(0, 0.0);
  abandoned.reset();
  EXPECT_EQ(bag_->GetNumItems(), 2);
  EXPECT_EQ(InMemory(), 223);
  EXPECT_EQ(CheckedOut(), 0);
  ExpectTotalsMatchPayloads();
}

TEST_F(BagTest, WriteableCheckoutAndRemovingCheckinAccountExactly) {
  auto kept = MakeItem(100), removed = MakeItem(50);
  bag_->AddToBagAndSortDir(kept);
  bag_->AddToBagAndSortDir(removed);

  ASSERT_EQ(kept->Checkout(0), kJX_CheckedOut);
  EXPECT_EQ(CheckedOut(), 100);
  EXPECT_EQ(InMemory(), 150);
  // Out of the directory while writeable, never out of the bag.
  EXPECT_EQ(InMemory(), PayloadBytesInBag(*bag_));
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
  kept->Checkin(0, 0.0);
  EXPECT_EQ(CheckedOut(), 0);
  EXPECT_EQ(InMemory(), 150);
  ExpectTotalsMatchPayloads();

  // Removed at check-in while the caller still holds it: it leaves the bag, and its bytes stay
  // counted in the global bag until the last reference goes.
  ASSERT_EQ(removed->Checkout(cf::kReadOnly), kJX_CheckedOut);
  EXPECT_EQ(CheckedOut(), 50);
  removed->Checkin(ci::kRemove, 0.0);
  EXPECT_FALSE(removed->GetBag());
  EXPECT_EQ(CheckedOut(), 0);
  EXPECT_EQ(InMemory(), 150);
  EXPECT_EQ(PayloadBytesInBag(*bag_), 100);
  ExpectTotalsMatchPayloads(PayloadSize(removed));
  removed.reset();
  EXPECT_EQ(InMemory(), 100);
  ExpectTotalsMatchPayloads();
}

// The checked-out share is always the global bag's; the room is the host's remaining budget
// plus what the asking bag holds.
TEST_F(BagTest, CheckedOutRatioIsTheGlobalShareOfTheRoom) {
  StandaloneHost::Instance().SetAmountAvailableBeforePurge(400);
  auto item = MakeItem(100);
  bag_->AddToBagAndSortDir(item);
  EXPECT_FLOAT_EQ(bag_->GetPercentOfAvailableMemoryCheckedOut(), 0.0f);
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  EXPECT_FLOAT_EQ(bag_->GetPercentOfAvailableMemoryCheckedOut(), 0.2f);  // 100 / (400 + 100)

  auto other = std::make_shared<JX_Bag>(1);
  auto big = MakeItem(300);
  other->AddToBagAndSortDir(big);
  ASSERT_EQ(other->GetInMemoryCacheSizeInBytes_LockFree(), 300);
  EXPECT_FLOAT_EQ(other->GetPercentOfAvailableMemoryCheckedOut(),
                  static_cast<float>(100.0 / 700.0));
  item->Checkin(0, 0.0);
  EXPECT_FLOAT_EQ(other->GetPercentOfAvailableMemoryCheckedOut(), 0.0f);
}

TEST_F(BagTest, SearchPrefersTheUncompressedFormAndTakesCompressedOnlyWhenAllowed) {
  // Both insertion orders: the preference must not depend on where the directory keeps them.
  for (bool compressedFirst : {true, false}) {
    SCOPED_TRACE(compressedFirst ? "compressed added first" : "uncompressed added first");
    const Guid g = Guid::CreateUnique();
    auto compressed = Variant(g, 10, 0, true), plain = Variant(g, 20, 0, false);
    bag_->AddToBagAndSortDir(compressedFirst ? compressed : plain);
    bag_->AddToBagAndSortDir(compressedFirst ? plain : compressed);
    ASSERT_EQ(bag_->GetNumGuidSortedItems(), 2) << "the two forms coexist";

    for (auto option :
         {kJX_CompressionNotAllowed, kJX_CompressionAllowed, kJX_CompressionAllowedForPlayback}) {
      auto found = Find(g, option);
      EXPECT_EQ(found, plain) << "option " << option;
      if (found) found->Checkin(0, 0.0);
    }
    // With the uncompressed form away (writeable: out of the directory), a second round finds
    // the compressed one, for requesters that accept it, and only for them.
    ASSERT_EQ(plain->Checkout(0), kJX_CheckedOut);
    EXPECT_FALSE(Find(g, kJX_CompressionNotAllowed));
    for (auto option : {kJX_CompressionAllowed, kJX_CompressionAllowedForPlayback}) {
      auto found = Find(g, option);
      EXPECT_EQ(found, compressed) << "option " << option;
      if (found) found->Checkin(0, 0.0);
    }
    plain->Checkin(0, 0.0);
    bag_->ClearBagAndSortDir();
  }
}

TEST_F(BagTest, NewItemSupersedesDeadItemsAndThoseItCanStandFor) {
  const Guid g = Guid::CreateUnique();
  // Two items the newcomer cannot stand for (other variants, other compression), nor each other;
  // one of them holds nothing any more (its payload let its memory go, no disk copy, not
  // pending).
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

  // Otherwise only items of the newcomer's compression whose request it can satisfy go. The
  // test is the newcomer's CanSatisfyRequest of the old item's request, not the reverse.
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
  for (auto* s : {&standsForAll, &same, &otherVariant, &newcomer}) s->reset();
  EXPECT_EQ(InMemory(), 4 + 32);
  ExpectTotalsMatchPayloads();
}

// A read-only search without the library lock finds candidates through each shard's table of
// sole items, and through the set only where several items share a hash. Adds, supersessions,
// removals and re-keyings, many of them on shared GUIDs, and the tables growing and shrinking,
// must leave both ways agreeing on every GUID: same items, same order, nothing left behind (an
// item freed but still in the table would be read after its release here, which the sanitizer
// run catches).
TEST_F(BagTest, TheSearchWithoutTheLibraryLockSeesWhatTheDirectoryHolds) {
  std::mt19937 rng(7);
  std::vector<Guid> guids(1500);
  for (Guid& g : guids) g = Guid::CreateUnique();
  std::vector<IntrusivePtr<JX_Stuff>> live;
  auto dir = bag_->GetSortDir();
  auto agree = [&](const Guid& g) {
    std::vector<JX_Stuff*> locked, unlocked;
    JXp_ScLock lock;
    size_t hash;
    hash = JX_SortDir::HashGuid(g);
    dir->ForEachWithGuid(g, hash, [&](const IntrusivePtr<JX_Stuff>& s) {
      locked.push_back(s.get());
      return true;
    });
    dir->ForEachWithGuidUnlocked(g, hash, [&](JX_Stuff& s) {
      unlocked.push_back(&s);
      return true;
    });
    return locked == unlocked;
  };
  size_t several = 0;
  for (int step = 0; step < 20000; ++step) {
    const Guid& g = guids[rng() % guids.size()];
    const unsigned op = rng() % 10;
    if (op < 6 || live.empty()) {
      // Variants 0..2 coexist under one GUID; the same variant supersedes.
      live.push_back(Variant(g, 1, static_cast<int>(rng() % 3), false));
      bag_->AddToBagAndSortDir(live.back());
    } else {
      const size_t i = rng() % live.size();
      if (op < 9) {
        live[i]->RemoveFromBagAndSortDir();
      } else {
        live[i]->SetGuid(g);  // re-keyed through the directory
      }
      if (op < 9) {
        live[i] = std::move(live.back());
        live.pop_back();
      }
    }
    std::erase_if(live, [](const IntrusivePtr<JX_Stuff>& s) { return !s->IsInSortDir(); });
    ASSERT_TRUE(agree(g)) << "step " << step;
    if (step % 500 == 0) {
      for (const Guid& any : guids) ASSERT_TRUE(agree(any)) << "step " << step;
    }
    size_t n = 0;
    dir->ForEachWithGuid(g, JX_SortDir::HashGuid(g), [&](const IntrusivePtr<JX_Stuff>&) {
      ++n;
      return true;
    });
    several += n > 1;
  }
  EXPECT_GT(several, 1000u) << "shared GUIDs were exercised";
  EXPECT_GT(live.size(), 64u * 16u) << "the tables grew past their first size";
  // Emptied one by one, the tables shrink back with items still in them.
  for (size_t k = 0; live.size() > 8; ++k) {
    live.back()->RemoveFromBagAndSortDir();
    live.pop_back();
    if (k % 100 == 0) {
      for (const Guid& any : guids) ASSERT_TRUE(agree(any)) << live.size() << " left";
    }
  }
  for (const Guid& g : guids) ASSERT_TRUE(agree(g));
  bag_->ClearBagAndSortDir();
  for (const Guid& g : guids) EXPECT_TRUE(agree(g));
}

// The directory hashes a GUID's sixteen bytes with boost::hash_range. Pinned against a copy of
// that function written out here, so that a Boost upgrade that changes hash_range (later
// releases do) shows up here and not as a silent change of the directory's bucket spread.
uint64_t ReferenceGuidHash(const Guid& guid) {
  constexpr uint64_t kMul = 0xC6A4A7935BD1E995ull;
  uint64_t h = 0;
  for (uint8_t byte : zelcore::utility::GuidToBytes(guid)) {
    uint64_t k = byte;
    k *= kMul;
    k ^= k >> 47;
    k *= kMul;
    h ^= k;
    h *= kMul;
    h += 0xE6546B64;
  }
  return h;
}

TEST(SortDirHashTest, GuidHashIsBoostHashRangeOverTheBytes) {
  static_assert(sizeof(size_t) == 8, "the pinned function is the 64-bit one");
  for (const Guid& g :
       {Guid::Parse("0123ABCD-0123-4567-89AB-CDEF01234567"), Guid(), Guid::CreateUnique()}) {
    const auto bytes = zelcore::utility::GuidToBytes(g);
    EXPECT_EQ(boost::hash_range(bytes.begin(), bytes.end()), ReferenceGuidHash(g)) << g.AsString();
    EXPECT_EQ(JX_SortDir::HashGuid(g), ReferenceGuidHash(g)) << g.AsString();
  }
}

TEST_F(BagTest, MisuseIsReportedThrownAndChangesNothing) {
  auto item = MakeItem(10);
  bag_->AddToBagAndSortDir(item);
  const long long size = bag_->GetInMemoryCacheSizeInBytes_LockFree();
  auto& host = StandaloneHost::Instance();

  EXPECT_EQ(ThrownCode([&] { bag_->AddStuff(item); }), jx::kErrBadCall);
  EXPECT_EQ(host.CountReports(HostReport::Kind::kFailedVerification, "stuff already in a bag"), 1u);

  JX_Bag foreign(1);
  EXPECT_EQ(ThrownCode([&] { foreign.RemoveStuff(item); }), jx::kErrBadCall);
  EXPECT_EQ(host.CountReports(HostReport::Kind::kFailedVerification, "stuff not in the right bag"),
            1u);

  ASSERT_EQ(item->Checkout(0), 1);
  {
    JXp_ScLock lock;
    // A writeable item is out of the directory but still linked to it.
    EXPECT_EQ(ThrownCode([&] { bag_->RemoveStuffFromBagAndSortDir(item, lock, true); }),
              jx::kErrBadCall);
  }
  EXPECT_EQ(host.CountReports(HostReport::Kind::kFailedVerification,
                              "can't remove a writeable stuff from sortdir"),
            1u);
  item->Checkin(0, 0.0);

  auto stranger = MakeItem(3);
  EXPECT_EQ(ThrownCode([&] { bag_->GetSortDir()->RemoveStuff(stranger); }), jx::kErrBadCall);
  EXPECT_EQ(
      host.CountReports(HostReport::Kind::kFailedVerification, "stuff not in the right sortdir"),
      1u);
  EXPECT_THROW(bag_->AddStuff({}), zelcore::config::NullPtrException);

  EXPECT_EQ(bag_->GetNumItems(), 1);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), size);
  ExpectTotalsMatchPayloads();
}

TEST_F(BagTest, FloorAndCeilingFollowTheHostBudget) {
  auto& host = StandaloneHost::Instance();
  host.SetMemoryLimit(1000);
  host.SetAmountAvailableBeforePurge(500);
  auto item = MakeItem(99);
  bag_->AddToBagAndSortDir(item);
  EXPECT_EQ(bag_->GetCurrentMaxCacheSize(), 599u);
  EXPECT_FALSE(JX_IsGlobalBagSizeAboveMinimum()) << "99 < 10% of 1000";
  auto more = MakeItem(1);
  bag_->AddToBagAndSortDir(more);
  EXPECT_TRUE(JX_IsGlobalBagSizeAboveMinimum());
  host.SetMemUsageLimitsStatus(-7);
  EXPECT_EQ(ThrownCode([] { JX_IsGlobalBagSizeAboveMinimum(); }), -7);
  host.SetMemUsageLimitsStatus(0);
}

}  // namespace
