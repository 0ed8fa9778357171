// Time stamps and timers.
//
// GetCurrentTimeStamp is monotonic and cheap (it sits on every check-in): nanoseconds of the
// steady clock. Time stamps only order events and measure intervals; they are not wall time.
#pragma once

#include <chrono>
#include <cstdint>

namespace zelcore::utility {

class HighPrecisionTime {
 public:
  static uint64_t GetCurrentTimeStamp() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
  }
  static double ToSeconds(uint64_t stampDelta) { return static_cast<double>(stampDelta) * 1e-9; }
  static uint64_t FromSeconds(double seconds) { return static_cast<uint64_t>(seconds * 1e9); }
};

// Measures elapsed time from construction (or the last Restart).
class Timer {
 public:
  Timer() : start_(HighPrecisionTime::GetCurrentTimeStamp()) {}
  void Restart() { start_ = HighPrecisionTime::GetCurrentTimeStamp(); }
  double GetElapsedSeconds() const {
    return HighPrecisionTime::ToSeconds(HighPrecisionTime::GetCurrentTimeStamp() - start_);
  }

 private:
  uint64_t start_;
};

}  // namespace zelcore::utility
