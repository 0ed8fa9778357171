// The stand-in's settings database: named text entries with defaults. Seeded once from the file
// named by $JX_SETTINGS ("name=value" lines; "#" starts a comment) when first used, a file that
// cannot be read being reported on standard error; settable from code. Thread-safe. The library
// reads each of its settings once, through the stand-in's jx::host::Settings, and keeps the value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "host/setting_text.h"
#include "jxcache/host/export.h"
#include "jxcache/host/thread_annotations.h"

namespace zelcore::debug {

class DebugDatabase {
 public:
  static DebugDatabase& Instance();

  // The entry's text, or `defaultText` when there is no such entry. Counts the look-up.
  std::string GetEntry(const std::string& name, const std::string& defaultText) const;
  // The entry's text, or nothing. Counts the look-up.
  std::optional<std::string> FindEntry(const std::string& name) const;
  void SetEntry(const std::string& name, const std::string& value);
  void RemoveEntry(const std::string& name);
  bool HasEntry(const std::string& name) const;
  // Loads "name=value" lines from a file; returns false when it cannot be read (or is a folder).
  bool LoadFile(const std::string& path);
  // How often GetEntry was asked for `name` in this process, whether or not it had an entry:
  // lets tests tell a setting that is read lazily, once, from one that is read at all.
  uint64_t LookupCount(const std::string& name) const;
  // Tests only: back to what a new process starts with, the $JX_SETTINGS file's entries and no
  // look-ups counted.
  void ResetForTests();

 private:
  DebugDatabase();
  void LoadEnvironmentFile();
  mutable jx::Mutex mutex_;
  std::unordered_map<std::string, std::string> entries_ GUARDED_BY(mutex_);
  mutable std::unordered_map<std::string, uint64_t> lookups_ GUARDED_BY(mutex_);
};

}  // namespace zelcore::debug
