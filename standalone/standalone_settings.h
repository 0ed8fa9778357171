// The stand-in host's settings (jx::host::Settings): the debug-settings database
// (standalone/debug_database.h), feature flags turned on or off explicitly (from code, or from
// $JX_FEATURES: comma-separated keys turned on), and preference groups set from code. A feature
// nobody set is at the default the library declared for it. Thread-safe.
#pragma once

#include <optional>
#include <string>

#include "host/feature.h"
#include "jxcache/host/host_services.h"

namespace zelappsupport::feature {
// Turns a feature on or off for the stand-in host, whatever its declared default.
void SetFeatureEnabled(const std::string& key, bool enabled);
// Tests only: every feature back to what a new process starts with ($JX_FEATURES, else the
// declared default).
void ResetFeaturesForTests();
}  // namespace zelappsupport::feature

namespace zelappsupport::preferences {
// Sets a value of a preference group, as text; Clear forgets every value.
void SetValue(const std::string& group, const std::string& name, const std::string& value);
void Clear();
}  // namespace zelappsupport::preferences

namespace jx::standalone {

class StandaloneSettings final : public jx::host::Settings {
 public:
  static StandaloneSettings& Instance();
  std::optional<std::string> DebugEntry(const std::string& name) override;
  std::optional<std::string> Preference(const std::string& group, const std::string& name) override;
  bool IsFeatureEnabled(const std::string& key, bool declaredDefault) override;
};

}  // namespace jx::standalone
