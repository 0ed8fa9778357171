// Start-up and shut-down of the library.
#include "jxcache/lifecycle/lifecycle.h"

#include <atomic>
#include <mutex>
#include <new>

#include "common/settings.h"
#include "compute/compute_suite.h"
#include "disk/disk_writer.h"
#include "host/media_manager.h"
#include "host/y_api.h"
#include "items/checksum_helper.h"
#include "items/pending_watch.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/disk/disk_executor.h"
#include "jxcache/farm/farm_tier.h"
#include "jxcache/host/host_services.h"
#include "jxcache/items/stuff_data.h"
#include "mediamap/media_map_hooks.h"

namespace {

constexpr unsigned kDiskExecutorConcurrency = 2;
constexpr uint32_t kIdleDiskTaskDelayMs = 1000;

// The bag comes from the host's memory-tracked allocator; shared_ptr gives it back there.
struct TrackedBagDeleter {
  void operator()(JX_Bag* bag) const {
    bag->~JX_Bag();
    Y_MemTrackedObject::operator delete(bag);
  }
};

std::shared_ptr<JX_Bag> MakeTrackedBag(unsigned int bagArgument) {
  void* memory = Y_MemTrackedObject::operator new(sizeof(JX_Bag));
  JX_Bag* bag;
  try {
    bag = new (memory) JX_Bag(bagArgument);
  } catch (...) {
    Y_MemTrackedObject::operator delete(memory);
    throw;
  }
  // If the control block cannot be allocated, shared_ptr calls the deleter itself.
  return std::shared_ptr<JX_Bag>(bag, TrackedBagDeleter());
}

}  // namespace

void JX_Birth(bool mediaMapAllowed, unsigned int bagArgument, bool gfxpakLimitAllowed) {
  YLOG_Log(10, "JX", "Birth", "JX Birth");
  // Everything that allocates is made before anything changes, so that a start-up failing for
  // memory leaves the previous state (bag, executors, settings) whole.
  std::shared_ptr<JX_Bag> bag = MakeTrackedBag(bagArgument);
  auto io = jx::host::GetThreads().CreateIOBoundExecutor(0);
  std::shared_ptr<zelcore::threads::Executor> diskExecutor =
      zelcore::threads::CreateSubExecutor(io, kDiskExecutorConcurrency);
  auto idleIo = jx::host::GetThreads().CreateIOBoundExecutor(1);
  auto idleDiskTask = std::make_shared<zelcore::threads::QueueOnlyOnce>(
      idleIo, [] { JX_RunIdleDiskTask(); }, kIdleDiskTaskDelayMs, 0);
  // The pending watchdog reports to the host: a thread of its own, so that a host that takes
  // its time over a report never holds up disk work.
  jx::pending::PreparedWatchdog watchdog =
      jx::pending::PrepareWatchdog(jx::host::GetThreads().CreateIOBoundExecutor(1));

  // Settings read for the first time allocate too. Under the Gfxpak limit the media-map
  // setting is not consulted at all.
  const bool gfxpakLimit = jx::settings::GfxpakLimitFeatureOn() && gfxpakLimitAllowed;
  const bool useMediaMapSetting = !gfxpakLimit && jx::settings::UseMediaMapSetting();

  // The previous ones go in the order they always went: executor, idle task, bag.
  jx::settings::SetMediaMapAllowed(mediaMapAllowed);
  jx::disk::SwapExecutors(diskExecutor, idleDiskTask);
  jx::pending::StartWatchdog(std::move(watchdog));
  jx::SwapGlobalBag(bag);
  bag.reset();
  jx::settings::ExchangeGfxpakLimitAllowed(gfxpakLimitAllowed);
  // An earlier start-up's media map mirrors the items of the bag just replaced: it leaves the
  // host's media manager whatever is decided below, and with it its hold on those items.
  JX_MediaMapDeath();

  // Decided afresh at every start-up: under the Gfxpak limit too, where an earlier start-up's
  // media map would otherwise stay "in use" after it left the host's media manager. A host
  // without a media manager has no pool to mirror into.
  jx::settings::SetUseMediaMap(!gfxpakLimit && useMediaMapSetting && mediaMapAllowed &&
                               RV::GetMediaManager() != nullptr);
  if (gfxpakLimit) {
    JX_MediaMapSetCacheLimit(jx::settings::CacheIdentity(), JX_GetMaxJXCacheSize());
  } else if (jx::settings::UseMediaMap()) {
    JX_MediaMapBirth();
  }
}

void JX_VX_Birth() {
  if (int32_t code = JX_ComputeSuiteRegister()) throw static_cast<int>(code);
}

void JX_Death() {
  YLOG_Log(10, "JX", "Death", "JX Death");
  if (auto bag = JX_GlobalBag()) bag->ClearBagAndSortDir();
  std::shared_ptr<JX_Bag> dropped;
  jx::SwapGlobalBag(dropped);
  dropped.reset();
  JX_MediaMapDeath();
  JX_StuffData::Death();
}

void JX_StopAllAsyncWork() {
  YLOG_Log(10, "JX", "JX_StopAllAsyncWork", "JX_StopAllAsyncWork");
  jx::disk::StopExecutors();
  jx::pending::StopWatchdog();
  jx::StopChecksumHelper();
  // After the executors: a farm write they cancelled or finished has given its lease up; the
  // tier's renewal thread stops here, like the other background work.
  JX_DetachFarmTier();
}

unsigned long long JX_GetMediaMapSize() {
  if (!jx::settings::UseMediaMap()) return 0;
  return JX_MediaMapSizeBytes();
}
