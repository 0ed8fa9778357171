// Helpers of the disk cache folder keeper (JX_Bag's folder methods live in disk_folder.cpp).
//
// Locks: the folder and the size limit live in the bag under its disk mutex, a leaf. The two
// folder walks, ScanDiskCacheDir and PurgeAllDiskCaches, take the bag's scan mutex
// (diskScanMutex_) before any other lock, the library lock included, and nothing else takes it:
// one walk at a time, and a walk adopts or deletes through items (library lock, item locks)
// while it holds it. Never start a walk while holding the library lock or an item lock.
//
// Leftover temporaries: a write goes to a SafeSave temporary beside its target, named after the
// target plus the process and a per-process attempt count, ending in ".tmp". One left by a
// process killed mid-write is never adopted (it is not a ".kqcache" name) and never blocks a
// later write of the same item (a writer only looks at its own temporary). Both walks delete
// the ones at least kLeftoverTempAgeSeconds old; a younger one may be a live writer's.
#pragma once

#include <cstdint>
#include <string>

#include "jxcache/host/file.h"

class JX_Bag;

namespace jx::disk {

inline constexpr const char* kMakerFolder = "Orvane";
inline constexpr const char* kProductFolder = "Plexmotion";
// The end of every cache file name: the extension of cache_file_name.h with its dot.
inline constexpr const char* kCacheFileSuffix = ".kqcache";
// A SafeSave temporary this old belongs to a process that died while writing.
inline constexpr int64_t kLeftoverTempAgeSeconds = 60;

// "Disk Cache - <computer name>.noindex", illegal characters replaced by "-"; a machine without
// a name gets the localised "This Computer".
std::string MachineFolderName(const std::string& computerName);
bool IsCacheFileName(const std::string& name);
// Deletes the SafeSave temporaries in `dir` at least `minAgeSeconds` old; returns how many.
int DeleteLeftoverTempFiles(const zelcore::filesupport::Dir& dir, int64_t minAgeSeconds);
// Deletes the SafeSave temporary `temp`, last changed at `changed` (seconds since the epoch), if
// it is at least `minAgeSeconds` older than `now`; true when it did.
bool DeleteIfLeftover(const zelcore::filesupport::File& temp, int64_t changed, int64_t now,
                      int64_t minAgeSeconds);

// Room for one write in the cache's limit, made by EnsureDiskSpace and then held by the write
// until its file is linked and counted (or the write is over without one). The disk thread runs
// writes at once; without the hold each could count on the same free bytes and together they
// would overrun the limit. Room is made one write at a time, under a mutex that is taken before
// any other lock and by nothing but this: never make room while holding a lock of the cache.
class ScWriteRoom {
 public:
  ScWriteRoom(JX_Bag& bag, int64_t bytes, uint64_t lastUsedThreshold);
  ~ScWriteRoom();
  ScWriteRoom(const ScWriteRoom&) = delete;
  ScWriteRoom& operator=(const ScWriteRoom&) = delete;
  bool Made() const { return made_; }

 private:
  const int64_t bytes_;
  bool made_ = false;
};

// Additional settings, read by JX_Bag::SetDiskCacheInfo from the host's preferences.
inline constexpr const char* kPreferencesGroup = "Additional Disk Cache Controls";
inline constexpr const char* kMinVolumeFreeSpaceName = "Minimum Volume Free Space (Gigabytes)";
inline constexpr const char* kProclivityName = "Proclivity Multiplier 2";
inline constexpr const char* kSpeedCapName =
    "Dont Include Speeds Above This In Average (bytes/sec) 3";
inline constexpr int64_t kDefaultMinVolumeFreeSpaceGB = 10;
// Bytes the volume must keep free beside the cache.
int64_t GetMinimumVolumeFreeSpace();
// Whether the volume holding `bag`'s folder still has its margin after `bytes` more are
// written. A volume whose free space cannot be read does not stop writes.
bool VolumeKeepsMarginAfter(const JX_Bag& bag, int64_t bytes);

// The out-of-space state that the bag's disk-out-of-space signal reports to the host. It is
// entered when a write is given up for want of room (the cache's limit cannot be met, the volume
// would drop below its margin, or the volume reports itself full) and left when a write commits.
// The signal fires on entering it, so the host hears once per shortage, not once per write.
void NoteDiskOutOfSpace(JX_Bag& bag);
void NoteDiskWriteCommitted();
// Whether a failed file operation's errno means the volume is full (or the quota used up).
bool IsOutOfSpaceErrno(int err);

}  // namespace jx::disk

// A version sub-path: the platform's path separator followed by `versionText` ("\\" on Windows,
// "/" on POSIX), ready to be appended to a folder path.
std::string JX_KQVersDir(const std::string& versionText);
