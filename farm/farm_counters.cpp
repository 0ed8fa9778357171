#include "farm/farm_counters.h"

#include <mutex>

namespace jx::farm {
namespace {

struct Latency {
  std::mutex mutex;  // a leaf
  double average = 0.001;
};

Latency& TheLatency() {
  static Latency latency;
  return latency;
}

}  // namespace

void ResetCounters() {
  Counters& c = GetCounters();
  for (std::atomic<uint64_t>* n :
       {&c.hits, &c.misses, &c.writes, &c.duplicateWrites, &c.corrupt, &c.missingParts,
        &c.leaseWaits, &c.leaseTakeovers, &c.leaseWaitsGivenUp, &c.leasesLost, &c.notWorthSharing,
        &c.errors, &c.timeouts, &c.connectionErrors, &c.refusedCommands, &c.bytesRead,
        &c.bytesWritten}) {
    n->store(0, std::memory_order_relaxed);
  }
}

jx::disk::SpeedStatistics& ReadSpeed() {
  static jx::disk::SpeedStatistics stats;
  return stats;
}

jx::disk::SpeedStatistics& WriteSpeed() {
  static jx::disk::SpeedStatistics stats;
  return stats;
}

double AverageLatencySeconds() {
  Latency& l = TheLatency();
  std::lock_guard<std::mutex> lock(l.mutex);
  return l.average;
}

void AddLatencySample(double seconds) {
  if (!(seconds > 0.0)) return;
  Latency& l = TheLatency();
  std::lock_guard<std::mutex> lock(l.mutex);
  l.average = seconds * jx::disk::SpeedStatistics::kNewSampleWeight +
              l.average * jx::disk::SpeedStatistics::kOldAverageWeight;
}

}  // namespace jx::farm
