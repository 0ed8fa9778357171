// The compute cache under contention, through the C table: worker threads on two classes and
// hundreds of keys in all three modes, some computes failing, while another thread purges.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "compute/compute_test_plugin.h"
#include "host/standalone_host.h"

using jx::testing::ComputeSuiteTest;
using jx::testing::KeyOfValue;
using jx::testing::kPluginCallbacks;
using jx::testing::PluginRequest;

namespace {

constexpr int kWorkers = 4;
constexpr int kOpsPerWorker = 4000;
constexpr int kKeysPerClass = 300;
constexpr int kClassBOffset = 1000;  // class B's keys, so a value tells which class made it
constexpr int32_t kComputeFailure = 99;

class ComputeConcurrencyTest : public ComputeSuiteTest {
 protected:
  static constexpr const char* kClassB = "test.compute.b";
  void SetUp() override {
    ComputeSuiteTest::SetUp();
    ASSERT_EQ(suite_->ClassRegister(kClassB, &kPluginCallbacks), 0);
    // Room for a few hundred values, so purges really free some.
    jx::StandaloneHost::Instance().SetMemoryLimit(2'000'000);
  }
  void TearDown() override {
    suite_->ClassUnregister(kClassB);
    ComputeSuiteTest::TearDown();
  }
};

TEST_F(ComputeConcurrencyTest, OneComputePerKeyEveryValueDeletedOnceNoHang) {
  std::vector<std::atomic<int>> inFlight(2 * kClassBOffset);
  std::atomic<int> overlaps{0}, wrongValues{0}, selfCallsNot22{0}, failedComputes{0};
  std::mutex codesMutex;
  std::map<int32_t, int> codes;
  std::atomic<bool> workersDone{false};

  std::thread purger([&] {
    std::mt19937 rng(7);
    while (!workersDone.load()) {
      if (rng() % 2) {
        jx::PurgeOverBudget(*bag_, 200'000);
      } else {
        bag_->PurgeAllMemoryCaches();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });

  auto work = [&](int seed) {
    std::mt19937 rng(static_cast<uint32_t>(seed));
    std::map<int32_t, int> seen;
    for (int op = 0; op < kOpsPerWorker; ++op) {
      const bool classB = rng() % 2;
      const char* classId = classB ? kClassB : kClass;
      auto r = Request(static_cast<int>(rng() % kKeysPerClass) + (classB ? kClassBOffset : 0));
      const int mode = static_cast<int>(rng() % 3);
      if (rng() % 10 == 0) r.computeError = kComputeFailure;
      const bool callSelf = rng() % 20 == 0;
      PluginRequest self = r;
      self.duringCompute = nullptr;
      r.duringCompute = [&, key = r.key, callSelf, classId] {
        if (inFlight[key].fetch_add(1) != 0) overlaps.fetch_add(1);
        std::this_thread::yield();
        if (callSelf) {
          KQGP_JXComputeReceipt receipt = nullptr;
          if (suite_->ComputeIfNeededAndCheckout(classId, &self, true, &receipt) !=
              kKQGPComputeCacheNotAvailable) {
            selfCallsNot22.fetch_add(1);
            suite_->CheckinReceipt(receipt);
          }
        }
        inFlight[key].fetch_sub(1);
      };

      KQGP_JXComputeReceipt receipt = nullptr;
      const int32_t code =
          mode == 0 ? suite_->CheckoutCached(classId, &r, &receipt)
                    : suite_->ComputeIfNeededAndCheckout(classId, &r, mode == 2, &receipt);
      ++seen[code];
      if (code == kComputeFailure) failedComputes.fetch_add(1);
      if (code != 0) continue;
      intptr_t value = 0;
      if (suite_->GetReceiptComputeValue(receipt, &value) != 0 || KeyOfValue(value) != r.key) {
        wrongValues.fetch_add(1);
      }
      if (suite_->CheckinReceipt(receipt) != 0) wrongValues.fetch_add(1);
    }
    std::lock_guard<std::mutex> lock(codesMutex);
    for (auto [code, n] : seen) codes[code] += n;
  };

  std::vector<std::thread> workers;
  for (int t = 0; t < kWorkers; ++t) workers.emplace_back(work, 100 + t);
  for (auto& w : workers) w.join();
  workersDone = true;
  purger.join();

  EXPECT_EQ(overlaps.load(), 0) << "two computes of one key were in flight at once";
  EXPECT_EQ(wrongValues.load(), 0);
  EXPECT_EQ(selfCallsNot22.load(), 0);
  int total = 0;
  for (auto [code, n] : codes) {
    total += n;
    EXPECT_TRUE(code == 0 || code == kKQGPComputeCacheNotAvailable ||
                code == kKQGPComputeCacheBadParameter || code == kComputeFailure)
        << "unexpected code " << code << " (" << n << " times)";
  }
  EXPECT_EQ(total, kWorkers * kOpsPerWorker);
  EXPECT_GT(codes[0], 0);
  EXPECT_GT(failedComputes.load(), 0);
  // Every compute either failed or created exactly one value; the fixture checks after shut-down
  // that each of them was deleted exactly once.
  EXPECT_EQ(stats_.computes.load(), stats_.creates.load() + failedComputes.load());
  EXPECT_GT(stats_.deletes.load(), 0) << "the purging thread freed values while workers ran";
}

}  // namespace
