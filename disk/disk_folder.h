// Helpers of the disk cache folder keeper (JX_Bag's folder methods live in disk_folder.cpp).
#pragma once

#include <cstdint>
#include <string>

#include "host/file.h"

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
// The version field of a cache file name (third "."-separated field, upper-case hexadecimal).
bool ParseCacheFileVersion(const std::string& name, uint32_t* version);
// Deletes the SafeSave temporaries in `dir` at least `minAgeSeconds` old; returns how many.
int DeleteLeftoverTempFiles(const zelcore::filesupport::Dir& dir, int64_t minAgeSeconds);

// Additional settings, read by JX_Bag::SetDiskCacheInfo from the host's preferences.
inline constexpr const char* kPreferencesGroup = "Additional Disk Cache Controls";
inline constexpr const char* kMinVolumeFreeSpaceName = "Minimum Volume Free Space (Gigabytes)";
inline constexpr const char* kProclivityName = "Proclivity Multiplier 2";
inline constexpr const char* kSpeedCapName =
    "Dont Include Speeds Above This In Average (bytes/sec) 3";
inline constexpr int64_t kDefaultMinVolumeFreeSpaceGB = 10;
// Bytes the volume must keep free beside the cache.
int64_t GetMinimumVolumeFreeSpace();

}  // namespace jx::disk
