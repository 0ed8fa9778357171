// The session's farm tier: `simulate --farm ADDRESS --node NAME` renders as one node of a farm
// that shares a Redis server. Its options, its attachment to the library, and its figures.
#pragma once

#include <nlohmann/json.hpp>

#include <ostream>

#include "tools/jxcache/session.h"

namespace CLI {
class App;
}

namespace jx::tool {

// --farm, --node and the farm's limits.
void AddFarmOptions(CLI::App& cmd, SimulateOptions& options);
// Throws UsageError for an address that is neither redis://HOST:PORT nor unix:///path, or
// limits given without --farm.
void ValidateFarmOptions(const SimulateOptions& options);

class SessionFarm {
 public:
  // Attaches the farm tier (after JX_Birth) when the options name one; the settings table gives
  // whatever the options leave out. A server that is down is not an error: the run renders.
  SessionFarm(const SimulateOptions& options, SessionResult* result);
  // Waits (bounded) for farm writes still queued, so that other nodes find them, and fills the
  // farm figures.
  void Finish(SessionResult* result);

 private:
  bool active_ = false;
};

// The "farm" object of --json, and the summary's farm lines (nothing when no farm was used).
nlohmann::ordered_json FarmJson(const SessionResult& r);
void PrintFarmSummary(const SessionResult& r, std::ostream& out);

}  // namespace jx::tool
