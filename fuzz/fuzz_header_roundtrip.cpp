// fuzz_header_roundtrip: header bytes -> cache file name -> parse gives the same bytes (and the
// same GUID, match name and version); any text given to the parser never crashes it, and a name
// it accepts rebuilds into one that parses to the same fields.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "disk/cache_file_name.h"
#include "disk/disk_folder.h"
#include "fuzz_common.h"

using jx::disk::CacheFileName;
using jx::disk::CacheFileNameError;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // As a header: the first 4 bytes give the version, the next 16 the GUID, the rest the header.
  if (size >= 20) {
    uint32_t version;
    std::memcpy(&version, data, 4);
    std::array<uint8_t, 16> guidBytes;
    std::memcpy(guidBytes.data(), data + 4, 16);
    const zelcore::utility::Guid guid(guidBytes);
    if (!guid.IsEmpty()) {
      const std::string name =
          jx::disk::MakeCacheFileName(guid, "KeyedPayload", version, data + 20, size - 20);
      CacheFileName parsed;
      JX_FUZZ_CHECK(jx::disk::ParseCacheFileName(name, &parsed) == CacheFileNameError::kNone);
      JX_FUZZ_CHECK(parsed.guid == guid && parsed.matchName == "KeyedPayload" &&
                    parsed.version == version);
      JX_FUZZ_CHECK(parsed.header.size() == size - 20 &&
                    std::equal(parsed.header.begin(), parsed.header.end(), data + 20));
      JX_FUZZ_CHECK(name.find('/') == std::string::npos && jx::disk::IsCacheFileName(name));
      uint32_t folderVersion = 0;
      JX_FUZZ_CHECK(jx::disk::ParseCacheFileVersion(name, &folderVersion) &&
                    folderVersion == version);
    }
  }

  // As name text.
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  CacheFileName parsed;
  if (jx::disk::ParseCacheFileName(text, &parsed) == CacheFileNameError::kNone) {
    JX_FUZZ_CHECK(!parsed.guid.IsEmpty() && !parsed.matchName.empty());
    JX_FUZZ_CHECK(jx::disk::IsCacheFileName(std::string(text)));
    if (parsed.matchName.find('/') == std::string::npos) {
      const std::string again =
          jx::disk::MakeCacheFileName(parsed.guid, parsed.matchName, parsed.version,
                                      parsed.header.data(), parsed.header.size());
      CacheFileName reparsed;
      JX_FUZZ_CHECK(jx::disk::ParseCacheFileName(again, &reparsed) == CacheFileNameError::kNone);
      JX_FUZZ_CHECK(reparsed.guid == parsed.guid && reparsed.matchName == parsed.matchName &&
                    reparsed.version == parsed.version && reparsed.header == parsed.header);
    }
  }
  uint32_t version;
  (void)jx::disk::ParseCacheFileVersion(std::string(text), &version);
  return 0;
}
