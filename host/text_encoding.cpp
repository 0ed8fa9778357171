// base64 and UTF-8/UTF-16 conversion.
#include "host/text_encoding.h"

namespace zelcore::utility {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int DecodeChar(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

constexpr char32_t kReplacement = 0xFFFD;

void AppendUTF8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

void AppendUTF16(std::u16string& out, char32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
  } else {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  }
}

}  // namespace

std::string EncodeBinaryDataToUTF8String(const uint8_t* data, size_t length) {
  std::string out;
  out.reserve((length + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= length; i += 3) {
    uint32_t v = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
    out.push_back(kAlphabet[(v >> 18) & 63]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(kAlphabet[(v >> 6) & 63]);
    out.push_back(kAlphabet[v & 63]);
  }
  size_t rest = length - i;
  if (rest > 0) {
    uint32_t v = uint32_t{data[i]} << 16;
    if (rest == 2) v |= uint32_t{data[i + 1]} << 8;
    out.push_back(kAlphabet[(v >> 18) & 63]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(v >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

bool DecodeBinaryDataFromUTF8String(std::string_view text, std::vector<uint8_t>* out) {
  out->clear();
  if (text.size() % 4 != 0) return false;
  std::vector<uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    // Padding may only close the final group: "xx==" or "xxx=".
    size_t padding = 0;
    if (last && text[i + 3] == '=') padding = text[i + 2] == '=' ? 2 : 1;
    int v[4] = {0, 0, 0, 0};
    for (size_t j = 0; j < 4 - padding; ++j) {
      v[j] = DecodeChar(text[i + j]);
      if (v[j] < 0) return false;
    }
    uint32_t group =
        (uint32_t(v[0]) << 18) | (uint32_t(v[1]) << 12) | (uint32_t(v[2]) << 6) | uint32_t(v[3]);
    bytes.push_back(static_cast<uint8_t>(group >> 16));
    if (padding < 2) bytes.push_back(static_cast<uint8_t>(group >> 8));
    if (padding < 1) bytes.push_back(static_cast<uint8_t>(group));
  }
  *out = std::move(bytes);
  return true;
}

std::u16string UTF8ToUTF16(std::string_view utf8) {
  std::u16string out;
  out.reserve(utf8.size());
  const size_t n = utf8.size();
  size_t i = 0;
  while (i < n) {
    const uint8_t b0 = static_cast<uint8_t>(utf8[i]);
    if (b0 < 0x80) {
      out.push_back(b0);
      ++i;
      continue;
    }
    // The length of the sequence and the range its second byte must fall in; the narrower
    // ranges rule out overlong forms, encoded surrogates and values above U+10FFFF.
    size_t length = 0;
    uint8_t lo = 0x80, hi = 0xBF;
    char32_t cp = 0;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
      length = 2;
      cp = b0 & 0x1F;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
      length = 3;
      cp = b0 & 0x0F;
      if (b0 == 0xE0) lo = 0xA0;
      if (b0 == 0xED) hi = 0x9F;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
      length = 4;
      cp = b0 & 0x07;
      if (b0 == 0xF0) lo = 0x90;
      if (b0 == 0xF4) hi = 0x8F;
    } else {
      out.push_back(kReplacement);
      ++i;
      continue;
    }
    size_t j = 1;
    for (; j < length; ++j) {
      if (i + j >= n) break;
      const uint8_t b = static_cast<uint8_t>(utf8[i + j]);
      if (b < lo || b > hi) break;
      cp = (cp << 6) | (b & 0x3F);
      lo = 0x80;
      hi = 0xBF;
    }
    if (j < length) {
      // A truncated or broken sequence becomes one replacement; the byte that broke it starts
      // the next sequence.
      out.push_back(kReplacement);
      i += j;
      continue;
    }
    AppendUTF16(out, cp);
    i += length;
  }
  return out;
}

std::string UTF16ToUTF8(std::u16string_view utf16) {
  std::string out;
  out.reserve(utf16.size());
  const size_t n = utf16.size();
  for (size_t i = 0; i < n; ++i) {
    char32_t c = utf16[i];
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (i + 1 < n && utf16[i + 1] >= 0xDC00 && utf16[i + 1] <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (utf16[i + 1] - 0xDC00);
        ++i;
      } else {
        c = kReplacement;
      }
    } else if (c >= 0xDC00 && c <= 0xDFFF) {
      c = kReplacement;
    }
    AppendUTF8(out, c);
  }
  return out;
}

}  // namespace zelcore::utility
