// Content maps during `jxcache simulate`: the cache's map (jxcache/bag/content_map.h) taken at
// chosen moments of the run and reduced to one state per frame of the timeline, for the
// report's content strips. The main thread takes them while the render threads run.
#pragma once

#include <string>
#include <unordered_map>

#include "tools/jxcache/session.h"

class JX_Bag;

namespace jx::tool {

class ContentMapper {
 public:
  explicit ContentMapper(const SimulateOptions& o);
  // Whether a map is due within the running pass now that `done` of its `requests` are done
  // (and, when it is, counts it as taken). Maps are taken at even shares of a pass, within the
  // run's bound.
  bool DueWithin(uint64_t done, uint64_t requests);
  // Takes a map of `bag` and appends it to result->contentMoments (unless the bound is reached).
  void Take(const JX_Bag& bag, double seconds, uint32_t pass, uint64_t done, bool passEnded,
            SessionResult* result);
  // A new pass starts: the shares count from its first request again.
  void StartPass() { takenWithin_ = 0; }

  // The state of a frame from what the map says of the rows for its key (a frame may have
  // several: a compressed copy beside the original).
  static FrameState Merge(FrameState a, FrameState b);

 private:
  bool enabled_;
  uint32_t within_;  // maps within each pass
  uint32_t takenWithin_ = 0;
  uint32_t frames_;
  std::unordered_map<std::string, uint32_t> frameOfKey_;
};

}  // namespace jx::tool
