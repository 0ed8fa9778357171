#include "tools/jxcache/session_disk.h"

#include <filesystem>

#include "disk/disk_counters.h"
#include "tools/jxcache/tool_error.h"

#if __has_include("disk/cache_file_name.h")
#define JX_TOOL_HAS_DISK_CACHE 1
#else
#define JX_TOOL_HAS_DISK_CACHE 0
#endif

namespace fs = std::filesystem;

namespace jx::tool {

std::string DefaultDiskFolder() {
  std::error_code ec;
  fs::path tmp = fs::temp_directory_path(ec);
  if (ec) tmp = "/tmp";
  return (tmp / "jxcache-simulate").string();
}

SessionDisk::SessionDisk(const SimulateOptions& options)
    : options_(options),
      folder_(options.diskFolder.empty() ? DefaultDiskFolder() : options.diskFolder) {
  if (options.noDisk) return;
  std::error_code ec;
  const fs::file_status st = fs::status(folder_, ec);
  if (fs::exists(st) && !fs::is_directory(st))
    throw ToolError("--disk-cache: '" + folder_ + "' exists and is not a folder");
  if (!fs::exists(st)) {
    fs::create_directories(folder_, ec);
    if (ec) throw ToolError("--disk-cache: cannot create '" + folder_ + "': " + ec.message());
  }
}

void SessionDisk::Attach(const std::shared_ptr<JX_Bag>& bag, SessionResult* result) {
  bag_ = bag;
  result->diskFolder = folder_;
  if (options_.noDisk) {
    result->disk = {false, "switched off with --no-disk"};
    return;
  }
#if JX_TOOL_HAS_DISK_CACHE
  result->disk = {true, ""};
  active_ = true;
#else
  result->disk = {false, "the disk cache writer and folder scan are not part of this build"};
#endif
}

void SessionDisk::Finish(SessionResult* result) {
  if (!active_) return;
  const auto& c = jx::disk::GetCounters();
  result->filesWritten = c.filesWritten.load();
  result->bytesWritten = c.bytesWritten.load();
  result->filesRead = c.filesRead.load();
  result->bytesRead = c.bytesRead.load();
  result->failedWrites = c.failedWrites.load();
  result->failedReads = c.failedReads.load();
  result->writesSkipped = c.writesSkipped.load();
  for (int i = 0; i < 6; ++i) result->refusedForReason[i] = c.refusedForReason[i].load();
  result->diskBytesAtEnd = static_cast<uint64_t>(std::max(0LL, bag_->GetCurrentDiskCacheSize()));
}

bool MediaMapWanted() { return false; }

Availability ComputeAvailability() {
  return {false, "the plug-in compute-cache suite is not part of this build"};
}

Availability MediaMapAvailability() {
  return {false, "the media map and its media manager are not part of this build"};
}

}  // namespace jx::tool
