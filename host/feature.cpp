// Feature flags and preference groups: the registry of declared features, and the readers that
// ask the host.
#include "host/feature.h"

#include "jxcache/host/host_services.h"

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>

namespace zelappsupport::feature {

namespace {

struct FeatureState {
  std::mutex mutex;
  std::unordered_map<std::string, const BetaFeature*> registered;
};

// Features are static objects spread over many translation units, so the registry must exist
// before the first of them is constructed and outlive the last one destroyed: a function-local
// object that is never destroyed.
FeatureState& State() {
  static FeatureState* state = new FeatureState();
  return *state;
}

}  // namespace

BetaFeature::BetaFeature(const char* key, int stage, const char* nameString,
                         const char* descriptionString, const char* trackingId,
                         int visibleInAllClientApps, int enablementChanges, int defaultEnablement)
    : key_(key != nullptr ? key : ""),
      stage_(stage),
      name_(nameString != nullptr ? nameString : ""),
      description_(descriptionString != nullptr ? descriptionString : ""),
      trackingId_(trackingId != nullptr ? trackingId : ""),
      visibleInAllClientApps_(visibleInAllClientApps),
      enablementChanges_(enablementChanges),
      defaultEnablement_(defaultEnablement) {
  FeatureState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.registered[key_] = this;
}

BetaFeature::~BetaFeature() {
  FeatureState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.registered.find(key_);
  // Only unregister ourselves: a second feature of the same key may have replaced us.
  if (it != s.registered.end() && it->second == this) s.registered.erase(it);
}

bool IsFeatureEnabled(const std::string& key) {
  bool declaredDefault = false;
  {
    FeatureState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (auto it = s.registered.find(key); it != s.registered.end()) {
      declaredDefault = it->second->DefaultEnablement() != 0;
    }
  }
  return jx::host::GetSettings().IsFeatureEnabled(key, declaredDefault);
}

const BetaFeature* FindFeature(const std::string& key) {
  FeatureState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.registered.find(key);
  return it == s.registered.end() ? nullptr : it->second;
}

}  // namespace zelappsupport::feature

namespace zelappsupport::preferences {

namespace {

bool Lookup(const std::string& group, const std::string& name, std::string* text) {
  std::optional<std::string> value = jx::host::GetSettings().Preference(group, name);
  if (!value) return false;
  *text = std::move(*value);
  return true;
}

}  // namespace

double GetDouble(const std::string& group, const std::string& name, double defaultValue) {
  std::string text;
  if (!Lookup(group, name, &text) || text.empty()) return defaultValue;
  errno = 0;
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size() || errno == ERANGE) return defaultValue;
  return v;
}

int64_t GetInt64(const std::string& group, const std::string& name, int64_t defaultValue) {
  std::string text;
  if (!Lookup(group, name, &text) || text.empty()) return defaultValue;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (end != text.c_str() + text.size() || errno == ERANGE) return defaultValue;
  return static_cast<int64_t>(v);
}

}  // namespace zelappsupport::preferences
