// Disk speed statistics: one process-wide instance for reads and one for writes, each an
// exponential moving average of bytes per second with its own mutex (a leaf lock).
//
// The write policy divides an item's size by the read estimate to judge whether reading it back
// would beat computing it again, so the estimate must neither collapse on a burst of concurrent
// operations (overlapping samples are merged into one throughput figure) nor be dragged up by
// implausible figures from the page cache (samples at or above the speed cap are left out).
//
// Also here: the two tuning values that JX_Bag::SetDiskCacheInfo reads from the host's
// preferences (the speed cap and the proclivity multiplier), kept in atomics.
#pragma once

#include <cstdint>
#include <mutex>

namespace jx::disk {

class SpeedStatistics {
 public:
  static constexpr int64_t kWarmUpSamples = 50;
  static constexpr double kNewSampleWeight = 0.02;
  static constexpr double kOldAverageWeight = 0.98;
  static constexpr double kInitialAverage = 536870912.0;  // 512 MiB/s until measured

  struct Snapshot {
    int64_t warmUpCount = kWarmUpSamples;
    double newSampleWeight = kNewSampleWeight;
    double oldAverageWeight = kOldAverageWeight;
    double average = kInitialAverage;
    double maxAverage = 0.0;
    double maxSpeed = 0.0;
    int64_t sampleCount = 0;
    uint64_t lastBytes = 0;
    double lastSeconds = 0.0;
    uint64_t lastTimeStamp = 0;
  };

  // Adds an operation of `bytes` that took `seconds` and ended at high-precision time stamp
  // `now`. An operation that overlapped the previous one is merged with it when that gives the
  // higher speed. Speeds at or above `speedCap` only become the previous sample.
  void AddSample(uint64_t bytes, double seconds, uint64_t now, double speedCap);

  double GetAverage() const;
  double GetMaxAverage() const;
  int64_t GetSampleCount() const;
  Snapshot GetSnapshot() const;
  // Forgets every sample: the estimate is the initial one again.
  void Reset();

 private:
  mutable std::mutex mutex_;
  Snapshot s_;
};

SpeedStatistics& ReadSpeedStatistics();
SpeedStatistics& WriteSpeedStatistics();

// The process-wide estimates, as the policy and the performance counters read them.
double GetAverageDiskReadSpeed();
double GetAverageDiskWriteSpeed();
double GetMaxDiskReadSpeed();
double GetMaxDiskWriteSpeed();

// Tuning values (set by JX_Bag::SetDiskCacheInfo; defaults until then).
inline constexpr double kDefaultSpeedCap = 10737418240.0;  // 10 GiB/s
inline constexpr double kDefaultProclivityMultiplier = 1.0;
double GetSpeedCap();
void SetSpeedCap(double bytesPerSecond);
double GetProclivityMultiplier();
void SetProclivityMultiplier(double multiplier);

}  // namespace jx::disk
