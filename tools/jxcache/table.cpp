#include "tools/jxcache/table.h"

#include <algorithm>
#include <cstdio>

namespace jx::tool {

void TextTable::Print(std::ostream& out) const {
  std::vector<size_t> width(header_.size(), 0);
  auto measure = [&](const std::vector<std::string>& row) {
    for (size_t c = 0; c < row.size() && c < width.size(); ++c)
      width[c] = std::max(width[c], row[c].size());
  };
  measure(header_);
  for (const auto& row : rows_) measure(row);
  auto print = [&](const std::vector<std::string>& row) {
    std::string line;
    for (size_t c = 0; c < width.size(); ++c) {
      const std::string cell = c < row.size() ? row[c] : "";
      const std::string pad(width[c] - cell.size(), ' ');
      if (c > 0) line += "  ";
      const bool left = std::find(left_.begin(), left_.end(), c) != left_.end();
      line += left ? cell + pad : pad + cell;
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out << line << '\n';
  };
  print(header_);
  size_t total = 0;
  for (size_t w : width) total += w;
  out << std::string(total + 2 * (width.size() - 1), '-') << '\n';
  for (const auto& row : rows_) print(row);
}

std::string Fixed(double value, int decimals) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, value);
  return buf;
}

std::string Percent(double ratio) { return Fixed(ratio * 100.0, 1) + "%"; }

}  // namespace jx::tool
