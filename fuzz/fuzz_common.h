// Shared by the fuzz targets: the library started once per process, quietly, on a disk cache
// folder of its own, with the key-derived payload class registered.
#pragma once

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "host/file_utils.h"
#include "jxcache/bag/bag.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"
#include "testing/keyed_payload.h"

namespace jx::fuzz {

// Stops the run when an invariant breaks: libFuzzer keeps the input that did it.
#define JX_FUZZ_CHECK(condition)                                                               \
  do {                                                                                         \
    if (!(condition)) {                                                                        \
      std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__); \
      std::abort();                                                                            \
    }                                                                                          \
  } while (0)

// The global bag, with disk caching on in a fresh temporary folder.
inline std::shared_ptr<JX_Bag> StartLibrary() {
  static std::shared_ptr<JX_Bag> bag = [] {
    auto& host = jx::StandaloneHost::Instance();
    host.SetEchoReports(false);
    host.MakeCurrentThreadMain();
    std::string folder = zelcore::utility::FileUtils::GetTempDirectoryPath() + "/jxfuzz.XXXXXX";
    if (!mkdtemp(folder.data())) std::abort();
    JX_Birth(false, 1, false);
    jx::testing::KeyedPayload::RegisterFactory();
    auto b = JX_GlobalBag();
    b->EnableDiskCache(true);
    b->SetDiskCacheInfo(folder, 1LL << 40);
    if (!b->IsDiskCacheEnabled()) std::abort();
    return b;
  }();
  return bag;
}

}  // namespace jx::fuzz
