// The write-to-disk policy: the worthiness rule and the decisions at check-in and when a render
// completes.
#include "disk/write_policy.h"

#include <algorithm>
#include <limits>
#include <new>

#include "bag/miss_reasons.h"
#include "common/settings.h"
#include "disk/disk_counters.h"
#include "disk/disk_speed.h"
#include "disk/disk_writer.h"
#include "host/trace.h"
#include "jxcache/bag/bag.h"
#include "jxcache/disk/disk_executor.h"
#include "jxcache/items/stuff.h"

namespace ci = jx::checkin_flags;
using zelcore::threads::ScopedReadLockWrapper;
using zelcore::threads::ScopedUpgradeLockWrapper;

namespace jx::disk {

ReadSpeedEstimate AdjustReadSpeed(double averageReadSpeed, double proclivityMultiplier,
                                  bool lowPriority, double lowPriorityFactor, double freeFraction) {
  double speed = averageReadSpeed / proclivityMultiplier;
  if (lowPriority && lowPriorityFactor != 0.0) speed /= lowPriorityFactor;
  return {speed, freeFraction * freeFraction * speed};
}

ReadSpeedEstimate GetAdjustedAverageReadSpeed(bool lowPriority) {
  return AdjustReadSpeed(GetAverageDiskReadSpeed(), GetProclivityMultiplier(), lowPriority,
                         lowPriority ? jx::settings::LowPriorityFactor() : 0.0,
                         CurrentQueueFreeFraction());
}

double GetAdjustedAverageReadSpeed(bool lowPriority, bool adjustForQueue) {
  ReadSpeedEstimate e = GetAdjustedAverageReadSpeed(lowPriority);
  return adjustForQueue ? e.adjusted : e.average;
}

bool SpeedRuleSaysWorth(uint64_t size, double computeSeconds, double readSpeed) {
  if (!(readSpeed > 0.0) || size == 0) return false;
  const double bytes = static_cast<double>(size);
  const double computeRate =
      computeSeconds > 0.0 ? bytes / computeSeconds : std::numeric_limits<double>::infinity();
  const double readSeconds = std::max(bytes / readSpeed, kMinReadSeconds);
  return bytes / readSeconds > computeRate;
}

bool SpeedRuleWithLatencySaysWorth(uint64_t size, double computeSeconds, double readSpeed,
                                   double latencySeconds) {
  if (!(readSpeed > 0.0) || size == 0) return false;
  const double bytes = static_cast<double>(size);
  const double fetchSeconds =
      std::max(bytes / readSpeed + std::max(latencySeconds, 0.0), kMinReadSeconds);
  return computeSeconds > fetchSeconds;
}

bool WorthWritingToFarm(uint64_t size, double computeSeconds, double farmReadSpeed,
                        double latencySeconds, double proclivityMultiplier, double freeFraction) {
  const ReadSpeedEstimate speed =
      AdjustReadSpeed(farmReadSpeed, proclivityMultiplier, false, 0.0, freeFraction);
  // The multiplier scales the whole fetch, round trip included: a host that prefers sharing
  // says so for slow networks as well as narrow ones.
  return SpeedRuleWithLatencySaysWorth(size, computeSeconds, speed.adjusted,
                                       latencySeconds * proclivityMultiplier);
}

bool IsHighWritePriority(int32_t prioritySetting, bool callerFlag, JX_CachePriority priority) {
  switch (prioritySetting) {
    case 0:
      return false;
    case 1:
      return callerFlag || priority == kJX_CachePriorityHigh;
    default:
      return callerFlag;
  }
}

bool IsHighWritePriority(bool callerFlag, JX_CachePriority priority) {
  return IsHighWritePriority(jx::settings::WriteToDiskPriority(), callerFlag, priority);
}

bool WorthWritingToDiskCache(const JX_StuffData* data, double computeSeconds, bool lowPriority,
                             WorthOutputs* out) {
  WorthOutputs local;
  WorthOutputs& o = out ? *out : local;
  o = WorthOutputs{};
  if (!data) {
    o.cacheable = false;
    return false;
  }
  if (JX_IsImprovedDiskCacheBehaviorFullyEnabled()) {
    const JX_CachePriority priority = data->GetCachePriority();
    if (priority == kJX_CachePriorityDefault) {
      o.cacheable = false;
      return false;
    }
    if (priority == kJX_CachePriorityLow) {
      o.lowPriorityForced = true;
      lowPriority = true;
    } else if (priority == kJX_CachePriorityHigh) {
      if (IsHighWritePriority(lowPriority, priority)) return true;
      const bool room = CurrentQueueFreeFraction() > 0.0;
      o.worthIfQueueEmpty = !room;
      return room;
    }
  }
  const uint64_t size = data->GetApproximateMemorySize();
  const ReadSpeedEstimate speed = GetAdjustedAverageReadSpeed(lowPriority);
  const bool worth = SpeedRuleSaysWorth(size, computeSeconds, speed.adjusted);
  if (!worth) o.worthIfQueueEmpty = SpeedRuleSaysWorth(size, computeSeconds, speed.average);
  return worth;
}

}  // namespace jx::disk

namespace {

void CountRequest(bool lowPriorityForced) {
  auto& c = jx::disk::GetCounters();
  (lowPriorityForced ? c.lowPriorityForcedWriteRequests : c.normalWriteRequests)
      .fetch_add(1, std::memory_order_relaxed);
}

// The last step of every offer: when the queue was the only obstacle, the payload remembers
// that; then the offer is counted under whatever reason the payload gives. An offer without a
// reason that the worthiness rule itself turned down (`ruleSaidNo`, and nothing was queued) is
// the most common refusal of all: it is counted on its own, so that a host can see why nothing
// is written. Returns whether it was that refusal.
bool RecordReason(JX_StuffData& data, bool worthIfQueueEmpty, bool ruleSaidNo) {
  if (worthIfQueueEmpty) data.SetReasonWhyNoDiskCache(JX_StuffData::kQueueTooFull);
  const JX_StuffData::NoDiskCacheReason reason = data.GetReasonWhyNoDiskCache();
  auto& counters = jx::disk::GetCounters();
  if (reason >= 1 && reason <= 5) {
    counters.refusedForReason[reason].fetch_add(1, std::memory_order_relaxed);
  } else if (reason == JX_StuffData::kNoReason && ruleSaidNo) {
    counters.notWorthWriting.fetch_add(1, std::memory_order_relaxed);
    return true;
  }
  return false;
}

// The item stays in memory for now; if a purge frees it before anything is written, a miss of
// its key is put down to this refusal.
void NoteWriteDeclined(const JX_Stuff& stuff) {
  size_t hash;
  stuff.GetGuidAndHash(&hash);
  jx::miss::NoteWriteDeclined(hash);
}

// A queued write: a "queue too full" the payload remembers from an earlier offer is over. The
// other reasons belong to the payload and stay as it set them.
void ForgetQueueTooFull(JX_StuffData& data) {
  if (data.GetReasonWhyNoDiskCache() == JX_StuffData::kQueueTooFull) {
    data.SetReasonWhyNoDiskCache(JX_StuffData::kNoReason);
  }
}

// What the write decision needs to know of a payload, read under the item's lock.
struct PayloadFacts {
  bool present = false;
  bool inMemory = false;
  bool canDiskCache = false;
  bool canBeCompressed = false;
  bool compressed = false;
};

PayloadFacts ReadFacts(const JX_StuffData* data) {
  PayloadFacts f;
  if (!data) return f;
  f.present = true;
  f.inMemory = data->IsInMemory();
  f.canDiskCache = data->CanDiskCache();
  f.canBeCompressed = data->CanBeCompressed();
  f.compressed = data->IsCompressed();
  return f;
}

// Whether an offer can lead anywhere: a disk writer runs, the payload took time to make, is in
// memory and has no file yet, and the item's bag caches to disk.
bool CanOfferToDisk(const JX_Stuff& stuff, double computeTime, const PayloadFacts& facts,
                    const JX_Bag* bag) {
  return jx::DiskExecutor() && computeTime > 0.0 && facts.present && facts.inMemory &&
         !stuff.HasDiskCacheFile() && bag && bag->IsDiskCacheEnabled();
}

}  // namespace

bool JX_Stuff::WorthWritingToDiskCache(double computeTime, bool lowPriority, bool* cacheable,
                                       bool* worthIfQueueEmpty, bool* lowPriorityForced) const {
  jx::disk::WorthOutputs o;
  bool worth;
  {
    // The payload is asked for its size under the item's lock: a purge changes it under the
    // write lock.
    ScopedReadLockWrapper r(mutex_);
    worth = jx::disk::WorthWritingToDiskCache(data_.get(), computeTime, lowPriority, &o);
  }
  if (cacheable) *cacheable = o.cacheable;
  if (worthIfQueueEmpty) *worthIfQueueEmpty = o.worthIfQueueEmpty;
  if (lowPriorityForced) *lowPriorityForced = o.lowPriorityForced;
  return worth;
}

void JX_Stuff::MaybeWriteToDisk() {
  // An offer made on behalf of work that is already done (a filled or newly created item):
  // memory refused while queuing means the write is not made now, not that the caller's work
  // failed.
  try {
    // Work that took no time is never worth a file, and a bag that does not cache to disk takes
    // none: both are known before the payload is locked or anything is copied, which every miss
    // would otherwise pay.
    const double computeTime = GetComputeTime();
    if (!(computeTime > 0.0)) return;
    const std::shared_ptr<JX_Bag> bag = GetBag();
    if (!bag || !bag->IsDiskCacheEnabled()) return;
    IntrusivePtr<JX_Stuff> self(this);
    IntrusivePtr<JX_StuffData> data;
    PayloadFacts facts;
    {
      ScopedReadLockWrapper r(mutex_);
      data = data_;
      facts = ReadFacts(data_.get());
    }
    if (!CanOfferToDisk(*this, computeTime, facts, bag.get())) return;
    const DiskOffer plain =
        facts.canDiskCache ? OfferToDiskWriter(self, false, computeTime, *data) : DiskOffer{};
    // A compressed copy is only worth it where playback may use one; elsewhere an uncompressed
    // file, once asked for, is enough.
    const bool compressedWanted =
        facts.canBeCompressed && !facts.compressed &&
        (JX_GetPlaybackCompressionAllowedOption() == kJX_CompressionAllowedForPlayback ||
         !plain.queued);
    const DiskOffer compressed =
        compressedWanted ? OfferToDiskWriter(self, true, computeTime, *data) : DiskOffer{};
    const bool ruleSaidNo = plain.ruleSaidNo || compressed.ruleSaidNo;
    if (RecordReason(*data, plain.worthIfQueueEmpty,
                     ruleSaidNo && !plain.queued && !compressed.queued)) {
      NoteWriteDeclined(*this);
    }
  } catch (const std::bad_alloc&) {
  }
}

JX_Stuff::DiskOffer JX_Stuff::OfferToDiskWriter(const IntrusivePtr<JX_Stuff>& self,
                                                bool compressedCopy, double computeTime,
                                                JX_StuffData& data) {
  DiskOffer offer;
  bool cacheable = true;
  bool lowForced = false;
  const bool worth = WorthWritingToDiskCache(computeTime, compressedCopy, &cacheable,
                                             &offer.worthIfQueueEmpty, &lowForced);
  offer.ruleSaidNo = cacheable && !worth;
  if (!worth || !WriteToDiskAsyncOnDiskThread(self, compressedCopy)) return offer;
  offer.queued = true;
  if (compressedCopy) {
    jx::disk::GetCounters().compressedWriteRequests.fetch_add(1, std::memory_order_relaxed);
  } else {
    CountRequest(lowForced);
    ForgetQueueTooFull(data);
  }
  return offer;
}

void JX_Stuff::OfferToDiskAtCheckin(int flags, bool wasWriteable, double computeTime) {
  // A read-only check-in leaves the payload as it was: nothing new to write unless asked.
  if (!wasWriteable && !(flags & ci::kWriteNow)) return;
  IntrusivePtr<JX_Stuff> self(this);
  IntrusivePtr<JX_StuffData> data;
  PayloadFacts facts;
  {
    ScopedReadLockWrapper r(mutex_);
    data = data_;
    facts = ReadFacts(data_.get());
  }
  if (!facts.present || !facts.inMemory || !facts.canDiskCache) return;
  if (flags & ci::kWriteNow) {
    // Other writes wait behind a foreground read; this one goes at once (it is queued urgent,
    // which no hold-back holds).
    JX_DeprioritizeBackgroundWrites();
    WriteToDiskAsyncOnDiskThread(self, false, true);
    return;
  }
  // A read-only check-in leaves the payload as it was: nothing new to write.
  if (!wasWriteable) return;
  const std::shared_ptr<JX_Bag> bag = GetBag();
  if (!bag || !bag->IsDiskCacheEnabled() || HasDiskCacheFile()) return;
  bool worthIfEmpty = false;
  bool lowForced = false;
  bool cacheable = true;
  if (WorthWritingToDiskCache(computeTime, false, &cacheable, &worthIfEmpty, &lowForced)) {
    if (WriteToDiskAsyncOnDiskThread(self, false)) {
      CountRequest(lowForced);
      ForgetQueueTooFull(*data);
    }
    return;
  }
  if (RecordReason(*data, worthIfEmpty, cacheable)) NoteWriteDeclined(*this);
}

void JX_Stuff::ReconsiderWriteToDisk() {
  bool again = false;
  {
    // Decided under the upgrade lock so that a concurrent read-back or purge cannot change the
    // payload's state underneath; the write itself is queued after it is released, because
    // queuing checks the item out, which takes this lock again.
    ScopedUpgradeLockWrapper up(mutex_);
    if (data_ && data_->GetReasonWhyNoDiskCache() == JX_StuffData::kReconsiderLater &&
        data_->IsInMemory() && !diskFile_) {
      data_->SetReasonWhyNoDiskCache(JX_StuffData::kNoReason);
      again = true;
    }
  }
  if (again) MaybeWriteToDisk();
}

double JX_Bag::GetDiskWriteQueueSizePercentFull() const {
  return 1.0 - jx::disk::CurrentQueueFreeFraction();
}
