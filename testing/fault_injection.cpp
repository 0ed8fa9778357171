// Process-wide fault plan for the file layer, and the file system that carries it out.
//
// Call counting is on every file operation's path, so the common case (nothing planned) is one
// relaxed atomic increment and one relaxed load; the mutex is taken only while a plan is armed.
#include "testing/fault_injection.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include <array>
#include <atomic>
#include <mutex>
#include <vector>

#include "jxcache/host/host_services.h"

namespace zelcore::filesupport {
namespace {

struct Plan {
  uint64_t call;  // the call count at which the fault fires
  int err;        // or FaultInjection::kShortTransfer
  bool persistent;
};

struct State {
  std::array<std::atomic<uint64_t>, kFileOpCount> calls{};
  std::atomic<uint64_t> injected{0};
  std::atomic<bool> shortReads{false};
  std::atomic<bool> armed{false};
  std::mutex mutex;
  std::array<std::vector<Plan>, kFileOpCount> plans;  // guarded by mutex
  // Planned kills: the reach count at which each point kills (0: none), and the reaches so far.
  std::atomic<bool> killArmed{false};
  std::array<uint64_t, kCrashPointCount> killAt{};   // guarded by mutex
  std::array<uint64_t, kCrashPointCount> reaches{};  // guarded by mutex
};

State& GetState() {
  static State state;
  return state;
}

size_t Index(FileOp op) { return static_cast<size_t>(op); }

size_t ShortCount(size_t length) { return length - length / 2; }

// The library's default file system, with the plan applied to each operation on its way in.
class FaultInjectingFileSystem final : public jx::host::FileSystem {
 public:
  explicit FaultInjectingFileSystem(jx::host::FileSystem& inner) : inner_(inner) {}

  int Open(const char* path, int flags, mode_t mode) override {
    const FileOp op = (flags & O_CREAT) ? FileOp::kCreate : FileOp::kOpen;
    if (Refused(op)) return -1;
    const int fd = inner_.Open(path, flags, mode);
    if (fd >= 0 && op == FileOp::kCreate) FaultInjection::Reached(CrashPoint::kCreated);
    return fd;
  }
  ssize_t Read(int fd, void* data, size_t length) override {
    if (length > 1 && FaultInjection::ShortReads()) --length;
    const int plan = FaultInjection::ShouldFail(FileOp::kRead);
    if (plan > 0) return Fail(plan);
    if (plan == FaultInjection::kShortTransfer && length >= 2) length = ShortCount(length);
    return inner_.Read(fd, data, length);
  }
  ssize_t Write(int fd, const void* data, size_t length) override {
    const int plan = FaultInjection::ShouldFail(FileOp::kWrite);
    if (plan > 0) return Fail(plan);
    const ssize_t n = plan == FaultInjection::kShortTransfer && length >= 2
                          ? WriteShort(fd, data, ShortCount(length))
                          : inner_.Write(fd, data, length);
    if (n > 0) FaultInjection::Reached(CrashPoint::kWritten);
    return n;
  }
  int SyncData(int fd) override { return Refused(FileOp::kFlush) ? -1 : inner_.SyncData(fd); }
  int Truncate(int fd, off_t length) override {
    return Refused(FileOp::kTruncate) ? -1 : inner_.Truncate(fd, length);
  }
  int Close(int fd) override { return inner_.Close(fd); }
  int GetStatusFlags(int fd) override { return inner_.GetStatusFlags(fd); }
  int SetStatusFlags(int fd, int flags) override { return inner_.SetStatusFlags(fd, flags); }
  int Status(const char* path, struct stat* st) override {
    return Refused(FileOp::kSize) ? -1 : inner_.Status(path, st);
  }
  int StatusOf(int fd, struct stat* st) override {
    return Refused(FileOp::kSize) ? -1 : inner_.StatusOf(fd, st);
  }
  int Stat(const char* path, struct stat* st) override { return inner_.Stat(path, st); }
  int FStat(int fd, struct stat* st) override { return inner_.FStat(fd, st); }
  int LStat(const char* path, struct stat* st) override { return inner_.LStat(path, st); }
  int Rename(const char* from, const char* to) override {
    if (Refused(FileOp::kRename)) return -1;
    FaultInjection::Reached(CrashPoint::kRenaming);
    const int rc = inner_.Rename(from, to);
    if (rc == 0) FaultInjection::Reached(CrashPoint::kRenamed);
    return rc;
  }
  int Unlink(const char* path) override {
    return Refused(FileOp::kDelete) ? -1 : inner_.Unlink(path);
  }
  int MakeDirectory(const char* path, mode_t mode) override {
    return inner_.MakeDirectory(path, mode);
  }
  int ListDirectory(const char* path, std::vector<Entry>* entries) override {
    return Refused(FileOp::kOpen) ? -1 : inner_.ListDirectory(path, entries);
  }
  int VolumeStats(const char* path, struct statvfs* st) override {
    return inner_.VolumeStats(path, st);
  }

 private:
  static int Fail(int err) {
    errno = err;
    return -1;
  }
  // True (errno set) when the plan fails this call of `op`.
  static bool Refused(FileOp op) {
    const int plan = FaultInjection::ShouldFail(op);
    if (plan <= 0) return false;
    errno = plan;
    return true;
  }
  // A device's short count need not be whole units; an O_DIRECT descriptor takes whole units
  // only, so the part goes through the page cache, as the kernel leaves it after such a write.
  ssize_t WriteShort(int fd, const void* data, size_t count) {
#if defined(O_DIRECT)
    const int flags = inner_.GetStatusFlags(fd);
    if (flags >= 0 && (flags & O_DIRECT) != 0) {
      if (inner_.SetStatusFlags(fd, flags & ~O_DIRECT) != 0) return -1;
      const ssize_t n = inner_.Write(fd, data, count);
      const int err = errno;
      inner_.SetStatusFlags(fd, flags);
      errno = err;
      return n;
    }
#endif
    return inner_.Write(fd, data, count);
  }

  jx::host::FileSystem& inner_;
};

}  // namespace

void FaultInjection::Install() {
  static FaultInjectingFileSystem* files = [] {
    auto* fs = new FaultInjectingFileSystem(jx::host::DefaultFileSystem());
    jx::host::InstallFileSystem(fs);
    return fs;
  }();
  // Again whenever the default is back (a test put it back in place of this one), or a planned
  // fault would silently never happen; a test's own file system installed on top stays.
  if (&jx::host::GetFiles() == &jx::host::DefaultFileSystem()) jx::host::InstallFileSystem(files);
}

const char* CrashPointName(CrashPoint point) {
  static constexpr const char* kNames[kCrashPointCount] = {"created", "written", "renaming",
                                                           "renamed"};
  const auto i = static_cast<size_t>(point);
  return i < kCrashPointCount ? kNames[i] : "crash point";
}

void FaultInjection::KillAtNth(CrashPoint point, uint64_t nth) {
  Install();
  State& s = GetState();
  std::lock_guard lock(s.mutex);
  const auto i = static_cast<size_t>(point);
  s.killAt[i] = s.reaches[i] + (nth == 0 ? 1 : nth);
  s.killArmed.store(true, std::memory_order_release);
}

void FaultInjection::Reached(CrashPoint point) {
  State& s = GetState();
  if (!s.killArmed.load(std::memory_order_acquire)) return;
  std::lock_guard lock(s.mutex);
  const auto i = static_cast<size_t>(point);
  if (++s.reaches[i] != s.killAt[i]) return;
  // SIGKILL cannot be caught: the process ends here, as it would at a power cut.
  ::kill(::getpid(), SIGKILL);
  for (;;) ::pause();
}

void FaultInjection::FailNth(FileOp op, uint64_t nth, int err, bool persistent) {
  Install();
  State& s = GetState();
  std::lock_guard lock(s.mutex);
  const uint64_t now = s.calls[Index(op)].load(std::memory_order_relaxed);
  s.plans[Index(op)].push_back(Plan{now + (nth == 0 ? 1 : nth), err, persistent});
  s.armed.store(true, std::memory_order_release);
}

void FaultInjection::ShortNth(FileOp op, uint64_t nth, bool persistent) {
  if (op == FileOp::kWrite || op == FileOp::kRead) FailNth(op, nth, kShortTransfer, persistent);
}

void FaultInjection::SetShortReads(bool on) {
  Install();
  GetState().shortReads.store(on, std::memory_order_relaxed);
}

bool FaultInjection::ShortReads() { return GetState().shortReads.load(std::memory_order_relaxed); }

void FaultInjection::Reset() {
  Install();
  State& s = GetState();
  std::lock_guard lock(s.mutex);
  for (auto& plans : s.plans) plans.clear();
  for (auto& calls : s.calls) calls.store(0, std::memory_order_relaxed);
  s.injected.store(0, std::memory_order_relaxed);
  s.shortReads.store(false, std::memory_order_relaxed);
  s.armed.store(false, std::memory_order_release);
  s.killAt.fill(0);
  s.reaches.fill(0);
  s.killArmed.store(false, std::memory_order_release);
}

uint64_t FaultInjection::CallCount(FileOp op) {
  return GetState().calls[Index(op)].load(std::memory_order_relaxed);
}

uint64_t FaultInjection::InjectedCount() {
  return GetState().injected.load(std::memory_order_relaxed);
}

int FaultInjection::ShouldFail(FileOp op) {
  State& s = GetState();
  const size_t i = Index(op);
  if (!s.armed.load(std::memory_order_acquire)) {
    s.calls[i].fetch_add(1, std::memory_order_relaxed);
    return 0;
  }
  std::lock_guard lock(s.mutex);
  const uint64_t call = s.calls[i].fetch_add(1, std::memory_order_relaxed) + 1;
  auto& plans = s.plans[i];
  for (auto it = plans.begin(); it != plans.end(); ++it) {
    if (call == it->call || (it->persistent && call > it->call)) {
      const int err = it->err;
      if (!it->persistent) plans.erase(it);
      s.injected.fetch_add(1, std::memory_order_relaxed);
      return err;
    }
  }
  return 0;
}

}  // namespace zelcore::filesupport
