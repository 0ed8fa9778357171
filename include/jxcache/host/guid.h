// 128-bit identifiers: item keys, media-map entry keys, cache identities.
//
// The text form is 32 upper-case hexadecimal digits in the groups 8-4-4-4-12 joined by "-"
// ("0123ABCD-0123-4567-89AB-CDEF01234567"): it contains no "." so that it can stand as one
// "."-separated field of a file name. Any thread may use a Guid; it is a plain value.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>

#include "jxcache/host/export.h"

namespace zelcore::utility {

class JX_EXPORT Guid {
 public:
  // The empty GUID: all sixteen bytes zero.
  Guid() = default;
  explicit Guid(const std::array<uint8_t, 16>& bytes) : bytes_(bytes) {}

  // A fresh random (version 4) GUID; never the empty one.
  static Guid CreateUnique();
  static Guid FromBytes(const uint8_t bytes[16]);
  // Parses the text form (case-insensitive hex digits, the four "-" required). Returns false on
  // any malformed text and leaves *out untouched.
  static bool TryParse(std::string_view text, Guid* out);
  // Same, but throws std::invalid_argument naming the text on malformed input.
  static Guid Parse(std::string_view text);

  std::string AsString() const;
  bool IsEmpty() const;
  const std::array<uint8_t, 16>& Bytes() const { return bytes_; }

  // Two word compares: directory searches compare keys on every hit, and the defaulted form
  // calls memcmp.
  friend bool operator==(const Guid& a, const Guid& b) {
    uint64_t a0, a1, b0, b1;
    std::memcpy(&a0, a.bytes_.data(), 8);
    std::memcpy(&a1, a.bytes_.data() + 8, 8);
    std::memcpy(&b0, b.bytes_.data(), 8);
    std::memcpy(&b1, b.bytes_.data() + 8, 8);
    return ((a0 ^ b0) | (a1 ^ b1)) == 0;
  }
  friend auto operator<=>(const Guid& a, const Guid& b) { return a.bytes_ <=> b.bytes_; }

 private:
  std::array<uint8_t, 16> bytes_{};
};

// The sixteen bytes of a GUID, in the order of its text form.
inline void GuidToBytes(const Guid& guid, uint8_t out[16]) {
  std::memcpy(out, guid.Bytes().data(), 16);
}
inline std::array<uint8_t, 16> GuidToBytes(const Guid& guid) { return guid.Bytes(); }

}  // namespace zelcore::utility

template <>
struct std::hash<zelcore::utility::Guid> {
  size_t operator()(const zelcore::utility::Guid& g) const noexcept {
    uint64_t a, b;
    std::memcpy(&a, g.Bytes().data(), 8);
    std::memcpy(&b, g.Bytes().data() + 8, 8);
    return static_cast<size_t>(a ^ (b * 0x9E3779B97F4A7C15ull));
  }
};
