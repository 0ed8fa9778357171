// Access traces for `jxcache replay`: a sequence of (object id, object size) requests.
//
// Two formats: "oracle-general", binary records of 24 bytes, little-endian (uint32 time, uint64
// object id, uint32 object size, int64 next access time; only id and size are used), and "csv",
// one "id,size" per line with an optional header line. A trace is read whole before the replay
// starts, so a broken file is reported before any run and never half-replayed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace jx::tool {

struct TraceRequest {
  uint64_t id;
  uint32_t size;
};

enum class TraceFormat { kOracleGeneral, kCsv };

// Throws UsageError for an unknown name.
TraceFormat ParseTraceFormat(const std::string& name);

// Reads the whole trace. Throws ToolError, with the path and the place, when the file cannot be
// opened or read, a binary record is cut short, or a csv line is not "id,size".
std::vector<TraceRequest> ReadTrace(const std::string& path, TraceFormat format);

}  // namespace jx::tool
