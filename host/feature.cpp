// Feature flags and preference groups.
#include "host/feature.h"

#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace zelappsupport::feature {

namespace {

struct FeatureState {
  std::mutex mutex;
  std::unordered_map<std::string, const BetaFeature*> registered;
  std::unordered_map<std::string, bool> explicitStates;

  FeatureState() {
    const char* env = std::getenv("JX_FEATURES");
    if (env == nullptr) return;
    std::string list(env);
    size_t start = 0;
    while (start <= list.size()) {
      size_t comma = list.find(',', start);
      if (comma == std::string::npos) comma = list.size();
      std::string key = list.substr(start, comma - start);
      start = comma + 1;
      size_t first = key.find_first_not_of(" \t");
      if (first == std::string::npos) continue;
      size_t last = key.find_last_not_of(" \t");
      explicitStates[key.substr(first, last - first + 1)] = true;
    }
  }
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
  FeatureState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (auto it = s.explicitStates.find(key); it != s.explicitStates.end()) return it->second;
  if (auto it = s.registered.find(key); it != s.registered.end()) {
    return it->second->DefaultEnablement() != 0;
  }
  return false;
}

void SetFeatureEnabled(const std::string& key, bool enabled) {
  FeatureState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.explicitStates[key] = enabled;
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

struct PreferenceState {
  std::mutex mutex;
  std::map<std::pair<std::string, std::string>, std::string> values;
};

PreferenceState& State() {
  static PreferenceState* state = new PreferenceState();
  return *state;
}

bool Lookup(const std::string& group, const std::string& name, std::string* text) {
  PreferenceState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.values.find({group, name});
  if (it == s.values.end()) return false;
  *text = it->second;
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

void SetValue(const std::string& group, const std::string& name, const std::string& value) {
  PreferenceState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.values[{group, name}] = value;
}

void Clear() {
  PreferenceState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.values.clear();
}

}  // namespace zelappsupport::preferences
