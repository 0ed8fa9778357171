// The library's tuning settings, feature switches and process-wide flags.
//
// Every setting is an entry of the host's settings database, read once on the first call of its
// accessor (thread-safe one-time initialisation) and kept for the life of the process: changing
// the entry later has no effect. Other modules call these accessors and never read the database
// themselves. The flags set by JX_Birth are written only while no other thread uses the library.
#pragma once

#include <cstdint>
#include <string>

#include "jxcache/common/jx_types.h"
#include "jxcache/host/export.h"
#include "jxcache/host/guid.h"

// Feature keys.
inline constexpr const char* kJX_ImprovedDiskCacheFeature = "KQ.ImprovedDiskCacheBehavior";
inline constexpr const char* kJX_GfxpakLimitFeature = "Graphics.SetJXCacheLimitForGfxpaks";

// "KQ.ImprovedDiskCacheBehavior" is on, or the playback-from-disk logic was switched on.
JX_EXPORT bool JX_IsImprovedDiskCacheBehaviorFullyEnabled();
// Switches the playback-from-disk logic on for the rest of the process (a setter, despite its
// name). From then on purging goes by recency alone and the improved disk behaviour counts as on.
JX_EXPORT void JX_PlaybackFromDiskLogicIsEnabled();
// "Graphics.SetJXCacheLimitForGfxpaks" is on and JX_Birth was allowed the limit. The feature is
// asked first; the flag only when the feature is on.
JX_EXPORT bool JX_IsSetJXCacheLimitForGfxpaksEnabled();
// "KQ.IsDiskCompressionEnabledR".
JX_EXPORT bool JX_IsDiskCompressionEnabled();
// 0 when disk compression is off (without reading the playback setting); else 2 when
// "KQ.JX.PlaybackCompressionOptionR" is non-zero, 1 when it is zero.
JX_EXPORT JX_CompressedAllowedOption JX_GetPlaybackCompressionAllowedOption();

namespace jx::settings {

// "Graphics.SetJXCacheLimitForGfxpaks", asked once.
bool GfxpakLimitFeatureOn();
// "JX.UseMediaMap1" (default true), read by JX_Birth.
bool UseMediaMapSetting();
// "KQ.JX.WriteToDiskPriorityR" (default 2; 3 or more falls back to 2), read only while the
// improved disk behaviour is on; 2 without reading otherwise.
int32_t WriteToDiskPriority();
// "KQ.JX.LowPriorityFactorR" (default 2.0).
double LowPriorityFactor();
// "KQ.MinJXSizeToPurgeLimitRatioR" (default 0.1).
double MinJXSizeToPurgeLimitRatio();
// "Graphics.DefaultJXCacheLimitForGfxpaksMultiplier" (default 0.1).
double GfxpaksCacheLimitMultiplier();
// "KQ.DebugSleepTimeInMs_JXSetStuffDataR" (default 0).
uint32_t DebugSleepTimeSetStuffDataMs();
// "JX.PendingOverdueMs" (default 30000; 0 turns the pending watchdog off).
uint32_t PendingOverdueMs();
// "KQ.JX.ReadDiskDelayInMsR" / "KQ.JX.WriteDiskDelayInMsR" (default 0).
int32_t ReadDiskDelayMs();
int32_t WriteDiskDelayMs();

// The farm tier (farm/farm_tier.h): "JX.Farm.Address" (default empty: no farm tier),
// "JX.Farm.Node" (default empty: a unique name), "JX.Farm.ConnectTimeoutMs" (100),
// "JX.Farm.CommandTimeoutMs" (250), "JX.Farm.LeaseMs" (5000), "JX.Farm.LeaseWaitMs" (10000),
// "JX.Farm.TTLSeconds" (86400).
const std::string& FarmAddress();
const std::string& FarmNode();
uint32_t FarmConnectTimeoutMs();
uint32_t FarmCommandTimeoutMs();
uint32_t FarmLeaseMs();
uint32_t FarmLeaseWaitMs();
uint32_t FarmTtlSeconds();

// Flags of the running library.
void SetMediaMapAllowed(bool allowed);
bool MediaMapAllowed();
void SetUseMediaMap(bool use);
bool UseMediaMap();
bool ExchangeGfxpakLimitAllowed(bool allowed);
bool PlaybackFromDiskLogic();
// Tests only, while no other thread uses the library: every setting is read again on its next
// use, and the playback-from-disk logic is off, as in a new process. Lets the tests of one
// program run in one process, each seeing the settings it sets.
void ForgetForTests();

// This library's cache identity towards the host's media manager (made at load time).
const zelcore::utility::Guid& CacheIdentity();

}  // namespace jx::settings
