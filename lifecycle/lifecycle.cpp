// Start-up and shut-down of the library.
#include "lifecycle/lifecycle.h"

#include <atomic>
#include <mutex>
#include <new>

#include "bag/bag.h"
#include "compute/compute_suite.h"
#include "disk/disk_writer.h"
#include "host/y_api.h"
#include "items/stuff_data.h"
#include "lifecycle/settings.h"
#include "mediamap/media_map_hooks.h"

namespace {

constexpr unsigned kDiskExecutorConcurrency = 2;
constexpr uint32_t kIdleDiskTaskDelayMs = 1000;

// The global bag pointer. At process exit it is emptied before the bag is destroyed, so that items
// dying with the bag never find (and re-enter) a bag in the middle of its destruction.
struct GlobalBagHolder {
  std::shared_ptr<JX_Bag> bag;
  ~GlobalBagHolder() { std::shared_ptr<JX_Bag>().swap(bag); }
} gGlobal;
std::shared_ptr<JX_Bag>& gGlobalBag = gGlobal.bag;

// The two background handles. Render and disk threads copy them at any time, and
// JX_StopAllAsyncWork drops them while those threads may still be running, so every copy and
// every change goes through this mutex. It is a leaf held only to copy or swap a pointer: a
// handle is never released (which may stop an executor's threads) while it is held.
std::mutex gAsyncHandlesMutex;
std::shared_ptr<zelcore::threads::Executor> gDiskExecutor;       // guarded by the mutex
std::shared_ptr<zelcore::threads::QueueOnlyOnce> gIdleDiskTask;  // guarded by the mutex
std::atomic<uint32_t> gFramesRead[2];
std::atomic<uint32_t> gFramesWritten[2];

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
  auto io = zelcore::threads::CreateIOBoundExecutor();
  std::shared_ptr<zelcore::threads::Executor> diskExecutor =
      zelcore::threads::CreateSubExecutor(io, kDiskExecutorConcurrency);
  auto idleIo = zelcore::threads::CreateIOBoundExecutor(1);
  auto idleDiskTask = std::make_shared<zelcore::threads::QueueOnlyOnce>(
      idleIo, [] { JX_RunIdleDiskTask(); }, kIdleDiskTaskDelayMs, 0);

  // Settings read for the first time allocate too. Under the Gfxpak limit the media-map
  // setting is not consulted at all.
  const bool gfxpakLimit = jx::settings::GfxpakLimitFeatureOn() && gfxpakLimitAllowed;
  const bool useMediaMapSetting = !gfxpakLimit && jx::settings::UseMediaMapSetting();

  // The previous ones go in the order they always went: executor, idle task, bag. The handles
  // are swapped under their mutex and released outside it.
  jx::settings::SetMediaMapAllowed(mediaMapAllowed);
  {
    std::lock_guard<std::mutex> lock(gAsyncHandlesMutex);
    gDiskExecutor.swap(diskExecutor);
  }
  diskExecutor.reset();
  {
    std::lock_guard<std::mutex> lock(gAsyncHandlesMutex);
    gIdleDiskTask.swap(idleDiskTask);
  }
  idleDiskTask.reset();
  gGlobalBag.swap(bag);
  bag.reset();
  jx::settings::ExchangeGfxpakLimitAllowed(gfxpakLimitAllowed);
  // An earlier start-up's media map mirrors the items of the bag just replaced: it leaves the
  // host's media manager whatever is decided below, and with it its hold on those items.
  JX_MediaMapDeath();

  if (gfxpakLimit) {
    JX_MediaMapSetCacheLimit(jx::settings::CacheIdentity(), JX_GetMaxJXCacheSize());
  } else {
    jx::settings::SetUseMediaMap(useMediaMapSetting && mediaMapAllowed);
    if (jx::settings::UseMediaMap()) JX_MediaMapBirth();
  }
}

void JX_VX_Birth() {
  if (int32_t code = JX_ComputeSuiteRegister()) throw static_cast<int>(code);
}

void JX_Death() {
  YLOG_Log(10, "JX", "Death", "JX Death");
  if (gGlobalBag) gGlobalBag->ClearBagAndSortDir();
  gGlobalBag.reset();
  JX_MediaMapDeath();
  JX_StuffData::Death();
}

void JX_StopAllAsyncWork() {
  YLOG_Log(10, "JX", "JX_StopAllAsyncWork", "JX_StopAllAsyncWork");
  if (auto executor = jx::DiskExecutor()) {
    // Without the mutex: waiting for running work under it would stop every thread that asks
    // for the executor, and running disk work asks for it.
    executor->StopTakingWork();
    executor->CancelQueued();
    executor->WaitForRunning();
  }
  std::shared_ptr<zelcore::threads::Executor> executor;
  std::shared_ptr<zelcore::threads::QueueOnlyOnce> idleDiskTask;
  {
    std::lock_guard<std::mutex> lock(gAsyncHandlesMutex);
    gDiskExecutor.swap(executor);
    gIdleDiskTask.swap(idleDiskTask);
  }
  // Released outside the mutex; whoever still holds a copy keeps the object alive until done.
}

std::shared_ptr<JX_Bag> JX_GlobalBag() { return gGlobalBag; }

void JX_NotifyFrameReadFromDisk(bool flag) {
  gFramesRead[flag ? 1 : 0].fetch_add(1, std::memory_order_relaxed);
}

void JX_NotifyFrameWrittenToDisk(bool flag) {
  gFramesWritten[flag ? 1 : 0].fetch_add(1, std::memory_order_relaxed);
}

unsigned long long JX_GetMediaMapSize() {
  if (!jx::settings::UseMediaMap()) return 0;
  return JX_MediaMapSizeBytes();
}

namespace jx {

JX_Bag* GlobalBagUnretained() { return gGlobalBag.get(); }

std::shared_ptr<zelcore::threads::Executor> DiskExecutor() {
  std::lock_guard<std::mutex> lock(gAsyncHandlesMutex);
  return gDiskExecutor;
}

void QueueIdleDiskTask() {
  std::shared_ptr<zelcore::threads::QueueOnlyOnce> task;
  {
    std::lock_guard<std::mutex> lock(gAsyncHandlesMutex);
    task = gIdleDiskTask;
  }
  if (task) task->Queue();
}

FrameCounters GetFrameCounters() {
  return {gFramesRead[0].load(), gFramesRead[1].load(), gFramesWritten[0].load(),
          gFramesWritten[1].load()};
}

}  // namespace jx
