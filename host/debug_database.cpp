// The settings database and the typed conversions of its texts.
#include "host/debug_database.h"

#include <cctype>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>

namespace zelcore::debug {

namespace {

std::string Trim(const std::string& text) {
  const char* kSpace = " \t\r\n";
  size_t first = text.find_first_not_of(kSpace);
  if (first == std::string::npos) return std::string();
  size_t last = text.find_last_not_of(kSpace);
  return text.substr(first, last - first + 1);
}

// The strto* functions skip leading white space; a setting must be the number and nothing else.
bool StartsLikeNumber(const std::string& text) {
  return !text.empty() && !std::isspace(static_cast<unsigned char>(text[0]));
}

}  // namespace

DebugDatabase& DebugDatabase::Instance() {
  // Never destroyed: code running during static destruction may still read settings.
  static DebugDatabase* instance = new DebugDatabase();
  return *instance;
}

DebugDatabase::DebugDatabase() {
  if (const char* path = std::getenv("JX_SETTINGS"); path != nullptr && *path != '\0') {
    LoadFile(path);
  }
}

std::string DebugDatabase::GetEntry(const std::string& name, const std::string& defaultText) const {
  jx::MutexLock lock(mutex_);
  ++lookups_[name];
  auto it = entries_.find(name);
  return it == entries_.end() ? defaultText : it->second;
}

uint64_t DebugDatabase::LookupCount(const std::string& name) const {
  jx::MutexLock lock(mutex_);
  auto it = lookups_.find(name);
  return it == lookups_.end() ? 0 : it->second;
}

void DebugDatabase::SetEntry(const std::string& name, const std::string& value) {
  jx::MutexLock lock(mutex_);
  entries_[name] = value;
}

void DebugDatabase::RemoveEntry(const std::string& name) {
  jx::MutexLock lock(mutex_);
  entries_.erase(name);
}

bool DebugDatabase::HasEntry(const std::string& name) const {
  jx::MutexLock lock(mutex_);
  return entries_.count(name) != 0;
}

bool DebugDatabase::LoadFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) return false;
  // Parse everything first so that the lock is held only for the final merge.
  std::unordered_map<std::string, std::string> loaded;
  std::string line;
  while (std::getline(in, line)) {
    std::string trimmed = Trim(line);
    if (trimmed.empty() || trimmed[0] == '#') continue;
    size_t eq = trimmed.find('=');
    if (eq == std::string::npos) continue;
    std::string name = Trim(trimmed.substr(0, eq));
    if (name.empty()) continue;
    loaded[name] = Trim(trimmed.substr(eq + 1));
  }
  jx::MutexLock lock(mutex_);
  for (auto& [name, value] : loaded) entries_[name] = std::move(value);
  return true;
}

bool ParseBoolSetting(const std::string& text) { return text == "true"; }

int32_t ParseInt32Setting(const std::string& text, int32_t defaultValue) {
  if (!StartsLikeNumber(text)) return defaultValue;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end != text.c_str() + text.size()) return defaultValue;
  if (v < std::numeric_limits<int32_t>::min() || v > std::numeric_limits<int32_t>::max()) {
    return defaultValue;
  }
  return static_cast<int32_t>(v);
}

uint32_t ParseUInt32Setting(const std::string& text, uint32_t defaultValue) {
  // strtoull accepts a sign and negates; a negative count is a mistake, not a huge number.
  if (!StartsLikeNumber(text) || text.find('-') != std::string::npos) return defaultValue;
  errno = 0;
  char* end = nullptr;
  unsigned long long v = std::strtoull(text.c_str(), &end, 10);
  if (errno != 0 || end != text.c_str() + text.size()) return defaultValue;
  if (v > std::numeric_limits<uint32_t>::max()) return defaultValue;
  return static_cast<uint32_t>(v);
}

double ParseDoubleSetting(const std::string& text, double defaultValue) {
  if (!StartsLikeNumber(text)) return defaultValue;
  errno = 0;
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size()) return defaultValue;
  if (!std::isfinite(v) || (errno == ERANGE && v != 0.0)) return defaultValue;
  return v;
}

std::string FormatDoubleSetting(double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%1.*lg", DBL_DECIMAL_DIG, value);
  return buffer;
}

}  // namespace zelcore::debug
