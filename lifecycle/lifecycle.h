// Bringing the library up and down, and the process-wide pieces it owns: the global bag, the
// background executors, the disk counters.
//
// JX_Birth and JX_Death run while no other thread uses the library (the host's start-up and
// shut-down). The host calls JX_StopAllAsyncWork before JX_Death. Everything else may be called
// from any thread.
#pragma once

#include <cstdint>
#include <memory>

#include "host/executor.h"
#include "host/export.h"

class JX_Bag;

// Creates the global bag (keeping the low 31 bits of `bagArgument` as its application version),
// the disk executor (at most 2 tasks at once) and the idle disk task, and decides whether the
// host's media map is used: only when the Gfxpak limit is off, "JX.UseMediaMap1" is true and
// `mediaMapAllowed`. With the Gfxpak limit on, the media manager is told the cache's maximum size
// instead. Calling it again replaces the bag and the executors.
JX_EXPORT void JX_Birth(bool mediaMapAllowed, unsigned int bagArgument, bool gfxpakLimitAllowed);
// Publishes the plug-in compute-cache suite; a non-zero registration code is thrown as an int.
JX_EXPORT void JX_VX_Birth();
// Empties and drops the global bag, detaches from the media map, forgets payload factories.
JX_EXPORT void JX_Death();
// Stops background disk work: no new work, queued work cancelled, running work waited for.
JX_EXPORT void JX_StopAllAsyncWork();
// A copy of the global bag pointer; empty before JX_Birth and after JX_Death.
JX_EXPORT std::shared_ptr<JX_Bag> JX_GlobalBag();

// Counts a frame read from / written to disk (two counters each, chosen by `flag`).
JX_EXPORT void JX_NotifyFrameReadFromDisk(bool flag);
JX_EXPORT void JX_NotifyFrameWrittenToDisk(bool flag);
// 0 when the media map is not used; else the bytes it mirrors.
JX_EXPORT unsigned long long JX_GetMediaMapSize();

namespace jx {
// The global bag without taking a reference: valid between JX_Birth and JX_Death, which run
// while nobody else uses the library. Saves every search a shared count that all threads touch.
JX_Bag* GlobalBagUnretained();
// The executor that runs disk writes (empty after JX_StopAllAsyncWork). This and
// QueueIdleDiskTask may be called from any thread, also while JX_StopAllAsyncWork runs: a copy
// taken just before the stop refuses new work.
std::shared_ptr<zelcore::threads::Executor> DiskExecutor();
// Queues the deferred disk task (runs 1 s later; queuing while queued does nothing).
void QueueIdleDiskTask();
// The four frame counters of JX_NotifyFrame*: read(false), read(true), written(false),
// written(true).
struct FrameCounters {
  uint32_t readFalse, readTrue, writtenFalse, writtenTrue;
};
FrameCounters GetFrameCounters();
}  // namespace jx
