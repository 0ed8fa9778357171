// Shared by the disk tests: the factory that rebuilds TestPayloads from their file names, helpers
// that look at the cache folder the way a person would (list it, add up its files), and a fixture
// with a disk cache folder whose items own real files in it.
#pragma once

#include "disk/disk_folder.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "disk/disk_counters.h"
#include "disk/disk_writer.h"
#include "host/file_test_support.h"
#include "jxcache/bag/bag.h"
#include "jxcache/host/file.h"
#include "jxcache/host/host_services.h"
#include "jxcache/items/stuff_data.h"
#include "standalone/standalone_settings.h"
#include "testing/jx_test_support.h"

namespace jx::testing {

// Registers the "TestPayload" factory: an empty (not in memory) payload of the size and seed
// its header names, as a folder scan needs it.
inline void RegisterTestPayloadFactory() {
  JX_StuffData::Factory factory =
      [](const JX_StuffData::Header& header) -> zelcore::utility::IntrusivePtr<JX_StuffData> {
    if (header.size() != 8) return {};
    uint32_t seed, size;
    std::memcpy(&seed, header.data(), 4);
    std::memcpy(&size, header.data() + 4, 4);
    auto* payload = new TestPayload(size, seed, true);
    payload->PurgeIfPossible(nullptr);
    return zelcore::utility::IntrusivePtr<JX_StuffData>(payload);
  };
  JX_StuffData::RegisterFactory("TestPayload", factory);
}

// A payload that allows compression. Its compressed copy carries one more header byte, so the
// two files of one item have different names.
class CompressiblePayload : public TestPayload {
 public:
  CompressiblePayload(unsigned size, uint32_t seed) : TestPayload(size, seed, true) {}
  JX_CompressedAllowedOption GetCompressedAllowedOption() const override {
    return kJX_CompressionAllowed;
  }
  bool IsCompressed() const override { return compressed_; }
  void SetIsCompressed(bool compressed) override { compressed_ = compressed; }
  zelcore::utility::IntrusivePtr<JX_StuffData> CreateCloneForCompression() const override {
    return zelcore::utility::IntrusivePtr<JX_StuffData>(
        new CompressiblePayload(GetApproximateMemorySize(), Seed()));
  }
  void GetHeader(Header& header) const override {
    TestPayload::GetHeader(header);
    if (compressed_) header.push_back(1);
  }
  double Write(zelcore::filesupport::OByteStream& out) const override {
    if (compressed_ && duringCompressedWrite) duringCompressedWrite();
    return TestPayload::Write(out);
  }
  // When set, runs inside the write of a compressed copy, on the disk thread.
  static inline std::function<void()> duringCompressedWrite;

 private:
  std::atomic<bool> compressed_{false};
};

inline std::vector<std::string> FolderNames(const zelcore::filesupport::Dir& dir) {
  return dir.Exists() ? dir.ListNames() : std::vector<std::string>{};
}

inline long long SumOfFileSizes(const zelcore::filesupport::Dir& dir) {
  long long sum = 0;
  for (const auto& name : FolderNames(dir)) sum += static_cast<long long>(dir.GetFile(name).Size());
  return sum;
}

inline bool HasTempFiles(const zelcore::filesupport::Dir& dir) {
  for (const auto& name : FolderNames(dir)) {
    if (name.size() >= 4 && name.compare(name.size() - 4, 4, ".tmp") == 0) return true;
  }
  return false;
}

// Sets the write queue's length counters for the scope of a test, as if that many writes were
// queued: the policy and the back-pressure read nothing else.
class ScQueueLengths {
 public:
  ScQueueLengths(uint32_t normal, uint32_t high) { Set(normal, high); }
  ~ScQueueLengths() { Set(0, 0); }
  static void Set(uint32_t normal, uint32_t high) {
    jx::disk::GetCounters().normalQueued = normal;
    jx::disk::GetCounters().highPriorityQueued = high;
  }
};

// Waits until the writer has finished with every queued entry and handed every item back.
inline bool WriterDrained() {
  return EventuallyTrue([] {
    return JX_GetQueuedDiskWriteCount() == 0 && JX_GetStuffCounters().itemsCheckedOut == 0;
  });
}

// Writes `item` to the bag's folder and waits until the writer has let go of it; with
// `leaveMemory`, the payload then leaves memory, so that only the disk copy is left.
inline ::testing::AssertionResult WriteToDisk(const std::shared_ptr<JX_Bag>& bag,
                                              const zelcore::utility::IntrusivePtr<JX_Stuff>& item,
                                              bool leaveMemory = false) {
  item->PrepAndWrite(bag);
  if (!item->HasDiskCacheFile()) return ::testing::AssertionFailure() << "not written";
  if (!WriterDrained()) return ::testing::AssertionFailure() << "the writer never let go";
  if (leaveMemory) item->FreeUpAsMuchAsPossible(true, nullptr);
  if (leaveMemory && item->IsInMemory()) return ::testing::AssertionFailure() << "still in memory";
  return ::testing::AssertionSuccess();
}

class DiskTest : public LibraryTest {
 protected:
  static constexpr long long kDefaultMaxDisk = 1LL << 30;

  void SetUp() override {
    zelappsupport::preferences::Clear();
    // Tests write whatever the volume has left; those about the margin set one of their own.
    zelappsupport::preferences::SetValue(jx::disk::kPreferencesGroup,
                                         jx::disk::kMinVolumeFreeSpaceName, "0");
    LibraryTest::SetUp();
    bag_->EnableDiskCache(true);
    bag_->SetDiskCacheInfo(tempDir_, kDefaultMaxDisk);
    ASSERT_TRUE(bag_->IsDiskCacheEnabled());
  }
  void TearDown() override {
    LibraryTest::TearDown();
    zelappsupport::preferences::Clear();
  }

  zelcore::filesupport::Dir Folder() const { return bag_->GetDiskCacheDirSpec(); }

  // A cache file name of `version` (the running one by default).
  std::string CacheFileName(const zelcore::utility::Guid& guid, unsigned version = 0) const {
    char hex[16];
    std::snprintf(hex, sizeof hex, "%X", version ? version : bag_->GetAppVersion());
    return guid.AsString() + ".TestPayload." + hex + "..kqcache";
  }

  zelcore::filesupport::File MakeFile(const std::string& name, size_t bytes) const {
    zelcore::filesupport::File f = Folder().GetFile(name);
    std::ofstream(f.GetPath(), std::ios::binary) << std::string(bytes, 'x');
    return f;
  }

  // An item in the bag whose disk copy is a real file of `fileBytes`.
  zelcore::utility::IntrusivePtr<JX_Stuff> AddItemWithFile(size_t fileBytes,
                                                           unsigned memSize = 16) {
    auto item = MakeItem(memSize);
    bag_->AddToBagAndSortDir(item);
    item->SetDiskCacheFile(MakeFile(CacheFileName(item->GetGuid()), fileBytes), false);
    item->SyncDiskSizeWithBag(static_cast<unsigned>(fileBytes));
    return item;
  }

  // An item in the bag whose payload may go to disk, with a long compute time.
  zelcore::utility::IntrusivePtr<JX_Stuff> AddDiskCacheableItem(unsigned size,
                                                                double computeTime = 10.0) {
    return AddNewItem(*bag_, new TestPayload(size, 7, true), computeTime);
  }
};

}  // namespace jx::testing
