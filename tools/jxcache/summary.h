// The end-of-run figures of `jxcache simulate`, as a text summary or as JSON. Both say the same
// things; a subsystem this build lacks is named as unavailable, never given figures.
#pragma once

#include <nlohmann/json.hpp>

#include <ostream>
#include <string>
#include <vector>

#include "tools/jxcache/session.h"

namespace jx::tool {

// The summary's figures as tables of text, which the terminal summary and the HTML report both
// lay out: the same rows under the same names in either.
struct SummaryTable {
  std::vector<std::string> header;
  std::vector<std::vector<std::string>> rows;
  std::vector<size_t> leftAligned;  // columns of words; the rest hold numbers
};
struct SummaryTables {
  std::vector<std::string> heading;  // the lines above the tables: the session's settings
  SummaryTable passes, overall;
  SummaryTable misses;  // the library's look-ups that missed, by reason and payload class
};
SummaryTables BuildSummary(const SessionResult& r);

void PrintSummary(const SessionResult& r, std::ostream& out);
nlohmann::ordered_json SummaryJson(const SessionResult& r);

// Hits (memory and disk) over requests; 0 for no requests.
double HitRate(uint64_t memoryHits, uint64_t diskHits, uint64_t requests);

// The value below which `fraction` of the sorted `values` lie (nearest rank); 0 for none.
double Quantile(const std::vector<double>& sorted, double fraction);

}  // namespace jx::tool
