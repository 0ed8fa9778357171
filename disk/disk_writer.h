// The background disk writer: two queues of pending writes (high priority first) drained by
// the disk executor, one entry per posted task.
//
// An entry holds the item and a JX_ScCheckout that keeps the item checked out (read-only) until
// its write is over, so no purge can free the payload while it waits. Every posted task carries
// a ticket: a task that never runs (the executor stopped, or JX_StopAllAsyncWork cancelled it)
// drops one entry when it is destroyed, so the queues, their counters and the items' check-outs
// always come back to zero.
//
// Locks: one queue mutex (a leaf) guards both queues; the two lengths are also atomics in
// jx::disk::GetCounters() so that the free fraction is read without it.
#pragma once

#include <cstdint>

#include "host/export.h"

namespace jx::disk {

// Entries the queue is sized for: 200 with the improved disk behaviour, else 1000.
uint32_t WriteQueueCapacity();
// Free fraction for the given lengths; a high-priority entry counts double.
double QueueFreeFraction(uint32_t normalQueued, uint32_t highQueued, uint32_t capacity);
// The same for the live queue.
double CurrentQueueFreeFraction();

}  // namespace jx::disk

// Writes queued and not yet started, both queues.
JX_EXPORT uint32_t JX_GetQueuedDiskWriteCount();
// A foreground read is about to happen: hold queued background writes back for a moment. Does
// nothing when the improved disk behaviour is on (its writes come in even batches instead).
JX_EXPORT void JX_DeprioritizeBackgroundWrites();
// The deferred disk task (queued by jx::QueueIdleDiskTask, runs a second later).
void JX_RunIdleDiskTask();
