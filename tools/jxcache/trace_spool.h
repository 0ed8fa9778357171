// A trace copied once into a temporary file of fixed 12-byte records, so that `replay` reads the
// trace (csv, compressed, whatever it is) a single time and runs each cache size, and the
// optimal policy, over a plain file in constant memory.
//
// The optimal policy needs, for each request, when its object is asked for next. That is found
// by reading the spool backwards with a table of each object's most recent request (one entry
// per distinct object: memory grows with the number of objects, not with the trace), and the
// answers, found last to first, go to a second temporary file that is read backwards in turn,
// which gives them first to last. Both files are deleted as they are made: nothing is left behind
// however the process ends.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/jxcache/trace_reader.h"

namespace jx::tool {

// A request with the index of the next request for the same object (kNever if there is none).
struct FutureRequest {
  uint64_t id;
  uint32_t size;
  uint64_t next;
};
inline constexpr uint64_t kNever = UINT64_MAX;

// A file in the temporary folder that has no name: it goes away with its descriptor.
class AnonymousFile {
 public:
  explicit AnonymousFile(const std::string& what);
  ~AnonymousFile();
  AnonymousFile(const AnonymousFile&) = delete;
  AnonymousFile& operator=(const AnonymousFile&) = delete;
  // Throw ToolError on failure; ReadAt reads exactly `bytes`.
  void Append(const void* data, size_t bytes);
  void ReadAt(uint64_t offset, void* data, size_t bytes) const;
  uint64_t size() const { return size_; }

 private:
  std::string what_;
  int fd_ = -1;
  uint64_t size_ = 0;
};

// Called now and then while the spool is made or walked, with the work done so far.
using SpoolProgress = std::function<void(uint64_t done)>;

class TraceSpool {
 public:
  // Reads `source` to its end. `progress` gets how many bytes of the trace file were read (the
  // caller knows the file's size); the spool is left without next uses.
  static std::unique_ptr<TraceSpool> Make(TraceReader& source, const SpoolProgress& progress);

  uint64_t requests() const { return requests_; }
  // Requests in order, as a RequestSource.
  std::unique_ptr<RequestSource> Forward() const;

  // Finds every request's next use (a backward pass; `progress` gets requests done) and the
  // number of distinct objects. Call once, before Future.
  void FindNextUses(const SpoolProgress& progress);
  uint64_t distinctObjects() const { return distinct_; }
  // Requests in order with their next uses; `visit` returns nothing, the walk ends at the end.
  void Future(const std::function<void(const FutureRequest&)>& visit) const;

 private:
  TraceSpool() = default;
  std::unique_ptr<AnonymousFile> records_;
  std::unique_ptr<AnonymousFile> nextUses_;  // last request's first
  uint64_t requests_ = 0;
  uint64_t distinct_ = 0;
};

// Object id -> a 64-bit value, open addressing with linear probing: 16 bytes a slot, kept at most
// 70% full, so 23 to 46 bytes per object (and the old table's share as well while it grows).
// Insert and look up only. What the next-use pass keeps per distinct object.
class ObjectTable {
 public:
  ObjectTable();
  // The value slot of `id`, made with `absent` if the table did not hold it; *inserted says so.
  uint64_t& FindOrInsert(uint64_t id, uint64_t absent, bool* inserted);
  uint64_t size() const { return count_; }

 private:
  struct Slot {
    uint64_t id;
    uint64_t value;
  };
  void Grow();
  std::vector<Slot> slots_;
  std::vector<bool> used_;
  uint64_t count_ = 0;
};

}  // namespace jx::tool
