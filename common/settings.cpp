#include "common/settings.h"

#include <atomic>

#include "host/feature.h"
#include "host/setting_text.h"
#include "jxcache/host/host_services.h"

namespace {

// Declared at load time so the host's feature registry knows them; destroyed at unload.
zelappsupport::feature::BetaFeature gImprovedDiskCacheFeature(
    kJX_ImprovedDiskCacheFeature, 2,
    "$$$/private/KQ/BetaFeature/ImprovedDiskCacheBehavior/Name=Improved logic for KQ's cache.",
    "$$$/private/KQ/BetaFeature/ImprovedDiskCacheBehavior/Desc=Uses the disk cache more "
    "efficiently.  Writes less to disk, but more consistently.  More efficient reading from "
    "disk.",
    "JXC-DISK-0001", 1, 1, 0);
zelappsupport::feature::BetaFeature gGfxpakLimitFeature(
    kJX_GfxpakLimitFeature, 0,
    "$$$/KQ/BetaFeature/SetJXCacheLimitForGfxpaks/Name=Set memory limit on JX cache for KQ "
    "gfxpaks.",
    "$$$/KQ/BetaFeature/SetJXCacheLimitForGfxpaks/Desc=Enabling memory limit set on JX cache for "
    "KQ gfxpaks.",
    "JXC-MEM-0002", 1, 1, 0);

bool gMediaMapAllowed = false;
bool gUseMediaMap = false;
std::atomic<bool> gGfxpakLimitAllowed{false};
std::atomic<bool> gPlaybackFromDiskLogic{false};
const zelcore::utility::Guid gCacheIdentity = zelcore::utility::Guid::CreateUnique();

// The text of the host's entry, or the default's own text (as the host's database would give it).
std::string ReadEntry(const char* name, const std::string& defaultText) {
  return jx::host::GetSettings().DebugEntry(name).value_or(defaultText);
}
bool ReadBool(const char* name, bool def) {
  return zelcore::debug::ParseBoolSetting(ReadEntry(name, def ? "true" : "false"));
}
int32_t ReadInt32(const char* name, int32_t def) {
  return zelcore::debug::ParseInt32Setting(ReadEntry(name, std::to_string(def)), def);
}
uint32_t ReadUInt32(const char* name, uint32_t def) {
  return zelcore::debug::ParseUInt32Setting(ReadEntry(name, std::to_string(def)), def);
}
double ReadDouble(const char* name, double def) {
  return zelcore::debug::ParseDoubleSetting(
      ReadEntry(name, zelcore::debug::FormatDoubleSetting(def)), def);
}

bool ImprovedDiskCacheFeatureOn() {
  static const bool on = zelappsupport::feature::IsFeatureEnabled(kJX_ImprovedDiskCacheFeature);
  return on;
}
}  // namespace

bool JX_IsImprovedDiskCacheBehaviorFullyEnabled() {
  return ImprovedDiskCacheFeatureOn() || gPlaybackFromDiskLogic.load(std::memory_order_relaxed);
}

void JX_PlaybackFromDiskLogicIsEnabled() {
  gPlaybackFromDiskLogic.store(true, std::memory_order_relaxed);
}

namespace jx::settings {
bool GfxpakLimitFeatureOn() {
  static const bool on = zelappsupport::feature::IsFeatureEnabled(kJX_GfxpakLimitFeature);
  return on;
}
}  // namespace jx::settings

bool JX_IsSetJXCacheLimitForGfxpaksEnabled() {
  return jx::settings::GfxpakLimitFeatureOn() &&
         gGfxpakLimitAllowed.load(std::memory_order_relaxed);
}

bool JX_IsDiskCompressionEnabled() {
  static const bool on = ReadBool("KQ.IsDiskCompressionEnabledR", false);
  return on;
}

JX_CompressedAllowedOption JX_GetPlaybackCompressionAllowedOption() {
  if (!JX_IsDiskCompressionEnabled()) return kJX_CompressionNotAllowed;
  static const int32_t playback = ReadInt32("KQ.JX.PlaybackCompressionOptionR", 1);
  return playback != 0 ? kJX_CompressionAllowedForPlayback : kJX_CompressionAllowed;
}

namespace jx::settings {

bool UseMediaMapSetting() {
  static const bool v = ReadBool("JX.UseMediaMap1", true);
  return v;
}

int32_t WriteToDiskPriority() {
  constexpr int32_t kDefault = 2;
  if (!JX_IsImprovedDiskCacheBehaviorFullyEnabled()) return kDefault;
  static const int32_t v = [] {
    int32_t read = ReadInt32("KQ.JX.WriteToDiskPriorityR", kDefault);
    return read >= 3 ? kDefault : read;
  }();
  return v;
}

double LowPriorityFactor() {
  static const double v = ReadDouble("KQ.JX.LowPriorityFactorR", 2.0);
  return v;
}

double MinJXSizeToPurgeLimitRatio() {
  static const double v = ReadDouble("KQ.MinJXSizeToPurgeLimitRatioR", 0.1);
  return v;
}

double GfxpaksCacheLimitMultiplier() {
  static const double v = ReadDouble("Graphics.DefaultJXCacheLimitForGfxpaksMultiplier", 0.1);
  return v;
}

uint32_t DebugSleepTimeSetStuffDataMs() {
  static const uint32_t v = ReadUInt32("KQ.DebugSleepTimeInMs_JXSetStuffDataR", 0);
  return v;
}

uint32_t PendingOverdueMs() {
  static const uint32_t v = ReadUInt32("JX.PendingOverdueMs", 30000);
  return v;
}

int32_t ReadDiskDelayMs() {
  static const int32_t v = ReadInt32("KQ.JX.ReadDiskDelayInMsR", 0);
  return v;
}

int32_t WriteDiskDelayMs() {
  static const int32_t v = ReadInt32("KQ.JX.WriteDiskDelayInMsR", 0);
  return v;
}

const std::string& FarmAddress() {
  static const std::string v = ReadEntry("JX.Farm.Address", "");
  return v;
}

const std::string& FarmNode() {
  static const std::string v = ReadEntry("JX.Farm.Node", "");
  return v;
}

uint32_t FarmConnectTimeoutMs() {
  static const uint32_t v = ReadUInt32("JX.Farm.ConnectTimeoutMs", 100);
  return v;
}

uint32_t FarmCommandTimeoutMs() {
  static const uint32_t v = ReadUInt32("JX.Farm.CommandTimeoutMs", 250);
  return v;
}

uint32_t FarmLeaseMs() {
  static const uint32_t v = ReadUInt32("JX.Farm.LeaseMs", 5000);
  return v;
}

uint32_t FarmLeaseWaitMs() {
  static const uint32_t v = ReadUInt32("JX.Farm.LeaseWaitMs", 10000);
  return v;
}

uint32_t FarmTtlSeconds() {
  static const uint32_t v = ReadUInt32("JX.Farm.TTLSeconds", 86400);
  return v;
}

void SetMediaMapAllowed(bool allowed) { gMediaMapAllowed = allowed; }
bool MediaMapAllowed() { return gMediaMapAllowed; }
void SetUseMediaMap(bool use) { gUseMediaMap = use; }
bool UseMediaMap() { return gUseMediaMap; }
bool ExchangeGfxpakLimitAllowed(bool allowed) { return gGfxpakLimitAllowed.exchange(allowed); }
bool PlaybackFromDiskLogic() { return gPlaybackFromDiskLogic.load(std::memory_order_relaxed); }
void SwitchPlaybackFromDiskLogicOffForTests() { gPlaybackFromDiskLogic.store(false); }
const zelcore::utility::Guid& CacheIdentity() { return gCacheIdentity; }

}  // namespace jx::settings
