// Tracing by category and level. A category is on up to a level ("JX:7" turns on levels 1..7 of
// "JX"); the text of a trace is built only when its category is on at its level. Each call site
// caches whether it is on and looks again only when the configuration changes.
// Configured by the host (Configure: "category:level,...", "*" for every category) and written
// to the host's trace sink (jx::host::TraceSink), or to a sink a test installs. Thread-safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>

#include "jxcache/host/export.h"

namespace zelcore::debug {

class JX_EXPORT Tracing {
 public:
  static bool IsEnabled(const char* category, int level);
  static void SetLevel(const std::string& category, int level);  // 0 turns a category off
  static void Configure(const std::string& config);              // "JX:7,JX_Purge:6"
  static void Write(const char* category, int level, const std::string& text);
  // Routes traces to `sink` (empty: back to the host's trace sink).
  using Sink = std::function<void(const char* category, int level, const std::string& text)>;
  static void SetSink(Sink sink);
  // Moves whenever the configuration changes; call sites compare it with their cached copy.
  static uint64_t Generation();
};

namespace detail {
// A call site's cached answer: the generation it was computed for and whether the site is on,
// in one word (generation << 1 | on), so that a thread can never pair one answer's generation
// with another's flag. Two threads refreshing at once may store in either order; an older pair
// written last only makes the next call look again.
struct TraceSite {
  static constexpr uint64_t kNeverLooked = ~0ull;
  const char* category;
  int level;
  std::atomic<uint64_t> cached{kNeverLooked};
  bool Enabled() {
    const uint64_t g = Tracing::Generation();
    uint64_t c = cached.load(std::memory_order_relaxed);
    if (c == kNeverLooked || (c >> 1) != g) {
      c = (g << 1) | (Tracing::IsEnabled(category, level) ? 1u : 0u);
      cached.store(c, std::memory_order_relaxed);
    }
    return (c & 1u) != 0;
  }
};
// Builds and writes the text of a trace whose call site found it on. Out of line and cold, so
// that the stream and its frame cost a hot caller nothing while tracing is off.
template <class Build>
[[gnu::noinline, gnu::cold]] void WriteTrace(const char* category, int level, Build&& build) {
  std::ostringstream os;
  build(os);
  Tracing::Write(category, level, os.str());
}
}  // namespace detail

}  // namespace zelcore::debug

// ZC_TRACE("JX", 7, "AdjustInMemoryCacheSize: " << delta);
#define ZC_TRACE(category, level, streamed)                                                    \
  do {                                                                                         \
    static ::zelcore::debug::detail::TraceSite zc_trace_site_{(category), (level)};            \
    if (zc_trace_site_.Enabled()) [[unlikely]] {                                               \
      ::zelcore::debug::detail::WriteTrace(                                                    \
          (category), (level), [&](std::ostream& zc_trace_os_) { zc_trace_os_ << streamed; }); \
    }                                                                                          \
  } while (0)

#define ZC_TRACE_ENABLED(category, level)                                           \
  ([]() -> bool {                                                                   \
    static ::zelcore::debug::detail::TraceSite zc_trace_site_{(category), (level)}; \
    return zc_trace_site_.Enabled();                                                \
  }())
