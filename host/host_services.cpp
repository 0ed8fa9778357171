// The services in force and the library's defaults: what the library does when its host installs
// nothing.
#include "jxcache/host/host_services.h"

#include <dirent.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <thread>

#include "host/media_manager.h"
#include "host/text_encoding.h"
#include "jxcache/host/executor.h"
#include "jxcache/host/high_precision_time.h"
#include "jxcache/host/thread_id.h"

namespace jx::host {
namespace {

class DefaultMemoryImpl final : public MemoryBudget {
 public:
  int32_t GetMemUsageLimits(uint64_t* limit, uint64_t* softLimit) override {
    if (limit) *limit = Limit();
    if (softLimit) *softLimit = Limit();
    return 0;
  }
  uint64_t AmountAvailableBeforePurge() override { return Limit(); }
  uint64_t AmountToPurge() override { return 0; }
  void PurgeRecycledMemory(uint64_t) override {}
  void* AllocateCleared(size_t size, const char*) override {
    // glibc's calloc bypasses the per-thread cache that malloc serves small blocks from; the
    // compute cache probes the allocator with a small block on every request.
    constexpr size_t kSmallBlock = 1024;
    if (size <= kSmallBlock) {
      void* p = std::malloc(size != 0 ? size : 1);
      if (p != nullptr) std::memset(p, 0, size);
      return p;
    }
    return std::calloc(1, size);
  }
  void FreeCleared(void* p) override { std::free(p); }
  void* AllocateTracked(size_t size) override { return ::operator new(size); }
  void FreeTracked(void* p) override { ::operator delete(p); }

 private:
  // Half the physical memory: a host that says nothing leaves the rest to everyone else.
  static uint64_t Limit() {
    static const uint64_t limit = [] {
      const long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGE_SIZE);
      return pages > 0 && pageSize > 0 ? uint64_t(pages) * uint64_t(pageSize) / 2 : 1ull << 30;
    }();
    return limit;
  }
};

class DefaultReports final : public Reports {
 public:
  void FailedVerification(const std::string& text, bool quiet) override {
    Print("failed verification", text, quiet);
  }
  void ErrorString(int32_t, int32_t, const std::u16string& text, bool quiet) override {
    Print("error", zelcore::utility::UTF16ToUTF8(text), quiet);
  }
  void Error(const std::u16string& text, bool quiet) override {
    Print("error", zelcore::utility::UTF16ToUTF8(text), quiet);
  }
  void Exception(int32_t code, const std::string& text, bool quiet) override {
    Print("exception", text + " (code " + std::to_string(code) + ")", quiet);
  }
  bool IsOnMainThread() override {
    // The first thread that asks: the one that started the library, in a program that says
    // nothing else.
    static const zelcore::threads::ThreadId main = zelcore::threads::CurrentThreadId();
    return zelcore::threads::CurrentThreadId() == main;
  }
  bool Translate(const std::string&, std::u16string*) override { return false; }
  void Log(int, const char*, const char*, const char*) override {}

 private:
  static void Print(const char* kind, const std::string& text, bool quiet) {
    if (!quiet) std::fprintf(stderr, "jxcache: %s: %s\n", kind, text.c_str());
  }
};

class DefaultSettings final : public Settings {
 public:
  std::optional<std::string> DebugEntry(const std::string&) override { return std::nullopt; }
  std::optional<std::string> Preference(const std::string&, const std::string&) override {
    return std::nullopt;
  }
  bool IsFeatureEnabled(const std::string&, bool declaredDefault) override {
    return declaredDefault;
  }
};

class DefaultTraceSink final : public TraceSink {
 public:
  void Write(const char* category, int level, const std::string& text) override {
    std::fprintf(stderr, "[%s:%d] %s\n", category, level, text.c_str());
  }
};

class DefaultClockImpl final : public Clock {
 public:
  uint64_t NowNanoseconds() override {
    return zelcore::utility::HighPrecisionTime::DefaultTimeStamp();
  }
  uint64_t MillisecondsSinceBoot() override {
    timespec ts{};
#if defined(CLOCK_BOOTTIME)
    clock_gettime(CLOCK_BOOTTIME, &ts);
#else
    clock_gettime(CLOCK_MONOTONIC, &ts);
#endif
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
  }
  void SleepFor(std::chrono::nanoseconds duration) override {
    std::this_thread::sleep_for(duration);
  }
};

class StdThread final : public JoinableThread {
 public:
  explicit StdThread(std::function<void()> body) : thread_(std::move(body)) {}
  ~StdThread() override { Join(); }
  void Join() override {
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::thread thread_;
};

class DefaultThreads final : public Threads {
 public:
  std::shared_ptr<zelcore::threads::Executor> CreateIOBoundExecutor(unsigned threads) override {
    return zelcore::threads::CreateIOBoundExecutor(threads);
  }
  std::unique_ptr<JoinableThread> StartThread(std::function<void()> body) override {
    return std::make_unique<StdThread>(std::move(body));
  }
};

class PosixFileSystem final : public FileSystem {
 public:
  static Entry::Type TypeOf(const dirent& entry) {
#if defined(_DIRENT_HAVE_D_TYPE) || defined(__APPLE__)
    switch (entry.d_type) {
      case DT_REG:
        return Entry::Type::kFile;
      case DT_DIR:
        return Entry::Type::kFolder;
      case DT_LNK:
        return Entry::Type::kLink;
      case DT_UNKNOWN:
        return Entry::Type::kUnknown;
      default:
        return Entry::Type::kOther;
    }
#else
    (void)entry;
    return Entry::Type::kUnknown;
#endif
  }

  int Open(const char* path, int flags, mode_t mode) override {
    int fd;
    do {
      fd = ::open(path, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
  }
  ssize_t Read(int fd, void* data, size_t length) override { return ::read(fd, data, length); }
  ssize_t Write(int fd, const void* data, size_t length) override {
    return ::write(fd, data, length);
  }
  int SyncData(int fd) override {
#if defined(__APPLE__)
    return ::fsync(fd);  // macOS has no usable fdatasync
#else
    return ::fdatasync(fd);
#endif
  }
  int Truncate(int fd, off_t length) override { return ::ftruncate(fd, length); }
  int Close(int fd) override { return ::close(fd); }
  int GetStatusFlags(int fd) override { return ::fcntl(fd, F_GETFL); }
  int SetStatusFlags(int fd, int flags) override { return ::fcntl(fd, F_SETFL, flags); }
  int Status(const char* path, struct stat* st) override { return ::stat(path, st); }
  int StatusOf(int fd, struct stat* st) override { return ::fstat(fd, st); }
  int Stat(const char* path, struct stat* st) override { return ::stat(path, st); }
  int FStat(int fd, struct stat* st) override { return ::fstat(fd, st); }
  int LStat(const char* path, struct stat* st) override { return ::lstat(path, st); }
  int Rename(const char* from, const char* to) override { return ::rename(from, to); }
  int Unlink(const char* path) override { return ::unlink(path); }
  int MakeDirectory(const char* path, mode_t mode) override { return ::mkdir(path, mode); }
  int ListDirectory(const char* path, std::vector<Entry>* entries) override {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path), &::closedir);
    if (!dir) return -1;
    entries->clear();
    for (;;) {
      errno = 0;
      const dirent* entry = ::readdir(dir.get());
      if (entry == nullptr) return errno == 0 ? 0 : -1;
      if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
      entries->push_back({entry->d_name, TypeOf(*entry)});
    }
  }
  int VolumeStats(const char* path, struct statvfs* st) override { return ::statvfs(path, st); }
  void StatusInFolder(const char* folder, const std::vector<const char*>& names,
                      std::vector<struct stat>* stats, std::vector<int>* errors) override {
    // Sized before the folder is opened: running out of memory must not leave its handle open.
    stats->assign(names.size(), {});
    errors->assign(names.size(), 0);
    const int fd = Open(folder, O_RDONLY | O_DIRECTORY, 0);
    if (fd < 0) {
      FileSystem::StatusInFolder(folder, names, stats, errors);
      return;
    }
    for (size_t i = 0; i < names.size(); ++i) {
      if (::fstatat(fd, names[i], &(*stats)[i], 0) != 0) (*errors)[i] = errno != 0 ? errno : EIO;
    }
    ::close(fd);
  }
};

// The defaults are never destroyed: the library may reach them from static destructors.
template <class T>
T& Default() {
  static T* instance = new T();
  return *instance;
}

// The installed services. Plain pointers written by Install (before the library runs) and read
// freely after; the two a test may swap while the library runs are atomics.
struct Installed {
  MemoryBudget* memory = nullptr;
  Reports* reports = nullptr;
  Settings* settings = nullptr;
  std::shared_ptr<RV::IMediaManager> mediaManager;
  TraceSink* trace = nullptr;
  std::atomic<Clock*> clock{nullptr};
  Threads* threads = nullptr;
  std::atomic<FileSystem*> files{nullptr};
  std::mutex mediaManagerMutex;  // the shared handle is copied, so it needs one
};
Installed& Current() {
  static auto* installed = new Installed();
  return *installed;
}

}  // namespace

void FileSystem::StatusInFolder(const char* folder, const std::vector<const char*>& names,
                                std::vector<struct stat>* stats, std::vector<int>* errors) {
  stats->assign(names.size(), {});
  errors->assign(names.size(), 0);
  std::string path = folder;
  if (!path.empty() && path.back() != '/') path += '/';
  const size_t base = path.size();
  for (size_t i = 0; i < names.size(); ++i) {
    path.resize(base);
    path += names[i];
    if (Status(path.c_str(), &(*stats)[i]) != 0) (*errors)[i] = errno != 0 ? errno : EIO;
  }
}

void Install(const Services& services) {
  Installed& c = Current();
  c.memory = services.memory;
  c.reports = services.reports;
  c.settings = services.settings;
  {
    std::lock_guard<std::mutex> lock(c.mediaManagerMutex);
    c.mediaManager = services.mediaManager;
  }
  c.trace = services.trace;
  InstallClock(services.clock);
  c.threads = services.threads;
  InstallFileSystem(services.files);
}

void InstallFileSystem(FileSystem* files) {
  Current().files.store(files, std::memory_order_release);
}

void InstallClock(Clock* clock) {
  Current().clock.store(clock, std::memory_order_release);
  zelcore::utility::HighPrecisionTime::UseHostClock(clock);
}

MemoryBudget& GetMemory() {
  MemoryBudget* m = Current().memory;
  return m ? *m : DefaultMemory();
}
MemoryBudget& DefaultMemory() { return Default<DefaultMemoryImpl>(); }
Reports& GetReports() {
  Reports* r = Current().reports;
  return r ? *r : Default<DefaultReports>();
}
Settings& GetSettings() {
  Settings* s = Current().settings;
  return s ? *s : Default<DefaultSettings>();
}
std::shared_ptr<RV::IMediaManager> GetMediaManager() {
  Installed& c = Current();
  std::lock_guard<std::mutex> lock(c.mediaManagerMutex);
  return c.mediaManager;
}
TraceSink& GetTrace() {
  TraceSink* t = Current().trace;
  return t ? *t : Default<DefaultTraceSink>();
}
Clock& GetClock() {
  Clock* c = Current().clock.load(std::memory_order_acquire);
  return c ? *c : DefaultClock();
}
Clock* GetInstalledClock() { return Current().clock.load(std::memory_order_acquire); }
Threads& GetThreads() {
  Threads* t = Current().threads;
  return t ? *t : Default<DefaultThreads>();
}
FileSystem& GetFiles() {
  FileSystem* f = Current().files.load(std::memory_order_acquire);
  return f ? *f : DefaultFileSystem();
}
FileSystem& DefaultFileSystem() { return Default<PosixFileSystem>(); }
Clock& DefaultClock() { return Default<DefaultClockImpl>(); }

}  // namespace jx::host

namespace RV {
std::shared_ptr<IMediaManager> GetMediaManager() { return jx::host::GetMediaManager(); }
}  // namespace RV

namespace RV::MM {
uint64_t GetFixedMaxCacheSize() {
  constexpr uint64_t kWithoutManager = 4ull << 30;
  auto manager = jx::host::GetMediaManager();
  return manager ? manager->GetFixedMaxCacheSize() : kWithoutManager;
}
}  // namespace RV::MM
