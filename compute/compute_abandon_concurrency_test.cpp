// A compute that the plug-in abandons (its compute fails) while other callers wait for it: every
// waiter wakes with the failure, and soon (a generous bound: a busy machine must not fail it).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "compute/compute_test_support.h"

using jx::testing::ComputeSuiteTest;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kWaiters = 8;
constexpr int kRounds = 40;
constexpr int32_t kAbandoned = 77;

using ComputeAbandonTest = ComputeSuiteTest;

bool WaitUntil(const std::function<bool()>& done) {
  const auto until = Clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (Clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

TEST_F(ComputeAbandonTest, WaitersOfAnAbandonedComputeWakePromptly) {
  Clock::duration slowest{};
  for (int round = 0; round < kRounds; ++round) {
    const uint64_t waitsBefore = JX_GetStuffCounters().pendingWaits.load();
    std::atomic<bool> computing{false};
    Clock::time_point abandonedAt;
    auto computer = Request(round);
    computer.computeError = kAbandoned;
    computer.duringCompute = [&] {
      computing = true;
      // Every waiter is at the gate (plus a moment to park there) before the compute gives up.
      EXPECT_TRUE(WaitUntil(
          [&] { return JX_GetStuffCounters().pendingWaits.load() >= waitsBefore + kWaiters; }));
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      abandonedAt = Clock::now();
    };
    std::thread computeThread([&] {
      KQGP_JXComputeReceipt receipt = nullptr;
      EXPECT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &computer, true, &receipt), kAbandoned);
    });
    ASSERT_TRUE(WaitUntil([&] { return computing.load(); }));

    std::vector<Clock::time_point> wokeAt(kWaiters);
    std::vector<std::thread> waiters;
    for (int w = 0; w < kWaiters; ++w) {
      waiters.emplace_back([&, w] {
        auto r = Request(round);
        KQGP_JXComputeReceipt receipt = nullptr;
        const int32_t code = suite_->ComputeIfNeededAndCheckout(kClass, &r, true, &receipt);
        wokeAt[w] = Clock::now();
        EXPECT_EQ(code, kKQGPComputeCacheBadParameter) << "the failure it waited for";
        EXPECT_EQ(receipt, nullptr);
      });
    }
    computeThread.join();
    for (auto& t : waiters) t.join();
    for (const auto& t : wokeAt) slowest = std::max(slowest, t - abandonedAt);
  }
  EXPECT_LT(slowest, std::chrono::seconds(1)) << "a waiter slept through the abandonment";
}

}  // namespace
