#include "tools/jxcache/belady.h"

#include <iterator>
#include <set>
#include <unordered_map>
#include <utility>

namespace jx::tool {
namespace {

class OptimalCache {
 public:
  explicit OptimalCache(uint64_t capacity) { r_.cacheSize = capacity; }

  void Request(const FutureRequest& q) {
    ++r_.requests;
    r_.bytesRequested += q.size;
    auto it = cached_.find(q.id);
    if (it != cached_.end()) {
      Cached& c = it->second;
      if (c.size > 0) {
        byNext_.erase({c.next, q.id});
        byNext_.insert({q.next, q.id});
      }
      c.next = q.next;
      return;
    }
    ++r_.misses;
    r_.bytesMissed += q.size;
    if (q.size > r_.cacheSize) {
      ++r_.tooLarge;
      return;
    }
    cached_.emplace(q.id, Cached{q.next, q.size});
    if (q.size == 0) return;  // takes no room: evicting it would make none
    byNext_.insert({q.next, q.id});
    held_ += q.size;
    while (held_ > r_.cacheSize) {
      const auto furthest = std::prev(byNext_.end());
      const auto victim = cached_.find(furthest->second);
      held_ -= victim->second.size;
      cached_.erase(victim);
      byNext_.erase(furthest);
    }
    r_.peakObjects = std::max<uint64_t>(r_.peakObjects, cached_.size());
  }

  const OptimalResult& result() const { return r_; }

 private:
  struct Cached {
    uint64_t next;
    uint32_t size;
  };
  OptimalResult r_;
  uint64_t held_ = 0;
  std::unordered_map<uint64_t, Cached> cached_;
  std::set<std::pair<uint64_t, uint64_t>> byNext_;  // (next use, id) of objects that take room
};

}  // namespace

std::vector<OptimalResult> ReplayOptimal(const TraceSpool& spool,
                                         const std::vector<uint64_t>& cacheSizes,
                                         const SpoolProgress& progress) {
  std::vector<OptimalCache> caches;
  caches.reserve(cacheSizes.size());
  for (uint64_t size : cacheSizes) caches.emplace_back(size);
  uint64_t done = 0;
  spool.Future([&](const FutureRequest& q) {
    for (OptimalCache& c : caches) c.Request(q);
    if (++done % (1u << 16) == 0 && progress) progress(done);
  });
  if (progress) progress(done);
  std::vector<OptimalResult> results;
  for (const OptimalCache& c : caches) results.push_back(c.result());
  return results;
}

}  // namespace jx::tool
