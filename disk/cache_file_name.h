// The name of a disk cache file, and reading one back.
//
// Everything that identifies an item lives in its file's name, so a folder scan can rebuild the
// item without opening the file:
//
//   <GUID>.<match name>.<version>.<header>.kqcache
//
//   GUID        the item's key in its text form (hex digits and "-")
//   match name  the payload class's registered name (a plain identifier)
//   version     the application version, upper-case hex without leading zeros ("%X")
//   header      the payload's header bytes in base64, every "/" written as "-"; may be empty
//
// Fields are separated by "." and none of them may contain one. The writer and the reader of
// this format are the two functions below; change them together. Pure functions, any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "jxcache/host/guid.h"

namespace jx::disk {

inline constexpr std::string_view kCacheFileExtension = "kqcache";

// What a cache file's name says about the item.
struct CacheFileName {
  zelcore::utility::Guid guid;
  std::string matchName;
  uint32_t version = 0;
  std::vector<uint8_t> header;
};

// Why a name was not understood.
enum class CacheFileNameError {
  kNone,
  kTempFile,       // a temporary of an unfinished (or killed) write
  kTooFewFields,   // fewer than the four identifying fields
  kNotACacheFile,  // wrong extension, or more fields than a cache file has
  kBadGuid,        // the GUID field does not parse, or is the empty GUID
  kBadMatchName,   // empty match name
  kBadVersion,     // not hex, or more than 32 bits
  kBadHeader,      // the header field is not valid base64
};
const char* DescribeCacheFileNameError(CacheFileNameError error);

// Builds the file name. Throws std::invalid_argument for an empty GUID, or a match name that is
// empty or holds a character that cannot stand in the name ("." or "/"): the file could never
// be read back.
std::string MakeCacheFileName(const zelcore::utility::Guid& guid, std::string_view matchName,
                              uint32_t version, const uint8_t* header, size_t headerLength);

// Splits `name` (a file name, no folder) and fills *out; returns kNone on success. On failure
// *out may be partly filled.
CacheFileNameError ParseCacheFileName(std::string_view name, CacheFileName* out);

// Only the version field (the third), read as ParseCacheFileName reads it, of a name whose other
// fields may not parse: the folder purge tells the running version's files from others' by it,
// and must take the same files for the running version's as the folder scan does.
bool ParseCacheFileVersion(std::string_view name, uint32_t* version);

// The seed a cache file's checksum is bound to its name with (see ChecksumIdentity): XXH3-64 of
// the file name (no folder), never 0, which would stand for no identity. A file keeps its name
// when its folder moves or another process adopts it; only a copy or rename to another name (a
// stale copy, another item's file) changes it.
uint64_t CacheFileChecksumSeed(std::string_view fileName);

}  // namespace jx::disk
