// The stand-in host's own media in the media manager's pool (decoded footage, say), beside the
// entries the cache mirrors there through the media map. The pool's budget is the session's
// memory budget, so the host's media and the cache's frames share it.
#pragma once

#include <memory>
#include <vector>

#include "standalone/media_manager_pool.h"
#include "tools/jxcache/session.h"

namespace jx::tool {

class HostMedia {
 public:
  // Puts an eighth of `budget` of host media into the pool, in a few pieces.
  HostMedia(uint64_t budget, SessionResult* result);
  // Releases what is left of the host's media and lifts the pool's budget.
  ~HostMedia();
  HostMedia(const HostMedia&) = delete;
  HostMedia& operator=(const HostMedia&) = delete;

  const RV::MediaManager& Manager() const { return *manager_; }
  // Fills the media-map figures.
  void Finish(SessionResult* result) const;

 private:
  std::shared_ptr<RV::MediaManager> manager_;
  std::vector<uint64_t> handles_;
  uint64_t purgesBefore_ = 0;
};

}  // namespace jx::tool
