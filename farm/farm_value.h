// What the farm tier stores under a key: a header that says what the value is, then the
// payload's bytes (or, for a value too large for one Redis string, a manifest of its parts).
//
// Unlike a local cache file, whose name is checked by the folder scan and whose body only this
// process writes, a farm value arrives from another machine through a server anyone on the farm
// can write to: so it carries its own identity and checksum, and every read checks both.
//
//   offset  size  field
//        0     4  magic "JXFV"
//        4     2  format version (kFormatVersion)
//        6     2  flags: bit 0 set for a manifest (the payload is in parts)
//        8     8  payload length in bytes
//       16    16  XXH3-128 of the payload (low 64 bits, then high 64 bits)
//       32     8  the compute seconds the writer measured (a double)
//       40    16  the item's GUID
//       56     4  parts (manifest only; 0 otherwise)
//       60     4  bytes per part (manifest only)
//       64     2  match name length, then the match name
//        .     2  writer node length, then the node's name
//        .     2  part tag length, then the tag that names the parts (manifest only)
//        .     2  key length, then the key the value was written under: the GUID and match
//                 name alone would let the item's value of another application version or
//                 payload header pass for this one
//        .     8  XXH3-64 of every header byte before it: the payload's checksum and the
//                 identity checks leave fields uncovered (the compute seconds, which decide
//                 whether the reader's disk cache keeps the frame, and the writer's name)
// All integers little-endian. The payload follows a plain value's header directly.
//
// Pure functions, any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "jxcache/host/guid.h"

namespace jx::farm {

inline constexpr uint16_t kFormatVersion = 3;
inline constexpr size_t kFixedHeaderSize = 64;

struct Hash128 {
  uint64_t low = 0, high = 0;
  bool operator==(const Hash128&) const = default;
};
Hash128 HashPayload(const void* data, size_t length);

struct ValueHeader {
  bool manifest = false;
  uint64_t payloadLength = 0;
  Hash128 hash;
  double computeSeconds = 0.0;
  zelcore::utility::Guid guid;
  uint32_t parts = 0;
  uint32_t partBytes = 0;
  std::string matchName;
  std::string writerNode;
  std::string partTag;
  std::string key;
};

// The header's bytes.
std::string EncodeHeader(const ValueHeader& header);

enum class DecodeError {
  kNone,
  kTooShort,
  kBadMagic,
  kBadVersion,
  kBadHeaderChecksum,
  kBadLength,
  kBadManifest
};
const char* DescribeDecodeError(DecodeError error);
// Reads the header at the start of `value`; *headerSize is where the payload starts. Checks the
// header's own checksum and consistency (a plain value's length matches the bytes after it; a
// manifest's parts cover its length), not the identity or the payload's checksum, which the
// caller compares.
DecodeError DecodeHeader(std::string_view value, ValueHeader* out, size_t* headerSize);

}  // namespace jx::farm
