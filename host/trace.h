// Tracing by category and level. A category is on up to a level ("JX:7" turns on levels 1..7 of
// "JX"); the text of a trace is built only when its category is on at its level. Each call site
// caches whether it is on and looks again only when the configuration changes.
// Configured from $JX_TRACE ("category:level,...", "*" for every category) and written to
// $JX_TRACE_FILE (default: standard error), or to a sink a test installs. Thread-safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>

#include "host/export.h"

namespace zelcore::debug {

class JX_EXPORT Tracing {
 public:
  static bool IsEnabled(const char* category, int level);
  static void SetLevel(const std::string& category, int level);  // 0 turns a category off
  static void Configure(const std::string& spec);                // "JX:7,JX_Purge:6"
  static void Write(const char* category, int level, const std::string& text);
  // Routes traces to `sink` (empty: back to the file or standard error).
  using Sink = std::function<void(const char* category, int level, const std::string& text)>;
  static void SetSink(Sink sink);
  // Moves whenever the configuration changes; call sites compare it with their cached copy.
  static uint64_t Generation();
};

namespace detail {
struct TraceSite {
  const char* category;
  int level;
  std::atomic<uint64_t> generation{~0ull};
  std::atomic<bool> enabled{false};
  bool Enabled() {
    uint64_t g = Tracing::Generation();
    if (generation.load(std::memory_order_acquire) != g) {
      enabled.store(Tracing::IsEnabled(category, level), std::memory_order_relaxed);
      generation.store(g, std::memory_order_release);
    }
    return enabled.load(std::memory_order_relaxed);
  }
};
}  // namespace detail

}  // namespace zelcore::debug

// ZC_TRACE("JX", 7, "AdjustInMemoryCacheSize: " << delta);
#define ZC_TRACE(category, level, streamed)                                         \
  do {                                                                              \
    static ::zelcore::debug::detail::TraceSite zc_trace_site_{(category), (level)}; \
    if (zc_trace_site_.Enabled()) {                                                 \
      std::ostringstream zc_trace_os_;                                              \
      zc_trace_os_ << streamed;                                                     \
      ::zelcore::debug::Tracing::Write((category), (level), zc_trace_os_.str());    \
    }                                                                               \
  } while (0)

#define ZC_TRACE_ENABLED(category, level)                                           \
  ([]() -> bool {                                                                   \
    static ::zelcore::debug::detail::TraceSite zc_trace_site_{(category), (level)}; \
    return zc_trace_site_.Enabled();                                                \
  }())
