// Tracing configuration and output.
//
// The configuration (category -> level) is read under a mutex; call sites avoid that cost by
// caching their answer against Generation(), which moves on every change. Output has its own
// mutex so that a sink may itself ask whether tracing is on without deadlocking.
#include "host/trace.h"

#include "jxcache/host/host_services.h"

#include <cstdlib>
#include <limits>
#include <map>
#include <mutex>

namespace zelcore::debug {

namespace {

struct TraceState {
  std::mutex configMutex;
  std::map<std::string, int, std::less<>> levels;
  std::atomic<uint64_t> generation{0};

  std::mutex outputMutex;
  Tracing::Sink sink;

  static std::string Trim(const std::string& text) {
    size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return std::string();
    size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
  }

  // "category:level,..." Entries that do not parse are skipped; a category without a level is
  // on at every level.
  static void ParseInto(const std::string& config, std::map<std::string, int, std::less<>>& out) {
    size_t start = 0;
    while (start <= config.size()) {
      size_t comma = config.find(',', start);
      if (comma == std::string::npos) comma = config.size();
      std::string entry = Trim(config.substr(start, comma - start));
      start = comma + 1;
      if (entry.empty()) continue;
      size_t colon = entry.rfind(':');
      std::string category = Trim(colon == std::string::npos ? entry : entry.substr(0, colon));
      if (category.empty()) continue;
      int level = std::numeric_limits<int>::max();
      if (colon != std::string::npos) {
        std::string digits = Trim(entry.substr(colon + 1));
        char* end = nullptr;
        long v = std::strtol(digits.c_str(), &end, 10);
        if (digits.empty() || *end != '\0' || v < 0) continue;
        level = v > std::numeric_limits<int>::max() ? std::numeric_limits<int>::max()
                                                    : static_cast<int>(v);
      }
      if (level == 0) {
        out.erase(category);
      } else {
        out[category] = level;
      }
    }
  }
};

TraceState& State() {
  // Never destroyed: traces may be written from static destructors.
  static TraceState* state = new TraceState();
  return *state;
}

}  // namespace

bool Tracing::IsEnabled(const char* category, int level) {
  if (category == nullptr) return false;
  TraceState& s = State();
  std::lock_guard<std::mutex> lock(s.configMutex);
  if (s.levels.empty()) return false;
  int configured = 0;
  if (auto it = s.levels.find(std::string_view(category)); it != s.levels.end()) {
    configured = it->second;
  } else if (auto all = s.levels.find(std::string_view("*")); all != s.levels.end()) {
    configured = all->second;
  }
  return configured > 0 && level <= configured;
}

void Tracing::SetLevel(const std::string& category, int level) {
  TraceState& s = State();
  std::lock_guard<std::mutex> lock(s.configMutex);
  if (level <= 0) {
    s.levels.erase(category);
  } else {
    s.levels[category] = level;
  }
  s.generation.fetch_add(1, std::memory_order_acq_rel);
}

// Replaces the whole configuration: categories not named are turned off.
void Tracing::Configure(const std::string& config) {
  std::map<std::string, int, std::less<>> levels;
  TraceState::ParseInto(config, levels);
  TraceState& s = State();
  std::lock_guard<std::mutex> lock(s.configMutex);
  s.levels = std::move(levels);
  s.generation.fetch_add(1, std::memory_order_acq_rel);
}

void Tracing::Write(const char* category, int level, const std::string& text) {
  const char* cat = category != nullptr ? category : "";
  TraceState& s = State();
  std::lock_guard<std::mutex> lock(s.outputMutex);
  if (s.sink) {
    s.sink(cat, level, text);
    return;
  }
  jx::host::GetTrace().Write(cat, level, text);
}

void Tracing::SetSink(Sink sink) {
  TraceState& s = State();
  std::lock_guard<std::mutex> lock(s.outputMutex);
  s.sink = std::move(sink);
}

uint64_t Tracing::Generation() { return State().generation.load(std::memory_order_acquire); }

}  // namespace zelcore::debug
