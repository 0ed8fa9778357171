// File and Dir over the host's file system.
#include "jxcache/host/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>

#include "host/file_syscall.h"
#include "host/file_utils.h"

namespace zelcore::filesupport {

const char* FileOpName(FileOp op) {
  static constexpr const char* kNames[kFileOpCount] = {
      "create", "open", "write", "flush", "truncate", "rename", "size", "delete", "read"};
  const auto i = static_cast<size_t>(op);
  return i < kFileOpCount ? kNames[i] : "file operation";
}

namespace detail {

void ThrowFileError(int err, FileOp op, const std::string& path) {
  std::string what = std::string(FileOpName(op)) + " " + path;
  if (err == ENOENT) throw FileNotFoundError(what);
  throw FileError(err, what);
}

int SyncData(int fd) {
  for (;;) {
    if (Fs().SyncData(fd) == 0) return 0;
    if (errno != EINTR) return errno;
  }
}

}  // namespace detail

namespace {

using detail::Fs;
using detail::ThrowFileError;

// Drops trailing slashes so that "a/b/" and "a/b" name the same folder; "/" stays "/".
std::string_view StripTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

// One allocation: a folder scan builds a path for every name it lists.
std::string JoinPath(const std::string& folder, const std::string& name) {
  if (folder.empty()) return name;
  const bool slash = folder.back() != '/';
  std::string path;
  path.reserve(folder.size() + slash + name.size());
  path += folder;
  if (slash) path += '/';
  path += name;
  return path;
}

struct stat StatusOrThrow(const std::string& path) {
  struct stat st {};
  if (Fs().Status(path.c_str(), &st) != 0) ThrowFileError(errno, FileOp::kSize, path);
  return st;
}

}  // namespace

// ---- File ----

File::File(const Dir& dir, const std::string& name) : path_(JoinPath(dir.GetPath(), name)) {}

std::string File::GetName() const {
  const std::string_view path = StripTrailingSlashes(path_);
  const size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

Dir File::GetParent() const {
  const std::string_view path = StripTrailingSlashes(path_);
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return Dir(".");
  if (slash == 0) return Dir("/");
  return Dir(std::string(path.substr(0, slash)));
}

bool File::Exists() const {
  struct stat st {};
  return Fs().Stat(path_.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool File::IsRegularFile() const {
  struct stat st {};
  return Fs().Stat(path_.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

void File::Create() const {
  int fd;
  do {
    fd = Fs().Open(path_.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) ThrowFileError(errno, FileOp::kCreate, path_);
  Fs().Close(fd);
}

void File::Delete() const {
  if (Fs().Unlink(path_.c_str()) != 0) ThrowFileError(errno, FileOp::kDelete, path_);
}

uint64_t File::Size() const { return static_cast<uint64_t>(StatusOrThrow(path_).st_size); }

void File::Rename(const File& to) const {
  if (Fs().Rename(path_.c_str(), to.path_.c_str()) != 0) {
    ThrowFileError(errno, FileOp::kRename, path_ + " to " + to.path_);
  }
}

int64_t File::GetCreationTime() const {
  return static_cast<int64_t>(StatusOrThrow(path_).st_ctime);
}

// ---- Dir ----

Dir::Dir(std::string path) : path_(std::move(path)) {
  path_.resize(StripTrailingSlashes(path_).size());
}

bool Dir::Exists() const {
  struct stat st {};
  return Fs().Stat(path_.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool Dir::PathExists() const {
  // lstat: a dangling symbolic link still stands in the way of a folder.
  struct stat st {};
  return Fs().LStat(path_.c_str(), &st) == 0;
}

Dir Dir::Join(const std::string& name) const { return Dir(JoinPath(path_, name)); }

std::vector<std::string> Dir::ListNames() const {
  std::vector<jx::host::FileSystem::Entry> entries;
  if (Fs().ListDirectory(path_.c_str(), &entries) != 0) ThrowFileError(errno, FileOp::kOpen, path_);
  std::vector<std::string> names;
  names.reserve(entries.size());
  for (auto& e : entries) names.push_back(std::move(e.name));
  return names;
}

Dir Dir::TempDirectory() { return Dir(utility::FileUtils::GetTempDirectoryPath()); }

}  // namespace zelcore::filesupport
