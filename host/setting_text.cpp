// The typed conversions of setting texts.
#include "host/setting_text.h"

#include <cctype>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace zelcore::debug {

namespace {

// The strto* functions skip leading white space; a setting must be the number and nothing else.
bool StartsLikeNumber(const std::string& text) {
  return !text.empty() && !std::isspace(static_cast<unsigned char>(text[0]));
}

}  // namespace

bool ParseBoolSetting(const std::string& text) { return text == "true"; }

int32_t ParseInt32Setting(const std::string& text, int32_t defaultValue) {
  if (!StartsLikeNumber(text)) return defaultValue;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end != text.c_str() + text.size()) return defaultValue;
  if (v < std::numeric_limits<int32_t>::min() || v > std::numeric_limits<int32_t>::max()) {
    return defaultValue;
  }
  return static_cast<int32_t>(v);
}

uint32_t ParseUInt32Setting(const std::string& text, uint32_t defaultValue) {
  // strtoull accepts a sign and negates; a negative count is a mistake, not a huge number.
  if (!StartsLikeNumber(text) || text.find('-') != std::string::npos) return defaultValue;
  errno = 0;
  char* end = nullptr;
  unsigned long long v = std::strtoull(text.c_str(), &end, 10);
  if (errno != 0 || end != text.c_str() + text.size()) return defaultValue;
  if (v > std::numeric_limits<uint32_t>::max()) return defaultValue;
  return static_cast<uint32_t>(v);
}

double ParseDoubleSetting(const std::string& text, double defaultValue) {
  if (!StartsLikeNumber(text)) return defaultValue;
  errno = 0;
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size()) return defaultValue;
  if (!std::isfinite(v) || (errno == ERANGE && v != 0.0)) return defaultValue;
  return v;
}

std::string FormatDoubleSetting(double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%1.*lg", DBL_DECIMAL_DIG, value);
  return buffer;
}

}  // namespace zelcore::debug
