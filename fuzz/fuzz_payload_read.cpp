// fuzz_payload_read: an arbitrary file body under a valid cache file name, adopted and read back
// through the library. Only the payload's exact bytes may read back; anything else fails, the
// file is deleted, the failed-reads counter moves by one and the disk size goes back to zero.
//
// Input: byte 0 bit 0 turns short reads on; bytes 1-2 are the payload size the name promises;
// the rest is the body.
#include <array>
#include <cstdint>
#include <cstring>
#include <fstream>

#include "disk/cache_file_name.h"
#include "disk/disk_counters.h"
#include "disk/scan_one_file.h"
#include "fuzz_common.h"
#include "testing/fault_injection.h"

using jx::testing::KeyedPayload;
using zelcore::filesupport::FaultInjection;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto bag = jx::fuzz::StartLibrary();
  if (size < 3) return 0;
  // A fixed key, so that the seed corpus can hold the exact bodies.
  static const zelcore::utility::Guid key = [] {
    std::array<uint8_t, 16> bytes;
    for (int i = 0; i < 16; ++i) bytes[i] = static_cast<uint8_t>(0x11 + i);
    return zelcore::utility::Guid(bytes);
  }();
  const uint32_t promised = data[1] | (uint32_t{data[2]} << 8);
  const KeyedPayload shape(jx::testing::SeedOfKey(key), promised, false);
  JX_StuffData::Header header;
  shape.GetHeader(header);
  const auto file = bag->GetDiskCacheDirSpec().GetFile(jx::disk::MakeCacheFileName(
      key, jx::testing::kKeyedPayloadName, bag->GetAppVersion(), header.data(), header.size()));
  std::ofstream(file.GetPath(), std::ios::binary)
      .write(reinterpret_cast<const char*>(data + 3), static_cast<std::streamsize>(size - 3));
  const bool exact = jx::testing::KeyedBytes(shape.Seed(), promised) ==
                     std::vector<uint8_t>(data + 3, data + size);

  JX_ScanOneDiskCacheFile(file);
  const auto items = bag->CopyMruItems();
  JX_FUZZ_CHECK(items.size() == 1 && items.front()->GetGuid() == key);
  const auto item = items.front();
  JX_FUZZ_CHECK(bag->GetCurrentDiskCacheSize() == static_cast<long long>(size - 3));

  const uint32_t failedReads = jx::disk::GetCounters().failedReads;
  FaultInjection::SetShortReads(data[0] & 1);
  bool read = false, threw = false;
  try {
    read = item->EnsureInMemory();
  } catch (int) {
    threw = true;
  }
  FaultInjection::Reset();
  if (exact) {
    JX_FUZZ_CHECK(read && !threw && jx::disk::GetCounters().failedReads == failedReads);
    auto* payload = dynamic_cast<KeyedPayload*>(item->GetDataPtr().get());
    JX_FUZZ_CHECK(payload && payload->HoldsBytesOf(key));
    JX_FUZZ_CHECK(file.Exists() && item->HasDiskCacheFile());
  } else {
    JX_FUZZ_CHECK(threw && !item->IsInMemory());
    JX_FUZZ_CHECK(jx::disk::GetCounters().failedReads == failedReads + 1);
    JX_FUZZ_CHECK(!file.Exists() && !item->HasDiskCacheFile());
    JX_FUZZ_CHECK(bag->GetCurrentDiskCacheSize() == 0);
  }

  item->DeleteDiskCacheFile();
  item->RemoveFromBagAndSortDir();
  JX_FUZZ_CHECK(bag->GetNumItems() == 0 && bag->GetCurrentDiskCacheSize() == 0);
  return 0;
}
