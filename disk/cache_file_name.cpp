// Building and parsing disk cache file names.
#include "disk/cache_file_name.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>

#include "host/safe_save.h"
#include "host/text_encoding.h"
#include "items/xxh3.h"

namespace jx::disk {
namespace {

constexpr char kSeparator = '.';
// base64's alphabet has "/", which cannot stand in a file name; "-" is not in the alphabet.
constexpr char kEncodedSlash = '/';
constexpr char kNameSlash = '-';
constexpr size_t kFieldCount = 5;  // four identifying fields and the extension

// A name's fields between separators, without allocating: a folder scan parses every name it
// lists. Fields past kFieldCount are counted but not kept, so a name of too many fields is still
// told apart from a cache file's.
struct Fields {
  std::array<std::string_view, kFieldCount> field;
  size_t count = 0;
};

Fields SplitAtSeparator(std::string_view name) {
  Fields fields;
  for (;;) {
    const size_t dot = name.find(kSeparator);
    if (fields.count < kFieldCount) fields.field[fields.count] = name.substr(0, dot);
    ++fields.count;
    if (dot == std::string_view::npos) return fields;
    name.remove_prefix(dot + 1);
  }
}

// Upper or lower case hex digits, nothing else; false on anything beyond 32 bits.
bool ParseVersionField(std::string_view text, uint32_t* out) {
  if (text.empty()) return false;
  uint64_t value = 0;
  for (char c : text) {
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else if (c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else {
      return false;
    }
    value = value * 16 + static_cast<uint64_t>(digit);
    if (value > UINT32_MAX) return false;
  }
  *out = static_cast<uint32_t>(value);
  return true;
}

}  // namespace

const char* DescribeCacheFileNameError(CacheFileNameError error) {
  switch (error) {
    case CacheFileNameError::kNone:
      return "ok";
    case CacheFileNameError::kTempFile:
      return "temporary file of an unfinished write";
    case CacheFileNameError::kTooFewFields:
      return "too few fields";
    case CacheFileNameError::kNotACacheFile:
      return "not a cache file name";
    case CacheFileNameError::kBadGuid:
      return "bad GUID field";
    case CacheFileNameError::kBadMatchName:
      return "bad match name field";
    case CacheFileNameError::kBadVersion:
      return "bad version field";
    case CacheFileNameError::kBadHeader:
      return "bad header field";
  }
  return "unknown";
}

std::string MakeCacheFileName(const zelcore::utility::Guid& guid, std::string_view matchName,
                              uint32_t version, const uint8_t* header, size_t headerLength) {
  if (guid.IsEmpty()) throw std::invalid_argument("disk cache file name: empty GUID");
  if (matchName.empty() || matchName.find_first_of("./") != std::string_view::npos) {
    throw std::invalid_argument("disk cache file name: unusable match name \"" +
                                std::string(matchName) + "\"");
  }
  char versionText[16];
  std::snprintf(versionText, sizeof(versionText), "%X", version);
  std::string headerText = zelcore::utility::EncodeBinaryDataToUTF8String(header, headerLength);
  std::replace(headerText.begin(), headerText.end(), kEncodedSlash, kNameSlash);

  std::string name = guid.AsString();
  for (std::string_view field : {matchName, std::string_view(versionText),
                                 std::string_view(headerText), kCacheFileExtension}) {
    name += kSeparator;
    name += field;
  }
  return name;
}

CacheFileNameError ParseCacheFileName(std::string_view name, CacheFileName* out) {
  // A temporary's name starts with the whole target name, so it would parse as its target.
  if (zelcore::filesupport::SafeSave::IsTempFileName(name)) return CacheFileNameError::kTempFile;
  const Fields split = SplitAtSeparator(name);
  const auto& fields = split.field;
  if (split.count < kFieldCount - 1) return CacheFileNameError::kTooFewFields;
  if (split.count != kFieldCount || fields[4] != kCacheFileExtension) {
    return CacheFileNameError::kNotACacheFile;
  }
  if (!zelcore::utility::Guid::TryParse(fields[0], &out->guid) || out->guid.IsEmpty()) {
    return CacheFileNameError::kBadGuid;
  }
  if (fields[1].empty()) return CacheFileNameError::kBadMatchName;
  out->matchName = std::string(fields[1]);
  if (!ParseVersionField(fields[2], &out->version)) return CacheFileNameError::kBadVersion;
  std::string headerText(fields[3]);
  std::replace(headerText.begin(), headerText.end(), kNameSlash, kEncodedSlash);
  if (!zelcore::utility::DecodeBinaryDataFromUTF8String(headerText, &out->header)) {
    return CacheFileNameError::kBadHeader;
  }
  return CacheFileNameError::kNone;
}

bool ParseCacheFileVersion(std::string_view name, uint32_t* version) {
  const Fields split = SplitAtSeparator(name);
  return split.count >= kFieldCount - 1 && ParseVersionField(split.field[2], version);
}

uint64_t CacheFileChecksumSeed(std::string_view fileName) {
  const uint64_t seed = XXH3_64bits(fileName.data(), fileName.size());
  return seed != 0 ? seed : 1;
}

}  // namespace jx::disk
