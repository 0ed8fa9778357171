#include "jxcache/disk/disk_executor.h"

#include <atomic>
#include <mutex>

namespace {

// Render and disk threads copy the handles at any time, and JX_StopAllAsyncWork drops them while
// those threads may still be running, so every copy and every change goes through this mutex. It
// is a leaf held only to copy or swap a pointer: a handle is never released (which may stop an
// executor's threads) while it is held.
std::mutex gHandlesMutex;
std::shared_ptr<zelcore::threads::Executor> gDiskExecutor;       // guarded by the mutex
std::shared_ptr<zelcore::threads::QueueOnlyOnce> gIdleDiskTask;  // guarded by the mutex
std::atomic<uint32_t> gFramesRead[2];
std::atomic<uint32_t> gFramesWritten[2];

}  // namespace

void JX_NotifyFrameReadFromDisk(bool flag) {
  gFramesRead[flag ? 1 : 0].fetch_add(1, std::memory_order_relaxed);
}

void JX_NotifyFrameWrittenToDisk(bool flag) {
  gFramesWritten[flag ? 1 : 0].fetch_add(1, std::memory_order_relaxed);
}

namespace jx {

std::shared_ptr<zelcore::threads::Executor> DiskExecutor() {
  std::lock_guard<std::mutex> lock(gHandlesMutex);
  return gDiskExecutor;
}

void QueueIdleDiskTask() {
  std::shared_ptr<zelcore::threads::QueueOnlyOnce> task;
  {
    std::lock_guard<std::mutex> lock(gHandlesMutex);
    task = gIdleDiskTask;
  }
  if (task) task->Queue();
}

FrameCounters GetFrameCounters() {
  return {gFramesRead[0].load(), gFramesRead[1].load(), gFramesWritten[0].load(),
          gFramesWritten[1].load()};
}

void ResetFrameCounters() {
  for (auto* counters : {&gFramesRead, &gFramesWritten}) {
    for (auto& c : *counters) c.store(0, std::memory_order_relaxed);
  }
}

}  // namespace jx

namespace jx::disk {

void SwapExecutors(std::shared_ptr<zelcore::threads::Executor>& diskExecutor,
                   std::shared_ptr<zelcore::threads::QueueOnlyOnce>& idleTask) {
  // The previous ones go in the order they always went: executor, then idle task.
  {
    std::lock_guard<std::mutex> lock(gHandlesMutex);
    gDiskExecutor.swap(diskExecutor);
  }
  diskExecutor.reset();
  {
    std::lock_guard<std::mutex> lock(gHandlesMutex);
    gIdleDiskTask.swap(idleTask);
  }
  idleTask.reset();
}

void StopExecutors() {
  if (auto executor = DiskExecutor()) {
    // Without the mutex: waiting for running work under it would stop every thread that asks
    // for the executor, and running disk work asks for it.
    executor->StopTakingWork();
    executor->CancelQueued();
    executor->WaitForRunning();
  }
  std::shared_ptr<zelcore::threads::Executor> executor;
  std::shared_ptr<zelcore::threads::QueueOnlyOnce> idleDiskTask;
  {
    std::lock_guard<std::mutex> lock(gHandlesMutex);
    gDiskExecutor.swap(executor);
    gIdleDiskTask.swap(idleDiskTask);
  }
  // Released outside the mutex; whoever still holds a copy keeps the object alive until done.
}

}  // namespace jx::disk
