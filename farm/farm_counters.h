// The farm tier's process-wide counters, its speed statistics and the latency of its server.
//
// Counters are lock-free atomics. Read speed and write speed are measured the way the disk's are
// (jx::disk::SpeedStatistics: a moving average of bytes per second, overlapping transfers
// merged); latency is a moving average of the seconds a small command takes, which is what a
// small value costs however fast the wire is. Both feed the farm's write-worthiness rule.
#pragma once

#include <atomic>
#include <cstdint>

#include "disk/disk_speed.h"

namespace jx::farm {

struct Counters {
  // One per lookup of an item before its compute: found (and good), or not.
  std::atomic<uint64_t> hits{0};
  std::atomic<uint64_t> misses{0};
  std::atomic<uint64_t> writes{0};             // values this node put in the farm
  std::atomic<uint64_t> duplicateWrites{0};    // another node had put the value there first
  std::atomic<uint64_t> corrupt{0};            // values that failed their checks (key deleted)
  std::atomic<uint64_t> missingParts{0};       // a manifest whose part was gone
  std::atomic<uint64_t> leaseWaits{0};         // lookups that waited for another node's compute
  std::atomic<uint64_t> leaseTakeovers{0};     // leases taken after another node's lapsed
  std::atomic<uint64_t> leaseWaitsGivenUp{0};  // waits that hit their limit: computed anyway
  std::atomic<uint64_t> leasesLost{0};         // a renewal found the lease held by another node
  std::atomic<uint64_t> notWorthSharing{0};    // the rule said computing beats fetching
  // Faults, each also counted in `errors`: every one ended as a miss or a skipped write.
  std::atomic<uint64_t> errors{0};
  std::atomic<uint64_t> timeouts{0};
  std::atomic<uint64_t> connectionErrors{0};
  std::atomic<uint64_t> refusedCommands{0};  // the server answered with an error (maxmemory...)
  std::atomic<uint64_t> bytesRead{0};
  std::atomic<uint64_t> bytesWritten{0};
  std::atomic<uint32_t> uploadsQueued{0};  // a gauge: farm writes waiting for the writer
};

inline Counters& GetCounters() {
  static Counters counters;
  return counters;
}
// Sets the counters of work done back to zero (the queued-uploads gauge stays).
void ResetCounters();

jx::disk::SpeedStatistics& ReadSpeed();
jx::disk::SpeedStatistics& WriteSpeed();
// Seconds a small command takes, on average; 1 ms until measured.
double AverageLatencySeconds();
void AddLatencySample(double seconds);

}  // namespace jx::farm
