// stress_compute: the plug-in compute cache through its C table, as a plug-in sees it. Worker
// threads ask for values of two classes over hundreds of keys in all three modes (cached only,
// compute without waiting, compute or wait); a seeded fraction of computes fail with the
// plug-in's own code, some computes ask for their own key again, and a thread purges the cache
// all along.
//
// Invariants: at most one compute in flight per key; a receipt's handle is the value of the key
// asked for and is not deleted while checked out; results are only the suite's codes (0, 3, 22)
// or the failing compute's own; every value the plug-in created is deleted exactly once, the
// last of them by shut-down. Values are never freed during the run (only flagged deleted), so
// that a second delete is caught instead of touching freed memory.
//
// A watchdog aborts the run when a thread makes no progress (a waiter never woken must fail, not
// hang). The time bound may cut the run short, but a run below its floor of the planned
// operations fails.
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "compute/compute_registry.h"
#include "jxcache/bag/bag.h"
#include "jxcache/kqgp_compute_cache.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "jxcache/y_vx_suite.h"
#include "standalone/standalone_host.h"
#include "stress_common.h"

namespace {

constexpr int kKeysPerClass = 300;
constexpr int kClassBOffset = 1000;  // class B's keys: a value tells which class made it
constexpr int kKeySpace = 2 * kClassBOffset;
constexpr int32_t kComputeFailure = 77;
constexpr uint32_t kValueMagic = 0x5EEDC0DE;
constexpr const char* kClassA = "stress.compute.a";
constexpr const char* kClassB = "stress.compute.b";

jx::stress::Violations gViolations;
const KQGP_ComputeCacheSuite1* gSuite = nullptr;

struct Value {
  int key;
  uint32_t magic = kValueMagic;
  std::atomic<bool> deleted{false};
};

struct Request {
  int key = 0;
  const char* classId = nullptr;
  bool fail = false;
  bool askSelf = false;  // the compute asks for its own key again: must be told 22 at once
};

// Plug-in side state. Values stay allocated until the end of the program.
struct Plugin {
  std::vector<std::atomic<int>> inFlight = std::vector<std::atomic<int>>(kKeySpace);
  std::atomic<uint64_t> computes{0}, failedComputes{0}, creates{0}, deletes{0}, selfCalls{0};
  std::mutex mutex;
  std::vector<std::unique_ptr<Value>> values;  // guarded by mutex
} gPlugin;

thread_local bool tComputedHere = false;

int32_t GenerateKey(void* request, KQGP_GUID* outKey) {
  *outKey = KQGP_GUID{};
  const int key = static_cast<Request*>(request)->key;
  std::memcpy(outKey->bytes, &key, sizeof key);
  return 0;
}

int32_t Compute(void* request, intptr_t* outValue) {
  auto* r = static_cast<Request*>(request);
  tComputedHere = true;
  gPlugin.computes.fetch_add(1);
  if (gPlugin.inFlight[r->key].fetch_add(1) != 0) {
    gViolations.Report("two computes of one key in flight");
  }
  std::this_thread::yield();
  if (r->askSelf) {
    Request self = *r;
    self.askSelf = false;
    KQGP_JXComputeReceipt receipt = nullptr;
    const int32_t code = gSuite->ComputeIfNeededAndCheckout(r->classId, &self, true, &receipt);
    gViolations.Check(code == kKQGPComputeCacheNotAvailable, "a compute asking for its own key");
    if (code == 0) gSuite->CheckinReceipt(receipt);
    gPlugin.selfCalls.fetch_add(1);
  }
  int32_t result = kComputeFailure;
  if (!r->fail) {
    auto value = std::make_unique<Value>();
    value->key = r->key;
    *outValue = reinterpret_cast<intptr_t>(value.get());
    {
      std::lock_guard<std::mutex> lock(gPlugin.mutex);
      gPlugin.values.push_back(std::move(value));
    }
    gPlugin.creates.fetch_add(1);
    result = 0;
  } else {
    gPlugin.failedComputes.fetch_add(1);
  }
  gPlugin.inFlight[r->key].fetch_sub(1);
  return result;
}

size_t ApproxSize(intptr_t value) {
  return 2000 + static_cast<size_t>(reinterpret_cast<Value*>(value)->key % 5) * 500;
}

void DeleteValue(intptr_t handle) {
  auto* value = reinterpret_cast<Value*>(handle);
  if (value->magic != kValueMagic) {
    gViolations.Report("delete_compute_value given something that is not a value");
    return;
  }
  if (value->deleted.exchange(true)) gViolations.Report("a value deleted twice");
  gPlugin.deletes.fetch_add(1);
}

constexpr KQGP_ComputeCacheCallbacks kCallbacks = {GenerateKey, Compute, ApproxSize, DeleteValue};

struct Figures {
  std::atomic<uint64_t> ops{0}, hits{0}, notAvailable{0}, badParameter{0}, ownFailures{0};
};

void Worker(const jx::stress::Options& o, int index, Figures& f, jx::stress::Watchdog& watchdog,
            int slot) {
  std::mt19937_64 rng(o.seed * 1000003 + static_cast<uint64_t>(index));
  jx::stress::Deadline deadline(o.seconds);
  const uint64_t perThread = o.ops / static_cast<uint64_t>(o.threads);
  for (uint64_t i = 0; i < perThread && !deadline.Passed(); ++i) {
    watchdog.Beat(slot, "asking for a value", i);
    const bool classB = rng() % 2;
    Request r;
    r.classId = classB ? kClassB : kClassA;
    r.key = static_cast<int>(rng() % kKeysPerClass) + (classB ? kClassBOffset : 0);
    r.fail = rng() % 10 == 0;
    r.askSelf = rng() % 20 == 0;
    const int mode = static_cast<int>(rng() % 3);
    KQGP_JXComputeReceipt receipt = nullptr;
    tComputedHere = false;
    const int32_t code =
        mode == 0 ? gSuite->CheckoutCached(r.classId, &r, &receipt)
                  : gSuite->ComputeIfNeededAndCheckout(r.classId, &r, mode == 2, &receipt);
    f.ops.fetch_add(1);
    if (code == kKQGPComputeCacheNotAvailable) {
      f.notAvailable.fetch_add(1);
    } else if (code == kKQGPComputeCacheBadParameter) {
      // Only a waiter whose value failed to compute elsewhere gets 3.
      gViolations.Check(mode == 2 && !tComputedHere, "3 for a caller that did not wait");
      f.badParameter.fetch_add(1);
    } else if (code == kComputeFailure) {
      gViolations.Check(tComputedHere && r.fail, "the compute's code for a caller that did not");
      f.ownFailures.fetch_add(1);
    } else if (code != 0) {
      gViolations.Report("a code the suite does not define");
    }
    if (code != 0) {
      gViolations.Check(receipt == nullptr, "a receipt with a failure");
      continue;
    }
    gViolations.Check(!r.fail || !tComputedHere, "a receipt from a failed compute");
    if (!tComputedHere) f.hits.fetch_add(1);
    intptr_t handle = 0;
    if (gSuite->GetReceiptComputeValue(receipt, &handle) != 0 || handle == 0) {
      gViolations.Report("no value behind a receipt");
    } else {
      auto* value = reinterpret_cast<Value*>(handle);
      gViolations.Check(value->magic == kValueMagic && value->key == r.key,
                        "a receipt's value is not the key's");
      std::this_thread::yield();
      gViolations.Check(!value->deleted.load(), "a value deleted while checked out");
    }
    gViolations.Check(gSuite->CheckinReceipt(receipt) == 0, "check-in refused");
  }
  watchdog.Done(slot);
}

}  // namespace

int main(int argc, char** argv) {
  auto o = jx::stress::ParseOptions(argc, argv, "stress_compute", 700000);
  if (o.threads < 1) o.threads = 1;
  // Under a sanitizer the plan is what such a build does in its time bound beside another
  // program (stress/CMakeLists.txt); less than a tenth of a plan means something slowed the run
  // down far beyond a loaded machine.
  constexpr double kFloorPercent = 10;
  jx::stress::Watchdog watchdog("stress_compute", jx::stress::kStallSeconds,
                                jx::stress::HardSeconds(o));
  const int mainSlot = watchdog.Add("main");
  auto& host = jx::StandaloneHost::Instance();
  host.SetEchoReports(false);
  host.SetMemoryLimit(2'000'000);  // room for a few hundred values: purges free some
  JX_Birth(false, 1, false);
  JX_VX_Birth();
  const void* table = nullptr;
  if (Y_VX_AcquireVXSuite(kKQGPComputeCacheSuite, kKQGPComputeCacheSuiteVersion1, &table) != 0) {
    std::fprintf(stderr, "stress_compute: the compute-cache suite is not published\n");
    return 1;
  }
  gSuite = static_cast<const KQGP_ComputeCacheSuite1*>(table);
  gViolations.Check(gSuite->ClassRegister(kClassA, &kCallbacks) == 0, "class A refused");
  gViolations.Check(gSuite->ClassRegister(kClassB, &kCallbacks) == 0, "class B refused");
  auto bag = JX_GlobalBag();

  Figures f;
  std::atomic<bool> workersDone{false};
  const int purgerSlot = watchdog.Add("purger");
  // A purge every 2 ms, once the workers have done some operations since the last one. Paced by
  // the clock alone, a purger on a loaded machine (under a sanitizer, beside other programs)
  // emptied the cache between almost every two operations: nearly every request became a
  // compute, each slower than a hit, and the run fell to a ninth of its pace.
  constexpr uint64_t kOpsBetweenPurges = 50;
  std::thread purger([&] {
    std::mt19937_64 rng(o.seed + 7);
    uint64_t opsAtLastPurge = 0;
    for (uint64_t i = 0; !workersDone.load(); ++i) {
      watchdog.Beat(purgerSlot, "a purge", i);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      const uint64_t ops = f.ops.load();
      if (ops - opsAtLastPurge < kOpsBetweenPurges) continue;
      opsAtLastPurge = ops;
      if (rng() % 2) {
        jx::PurgeOverBudget(*bag, 200'000);
      } else {
        bag->PurgeAllMemoryCaches();
      }
    }
    watchdog.Done(purgerSlot);
  });
  std::vector<std::thread> workers;
  for (int t = 0; t < o.threads; ++t) {
    const int slot = watchdog.Add(("worker " + std::to_string(t)).c_str());
    workers.emplace_back(Worker, std::cref(o), t, std::ref(f), std::ref(watchdog), slot);
  }
  watchdog.Waiting(mainSlot, "joining the workers");
  for (auto& w : workers) w.join();
  workersDone = true;
  watchdog.Waiting(mainSlot, "joining the purger");
  purger.join();
  watchdog.Beat(mainSlot, "the checks at rest and shutting down");

  gViolations.Check(bag->GetCheckedOutMemoryCacheSizeInBytes() == 0, "checked-out bytes at rest");
  for (const auto& n : gPlugin.inFlight) gViolations.Check(n.load() == 0, "a compute left open");
  gSuite->ClassUnregister(kClassA);
  gSuite->ClassUnregister(kClassB);
  bag.reset();
  JX_StopAllAsyncWork();
  JX_Death();
  watchdog.Done(mainSlot);

  uint64_t lost = 0;
  {
    std::lock_guard<std::mutex> lock(gPlugin.mutex);
    for (const auto& v : gPlugin.values) lost += v->deleted.load() ? 0 : 1;
  }
  gViolations.Check(lost == 0, "values never deleted");
  gViolations.Check(gPlugin.creates.load() == gPlugin.deletes.load(),
                    "values created and deleted differ");
  gViolations.Check(gPlugin.computes.load() == gPlugin.creates.load() + gPlugin.failedComputes,
                    "a compute neither created a value nor failed");
  const uint64_t planned = o.ops / static_cast<uint64_t>(o.threads) * o.threads;
  const bool covered =
      jx::stress::CoverageMet("stress_compute", "operations", f.ops.load(), planned, kFloorPercent);
  std::printf(
      "stress_compute: ops %llu of %llu, computes %llu, failed computes %llu, hits %llu, values "
      "created %llu deleted %llu, violations %llu, hangs 0, values lost %llu\n",
      (unsigned long long)f.ops, (unsigned long long)planned, (unsigned long long)gPlugin.computes,
      (unsigned long long)gPlugin.failedComputes, (unsigned long long)f.hits,
      (unsigned long long)gPlugin.creates, (unsigned long long)gPlugin.deletes,
      (unsigned long long)gViolations.Count(), (unsigned long long)lost);
  return gViolations.Count() == 0 && covered ? 0 : 1;
}
