// The host's media layer as far as the cache uses it. The media manager's pool of entries and
// its purge policy live with the media-map stand-in; this header carries the fixed maximum cache
// size that start-up reads.
#pragma once

#include <cstdint>

namespace RV::MM {

// The media layer's fixed maximum cache size in bytes (standalone default: 4 GiB).
uint64_t GetFixedMaxCacheSize();
void SetFixedMaxCacheSize(uint64_t bytes);

}  // namespace RV::MM
