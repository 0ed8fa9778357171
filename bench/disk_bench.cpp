// The disk tier against what the machine can do in the same folder: an item's PrepAndWrite of
// 8 MiB against a raw O_DIRECT write of the same bytes and its PrepAndRead against a raw read of
// the same file, each pair measured in turns, and a folder scan of 10,000 and of 100,000 cache
// files against a bare directory listing. Each benchmark checks that it really wrote, read or
// adopted what it claims.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "disk/disk_counters.h"
#include "host/file_utils.h"
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

// Runs the library's transfer and the raw one in turns, each on its own clock, and reports both
// rates (counters jx_bytes_per_second and raw_bytes_per_second). The disk of a shared machine
// changes speed from one second to the next: two benchmarks run one after the other would
// compare two different disks. The order alternates, so that neither always follows the other;
// `setup` and `cleanup` run outside both clocks.
template <class Setup, class Ours, class Raw, class Cleanup>
void SideBySide(benchmark::State& state, Setup&& setup, Ours&& ours, Raw&& raw, Cleanup&& cleanup) {
  double total[2] = {0, 0};  // ours, raw
  bool oursFirst = true;
  for (auto _ : state) {
    setup();
    double seconds[2] = {0, 0};
    for (int turn = 0; turn < 2; ++turn) {
      const bool doOurs = (turn == 0) == oursFirst;
      const auto t0 = std::chrono::steady_clock::now();
      if (doOurs) {
        ours();
      } else {
        raw();
      }
      seconds[doOurs ? 0 : 1] =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
    oursFirst = !oursFirst;
    cleanup();
    total[0] += seconds[0];
    total[1] += seconds[1];
    state.SetIterationTime(seconds[0] + seconds[1]);
  }
  const double bytes = static_cast<double>(state.iterations()) * kFrameBytes;
  if (total[0] > 0 && total[1] > 0) {
    state.counters["jx_bytes_per_second"] = bytes / total[0];
    state.counters["raw_bytes_per_second"] = bytes / total[1];
  }
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
      [&] { item->PrepAndWrite(lib.bag); },
      [&] {
        int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_DIRECT, 0644);
        if (fd < 0) fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
        if (fd < 0 || ::write(fd, buffer.get(), kFrameBytes) != static_cast<ssize_t>(kFrameBytes)) {
          allWritten = false;
        }
        ::fdatasync(fd);
        ::close(fd);
      },
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
// fresh buffer of the same size.
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
  // Both sides read into a fresh, zeroed buffer of their own, and neither frees one on its clock.
  std::vector<uint8_t> bytes;
  SideBySide(
      state,
      [&] {
        item->FreeUpAsMuchAsPossible(false, nullptr);
        std::vector<uint8_t>().swap(bytes);
      },
      [&] { allRead = item->EnsureInMemory() && allRead; },
      [&] {
        bytes.resize(kFrameBytes);
        int fd = ::open(path.c_str(), O_RDONLY);
        size_t got = 0;
        while (fd >= 0 && got < kFrameBytes) {
          ssize_t n = ::read(fd, bytes.data() + got, kFrameBytes - got);
          if (n <= 0) break;
          got += static_cast<size_t>(n);
        }
        if (fd >= 0) ::close(fd);
        allRead = allRead && got == kFrameBytes;
        benchmark::DoNotOptimize(bytes.data());
      },
      [] {});
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
