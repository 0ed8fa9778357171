// The host's settings database: named text entries with defaults. Seeded once from the file
// named by $JX_SETTINGS ("name=value" lines; "#" starts a comment) when first used; settable
// from code. Thread-safe. The library reads each of its settings once and keeps the value.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "host/export.h"
#include "host/thread_annotations.h"

namespace zelcore::debug {

class JX_EXPORT DebugDatabase {
 public:
  static DebugDatabase& Instance();

  // The entry's text, or `defaultText` when there is no such entry. Counts the look-up.
  std::string GetEntry(const std::string& name, const std::string& defaultText) const;
  void SetEntry(const std::string& name, const std::string& value);
  void RemoveEntry(const std::string& name);
  bool HasEntry(const std::string& name) const;
  // Loads "name=value" lines from a file; returns false when it cannot be read.
  bool LoadFile(const std::string& path);
  // How often GetEntry was asked for `name` in this process, whether or not it had an entry:
  // lets tests tell a setting that is read lazily, once, from one that is read at all.
  uint64_t LookupCount(const std::string& name) const;

 private:
  DebugDatabase();
  mutable jx::Mutex mutex_;
  std::unordered_map<std::string, std::string> entries_ GUARDED_BY(mutex_);
  mutable std::unordered_map<std::string, uint64_t> lookups_ GUARDED_BY(mutex_);
};

// Conversions the library uses for typed settings: a bool is true only for the text "true";
// numbers that do not parse give the default.
JX_EXPORT bool ParseBoolSetting(const std::string& text);
JX_EXPORT int32_t ParseInt32Setting(const std::string& text, int32_t defaultValue);
JX_EXPORT uint32_t ParseUInt32Setting(const std::string& text, uint32_t defaultValue);
JX_EXPORT double ParseDoubleSetting(const std::string& text, double defaultValue);
// A double default as the database stores it ("%1.*lg" with full precision).
JX_EXPORT std::string FormatDoubleSetting(double value);

}  // namespace zelcore::debug
