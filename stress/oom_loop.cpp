// oom_loop: the host refusing memory. For each operation below, the N-th host allocation from the
// start of the operation fails, for N = 1, 2, ... until the operation succeeds:
//   start-up        JX_Birth, first with no library and again over a live bag with items;
//   add item        adding a ready item to the bag and its directory;
//   pending         find-or-create of a new key (the pending item is filled and checked in);
//   disk write      a check-in that queues a write, drained; the payload stages its file image
//                   in host memory, as a host frame would;
//   disk read       checking out an item that is only on disk; the payload reads into host
//                   memory;
//   compute         a miss and then a hit through the plug-in suite's C table.
// A refused operation must say so (the C table with a code and never an exception, C++ callers
// with std::bad_alloc or an int code; an asynchronous write by leaving the item without a file)
// and leave the counts and sizes as they were: bag items, directory items, bytes in memory and
// checked out, bytes on disk and files in the folder, values computed. An operation that
// reports success must not have swallowed a refused allocation. After shut-down no payload and
// no computed value may be left alive.
//
// Reach: only the host's allocators can be made to fail here (Y_AllocatePtrClear and
// Y_MemTrackedObject::operator new). In the library they serve the bag made at start-up and the
// compute suite's memory probe; adding items and find-or-create allocate with the ordinary
// `new`, which cannot be failed, so those points only confirm that they make no host
// allocation (they succeed at N = 1 with the refusal still armed). The disk points reach the
// library's handling of a payload that runs out of memory inside Write and Read.
#include <filesystem>
#include <memory>
#include <new>
#include <thread>

#include "bag/bag.h"
#include "compute/compute_registry.h"
#include "disk/disk_writer.h"
#include "host/standalone_host.h"
#include "host/y_api.h"
#include "items/sc_checkout.h"
#include "kqgp_compute_cache.h"
#include "lifecycle/lifecycle.h"
#include "stress_common.h"
#include "y_vx_suite.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
namespace fs = std::filesystem;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr uint64_t kMaxN = 64;  // an operation still refused this far in is a violation
constexpr unsigned kFrameSize = 10000;

jx::stress::Violations gViolations;
std::atomic<int64_t> gLivePayloads{0};

struct HostFree {
  void operator()(uint8_t* p) const { Y_DisposePtr(p); }
};
using HostBytes = std::shared_ptr<uint8_t>;

HostBytes HostAllocate(size_t size) {
  auto* p = static_cast<uint8_t*>(Y_AllocatePtrClear(0, "oom_loop frame", size));
  if (!p) throw std::bad_alloc();
  return HostBytes(p, HostFree());
}

// A frame in host memory that may go to the disk cache. Its bytes are made outside the armed
// window; Write stages a copy in host memory, Read reads into fresh host memory.
class Frame : public JX_StuffData {
 public:
  explicit Frame(uint32_t seed) : seed_(seed), bytes_(HostAllocate(kFrameSize)) {
    for (unsigned i = 0; i < kFrameSize; ++i) bytes_.get()[i] = Byte(i);
    gLivePayloads.fetch_add(1);
  }
  ~Frame() override { gLivePayloads.fetch_sub(1); }
  bool Verify() const {
    if (!bytes_) return false;
    for (unsigned i = 0; i < kFrameSize; ++i) {
      if (bytes_.get()[i] != Byte(i)) return false;
    }
    return true;
  }
  unsigned int GetApproximateMemorySize() const override { return bytes_ ? kFrameSize : 0; }
  bool IsInMemory() const override { return bytes_ != nullptr; }
  bool PurgeIfPossible(ReleaseQueue* toRelease) override {
    if (!bytes_) return false;
    if (toRelease) toRelease->push_back(bytes_);
    bytes_.reset();
    return true;
  }
  bool CanDiskCache() const override { return true; }
  const char* GetSubclassMatchname() const override { return "OomFrame"; }
  void GetHeader(Header& header) const override {
    header.resize(4);
    std::memcpy(header.data(), &seed_, 4);
  }
  double Write(zelcore::filesupport::OByteStream& out) const override {
    HostBytes staging = HostAllocate(kFrameSize);
    std::memcpy(staging.get(), bytes_.get(), kFrameSize);
    out.Write(staging.get(), kFrameSize);
    return 0.0;
  }
  double Read(zelcore::filesupport::IByteStream& in,
              zelcore::threads::MultiTenantRecursiveMutex&) override {
    HostBytes bytes = HostAllocate(kFrameSize);
    in.ReadExactly(bytes.get(), kFrameSize);
    bytes_ = std::move(bytes);
    return 0.0;
  }

 private:
  uint8_t Byte(unsigned i) const { return static_cast<uint8_t>(seed_ * 131 + i); }
  uint32_t seed_;
  HostBytes bytes_;
};

IntrusivePtr<JX_Stuff> MakeItem(uint32_t seed, double computeTime = 0.0) {
  auto item = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new Frame(seed)), computeTime);
  item->SetGuid(Guid::CreateUnique());
  return item;
}

// ---- the compute plug-in -------------------------------------------------------------------
constexpr const char* kClass = "oom_loop.compute";
std::atomic<int64_t> gComputes{0}, gLiveValues{0};

constexpr KQGP_ComputeCacheCallbacks kCallbacks = {
    [](void* request, KQGP_GUID* outKey) -> int32_t {
      *outKey = KQGP_GUID{};
      std::memcpy(outKey->bytes, request, sizeof(int));
      return 0;
    },
    [](void* request, intptr_t* outValue) -> int32_t {
      gComputes.fetch_add(1);
      gLiveValues.fetch_add(1);
      *outValue = reinterpret_cast<intptr_t>(new int(*static_cast<int*>(request)));
      return 0;
    },
    [](intptr_t) -> size_t { return 1000; },
    [](intptr_t value) {
      gLiveValues.fetch_sub(1);
      delete reinterpret_cast<int*>(value);
    }};

// ---- what must not change when an operation is refused --------------------------------------
struct State {
  int items, directory;
  long long inMemory, checkedOut, onDisk;
  size_t files;
  int64_t computes;
  bool operator==(const State&) const = default;
};

class Loop {
 public:
  explicit Loop(std::string folder) : folder_(std::move(folder)) {}

  State Snapshot() const {
    State s{};
    if (auto bag = JX_GlobalBag()) {
      s.items = bag->GetNumItems();
      s.directory = bag->GetNumGuidSortedItems();
      s.inMemory = bag->GetInMemoryCacheSizeInBytes_LockFree();
      s.checkedOut = bag->GetCheckedOutMemoryCacheSizeInBytes();
      s.onDisk = bag->GetCurrentDiskCacheSize();
    }
    std::error_code ec;
    for (auto it = fs::directory_iterator(folder_, ec); !ec && it != fs::directory_iterator();
         it.increment(ec)) {
      ++s.files;
    }
    s.computes = gComputes.load();
    return s;
  }

  // Runs `op` with the N-th host allocation refused, N = 1, 2, ..., until it succeeds. `op`
  // returns true when it succeeded and false when it was refused; when refused, the counts must
  // be those from before. `prepare` runs before each attempt, outside the armed window.
  template <class Op, class Prepare>
  void Run(const char* name, Op op, Prepare prepare) {
    auto& host = jx::StandaloneHost::Instance();
    for (uint64_t n = 1; n <= kMaxN; ++n) {
      prepare();
      const State before = Snapshot();
      host.FailNthAllocation(n);
      bool ok = false;
      try {
        ok = op();
      } catch (...) {
        host.FailNthAllocation(0);
        std::fprintf(stderr, "oom_loop: %s, N = %llu: an unexpected exception\n", name,
                     static_cast<unsigned long long>(n));
        gViolations.Report("an operation let an unexpected exception out");
        return;
      }
      // Still armed when the operation made fewer than n host allocations.
      void* probe = Y_AllocatePtrClear(0, "oom_loop probe", 1);
      const bool stillArmed = probe == nullptr;
      Y_DisposePtr(probe);
      host.FailNthAllocation(0);
      ++points;
      if (!ok) {
        ++injected;
        gViolations.Check(!stillArmed, "an operation refused with no allocation refused");
        if (!(Snapshot() == before)) {
          std::fprintf(stderr, "oom_loop: %s, N = %llu: counts changed\n", name,
                       static_cast<unsigned long long>(n));
          gViolations.Report("a refused operation changed the counts");
        }
        continue;
      }
      gViolations.Check(stillArmed, "an operation succeeded over a refused allocation");
      std::printf("oom_loop: %-10s succeeded at N = %llu\n", name,
                  static_cast<unsigned long long>(n));
      return;
    }
    gViolations.Report("an operation never succeeded");
  }
  template <class Op>
  void Run(const char* name, Op op) {
    Run(name, op, [] {});
  }

  uint64_t points = 0, injected = 0;

 private:
  std::string folder_;
};

// True once the writer has finished with every queued entry (bounded wait).
bool Drained() {
  for (int i = 0; i < 2000; ++i) {
    if (JX_GetQueuedDiskWriteCount() == 0 && JX_GetStuffCounters().itemsCheckedOut == 0) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

// A C++ caller's failure: std::bad_alloc or an int code. Anything else passes on.
template <class F>
bool RefusedWithException(F f) {
  try {
    f();
    return false;
  } catch (const std::bad_alloc&) {
    return true;
  } catch (int) {
    return true;
  }
}

}  // namespace

int main(int argc, char** argv) {
  auto o = jx::stress::ParseOptions(argc, argv, "oom_loop", 1);
  auto& host = jx::StandaloneHost::Instance();
  host.SetEchoReports(false);
  char pattern[] = "/tmp/oom_loop.XXXXXX";
  if (!mkdtemp(pattern)) {
    std::perror("oom_loop: mkdtemp");
    return 1;
  }
  const std::string folder = std::string(pattern) + "/cache";
  fs::create_directory(folder);
  Loop loop(folder);

  // Start-up with no library: nothing may be left behind by a refusal.
  loop.Run("start-up", [] {
    if (RefusedWithException([] { JX_Birth(false, 1, false); })) {
      gViolations.Check(!JX_GlobalBag() && !jx::DiskExecutor(), "a refused start-up left a bag");
      return false;
    }
    return true;
  });
  // Again over a live bag: a refusal keeps that bag, its items and its disk executor.
  {
    auto keep = MakeItem(1);
    JX_GlobalBag()->AddToBagAndSortDir(keep);
    loop.Run("restart", [&] {
      const auto bag = JX_GlobalBag();
      const auto executor = jx::DiskExecutor();
      if (RefusedWithException([] { JX_Birth(false, 1, false); })) {
        gViolations.Check(JX_GlobalBag() == bag && jx::DiskExecutor() == executor,
                          "a refused restart replaced the bag or the executor");
        return false;
      }
      return true;
    });
  }
  auto bag = JX_GlobalBag();
  bag->EnableDiskCache(true);
  bag->SetDiskCacheInfo(folder, 1LL << 30);
  gViolations.Check(bag->IsDiskCacheEnabled(), "disk cache not enabled on the folder");

  uint32_t seed = static_cast<uint32_t>(o.seed);  // the frames' bytes
  IntrusivePtr<JX_Stuff> item;
  loop.Run(
      "add item", [&] { return !RefusedWithException([&] { bag->AddToBagAndSortDir(item); }); },
      [&] { item = MakeItem(++seed); });

  IntrusivePtr<JX_StuffData> rendered;
  loop.Run(
      "pending",
      [&] {
        auto request = JX_Stuff::CreateNew({}, 0.0);
        request->SetGuid(Guid::CreateUnique());
        JX_ScCheckout handle;
        JX_CheckoutResult res = kJX_CheckoutRefused;
        if (RefusedWithException([&] {
              res = handle.FindAndCheckout(request, cf::kReadOnly | cf::kCreatePending);
            })) {
          return false;
        }
        gViolations.Check(res == kJX_CreatedPending, "find-or-create of a new key did not create");
        if (res != kJX_CreatedPending) return true;
        handle.GetStuffPtr()->SetStuffDataFromPendingRender(rendered, 0.001);
        return true;
      },
      [&] { rendered = IntrusivePtr<JX_StuffData>(new Frame(++seed)); });
  rendered.reset();

  // Each attempt writes a fresh item, added before the counts are taken; a refused one leaves.
  IntrusivePtr<JX_Stuff> written;
  loop.Run(
      "disk write",
      [&] {
        if (written->Checkout(cf::kReadOnly) != kJX_CheckedOut) return true;
        written->Checkin(ci::kWriteNow, 10.0);
        gViolations.Check(Drained(), "the disk writer did not drain");
        if (written->HasDiskCacheFile()) return true;
        gViolations.Check(written->IsInMemory(), "a failed write took the item out of memory");
        return false;
      },
      [&] {
        if (written) written->RemoveFromBagAndSortDir();
        written = MakeItem(++seed, 10.0);
        bag->AddToBagAndSortDir(written);
      });
  if (!written->HasDiskCacheFile()) written.reset();

  if (written) {
    // Only on disk, then read back on check-out.
    JX_Stuff::ReleaseQueue queue;
    written->FreeUpAsMuchAsPossible(false, &queue);
    queue.clear();
    gViolations.Check(!written->IsInMemory() && written->HasDiskCacheFile(),
                      "the written item is not only on disk");
    loop.Run("disk read", [&] {
      JX_ScCheckout handle;
      JX_CheckoutResult res = kJX_CheckoutRefused;
      if (RefusedWithException([&] { res = handle.Checkout(written, cf::kReadOnly); }) ||
          res != kJX_CheckedOut) {
        gViolations.Check(written->HasDiskCacheFile(), "a read out of memory lost the file");
        return false;
      }
      auto* frame = dynamic_cast<Frame*>(written->GetDataPtr().get());
      gViolations.Check(frame && frame->Verify(), "bytes read back differ");
      return true;
    });
  }

  // Compute through the C table: a miss, then a hit of the same key.
  JX_VX_Birth();
  const void* table = nullptr;
  gViolations.Check(
      Y_VX_AcquireVXSuite(kKQGPComputeCacheSuite, kKQGPComputeCacheSuiteVersion1, &table) == 0,
      "no compute suite");
  const auto* suite = static_cast<const KQGP_ComputeCacheSuite1*>(table);
  if (suite) {
    gViolations.Check(suite->ClassRegister(kClass, &kCallbacks) == 0, "class refused");
    int key = 42;
    auto fetch = [&] {
      KQGP_JXComputeReceipt receipt = nullptr;
      const int32_t code = suite->ComputeIfNeededAndCheckout(kClass, &key, true, &receipt);
      if (code != 0) {
        gViolations.Check(code == kKQGPComputeCacheBadParameter && receipt == nullptr,
                          "a refused compute answered other than 3");
        return false;
      }
      intptr_t value = 0;
      gViolations.Check(suite->GetReceiptComputeValue(receipt, &value) == 0 && value &&
                            *reinterpret_cast<int*>(value) == key,
                        "a receipt without the key's value");
      gViolations.Check(suite->CheckinReceipt(receipt) == 0, "check-in refused");
      return true;
    };
    loop.Run("compute", fetch);
    loop.Run("hit", fetch);
    suite->ClassUnregister(kClass);
  }

  const State atRest = loop.Snapshot();
  gViolations.Check(atRest.checkedOut == 0 && atRest.items == atRest.directory,
                    "checked-out bytes or a directory mismatch at rest");
  written.reset();
  item.reset();
  bag.reset();
  JX_StopAllAsyncWork();
  JX_Death();
  const int64_t leaks = gLivePayloads.load() + gLiveValues.load();
  gViolations.Check(leaks == 0, "payloads or values alive after shut-down");
  std::error_code ec;
  fs::remove_all(pattern, ec);
  std::printf(
      "oom_loop: points %llu, allocation failures injected %llu, violations %llu, leaks %lld\n",
      (unsigned long long)loop.points, (unsigned long long)loop.injected,
      (unsigned long long)gViolations.Count(), (long long)leaks);
  return gViolations.Count() == 0 ? 0 : 1;
}
