// The media map under contention: renders, host purges and the cache's purge walk at once. No
// checked-out item may lose its memory, nothing may deadlock, and at rest the books must agree.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "jxcache/host/open_once_gate.h"
#include "mediamap/media_map_hooks.h"
#include "mediamap/mediamap_test_support.h"
#include "standalone/standalone_host.h"

namespace cf = jx::checkout_flags;
using jx::testing::AddedItem;
using jx::testing::CheckMediaMapBooks;
using jx::testing::MakeItem;
using jx::testing::MediaMapTest;
using jx::testing::PayloadOf;
using jx::testing::SettleDeliveries;
using zelcore::utility::IntrusivePtr;

namespace {

// An item checked in (and mirrored again) while the host's purge of it is on its way: the purge
// frees the memory and must take the new entry with it.
TEST_F(MediaMapTest, HostPurgeRacingACheckinLeavesNoStaleEntry) {
  auto item = AddedItem(*bag_, 100);
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  std::thread hostPurge;
  {
    JXp_ScLock lock;  // holds the host's purge just before it frees the item
    hostPurge = std::thread([&] {
      jx::standalone::MediaManagerPool()->PurgeEntry(adapter_->GetMediaMapID(),
                                                     item->GetMediaMapID());
    });
    while (adapter_->GetNumEntries() != 0) std::this_thread::yield();
    item->Checkin(0, 0.0);
    ASSERT_EQ(adapter_->GetNumEntries(), 1u) << "mirrored again at check-in";
  }
  hostPurge.join();
  EXPECT_FALSE(item->IsInMemory());
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
  EXPECT_EQ(JX_GetMediaMapSize(), 0u);
}

// Ends the process, saying what hung, when not destroyed within the limit.
class Watchdog {
 public:
  Watchdog(const char* what, std::chrono::seconds limit)
      : thread_([this, what, limit] {
          if (done_.WaitFor(limit)) return;
          std::fprintf(stderr, "HANG: %s did not finish within %lld s\n", what,
                       static_cast<long long>(limit.count()));
          std::_Exit(3);
        }) {}
  ~Watchdog() {
    done_.Open();
    thread_.join();
  }

 private:
  zelcore::threads::OpenOnceGate done_;
  std::thread thread_;
};

// Render threads, the host's budget and the cache's purge walk at once, under a watchdog.
void RendersHostPurgesAndCachePurgesTogether(JX_Bag* bag, const kq::JX_MediaMapImpl& adapter,
                                             const char* what) {
  Watchdog watchdog(what, std::chrono::seconds(90));
  constexpr int kRenderers = 3, kSlotsPerRenderer = 24, kRenderOps = 3000;
  constexpr int kHostOps = 1000, kPurgeOps = 400;
  const uint32_t seed = std::getenv("JX_SEED") ? std::atoi(std::getenv("JX_SEED")) : 2024;
  auto manager = jx::standalone::MediaManagerPool();
  std::atomic<int> violations{0};
  std::atomic<bool> renderersDone{false};

  auto renderer = [&](int r) {
    std::mt19937 rng(seed + r);
    auto render = [&] { return AddedItem(*bag, 500 + rng() % 2000, {}, rng()); };
    std::vector<IntrusivePtr<JX_Stuff>> slots;
    for (int i = 0; i < kSlotsPerRenderer; ++i) slots.push_back(render());
    for (int op = 0; op < kRenderOps; ++op) {
      auto& slot = slots[rng() % slots.size()];
      const bool held = slot->Checkout(cf::kReadOnly) == kJX_CheckedOut;
      if (held) {
        auto* payload = PayloadOf(*slot);
        if (!payload->Verify()) violations.fetch_add(1);
        std::this_thread::yield();
        if (!payload->Verify()) violations.fetch_add(1);
        slot->Checkin(0, 0.0);
      }
      // Purged, or no longer wanted: render it again.
      if (!held || rng() % 50 == 0) {
        if (held || rng() % 2) slot->RemoveFromBagAndSortDir();
        slot = render();
      }
    }
  };
  auto host = [&] {
    std::mt19937 rng(seed + 100);
    std::vector<uint64_t> media;
    // The host works as long as the renderers do, so that its purges meet their items however
    // the threads are scheduled; past its first burst it paces itself.
    for (int op = 0; !renderersDone.load(); ++op) {
      if (op >= kHostOps) std::this_thread::sleep_for(std::chrono::microseconds(200));
      const int what = static_cast<int>(rng() % 3);
      if (what == 0) {
        media.push_back(manager->AddHostMedia(1000 + rng() % 4000));
      } else if (what == 1 && !media.empty()) {
        manager->RemoveHostMedia(media[rng() % media.size()]);
      } else if (what == 2) {
        manager->SetBudget(20000 + rng() % 60000);
      }
      std::this_thread::yield();
    }
  };
  auto cachePurger = [&] {
    std::mt19937 rng(seed + 200);
    for (int op = 0; op < kPurgeOps && !renderersDone.load(); ++op) {
      jx::PurgeOverBudget(*bag, 2000 + rng() % 20000);
      std::this_thread::yield();
    }
  };

  // The budget stays tight until the renderers are done: a host thread that ran its course early
  // must not leave the renderers' registrations a pool with no limit, which never purges.
  manager->SetBudget(40000);
  std::vector<std::thread> threads;
  for (int r = 0; r < kRenderers; ++r) threads.emplace_back(renderer, r);
  std::thread hostThread(host), purgeThread(cachePurger);
  for (auto& t : threads) t.join();
  renderersDone.store(true);
  hostThread.join();
  purgeThread.join();
  manager->SetBudget(RV::MediaManager::kUnlimited);

  EXPECT_EQ(violations.load(), 0) << "a checked-out item lost its memory";
  EXPECT_EQ(CheckMediaMapBooks(adapter, *bag), "");
}

// A check-in that moves its item to the young end (renewing its media map entry) must never show
// it out of its bag: the disk writer asks for the bag under the item's lock alone, and dropped the
// queued write of an item it saw out of its bag as if it had left the cache.
TEST_F(MediaMapTest, AnItemMovedToTheYoungEndNeverLooksOutOfItsBag) {
  auto item = AddedItem(*bag_, 100);
  Watchdog watchdog("check-ins beside a reader of the item's bag", std::chrono::seconds(90));
  std::atomic<bool> done{false};
  std::atomic<long> looks{0}, outOfBag{0};
  std::thread reader([&] {
    while (!done.load()) {
      if (!item->GetBag()) outOfBag.fetch_add(1);
      looks.fetch_add(1);
    }
  });
  long checkins = 0;
  while (checkins < 20000 || looks.load() < 100000) {
    ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
    item->Checkin(0, 0.0);
    ++checkins;
  }
  done = true;
  reader.join();
  EXPECT_EQ(outOfBag.load(), 0) << "in " << looks.load() << " looks beside " << checkins
                                << " check-ins";
  SettleDeliveries();
  EXPECT_EQ(adapter_->GetNumEntries(), 1u) << "the entry is renewed, never lost";
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

TEST_F(MediaMapTest, RendersHostPurgesAndCachePurgesTogether) {
  RendersHostPurgesAndCachePurgesTogether(bag_.get(), *adapter_, "renders and purges");
}

// A host that purges inside registrations and calls back under its own lock: the cache never
// calls the manager with its own locks held, so no cycle of locks can close.
TEST_F(MediaMapTest, AHostThatPurgesInsideRegistrationsAndUnderItsOwnLockNeverDeadlocks) {
  auto manager = jx::standalone::MediaManagerPool();
  manager->SetPurgeDuringRegistration(true);
  manager->SetCallbacksUnderHostLock(true);
  RendersHostPurgesAndCachePurgesTogether(bag_.get(), *adapter_, "renders, host under its lock");
  EXPECT_GT(manager->GetPurgesDuringRegistration(), 0u) << "no purge ran inside a registration";
  EXPECT_GT(manager->GetPurgeCallCount(), manager->GetPurgesDuringRegistration())
      << "no purge came back under the host's lock from the host's own thread";
}

// The cycle step by step: the host's purge, under its lock, waits for ours in its callback while
// we, holding ours, mirror a new item; the host hears of it only once we let go.
TEST_F(MediaMapTest, AHostPurgeHoldingItsOwnLockNeverWaitsForAnAddThatWaitsForIt) {
  auto manager = jx::standalone::MediaManagerPool();
  manager->SetCallbacksUnderHostLock(true);
  auto victim = AddedItem(*bag_, 100);
  auto added = MakeItem(200);
  std::thread hostPurge;
  {
    Watchdog watchdog("an add under the library lock while the host purges under its own",
                      std::chrono::seconds(60));
    {
      JXp_ScLock lock;
      hostPurge = std::thread(
          [&] { manager->PurgeEntry(adapter_->GetMediaMapID(), victim->GetMediaMapID()); });
      // The host's purge has reached our callback: it holds the host's lock and waits for ours.
      while (adapter_->GetNumEntries() != 0) std::this_thread::yield();
      bag_->AddToBagAndSortDir(added);
      EXPECT_EQ(manager->GetBytesOfMap(adapter_->GetMediaMapID()), 0u)
          << "the host heard of the new item while the library lock was held";
    }
    hostPurge.join();
  }
  EXPECT_FALSE(victim->IsInMemory());
  EXPECT_EQ(manager->GetBytesOfMap(adapter_->GetMediaMapID()), 200u);
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// A host that calls back into the cache from inside every call the cache makes to its manager
// (under its own lock, purging inside registrations too): it checks items out and in, purges,
// and asks for sizes. Nothing may deadlock, lose a checked-out item's memory or break the books.
TEST_F(MediaMapTest, AHostThatCallsBackIntoTheCacheFromItsManagerCallsNeverDeadlocks) {
  auto manager = jx::standalone::MediaManagerPool();
  manager->SetPurgeDuringRegistration(true);
  manager->SetCallbacksUnderHostLock(true);
  std::atomic<uint64_t> callbacks{0}, checkouts{0};
  std::atomic<int> violations{0};
  JX_Bag* bag = bag_.get();
  manager->SetCallbackHook([&] {
    // One level deep: what the hook itself makes the cache tell the manager runs no hook again.
    thread_local int depth = 0;
    if (depth > 0) return;
    ++depth;
    const uint64_t n = callbacks.fetch_add(1);
    (void)JX_GetMediaMapSize();
    (void)bag->GetNumItems();
    auto items = bag->CopyMruItems();
    if (!items.empty()) {
      auto& item = items[n % items.size()];
      if (item->Checkout(cf::kReadOnly) == kJX_CheckedOut) {
        checkouts.fetch_add(1);
        if (auto* payload = PayloadOf(*item); payload && !payload->Verify())
          violations.fetch_add(1);
        item->Checkin(n % 3 == 0 ? jx::checkin_flags::kKeepRecency : 0, 0.0);
      }
      if (n % 5 == 0) items[(n / 5) % items.size()]->FreeUpAsMuchAsPossible(true, nullptr);
    }
    if (n % 7 == 0) jx::PurgeOverBudget(*bag, 5000);
    --depth;
  });
  RendersHostPurgesAndCachePurgesTogether(bag, *adapter_, "a host calling back from its calls");
  manager->SetCallbackHook(nullptr);
  EXPECT_EQ(violations.load(), 0);
  EXPECT_GT(callbacks.load(), 0u);
  EXPECT_GT(checkouts.load(), 0u);
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// Where the media map is shut down and started again while a delivery to the manager is under
// way: on another thread, while the host holds the delivering thread inside a registration; or by
// the host itself, from inside that registration, after it mirrored a second item.
enum class ShutDownFrom { kAnotherThread, kInsideTheCall };

// The second item's registration is queued behind the call under way, which takes it along. The
// manager must hear nothing of the dead map after its unregistration, and nothing of the old
// items in the new map.
void ShutDownDuringADelivery(JX_Bag& bag, const kq::JX_MediaMapImpl& oldAdapter,
                             ShutDownFrom where) {
  Watchdog watchdog("a shut-down racing a delivery to the manager", std::chrono::seconds(90));
  auto manager = jx::standalone::MediaManagerPool();
  // A host lock around the held call would keep the shut-down on another thread out of the
  // manager until the call ends, hiding the race; from inside the call it is held throughout.
  manager->SetCallbacksUnderHostLock(where == ShutDownFrom::kInsideTheCall);
  const RV::MediaMapID oldMap = oldAdapter.GetMediaMapID();
  auto first = MakeItem(100), second = MakeItem(200);
  auto restart = [] {
    JX_MediaMapDeath();
    JX_MediaMapBirth();
  };
  std::atomic<bool> armed{false};
  std::atomic<int> held{0};
  zelcore::threads::OpenOnceGate entered, release;
  manager->SetCallbackHook([&] {
    if (!armed.exchange(false)) return;
    held.fetch_add(1);
    if (where == ShutDownFrom::kInsideTheCall) {
      bag.AddToBagAndSortDir(second);
      restart();
      return;
    }
    entered.Open();
    if (!release.WaitFor(std::chrono::seconds(30))) ADD_FAILURE() << "never released";
  });

  armed = true;
  if (where == ShutDownFrom::kInsideTheCall) {
    bag.AddToBagAndSortDir(first);
  } else {
    std::thread delivering([&] { bag.AddToBagAndSortDir(first); });
    if (!entered.WaitFor(std::chrono::seconds(30))) {
      release.Open();
      delivering.join();
      FAIL() << "the registration never reached the host";
    }
    bag.AddToBagAndSortDir(second);
    EXPECT_EQ(manager->GetEntryIDsOfMap(oldMap).size(), 1u) << "the second item reached the host";
    const uint64_t posted = jx::mediamap::ManagerOutbox::Posted();
    std::atomic<bool> shutDown{false};
    std::thread shutting([&] {
      restart();
      shutDown = true;
    });
    // Let the shut-down get as far as it goes while the call is held: to its end, or to where it
    // has queued what it has to tell the manager.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!shutDown && jx::mediamap::ManagerOutbox::Posted() == posted &&
           std::chrono::steady_clock::now() < giveUp)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    release.Open();
    delivering.join();
    shutting.join();
  }
  manager->SetCallbackHook(nullptr);
  manager->SetCallbacksUnderHostLock(false);

  EXPECT_EQ(held.load(), 1) << "the host never held a call";
  ASSERT_TRUE(SettleDeliveries());
  EXPECT_EQ(manager->GetEntryIDsOfMap(oldMap), std::vector<uint64_t>{})
      << "the manager holds entries of a map it was told is gone";
  auto adapter = jx::mediamap::CurrentAdapter();
  ASSERT_TRUE(adapter);
  EXPECT_NE(adapter->GetMediaMapID(), oldMap);
  EXPECT_EQ(manager->GetEntryIDsOfMap(adapter->GetMediaMapID()), std::vector<uint64_t>{});
  EXPECT_EQ(adapter->GetNumEntries(), 0u);
}

TEST_F(MediaMapTest, AShutDownOnAnotherThreadLeavesTheManagerNothingOfTheDeadMap) {
  ShutDownDuringADelivery(*bag_, *adapter_, ShutDownFrom::kAnotherThread);
}

TEST_F(MediaMapTest, AShutDownFromInsideAManagerCallLeavesTheManagerNothingOfTheDeadMap) {
  ShutDownDuringADelivery(*bag_, *adapter_, ShutDownFrom::kInsideTheCall);
}

}  // namespace
