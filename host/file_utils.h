// File-system helpers the library needs beyond File and Dir.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zelcore::utility {

class FileUtils {
 public:
  // Creates the folder and every missing parent. Returns true when the folder exists afterwards;
  // false (with errno-derived detail in *error when given) when it cannot be made, or when a
  // file stands where a folder should be.
  static bool EnsureDirectoryExists(const std::string& path, std::string* error = nullptr);
  // Bytes free for an unprivileged writer on the volume holding path; -1 when it cannot be read.
  static int64_t GetVolumeFreeSpace(const std::string& path);
  // Tests only: GetVolumeFreeSpace answers `bytes` for every path until StopFakingVolumeFreeSpace,
  // so that a test can play a nearly full volume without filling one.
  static void FakeVolumeFreeSpace(int64_t bytes);
  static void StopFakingVolumeFreeSpace();
  // Replaces every character that cannot stand in a file name on any of our platforms
  // (/ \ : * ? " < > | and control characters) by `replacement`.
  static std::string ReplaceIllegalFileNameCharacters(std::string_view name, char replacement);
  // The unit for efficient unbuffered I/O on the volume holding path: a power of two, never
  // below the file system's block size and a multiple of it (so O_DIRECT accepts transfers and
  // buffer addresses aligned to it), and at least 64 KiB so that a buffer of a few dozen units
  // makes long transfers.
  static size_t GetEfficientDiskBufferSizeFromPath(const std::string& path);
  // The machine's name, or "" when it has none.
  static std::string GetComputerName();
  // The system temporary folder ($TMPDIR, else /tmp).
  static std::string GetTempDirectoryPath();
};

}  // namespace zelcore::utility
