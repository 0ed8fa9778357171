// Read-only check-ins renew recency through per-thread logs, without the library lock; whoever
// reads the order sees it as if every move had been made at once, in stamp order, whichever
// thread made it, whether that thread still runs or ended while the lock was taken.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "jxcache/bag/library_lock.h"
#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using zelcore::utility::IntrusivePtr;

namespace {

// Holds the library lock on a thread of its own for its lifetime: nothing can apply the notes
// meanwhile, not even a thread that ends.
class LockHolder {
 public:
  LockHolder() { held_.get_future().wait(); }
  ~LockHolder() {
    release_.set_value();
    thread_.join();
  }

 private:
  std::promise<void> held_, release_;
  std::future<void> released_ = release_.get_future();
  std::thread thread_{[this] {
    JXp_ScLock lock;
    held_.set_value();
    released_.wait();
  }};
};

class RecencyTest : public LibraryTest {
 protected:
  std::vector<IntrusivePtr<JX_Stuff>> AddItems(int n) {
    std::vector<IntrusivePtr<JX_Stuff>> items;
    for (int i = 0; i < n; ++i) {
      items.push_back(MakeItem(10 * (i + 1)));
      bag_->AddToBagAndSortDir(items.back());
    }
    return items;
  }
  std::vector<JX_Stuff*> Order() {
    std::vector<JX_Stuff*> order;
    for (auto& s : bag_->CopyMruItems()) order.push_back(s.get());
    return order;
  }
  static void Use(const IntrusivePtr<JX_Stuff>& s) {
    ASSERT_EQ(s->Checkout(cf::kReadOnly), 1);
    s->Checkin(0, 0.0);
  }
};

TEST_F(RecencyTest, NotedMovesShowInStampOrderAndThePurgeFreesTheOldest) {
  auto items = AddItems(4);
  auto &a = items[0], &b = items[1], &c = items[2], &d = items[3];
  const uint64_t aBefore = a->GetLastUsedTime();
  {
    LockHolder holder;
    Use(c);
    Use(a);
    // Renewed at once, although the order waits for the lock.
    EXPECT_GT(a->GetLastUsedTime(), aBefore);
    EXPECT_GT(a->GetLastUsedTime(), c->GetLastUsedTime());
    std::thread other([&] { Use(b); });  // a thread that ends before anybody reads the order
    other.join();
    EXPECT_EQ(a->GetCheckoutCount(), 0u);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
  }
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{d.get(), c.get(), a.get(), b.get()}));

  // A note older than an immediate move of its item is stale (a writeable check-in moves d at
  // once), and a note of an item that left the bag and died (b's: the note's reference is weak)
  // changes nothing.
  {
    LockHolder holder;
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
    LockHolder holder;
    Use(c);
  }
  jx::StandaloneHost::Instance().SetMemoryLimit(100);  // a floor of 10 bytes
  jx::PurgeOverBudget(*bag_, 1);
  EXPECT_FALSE(a->IsInMemory());
  EXPECT_TRUE(c->IsInMemory());
  EXPECT_TRUE(d->IsInMemory());
}

// Two threads take turns using items; their logs are applied together, interleaved by stamp.
TEST_F(RecencyTest, TwoThreadsMovesInterleaveByStamp) {
  constexpr int kItems = 40;
  auto items = AddItems(kItems);
  // Uses in turn: item k by thread k % 2, in the reverse of the order they were added.
  std::mutex m;
  std::condition_variable cv;
  int turn = kItems - 1;
  auto run = [&](int parity) {
    for (;;) {
      std::unique_lock<std::mutex> l(m);
      cv.wait(l, [&] { return turn < 0 || turn % 2 == parity; });
      if (turn < 0) return;
      Use(items[turn]);
      --turn;
      cv.notify_all();
    }
  };
  std::thread even(run, 0), odd(run, 1);
  // Read before the threads end, so that both logs are still live.
  {
    std::unique_lock<std::mutex> l(m);
    cv.wait(l, [&] { return turn < 0; });
  }
  std::vector<JX_Stuff*> expected;
  for (int i = kItems - 1; i >= 0; --i) expected.push_back(items[i].get());
  EXPECT_EQ(Order(), expected);
  {
    std::lock_guard<std::mutex> l(m);
    cv.notify_all();
  }
  even.join();
  odd.join();
}

// One thread's log fills and wraps around many times while another thread keeps applying it:
// no move is lost or applied twice, and the order ends as the last uses left it.
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
      // Every few hundred uses, wait for one more apply: applying then meets the log in every
      // state, however the two threads happen to be scheduled.
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

}  // namespace
