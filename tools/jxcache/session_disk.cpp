#include "tools/jxcache/session_disk.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "disk/disk_counters.h"
#include "disk/disk_folder.h"
#include "disk/disk_writer.h"
#include "jxcache/disk/performance_counters.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_settings.h"
#include "tools/jxcache/cache_folder.h"
#include "tools/jxcache/tool_error.h"

namespace fs = std::filesystem;

namespace jx::tool {
namespace {

// How long the end of a session waits for the background writer to finish what is queued.
constexpr auto kDrainDeadline = std::chrono::seconds(60);

}  // namespace

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
  if (options_.diskProclivity > 0) {
    // A host keeps its disk cache preferences in this group; SetDiskCacheInfo reads them.
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", options_.diskProclivity);
    zelappsupport::preferences::SetValue(jx::disk::kPreferencesGroup, jx::disk::kProclivityName,
                                         text);
  }
  if (options_.diskMarginGiB >= 0) {
    zelappsupport::preferences::SetValue(jx::disk::kPreferencesGroup,
                                         jx::disk::kMinVolumeFreeSpaceName,
                                         std::to_string(options_.diskMarginGiB));
  }
  // Read before the disk cache is on: a scan of the library's own may adopt files from then on.
  const uint64_t adoptedBefore = jx::disk::GetCounters().filesAdopted.load();
  bag->EnableDiskCache(true);
  bag->SetDiskCacheInfo(folder_, static_cast<long long>(options_.diskLimit));
  if (!bag->IsDiskCacheEnabled()) {
    // The library only turns the cache off. What is most often in the way, a file where one of
    // its folders below DIR should be, is told here rather than blamed on permissions.
    fs::path path = folder_;
    for (const fs::path& part : fs::path(MachineCacheFolder(folder_)).lexically_relative(folder_)) {
      path /= part;
      std::error_code ec;
      const fs::file_status st = fs::status(path, ec);
      if (fs::exists(st) && !fs::is_directory(st))
        throw ToolError("--disk-cache: cannot use '" + folder_ + "': '" + path.string() +
                        "' is not a folder");
    }
    throw ToolError("--disk-cache: cannot use '" + folder_ + "' as a disk cache (not writable)");
  }
  result->diskFolder = bag->GetDiskCacheDirSpec().GetPath();
  // The files of earlier runs become items now, so that the first pass can already hit them.
  // The scan's own figure counts every cache-like name it looked at; what it adopted is what the
  // first pass can hit (a name of another version, or one the frame factory refuses, is not).
  bag->RequestDiskCacheScan();
  bag->ScanDiskCacheDir();
  result->diskFilesAtStart = jx::disk::GetCounters().filesAdopted.load() - adoptedBefore;
  result->diskBytesAtStart = static_cast<uint64_t>(std::max(0LL, bag->GetCurrentDiskCacheSize()));
  result->disk = {true, ""};
  start_ = JX_GetDiskPerformanceCounters();
  active_ = true;
}

void SessionDisk::Finish(SessionResult* result, const DrainFn& drain) {
  if (!active_) return;
  // Queued writes belong to this session: let them land so the next run finds them. On a slow
  // disk that takes long enough to be shown.
  const auto deadline = std::chrono::steady_clock::now() + kDrainDeadline;
  const uint64_t queued = JX_GetQueuedDiskWriteCount();
  uint64_t left = queued;
  while (left > 0 && std::chrono::steady_clock::now() < deadline) {
    if (drain) drain(queued - std::min(left, queued), queued);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    left = JX_GetQueuedDiskWriteCount();
  }
  if (drain && queued > 0) drain(queued - std::min(left, queued), queued);
  // A write taken off the queue may still be running: stopping waits for it.
  JX_StopAllAsyncWork();
  const JX_DiskPerformanceCounters c = JX_GetDiskPerformanceCounters();
  result->filesWritten = c.filesWritten - start_.filesWritten;
  result->bytesWritten = c.bytesWritten - start_.bytesWritten;
  result->filesRead = c.filesRead - start_.filesRead;
  result->bytesRead = c.bytesRead - start_.bytesRead;
  result->failedWrites = c.failedWrites - start_.failedWrites;
  result->failedReads = c.failedReads - start_.failedReads;
  result->writesSkipped = c.writesSkipped - start_.writesSkipped;
  result->writesSkippedForRoom = c.writesSkippedForRoom - start_.writesSkippedForRoom;
  result->writesSkippedForVolume = c.writesSkippedForVolume - start_.writesSkippedForVolume;
  result->writeRequests =
      (c.normalWriteRequests - start_.normalWriteRequests) +
      (c.lowPriorityForcedWriteRequests - start_.lowPriorityForcedWriteRequests) +
      (c.compressedWriteRequests - start_.compressedWriteRequests);
  result->notWorthWriting = c.notWorthWriting - start_.notWorthWriting;
  for (int i = 1; i < 6; ++i)
    result->refusedForReason[i] = c.notWrittenForReason[i - 1] - start_.notWrittenForReason[i - 1];
  result->diskBytesAtEnd = static_cast<uint64_t>(std::max(0LL, bag_->GetCurrentDiskCacheSize()));
}

}  // namespace jx::tool
