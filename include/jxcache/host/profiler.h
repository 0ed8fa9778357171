// A code profiler: named scopes that record how often and how long they ran. Off by default,
// and then a scope costs one relaxed load. "Conditional profiling" runs at a volume; a scope of
// volume v records only when profiling is on at volume v or more. Thread-safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "jxcache/host/export.h"

namespace zelcore::debug {

class JX_EXPORT CodeProfiler {
 public:
  static constexpr int kDefaultVolume = 5;

  // Turns conditional profiling on at `volume` (0 turns it off).
  static void SetConditionalProfilingVolume(int volume);
  static bool IsConditionalProfiling(int volume) {
    int v = volume_.load(std::memory_order_relaxed);
    return v != 0 && v >= volume;
  }

  explicit CodeProfiler(const char* name);
  ~CodeProfiler();
  CodeProfiler(const CodeProfiler&) = delete;
  CodeProfiler& operator=(const CodeProfiler&) = delete;
  // Ends the scope early (the destructor then does nothing).
  void End();

  struct Entry {
    std::string name;
    uint64_t count;
    double seconds;
  };
  static std::vector<Entry> Snapshot();
  static void Reset();

 private:
  static std::atomic<int> volume_;
  const char* name_;
  uint64_t start_;
  bool ended_ = false;
};

// A profile-data log: named series of durations (e.g. waits), kept only while profiling is on.
class JX_EXPORT ProfileDataLog {
 public:
  explicit ProfileDataLog(const char* name) : name_(name) {}
  void Add(double seconds);
  const char* Name() const { return name_; }
  uint64_t Count() const { return count_.load(std::memory_order_relaxed); }

 private:
  const char* name_;
  std::atomic<uint64_t> count_{0};
};

}  // namespace zelcore::debug

#define ZC_PROFILE_CONCAT2(a, b) a##b
#define ZC_PROFILE_CONCAT(a, b) ZC_PROFILE_CONCAT2(a, b)
// Opens a profiler scope named `name` when conditional profiling runs at `volume` or more.
#define ZC_PROFILE_SCOPE(name, volume)                                                 \
  std::optional<::zelcore::debug::CodeProfiler> ZC_PROFILE_CONCAT(zc_prof_, __LINE__); \
  if (::zelcore::debug::CodeProfiler::IsConditionalProfiling(volume))                  \
  ZC_PROFILE_CONCAT(zc_prof_, __LINE__).emplace(name)
