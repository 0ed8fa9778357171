// The recency log: read-only check-ins note their moves in per-thread logs, without the library
// lock, and whoever reads the order sees every note applied in stamp order.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "bag/recency_log.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/host/high_precision_time.h"
#include "jxcache/host/host_services.h"
#include "jxcache/host/open_once_gate.h"
#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::testing::AddedItem;
using jx::testing::LibraryTest;
using jx::testing::TestPayload;
using zelcore::utility::HighPrecisionTime;
using zelcore::utility::IntrusivePtr;

namespace {

class RecencyTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    // Stamps well after every item's own: a note always moves an item that is still in its bag.
    base_ = HighPrecisionTime::GetCurrentTimeStamp() + (uint64_t{1} << 40);
  }
  std::vector<IntrusivePtr<JX_Stuff>> AddItems(int n) {
    std::vector<IntrusivePtr<JX_Stuff>> items;
    for (int i = 0; i < n; ++i) items.push_back(AddedItem(*bag_, 10 * (i + 1)));
    return items;
  }
  // The order after every note is applied (the copy applies them first).
  std::vector<JX_Stuff*> Order() {
    std::vector<JX_Stuff*> order;
    for (auto& s : bag_->CopyMruItems()) order.push_back(s.get());
    return order;
  }
  static void Use(const IntrusivePtr<JX_Stuff>& s) {
    ASSERT_EQ(s->Checkout(cf::kReadOnly), kJX_CheckedOut);
    s->Checkin(0, 0.0);
  }
  static void ApplyNow() {
    JXp_ScLock lock;
    jx::recency::ApplyAll(lock);
  }
  uint64_t At(int step) const { return base_ + 10 * static_cast<uint64_t>(step); }

  uint64_t base_ = 0;
};
class RecencyLogTest : public RecencyTest {};

TEST_F(RecencyLogTest, NotesOfLiveAndEndedThreadsApplyInStampOrder) {
  auto items = AddItems(6);
  JX_Stuff &a = *items[0], &b = *items[1], &c = *items[2], &d = *items[3], &e = *items[4];
  JX_Stuff& untouched = *items[5];
  // Three logs: this thread's, one of a thread still running at the apply, and one of a thread
  // that ended before it (its notes are kept as orphans).
  jx::recency::Note(a, At(5));
  jx::recency::Note(c, At(1));
  std::promise<void> noted, applied;
  std::thread live([&] {
    jx::recency::Note(e, At(2));
    jx::recency::Note(a, At(4));  // older than this thread's later note of a: a ends at 5
    noted.set_value();
    applied.get_future().wait();
  });
  noted.get_future().wait();
  std::thread([&] {
    jx::recency::Note(b, At(3));
    jx::recency::Note(d, At(6));
  }).join();
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{&untouched, &c, &e, &b, &a, &d}));
  applied.set_value();
  live.join();

  // Applied already: a note older than the item's place changes nothing, a newer one moves it.
  jx::recency::Note(a, At(2));
  jx::recency::Note(b, At(7));
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{&untouched, &c, &e, &a, &d, &b}));
}

TEST_F(RecencyLogTest, AFullLogAppliesItselfAndWrapsAroundWithoutLosingANote) {
  auto items = AddItems(3);
  JX_Stuff &x = *items[0], &y = *items[1], &z = *items[2];
  ApplyNow();  // whatever this thread noted before starts from an empty log
  const int room = static_cast<int>(jx::recency::kNotesPerThread);
  {
    // Every note but the one that fills the log is taken without the library lock: one that
    // waited for it would never end.
    jx::testing::LibraryLockHolder holder;
    for (int i = 1; i < room; ++i) jx::recency::Note(x, At(i));
  }
  // The note that fills the log applies it. x then leaves and comes back (with a fresh, far
  // older stamp), then z does: x's notes, had they been left for later, would move x past z.
  jx::recency::Note(y, At(room));
  for (const auto& s : {items[0], items[2]}) {
    s->RemoveFromBagAndSortDir();
    bag_->AddToBagAndSortDir(s);
  }
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{&x, &z, &y}));

  // Many times the log's room: each fill applies, the ring wraps, the last notes decide.
  const int notes = 5 * room + 17;
  for (int i = 0; i < notes; ++i) jx::recency::Note(*items[i % 3], At(room + 1 + i));
  JX_Stuff* last = items[(notes - 1) % 3].get();
  JX_Stuff* beforeLast = items[(notes - 2) % 3].get();
  JX_Stuff* first = items[(notes - 3) % 3].get();
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{first, beforeLast, last}));
}

TEST_F(RecencyLogTest, NotesOfItemsThatLeftDiedOrLostTheirBagChangeNothing) {
  auto items = AddItems(3);
  IntrusivePtr<JX_Stuff> left = items[0], died = items[1], stays = items[2];
  items.clear();
  auto otherBag = std::make_shared<JX_Bag>(1);
  IntrusivePtr<JX_Stuff> orphaned = AddedItem(*otherBag, 10);
  const int livePayloads = TestPayload::LiveCount().load();

  for (JX_Stuff* s : {left.get(), died.get(), stays.get(), orphaned.get()})
    jx::recency::Note(*s, At(1));
  left->RemoveFromBagAndSortDir();
  died->RemoveFromBagAndSortDir();
  died.reset();  // the note's reference is weak: the item goes now
  EXPECT_EQ(TestPayload::LiveCount().load(), livePayloads - 1);
  otherBag.reset();  // the bag goes; its item lives on outside any bag

  ApplyNow();
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{stays.get()}));
  EXPECT_FALSE(left->GetBag());
  EXPECT_FALSE(orphaned->GetBag());
  // The apply let go of what it held once the lock was released.
  EXPECT_EQ(left->GetRefCount(), 1);
  EXPECT_EQ(orphaned->GetRefCount(), 1);
  EXPECT_EQ(bag_->GetNumMruSortedItems(), 1);
}

// Check-ins while the lock is held elsewhere, this thread's and one of a thread that ended:
// the order shows their stamps; a note older than an immediate move of its item is stale.
TEST_F(RecencyTest, NotedMovesShowInStampOrderAndThePurgeFreesTheOldest) {
  auto items = AddItems(4);
  auto &a = items[0], &b = items[1], &c = items[2], &d = items[3];
  const uint64_t aBefore = a->GetLastUsedTime();
  {
    jx::testing::LibraryLockHolder holder;
    Use(c);
    Use(a);
    // Renewed at once, although the order waits for the lock.
    EXPECT_GT(a->GetLastUsedTime(), aBefore);
    EXPECT_GT(a->GetLastUsedTime(), c->GetLastUsedTime());
    std::thread([&] { Use(b); }).join();
    EXPECT_EQ(a->GetCheckoutCount(), 0u);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
  }
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{d.get(), c.get(), a.get(), b.get()}));

  // d's note is older than its writeable check-in's immediate move.
  {
    jx::testing::LibraryLockHolder holder;
    Use(d);
    Use(a);
  }
  ASSERT_EQ(d->Checkout(0), kJX_CheckedOut);
  d->Checkin(0, 0.0);
  Use(b);
  b->RemoveFromBagAndSortDir();
  b.reset();
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{c.get(), a.get(), d.get()}));
  EXPECT_EQ(bag_->GetNumMruSortedItems(), 3);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 3);

  // A purge applies the notes first: c, noted last, is not the oldest any more; a is.
  {
    jx::testing::LibraryLockHolder holder;
    Use(c);
  }
  jx::StandaloneHost::Instance().SetMemoryLimit(100);  // a floor of 10 bytes
  jx::PurgeOverBudget(*bag_, 1);
  EXPECT_FALSE(a->IsInMemory());
  EXPECT_TRUE(c->IsInMemory());
  EXPECT_TRUE(d->IsInMemory());
}

// One thread's log wraps around many times while another keeps applying it: no move is lost or
// applied twice, and the order ends as the last uses left it.
TEST_F(RecencyTest, AWrappingLogAppliedMeanwhileKeepsEveryMove) {
  constexpr int kItems = 50;
  constexpr int kUses = 5000;  // about twenty times a log's room
  constexpr int kUsesPerMeeting = 300;
  auto items = AddItems(kItems);
  std::atomic<bool> done{false};
  std::atomic<int> applies{0};
  std::thread user([&] {
    for (int i = 0; i < kUses; ++i) {
      Use(items[i % kItems]);
      // Every few hundred uses, wait for one more apply, so that applies meet the log in every
      // state however the threads are scheduled.
      if (i % kUsesPerMeeting == 0) {
        const int seen = applies.load();
        while (applies.load() == seen) std::this_thread::yield();
      }
    }
    done = true;
  });
  while (!done) {
    EXPECT_EQ(Order().size(), static_cast<size_t>(kItems));
    ++applies;
  }
  user.join();
  std::vector<JX_Stuff*> expected;
  for (auto& s : items) expected.push_back(s.get());
  EXPECT_EQ(Order(), expected);
  EXPECT_GE(applies.load(), kUses / kUsesPerMeeting);
}

// The default clock, except that the first stamp it gives a thread marked to stall is handed
// over only once the test lets it go: that thread's check-in is caught between taking its stamp
// and storing it. Records the first stamp it gave each marked thread.
class StallingClock : public jx::host::Clock {
 public:
  uint64_t NowNanoseconds() override {
    const uint64_t t = jx::host::DefaultClock().NowNanoseconds();
    {
      std::lock_guard<std::mutex> l(mutex_);
      auto marked = first_.find(std::this_thread::get_id());
      if (marked == first_.end() || marked->second != 0) return t;
      marked->second = t;
      if (marked->first != stalling_) return t;
    }
    stalled_.Open();
    released_.WaitFor(std::chrono::seconds(30));  // a test that never lets go fails on its own wait
    return t;
  }
  uint64_t MillisecondsSinceBoot() override {
    return jx::host::DefaultClock().MillisecondsSinceBoot();
  }
  void SleepFor(std::chrono::nanoseconds d) override { jx::host::DefaultClock().SleepFor(d); }

  void Mark(bool stall) {
    std::lock_guard<std::mutex> l(mutex_);
    first_[std::this_thread::get_id()] = 0;
    if (stall) stalling_ = std::this_thread::get_id();
  }
  bool WaitUntilStalled(std::chrono::seconds bound) { return stalled_.WaitFor(bound); }
  void Release() { released_.Open(); }
  std::vector<uint64_t> Stamps() {
    std::lock_guard<std::mutex> l(mutex_);
    std::vector<uint64_t> out;
    for (const auto& [thread, t] : first_) out.push_back(t);
    return out;
  }

 private:
  std::mutex mutex_;
  std::map<std::thread::id, uint64_t> first_;
  std::thread::id stalling_;
  zelcore::threads::OpenOnceGate stalled_, released_;
};

// Two holders of one item check it in at once. Whatever the interleaving, the item's last-used
// time ends as the later of their two uses: it is what the disk folder's size keeping and the
// purge's "last purged" time go by, and the recency order places the item by that later use.
TEST_F(RecencyTest, TwoOverlappingCheckinsLeaveTheLaterUseAsTheLastUsedTime) {
  auto items = AddItems(1);
  const auto& x = items[0];
  ASSERT_EQ(x->Checkout(cf::kReadOnly), kJX_CheckedOut);
  ASSERT_EQ(x->Checkout(cf::kReadOnly), kJX_CheckedOut);
  // A fresh clock for every run: a repeated run in one process must not find the last run's
  // marks and open gates. Never destroyed: a library thread may still be inside a call when it
  // is uninstalled.
  static auto* const clocks = new std::vector<std::unique_ptr<StallingClock>>;
  StallingClock& clock = *clocks->emplace_back(std::make_unique<StallingClock>());
  jx::host::InstallClock(&clock);
  std::thread first([&] {
    clock.Mark(/*stall=*/true);
    x->Checkin(0, 0.0);
  });
  const bool stalled = clock.WaitUntilStalled(std::chrono::seconds(10));
  auto second = std::async(std::launch::async, [&] {
    clock.Mark(/*stall=*/false);
    x->Checkin(0, 0.0);
  });
  // The second may have to wait for the first: it is let go after a while either way.
  second.wait_for(std::chrono::seconds(2));
  clock.Release();
  first.join();
  const bool secondDone = second.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
  jx::host::InstallClock(nullptr);
  ASSERT_TRUE(stalled) << "the first check-in never asked the clock";
  ASSERT_TRUE(secondDone) << "the second check-in hung";
  const std::vector<uint64_t> stamps = clock.Stamps();
  ASSERT_EQ(stamps.size(), 2u);
  ASSERT_TRUE(stamps[0] != 0 && stamps[1] != 0);
  EXPECT_EQ(x->GetLastUsedTime(), std::max(stamps[0], stamps[1]))
      << "the item's last use went back to the earlier check-in's";
  EXPECT_EQ(x->GetCheckoutCount(), 0u);
}

}  // namespace
