// disk_full: the disk cache on volumes that fill up, on a folder that cannot be written and on one
// that is missing.
//
// Needs root and a private mount namespace: a forked child unshares its mounts (the machine's
// stay untouched) and mounts a small tmpfs and a small loop-mounted ext4 to use as cache
// folders; where that is not possible the program says why and passes. Each phase runs in a
// further child with its own JX_Birth, as a host would after a restart.
//
// On each volume: writer threads fill it until writes fail; every failure is clean (no partial
// file, no temporary, the payload still in memory, the disk-size total equal to the files);
// the drive-space limit is reported while other data crowds the volume and lifts when it goes;
// writes resume when space frees (other data deleted, or the cache purged); and a fresh process
// adopts only whole files, each reading back byte-identical. Every write and read that gets
// through moves the bytes-written or bytes-read counter by exactly its file's size.
//
// Bounds: --ops caps the writes of each writer thread in one filling, --seconds the whole run
// (phases not started in time are skipped, with a line saying so). The phases the machine allows
// are the plan: a run that finished fewer than its floor of them fails. A phase (child process)
// still running well past the time bound is a hang: it is named, killed and counted, and the
// run fails; the whole program has a hard bound too.
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "disk/cache_file_name.h"
#include "disk/disk_counters.h"
#include "disk/disk_folder.h"
#include "host/file_utils.h"
#include "host/safe_save.h"
#include "jxcache/bag/bag.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"
#include "standalone/standalone_settings.h"
#include "stress_common.h"
#include "testing/keyed_payload.h"

using jx::testing::KeyedPayload;
using zelcore::filesupport::Dir;
using zelcore::filesupport::File;
using zelcore::utility::FileUtils;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr const char* kCantWriteText = "Unable to write to Disk Cache folder";
constexpr const char* kNonexistentText = "Disk Cache folder doesn't exist";

// What one phase (a child process) did and found.
struct Report {
  uint64_t written = 0;
  uint64_t failed = 0;
  uint64_t adopted = 0;
  uint64_t partialAdopted = 0;
  uint64_t bytesLost = 0;
  uint64_t limitedSeen = 0;
  uint64_t violations = 0;
  uint64_t cut = 0;    // steps of the phase left out because the time ran out
  uint64_t hangs = 0;  // the phase did not finish in time (set by the parent)
};

jx::stress::Options gOptions;
std::unique_ptr<jx::stress::Deadline> gDeadline;

bool TimeIsUp(const char* before) {
  if (!gDeadline->Passed()) return false;
  std::printf("disk_full: time ran out before %s\n", before);
  return true;
}

// How long a phase may take: it starts before the time bound and checks it between its steps,
// so that one still running a minute past the bound is stuck.
double PhaseLimitSeconds() { return gOptions.seconds + 60.0; }

// Runs `body` in a child process with a fresh library; returns what it reported (a child that
// died without reporting counts as a violation).
Report RunPhase(const char* name,
                const std::function<void(JX_Bag&, Report&, jx::stress::Violations&)>& body) {
  int fds[2];
  if (::pipe(fds) != 0) return Report{.violations = 1};
  std::fflush(stdout);  // or the child would print what is buffered a second time
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(fds[0]);
    auto& host = jx::StandaloneHost::Instance();
    host.Reset();
    host.SetEchoReports(false);
    host.MakeCurrentThreadMain();
    zelappsupport::preferences::Clear();
    JX_Birth(false, 1, false);
    KeyedPayload::RegisterFactory();
    Report report;
    jx::stress::Violations violations;
    {
      auto bag = JX_GlobalBag();
      body(*bag, report, violations);
    }
    JX_StopAllAsyncWork();
    JX_Death();
    report.violations = violations.Count();
    std::fflush(stdout);
    ::_exit(jx::stress::WriteAll(fds[1], &report, sizeof report) ? 0 : 3);
  }
  ::close(fds[1]);
  Report report;
  const bool got = jx::stress::ReadAllWithin(fds[0], &report, sizeof report, PhaseLimitSeconds());
  ::close(fds[0]);
  const jx::stress::ChildEnd end = jx::stress::WaitChild("disk_full", pid, 10.0, name);
  if (end.hung || !got) {
    if (!end.hung) std::fprintf(stderr, "disk_full: HANG: phase %s sent no report in time\n", name);
    return Report{.violations = 1, .hangs = 1};
  }
  if (!end.Exited()) {
    std::fprintf(stderr, "VIOLATION: phase %s died (status %d)\n", name, end.status);
    return Report{.violations = 1};
  }
  return report;
}

IntrusivePtr<JX_Stuff> NewItem(JX_Bag& bag, uint32_t size) {
  const Guid key = Guid::CreateUnique();
  auto item = JX_Stuff::CreateNew(KeyedPayload::ForKey(key, size), 0.0);
  item->SetGuid(key);
  item->AddToBagAndSortDir(bag.shared_from_this());
  return item;
}

bool FileIsWhole(const File& file) {
  jx::disk::CacheFileName name;
  if (jx::disk::ParseCacheFileName(file.GetName(), &name) != jx::disk::CacheFileNameError::kNone ||
      name.header.size() != 8)
    return false;
  uint32_t seed, size;
  std::memcpy(&seed, name.header.data(), 4);
  std::memcpy(&size, name.header.data() + 4, 4);
  return seed == jx::testing::SeedOfKey(name.guid) &&
         jx::testing::ReadWholeFile(file.GetPath()) == jx::testing::KeyedBytes(seed, size);
}

// Only whole cache files, no temporary, and the disk-size total equal to the files.
void CheckFolder(JX_Bag& bag, jx::stress::Violations& v, const char* when) {
  const Dir dir = bag.GetDiskCacheDirSpec();
  long long onDisk = 0;
  for (const std::string& name : dir.ListNames()) {
    const File file = dir.GetFile(name);
    if (zelcore::filesupport::SafeSave::IsTempFileName(name)) {
      v.Report((std::string(when) + ": a temporary was left").c_str());
    } else if (!FileIsWhole(file)) {
      v.Report((std::string(when) + ": a partial cache file").c_str());
    } else {
      onDisk += static_cast<long long>(file.Size());
    }
  }
  v.Check(bag.GetCurrentDiskCacheSize() == onDisk,
          (std::string(when) + ": the disk-size total differs from the files").c_str());
}

// Writer threads writing items until each has seen three failures in a row.
void FillUp(JX_Bag& bag, Report& r, jx::stress::Violations& v,
            std::vector<IntrusivePtr<JX_Stuff>>& kept) {
  const uint64_t failedBefore = jx::disk::GetCounters().failedWrites.load();
  const uint64_t bytesBefore = jx::disk::GetCounters().bytesWritten.load();
  std::mutex mutex;
  uint64_t written = 0, failed = 0, bytesWritten = 0;
  bool cutShort = false;
  std::vector<std::thread> threads;
  const int writers = std::clamp(gOptions.threads, 1, 4);
  for (int t = 0; t < writers; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937_64 rng(gOptions.seed * 31 + t + r.written);
      int inARow = 0;
      for (uint64_t n = 0; inARow < 3; ++n) {
        if (n >= gOptions.ops || gDeadline->Passed()) {
          std::lock_guard lock(mutex);
          cutShort = true;
          break;
        }
        const uint32_t size = 16384 + static_cast<uint32_t>(rng() % (496 * 1024));
        auto item = NewItem(bag, size);
        item->PrepAndWrite(bag.shared_from_this());
        std::lock_guard lock(mutex);
        if (item->HasDiskCacheFile()) {
          ++written;
          bytesWritten += size;  // the file is the payload's bytes
          inARow = 0;
          kept.push_back(item);
        } else {
          ++failed;
          ++inARow;
          auto* payload = static_cast<KeyedPayload*>(item->GetDataPtr().get());
          if (!payload->HoldsBytesOf(item->GetGuid())) {
            v.Report("a failed write changed the payload in memory");
            r.bytesLost += payload->Size();
          }
          item->RemoveFromBagAndSortDir();
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  r.written += written;
  r.failed += failed;
  if (cutShort) {
    std::printf("disk_full: a filling stopped at its bounds after %llu writes\n",
                (unsigned long long)written);
  } else {
    v.Check(failed > 0, "the volume never filled");
  }
  v.Check(jx::disk::GetCounters().failedWrites.load() - failedBefore == failed,
          "the failed-writes counter differs from the failures");
  v.Check(jx::disk::GetCounters().bytesWritten.load() - bytesBefore == bytesWritten,
          "the bytes-written counter differs from the files written");
}

// A few writes that must all get through.
void WritesGetThrough(JX_Bag& bag, Report& r, jx::stress::Violations& v, const char* when) {
  for (int i = 0; i < 3; ++i) {
    const uint32_t size = 65536 + i;
    auto item = NewItem(bag, size);
    const uint64_t bytesBefore = jx::disk::GetCounters().bytesWritten.load();
    item->PrepAndWrite(bag.shared_from_this());
    if (item->HasDiskCacheFile() && FileIsWhole(item->GetDiskCacheFile())) {
      ++r.written;
      v.Check(jx::disk::GetCounters().bytesWritten.load() - bytesBefore == size,
              (std::string(when) + ": the bytes-written counter did not move by the file").c_str());
    } else {
      v.Report((std::string(when) + ": a write did not get through").c_str());
    }
  }
}

// Other data on the volume: a file of `bytes` real blocks (as much as fits).
void WriteOtherData(const std::string& path, int64_t bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  const std::vector<char> chunk(65536, 'o');
  while (bytes > 0) {
    const ssize_t n = ::write(fd, chunk.data(), std::min<int64_t>(bytes, chunk.size()));
    if (n <= 0) break;
    bytes -= n;
  }
  ::fsync(fd);
  ::close(fd);
}

Report FillVolume(const std::string& mount) {
  return RunPhase("filling a volume", [&](JX_Bag& bag, Report& r, jx::stress::Violations& v) {
    // The limit is what the volume must keep free beside the cache's allowance: with the minimum
    // free space set to 0 it says "limited" exactly when the volume's free space is below what
    // the cache may still grow by (its maximum less what it holds). The maximum is half of the
    // empty volume, so the cache alone never trips it; other data taking three quarters of the
    // volume does.
    namespace prefs = zelappsupport::preferences;
    prefs::SetValue(jx::disk::kPreferencesGroup, jx::disk::kMinVolumeFreeSpaceName, "0");
    const int64_t free0 = FileUtils::GetVolumeFreeSpace(mount);
    const long long max = free0 / 2;
    bag.EnableDiskCache(true);
    bag.SetDiskCacheInfo(mount, max);
    if (!bag.IsDiskCacheEnabled()) {
      v.Report("disk caching is off on a writable volume");
      return;
    }
    v.Check(!bag.IsDiskCacheLimitedDueToDriveSpace(), "limited by drive space on an empty volume");

    const std::string other = mount + "/other-data";
    WriteOtherData(other, max + max / 2);
    const bool limited = bag.IsDiskCacheLimitedDueToDriveSpace();
    v.Check(limited, "not limited by drive space with the volume crowded");
    r.limitedSeen += limited;
    std::vector<IntrusivePtr<JX_Stuff>> kept;
    FillUp(bag, r, v, kept);
    CheckFolder(bag, v, "volume full");
    v.Check(bag.IsDiskCacheLimitedDueToDriveSpace(), "not limited by drive space when full");

    // The other data goes: the limit lifts and writes get through again.
    std::filesystem::remove(other);
    if (TimeIsUp("the rest of the volume's phases")) {
      ++r.cut;
      return;
    }
    v.Check(!bag.IsDiskCacheLimitedDueToDriveSpace(), "still limited after the space freed");
    WritesGetThrough(bag, r, v, "after other data went");
    CheckFolder(bag, v, "after other data went");

    // The cache itself fills the volume; purging it makes room again.
    if (TimeIsUp("filling the volume with the cache")) {
      ++r.cut;
      return;
    }
    FillUp(bag, r, v, kept);
    CheckFolder(bag, v, "volume full of cache");
    const auto purged = bag.PurgeAllDiskCaches();
    v.Check(purged.kept == 0 && bag.GetCurrentDiskCacheSize() == 0,
            "the purge left cache files behind");
    WritesGetThrough(bag, r, v, "after the purge");
    // Fill once more so that the next process finds a full volume.
    FillUp(bag, r, v, kept);
    CheckFolder(bag, v, "volume full again");
  });
}

// A fresh process adopts what the last one left: only whole files, each reading back.
Report AdoptFromVolume(const std::string& mount) {
  return RunPhase("adopting a volume", [&](JX_Bag& bag, Report& r, jx::stress::Violations& v) {
    bag.EnableDiskCache(true);
    bag.SetDiskCacheInfo(mount, 1LL << 40);
    bag.RequestDiskCacheScan();
    bag.ScanDiskCacheDir();
    size_t files = 0;
    for (const auto& name : bag.GetDiskCacheDirSpec().ListNames()) {
      files += jx::disk::IsCacheFileName(name);
    }
    for (const auto& item : bag.CopyMruItems()) {
      const File file = item->GetDiskCacheFile();
      if (file.IsEmpty()) continue;
      ++r.adopted;
      if (!FileIsWhole(file)) ++r.partialAdopted;
      auto* payload = dynamic_cast<KeyedPayload*>(item->GetDataPtr().get());
      const uint64_t bytesBefore = jx::disk::GetCounters().bytesRead.load();
      try {
        if (!item->EnsureInMemory() || !payload || !payload->HoldsBytesOf(item->GetGuid())) {
          v.Report("an adopted file did not read back byte-identical");
          r.bytesLost += payload ? payload->Size() : 0;
        } else {
          v.Check(jx::disk::GetCounters().bytesRead.load() - bytesBefore == payload->Size(),
                  "the bytes-read counter did not move by the file");
        }
      } catch (int) {
        v.Report("an adopted file failed to read");
      }
      JX_Stuff::ReleaseQueue queue;
      item->FreeUpAsMuchAsPossible(false, &queue);
    }
    v.Check(r.partialAdopted == 0, "a partial file was adopted");
    v.Check(r.adopted == files && files > 0, "not every cache file was adopted");
  });
}

// A folder nobody can write (a read-only volume, which stops root too) turns disk caching off
// with its warning, and a write that was already on its way afterwards writes nothing anywhere.
// A missing folder falls back to the system temporary folder, with its warning.
Report UnusableFolders(const std::string& base, const std::string& readOnly) {
  return RunPhase("unusable folders", [&](JX_Bag& bag, Report& r, jx::stress::Violations& v) {
    auto& host = jx::StandaloneHost::Instance();
    const std::string cwd = base + "/cwd";
    std::filesystem::create_directories(cwd);
    if (::chdir(cwd.c_str()) != 0) v.Report("chdir");
    auto item = NewItem(bag, 4096);
    bag.EnableDiskCache(true);
    bag.SetDiskCacheInfo(readOnly, 1LL << 30);
    v.Check(!bag.IsDiskCacheEnabled(), "disk caching stayed on with a read-only folder");
    v.Check(host.CountReports(jx::HostReport::Kind::kError, kCantWriteText) == 1,
            "no warning for the read-only folder");
    item->PrepAndWrite(bag.shared_from_this());
    v.Check(!item->HasDiskCacheFile() && Dir(cwd).ListNames().empty(),
            "a write with disk caching off wrote a file");
    if (::chdir(base.c_str()) != 0) v.Report("chdir");

    host.ClearReports();
    const std::string systemTemp = base + "/systemp";
    std::filesystem::create_directories(systemTemp);
    ::setenv("TMPDIR", systemTemp.c_str(), 1);
    bag.EnableDiskCache(true);
    bag.SetDiskCacheInfo(base + "/missing", 1LL << 30);
    v.Check(bag.IsDiskCacheEnabled(), "disk caching off with a missing folder");
    v.Check(host.CountReports(jx::HostReport::Kind::kError, kNonexistentText) == 1,
            "no warning for the missing folder");
    v.Check(bag.GetDiskCacheDirSpec().GetPath().rfind(systemTemp + "/", 0) == 0,
            "a missing folder did not fall back to the temporary folder");
    item->PrepAndWrite(bag.shared_from_this());
    if (item->HasDiskCacheFile() && FileIsWhole(item->GetDiskCacheFile())) {
      ++r.written;
    } else {
      v.Report("no write in the fallback folder");
    }
  });
}

bool Run(const char* what, const std::string& command) {
  if (std::system(command.c_str()) == 0) return true;
  std::printf("disk_full: %s failed (%s)\n", what, command.c_str());
  return false;
}

struct Totals {
  uint64_t volumes = 0, written = 0, failed = 0, adopted = 0, partialAdopted = 0, bytesLost = 0,
           violations = 0, hangs = 0, phasesPlanned = 0, phasesDone = 0;
  void Add(const Report& r) {
    ++phasesPlanned;
    phasesDone += r.cut == 0 && r.hangs == 0 && r.violations == 0 ? 1 : 0;
    hangs += r.hangs;
    written += r.written;
    failed += r.failed;
    adopted += r.adopted;
    partialAdopted += r.partialAdopted;
    bytesLost += r.bytesLost;
    violations += r.violations;
  }
};

// In the private mount namespace: every variant the machine allows. Returns the exit code.
int InNamespace(const std::string& base, Totals& t) {
  auto volume = [&](const char* name, const std::string& mount) {
    if (TimeIsUp(name)) {
      t.phasesPlanned += 2;  // filling it and adopting from it
      return;
    }
    t.Add(FillVolume(mount));
    t.Add(AdoptFromVolume(mount));
    ++t.volumes;
    std::printf("disk_full: %s done\n", name);
  };

  const std::string tmpfs = base + "/tmpfs";
  std::filesystem::create_directories(tmpfs);
  if (::mount("jxcache-tmpfs", tmpfs.c_str(), "tmpfs", 0, "size=8m") != 0) {
    std::printf("disk_full: skipped: cannot mount a tmpfs (%s)\n", std::strerror(errno));
    return 0;
  }
  volume("tmpfs 8 MiB", tmpfs);

  const std::string ext4 = base + "/ext4", image = base + "/ext4.img";
  std::filesystem::create_directories(ext4);
  if (std::system("command -v mkfs.ext4 >/dev/null 2>&1") != 0) {
    std::printf("disk_full: ext4 variant skipped: mkfs.ext4 (e2fsprogs) is not installed\n");
  } else if (!Run("truncate", "truncate -s 16M '" + image + "'") ||
             !Run("mkfs.ext4", "mkfs.ext4 -q -F '" + image + "' >/dev/null 2>&1") ||
             !Run("loop mount", "mount -o loop '" + image + "' '" + ext4 + "' 2>/dev/null")) {
    std::printf("disk_full: ext4 variant skipped: no loop device or mount refused\n");
  } else {
    volume("ext4 16 MiB (loop)", ext4);
    ::umount2(ext4.c_str(), MNT_DETACH);  // the loop device is released with it
  }

  const std::string readOnly = base + "/readonly";
  std::filesystem::create_directories(readOnly);
  if (::mount("jxcache-ro", readOnly.c_str(), "tmpfs", MS_RDONLY, "size=1m") != 0) {
    std::printf("disk_full: unusable-folder phase skipped: cannot mount read-only (%s)\n",
                std::strerror(errno));
  } else if (!TimeIsUp("the read-only and missing folders")) {
    t.Add(UnusableFolders(base, readOnly));
    std::printf("disk_full: read-only and missing folders done\n");
  } else {
    ++t.phasesPlanned;
  }
  ::umount2(readOnly.c_str(), MNT_DETACH);
  ::umount2(tmpfs.c_str(), MNT_DETACH);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  gOptions = jx::stress::ParseOptions(argc, argv, "disk_full", 400);
  gDeadline = std::make_unique<jx::stress::Deadline>(gOptions.seconds);
  // ThreadSanitizer takes about two thirds of its time bound for all five phases; fewer than
  // three of them done means the run covered too little.
  constexpr double kFloorPercent = 60;
  const jx::stress::HardBound hardBound("disk_full", jx::stress::HardSeconds(gOptions));
  auto finish = [](const Totals& t) {
    // A machine that allows no phase at all (no root, no mounts) has nothing to cover.
    const bool covered = jx::stress::CoverageMet("disk_full", "phases", t.phasesDone,
                                                 t.phasesPlanned, kFloorPercent);
    std::printf(
        "disk_full: phases %llu of %llu, volumes %llu, writes %llu, clean write failures %llu, "
        "adopted files %llu, partial files adopted %llu, violations %llu, hangs %llu, bytes lost "
        "%llu\n",
        (unsigned long long)t.phasesDone, (unsigned long long)t.phasesPlanned,
        (unsigned long long)t.volumes, (unsigned long long)t.written, (unsigned long long)t.failed,
        (unsigned long long)t.adopted, (unsigned long long)t.partialAdopted,
        (unsigned long long)t.violations, (unsigned long long)t.hangs,
        (unsigned long long)t.bytesLost);
    return t.violations == 0 && t.hangs == 0 && covered ? 0 : 1;
  };
  if (::geteuid() != 0) {
    std::printf("disk_full: skipped: not running as root (mounting test volumes needs it)\n");
    return finish({});
  }
  std::string base = FileUtils::GetTempDirectoryPath() + "/jxfull.XXXXXX";
  if (!mkdtemp(base.data())) {
    std::perror("disk_full: mkdtemp");
    return 2;
  }
  std::fflush(stdout);
  // The child does everything in its own mount namespace; the totals come back through a pipe.
  int fds[2];
  if (::pipe(fds) != 0) return 2;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(fds[0]);
    Totals t;
    int code = 0;
    if (::unshare(CLONE_NEWNS) != 0) {
      std::printf("disk_full: skipped: cannot make a private mount namespace (%s)\n",
                  std::strerror(errno));
    } else if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      std::printf("disk_full: skipped: cannot make the mounts private (%s)\n",
                  std::strerror(errno));
    } else {
      code = InNamespace(base, t);
    }
    std::fflush(stdout);
    ::_exit(jx::stress::WriteAll(fds[1], &t, sizeof t) ? code : 3);
  }
  ::close(fds[1]);
  jx::stress::HardBound::Phase("waiting for the child in its own mount namespace", pid);
  Totals t;
  // Its phases are bounded one by one; this bounds the lot, short of the hard bound.
  const double limit = jx::stress::HardSeconds(gOptions) - 15.0;
  const bool got = jx::stress::ReadAllWithin(fds[0], &t, sizeof t, limit);
  const jx::stress::ChildEnd end =
      jx::stress::WaitChild("disk_full", pid, got ? 10.0 : 1.0, "the mount namespace's phases");
  jx::stress::HardBound::Phase("cleaning up");
  if (end.hung || !got) {
    if (!end.hung) std::fprintf(stderr, "disk_full: HANG: the namespace child sent no totals\n");
    t = Totals{};
    ++t.hangs;
    ++t.violations;
  } else if (!end.Exited()) {
    std::fprintf(stderr, "VIOLATION: the namespace child failed (status %d)\n", end.status);
    ++t.violations;
  }
  std::error_code ec;
  std::filesystem::remove_all(base, ec);
  return finish(t);
}
