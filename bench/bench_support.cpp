#include "bench_support.h"

#include <mutex>

#include "jxcache/lifecycle/lifecycle.h"
#include "jxcache/y_vx_suite.h"
#include "standalone/standalone_host.h"

namespace jx::bench {

void EnsureLibrary() {
  static std::once_flag once;
  std::call_once(once, [] {
    auto& host = StandaloneHost::Instance();
    host.SetEchoReports(false);
    host.SetMemoryLimit(1ull << 40);
    host.SetAmountAvailableBeforePurge(1ull << 40);
    JX_Birth(false, 1, false);
  });
}

const KQGP_ComputeCacheSuite1& ComputeSuiteWithClass(const char* classId,
                                                     const KQGP_ComputeCacheCallbacks& callbacks) {
  EnsureLibrary();
  JX_VX_Birth();
  const void* table = nullptr;
  Y_VX_AcquireVXSuite(kKQGPComputeCacheSuite, kKQGPComputeCacheSuiteVersion1, &table);
  const auto* suite = static_cast<const KQGP_ComputeCacheSuite1*>(table);
  suite->ClassRegister(classId, &callbacks);
  return *suite;
}

const std::vector<zelcore::utility::Guid>& FillBag(size_t count) {
  static std::vector<zelcore::utility::Guid> guids;
  static size_t filled = 0;
  EnsureLibrary();
  if (filled == count) return guids;
  auto bag = JX_GlobalBag();
  bag->ClearBagAndSortDir();
  guids.clear();
  for (size_t i = 0; i < count; ++i) {
    auto item = JX_Stuff::CreateNew(
        zelcore::utility::IntrusivePtr<JX_StuffData>(new SizedPayload(1024)), 0.0);
    item->SetGuid(zelcore::utility::Guid::CreateUnique());
    guids.push_back(item->GetGuid());
    bag->AddToBagAndSortDir(item);
  }
  filled = count;
  return guids;
}

zelcore::utility::IntrusivePtr<JX_Stuff> Request(const zelcore::utility::Guid& guid) {
  auto item =
      JX_Stuff::CreateNew(zelcore::utility::IntrusivePtr<JX_StuffData>(new SizedPayload(0)), 0.0);
  item->SetGuid(guid);
  return item;
}

}  // namespace jx::bench
