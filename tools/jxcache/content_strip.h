// The report's content strips: for each content map taken during the run, one row with a cell
// per frame of the timeline, coloured by what the cache held of that frame at that moment (in
// memory, on disk only, both, being rendered, nothing). Read top to bottom, they show the cache
// filling, purging to disk and reading back as the passes go.
#pragma once

#include <string>

#include "tools/jxcache/session.h"

namespace jx::tool {

// An <svg> element with the strips and their legend; empty when the run took no content maps.
std::string RenderContentStrips(const SessionResult& r);

}  // namespace jx::tool
