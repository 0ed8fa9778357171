// The host seam: the services the library needs from the application it runs in, as interfaces
// that a host implements and installs before JX_Birth, the way a portable storage engine reaches
// its operating system through an environment object.
//
// The library calls its host only through these interfaces, and through the host names it has
// always used (Y_..., zelcore::..., zelappsupport::..., RV::...), which now forward to them. A
// host installs its implementations with jx::host::Install; a service it leaves out keeps the
// library's default:
//
//   service        default (what the library does with no host)
//   memory         half the physical memory as the limit, nothing to purge, the C allocator
//   reports        printed to standard error unless quiet; no translations; the first thread
//                  that asks is the main thread
//   settings       every setting at its default, every feature at its declared default,
//                  no preferences
//   media manager  none: the media map is not used
//   trace sink     standard error
//   clock          the processor's time-stamp counter where the kernel trusts it, else the
//                  steady clock; sleeps through the standard library
//   threads        the library's own thread pool; std::thread
//   file system    POSIX calls
//
// The defaults are enough for a program that embeds the library on its own; jxcache's tools,
// tests and benchmarks install the stand-in host (standalone/), whose policy is configurable.
//
// Threads and locks, for a host's developers (see doc/host_interface.md):
// - Install while no other thread uses the library (before JX_Birth); the objects must live
//   until the process ends (the library may still reach them from static destructors).
// - Every method may be called from any thread, concurrently, unless it says otherwise.
// - The library calls MemoryBudget, Reports, Settings, TraceSink, Clock, Threads and FileSystem
//   with its own locks possibly held: an implementation must not call back into the cache (check
//   out, purge, ...) from inside them, and must not wait for another thread that uses the cache.
// - The media manager is the exception: the library calls it only with none of its locks held
//   (host/media_manager.h), because a host purges the cache from it.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "jxcache/host/export.h"

namespace RV {
class IMediaManager;
}
namespace zelcore::threads {
class Executor;
}

namespace jx::host {

// The host's memory budget and its allocators.
class JX_EXPORT MemoryBudget {
 public:
  virtual ~MemoryBudget() = default;
  // 0 with the host's memory usage limit and soft limit in bytes, or a non-zero status.
  virtual int32_t GetMemUsageLimits(uint64_t* limit, uint64_t* softLimit) = 0;
  // Bytes the cache may still take before the host has to purge.
  virtual uint64_t AmountAvailableBeforePurge() = 0;
  // Bytes the host wants freed by the purge that the calling thread runs now (0: none).
  virtual uint64_t AmountToPurge() = 0;
  // A purge freed `bytes`: the host may now give back memory it recycles itself.
  virtual void PurgeRecycledMemory(uint64_t bytes) = 0;
  // `size` zeroed bytes from the host's tagged allocator, or null when it refuses.
  virtual void* AllocateCleared(size_t size, const char* tag) = 0;
  virtual void FreeCleared(void* p) = 0;
  // Memory for objects the host tracks (the bag); throws std::bad_alloc when it refuses.
  virtual void* AllocateTracked(size_t size) = 0;
  virtual void FreeTracked(void* p) = 0;
};

// Reports to the person using the host, and the host's strings.
class JX_EXPORT Reports {
 public:
  virtual ~Reports() = default;
  // `quiet`: the calling thread is in a quiet-errors scope (the failure is expected; record it,
  // do not show it).
  virtual void FailedVerification(const std::string& text, bool quiet) = 0;
  virtual void ErrorString(int32_t errorClass, int32_t severity, const std::u16string& text,
                           bool quiet) = 0;
  virtual void Error(const std::u16string& text, bool quiet) = 0;
  // An exception the library caught, with the code it was translated to.
  virtual void Exception(int32_t code, const std::string& text, bool quiet) = 0;
  // Whether the calling thread is the host's main thread (the one a person's dialogs run on).
  virtual bool IsOnMainThread() = 0;
  // The host's translation of a localised string's key ("$$$/Group/Name"), if it has one; the
  // library falls back to the default text that follows the key.
  virtual bool Translate(const std::string& key, std::u16string* text) = 0;
  // The host's log (start-up and shut-down messages).
  virtual void Log(int level, const char* category, const char* shortText, const char* message) = 0;
};

// The host's settings: its debug-settings database, its preferences and its feature flags.
class JX_EXPORT Settings {
 public:
  virtual ~Settings() = default;
  // The text of debug setting `name`, or nothing (the library then uses its own default). The
  // library asks once per setting and keeps the value for the life of the process.
  virtual std::optional<std::string> DebugEntry(const std::string& name) = 0;
  // A value of a preference group, as text, or nothing.
  virtual std::optional<std::string> Preference(const std::string& group,
                                                const std::string& name) = 0;
  // Whether feature `key` is on; `declaredDefault` is what the library declared for it.
  virtual bool IsFeatureEnabled(const std::string& key, bool declaredDefault) = 0;
};

// Where traces go. Which categories and levels are on is set through zelcore::debug::Tracing.
class JX_EXPORT TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void Write(const char* category, int level, const std::string& text) = 0;
};

// Time. Stamps order events and measure intervals; they are not wall time.
class JX_EXPORT Clock {
 public:
  virtual ~Clock() = default;
  // Nanoseconds since an arbitrary start; monotonic, cheap (it is on every check-in).
  virtual uint64_t NowNanoseconds() = 0;
  // Milliseconds since the machine started.
  virtual uint64_t MillisecondsSinceBoot() = 0;
  virtual void SleepFor(std::chrono::nanoseconds duration) = 0;
};

// A thread a Threads service started; joined when destroyed (or by Join).
class JX_EXPORT JoinableThread {
 public:
  virtual ~JoinableThread() = default;
  virtual void Join() = 0;
};

// Threads and executors.
class JX_EXPORT Threads {
 public:
  virtual ~Threads() = default;
  // A pool for tasks that mostly wait on I/O; `threadCount` 0 means two per core.
  virtual std::shared_ptr<zelcore::threads::Executor> CreateIOBoundExecutor(
      unsigned threadCount) = 0;
  // Runs `body` on a thread of its own.
  virtual std::unique_ptr<JoinableThread> StartThread(std::function<void()> body) = 0;
};

// The file system, one call per operation of the POSIX call each is named after: the result is
// that call's (a descriptor, a count, 0), or -1 with errno set. Descriptors are the file
// system's own: the library passes them back only to the same service.
class JX_EXPORT FileSystem {
 public:
  virtual ~FileSystem() = default;
  // open(2). With O_CREAT | O_EXCL it creates a file (which must not exist).
  virtual int Open(const char* path, int flags, mode_t mode) = 0;
  virtual ssize_t Read(int fd, void* data, size_t length) = 0;
  virtual ssize_t Write(int fd, const void* data, size_t length) = 0;
  // fdatasync(2) where the system has it, else fsync(2).
  virtual int SyncData(int fd) = 0;
  virtual int Truncate(int fd, off_t length) = 0;
  virtual int Close(int fd) = 0;
  // fcntl(F_GETFL) / fcntl(F_SETFL): the status flags (O_DIRECT, O_NONBLOCK).
  virtual int GetStatusFlags(int fd) = 0;
  virtual int SetStatusFlags(int fd, int flags) = 0;
  // stat(2) / fstat(2) of a file the library is about to use (its size, its times), kept apart
  // from Stat, FStat and LStat, which only ask what is there: a host that checks or counts
  // file operations counts these.
  virtual int Status(const char* path, struct stat* st) = 0;
  virtual int StatusOf(int fd, struct stat* st) = 0;
  // stat(2), fstat(2), lstat(2).
  virtual int Stat(const char* path, struct stat* st) = 0;
  virtual int FStat(int fd, struct stat* st) = 0;
  virtual int LStat(const char* path, struct stat* st) = 0;
  virtual int Rename(const char* from, const char* to) = 0;
  virtual int Unlink(const char* path) = 0;
  virtual int MakeDirectory(const char* path, mode_t mode) = 0;
  // What is in a folder, "." and ".." left out. The type is what the listing itself says
  // (readdir's d_type), or kUnknown where it does not say: the library then asks LStat.
  struct Entry {
    enum class Type { kUnknown, kFile, kFolder, kLink, kOther };
    std::string name;
    Type type = Type::kUnknown;
  };
  virtual int ListDirectory(const char* path, std::vector<Entry>* entries) = 0;
  virtual int VolumeStats(const char* path, struct statvfs* st) = 0;
  // Status (above) of each of `names`, names of entries directly in the folder `folder`: on
  // return (*errors)[i] is 0 and (*stats)[i] that name's status, or the errno of its failure.
  // A folder scan asks this of every cache file it lists. The default calls Status on each
  // path, so a file system that only overrides Status sees every call; the built-in one answers
  // from one handle on the folder (fstatat(2)), which spares the walk of the folder's path for
  // each name.
  virtual void StatusInFolder(const char* folder, const std::vector<const char*>& names,
                              std::vector<struct stat>* stats, std::vector<int>* errors);
};

// The services a host installs; a null member keeps the library's default.
struct Services {
  MemoryBudget* memory = nullptr;
  Reports* reports = nullptr;
  Settings* settings = nullptr;
  std::shared_ptr<RV::IMediaManager> mediaManager;
  TraceSink* trace = nullptr;
  Clock* clock = nullptr;
  Threads* threads = nullptr;
  FileSystem* files = nullptr;
};

// Installs `services` (see above for when). Installing again replaces them, member by member:
// a null member goes back to the default.
JX_EXPORT void Install(const Services& services);
// Installs one service, leaving the others as they are. Safe at any time for the file system
// and the clock (they are swapped atomically; calls under way finish on the old one), so that a
// test can wrap the file system in fault injection.
JX_EXPORT void InstallFileSystem(FileSystem* files);
JX_EXPORT void InstallClock(Clock* clock);

// The services in force: the host's, or the defaults.
JX_EXPORT MemoryBudget& GetMemory();
JX_EXPORT Reports& GetReports();
JX_EXPORT Settings& GetSettings();
// Empty when the host has no media manager.
JX_EXPORT std::shared_ptr<RV::IMediaManager> GetMediaManager();
JX_EXPORT TraceSink& GetTrace();
JX_EXPORT Clock& GetClock();
// Null while the default clock is in force: the time stamps then read it inline.
JX_EXPORT Clock* GetInstalledClock();
JX_EXPORT Threads& GetThreads();
JX_EXPORT FileSystem& GetFiles();

// The library's defaults, for a host that wraps one (a file system that injects faults, a clock
// that logs) rather than replacing it.
JX_EXPORT MemoryBudget& DefaultMemory();
JX_EXPORT FileSystem& DefaultFileSystem();
JX_EXPORT Clock& DefaultClock();

}  // namespace jx::host
