// The compute cache as a plug-in sees it: through the C table acquired from the host.
#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <thread>

#include "compute/compute_core.h"
#include "compute/compute_test_plugin.h"
#include "compute/compute_value.h"
#include "host/standalone_host.h"
#include "host/y_api.h"

using jx::HostReport;
using jx::StandaloneHost;
using jx::testing::KeyOfValue;
using jx::testing::kPluginCallbacks;
using jx::testing::PluginKeyOf;
using jx::testing::PluginRequest;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr int32_t k22 = kKQGPComputeCacheNotAvailable;
constexpr int32_t kBad = kKQGPComputeCacheBadParameter;
constexpr int32_t kUnknown = kKQGPComputeCacheClassNotRegistered;
constexpr HostReport::Kind kVerification = HostReport::Kind::kFailedVerification;

size_t Reports(HostReport::Kind kind, const char* fragment) {
  return StandaloneHost::Instance().CountReports(kind, fragment);
}

void WaitUntil(const std::function<bool()>& condition) {
  while (!condition()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

class ComputeTest : public jx::testing::ComputeSuiteTest {
 protected:
  // Asks for `r`, reads the handle into *value (0 when refused) and checks the receipt in.
  int32_t Fetch(PluginRequest& r, bool wait, intptr_t* value = nullptr,
                const char* classId = kClass) {
    KQGP_JXComputeReceipt receipt = nullptr;
    const int32_t err = suite_->ComputeIfNeededAndCheckout(classId, &r, wait, &receipt);
    intptr_t v = 0;
    if (err == 0) {
      EXPECT_EQ(suite_->GetReceiptComputeValue(receipt, &v), 0);
    }
    EXPECT_EQ(suite_->CheckinReceipt(receipt), 0);
    if (value) *value = v;
    return err;
  }
  // Starts a thread computing `r` slowly (until Release) and returns once compute is running.
  std::thread StartSlowCompute(PluginRequest& r, int32_t expected) {
    r.duringCompute = [this] { release_.wait(); };
    std::thread t([this, &r, expected] { EXPECT_EQ(Fetch(r, true), expected); });
    WaitUntil([&] { return stats_.computes.load() == 1; });
    return t;
  }
  // Runs `body` on a thread and returns once it waits for a value being computed.
  std::thread StartWaiter(std::function<void()> body) {
    const uint64_t before = JX_GetStuffCounters().pendingWaits.load();
    std::thread t(std::move(body));
    WaitUntil([&] { return JX_GetStuffCounters().pendingWaits.load() > before; });
    return t;
  }
  std::latch release_{1};
};

TEST_F(ComputeTest, SameRequestComputesOnceAndSharesTheHandle) {
  auto r = Request(7);
  KQGP_JXComputeReceipt first = nullptr, second = nullptr;
  ASSERT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &r, true, &first), 0);
  ASSERT_EQ(suite_->CheckoutCached(kClass, &r, &second), 0);
  intptr_t a = 0, b = 0;
  EXPECT_EQ(suite_->GetReceiptComputeValue(first, &a), 0);
  EXPECT_EQ(suite_->GetReceiptComputeValue(second, &b), 0);
  EXPECT_EQ(suite_->CheckinReceipt(first), 0);
  EXPECT_EQ(suite_->CheckinReceipt(second), 0);
  EXPECT_EQ(a, b);
  EXPECT_EQ(KeyOfValue(a), 7);
  EXPECT_EQ(Fetch(r, false, &b), 0);
  EXPECT_EQ(a, b);
  EXPECT_EQ(stats_.computes.load(), 1);

  // The same key in another class is another value.
  ASSERT_EQ(suite_->ClassRegister("test.other", &kPluginCallbacks), 0);
  EXPECT_EQ(Fetch(r, true, &b, "test.other"), 0);
  EXPECT_NE(a, b);
  EXPECT_EQ(stats_.computes.load(), 2);
  JX_ComputeClassUnregister("test.other");
}

TEST_F(ComputeTest, CheckoutCachedOnANewRequestIs22AndNeverComputes) {
  auto r = Request(1);
  KQGP_JXComputeReceipt receipt = nullptr;
  EXPECT_EQ(suite_->CheckoutCached(kClass, &r, &receipt), k22);
  EXPECT_EQ(receipt, nullptr);
  EXPECT_EQ(stats_.keys.load(), 1);
  EXPECT_EQ(stats_.computes.load(), 0);
  EXPECT_EQ(bag_->GetNumItems(), 0);
}

TEST_F(ComputeTest, CallersOfAKeyBeingComputedGet22OrWaitForTheSameHandle) {
  auto slow = Request(5);
  std::thread computer = StartSlowCompute(slow, 0);
  auto r = Request(5);
  EXPECT_EQ(Fetch(r, false), k22);
  KQGP_JXComputeReceipt receipt = nullptr;
  EXPECT_EQ(suite_->CheckoutCached(kClass, &r, &receipt), k22);
  {
    Y::ScNotifyHoldingMutexLock mustNotBlock;
    EXPECT_EQ(Fetch(r, true), k22);
  }
  using zelcore::debug::CodeProfiler;
  CodeProfiler::SetConditionalProfilingVolume(CodeProfiler::kDefaultVolume);
  const uint64_t loggedWaits = jx::compute::ThreadWaitingLog().Count();
  intptr_t waited = 0;
  std::thread waiter = StartWaiter([&] { EXPECT_EQ(Fetch(r, true, &waited), 0); });
  release_.count_down();
  computer.join();
  waiter.join();
  CodeProfiler::SetConditionalProfilingVolume(0);
  intptr_t cached = 0;
  EXPECT_EQ(Fetch(r, false, &cached), 0);
  EXPECT_EQ(waited, cached);
  EXPECT_EQ(stats_.computes.load(), 1);
  EXPECT_EQ(jx::compute::ThreadWaitingLog().Count(), loggedWaits + 1);
}

TEST_F(ComputeTest, FailingComputeReturnsItsCodeAndItsWaiterGets3) {
  auto failing = Request(9);
  failing.computeError = 42;
  std::thread computer = StartSlowCompute(failing, 42);
  auto r = Request(9);
  std::thread waiter = StartWaiter([&] { EXPECT_EQ(Fetch(r, true), kBad); });
  release_.count_down();
  computer.join();
  waiter.join();
  EXPECT_EQ(Reports(kVerification, "missing compute value"), 1u);
  EXPECT_EQ(bag_->GetNumItems(), 0) << "nothing stored";
  KQGP_JXComputeReceipt receipt = nullptr;
  EXPECT_EQ(suite_->CheckoutCached(kClass, &r, &receipt), k22);

  // A handle a failing compute left behind is deleted at once; the key is free for a retry.
  r.computeError = 43;
  r.leaveValueOnFailure = true;
  EXPECT_EQ(Fetch(r, true), 43);
  EXPECT_EQ(stats_.deletes.load(), 1);
  r.computeError = 0;
  EXPECT_EQ(Fetch(r, false), 0);
}

TEST_F(ComputeTest, ComputeMayCallTheSuiteAgainButNeverWaitsForItself) {
  auto outer = Request(1), inner = Request(2), same = Request(1);
  outer.duringCompute = [&] {
    KQGP_JXComputeReceipt receipt = nullptr;
    EXPECT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &same, true, &receipt), k22);
    EXPECT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &same, false, &receipt), k22);
    EXPECT_EQ(Fetch(inner, true), 0);
  };
  EXPECT_EQ(Fetch(outer, true), 0);
  EXPECT_EQ(stats_.computes.load(), 2);
  EXPECT_EQ(bag_->GetNumItems(), 2);
}

TEST_F(ComputeTest, BadParametersReturnTheirCodesAndChangeNothing) {
  auto r = Request(3);
  KQGP_JXComputeReceipt receipt = nullptr;
  auto notNull = reinterpret_cast<KQGP_JXComputeReceipt>(&r);
  EXPECT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &r, true, &notNull), kBad);
  EXPECT_EQ(Reports(kVerification, "receipt already exists"), 1u);
  EXPECT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &r, true, nullptr), kBad);
  EXPECT_EQ(suite_->CheckoutCached(nullptr, &r, &receipt), kBad);
  EXPECT_EQ(suite_->ComputeIfNeededAndCheckout("test.unknown", &r, true, &receipt), kUnknown);
  r.keyError = 17;
  EXPECT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &r, true, &receipt), 17);
  EXPECT_EQ(suite_->CheckoutCached(kClass, &r, &receipt), 17);
  intptr_t value = 0;
  EXPECT_EQ(suite_->GetReceiptComputeValue(nullptr, &value), kBad);
  EXPECT_EQ(Reports(kVerification, "bad compute receipt"), 1u);
  EXPECT_EQ(receipt, nullptr);
  EXPECT_EQ(stats_.computes.load(), 0);
  EXPECT_EQ(bag_->GetNumItems(), 0);
}

TEST_F(ComputeTest, CheckinRefusesAnythingThatIsNotALiveReceipt) {
  EXPECT_EQ(suite_->CheckinReceipt(nullptr), 0);
  EXPECT_TRUE(StandaloneHost::Instance().GetReports().empty());
  alignas(16) unsigned char foreign[256], copy[256];
  std::memset(foreign, 0xAB, sizeof foreign);
  std::memcpy(copy, foreign, sizeof foreign);
  EXPECT_EQ(suite_->CheckinReceipt(reinterpret_cast<KQGP_JXComputeReceipt>(foreign)), 2);
  EXPECT_EQ(Reports(HostReport::Kind::kError, "Trying to check in invalid receipt"), 1u);
  EXPECT_EQ(std::memcmp(foreign, copy, sizeof foreign), 0) << "the memory is left alone";
  EXPECT_EQ(suite_->CheckinReceipt(reinterpret_cast<KQGP_JXComputeReceipt>(foreign + 1)), 2);

  auto r = Request(4);
  KQGP_JXComputeReceipt receipt = nullptr;
  ASSERT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &r, true, &receipt), 0);
  EXPECT_EQ(suite_->CheckinReceipt(receipt), 0);
  EXPECT_EQ(suite_->CheckinReceipt(receipt), 2) << "checked in twice";
  intptr_t value = 0;
  EXPECT_EQ(suite_->GetReceiptComputeValue(receipt, &value), kBad);
  EXPECT_EQ(Reports(HostReport::Kind::kError, "Trying to check in invalid receipt"), 3u);
  // (The fixture checks that nothing is left checked out, or checked in once too often.)
}

TEST_F(ComputeTest, RegistrationNeedsEveryCallbackAndTheFirstOneWins) {
  KQGP_ComputeCacheCallbacks found{};
  KQGP_ComputeCacheCallbacks partial[4] = {kPluginCallbacks, kPluginCallbacks, kPluginCallbacks,
                                           kPluginCallbacks};
  partial[0].generate_key = nullptr;
  partial[1].compute = nullptr;
  partial[2].approx_size_value = nullptr;
  partial[3].delete_compute_value = nullptr;
  for (const auto& cb : partial) EXPECT_EQ(suite_->ClassRegister("test.partial", &cb), kBad);
  EXPECT_EQ(Reports(kVerification, "Missing required callback"), 4u);
  EXPECT_EQ(JX_ComputeClassFind("test.partial", &found), kUnknown);

  // The registry keeps its own copy, and the second registration of a name is dropped.
  KQGP_ComputeCacheCallbacks first = kPluginCallbacks, second = kPluginCallbacks;
  second.approx_size_value = [](intptr_t) -> size_t { return 1; };
  ASSERT_EQ(suite_->ClassRegister("p", &first), 0);
  first = second;
  EXPECT_EQ(suite_->ClassRegister("p", &second), 0);
  ASSERT_EQ(JX_ComputeClassFind("p", &found), 0);
  EXPECT_EQ(found.approx_size_value, kPluginCallbacks.approx_size_value);
  // A prefix and the empty identifier are classes of their own.
  EXPECT_EQ(JX_ComputeClassFind("pq", &found), kUnknown);
  EXPECT_EQ(JX_ComputeClassFind("", &found), kUnknown);
  ASSERT_EQ(suite_->ClassRegister("", &second), 0);
  ASSERT_EQ(JX_ComputeClassFind("", &found), 0);
  EXPECT_EQ(found.approx_size_value, second.approx_size_value);
  EXPECT_EQ(suite_->ClassUnregister("p"), 0);
  EXPECT_EQ(suite_->ClassUnregister("p"), 0);
  EXPECT_EQ(suite_->ClassUnregister(""), 0);
  EXPECT_EQ(JX_ComputeClassFind("p", &found), kUnknown);
}

TEST_F(ComputeTest, UnregisteredClassValuesStayUsableAndAreDeletedByThePurgingThread) {
  auto a = Request(1), b = Request(2);
  KQGP_JXComputeReceipt held = nullptr;
  ASSERT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &a, true, &held), 0);
  ASSERT_EQ(Fetch(b, true), 0);
  ASSERT_EQ(suite_->ClassUnregister(kClass), 0);
  StandaloneHost::Instance().SetMemoryLimit(100);  // the purge floor well below the cache
  EXPECT_EQ(Fetch(a, true), kUnknown);
  intptr_t value = 0;
  EXPECT_EQ(suite_->GetReceiptComputeValue(held, &value), 0);
  EXPECT_EQ(KeyOfValue(value), 1);

  // The checked-out value survives a purge; each other one is deleted on the purging thread.
  std::thread::id purgers[2];
  std::thread([&] {
    purgers[0] = std::this_thread::get_id();
    jx::PurgeOverBudget(*bag_, 1u << 30);
  }).join();
  EXPECT_EQ(stats_.deletes.load(), 1);
  EXPECT_EQ(suite_->CheckinReceipt(held), 0);
  EXPECT_EQ(stats_.deletes.load(), 1) << "the entry still holds the checked-in value";
  std::thread([&] {
    purgers[1] = std::this_thread::get_id();
    bag_->PurgeAllMemoryCaches();
  }).join();
  EXPECT_EQ(stats_.deleteThreads, std::vector<std::thread::id>(purgers, purgers + 2));
  EXPECT_EQ(bag_->GetNumItems(), 0);
}

// Entries planted under a key's GUID that a compute could not have produced are refused.
TEST_F(ComputeTest, EntriesThatFailAConsistencyCheckAreNotHandedOut) {
  auto entryKey = [](int key) { return jx::compute::MakeEntryKey(kClass, PluginKeyOf(key)); };
  auto entry = [&](int key, const char* classId, intptr_t handle) {
    auto value = std::make_shared<JXComputeValue>(
        classId, kPluginCallbacks, std::make_unique<JXComputeValueHolder>(nullptr, handle));
    return IntrusivePtr<JX_StuffData>(new GenericJXComputeStuffData(entryKey(key), value));
  };
  const IntrusivePtr<JX_StuffData> payloads[] = {
      IntrusivePtr<JX_StuffData>(new jx::testing::TestPayload(10)), entry(99, kClass, 5),
      entry(3, "x", 5), entry(4, kClass, 0)};
  const char* messages[] = {"wrong type", "mismatch between Stuff GUID", "creator of cached item",
                            "missing refcon"};
  for (int key = 1; key <= 4; ++key) {
    auto item = JX_Stuff::CreateNew(payloads[key - 1], 0.0);
    item->SetGuid(zelcore::utility::Guid::FromBytes(entryKey(key).bytes));
    bag_->AddToBagAndSortDir(item);
    auto r = Request(key);
    EXPECT_EQ(Fetch(r, true), kBad) << key;
    EXPECT_EQ(Reports(kVerification, messages[key - 1]), 1u) << key;
  }
  // A compute that succeeds without producing a handle is stored, and refused the same way.
  auto r = Request(6);
  r.zeroHandle = true;
  EXPECT_EQ(Fetch(r, true), kBad);
  EXPECT_EQ(Reports(kVerification, "missing refcon"), 2u);
  EXPECT_EQ(stats_.computes.load(), 1);
}

TEST_F(ComputeTest, AFailedHostAllocationRefusesTheReceipt) {
  auto r = Request(2);
  ASSERT_EQ(Fetch(r, true), 0);
  StandaloneHost::Instance().FailNthAllocation(1);
  EXPECT_EQ(Fetch(r, true), kBad);
  EXPECT_EQ(Reports(kVerification, "JXCompute alloc failure"), 1u);
  EXPECT_EQ(Fetch(r, false), 0) << "the entry was checked back in and is still cached";
  EXPECT_EQ(stats_.computes.load(), 1);
}

// A miss refused for memory computes nothing and caches nothing.
TEST_F(ComputeTest, AFailedHostAllocationOnAMissLeavesTheCacheAsItWas) {
  auto r = Request(3);
  const int items = bag_->GetNumItems();
  const long long bytes = bag_->GetInMemoryCacheSizeInBytes_LockFree();
  StandaloneHost::Instance().FailNthAllocation(1);
  EXPECT_EQ(Fetch(r, true), kBad);
  EXPECT_EQ(stats_.computes.load(), 0);
  EXPECT_EQ(bag_->GetNumItems(), items);
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), bytes);
  EXPECT_EQ(Fetch(r, true), 0);
  EXPECT_EQ(stats_.computes.load(), 1);
}

}  // namespace
