#include "tools/jxcache/size_arg.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cmath>
#include <cstdio>

#include "tools/jxcache/tool_error.h"

namespace jx::tool {
namespace {

struct Unit {
  const char* suffix;
  uint64_t factor;
};
// What FormatSize prints.
constexpr Unit kUnits[] = {{"KiB", 1ull << 10}, {"MiB", 1ull << 20}, {"GiB", 1ull << 30}};

constexpr const char* kUnitHint = "use k, M, G or T, optionally followed by B or iB";

// The multiple of a unit letter, whatever its case. "B" alone (or nothing) is bytes. People write
// "1GB" and mean what a file manager shows for "1 GiB" as often as not, so MB and MiB are the same
// here: every unit is a power of 1024.
uint64_t UnitFactor(std::string_view suffix) {
  if (suffix.empty() || suffix == "B" || suffix == "b") return 1;
  const char letter = static_cast<char>(suffix.front() | 0x20);  // ASCII lower case
  std::string rest(suffix.substr(1));
  for (char& c : rest) c = static_cast<char>(c | 0x20);
  if (!(rest.empty() || rest == "b" || rest == "ib")) return 0;
  switch (letter) {
    case 'k':
      return 1ull << 10;
    case 'm':
      return 1ull << 20;
    case 'g':
      return 1ull << 30;
    case 't':
      return 1ull << 40;
    default:
      return 0;
  }
}

[[noreturn]] void Bad(std::string_view option, std::string_view text, const std::string& why) {
  throw UsageError(std::string(option) + ": '" + std::string(text) + "' is not a size: " + why);
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

uint64_t ParseSize(std::string_view text, std::string_view option) {
  if (text.empty()) Bad(option, text, "empty (give bytes, or a number with k, M, G or T)");
  if (text.front() == '-') Bad(option, text, "sizes cannot be negative");
  size_t i = 0;
  while (i < text.size() && IsDigit(text[i])) ++i;
  const size_t intEnd = i;
  size_t fracEnd = i;
  if (i < text.size() && text[i] == '.') {
    fracEnd = ++i;
    while (fracEnd < text.size() && IsDigit(text[fracEnd])) ++fracEnd;
    i = fracEnd;
  }
  if (intEnd == 0) Bad(option, text, "it does not start with a number");
  const std::string_view suffix = text.substr(i);
  const uint64_t factor = UnitFactor(suffix);
  if (factor == 0)
    Bad(option, text, "unknown unit '" + std::string(suffix) + "' (" + kUnitHint + ")");
  const bool hasFraction = fracEnd > intEnd;
  if (hasFraction && factor == 1) Bad(option, text, "a number of bytes must be whole");
  if (hasFraction && fracEnd == intEnd + 1) Bad(option, text, "nothing after the decimal point");
  const std::string number(text.substr(0, hasFraction ? fracEnd : intEnd));
  if (!hasFraction) {
    uint64_t value = 0;
    for (char c : number) {
      const uint64_t digit = static_cast<uint64_t>(c - '0');
      if (value > (UINT64_MAX - digit) / 10) Bad(option, text, "too large");
      value = value * 10 + digit;
    }
    if (value > UINT64_MAX / factor) Bad(option, text, "too large");
    return value * factor;
  }
  const double scaled = std::strtod(number.c_str(), nullptr) * static_cast<double>(factor);
  if (!(scaled < 1.8e19)) Bad(option, text, "too large");
  return static_cast<uint64_t>(std::llround(scaled));
}

std::vector<uint64_t> ParseSizeList(std::string_view text, std::string_view option) {
  std::vector<uint64_t> sizes;
  size_t start = 0;
  while (true) {
    const size_t comma = text.find(',', start);
    const std::string_view item = text.substr(
        start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
    const uint64_t size = ParseSize(item, option);
    if (size == 0) throw UsageError(std::string(option) + ": a cache size must be more than 0");
    sizes.push_back(size);
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  return sizes;
}

CLI::Validator DecimalNumber() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        if (text.empty()) return "give a number";
        if (text.front() == '-') return "'" + text + "' is negative; give 0 or more";
        if (text.find_first_not_of("0123456789") != std::string::npos)
          return "'" + text + "' is not a whole number (decimal digits only)";
        uint64_t value = 0;
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (ec != std::errc()) return "'" + text + "' is too large";
        text = std::to_string(value);
        return "";
      },
      "", "");
}

CLI::Validator NotEmpty() {
  return CLI::Validator(
      [](std::string& text) -> std::string { return text.empty() ? "give a name, not ''" : ""; },
      "", "");
}

std::string FormatSize(uint64_t bytes) {
  char buf[64];
  if (bytes < kUnits[0].factor) {
    std::snprintf(buf, sizeof buf, "%llu B", static_cast<unsigned long long>(bytes));
    return buf;
  }
  const Unit* unit = &kUnits[0];
  for (const Unit& u : kUnits) {
    if (bytes >= u.factor) unit = &u;
  }
  const double value = static_cast<double>(bytes) / static_cast<double>(unit->factor);
  std::snprintf(buf, sizeof buf, value >= 100 ? "%.0f %s" : "%.2f %s", value, unit->suffix);
  return buf;
}

}  // namespace jx::tool
