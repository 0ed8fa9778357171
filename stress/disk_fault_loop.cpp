// disk_fault_loop: every faultable file operation, failing on its N-th call for N = 1, 2, ...
// until the disk write (PrepAndWrite) or the read back (EnsureInMemory after a purge) gets
// through. Each fault is EIO, ENOSPC or EROFS, once or from then on. Writes and reads are also
// cut short (the N-th call, once or from then on, moves half of what it was asked, which for a
// single unit leaves an O_DIRECT stream off a unit boundary) for N = 1, 2, ... until the N-th
// call is no longer reached: a short transfer is not a failure, and every such attempt must
// succeed. Payloads of 0 and 1 bytes, one disk unit and a byte either side of it, and 1 MiB. The
// write path runs again with O_DIRECT refused (EINVAL on the first open), which must fall back
// to buffered writes.
//
// Double faults: a write or read fails as above and every deletion fails too (EIO), so that the
// temporary of the failed write, the target a write could not account for, or the file that
// failed to read back cannot be cleaned up.
//
// After every attempt: every cache file in the folder holds exactly its payload's bytes (no
// partial target), no temporary is left, a failure moved the failed-writes or failed-reads
// counter by one and a success moved nothing, a success moved the bytes-written or bytes-read
// counter by exactly the file's size and a failure did not move it, a failed write left the
// payload in memory, the disk-size total equals the files on disk, and a clean write then reads
// back byte-identical. After a double fault a leftover is allowed where the deletion failed, but
// it must be a temporary (never named like a cache file) or a whole cache file that no item
// counts; the disk-size total is then the sum of the files items own, and the next clean write of
// the key adopts or replaces what was left.
//
// Only a case whose planned fault was really injected counts: a case whose operation is never
// called on its path (a rename while reading, say) is skipped as not applicable, and a double
// fault counts as one only when both faults were injected in one attempt. The time bound may cut
// the run short, but a run that did fewer than its floor of the planned cases fails; a watchdog
// aborts a run that stops making progress.
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "disk/cache_file_name.h"
#include "disk/disk_counters.h"
#include "disk/disk_folder.h"
#include "host/file_utils.h"
#include "host/safe_save.h"
#include "jxcache/bag/bag.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"
#include "stress_common.h"
#include "testing/fault_injection.h"
#include "testing/keyed_payload.h"

using jx::testing::KeyedPayload;
using zelcore::filesupport::Dir;
using zelcore::filesupport::FaultInjection;
using zelcore::filesupport::File;
using zelcore::filesupport::FileOp;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

enum class Path { kWrite, kRead };
// In place of an errno: the planned call moves only part of what it was asked.
constexpr int kShort = FaultInjection::kShortTransfer;
// More calls of one operation than any single write or read makes.
constexpr uint64_t kMaxNth = 200;

struct Case {
  Path path;
  FileOp op;
  int err;
  bool persistent;
  uint32_t size;
  bool noDirect;             // O_DIRECT refused on the first open
  bool deleteFails = false;  // a double fault: every deletion fails as well
};

std::string Describe(const Case& c, uint64_t nth) {
  std::string s = c.path == Path::kWrite ? "write" : "read";
  s += c.noDirect ? " (O_DIRECT refused)" : "";
  s += c.deleteFails ? " (every delete fails)" : "";
  s += std::string(", ") + zelcore::filesupport::FileOpName(c.op) + " call " + std::to_string(nth) +
       (c.persistent ? " onwards" : " once");
  s += c.err == kShort ? " short" : c.err == EIO ? " EIO" : c.err == ENOSPC ? " ENOSPC" : " EROFS";
  return s + ", size " + std::to_string(c.size);
}

class FaultLoop {
 public:
  FaultLoop(std::shared_ptr<JX_Bag> bag)
      : bag_(std::move(bag)), dir_(bag_->GetDiskCacheDirSpec()) {}

  explicit FaultLoop(std::shared_ptr<JX_Bag> bag, jx::stress::Watchdog& watchdog, int slot)
      : FaultLoop(std::move(bag)) {
    watchdog_ = &watchdog;
    slot_ = slot;
  }

  // Runs one case up to its first success (an errno), or until the planned call is no longer
  // reached (a short transfer, which every attempt must survive). The case counts only when its
  // fault (and for a double fault, both faults in one attempt) was really injected.
  void Run(const Case& c) {
    bool injected = false, both = false;
    for (uint64_t nth = 1; nth <= kMaxNth; ++nth) {
      if (watchdog_) watchdog_->Beat(slot_, c.path == Path::kWrite ? "a write" : "a read", nth);
      const Outcome outcome = Attempt(c, nth);
      injected = injected || outcome.injected > 0;
      both = both || (outcome.injected > 0 && outcome.deletesFailed > 0);
      if (c.err == kShort ? outcome.injected == 0 : outcome.ok) {
        if (!injected || (c.deleteFails && !both)) {
          ++skipped;
        } else {
          ++cases;
          doubleFaults += c.deleteFails ? 1 : 0;
        }
        return;
      }
    }
    Violation(c, kMaxNth, "never finished");
  }

  // Cases in which the fault was injected, cases skipped because it never was (their operation
  // is not on the path), and of the first the double faults.
  uint64_t cases = 0, skipped = 0, doubleFaults = 0;
  uint64_t attempts = 0, faults = 0, bytesLost = 0, leftoverTemps = 0, leftoverFiles = 0;
  jx::stress::Violations violations;

 private:
  void Violation(const Case& c, uint64_t nth, const std::string& what) {
    violations.Report((Describe(c, nth) + ": " + what).c_str());
  }

  IntrusivePtr<JX_Stuff> NewItem(uint32_t size, Guid key = Guid::CreateUnique()) {
    auto item = JX_Stuff::CreateNew(KeyedPayload::ForKey(key, size), 0.0);
    item->SetGuid(key);
    bag_->AddToBagAndSortDir(item);
    return item;
  }
  static KeyedPayload* Payload(const IntrusivePtr<JX_Stuff>& item) {
    return static_cast<KeyedPayload*>(item->GetDataPtr().get());
  }
  static void Purge(const IntrusivePtr<JX_Stuff>& item) {
    JX_Stuff::ReleaseQueue queue;
    item->FreeUpAsMuchAsPossible(false, &queue);
  }
  static bool ReadBack(const IntrusivePtr<JX_Stuff>& item) {
    try {
      return item->EnsureInMemory() && Payload(item)->HoldsBytesOf(item->GetGuid());
    } catch (int) {
      return false;
    }
  }

  // Every cache file holds its payload's bytes, no temporary is left, and the disk-size total
  // is the sum of the files. Run with no fault planned: the listing itself opens and reads.
  // After a double fault (`leftoversAllowed`) a temporary or a whole cache file that no item
  // owns may be left where its deletion failed: a temporary must not look like a cache file, it
  // is counted and removed here, and the total is the sum of the files items own.
  void CheckFolder(const Case& c, uint64_t nth, bool leftoversAllowed = false) {
    std::set<std::string> owned;
    for (const auto& item : bag_->CopyMruItems()) {
      const File file = item->GetDiskCacheFile();
      if (!file.IsEmpty()) owned.insert(file.GetName());
    }
    long long onDisk = 0;
    for (const std::string& name : dir_.ListNames()) {
      if (zelcore::filesupport::SafeSave::IsTempFileName(name)) {
        if (jx::disk::IsCacheFileName(name))
          Violation(c, nth, "a temporary named like a cache file: " + name);
        if (!leftoversAllowed) {
          Violation(c, nth, "temporary left: " + name);
        } else {
          ++leftoverTemps;
          std::remove(dir_.GetFile(name).GetPath().c_str());
        }
        continue;
      }
      jx::disk::CacheFileName parsed;
      if (jx::disk::ParseCacheFileName(name, &parsed) != jx::disk::CacheFileNameError::kNone) {
        Violation(c, nth, "unexpected file: " + name);
        continue;
      }
      const File file = dir_.GetFile(name);
      const auto body = jx::testing::ReadWholeFile(file.GetPath());
      if (owned.count(name)) {
        onDisk += static_cast<long long>(body.size());
      } else if (leftoversAllowed) {
        ++leftoverFiles;
      } else {
        Violation(c, nth, "a cache file no item owns: " + name);
      }
      uint32_t seed = 0, size = 0;
      if (parsed.header.size() == 8) {
        std::memcpy(&seed, parsed.header.data(), 4);
        std::memcpy(&size, parsed.header.data() + 4, 4);
      }
      if (seed != jx::testing::SeedOfKey(parsed.guid) ||
          body != jx::testing::KeyedBytes(seed, size))
        Violation(c, nth, "partial or altered cache file: " + name);
    }
    if (bag_->GetCurrentDiskCacheSize() != onDisk) {
      Violation(c, nth,
                "disk-size total " + std::to_string(bag_->GetCurrentDiskCacheSize()) +
                    ", files on disk " + std::to_string(onDisk));
    }
  }

  struct Outcome {
    bool ok;            // the write or read got through
    uint64_t injected;  // of the planned fault (the failed deletions of a double fault apart)
    uint64_t deletesFailed = 0;
  };

  // One attempt with the fault on the nth call.
  Outcome Attempt(const Case& c, uint64_t nth) {
    ++attempts;
    auto& counters = jx::disk::GetCounters();
    auto item = NewItem(c.size);
    File file;
    if (c.path == Path::kRead) {
      item->PrepAndWrite(bag_);
      file = item->GetDiskCacheFile();
      if (file.IsEmpty()) {
        Violation(c, nth, "the clean write before the read failed");
        return {true, 0};
      }
      Purge(item);
    }
    const uint64_t failedWrites = counters.failedWrites.load();
    const uint32_t failedReads = counters.failedReads.load();
    const uint64_t bytesWritten = counters.bytesWritten.load();
    const uint64_t bytesRead = counters.bytesRead.load();

    FaultInjection::Reset();
    if (c.noDirect) FaultInjection::FailNth(FileOp::kOpen, 1, EINVAL);
    if (c.deleteFails) FaultInjection::FailNth(FileOp::kDelete, 1, EIO, true);
    if (c.err == kShort) {
      FaultInjection::ShortNth(c.op, nth, c.persistent);
    } else {
      FaultInjection::FailNth(c.op, nth, c.err, c.persistent);
    }
    bool ok;
    if (c.path == Path::kWrite) {
      item->PrepAndWrite(bag_);
      ok = item->HasDiskCacheFile();
    } else {
      ok = ReadBack(item);
    }
    uint64_t injected = FaultInjection::InjectedCount();
    // The refusal of O_DIRECT is the fallback, not a fault; a failed create never gets to it.
    const bool refusedDirect = c.noDirect && FaultInjection::CallCount(FileOp::kOpen) > 0;
    // Every deletion of a double fault failed: they are injected faults, but not the planned one.
    const uint64_t deletesFailed = c.deleteFails ? FaultInjection::CallCount(FileOp::kDelete) : 0;
    FaultInjection::Reset();
    if (refusedDirect) --injected;
    injected -= deletesFailed;
    if (c.noDirect && ok && !refusedDirect) Violation(c, nth, "wrote without opening the file");
    faults += injected + deletesFailed;
    const bool leftoversAllowed = deletesFailed > 0;

    // Any error fails the attempt (none is retried silently), and nothing else does; a short
    // transfer is finished by the stream.
    if (c.err == kShort) {
      if (!ok) Violation(c, nth, "a short transfer failed the attempt");
    } else if (ok != (injected == 0)) {
      Violation(c, nth, ok ? "succeeded through an injected fault" : "failed without a fault");
    }
    // A success moves the byte counter by the file's size (the payload's: its file is its bytes).
    const uint64_t moved = (c.path == Path::kWrite ? counters.bytesWritten.load() - bytesWritten
                                                   : counters.bytesRead.load() - bytesRead);
    if (moved != (ok ? c.size : 0u)) {
      Violation(c, nth,
                std::string(c.path == Path::kWrite ? "bytes-written" : "bytes-read") +
                    " counter moved by " + std::to_string(moved));
    }
    if (c.path == Path::kWrite) {
      if (ok && item->GetDiskCacheFile().Size() != c.size)
        Violation(c, nth, "the written file is not the payload's size");
      if (counters.failedWrites.load() - failedWrites != (ok ? 0u : 1u))
        Violation(c, nth, "failed-writes counter did not move by exactly the failure");
      if (!Payload(item)->HoldsBytesOf(item->GetGuid())) {
        Violation(c, nth, "the write changed the payload in memory");
        bytesLost += c.size;
      }
    } else {
      if (counters.failedReads.load() - failedReads != (ok ? 0u : 1u))
        Violation(c, nth, "failed-reads counter did not move by exactly the failure");
      // The item lets go of a file that failed to read; the file itself goes too unless its
      // deletion failed.
      if (!ok && (item->HasDiskCacheFile() || (file.Exists() && !leftoversAllowed)))
        Violation(c, nth, "a file that failed to read was kept");
    }
    CheckFolder(c, nth, leftoversAllowed);

    // The cache still works: a clean write (when the item has no file now) reads back.
    if (!item->HasDiskCacheFile()) {
      if (!item->IsInMemory()) {
        // A failed read: the item is computed again under its key, as a render would.
        item->RemoveFromBagAndSortDir();
        item = NewItem(c.size, item->GetGuid());
      }
      item->PrepAndWrite(bag_);
    }
    Purge(item);
    if (!item->HasDiskCacheFile() || !ReadBack(item)) {
      Violation(c, nth, "the next clean write did not read back byte-identical");
      bytesLost += c.size;
    }
    item->DeleteDiskCacheFile();
    item->RemoveFromBagAndSortDir();
    CheckFolder(c, nth);
    return {ok, injected, deletesFailed};
  }

  std::shared_ptr<JX_Bag> bag_;
  Dir dir_;
  jx::stress::Watchdog* watchdog_ = nullptr;
  int slot_ = -1;
};

std::vector<Case> AllCases(uint32_t unit) {
  const std::vector<uint32_t> small = {0, 1, unit - 1, unit, unit + 1};
  constexpr uint32_t kMiB = 1u << 20;
  std::vector<Case> cases;
  for (Path path : {Path::kWrite, Path::kRead}) {
    for (int op = 0; op < zelcore::filesupport::kFileOpCount; ++op) {
      for (int err : {EIO, ENOSPC, EROFS}) {
        for (bool persistent : {false, true}) {
          for (uint32_t size : small)
            cases.push_back({path, FileOp(op), err, persistent, size, false});
          // The large payload crosses several buffers; one errno is enough for it.
          if (err == EIO) cases.push_back({path, FileOp(op), err, persistent, kMiB, false});
        }
      }
    }
  }
  // Short transfers, with O_DIRECT and (writes) without it.
  for (bool persistent : {false, true}) {
    for (uint32_t size : small) {
      cases.push_back({Path::kRead, FileOp::kRead, kShort, persistent, size, false});
      for (bool noDirect : {false, true})
        cases.push_back({Path::kWrite, FileOp::kWrite, kShort, persistent, size, noDirect});
    }
    cases.push_back({Path::kRead, FileOp::kRead, kShort, persistent, kMiB, false});
    cases.push_back({Path::kWrite, FileOp::kWrite, kShort, persistent, kMiB, false});
    cases.push_back({Path::kWrite, FileOp::kWrite, kShort, persistent, kMiB, true});
  }
  // Buffered writes after O_DIRECT is refused: their close syncs, so flush faults land there.
  for (int op = 0; op < zelcore::filesupport::kFileOpCount; ++op) {
    for (bool persistent : {false, true}) {
      for (uint32_t size : small)
        cases.push_back({Path::kWrite, FileOp(op), EIO, persistent, size, true});
    }
  }
  cases.push_back({Path::kWrite, FileOp::kWrite, EIO, false, kMiB, true});
  // Double faults: whatever fails a write or a read, the deletions that would clean up after it
  // fail too.
  for (bool persistent : {false, true}) {
    for (uint32_t size : {1u, unit + 1, kMiB}) {
      for (FileOp op : {FileOp::kCreate, FileOp::kOpen, FileOp::kWrite, FileOp::kFlush,
                        FileOp::kTruncate, FileOp::kRename, FileOp::kSize})
        cases.push_back({Path::kWrite, op, EIO, persistent, size, false, true});
      for (FileOp op : {FileOp::kOpen, FileOp::kRead, FileOp::kSize})
        cases.push_back({Path::kRead, op, EIO, persistent, size, false, true});
    }
  }
  return cases;
}

}  // namespace

int main(int argc, char** argv) {
  auto o = jx::stress::ParseOptions(argc, argv, "disk_fault_loop", 100000);
  // The plan takes seconds, but ThreadSanitizer makes every write's large buffer costly: beside
  // another program it does about two fifths of the plan in its time bound. Less than this means
  // something slowed the file layer down far beyond that.
  constexpr double kFloorPercent = 15;
  jx::stress::Watchdog watchdog("disk_fault_loop", jx::stress::kStallSeconds,
                                jx::stress::HardSeconds(o));
  const int mainSlot = watchdog.Add("main");
  auto& host = jx::StandaloneHost::Instance();
  host.SetEchoReports(false);
  host.MakeCurrentThreadMain();
  std::string base = zelcore::utility::FileUtils::GetTempDirectoryPath() + "/jxfault.XXXXXX";
  if (!mkdtemp(base.data())) {
    std::perror("disk_fault_loop: mkdtemp");
    return 2;
  }
  JX_Birth(false, 1, false);
  KeyedPayload::RegisterFactory();
  auto bag = JX_GlobalBag();
  bag->EnableDiskCache(true);
  bag->SetDiskCacheInfo(base, 1LL << 40);
  if (!bag->IsDiskCacheEnabled()) {
    std::fprintf(stderr, "disk_fault_loop: no usable disk cache folder under %s\n", base.c_str());
    return 2;
  }
  const auto unit =
      static_cast<uint32_t>(zelcore::utility::FileUtils::GetEfficientDiskBufferSizeFromPath(base));
  std::vector<Case> cases = AllCases(unit);
  // The order is the seed's: each case starts from whatever the one before left behind.
  std::shuffle(cases.begin(), cases.end(), std::mt19937_64(o.seed));
  if (cases.size() > o.ops) cases.resize(o.ops);
  const uint64_t planned = cases.size();

  FaultLoop loop(bag, watchdog, mainSlot);
  jx::stress::Deadline deadline(o.seconds);
  uint64_t run = 0;
  for (const Case& c : cases) {
    if (deadline.Passed()) break;
    loop.Run(c);
    ++run;
  }
  watchdog.Beat(mainSlot, "shutting down");
  bag.reset();
  JX_StopAllAsyncWork();
  JX_Death();
  watchdog.Done(mainSlot);
  std::error_code ec;
  std::filesystem::remove_all(base, ec);
  std::printf(
      "disk_fault_loop: %llu attempts, %llu faults injected, disk unit %u bytes, leftovers of "
      "double faults: %llu temporaries, %llu whole cache files\n",
      (unsigned long long)loop.attempts, (unsigned long long)loop.faults, unit,
      (unsigned long long)loop.leftoverTemps, (unsigned long long)loop.leftoverFiles);
  const bool covered =
      jx::stress::CoverageMet("disk_fault_loop", "cases", run, planned, kFloorPercent);
  // Cases whose fault was never reached were run, but tested nothing: they do not count.
  const bool tested = loop.cases > 0;
  if (!tested) std::printf("disk_fault_loop: no case injected a fault\n");
  std::printf(
      "disk_fault_loop: cases with an injected fault %llu of %llu (%llu skipped: fault never "
      "reached), double faults %llu, violations %llu, hangs 0, bytes lost %llu\n",
      (unsigned long long)loop.cases, (unsigned long long)planned, (unsigned long long)loop.skipped,
      (unsigned long long)loop.doubleFaults, (unsigned long long)loop.violations.Count(),
      (unsigned long long)loop.bytesLost);
  return loop.violations.Count() == 0 && covered && tested ? 0 : 1;
}
