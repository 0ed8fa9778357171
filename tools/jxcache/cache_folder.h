// `jxcache stats` and `jxcache clear`: the disk cache folder a `--disk-cache DIR` gives, counted
// and emptied. The library does not keep its files in DIR itself but in a folder of this machine
// below it (MachineCacheFolder), so that several products and machines can share one DIR.
//
// Only the folder's own entries are looked at (no sub-folder), and only names the library itself
// makes are taken for its files: a cache file name that parses, or the temporary of a write.
// `clear` deletes exactly those, and a temporary only once it is as old as the library's own
// clean-up requires (a younger one may be a running writer's): anything else in the folder,
// however it is named, stays.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace jx::tool {

// DIR/<maker>/<product>/Disk Cache - <this machine's name>.noindex
std::string MachineCacheFolder(const std::string& dir);
// One sentence for --help texts: where under DIR the files go.
std::string DiskCacheLayoutHelp();

void AddStatsCommand(CLI::App& app, int* exitCode);
void AddClearCommand(CLI::App& app, int* exitCode);

}  // namespace jx::tool
