// Bringing the library up and down: the global bag (bag/global_bag.h), the background executors
// (disk/disk_executor.h) and the media-map decision.
//
// JX_Birth and JX_Death run while no other thread uses the library (the host's start-up and
// shut-down). The host calls JX_StopAllAsyncWork before JX_Death. Everything else may be called
// from any thread.
#pragma once

#include <cstdint>
#include <memory>

#include "jxcache/bag/global_bag.h"
#include "jxcache/disk/disk_executor.h"
#include "jxcache/host/export.h"

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
// Stops background work (disk writes, the pending watchdog): no new work, queued work
// cancelled, running work waited for.
JX_EXPORT void JX_StopAllAsyncWork();
// 0 when the media map is not used; else the bytes it mirrors.
JX_EXPORT unsigned long long JX_GetMediaMapSize();
