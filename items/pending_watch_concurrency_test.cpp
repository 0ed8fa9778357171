// The pending watchdog reports an overdue render once, with its item, renderer and waiters.
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <thread>
#include <vector>

#include "items/pending_watch.h"
#include "jxcache/lifecycle/statistics.h"
#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace cf = jx::checkout_flags;
using jx::HostReport;
using jx::StandaloneHost;
using jx::testing::EventuallyTrue;
using jx::testing::LibraryTest;
using jx::testing::TestPayload;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr const char* kOverdueText = "has not been filled";
constexpr int kFindOrCreate = cf::kReadOnly | cf::kCreatePending | cf::kWaitAlways;

class PendingWatchTest : public LibraryTest {
 protected:
  static size_t Reports(const std::string& fragment = kOverdueText) {
    return StandaloneHost::Instance().CountReports(HostReport::Kind::kErrString, fragment);
  }
  static int64_t OverdueCounter() {
    for (const JX_Statistic& s : JX_GetStatistics()) {
      if (s.group == "checkout" && s.name == "pending_overdue") return s.value;
    }
    ADD_FAILURE() << "no checkout.pending_overdue statistic";
    return -1;
  }
  IntrusivePtr<JX_Stuff> CreatePending(const Guid& key) {
    IntrusivePtr<JX_Stuff> item;
    EXPECT_EQ(Ask(key, kFindOrCreate, &item), kJX_CreatedPending);
    return item;
  }
};

TEST_F(PendingWatchTest, OverdueRenderReportedOnceWithCreatorAndWaiters) {
  jx::pending::SetOverdueLimitMsForTests(40);
  const Guid key = Guid::CreateUnique();
  IntrusivePtr<JX_Stuff> item = CreatePending(key);
  const auto creator = zelcore::threads::CurrentThreadId();

  constexpr int kWaiters = 3;
  std::vector<std::thread> waiters;
  std::atomic<int> served{0};
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      IntrusivePtr<JX_Stuff> found;
      if (Ask(key, kFindOrCreate, &found) == kJX_CheckedOut) {
        if (found->GetDataPtr()) served.fetch_add(1);
        found->Checkin(0, 0.0);
      }
    });
  }
  ASSERT_TRUE(EventuallyTrue([&] { return item->GetPendingWaiterCount() == kWaiters; }));
  ASSERT_TRUE(EventuallyTrue([] { return Reports() > 0; })) << "never reported";
  // Several more checks go by: still one report.
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_EQ(Reports(), 1u);
  EXPECT_EQ(OverdueCounter(), 1);
  std::ostringstream thread;
  thread << "thread " << creator << ",";
  EXPECT_EQ(Reports(key.AsString()), 1u);
  EXPECT_EQ(Reports(thread.str()), 1u);
  // Streamed: GCC 12 reports a false overflow in std::string's operator+ here at -O2.
  std::ostringstream waiting;
  waiting << kWaiters << " thread(s) waiting";
  EXPECT_EQ(Reports(waiting.str()), 1u);

  // Filled late, it still reaches every waiter, and leaves the registry.
  item->SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData>(new TestPayload(10)), 0.1);
  item->Checkin(0, 0.0);
  for (auto& w : waiters) w.join();
  EXPECT_EQ(served.load(), kWaiters);
  EXPECT_EQ(item->GetPendingWaiterCount(), 0u);
  EXPECT_EQ(jx::pending::WatchedCount(), 0u);
  JX_ResetStatistics();
  EXPECT_EQ(OverdueCounter(), 0);
}

TEST_F(PendingWatchTest, InTimeAbandonedDroppedAndOffAreNeverReported) {
  jx::pending::SetOverdueLimitMsForTests(60'000);
  // Filled in time.
  IntrusivePtr<JX_Stuff> filled = CreatePending(Guid::CreateUnique());
  // Abandoned (empty payload).
  IntrusivePtr<JX_Stuff> abandoned = CreatePending(Guid::CreateUnique());
  EXPECT_EQ(jx::pending::WatchedCount(), 2u);
  filled->SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData>(new TestPayload(10)), 0.1);
  filled->Checkin(0, 0.0);
  abandoned->SetStuffDataFromPendingRender({}, 0.0);
  abandoned->Checkin(0, 0.0);
  EXPECT_EQ(jx::pending::WatchedCount(), 0u);
  // Destroyed while still pending: it must leave the registry before its memory goes.
  {
    IntrusivePtr<JX_Stuff> dropped = JX_Stuff::CreatePending(Guid::CreateUnique(), {});
    EXPECT_EQ(jx::pending::WatchedCount(), 1u);
  }
  EXPECT_EQ(jx::pending::WatchedCount(), 0u);

  // Off: nothing is noted, so nothing can be reported.
  jx::pending::SetOverdueLimitMsForTests(0);
  IntrusivePtr<JX_Stuff> unwatched = CreatePending(Guid::CreateUnique());
  EXPECT_EQ(jx::pending::WatchedCount(), 0u);
  EXPECT_EQ(jx::pending::CheckAndReport(), 0u);
  unwatched->SetStuffDataFromPendingRender({}, 0.0);
  unwatched->Checkin(0, 0.0);
  EXPECT_EQ(Reports(), 0u);
  EXPECT_EQ(OverdueCounter(), 0);
}

}  // namespace
