#include "compute/compute_registry.h"

#include <atomic>
#include <map>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "host/y_api.h"

namespace {

constexpr int32_t kNotRegistered = kKQGPComputeCacheClassNotRegistered;
constexpr int32_t kBadParameter = kKQGPComputeCacheBadParameter;

struct Registry {
  std::shared_mutex mutex;
  // Moves with every change of `classes` (under the lock), so that a thread's cached answer
  // (below) knows when it is out of date.
  std::atomic<uint64_t> generation{1};
  // std::string compares through char_traits<char>, i.e. bytewise as unsigned char with the
  // shorter string first on a common prefix; std::less<> lets lookups use a string_view.
  std::map<std::string, KQGP_ComputeCacheCallbacks, std::less<>> classes;
};

Registry& TheRegistry() {
  // Never destroyed: plug-ins may unregister from their own static destructors.
  static Registry* registry = new Registry;
  return *registry;
}

// Every compute request looks its class up, nearly always the class it looked up last: each
// thread keeps its last answer for as long as the registry stays as it was.
struct LastFound {
  uint64_t generation = 0;
  std::string classId;
  KQGP_ComputeCacheCallbacks callbacks{};
};
thread_local LastFound tLastFound;

bool HasAllCallbacks(const KQGP_ComputeCacheCallbacks& c) {
  return c.generate_key && c.compute && c.approx_size_value && c.delete_compute_value;
}

}  // namespace

int32_t JX_ComputeClassRegister(const char* classId, const KQGP_ComputeCacheCallbacks* callbacks) {
  try {
    if (classId == nullptr) {
      Y_ReportFailedVerification("KQGP_JXComputeClassRegister: null class identifier");
      return kBadParameter;
    }
    if (callbacks == nullptr || !HasAllCallbacks(*callbacks)) {
      Y_ReportFailedVerification("KQGP_JXComputeClassRegister: Missing required callback");
      return kBadParameter;
    }
    Registry& r = TheRegistry();
    std::unique_lock lock(r.mutex);
    // First registration wins: a plug-in that wants other callbacks unregisters first.
    if (r.classes.try_emplace(std::string(classId), *callbacks).second) {
      r.generation.fetch_add(1, std::memory_order_acq_rel);
    }
    return 0;
  } catch (...) {
    return Y_TranslateAndReportException();
  }
}

int32_t JX_ComputeClassFind(const char* classId, KQGP_ComputeCacheCallbacks* outCallbacks) {
  try {
    if (classId == nullptr || outCallbacks == nullptr) {
      Y_ReportFailedVerification("KQGP_JXComputeClassFind: null parameter");
      return kBadParameter;
    }
    Registry& r = TheRegistry();
    LastFound& last = tLastFound;
    const uint64_t generation = r.generation.load(std::memory_order_acquire);
    if (last.generation == generation && last.classId == classId) {
      *outCallbacks = last.callbacks;
      return 0;
    }
    std::shared_lock lock(r.mutex);
    auto it = r.classes.find(std::string_view(classId));
    if (it == r.classes.end()) return kNotRegistered;
    *outCallbacks = it->second;
    try {
      last.classId = classId;
      last.callbacks = it->second;
      last.generation = r.generation.load(std::memory_order_relaxed);
    } catch (const std::bad_alloc&) {
      last.generation = 0;  // no memory to remember it: the next lookup asks the map again
    }
    return 0;
  } catch (...) {
    return Y_TranslateAndReportException();
  }
}

int32_t JX_ComputeClassUnregister(const char* classId) {
  try {
    if (classId == nullptr) {
      Y_ReportFailedVerification("KQGP_JXComputeClassUnregister: null class identifier");
      return kBadParameter;
    }
    Registry& r = TheRegistry();
    std::unique_lock lock(r.mutex);
    auto it = r.classes.find(std::string_view(classId));
    if (it != r.classes.end()) {
      r.classes.erase(it);
      r.generation.fetch_add(1, std::memory_order_acq_rel);
    }
    return 0;
  } catch (...) {
    return Y_TranslateAndReportException();
  }
}

namespace jx::compute {

uint64_t RegistryGeneration() {
  // Acquire: pairs with the change that moved it, so that a lookup made after this read sees
  // at least that change.
  return TheRegistry().generation.load(std::memory_order_acquire);
}

}  // namespace jx::compute
