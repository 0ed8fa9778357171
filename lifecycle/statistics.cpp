#include "jxcache/lifecycle/statistics.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include "bag/miss_reasons.h"
#include "compute/compute_core.h"
#include "disk/disk_counters.h"
#include "farm/farm_counters.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/disk/performance_counters.h"
#include "jxcache/items/stuff.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "jxcache/lifecycle/miss_reasons.h"
#include "mediamap/media_map_hooks.h"

namespace {

class Collector {
 public:
  void Group(const char* group) { group_ = group; }
  void Counter(const char* name, int64_t value, const char* unit = "") {
    out_.push_back({group_, name, value, true, unit});
  }
  void Gauge(const char* name, int64_t value, const char* unit = "") {
    out_.push_back({group_, name, value, false, unit});
  }
  std::vector<JX_Statistic> Take() { return std::move(out_); }

 private:
  std::string group_;
  std::vector<JX_Statistic> out_;
};

void CollectMemory(Collector& c, const JX_PerformanceCounters& p) {
  c.Group("memory");
  c.Gauge("items", p.itemCount);
  c.Gauge("in_memory_bytes", p.inMemoryBytes, "bytes");
  c.Gauge("checked_out_bytes", p.checkedOutBytes, "bytes");
  c.Group("checkout");
  c.Gauge("items_checked_out", p.itemsCheckedOut);
  c.Counter("pending_refusals", static_cast<int64_t>(p.pendingRefusals));
  c.Counter("pending_waits", static_cast<int64_t>(p.pendingWaits));
  c.Counter(
      "pending_overdue",
      static_cast<int64_t>(JX_GetStuffCounters().pendingOverdue.load(std::memory_order_relaxed)));
  c.Group("purge");
  c.Counter("calls", p.purgeCalls);
  c.Counter("freed_with_disk_copy", p.purgeFreedDiskBacked);
  c.Counter("freed_without_disk_copy", p.purgeFreedGeneral);
  c.Counter("items_examined", static_cast<int64_t>(JX_GetPurgeExaminedCount()));
}

void CollectDisk(Collector& c, const JX_PerformanceCounters& p) {
  const JX_DiskPerformanceCounters& d = p.disk;
  auto n = [](uint64_t v) { return static_cast<int64_t>(v); };
  c.Group("disk");
  c.Gauge("bytes_on_disk", p.onDiskBytes, "bytes");
  c.Gauge("disk_limit", p.maxDiskBytes, "bytes");
  c.Counter("files_written", n(d.filesWritten));
  c.Counter("bytes_written", n(d.bytesWritten), "bytes");
  c.Counter("failed_writes", n(d.failedWrites));
  c.Counter("writes_skipped", n(d.writesSkipped));
  c.Counter("writes_skipped_for_room", n(d.writesSkippedForRoom));
  c.Counter("writes_skipped_for_volume", n(d.writesSkippedForVolume));
  c.Counter("files_read", n(d.filesRead));
  c.Counter("bytes_read", n(d.bytesRead), "bytes");
  c.Counter("failed_reads", d.failedReads);
  c.Counter("files_adopted", n(d.filesAdopted));
  c.Counter("write_requests", n(d.normalWriteRequests));
  c.Counter("low_priority_write_requests", n(d.lowPriorityForcedWriteRequests));
  c.Counter("compressed_write_requests", n(d.compressedWriteRequests));
  c.Counter("not_worth_writing", n(d.notWorthWriting));
  for (int reason = 1; reason <= 5; ++reason) {
    const std::string name = "not_written_for_reason_" + std::to_string(reason);
    c.Counter(name.c_str(), n(d.notWrittenForReason[reason - 1]));
  }
  c.Counter("frames_written", d.framesWritten + int64_t{d.framesWrittenFlagged});
  c.Counter("frames_read", d.framesRead + int64_t{d.framesReadFlagged});
  c.Gauge("high_priority_queue", d.highPriorityQueueLength);
  c.Gauge("normal_queue", d.normalQueueLength);
  c.Gauge("disk_pins", d.liveDiskCheckouts);
  c.Gauge("average_read_speed", static_cast<int64_t>(d.averageReadSpeed), "bytes/s");
  c.Gauge("average_write_speed", static_cast<int64_t>(d.averageWriteSpeed), "bytes/s");
}

void CollectComputeAndMediaMap(Collector& c) {
  const jx::compute::Counters k = jx::compute::GetCounters();
  auto n = [](uint64_t v) { return static_cast<int64_t>(v); };
  c.Group("compute");
  c.Counter("served", n(k.served));
  c.Counter("computed", n(k.computed));
  c.Counter("failed", n(k.failed));
  c.Counter("waits", n(k.waits));
  c.Counter("not_available", n(k.notAvailable));
  c.Group("media_map");
  c.Gauge("mirrored_bytes", static_cast<int64_t>(JX_GetMediaMapSize()), "bytes");
  c.Gauge("mirrored_items", static_cast<int64_t>(JX_MediaMapEntryCount()));
}

void CollectFarm(Collector& c) {
  const jx::farm::Counters& f = jx::farm::GetCounters();
  auto n = [](const std::atomic<uint64_t>& v) {
    return static_cast<int64_t>(v.load(std::memory_order_relaxed));
  };
  c.Group("farm");
  c.Counter("hits", n(f.hits));
  c.Counter("misses", n(f.misses));
  c.Counter("writes", n(f.writes));
  c.Counter("duplicate_writes", n(f.duplicateWrites));
  c.Counter("corrupt", n(f.corrupt));
  c.Counter("missing_parts", n(f.missingParts));
  c.Counter("lease_waits", n(f.leaseWaits));
  c.Counter("lease_takeovers", n(f.leaseTakeovers));
  c.Counter("lease_waits_given_up", n(f.leaseWaitsGivenUp));
  c.Counter("leases_lost", n(f.leasesLost));
  c.Counter("not_worth_sharing", n(f.notWorthSharing));
  c.Counter("errors", n(f.errors));
  c.Counter("timeouts", n(f.timeouts));
  c.Counter("connection_errors", n(f.connectionErrors));
  c.Counter("refused_commands", n(f.refusedCommands));
  c.Counter("bytes_read", n(f.bytesRead), "bytes");
  c.Counter("bytes_written", n(f.bytesWritten), "bytes");
  c.Gauge("writes_queued", f.uploadsQueued.load(std::memory_order_relaxed));
  c.Gauge("average_read_speed", static_cast<int64_t>(jx::farm::ReadSpeed().GetAverage()),
          "bytes/s");
  c.Gauge("average_latency", static_cast<int64_t>(jx::farm::AverageLatencySeconds() * 1e6), "us");
}

// One snapshot: the total is the sum of the reasons shown beside it.
void CollectMisses(Collector& c) {
  const JX_MissReasons all = JX_GetMissReasonsTotal();
  c.Group("misses");
  c.Counter("total", all.total);
  for (int i = 0; i < kJX_MissReasonCount; ++i) c.Counter(JX_MissReasonName(i), all.byReason[i]);
}

// JSON strings here are the library's own names: plain ASCII, nothing to escape.
void AppendJsonKey(std::string& out, const std::string& key) {
  out += '"';
  out += key;
  out += "\": ";
}

}  // namespace

std::vector<JX_Statistic> JX_GetStatistics() {
  Collector c;
  const JX_PerformanceCounters p = JX_GetPerformanceCounters();
  CollectMemory(c, p);
  CollectDisk(c, p);
  CollectComputeAndMediaMap(c);
  CollectFarm(c);
  CollectMisses(c);
  return c.Take();
}

std::string JX_GetStatisticsText() {
  const std::vector<JX_Statistic> stats = JX_GetStatistics();
  size_t width = 0;
  for (const auto& s : stats) width = std::max(width, s.group.size() + 1 + s.name.size());
  std::string out;
  for (const auto& s : stats) {
    std::string line = s.group + "." + s.name;
    line.resize(width + 2, ' ');
    line += std::to_string(s.value);
    if (!s.unit.empty()) line += " " + s.unit;
    if (!s.counter) line += "  (now)";
    out += line + "\n";
  }
  return out;
}

std::string JX_GetStatisticsJson() {
  const std::vector<JX_Statistic> stats = JX_GetStatistics();
  std::string out = "{";
  std::string group;
  for (const auto& s : stats) {
    if (s.group != group) {
      if (!group.empty()) out += "}, ";
      group = s.group;
      AppendJsonKey(out, group);
      out += "{";
    } else {
      out += ", ";
    }
    AppendJsonKey(out, s.name);
    out += std::to_string(s.value);
  }
  if (!group.empty()) out += "}";
  out += "}";
  return out;
}

void JX_ResetStatistics() {
  JX_StuffCounters& s = JX_GetStuffCounters();
  s.pendingRefusals.store(0, std::memory_order_relaxed);
  s.pendingWaits.store(0, std::memory_order_relaxed);
  s.pendingOverdue.store(0, std::memory_order_relaxed);
  JX_ResetPurgeCounters();
  jx::disk::ResetCounters();
  jx::compute::ResetCounters();
  jx::farm::ResetCounters();
  jx::miss::ResetCounts();
}
