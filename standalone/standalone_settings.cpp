#include "standalone/standalone_settings.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "standalone/debug_database.h"

namespace {

struct FeatureStates {
  std::mutex mutex;
  std::unordered_map<std::string, bool> explicitStates;

  FeatureStates() { explicitStates = FromEnvironment(); }

  static std::unordered_map<std::string, bool> FromEnvironment() {
    std::unordered_map<std::string, bool> explicitStates;
    const char* env = std::getenv("JX_FEATURES");
    if (env == nullptr) return explicitStates;
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
    return explicitStates;
  }
};

FeatureStates& Features() {
  static auto* states = new FeatureStates();
  return *states;
}

struct PreferenceValues {
  std::mutex mutex;
  std::map<std::pair<std::string, std::string>, std::string> values;
};

PreferenceValues& Preferences() {
  static auto* values = new PreferenceValues();
  return *values;
}

}  // namespace

namespace zelappsupport::feature {
void SetFeatureEnabled(const std::string& key, bool enabled) {
  FeatureStates& f = Features();
  std::lock_guard<std::mutex> lock(f.mutex);
  f.explicitStates[key] = enabled;
}

void ResetFeaturesForTests() {
  auto fresh = FeatureStates::FromEnvironment();
  FeatureStates& f = Features();
  std::lock_guard<std::mutex> lock(f.mutex);
  f.explicitStates.swap(fresh);
}
}  // namespace zelappsupport::feature

namespace zelappsupport::preferences {
void SetValue(const std::string& group, const std::string& name, const std::string& value) {
  PreferenceValues& p = Preferences();
  std::lock_guard<std::mutex> lock(p.mutex);
  p.values[{group, name}] = value;
}

void Clear() {
  PreferenceValues& p = Preferences();
  std::lock_guard<std::mutex> lock(p.mutex);
  p.values.clear();
}
}  // namespace zelappsupport::preferences

namespace jx::standalone {

StandaloneSettings& StandaloneSettings::Instance() {
  static auto* settings = new StandaloneSettings();  // never destroyed: see host_services.h
  return *settings;
}

std::optional<std::string> StandaloneSettings::DebugEntry(const std::string& name) {
  return zelcore::debug::DebugDatabase::Instance().FindEntry(name);
}

std::optional<std::string> StandaloneSettings::Preference(const std::string& group,
                                                          const std::string& name) {
  PreferenceValues& p = Preferences();
  std::lock_guard<std::mutex> lock(p.mutex);
  auto it = p.values.find({group, name});
  if (it == p.values.end()) return std::nullopt;
  return it->second;
}

bool StandaloneSettings::IsFeatureEnabled(const std::string& key, bool declaredDefault) {
  FeatureStates& f = Features();
  std::lock_guard<std::mutex> lock(f.mutex);
  auto it = f.explicitStates.find(key);
  return it != f.explicitStates.end() ? it->second : declaredDefault;
}

}  // namespace jx::standalone
