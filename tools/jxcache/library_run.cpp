#include "tools/jxcache/library_run.h"

#include "common/settings.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/debug_database.h"
#include "standalone/standalone_host.h"
#include "tools/jxcache/tool_error.h"

namespace jx::tool {

LibraryRun::LibraryRun(bool mediaMapAllowed, unsigned int appVersion) {
  auto& host = StandaloneHost::Instance();
  host.SetEchoReports(false);
  host.MakeCurrentThreadMain();
  JX_Birth(mediaMapAllowed, appVersion, false);
  bag_ = JX_GlobalBag();
  if (!bag_) throw ToolError("the cache library did not start (no global bag)");
}

LibraryRun::~LibraryRun() {
  bag_.reset();
  JX_StopAllAsyncWork();
  JX_Death();
}

void UsePureRecencyPurging() {
  // The floor is the host's memory limit (here the cache size) times this ratio. At the default
  // of 0.1 it never binds, since the walk stops as soon as the cache is back within its size;
  // a settings file with a ratio of 1 or more would stop purging altogether. Zero lets the walk
  // empty the cache whatever the settings say. They are read once per process: this comes first.
  zelcore::debug::DebugDatabase::Instance().SetEntry("KQ.MinJXSizeToPurgeLimitRatioR", "0");
  // Skips the walk's first pass (items with a disk copy first): recency alone decides.
  JX_PlaybackFromDiskLogicIsEnabled();
}

}  // namespace jx::tool
