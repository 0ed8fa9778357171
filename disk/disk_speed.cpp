#include "disk/disk_speed.h"

#include <algorithm>
#include <atomic>

#include "disk/disk_counters.h"
#include "jxcache/host/high_precision_time.h"

using zelcore::utility::HighPrecisionTime;

namespace jx::disk {
namespace {

std::atomic<double> gSpeedCap{kDefaultSpeedCap};
std::atomic<double> gProclivityMultiplier{kDefaultProclivityMultiplier};

}  // namespace

void SpeedStatistics::AddSample(uint64_t bytes, double seconds, uint64_t now, double speedCap) {
  if (!(seconds > 0.0)) return;
  std::lock_guard<std::mutex> lock(mutex_);
  double speed = static_cast<double>(bytes) / seconds;
  if (s_.lastTimeStamp != 0 && now >= s_.lastTimeStamp) {
    const double sincePrevious = HighPrecisionTime::ToSeconds(now - s_.lastTimeStamp);
    if (seconds > sincePrevious) {
      // Both operations were in flight together: what the disk delivered is their sum over the
      // span from the start of the earlier one to now.
      const uint64_t mergedBytes = s_.lastBytes + bytes;
      const double mergedSeconds = sincePrevious + s_.lastSeconds;
      const double mergedSpeed = static_cast<double>(mergedBytes) / mergedSeconds;
      if (mergedSpeed > speed) {
        bytes = mergedBytes;
        seconds = mergedSeconds;
        speed = mergedSpeed;
      }
    }
  }
  if (speed < speedCap) {
    s_.average = speed * s_.newSampleWeight + s_.average * s_.oldAverageWeight;
    ++s_.sampleCount;
    if (s_.sampleCount > s_.warmUpCount) {
      s_.maxAverage = std::max(s_.maxAverage, s_.average);
      s_.maxSpeed = std::max(s_.maxSpeed, speed);
    }
  }
  s_.lastBytes = bytes;
  s_.lastSeconds = seconds;
  s_.lastTimeStamp = now;
}

void SpeedStatistics::Reset() {
  std::lock_guard<std::mutex> lock(mutex_);
  s_ = Snapshot{};
}

double SpeedStatistics::GetAverage() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return s_.average;
}

double SpeedStatistics::GetMaxAverage() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return s_.maxAverage;
}

int64_t SpeedStatistics::GetSampleCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return s_.sampleCount;
}

SpeedStatistics::Snapshot SpeedStatistics::GetSnapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return s_;
}

SpeedStatistics& ReadSpeedStatistics() {
  static SpeedStatistics stats;
  return stats;
}

SpeedStatistics& WriteSpeedStatistics() {
  static SpeedStatistics stats;
  return stats;
}

double GetAverageDiskReadSpeed() { return ReadSpeedStatistics().GetAverage(); }
double GetAverageDiskWriteSpeed() { return WriteSpeedStatistics().GetAverage(); }
double GetMaxDiskReadSpeed() { return ReadSpeedStatistics().GetMaxAverage(); }
double GetMaxDiskWriteSpeed() { return WriteSpeedStatistics().GetMaxAverage(); }

double GetSpeedCap() { return gSpeedCap.load(std::memory_order_relaxed); }
void SetSpeedCap(double bytesPerSecond) { gSpeedCap.exchange(bytesPerSecond); }
double GetProclivityMultiplier() { return gProclivityMultiplier.load(std::memory_order_relaxed); }
void SetProclivityMultiplier(double multiplier) { gProclivityMultiplier.exchange(multiplier); }

void AddWriteSpeedSample(uint64_t bytes, double seconds) {
  const uint64_t now = HighPrecisionTime::GetCurrentTimeStamp();
  const double cap = GetSpeedCap();
  WriteSpeedStatistics().AddSample(bytes, seconds, now, cap);
  // A fresh process has written before it has read anything: until the read statistics have
  // half their weight from real reads, writes stand in for them.
  SpeedStatistics& reads = ReadSpeedStatistics();
  if (static_cast<double>(reads.GetSampleCount()) < 0.5 / SpeedStatistics::kNewSampleWeight) {
    reads.AddSample(bytes, seconds, now, cap);
  }
}

void AddReadSpeedSample(uint64_t bytes, double seconds) {
  ReadSpeedStatistics().AddSample(bytes, seconds, HighPrecisionTime::GetCurrentTimeStamp(),
                                  GetSpeedCap());
}

}  // namespace jx::disk
