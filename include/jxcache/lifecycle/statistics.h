// Every counter and gauge of the library, for a host's statistics display: as a list, as text
// and as JSON, and a reset.
//
// A counter counts work since the start of the process or the last JX_ResetStatistics (bytes
// written, purges, failed reads); a gauge is a state (bytes in memory, items checked out,
// queue lengths, measured speeds), which a reset leaves alone. Values are taken from the live
// atomics one by one: two values of one snapshot may be a moment apart. Any thread may call.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "jxcache/host/export.h"

struct JX_EXPORT JX_Statistic {
  std::string group;  // "memory", "checkout", "purge", "disk", "compute", "media_map", "farm",
                      // "misses" (per class: jxcache/lifecycle/miss_reasons.h)
  std::string name;   // snake_case, unique within the group
  int64_t value = 0;
  bool counter = false;  // false: a gauge
  std::string unit;      // "bytes", "bytes/s", "" for a count
};

// Every statistic, grouped, in a fixed order.
JX_EXPORT std::vector<JX_Statistic> JX_GetStatistics();
// "group.name  value unit" lines, aligned, one per statistic; counters and gauges told apart.
JX_EXPORT std::string JX_GetStatisticsText();
// {"memory": {"in_memory_bytes": 123, ...}, ...}: one object per group, numbers only.
JX_EXPORT std::string JX_GetStatisticsJson();
// Sets every counter back to zero; gauges stay.
JX_EXPORT void JX_ResetStatistics();
