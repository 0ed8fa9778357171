// The disk tier against what the machine can do in the same folder: an item's PrepAndWrite of
// 8 MiB against a raw O_DIRECT write of the same bytes and its PrepAndRead against a raw read of
// the same file, each pair measured in turns, and a folder scan of 10,000 and of 100,000 cache
// files against a bare directory listing. Each benchmark checks that it really wrote, read or
// adopted what it claims.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "disk/disk_counters.h"
#include "host/file_utils.h"
#include "items/xxh3.h"
#include "jxcache/bag/bag.h"
#include "jxcache/host/byte_stream.h"
#include "jxcache/items/checksummed_stream.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"

using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr size_t kFrameBytes = 8u << 20;

// An 8 MiB frame that writes and reads its bytes in one call each, checksummed as a payload
// should be: the figures include the integrity check.
class FramePayload : public JX_StuffData {
 public:
  FramePayload() : bytes_(std::make_shared<std::vector<uint8_t>>(kFrameBytes, 0x5A)) {}
  explicit FramePayload(bool) {}
  unsigned int GetApproximateMemorySize() const override { return bytes_ ? kFrameBytes : 0; }
  bool PurgeIfPossible(ReleaseQueue* q) override {
    if (!bytes_) return false;
    if (q) q->push_back(bytes_);
    bytes_.reset();
    return true;
  }
  bool IsInMemory() const override { return bytes_ != nullptr; }
  bool CanDiskCache() const override { return true; }
  const char* GetSubclassMatchname() const override { return "BenchFrame"; }
  double Write(zelcore::filesupport::OByteStream& out) const override {
    jx::ChecksummedOByteStream sealed(out);
    sealed.Write(bytes_->data(), bytes_->size());
    sealed.Finish();
    return 0.0;
  }
  double Read(zelcore::filesupport::IByteStream& in,
              zelcore::threads::MultiTenantRecursiveMutex&) override {
    jx::ChecksummedIByteStream sealed(in);
    sealed.ExpectAtLeast(kFrameBytes, "bench frame");
    auto bytes = std::make_shared<std::vector<uint8_t>>(kFrameBytes);
    sealed.ReadExactly(bytes->data(), bytes->size());
    sealed.Verify();
    bytes_ = std::move(bytes);
    return 0.0;
  }

 private:
  std::shared_ptr<std::vector<uint8_t>> bytes_;
};

struct DiskLibrary {
  std::string root;
  std::shared_ptr<JX_Bag> bag;
  DiskLibrary() {
    char pattern[] = "/var/tmp/jxbench.XXXXXX";
    root = mkdtemp(pattern) ? pattern : "/var/tmp";
    jx::StandaloneHost::Instance().SetEchoReports(false);
    jx::StandaloneHost::Instance().SetMemoryLimit(1ull << 40);
    JX_Birth(false, 1, false);
    bag = JX_GlobalBag();
    bag->EnableDiskCache(true);
    bag->SetDiskCacheInfo(root, 1ll << 40);
    JX_StuffData::Factory f = [](const JX_StuffData::Header&) {
      return IntrusivePtr<JX_StuffData>(new FramePayload(true));
    };
    JX_StuffData::RegisterFactory("BenchFrame", f);
  }
  ~DiskLibrary() {
    bag.reset();
    JX_StopAllAsyncWork();
    JX_Death();
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }
  std::string Folder() const { return bag->GetDiskCacheDirSpec().GetPath(); }
};

DiskLibrary& Lib() {
  static DiskLibrary lib;
  return lib;
}

IntrusivePtr<JX_Stuff> NewFrame() {
  auto item = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new FramePayload()), 0.0);
  item->SetGuid(Guid::CreateUnique());
  return item;
}

// One transfer of a side-by-side benchmark, and the counter its rate is reported under.
struct Side {
  const char* counter;
  std::function<void()> run;
};

// Runs the library's transfer and its raw counterparts in turns, each on its own clock, and
// reports each side's rate under its counter. The disk of a shared machine changes speed from one
// second to the next: benchmarks run one after the other would compare different disks. The
// order rotates, so that no side always follows the same one; `setup` and `cleanup` run outside
// every clock.
template <class Setup, class Cleanup>
void SideBySide(benchmark::State& state, Setup&& setup, const std::vector<Side>& sides,
                Cleanup&& cleanup) {
  std::vector<double> total(sides.size(), 0.0);
  size_t first = 0;
  for (auto _ : state) {
    setup();
    double iteration = 0;
    for (size_t turn = 0; turn < sides.size(); ++turn) {
      const size_t side = (first + turn) % sides.size();
      const auto t0 = std::chrono::steady_clock::now();
      sides[side].run();
      const double seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      total[side] += seconds;
      iteration += seconds;
    }
    first = (first + 1) % sides.size();
    cleanup();
    state.SetIterationTime(iteration);
  }
  const double bytes = static_cast<double>(state.iterations()) * kFrameBytes;
  for (size_t side = 0; side < sides.size(); ++side) {
    if (total[side] > 0) state.counters[sides[side].counter] = bytes / total[side];
  }
}

// Reads the whole file at `path` into `bytes` (kFrameBytes), `slice` bytes per call, handing each
// slice to `onSlice` as it arrives. Returns whether every byte came.
template <class OnSlice>
bool ReadWholeFile(const std::string& path, uint8_t* bytes, size_t slice, OnSlice&& onSlice) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) return false;
  size_t got = 0;
  while (got < kFrameBytes) {
    const ssize_t n = ::read(fd, bytes + got, std::min(slice, kFrameBytes - got));
    if (n <= 0) break;
    onSlice(bytes + got, static_cast<size_t>(n));
    got += static_cast<size_t>(n);
  }
  ::close(fd);
  return got == kFrameBytes;
}

// An item's PrepAndWrite of 8 MiB against the same bytes written straight to a new file in the
// same folder with O_DIRECT and one aligned write, synced: the floor under any cache writing
// through to disk.
void BM_DiskWrite8MiB(benchmark::State& state) {
  auto& lib = Lib();
  auto buffer = zelcore::filesupport::AllocateAligned(kFrameBytes, 4096);
  std::memset(buffer.get(), 0x5A, kFrameBytes);
  const std::string path = lib.Folder() + "/raw.bin";
  IntrusivePtr<JX_Stuff> item;
  bool allWritten = true;
  SideBySide(
      state,
      [&] {
        item = NewFrame();
        lib.bag->AddToBagAndSortDir(item);
      },
      {{"jx_bytes_per_second", [&] { item->PrepAndWrite(lib.bag); }},
       {"raw_bytes_per_second",
        [&] {
          int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_DIRECT, 0644);
          if (fd < 0) fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
          if (fd < 0 ||
              ::write(fd, buffer.get(), kFrameBytes) != static_cast<ssize_t>(kFrameBytes)) {
            allWritten = false;
          }
          ::fdatasync(fd);
          ::close(fd);
        }}},
      [&] {
        allWritten = allWritten && item->HasDiskCacheFile();
        item->DeleteDiskCacheFile();
        item->RemoveFromBagAndSortDir();
        ::unlink(path.c_str());
      });
  if (!allWritten) state.SkipWithError("nothing written");
}
BENCHMARK(BM_DiskWrite8MiB)->Unit(benchmark::kMillisecond)->UseManualTime()->MinTime(4.0);

// An item's PrepAndRead of its 8 MiB file against a plain read of the very same file into a
// fresh buffer of the same size, and against that read with XXH3 run over each 128 KiB slice as
// it arrives, as the library's checksum does: the least any read that verifies a checksum on one
// thread can cost, without a cache's bookkeeping or a payload's stream.
void BM_DiskRead8MiB(benchmark::State& state) {
  auto& lib = Lib();
  auto item = NewFrame();
  lib.bag->AddToBagAndSortDir(item);
  item->PrepAndWrite(lib.bag);
  const std::string path = item->GetDiskCacheFile().GetPath();
  if (path.empty()) {
    state.SkipWithError("nothing written");
    return;
  }
  bool allRead = true;
  uint64_t hashes = 0;  // kept, so that the hashing cannot be left out
  // Every side reads into a fresh, zeroed buffer of its own, and none frees one on its clock.
  std::vector<uint8_t> rawBytes, hashedBytes;
  std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> hash(XXH3_createState(),
                                                                       XXH3_freeState);
  constexpr size_t kSlice = 128 * 1024;  // the library's slice
  SideBySide(
      state,
      [&] {
        item->FreeUpAsMuchAsPossible(false, nullptr);
        std::vector<uint8_t>().swap(rawBytes);
        std::vector<uint8_t>().swap(hashedBytes);
      },
      {{"jx_bytes_per_second", [&] { allRead = item->EnsureInMemory() && allRead; }},
       {"raw_bytes_per_second",
        [&] {
          rawBytes.resize(kFrameBytes);
          allRead =
              ReadWholeFile(path, rawBytes.data(), kFrameBytes, [](const uint8_t*, size_t) {}) &&
              allRead;
          benchmark::DoNotOptimize(rawBytes.data());
        }},
       {"raw_hashed_bytes_per_second",
        [&] {
          hashedBytes.resize(kFrameBytes);
          XXH3_64bits_reset(hash.get());
          allRead = ReadWholeFile(
                        path, hashedBytes.data(), kSlice,
                        [&](const uint8_t* at, size_t n) { JX_XXH3_UPDATE(hash.get(), at, n); }) &&
                    allRead;
          hashes ^= XXH3_64bits_digest(hash.get());
        }}},
      [] {});
  benchmark::DoNotOptimize(hashes);
  if (!allRead) state.SkipWithError("read back failed");
  item->DeleteDiskCacheFile();
  item->RemoveFromBagAndSortDir();
}
BENCHMARK(BM_DiskRead8MiB)->Unit(benchmark::kMillisecond)->UseManualTime()->MinTime(4.0);

// Fills the cache folder that the bag resolves for `root` with `files` empty cache files of the
// running version. Returns that folder.
std::string MakeScanFolder(const std::string& root, int files) {
  auto& lib = Lib();
  std::filesystem::create_directories(root);
  lib.bag->EnableDiskCache(true);
  lib.bag->SetDiskCacheInfo(root, 1ll << 40);
  const std::string dir = lib.Folder();
  for (int i = 0; i < files; ++i) {
    const std::string name = dir + "/" + Guid::CreateUnique().AsString() + ".BenchFrame.1..kqcache";
    ::close(::open(name.c_str(), O_CREAT | O_WRONLY, 0644));
  }
  // The new inodes reach the disk now, not during the first timed scan: that scan would
  // otherwise share the machine with the file system writing back 100,000 fresh files.
  if (const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY); fd >= 0) {
    ::syncfs(fd);
    ::close(fd);
  }
  lib.bag->EnableDiskCache(true);
  lib.bag->SetDiskCacheInfo(lib.root, 1ll << 40);
  return dir;
}

// One folder per file count, made on first use.
std::string ScanRoot(int files) { return Lib().root + "/scan" + std::to_string(files); }
const std::string& ScanFolder(int files) {
  static std::map<int, std::string> made;
  auto it = made.find(files);
  if (it == made.end()) it = made.emplace(files, MakeScanFolder(ScanRoot(files), files)).first;
  return it->second;
}

void BM_DiskFolderScan(benchmark::State& state) {
  const int files = static_cast<int>(state.range(0));
  ScanFolder(files);
  auto& lib = Lib();
  const auto prepare = [&] {
    lib.bag->ClearBagAndSortDir();
    lib.bag->EnableDiskCache(true);
    lib.bag->SetDiskCacheInfo(ScanRoot(files), 1ll << 40);
    lib.bag->RequestDiskCacheScan();
  };
  // One scan before the timed ones, so that every timed scan finds the folder's metadata in
  // memory: 100,000 files are scanned only once in the time given, and that first scan of a
  // folder just made (and of one just deleted by the run before) ran at half the rate of the
  // scans after it.
  prepare();
  lib.bag->ScanDiskCacheDir();
  for (auto _ : state) {
    state.PauseTiming();
    prepare();
    state.ResumeTiming();
    // The deferred disk task may take the request first; the call then waits for its scan, so
    // the bag, not the count returned, tells whether every file was adopted.
    lib.bag->ScanDiskCacheDir();
    if (lib.bag->GetNumItems() != files) state.SkipWithError("scan did not adopt every file");
  }
  state.SetItemsProcessed(state.iterations() * files);
  lib.bag->ClearBagAndSortDir();
  lib.bag->EnableDiskCache(true);
  lib.bag->SetDiskCacheInfo(lib.root, 1ll << 40);
}
BENCHMARK(BM_DiskFolderScan)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(1.0);

void BM_DiskListing(benchmark::State& state) {
  const int files = static_cast<int>(state.range(0));
  const std::string& dir = ScanFolder(files);
  for (auto _ : state) {
    size_t n = 0;
    DIR* d = ::opendir(dir.c_str());
    while (dirent* e = ::readdir(d)) n += e->d_name[0] != '.';
    ::closedir(d);
    if (n < static_cast<size_t>(files)) state.SkipWithError("listing short");
  }
  state.SetItemsProcessed(state.iterations() * files);
}
BENCHMARK(BM_DiskListing)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(1.0);

}  // namespace

BENCHMARK_MAIN();
