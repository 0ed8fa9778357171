// A program built against an installed jxcache, the way an embedding application would use it:
// only <jxcache/...> headers and what the library exports. It leaves every host service at the
// library's default, starts the cache, reads its statistics, and shuts it down.
#include <jxcache/common/version.h>
#include <jxcache/lifecycle/lifecycle.h>
#include <jxcache/lifecycle/statistics.h>

#include <cstdio>
#include <string>

static_assert(JXCACHE_VERSION >= 200, "built against the headers of jxcache 0.2 or later");

int main() {
  JX_Birth(/*mediaMapAllowed=*/false, /*bagArgument=*/1, /*gfxpakLimitAllowed=*/false);
  const bool started = JX_GlobalBag() != nullptr;
  const std::string stats = JX_GetStatisticsJson();
  JX_StopAllAsyncWork();
  JX_Death();
  const bool sameVersion = std::string(JX_GetLibraryVersionString()) == JXCACHE_VERSION_STRING;
  std::printf("jxcache %s (headers %s): %s, %zu bytes of statistics\n",
              JX_GetLibraryVersionString(), JXCACHE_VERSION_STRING, started ? "ok" : "no bag",
              stats.size());
  return started && sameVersion && !stats.empty() && stats.front() == '{' ? 0 : 1;
}
