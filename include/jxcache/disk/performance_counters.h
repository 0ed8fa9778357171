// Snapshots of the library's counters for the host's statistics display. Each call copies the
// live atomics; fields of one snapshot may be a moment apart. Any thread may call.
#pragma once

#include <cstdint>

#include "jxcache/host/export.h"

// The disk cache: the writer's and reader's work, the write queue and the policy's decisions.
struct JX_EXPORT JX_DiskPerformanceCounters {
  uint64_t bytesWritten = 0;
  uint32_t framesWritten = 0;         // JX_NotifyFrameWrittenToDisk(false)
  uint32_t framesWrittenFlagged = 0;  // JX_NotifyFrameWrittenToDisk(true)
  uint64_t failedWrites = 0;
  uint64_t bytesRead = 0;
  uint32_t framesRead = 0;         // JX_NotifyFrameReadFromDisk(false)
  uint32_t framesReadFlagged = 0;  // JX_NotifyFrameReadFromDisk(true)
  uint32_t failedReads = 0;
  uint32_t highPriorityQueueLength = 0;
  uint32_t normalQueueLength = 0;
  uint64_t normalWriteRequests = 0;
  uint64_t lowPriorityForcedWriteRequests = 0;
  uint64_t compressedWriteRequests = 0;
  uint64_t notWrittenForReason[5] = {};  // index r - 1: refusals under no-disk reason r
  // Beyond the list above, for diagnosis.
  uint64_t filesWritten = 0;
  uint64_t writesSkipped = 0;           // the file was already there, or being written
  uint64_t writesSkippedForRoom = 0;    // no room within the cache's size limit
  uint64_t writesSkippedForVolume = 0;  // the volume would have dropped below its free margin
  uint64_t notWorthWriting = 0;  // refusals without a no-disk reason: the rule said not worth it
  uint64_t filesRead = 0;
  uint64_t filesAdopted = 0;
  uint32_t liveDiskCheckouts = 0;
  double averageReadSpeed = 0.0;  // bytes per second
  double averageWriteSpeed = 0.0;
  double maxReadSpeed = 0.0;
  double maxWriteSpeed = 0.0;
};

// The memory side: the check-out protocol, purging, and the global bag's sizes.
struct JX_EXPORT JX_PerformanceCounters {
  int64_t itemsCheckedOut = 0;
  uint64_t pendingRefusals = 0;
  uint64_t pendingWaits = 0;
  uint32_t purgeCalls = 0;
  uint32_t purgeFreedDiskBacked = 0;
  uint32_t purgeFreedGeneral = 0;
  int32_t itemCount = 0;
  int64_t inMemoryBytes = 0;
  int64_t checkedOutBytes = 0;
  int64_t onDiskBytes = 0;
  int64_t maxDiskBytes = 0;
  JX_DiskPerformanceCounters disk;
};

JX_EXPORT JX_DiskPerformanceCounters JX_GetDiskPerformanceCounters();
JX_EXPORT JX_PerformanceCounters JX_GetPerformanceCounters();

// Purge counters (bag/purge.cpp).
uint32_t JX_GetPurgeCallCount();
uint32_t JX_GetPurgeFreedDiskBackedCount();
uint32_t JX_GetPurgeFreedGeneralCount();
// Items the purge walks have looked at, freed or not.
JX_EXPORT uint64_t JX_GetPurgeExaminedCount();
// Sets the purge counters back to zero.
void JX_ResetPurgeCounters();
