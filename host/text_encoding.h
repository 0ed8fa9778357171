// Binary-to-text encoding and UTF-8/UTF-16 conversion.
//
// The binary encoding is standard base64 (RFC 4648, alphabet A-Z a-z 0-9 + /, "=" padding).
// Of its characters only "/" cannot stand in a file name; callers that put an encoding into a
// file name exchange it themselves.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zelcore::utility {

std::string EncodeBinaryDataToUTF8String(const uint8_t* data, size_t length);
inline std::string EncodeBinaryDataToUTF8String(const std::vector<uint8_t>& data) {
  return EncodeBinaryDataToUTF8String(data.data(), data.size());
}
// Decodes base64 text. Returns false (and leaves *out empty) on any character outside the
// alphabet, a length that is not a multiple of four, or padding anywhere but at the end.
bool DecodeBinaryDataFromUTF8String(std::string_view text, std::vector<uint8_t>* out);

// UTF-8 <-> UTF-16. Invalid sequences become U+FFFD; the conversion never fails.
std::u16string UTF8ToUTF16(std::string_view utf8);
std::string UTF16ToUTF8(std::u16string_view utf16);

}  // namespace zelcore::utility
