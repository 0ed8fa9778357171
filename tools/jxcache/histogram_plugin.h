// A plug-in's per-frame computation in `simulate`: the luminance histogram of a frame, asked for
// through the compute-cache suite's C table exactly as a plug-in would, so that it is computed
// once per frame and then served from the cache.
#pragma once

#include <atomic>
#include <cstdint>

#include "tools/jxcache/frame_payload.h"

struct KQGP_ComputeCacheSuite1;

namespace jx::tool {

class HistogramPlugin {
 public:
  // Acquires the suite (the library must be born and JX_VX_Birth called) and registers the
  // class. Throws ToolError when the suite is not published.
  HistogramPlugin();
  ~HistogramPlugin();
  HistogramPlugin(const HistogramPlugin&) = delete;
  HistogramPlugin& operator=(const HistogramPlugin&) = delete;

  // The frame's histogram (computed or cached); hold the frame checked out while calling.
  // Returns the pixel count the histogram covers, 0 when the suite failed.
  uint64_t Histogram(const FramePayload& frame);

  uint64_t Calls() const { return calls_.load(); }
  // Times the cache had the histogram computed: counted by the compute callback itself.
  uint64_t Computes() const { return computes_.load(); }
  // Calls the cache answered with a value it already held (or that another caller was computing):
  // counted by the caller, when the call succeeded without its compute callback running.
  uint64_t Hits() const { return hits_.load(); }
  uint64_t Failures() const { return failures_.load(); }

 private:
  const KQGP_ComputeCacheSuite1* suite_ = nullptr;
  std::atomic<uint64_t> calls_{0}, computes_{0}, hits_{0}, failures_{0};
};

}  // namespace jx::tool
