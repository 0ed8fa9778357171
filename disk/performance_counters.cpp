#include "jxcache/disk/performance_counters.h"

#include "disk/disk_counters.h"
#include "disk/disk_speed.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/disk/disk_executor.h"
#include "jxcache/items/stuff.h"

JX_DiskPerformanceCounters JX_GetDiskPerformanceCounters() {
  const auto& c = jx::disk::GetCounters();
  const jx::FrameCounters frames = jx::GetFrameCounters();
  JX_DiskPerformanceCounters r;
  r.bytesWritten = c.bytesWritten.load();
  r.framesWritten = frames.writtenFalse;
  r.framesWrittenFlagged = frames.writtenTrue;
  r.failedWrites = c.failedWrites.load();
  r.bytesRead = c.bytesRead.load();
  r.framesRead = frames.readFalse;
  r.framesReadFlagged = frames.readTrue;
  r.failedReads = c.failedReads.load();
  r.highPriorityQueueLength = c.highPriorityQueued.load();
  r.normalQueueLength = c.normalQueued.load();
  r.normalWriteRequests = c.normalWriteRequests.load();
  r.lowPriorityForcedWriteRequests = c.lowPriorityForcedWriteRequests.load();
  r.compressedWriteRequests = c.compressedWriteRequests.load();
  for (int reason = 1; reason <= 5; ++reason) {
    r.notWrittenForReason[reason - 1] = c.refusedForReason[reason].load();
  }
  r.filesWritten = c.filesWritten.load();
  r.writesSkipped = c.writesSkipped.load();
  r.writesSkippedForRoom = c.writesSkippedForRoom.load();
  r.writesSkippedForVolume = c.writesSkippedForVolume.load();
  r.notWorthWriting = c.notWorthWriting.load();
  r.filesRead = c.filesRead.load();
  r.filesAdopted = c.filesAdopted.load();
  r.liveDiskCheckouts = JX_Stuff::GetNumDiskCacheCheckoutsGlobal().load();
  r.averageReadSpeed = jx::disk::GetAverageDiskReadSpeed();
  r.averageWriteSpeed = jx::disk::GetAverageDiskWriteSpeed();
  r.maxReadSpeed = jx::disk::GetMaxDiskReadSpeed();
  r.maxWriteSpeed = jx::disk::GetMaxDiskWriteSpeed();
  return r;
}

JX_PerformanceCounters JX_GetPerformanceCounters() {
  JX_PerformanceCounters r;
  const JX_StuffCounters& s = JX_GetStuffCounters();
  r.itemsCheckedOut = s.itemsCheckedOut.load();
  r.pendingRefusals = s.pendingRefusals.load();
  r.pendingWaits = s.pendingWaits.load();
  r.purgeCalls = JX_GetPurgeCallCount();
  r.purgeFreedDiskBacked = JX_GetPurgeFreedDiskBackedCount();
  r.purgeFreedGeneral = JX_GetPurgeFreedGeneralCount();
  if (std::shared_ptr<JX_Bag> bag = JX_GlobalBag()) {
    r.itemCount = bag->GetNumItems();
    r.inMemoryBytes = bag->GetInMemoryCacheSizeInBytes_LockFree();
    r.checkedOutBytes = bag->GetCheckedOutMemoryCacheSizeInBytes();
    r.onDiskBytes = bag->GetCurrentDiskCacheSize();
    r.maxDiskBytes = bag->GetMaxDiskCacheSize();
  }
  r.disk = JX_GetDiskPerformanceCounters();
  return r;
}

void jx::disk::ResetCounters() {
  Counters& c = GetCounters();
  for (auto* counter : {&c.bytesWritten, &c.filesWritten, &c.writesSkipped, &c.writesSkippedForRoom,
                        &c.writesSkippedForVolume, &c.failedWrites, &c.bytesRead, &c.filesRead,
                        &c.filesAdopted, &c.normalWriteRequests, &c.lowPriorityForcedWriteRequests,
                        &c.compressedWriteRequests, &c.notWorthWriting}) {
    counter->store(0, std::memory_order_relaxed);
  }
  c.failedReads.store(0, std::memory_order_relaxed);
  for (auto& reason : c.refusedForReason) reason.store(0, std::memory_order_relaxed);
  jx::ResetFrameCounters();
}
