#include "tools/jxcache/session_farm.h"

#include <CLI/CLI.hpp>

#include "farm/farm_counters.h"
#include "farm/redis_client.h"
#include "farm/tier.h"
#include "standalone/standalone_host.h"
#include "tools/jxcache/tool_error.h"

namespace jx::tool {
namespace {

// Long enough for the last frames' writes of a busy node; bounded so a dead server cannot hold
// the end of a run.
constexpr uint32_t kFinishWaitMs = 30000;

}  // namespace

void AddFarmOptions(CLI::App& cmd, SimulateOptions& o) {
  cmd.add_option("--farm", o.farmAddress,
                 "Share frames with other nodes through a Redis server: redis://HOST:PORT or "
                 "unix:///path (default: the \"JX.Farm.Address\" setting; none)");
  cmd.add_option("--node", o.farmNode, "This node's name in the farm (default: a unique one)");
  cmd.add_option("--farm-timeout", o.farmCommandTimeoutMs,
                 "Milliseconds a farm command may take before it counts as a miss (default 250)");
  cmd.add_option("--farm-lease", o.farmLeaseMs,
                 "Milliseconds a node's lease on a frame it renders lasts unless renewed "
                 "(default 5000)");
  cmd.add_option("--farm-wait", o.farmLeaseWaitMs,
                 "Longest milliseconds a render thread waits for another node's frame "
                 "(default 10000)");
  cmd.add_option("--farm-ttl", o.farmTtlSeconds,
                 "Seconds a frame stays in the farm; 0 for ever (default 86400)");
}

void ValidateFarmOptions(const SimulateOptions& o) {
  // The settings table may name the server the options leave out. Settings are read once per
  // process: the stand-in host must be in place before the first read, or its JX_SETTINGS are
  // never seen.
  jx::StandaloneHost::Instance();
  const std::string address =
      o.farmAddress.empty() ? JX_FarmConfigFromSettings().address : o.farmAddress;
  if (address.empty()) {
    if (!o.farmNode.empty() || o.farmCommandTimeoutMs.has_value() || o.farmLeaseMs.has_value() ||
        o.farmLeaseWaitMs.has_value() || o.farmTtlSeconds.has_value()) {
      throw UsageError("--node and the --farm-* limits need --farm");
    }
    return;
  }
  jx::farm::Address parsed;
  std::string why;
  if (!jx::farm::ParseAddress(address, &parsed, &why)) {
    throw UsageError((o.farmAddress.empty() ? "JX.Farm.Address: " : "--farm: ") + why);
  }
  if (o.farmNode.find_first_of(" \t\n") != std::string::npos) {
    throw UsageError("--node: a name without spaces");
  }
}

SessionFarm::SessionFarm(const SimulateOptions& o, SessionResult* result) {
  JX_FarmConfig c = JX_FarmConfigFromSettings();
  if (!o.farmAddress.empty()) c.address = o.farmAddress;
  if (c.address.empty()) return;
  if (!o.farmNode.empty()) c.node = o.farmNode;
  c.commandTimeoutMs = o.farmCommandTimeoutMs.value_or(c.commandTimeoutMs);
  c.leaseMs = o.farmLeaseMs.value_or(c.leaseMs);
  c.leaseWaitMs = o.farmLeaseWaitMs.value_or(c.leaseWaitMs);
  c.ttlSeconds = o.farmTtlSeconds.value_or(c.ttlSeconds);
  std::string why;
  if (!JX_AttachFarmTier(c, &why)) throw UsageError(why);
  jx::farm::ResetCounters();
  active_ = true;
  FarmFigures& f = result->farm;
  f.used = true;
  f.address = c.address;
  f.node = jx::farm::CurrentTier()->Config().node;
  f.commandTimeoutMs = c.commandTimeoutMs;
  f.connectTimeoutMs = c.connectTimeoutMs;
  f.leaseMs = c.leaseMs;
  f.leaseWaitMs = c.leaseWaitMs;
  f.ttlSeconds = c.ttlSeconds;
}

void SessionFarm::Finish(SessionResult* result) {
  if (!active_) return;
  FarmFigures& f = result->farm;
  f.writesLeftUnfinished = !JX_WaitForFarmWrites(kFinishWaitMs);
  const jx::farm::Counters& c = jx::farm::GetCounters();
  f.hits = c.hits.load();
  f.misses = c.misses.load();
  f.writes = c.writes.load();
  f.duplicateWrites = c.duplicateWrites.load();
  f.corrupt = c.corrupt.load();
  f.missingParts = c.missingParts.load();
  f.leaseWaits = c.leaseWaits.load();
  f.leaseTakeovers = c.leaseTakeovers.load();
  f.leaseWaitsGivenUp = c.leaseWaitsGivenUp.load();
  f.notWorthSharing = c.notWorthSharing.load();
  f.errors = c.errors.load();
  f.timeouts = c.timeouts.load();
  f.bytesRead = c.bytesRead.load();
  f.bytesWritten = c.bytesWritten.load();
}

nlohmann::ordered_json FarmJson(const SessionResult& r) {
  const FarmFigures& f = r.farm;
  nlohmann::ordered_json j = {{"used", f.used}};
  if (!f.used) return j;
  j["address"] = f.address;
  j["node"] = f.node;
  j["hits"] = f.hits;
  j["misses"] = f.misses;
  j["writes"] = f.writes;
  j["duplicate_writes"] = f.duplicateWrites;
  j["corrupt"] = f.corrupt;
  j["lease_waits"] = f.leaseWaits;
  j["lease_takeovers"] = f.leaseTakeovers;
  j["errors"] = f.errors;
  j["missing_parts"] = f.missingParts;
  j["lease_waits_given_up"] = f.leaseWaitsGivenUp;
  j["not_worth_sharing"] = f.notWorthSharing;
  j["timeouts"] = f.timeouts;
  j["bytes_read"] = f.bytesRead;
  j["bytes_written"] = f.bytesWritten;
  j["writes_left_unfinished"] = f.writesLeftUnfinished;
  nlohmann::ordered_json perPass = nlohmann::ordered_json::array();
  for (const PassResult& p : r.passes) perPass.push_back(p.farmHits);
  j["hits_per_pass"] = perPass;
  j["settings"] = {{"connect_timeout_ms", f.connectTimeoutMs},
                   {"command_timeout_ms", f.commandTimeoutMs},
                   {"lease_ms", f.leaseMs},
                   {"lease_wait_ms", f.leaseWaitMs},
                   {"ttl_seconds", f.ttlSeconds}};
  return j;
}

void PrintFarmSummary(const SessionResult& r, std::ostream& out) {
  const FarmFigures& f = r.farm;
  if (!f.used) return;
  out << "farm " << f.address << " as node " << f.node << ": " << f.hits << " hits, " << f.misses
      << " misses, " << f.writes << " writes (" << f.duplicateWrites << " duplicate), "
      << f.leaseWaits << " lease waits, " << f.leaseTakeovers << " takeovers, " << f.corrupt
      << " corrupt, " << f.errors << " errors\n";
}

}  // namespace jx::tool
