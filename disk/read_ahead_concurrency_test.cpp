// Read-ahead while render threads play the frames, a purger frees memory and the playhead moves
// and jumps: every frame served is the right one, nothing stays checked out, nothing hangs.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "disk/disk_test_support.h"
#include "jxcache/bag/bag.h"
#include "jxcache/disk/read_ahead.h"
#include "jxcache/items/sc_checkout.h"

namespace cf = jx::checkout_flags;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

using ReadAheadConcurrencyTest = jx::testing::DiskTest;

TEST_F(ReadAheadConcurrencyTest, PlaybackPurgesAndJumpsTogether) {
  constexpr int kFrames = 64, kSize = 20000;
  jx::testing::RegisterTestPayloadFactory();
  std::vector<Guid> guids;
  std::vector<IntrusivePtr<JX_Stuff>> items;
  for (int i = 0; i < kFrames; ++i) {
    auto item = JX_Stuff::CreateNew(
        IntrusivePtr<JX_StuffData>(new jx::testing::TestPayload(kSize, 1000 + i, true)), 10.0);
    item->SetGuid(Guid::CreateUnique());
    bag_->AddToBagAndSortDir(item);
    item->PrepAndWrite(bag_);
    guids.push_back(item->GetGuid());
    items.push_back(item);
  }
  ASSERT_TRUE(jx::testing::WriterDrained());
  bag_->PurgeAllMemoryCaches();

  JX_ReadAhead readAhead;
  std::atomic<bool> done{false};
  std::atomic<int> served{0}, wrong{0};
  std::atomic<int> next{0}, requests{0};
  // Six laps at least; more, up to a hundred, until the read-ahead has walked once: on a loaded
  // machine its thread may not get a processor before six laps are over.
  auto morePlay = [&](int n) {
    if (n < 6 * kFrames) return true;
    const auto c = readAhead.GetCounters();
    return c.prefetched + c.notInCache == 0 && n < 100 * kFrames;
  };
  auto player = [&] {
    for (int n = next.fetch_add(1); morePlay(n); n = next.fetch_add(1)) {
      ++requests;
      // Forward play with a jump back to the start every lap.
      const int frame = n % kFrames;
      if (n % 7 == 0) {
        std::vector<IntrusivePtr<JX_Stuff>> ahead;
        for (int k = frame + 1; k < std::min(kFrames, frame + 9); ++k)
          ahead.push_back(jx::testing::MakeRequest(guids[k]));
        readAhead.SetPlayhead(jx::testing::MakeRequest(guids[frame]), 1, std::move(ahead));
      }
      JX_ScCheckout handle;
      if (handle.FindAndCheckout(jx::testing::MakeRequest(guids[frame]), cf::kReadOnly) !=
          kJX_CheckedOut)
        continue;  // a failed read is an answer too; none is injected here
      auto* payload = jx::testing::PayloadOf(*handle.GetStuffPtr());
      if (!payload || !payload->Verify() || payload->Seed() != uint32_t(1000 + frame)) ++wrong;
      ++served;
    }
  };
  std::thread purger([&] {
    while (!done.load()) {
      bag_->PurgeAllMemoryCaches();
      std::this_thread::yield();
    }
  });
  std::thread a(player), b(player);
  a.join();
  b.join();
  done = true;
  purger.join();
  ASSERT_TRUE(readAhead.WaitIdle(std::chrono::seconds(30))) << "the read-ahead hung";
  readAhead.Stop();
  const auto c = readAhead.GetCounters();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(served.load(), requests.load());
  EXPECT_GT(c.prefetched + c.notInCache, 0u);  // it did walk
  EXPECT_EQ(c.heldBytes, 0u);
  EXPECT_EQ(c.failedReads, 0u);
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut, 0);
}

}  // namespace
