// An item's disk cache file: write, read back, adoption of files found in the folder, and what
// every failure leaves behind (nothing partial, exact size counters, a cache that still works).
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <utility>

#include "disk/cache_file_name.h"
#include "disk/disk_counters.h"
#include "disk/disk_test_support.h"
#include "disk/scan_one_file.h"
#include "jxcache/disk/read_ahead.h"
#include "jxcache/items/sc_checkout.h"
#include "testing/fault_injection.h"

namespace cf = jx::checkout_flags;
using namespace jx::testing;
using zelcore::filesupport::FaultInjection;
using zelcore::filesupport::File;
using zelcore::filesupport::FileOp;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr unsigned int kSize = 100000;

// What a payload's own code may throw: not a code, not a standard exception.
struct PayloadsOwnFault {};

// A payload with hooks: `duringWrite` runs inside its Write; the next Read finds no memory
// (`failNextRead`), or the next Read or Write throws the payload's own exception.
class HookedPayload : public TestPayload {
 public:
  using TestPayload::TestPayload;
  double Write(zelcore::filesupport::OByteStream& out) const override {
    if (duringWrite) duringWrite();
    if (std::exchange(ownFaultNextWrite, false)) {
      ++ownFaultsThrown;
      throw PayloadsOwnFault{};
    }
    return TestPayload::Write(out);
  }
  double Read(zelcore::filesupport::IByteStream& in,
              zelcore::threads::MultiTenantRecursiveMutex& itemMutex) override {
    if (std::exchange(failNextRead, false)) throw std::bad_alloc();
    if (std::exchange(ownFaultNextRead, false)) {
      ++ownFaultsThrown;
      throw PayloadsOwnFault{};
    }
    return TestPayload::Read(in, itemMutex);
  }
  std::function<void()> duringWrite;
  bool failNextRead = false;
  bool ownFaultNextRead = false;
  mutable bool ownFaultNextWrite = false;
  mutable int ownFaultsThrown = 0;
};

class DiskFileTest : public DiskTest {
 protected:
  void SetUp() override {
    DiskTest::SetUp();
    FaultInjection::Reset();
    RegisterTestPayloadFactory();
    dir_ = Folder();
  }
  void TearDown() override {
    FaultInjection::Reset();
    DiskTest::TearDown();
  }

  IntrusivePtr<JX_Stuff> AddItem(TestPayload* payload = nullptr) {
    return AddNewItem(*bag_, payload ? payload : new TestPayload(kSize, 5, true));
  }
  // The item leaves memory but keeps its disk copy.
  void Purge(const IntrusivePtr<JX_Stuff>& item) {
    JX_Stuff::ReleaseQueue queue;
    item->FreeUpAsMuchAsPossible(false, &queue);
    ASSERT_FALSE(item->IsInMemory());
  }
  File WriteAndPurge(const IntrusivePtr<JX_Stuff>& item) {
    item->PrepAndWrite(bag_);
    const File file = item->GetDiskCacheFile();
    Purge(item);
    return file;
  }
  // Checks out the item with `guid` the way a render thread asks for it.
  JX_CheckoutResult Request(const Guid& guid, JX_ScCheckout& handle) {
    return handle.FindAndCheckout(MakeRequest(guid), cf::kReadOnly | cf::kCreatePending);
  }
  void ExpectReadsBack(const Guid& guid, uint32_t seed) {
    JX_ScCheckout handle;
    ASSERT_EQ(Request(guid, handle), kJX_CheckedOut);
    auto* payload = dynamic_cast<TestPayload*>(handle.GetStuffPtr()->GetDataPtr().get());
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->Seed(), seed);
    EXPECT_TRUE(payload->Verify());
  }
  // Nothing half-written in the folder, and the bag counts exactly what is on disk.
  void ExpectFolderConsistent() {
    EXPECT_FALSE(HasTempFiles(dir_));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), SumOfFileSizes(dir_));
  }
  std::string NameFor(const Guid& guid, uint32_t version = 0) {
    JX_StuffData::Header header;
    TestPayload(kSize, 5).GetHeader(header);
    return jx::disk::MakeCacheFileName(guid, "TestPayload",
                                       version ? version : bag_->GetAppVersion(), header.data(),
                                       header.size());
  }

  zelcore::filesupport::Dir dir_;
  jx::disk::Counters& counters_ = jx::disk::GetCounters();
};

TEST_F(DiskFileTest, WritesThePayloadUnderItsNameAndReadsItBack) {
  auto item = AddItem();
  std::vector<std::pair<bool, bool>> fired;
  item->GetMemDiskChangedSignal().Connect(
      [&](bool inMemory, bool onDisk) { fired.emplace_back(inMemory, onDisk); });
  const uint64_t written = counters_.bytesWritten, read = counters_.bytesRead;
  item->PrepAndWrite(bag_);

  ASSERT_TRUE(item->HasDiskCacheFile());
  const File file = item->GetDiskCacheFile();
  EXPECT_EQ(file.GetName(), NameFor(item->GetGuid()));
  EXPECT_EQ(FolderNames(dir_), std::vector<std::string>{file.GetName()});
  // The body is the payload's bytes and nothing else.
  std::ifstream in(file.GetPath(), std::ios::binary);
  std::vector<uint8_t> body{std::istreambuf_iterator<char>(in), {}};
  ASSERT_EQ(body.size(), kSize);
  for (unsigned int i = 0; i < kSize; ++i) ASSERT_EQ(body[i], static_cast<uint8_t>(5 * 131 + i));
  EXPECT_EQ(counters_.bytesWritten - written, kSize);
  EXPECT_EQ(fired, (std::vector<std::pair<bool, bool>>{{true, true}}));
  ExpectFolderConsistent();

  Purge(item);
  ExpectReadsBack(item->GetGuid(), 5);
  EXPECT_EQ(counters_.bytesRead - read, kSize);
  ExpectFolderConsistent();
}

// One file per item, written once: not from inside its own write, not over its file, not where
// another process of this version wrote it (the item adopts that one).
TEST_F(DiskFileTest, WritesEachFileOnlyOnce) {
  auto* payload = new HookedPayload(kSize, 5, true);
  auto item = AddItem(payload);
  uint64_t innerFilesWritten = 0;
  payload->duringWrite = [&] {
    item->PrepAndWrite(bag_);
    innerFilesWritten = counters_.filesWritten;
  };
  const uint64_t filesWritten = counters_.filesWritten, skipped = counters_.writesSkipped;
  item->PrepAndWrite(bag_);
  EXPECT_EQ(innerFilesWritten, filesWritten);
  EXPECT_EQ(counters_.filesWritten, filesWritten + 1);
  EXPECT_EQ(counters_.writesSkipped, skipped + 1);
  payload->duringWrite = nullptr;

  const File file = item->GetDiskCacheFile();
  const auto stamp = std::filesystem::last_write_time(file.GetPath());
  item->PrepAndWrite(bag_);
  EXPECT_EQ(std::filesystem::last_write_time(file.GetPath()), stamp);

  // Another process's file, marked so that a rewrite would show.
  auto other = AddItem();
  const std::string name = NameFor(other->GetGuid());
  MakeFile(name, kSize);
  other->PrepAndWrite(bag_);
  EXPECT_EQ(counters_.filesWritten, filesWritten + 1);
  EXPECT_EQ(other->GetDiskCacheFile().GetName(), name);
  std::ifstream in(dir_.GetFile(name).GetPath(), std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), std::string(kSize, 'x'));
  EXPECT_EQ(bag_->GetNumItems(), 2);
  EXPECT_EQ(FolderNames(dir_).size(), 2u);
  ExpectFolderConsistent();
}

TEST_F(DiskFileTest, ScanAdoptsOnlyFilesOfThisVersionAndKeepsGoing) {
  const uint32_t version = bag_->GetAppVersion();
  // Files that are nearly ours: another version's, and a temporary of an unfinished write.
  const std::vector<std::string> foreign = {NameFor(Guid::CreateUnique(), version + 1),
                                            NameFor(Guid::CreateUnique()) + ".77.1.tmp"};
  for (const auto& name : foreign) MakeFile(name, 100);
  // An item in memory whose file is there but forgotten, as after a restart...
  auto item = AddItem();
  item->PrepAndWrite(bag_);
  const File itemFile = item->GetDiskCacheFile();
  item->ClearDiskCacheFile();
  // ...and a file whose item is gone altogether.
  const Guid diskOnly = Guid::CreateUnique();
  {
    auto other =
        JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new TestPayload(kSize, 9, true)), 0);
    other->SetGuid(diskOnly);
    other->PrepAndWrite(bag_);
  }
  ASSERT_EQ(bag_->GetCurrentDiskCacheSize(), 0);

  const std::vector<std::string> names = FolderNames(dir_);
  ASSERT_EQ(names.size(), foreign.size() + 2);
  for (int pass = 0; pass < 2; ++pass) {  // a second scan changes nothing
    for (const auto& name : names) JX_ScanOneDiskCacheFile(dir_.GetFile(name));
    EXPECT_EQ(bag_->GetNumItems(), 2);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 2 * kSize);
  }
  EXPECT_EQ(item->GetDiskCacheFile(), itemFile);
  for (const auto& name : foreign) EXPECT_TRUE(dir_.GetFile(name).Exists()) << name;
  Purge(item);
  ExpectReadsBack(item->GetGuid(), 5);
  ExpectReadsBack(diskOnly, 9);
}

// The bag counts an item's file in 32 bits: a larger file would be counted short and let the
// folder pass its limit unseen. It is deleted, not adopted.
TEST_F(DiskFileTest, AFileTooLargeToCountIsNotAdopted) {
  for (const bool folderScan : {false, true}) {
    SCOPED_TRACE(folderScan ? "folder scan" : "one file");
    const File file = dir_.GetFile(NameFor(Guid::CreateUnique()));
    std::ofstream(file.GetPath(), std::ios::binary).close();
    std::filesystem::resize_file(file.GetPath(), (uint64_t{1} << 32) + 100);  // sparse
    const int items = bag_->GetNumItems();
    if (folderScan) {
      bag_->RequestDiskCacheScan();
      bag_->ScanDiskCacheDir();
    } else {
      JX_ScanOneDiskCacheFile(file);
    }
    EXPECT_EQ(bag_->GetNumItems(), items) << "adopted";
    EXPECT_FALSE(file.Exists());
    ExpectFolderConsistent();
    if (file.Exists()) std::filesystem::remove(file.GetPath());
  }
}

// The same size reached by a write (here a file grown sparse as it is renamed into place): the
// file is deleted, not linked, and the write fails.
TEST_F(DiskFileTest, AWrittenFileTooLargeToCountIsDeletedAndTheWriteFails) {
  class GrowsCommittedFiles final : public ForwardingFileSystem {
   public:
    int Rename(const char* from, const char* to) override {
      const int result = in_.Rename(from, to);
      if (result == 0 && std::string_view(to).ends_with(".kqcache")) {
        std::filesystem::resize_file(to, (uint64_t{1} << 32) + 100);
        ++grown;
      }
      return result;
    }
    int grown = 0;
  } files;
  auto item = AddItem();
  const uint64_t failed = counters_.failedWrites, written = counters_.filesWritten;
  {
    InstalledFileSystem installed(files);
    item->PrepAndWrite(bag_);
  }
  ASSERT_EQ(files.grown, 1);
  EXPECT_FALSE(item->HasDiskCacheFile());
  EXPECT_EQ(counters_.failedWrites, failed + 1);
  EXPECT_EQ(counters_.filesWritten, written);
  EXPECT_TRUE(FolderNames(Folder()).empty()) << "the file stayed behind";
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
  ExpectFolderConsistent();
}

// Out of memory is a failed read like any other: a damaged header that claims a huge payload
// fails that way on every try, so the file goes too.
TEST_F(DiskFileTest, AFailedReadDeletesTheFileAndTheItemIsRecomputed) {
  using Fault = std::function<void(const File&, HookedPayload&)>;
  const std::pair<const char*, Fault> faults[] = {
      {"cut short",
       [](const File& f, auto&) { std::filesystem::resize_file(f.GetPath(), kSize / 2); }},
      {"emptied", [](const File& f, auto&) { std::filesystem::resize_file(f.GetPath(), 0); }},
      {"read error", [](const File&, auto&) { FaultInjection::FailNth(FileOp::kRead, 1, EIO); }},
      {"open refused",
       [](const File&, auto&) { FaultInjection::FailNth(FileOp::kOpen, 1, EACCES); }},
      {"out of memory", [](const File&, HookedPayload& p) { p.failNextRead = true; }},
      {"payload's own exception", [](const File&, HookedPayload& p) { p.ownFaultNextRead = true; }},
  };
  for (const auto& [what, fault] : faults) {
    SCOPED_TRACE(what);
    auto* payload = new HookedPayload(kSize, 5, true);
    auto item = AddItem(payload);
    const File file = WriteAndPurge(item);
    fault(file, *payload);
    const uint32_t failedReads = counters_.failedReads;
    EXPECT_THROW(item->EnsureInMemory(), int);
    FaultInjection::Reset();
    EXPECT_FALSE(payload->failNextRead || payload->ownFaultNextRead) << "no fault was injected";
    EXPECT_EQ(counters_.failedReads, failedReads + 1);
    EXPECT_FALSE(item->HasDiskCacheFile());
    EXPECT_FALSE(item->IsInMemory());
    EXPECT_FALSE(file.Exists());
    ExpectFolderConsistent();

    // The next request computes the item afresh, and it can be cached again.
    {
      JX_ScCheckout handle;
      ASSERT_EQ(Request(item->GetGuid(), handle), kJX_CreatedPending);
      auto fresh = handle.GetStuffPtr();
      // Compute time 0: the write policy leaves it alone, this test writes it itself.
      fresh->SetStuffDataFromPendingRender(
          IntrusivePtr<JX_StuffData>(new TestPayload(kSize, 6, true)), 0.0);
      handle.Checkin();
      WriteAndPurge(fresh);
    }
    ExpectReadsBack(item->GetGuid(), 6);
    ExpectFolderConsistent();
  }
}

// Every call a write makes that can fail (the last partial unit goes through the page cache: no
// truncation), and the payload's own Write, which may throw anything: the write fails, counted,
// with nothing left behind and no exception let out, and the item can be written later.
TEST_F(DiskFileTest, AFailedWriteLeavesNothingBehindAndTheCacheWorks) {
  std::vector<std::pair<std::string, std::function<void(HookedPayload&)>>> faults = {
      {"payload's own exception", [](HookedPayload& p) { p.ownFaultNextWrite = true; }}};
  for (FileOp op :
       {FileOp::kCreate, FileOp::kOpen, FileOp::kWrite, FileOp::kFlush, FileOp::kRename}) {
    for (bool persistent : {false, true}) {
      faults.emplace_back(
          std::string(zelcore::filesupport::FileOpName(op)) + (persistent ? " persistent" : ""),
          [=](HookedPayload&) { FaultInjection::FailNth(op, 1, EIO, persistent); });
    }
  }
  for (const auto& [what, inject] : faults) {
    SCOPED_TRACE(what);
    auto* payload = new HookedPayload(kSize, 5, true);
    auto item = AddItem(payload);
    const uint64_t failed = counters_.failedWrites;
    inject(*payload);
    try {
      item->PrepAndWrite(bag_);
    } catch (...) {
      ADD_FAILURE() << "an exception left the write";
    }
    EXPECT_GE(FaultInjection::InjectedCount() + payload->ownFaultsThrown, 1u) << "nothing injected";
    FaultInjection::Reset();
    EXPECT_EQ(counters_.failedWrites, failed + 1);
    EXPECT_FALSE(item->HasDiskCacheFile());
    for (const auto& name : FolderNames(dir_)) {
      EXPECT_EQ(name.find(item->GetGuid().AsString()), std::string::npos) << name;
    }
    ExpectFolderConsistent();

    WriteAndPurge(item);
    ExpectReadsBack(item->GetGuid(), 5);
    ExpectFolderConsistent();
  }
}

TEST_F(DiskFileTest, AWriteAfterDiskCachingWentOffWritesNothingAnywhere) {
  // The write was decided on; then the folder became unusable and disk caching went off.
  auto item = AddItem();
  const std::string blocked = tempDir_ + "/blocked", cwd = tempDir_ + "/cwd";
  ASSERT_TRUE(std::filesystem::create_directories(blocked));
  ASSERT_TRUE(std::filesystem::create_directories(cwd));
  std::ofstream(blocked + "/Orvane") << "x";
  bag_->SetDiskCacheInfo(blocked, 1 << 30);
  ASSERT_FALSE(bag_->IsDiskCacheEnabled());
  const auto previous = std::filesystem::current_path();
  std::filesystem::current_path(cwd);
  const uint64_t failed = counters_.failedWrites, skipped = counters_.writesSkipped;
  item->PrepAndWrite(bag_);
  std::filesystem::current_path(previous);
  EXPECT_FALSE(item->HasDiskCacheFile());
  EXPECT_TRUE(std::filesystem::is_empty(cwd)) << "wrote into the working directory";
  EXPECT_EQ(counters_.failedWrites, failed);
  EXPECT_EQ(counters_.writesSkipped, skipped + 1);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
}

// The item is re-keyed under its write (which holds only a read-only check-out). The file it
// commits is named after the old key: kept, a later process adopts it under that key.
TEST_F(DiskFileTest, AnItemReKeyedDuringItsWriteLeavesNoCopyUnderTheOldKey) {
  auto* payload = new HookedPayload(kSize, 5, true);
  auto item = AddItem(payload);
  const Guid oldKey = item->GetGuid(), newKey = Guid::CreateUnique();
  int rekeyed = 0;
  payload->duringWrite = [&] {
    item->UpdateWithNewGuid(newKey);
    ++rekeyed;
  };
  item->PrepAndWrite(bag_);
  payload->duringWrite = nullptr;
  ASSERT_EQ(rekeyed, 1);
  for (const auto& name : FolderNames(dir_)) {
    EXPECT_EQ(name.find(oldKey.AsString()), std::string::npos) << "filed under the old key";
  }
  ExpectFolderConsistent();

  // What a process started later makes of the folder.
  item->ClearDiskCacheFile();
  Purge(item);
  for (const auto& name : FolderNames(dir_)) JX_ScanOneDiskCacheFile(dir_.GetFile(name));
  JX_ScCheckout handle;
  EXPECT_EQ(Request(oldKey, handle), kJX_CreatedPending)
      << "the old key is answered with the payload of the new one";
  if (handle.DidCreateNewPending()) handle.GetStuffPtr()->SetStuffDataFromPendingRender({}, 0.0);
}

TEST_F(DiskFileTest, AnItemRemovedDuringItsWriteLeavesNoFileBehind) {
  auto* payload = new HookedPayload(kSize, 5, true);
  auto item = AddItem(payload);
  int removed = 0;
  payload->duringWrite = [&] {
    JX_ScCheckout handle;
    ASSERT_EQ(handle.Checkout(item, cf::kReadOnly), kJX_CheckedOut);
    handle.Checkin(jx::checkin_flags::kRemove, 0.0);
    ++removed;
  };
  item->PrepAndWrite(bag_);
  payload->duringWrite = nullptr;
  ASSERT_EQ(removed, 1);
  EXPECT_EQ(bag_->GetNumItems(), 0);
  item.reset();
  EXPECT_EQ(FolderNames(dir_), std::vector<std::string>{}) << "a file nobody can find";
  ExpectFolderConsistent();
}

// During the item's write, a scan finds a file of its key under another header: another payload,
// which must not be linked to the item, nor stay in the folder uncounted.
TEST_F(DiskFileTest, AFileOfTheKeyUnderAnotherHeaderFoundDuringTheItemsWriteIsNotTaken) {
  auto* payload = new HookedPayload(kSize, 5, true);
  auto item = AddItem(payload);
  JX_StuffData::Header header;
  TestPayload(kSize, 6).GetHeader(header);
  const File other =
      MakeFile(jx::disk::MakeCacheFileName(item->GetGuid(), "TestPayload", bag_->GetAppVersion(),
                                           header.data(), header.size()),
               kSize / 2);
  ASSERT_NE(other.GetName(), NameFor(item->GetGuid()));
  const uint64_t adopted = counters_.filesAdopted;
  int scans = 0, linkedMidWrite = 0;
  payload->duringWrite = [&] {
    ++scans;
    JX_ScanOneDiskCacheFile(other);
    linkedMidWrite += item->GetDiskCacheFile() == other;
  };
  item->PrepAndWrite(bag_);
  payload->duringWrite = nullptr;
  ASSERT_EQ(scans, 1);
  EXPECT_EQ(linkedMidWrite, 0) << "the item took a file of another payload";
  EXPECT_EQ(counters_.filesAdopted, adopted);
  ASSERT_TRUE(item->HasDiskCacheFile());
  EXPECT_EQ(FolderNames(dir_), std::vector<std::string>{item->GetDiskCacheFile().GetName()})
      << "a file of the key that no item links to";
  ExpectFolderConsistent();
}

// A FIFO named like the item's cache file blocks its reader until a writer comes: it is never
// adopted, never written over, and a read of one fails at once.
TEST_F(DiskFileTest, AFifoWhereACacheFileBelongsIsNeitherAdoptedNorWaitedFor) {
  auto item = AddItem();
  const File fifo(dir_, NameFor(item->GetGuid()));
  ASSERT_EQ(::mkfifo(fifo.GetPath().c_str(), 0600), 0);
  auto outcome = std::async(std::launch::async, [&] {
    item->PrepAndWrite(bag_);  // adopts what stands at its name before writing
    EXPECT_FALSE(item->HasDiskCacheFile()) << "adopted a FIFO";
    JX_ScanOneDiskCacheFile(fifo);
    EXPECT_EQ(bag_->GetNumItems(), 1) << "the scan adopted a FIFO";
    // Linked to it anyway (an older process adopted it, say): the read fails, it never waits.
    auto onDiskOnly = AddItem();
    onDiskOnly->SetDiskCacheFile(fifo, false);
    Purge(onDiskOnly);
    const uint32_t failedReads = counters_.failedReads;
    EXPECT_THROW(onDiskOnly->EnsureInMemory(), int);
    EXPECT_EQ(counters_.failedReads, failedReads + 1);
  });
  if (outcome.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    std::fprintf(stderr, "HANG: a read or write waited on a FIFO\n");
    std::_Exit(3);
  }
  outcome.get();
}

}  // namespace

// An item only on disk whose read back fails keeps nothing, whoever asked for it: it must leave
// the bag and the directory, or stay there for good (no purge walk visits it).
TEST_F(DiskFileTest, AnItemLeftWithNothingByAFailedReadLeavesTheBagAndTheDirectory) {
  struct Asker {
    const char* what;
    std::function<JX_CheckoutResult(const IntrusivePtr<JX_Stuff>&)> ask;
  };
  const Asker askers[] = {
      {"a look-up that only looks",
       [](const IntrusivePtr<JX_Stuff>& item) {
         JX_ScCheckout handle;
         return handle.FindAndCheckout(MakeRequest(item->GetGuid()), cf::kReadOnly);
       }},
      {"a writeable look-up",
       [](const IntrusivePtr<JX_Stuff>& item) {
         JX_ScCheckout handle;
         return handle.FindAndCheckout(MakeRequest(item->GetGuid()), 0);
       }},
      {"the item's own check-out",
       [](const IntrusivePtr<JX_Stuff>& item) {
         JX_ScCheckout handle;
         return handle.Checkout(item, cf::kReadOnly);
       }},
      {"a read ahead of the playhead",
       [](const IntrusivePtr<JX_Stuff>& item) {
         JX_ReadAhead readAhead;
         readAhead.SetPlayhead(MakeRequest(item->GetGuid()), 1, {});
         EXPECT_TRUE(readAhead.WaitIdle(std::chrono::seconds(30)));
         readAhead.Stop();
         return readAhead.GetCounters().failedReads == 1 ? kJX_CheckoutRefused : kJX_CheckedOut;
       }},
  };
  for (const Asker& asker : askers) {
    SCOPED_TRACE(asker.what);
    auto kept = AddItem();  // a neighbour that stays
    auto item = AddItem();
    const File file = WriteAndPurge(item);
    std::filesystem::resize_file(file.GetPath(), kSize / 2);
    const int items = bag_->GetNumItems();
    const int filed = bag_->GetNumGuidSortedItems();
    const uint32_t failedReads = counters_.failedReads;
    EXPECT_EQ(asker.ask(item), kJX_CheckoutRefused);
    ASSERT_EQ(counters_.failedReads, failedReads + 1) << "the read did not fail";
    EXPECT_FALSE(item->IsInMemory());
    EXPECT_FALSE(item->HasDiskCacheFile());
    EXPECT_EQ(item->GetCheckoutCount(), 0u);
    EXPECT_FALSE(item->GetBag()) << "an item with nothing stays in the bag";
    EXPECT_FALSE(item->IsInSortDir()) << "an item with nothing stays in the directory";
    EXPECT_EQ(bag_->GetNumItems(), items - 1);
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), filed - 1);
    EXPECT_TRUE(kept->GetBag());
    ExpectFolderConsistent();
    bag_->ClearBagAndSortDir();
  }
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut, 0);
}

// Re-keying an item only on disk drops that copy (filed under the old key): left with nothing, it
// leaves the bag and the directory, now or at the check-in that leaves it idle.
TEST_F(DiskFileTest, AnItemReKeyedWhileOnlyOnDiskLeavesTheBagOnceIdle) {
  auto idle = AddItem();
  WriteAndPurge(idle);
  const int items = bag_->GetNumItems();
  idle->UpdateWithNewGuid(Guid::CreateUnique());
  EXPECT_FALSE(idle->HasDiskCacheFile());
  EXPECT_FALSE(idle->GetBag()) << "an item with nothing stays in the bag";
  EXPECT_FALSE(idle->IsInSortDir()) << "an item with nothing stays in the directory";
  EXPECT_EQ(bag_->GetNumItems(), items - 1);

  auto held = AddItem();
  WriteAndPurge(held);
  ASSERT_EQ(held->Checkout(cf::kReadOnly | cf::kNoDiskRead), kJX_CheckedOut);
  held->UpdateWithNewGuid(Guid::CreateUnique());
  EXPECT_TRUE(held->GetBag()) << "taken out from under its holder";
  held->Checkin(0, 0.0);
  EXPECT_FALSE(held->GetBag());
  EXPECT_FALSE(held->IsInSortDir());

  ExpectFolderConsistent();
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut, 0);
}

// Re-keying, and a writeable check-in inside CheckinAndCheckout, drop the disk copy and tell the
// host's handler, which may wait for a thread of its own that takes the library lock.
TEST_F(DiskFileTest, ADroppedDiskCopyTellsTheChangeHandlerWithNoLockHeld) {
  const std::pair<const char*, std::function<void(const IntrusivePtr<JX_Stuff>&)>> drops[] = {
      {"re-keyed", [](const auto& item) { item->UpdateWithNewGuid(Guid::CreateUnique()); }},
      {"written to, checked in and out again",
       [](const auto& item) {
         ASSERT_EQ(item->Checkout(0), kJX_CheckedOut);
         ASSERT_EQ(item->CheckinAndCheckout(jx::checkin_flags::kKeepRecency, 0.0, cf::kReadOnly),
                   kJX_CheckedOut);
         item->Checkin(jx::checkin_flags::kKeepRecency, 0.0);
       }},
  };
  for (const auto& [what, drop] : drops) {
    SCOPED_TRACE(what);
    auto item = AddItem();
    item->PrepAndWrite(bag_);
    ASSERT_TRUE(item->HasDiskCacheFile());
    HostThreadWatch host;
    JX_Bag* const bag = bag_.get();
    item->GetMemDiskChangedSignal().Connect([&](bool, bool onDisk) {
      EXPECT_FALSE(onDisk);
      host.Called([bag] { bag->GetNumItems(); });  // takes the library lock
    });
    drop(item);
    EXPECT_EQ(host.Calls(), 1);
    EXPECT_EQ(host.UnderLibraryLock(), 0) << "the handler ran under the library lock";
    EXPECT_EQ(host.Stuck(), 0) << "the handler's helper waited for the lock held around it";
    ASSERT_TRUE(host.AllAnswered());
    EXPECT_FALSE(item->HasDiskCacheFile());
    ExpectFolderConsistent();
  }
  EXPECT_EQ(JX_GetStuffCounters().itemsCheckedOut, 0);
}

// The first of two handlers purges the payload on hearing of a write or deletion: the second
// hears the purge before the change, and must still be left with the item's state as it is.
TEST_F(DiskFileTest, EveryHandlerIsLeftWithTheItemsStateWhenAnotherHandlerChangesIt) {
  const std::pair<const char*, bool> changes[] = {{"written", true}, {"file deleted", false}};
  for (const auto& change : changes) {
    SCOPED_TRACE(change.first);
    const bool write = change.second;  // a plain local: the handler below captures it
    auto item = AddItem();
    if (!write) item->PrepAndWrite(bag_);
    auto& signal = item->GetMemDiskChangedSignal();
    int purges = 0, heard = 0;
    std::pair<bool, bool> last;
    signal.Connect([&](bool inMemory, bool onDisk) {  // by reference: the item holds the handler
      if (inMemory && onDisk == write && purges == 0) {
        ++purges;
        Purge(item);
      }
    });
    signal.Connect([&](bool inMemory, bool onDisk) {
      ++heard;
      last = {inMemory, onDisk};
    });
    if (write) {
      item->PrepAndWrite(bag_);
    } else {
      item->DeleteDiskCacheFile();
    }
    ASSERT_EQ(purges, 1);
    EXPECT_GE(heard, 2);
    EXPECT_FALSE(item->IsInMemory());
    EXPECT_EQ(last, std::make_pair(item->IsInMemory(), item->HasDiskCacheFile()));
  }
}
