// What MaybeWriteToDisk decides for one item: which writes it queues (the item itself, a
// compressed copy), and how every offer is counted under the payload's reason.
#include <gtest/gtest.h>

#include <atomic>

#include "disk/disk_test_support.h"
#include "disk/performance_counters.h"
#include "disk/write_policy.h"
#include "host/debug_database.h"
#include "lifecycle/settings.h"

using jx::testing::ScQueueLengths;
using jx::testing::TestPayload;
using zelcore::debug::DebugDatabase;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr unsigned kSize = 64 * 1024;

// A payload that allows compression. Its compressed copy carries one more header byte, so the
// two files of one item have different names.
class CompressiblePayload : public TestPayload {
 public:
  explicit CompressiblePayload(unsigned size, uint32_t seed) : TestPayload(size, seed, true) {}
  JX_CompressedAllowedOption GetCompressedAllowedOption() const override {
    return kJX_CompressionAllowed;
  }
  bool IsCompressed() const override { return compressed_; }
  void SetIsCompressed(bool compressed) override { compressed_ = compressed; }
  IntrusivePtr<JX_StuffData> CreateCloneForCompression() const override {
    return IntrusivePtr<JX_StuffData>(new CompressiblePayload(GetApproximateMemorySize(), Seed()));
  }
  void GetHeader(Header& header) const override {
    TestPayload::GetHeader(header);
    if (compressed_) header.push_back(1);
  }

 private:
  std::atomic<bool> compressed_{false};
};

class WriteDecisionTest : public jx::testing::DiskTest {
 protected:
  IntrusivePtr<JX_Stuff> AddItem(JX_StuffData* payload, double computeTime = 10.0) {
    auto item = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(payload), computeTime);
    item->SetGuid(zelcore::utility::Guid::CreateUnique());
    bag_->AddToBagAndSortDir(item);
    return item;
  }
  static uint64_t Refusals(const JX_DiskPerformanceCounters& c, int reason) {
    return c.notWrittenForReason[reason - 1];
  }
};

TEST_F(WriteDecisionTest, EveryOfferIsCountedUnderThePayloadsReason) {
  // The payload's own reasons, each to its own counter, once per offer.
  for (int reason = 1; reason <= 5; ++reason) {
    auto item = AddItem(new TestPayload(kSize, 0, /*diskCacheable=*/false));
    item->GetDataPtr()->SetReasonWhyNoDiskCache(reason);
    const JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
    item->MaybeWriteToDisk();
    const JX_DiskPerformanceCounters after = JX_GetDiskPerformanceCounters();
    for (int r = 1; r <= 5; ++r) {
      EXPECT_EQ(Refusals(after, r), Refusals(before, r) + (r == reason ? 1 : 0)) << reason;
    }
  }

  // The count is taken whatever happened before it: a payload that names a reason of its own
  // and is written all the same is counted under that reason too.
  auto written = AddItem(new TestPayload(kSize, 1, true));
  written->GetDataPtr()->SetReasonWhyNoDiskCache(4);
  JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
  written->MaybeWriteToDisk();
  JX_DiskPerformanceCounters after = JX_GetDiskPerformanceCounters();
  EXPECT_EQ(after.normalWriteRequests, before.normalWriteRequests + 1);
  EXPECT_EQ(Refusals(after, 4), Refusals(before, 4) + 1);
  ASSERT_TRUE(jx::testing::WriterDrained());
  EXPECT_TRUE(written->HasDiskCacheFile());

  // Worth a file but for the queue: the payload learns that the queue was to blame.
  auto refused = AddItem(new TestPayload(kSize, 2, true));
  {
    ScQueueLengths full(jx::disk::WriteQueueCapacity() + 1, 0);
    before = JX_GetDiskPerformanceCounters();
    refused->MaybeWriteToDisk();
    after = JX_GetDiskPerformanceCounters();
  }
  EXPECT_EQ(refused->GetDataPtr()->GetReasonWhyNoDiskCache(), JX_StuffData::kQueueTooFull);
  EXPECT_EQ(Refusals(after, 3), Refusals(before, 3) + 1);
  EXPECT_EQ(after.normalWriteRequests, before.normalWriteRequests);
  // Offered again with room: queued, and the stale "queue too full" is forgotten, not counted.
  before = JX_GetDiskPerformanceCounters();
  refused->MaybeWriteToDisk();
  after = JX_GetDiskPerformanceCounters();
  EXPECT_EQ(after.normalWriteRequests, before.normalWriteRequests + 1);
  EXPECT_EQ(refused->GetDataPtr()->GetReasonWhyNoDiskCache(), JX_StuffData::kNoReason);
  EXPECT_EQ(Refusals(after, 3), Refusals(before, 3));
  ASSERT_TRUE(jx::testing::WriterDrained());
}

TEST_F(WriteDecisionTest, APlaybackCompressibleItemAlsoGetsACompressedCopyUnderItsGuid) {
  DebugDatabase::Instance().SetEntry("KQ.IsDiskCompressionEnabledR", "true");
  ASSERT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowedForPlayback);
  const JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
  auto item = AddItem(new CompressiblePayload(kSize, 3));
  item->MaybeWriteToDisk();
  const JX_DiskPerformanceCounters after = JX_GetDiskPerformanceCounters();
  EXPECT_EQ(after.normalWriteRequests, before.normalWriteRequests + 1);
  EXPECT_EQ(after.compressedWriteRequests, before.compressedWriteRequests + 1);
  ASSERT_TRUE(jx::testing::WriterDrained());

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
  auto already = AddItem(compressed);
  const JX_DiskPerformanceCounters later = JX_GetDiskPerformanceCounters();
  already->MaybeWriteToDisk();
  EXPECT_EQ(JX_GetDiskPerformanceCounters().compressedWriteRequests, later.compressedWriteRequests);
  ASSERT_TRUE(jx::testing::WriterDrained());
}

TEST_F(WriteDecisionTest, WithoutPlaybackCompressionOneFileIsEnough) {
  DebugDatabase::Instance().SetEntry("KQ.IsDiskCompressionEnabledR", "true");
  DebugDatabase::Instance().SetEntry("KQ.JX.PlaybackCompressionOptionR", "0");
  ASSERT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowed);
  JX_DiskPerformanceCounters before = JX_GetDiskPerformanceCounters();
  auto item = AddItem(new CompressiblePayload(kSize, 5));
  item->MaybeWriteToDisk();
  JX_DiskPerformanceCounters after = JX_GetDiskPerformanceCounters();
  EXPECT_EQ(after.normalWriteRequests, before.normalWriteRequests + 1);
  EXPECT_EQ(after.compressedWriteRequests, before.compressedWriteRequests);
  ASSERT_TRUE(jx::testing::WriterDrained());
  EXPECT_TRUE(item->HasDiskCacheFile());
  EXPECT_EQ(bag_->GetNumItems(), 1);

  // Without an uncompressed write the compressed copy is tried instead; when the queue refuses
  // both, the payload is marked as refused for the queue and counted so.
  auto refused = AddItem(new CompressiblePayload(kSize, 6));
  {
    ScQueueLengths full(jx::disk::WriteQueueCapacity() + 1, 0);
    before = JX_GetDiskPerformanceCounters();
    refused->MaybeWriteToDisk();
    after = JX_GetDiskPerformanceCounters();
  }
  EXPECT_EQ(after.normalWriteRequests, before.normalWriteRequests);
  EXPECT_EQ(after.compressedWriteRequests, before.compressedWriteRequests);
  EXPECT_EQ(refused->GetDataPtr()->GetReasonWhyNoDiskCache(), JX_StuffData::kQueueTooFull);
  EXPECT_EQ(Refusals(after, 3), Refusals(before, 3) + 1);
}

}  // namespace
