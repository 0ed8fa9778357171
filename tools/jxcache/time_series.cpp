#include "tools/jxcache/time_series.h"

#include <algorithm>

namespace jx::tool {

std::vector<SeriesPoint> WithRates(const std::vector<SeriesSample>& samples) {
  std::vector<SeriesPoint> out;
  out.reserve(samples.size());
  for (size_t i = 0; i < samples.size(); ++i) {
    SeriesPoint p{samples[i], 0.0, std::nullopt};
    if (i > 0) {
      const SeriesSample& a = samples[i - 1];
      const SeriesSample& b = samples[i];
      const uint64_t frames = b.framesDone - a.framesDone;
      const double dt = b.seconds - a.seconds;
      if (dt > 0) p.framesPerSecond = frames / dt;
      if (frames > 0) {
        // The counters are read one after the other while the threads run: keep the ratio sane.
        const uint64_t hits = std::min(frames, b.hits >= a.hits ? b.hits - a.hits : 0);
        p.hitRate = static_cast<double>(hits) / frames;
      }
    }
    out.push_back(p);
  }
  return out;
}

SeriesRecorder::SeriesRecorder(double interval, size_t capacity)
    : interval_(interval > 0 ? interval : 0.1), capacity_(std::max<size_t>(capacity, 4)) {
  samples_.reserve(capacity_);
}

bool SeriesRecorder::Due(double seconds) const {
  return samples_.empty() || seconds - samples_.back().seconds >= interval_;
}

void SeriesRecorder::Offer(const SeriesSample& s, bool force) {
  if (!force && !Due(s.seconds)) return;
  if (!samples_.empty() && s.seconds < samples_.back().seconds) return;  // keeps time moving on
  if (samples_.size() == capacity_) {
    // Every other one, from the first: the start of the run stays, the spacing stays even.
    size_t kept = 0;
    for (size_t i = 0; i < samples_.size(); i += 2) samples_[kept++] = samples_[i];
    samples_.resize(kept);
    interval_ *= 2;
  }
  samples_.push_back(s);
}

void PurgeLog::Add(double seconds, uint64_t bytesFreed) {
  if (!events_.empty() && seconds - events_.back().seconds < spacing_) {
    events_.back().bytesFreed += bytesFreed;
    ++events_.back().purges;
    return;
  }
  events_.push_back({seconds, bytesFreed, 1});
  while (events_.size() >= capacity_) {
    // Coarser buckets of time, each as long as the others: the log thins the same everywhere,
    // rather than the old purges ending up as a few huge entries and the recent ones alone.
    const double span = events_.back().seconds - events_.front().seconds;
    spacing_ = std::max({spacing_ * 2, 2 * span / capacity_, 1e-9});
    size_t kept = 0;
    for (size_t i = 1; i < events_.size(); ++i) {
      PurgeEvent& into = events_[kept];
      if (events_[i].seconds - into.seconds < spacing_) {
        into.bytesFreed += events_[i].bytesFreed;
        into.purges += events_[i].purges;
      } else {
        events_[++kept] = events_[i];
      }
    }
    events_.resize(kept + 1);
  }
}

void RenderTimes::Add(double ms) {
  std::lock_guard<std::mutex> l(mutex_);
  ++count_;
  if (kept_.size() < capacity_) {
    kept_.push_back(ms);
    return;
  }
  // Each of the count_ times so far stays with the same chance, capacity_ / count_.
  std::uniform_int_distribution<uint64_t> pick(0, count_ - 1);
  const uint64_t slot = pick(rng_);
  if (slot < capacity_) kept_[slot] = ms;
}

std::vector<double> RenderTimes::Take() {
  std::lock_guard<std::mutex> l(mutex_);
  return std::move(kept_);
}

uint64_t RenderTimes::Count() const {
  std::lock_guard<std::mutex> l(mutex_);
  return count_;
}

}  // namespace jx::tool
