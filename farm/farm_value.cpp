#include "farm/farm_value.h"

#include <xxhash.h>

#include <cstring>
#include <limits>

namespace jx::farm {
namespace {

constexpr char kMagic[4] = {'J', 'X', 'F', 'V'};
constexpr uint16_t kManifestFlag = 1;

void PutLE(std::string& out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
}

uint64_t GetLE(std::string_view in, size_t at, int bytes) {
  uint64_t v = 0;
  for (int i = 0; i < bytes; ++i) {
    v |= uint64_t{static_cast<uint8_t>(in[at + static_cast<size_t>(i)])} << (8 * i);
  }
  return v;
}

void PutText(std::string& out, const std::string& text) {
  const size_t n = std::min<size_t>(text.size(), std::numeric_limits<uint16_t>::max());
  PutLE(out, n, 2);
  out.append(text, 0, n);
}

bool GetText(std::string_view in, size_t* at, std::string* text) {
  if (in.size() < *at + 2) return false;
  const size_t n = GetLE(in, *at, 2);
  *at += 2;
  if (in.size() < *at + n) return false;
  text->assign(in.substr(*at, n));
  *at += n;
  return true;
}

}  // namespace

Hash128 HashPayload(const void* data, size_t length) {
  const XXH128_hash_t h = XXH3_128bits(data, length);
  return {h.low64, h.high64};
}

std::string EncodeHeader(const ValueHeader& h) {
  std::string out(kMagic, sizeof(kMagic));
  PutLE(out, kFormatVersion, 2);
  PutLE(out, h.manifest ? kManifestFlag : 0, 2);
  PutLE(out, h.payloadLength, 8);
  PutLE(out, h.hash.low, 8);
  PutLE(out, h.hash.high, 8);
  uint64_t seconds;
  std::memcpy(&seconds, &h.computeSeconds, sizeof(seconds));
  PutLE(out, seconds, 8);
  out.append(reinterpret_cast<const char*>(h.guid.Bytes().data()), 16);
  PutLE(out, h.parts, 4);
  PutLE(out, h.partBytes, 4);
  PutText(out, h.matchName);
  PutText(out, h.writerNode);
  PutText(out, h.partTag);
  PutText(out, h.key);
  PutLE(out, XXH3_64bits(out.data(), out.size()), 8);
  return out;
}

const char* DescribeDecodeError(DecodeError error) {
  switch (error) {
    case DecodeError::kNone:
      return "ok";
    case DecodeError::kTooShort:
      return "shorter than its header";
    case DecodeError::kBadMagic:
      return "not a farm value";
    case DecodeError::kBadVersion:
      return "another format version";
    case DecodeError::kBadHeaderChecksum:
      return "header checksum mismatch";
    case DecodeError::kBadLength:
      return "payload length does not match";
    case DecodeError::kBadManifest:
      return "manifest parts do not cover the payload";
  }
  return "unknown";
}

DecodeError DecodeHeader(std::string_view value, ValueHeader* out, size_t* headerSize) {
  if (value.size() < kFixedHeaderSize) return DecodeError::kTooShort;
  if (std::memcmp(value.data(), kMagic, sizeof(kMagic)) != 0) return DecodeError::kBadMagic;
  if (GetLE(value, 4, 2) != kFormatVersion) return DecodeError::kBadVersion;
  ValueHeader h;
  h.manifest = (GetLE(value, 6, 2) & kManifestFlag) != 0;
  h.payloadLength = GetLE(value, 8, 8);
  h.hash = {GetLE(value, 16, 8), GetLE(value, 24, 8)};
  const uint64_t seconds = GetLE(value, 32, 8);
  std::memcpy(&h.computeSeconds, &seconds, sizeof(seconds));
  h.guid = zelcore::utility::Guid::FromBytes(reinterpret_cast<const uint8_t*>(value.data() + 40));
  h.parts = static_cast<uint32_t>(GetLE(value, 56, 4));
  h.partBytes = static_cast<uint32_t>(GetLE(value, 60, 4));
  size_t at = kFixedHeaderSize;
  if (!GetText(value, &at, &h.matchName) || !GetText(value, &at, &h.writerNode) ||
      !GetText(value, &at, &h.partTag) || !GetText(value, &at, &h.key) ||
      value.size() < at + sizeof(uint64_t)) {
    return DecodeError::kTooShort;
  }
  if (GetLE(value, at, 8) != XXH3_64bits(value.data(), at)) return DecodeError::kBadHeaderChecksum;
  at += sizeof(uint64_t);
  if (h.manifest) {
    // The parts must be exactly enough for the length: a manifest is never trusted to make a
    // reader fetch (or allocate) more than it says the payload is.
    // Rounded up by division, not by adding partBytes - 1: a length near 2^64 would wrap to
    // zero parts.
    if (value.size() != at || h.partBytes == 0 || h.partTag.empty() ||
        h.parts != h.payloadLength / h.partBytes + (h.payloadLength % h.partBytes != 0)) {
      return DecodeError::kBadManifest;
    }
  } else if (value.size() - at != h.payloadLength) {
    return DecodeError::kBadLength;
  }
  *out = std::move(h);
  *headerSize = at;
  return DecodeError::kNone;
}

}  // namespace jx::farm
