// The stand-in's settings database.
#include "standalone/debug_database.h"

#include <cctype>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

}  // namespace

DebugDatabase& DebugDatabase::Instance() {
  // Never destroyed: code running during static destruction may still read settings.
  static DebugDatabase* instance = new DebugDatabase();
  return *instance;
}

DebugDatabase::DebugDatabase() { LoadEnvironmentFile(); }

void DebugDatabase::LoadEnvironmentFile() {
  const char* path = std::getenv("JX_SETTINGS");
  if (path == nullptr || *path == '\0') return;
  errno = 0;
  if (LoadFile(path)) return;
  const int error = errno;
  // A mistyped path must not read as "no settings" unseen. The process goes on, as a host would.
  std::error_code ec;
  const std::string why = std::filesystem::is_directory(path, ec) ? "it is a folder"
                          : error != 0                            ? std::strerror(error)
                                                                  : "unreadable";
  std::fprintf(stderr,
               "jxcache host: JX_SETTINGS: cannot read '%s': %s; its settings are not used\n", path,
               why.c_str());
}

void DebugDatabase::ResetForTests() {
  {
    jx::MutexLock lock(mutex_);
    entries_.clear();
    lookups_.clear();
  }
  LoadEnvironmentFile();
}

std::string DebugDatabase::GetEntry(const std::string& name, const std::string& defaultText) const {
  jx::MutexLock lock(mutex_);
  ++lookups_[name];
  auto it = entries_.find(name);
  return it == entries_.end() ? defaultText : it->second;
}

std::optional<std::string> DebugDatabase::FindEntry(const std::string& name) const {
  jx::MutexLock lock(mutex_);
  ++lookups_[name];
  auto it = entries_.find(name);
  if (it == entries_.end()) return std::nullopt;
  return it->second;
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
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) return false;  // opens, and reads as empty
  std::ifstream in(path);
  if (!in) return false;
  // Parse everything first so that the lock is held only for the final merge.
  std::unordered_map<std::string, std::string> loaded;
  std::string line;
  for (bool first = true; std::getline(in, line); first = false) {
    // A file saved with a byte-order mark (as some editors save text) starts with one.
    if (first && line.starts_with("\xEF\xBB\xBF")) line.erase(0, 3);
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

}  // namespace zelcore::debug
