// The compute cache as a plug-in sees it: through the C table acquired from the host.
#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <thread>

#include "compute/compute_core.h"
#include "compute/compute_test_support.h"
#include "compute/compute_value.h"
#include "host/y_api.h"
#include "standalone/standalone_host.h"

using jx::HostReport;
using jx::StandaloneHost;
using jx::compute::Mode;
using jx::testing::EventuallyTrue;
using jx::testing::KeyOfValue;
using jx::testing::kPluginCallbacks;
using jx::testing::PluginRequest;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr int32_t k22 = kKQGPComputeCacheNotAvailable;
constexpr int32_t kBad = kKQGPComputeCacheBadParameter;
constexpr int32_t kUnknown = kKQGPComputeCacheClassNotRegistered;
constexpr HostReport::Kind kVerification = HostReport::Kind::kFailedVerification;
constexpr Mode kCached = Mode::kCachedOnly, kNoWait = Mode::kNoWait, kWait = Mode::kWait;

size_t Reports(HostReport::Kind kind, const char* fragment) {
  return StandaloneHost::Instance().CountReports(kind, fragment);
}

class ComputeTest : public jx::testing::ComputeSuiteTest {
 protected:
  // Asks for `r` in `mode`, reads the handle into *value (0 when refused), checks the receipt in.
  int32_t Fetch(PluginRequest& r, Mode mode, intptr_t* value = nullptr,
                const char* classId = kClass) {
    KQGP_JXComputeReceipt receipt = nullptr;
    const int32_t err =
        mode == kCached ? suite_->CheckoutCached(classId, &r, &receipt)
                        : suite_->ComputeIfNeededAndCheckout(classId, &r, mode == kWait, &receipt);
    intptr_t v = 0;
    EXPECT_EQ(receipt != nullptr, err == 0);
    if (err == 0) {
      EXPECT_EQ(suite_->GetReceiptComputeValue(receipt, &v), 0);
    }
    EXPECT_EQ(suite_->CheckinReceipt(receipt), 0);
    if (value) *value = v;
    return err;
  }
};
class ComputeWaitTest : public ComputeTest, public ::testing::WithParamInterface<int32_t> {};

// A compute asking for its own key is refused rather than waiting for itself.
TEST_F(ComputeTest, EachKeyIsComputedOnceAndEveryCheckoutSharesTheHandle) {
  auto r = Request(7), same = Request(7), inner = Request(8);
  EXPECT_EQ(Fetch(r, kCached), k22) << "a cached-only miss never computes";

  r.duringCompute = [&] {
    EXPECT_EQ(Fetch(same, kWait), k22);
    EXPECT_EQ(Fetch(same, kNoWait), k22);
    EXPECT_EQ(Fetch(inner, kWait), 0);
  };
  KQGP_JXComputeReceipt held = nullptr;
  ASSERT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &r, true, &held), 0);
  intptr_t a = 0, b = 0, c = 0;
  EXPECT_EQ(suite_->GetReceiptComputeValue(held, &a), 0);
  EXPECT_EQ(Fetch(same, kCached, &b), 0) << "while the first receipt is still out";
  EXPECT_EQ(suite_->CheckinReceipt(held), 0);
  EXPECT_EQ(Fetch(same, kNoWait, &c), 0);
  EXPECT_EQ(KeyOfValue(a), 7);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a, c);
  EXPECT_EQ(stats_.computes.load(), 2);
  EXPECT_EQ(bag_->GetNumItems(), 2);

  // The same key in another class is another value.
  ASSERT_EQ(suite_->ClassRegister("test.other", &kPluginCallbacks), 0);
  EXPECT_EQ(Fetch(same, kWait, &b, "test.other"), 0);
  EXPECT_NE(a, b);
  EXPECT_EQ(stats_.computes.load(), 3);
  JX_ComputeClassUnregister("test.other");
}

// Callers that may not wait (a notifying lock could stall the compute) get 22; a waiter gets the
// computed handle, or 3 when the compute fails and stores nothing.
TEST_P(ComputeWaitTest, CallersOfAKeyBeingComputedGet22OrWaitForItsOutcome) {
  const int32_t error = GetParam();
  auto slow = Request(5), r = Request(5);
  slow.computeError = error;
  std::latch release(1);
  slow.duringCompute = [&] { release.wait(); };
  std::thread computer([&] { EXPECT_EQ(Fetch(slow, kWait), error); });
  EXPECT_TRUE(EventuallyTrue([&] { return stats_.computes.load() == 1; }));
  EXPECT_EQ(Fetch(r, kNoWait), k22);
  EXPECT_EQ(Fetch(r, kCached), k22);
  {
    Y::ScNotifyHoldingMutexLock mustNotBlock;
    EXPECT_EQ(Fetch(r, kWait), k22);
  }
  intptr_t waited = 0, cached = 0;
  const uint64_t waits = JX_GetStuffCounters().pendingWaits.load();
  std::thread waiter([&] { EXPECT_EQ(Fetch(r, kWait, &waited), error ? kBad : 0); });
  EXPECT_TRUE(EventuallyTrue([&] { return JX_GetStuffCounters().pendingWaits.load() > waits; }));
  release.count_down();
  computer.join();
  waiter.join();
  EXPECT_EQ(Reports(kVerification, "missing compute value"), error ? 1u : 0u);
  EXPECT_EQ(Fetch(r, kCached, &cached), error ? k22 : 0);
  EXPECT_EQ(waited, cached);
  EXPECT_EQ(bag_->GetNumItems(), error ? 0 : 1);
  EXPECT_EQ(stats_.computes.load(), 1);
}
INSTANTIATE_TEST_SUITE_P(SucceedingOrFailing, ComputeWaitTest, ::testing::Values(0, 42));

// Misuse at the C boundary and a host out of memory get a code (reported) and change nothing.
TEST_F(ComputeTest, MisuseAndRefusalsReturnACodeAndChangeNothing) {
  auto r = Request(3);
  KQGP_JXComputeReceipt receipt = nullptr;
  auto notNull = reinterpret_cast<KQGP_JXComputeReceipt>(&r);
  EXPECT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &r, true, &notNull), kBad);
  EXPECT_EQ(Reports(kVerification, "receipt already exists"), 1u);
  EXPECT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &r, true, nullptr), kBad);
  EXPECT_EQ(suite_->CheckoutCached(nullptr, &r, &receipt), kBad);
  EXPECT_EQ(Fetch(r, kWait, nullptr, "test.unknown"), kUnknown);
  intptr_t value = 0;
  EXPECT_EQ(suite_->GetReceiptComputeValue(nullptr, &value), kBad);
  EXPECT_EQ(Reports(kVerification, "bad compute receipt"), 1u);
  // The host's memory is probed before anything is searched, computed or cached.
  StandaloneHost::Instance().FailNthAllocation(1);
  EXPECT_EQ(Fetch(r, kWait), kBad);
  EXPECT_EQ(Reports(kVerification, "JXCompute alloc failure"), 1u);
  r.keyError = 17;
  EXPECT_EQ(Fetch(r, kWait), 17);
  EXPECT_EQ(Fetch(r, kCached), 17);
  EXPECT_EQ(stats_.computes.load(), 0);
  EXPECT_EQ(bag_->GetNumItems(), 0);

  r.keyError = 0;
  ASSERT_EQ(Fetch(r, kWait), 0);
  StandaloneHost::Instance().FailNthAllocation(1);
  EXPECT_EQ(Fetch(r, kWait), kBad) << "a hit refused for memory...";
  ASSERT_EQ(suite_->CheckoutCached(kClass, &r, &receipt), 0) << "...leaves its entry cached";
  EXPECT_EQ(stats_.computes.load(), 1);
  // Check-in refuses anything that is not a live receipt, and leaves its memory alone.
  EXPECT_EQ(suite_->CheckinReceipt(receipt), 0);
  EXPECT_EQ(suite_->CheckinReceipt(receipt), 2) << "checked in twice";
  EXPECT_EQ(suite_->GetReceiptComputeValue(receipt, &value), kBad);
  // A stale receipt whose memory holds a newer one: refused, the newer one stays usable.
  KQGP_JXComputeReceipt newer = nullptr;
  ASSERT_EQ(suite_->CheckoutCached(kClass, &r, &newer), 0);
  const auto address = [](KQGP_JXComputeReceipt h) {
    return reinterpret_cast<uintptr_t>(h) & ((uintptr_t{1} << 48) - 1);
  };
  ASSERT_EQ(address(newer), address(receipt)) << "the block was not reused: nothing tested";
  EXPECT_EQ(suite_->CheckinReceipt(receipt), 2) << "a stale receipt";
  EXPECT_EQ(suite_->GetReceiptComputeValue(receipt, &value), kBad);
  EXPECT_EQ(suite_->GetReceiptComputeValue(newer, &value), 0);
  EXPECT_EQ(suite_->CheckinReceipt(newer), 0);
  EXPECT_EQ(suite_->CheckinReceipt(nullptr), 0);
  alignas(16) unsigned char foreign[256], copy[256];
  std::memset(foreign, 0xAB, sizeof foreign);
  std::memcpy(copy, foreign, sizeof foreign);
  EXPECT_EQ(suite_->CheckinReceipt(reinterpret_cast<KQGP_JXComputeReceipt>(foreign)), 2);
  EXPECT_EQ(std::memcmp(foreign, copy, sizeof foreign), 0);
  EXPECT_EQ(suite_->CheckinReceipt(reinterpret_cast<KQGP_JXComputeReceipt>(foreign + 1)), 2);
  EXPECT_EQ(Reports(HostReport::Kind::kError, "Trying to check in invalid receipt"), 4u);
  // (The fixture checks that nothing is left checked out, or checked in once too often.)
}

// The registry copies the callbacks; the first registration wins; "" is a name, not a prefix.
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

  KQGP_ComputeCacheCallbacks first = kPluginCallbacks, second = kPluginCallbacks;
  second.approx_size_value = [](intptr_t) -> size_t { return 1; };
  ASSERT_EQ(suite_->ClassRegister("p", &first), 0);
  first = second;
  EXPECT_EQ(suite_->ClassRegister("p", &second), 0);
  ASSERT_EQ(JX_ComputeClassFind("p", &found), 0);
  EXPECT_EQ(found.approx_size_value, kPluginCallbacks.approx_size_value);
  EXPECT_EQ(JX_ComputeClassFind("", &found), kUnknown);
  ASSERT_EQ(suite_->ClassRegister("", &second), 0);
  ASSERT_EQ(JX_ComputeClassFind("", &found), 0);
  EXPECT_EQ(found.approx_size_value, second.approx_size_value);
  // Unregistering twice is harmless, and a lookup cached before is not answered from the cache.
  EXPECT_EQ(suite_->ClassUnregister("p"), 0);
  EXPECT_EQ(suite_->ClassUnregister("p"), 0);
  EXPECT_EQ(JX_ComputeClassFind("p", &found), kUnknown);
  EXPECT_EQ(suite_->ClassUnregister(""), 0);
}

// A thread's last-asked class, replaced by an inner compute's, must not misfile the outer value;
// a class registered again must be asked with its new callbacks.
TEST_F(ComputeTest, ClassesAskedForInsideAComputeOrRegisteredAgainUseTheirOwnCallbacks) {
  constexpr const char* kOther = "test.compute.other";
  ASSERT_EQ(suite_->ClassRegister(kOther, &kPluginCallbacks), 0);
  auto outer = Request(1), inner = Request(2);
  outer.duringCompute = [&] { EXPECT_EQ(Fetch(inner, kWait, nullptr, kOther), 0); };
  ASSERT_EQ(Fetch(outer, kWait), 0);
  intptr_t value = 0;
  EXPECT_EQ(Fetch(outer, kCached, &value), 0);
  EXPECT_EQ(KeyOfValue(value), 1);
  EXPECT_EQ(Fetch(inner, kCached, &value, kOther), 0);
  EXPECT_EQ(KeyOfValue(value), 2);
  EXPECT_EQ(Reports(kVerification, ""), 0u);

  // The same identifier, now with keys offset by 100: request 1 is another entry.
  KQGP_ComputeCacheCallbacks offset = kPluginCallbacks;
  offset.generate_key = [](void* request, KQGP_GUID* outKey) -> int32_t {
    *outKey = jx::testing::PluginKeyOf(static_cast<PluginRequest*>(request)->key + 100);
    return 0;
  };
  ASSERT_EQ(suite_->ClassUnregister(kClass), 0);
  ASSERT_EQ(suite_->ClassRegister(kClass, &offset), 0);
  EXPECT_EQ(Fetch(outer, kCached), k22) << "asked with the callbacks of before";
  EXPECT_EQ(Fetch(outer, kWait), 0);
  EXPECT_EQ(stats_.computes.load(), 3);
  suite_->ClassUnregister(kOther);
}

TEST_F(ComputeTest, UnregisteredClassValuesStayUsableAndAreDeletedByThePurgingThread) {
  auto a = Request(1), b = Request(2);
  KQGP_JXComputeReceipt held = nullptr;
  ASSERT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &a, true, &held), 0);
  ASSERT_EQ(Fetch(b, kWait), 0);
  ASSERT_EQ(suite_->ClassUnregister(kClass), 0);
  StandaloneHost::Instance().SetMemoryLimit(100);  // the purge floor well below the cache
  EXPECT_EQ(Fetch(a, kWait), kUnknown);
  intptr_t value = 0;
  EXPECT_EQ(suite_->GetReceiptComputeValue(held, &value), 0);
  EXPECT_EQ(KeyOfValue(value), 1);

  // The checked-out value survives a purge; each other one is deleted on the purging thread.
  std::vector<std::thread::id> purgers;
  auto purgeOnAThread = [&](std::function<void()> purge) {
    std::thread([&] {
      purgers.push_back(std::this_thread::get_id());
      purge();
    }).join();
  };
  purgeOnAThread([&] { jx::PurgeOverBudget(*bag_, 1u << 30); });
  EXPECT_EQ(stats_.deletes.load(), 1);
  EXPECT_EQ(suite_->CheckinReceipt(held), 0);
  EXPECT_EQ(stats_.deletes.load(), 1) << "the entry still holds the checked-in value";
  purgeOnAThread([&] { bag_->PurgeAllMemoryCaches(); });
  EXPECT_EQ(stats_.deleteThreads, purgers);
  EXPECT_EQ(bag_->GetNumItems(), 0);
}

// A compute that purges or checks in keeps its own entry; one that throws stores nothing, gets a
// code and leaves its key free.
TEST_F(ComputeTest, AComputeThatPurgesChecksInOrThrowsLeavesTheCacheConsistent) {
  auto idle = Request(1), held = Request(2), outer = Request(3);
  ASSERT_EQ(Fetch(idle, kWait), 0);
  KQGP_JXComputeReceipt heldReceipt = nullptr;
  ASSERT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &held, true, &heldReceipt), 0);
  StandaloneHost::Instance().SetMemoryLimit(100);  // the purge floor well below the cache
  auto same = Request(3);
  outer.duringCompute = [&] {
    EXPECT_EQ(Fetch(same, kCached), k22) << "its own key, still being computed";
    bag_->PurgeAllMemoryCaches();
    jx::PurgeOverBudget(*bag_, 1u << 30);
    EXPECT_EQ(stats_.deletes.load(), 1) << "only the idle value goes";
    EXPECT_EQ(suite_->CheckinReceipt(heldReceipt), 0);
  };
  intptr_t value = 0;
  EXPECT_EQ(Fetch(outer, kWait, &value), 0);
  EXPECT_EQ(KeyOfValue(value), 3);
  EXPECT_EQ(Fetch(outer, kCached, &value), 0);
  EXPECT_EQ(KeyOfValue(value), 3);
  EXPECT_EQ(Fetch(held, kCached, &value), 0);
  EXPECT_EQ(KeyOfValue(value), 2);

  auto thrower = Request(4);
  int throws = 0;
  thrower.duringCompute = [&] {
    ++throws;
    throw std::runtime_error("plug-in failure");
  };
  EXPECT_NE(Fetch(thrower, kWait), 0);
  EXPECT_EQ(throws, 1);
  thrower.duringCompute = nullptr;
  EXPECT_EQ(Fetch(thrower, kCached), k22) << "nothing stored";
  EXPECT_EQ(Fetch(thrower, kNoWait, &value), 0) << "the key is free to compute again";
  EXPECT_EQ(KeyOfValue(value), 4);
}

// A receipt may be checked in on another thread or after shut-down, and either way only once.
TEST_F(ComputeTest, ReceiptsCheckedInOnAnotherThreadOrAfterShutDownAreCheckedInOnce) {
  constexpr int32_t kInvalid = kKQGPComputeCacheInvalidReceipt;
  auto r = Request(1), s = Request(2);
  KQGP_JXComputeReceipt elsewhere = nullptr, late = nullptr;
  ASSERT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &r, true, &elsewhere), 0);
  ASSERT_EQ(suite_->ComputeIfNeededAndCheckout(kClass, &s, true, &late), 0);
  int32_t codes[2] = {-1, -1};
  std::thread([&] {
    codes[0] = suite_->CheckinReceipt(elsewhere);
    codes[1] = suite_->CheckinReceipt(elsewhere);
  }).join();
  EXPECT_EQ(codes[0], 0);
  EXPECT_EQ(codes[1], kInvalid);
  EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 1000);

  bag_.reset();
  JX_StopAllAsyncWork();
  JX_Death();
  EXPECT_EQ(stats_.deletes.load(), 1) << "the receipt still holds its value";
  EXPECT_EQ(suite_->CheckinReceipt(late), 0);
  EXPECT_EQ(stats_.deletes.load(), 2);
  EXPECT_EQ(suite_->CheckinReceipt(late), kInvalid);
  JX_Birth(false, 1, false);
  bag_ = JX_GlobalBag();
  EXPECT_EQ(Fetch(s, kCached), k22);
}

// Entries planted under a key's GUID that a compute could not have produced are refused.
TEST_F(ComputeTest, EntriesAComputeCouldNotHaveProducedAreNotHandedOut) {
  auto entryKey = [](int key) {
    return jx::compute::MakeEntryKey(kClass, jx::testing::PluginKeyOf(key));
  };
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
    EXPECT_EQ(Fetch(r, kWait), kBad) << key;
    EXPECT_EQ(Reports(kVerification, messages[key - 1]), 1u) << key;
  }
  // A compute that succeeds without producing a handle is stored, and refused the same way.
  auto r = Request(6);
  r.zeroHandle = true;
  EXPECT_EQ(Fetch(r, kWait), kBad);
  EXPECT_EQ(Reports(kVerification, "missing refcon"), 2u);
  // One that fails but leaves a handle behind has it deleted at once; the key stays free.
  auto leaves = Request(7);
  leaves.computeError = 43;
  leaves.leaveValueOnFailure = true;
  EXPECT_EQ(Fetch(leaves, kWait), 43);
  EXPECT_EQ(stats_.deletes.load(), 1);
  leaves.computeError = 0;
  EXPECT_EQ(Fetch(leaves, kNoWait), 0);
  EXPECT_EQ(stats_.computes.load(), 3);
}

}  // namespace
