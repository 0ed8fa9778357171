// `jxcache replay`: an access trace through the library's cache, once per cache size.
//
// Each run starts the library afresh and drives it as a host with a fixed memory budget would:
// a request finds-or-creates the item of its object id; a miss creates the item with a payload
// that reports the object's size without holding it; whenever the cache holds more than the
// cache size the host asks the bag to free the excess. Purging goes by recency alone with no
// floor, so the cache behaves as a byte-sized LRU. An object larger than the cache is a miss that
// is not kept; an object of size 0 is kept for good (it holds no memory to free).
//
// The trace is read once, as it streams, into a spool (trace_spool.h) that every run reads
// back; unless told not to, the offline optimal policy (belady.h) runs on the same spool, so
// that the table says how far LRU is from the best possible.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/jxcache/trace_reader.h"

namespace CLI {
class App;
}

namespace jx::tool {

struct ReplayResult {
  uint64_t cacheSize = 0;
  uint64_t requests = 0;
  uint64_t misses = 0;
  uint64_t bytesRequested = 0;
  uint64_t bytesMissed = 0;
  uint64_t tooLarge = 0;   // misses of objects larger than the cache, never kept
  uint64_t purges = 0;     // times the host asked the bag to free memory
  uint64_t peakBytes = 0;  // most the cache held after a purge (never above the cache size)
  double seconds = 0.0;
};

// One run of `trace` against a cache of `cacheSize` bytes; the library is born and dies inside.
// `progress`, when set, gets the requests done now and then.
ReplayResult ReplayOnce(RequestSource& trace, uint64_t cacheSize,
                        const std::function<void(uint64_t)>& progress = {});

// Adds the subcommand to `app`; the returned callback runs it and gives the exit code.
void AddReplayCommand(CLI::App& app, int* exitCode);

}  // namespace jx::tool
