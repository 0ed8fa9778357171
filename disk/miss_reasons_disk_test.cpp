// Miss reasons that involve the cache folder: a read back misses for why the payload left memory,
// a key whose file went or was never written misses for that reason.
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>

#include "disk/cache_file_name.h"
#include "disk/disk_test_support.h"
#include "jxcache/disk/performance_counters.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/miss_reasons.h"
#include "jxcache/lifecycle/statistics.h"

namespace cf = jx::checkout_flags;
using jx::testing::TestPayload;
using zelcore::filesupport::File;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr unsigned int kSize = 50000;

class MissReasonsDiskTest : public jx::testing::DiskTest {
 protected:
  void SetUp() override {
    DiskTest::SetUp();
    jx::testing::RegisterTestPayloadFactory();
    JX_ResetStatistics();
  }
  IntrusivePtr<JX_Stuff> AddWrittenItem() {
    auto item = AddDiskCacheableItem(kSize);
    item->PrepAndWrite(bag_);
    EXPECT_TRUE(item->HasDiskCacheFile());
    return item;
  }
  // A render thread's look-up; a created pending item is filled at once.
  static JX_CheckoutResult Look(const Guid& guid) {
    JX_ScCheckout handle;
    const JX_CheckoutResult r =
        handle.FindAndCheckout(jx::testing::MakeRequest(guid), cf::kReadOnly | cf::kCreatePending);
    if (r == kJX_CreatedPending) {
      handle.GetStuffPtr()->SetStuffDataFromPendingRender(
          IntrusivePtr<JX_StuffData>(new TestPayload(kSize, 6, true)), 0.0);
    }
    return r;
  }
  static int64_t Count(JX_MissReason reason) { return JX_GetMissReasonsTotal().byReason[reason]; }
};

TEST_F(MissReasonsDiskTest, AReadBackIsAMissForThePurgeAndADamagedFileForTheFailedRead) {
  auto item = AddWrittenItem();
  bag_->PurgeAllMemoryCaches();
  ASSERT_FALSE(item->IsInMemory());
  EXPECT_EQ(Look(item->GetGuid()), kJX_CheckedOut);  // served by a disk read
  EXPECT_TRUE(item->IsInMemory());
  EXPECT_EQ(Count(kJX_MissMemoryPurge), 1);
  EXPECT_EQ(Look(item->GetGuid()), kJX_CheckedOut);  // in memory now: a hit
  EXPECT_EQ(JX_GetMissReasonsTotal().total, 1);

  // The file is damaged: that look-up is refused, and the next one renders again; both miss
  // because of the failed read.
  auto damaged = AddWrittenItem();
  const File file = damaged->GetDiskCacheFile();
  bag_->PurgeAllMemoryCaches();
  std::filesystem::resize_file(file.GetPath(), kSize / 2);
  EXPECT_EQ(Look(damaged->GetGuid()), kJX_CheckoutRefused);
  EXPECT_EQ(Count(kJX_MissFailedRead), 1);
  EXPECT_EQ(Look(damaged->GetGuid()), kJX_CreatedPending);
  EXPECT_EQ(Count(kJX_MissFailedRead), 2);
  EXPECT_EQ(JX_GetMissReasonsTotal().total, 3);
}

TEST_F(MissReasonsDiskTest, AFileDeletedForTheFolderLimitOrKeptForAnotherVersion) {
  auto item = AddWrittenItem();
  bag_->PurgeAllMemoryCaches();
  // Room for a file larger than the folder holds: everything older than now goes.
  bag_->EnsureDiskSpace(kDefaultMaxDisk, std::numeric_limits<unsigned long long>::max());
  ASSERT_FALSE(item->HasDiskCacheFile());
  EXPECT_EQ(Look(item->GetGuid()), kJX_CreatedPending);
  EXPECT_EQ(Count(kJX_MissFolderLimit), 1);

  const Guid older = Guid::CreateUnique();
  JX_StuffData::Header header;
  TestPayload(kSize, 5).GetHeader(header);
  MakeFile(jx::disk::MakeCacheFileName(older, "TestPayload", bag_->GetAppVersion() + 1,
                                       header.data(), header.size()),
           100);
  bag_->RequestDiskCacheScan();
  bag_->ScanDiskCacheDir();
  EXPECT_EQ(Look(older), kJX_CreatedPending);
  EXPECT_EQ(Count(kJX_MissOtherVersion), 1);
  EXPECT_EQ(JX_GetMissReasonsTotal().total, 2);
}

TEST_F(MissReasonsDiskTest, APayloadTheWriteRuleDeclinedIsNotWorthWritingOncePurged) {
  auto cheap = AddDiskCacheableItem(kSize, 1e-6);
  const auto declined = JX_GetDiskPerformanceCounters().notWorthWriting;
  ASSERT_EQ(cheap->Checkout(0), kJX_CheckedOut);
  cheap->Checkin(0, 1e-6);  // a microsecond for 50 kB: reading it back would not be faster
  ASSERT_EQ(JX_GetDiskPerformanceCounters().notWorthWriting, declined + 1);
  bag_->PurgeAllMemoryCaches();
  EXPECT_EQ(Look(cheap->GetGuid()), kJX_CreatedPending);
  EXPECT_EQ(Count(kJX_MissNotWorthWriting), 1);
  EXPECT_EQ(JX_GetMissReasonsTotal().total, 1);
}

}  // namespace
