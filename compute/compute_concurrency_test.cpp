// The compute cache under contention: two classes, all three modes, failing computes, purges.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "compute/compute_test_support.h"
#include "compute/compute_value.h"
#include "standalone/standalone_host.h"

using jx::testing::ComputeSuiteTest;
using jx::testing::KeyOfValue;
using jx::testing::kPluginCallbacks;

namespace {

constexpr int kWorkers = 4;
constexpr int kOpsPerWorker = 4000;
constexpr int kKeysPerClass = 300;
constexpr int kClassBOffset = 1000;  // class B's keys, so a value tells which class made it
constexpr int32_t kComputeFailure = 99;
constexpr const char* kClassB = "test.compute.b";

using ComputeConcurrencyTest = ComputeSuiteTest;

TEST_F(ComputeConcurrencyTest, OneComputePerKeyEveryValueDeletedOnceNoHang) {
  ASSERT_EQ(suite_->ClassRegister(kClassB, &kPluginCallbacks), 0);
  // Room for a few hundred values, so purges really free some.
  jx::StandaloneHost::Instance().SetMemoryLimit(2'000'000);
  std::vector<std::atomic<int>> inFlight(2 * kClassBOffset);
  std::atomic<int> overlaps{0}, wrongValues{0}, unexpectedCodes{0}, successes{0};
  std::atomic<int> failedComputes{0};
  std::atomic<bool> workersDone{false};

  std::thread purger([&] {
    for (int round = 0; !workersDone.load(); ++round) {
      if (round % 2) {
        jx::PurgeOverBudget(*bag_, 200'000);
      } else {
        bag_->PurgeAllMemoryCaches();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });

  auto work = [&](int seed) {
    std::mt19937 rng(static_cast<uint32_t>(seed));
    for (int op = 0; op < kOpsPerWorker; ++op) {
      const bool classB = rng() % 2;
      const char* classId = classB ? kClassB : kClass;
      auto r = Request(static_cast<int>(rng() % kKeysPerClass) + (classB ? kClassBOffset : 0));
      const int mode = static_cast<int>(rng() % 3);
      if (rng() % 10 == 0) r.computeError = kComputeFailure;
      r.duringCompute = [&, key = r.key] {
        if (inFlight[key].fetch_add(1) != 0) overlaps.fetch_add(1);
        std::this_thread::yield();
        inFlight[key].fetch_sub(1);
      };

      KQGP_JXComputeReceipt receipt = nullptr;
      const int32_t code =
          mode == 0 ? suite_->CheckoutCached(classId, &r, &receipt)
                    : suite_->ComputeIfNeededAndCheckout(classId, &r, mode == 2, &receipt);
      // 22: being computed elsewhere (or not cached); 3: the compute waited for failed.
      if (code == kComputeFailure) failedComputes.fetch_add(1);
      if (code != 0 && code != kComputeFailure && code != kKQGPComputeCacheNotAvailable &&
          code != kKQGPComputeCacheBadParameter) {
        unexpectedCodes.fetch_add(1);
      }
      if (code != 0) continue;
      successes.fetch_add(1);
      intptr_t value = 0;
      if (suite_->GetReceiptComputeValue(receipt, &value) != 0 || KeyOfValue(value) != r.key) {
        wrongValues.fetch_add(1);
      }
      if (suite_->CheckinReceipt(receipt) != 0) wrongValues.fetch_add(1);
    }
  };

  std::vector<std::thread> workers;
  for (int t = 0; t < kWorkers; ++t) workers.emplace_back(work, 100 + t);
  for (auto& w : workers) w.join();
  workersDone = true;
  purger.join();

  EXPECT_EQ(overlaps.load(), 0) << "two computes of one key were in flight at once";
  EXPECT_EQ(wrongValues.load(), 0);
  EXPECT_EQ(unexpectedCodes.load(), 0);
  EXPECT_GT(successes.load(), 0);
  EXPECT_GT(failedComputes.load(), 0);
  // Each compute failed or made one value; the fixture checks each was deleted exactly once.
  EXPECT_EQ(stats_.computes.load(), stats_.creates.load() + failedComputes.load());
  EXPECT_GT(stats_.deletes.load(), 0) << "the purging thread freed values while workers ran";
  suite_->ClassUnregister(kClassB);
}

// One receipt checked in from two threads at once: accepted once, or its block goes back to the
// pool twice and two live receipts share it.
TEST_F(ComputeConcurrencyTest, AReceiptCheckedInFromTwoThreadsAtOnceIsCheckedInOnce) {
  auto r = Request(1);
  constexpr int kRounds = 500;
  int bothAccepted = 0, noneAccepted = 0;
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (int round = 0; round < kRounds; ++round) {
    KQGP_JXComputeReceipt receipt = nullptr;
    ASSERT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &r, true, &receipt), 0);
    std::atomic<int> ready{0};
    int32_t codes[2] = {-1, -1};
    auto checkin = [&](int i) {
      ready.fetch_add(1);
      // Bounded: the other thread has been started and only has to arrive.
      while (ready.load() < 2 && std::chrono::steady_clock::now() < giveUp) {
      }
      codes[i] = suite_->CheckinReceipt(receipt);
    };
    std::thread a(checkin, 0), b(checkin, 1);
    a.join();
    b.join();
    const int accepted = (codes[0] == 0) + (codes[1] == 0);
    bothAccepted += accepted == 2;
    noneAccepted += accepted == 0;
  }
  EXPECT_EQ(bothAccepted, 0) << "a receipt was checked in twice";
  EXPECT_EQ(noneAccepted, 0);
  // Receipts held at once never share a block.
  std::vector<KQGP_JXComputeReceipt> held(64, nullptr);
  for (auto& h : held) ASSERT_EQ(suite_->CheckoutCached(kClass, &r, &h), 0);
  std::set<KQGP_JXComputeReceipt> distinct(held.begin(), held.end());
  EXPECT_EQ(distinct.size(), held.size());
  for (auto h : held) suite_->CheckinReceipt(h);
}

// Read without its mutex while another thread replaces or purges the value, an entry's class and
// handle always belong to one value.
TEST(ComputeEntryFactsTest, ReadersSeeOneValueAtATime) {
  const KQGP_ComputeCacheCallbacks noDelete = {kPluginCallbacks.generate_key,
                                               kPluginCallbacks.compute,
                                               kPluginCallbacks.approx_size_value, [](intptr_t) {}};
  auto valueOf = [&](const char* classId, intptr_t handle) {
    return new JXComputeValue(classId, noDelete,
                              std::make_unique<JXComputeValueHolder>(nullptr, handle));
  };
  const KQGP_GUID key = jx::testing::PluginKeyOf(5);
  GenericJXComputeStuffData entry(key);
  std::atomic<bool> done{false};
  std::atomic<int> mixed{0}, seenA{0}, seenB{0}, started{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 2; ++t) {
    readers.emplace_back([&] {
      started.fetch_add(1);
      while (!done.load()) {
        const auto facts = entry.Inspect("test.a");
        if (facts.key != zelcore::utility::Guid::FromBytes(key.bytes)) mixed.fetch_add(1);
        if (!facts.hasValue) continue;
        const bool isA = facts.sameClass && facts.refcon == 1;
        const bool isB = !facts.sameClass && facts.refcon == 2;
        if (!isA && !isB) mixed.fetch_add(1);
        (isA ? seenA : seenB).fetch_add(1);
      }
    });
  }
  while (started.load() < 2) std::this_thread::yield();
  // On, however the threads are scheduled, until the readers have met values a good many times.
  for (int round = 0; round < 20000 || (seenA.load() + seenB.load() < 2000 && round < 2'000'000);
       ++round) {
    entry.SetValue(round % 2 ? valueOf("test.a", 1) : valueOf("test.b", 2));
    if (round % 7 == 0) entry.PurgeIfPossible(nullptr);
  }
  done = true;
  for (auto& r : readers) r.join();
  EXPECT_EQ(mixed.load(), 0);
  EXPECT_GT(seenA.load() + seenB.load(), 0);
}

}  // namespace
