#include <atomic>

#include "host/media_manager.h"

namespace {
std::atomic<uint64_t> gFixedMaxCacheSize{4ull << 30};
}

namespace RV::MM {

uint64_t GetFixedMaxCacheSize() { return gFixedMaxCacheSize.load(std::memory_order_relaxed); }
void SetFixedMaxCacheSize(uint64_t bytes) {
  gFixedMaxCacheSize.store(bytes, std::memory_order_relaxed);
}

}  // namespace RV::MM
