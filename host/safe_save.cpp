// SafeSave: write beside the target, sync, then rename over it.
#include "host/safe_save.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <string_view>

#include "host/file_syscall.h"

namespace zelcore::filesupport {
namespace {

using detail::ThrowFileError;

// Shared by every thread of the process: together with the process ID it keeps temporary names
// apart between threads writing the same target and between processes sharing a folder.
std::atomic<uint64_t> g_attempt{0};

// A name nobody uses yet. A process that died while writing may have left a temporary under the
// very name this one would pick: a restarted process often gets the dead one's ID back (always
// so as the first process of a container), and the attempt counter starts again at 1. Writing
// into, or giving up because of, such a leftover would lose the write; skip past it instead.
File MakeTempFile(const File& target) {
  for (;;) {
    const uint64_t attempt = g_attempt.fetch_add(1, std::memory_order_relaxed) + 1;
    File temp(target.GetParent(), target.GetName() + "." + std::to_string(::getpid()) + "." +
                                      std::to_string(attempt) + SafeSave::kTempSuffix);
    if (!temp.Exists()) return temp;
  }
}

bool AllDigits(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

// Opens the finished temporary file and pushes its data to the device, so that the rename
// cannot expose a target whose content is still only in the page cache.
void SyncFile(const File& file) {
  const std::string& path = file.GetPath();
  int fd;
  do {
    fd = detail::Fs().Open(path.c_str(), O_RDONLY, 0);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) ThrowFileError(errno, FileOp::kOpen, path);
  const int err = detail::SyncData(fd);
  detail::Fs().Close(fd);
  if (err != 0) ThrowFileError(err, FileOp::kFlush, path);
}

void DeleteQuietly(const File& file) {
  try {
    file.Delete();
  } catch (...) {
    // The temporary may never have been created, or the disk is gone; nothing more to do.
  }
}

}  // namespace

SafeSave::SafeSave(const File& target) : target_(target), temp_(MakeTempFile(target)) {}

SafeSave::~SafeSave() {
  if (!committed_ && temp_.Exists()) DeleteQuietly(temp_);
}

void SafeSave::Commit(Sync sync) {
  if (committed_) return;
  try {
    if (sync == Sync::kNeeded) SyncFile(temp_);
    temp_.Rename(target_);
  } catch (...) {
    DeleteQuietly(temp_);
    throw;
  }
  committed_ = true;
}

bool SafeSave::IsTempFileName(std::string_view name) {
  // "<target name>.<pid>.<attempt>.tmp"
  const std::string_view suffix(kTempSuffix);
  std::string_view s(name);
  if (s.size() <= suffix.size() || s.substr(s.size() - suffix.size()) != suffix) return false;
  s.remove_suffix(suffix.size());
  for (int field = 0; field < 2; ++field) {
    const size_t dot = s.rfind('.');
    if (dot == std::string_view::npos || !AllDigits(s.substr(dot + 1))) return false;
    s = s.substr(0, dot);
  }
  return true;
}

}  // namespace zelcore::filesupport
