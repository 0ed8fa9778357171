// fuzz_folder_scan: a disk cache folder filled from the input, then the start-up scan and a read
// back of everything it adopted.
//
// The input holds one entry per line. A line that starts with a kind byte (1 to 4) is
//   \x01 <c> <path>  a regular file; <c> picks its body: the whole payload its name promises, one
//                    byte short, one byte too long, one byte altered, empty, or a short text;
//   \x02 <c> <path>  a folder;
//   \x03 <c> <path>  a symbolic link; <c> picks its target: a file outside the cache folder that
//                    holds the payload the link's name promises, a folder outside that holds a
//                    cache file, nothing (dangling), the link itself (a loop), the folder the
//                    link is in (a loop up the tree), or the entry made before it;
//   \x04 <c> <path>  a FIFO, with one byte waiting in it;
// where <path> is a name or "folder/name" (the folder is made as needed). Any other line is a
// regular file of that name holding its length as text.
//
// The scan must never crash, hang or open a FIFO: a scan blocked for seconds is reported with the
// FIFOs open at that moment, and after each input every FIFO must still hold its byte and be open
// only here. Every file the scan adopts is an entry of the input that is a regular file or a link
// to one, in the cache folder or in a real folder of it (never through a linked folder), named as a
// cache file of the running version and payload class; every such entry directly in the cache
// folder is adopted (one in a folder of it may be); the disk size is the sum of the adopted files.
// Reading an adopted item back succeeds exactly when its file holds the payload its name promises,
// and a file that fails to read back is deleted.
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "disk/cache_file_name.h"
#include "disk/disk_folder.h"
#include "fuzz_common.h"
#include "host/safe_save.h"

namespace {

namespace fs = std::filesystem;

// A payload class whose factory throws: the scan must survive it and go on.
void RegisterThrowingFactories() {
  JX_StuffData::Factory throwsCode =
      [](const JX_StuffData::Header&) -> zelcore::utility::IntrusivePtr<JX_StuffData> {
    throw 14850;
  };
  JX_StuffData::Factory throwsError =
      [](const JX_StuffData::Header& header) -> zelcore::utility::IntrusivePtr<JX_StuffData> {
    throw std::runtime_error("cannot build from " + std::to_string(header.size()) + " bytes");
  };
  JX_StuffData::RegisterFactory("ThrowsCode", throwsCode);
  JX_StuffData::RegisterFactory("ThrowsError", throwsError);
}

enum Kind : uint8_t { kText = 0, kFile = 1, kFolder = 2, kLink = 3, kFifo = 4 };
// Reading back allocates what a name promises; larger promises are not read back.
constexpr uint32_t kMaxReadBack = 1u << 20;
constexpr size_t kMaxEntries = 64;

struct Entry {
  Kind kind;
  uint8_t choice;
  std::string folder;  // empty: directly in the cache folder
  std::string name;
};

// The payload a cache file name promises: its seed and size, when the name is one of ours.
struct Promise {
  bool ours = false;  // a cache file of the running version and of the key-derived payload class
  zelcore::utility::Guid guid;
  uint32_t seed = 0, size = 0;
};

Promise PromiseOf(const std::string& name, uint32_t version) {
  Promise p;
  jx::disk::CacheFileName parsed;
  if (!jx::disk::IsCacheFileName(name) || zelcore::filesupport::SafeSave::IsTempFileName(name) ||
      jx::disk::ParseCacheFileName(name, &parsed) != jx::disk::CacheFileNameError::kNone ||
      parsed.version != version || parsed.matchName != jx::testing::kKeyedPayloadName ||
      parsed.header.size() != 8)
    return p;
  p.ours = true;
  p.guid = parsed.guid;
  std::memcpy(&p.seed, parsed.header.data(), 4);
  std::memcpy(&p.size, parsed.header.data() + 4, 4);
  return p;
}

// A name usable in a folder, or empty.
std::string CleanName(std::string name) {
  name.erase(std::remove(name.begin(), name.end(), '\0'), name.end());
  if (name == "." || name == ".." || name.size() > 255) return {};
  return name;
}

std::vector<Entry> ParseEntries(const uint8_t* data, size_t size) {
  std::vector<Entry> entries;
  size_t start = 0;
  for (size_t i = 0; i <= size && entries.size() < kMaxEntries; ++i) {
    if (i < size && data[i] != '\n') continue;
    std::string line(reinterpret_cast<const char*>(data) + start, i - start);
    start = i + 1;
    Entry e{kText, 0, {}, {}};
    if (!line.empty() && line[0] >= kFile && line[0] <= kFifo) {
      e.kind = static_cast<Kind>(line[0]);
      e.choice = line.size() > 1 ? static_cast<uint8_t>(line[1]) : 0;
      const std::string path = line.size() > 2 ? line.substr(2) : "";
      const size_t slash = path.find('/');
      if (slash != std::string::npos) {
        e.folder = CleanName(path.substr(0, slash));
        const size_t last = path.rfind('/');
        e.name = CleanName(path.substr(last + 1));
        if (e.folder.empty()) continue;
      } else {
        e.name = CleanName(path);
      }
    } else {
      line.erase(std::remove(line.begin(), line.end(), '/'), line.end());
      e.name = CleanName(line);
    }
    if (!e.name.empty()) entries.push_back(std::move(e));
  }
  return entries;
}

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

// The whole payload a name promises, or a short text when it promises none (or too much).
std::vector<uint8_t> WholeBody(const Promise& p, const std::string& name) {
  if (p.ours && p.size <= kMaxReadBack) return jx::testing::KeyedBytes(p.seed, p.size);
  const std::string text = std::to_string(name.size());
  return std::vector<uint8_t>(text.begin(), text.end());
}

// The watchdog of one input's steps: a step still running after kStepSeconds is blocked
// (a scan waiting on a FIFO, say), and is reported with the FIFOs open at that moment.
constexpr auto kStepSeconds = std::chrono::seconds(10);
std::mutex gWatchMutex;
const char* gStep = nullptr;  // guarded by gWatchMutex; null when no step runs
std::chrono::steady_clock::time_point gStepStart;
std::map<ino_t, std::string> gFifos;  // guarded by gWatchMutex: inode to path
std::set<int> gOwnFifoFds;            // guarded by gWatchMutex

// Descriptors of this process open on one of the input's FIFOs, other than the ones held here.
std::vector<std::string> ForeignFifoOpens() {
  std::vector<std::string> opens;
  DIR* dir = ::opendir("/proc/self/fd");
  if (!dir) return opens;
  while (const dirent* d = ::readdir(dir)) {
    const int fd = std::atoi(d->d_name);
    if (d->d_name[0] == '.' || fd == ::dirfd(dir) || gOwnFifoFds.count(fd)) continue;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) continue;
    const auto it = gFifos.find(st.st_ino);
    if (it != gFifos.end()) opens.push_back(it->second);
  }
  ::closedir(dir);
  return opens;
}

void StartWatchdog() {
  std::thread([] {
    for (;;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      std::lock_guard<std::mutex> lock(gWatchMutex);
      if (!gStep || std::chrono::steady_clock::now() - gStepStart < kStepSeconds) continue;
      std::fprintf(stderr, "fuzz check failed: %s still running after %lld s (blocked)\n", gStep,
                   static_cast<long long>(kStepSeconds.count()));
      for (const std::string& path : ForeignFifoOpens())
        std::fprintf(stderr, "  the library has the FIFO %s open\n", path.c_str());
      std::abort();
    }
  }).detach();
}

void Step(const char* what) {
  std::lock_guard<std::mutex> lock(gWatchMutex);
  gStep = what;
  gStepStart = std::chrono::steady_clock::now();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto bag = [] {
    auto b = jx::fuzz::StartLibrary();
    RegisterThrowingFactories();
    StartWatchdog();
    return b;
  }();
  // Link targets outside the cache folder live here.
  static const std::string outside = [] {
    std::string folder = zelcore::utility::FileUtils::GetTempDirectoryPath() + "/jxfuzzout.XXXXXX";
    if (!mkdtemp(folder.data())) std::abort();
    return folder;
  }();
  const auto dir = bag->GetDiskCacheDirSpec();
  const std::string root = dir.GetPath();
  const uint32_t version = bag->GetAppVersion();

  Step("making the folder");
  // What was made, by path relative to the cache folder.
  struct Made {
    Entry entry;
    std::string path;
    Promise promise;
  };
  std::vector<Made> made;
  std::vector<int> fifoFds;
  int counter = 0;
  for (const Entry& e : ParseEntries(data, size)) {
    const std::string folderPath = e.folder.empty() ? root : root + "/" + e.folder;
    if (!e.folder.empty()) {
      ::mkdir(folderPath.c_str(), 0755);
      struct stat st {};
      if (::lstat(folderPath.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
    }
    const std::string path = folderPath + "/" + e.name;
    struct stat existing {};
    if (::lstat(path.c_str(), &existing) == 0) continue;  // the name is taken
    const Promise promise = PromiseOf(e.name, version);
    const std::string aside = outside + "/" + std::to_string(counter++);
    bool ok = true;
    switch (e.kind) {
      case kText:
        std::ofstream(path) << e.name.size();
        break;
      case kFile: {
        std::vector<uint8_t> body = WholeBody(promise, e.name);
        switch (e.choice % 6) {
          case 1:
            if (!body.empty()) body.pop_back();
            break;
          case 2:
            body.push_back(0x5a);
            break;
          case 3:
            if (!body.empty()) body[e.choice % body.size()] ^= 0x01;
            break;
          case 4:
            body.clear();
            break;
          case 5:
            body.assign({'t', 'e', 'x', 't'});
            break;
        }
        WriteBytes(path, body);
        break;
      }
      case kFolder:
        ok = ::mkdir(path.c_str(), 0755) == 0;
        break;
      case kLink: {
        std::string target;
        switch (e.choice % 6) {
          case 0:  // a file elsewhere holding what the link's name promises
            WriteBytes(aside, WholeBody(promise, e.name));
            target = aside;
            break;
          case 1:  // a folder elsewhere holding a whole cache file of the link's name
            fs::create_directories(aside);
            WriteBytes(aside + "/" + e.name, WholeBody(promise, e.name));
            target = aside;
            break;
          case 2:
            target = aside + ".missing";
            break;
          case 3:
            target = e.name;
            break;
          case 4:
            target = ".";
            break;
          case 5:
            target = made.empty() ? aside + ".missing" : root + "/" + made.back().path;
            break;
        }
        ok = ::symlink(target.c_str(), path.c_str()) == 0;
        break;
      }
      case kFifo: {
        ok = ::mkfifo(path.c_str(), 0644) == 0;
        if (!ok) break;
        // Held open for reading and writing here, so that nothing opening it blocks on the
        // open; a byte waits in it, so that a read of it shows.
        const int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        struct stat st {};
        if (fd < 0 || ::write(fd, "f", 1) != 1 || ::fstat(fd, &st) != 0) std::abort();
        fifoFds.push_back(fd);
        std::lock_guard<std::mutex> lock(gWatchMutex);
        gFifos[st.st_ino] = path;
        gOwnFifoFds.insert(fd);
        break;
      }
    }
    if (ok) made.push_back({e, (e.folder.empty() ? "" : e.folder + "/") + e.name, promise});
  }

  // What may be adopted: entries named as our cache files that are regular files or links to
  // one (stat follows links); those directly in the cache folder must be.
  std::map<std::string, const Made*> adoptableByPath;
  std::set<zelcore::utility::Guid> mustAdopt, mayAdopt;
  for (const Made& m : made) {
    struct stat st {};
    if (!m.promise.ours || ::stat((root + "/" + m.path).c_str(), &st) != 0 || !S_ISREG(st.st_mode))
      continue;
    adoptableByPath[root + "/" + m.path] = &m;
    mayAdopt.insert(m.promise.guid);
    if (m.entry.folder.empty()) mustAdopt.insert(m.promise.guid);
  }

  Step("the folder scan");
  bag->RequestDiskCacheScan();
  bag->ScanDiskCacheDir();

  Step("checking what was adopted");
  long long adoptedBytes = 0;
  std::set<zelcore::utility::Guid> adopted;
  const auto items = bag->CopyMruItems();
  for (const auto& item : items) {
    const auto file = item->GetDiskCacheFile();
    JX_FUZZ_CHECK(!file.IsEmpty());  // only adopted items are in the bag
    const auto found = adoptableByPath.find(file.GetPath());
    JX_FUZZ_CHECK(found != adoptableByPath.end());  // an adoptable entry of the input
    JX_FUZZ_CHECK(found->second->promise.guid == item->GetGuid());
    adoptedBytes += static_cast<long long>(fs::file_size(file.GetPath()));
    adopted.insert(item->GetGuid());
  }
  JX_FUZZ_CHECK(bag->GetCurrentDiskCacheSize() == adoptedBytes);
  JX_FUZZ_CHECK(std::includes(adopted.begin(), adopted.end(), mustAdopt.begin(), mustAdopt.end()));
  JX_FUZZ_CHECK(std::includes(mayAdopt.begin(), mayAdopt.end(), adopted.begin(), adopted.end()));

  // Read back: exactly the files that hold their promised payload read back.
  Step("reading the adopted items back");
  for (const auto& item : items) {
    const auto file = item->GetDiskCacheFile();
    const Promise& promise = adoptableByPath.at(file.GetPath())->promise;
    if (promise.size > kMaxReadBack) continue;
    // An earlier failed read may have deleted the file a link of this item pointed to.
    struct stat target {};
    const bool whole = ::stat(file.GetPath().c_str(), &target) == 0 && S_ISREG(target.st_mode) &&
                       jx::testing::ReadWholeFile(file.GetPath()) ==
                           jx::testing::KeyedBytes(promise.seed, promise.size);
    bool read = false;
    try {
      read = item->EnsureInMemory();
    } catch (int) {
      read = false;
    }
    JX_FUZZ_CHECK(read == whole);
    if (!read) {
      struct stat st {};
      JX_FUZZ_CHECK(!item->HasDiskCacheFile());
      JX_FUZZ_CHECK(::lstat(file.GetPath().c_str(), &st) != 0);  // deleted, a link as a link
    }
  }

  // Nothing opened a FIFO: each still holds its byte, and is open only here.
  Step("checking the FIFOs");
  {
    std::lock_guard<std::mutex> lock(gWatchMutex);
    const std::vector<std::string> opens = ForeignFifoOpens();
    for (const std::string& path : opens)
      std::fprintf(stderr, "FIFO left open: %s\n", path.c_str());
    JX_FUZZ_CHECK(opens.empty());
  }
  for (const int fd : fifoFds) {
    int waiting = 0;
    JX_FUZZ_CHECK(::ioctl(fd, FIONREAD, &waiting) == 0 && waiting == 1);
  }

  // Back to an empty folder and bag for the next input.
  Step("emptying the folder");
  bag->PurgeAllDiskCaches();
  for (const auto& item : bag->CopyMruItems()) {
    item->DeleteDiskCacheFile();
    item->RemoveFromBagAndSortDir();
  }
  {
    std::lock_guard<std::mutex> lock(gWatchMutex);
    for (const int fd : fifoFds) ::close(fd);
    gFifos.clear();
    gOwnFifoFds.clear();
  }
  std::error_code ec;
  for (const auto& n : dir.ListNames()) fs::remove_all(root + "/" + n, ec);  // links not followed
  for (const auto& entry : fs::directory_iterator(outside)) fs::remove_all(entry.path(), ec);
  JX_FUZZ_CHECK(bag->GetNumItems() == 0 && bag->GetCurrentDiskCacheSize() == 0);
  JX_FUZZ_CHECK(dir.ListNames().empty());
  Step(nullptr);
  return 0;
}
