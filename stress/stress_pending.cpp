// stress_pending: rounds of several threads asking for one new key at once. Exactly one thread
// creates the pending item per round; every waiter comes back promptly with the creator's payload
// (or with nothing when the creator abandons the render); threads that hold a notifying host lock
// never block on the render: they get the pending item back as it stands. At the end every
// round that was not abandoned still finds its payload under its key; a round's payload that
// did not reach a waiter or cannot be found at the end counts as an item lost.
//
// A watchdog aborts the run when a thread makes no progress (a waiter never released must fail,
// not hang). The time bound may cut the rounds short, but fewer than the floor fail the run.
#include <barrier>
#include <random>
#include <thread>
#include <vector>

#include "host/y_api.h"
#include "jxcache/bag/bag.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"
#include "stress_common.h"

namespace cf = jx::checkout_flags;
using Clock = std::chrono::steady_clock;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

class RoundPayload : public JX_StuffData {
 public:
  explicit RoundPayload(uint64_t round) : round_(round) {}
  unsigned int GetApproximateMemorySize() const override { return 64; }
  bool PurgeIfPossible(ReleaseQueue*) override { return false; }
  bool IsInMemory() const override { return true; }
  uint64_t Round() const { return round_; }

 private:
  uint64_t round_;
};

constexpr auto kRenderTime = std::chrono::microseconds(300);
// A waiter released later than this after the fill did not come back "promptly".
constexpr auto kPromptly = std::chrono::seconds(2);

}  // namespace

int main(int argc, char** argv) {
  auto o = jx::stress::ParseOptions(argc, argv, "stress_pending", 3000);
  if (o.threads < 2) o.threads = 2;
  // Under ThreadSanitizer, beside another program, a run does three quarters of its rounds or more
  // in its time bound; less than a tenth means something slowed it down far beyond that.
  constexpr double kFloorPercent = 10;
  jx::stress::Watchdog watchdog("stress_pending", jx::stress::kStallSeconds,
                                jx::stress::HardSeconds(o));
  const int mainSlot = watchdog.Add("main");
  jx::StandaloneHost::Instance().SetEchoReports(false);
  JX_Birth(false, 1, false);
  auto bag = JX_GlobalBag();
  jx::stress::Violations violations;
  jx::stress::Deadline deadline(o.seconds);
  const uint64_t rounds = o.ops;

  std::vector<Guid> keys(rounds);
  for (auto& k : keys) k = Guid::CreateUnique();
  // Per round: the creators, the waiters back with the payload or with nothing, and the
  // host-lock holder back with the pending item as it stood.
  std::atomic<int> creators{0}, withPayload{0}, withNothing{0}, holderGotPending{0};
  std::atomic<int> hostLockNotBlocked{0};
  std::atomic<int64_t> filledAt{0};
  std::atomic<bool> holderReturned{false};
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> roundsDone{0}, abandonedRounds{0}, blockedHostLockThreads{0},
      slowWaiters{0}, itemsLost{0};
  std::mt19937_64 rng(o.seed);
  std::vector<int> abandon(rounds);
  for (auto& a : abandon) a = static_cast<int>(rng() % 8 == 0);

  std::barrier sync(o.threads, [&]() noexcept {
    // Between rounds: check the round just finished. After the deadline the threads leave
    // without running another round, and there is nothing more to check.
    if (stop.load()) return;
    const uint64_t r = roundsDone.load();
    if (r > 0) {
      const bool abandoned = abandon[r - 1];
      if (creators.load() < 1) violations.Report("a round without a creator");
      if (!abandoned && creators.load() != 1) violations.Report("two creators for one key");
      if (abandoned && withPayload.load() != 0)
        violations.Report("a payload from an abandoned render");
      if (creators.load() + withPayload.load() + withNothing.load() + holderGotPending.load() !=
          o.threads)
        violations.Report("a thread of the round is unaccounted for");
      if (!abandoned && (withNothing.load() != 0 ||
                         withPayload.load() != o.threads - 1 - holderGotPending.load())) {
        violations.Report("a waiter came back without the creator's payload");
        itemsLost.fetch_add(1);
      }
      if (abandoned) abandonedRounds.fetch_add(1);
    }
    creators = 0;
    withPayload = 0;
    withNothing = 0;
    holderGotPending = 0;
    filledAt = 0;
    holderReturned = false;
    if (deadline.Passed()) stop = true;
    roundsDone.fetch_add(1);
  });

  std::vector<std::thread> threads;
  for (int t = 0; t < o.threads; ++t) {
    const int slot = watchdog.Add(("thread " + std::to_string(t)).c_str());
    threads.emplace_back([&, t, slot] {
      for (uint64_t r = 0; r < rounds; ++r) {
        watchdog.Beat(slot, "waiting for the round's other threads", r);
        sync.arrive_and_wait();
        if (stop.load()) break;
        watchdog.Beat(slot, "asking for the round's key", r);
        const bool holdsHostLock = t == 1 && r % 3 == 0;
        auto request = JX_Stuff::CreateNew({}, 0.0);
        request->SetGuid(keys[r]);
        JX_ScCheckout handle;
        int res;
        if (holdsHostLock) {
          Y::ScNotifyHoldingMutexLock hostLock;
          res =
              handle.FindAndCheckout(request, cf::kReadOnly | cf::kCreatePending | cf::kWaitAlways);
          if (res != kJX_CreatedPending) {
            // The creator fills only after this thread says it is back, so the item is still
            // pending here; it is looked at before saying so.
            const auto item = handle.GetStuffPtr();
            const bool gotPending =
                res == kJX_CheckedOut && item && item->IsPendingRender() && !item->GetDataPtr();
            holderReturned = true;
            if (gotPending) {
              holderGotPending.fetch_add(1);
            } else {
              violations.Report("a host-lock holder did not get the pending item as it stood");
            }
            hostLockNotBlocked.fetch_add(1);
            continue;
          }
          holderReturned = true;
        } else {
          res =
              handle.FindAndCheckout(request, cf::kReadOnly | cf::kCreatePending | cf::kWaitAlways);
        }
        if (res == kJX_CreatedPending) {
          watchdog.Beat(slot, "rendering the round's key", r);
          creators.fetch_add(1);
          std::this_thread::sleep_for(kRenderTime);
          if (r % 3 == 0 && t != 1) {
            // A host-lock holder asks for this key in this round. The render is finished only
            // after it has come back: had it waited for the render, both would stall here.
            const auto giveUp = Clock::now() + std::chrono::seconds(2);
            while (!holderReturned.load() && Clock::now() < giveUp) std::this_thread::yield();
            if (!holderReturned.load()) blockedHostLockThreads.fetch_add(1);
          }
          JX_ScStuffSetter setter(handle.GetStuffPtr());
          if (!abandon[r]) {
            handle.GetStuffPtr()->SetStuffDataFromPendingRender(
                IntrusivePtr<JX_StuffData>(new RoundPayload(r)), 0.0003);
          }
          filledAt = Clock::now().time_since_epoch().count();
          continue;
        }
        const auto back = Clock::now();
        if (res == kJX_CheckedOut) {
          auto* payload = dynamic_cast<RoundPayload*>(handle.GetStuffPtr()->GetDataPtr().get());
          if (!payload || payload->Round() != r) violations.Report("a waiter got another payload");
          withPayload.fetch_add(1);
        } else {
          withNothing.fetch_add(1);
        }
        const int64_t filled = filledAt.load();
        if (filled != 0 && back.time_since_epoch().count() - filled >
                               std::chrono::duration_cast<Clock::duration>(kPromptly).count()) {
          slowWaiters.fetch_add(1);
        }
      }
      sync.arrive_and_drop();
      watchdog.Done(slot);
    });
  }
  watchdog.Waiting(mainSlot, "joining the threads");
  for (auto& t : threads) t.join();
  watchdog.Beat(mainSlot, "the checks at the end");
  violations.Check(blockedHostLockThreads.load() == 0, "a host-lock holder waited for a render");
  violations.Check(slowWaiters.load() == 0, "a waiter came back late");
  violations.Check(bag->GetCheckedOutMemoryCacheSizeInBytes() == 0, "checked-out bytes at rest");
  violations.Check(bag->GetNumMruSortedItems() == bag->GetNumGuidSortedItems(),
                   "recency order and directory differ");
  const uint64_t done = roundsDone.load() > 0 ? roundsDone.load() - 1 : 0;
  // Every finished round's payload is still there under its key.
  for (uint64_t r = 0; r < done; ++r) {
    if (abandon[r]) continue;
    auto request = JX_Stuff::CreateNew({}, 0.0);
    request->SetGuid(keys[r]);
    JX_ScCheckout handle;
    const int res = handle.FindAndCheckout(request, cf::kReadOnly);
    auto* payload = res == kJX_CheckedOut
                        ? dynamic_cast<RoundPayload*>(handle.GetStuffPtr()->GetDataPtr().get())
                        : nullptr;
    if (!payload || payload->Round() != r) {
      violations.Report("a round's payload is gone from the bag");
      itemsLost.fetch_add(1);
    }
  }
  watchdog.Beat(mainSlot, "shutting down");
  bag.reset();
  JX_StopAllAsyncWork();
  JX_Death();
  watchdog.Done(mainSlot);
  const bool covered =
      jx::stress::CoverageMet("stress_pending", "rounds", done, rounds, kFloorPercent);
  std::printf(
      "stress_pending: rounds %llu of %llu (abandoned %llu), threads %d, host-lock holders not "
      "blocked %d, violations %llu, hangs 0, items lost %llu\n",
      (unsigned long long)done, (unsigned long long)rounds,
      (unsigned long long)abandonedRounds.load(), o.threads, hostLockNotBlocked.load(),
      (unsigned long long)violations.Count(), (unsigned long long)itemsLost.load());
  return violations.Count() == 0 && covered ? 0 : 1;
}
