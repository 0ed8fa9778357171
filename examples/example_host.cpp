// A minimal host: starts the cache, publishes the plug-in suite, runs the example plug-in and
// shuts the cache down again. Exits 0 when the plug-in succeeded and every value it computed
// was deleted by the end.
#include <cstdio>
#include <cstdlib>

#include <jxcache/lifecycle/lifecycle.h>
#include "compute_plugin.h"

int main(int argc, char** argv) {
  const int threads = argc > 1 ? std::atoi(argv[1]) : 4;
  const int keys = argc > 2 ? std::atoi(argv[2]) : 200;

  JX_Birth(/*mediaMapAllowed=*/false, /*bagArgument=*/1, /*gfxpakLimitAllowed=*/false);
  JX_VX_Birth();
  const int result = ExamplePlugin_Run(threads, keys);
  JX_StopAllAsyncWork();
  JX_Death();

  const int live = ExamplePlugin_LiveValues();
  if (live != 0) std::fprintf(stderr, "example host: %d values never deleted\n", live);
  return result != 0 ? result : (live != 0 ? 10 : 0);
}
