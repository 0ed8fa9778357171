#include "compute/compute_registry.h"

#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "host/y_api.h"

namespace {

constexpr int32_t kNotRegistered = kKQGPComputeCacheClassNotRegistered;
constexpr int32_t kBadParameter = kKQGPComputeCacheBadParameter;

struct Registry {
  std::shared_mutex mutex;
  // std::string compares through char_traits<char>, i.e. bytewise as unsigned char with the
  // shorter string first on a common prefix; std::less<> lets lookups use a string_view.
  std::map<std::string, KQGP_ComputeCacheCallbacks, std::less<>> classes;
};

Registry& TheRegistry() {
  // Never destroyed: plug-ins may unregister from their own static destructors.
  static Registry* registry = new Registry;
  return *registry;
}

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
    r.classes.try_emplace(std::string(classId), *callbacks);
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
    std::shared_lock lock(r.mutex);
    auto it = r.classes.find(std::string_view(classId));
    if (it == r.classes.end()) return kNotRegistered;
    *outCallbacks = it->second;
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
    if (it != r.classes.end()) r.classes.erase(it);
    return 0;
  } catch (...) {
    return Y_TranslateAndReportException();
  }
}
