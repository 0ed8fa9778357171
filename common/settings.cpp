#include "common/settings.h"

#include <atomic>
#include <mutex>
#include <string>

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

// A setting read on first use and kept. As with a function-local static, the first read runs
// under a lock of the setting's own, so that a host answering one setting may read another;
// unlike one, the value can be forgotten, so that each test reads the settings afresh as a new
// process would. The first read links the setting into a list, so that ForgetForTests reaches
// every setting ever read without a list to keep up by hand.
class ReadOnceBase {
 public:
  constexpr ReadOnceBase() = default;
  ReadOnceBase(const ReadOnceBase&) = delete;
  ReadOnceBase& operator=(const ReadOnceBase&) = delete;

  // Only while no other thread reads a setting.
  static void ForgetAll() {
    for (ReadOnceBase* r = read_.load(std::memory_order_acquire); r != nullptr; r = r->next_) {
      std::lock_guard lock(r->mutex_);
      r->ready_.store(false, std::memory_order_relaxed);
    }
  }

 protected:
  ~ReadOnceBase() = default;  // static storage only: never unlinked
  // Under mutex_, once per setting.
  void LinkOnce() {
    if (linked_) return;
    linked_ = true;
    next_ = read_.load(std::memory_order_relaxed);
    while (!read_.compare_exchange_weak(next_, this, std::memory_order_release,
                                        std::memory_order_relaxed)) {
    }
  }
  std::atomic<bool> ready_{false};
  std::mutex mutex_;

 private:
  static constinit inline std::atomic<ReadOnceBase*> read_{nullptr};
  ReadOnceBase* next_ = nullptr;
  bool linked_ = false;
};

template <class T>
class ReadOnce : public ReadOnceBase {
 public:
  constexpr ReadOnce() = default;
  template <class Read>
  const T& Get(Read read) {
    if (!ready_.load(std::memory_order_acquire)) {
      std::lock_guard lock(mutex_);
      if (!ready_.load(std::memory_order_relaxed)) {
        value_ = read();
        LinkOnce();
        ready_.store(true, std::memory_order_release);
      }
    }
    return value_;
  }

 private:
  T value_{};
};

struct ReadOnceSettings {
  ReadOnce<bool> improvedDiskCacheFeature, gfxpakLimitFeature, diskCompression, useMediaMap;
  ReadOnce<int32_t> playbackCompressionOption, writeToDiskPriority, readDiskDelayMs,
      writeDiskDelayMs;
  ReadOnce<double> lowPriorityFactor, minSizeToPurgeLimitRatio, gfxpaksLimitMultiplier;
  ReadOnce<uint32_t> debugSleepSetStuffDataMs, pendingOverdueMs, farmConnectTimeoutMs,
      farmCommandTimeoutMs, farmLeaseMs, farmLeaseWaitMs, farmTtlSeconds;
  ReadOnce<std::string> farmAddress, farmNode;
};
ReadOnceSettings gRead;

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
  return gRead.improvedDiskCacheFeature.Get(
      [] { return zelappsupport::feature::IsFeatureEnabled(kJX_ImprovedDiskCacheFeature); });
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
  return gRead.gfxpakLimitFeature.Get(
      [] { return zelappsupport::feature::IsFeatureEnabled(kJX_GfxpakLimitFeature); });
}
}  // namespace jx::settings

bool JX_IsSetJXCacheLimitForGfxpaksEnabled() {
  return jx::settings::GfxpakLimitFeatureOn() &&
         gGfxpakLimitAllowed.load(std::memory_order_relaxed);
}

bool JX_IsDiskCompressionEnabled() {
  return gRead.diskCompression.Get([] { return ReadBool("KQ.IsDiskCompressionEnabledR", false); });
}

JX_CompressedAllowedOption JX_GetPlaybackCompressionAllowedOption() {
  if (!JX_IsDiskCompressionEnabled()) return kJX_CompressionNotAllowed;
  const int32_t playback = gRead.playbackCompressionOption.Get(
      [] { return ReadInt32("KQ.JX.PlaybackCompressionOptionR", 1); });
  return playback != 0 ? kJX_CompressionAllowedForPlayback : kJX_CompressionAllowed;
}

namespace jx::settings {

bool UseMediaMapSetting() {
  return gRead.useMediaMap.Get([] { return ReadBool("JX.UseMediaMap1", true); });
}

int32_t WriteToDiskPriority() {
  constexpr int32_t kDefault = 2;
  if (!JX_IsImprovedDiskCacheBehaviorFullyEnabled()) return kDefault;
  return gRead.writeToDiskPriority.Get([] {
    int32_t read = ReadInt32("KQ.JX.WriteToDiskPriorityR", kDefault);
    return read >= 3 ? kDefault : read;
  });
}

double LowPriorityFactor() {
  return gRead.lowPriorityFactor.Get([] { return ReadDouble("KQ.JX.LowPriorityFactorR", 2.0); });
}

double MinJXSizeToPurgeLimitRatio() {
  return gRead.minSizeToPurgeLimitRatio.Get(
      [] { return ReadDouble("KQ.MinJXSizeToPurgeLimitRatioR", 0.1); });
}

double GfxpaksCacheLimitMultiplier() {
  return gRead.gfxpaksLimitMultiplier.Get(
      [] { return ReadDouble("Graphics.DefaultJXCacheLimitForGfxpaksMultiplier", 0.1); });
}

uint32_t DebugSleepTimeSetStuffDataMs() {
  return gRead.debugSleepSetStuffDataMs.Get(
      [] { return ReadUInt32("KQ.DebugSleepTimeInMs_JXSetStuffDataR", 0); });
}

uint32_t PendingOverdueMs() {
  return gRead.pendingOverdueMs.Get([] { return ReadUInt32("JX.PendingOverdueMs", 30000); });
}

int32_t ReadDiskDelayMs() {
  return gRead.readDiskDelayMs.Get([] { return ReadInt32("KQ.JX.ReadDiskDelayInMsR", 0); });
}

int32_t WriteDiskDelayMs() {
  return gRead.writeDiskDelayMs.Get([] { return ReadInt32("KQ.JX.WriteDiskDelayInMsR", 0); });
}

const std::string& FarmAddress() {
  return gRead.farmAddress.Get([] { return ReadEntry("JX.Farm.Address", ""); });
}

const std::string& FarmNode() {
  return gRead.farmNode.Get([] { return ReadEntry("JX.Farm.Node", ""); });
}

uint32_t FarmConnectTimeoutMs() {
  return gRead.farmConnectTimeoutMs.Get([] { return ReadUInt32("JX.Farm.ConnectTimeoutMs", 100); });
}

uint32_t FarmCommandTimeoutMs() {
  return gRead.farmCommandTimeoutMs.Get([] { return ReadUInt32("JX.Farm.CommandTimeoutMs", 250); });
}

uint32_t FarmLeaseMs() {
  return gRead.farmLeaseMs.Get([] { return ReadUInt32("JX.Farm.LeaseMs", 5000); });
}

uint32_t FarmLeaseWaitMs() {
  return gRead.farmLeaseWaitMs.Get([] { return ReadUInt32("JX.Farm.LeaseWaitMs", 10000); });
}

uint32_t FarmTtlSeconds() {
  return gRead.farmTtlSeconds.Get([] { return ReadUInt32("JX.Farm.TTLSeconds", 86400); });
}

void SetMediaMapAllowed(bool allowed) { gMediaMapAllowed = allowed; }
bool MediaMapAllowed() { return gMediaMapAllowed; }
void SetUseMediaMap(bool use) { gUseMediaMap = use; }
bool UseMediaMap() { return gUseMediaMap; }
bool ExchangeGfxpakLimitAllowed(bool allowed) { return gGfxpakLimitAllowed.exchange(allowed); }
bool PlaybackFromDiskLogic() { return gPlaybackFromDiskLogic.load(std::memory_order_relaxed); }
void ForgetForTests() {
  ReadOnceBase::ForgetAll();
  gPlaybackFromDiskLogic.store(false);
}
const zelcore::utility::Guid& CacheIdentity() { return gCacheIdentity; }

}  // namespace jx::settings
