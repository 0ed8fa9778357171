// File and Dir over POSIX calls, each guarded by fault injection.
#include "host/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "host/file_syscall.h"
#include "host/file_utils.h"

namespace zelcore::filesupport {
namespace detail {

void ThrowFileError(int err, FileOp op, const std::string& path) {
  std::string what = std::string(FileOpName(op)) + " " + path;
  if (err == ENOENT) throw FileNotFoundError(what);
  throw FileError(err, what);
}

void CheckInjected(FileOp op, const std::string& path) {
  const int err = FaultInjection::ShouldFail(op);
  if (err > 0) ThrowFileError(err, op, path);
}

namespace {

size_t ShortCount(size_t length) { return length - length / 2; }

// WriteSome before its crash point.
ssize_t WriteSomeUnseen(int fd, const void* data, size_t length) {
  const int plan = FaultInjection::ShouldFail(FileOp::kWrite);
  if (plan > 0) {
    errno = plan;
    return -1;
  }
  if (plan != FaultInjection::kShortTransfer || length < 2) return ::write(fd, data, length);
  const size_t count = ShortCount(length);
#if defined(O_DIRECT)
  // An O_DIRECT descriptor takes whole units only. A device's short count need not be one, so
  // the part is written through the page cache, as the kernel leaves it after such a write.
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0 && (flags & O_DIRECT) != 0) {
    if (::fcntl(fd, F_SETFL, flags & ~O_DIRECT) != 0) return -1;
    const ssize_t n = ::write(fd, data, count);
    const int err = errno;
    ::fcntl(fd, F_SETFL, flags);
    errno = err;
    return n;
  }
#endif
  return ::write(fd, data, count);
}

}  // namespace

ssize_t WriteSome(int fd, const void* data, size_t length) {
  const ssize_t n = WriteSomeUnseen(fd, data, length);
  if (n > 0) FaultInjection::Reached(CrashPoint::kWritten);
  return n;
}

ssize_t ReadSome(int fd, void* data, size_t length) {
  const int plan = FaultInjection::ShouldFail(FileOp::kRead);
  if (plan > 0) {
    errno = plan;
    return -1;
  }
  if (plan == FaultInjection::kShortTransfer && length >= 2) length = ShortCount(length);
  return ::read(fd, data, length);
}

int SyncData(int fd) {
  for (;;) {
#if defined(__APPLE__)
    const int rc = ::fsync(fd);  // macOS has no usable fdatasync
#else
    const int rc = ::fdatasync(fd);
#endif
    if (rc == 0) return 0;
    if (errno != EINTR) return errno;
  }
}

}  // namespace detail

namespace {

using detail::CheckInjected;
using detail::ThrowFileError;

// Drops trailing slashes so that "a/b/" and "a/b" name the same folder; "/" stays "/".
std::string StripTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string JoinPath(const std::string& folder, const std::string& name) {
  if (folder.empty()) return name;
  if (folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

struct stat StatOrThrow(FileOp op, const std::string& path) {
  CheckInjected(op, path);
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) ThrowFileError(errno, op, path);
  return st;
}

}  // namespace

// ---- File ----

File::File(const Dir& dir, const std::string& name) : path_(JoinPath(dir.GetPath(), name)) {}

std::string File::GetName() const {
  const std::string path = StripTrailingSlashes(path_);
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

Dir File::GetParent() const {
  const std::string path = StripTrailingSlashes(path_);
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return Dir(".");
  if (slash == 0) return Dir("/");
  return Dir(path.substr(0, slash));
}

bool File::Exists() const {
  struct stat st {};
  return ::stat(path_.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool File::IsRegularFile() const {
  struct stat st {};
  return ::stat(path_.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

void File::Create() const {
  CheckInjected(FileOp::kCreate, path_);
  int fd;
  do {
    fd = ::open(path_.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) ThrowFileError(errno, FileOp::kCreate, path_);
  ::close(fd);
  FaultInjection::Reached(CrashPoint::kCreated);
}

void File::Delete() const {
  CheckInjected(FileOp::kDelete, path_);
  if (::unlink(path_.c_str()) != 0) ThrowFileError(errno, FileOp::kDelete, path_);
}

uint64_t File::Size() const {
  return static_cast<uint64_t>(StatOrThrow(FileOp::kSize, path_).st_size);
}

void File::Rename(const File& to) const {
  const std::string what = path_ + " to " + to.path_;
  CheckInjected(FileOp::kRename, what);
  FaultInjection::Reached(CrashPoint::kRenaming);
  if (::rename(path_.c_str(), to.path_.c_str()) != 0) ThrowFileError(errno, FileOp::kRename, what);
}

int64_t File::GetCreationTime() const {
  // A status query like Size, so faults planned for kSize reach it too.
  return static_cast<int64_t>(StatOrThrow(FileOp::kSize, path_).st_ctime);
}

// ---- Dir ----

Dir::Dir(std::string path) : path_(StripTrailingSlashes(std::move(path))) {}

bool Dir::Exists() const {
  struct stat st {};
  return ::stat(path_.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool Dir::PathExists() const {
  // lstat: a dangling symbolic link still stands in the way of a folder.
  struct stat st {};
  return ::lstat(path_.c_str(), &st) == 0;
}

Dir Dir::Join(const std::string& name) const { return Dir(JoinPath(path_, name)); }

std::vector<std::string> Dir::ListNames() const {
  CheckInjected(FileOp::kOpen, path_);
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path_.c_str()), &::closedir);
  if (!dir) ThrowFileError(errno, FileOp::kOpen, path_);
  std::vector<std::string> names;
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(dir.get());
    if (entry == nullptr) {
      if (errno != 0) ThrowFileError(errno, FileOp::kRead, path_);
      break;
    }
    const std::string_view name(entry->d_name);
    if (name == "." || name == "..") continue;
    names.emplace_back(name);
  }
  return names;
}

Dir Dir::TempDirectory() { return Dir(utility::FileUtils::GetTempDirectoryPath()); }

}  // namespace zelcore::filesupport
