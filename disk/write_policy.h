// The write-to-disk policy: whether an item is worth a disk cache file.
//
// An item is worth writing when reading it back would be faster than computing it again. The
// read estimate is the measured average read speed, divided by the proclivity multiplier (and
// by the low-priority factor for low-priority writes), then scaled by the square of the write
// queue's free fraction so that a filling queue quickly stops new low-value writes.
//
// Pure functions take every input as an argument; the others read the process-wide statistics,
// settings and queue lengths. All are thread-safe and take no cache lock.
#pragma once

#include <cstdint>

#include "jxcache/common/jx_types.h"
#include "jxcache/items/stuff_data.h"

namespace jx::disk {

// Reads shorter than this are counted as taking this long: a tiny read still costs a seek.
inline constexpr double kMinReadSeconds = 0.001;

struct ReadSpeedEstimate {
  double average = 0.0;   // after the multiplier and factor, before the queue
  double adjusted = 0.0;  // average x free fraction squared
};

// `lowPriorityFactor` 0 means no division.
ReadSpeedEstimate AdjustReadSpeed(double averageReadSpeed, double proclivityMultiplier,
                                  bool lowPriority, double lowPriorityFactor, double freeFraction);
// The estimate from the live statistics, settings and queue.
ReadSpeedEstimate GetAdjustedAverageReadSpeed(bool lowPriority);
// One of the two: the queue-adjusted speed when `adjustForQueue`, else the average.
double GetAdjustedAverageReadSpeed(bool lowPriority, bool adjustForQueue);

// Whether reading `size` bytes at `readSpeed` beats computing them in `computeSeconds`.
bool SpeedRuleSaysWorth(uint64_t size, double computeSeconds, double readSpeed);

// The rule for a shared tier that answers after `latencySeconds` and then delivers `readSpeed`:
// whether fetching `size` bytes beats computing them in `computeSeconds`. A small value costs
// its round trip however fast the wire is, which the disk's rule, with its seek floor, has no
// need to say.
bool SpeedRuleWithLatencySaysWorth(uint64_t size, double computeSeconds, double readSpeed,
                                   double latencySeconds);
// Whether a value is worth putting in the farm tier: the same economics as a disk file, with the
// farm's measured read speed and latency, the farm writes waiting (`freeFraction` of their
// queue, squared, as for the disk), and the host's proclivity multiplier, which here scales the
// whole fetch time, latency included.
bool WorthWritingToFarm(uint64_t size, double computeSeconds, double farmReadSpeed,
                        double latencySeconds, double proclivityMultiplier, double freeFraction);

// Write priority. `prioritySetting`: 0 never high; 1 high for the caller's flag or cache
// priority 2; 2 high exactly for the caller's flag.
bool IsHighWritePriority(int32_t prioritySetting, bool callerFlag, JX_CachePriority priority);
bool IsHighWritePriority(bool callerFlag, JX_CachePriority priority);

struct WorthOutputs {
  bool cacheable = true;
  bool worthIfQueueEmpty = false;
  bool lowPriorityForced = false;
};
// The whole rule for one payload (null: not cacheable, no).
bool WorthWritingToDiskCache(const JX_StuffData* data, double computeSeconds, bool lowPriority,
                             WorthOutputs* out);

}  // namespace jx::disk
