// stress_mediamap: the cache's items mirrored into the host's media manager while everybody
// purges at once. Render threads check items out (read-only, writeable, or found by GUID) and in,
// verifying the payload's bytes while they hold it and rendering again what purges took; the
// host adds and drops its own media, squeezes its budget and picks victims among the cache's
// entries, so that the manager purges through the adapter; another thread runs the cache's own
// purge walk.
//
// Invariants: nothing checked out loses its memory; at rest the adapter's total, the sum of its
// entries and what the manager holds for the map agree, every mirrored item is in memory at its
// entry's size and every idle in-memory item is mirrored, every item accounts exactly its
// payload's size; a host budget of 0 then empties the
// cache; no deadlock (a watchdog aborts the run when a thread makes no progress, or when the run
// overstays its time); no payload is left after shut-down. The time bound may cut the run short,
// but a run below its floor of the planned operations fails.
#include <condition_variable>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "jxcache/bag/bag.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "mediamap/media_map_impl.h"
#include "standalone/media_manager_pool.h"
#include "standalone/standalone_host.h"
#include "stress_common.h"

namespace cf = jx::checkout_flags;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

std::atomic<int64_t> gLivePayloads{0};

// Bytes derived from a seed. The size is atomic: the adapter and the bag ask for it at any time;
// the bytes are only touched under a check-out or by the purge (with the item's write lock).
class Frame : public JX_StuffData {
 public:
  static IntrusivePtr<JX_StuffData> Make(uint32_t size, uint32_t seed) {
    gLivePayloads.fetch_add(1);
    return IntrusivePtr<JX_StuffData>(new Frame(size, seed));
  }
  ~Frame() override { gLivePayloads.fetch_sub(1); }
  bool Verify() const {
    if (!bytes_ || bytes_->size() != size_.load()) return false;
    for (size_t i = 0; i < bytes_->size(); ++i) {
      if ((*bytes_)[i] != static_cast<uint8_t>(seed_ * 131 + i)) return false;
    }
    return true;
  }
  unsigned int GetApproximateMemorySize() const override { return size_.load(); }
  bool IsInMemory() const override { return size_.load() != 0; }
  bool PurgeIfPossible(ReleaseQueue* toRelease) override {
    if (!bytes_) return false;
    if (toRelease) toRelease->push_back(bytes_);
    bytes_.reset();
    size_.store(0);
    return true;
  }

 private:
  Frame(uint32_t size, uint32_t seed)
      : bytes_(std::make_shared<std::vector<uint8_t>>(size)), seed_(seed), size_(size) {
    for (size_t i = 0; i < size; ++i) (*bytes_)[i] = static_cast<uint8_t>(seed * 131 + i);
  }
  std::shared_ptr<std::vector<uint8_t>> bytes_;
  uint32_t seed_;
  std::atomic<unsigned int> size_;
};

struct Figures {
  std::atomic<uint64_t> ops{0}, checkouts{0}, renders{0}, hostOps{0}, hostVictims{0},
      cachePurges{0};
};

class Run {
 public:
  Run(const jx::stress::Options& o, std::shared_ptr<JX_Bag> bag,
      std::shared_ptr<kq::JX_MediaMapImpl> adapter)
      : o_(o), bag_(std::move(bag)), adapter_(std::move(adapter)) {}

  IntrusivePtr<JX_Stuff> Render(std::mt19937_64& rng) {
    auto item =
        JX_Stuff::CreateNew(Frame::Make(500 + rng() % 2000, static_cast<uint32_t>(rng())), 0.0);
    item->SetGuid(Guid::CreateUnique());
    bag_->AddToBagAndSortDir(item);
    figures.renders.fetch_add(1);
    return item;
  }

  // The payload of a held item must be in memory and intact, and stay so while held.
  void Hold(const JX_ScCheckout& handle) {
    auto item = handle.GetStuffPtr();
    auto data = item->GetDataPtr();
    auto* frame = dynamic_cast<Frame*>(data.get());
    if (!frame) {
      violations.Report("checked-out item without its payload");
      return;
    }
    violations.Check(item->IsInMemory() && frame->Verify(), "checked-out payload not intact");
    std::this_thread::yield();
    violations.Check(item->IsInMemory() && frame->Verify(),
                     "checked-out payload purged or changed while held");
    figures.checkouts.fetch_add(1);
  }

  uint64_t PlannedOps() const {
    return o_.ops / static_cast<uint64_t>(o_.threads) * static_cast<uint64_t>(o_.threads);
  }

  void Renderer(int index, jx::stress::Watchdog& watchdog, int wd) {
    std::mt19937_64 rng(o_.seed * 1000003 + static_cast<uint64_t>(index));
    std::vector<IntrusivePtr<JX_Stuff>> slots;
    watchdog.Beat(wd, "rendering its first items");
    for (int i = 0; i < kSlots; ++i) slots.push_back(Render(rng));
    const uint64_t perThread = o_.ops / static_cast<uint64_t>(o_.threads);
    for (uint64_t i = 0; i < perThread && !deadline_.Passed(); ++i) {
      watchdog.Beat(wd, "a check-out or a render", i);
      auto& slot = slots[rng() % slots.size()];
      const int op = static_cast<int>(rng() % 100);
      JX_ScCheckout handle;
      JX_CheckoutResult res;
      if (op < 60) {
        res = handle.Checkout(slot, cf::kReadOnly);
      } else if (op < 75) {
        res = handle.Checkout(slot, 0);  // writeable: re-mirrored at check-in
      } else if (op < 95) {
        auto request = JX_Stuff::CreateNew({}, 0.0);
        request->SetGuid(slot->GetGuid());
        res = handle.FindAndCheckout(request, cf::kReadOnly);
      } else {  // the render is no longer wanted
        slot->RemoveFromBagAndSortDir();
        slot = Render(rng);
        res = kJX_CheckoutRefused;
      }
      if (res == kJX_CheckedOut) {
        Hold(handle);
      } else if (op < 95 && !slot->IsInMemory()) {  // purged: render it again
        if (rng() % 2) slot->RemoveFromBagAndSortDir();
        slot = Render(rng);
      }
      figures.ops.fetch_add(1);
    }
    watchdog.Done(wd);
  }

  void Host(jx::stress::Watchdog& watchdog, int wd) {
    auto manager = jx::standalone::MediaManagerPool();
    std::mt19937_64 rng(o_.seed + 100);
    std::vector<uint64_t> media;
    for (uint64_t i = 0; !renderersDone.load(); ++i) {
      watchdog.Beat(wd, "a host media operation", i);
      switch (rng() % 4) {
        case 0:
          media.push_back(manager->AddHostMedia(1000 + rng() % 4000));
          break;
        case 1:
          if (!media.empty()) {
            const size_t i = rng() % media.size();
            manager->RemoveHostMedia(media[i]);
            media.erase(media.begin() + static_cast<long>(i));
          }
          break;
        case 2:
          manager->SetBudget(20000 + rng() % 60000);
          break;
        case 3: {  // the host's own choice of a victim, checked out or not
          const auto ids = manager->GetEntryIDsOfMap(adapter_->GetMediaMapID());
          if (!ids.empty() &&
              manager->PurgeEntry(adapter_->GetMediaMapID(), ids[rng() % ids.size()])) {
            figures.hostVictims.fetch_add(1);
          }
          break;
        }
      }
      figures.hostOps.fetch_add(1);
      std::this_thread::yield();
    }
    manager->SetBudget(RV::MediaManager::kUnlimited);
    watchdog.Done(wd);
  }

  void CachePurger(jx::stress::Watchdog& watchdog, int wd) {
    std::mt19937_64 rng(o_.seed + 200);
    for (uint64_t i = 0; !renderersDone.load(); ++i) {
      watchdog.Beat(wd, "a purge walk", i);
      jx::PurgeOverBudget(*bag_, 2000 + rng() % 20000);
      figures.cachePurges.fetch_add(1);
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    watchdog.Done(wd);
  }

  // The adapter's books against the items and the manager; returns the items out of the books.
  uint64_t CheckBooks() {
    uint64_t outOfBooks = 0;
    uint64_t recorded = 0;
    std::set<const JX_Stuff*> mirroredItems;
    std::set<uint64_t> ids;
    for (const auto& m : adapter_->Snapshot()) {
      recorded += m.size;
      ids.insert(m.id);
      auto data = m.stuff->GetDataPtr();
      const bool ok = m.stuff->IsInMemory() && data && data->GetApproximateMemorySize() == m.size &&
                      m.stuff->GetBag() == bag_ && m.stuff->GetMediaMapID() == m.id &&
                      mirroredItems.insert(m.stuff.get()).second;
      if (!ok) {
        violations.Report("a mirrored entry that is not its item's in-memory size");
        ++outOfBooks;
      }
    }
    auto manager = jx::standalone::MediaManagerPool();
    const auto& map = adapter_->GetMediaMapID();
    const auto managerIDs = manager->GetEntryIDsOfMap(map);
    violations.Check(adapter_->GetCacheSize() == recorded, "adapter total != sum of its entries");
    violations.Check(manager->GetBytesOfMap(map) == recorded, "manager's bytes != adapter's");
    violations.Check(std::set<uint64_t>(managerIDs.begin(), managerIDs.end()) == ids,
                     "manager's entries != adapter's");
    violations.Check(JX_GetMediaMapSize() == recorded, "reported media-map size differs");
    long long sum = 0;
    for (const auto& s : bag_->CopyMruItems()) {
      sum += s->GetAccountedMemorySize();
      violations.Check(s->GetCheckoutCount() == 0, "item checked out at rest");
      const auto data = s->GetDataPtr();
      violations.Check(
          s->GetAccountedMemorySize() == (data ? data->GetApproximateMemorySize() : 0u),
          "an item's accounted size is not its payload's size");
      if (s->IsInMemory() && s->GetDataPtr()->GetApproximateMemorySize() > 0 &&
          !mirroredItems.count(s.get())) {
        violations.Report("an idle in-memory item not mirrored");
        ++outOfBooks;
      }
    }
    violations.Check(bag_->GetInMemoryCacheSizeInBytes_LockFree() == sum,
                     "bag's in-memory total != sum of its items");
    violations.Check(bag_->GetCheckedOutMemoryCacheSizeInBytes() == 0, "checked-out bytes at rest");
    return outOfBooks;
  }

  static constexpr int kSlots = 24;
  Figures figures;
  jx::stress::Violations violations;
  std::atomic<bool> renderersDone{false};

 private:
  jx::stress::Options o_;
  jx::stress::Deadline deadline_{o_.seconds};
  std::shared_ptr<JX_Bag> bag_;
  std::shared_ptr<kq::JX_MediaMapImpl> adapter_;
};

}  // namespace

int main(int argc, char** argv) {
  auto o = jx::stress::ParseOptions(argc, argv, "stress_mediamap", 150000);
  if (o.threads < 1) o.threads = 1;
  // Under a sanitizer the plan is what such a build does in its time bound beside another
  // program (stress/CMakeLists.txt); less than a tenth of a plan means something slowed the run
  // down far beyond a loaded machine.
  constexpr double kFloorPercent = 10;
  jx::stress::Watchdog watchdog("stress_mediamap", jx::stress::kStallSeconds,
                                jx::stress::HardSeconds(o));
  const int mainSlot = watchdog.Add("main");
  auto& host = jx::StandaloneHost::Instance();
  host.SetEchoReports(false);
  host.SetMemoryLimit(1000);  // keeps the purge walk's floor (a tenth of it) out of the way
  auto manager = jx::standalone::MediaManagerPool();
  manager->Reset();
  JX_Birth(true, 1, false);
  auto bag = JX_GlobalBag();
  auto adapter = jx::mediamap::CurrentAdapter();
  if (!adapter) {
    std::fprintf(stderr, "stress_mediamap: the media map is not in use\n");
    return 1;
  }

  Run run(o, bag, adapter);
  uint64_t outOfBooks = 0;
  {
    std::vector<std::thread> renderers;
    for (int t = 0; t < o.threads; ++t) {
      const int wd = watchdog.Add(("renderer " + std::to_string(t)).c_str());
      renderers.emplace_back([&run, &watchdog, t, wd] { run.Renderer(t, watchdog, wd); });
    }
    const int hostSlot = watchdog.Add("host");
    std::thread hostThread([&run, &watchdog, hostSlot] { run.Host(watchdog, hostSlot); });
    const int purgerSlot = watchdog.Add("cache purger");
    std::thread purgeThread(
        [&run, &watchdog, purgerSlot] { run.CachePurger(watchdog, purgerSlot); });
    watchdog.Waiting(mainSlot, "joining the renderers");
    for (auto& t : renderers) t.join();
    run.renderersDone = true;
    watchdog.Waiting(mainSlot, "joining the host and purge threads");
    hostThread.join();
    purgeThread.join();
    watchdog.Beat(mainSlot, "the checks at rest");

    // At rest, then once more after the host took everything back.
    outOfBooks += run.CheckBooks();
    manager->SetBudget(0);
    outOfBooks += run.CheckBooks();
    run.violations.Check(
        adapter->GetNumEntries() == 0 && bag->GetInMemoryCacheSizeInBytes_LockFree() == 0,
        "a host budget of 0 left cache memory");
    manager->SetBudget(RV::MediaManager::kUnlimited);
  }
  const uint64_t hostPurges = manager->GetPurgeCallCount();
  adapter.reset();
  bag.reset();
  JX_StopAllAsyncWork();
  JX_Death();
  watchdog.Done(mainSlot);
  const int64_t leftover = gLivePayloads.load();
  run.violations.Check(leftover == 0, "payloads alive after shut-down");

  auto& f = run.figures;
  const bool covered = jx::stress::CoverageMet("stress_mediamap", "operations", f.ops.load(),
                                               run.PlannedOps(), kFloorPercent);
  std::printf(
      "stress_mediamap: ops %llu of %llu (check-outs %llu, renders %llu), host ops %llu (victims "
      "%llu), host purges %llu, cache purges %llu, violations %llu, hangs 0, items lost %llu\n",
      (unsigned long long)f.ops, (unsigned long long)run.PlannedOps(),
      (unsigned long long)f.checkouts, (unsigned long long)f.renders, (unsigned long long)f.hostOps,
      (unsigned long long)f.hostVictims, (unsigned long long)hostPurges,
      (unsigned long long)f.cachePurges, (unsigned long long)run.violations.Count(),
      (unsigned long long)(outOfBooks + static_cast<uint64_t>(leftover > 0 ? leftover : 0)));
  return run.violations.Count() == 0 && covered ? 0 : 1;
}
