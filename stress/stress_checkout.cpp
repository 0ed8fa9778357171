// stress_checkout: threads over a small hot key set doing read and writeable check-outs, GUID
// changes, find-or-create with some renders abandoned, ConvertToWriteable races, purges (inline
// and from a purging thread of their own) and check-ins that remove or purge. Every payload
// carries bytes derived from its key and a checksum, verified at every check-out and again
// before check-in.
//
// Invariants: at most one writer and no reader beside it; no checked-out payload is purged;
// ConvertToWriteable on a held read check-out is refused only because another reader holds the
// item too; at rest every item accounts exactly its payload's size, the bag's sizes equal the sum
// of its items, nothing is checked out, the recency order and the directory hold the same items;
// after shut-down no payload is left alive.
#include <random>
#include <thread>
#include <vector>

#include "bag/bag.h"
#include "host/standalone_host.h"
#include "items/sc_checkout.h"
#include "lifecycle/lifecycle.h"
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

  void Worker(int index) {
    std::mt19937_64 rng(o_.seed * 1000003 + static_cast<uint64_t>(index));
    jx::stress::Deadline deadline(o_.seconds);
    const uint64_t perThread = o_.ops / static_cast<uint64_t>(o_.threads);
    for (uint64_t i = 0; i < perThread && !deadline.Passed(); ++i) {
      const uint32_t key = static_cast<uint32_t>(rng() % kKeys);
      const int op = static_cast<int>(rng() % 100);
      if (op < 45) {
        Read(key, rng, false);
      } else if (op < 65) {
        Write(key, rng);
      } else if (op < 80) {
        Read(key, rng, true);
      } else if (op < 85) {
        Purge(rng);
      } else {
        Read(key, rng, false);
      }
      figures.ops.fetch_add(1);
    }
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
  void Purger() {
    std::mt19937_64 rng(o_.seed * 1000003 + 999);
    while (!workersDone.load(std::memory_order_acquire)) {
      Purge(rng);
      std::this_thread::yield();
    }
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
  auto& host = jx::StandaloneHost::Instance();
  host.SetEchoReports(false);
  host.SetMemoryLimit(16 * 1024);  // a floor of 1.6 KB: purges reach most items
  JX_Birth(false, 1, false);
  auto bag = JX_GlobalBag();
  Run run(o, bag);
  std::vector<std::thread> threads;
  for (int t = 0; t < o.threads; ++t) threads.emplace_back([&run, t] { run.Worker(t); });
  std::thread purger([&run] { run.Purger(); });
  for (auto& t : threads) t.join();
  run.workersDone.store(true, std::memory_order_release);
  purger.join();

  // At rest: each item accounts what its payload really holds.
  long long sum = 0;
  for (const auto& item : bag->CopyMruItems()) {
    sum += item->GetAccountedMemorySize();
    run.violations.Check(item->GetCheckoutCount() == 0, "item still checked out at rest");
    const auto data = item->GetDataPtr();
    run.violations.Check(
        item->GetAccountedMemorySize() == (data ? data->GetApproximateMemorySize() : 0u),
        "an item's accounted size is not its payload's size");
  }
  run.violations.Check(bag->GetInMemoryCacheSizeInBytes_LockFree() == sum,
                       "in-memory total differs from the sum of the items");
  run.violations.Check(bag->GetCheckedOutMemoryCacheSizeInBytes() == 0, "checked-out size at rest");
  run.violations.Check(bag->GetNumMruSortedItems() == bag->GetNumGuidSortedItems(),
                       "recency order and directory differ");
  run.violations.Check(JX_GetStuffCounters().itemsCheckedOut.load() == 0,
                       "items-checked-out counter at rest");
  const int itemsAtRest = bag->GetNumItems();
  bag.reset();
  JX_StopAllAsyncWork();
  JX_Death();
  const int64_t leftover = gLivePayloads.load();
  run.violations.Check(leftover == 0, "payloads alive after shut-down");

  auto& f = run.figures;
  std::printf(
      "stress_checkout: ops %llu (reads %llu, writes %llu, renders %llu, abandoned %llu, guid "
      "changes %llu, conversions %llu/%llu refused, purges %llu), items at rest %d, "
      "violations %llu, payloads lost or leaked %lld\n",
      (unsigned long long)f.ops, (unsigned long long)f.reads, (unsigned long long)f.writes,
      (unsigned long long)f.renders, (unsigned long long)f.abandoned,
      (unsigned long long)f.guidChanges, (unsigned long long)f.conversions,
      (unsigned long long)f.conversionRefusals, (unsigned long long)f.purges, itemsAtRest,
      (unsigned long long)run.violations.Count(), (long long)leftover);
  return run.violations.Count() == 0 ? 0 : 1;
}
