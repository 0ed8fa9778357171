// Plain-text tables for the terminal: a header row, a rule, and right-aligned numeric columns.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace jx::tool {

class TextTable {
 public:
  explicit TextTable(std::vector<std::string> header) : header_(std::move(header)) {}
  void AddRow(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  // Columns are right-aligned (numbers) except the first, which names the row, and those given
  // here.
  void AlignLeft(size_t column) { left_.push_back(column); }
  void Print(std::ostream& out) const;

 private:
  std::vector<size_t> left_{0};
  std::vector<std::string> header_;
  std::vector<std::vector<std::string>> rows_;
};

// Fixed-point text: Fixed(0.12345, 3) == "0.123".
std::string Fixed(double value, int decimals);
// "12.3%".
std::string Percent(double ratio);

}  // namespace jx::tool
