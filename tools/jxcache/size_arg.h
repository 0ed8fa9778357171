// Byte sizes on the command line: a bare number is bytes; the suffixes KiB, MiB and GiB scale by
// powers of 1024 and accept a decimal fraction ("1.5GiB"). Anything else is a UsageError that
// names the option and says what was wrong, in one line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace jx::tool {

// Parses `text` as a size; throws UsageError mentioning `option` when it does not parse, is
// negative, or does not fit in 64 bits.
uint64_t ParseSize(std::string_view text, std::string_view option);
// A comma-separated list of sizes ("64MiB,256MiB,1GiB"); every entry must parse and be non-zero.
std::vector<uint64_t> ParseSizeList(std::string_view text, std::string_view option);
// "256 MiB", "1.50 GiB", "812 B": the largest unit that keeps the number at least 1.
std::string FormatSize(uint64_t bytes);

}  // namespace jx::tool
