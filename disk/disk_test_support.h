// Shared by the disk tests: the factory that rebuilds TestPayloads from their file names, and
// helpers that look at the cache folder the way a person would (list it, add up its files).
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "host/file.h"
#include "items/stuff_data.h"
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

}  // namespace jx::testing
