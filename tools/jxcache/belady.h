// The offline optimal policy for `replay`, to say how far the cache's LRU is from the best any
// policy could do on the same trace: on a miss the object is added, and while the cache holds
// more than its size, the object whose next request is furthest in the future (or that is never
// asked for again) is evicted; that may be the object just added, which is then not kept.
//
// With objects of one size this is Belady's MIN, the optimum. With objects of different sizes it
// is the usual furthest-next-use heuristic, evicting by object without weighing sizes: a good
// reference, not a bound (the byte-sized optimum is NP-hard to find). The rules that LRU replay
// follows hold here too: an object larger than the cache is a miss that is not kept, and an
// object of size 0 is kept for good. A request for a cached object is a hit whatever size the
// request gives.
//
// Memory: per cache size, about 100 bytes per object in the cache (an ordered set by next use
// and a hash map by id), besides the spool's next-use pass (trace_spool.h).
#pragma once

#include <cstdint>
#include <vector>

#include "tools/jxcache/trace_spool.h"

namespace jx::tool {

struct OptimalResult {
  uint64_t cacheSize = 0;
  uint64_t requests = 0;
  uint64_t misses = 0;
  uint64_t bytesRequested = 0;
  uint64_t bytesMissed = 0;
  uint64_t tooLarge = 0;
  uint64_t peakObjects = 0;  // most objects held at once
};

// One pass over `spool` (after FindNextUses) for all of `cacheSizes` at once. `progress` gets
// the requests done.
std::vector<OptimalResult> ReplayOptimal(const TraceSpool& spool,
                                         const std::vector<uint64_t>& cacheSizes,
                                         const SpoolProgress& progress);

}  // namespace jx::tool
