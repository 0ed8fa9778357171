// Byte sizes on the command line: a bare number is bytes ("4096", or "4096B"); a unit letter k, M,
// G or T, in either case and optionally followed by "B" or "iB", scales by a power of 1024 and
// accepts a decimal fraction: "512k", "256M", "1GB", "1.5G" and "1GiB" all mean binary multiples.
// Anything else is a UsageError that names the option and says what was wrong, in one line. Also
// the checks that every whole-number option, and every name with a default, shares.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class Validator;
}

namespace jx::tool {

// Parses `text` as a size; throws UsageError mentioning `option` when it does not parse, is
// negative, or does not fit in 64 bits.
uint64_t ParseSize(std::string_view text, std::string_view option);
// A comma-separated list of sizes ("64MiB,256MiB,1GiB"); every entry must parse and be non-zero.
std::vector<uint64_t> ParseSizeList(std::string_view text, std::string_view option);
// For every whole-number option: plain decimal digits, so "010" is ten. The parser alone reads
// them as C does, "010" as 8 and "0x10" as 16, and takes "-1" for a 64-bit option as its largest
// value; here anything but digits is a usage error, as is a value beyond 64 bits.
CLI::Validator DecimalNumber();
// For a folder or file name that has a default when left out: given empty (as an unset shell
// variable gives it) it is a usage error, not the default, which `clear` would empty.
CLI::Validator NotEmpty();
// "256 MiB", "1.50 GiB", "812 B": the largest unit that keeps the number at least 1.
std::string FormatSize(uint64_t bytes);
// One sentence on what sizes accept, for --help texts.
inline constexpr const char* kSizeHelp =
    "Sizes are bytes, or a number with k, M, G or T (binary multiples: 1k = 1024, 1G = 1024^3; "
    "KB/KiB, MB/MiB, GB/GiB all mean the same), e.g. 512k, 256M, 1.5G, 1GiB.";

}  // namespace jx::tool
