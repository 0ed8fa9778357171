// The background disk writer: two queues of pending writes (high priority first) drained by
// the disk executor, one entry per posted task.
//
// An entry holds the item and a JX_ScCheckout that keeps the item checked out (read-only) until
// its write is over, so no purge can free the payload while it waits. Every posted task carries
// a ticket: a task that never runs (the executor stopped, or JX_StopAllAsyncWork cancelled it)
// drops one entry when it is destroyed, and a post the executor refuses takes its entry back at
// once, so the queues, their counters and the items' check-outs always come back to zero.
//
// An item is tagged to write (WasTaggedToWriteToDisk) from the moment its write is queued. The
// tag stays once the write has given the item a file; a write that ends without one (no room,
// a failure, cancelled, disk caching switched off) takes the tag away again unless another write
// of the item is still queued, so the tag always means "queued, or written".
//
// Holding back: a foreground read holds queued writes back for a moment so that the read has
// the disk to itself. The hold is the writer's own, not the executor's: a task that starts
// during it waits (on the queue's condition, holding no cache lock) until it ends, unless a
// write asked for "now" is at the head of the line, which goes at once. A shut-down that comes
// during a hold therefore waits for the hold to end.
//
// Locks: one queue mutex (a leaf) guards both queues and the hold; the two lengths are also
// atomics in jx::disk::GetCounters() so that the free fraction is read without it.
#pragma once

#include <chrono>
#include <cstdint>

#include "jxcache/disk/disk_hooks.h"
#include "jxcache/host/export.h"

namespace jx::disk {

// Entries the queue is sized for: 200 with the improved disk behaviour, else 1000.
uint32_t WriteQueueCapacity();
// Free fraction for the given lengths; a high-priority entry counts double.
double QueueFreeFraction(uint32_t normalQueued, uint32_t highQueued, uint32_t capacity);
// The same for the live queue.
double CurrentQueueFreeFraction();

// Holds queued writes back for `duration` from now on the host's clock (a later hold extends an
// earlier one); writes asked for "now" are never held. JX_DeprioritizeBackgroundWrites holds for
// a quarter of a second.
void HoldBackWritesFor(std::chrono::nanoseconds duration);
// Ends any hold at once.
void EndHoldBack();
// How often JX_GetQueuedDiskWriteCount has been asked: lets a test see that a thread waiting
// for the queue to drain is still looking, without timing it.
uint64_t QueuedWriteCountReads();

}  // namespace jx::disk

// A foreground read is about to happen: hold queued background writes back for a moment. Does
// nothing when the improved disk behaviour is on (its writes come in even batches instead).
JX_EXPORT void JX_DeprioritizeBackgroundWrites();
// The deferred disk task (queued by jx::QueueIdleDiskTask, runs a second later).
void JX_RunIdleDiskTask();
