// The background executors of disk work: the disk executor (a sub-executor running at most two
// tasks at once: background writes and other disk jobs) and the idle disk task (a once-only
// task run a second after it is queued: the deferred folder scan and write reconsideration).
// Start-up installs them and JX_StopAllAsyncWork stops them; they live here, where the work they
// run lives.
//
// Threads: any thread may ask for the executor or queue the idle task, also while the work is
// being stopped: a copy taken just before the stop refuses new work. The handles sit under one
// leaf mutex, held only to copy or swap a pointer.
#pragma once

#include <cstdint>
#include <memory>

#include "jxcache/host/executor.h"
#include "jxcache/host/export.h"

// Counts a frame read from / written to disk (two counters each, chosen by `flag`).
JX_EXPORT void JX_NotifyFrameReadFromDisk(bool flag);
JX_EXPORT void JX_NotifyFrameWrittenToDisk(bool flag);

namespace jx {
// The executor that runs disk writes (empty after JX_StopAllAsyncWork).
std::shared_ptr<zelcore::threads::Executor> DiskExecutor();
// Queues the deferred disk task (runs 1 s later; queuing while queued does nothing).
void QueueIdleDiskTask();
// The four frame counters of JX_NotifyFrame*: read(false), read(true), written(false),
// written(true).
struct FrameCounters {
  uint32_t readFalse, readTrue, writtenFalse, writtenTrue;
};
FrameCounters GetFrameCounters();
void ResetFrameCounters();
}  // namespace jx

namespace jx::disk {
// Start-up: replaces the executor and the idle task; the previous ones come back in the
// arguments, to be released by the caller outside any lock.
void SwapExecutors(std::shared_ptr<zelcore::threads::Executor>& diskExecutor,
                   std::shared_ptr<zelcore::threads::QueueOnlyOnce>& idleTask);
// Shut-down: stops taking work, cancels what is queued and waits for what runs, then drops both
// handles. Must not be called from a task of the executor.
void StopExecutors();
}  // namespace jx::disk
