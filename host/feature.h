// The host's feature flags and preference groups, as the library asks for them.
//
// A BetaFeature is declared by a static object and registered under its key with its default;
// IsFeatureEnabled asks the host (jx::host::Settings, host/host_services.h), giving it that
// default. Preference groups hold named values that the host's preference dialogs edit; the
// library reads them through the host too. Thread-safe.
#pragma once

#include <cstdint>
#include <string>

#include "jxcache/host/export.h"

namespace zelappsupport::feature {

class JX_EXPORT BetaFeature {
 public:
  BetaFeature(const char* key, int stage, const char* nameString, const char* descriptionString,
              const char* trackingId, int visibleInAllClientApps, int enablementChanges,
              int defaultEnablement);
  ~BetaFeature();
  BetaFeature(const BetaFeature&) = delete;
  BetaFeature& operator=(const BetaFeature&) = delete;

  const std::string& Key() const { return key_; }
  int Stage() const { return stage_; }
  const std::string& NameString() const { return name_; }
  const std::string& DescriptionString() const { return description_; }
  int DefaultEnablement() const { return defaultEnablement_; }

 private:
  std::string key_;
  int stage_;
  std::string name_;
  std::string description_;
  std::string trackingId_;
  int visibleInAllClientApps_;
  int enablementChanges_;
  int defaultEnablement_;
};

JX_EXPORT bool IsFeatureEnabled(const std::string& key);
// The registered feature of that key, or null.
JX_EXPORT const BetaFeature* FindFeature(const std::string& key);

}  // namespace zelappsupport::feature

namespace zelappsupport::preferences {

// Reads a value of a preference group; `defaultValue` when unset or unparsable.
JX_EXPORT double GetDouble(const std::string& group, const std::string& name, double defaultValue);
JX_EXPORT int64_t GetInt64(const std::string& group, const std::string& name, int64_t defaultValue);

}  // namespace zelappsupport::preferences
