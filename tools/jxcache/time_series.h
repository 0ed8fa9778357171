// What `simulate` records of a run as it goes, for the report's charts and the JSON: a time
// series of the session's state, the purges the host asked for, and render times. Each keeps
// within a fixed size however long the run: an hour-long session must not grow the tool's memory
// or the report without bound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <random>
#include <vector>

namespace jx::tool {

// The session at one moment. Counts are totals since the start, so that any two samples give the
// rates between them, whichever samples were dropped in between.
struct SeriesSample {
  double seconds = 0;       // since the session started
  uint32_t pass = 0;        // index of the pass running
  uint64_t framesDone = 0;  // requests served, over all passes
  uint64_t hits = 0;        // of them, served from memory or disk without a render
  uint64_t memory = 0;      // bytes the budget covers: the cache and the host's media
  uint64_t disk = 0;        // bytes of the disk cache
  uint64_t writeQueue = 0;  // frames waiting in the disk writer's queues
};

// A sample with the rates over the stretch since the sample before it.
struct SeriesPoint {
  SeriesSample sample;
  double framesPerSecond = 0;     // 0 for the first sample
  std::optional<double> hitRate;  // none when the stretch served no request
};
std::vector<SeriesPoint> WithRates(const std::vector<SeriesSample>& samples);

// Keeps a sample at most every `interval` seconds, and at most `capacity` of them: when full,
// every other sample is dropped and the interval doubled, so the series always spans the whole
// run at an even spacing.
class SeriesRecorder {
 public:
  SeriesRecorder(double interval, size_t capacity);
  // Whether a sample at `seconds` would be kept: lets the caller skip gathering one.
  bool Due(double seconds) const;
  // Keeps `s` when due, or always when `force` (the end of a pass).
  void Offer(const SeriesSample& s, bool force = false);
  const std::vector<SeriesSample>& Samples() const { return samples_; }
  double Interval() const { return interval_; }

 private:
  double interval_;
  size_t capacity_;
  std::vector<SeriesSample> samples_;
};

// A purge the host asked the cache for. When the log is full, purges closer in time than a
// spacing that doubles each time are merged: `purges` says how many purges an entry stands for,
// and the bytes are their sum.
struct PurgeEvent {
  double seconds = 0;  // the first purge's
  uint64_t bytesFreed = 0;
  uint64_t purges = 1;
};

class PurgeLog {
 public:
  explicit PurgeLog(size_t capacity) : capacity_(capacity < 2 ? 2 : capacity) {}
  void Add(double seconds, uint64_t bytesFreed);
  const std::vector<PurgeEvent>& Events() const { return events_; }

 private:
  size_t capacity_;
  double spacing_ = 0;  // purges closer than this to the entry before them join it
  std::vector<PurgeEvent> events_;
};

// Render times in milliseconds: all of them up to `capacity`, then a uniform sample of them
// (reservoir sampling), so the distribution stays faithful however many renders there were.
// Any thread may add.
class RenderTimes {
 public:
  explicit RenderTimes(size_t capacity, uint64_t seed = 1) : capacity_(capacity), rng_(seed) {}
  void Add(double ms);
  std::vector<double> Take();  // the kept times, in no particular order
  uint64_t Count() const;      // every time added

 private:
  mutable std::mutex mutex_;
  size_t capacity_;
  uint64_t count_ = 0;        // guarded by mutex_
  std::vector<double> kept_;  // guarded by mutex_
  std::mt19937_64 rng_;       // guarded by mutex_
};

}  // namespace jx::tool
