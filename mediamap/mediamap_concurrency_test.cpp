// The media map under contention: render threads check items out and in (replacing what purges
// took), the host adds media and squeezes its budget so that the manager purges through the
// adapter, and the cache's own purge walk runs at the same time. No checked-out item may lose
// its memory, nothing may deadlock, and at rest the books must agree.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <random>
#include <thread>
#include <vector>

#include "mediamap/mediamap_test_support.h"

namespace cf = jx::checkout_flags;
using jx::testing::CheckMediaMapBooks;
using jx::testing::MakeItem;
using jx::testing::MediaMapTest;
using jx::testing::TestPayload;
using zelcore::utility::IntrusivePtr;

namespace {

// The host picks a checked-out item; before its purge reaches the item, the item is checked in
// and mirrored again. The purge then frees the memory and must take the new entry with it.
TEST_F(MediaMapTest, HostPurgeRacingACheckinLeavesNoStaleEntry) {
  auto item = MakeItem(100);
  bag_->AddToBagAndSortDir(item);
  ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
  std::thread hostPurge;
  {
    JXp_ScLock lock;  // holds the host's purge just before it frees the item
    hostPurge = std::thread([&] {
      RV::GetMediaManager()->PurgeEntry(adapter_->GetMediaMapID(), item->GetMediaMapID());
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

TEST_F(MediaMapTest, RendersHostPurgesAndCachePurgesTogether) {
  constexpr int kRenderers = 3;
  constexpr int kSlotsPerRenderer = 24;
  constexpr int kRenderOps = 3000;
  constexpr int kHostOps = 1000;
  constexpr int kPurgeOps = 400;
  const uint32_t seed = std::getenv("JX_SEED") ? std::atoi(std::getenv("JX_SEED")) : 2024;
  auto manager = RV::GetMediaManager();
  std::atomic<int> violations{0};
  std::atomic<int> replaced{0};
  std::atomic<bool> renderersDone{false};

  auto renderer = [&](int r) {
    std::mt19937 rng(seed + r);
    std::vector<IntrusivePtr<JX_Stuff>> slots;
    for (int i = 0; i < kSlotsPerRenderer; ++i) {
      slots.push_back(MakeItem(500 + rng() % 2000, {}, rng()));
      bag_->AddToBagAndSortDir(slots.back());
    }
    for (int op = 0; op < kRenderOps; ++op) {
      auto& slot = slots[rng() % slots.size()];
      if (slot->Checkout(cf::kReadOnly) == kJX_CheckedOut) {
        auto* payload = static_cast<TestPayload*>(slot->GetDataPtr().get());
        if (!payload->Verify()) violations.fetch_add(1);
        std::this_thread::yield();
        if (!payload->Verify()) violations.fetch_add(1);
        slot->Checkin(0, 0.0);
      } else {  // purged: render it again
        if (rng() % 2) slot->RemoveFromBagAndSortDir();
        slot = MakeItem(500 + rng() % 2000, {}, rng());
        bag_->AddToBagAndSortDir(slot);
        replaced.fetch_add(1);
      }
      if (rng() % 50 == 0) {  // the render is no longer wanted
        slot->RemoveFromBagAndSortDir();
        slot = MakeItem(500 + rng() % 2000, {}, rng());
        bag_->AddToBagAndSortDir(slot);
      }
    }
  };
  auto host = [&] {
    std::mt19937 rng(seed + 100);
    std::vector<uint64_t> media;
    for (int op = 0; op < kHostOps && !renderersDone.load(); ++op) {
      switch (rng() % 3) {
        case 0:
          media.push_back(manager->AddHostMedia(1000 + rng() % 4000));
          break;
        case 1:
          if (!media.empty()) manager->RemoveHostMedia(media[rng() % media.size()]);
          break;
        case 2:
          manager->SetBudget(20000 + rng() % 60000);
          break;
      }
      std::this_thread::yield();
    }
    manager->SetBudget(RV::MediaManager::kUnlimited);
  };
  auto cachePurger = [&] {
    std::mt19937 rng(seed + 200);
    for (int op = 0; op < kPurgeOps && !renderersDone.load(); ++op) {
      jx::PurgeOverBudget(*bag_, 2000 + rng() % 20000);
      std::this_thread::yield();
    }
  };

  // A deadlock must fail the run, not hang it.
  auto run = std::async(std::launch::async, [&] {
    std::vector<std::thread> threads;
    for (int r = 0; r < kRenderers; ++r) threads.emplace_back(renderer, r);
    std::thread hostThread(host);
    std::thread purgeThread(cachePurger);
    for (auto& t : threads) t.join();
    renderersDone.store(true);
    hostThread.join();
    purgeThread.join();
  });
  if (run.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
    std::fprintf(stderr, "media map stress: no progress in 60 s, deadlock?\n");
    std::abort();
  }

  EXPECT_EQ(violations.load(), 0) << "a checked-out item lost its memory";
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
  EXPECT_EQ(JX_GetMediaMapSize(), ManagerBytes());
  std::printf("seed %u: %d render ops x %d, %d replaced, %llu host purges, %llu mirrored bytes\n",
              seed, kRenderOps, kRenderers, replaced.load(),
              static_cast<unsigned long long>(manager->GetPurgeCallCount()),
              static_cast<unsigned long long>(JX_GetMediaMapSize()));
}

}  // namespace
