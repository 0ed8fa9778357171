// The disk cache's process-wide counters and speed samples, shared by the file reader/writer and
// the write policy. Counters are lock-free atomics; each speed statistic has its own mutex.
#pragma once

#include <atomic>
#include <cstdint>

namespace jx::disk {

struct Counters {
  std::atomic<uint64_t> bytesWritten{0};
  std::atomic<uint64_t> filesWritten{0};
  std::atomic<uint64_t> writesSkipped{0};  // a write found the file already there, or in progress
  std::atomic<uint64_t> writesSkippedForRoom{0};    // the cache's limit could not be met
  std::atomic<uint64_t> writesSkippedForVolume{0};  // the volume would drop below its margin
  std::atomic<uint64_t> failedWrites{0};
  std::atomic<uint64_t> bytesRead{0};
  std::atomic<uint64_t> filesRead{0};
  std::atomic<uint64_t> filesAdopted{0};  // files taken over by a folder scan
  std::atomic<uint32_t> failedReads{0};
  std::atomic<uint32_t> highPriorityQueued{0};
  std::atomic<uint32_t> normalQueued{0};
  std::atomic<uint64_t> normalWriteRequests{0};
  std::atomic<uint64_t> lowPriorityForcedWriteRequests{0};
  std::atomic<uint64_t> compressedWriteRequests{0};
  std::atomic<uint64_t> refusedForReason[6] = {};  // index 1..5: the payload's no-disk reason
  // Refusals with no reason recorded on the payload because the worthiness rule found reading it
  // back no faster than computing it again.
  std::atomic<uint64_t> notWorthWriting{0};
};

inline Counters& GetCounters() {
  static Counters counters;
  return counters;
}

// Sets the counters of work done back to zero (the queue lengths, which are states, stay).
void ResetCounters();

// Adds a sample of a finished disk write of `bytes` taking `seconds` to the write-speed
// statistics; while the read statistics are still warming up, the same sample goes there too,
// so a fresh process has a read estimate before it has read anything.
void AddWriteSpeedSample(uint64_t bytes, double seconds);
// Adds a sample of a finished disk read.
void AddReadSpeedSample(uint64_t bytes, double seconds);

}  // namespace jx::disk
