// The code profiler's accumulated scopes.
#include "jxcache/host/profiler.h"

#include <map>
#include <mutex>

#include "jxcache/host/high_precision_time.h"

namespace zelcore::debug {

namespace {

struct Totals {
  uint64_t count = 0;
  double seconds = 0.0;
};

struct ProfileState {
  std::mutex mutex;
  // Keyed by the text of the name: two scopes with equal names are one entry even when their
  // literals live at different addresses.
  std::map<std::string, Totals> totals;
};

ProfileState& State() {
  static ProfileState* state = new ProfileState();
  return *state;
}

}  // namespace

std::atomic<int> CodeProfiler::volume_{0};

void CodeProfiler::SetConditionalProfilingVolume(int volume) {
  volume_.store(volume < 0 ? 0 : volume, std::memory_order_relaxed);
}

CodeProfiler::CodeProfiler(const char* name)
    : name_(name != nullptr ? name : ""),
      start_(utility::HighPrecisionTime::GetCurrentTimeStamp()) {}

CodeProfiler::~CodeProfiler() { End(); }

void CodeProfiler::End() {
  if (ended_) return;
  ended_ = true;
  const double seconds = utility::HighPrecisionTime::ToSeconds(
      utility::HighPrecisionTime::GetCurrentTimeStamp() - start_);
  ProfileState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  Totals& t = s.totals[name_];
  ++t.count;
  t.seconds += seconds;
}

std::vector<CodeProfiler::Entry> CodeProfiler::Snapshot() {
  ProfileState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  std::vector<Entry> entries;
  entries.reserve(s.totals.size());
  for (const auto& [name, t] : s.totals) entries.push_back(Entry{name, t.count, t.seconds});
  return entries;
}

void CodeProfiler::Reset() {
  ProfileState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.totals.clear();
}

void ProfileDataLog::Add(double seconds) {
  (void)seconds;  // only the count is kept; the durations matter to a live profiler view
  count_.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace zelcore::debug
