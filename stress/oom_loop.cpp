// oom_loop: memory refused. For each operation below, one allocation of the operation fails:
// the N-th, for N = 1, 2, ... until an attempt makes fewer than N allocations, so that every
// allocation the operation makes is refused once. Two allocators are refused in turn: the
// ordinary operator new (this program replaces it, in every form, with one that counts the
// allocations the operating thread makes in an armed window) and the host's allocators
// (Y_AllocatePtrClear, Y_MemTrackedObject::operator new), which are refused on whichever thread
// asks, the disk writer's included.
//   start-up        JX_Birth, first with no library and again over a live bag with items;
//   add item        adding a ready item to the bag and its directory;
//   pending         find-or-create of a new key, then filling the pending item;
//   queue write     a check-in that queues a disk write, and the write, drained; the payload
//                   stages its file image in host memory, as a host frame would;
//   disk read       checking out an item that is only on disk; the payload reads into host
//                   memory;
//   compute         a miss and then a hit through the plug-in suite's C table.
// A refused operation must say so (the C table with a code and never an exception, C++ callers
// with std::bad_alloc or an int code; an asynchronous write by leaving the item without a file)
// and leave the counts and sizes as they were: bag items (compute entries among them), directory
// items, bytes in memory, checked out and on disk, files in the folder, check-outs, queued
// writes, computed values alive. An operation that succeeds although one of its allocations was
// refused (the library absorbed it, as it does for an optional disk-write offer) must leave in
// memory what a clean success leaves. After shut-down no
// payload and no computed value may be left alive; the AddressSanitizer build checks for leaks.
//
// Bounds: --ops caps N per operation and allocator, --seconds the whole run; an operation cut
// short by either is reported, not counted as a violation, but a run that took fewer than its
// floor of the operations to a clean success covered too little and fails. A watchdog aborts
// the run when it stops making progress (a refusal that leaves a lock held must fail, not hang).
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "compute/compute_registry.h"
#include "disk/disk_counters.h"
#include "disk/disk_writer.h"
#include "host/y_api.h"
#include "jxcache/bag/bag.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/kqgp_compute_cache.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "jxcache/y_vx_suite.h"
#include "standalone/standalone_host.h"
#include "stress_common.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
namespace fs = std::filesystem;
using zelcore::filesupport::File;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

// ---- operator new, counted ----------------------------------------------------------------
// ThreadSanitizer's runtime defines operator new itself, and a second definition does not link:
// under it only the host's allocators are refused.
#if defined(__SANITIZE_THREAD__)
#define JX_OOM_OWN_OPERATOR_NEW 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define JX_OOM_OWN_OPERATOR_NEW 0
#endif
#endif
#ifndef JX_OOM_OWN_OPERATOR_NEW
#define JX_OOM_OWN_OPERATOR_NEW 1
#endif

namespace {

// While armed, every allocation through operator new on the arming thread is counted; the one
// whose number is failAt is refused (once). Other threads are not counted, so that the count is
// the same from one attempt to the next.
struct NewCounter {
  std::atomic<bool> armed{false};
  std::atomic<uint64_t> count{0};
  std::atomic<uint64_t> failAt{0};
  std::atomic<uint64_t> refused{0};
};
NewCounter gNew;
thread_local bool tCounted = false;

bool RefuseThisAllocation() {
  if (!tCounted || !gNew.armed.load(std::memory_order_acquire)) return false;
  const uint64_t n = gNew.count.fetch_add(1, std::memory_order_acq_rel) + 1;
  if (n != gNew.failAt.load(std::memory_order_acquire)) return false;
  gNew.refused.fetch_add(1, std::memory_order_acq_rel);
  return true;
}

void* Allocate(std::size_t size, std::size_t alignment) noexcept {
  if (RefuseThisAllocation()) return nullptr;
  if (size == 0) size = 1;
  if (alignment <= alignof(std::max_align_t)) return std::malloc(size);
  void* p = nullptr;
  return ::posix_memalign(&p, alignment, size) == 0 ? p : nullptr;
}

[[maybe_unused]] void* AllocateOrThrow(std::size_t size, std::size_t alignment) {
  void* p = Allocate(size, alignment);
  if (!p) throw std::bad_alloc();
  return p;
}

}  // namespace

#if JX_OOM_OWN_OPERATOR_NEW

void* operator new(std::size_t size) { return AllocateOrThrow(size, 0); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size, 0); }
void* operator new(std::size_t size, std::align_val_t a) {
  return AllocateOrThrow(size, static_cast<std::size_t>(a));
}
void* operator new[](std::size_t size, std::align_val_t a) {
  return AllocateOrThrow(size, static_cast<std::size_t>(a));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size, 0); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size, 0); }
void* operator new(std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
  return Allocate(size, static_cast<std::size_t>(a));
}
void* operator new[](std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
  return Allocate(size, static_cast<std::size_t>(a));
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
#endif

namespace {

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
      // A plug-in allocates with its own allocator: malloc, which this program does not refuse.
      auto* value = static_cast<int*>(std::malloc(sizeof(int)));
      if (!value) return 12;
      *value = *static_cast<int*>(request);
      gComputes.fetch_add(1);
      gLiveValues.fetch_add(1);
      *outValue = reinterpret_cast<intptr_t>(value);
      return 0;
    },
    [](intptr_t) -> size_t { return 1000; },
    [](intptr_t value) {
      gLiveValues.fetch_sub(1);
      std::free(reinterpret_cast<int*>(value));
    }};

// ---- what must not change when an operation is refused --------------------------------------
struct State {
  int items = 0, directory = 0;
  long long inMemory = 0, checkedOut = 0, onDisk = 0;
  size_t files = 0;
  uint32_t itemsCheckedOut = 0, queuedWrites = 0;
  int64_t liveValues = 0;
  bool operator==(const State&) const = default;
};

// The part of the state that lives in memory.
State InMemory(State s) {
  s.onDisk = 0;
  s.files = 0;
  return s;
}

// The same counts less one idle item that kept nothing and left the bag and its directory.
State LessOneItem(State s) {
  --s.items;
  --s.directory;
  return s;
}

std::string Describe(const State& s) {
  char text[300];
  std::snprintf(text, sizeof text,
                "items %d, directory %d, in memory %lld, checked out %lld, on disk %lld, files "
                "%zu, check-outs %u, queued writes %u, live values %lld",
                s.items, s.directory, s.inMemory, s.checkedOut, s.onDisk, s.files,
                s.itemsCheckedOut, s.queuedWrites, (long long)s.liveValues);
  return text;
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

enum class Allocator { kOperatorNew, kHost };
const char* Name(Allocator a) { return a == Allocator::kOperatorNew ? "operator new" : "host"; }

class Loop {
 public:
  Loop(std::string folder, const jx::stress::Options& o, jx::stress::Watchdog& watchdog, int slot)
      : folder_(std::move(folder)),
        maxN_(o.ops),
        deadline_(o.seconds),
        watchdog_(watchdog),
        slot_(slot) {}

  State Snapshot() const {
    // Queued writes and check-outs settle before the counts are taken.
    for (int i = 0; i < 2000; ++i) {
      if (JX_GetQueuedDiskWriteCount() == 0 && JX_GetStuffCounters().itemsCheckedOut == 0) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    State s;
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
    s.itemsCheckedOut = JX_GetStuffCounters().itemsCheckedOut;
    s.queuedWrites = JX_GetQueuedDiskWriteCount();
    s.liveValues = gLiveValues.load();
    return s;
  }

  // Runs `op` with the N-th allocation of each allocator refused, N = 1, 2, ..., until an
  // attempt refuses nothing. `op` returns true when it succeeded and false when it was refused.
  // `prepare` runs before each attempt and `undo` after a success, both outside the window, so
  // that every attempt starts from the same state. With `refusalMayDropDiskCopy`, a refusal may
  // change what is on disk (a read that failed deletes its file): only the memory side of the
  // counts must stay as it was, but for the item whose only copy that was, which leaves.
  template <class Op, class Prepare, class Undo>
  void Run(const char* name, Op op, Prepare prepare, Undo undo,
           bool refusalMayDropDiskCopy = false) {
    for (Allocator a : {Allocator::kOperatorNew, Allocator::kHost}) {
      if (a == Allocator::kOperatorNew && !JX_OOM_OWN_OPERATOR_NEW) continue;
      ++operations;
      bool haveClean = false;
      State cleanBefore, cleanAfter;
      std::vector<std::pair<State, State>> absorbed;
      uint64_t n = 1;
      for (;; ++n) {
        if (n > maxN_ || deadline_.Passed()) {
          std::printf("oom_loop: %-12s %-12s cut short at N = %llu by the bounds\n", name, Name(a),
                      static_cast<unsigned long long>(n));
          ++cutShort;
          break;
        }
        watchdog_.Beat(slot_, name, n);
        prepare();
        const State before = Snapshot();
        Arm(a, n);
        bool ok = false, threw = false;
        char what[160] = "not a std::exception";  // nothing in the window allocates here
        try {
          ok = op();
        } catch (const std::exception& e) {
          threw = true;
          std::snprintf(what, sizeof what, "%s", e.what());
        } catch (...) {
          threw = true;
        }
        const bool refused = Disarm(a);
        ++points;
        if (threw) {
          std::fprintf(stderr, "oom_loop: %s, %s N = %llu: an unexpected exception (%s)\n", name,
                       Name(a), static_cast<unsigned long long>(n), what);
          gViolations.Report("an operation let an unexpected exception out");
        }
        const State after = Snapshot();
        if (!ok) {
          injected += refused;
          if (!refused) {
            std::fprintf(stderr, "oom_loop: %s, %s N = %llu: refused with nothing refused\n", name,
                         Name(a), static_cast<unsigned long long>(n));
            gViolations.Report("an operation failed with no allocation refused");
          }
          const bool unchanged = refusalMayDropDiskCopy
                                     ? (InMemory(after) == InMemory(before) ||
                                        InMemory(after) == LessOneItem(InMemory(before)))
                                     : after == before;
          if (!unchanged) {
            std::fprintf(stderr,
                         "oom_loop: %s, %s N = %llu: counts changed\n  before %s\n  after  %s\n",
                         name, Name(a), static_cast<unsigned long long>(n),
                         Describe(before).c_str(), Describe(after).c_str());
            gViolations.Report("a refused operation changed the counts");
          }
          continue;
        }
        undo();
        if (refused) {
          ++injected;
          ++absorbedCount;
          absorbed.emplace_back(before, after);
          continue;
        }
        haveClean = true;
        cleanBefore = before;
        cleanAfter = after;
        break;
      }
      // An absorbed refusal must leave in memory what a clean success leaves (on disk it may
      // differ: a write offer that was refused is not made).
      for (const auto& [before, after] : absorbed) {
        if (haveClean && !(InMemory(before) == InMemory(cleanBefore) &&
                           InMemory(after) == InMemory(cleanAfter))) {
          std::fprintf(stderr,
                       "oom_loop: %s, %s: a success over a refused allocation left\n  %s\n  "
                       "where a clean one leaves\n  %s\n",
                       name, Name(a), Describe(after).c_str(), Describe(cleanAfter).c_str());
          gViolations.Report("a success over a refused allocation differs from a clean one");
        }
      }
      if (haveClean) {
        ++cleanOperations;
        std::printf("oom_loop: %-12s %-12s every allocation refused once: clean at N = %llu\n",
                    name, Name(a), static_cast<unsigned long long>(n));
      }
    }
  }
  template <class Op, class Prepare>
  void Run(const char* name, Op op, Prepare prepare) {
    Run(name, op, prepare, [] {});
  }
  template <class Op>
  void Run(const char* name, Op op) {
    Run(
        name, op, [] {}, [] {});
  }

  uint64_t points = 0, injected = 0, absorbedCount = 0, cutShort = 0;
  // Operation and allocator pairs run, and those taken to a clean success.
  uint64_t operations = 0, cleanOperations = 0;

 private:
  static void Arm(Allocator a, uint64_t n) {
    if (a == Allocator::kHost) {
      jx::StandaloneHost::Instance().FailNthAllocation(n);
      return;
    }
    gNew.count.store(0);
    gNew.refused.store(0);
    gNew.failAt.store(n);
    tCounted = true;
    gNew.armed.store(true, std::memory_order_release);
  }
  // Disarms; returns whether an allocation was refused.
  static bool Disarm(Allocator a) {
    if (a == Allocator::kOperatorNew) {
      gNew.armed.store(false, std::memory_order_release);
      tCounted = false;
      return gNew.refused.load() != 0;
    }
    auto& host = jx::StandaloneHost::Instance();
    // Still armed when the operation made fewer than n host allocations.
    void* probe = Y_AllocatePtrClear(0, "oom_loop probe", 1);
    host.FailNthAllocation(0);
    Y_DisposePtr(probe);
    return probe != nullptr;
  }

  std::string folder_;
  uint64_t maxN_;
  jx::stress::Deadline deadline_;
  jx::stress::Watchdog& watchdog_;
  int slot_;
};

// True once the writer has finished with every queued entry (bounded wait).
bool Drained() {
  for (int i = 0; i < 2000; ++i) {
    if (JX_GetQueuedDiskWriteCount() == 0 && JX_GetStuffCounters().itemsCheckedOut == 0) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  auto o = jx::stress::ParseOptions(argc, argv, "oom_loop", 100000);
  // Every operation is small: cut short, it was not covered at all. The sanitizer builds take
  // them all to a clean success well within their time bound.
  constexpr double kFloorPercent = 100;
  jx::stress::Watchdog watchdog("oom_loop", jx::stress::kStallSeconds, jx::stress::HardSeconds(o));
  const int mainSlot = watchdog.Add("main");
  auto& host = jx::StandaloneHost::Instance();
  host.SetEchoReports(false);
  char pattern[] = "/tmp/oom_loop.XXXXXX";
  if (!mkdtemp(pattern)) {
    std::perror("oom_loop: mkdtemp");
    return 1;
  }
  const std::string folder = std::string(pattern) + "/cache";
  fs::create_directory(folder);
  Loop loop(folder, o, watchdog, mainSlot);
  if (!JX_OOM_OWN_OPERATOR_NEW) {
    std::printf(
        "oom_loop: operator new belongs to the sanitizer runtime here: only the host's "
        "allocators are refused\n");
  }

  // Start-up with no library: nothing may be left behind by a refusal.
  loop.Run(
      "start-up",
      [] {
        if (RefusedWithException([] { JX_Birth(false, 1, false); })) {
          if (JX_GlobalBag() || jx::DiskExecutor()) {
            std::fprintf(stderr, "oom_loop: start-up left %s\n",
                         JX_GlobalBag() ? "a bag" : "an executor");
            gViolations.Report("a refused start-up left a bag or an executor");
          }
          return false;
        }
        return true;
      },
      [] {},
      [] {
        JX_StopAllAsyncWork();
        JX_Death();
      });
  JX_Birth(false, 1, false);
  // Again over a live bag: a refusal keeps that bag, its items and its disk executor.
  {
    auto keep = MakeItem(1);
    JX_GlobalBag()->AddToBagAndSortDir(keep);
    std::shared_ptr<JX_Bag> bag;
    std::shared_ptr<zelcore::threads::Executor> executor;
    loop.Run(
        "restart",
        [&] {
          if (RefusedWithException([] { JX_Birth(false, 1, false); })) {
            gViolations.Check(JX_GlobalBag() == bag && jx::DiskExecutor() == executor,
                              "a refused restart replaced the bag or the executor");
            return false;
          }
          return true;
        },
        [&] {
          bag = JX_GlobalBag();
          executor = jx::DiskExecutor();
        },
        [&] {
          // Back to a bag holding the one item, so that every attempt restarts over the same.
          keep->RemoveFromBagAndSortDir();
          JX_StopAllAsyncWork();
          JX_Death();
          JX_Birth(false, 1, false);
          JX_GlobalBag()->AddToBagAndSortDir(keep);
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
      [&] { item = MakeItem(++seed); }, [&] { item->RemoveFromBagAndSortDir(); });

  IntrusivePtr<JX_StuffData> rendered;
  IntrusivePtr<JX_Stuff> request;
  Guid pendingKey;
  loop.Run(
      "pending",
      [&] {
        JX_ScCheckout handle;
        JX_CheckoutResult res = kJX_CheckoutRefused;
        if (RefusedWithException([&] {
              res = handle.FindAndCheckout(request, cf::kReadOnly | cf::kCreatePending);
            })) {
          return false;
        }
        gViolations.Check(res == kJX_CreatedPending, "find-or-create of a new key did not create");
        if (res != kJX_CreatedPending) return true;
        // As a render does: a fill that fails is completed empty by the setter, which takes
        // the item out again.
        JX_ScStuffSetter setter(handle.GetStuffPtr());
        return !RefusedWithException(
            [&] { handle.GetStuffPtr()->SetStuffDataFromPendingRender(rendered, 0.001); });
      },
      [&] {
        rendered = IntrusivePtr<JX_StuffData>(new Frame(++seed));
        pendingKey = Guid::CreateUnique();
        request = JX_Stuff::CreateNew({}, 0.0);
        request->SetGuid(pendingKey);
      },
      [&] {
        request = JX_Stuff::CreateNew({}, 0.0);
        request->SetGuid(pendingKey);
        JX_ScCheckout handle;
        if (handle.FindAndCheckout(request, cf::kReadOnly) == kJX_CheckedOut) {
          handle.SetCheckinFlags(ci::kRemove);
        } else {
          gViolations.Report("a filled pending item is not found");
        }
      });
  rendered.reset();
  request.reset();

  // Each attempt writes a fresh item, added before the counts are taken; a refused one leaves.
  IntrusivePtr<JX_Stuff> written;
  loop.Run(
      "queue write",
      [&] {
        if (written->Checkout(cf::kReadOnly) != kJX_CheckedOut) return true;
        if (RefusedWithException([&] { written->Checkin(ci::kWriteNow, 10.0); })) {
          gViolations.Check(!written->HasDiskCacheFile(), "a refused queuing wrote the file");
          return false;
        }
        gViolations.Check(Drained(), "the disk writer did not drain");
        if (written->HasDiskCacheFile()) return true;
        gViolations.Check(written->IsInMemory(), "a failed write took the item out of memory");
        return false;
      },
      [&] {
        if (written) written->RemoveFromBagAndSortDir();
        written = MakeItem(++seed, 10.0);
        bag->AddToBagAndSortDir(written);
      },
      [&] {
        written->DeleteDiskCacheFile();
        written->RemoveFromBagAndSortDir();
        written = nullptr;
      });
  written = MakeItem(++seed, 10.0);
  bag->AddToBagAndSortDir(written);
  written->PrepAndWrite(bag);
  gViolations.Check(written->HasDiskCacheFile(), "the clean write for the read failed");

  // Only on disk, then read back on check-out. A read that runs out of memory is a failed read
  // like any other: the file goes (a damaged header would fail that way on every try), the
  // counter moves, the item, left with nothing, leaves the bag and is computed again; the next
  // attempt writes it anew.
  File writtenFile;  // taken outside the window: copying a path allocates
  uint32_t failedReads = 0;
  loop.Run(
      "disk read",
      [&] {
        JX_ScCheckout handle;
        JX_CheckoutResult res = kJX_CheckoutRefused;
        if (RefusedWithException([&] { res = handle.Checkout(written, cf::kReadOnly); }) ||
            res != kJX_CheckedOut) {
          gViolations.Check(!written->HasDiskCacheFile() && !writtenFile.Exists(),
                            "a failed read kept its file");
          gViolations.Check(!written->IsInSortDir(), "an item left with nothing stayed filed");
          gViolations.Check(jx::disk::GetCounters().failedReads.load() == failedReads + 1,
                            "a failed read was not counted");
          return false;
        }
        auto* frame = dynamic_cast<Frame*>(written->GetDataPtr().get());
        gViolations.Check(frame && frame->Verify(), "bytes read back differ");
        return true;
      },
      [&] {
        if (!written->HasDiskCacheFile()) {
          written->RemoveFromBagAndSortDir();
          written = MakeItem(++seed, 10.0);
          bag->AddToBagAndSortDir(written);
          written->PrepAndWrite(bag);
        }
        JX_Stuff::ReleaseQueue queue;
        written->FreeUpAsMuchAsPossible(false, &queue);
        queue.clear();
        gViolations.Check(!written->IsInMemory() && written->HasDiskCacheFile(),
                          "the written item is not only on disk");
        writtenFile = written->GetDiskCacheFile();
        failedReads = jx::disk::GetCounters().failedReads.load();
      },
      [] {}, /*refusalMayDropDiskCopy=*/true);

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
    // A C table never throws: an exception here would end the program.
    auto fetch = [&]() noexcept {
      KQGP_JXComputeReceipt receipt = nullptr;
      const int32_t code = suite->ComputeIfNeededAndCheckout(kClass, &key, true, &receipt);
      if (code != 0) {
        // Memory refused inside comes back as the host's out-of-memory code.
        gViolations.Check(
            (code == jx::kHostOutOfMemoryCode || code == kKQGPComputeCacheBadParameter) &&
                receipt == nullptr,
            "a refused compute answered with a code the suite does not give");
        return false;
      }
      intptr_t value = 0;
      gViolations.Check(suite->GetReceiptComputeValue(receipt, &value) == 0 && value &&
                            *reinterpret_cast<int*>(value) == key,
                        "a receipt without the key's value");
      gViolations.Check(suite->CheckinReceipt(receipt) == 0, "check-in refused");
      return true;
    };
    // Each miss starts with no entry and nothing the earlier operations left; the undo removes
    // the entry a success made.
    auto forget = [&] {
      for (const auto& s : bag->CopyMruItems()) {
        if (s != written) s->RemoveFromBagAndSortDir();
      }
    };
    loop.Run("compute", fetch, forget, forget);
    gViolations.Check(fetch(), "the value could not be computed");
    loop.Run("hit", fetch);
    suite->ClassUnregister(kClass);
  }

  watchdog.Beat(mainSlot, "the checks at rest and shutting down");
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
  watchdog.Done(mainSlot);
  std::error_code ec;
  fs::remove_all(pattern, ec);
  const bool covered =
      jx::stress::CoverageMet("oom_loop", "operations taken to a clean success",
                              loop.cleanOperations, loop.operations, kFloorPercent);
  std::printf(
      "oom_loop: operations %llu of %llu clean, points %llu, allocation failures injected %llu "
      "(absorbed %llu), operations cut short %llu, violations %llu, hangs 0, leaks %lld\n",
      (unsigned long long)loop.cleanOperations, (unsigned long long)loop.operations,
      (unsigned long long)loop.points, (unsigned long long)loop.injected,
      (unsigned long long)loop.absorbedCount, (unsigned long long)loop.cutShort,
      (unsigned long long)gViolations.Count(), (long long)leaks);
  return gViolations.Count() == 0 && covered ? 0 : 1;
}
