// What MaybeWriteToDisk decides for one item: which writes it queues (the item itself, a
// compressed copy), and how every offer is counted under the payload's reason.
#include <gtest/gtest.h>

#include <atomic>

#include "common/settings.h"
#include "disk/disk_test_support.h"
#include "disk/write_policy.h"
#include "jxcache/disk/performance_counters.h"
#include "standalone/debug_database.h"

using jx::testing::CompressiblePayload;
using jx::testing::ScQueueLengths;
using jx::testing::TestPayload;
using jx::testing::WriterDrained;
using zelcore::debug::DebugDatabase;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr unsigned kSize = 64 * 1024;

// What one offer added to the counters.
struct Offered {
  uint64_t requests = 0, compressed = 0, refused[6] = {};  // refused[reason], 1..5
};

class WriteDecisionTest : public jx::testing::DiskTest {
 protected:
  IntrusivePtr<JX_Stuff> AddItem(JX_StuffData* payload) {
    return jx::testing::AddNewItem(*bag_, payload, 10.0);
  }
  static Offered Offer(const IntrusivePtr<JX_Stuff>& item) {
    const JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
    item->MaybeWriteToDisk();
    const JX_DiskPerformanceCounters after = JX_GetDiskPerformanceCounters();
    Offered o;
    o.requests = after.normalWriteRequests - before.normalWriteRequests;
    o.compressed = after.compressedWriteRequests - before.compressedWriteRequests;
    for (int r = 1; r <= 5; ++r) {
      o.refused[r] = after.notWrittenForReason[r - 1] - before.notWrittenForReason[r - 1];
    }
    return o;
  }
};

TEST_F(WriteDecisionTest, EveryOfferIsCountedUnderThePayloadsReason) {
  // The payload's own reasons, each to its own counter, once per offer.
  for (int reason = 1; reason <= 5; ++reason) {
    auto item = AddItem(new TestPayload(kSize, 0, /*diskCacheable=*/false));
    item->GetDataPtr()->SetReasonWhyNoDiskCache(reason);
    const Offered o = Offer(item);
    for (int r = 1; r <= 5; ++r) EXPECT_EQ(o.refused[r], r == reason ? 1u : 0u) << reason;
  }

  // The count is taken whatever happened before it: a payload that names a reason of its own
  // and is written all the same is counted under that reason too.
  auto written = AddItem(new TestPayload(kSize, 1, true));
  written->GetDataPtr()->SetReasonWhyNoDiskCache(4);
  Offered o = Offer(written);
  EXPECT_EQ(o.requests, 1u);
  EXPECT_EQ(o.refused[4], 1u);
  ASSERT_TRUE(WriterDrained());
  EXPECT_TRUE(written->HasDiskCacheFile());

  // Worth a file but for the queue: the payload learns that the queue was to blame.
  auto refused = AddItem(new TestPayload(kSize, 2, true));
  {
    ScQueueLengths full(jx::disk::WriteQueueCapacity() + 1, 0);
    o = Offer(refused);
  }
  EXPECT_EQ(refused->GetDataPtr()->GetReasonWhyNoDiskCache(), JX_StuffData::kQueueTooFull);
  EXPECT_EQ(o.refused[3], 1u);
  EXPECT_EQ(o.requests, 0u);
  // Offered again with room: queued, and the stale "queue too full" is forgotten, not counted.
  o = Offer(refused);
  EXPECT_EQ(o.requests, 1u);
  EXPECT_EQ(refused->GetDataPtr()->GetReasonWhyNoDiskCache(), JX_StuffData::kNoReason);
  EXPECT_EQ(o.refused[3], 0u);
  ASSERT_TRUE(WriterDrained());
}

TEST_F(WriteDecisionTest, APlaybackCompressibleItemAlsoGetsACompressedCopyUnderItsGuid) {
  DebugDatabase::Instance().SetEntry("KQ.IsDiskCompressionEnabledR", "true");
  ASSERT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowedForPlayback);
  auto item = AddItem(new CompressiblePayload(kSize, 3));
  const Offered o = Offer(item);
  EXPECT_EQ(o.requests, 1u);
  EXPECT_EQ(o.compressed, 1u);
  ASSERT_TRUE(WriterDrained());

  // The item keeps its own file; the copy is a second item of the same GUID, compressed, with
  // a file of its own.
  EXPECT_TRUE(item->HasDiskCacheFile());
  EXPECT_FALSE(item->GetDataPtr()->IsCompressed());
  const auto items = bag_->CopyMruItems();
  ASSERT_EQ(items.size(), 2u);
  const IntrusivePtr<JX_Stuff> copy = items[0] == item ? items[1] : items[0];
  EXPECT_EQ(copy->GetGuid(), item->GetGuid());
  EXPECT_TRUE(copy->GetDataPtr()->IsCompressed());
  EXPECT_TRUE(copy->HasDiskCacheFile());
  EXPECT_NE(copy->GetDiskCacheFile().GetPath(), item->GetDiskCacheFile().GetPath());
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 2LL * kSize);

  // A copy is never compressed again.
  auto compressed = new CompressiblePayload(kSize, 4);
  compressed->SetIsCompressed(true);
  EXPECT_EQ(Offer(AddItem(compressed)).compressed, 0u);
  ASSERT_TRUE(WriterDrained());
}

TEST_F(WriteDecisionTest, WithoutPlaybackCompressionOneFileIsEnough) {
  DebugDatabase::Instance().SetEntry("KQ.IsDiskCompressionEnabledR", "true");
  DebugDatabase::Instance().SetEntry("KQ.JX.PlaybackCompressionOptionR", "0");
  ASSERT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowed);
  auto item = AddItem(new CompressiblePayload(kSize, 5));
  Offered o = Offer(item);
  EXPECT_EQ(o.requests, 1u);
  EXPECT_EQ(o.compressed, 0u);
  ASSERT_TRUE(WriterDrained());
  EXPECT_TRUE(item->HasDiskCacheFile());
  EXPECT_EQ(bag_->GetNumItems(), 1);

  // Without an uncompressed write the compressed copy is tried instead; when the queue refuses
  // both, the payload is marked as refused for the queue and counted so.
  auto refused = AddItem(new CompressiblePayload(kSize, 6));
  {
    ScQueueLengths full(jx::disk::WriteQueueCapacity() + 1, 0);
    o = Offer(refused);
  }
  EXPECT_EQ(o.requests, 0u);
  EXPECT_EQ(o.compressed, 0u);
  EXPECT_EQ(refused->GetDataPtr()->GetReasonWhyNoDiskCache(), JX_StuffData::kQueueTooFull);
  EXPECT_EQ(o.refused[3], 1u);
}

}  // namespace
