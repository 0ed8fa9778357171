// Shared pieces of the benchmarks: a minimal payload and a library started for benchmarking.
#pragma once

#include <memory>
#include <random>
#include <vector>

#include "jxcache/bag/bag.h"
#include "jxcache/host/guid.h"
#include "jxcache/items/stuff.h"
#include "jxcache/kqgp_compute_cache.h"

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
// The compute cache's plug-in table, as a plug-in gets it, with `classId` registered with
// `callbacks` (the library started first).
const KQGP_ComputeCacheSuite1& ComputeSuiteWithClass(const char* classId,
                                                     const KQGP_ComputeCacheCallbacks& callbacks);

// A host asks with a request it has just built or re-keyed: each lookup re-keys one of a few warm
// request items (inside the timed loop) with a key drawn from a ring that spans the cache.
class Requests {
 public:
  Requests(const std::vector<zelcore::utility::Guid>& guids, int thread) {
    std::mt19937 rng(17 + thread);
    keys_.reserve(kRequestRing);
    for (size_t i = 0; i < kRequestRing; ++i) keys_.push_back(guids[rng() % guids.size()]);
    for (auto& item : items_) item = Request(keys_[0]);
  }
  const zelcore::utility::IntrusivePtr<JX_Stuff>& Next() {
    const zelcore::utility::IntrusivePtr<JX_Stuff>& item = items_[next_ & (kItems - 1)];
    item->SetGuid(keys_[next_++ & (kRequestRing - 1)]);
    return item;
  }

 private:
  static constexpr size_t kItems = 16;
  std::vector<zelcore::utility::Guid> keys_;
  zelcore::utility::IntrusivePtr<JX_Stuff> items_[kItems];
  size_t next_ = 0;
};

}  // namespace jx::bench
