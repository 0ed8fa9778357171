// Test helpers of the disk tests: a library with a disk cache folder, and items that own real
// files in it (made by the test itself, attached as the file layer would attach them).
#pragma once

#include <cstdio>
#include <fstream>
#include <string>

#include "bag/bag.h"
#include "host/feature.h"
#include "testing/jx_test_support.h"

namespace jx::testing {

class DiskTest : public LibraryTest {
 protected:
  static constexpr long long kDefaultMaxDisk = 1LL << 30;

  void SetUp() override {
    zelappsupport::preferences::Clear();
    LibraryTest::SetUp();
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
    auto item = JX_Stuff::CreateNew(
        zelcore::utility::IntrusivePtr<JX_StuffData>(new TestPayload(size, 7, true)), computeTime);
    item->SetGuid(zelcore::utility::Guid::CreateUnique());
    bag_->AddToBagAndSortDir(item);
    return item;
  }
};

}  // namespace jx::testing
