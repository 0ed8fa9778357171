// crash_kill9: writers killed mid-write, and two processes sharing one disk cache folder.
//
// Kill rounds: a child process starts the library on a folder and writes items (payload bytes
// derived from the key; some files are deleted again so that keys keep being rewritten) until it
// is killed with SIGKILL, over more than a hundred rounds by default. Every other round the
// parent kills it at a seeded random moment; in the others the child kills itself at a seeded
// crash point of a disk write (the fault-injection layer's planned kills): just after the
// temporary file is created, just after a write call moved part of the body (every write is cut
// short then, so that a body takes several), just before the rename, or just after it. A round
// whose crash point was never reached fails, and so does a kill that did not leave what its
// point leaves: an empty temporary, a temporary with part of the body, a temporary holding the
// whole body, and no temporary at all. After each kill the folder must hold only whole cache
// files (a temporary never carries the cache-file suffix), and a fresh process (new JX_Birth)
// that scans it must adopt exactly those: every adopted file reads back byte-identical, a
// leftover temporary is never adopted, no whole file is left out.
// At the end a fresh process writes every key again, with leftovers of dead writers in the
// way (including ones whose process ID and attempt number it now has, as after PID reuse):
// every write must get through.
//
// Shared folder: two processes write disjoint and overlapping keys into one folder at once,
// scanning it as they go, then each adopts and reads back the other's files byte-identically.
// Then three processes share one folder, each with its own disk limit: each writes (making room
// under its limit by deleting the oldest files it knows of, the others' included), reads back
// what it and the others wrote, deletes files and now and then purges the whole folder, while
// the others may be reading those very files. A read that fails because the file went is fine:
// it is counted and the item computed again. A read that serves bytes other than the key's is a
// bad read; there must be none, and every process must finish.
//
// Bytes lost: the payload bytes of every cache file found partial, every adopted file that did
// not read back, every whole file a scan left out, every bad read and every key that could not
// be written again.
//
// Every child process is waited for with a time limit: one still running then is a hang (named,
// killed and counted), and the program has a hard bound of its own. The time bound may cut the
// kill rounds short, but fewer than the floor fail the run.
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "disk/cache_file_name.h"
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
using zelcore::filesupport::CrashPoint;
using zelcore::filesupport::Dir;
using zelcore::filesupport::FaultInjection;
using zelcore::filesupport::File;
using zelcore::filesupport::FileOp;
using zelcore::filesupport::SafeSave;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr int kKeys = 40;
constexpr uint32_t kMaxPayload = 600 * 1024;
// How long one child process may take: its work is bounded well below this, also under the
// sanitizers, so a child still running then is stuck.
constexpr double kChildSeconds = 90.0;
// Child processes that had to be killed for hanging.
uint64_t gHangs = 0;

// What a child process found, sent back to the parent through a pipe.
struct Findings {
  uint64_t adopted = 0;         // cache files a scan took over
  uint64_t partialAdopted = 0;  // of those, files not byte-identical to their payload
  uint64_t tempAdopted = 0;     // temporaries taken for cache files
  uint64_t readFailures = 0;    // adopted files that did not read back through the library
  uint64_t writesBlocked = 0;   // writes that did not get through
  uint64_t notAdopted = 0;      // whole cache files in the folder that a scan left out
  uint64_t written = 0;
  uint64_t bytesLost = 0;   // payload bytes of the files behind the failures above
  uint64_t violations = 0;  // anything else
  // The three processes sharing a folder.
  uint64_t reads = 0;        // reads that served the key's bytes
  uint64_t failedReads = 0;  // reads that failed (the file went under them), item recomputed
  uint64_t badReads = 0;     // reads that served other bytes
  uint64_t deletes = 0, purges = 0;
};

struct Key {
  Guid guid;
  uint32_t size;
};

// The same keys in every process of a run: derived from the seed and an index.
Key MakeKey(uint64_t seed, uint64_t index) {
  std::array<uint8_t, 16> bytes;
  const uint64_t a = jx::testing::SplitMix64(seed * 7919 + index);
  const uint64_t b = jx::testing::SplitMix64(a ^ index) | 1;  // never the empty GUID
  std::memcpy(bytes.data(), &a, 8);
  std::memcpy(bytes.data() + 8, &b, 8);
  return {Guid(bytes), 1 + static_cast<uint32_t>(jx::testing::SplitMix64(b) % kMaxPayload)};
}

// Where the library keeps its files under the folder it is given.
Dir CacheFolder(const std::string& folder) {
  return Dir(folder)
      .Join(jx::disk::kMakerFolder)
      .Join(jx::disk::kProductFolder)
      .Join(jx::disk::MachineFolderName(zelcore::utility::FileUtils::GetComputerName()));
}

// Runs `body` in a child process with the library started on `folder`; the child exits after
// sending what `body` found through `out` (a pipe's write end), or dies where it is killed.
pid_t Spawn(const std::string& folder, int out, const std::function<void(JX_Bag&, Findings&)>& body,
            long long diskLimit = 1LL << 40) {
  zelcore::utility::FileUtils::EnsureDirectoryExists(CacheFolder(folder).GetPath());
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  // A broken pipe is reported as an error where it happens rather than ending the child.
  ::signal(SIGPIPE, SIG_IGN);
  auto& host = jx::StandaloneHost::Instance();
  host.Reset();
  host.SetEchoReports(false);
  host.MakeCurrentThreadMain();
  JX_Birth(false, 1, false);
  KeyedPayload::RegisterFactory();
  Findings findings;
  {
    auto bag = JX_GlobalBag();
    bag->EnableDiskCache(true);
    bag->SetDiskCacheInfo(folder, diskLimit);
    if (!bag->IsDiskCacheEnabled()) {
      std::fprintf(stderr, "child %d: disk caching is off on %s\n", static_cast<int>(::getpid()),
                   folder.c_str());
      ++findings.violations;
    } else {
      body(*bag, findings);
    }
  }
  JX_StopAllAsyncWork();
  JX_Death();
  if (out >= 0 && !jx::stress::WriteAll(out, &findings, sizeof findings)) {
    std::fprintf(stderr, "child %d: cannot report (%s)\n", static_cast<int>(::getpid()),
                 std::strerror(errno));
    ::_exit(3);
  }
  ::_exit(0);
}

// Waits for a child with the time limit; one that hangs is counted as such.
jx::stress::ChildEnd Reap(pid_t pid, double seconds, const char* what) {
  jx::stress::HardBound::Phase(what, pid);
  const jx::stress::ChildEnd end = jx::stress::WaitChild("crash_kill9", pid, seconds, what);
  jx::stress::HardBound::Phase("checking a folder");
  if (end.hung) ++gHangs;
  return end;
}

// Reads the child's findings and reaps it; a child that died without reporting is a violation.
Findings Collect(pid_t pid, int in, const char* what) {
  Findings f;
  jx::stress::HardBound::Phase(what, pid);
  const bool got = jx::stress::ReadAllWithin(in, &f, sizeof f, kChildSeconds);
  ::close(in);
  const jx::stress::ChildEnd end = Reap(pid, got ? kChildSeconds : 1.0, what);
  if (!got || !end.Exited()) {
    const int status = end.status;
    std::fprintf(stderr, "child %d (%s): %s %d\n", static_cast<int>(pid), what,
                 end.hung              ? "hung, killed"
                 : WIFSIGNALED(status) ? "killed by signal"
                                       : "exit code",
                 WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    f = Findings{};
    f.violations = 1;
  }
  return f;
}

Findings RunChild(const std::string& folder, const char* what,
                  const std::function<void(JX_Bag&, Findings&)>& body) {
  int fds[2];
  if (::pipe(fds) != 0) return Findings{.violations = 1};
  const pid_t pid = Spawn(folder, fds[1], body);
  ::close(fds[1]);
  return Collect(pid, fds[0], what);
}

IntrusivePtr<JX_Stuff> NewItem(JX_Bag& bag, const Key& key) {
  auto item = JX_Stuff::CreateNew(KeyedPayload::ForKey(key.guid, key.size), 0.0);
  item->SetGuid(key.guid);
  item->AddToBagAndSortDir(bag.shared_from_this());
  return item;
}

// The payload size a cache file's name promises (0 for a name that is not one of ours).
uint32_t PromisedSize(const std::string& fileName) {
  jx::disk::CacheFileName name;
  if (jx::disk::ParseCacheFileName(fileName, &name) != jx::disk::CacheFileNameError::kNone ||
      name.header.size() != 8)
    return 0;
  uint32_t size;
  std::memcpy(&size, name.header.data() + 4, 4);
  return size;
}

// Whether the file holds exactly the bytes its name's payload has.
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

// The whole cache files in the folder, by name.
std::set<std::string> WholeCacheFiles(const Dir& dir) {
  std::set<std::string> whole;
  for (const std::string& name : dir.ListNames()) {
    if (!SafeSave::IsTempFileName(name) && jx::disk::IsCacheFileName(name) &&
        FileIsWhole(dir.GetFile(name)))
      whole.insert(name);
  }
  return whole;
}

// Scans the folder as a starting process does, then checks every adopted file byte for byte
// and reads it back through the library. With `wholeBefore` (the whole files in the folder
// before the scan, nobody writing), the files adopted must be exactly those. Returns the keys
// adopted.
std::set<Guid> ScanAndCheck(JX_Bag& bag, Findings& f,
                            const std::set<std::string>* wholeBefore = nullptr) {
  bag.RequestDiskCacheScan();
  bag.ScanDiskCacheDir();
  std::set<Guid> adopted;
  std::set<std::string> adoptedNames;
  for (const auto& item : bag.CopyMruItems()) {
    const File file = item->GetDiskCacheFile();
    if (file.IsEmpty()) continue;
    adopted.insert(item->GetGuid());
    adoptedNames.insert(file.GetName());
    if (item->IsInMemory()) continue;  // this process's own write
    ++f.adopted;
    const uint32_t size = PromisedSize(file.GetName());
    if (SafeSave::IsTempFileName(file.GetName())) ++f.tempAdopted;
    if (!FileIsWhole(file)) ++f.partialAdopted;
    try {
      auto* payload = dynamic_cast<KeyedPayload*>(item->GetDataPtr().get());
      if (!item->EnsureInMemory() || !payload || !payload->HoldsBytesOf(item->GetGuid())) {
        ++f.readFailures;
        f.bytesLost += size;
      }
    } catch (int) {
      ++f.readFailures;
      f.bytesLost += size;
    }
    JX_Stuff::ReleaseQueue queue;
    item->FreeUpAsMuchAsPossible(false, &queue);
  }
  if (wholeBefore) {
    for (const std::string& name : *wholeBefore) {
      if (adoptedNames.count(name)) continue;
      ++f.notAdopted;
      f.bytesLost += PromisedSize(name);
    }
    // Anything adopted beyond them was partial or a temporary, counted above.
  }
  return adopted;
}

struct Totals {
  uint64_t rounds = 0, kills = 0, leftoverTemps = 0, adopted = 0, partialAdopted = 0,
           tempAdopted = 0, notAdopted = 0, rewrites = 0, bytesLost = 0;
  std::array<uint64_t, zelcore::filesupport::kCrashPointCount> pointHits{};
  uint64_t sharedRounds = 0, threeRounds = 0;
  Findings three;  // the three processes' figures, added up
};

void Add(Totals& t, const Findings& f, jx::stress::Violations& v) {
  t.adopted += f.adopted;
  t.partialAdopted += f.partialAdopted;
  t.tempAdopted += f.tempAdopted;
  t.notAdopted += f.notAdopted;
  t.bytesLost += f.bytesLost;
  v.Check(f.partialAdopted == 0, "a partial file was adopted");
  v.Check(f.tempAdopted == 0, "a temporary was adopted");
  v.Check(f.notAdopted == 0, "a whole cache file was not adopted");
  v.Check(f.readFailures == 0, "an adopted file did not read back byte-identical");
  v.Check(f.writesBlocked == 0, "a write did not get through");
  v.Check(f.badReads == 0, "a read served bytes that are not its key's");
  for (uint64_t i = 0; i < f.violations; ++i) v.Report("a child process failed");
}

// The cache file a temporary was to become: "<target>.<pid>.<attempt>.tmp".
std::string TargetOfTemp(const std::string& temp) {
  std::string target = temp;
  for (int field = 0; field < 3; ++field) target.resize(target.rfind('.'));
  return target;
}

// What a kill left in the folder: whole cache files and temporaries (whose names never end like
// a cache file's; the empty probe a start-up makes to see that the folder takes files is one).
// Returns the temporaries.
std::set<std::string> InspectFolder(const Dir& dir, Totals& t, jx::stress::Violations& v) {
  std::set<std::string> temps;
  for (const std::string& name : dir.ListNames()) {
    if (SafeSave::IsTempFileName(name)) {
      if (jx::disk::IsCacheFileName(name)) v.Report("a temporary named like a cache file");
      temps.insert(name);
    } else if (jx::disk::IsCacheFileName(name)) {
      if (!FileIsWhole(dir.GetFile(name))) {
        v.Report("a partial cache file in the folder");
        t.bytesLost += PromisedSize(name);
      }
    } else {
      std::fprintf(stderr, "crash_kill9: unexpected file %s\n", name.c_str());
      v.Report("a file that is neither a cache file nor a temporary");
    }
  }
  return temps;
}

// The temporaries a child with `pid` left that were not there before.
std::vector<std::string> NewTempsOf(pid_t pid, const std::set<std::string>& before,
                                    const std::set<std::string>& after) {
  const std::string mark = "." + std::to_string(pid) + ".";
  std::vector<std::string> found;
  for (const std::string& name : after) {
    if (!before.count(name) && name.find(mark) != std::string::npos) found.push_back(name);
  }
  return found;
}

// The writer of a kill round: writes (and now and then deletes again) random keys until it is
// killed, by the parent or by a crash point it reaches, or gives up.
void Writer(JX_Bag& bag, uint64_t seed, const std::vector<Key>& keys) {
  std::mt19937_64 r(seed);
  std::map<int, IntrusivePtr<JX_Stuff>> items;
  jx::stress::Deadline giveUp(5.0);  // killed long before; never outlive a lost parent
  while (!giveUp.Passed()) {
    const int k = static_cast<int>(r() % kKeys);
    auto& item = items[k];
    if (!item) item = NewItem(bag, keys[k]);
    item->PrepAndWrite(bag.shared_from_this());
    if (r() % 2) item->DeleteDiskCacheFile();  // so that the key is written again
  }
}

// A round killed by the parent at a random moment. Returns the writer's PID.
pid_t RandomKill(const std::string& folder, uint64_t childSeed, std::mt19937_64& rng,
                 const std::vector<Key>& keys, Totals& t, jx::stress::Violations& v) {
  int ready[2];
  if (::pipe(ready) != 0) return 0;
  const pid_t pid = Spawn(folder, -1, [&](JX_Bag& bag, Findings&) {
    ::close(ready[0]);
    const char go = 1;
    if (!jx::stress::WriteAll(ready[1], &go, 1)) ::_exit(4);
    ::close(ready[1]);
    Writer(bag, childSeed, keys);
  });
  ::close(ready[1]);
  // Most kills land while the writer writes; some while it is still starting up.
  char go;
  jx::stress::HardBound::Phase("waiting for a writer to start", pid);
  if (rng() % 10 != 0 && !jx::stress::ReadAllWithin(ready[0], &go, 1, kChildSeconds))
    v.Report("the writer died on its own or never started");
  std::this_thread::sleep_for(std::chrono::microseconds(rng() % 20000));
  ::kill(pid, SIGKILL);
  ::close(ready[0]);
  const jx::stress::ChildEnd end = Reap(pid, kChildSeconds, "a writer killed by the parent");
  if (end.KilledBy(SIGKILL)) {
    ++t.kills;
  } else {
    v.Report("the writer was not killed");
  }
  return pid;
}

// A round in which the writer kills itself at the nth reach of `point`. Returns its PID.
pid_t CrashPointKill(const std::string& folder, uint64_t childSeed, CrashPoint point, uint64_t nth,
                     const std::vector<Key>& keys, Totals& t, jx::stress::Violations& v) {
  const pid_t pid = Spawn(folder, -1, [&](JX_Bag& bag, Findings&) {
    // Every write moves half of what it is asked, so that a body takes several write calls
    // and a kill after one of them leaves part of it.
    if (point == CrashPoint::kWritten) FaultInjection::ShortNth(FileOp::kWrite, 1, true);
    FaultInjection::KillAtNth(point, nth);
    Writer(bag, childSeed, keys);
  });
  const jx::stress::ChildEnd end = Reap(pid, kChildSeconds, "a writer waiting for its crash point");
  if (end.KilledBy(SIGKILL)) {
    ++t.kills;
    ++t.pointHits[static_cast<size_t>(point)];
  } else if (end.Exited()) {
    std::fprintf(stderr, "crash_kill9: crash point %s, reach %llu: never reached\n",
                 zelcore::filesupport::CrashPointName(point), (unsigned long long)nth);
    v.Report("a crash point was never reached");
  } else if (!end.hung) {
    v.Report("the writer died otherwise than at its crash point");
  }
  return pid;
}

// What a crash point's kill must leave of the write it stopped: its temporary (`temps`, the
// child's new ones), empty just after the creation, holding a start of the body after a write
// call, holding the whole body before the rename; no temporary after the rename.
void CheckPointLeftovers(CrashPoint point, const Dir& dir, const std::vector<std::string>& temps,
                         jx::stress::Violations& v) {
  if (point == CrashPoint::kRenamed) {
    v.Check(temps.empty(), "a temporary left by a kill after the rename");
    return;
  }
  if (temps.size() != 1) {
    std::fprintf(stderr, "crash_kill9: crash point %s left %zu temporaries\n",
                 zelcore::filesupport::CrashPointName(point), temps.size());
    v.Report("a kill inside a write did not leave exactly its temporary");
    return;
  }
  const std::string& temp = temps.front();
  const auto body = jx::testing::ReadWholeFile(dir.GetFile(temp).GetPath());
  const std::string target = TargetOfTemp(temp);
  const uint32_t size = PromisedSize(target);
  jx::disk::CacheFileName name;
  uint32_t seed = 0;
  if (jx::disk::ParseCacheFileName(target, &name) == jx::disk::CacheFileNameError::kNone &&
      name.header.size() == 8)
    std::memcpy(&seed, name.header.data(), 4);
  switch (point) {
    case CrashPoint::kCreated:
      v.Check(body.empty(), "a kill just after the creation left a temporary with data");
      break;
    case CrashPoint::kWritten: {
      // Some of the body, as far as it goes the payload's own bytes (past the payload, a block
      // may still carry its padding).
      const auto whole = jx::testing::KeyedBytes(seed, size);
      const size_t common = std::min(body.size(), whole.size());
      v.Check(!body.empty() && std::equal(body.begin(), body.begin() + common, whole.begin()),
              "a kill after a write call did not leave a start of the body");
      break;
    }
    case CrashPoint::kRenaming:
      v.Check(size > 0 && body == jx::testing::KeyedBytes(seed, size),
              "a kill before the rename left a temporary that is not the whole body");
      break;
    case CrashPoint::kRenamed:
      break;
  }
}

void KillRounds(const jx::stress::Options& o, const std::string& folder, Totals& t,
                jx::stress::Violations& v, const jx::stress::Deadline& deadline) {
  std::mt19937_64 rng(o.seed);
  std::vector<Key> keys;
  for (int i = 0; i < kKeys; ++i) keys.push_back(MakeKey(o.seed, i));
  const Dir dir = CacheFolder(folder);
  zelcore::utility::FileUtils::EnsureDirectoryExists(dir.GetPath());
  std::set<std::string> temps;
  for (uint64_t round = 0; round < o.ops && !deadline.Passed(); ++round) {
    const uint64_t childSeed = rng();
    std::set<std::string> before;
    for (const std::string& name : dir.ListNames()) {
      if (SafeSave::IsTempFileName(name)) before.insert(name);
    }
    if (round % 2 == 0) {
      RandomKill(folder, childSeed, rng, keys, t, v);
      for (const std::string& name : InspectFolder(dir, t, v)) temps.insert(name);
    } else {
      const auto point =
          static_cast<CrashPoint>((round / 2) % zelcore::filesupport::kCrashPointCount);
      // A write reaches each point once, except that a body takes several write calls.
      const uint64_t nth = 1 + rng() % (point == CrashPoint::kWritten ? 8 : 3);
      const pid_t pid = CrashPointKill(folder, childSeed, point, nth, keys, t, v);
      const std::set<std::string> after = InspectFolder(dir, t, v);
      temps.insert(after.begin(), after.end());
      CheckPointLeftovers(point, dir, NewTempsOf(pid, before, after), v);
    }
    ++t.rounds;

    // A fresh process adopts exactly the whole files.
    Add(t,
        RunChild(folder, "a fresh process adopting the folder",
                 [&](JX_Bag& bag, Findings& f) {
                   const std::set<std::string> whole = WholeCacheFiles(dir);
                   ScanAndCheck(bag, f, &whole);
                 }),
        v);
  }
  t.leftoverTemps = temps.size();

  // Every key written again by a fresh process, with the dead writers' temporaries still there
  // and, as if this process had inherited a dead one's ID, leftovers named as its own next
  // temporaries would be.
  const Findings rewrite =
      RunChild(folder, "writing every key again", [&](JX_Bag& bag, Findings& f) {
        ScanAndCheck(bag, f);
        bag.PurgeAllDiskCaches();  // the cache files go; the young temporaries stay
        const std::string pid = std::to_string(::getpid());
        std::vector<IntrusivePtr<JX_Stuff>> items;
        for (const Key& key : keys) items.push_back(NewItem(bag, key));
        const Dir cache = bag.GetDiskCacheDirSpec();
        for (size_t i = 0; i < items.size(); ++i) {
          JX_StuffData::Header header;
          items[i]->GetDataPtr()->GetHeader(header);
          const std::string name =
              jx::disk::MakeCacheFileName(keys[i].guid, jx::testing::kKeyedPayloadName,
                                          bag.GetAppVersion(), header.data(), header.size());
          for (int attempt = 1; attempt <= 3 * kKeys; ++attempt) {
            std::ofstream(
                cache.GetFile(name + "." + pid + "." + std::to_string(attempt) + ".tmp").GetPath())
                << "left by a writer that died";
          }
        }
        for (size_t i = 0; i < items.size(); ++i) {
          items[i]->PrepAndWrite(bag.shared_from_this());
          if (!items[i]->HasDiskCacheFile() || !FileIsWhole(items[i]->GetDiskCacheFile())) {
            ++f.writesBlocked;
            f.bytesLost += keys[i].size;
          } else {
            ++f.written;
          }
        }
      });
  Add(t, rewrite, v);
  t.rewrites = rewrite.written;
  v.Check(rewrite.written == kKeys, "not every key was written again after the crashes");
}

// Two processes writing into one folder at once, then reading each other's files.
void SharedFolder(const jx::stress::Options& o, const std::string& base, int rounds, Totals& t,
                  jx::stress::Violations& v, const jx::stress::Deadline& deadline) {
  for (int round = 0; round < rounds && (round == 0 || !deadline.Passed()); ++round) {
    const std::string folder = base + "/shared" + std::to_string(round);
    // Keys 0..19 only the first writes, 20..39 only the second, 40..59 both.
    std::vector<Key> keys;
    for (int i = 0; i < 60; ++i) keys.push_back(MakeKey(o.seed + 1000 + round, i));
    int done[2][2], findings[2][2];
    for (int w = 0; w < 2; ++w) {
      if (::pipe(done[w]) != 0 || ::pipe(findings[w]) != 0) return;
    }
    pid_t pids[2];
    for (int w = 0; w < 2; ++w) {
      pids[w] = Spawn(folder, findings[w][1], [&, w](JX_Bag& bag, Findings& f) {
        // Only this writer's ends stay open, so that a peer that dies is seen as end of file.
        for (int fd :
             {done[w][0], done[1 - w][1], findings[w][0], findings[1 - w][0], findings[1 - w][1]})
          ::close(fd);
        std::vector<int> mine;
        for (int i = 0; i < 60; ++i) {
          if (i >= 40 || i / 20 == w) mine.push_back(i);
        }
        std::shuffle(mine.begin(), mine.end(), std::mt19937_64(o.seed + round * 2 + w));
        std::vector<IntrusivePtr<JX_Stuff>> items;
        for (size_t n = 0; n < mine.size(); ++n) {
          auto item = NewItem(bag, keys[mine[n]]);
          item->PrepAndWrite(bag.shared_from_this());
          if (item->HasDiskCacheFile()) {
            ++f.written;
          } else {
            ++f.writesBlocked;
          }
          items.push_back(item);
          if (n % 10 == 9) ScanAndCheck(bag, f);  // adopting the other's files as they come
        }
        // Wait until the other has written everything too.
        const char one = 1;
        char c;
        if (!jx::stress::WriteAll(done[w][1], &one, 1) ||
            !jx::stress::ReadAll(done[1 - w][0], &c, 1)) {
          std::fprintf(stderr, "writer %d: the other writer is gone (%s)\n", w,
                       std::strerror(errno));
          ++f.violations;
        }
        const std::set<Guid> adopted = ScanAndCheck(bag, f);
        for (int i = 0; i < 60; ++i) {
          if (!adopted.count(keys[i].guid)) {  // a file of either that no scan took
            ++f.readFailures;
            f.bytesLost += keys[i].size;
          }
        }
      });
    }
    for (int w = 0; w < 2; ++w) {
      for (int fd : {findings[w][1], done[w][0], done[w][1]}) ::close(fd);
    }
    for (int w = 0; w < 2; ++w)
      Add(t, Collect(pids[w], findings[w][0], "a shared-folder writer"), v);
    ++t.sharedRounds;
  }
}

// Three processes on one folder, each with its own disk limit, writing, reading back, deleting
// and purging keys they share while the others do the same.
void ThreeProcesses(const jx::stress::Options& o, const std::string& base, Totals& t,
                    jx::stress::Violations& v, double seconds) {
  const std::string folder = base + "/three";
  constexpr int kShared = 24;
  std::vector<Key> keys;
  for (int i = 0; i < kShared; ++i) keys.push_back(MakeKey(o.seed + 7000, i));
  // A limit of a few files, one of a dozen, and none.
  const long long limits[3] = {1LL << 20, 4LL << 20, 1LL << 40};
  int findings[3][2];
  pid_t pids[3];
  for (int w = 0; w < 3; ++w) {
    if (::pipe(findings[w]) != 0) return;
  }
  for (int w = 0; w < 3; ++w) {
    pids[w] = Spawn(
        folder, findings[w][1],
        [&, w](JX_Bag& bag, Findings& f) {
          for (int u = 0; u < 3; ++u) {
            ::close(findings[u][0]);
            if (u != w) ::close(findings[u][1]);
          }
          std::mt19937_64 rng(o.seed * 3 + w);
          auto keyOf = [&](const Guid& guid) {
            int k = 0;
            while (k < kShared && keys[k].guid != guid) ++k;
            return k;
          };
          auto items = [&] { return bag.CopyMruItems(); };
          // An item that has neither its payload nor a file is computed again.
          auto fresh = [&](int k) {
            for (const auto& item : items()) {
              if (item->GetGuid() == keys[k].guid) item->RemoveFromBagAndSortDir();
            }
            return NewItem(bag, keys[k]);
          };
          const jx::stress::Deadline deadline(seconds);
          for (uint64_t op = 0; op < 400 && !deadline.Passed(); ++op) {
            const int r = static_cast<int>(rng() % 100);
            if (op % 16 == 0) {
              bag.RequestDiskCacheScan();
              bag.ScanDiskCacheDir();  // the others' files, adopted
            }
            if (r < 40) {  // write a key, making room under this process's limit first
              const int k = static_cast<int>(rng() % kShared);
              IntrusivePtr<JX_Stuff> item;
              for (const auto& i : items()) {
                if (i->GetGuid() == keys[k].guid) item = i;
              }
              if (!item || (!item->IsInMemory() && !item->HasDiskCacheFile())) item = fresh(k);
              if (!item->IsInMemory() || item->HasDiskCacheFile()) continue;
              bag.EnsureDiskSpace(keys[k].size, UINT64_MAX);
              item->PrepAndWrite(bag.shared_from_this());
              f.written += item->HasDiskCacheFile() ? 1 : 0;
            } else if (r < 75) {  // read back a file, this process's or another's
              std::vector<IntrusivePtr<JX_Stuff>> onDisk;
              for (const auto& i : items()) {
                if (i->HasDiskCacheFile()) onDisk.push_back(i);
              }
              if (onDisk.empty()) continue;
              auto item = onDisk[rng() % onDisk.size()];
              JX_Stuff::ReleaseQueue queue;
              item->FreeUpAsMuchAsPossible(false, &queue);
              bool ok = false;
              try {
                ok = item->EnsureInMemory();
              } catch (int) {
                ok = false;
              }
              auto* payload = dynamic_cast<KeyedPayload*>(item->GetDataPtr().get());
              if (ok && payload && payload->HoldsBytesOf(item->GetGuid())) {
                ++f.reads;
              } else if (ok) {
                ++f.badReads;
                f.bytesLost += payload ? payload->Size() : 0;
              } else {
                ++f.failedReads;
                const int k = keyOf(item->GetGuid());
                if (k < kShared) fresh(k);
              }
            } else if (r < 92) {  // delete a file
              const auto all = items();
              if (all.empty()) continue;
              f.deletes += all[rng() % all.size()]->DeleteDiskCacheFile() ? 1 : 0;
            } else if (r < 95) {
              bag.PurgeAllDiskCaches();
              ++f.purges;
            } else {  // the memory of an item that has a file: its next use reads it
              const auto all = items();
              if (all.empty()) continue;
              auto item = all[rng() % all.size()];
              if (!item->HasDiskCacheFile()) continue;
              JX_Stuff::ReleaseQueue queue;
              item->FreeUpAsMuchAsPossible(false, &queue);
            }
          }
        },
        limits[w]);
  }
  for (int w = 0; w < 3; ++w) ::close(findings[w][1]);
  for (int w = 0; w < 3; ++w) {
    const Findings f = Collect(pids[w], findings[w][0], "one of three processes on one folder");
    Add(t, f, v);
    t.three.written += f.written;
    t.three.reads += f.reads;
    t.three.failedReads += f.failedReads;
    t.three.badReads += f.badReads;
    t.three.deletes += f.deletes;
    t.three.purges += f.purges;
  }
  ++t.threeRounds;
  // All three finished: the folder holds whole cache files and no temporary.
  const Dir dir = CacheFolder(folder);
  for (const std::string& name : InspectFolder(dir, t, v)) {
    std::fprintf(stderr, "crash_kill9: %s left after three clean exits\n", name.c_str());
    v.Report("a temporary left by a process that exited cleanly");
  }
}

}  // namespace

int main(int argc, char** argv) {
  auto o = jx::stress::ParseOptions(argc, argv, "crash_kill9", 120);
  // Every round starts two processes, which is slow under the sanitizers: ThreadSanitizer, beside
  // another program, does about an eighth of the rounds in their half of the time bound. Less
  // than this means something slowed them down beyond that.
  constexpr double kFloorPercent = 5;
  const jx::stress::HardBound hardBound("crash_kill9", jx::stress::HardSeconds(o));
  jx::StandaloneHost::Instance().SetEchoReports(false);
  std::string base = zelcore::utility::FileUtils::GetTempDirectoryPath() + "/jxkill9.XXXXXX";
  if (!mkdtemp(base.data())) {
    std::perror("crash_kill9: mkdtemp");
    return 2;
  }
  jx::stress::Violations violations;
  Totals totals;
  // The kill rounds get half of the time; the rewrite after them, the two-process rounds and the
  // three-process round (at least one of each) the rest.
  const jx::stress::Deadline whole(o.seconds);
  const auto started = std::chrono::steady_clock::now();
  KillRounds(o, base + "/killed", totals, violations, jx::stress::Deadline(o.seconds * 0.5));
  SharedFolder(o, base, 3, totals, violations, whole);
  const double spent =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  ThreeProcesses(o, base, totals, violations, std::clamp(o.seconds - spent, 1.0, 3.0));
  jx::stress::HardBound::Phase("cleaning up");
  std::error_code ec;
  std::filesystem::remove_all(base, ec);
  std::string hits;
  for (int p = 0; p < zelcore::filesupport::kCrashPointCount; ++p) {
    hits += std::string(hits.empty() ? "" : ", ") +
            zelcore::filesupport::CrashPointName(static_cast<CrashPoint>(p)) + " " +
            std::to_string(totals.pointHits[p]);
  }
  std::printf(
      "crash_kill9: three processes on one folder: writes %llu, reads %llu, failed reads "
      "(file gone, recomputed) %llu, bad reads %llu, deletes %llu, folder purges %llu\n",
      (unsigned long long)totals.three.written, (unsigned long long)totals.three.reads,
      (unsigned long long)totals.three.failedReads, (unsigned long long)totals.three.badReads,
      (unsigned long long)totals.three.deletes, (unsigned long long)totals.three.purges);
  const bool covered =
      jx::stress::CoverageMet("crash_kill9", "kill rounds", totals.rounds, o.ops, kFloorPercent);
  std::printf(
      "crash_kill9: rounds %llu of %llu (+%llu two-process, +%llu three-process), kills %llu, "
      "kill points hit (%s), temporaries left by kills %llu, adopted files %llu, partial files "
      "adopted %llu, temporaries adopted %llu, whole files not adopted %llu, keys rewritten %llu, "
      "bad reads %llu, violations %llu, hangs %llu, bytes lost %llu\n",
      (unsigned long long)totals.rounds, (unsigned long long)o.ops,
      (unsigned long long)totals.sharedRounds, (unsigned long long)totals.threeRounds,
      (unsigned long long)totals.kills, hits.c_str(), (unsigned long long)totals.leftoverTemps,
      (unsigned long long)totals.adopted, (unsigned long long)totals.partialAdopted,
      (unsigned long long)totals.tempAdopted, (unsigned long long)totals.notAdopted,
      (unsigned long long)totals.rewrites, (unsigned long long)totals.three.badReads,
      (unsigned long long)violations.Count(), (unsigned long long)gHangs,
      (unsigned long long)totals.bytesLost);
  return violations.Count() == 0 && gHangs == 0 && covered ? 0 : 1;
}
