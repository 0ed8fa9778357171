// File-system helpers over the host's file system.
#include "host/file_utils.h"

#include <algorithm>
#include <atomic>
#include <climits>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "jxcache/host/host_services.h"

namespace zelcore::utility {
namespace {

constexpr size_t kMinDiskUnit = 512;
constexpr size_t kDefaultDiskUnit = 4096;
// A larger block size is a file system reporting nonsense; the default serves better.
constexpr unsigned long kMaxPlausibleBlock = 1ul << 30;

constexpr int64_t kNotFaked = INT64_MIN;
std::atomic<int64_t> gFakedVolumeFreeSpace{kNotFaked};

std::string StripTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string ParentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// statvfs of the path, or of its nearest existing ancestor when the path is not there yet (a
// cache folder is often asked about before it is made).
bool StatVolume(const std::string& path, struct statvfs* out) {
  std::string p = StripTrailingSlashes(path.empty() ? "." : path);
  for (;;) {
    if (jx::host::GetFiles().VolumeStats(p.c_str(), out) == 0) return true;
    if (errno != ENOENT && errno != ENOTDIR) return false;
    const std::string parent = ParentOf(p);
    if (parent == p) return false;
    p = parent;
  }
}

void SetError(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

bool MakeFolder(const std::string& path, std::string* error) {
  jx::host::FileSystem& fs = jx::host::GetFiles();
  struct stat st {};
  if (fs.Stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    SetError(error, "cannot create folder " + path + ": a file is in the way");
    return false;
  }
  const std::string parent = ParentOf(path);
  if (parent != path && !MakeFolder(parent, error)) return false;
  if (fs.MakeDirectory(path.c_str(), 0777) == 0) return true;
  const int err = errno;
  // Another thread or process may have made it in the meantime.
  if (err == EEXIST && fs.Stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
  SetError(error, "cannot create folder " + path + ": " + std::strerror(err));
  return false;
}

}  // namespace

bool FileUtils::EnsureDirectoryExists(const std::string& path, std::string* error) {
  if (path.empty()) {
    SetError(error, "cannot create folder: empty path");
    return false;
  }
  return MakeFolder(StripTrailingSlashes(path), error);
}

int64_t FileUtils::GetVolumeFreeSpace(const std::string& path) {
  const int64_t faked = gFakedVolumeFreeSpace.load(std::memory_order_relaxed);
  if (faked != kNotFaked) return faked;
  struct statvfs vfs {};
  if (!StatVolume(path, &vfs)) return -1;
  return static_cast<int64_t>(vfs.f_bavail) * static_cast<int64_t>(vfs.f_frsize);
}

void FileUtils::FakeVolumeFreeSpace(int64_t bytes) {
  gFakedVolumeFreeSpace.store(bytes == kNotFaked ? kNotFaked + 1 : bytes,
                              std::memory_order_relaxed);
}

void FileUtils::StopFakingVolumeFreeSpace() {
  gFakedVolumeFreeSpace.store(kNotFaked, std::memory_order_relaxed);
}

std::string FileUtils::ReplaceIllegalFileNameCharacters(std::string_view name, char replacement) {
  static constexpr std::string_view kIllegal = "/\\:*?\"<>|";
  std::string out(name);
  for (char& c : out) {
    if (static_cast<unsigned char>(c) < 0x20 || kIllegal.find(c) != std::string_view::npos) {
      c = replacement;
    }
  }
  return out;
}

constexpr size_t kEfficientTransferUnit = 64 * 1024;

size_t FileUtils::GetEfficientDiskBufferSizeFromPath(const std::string& path) {
  // The file system's preferred block size is a multiple of the device's logical sector on every
  // file system we have met, which is what O_DIRECT needs for offsets, lengths and addresses.
  // Network and cluster file systems may prefer blocks of a megabyte or more: the unit never
  // goes below the block size, or every transfer would split one of its blocks.
  struct statvfs vfs {};
  size_t block = kDefaultDiskUnit;
  if (StatVolume(path, &vfs) && vfs.f_bsize > 0 && vfs.f_bsize <= kMaxPlausibleBlock) {
    block = static_cast<size_t>(vfs.f_bsize);
  }
  // Efficient means large transfers: unbuffered writes wait for the device one call at a time,
  // so a writer buffering several units should hand it megabytes, not 256 KiB. The smallest
  // power of two at least both is a multiple of a power-of-two block size (the only kind we
  // have seen reported) and a valid alignment for the buffer.
  size_t unit = kMinDiskUnit;
  while (unit < std::max(block, kEfficientTransferUnit)) unit *= 2;
  return unit;
}

std::string FileUtils::GetComputerName() {
  char name[256] = {};
  if (::gethostname(name, sizeof(name) - 1) != 0) return "";
  return name;
}

std::string FileUtils::GetTempDirectoryPath() {
  const char* tmp = std::getenv("TMPDIR");
  return StripTrailingSlashes(tmp && *tmp ? tmp : "/tmp");
}

}  // namespace zelcore::utility
