// fuzz_folder_scan: files of arbitrary names (one per input line) in the disk cache folder, then
// the start-up scan. It must never crash, every file it adopts has a name that parses as a cache
// file of the running version and payload class, and is counted once in the disk size; and every
// key that has such a file is adopted.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>

#include "disk/cache_file_name.h"
#include "disk/disk_folder.h"
#include "fuzz_common.h"
#include "host/safe_save.h"

namespace {

// A payload class whose factory throws: the scan must survive it and go on.
class Unbuildable : public JX_StuffData {};

void RegisterThrowingFactories() {
  JX_StuffData::Factory throwsCode =
      [](const JX_StuffData::Header&) -> zelcore::utility::IntrusivePtr<JX_StuffData> {
    throw 14850;
  };
  JX_StuffData::Factory throwsError =
      [](const JX_StuffData::Header& header) -> zelcore::utility::IntrusivePtr<JX_StuffData> {
    throw std::runtime_error("cannot build from " + std::to_string(header.size()) + " bytes");
  };
  JX_StuffData::RegisterFactory("ThrowsCode", throwsCode);
  JX_StuffData::RegisterFactory("ThrowsError", throwsError);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto bag = [] {
    auto b = jx::fuzz::StartLibrary();
    RegisterThrowingFactories();
    return b;
  }();
  const auto dir = bag->GetDiskCacheDirSpec();

  // One name per line; "/" and NUL cannot stand in a file name, "." and ".." are the folder's.
  std::set<std::string> names;
  std::string name;
  for (size_t i = 0; i <= size; ++i) {
    if (i == size || data[i] == '\n') {
      if (!name.empty() && name != "." && name != ".." && name.size() <= 255) names.insert(name);
      name.clear();
    } else if (data[i] != '/' && data[i] != 0) {
      name += static_cast<char>(data[i]);
    }
  }
  // The keys the scan must adopt: those with a cache file of this version whose payload class
  // builds from the name's header.
  std::set<zelcore::utility::Guid> adoptable;
  for (const auto& n : names) {
    std::ofstream(dir.GetFile(n).GetPath()) << n.size();
    jx::disk::CacheFileName parsed;
    if (jx::disk::IsCacheFileName(n) && !zelcore::filesupport::SafeSave::IsTempFileName(n) &&
        jx::disk::ParseCacheFileName(n, &parsed) == jx::disk::CacheFileNameError::kNone &&
        parsed.version == bag->GetAppVersion() &&
        parsed.matchName == jx::testing::kKeyedPayloadName && parsed.header.size() == 8) {
      adoptable.insert(parsed.guid);
    }
  }

  bag->RequestDiskCacheScan();
  bag->ScanDiskCacheDir();

  long long adoptedBytes = 0;
  std::set<zelcore::utility::Guid> adopted;
  for (const auto& item : bag->CopyMruItems()) {
    const auto file = item->GetDiskCacheFile();
    JX_FUZZ_CHECK(!file.IsEmpty());  // only adopted items are in the bag
    jx::disk::CacheFileName parsed;
    JX_FUZZ_CHECK(jx::disk::ParseCacheFileName(file.GetName(), &parsed) ==
                  jx::disk::CacheFileNameError::kNone);
    JX_FUZZ_CHECK(!zelcore::filesupport::SafeSave::IsTempFileName(file.GetName()));
    JX_FUZZ_CHECK(parsed.version == bag->GetAppVersion() && parsed.guid == item->GetGuid());
    JX_FUZZ_CHECK(parsed.matchName == jx::testing::kKeyedPayloadName);
    JX_FUZZ_CHECK(names.count(file.GetName()) == 1);
    adoptedBytes += static_cast<long long>(file.Size());
    adopted.insert(item->GetGuid());
  }
  JX_FUZZ_CHECK(bag->GetCurrentDiskCacheSize() == adoptedBytes);
  JX_FUZZ_CHECK(adopted == adoptable);

  // Back to an empty folder and bag for the next input.
  bag->PurgeAllDiskCaches();
  for (const auto& item : bag->CopyMruItems()) {
    item->DeleteDiskCacheFile();
    item->RemoveFromBagAndSortDir();
  }
  for (const auto& n : dir.ListNames()) std::remove(dir.GetFile(n).GetPath().c_str());
  JX_FUZZ_CHECK(bag->GetNumItems() == 0 && bag->GetCurrentDiskCacheSize() == 0);
  return 0;
}
