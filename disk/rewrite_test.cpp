// An item's disk copy when the item changes under it (rewritten, re-keyed, out of the directory
// during a scan): never read back for what the item holds now, never standing for two items.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>

#include "disk/claimed_file.h"
#include "disk/disk_test_support.h"
#include "disk/scan_one_file.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/items/sc_checkout.h"
#include "standalone/debug_database.h"
#include "testing/fault_injection.h"

namespace cf = jx::checkout_flags;
using jx::testing::CompressiblePayload;
using jx::testing::TestPayload;
using zelcore::debug::DebugDatabase;
using zelcore::filesupport::File;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

// The second half of a search, which runs once the library lock is released.
struct JX_BagTestAccess {
  static bool FinishCheckout(JX_Stuff& match, int flags) {
    return JX_Bag::FinishCheckoutOfMatch(match, flags, /*matchWasPending=*/false);
  }
};

namespace {

constexpr unsigned int kSize = 50000;
constexpr uint32_t kOldSeed = 7, kNewSeed = 8;
constexpr double kWorthWriting = 10.0;  // seconds of compute: any disk is faster

class RewriteTest : public jx::testing::DiskTest {
 protected:
  void SetUp() override {
    DiskTest::SetUp();
    jx::testing::RegisterTestPayloadFactory();
  }
  void TearDown() override {
    TestPayload::OnRelease() = nullptr;
    CompressiblePayload::duringCompressedWrite = nullptr;
    DebugDatabase::Instance().RemoveEntry("KQ.IsDiskCompressionEnabledR");
    DiskTest::TearDown();
  }

  // An item in the bag whose payload (seed kOldSeed) is on disk.
  IntrusivePtr<JX_Stuff> WrittenItem() {
    auto item = AddDiskCacheableItem(kSize);
    EXPECT_TRUE(jx::testing::WriteToDisk(bag_, item));
    return item;
  }
  // An item whose writes also make a compressed copy: a second item of the same key.
  IntrusivePtr<JX_Stuff> CompressibleItem() {
    DebugDatabase::Instance().SetEntry("KQ.IsDiskCompressionEnabledR", "true");
    return jx::testing::AddNewItem(*bag_, new CompressiblePayload(kSize, kOldSeed), kWorthWriting);
  }
  // Gives the item the payload of kNewSeed through a writeable check-out.
  static void Rewrite(const IntrusivePtr<JX_Stuff>& item, double computeTime) {
    JX_ScCheckout handle;
    ASSERT_EQ(handle.Checkout(item, 0), kJX_CheckedOut);  // writeable, not converted
    jx::testing::PayloadOf(*item)->Rewrite(kNewSeed);
    handle.Checkin(0, computeTime);
  }
  void ScanFolder() {
    for (const auto& name : jx::testing::FolderNames(Folder()))
      JX_ScanOneDiskCacheFile(Folder().GetFile(name));
  }
  // Frees the item's memory as a purge does; an item left with nothing leaves the bag.
  void Purge(const IntrusivePtr<JX_Stuff>& item) {
    ASSERT_TRUE(jx::testing::WriterDrained());
    JX_Stuff::ReleaseQueue queue;
    EXPECT_GT(item->FreeUpAsMuchAsPossible(false, &queue), 0u);
  }
  // What a render thread asking for `guid` gets: the seed of the payload it was served (checked
  // byte for byte), or -1 when nothing was cached and it would render.
  long Served(const Guid& guid, JX_CompressedAllowedOption option = kJX_CompressionNotAllowed) {
    JX_ScCheckout handle;
    const auto result = handle.FindAndCheckout(jx::testing::MakeRequest(guid, 0, option),
                                               cf::kReadOnly | cf::kCreatePending);
    if (result == kJX_CreatedPending) {
      handle.GetStuffPtr()->SetStuffDataFromPendingRender({}, 0.0);  // abandon: leave no trace
      return -1;
    }
    EXPECT_EQ(result, kJX_CheckedOut);
    auto* payload = jx::testing::PayloadOf(*handle.GetStuffPtr());
    if (!payload) return -2;
    EXPECT_TRUE(payload->Verify()) << "served bytes that are not its seed's";
    return payload->Verify() ? static_cast<long>(payload->Seed()) : -3;
  }
  void ExpectFolderMatchesBag() {
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), jx::testing::SumOfFileSizes(Folder()));
  }
};

TEST_F(RewriteTest, APayloadRewrittenThroughAWriteableCheckoutIsNeverReadBackOld) {
  for (double computeTime : {0.0, kWorthWriting}) {
    SCOPED_TRACE(computeTime == 0.0 ? "not worth writing again" : "worth writing again");
    auto item = WrittenItem();
    const File old = item->GetDiskCacheFile();
    Rewrite(item, computeTime);
    ASSERT_TRUE(jx::testing::WriterDrained());
    EXPECT_FALSE(old.Exists()) << "the old payload's copy is still in the folder";
    if (computeTime > 0.0) {
      EXPECT_TRUE(item->HasDiskCacheFile()) << "the new payload was not written again";
      EXPECT_TRUE(item->WasTaggedToWriteToDisk());
    } else {
      EXPECT_FALSE(item->HasDiskCacheFile());
    }
    ExpectFolderMatchesBag();

    Purge(item);
    const long served = Served(item->GetGuid());
    EXPECT_NE(served, long{kOldSeed}) << "served the payload as it was before the write";
    EXPECT_EQ(served, computeTime > 0.0 ? long{kNewSeed} : -1);
    ExpectFolderMatchesBag();
  }
}

// The writer also keeps a compressed copy of a playback frame: a second item of the same key.
// It holds the payload as it was when written, like the item's own file, and requests that take
// compressed frames find it.
TEST_F(RewriteTest, ARewrittenOrReKeyedItemLeavesNoCompressedCopyOfTheOldPayload) {
  for (bool rekey : {false, true}) {
    SCOPED_TRACE(rekey ? "re-keyed" : "rewritten through a writeable check-out");
    auto item = CompressibleItem();
    const Guid key = item->GetGuid();
    const int before = bag_->GetNumItems();
    item->MaybeWriteToDisk();
    ASSERT_TRUE(jx::testing::WriterDrained());
    ASSERT_EQ(bag_->GetNumItems(), before + 1) << "no compressed copy was made";
    // Without its file the copy is held by the bag alone (a file's deletion would hold it until
    // the lock is released). Its payload goes with it, and like all memory, after the lock.
    bag_->PurgeAllDiskCaches();
    ASSERT_EQ(bag_->GetNumItems(), before + 1) << "the copy left memory with its file";
    int released = 0, releasedUnderLock = 0;
    TestPayload::OnRelease() = [&] {
      ++released;
      releasedUnderLock += JXp_ScLock::IsLockedByCurrentThread();
    };
    if (rekey) {
      item->UpdateWithNewGuid(Guid::CreateUnique());
    } else {
      Rewrite(item, 0.0);  // not worth writing again
    }
    TestPayload::OnRelease() = nullptr;
    EXPECT_EQ(released, 1) << "the compressed copy's payload is still held";
    EXPECT_EQ(releasedUnderLock, 0);
    Purge(item);

    const long served = Served(key, kJX_CompressionAllowed);
    if (rekey) {
      EXPECT_EQ(served, -1) << "the old key still finds the item's payload";
    } else if (served != -1) {
      EXPECT_EQ(served, long{kNewSeed}) << "served the payload as it was before the rewrite";
    }
    ExpectFolderMatchesBag();
  }
}

// Re-keyed while the disk thread writes the compressed copy: the copy joins the bag only after
// its file is written, under the key it was made for.
TEST_F(RewriteTest, AnItemReKeyedWhileItsCompressedCopyIsWrittenLeavesNoCopyUnderTheOldKey) {
  auto item = CompressibleItem();
  const Guid oldKey = item->GetGuid();
  std::atomic<int> rekeyed{0};
  CompressiblePayload::duringCompressedWrite = [&] {
    if (rekeyed++ == 0) item->UpdateWithNewGuid(Guid::CreateUnique());
  };
  item->MaybeWriteToDisk();
  ASSERT_TRUE(jx::testing::WriterDrained());
  ASSERT_EQ(rekeyed, 1) << "no compressed copy was written";
  Purge(item);

  EXPECT_EQ(Served(oldKey, kJX_CompressionAllowed), -1)
      << "the old key still finds the item's payload";
  for (const auto& name : jx::testing::FolderNames(Folder())) {
    EXPECT_EQ(name.find(oldKey.AsString()), std::string::npos) << "filed under the old key";
  }
  ExpectFolderMatchesBag();
}

TEST_F(RewriteTest, AReKeyedItemLeavesNoCopyUnderItsOldKey) {
  for (bool writeable : {false, true}) {
    SCOPED_TRACE(writeable ? "re-keyed while checked out writeable" : "re-keyed in place");
    auto item = WrittenItem();
    const Guid oldKey = item->GetGuid(), newKey = Guid::CreateUnique();
    const File old = item->GetDiskCacheFile();
    {
      JX_ScCheckout handle;
      if (writeable) {
        ASSERT_EQ(handle.Checkout(item, 0), kJX_CheckedOut);
      }
      item->UpdateWithNewGuid(newKey);
    }
    EXPECT_FALSE(old.Exists());
    EXPECT_FALSE(item->HasDiskCacheFile());
    ExpectFolderMatchesBag();
    EXPECT_EQ(Served(newKey), long{kOldSeed}) << "the payload itself is still good";
    Purge(item);
    EXPECT_EQ(Served(oldKey), -1) << "the old key still finds the item's payload";
    EXPECT_EQ(Served(newKey), -1) << "read back from a file filed under the old key";
  }
}

TEST_F(RewriteTest, AScanWhileTheItemIsOutOfTheDirectoryDoesNotAdoptItsFile) {
  for (bool rekeyed : {false, true}) {
    SCOPED_TRACE(rekeyed ? "and re-keyed" : "checked out writeable");
    auto item = WrittenItem();
    const File file = item->GetDiskCacheFile();
    const int items = bag_->GetNumItems();
    const uint64_t adopted = jx::disk::GetCounters().filesAdopted;
    JX_ScCheckout writer;
    ASSERT_EQ(writer.Checkout(item, 0), kJX_CheckedOut);  // out of the directory meanwhile
    if (rekeyed) {
      // Re-keying lets go of the copy; hand the item a file under its new key as a scan would
      // see it, written by another process of this version.
      item->UpdateWithNewGuid(Guid::CreateUnique());
      ASSERT_FALSE(file.Exists());
      item->PrepAndWrite(bag_);
      ASSERT_TRUE(item->HasDiskCacheFile());
    }
    ScanFolder();
    EXPECT_EQ(bag_->GetNumItems(), items) << "the scan made a second item of an owned file";
    EXPECT_EQ(jx::disk::GetCounters().filesAdopted, adopted);
    ExpectFolderMatchesBag();
    writer.Checkin();
    EXPECT_EQ(bag_->GetNumItems(), items);
    ExpectFolderMatchesBag();
  }
}

// The old payload's copy of a rewritten item may stay in the folder when its deletion fails. A
// folder scan then finds a file of the item's key, written under another header: the payload it
// holds is not the one the item holds, and must never be read back into it.
TEST_F(RewriteTest, AStaleCopyLeftByAFailedDeletionIsNeverReadBackIntoTheRewrittenItem) {
  using zelcore::filesupport::FaultInjection;
  auto item = WrittenItem();
  const File old = item->GetDiskCacheFile();
  FaultInjection::FailNth(zelcore::filesupport::FileOp::kDelete, 1, EIO);
  Rewrite(item, 0.0);  // not worth writing again
  const uint64_t injected = FaultInjection::InjectedCount();
  FaultInjection::Reset();
  ASSERT_EQ(injected, 1u);
  ASSERT_TRUE(old.Exists()) << "the deletion did not fail";
  ASSERT_FALSE(item->HasDiskCacheFile());
  ScanFolder();
  EXPECT_FALSE(item->HasDiskCacheFile()) << "the item took the old payload's copy";
  ExpectFolderMatchesBag();
  Purge(item);
  const long served = Served(item->GetGuid());
  EXPECT_NE(served, long{kOldSeed}) << "served the payload as it was before the rewrite";
  EXPECT_EQ(served, -1);
}

// A file pinned by a reader outlives its item's departure from the bag (replaced by a new render
// of the key, or checked in for removal) only as long as the pin: the bag no longer counts it, and
// nothing else would ever delete it.
TEST_F(RewriteTest, AFilePinnedWhenItsItemLeftTheBagGoesWithTheLastPin) {
  for (const bool replaced : {true, false}) {
    SCOPED_TRACE(replaced ? "replaced by a new render" : "checked in for removal");
    auto item = WrittenItem();
    const File file = item->GetDiskCacheFile();
    auto pin = item->CheckoutDiskCache();
    ASSERT_TRUE(pin);
    if (replaced) {
      bag_->AddToBagAndSortDir(jx::testing::MakeItem(kSize, item->GetGuid(), kNewSeed));
    } else {
      ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
      item->Checkin(jx::checkin_flags::kRemove, 0.0);
    }
    ASSERT_FALSE(item->GetBag());
    EXPECT_TRUE(file.Exists()) << "deleted under its pin";
    pin.reset();
    EXPECT_FALSE(file.Exists()) << "left in the folder with nothing counting it";
    ExpectFolderMatchesBag();
  }
}

// A search checks an item out on disk only and reads it back once the library lock is released.
// A new render of the key may replace the item in between, and its file goes with it: the search
// must then come back empty, never with a payload that has no pixels.
TEST_F(RewriteTest, AnItemReplacedBetweenItsCheckoutAndItsReadBackIsNotServedEmpty) {
  for (const int flags : {cf::kReadOnly, cf::kReadOnly | cf::kAcceptNotInMemory}) {
    SCOPED_TRACE(flags);
    auto item = WrittenItem();
    Purge(item);
    ASSERT_FALSE(item->IsInMemory());
    // The search's first half, under the library lock: checked out, the payload left on disk.
    ASSERT_EQ(item->Checkout(flags | cf::kNoDiskRead), kJX_CheckedOut);
    // A new render replaces it; the replaced item's file goes once the library lock is released.
    bag_->AddToBagAndSortDir(jx::testing::MakeItem(kSize, item->GetGuid(), kNewSeed));
    ASSERT_FALSE(item->HasDiskCacheFile()) << "the replaced item kept its file";
    const bool served = JX_BagTestAccess::FinishCheckout(*item, flags);
    if (flags & cf::kAcceptNotInMemory) {
      EXPECT_TRUE(served) << "a caller that takes an item as it stands gets it so";
      item->Checkin(0, 0.0);
    } else {
      EXPECT_FALSE(served) << "served an item with nothing in memory and nothing on disk";
      EXPECT_EQ(item->GetCheckoutCount(), 0u) << "the refused check-out was not undone";
    }
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
    // What the key serves now is the new render.
    EXPECT_EQ(Served(item->GetGuid()), static_cast<long>(kNewSeed));
  }
}

}  // namespace
