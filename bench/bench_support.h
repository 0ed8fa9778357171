// Shared pieces of the benchmarks: a minimal payload and a library started for benchmarking.
#pragma once

#include <memory>
#include <vector>

#include "bag/bag.h"
#include "host/guid.h"
#include "items/stuff.h"

namespace jx::bench {

// Every hit benchmark, the cache's and the peers', draws its keys from a ring of this many random
// keys per thread: enough to spread over the whole of a 100,000-item cache.
inline constexpr size_t kRequestRing = 65536;
static_assert((kRequestRing & (kRequestRing - 1)) == 0, "a power of two: the ring is indexed by &");

// A payload that reports a size without holding memory: the benchmarks measure bookkeeping.
class SizedPayload : public JX_StuffData {
 public:
  explicit SizedPayload(unsigned int size) : size_(size) {}
  unsigned int GetApproximateMemorySize() const override { return inMemory_ ? size_ : 0; }
  bool PurgeIfPossible(ReleaseQueue*) override {
    bool was = inMemory_;
    inMemory_ = false;
    return was;
  }
  bool IsInMemory() const override { return inMemory_; }

 private:
  unsigned int size_;
  bool inMemory_ = true;
};

// Starts the library once per process with a host budget large enough never to purge.
void EnsureLibrary();
// Fills the global bag with `count` items (replacing what it held); returns their GUIDs.
const std::vector<zelcore::utility::Guid>& FillBag(size_t count);
// A request item for `guid`.
zelcore::utility::IntrusivePtr<JX_Stuff> Request(const zelcore::utility::Guid& guid);

}  // namespace jx::bench
