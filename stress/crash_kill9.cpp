// crash_kill9: writers killed mid-write, and two processes sharing one disk cache folder.
//
// Kill rounds: a child process starts the library on a folder and writes items (payload bytes
// derived from the key; some files are deleted again so that keys keep being rewritten) until
// the parent kills it with SIGKILL at a seeded random moment, over more than a hundred rounds by
// default. After each kill the folder must hold only whole cache files, and a fresh process (new
// JX_Birth) that scans it must adopt exactly those: every adopted file reads back
// byte-identical, a leftover temporary is never adopted, no whole file is left out.
// At the end a fresh process writes every key again, with leftovers of dead writers in the
// way (including ones whose process ID and attempt number it now has, as after PID reuse):
// every write must get through.
//
// Shared folder: two processes write disjoint and overlapping keys into one folder at once,
// scanning it as they go, then each adopts and reads back the other's files byte-identically.
//
// Bytes lost: the payload bytes of every cache file found partial, every adopted file that did
// not read back, every whole file a scan left out and every key that could not be written again.
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bag/bag.h"
#include "disk/cache_file_name.h"
#include "disk/disk_folder.h"
#include "host/file_utils.h"
#include "host/safe_save.h"
#include "host/standalone_host.h"
#include "lifecycle/lifecycle.h"
#include "stress_common.h"
#include "testing/keyed_payload.h"

using jx::testing::KeyedPayload;
using zelcore::filesupport::Dir;
using zelcore::filesupport::File;
using zelcore::filesupport::SafeSave;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr int kKeys = 40;
constexpr uint32_t kMaxPayload = 600 * 1024;

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
pid_t Spawn(const std::string& folder, int out,
            const std::function<void(JX_Bag&, Findings&)>& body) {
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
    bag->SetDiskCacheInfo(folder, 1LL << 40);
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

// Reads the child's findings and reaps it; a child that died without reporting is a violation.
Findings Collect(pid_t pid, int in) {
  Findings f;
  const bool got = jx::stress::ReadAll(in, &f, sizeof f);
  ::close(in);
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!got || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "child %d: %s %d\n", static_cast<int>(pid),
                 WIFSIGNALED(status) ? "killed by signal" : "exit code",
                 WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    f = Findings{};
    f.violations = 1;
  }
  return f;
}

Findings RunChild(const std::string& folder, const std::function<void(JX_Bag&, Findings&)>& body) {
  int fds[2];
  if (::pipe(fds) != 0) return Findings{.violations = 1};
  const pid_t pid = Spawn(folder, fds[1], body);
  ::close(fds[1]);
  return Collect(pid, fds[0]);
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
  for (uint64_t i = 0; i < f.violations; ++i) v.Report("a child process failed");
}

void KillRounds(const jx::stress::Options& o, const std::string& folder, Totals& t,
                jx::stress::Violations& v, const jx::stress::Deadline& deadline) {
  std::mt19937_64 rng(o.seed);
  std::vector<Key> keys;
  for (int i = 0; i < kKeys; ++i) keys.push_back(MakeKey(o.seed, i));
  const Dir dir = CacheFolder(folder);
  std::set<std::string> temps;
  for (uint64_t round = 0; round < o.ops && !deadline.Passed(); ++round) {
    int ready[2];
    if (::pipe(ready) != 0) break;
    const uint64_t childSeed = rng();
    const pid_t pid = Spawn(folder, -1, [&](JX_Bag& bag, Findings&) {
      ::close(ready[0]);
      std::mt19937_64 r(childSeed);
      std::map<int, IntrusivePtr<JX_Stuff>> items;
      const char go = 1;
      if (!jx::stress::WriteAll(ready[1], &go, 1)) ::_exit(4);
      ::close(ready[1]);
      jx::stress::Deadline giveUp(5.0);  // the parent kills long before; never outlive a lost one
      while (!giveUp.Passed()) {
        const int k = static_cast<int>(r() % kKeys);
        auto& item = items[k];
        if (!item) item = NewItem(bag, keys[k]);
        item->PrepAndWrite(bag.shared_from_this());
        if (r() % 2) item->DeleteDiskCacheFile();  // so that the key is written again
      }
    });
    ::close(ready[1]);
    // Most kills land while the writer writes; some while it is still starting up.
    char go;
    if (rng() % 10 != 0 && !jx::stress::ReadAll(ready[0], &go, 1))
      v.Report("the writer died on its own");
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 20000));
    ::kill(pid, SIGKILL);
    ::close(ready[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
      ++t.kills;
    } else {
      v.Report("the writer was not killed");
    }
    ++t.rounds;

    // What the kill left: whole cache files and perhaps a temporary, nothing else.
    for (const std::string& name : dir.ListNames()) {
      if (SafeSave::IsTempFileName(name)) {
        temps.insert(name);
      } else if (!FileIsWhole(dir.GetFile(name))) {
        v.Report("a partial cache file in the folder");
        t.bytesLost += PromisedSize(name);
      }
    }
    // A fresh process adopts exactly the whole files.
    Add(t,
        RunChild(folder,
                 [&](JX_Bag& bag, Findings& f) {
                   const std::set<std::string> whole = WholeCacheFiles(dir);
                   ScanAndCheck(bag, f, &whole);
                 }),
        v);
  }
  t.leftoverTemps = temps.size();
  if (t.rounds < o.ops) {
    // Time running out is the bound doing its job; anything else stopping the rounds is not.
    std::printf("crash_kill9: %llu of %llu kill rounds done%s\n", (unsigned long long)t.rounds,
                (unsigned long long)o.ops, deadline.Passed() ? " before the time ran out" : "");
    if (!deadline.Passed()) v.Report("the kill rounds stopped early");
  }

  // Every key written again by a fresh process, with the dead writers' temporaries still there
  // and, as if this process had inherited a dead one's ID, leftovers named as its own next
  // temporaries would be.
  const Findings rewrite = RunChild(folder, [&](JX_Bag& bag, Findings& f) {
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
    for (int w = 0; w < 2; ++w) Add(t, Collect(pids[w], findings[w][0]), v);
    ++t.rounds;
  }
}

}  // namespace

int main(int argc, char** argv) {
  auto o = jx::stress::ParseOptions(argc, argv, "crash_kill9", 120);
  jx::StandaloneHost::Instance().SetEchoReports(false);
  std::string base = zelcore::utility::FileUtils::GetTempDirectoryPath() + "/jxkill9.XXXXXX";
  if (!mkdtemp(base.data())) {
    std::perror("crash_kill9: mkdtemp");
    return 2;
  }
  jx::stress::Violations violations;
  Totals totals;
  // The shared-folder rounds are short; the kill rounds get the rest of the time.
  // The kill rounds get half of the time; the rewrite after them and the shared-folder rounds
  // (at least one) the rest.
  const jx::stress::Deadline whole(o.seconds);
  KillRounds(o, base + "/killed", totals, violations, jx::stress::Deadline(o.seconds * 0.5));
  const uint64_t killRounds = totals.rounds;
  SharedFolder(o, base, 4, totals, violations, whole);
  std::error_code ec;
  std::filesystem::remove_all(base, ec);
  std::printf(
      "crash_kill9: rounds %llu (+%llu shared-folder), kills %llu, temporaries left by kills %llu, "
      "adopted files %llu, partial files adopted %llu, temporaries adopted %llu, whole files not "
      "adopted %llu, keys rewritten %llu, violations %llu, bytes lost %llu\n",
      (unsigned long long)killRounds, (unsigned long long)(totals.rounds - killRounds),
      (unsigned long long)totals.kills, (unsigned long long)totals.leftoverTemps,
      (unsigned long long)totals.adopted, (unsigned long long)totals.partialAdopted,
      (unsigned long long)totals.tempAdopted, (unsigned long long)totals.notAdopted,
      (unsigned long long)totals.rewrites, (unsigned long long)violations.Count(),
      (unsigned long long)totals.bytesLost);
  return violations.Count() == 0 ? 0 : 1;
}
