// A map of what a bag holds: one row per item (key, payload class, sizes, where it lives,
// pending, last use, check-outs), for a host's cache display and for tools that draw the
// cache's state over time.
//
// Taking it never stalls the renderers for long. The recency order is walked in chunks: each
// hold of the library lock takes references to at most `maxItemsPerHold` items, or fewer when
// `maxHoldNanos` runs out, and lets the lock go. Each item's fields are then read under that
// item's own upgrade lock, with no library lock held, so that a row agrees with itself (its
// sizes with its flags). Items that move while the walk is between chunks are seen once; an
// item that leaves the bag meanwhile may be missing; one that joins may be missing too.
//
// Any thread that holds neither the library lock nor an item lock may call it. The snapshot
// owns its rows; it keeps no item alive.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "jxcache/host/export.h"

class JX_Bag;

struct JX_EXPORT JX_ContentRow {
  std::string key;           // the item's GUID, as text
  std::string payloadClass;  // the payload's match name; the request's while pending
  uint64_t memorySize = 0;   // bytes its payload holds in memory (0 when not in memory)
  uint64_t diskSize = 0;     // bytes its disk cache file counts for (0 when it has none)
  bool inMemory = false;
  bool onDisk = false;
  bool pending = false;       // still being rendered by the thread that created it
  uint64_t lastUsedTime = 0;  // HighPrecisionTime stamp of its last use
  uint32_t checkoutCount = 0;
};

struct JX_EXPORT JX_ContentSnapshotOptions {
  uint32_t maxItemsPerHold = 4096;
  uint64_t maxHoldNanos = 1'000'000;
};

struct JX_EXPORT JX_ContentSnapshot {
  std::vector<JX_ContentRow> rows;  // oldest use first, as the recency order stood when walked
  // How the walk went: holds of the library lock, the longest of them and the whole snapshot
  // (nanoseconds), and how often a chunk had to find its place again because the item it
  // resumed from had moved or left.
  uint32_t lockHolds = 0;
  uint64_t maxLockHoldNanos = 0;
  uint64_t totalNanos = 0;
  uint32_t resumesLost = 0;
};

// The content of `bag`.
JX_EXPORT JX_ContentSnapshot JX_TakeContentSnapshot(const JX_Bag& bag,
                                                    const JX_ContentSnapshotOptions& options = {});
// The content of the global bag (empty when there is none).
JX_EXPORT JX_ContentSnapshot
JX_TakeGlobalContentSnapshot(const JX_ContentSnapshotOptions& options = {});
