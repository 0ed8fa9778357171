#include "tools/jxcache/cache_folder.h"

#include <sys/stat.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>

#include "disk/cache_file_name.h"
#include "disk/disk_folder.h"
#include "host/file_utils.h"
#include "host/safe_save.h"
#include "tools/jxcache/session_disk.h"
#include "tools/jxcache/size_arg.h"
#include "tools/jxcache/table.h"
#include "tools/jxcache/tally.h"
#include "tools/jxcache/tool_error.h"

namespace fs = std::filesystem;

namespace jx::tool {
namespace {

enum class EntryKind { kCacheFile, kTemporary, kOther };

struct Entry {
  std::string name;
  EntryKind kind = EntryKind::kOther;
  bool isFolder = false;
  uint64_t bytes = 0;
  int64_t modified = 0;  // seconds since the epoch
  int64_t changed = 0;   // status change time, as the library judges a temporary's age
  std::string matchName;
};

// Told by the name, as the library's scan tells them: a temporary's name starts with its
// target's, so it is asked about first. Only regular files qualify; the library never makes a
// link or a folder, and a link named like a cache file may point at anything.
// Nothing for an entry gone since the listing (another process evicting or clearing).
std::optional<Entry> Classify(const fs::path& path) {
  Entry e;
  e.name = path.filename().string();
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
  e.isFolder = S_ISDIR(st.st_mode);
  e.bytes = S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
  e.modified = st.st_mtime;
  e.changed = st.st_ctime;
  if (!S_ISREG(st.st_mode)) return e;
  if (zelcore::filesupport::SafeSave::IsTempFileName(e.name)) {
    e.kind = EntryKind::kTemporary;
    return e;
  }
  jx::disk::CacheFileName parsed;
  if (jx::disk::ParseCacheFileName(e.name, &parsed) == jx::disk::CacheFileNameError::kNone) {
    e.kind = EntryKind::kCacheFile;
    e.matchName = parsed.matchName;
  }
  return e;
}

// The folder's entries. A DIR that does not exist is an error (a mistyped path should not read
// as an empty cache); a DIR without the machine folder is a cache that has no files yet.
struct Listing {
  std::string folder;
  bool exists = false;
  std::vector<Entry> entries;
};

Listing List(const std::string& dir, const char* command) {
  std::error_code ec;
  const fs::file_status st = fs::status(dir, ec);
  if (!fs::exists(st)) throw ToolError(std::string(command) + ": '" + dir + "' does not exist");
  if (!fs::is_directory(st))
    throw ToolError(std::string(command) + ": '" + dir + "' is not a folder");
  Listing l;
  l.folder = MachineCacheFolder(dir);
  // Followed when it is a link: a machine folder moved to a larger disk and linked back is where
  // the library reads and writes.
  const fs::file_status machine = fs::status(l.folder, ec);
  if (!fs::exists(machine)) {
    // A link to a disk that is not mounted is not a cache that has no files yet.
    if (fs::is_symlink(fs::symlink_status(l.folder, ec))) {
      throw ToolError(std::string(command) + ": '" + l.folder +
                      "' is a link to a folder that is not there");
    }
    return l;
  }
  if (!fs::is_directory(machine))
    throw ToolError(std::string(command) + ": '" + l.folder + "' is not a folder");
  l.exists = true;
  fs::directory_iterator it(l.folder, ec);
  if (ec)
    throw ToolError(std::string(command) + ": cannot read '" + l.folder + "': " + ec.message());
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    if (ec)
      throw ToolError(std::string(command) + ": cannot read '" + l.folder + "': " + ec.message());
    if (std::optional<Entry> e = Classify(it->path())) l.entries.push_back(std::move(*e));
  }
  return l;
}

struct FolderStats {
  Tally cache, temporaries, other;
  std::map<std::string, Tally> byClass;
  std::optional<Entry> oldest, newest;
  std::vector<std::string> otherNames;  // the first kNamesListed, folders with a "/"
};

FolderStats Count(const Listing& l) {
  FolderStats s;
  for (const Entry& e : l.entries) {
    switch (e.kind) {
      case EntryKind::kCacheFile:
        s.cache.Add(e.bytes);
        s.byClass[e.matchName].Add(e.bytes);
        if (!s.oldest || e.modified < s.oldest->modified) s.oldest = e;
        if (!s.newest || e.modified > s.newest->modified) s.newest = e;
        break;
      case EntryKind::kTemporary:
        s.temporaries.Add(e.bytes);
        break;
      case EntryKind::kOther:
        s.other.Add(e.bytes);
        if (s.otherNames.size() < kNamesListed)
          s.otherNames.push_back(e.name + (e.isFolder ? "/" : ""));
        break;
    }
  }
  return s;
}

std::string LocalTime(int64_t seconds) {
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[64];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S %z", &tm);
  return buf;
}

std::string UtcTime(int64_t seconds) {
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[64];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

nlohmann::ordered_json FileJson(const std::optional<Entry>& e) {
  if (!e) return nullptr;
  return {{"name", e->name}, {"modified", UtcTime(e->modified)}, {"modified_unix", e->modified}};
}

// File names are bytes, not necessarily UTF-8, and JSON must be: a name that is not valid UTF-8
// is shown with U+FFFD in place of its bad bytes.
void Print(const nlohmann::ordered_json& j) {
  std::cout << j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void PrintStatsJson(const Listing& l, const FolderStats& s) {
  nlohmann::ordered_json j;
  j["folder"] = l.folder;
  j["exists"] = l.exists;
  j["cache_files"] = TallyJson(s.cache);
  j["by_class"] = nlohmann::ordered_json::object();
  for (const auto& [name, t] : s.byClass) j["by_class"][name] = TallyJson(t);
  j["oldest"] = FileJson(s.oldest);
  j["newest"] = FileJson(s.newest);
  j["temporaries"] = TallyJson(s.temporaries);
  j["not_cache_files"] = TallyJson(s.other);
  j["not_cache_files"]["names"] = s.otherNames;
  Print(j);
}

void PrintStatsText(const Listing& l, const FolderStats& s) {
  std::cout << "disk cache folder " << l.folder << (l.exists ? "" : " (not made yet)") << "\n\n";
  TextTable classes({"payload class", "files", "bytes"});
  for (const auto& [name, t] : s.byClass)
    classes.AddRow({name, std::to_string(t.files), FormatSize(t.bytes)});
  classes.AddRow({"all cache files", std::to_string(s.cache.files), FormatSize(s.cache.bytes)});
  classes.Print(std::cout);
  std::cout << '\n';
  if (s.oldest) {
    std::cout << "oldest                " << LocalTime(s.oldest->modified) << "  " << s.oldest->name
              << '\n';
    std::cout << "newest                " << LocalTime(s.newest->modified) << "  " << s.newest->name
              << '\n';
  }
  std::cout << "leftover temporaries  " << s.temporaries.files << " ("
            << FormatSize(s.temporaries.bytes) << ")\n";
  std::cout << "not cache files       " << s.other.files << " (" << FormatSize(s.other.bytes)
            << ")\n";
  for (const std::string& name : s.otherNames) std::cout << "  " << name << '\n';
  if (s.other.files > s.otherNames.size())
    std::cout << "  ... and " << (s.other.files - s.otherNames.size()) << " more\n";
}

struct FolderOptions {
  std::string dir;
  bool json = false;
};

std::string FolderOf(const FolderOptions& o) { return o.dir.empty() ? DefaultDiskFolder() : o.dir; }

int RunStats(const FolderOptions& o) {
  const Listing l = List(FolderOf(o), "stats");
  const FolderStats s = Count(l);
  if (o.json) {
    PrintStatsJson(l, s);
  } else {
    PrintStatsText(l, s);
  }
  return kExitOk;
}

struct Cleared {
  Tally cache, temporaries;
  uint64_t youngTemporaries = 0;  // left for a writer that may still be running
  uint64_t kept = 0;              // entries that are not the library's
  std::vector<std::string> failed;
};

Cleared Clear(const Listing& l) {
  Cleared c;
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  for (const Entry& e : l.entries) {
    if (e.kind == EntryKind::kOther) {
      ++c.kept;
      continue;
    }
    if (e.kind == EntryKind::kTemporary && now - e.changed < jx::disk::kLeftoverTempAgeSeconds) {
      ++c.youngTemporaries;
      continue;
    }
    std::error_code ec;
    const bool removed = fs::remove(fs::path(l.folder) / e.name, ec);
    if (ec) {
      c.failed.push_back(e.name + ": " + ec.message());
      continue;
    }
    if (!removed) continue;  // gone meanwhile (another process cleaning or evicting)
    (e.kind == EntryKind::kCacheFile ? c.cache : c.temporaries).Add(e.bytes);
  }
  return c;
}

int RunClear(const FolderOptions& o) {
  const Listing l = List(FolderOf(o), "clear");
  const Cleared c = Clear(l);
  if (o.json) {
    nlohmann::ordered_json j;
    j["folder"] = l.folder;
    j["deleted_cache_files"] = TallyJson(c.cache);
    j["deleted_temporaries"] = TallyJson(c.temporaries);
    j["young_temporaries_kept"] = c.youngTemporaries;
    j["other_entries_kept"] = c.kept;
    j["failed"] = c.failed;
    Print(j);
  } else {
    std::cout << "cleared " << l.folder << '\n'
              << "deleted " << c.cache.files << " cache files (" << FormatSize(c.cache.bytes)
              << ") and " << c.temporaries.files << " leftover temporaries ("
              << FormatSize(c.temporaries.bytes)
              << "): " << FormatSize(c.cache.bytes + c.temporaries.bytes) << " freed\n";
    if (c.youngTemporaries > 0) {
      std::cout << "kept " << c.youngTemporaries << " temporaries younger than "
                << jx::disk::kLeftoverTempAgeSeconds << " s (a write may be running)\n";
    }
    if (c.kept > 0) std::cout << "kept " << c.kept << " entries that are not cache files\n";
  }
  if (!c.failed.empty()) {
    throw ToolError("clear: could not delete " + std::to_string(c.failed.size()) +
                    " files, the first " + c.failed.front());
  }
  return kExitOk;
}

void AddFolderOptions(CLI::App* cmd, FolderOptions* o) {
  cmd->add_option("--disk-cache", o->dir,
                  "The folder given to simulate's --disk-cache (default: " + DefaultDiskFolder() +
                      "). " + DiskCacheLayoutHelp())
      ->check(NotEmpty());
  cmd->add_flag("--json", o->json, "Print the figures as JSON");
}

}  // namespace

std::string MachineCacheFolder(const std::string& dir) {
  return (fs::path(dir) / jx::disk::kMakerFolder / jx::disk::kProductFolder /
          jx::disk::MachineFolderName(zelcore::utility::FileUtils::GetComputerName()))
      .string();
}

std::string DiskCacheLayoutHelp() {
  return std::string("The files go in DIR/") + jx::disk::kMakerFolder + "/" +
         jx::disk::kProductFolder + "/Disk Cache - <host name>.noindex/ (on this machine: " +
         jx::disk::MachineFolderName(zelcore::utility::FileUtils::GetComputerName()) + ")";
}

void AddStatsCommand(CLI::App& app, int* exitCode) {
  auto options = std::make_shared<FolderOptions>();
  CLI::App* cmd = app.add_subcommand(
      "stats",
      "Count a disk cache folder: cache files and bytes per payload class, the oldest and newest "
      "file, leftover temporaries, and entries that are not cache files");
  AddFolderOptions(cmd, options.get());
  cmd->callback([options, exitCode] { *exitCode = RunStats(*options); });
}

void AddClearCommand(CLI::App& app, int* exitCode) {
  auto options = std::make_shared<FolderOptions>();
  CLI::App* cmd = app.add_subcommand(
      "clear",
      "Delete the cache files of a disk cache folder (names the library makes, and its leftover "
      "temporaries at least " +
          std::to_string(jx::disk::kLeftoverTempAgeSeconds) +
          " s old); anything else, sub-folders included, is left alone");
  AddFolderOptions(cmd, options.get());
  cmd->callback([options, exitCode] { *exitCode = RunClear(*options); });
}

}  // namespace jx::tool
