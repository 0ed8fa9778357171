// stress_checkout: threads over a small hot key set doing read and writeable check-outs, GUID
// changes, find-or-create with some renders abandoned, ConvertToWriteable races, purges (inline
// and from a purging thread of their own) and check-ins that remove or purge. Every payload
// carries bytes derived from its key and a checksum, verified at every check-out and again
// before check-in.
//
// Invariants: at most one writer and no reader beside it; no checked-out payload is purged;
// ConvertToWriteable on a held read check-out is refused only because another reader holds the
// item too; at rest every item accounts exactly its payload's size and holds its key's bytes, the
// bag's sizes equal the sum of its items, nothing is checked out, the recency order and the
// directory hold the same items; after shut-down no payload is left alive.
//
// The purging thread empties the bag now and then, so when the workers stop it may hold nothing
// at all: before the checks at rest every key is checked out once more (rendered where it is
// missing), so that the checks see the items the run left plus one per key, never an empty bag.
//
// A watchdog aborts the run when a thread makes no progress (a deadlock must fail, not hang). The
// time bound may cut the run short, but a run that did less than its floor of the planned
// operations fails.
#include <random>
#include <thread>
#include <vector>

#include "jxcache/bag/bag.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"
#include "stress_common.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

std::atomic<int64_t> gLivePayloads{0};

// Bytes derived from (key, generation); the size varies with the key so that GUID changes move
// the totals. Thread safety: bytes are touched only under a check-out (which excludes a purge);
// the size is an atomic so that the cache may ask for it at any time.
class StressPayload : public JX_StuffData {
 public:
  StressPayload(uint32_t key, uint32_t generation) { Fill(key, generation); }
  ~StressPayload() override { gLivePayloads.fetch_sub(1); }
  static IntrusivePtr<JX_StuffData> Make(uint32_t key, uint32_t generation) {
    gLivePayloads.fetch_add(1);
    return IntrusivePtr<JX_StuffData>(new StressPayload(key, generation));
  }

  void Fill(uint32_t key, uint32_t generation) {
    auto bytes = std::make_shared<std::vector<uint8_t>>(200 + (key % 7) * 64);
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes->size(); ++i) {
      (*bytes)[i] = static_cast<uint8_t>(key * 31 + generation * 7 + i);
      sum = sum * 131 + (*bytes)[i];
    }
    bytes_ = std::move(bytes);
    key_ = key;
    checksum_ = sum;
    size_.store(static_cast<unsigned int>(bytes_->size()));
  }
  // The bytes match the checksum and the key they were made for.
  bool Verify(uint32_t expectedKey) const {
    if (!bytes_ || key_ != expectedKey) return false;
    uint32_t sum = 0;
    for (uint8_t b : *bytes_) sum = sum * 131 + b;
    return sum == checksum_;
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
  std::atomic<int> readers{0};
  std::atomic<int> writers{0};

 private:
  std::shared_ptr<std::vector<uint8_t>> bytes_;
  uint32_t key_ = 0;
  uint32_t checksum_ = 0;
  std::atomic<unsigned int> size_{0};
};

struct Figures {
  std::atomic<uint64_t> ops{0}, reads{0}, writes{0}, renders{0}, abandoned{0}, guidChanges{0},
      conversions{0}, conversionRefusals{0}, purges{0};
};

class Run {
 public:
  Run(const jx::stress::Options& o, std::shared_ptr<JX_Bag> bag) : o_(o), bag_(std::move(bag)) {
    for (uint32_t k = 0; k < kKeys; ++k) keys_.push_back(Guid::CreateUnique());
  }

  uint64_t PlannedOps() const {
    return o_.ops / static_cast<uint64_t>(o_.threads) * static_cast<uint64_t>(o_.threads);
  }

  void Worker(int index, jx::stress::Watchdog& watchdog, int slot) {
    std::mt19937_64 rng(o_.seed * 1000003 + static_cast<uint64_t>(index));
    jx::stress::Deadline deadline(o_.seconds);
    const uint64_t perThread = o_.ops / static_cast<uint64_t>(o_.threads);
    for (uint64_t i = 0; i < perThread && !deadline.Passed(); ++i) {
      const uint32_t key = static_cast<uint32_t>(rng() % kKeys);
      const int op = static_cast<int>(rng() % 100);
      if (op < 45) {
        watchdog.Beat(slot, "a read check-out", i);
        Read(key, rng, false);
      } else if (op < 65) {
        watchdog.Beat(slot, "a writeable check-out", i);
        Write(key, rng);
      } else if (op < 80) {
        watchdog.Beat(slot, "a read check-out converted to writeable", i);
        Read(key, rng, true);
      } else if (op < 85) {
        watchdog.Beat(slot, "a purge", i);
        Purge(rng);
      } else {
        watchdog.Beat(slot, "a read check-out", i);
        Read(key, rng, false);
      }
      figures.ops.fetch_add(1);
    }
    watchdog.Done(slot);
  }

  // Every key checked out once more, rendered where the run left it missing, and its payload
  // verified: the checks at rest then see at least one item per key.
  void FillEveryKey() {
    std::mt19937_64 rng(o_.seed);
    for (uint32_t key = 0; key < kKeys; ++key) {
      JX_ScCheckout handle;
      const int res = handle.FindAndCheckout(Request(key), cf::kReadOnly | cf::kCreatePending);
      if (res == kJX_CreatedPending) {
        JX_ScStuffSetter setter(handle.GetStuffPtr());
        handle.GetStuffPtr()->SetStuffDataFromPendingRender(StressPayload::Make(key, 0), 0.001);
        figures.renders.fetch_add(1);
      } else if (res == kJX_CheckedOut) {
        Hold(handle, key, false);
      } else {
        violations.Report("a key could not be checked out at rest");
      }
    }
  }

  // The key index of a GUID, or kKeys for a GUID that is none of the run's keys.
  uint32_t KeyOf(const Guid& guid) const {
    uint32_t k = 0;
    while (k < kKeys && keys_[k] != guid) ++k;
    return k;
  }

  IntrusivePtr<JX_Stuff> Request(uint32_t key) {
    auto item = JX_Stuff::CreateNew({}, 0.0);
    item->SetGuid(keys_[key]);
    return item;
  }

  // Fills (or abandons) a pending item this thread created.
  void Render(JX_ScCheckout& handle, uint32_t key, std::mt19937_64& rng) {
    figures.renders.fetch_add(1);
    JX_ScStuffSetter setter(handle.GetStuffPtr());
    if (rng() % 10 == 0) {
      figures.abandoned.fetch_add(1);
      return;  // the setter completes it empty: waiters are released with nothing
    }
    handle.GetStuffPtr()->SetStuffDataFromPendingRender(StressPayload::Make(key, 0), 0.001);
  }

  // Checks the payload of a held item and that it stays in memory while held.
  void Hold(JX_ScCheckout& handle, uint32_t key, bool writer) {
    auto item = handle.GetStuffPtr();
    auto* payload = dynamic_cast<StressPayload*>(item->GetDataPtr().get());
    if (!payload) {
      violations.Report("checked-out item without its payload");
      return;
    }
    violations.Check(payload->IsInMemory(), "checked-out payload not in memory");
    violations.Check(payload->Verify(key), "payload bytes do not match their key and checksum");
    if (writer) {
      violations.Check(payload->writers.fetch_add(1) == 0, "two writers on one item");
      violations.Check(payload->readers.load() == 0, "a reader beside a writer");
    } else {
      payload->readers.fetch_add(1);
      violations.Check(payload->writers.load() == 0, "a writer beside a reader");
    }
    std::this_thread::yield();
    violations.Check(payload->IsInMemory() && payload->Verify(key),
                     "checked-out payload purged or changed while held");
    (writer ? payload->writers : payload->readers).fetch_sub(1);
  }

  void Read(uint32_t key, std::mt19937_64& rng, bool thenConvert) {
    JX_ScCheckout handle;
    const int res =
        handle.FindAndCheckout(Request(key), cf::kReadOnly | cf::kCreatePending | cf::kWaitAlways);
    if (res == kJX_CreatedPending) {
      Render(handle, key, rng);
      return;
    }
    if (res != kJX_CheckedOut) return;
    figures.reads.fetch_add(1);
    if (thenConvert) {
      try {
        handle.GetStuffPtr()->ConvertToWriteable();
        figures.conversions.fetch_add(1);
        Hold(handle, key, true);
      } catch (int code) {
        // Another reader beside this one (14851) is the only reason to refuse: this thread holds
        // a read check-out, so "not checked out" (14852) would be a broken count.
        violations.Check(code == 14851, "unexpected code from ConvertToWriteable");
        figures.conversionRefusals.fetch_add(1);
        Hold(handle, key, false);
      }
    } else {
      Hold(handle, key, false);
    }
    handle.SetCheckinFlags(CheckinFlags(rng));
  }

  // Mostly a plain check-in; now and then one that removes the item, purges it or keeps its
  // place in the recency order.
  static int CheckinFlags(std::mt19937_64& rng) {
    const int r = static_cast<int>(rng() % 20);
    return r == 0 ? ci::kRemove : r == 1 ? ci::kPurge : r == 2 ? ci::kKeepRecency : 0;
  }

  void Write(uint32_t key, std::mt19937_64& rng) {
    JX_ScCheckout handle;
    const int res = handle.FindAndCheckout(Request(key), cf::kCreatePending | cf::kWaitAlways);
    if (res == kJX_CreatedPending) {
      Render(handle, key, rng);
      return;
    }
    if (res != kJX_CheckedOut) return;
    figures.writes.fetch_add(1);
    auto item = handle.GetStuffPtr();
    violations.Check(item->IsCheckedOutWriteable() && item->GetCheckoutCount() == 1,
                     "writeable check-out shared");
    Hold(handle, key, true);
    if (rng() % 8 == 0) {
      // Re-key: the writer rewrites the payload for the new key while it holds it exclusively.
      const uint32_t to = static_cast<uint32_t>(rng() % kKeys);
      auto* payload = static_cast<StressPayload*>(item->GetDataPtr().get());
      payload->Fill(to, 1);
      item->UpdateWithNewGuid(keys_[to]);
      bag_->AccountForStuffDataModification(item);
      figures.guidChanges.fetch_add(1);
    }
    handle.SetCheckinFlags(CheckinFlags(rng));
  }

  // A purging thread of its own, as a host's memory-pressure thread would be: purges until the
  // workers are done, racing their check-outs the whole time.
  void Purger(jx::stress::Watchdog& watchdog, int slot) {
    std::mt19937_64 rng(o_.seed * 1000003 + 999);
    for (uint64_t i = 0; !workersDone.load(std::memory_order_acquire); ++i) {
      watchdog.Beat(slot, "a purge", i);
      Purge(rng);
      std::this_thread::yield();
    }
    watchdog.Done(slot);
  }

  void Purge(std::mt19937_64& rng) {
    figures.purges.fetch_add(1);
    if (rng() % 4 == 0) {
      bag_->PurgeAllMemoryCaches();
    } else {
      jx::PurgeOverBudget(*bag_, rng() % 4096);
    }
  }

  static constexpr uint32_t kKeys = 12;
  std::atomic<bool> workersDone{false};
  Figures figures;
  jx::stress::Violations violations;

 private:
  jx::stress::Options o_;
  std::shared_ptr<JX_Bag> bag_;
  std::vector<Guid> keys_;
};

}  // namespace

int main(int argc, char** argv) {
  auto o = jx::stress::ParseOptions(argc, argv, "stress_checkout", 1000000);
  if (o.threads < 1) o.threads = 1;
  // Under a sanitizer the plan is what such a build does in its time bound beside another
  // program (stress/CMakeLists.txt); less than a tenth of a plan means something slowed the run
  // down far beyond a loaded machine.
  constexpr double kFloorPercent = 10;
  jx::stress::Watchdog watchdog("stress_checkout", jx::stress::kStallSeconds,
                                jx::stress::HardSeconds(o));
  const int mainSlot = watchdog.Add("main");
  auto& host = jx::StandaloneHost::Instance();
  host.SetEchoReports(false);
  host.SetMemoryLimit(16 * 1024);  // a floor of 1.6 KB: purges reach most items
  JX_Birth(false, 1, false);
  auto bag = JX_GlobalBag();
  Run run(o, bag);
  std::vector<std::thread> threads;
  for (int t = 0; t < o.threads; ++t) {
    const int slot = watchdog.Add(("worker " + std::to_string(t)).c_str());
    threads.emplace_back([&run, &watchdog, t, slot] { run.Worker(t, watchdog, slot); });
  }
  const int purgerSlot = watchdog.Add("purger");
  std::thread purger([&run, &watchdog, purgerSlot] { run.Purger(watchdog, purgerSlot); });
  watchdog.Waiting(mainSlot, "joining the workers");
  for (auto& t : threads) t.join();
  run.workersDone.store(true, std::memory_order_release);
  watchdog.Waiting(mainSlot, "joining the purger");
  purger.join();

  watchdog.Beat(mainSlot, "checking out every key at rest");
  run.FillEveryKey();
  // At rest: each item accounts what its payload really holds, and holds its key's bytes.
  watchdog.Beat(mainSlot, "the checks at rest");
  long long sum = 0;
  uint64_t restItems = 0, restPayloads = 0;
  for (const auto& item : bag->CopyMruItems()) {
    ++restItems;
    sum += item->GetAccountedMemorySize();
    run.violations.Check(item->GetCheckoutCount() == 0, "item still checked out at rest");
    const auto data = item->GetDataPtr();
    run.violations.Check(
        item->GetAccountedMemorySize() == (data ? data->GetApproximateMemorySize() : 0u),
        "an item's accounted size is not its payload's size");
    const auto* payload = dynamic_cast<const StressPayload*>(data.get());
    if (payload && payload->IsInMemory()) {
      ++restPayloads;
      run.violations.Check(payload->Verify(run.KeyOf(item->GetGuid())),
                           "a payload at rest does not hold its key's bytes");
    }
  }
  run.violations.Check(restPayloads > 0, "the checks at rest saw no payload");
  run.violations.Check(bag->GetInMemoryCacheSizeInBytes_LockFree() == sum,
                       "in-memory total differs from the sum of the items");
  run.violations.Check(bag->GetCheckedOutMemoryCacheSizeInBytes() == 0, "checked-out size at rest");
  run.violations.Check(bag->GetNumMruSortedItems() == bag->GetNumGuidSortedItems(),
                       "recency order and directory differ");
  run.violations.Check(JX_GetStuffCounters().itemsCheckedOut.load() == 0,
                       "items-checked-out counter at rest");
  watchdog.Beat(mainSlot, "shutting down");
  bag.reset();
  JX_StopAllAsyncWork();
  JX_Death();
  const int64_t leftover = gLivePayloads.load();
  run.violations.Check(leftover == 0, "payloads alive after shut-down");
  watchdog.Done(mainSlot);

  auto& f = run.figures;
  const bool covered = jx::stress::CoverageMet("stress_checkout", "operations", f.ops.load(),
                                               run.PlannedOps(), kFloorPercent);
  std::printf(
      "stress_checkout: ops %llu of %llu (reads %llu, writes %llu, renders %llu, abandoned %llu, "
      "guid changes %llu, conversions %llu/%llu refused, purges %llu), items at rest %llu (with "
      "payload %llu), violations %llu, hangs 0, payloads lost or leaked %lld\n",
      (unsigned long long)f.ops, (unsigned long long)run.PlannedOps(), (unsigned long long)f.reads,
      (unsigned long long)f.writes, (unsigned long long)f.renders, (unsigned long long)f.abandoned,
      (unsigned long long)f.guidChanges, (unsigned long long)f.conversions,
      (unsigned long long)f.conversionRefusals, (unsigned long long)f.purges,
      (unsigned long long)restItems, (unsigned long long)restPayloads,
      (unsigned long long)run.violations.Count(), (long long)leftover);
  return run.violations.Count() == 0 && covered ? 0 : 1;
}
