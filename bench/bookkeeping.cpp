// Bytes of bookkeeping per cached item (the item, its directory node, its recency link and the
// weak-reference block), measured by counting every allocation the cache makes while items are
// created and added. Payloads are allocated before counting starts: they are the host's bytes.
#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

#include "bench_support.h"
#include "jxcache/lifecycle/lifecycle.h"

namespace {
std::atomic<long long> gRequested{0};
std::atomic<long long> gUsable{0};
std::atomic<bool> gCounting{false};
}  // namespace

void* operator new(size_t size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  if (gCounting.load(std::memory_order_relaxed)) {
    gRequested += static_cast<long long>(size);
    gUsable += static_cast<long long>(malloc_usable_size(p));
  }
  return p;
}
void operator delete(void* p) noexcept {
  if (p && gCounting.load(std::memory_order_relaxed)) {
    gUsable -= static_cast<long long>(malloc_usable_size(p));
  }
  std::free(p);
}
void operator delete(void* p, size_t) noexcept { operator delete(p); }

int main(int argc, char** argv) {
  const size_t n = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 100000;
  jx::bench::EnsureLibrary();
  auto bag = JX_GlobalBag();
  std::vector<zelcore::utility::IntrusivePtr<JX_StuffData>> payloads;
  for (size_t i = 0; i < n; ++i) payloads.emplace_back(new jx::bench::SizedPayload(1024));
  std::vector<zelcore::utility::Guid> guids;
  for (size_t i = 0; i < n; ++i) guids.push_back(zelcore::utility::Guid::CreateUnique());

  gCounting = true;
  for (size_t i = 0; i < n; ++i) {
    auto item = JX_Stuff::CreateNew(payloads[i], 0.0);
    item->SetGuid(guids[i]);
    bag->AddToBagAndSortDir(item);
  }
  gCounting = false;
  const long long requestedNet = gRequested.load();
  if (bag->GetNumItems() != static_cast<int>(n)) {
    std::fprintf(stderr, "bookkeeping: expected %zu items, bag holds %d\n", n, bag->GetNumItems());
    return 1;
  }
  std::printf(
      "{\"items\": %zu, \"bytes_requested_per_item\": %.1f, \"bytes_with_allocator_per_item\": "
      "%.1f}\n",
      n, static_cast<double>(requestedNet) / static_cast<double>(n),
      static_cast<double>(gUsable.load()) / static_cast<double>(n));
  return 0;
}
