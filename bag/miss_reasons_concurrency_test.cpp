// Miss reasons seen from the bag: one reason a miss, none a hit, bounded classes, every miss
// counted once under contention.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bag/miss_reasons.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/miss_reasons.h"
#include "jxcache/lifecycle/statistics.h"
#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using jx::testing::AddedItem;
using jx::testing::LibraryTest;
using jx::testing::MakeRequest;
using jx::testing::TestPayload;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr int kFindOrCreate = cf::kReadOnly | cf::kCreatePending;

class NamedPayload : public TestPayload {
 public:
  explicit NamedPayload(std::string name) : TestPayload(8), name_(std::move(name)) {}
  const char* GetSubclassMatchname() const override { return name_.c_str(); }

 private:
  std::string name_;
};

class MissReasonsTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    JX_ResetStatistics();
  }
  // One look-up; a created pending item is filled at once, as a renderer would.
  static JX_CheckoutResult Look(const Guid& guid, int flags = kFindOrCreate) {
    JX_ScCheckout handle;
    const JX_CheckoutResult r = handle.FindAndCheckout(MakeRequest(guid), flags);
    if (r == kJX_CreatedPending) {
      handle.GetStuffPtr()->SetStuffDataFromPendingRender(
          IntrusivePtr<JX_StuffData>(new TestPayload(64)), 1.0);
    }
    return r;
  }
  static int64_t Count(JX_MissReason reason) { return JX_GetMissReasonsTotal().byReason[reason]; }
  static int64_t Statistic(const std::string& name) {
    for (const JX_Statistic& s : JX_GetStatistics()) {
      if (s.group == "misses" && s.name == name) return s.value;
    }
    return -1;
  }
};

TEST_F(MissReasonsTest, EachMissCountsOneReasonAndHitsCountNone) {
  // This payload's class, unless earlier tests of this process took every class slot.
  const auto known = JX_GetMissReasons();
  const bool slotLeft = known.size() < jx::miss::kMaxClasses - 1 ||
                        std::any_of(known.begin(), known.end(), [](const auto& row) {
                          return row.payloadClass == "TestPayload";
                        });
  const std::string expectedClass = slotLeft ? "TestPayload" : jx::miss::kOtherClass;

  const Guid fresh = Guid::CreateUnique();
  EXPECT_EQ(Look(fresh), kJX_CreatedPending);
  EXPECT_EQ(Count(kJX_MissNeverSeen), 1);
  EXPECT_EQ(Look(fresh), kJX_CheckedOut);  // a hit
  EXPECT_EQ(JX_GetMissReasonsTotal().total, 1);

  bag_->PurgeAllMemoryCaches();  // no disk folder: the item leaves the bag
  EXPECT_EQ(Look(fresh), kJX_CreatedPending);
  EXPECT_EQ(Count(kJX_MissMemoryPurge), 1);

  // A newer item of the same GUID replaced the old one, then went too: the key was replaced.
  const Guid replacedKey = Guid::CreateUnique();
  AddedItem(*bag_, 16, replacedKey);
  auto newer = AddedItem(*bag_, 16, replacedKey);
  ASSERT_EQ(newer->Checkout(cf::kReadOnly), kJX_CheckedOut);
  newer->Checkin(ci::kRemove, 0.0);
  EXPECT_EQ(Look(replacedKey, cf::kReadOnly), kJX_CheckoutRefused);
  EXPECT_EQ(Count(kJX_MissReplaced), 1);

  // Another thread renders; a look-up that may not wait misses, one that waits hits.
  const Guid rendered = Guid::CreateUnique();
  JX_ScCheckout renderer;
  ASSERT_EQ(renderer.FindAndCheckout(MakeRequest(rendered), kFindOrCreate), kJX_CreatedPending);
  const int64_t missesBefore = JX_GetMissReasonsTotal().total;
  std::thread([&] { EXPECT_EQ(Look(rendered), kJX_CheckoutRefused); }).join();
  EXPECT_EQ(Count(kJX_MissPendingDeadline), 1);
  const uint32_t waits = JX_GetStuffCounters().pendingWaits.load();
  std::thread waiter(
      [&] { EXPECT_EQ(Look(rendered, kFindOrCreate | cf::kWaitAlways), kJX_CheckedOut); });
  while (JX_GetStuffCounters().pendingWaits.load() == waits) std::this_thread::yield();
  renderer.GetStuffPtr()->SetStuffDataFromPendingRender(
      IntrusivePtr<JX_StuffData>(new TestPayload(64)), 1.0);
  waiter.join();
  renderer.Checkin();
  EXPECT_EQ(JX_GetMissReasonsTotal().total, missesBefore + 1) << "the waiter did not miss";

  // The statistics and the per-class rows tell the same story, and the reasons add up.
  const JX_MissReasons all = JX_GetMissReasonsTotal();
  EXPECT_EQ(all.total, 5);
  EXPECT_EQ(Statistic("total"), all.total);
  int64_t sum = 0;
  for (int r = 0; r < kJX_MissReasonCount; ++r) {
    EXPECT_EQ(Statistic(JX_MissReasonName(r)), all.byReason[r]) << JX_MissReasonName(r);
    sum += all.byReason[r];
  }
  EXPECT_EQ(sum, all.total);
  // Classes that missed in earlier tests of this process keep their rows, at zero.
  auto rows = JX_GetMissReasons();
  std::erase_if(rows, [](const auto& row) { return row.total == 0; });
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].payloadClass, expectedClass);
  EXPECT_EQ(rows[0].total, all.total);

  JX_ResetStatistics();
  EXPECT_EQ(Statistic("total"), 0);
  EXPECT_EQ(JX_GetMissReasonsTotal().total, 0);
}

TEST_F(MissReasonsTest, ClassesGoByMatchNameAndStayBounded) {
  // Class slots outlive a test: names new to each run keep a repeat from finding its own.
  static int run = 0;
  const std::string prefix = "cls" + std::to_string(run++) + "_";
  const size_t taken = JX_GetMissReasons().size();  // counts were reset: only named classes
  const size_t slotsLeft = jx::miss::kMaxClasses - 1 - taken;  // slot 0 is the fallback
  constexpr int kClasses = jx::miss::kMaxClasses + 4;
  ASSERT_GT(static_cast<size_t>(kClasses), slotsLeft) << "some must overflow into \"other\"";
  for (int i = 0; i < kClasses; ++i) {
    auto request = JX_Stuff::CreateNew(
        IntrusivePtr<JX_StuffData>(new NamedPayload(prefix + std::to_string(i))), 0.0);
    request->SetGuid(Guid::CreateUnique());
    JX_ScCheckout handle;
    EXPECT_EQ(handle.FindAndCheckout(request, cf::kReadOnly), kJX_CheckoutRefused);
  }
  const auto rows = JX_GetMissReasons();
  // The named classes fill the free slots in order; the late ones count as "other", last.
  ASSERT_EQ(rows.size(), static_cast<size_t>(jx::miss::kMaxClasses));
  if (slotsLeft > 0) {
    EXPECT_EQ(rows[taken].payloadClass, prefix + "0");
  }
  EXPECT_EQ(rows.back().payloadClass, "other");
  EXPECT_EQ(rows.back().total, static_cast<int64_t>(kClasses - slotsLeft));
  int64_t total = 0;
  for (const auto& row : rows) {
    total += row.total;
    EXPECT_EQ(row.byReason[kJX_MissNeverSeen], row.total) << row.payloadClass;
  }
  EXPECT_EQ(total, kClasses);
}

TEST_F(MissReasonsTest, TheDepartureTableForgetsAKeyWhoseSlotWasTaken) {
  const size_t hash = 0x123456789ABCDE00ull;
  jx::miss::NoteDeparture(hash, jx::miss::Reason::kFolderLimit);
  EXPECT_EQ(jx::miss::DepartureOf(hash), jx::miss::Reason::kFolderLimit);
  // A declined write explains nothing by itself, but turns a later purge without a disk copy
  // into "not worth writing"; with a disk copy it stays a memory purge.
  jx::miss::NoteWriteDeclined(hash);
  EXPECT_EQ(jx::miss::DepartureOf(hash), jx::miss::Reason::kNeverSeen);
  jx::miss::NotePurged(hash, /*hasDiskCopy=*/false);
  EXPECT_EQ(jx::miss::DepartureOf(hash), jx::miss::Reason::kNotWorthWriting);
  jx::miss::NotePurged(hash, /*hasDiskCopy=*/true);
  EXPECT_EQ(jx::miss::DepartureOf(hash), jx::miss::Reason::kMemoryPurge);
  {
    jx::miss::ScDepartureCause cause(jx::miss::Reason::kMediaManager);
    jx::miss::NotePurged(hash, false);
  }
  EXPECT_EQ(jx::miss::DepartureOf(hash), jx::miss::Reason::kMediaManager);
  // The same slot, another tag: the first key is forgotten, not misreported.
  size_t other = hash + 0x100;
  while (jx::miss::DepartureSlotOf(other) != jx::miss::DepartureSlotOf(hash)) other += 0x100;
  jx::miss::NoteDeparture(other, jx::miss::Reason::kReplaced);
  EXPECT_EQ(jx::miss::DepartureOf(hash), jx::miss::Reason::kNeverSeen);
  EXPECT_EQ(jx::miss::DepartureOf(other), jx::miss::Reason::kReplaced);
}

TEST_F(MissReasonsTest, EveryMissSeenIsCountedOnceUnderOneReason) {
  constexpr int kKeys = 48;
  constexpr int kLookupsPerThread = 3000;
  constexpr int kMinPurges = 20;
  jx::StandaloneHost::Instance().SetMemoryLimit(2000);  // room for a few dozen items, not all
  std::vector<Guid> keys(kKeys);
  for (Guid& k : keys) k = Guid::CreateUnique();

  std::atomic<int> purges{0};
  // Renderers that wait and one that never does, on until the purger has freed enough (a loaded
  // machine may give it no turn otherwise).
  auto renderer = [&](int seed, int flags, int64_t* misses) {
    std::mt19937 rng(seed);
    for (int i = 0; i < kLookupsPerThread || purges.load() < kMinPurges; ++i) {
      if (Look(keys[rng() % kKeys], flags) != kJX_CheckedOut) ++*misses;
    }
  };
  std::atomic<bool> done{false};
  std::thread purger([&] {
    while (!done.load()) {
      const long long before = bag_->GetInMemoryCacheSizeInBytes_LockFree();
      bag_->PurgeAllMemoryCaches();
      if (bag_->GetInMemoryCacheSizeInBytes_LockFree() < before) purges.fetch_add(1);
      std::this_thread::yield();
    }
  });
  constexpr int kRenderers = 4;
  std::vector<int64_t> misses(kRenderers, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kRenderers; ++t) {
    threads.emplace_back(renderer, 1000 + t, kFindOrCreate | (t == 0 ? 0 : cf::kWaitAlways),
                         &misses[t]);
  }
  for (auto& t : threads) t.join();
  done.store(true);
  purger.join();

  int64_t seen = 0;
  for (int64_t m : misses) seen += m;
  const JX_MissReasons all = JX_GetMissReasonsTotal();
  int64_t sum = 0;
  for (int r = 0; r < kJX_MissReasonCount; ++r) sum += all.byReason[r];
  EXPECT_EQ(all.total, seen);
  EXPECT_EQ(sum, seen);
  EXPECT_EQ(Statistic("total"), seen);
  // The purges and the budget took items away, and every key was new once.
  EXPECT_GT(purges.load(), 0);
  EXPECT_GT(all.byReason[kJX_MissMemoryPurge], 0);
  EXPECT_GT(all.byReason[kJX_MissNeverSeen], 0);
  // Nothing here reads from disk, replaces or hands the media manager anything.
  EXPECT_EQ(all.byReason[kJX_MissFailedRead], 0);
  EXPECT_EQ(all.byReason[kJX_MissMediaManager], 0);
  EXPECT_EQ(all.byReason[kJX_MissFolderLimit], 0);
}

}  // namespace
