// The session's disk cache: the folder (checked before the library starts, so a folder that is
// a file fails the run cleanly), the library's disk settings and the start-up scan that lets a
// second run start warm, and the disk counters read at the end.
#pragma once

#include <memory>

#include "jxcache/bag/bag.h"
#include "jxcache/disk/performance_counters.h"
#include "tools/jxcache/session.h"

namespace jx::tool {

// The folder `simulate` uses when none is given: reused across runs.
std::string DefaultDiskFolder();

class SessionDisk {
 public:
  // Throws ToolError when the folder exists but is not a folder, or cannot be made.
  explicit SessionDisk(const SimulateOptions& options);
  // Gives the bag its folder and limit, switches the disk cache on and scans the folder.
  void Attach(const std::shared_ptr<JX_Bag>& bag, SessionResult* result);
  // Waits for queued writes, telling `drain` (when set) how far they are, and fills the disk
  // figures.
  void Finish(SessionResult* result, const DrainFn& drain);

 private:
  const SimulateOptions& options_;
  std::string folder_;
  std::shared_ptr<JX_Bag> bag_;
  bool active_ = false;
  JX_DiskPerformanceCounters start_;
};

}  // namespace jx::tool
