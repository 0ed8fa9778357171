// Check-ins made while another thread holds the library lock: they renew recency through the
// recency log, and whoever reads the order sees it as if every move had been made at once.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "bag/library_lock.h"
#include "host/standalone_host.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::testing::LibraryTest;
using jx::testing::MakeItem;
using zelcore::utility::IntrusivePtr;

namespace {

// Holds the library lock on a thread of its own until Release(): every read-only check-in made
// meanwhile has to note its move instead of making it.
class LockHolder {
 public:
  LockHolder() : thread_([this] { Run(); }) {
    std::unique_lock<std::mutex> l(m_);
    cv_.wait(l, [this] { return holding_; });
  }
  ~LockHolder() { Release(); }
  void Release() {
    {
      std::lock_guard<std::mutex> l(m_);
      release_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) thread_.join();
  }

 private:
  void Run() {
    JXp_ScLock lock;
    std::unique_lock<std::mutex> l(m_);
    holding_ = true;
    cv_.notify_all();
    cv_.wait(l, [this] { return release_; });
  }
  std::mutex m_;
  std::condition_variable cv_;
  bool holding_ = false;
  bool release_ = false;
  std::thread thread_;
};

class RecencyTest : public LibraryTest {
 protected:
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
  auto a = MakeItem(10), b = MakeItem(20), c = MakeItem(30), d = MakeItem(40);
  for (auto& s : {a, b, c, d}) bag_->AddToBagAndSortDir(s);
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

  // A purge goes by the same order: d is the oldest, then c.
  {
    LockHolder holder;
    Use(d);
  }
  jx::StandaloneHost::Instance().SetMemoryLimit(100);  // a floor of 10 bytes
  jx::PurgeOverBudget(*bag_, 1);
  EXPECT_TRUE(d->IsInMemory());
  EXPECT_FALSE(c->IsInMemory());
  EXPECT_TRUE(a->IsInMemory());
}

TEST_F(RecencyTest, StaleNotesAndNotesOfItemsThatLeftOrDiedChangeNothing) {
  auto a = MakeItem(10), b = MakeItem(20), c = MakeItem(30);
  for (auto& s : {a, b, c}) bag_->AddToBagAndSortDir(s);
  {
    LockHolder holder;
    Use(a);
    Use(b);
    Use(c);
  }
  // With the lock free again, a is moved at once, later than its note: the note is stale.
  Use(a);
  b->RemoveFromBagAndSortDir();
  b.reset();  // the note's reference is weak: the item dies here
  EXPECT_EQ(Order(), (std::vector<JX_Stuff*>{c.get(), a.get()}));
  EXPECT_EQ(bag_->GetNumMruSortedItems(), 2);
  EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2);
}

}  // namespace
