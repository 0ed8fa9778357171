#include "tools/jxcache/inspect.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <iostream>
#include <map>
#include <optional>

#include "disk/cache_file_name.h"
#include "host/safe_save.h"
#include "tools/jxcache/size_arg.h"
#include "tools/jxcache/table.h"
#include "tools/jxcache/tally.h"
#include "tools/jxcache/tool_error.h"

namespace fs = std::filesystem;

namespace jx::tool {
namespace {

// What the folder holds, from directory entries only: no file is opened.
struct FolderContents {
  Tally cacheFiles, temporaries, unparsed, other;
  std::map<std::string, Tally> byClass;
  std::map<uint32_t, Tally> byVersion;
  std::vector<std::pair<std::string, std::string>> unparsedNames;  // relative name, reason
};

void Classify(const fs::directory_entry& e, const fs::path& root, FolderContents* c) {
  std::error_code ec;
  const uint64_t size = e.file_size(ec);
  const std::string name = e.path().filename().string();
  const std::string_view tempSuffix = zelcore::filesupport::SafeSave::kTempSuffix;
  const bool tempSuffixed = name.size() > tempSuffix.size() && name.ends_with(tempSuffix);
  if (tempSuffixed || zelcore::filesupport::SafeSave::IsTempFileName(name))
    return c->temporaries.Add(size);
  jx::disk::CacheFileName parsed;
  const auto error = jx::disk::ParseCacheFileName(name, &parsed);
  if (error == jx::disk::CacheFileNameError::kNone) {
    c->cacheFiles.Add(size);
    c->byClass[parsed.matchName].Add(size);
    c->byVersion[parsed.version].Add(size);
    return;
  }
  if (error == jx::disk::CacheFileNameError::kTempFile) return c->temporaries.Add(size);
  const bool looksLikeCache =
      e.path().extension() == "." + std::string(jx::disk::kCacheFileExtension);
  if (!looksLikeCache) return c->other.Add(size);
  c->unparsed.Add(size);
  if (c->unparsedNames.size() < kNamesListed) {
    c->unparsedNames.emplace_back(fs::relative(e.path(), root, ec).string(),
                                  jx::disk::DescribeCacheFileNameError(error));
  }
}

FolderContents Scan(const std::string& dir) {
  std::error_code ec;
  const fs::file_status st = fs::status(dir, ec);
  if (!fs::exists(st)) throw ToolError("inspect: '" + dir + "' does not exist");
  if (!fs::is_directory(st)) throw ToolError("inspect: '" + dir + "' is not a folder");
  FolderContents c;
  fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec);
  if (ec) throw ToolError("inspect: cannot read '" + dir + "': " + ec.message());
  for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (ec) throw ToolError("inspect: cannot read '" + dir + "': " + ec.message());
    if (it->is_regular_file(ec)) Classify(*it, dir, &c);
  }
  return c;
}

void PrintJson(const std::string& dir, const FolderContents& c, std::optional<uint64_t> limit) {
  nlohmann::ordered_json j;
  j["folder"] = dir;
  j["cache_files"] = TallyJson(c.cacheFiles);
  j["by_class"] = nlohmann::ordered_json::object();
  for (const auto& [name, t] : c.byClass) j["by_class"][name] = TallyJson(t);
  j["by_version"] = nlohmann::ordered_json::object();
  for (const auto& [v, t] : c.byVersion) j["by_version"][std::to_string(v)] = TallyJson(t);
  j["unparsed"] = TallyJson(c.unparsed);
  j["unparsed_names"] = nlohmann::json::array();
  for (const auto& [name, why] : c.unparsedNames)
    j["unparsed_names"].push_back({{"name", name}, {"reason", why}});
  j["temporaries"] = TallyJson(c.temporaries);
  j["other_files"] = TallyJson(c.other);
  const uint64_t total = c.cacheFiles.bytes + c.unparsed.bytes + c.temporaries.bytes;
  j["total_bytes"] = total;
  if (limit) {
    j["limit"] = *limit;
    j["over_limit"] = total > *limit;
  }
  // File names are bytes, not necessarily UTF-8, and JSON must be: a name that is not valid
  // UTF-8 is shown with U+FFFD in place of its bad bytes.
  std::cout << j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void PrintText(const std::string& dir, const FolderContents& c, std::optional<uint64_t> limit) {
  std::cout << "disk cache folder " << dir << "\n\n";
  TextTable classes({"payload class", "files", "bytes"});
  for (const auto& [name, t] : c.byClass)
    classes.AddRow({name, std::to_string(t.files), FormatSize(t.bytes)});
  classes.AddRow(
      {"all cache files", std::to_string(c.cacheFiles.files), FormatSize(c.cacheFiles.bytes)});
  classes.Print(std::cout);
  std::cout << '\n';
  TextTable versions({"version", "files", "bytes"});
  for (const auto& [v, t] : c.byVersion) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "%X", v);
    versions.AddRow({hex, std::to_string(t.files), FormatSize(t.bytes)});
  }
  versions.Print(std::cout);
  std::cout << "\nnames that do not parse: " << c.unparsed.files << " ("
            << FormatSize(c.unparsed.bytes) << ")\n";
  for (const auto& [name, why] : c.unparsedNames) std::cout << "  " << name << ": " << why << '\n';
  std::cout << "leftover temporaries:    " << c.temporaries.files << " ("
            << FormatSize(c.temporaries.bytes) << ")\n";
  std::cout << "other files:             " << c.other.files << " (" << FormatSize(c.other.bytes)
            << ")\n";
  const uint64_t total = c.cacheFiles.bytes + c.unparsed.bytes + c.temporaries.bytes;
  std::cout << "total:                   " << FormatSize(total);
  if (limit) {
    std::cout << " of " << FormatSize(*limit) << " limit"
              << (total > *limit ? " (over the limit)" : "");
  }
  std::cout << '\n';
}

struct InspectOptions {
  std::string dir;
  std::string limit;
  bool json = false;
};

int RunInspect(const InspectOptions& o) {
  // Given as 0 it is a limit all the same, not the option left out.
  std::optional<uint64_t> limit;
  if (!o.limit.empty()) limit = ParseSize(o.limit, "--limit");
  const FolderContents c = Scan(o.dir);
  if (o.json) {
    PrintJson(o.dir, c, limit);
  } else {
    PrintText(o.dir, c, limit);
  }
  return kExitOk;
}

}  // namespace

void AddInspectCommand(CLI::App& app, int* exitCode) {
  auto options = std::make_shared<InspectOptions>();
  CLI::App* cmd = app.add_subcommand(
      "inspect", "Describe a disk cache folder from its file names (no file is opened)");
  cmd->add_option("dir", options->dir, "Disk cache folder (searched with its sub-folders)")
      ->required();
  cmd->add_option("--limit", options->limit, "Size limit to compare the folder's total against");
  cmd->add_flag("--json", options->json, "Print the figures as JSON");
  cmd->callback([options, exitCode] { *exitCode = RunInspect(*options); });
}

}  // namespace jx::tool
