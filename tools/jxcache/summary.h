// The end-of-run figures of `jxcache simulate`, as a text summary or as JSON. Both say the same
// things; a subsystem this build lacks is named as unavailable, never given figures.
#pragma once

#include <nlohmann/json.hpp>

#include <ostream>

#include "tools/jxcache/session.h"

namespace jx::tool {

void PrintSummary(const SessionResult& r, std::ostream& out);
nlohmann::ordered_json SummaryJson(const SessionResult& r);

// Hits (memory and disk) over requests; 0 for no requests.
double HitRate(uint64_t memoryHits, uint64_t diskHits, uint64_t requests);

}  // namespace jx::tool
