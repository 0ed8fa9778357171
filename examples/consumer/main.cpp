// Starts the cache with a small host budget, checks that the global bag exists, and shuts it down.
// Uses only the installed headers and what the library exports.
#include <cstdio>

#include "common/version.h"
#include "lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"

int main() {
  jx::StandaloneHost::Instance().SetMemoryLimit(uint64_t{64} << 20);
  JX_Birth(/*mediaMapAllowed=*/false, /*bagArgument=*/1, /*gfxpakLimitAllowed=*/false);
  const bool started = JX_GlobalBag() != nullptr;
  JX_StopAllAsyncWork();
  JX_Death();
  std::printf("jxcache %s: %s\n", JX_GetLibraryVersionString(), started ? "ok" : "no bag");
  return started ? 0 : 1;
}
