// A receipt checked in once too often from another thread, while its memory holds a newer receipt,
// must be refused and never check that newer receipt in.
// Not a concurrency test for ThreadSanitizer: recognising a stale handle reads memory a newer
// receipt may be being built in, a race that is harmless here and the plug-in's misuse.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "compute/compute_test_support.h"

using jx::testing::ComputeSuiteTest;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kThreads = 4;
constexpr int kReceiptsPerThread = 500'000;
constexpr auto kRunFor = std::chrono::seconds(8);
// A block's count goes round after this many receipts: a handle older than that may meet its
// count again, which the header allows.
constexpr long kCountPeriod = 65535;

using ComputeStaleReceiptTest = ComputeSuiteTest;

// Runs `work(t)` on kThreads threads; a thread stuck in the library ends the program (it cannot be
// stopped, and would run on in the test's freed frame).
template <class Work>
void RunOnThreadsOrDie(Work work) {
  std::vector<std::future<void>> workers;
  for (int t = 0; t < kThreads; ++t) workers.push_back(std::async(std::launch::async, work, t));
  for (auto& w : workers) {
    if (w.wait_for(kRunFor + std::chrono::seconds(60)) != std::future_status::ready) {
      ADD_FAILURE() << "a thread hung inside the compute cache";
      std::fflush(nullptr);
      std::_Exit(1);
    }
  }
}

// Threads check in their own receipts and, carelessly, ones the others showed, whose memory is
// soon live again under a newer count: a late claim must not take the newer receipt.
TEST_F(ComputeStaleReceiptTest, AStaleHandleNeverChecksInTheNewerReceiptOfItsMemory) {
  auto r = Request(1);
  {
    KQGP_JXComputeReceipt first = nullptr;
    ASSERT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &r, true, &first), 0);
    ASSERT_EQ(suite_->CheckinReceipt(first), 0);
  }
  struct Slot {
    std::vector<KQGP_JXComputeReceipt> handles;
    std::vector<long> stamps;  // receipts handed out in all when this one was
    std::unique_ptr<std::atomic<int>[]> accepted;
    std::atomic<int> shown{-1};
  };
  std::vector<Slot> slots(kThreads);
  for (Slot& s : slots) {
    s.handles.assign(kReceiptsPerThread, nullptr);
    s.stamps.assign(kReceiptsPerThread, 0);
    s.accepted = std::make_unique<std::atomic<int>[]>(kReceiptsPerThread);
    for (int i = 0; i < kReceiptsPerThread; ++i) s.accepted[i] = 0;
  }
  std::atomic<long> handedOut{0}, lateAcceptances{0}, failedCheckouts{0};
  const auto until = Clock::now() + kRunFor;

  auto worker = [&](int me) {
    std::minstd_rand pick(me + 1);
    auto req = r;
    Slot& mine = slots[me];
    for (int i = 0; i < kReceiptsPerThread && Clock::now() < until; ++i) {
      KQGP_JXComputeReceipt h = nullptr;
      if (suite_->CheckoutCached(kClass, &req, &h) != 0) {
        failedCheckouts.fetch_add(1);
        break;
      }
      mine.handles[i] = h;
      mine.stamps[i] = handedOut.fetch_add(1) + 1;
      mine.shown.store(i, std::memory_order_release);
      // Somebody else's receipt, shown a moment ago: checked in by mistake.
      const int other = (me + 1 + static_cast<int>(pick() % (kThreads - 1))) % kThreads;
      const int j = slots[other].shown.load(std::memory_order_acquire);
      if (j >= 0 && suite_->CheckinReceipt(slots[other].handles[j]) == 0) {
        if (handedOut.load() - slots[other].stamps[j] < kCountPeriod) {
          slots[other].accepted[j].fetch_add(1);
        } else {
          lateAcceptances.fetch_add(1);
        }
      }
      if (suite_->CheckinReceipt(h) == 0) mine.accepted[i].fetch_add(1);
    }
  };
  RunOnThreadsOrDie(worker);

  long twice = 0, never = 0, total = 0;
  for (Slot& s : slots) {
    for (int i = 0; i <= s.shown.load(); ++i) {
      ++total;
      twice += s.accepted[i] > 1;
      never += s.accepted[i] == 0;
    }
  }
  EXPECT_EQ(failedCheckouts.load(), 0);
  EXPECT_EQ(twice, 0) << "of " << total
                      << " receipts, these were accepted by two check-ins: a stale handle was "
                         "taken for the newer receipt its memory held";
  // A handle older than the count period can no longer be told from the newer receipt of its
  // memory: each late acceptance may leave that receipt's own check-in refused, and no more.
  EXPECT_LE(never, lateAcceptances.load())
      << "of " << total
      << " receipts, these were refused to every check-in: their memory had been "
         "checked in through a stale handle (late acceptances, not counted: "
      << lateAcceptances << ")";
  EXPECT_EQ(stats_.computes.load(), 1);
}

}  // namespace
