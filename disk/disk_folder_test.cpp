// The disk cache folder: where it lies, the warnings when it cannot be used, the additional
// settings, the room it may take (EnsureDiskSpace), the folder scan and the folder purge.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <string_view>
#include <thread>
#include <vector>

#include "disk/cache_file_name.h"
#include "disk/disk_folder.h"
#include "disk/disk_speed.h"
#include "disk/disk_test_support.h"
#include "host/file_utils.h"
#include "jxcache/host/host_services.h"
#include "jxcache/items/sc_checkout.h"
#include "standalone/standalone_host.h"

namespace cf = jx::checkout_flags;
namespace prefs = zelappsupport::preferences;
using jx::HostReport;
using jx::StandaloneHost;
using zelcore::filesupport::File;
using zelcore::utility::FileUtils;
using zelcore::utility::Guid;

namespace {

constexpr const char* kNonexistentText = "Disk Cache folder doesn't exist";
constexpr const char* kCantWriteText = "Unable to write to Disk Cache folder";

size_t Reports(const char* text) {
  return StandaloneHost::Instance().CountReports(HostReport::Kind::kError, text);
}

std::string ExpectedFolder(const std::string& root) {
  return root + "/Orvane/Plexmotion/" + jx::disk::MachineFolderName(FileUtils::GetComputerName());
}

using DiskFolderTest = jx::testing::DiskTest;

// A name of this version's cache file whose header the TestPayload factory reads back.
std::string PayloadFileName(const JX_Bag& bag, uint32_t seed) {
  const uint32_t header[2] = {seed, 8};
  return jx::disk::MakeCacheFileName(Guid::CreateUnique(), "TestPayload", bag.GetAppVersion(),
                                     reinterpret_cast<const uint8_t*>(header), sizeof header);
}

TEST(DiskFolderNames, MachineFolderAndCacheFileVersion) {
  EXPECT_EQ(jx::disk::MachineFolderName("studio-7"), "Disk Cache - studio-7.noindex");
  EXPECT_EQ(jx::disk::MachineFolderName("a/b:c*d?e\"f<g>h|i\\j"),
            "Disk Cache - a-b-c-d-e-f-g-h-i-j.noindex");
  EXPECT_EQ(jx::disk::MachineFolderName(""), "Disk Cache - This Computer.noindex");

  // The purge tells this version's files from others' by this field.
  uint32_t v = 0;
  EXPECT_TRUE(jx::disk::ParseCacheFileVersion("G.M.1A2B..kqcache", &v));
  EXPECT_EQ(v, 0x1A2Bu);
  EXPECT_TRUE(jx::disk::ParseCacheFileVersion("G.M.1a2b..kqcache", &v))
      << "read as the scan reads it";
  EXPECT_EQ(v, 0x1A2Bu);
  EXPECT_FALSE(jx::disk::ParseCacheFileVersion("G.M.123456789..kqcache", &v)) << "above 32 bits";
  EXPECT_FALSE(jx::disk::ParseCacheFileVersion("G.M.kqcache", &v));
  EXPECT_TRUE(jx::disk::IsCacheFileName("x.kqcache"));
  EXPECT_FALSE(jx::disk::IsCacheFileName("x.kqcache.1.2.tmp"));
}

TEST_F(DiskFolderTest, FolderLayoutAndFallbacks) {
  EXPECT_EQ(Folder().GetPath(), ExpectedFolder(tempDir_));
  EXPECT_TRUE(Folder().Exists());
  EXPECT_EQ(Reports(""), 0u);

  // Missing folder, a file in its place, none at all: the system temporary folder (the test's
  // own), one warning each.
  const std::string systemTemp = FileUtils::GetTempDirectoryPath();
  ASSERT_EQ(systemTemp.rfind(tempDir_, 0), 0u) << "would write outside the test's folder";
  const std::string plainFile = tempDir_ + "/plain";
  std::ofstream(plainFile) << "x";
  for (const std::string& bad : {tempDir_ + "/missing", plainFile, std::string()}) {
    StandaloneHost::Instance().ClearReports();
    bag_->SetDiskCacheInfo(bad, 1000);
    EXPECT_EQ(Reports(kNonexistentText), 1u) << bad;
    EXPECT_EQ(Reports(kCantWriteText), 0u);
    EXPECT_TRUE(bag_->IsDiskCacheEnabled());
    EXPECT_EQ(Folder().GetPath(), ExpectedFolder(systemTemp));
  }
}

TEST_F(DiskFolderTest, UnwritableFolderDisablesDiskCachingUntilTheHostSwitchesItOn) {
  // A file stands where the maker's folder must go. Warnings only on the main thread.
  const std::string root = tempDir_ + "/blocked";
  ASSERT_EQ(mkdir(root.c_str(), 0700), 0);
  std::ofstream(root + "/Orvane") << "x";
  std::thread([&] { bag_->SetDiskCacheInfo(root, 1000); }).join();
  EXPECT_FALSE(bag_->IsDiskCacheEnabled());
  EXPECT_EQ(Reports(""), 0u) << "no warning off the main thread";

  bag_->SetDiskCacheInfo(root, 1000);
  EXPECT_FALSE(bag_->IsDiskCacheEnabled());
  EXPECT_TRUE(Folder().IsEmpty());
  EXPECT_EQ(Reports(kCantWriteText), 1u);
  EXPECT_EQ(Reports(kNonexistentText), 0u);

  // Switching it back on is the host's call; meanwhile nothing is offered to the writer.
  bag_->SetDiskCacheInfo(tempDir_, 1000);
  EXPECT_FALSE(bag_->IsDiskCacheEnabled());
  EXPECT_EQ(Folder().GetPath(), ExpectedFolder(tempDir_));
  auto item = AddDiskCacheableItem(4096);
  item->MaybeWriteToDisk();
  EXPECT_FALSE(item->WasTaggedToWriteToDisk());
  bag_->EnableDiskCache(true);
  EXPECT_TRUE(bag_->IsDiskCacheEnabled());
}

TEST_F(DiskFolderTest, AdditionalSettingsAndDriveSpace) {
  auto set = [](const char* name, const char* value) {
    prefs::SetValue(jx::disk::kPreferencesGroup, name, value);
  };
  set(jx::disk::kProclivityName, "2.5");
  set(jx::disk::kSpeedCapName, "1000000");
  bag_->SetDiskCacheInfo(tempDir_, 0);
  EXPECT_EQ(jx::disk::GetProclivityMultiplier(), 2.5);
  EXPECT_EQ(jx::disk::GetSpeedCap(), 1e6);
  EXPECT_EQ(jx::disk::GetMinimumVolumeFreeSpace(), 0);  // the fixture's
  // need = 0 - 0 + 0: any volume holds that.
  EXPECT_FALSE(bag_->IsDiskCacheLimitedDueToDriveSpace());
  // No volume has 100 PB to spare.
  set(jx::disk::kMinVolumeFreeSpaceName, "100000000");
  bag_->SetDiskCacheInfo(tempDir_, 1000);
  EXPECT_EQ(jx::disk::GetMinimumVolumeFreeSpace(), 100000000LL << 30);
  EXPECT_TRUE(bag_->IsDiskCacheLimitedDueToDriveSpace());
  // With the cache already over its limit, need is negative: not the volume's fault.
  set(jx::disk::kMinVolumeFreeSpaceName, "0");
  bag_->SetDiskCacheInfo(tempDir_, 0);
  auto item = AddItemWithFile(100);
  EXPECT_FALSE(bag_->IsDiskCacheLimitedDueToDriveSpace());

  // Settings taken away go back to their defaults.
  prefs::Clear();
  bag_->SetDiskCacheInfo(tempDir_, 0);
  EXPECT_EQ(jx::disk::GetSpeedCap(), jx::disk::kDefaultSpeedCap);
  EXPECT_EQ(jx::disk::GetProclivityMultiplier(), 1.0);
  EXPECT_EQ(jx::disk::GetMinimumVolumeFreeSpace(), 10LL << 30);
}

TEST_F(DiskFolderTest, EnsureDiskSpaceDeletesOldestUnpinnedFirst) {
  int outOfSpace = 0;
  bag_->GetDiskOutOfSpaceSignal()->Connect([&] { ++outOfSpace; });
  std::vector<zelcore::utility::IntrusivePtr<JX_Stuff>> items;
  for (int i = 0; i < 6; ++i) items.push_back(AddItemWithFile(100));
  bag_->SetDiskCacheInfo(tempDir_, 600);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 600);
  EXPECT_EQ(bag_->GetCurFreeSpace(), 0) << "full: every write must make room first";

  // Pins: a disk checkout on 0, a scoped check-out's disk hold on 1 (suspended, so that the
  // item itself is not checked out), an ordinary check-out on 2.
  auto pin0 = items[0]->CheckoutDiskCache();
  ASSERT_TRUE(pin0);
  JX_ScCheckout hold1(items[1], cf::kReadOnly);
  ASSERT_TRUE(hold1.AcquireDiskHold());
  hold1.SuspendCheckout();
  ASSERT_EQ(items[1]->GetCheckoutCount(), 0u);
  JX_ScCheckout out2(items[2], cf::kReadOnly);
  const File file3 = items[3]->GetDiskCacheFile();

  // 150 bytes, anything used before item 5 may go: 3 then 4 (200 bytes freed), then stop.
  EXPECT_TRUE(bag_->EnsureDiskSpace(150, items[5]->GetLastUsedTime()));
  for (int i : {0, 1, 2, 5}) EXPECT_TRUE(items[i]->HasDiskCacheFile()) << i;
  for (int i : {3, 4}) EXPECT_FALSE(items[i]->HasDiskCacheFile()) << i;
  EXPECT_FALSE(file3.Exists());
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 400);
  EXPECT_EQ(outOfSpace, 0);

  // 100 more than the 200 free: only item 5 is unpinned, but it was used at the threshold.
  EXPECT_FALSE(bag_->EnsureDiskSpace(300, items[5]->GetLastUsedTime()));
  EXPECT_TRUE(items[5]->HasDiskCacheFile());
  EXPECT_EQ(outOfSpace, 1);

  // Stops as soon as the target is met: one file is enough.
  pin0.reset();
  EXPECT_TRUE(bag_->EnsureDiskSpace(300, ~0ull));
  EXPECT_FALSE(items[0]->HasDiskCacheFile());
  EXPECT_TRUE(items[5]->HasDiskCacheFile());
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 300);
  hold1.ReleaseSuspendedCheckout();

  // A file found empty (emptied by a cleaner) still gives back what its item counted: that is
  // room too, and no further file goes for it.
  std::ofstream(items[5]->GetDiskCacheFile().GetPath(), std::ios::trunc).close();
  EXPECT_TRUE(bag_->EnsureDiskSpace(400, ~0ull));
  EXPECT_FALSE(items[5]->HasDiskCacheFile());
  EXPECT_TRUE(items[1]->HasDiskCacheFile());
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 200);
}

// Making room can take the last copy of an item no longer in memory (every adopted file, after a
// restart): left with nothing, it must leave the bag, or a long session piles them up.
TEST_F(DiskFolderTest, AnItemWhoseLastCopyGoesToMakeRoomLeavesTheBag) {
  auto diskOnly = AddItemWithFile(100);
  diskOnly->FreeUpAsMuchAsPossible(true, nullptr);
  ASSERT_FALSE(diskOnly->IsInMemory());
  ASSERT_TRUE(diskOnly->GetBag());
  auto inMemory = AddItemWithFile(100);
  bag_->SetDiskCacheInfo(tempDir_, 200);
  const int items = bag_->GetNumItems();

  EXPECT_TRUE(bag_->EnsureDiskSpace(200, ~0ull));
  EXPECT_FALSE(diskOnly->HasDiskCacheFile());
  EXPECT_FALSE(inMemory->HasDiskCacheFile());
  EXPECT_FALSE(diskOnly->GetBag()) << "an item with nothing left stayed in the bag";
  EXPECT_TRUE(inMemory->GetBag()) << "an item still in memory left the bag";
  EXPECT_TRUE(inMemory->IsInMemory());
  EXPECT_EQ(bag_->GetNumItems(), items - 1);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
}

TEST_F(DiskFolderTest, ScanHandsOverCacheFilesAndClearsLeftovers) {
  // The scans here are the test's own: a request must not also start one on the idle disk task.
  JX_StopAllAsyncWork();
  MakeFile(CacheFileName(Guid::CreateUnique()), 10);
  MakeFile(CacheFileName(Guid::CreateUnique(), 0x2A), 10);
  MakeFile("notes.txt", 10);
  const File leftover = MakeFile(CacheFileName(Guid::CreateUnique()) + ".123.4.tmp", 10);

  EXPECT_EQ(bag_->ScanDiskCacheDir(), 0) << "nobody asked, and the media map was not allowed";
  bag_->RequestDiskCacheScan();
  EXPECT_EQ(bag_->ScanDiskCacheDir(), 2) << "both cache files; the reader sorts out versions";
  EXPECT_TRUE(leftover.Exists()) << "a fresh temporary may belong to a live writer";
  EXPECT_EQ(bag_->ScanDiskCacheDir(), 0) << "one request, one scan";

  EXPECT_EQ(jx::disk::DeleteLeftoverTempFiles(Folder(), 0), 1);
  EXPECT_FALSE(leftover.Exists());
  EXPECT_EQ(Folder().ListNames().size(), 3u);

  bag_->EnableDiskCache(false);
  bag_->RequestDiskCacheScan();
  EXPECT_EQ(bag_->ScanDiskCacheDir(), 0);
}

// The default file system, with every temporary an hour older and each listing counted.
class AgedTemporaries final : public jx::testing::ForwardingFileSystem {
 public:
  int Status(const char* p, struct stat* st) override { return Aged(p, st, in_.Status(p, st)); }
  int Stat(const char* p, struct stat* st) override { return Aged(p, st, in_.Stat(p, st)); }
  int ListDirectory(const char* p, std::vector<Entry>* e) override {
    if (listed_ == p) ++listings_;
    return in_.ListDirectory(p, e);
  }

  void CountListingsOf(const std::string& path) {
    listed_ = path;
    listings_ = 0;
  }
  int listings() const { return listings_; }

 private:
  static int Aged(const char* path, struct stat* st, int result) {
    if (result == 0 && std::string_view(path).ends_with(".tmp")) st->st_ctime -= 3600;
    return result;
  }
  std::string listed_;
  int listings_ = 0;
};

TEST_F(DiskFolderTest, TheScanListsTheFolderOnceAndSweepsOnlyItsOwnOldTemporaries) {
  JX_StopAllAsyncWork();
  const std::string sub = Folder().GetPath() + "/sub";
  ASSERT_EQ(::mkdir(sub.c_str(), 0755), 0);
  MakeFile(CacheFileName(Guid::CreateUnique()), 10);
  const File old = MakeFile(CacheFileName(Guid::CreateUnique()) + ".123.4.tmp", 10);
  const File elsewhere(sub + "/" + CacheFileName(Guid::CreateUnique()) + ".123.5.tmp");
  std::ofstream(elsewhere.GetPath()) << "0123456789";

  AgedTemporaries files;
  files.CountListingsOf(Folder().GetPath());
  int adopted = 0;
  {
    const jx::testing::InstalledFileSystem installed(files);
    bag_->RequestDiskCacheScan();
    adopted = bag_->ScanDiskCacheDir();
  }

  EXPECT_EQ(adopted, 1);
  EXPECT_FALSE(old.Exists()) << "an hour old: its writer is gone";
  EXPECT_TRUE(elsewhere.Exists()) << "not in the folder writes go to";
  EXPECT_EQ(files.listings(), 1);
}

// The scan asks the status of its names a batch at a time: every file, sub-folders' too, must
// come in with its own size.
TEST_F(DiskFolderTest, TheScanAdoptsEveryFileWithItsOwnSizeAcrossBatchesAndSubFolders) {
  JX_StopAllAsyncWork();
  jx::testing::RegisterTestPayloadFactory();
  const std::string sub = Folder().GetPath() + "/sub";
  ASSERT_EQ(::mkdir(sub.c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((sub + "/deeper").c_str(), 0755), 0);
  size_t made = 0;
  const auto make = [&](const std::string& folder) {
    const std::string path = folder + "/" + PayloadFileName(*bag_, static_cast<uint32_t>(made));
    std::ofstream(path, std::ios::binary) << std::string(++made, 'x');  // a size of its own
  };
  for (int i = 0; i < 600; ++i) make(Folder().GetPath());
  for (int i = 0; i < 5; ++i) make(sub);
  for (int i = 0; i < 3; ++i) make(sub + "/deeper");

  bag_->RequestDiskCacheScan();
  EXPECT_EQ(bag_->ScanDiskCacheDir(), static_cast<int>(made));
  size_t items = 0;
  for (const auto& item : bag_->CopyMruItems()) {
    ++items;
    const File file = item->GetDiskCacheFile();
    ASSERT_FALSE(file.IsEmpty());
    EXPECT_EQ(item->GetAccountedDiskSize(), file.Size()) << file.GetPath();
  }
  EXPECT_EQ(items, made);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), static_cast<long long>(made * (made + 1) / 2));
}

// The host moves the cache to a folder it used before, which still holds a copy of a file an item
// links in the folder it left. The copy in the folder in use must be the counted one: left out,
// that folder outgrows its limit by every such copy.
TEST_F(DiskFolderTest, AScanOfTheNewFolderCountsItsCopyOfAFileLinkedInTheOldOne) {
  JX_StopAllAsyncWork();
  jx::testing::RegisterTestPayloadFactory();
  auto item = AddDiskCacheableItem(4096);
  ASSERT_TRUE(jx::testing::WriteToDisk(bag_, item, true));
  const File old = item->GetDiskCacheFile();
  const long long counted = bag_->GetCurrentDiskCacheSize();
  const std::string root = tempDir_ + "/other";
  ASSERT_EQ(::mkdir(root.c_str(), 0700), 0);
  bag_->SetDiskCacheInfo(root, kDefaultMaxDisk);
  const File copy = Folder().GetFile(old.GetName());
  std::filesystem::copy_file(old.GetPath(), copy.GetPath());

  bag_->RequestDiskCacheScan();
  EXPECT_EQ(bag_->ScanDiskCacheDir(), 1);
  EXPECT_EQ(item->GetDiskCacheFile().GetPath(), copy.GetPath());
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), counted);
  EXPECT_TRUE(old.Exists()) << "the folder left keeps its files for a return to it";
  {
    JX_ScCheckout back(item, cf::kReadOnly);
    EXPECT_EQ(back.GetResult(), kJX_CheckedOut);
    EXPECT_TRUE(item->IsInMemory()) << "read back from the copy";
  }
  // Room for the whole limit takes every file the cache counts.
  EXPECT_TRUE(bag_->EnsureDiskSpace(kDefaultMaxDisk, ~0ull));
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
  EXPECT_EQ(jx::testing::SumOfFileSizes(Folder()), 0) << "a file of the folder went uncounted";
}

// A scan under way when the host moves the cache elsewhere must stop taking files of the folder
// left: adopted, they would count against the new folder's limit, and making room there would
// delete them from the folder the host may return to.
TEST_F(DiskFolderTest, AScanUnderWayStopsAdoptingOnceTheHostMovesTheCache) {
  JX_StopAllAsyncWork();
  constexpr int kFiles = 20;
  for (int i = 0; i < kFiles; ++i) MakeFile(PayloadFileName(*bag_, static_cast<uint32_t>(i)), 8);
  // The first payload the scan asks for holds it in the middle of its adoption until the folder
  // has moved.
  std::atomic<int> asked{0};
  std::promise<void> reached;
  std::promise<void> moved;
  std::shared_future<void> movedFuture = moved.get_future().share();
  JX_StuffData::Factory factory = [&](const JX_StuffData::Header&) {
    if (asked.fetch_add(1) == 0) {
      reached.set_value();
      movedFuture.wait_for(std::chrono::minutes(1));
    }
    auto* payload = new jx::testing::TestPayload(8, 0, true);
    payload->PurgeIfPossible(nullptr);
    return zelcore::utility::IntrusivePtr<JX_StuffData>(payload);
  };
  JX_StuffData::RegisterFactory("TestPayload", factory);
  bag_->RequestDiskCacheScan();
  auto scan = std::async(std::launch::async, [&] { return bag_->ScanDiskCacheDir(); });
  ASSERT_EQ(reached.get_future().wait_for(std::chrono::minutes(1)), std::future_status::ready);
  const std::string root = tempDir_ + "/other";
  ASSERT_EQ(::mkdir(root.c_str(), 0700), 0);
  bag_->SetDiskCacheInfo(root, kDefaultMaxDisk);
  moved.set_value();
  ASSERT_EQ(scan.wait_for(std::chrono::minutes(1)), std::future_status::ready) << "hung";
  scan.get();

  EXPECT_EQ(asked.load(), 1) << "files of the folder left were taken after the move";
  EXPECT_LE(bag_->GetNumItems(), 1) << "only the one under way when the folder moved";
}

TEST_F(DiskFolderTest, AScanThatFindsTheRequestTakenReturnsOnlyOnceThatScanHasEnded) {
  // The other scanner is this test's own thread, standing in for the deferred disk task.
  JX_StopAllAsyncWork();
  jx::testing::RegisterTestPayloadFactory();
  constexpr size_t kFiles = 2000;
  for (size_t i = 0; i < kFiles; ++i) MakeFile(PayloadFileName(*bag_, static_cast<uint32_t>(i)), 8);
  bag_->RequestDiskCacheScan();
  std::thread other([&] { bag_->ScanDiskCacheDir(); });
  // Once the other thread adopts, it holds the request; the caller here finds none left.
  EXPECT_TRUE(jx::testing::EventuallyTrue([&] { return bag_->GetNumItems() != 0; }));
  bag_->ScanDiskCacheDir();
  EXPECT_EQ(bag_->GetNumItems(), kFiles) << "returned while the other scan was still adopting";
  other.join();
}

TEST_F(DiskFolderTest, PurgeAllDiskCachesKeepsOnlyPinnedFiles) {
  auto a = AddItemWithFile(100);
  auto b = AddItemWithFile(200);
  auto pinned = AddItemWithFile(50);
  auto pin = pinned->CheckoutDiskCache();
  // An item that exists only on disk leaves the bag with its file.
  auto diskOnly = AddItemWithFile(10);
  diskOnly->FreeUpAsMuchAsPossible(true, nullptr);
  ASSERT_FALSE(diskOnly->IsInMemory());
  const File orphan = MakeFile(CacheFileName(Guid::CreateUnique()), 30);
  const File otherVersion = MakeFile(CacheFileName(Guid::CreateUnique(), 0x77), 30);
  const File notes = MakeFile("notes.txt", 5);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 360);

  const JX_Bag::DiskPurgeResult r = bag_->PurgeAllDiskCaches();
  EXPECT_EQ(r.deleted, 5);
  EXPECT_EQ(r.kept, 1);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 50);
  EXPECT_TRUE(pinned->HasDiskCacheFile());
  EXPECT_FALSE(a->HasDiskCacheFile());
  EXPECT_TRUE(a->IsInMemory());
  EXPECT_FALSE(diskOnly->GetBag());
  EXPECT_FALSE(orphan.Exists());
  EXPECT_FALSE(otherVersion.Exists());
  EXPECT_TRUE(notes.Exists());
  EXPECT_EQ(bag_->GetNumItems(), 3);
}

// A payload whose destructor runs `onDestroy`: the host giving back what the payload owned.
class DestroyHookPayload : public jx::testing::TestPayload {
 public:
  DestroyHookPayload(unsigned int size, std::function<void()> onDestroy)
      : TestPayload(size), onDestroy_(std::move(onDestroy)) {}
  ~DestroyHookPayload() override {
    if (onDestroy_) onDestroy_();
  }

 private:
  std::function<void()> onDestroy_;
};

// Emptying the folder tells the host's handlers, and destroys payloads, outside the folder walk's
// mutex: they may wait for a thread of their own that uses the folder.
TEST_F(DiskFolderTest, PurgeAllDiskCachesTellsAndLetsGoOnceTheFolderIsFreeAgain) {
  jx::testing::HostThreadWatch host;
  JX_Bag* const bag = bag_.get();
  auto hostUsesTheFolder = [&] {
    host.Called([bag] {
      bag->RequestDiskCacheScan();
      bag->ScanDiskCacheDir();
    });
  };
  auto a = AddItemWithFile(100);
  auto b = AddItemWithFile(200);
  std::atomic<int> told{0};
  auto handler = [&](bool, bool onDisk) {
    if (onDisk) return;
    ++told;
    hostUsesTheFolder();
  };
  a->GetMemDiskChangedSignal().Connect(handler);
  b->GetMemDiskChangedSignal().Connect(handler);
  std::atomic<int> destroyed{0};
  {
    auto diskOnly = jx::testing::AddNewItem(*bag_, new DestroyHookPayload(16, [&] {
      ++destroyed;
      hostUsesTheFolder();
    }));
    diskOnly->SetDiskCacheFile(MakeFile(CacheFileName(diskOnly->GetGuid()), 50), false);
    diskOnly->SyncDiskSizeWithBag(50);
    diskOnly->FreeUpAsMuchAsPossible(true, nullptr);
    ASSERT_FALSE(diskOnly->IsInMemory());
  }  // the bag's reference is its last

  const JX_Bag::DiskPurgeResult r = bag_->PurgeAllDiskCaches();
  ASSERT_TRUE(host.AllAnswered());
  EXPECT_EQ(r.deleted, 3);
  EXPECT_EQ(told, 2);
  EXPECT_EQ(destroyed, 1) << "the item that lived only on disk must have gone";
  EXPECT_EQ(host.Calls(), 3);
  EXPECT_EQ(host.Stuck(), 0) << "the host's thread waited for the folder walk around it";
  EXPECT_EQ(host.UnderLibraryLock(), 0) << "the host was called under the library lock";
  EXPECT_FALSE(a->HasDiskCacheFile());
  EXPECT_FALSE(b->HasDiskCacheFile());
  EXPECT_EQ(bag_->GetNumItems(), 2);
  EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
}

}  // namespace
