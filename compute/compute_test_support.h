// Tests only: a compute-cache plug-in with C callbacks whose behaviour each request chooses, and
// a fixture that starts the library, publishes the suite and hands the tests the C table.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "compute/compute_registry.h"
#include "jxcache/kqgp_compute_cache.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "jxcache/y_vx_suite.h"
#include "testing/jx_test_support.h"

namespace jx::testing {

// What the plug-in saw; outlives the library so that deletes at shut-down are counted.
struct PluginStats {
  std::atomic<int> computes{0}, creates{0}, deletes{0};
  std::mutex mutex;
  std::vector<std::thread::id> deleteThreads;  // guarded by mutex
};

struct PluginRequest {
  int key = 0;
  PluginStats* stats = nullptr;
  int32_t keyError = 0;
  int32_t computeError = 0;
  bool leaveValueOnFailure = false;  // a failing compute that still wrote a handle
  bool zeroHandle = false;           // a "successful" compute that produced no handle
  std::function<void()> duringCompute;
};

struct PluginValue {
  int key;
  PluginStats* stats;
};

inline KQGP_GUID PluginKeyOf(int key) {
  KQGP_GUID g{};
  std::memcpy(g.bytes, &key, sizeof key);
  return g;
}
inline int KeyOfValue(intptr_t value) { return reinterpret_cast<PluginValue*>(value)->key; }

inline constexpr KQGP_ComputeCacheCallbacks kPluginCallbacks = {
    [](void* request, KQGP_GUID* outKey) -> int32_t {
      auto* r = static_cast<PluginRequest*>(request);
      if (r->keyError == 0) *outKey = PluginKeyOf(r->key);
      return r->keyError;
    },
    [](void* request, intptr_t* outValue) -> int32_t {
      auto* r = static_cast<PluginRequest*>(request);
      r->stats->computes.fetch_add(1);
      if (r->duringCompute) r->duringCompute();
      if (r->zeroHandle || (r->computeError != 0 && !r->leaveValueOnFailure)) {
        return r->computeError;
      }
      r->stats->creates.fetch_add(1);
      *outValue = reinterpret_cast<intptr_t>(new PluginValue{r->key, r->stats});
      return r->computeError;
    },
    [](intptr_t) -> size_t { return 1000; },
    [](intptr_t value) {
      auto* v = reinterpret_cast<PluginValue*>(value);
      std::lock_guard<std::mutex> lock(v->stats->mutex);
      v->stats->deleteThreads.push_back(std::this_thread::get_id());
      v->stats->deletes.fetch_add(1);
      delete v;
    }};

// The library started, the suite published and acquired as a plug-in would, and class kClass
// registered. Every value the plug-in created must have been deleted once by the end.
class ComputeSuiteTest : public LibraryTest {
 protected:
  static constexpr const char* kClass = "test.compute";

  void SetUp() override {
    LibraryTest::SetUp();
    JX_VX_Birth();
    const void* table = nullptr;
    ASSERT_EQ(Y_VX_AcquireVXSuite(kKQGPComputeCacheSuite, kKQGPComputeCacheSuiteVersion1, &table),
              0);
    suite_ = static_cast<const KQGP_ComputeCacheSuite1*>(table);
    ASSERT_EQ(suite_->ClassRegister(kClass, &kPluginCallbacks), 0);
  }
  void TearDown() override {
    JX_ComputeClassUnregister(kClass);
    LibraryTest::TearDown();
    EXPECT_EQ(stats_.creates.load(), stats_.deletes.load()) << "every value deleted exactly once";
  }
  PluginRequest Request(int key) {
    PluginRequest r;
    r.key = key;
    r.stats = &stats_;
    return r;
  }

  PluginStats stats_;
  const KQGP_ComputeCacheSuite1* suite_ = nullptr;
};

}  // namespace jx::testing
