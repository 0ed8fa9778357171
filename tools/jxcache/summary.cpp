#include "tools/jxcache/summary.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include "tools/jxcache/session_farm.h"

#include <string>
#include <vector>

#include "tools/jxcache/size_arg.h"
#include "tools/jxcache/table.h"

namespace jx::tool {
namespace {

// Every reason a render was not written to the disk cache, with the figure behind it: the text
// and the JSON list the same ones under the same names.
struct Refusal {
  const char* text;  // as the summary says it
  const char* key;   // as the JSON names it
  uint64_t count;
};

std::vector<Refusal> Refusals(const SessionResult& r) {
  return {{"not worth writing", "not_worth_writing", r.notWorthWriting},
          {"write queue full", "write_queue_full", r.refusedForReason[3]},
          {"reconsider later", "reconsider_later", r.refusedForReason[5]},
          {"host reason 1", "host_reason_1", r.refusedForReason[1]},
          {"host reason 2", "host_reason_2", r.refusedForReason[2]},
          {"host reason 4", "host_reason_4", r.refusedForReason[4]},
          {"no room in the folder's limit", "no_room_in_limit", r.writesSkippedForRoom},
          {"volume below its free-space margin", "volume_below_margin", r.writesSkippedForVolume}};
}

struct Totals {
  uint64_t requests = 0, memoryHits = 0, diskHits = 0, renders = 0, waited = 0;
  uint64_t framesChecked = 0, badFrames = 0, failedReads = 0;
  double seconds = 0.0;
};

Totals Sum(const SessionResult& r) {
  Totals t;
  for (const PassResult& p : r.passes) {
    t.requests += p.Requests();
    t.memoryHits += p.memoryHits;
    t.diskHits += p.diskHits;
    t.renders += p.renders;
    t.waited += p.waitedForOtherRender;
    t.framesChecked += p.framesChecked;
    t.badFrames += p.badFrames;
    t.failedReads += p.failedReads;
    t.seconds += p.seconds;
  }
  return t;
}

double PerSecond(uint64_t n, double seconds) { return seconds > 0 ? n / seconds : 0.0; }

double MeanRenderMs(const SessionResult& r, const Totals& t) {
  return t.renders ? r.renderMicrosTotal / 1000.0 / t.renders : 0.0;
}

std::string Unavailable(const Availability& a) { return "unavailable: " + a.why; }

std::string DiskLine(const SessionResult& r) {
  return std::to_string(r.filesWritten) + " writes (" + FormatSize(r.bytesWritten) + "), " +
         std::to_string(r.filesRead) + " reads (" + FormatSize(r.bytesRead) + "), " +
         std::to_string(r.failedWrites) + " failed writes, " + std::to_string(r.failedReads) +
         " failed reads";
}

std::string WritesLine(const SessionResult& r) {
  std::string text = std::to_string(r.writeRequests) + " queued (" +
                     std::to_string(r.writesSkipped) + " found already on disk); refused: ";
  std::string refused;
  for (const Refusal& f : Refusals(r)) {
    // The host's reasons and the folder's and volume's limits are named only when they came up.
    const std::string key = f.key;
    if (f.count == 0 &&
        (key.rfind("host_", 0) == 0 || key == "no_room_in_limit" || key == "volume_below_margin")) {
      continue;
    }
    if (!refused.empty()) refused += ", ";
    refused += std::to_string(f.count) + " " + f.text;
  }
  return text + refused;
}

// What was recorded while the session ran: the run's metadata, the time series, the purges and
// the render times. New keys only: the ones above are relied on as they are.
void AddRecording(const SessionResult& r, nlohmann::ordered_json& j) {
  j["run"] = {{"tool", "jxcache simulate"},
              {"version", r.run.version},
              {"started_at", r.run.startedAt},
              {"host", r.run.host},
              {"command_line", r.run.commandLine}};
  j["time_series_interval_seconds"] = r.seriesInterval;
  nlohmann::ordered_json series = nlohmann::ordered_json::array();
  for (const SeriesPoint& p : WithRates(r.series)) {
    const SeriesSample& s = p.sample;
    series.push_back({{"seconds", s.seconds},
                      {"pass", s.pass + 1},
                      {"frames_done", s.framesDone},
                      {"hits", s.hits},
                      {"hit_rate", p.hitRate ? nlohmann::ordered_json(*p.hitRate)
                                             : nlohmann::ordered_json(nullptr)},
                      {"frames_per_second", p.framesPerSecond},
                      {"memory_bytes", s.memory},
                      {"disk_bytes", s.disk},
                      {"write_queue", s.writeQueue}});
  }
  j["time_series"] = series;
  nlohmann::ordered_json purges = nlohmann::ordered_json::array();
  for (const PurgeEvent& e : r.purgeEvents)
    purges.push_back({{"seconds", e.seconds}, {"bytes_freed", e.bytesFreed}, {"purges", e.purges}});
  j["purge_events"] = purges;
  std::vector<double> ms = r.renderMs;
  std::sort(ms.begin(), ms.end());
  j["render_time_ms"] = {
      {"renders_timed", r.renderTimesSeen}, {"sampled", ms.size()},
      {"p50", Quantile(ms, 0.5)},           {"p90", Quantile(ms, 0.9)},
      {"p99", Quantile(ms, 0.99)},          {"max", ms.empty() ? 0.0 : ms.back()}};
}

std::string ReadAheadLine(const ReadAheadFigures& f) {
  std::string line = std::to_string(f.prefetched) + " frames read ahead (" +
                     FormatSize(f.prefetchedBytes) + "), " + std::to_string(f.hitsOnPrefetched) +
                     " of them used, " + std::to_string(f.wasted) + " wasted";
  if (f.failedReads) line += ", " + std::to_string(f.failedReads) + " failed reads";
  if (f.readRate > 0) {
    line += "; read at " + FormatSize(static_cast<uint64_t>(f.readRate)) + "/s";
    if (f.rawReadRate > 0) line += " (plain reads " + Fixed(f.readRate / f.rawReadRate, 2) + "x)";
  }
  return line;
}

nlohmann::ordered_json ReadAheadJson(const SessionResult& r) {
  const ReadAheadFigures& f = r.readAhead;
  nlohmann::ordered_json j = {{"used", f.used},
                              {"prefetched", f.prefetched},
                              {"hits_on_prefetched", f.hitsOnPrefetched},
                              {"wasted", f.wasted}};
  if (!f.used) return j;
  j["prefetched_bytes"] = f.prefetchedBytes;
  j["not_in_cache"] = f.notInCache;
  j["failed_reads"] = f.failedReads;
  j["jumps"] = f.jumps;
  j["stopped_at_share"] = f.stoppedAtShare;
  j["read_bytes_per_second"] = f.readRate;
  j["raw_read_bytes_per_second"] = f.rawReadRate;
  return j;
}

// One row per reason, one column for all classes and one per class.
SummaryTable MissTable(const SessionResult& r) {
  SummaryTable t;
  t.header = {"miss reason", "look-ups"};
  for (const JX_MissReasons& c : r.missReasonsByClass) t.header.push_back(c.payloadClass);
  t.leftAligned = {0};
  auto row = [&](const std::string& name, auto figure) {
    std::vector<std::string> cells{name, std::to_string(figure(r.missReasons))};
    for (const JX_MissReasons& c : r.missReasonsByClass) cells.push_back(std::to_string(figure(c)));
    t.rows.push_back(std::move(cells));
  };
  for (int i = 0; i < kJX_MissReasonCount; ++i) {
    row(JX_MissReasonName(i), [i](const JX_MissReasons& m) { return m.byReason[i]; });
  }
  row("all misses", [](const JX_MissReasons& m) { return m.total; });
  return t;
}

}  // namespace

double HitRate(uint64_t memoryHits, uint64_t diskHits, uint64_t requests) {
  return requests ? static_cast<double>(memoryHits + diskHits) / requests : 0.0;
}

double Quantile(const std::vector<double>& sorted, double fraction) {
  if (sorted.empty()) return 0.0;
  const double rank = std::ceil(std::clamp(fraction, 0.0, 1.0) * sorted.size());
  return sorted[static_cast<size_t>(std::max(1.0, rank)) - 1];
}

SummaryTables BuildSummary(const SessionResult& r) {
  const SimulateOptions& o = r.options;
  SummaryTables tables;
  std::ostringstream line;
  line << "jxcache simulate: " << o.frames << " frames of " << o.width << "x" << o.height
       << " RGBA8 (" << FormatSize(r.frameBytes) << " each), " << o.threads
       << " render threads, memory budget " << FormatSize(o.memoryBudget) << ", seed " << o.seed;
  tables.heading.push_back(line.str());
  if (r.disk.available) {
    line.str("");
    line << "disk cache: " << r.diskFolder << " (limit " << FormatSize(o.diskLimit) << "), "
         << r.diskFilesAtStart << " files (" << FormatSize(r.diskBytesAtStart)
         << ") adopted at start";
    if (o.diskProclivity > 0) line << ", proclivity multiplier " << o.diskProclivity;
    tables.heading.push_back(line.str());
  }
  SummaryTable& passes = tables.passes;
  passes.header = {"pass",      "kind",    "requests", "memory hits",
                   "disk hits", "renders", "hit rate", "frames/s"};
  passes.leftAligned = {0, 1};
  // Paced playback: the frames that missed their display time.
  const bool paced = o.fps > 0;
  if (paced) passes.header.push_back("late");
  uint64_t late = 0;
  for (size_t i = 0; i < r.passes.size(); ++i) {
    const PassResult& p = r.passes[i];
    passes.rows.push_back({std::to_string(i + 1), p.kind, std::to_string(p.Requests()),
                           std::to_string(p.memoryHits), std::to_string(p.diskHits),
                           std::to_string(p.renders),
                           Percent(HitRate(p.memoryHits, p.diskHits, p.Requests())),
                           Fixed(PerSecond(p.Requests(), p.seconds), 1)});
    if (paced) passes.rows.back().push_back(std::to_string(p.lateFrames));
    late += p.lateFrames;
  }
  const Totals t = Sum(r);
  passes.rows.push_back({"all", "", std::to_string(t.requests), std::to_string(t.memoryHits),
                         std::to_string(t.diskHits), std::to_string(t.renders),
                         Percent(HitRate(t.memoryHits, t.diskHits, t.requests)),
                         Fixed(PerSecond(t.requests, t.seconds), 1)});
  if (paced) passes.rows.back().push_back(std::to_string(late));

  SummaryTable& overall = tables.overall;
  overall.header = {"overall", ""};
  overall.leftAligned = {0, 1};
  overall.rows.push_back({"peak memory", FormatSize(r.peakMemory) + " of " +
                                             FormatSize(o.memoryBudget) +
                                             " budget (cache and host media)"});
  overall.rows.push_back(
      {"purges", std::to_string(r.purges) + " (" + FormatSize(r.bytesPurged) + " freed)"});
  overall.rows.push_back(
      {"renders", std::to_string(t.renders) + ", " + Fixed(MeanRenderMs(r, t), 2) +
                      " ms each: " + std::to_string(r.firstRenders) + " new frames, " +
                      std::to_string(r.rendersAfterPurge) + " again after a purge, " +
                      std::to_string(r.rendersWhileInMemory) + " of a frame still in memory"});
  overall.rows.push_back({"shared renders", std::to_string(t.waited) +
                                                " requests waited for another thread's render"});
  overall.rows.push_back({"bad frames", std::to_string(t.badFrames) + " of " +
                                            std::to_string(t.framesChecked) +
                                            " frames served checked against the image" +
                                            (t.badFrames ? " (dropped and rendered again)" : "")});
  if (r.disk.available) {
    overall.rows.push_back({"disk traffic", DiskLine(r)});
    overall.rows.push_back(
        {"failed reads", std::to_string(t.failedReads) +
                             " requests found their frame's file damaged or gone and "
                             "were served as misses"});
    overall.rows.push_back({"disk writes", WritesLine(r)});
    if (r.readAhead.used) overall.rows.push_back({"read-ahead", ReadAheadLine(r.readAhead)});
    overall.rows.push_back({"disk folder", FormatSize(r.diskBytesAtEnd) + " of " +
                                               FormatSize(o.diskLimit) + " limit"});
  } else {
    overall.rows.push_back({"disk cache", Unavailable(r.disk)});
  }
  overall.rows.push_back(
      {"compute cache", r.compute.available
                            ? std::to_string(r.computeCalls) + " histograms asked for: " +
                                  std::to_string(r.computes) + " computed, " +
                                  std::to_string(r.computeHits) + " served from cache, " +
                                  std::to_string(r.computeFailures) + " failed"
                            : Unavailable(r.compute)});
  overall.rows.push_back(
      {"media map", r.mediaMap.available
                        ? "on: " + FormatSize(r.mediaMapBytes) + " mirrored at the end, " +
                              std::to_string(r.mediaManagerPurges) +
                              " entries taken back by the media manager; host media " +
                              FormatSize(r.hostMediaBytes) + " (" + FormatSize(r.hostMediaLeft) +
                              " left)"
                        : Unavailable(r.mediaMap)});
  overall.rows.push_back({"wall time", Fixed(r.seconds, 2) + " s"});
  tables.misses = MissTable(r);
  return tables;
}

void PrintSummary(const SessionResult& r, std::ostream& out) {
  const SummaryTables tables = BuildSummary(r);
  for (const std::string& line : tables.heading) out << line << '\n';
  for (const SummaryTable* t : {&tables.passes, &tables.overall, &tables.misses}) {
    out << '\n';
    TextTable text(t->header);
    for (size_t column : t->leftAligned)
      if (column > 0) text.AlignLeft(column);
    for (const auto& row : t->rows) text.AddRow(row);
    text.Print(out);
    if (t == &tables.passes) PrintFarmSummary(r, out);
  }
}

nlohmann::ordered_json SummaryJson(const SessionResult& r) {
  const SimulateOptions& o = r.options;
  nlohmann::ordered_json j;
  j["options"] = {
      {"frames", o.frames},
      {"width", o.width},
      {"height", o.height},
      {"threads", o.threads},
      {"memory_budget", o.memoryBudget},
      {"disk_limit", o.diskLimit},
      {"no_disk", o.noDisk},
      {"disk_proclivity", o.diskProclivity > 0 ? nlohmann::ordered_json(o.diskProclivity)
                                               : nlohmann::ordered_json(nullptr)},
      {"passes", o.passes},
      {"seed", o.seed},
      {"read_ahead", o.readAhead},
      {"fps", o.fps}};
  j["frame_bytes"] = r.frameBytes;
  j["passes"] = nlohmann::json::array();
  for (const PassResult& p : r.passes) {
    j["passes"].push_back({{"kind", p.kind},
                           {"requests", p.Requests()},
                           {"memory_hits", p.memoryHits},
                           {"disk_hits", p.diskHits},
                           {"renders", p.renders},
                           {"waited_for_other_render", p.waitedForOtherRender},
                           {"frames_checked", p.framesChecked},
                           {"bad_frames", p.badFrames},
                           {"failed_reads_asked_again", p.failedReads},
                           {"late_frames", p.lateFrames},
                           {"hit_rate", HitRate(p.memoryHits, p.diskHits, p.Requests())},
                           {"seconds", p.seconds},
                           {"frames_per_second", PerSecond(p.Requests(), p.seconds)}});
  }
  const Totals t = Sum(r);
  j["overall"] = {{"requests", t.requests},
                  {"memory_hits", t.memoryHits},
                  {"disk_hits", t.diskHits},
                  {"renders", t.renders},
                  {"hit_rate", HitRate(t.memoryHits, t.diskHits, t.requests)},
                  {"frames_per_second", PerSecond(t.requests, t.seconds)},
                  {"render_micros_total", r.renderMicrosTotal},
                  {"render_ms_mean", MeanRenderMs(r, t)},
                  {"first_renders", r.firstRenders},
                  {"renders_after_purge", r.rendersAfterPurge},
                  {"renders_while_in_memory", r.rendersWhileInMemory},
                  {"waited_for_other_render", t.waited},
                  {"frames_checked", t.framesChecked},
                  {"frames_checked_good", t.framesChecked - t.badFrames},
                  {"bad_frames", t.badFrames},
                  {"failed_reads_asked_again", t.failedReads},
                  {"peak_memory", r.peakMemory},
                  {"memory_budget", o.memoryBudget},
                  {"purges", r.purges},
                  {"bytes_purged", r.bytesPurged},
                  {"seconds", r.seconds}};
  nlohmann::ordered_json disk = {{"available", r.disk.available}};
  if (r.disk.available) {
    disk["folder"] = r.diskFolder;
    disk["limit"] = o.diskLimit;
    disk["files_at_start"] = r.diskFilesAtStart;
    disk["bytes_at_start"] = r.diskBytesAtStart;
    disk["files_written"] = r.filesWritten;
    disk["bytes_written"] = r.bytesWritten;
    disk["files_read"] = r.filesRead;
    disk["bytes_read"] = r.bytesRead;
    disk["failed_writes"] = r.failedWrites;
    disk["failed_reads"] = r.failedReads;
    disk["write_requests"] = r.writeRequests;
    disk["writes_skipped"] = r.writesSkipped;
    nlohmann::ordered_json refused = nlohmann::ordered_json::object();
    for (const Refusal& f : Refusals(r)) refused[f.key] = f.count;
    disk["writes_refused"] = refused;
    disk["folder_bytes"] = r.diskBytesAtEnd;
  } else {
    disk["reason"] = r.disk.why;
  }
  j["disk"] = disk;
  nlohmann::ordered_json compute = {{"available", r.compute.available}};
  if (r.compute.available) {
    compute["calls"] = r.computeCalls;
    compute["computes"] = r.computes;
    compute["hits"] = r.computeHits;
    compute["failures"] = r.computeFailures;
  } else {
    compute["reason"] = r.compute.why;
  }
  j["compute_cache"] = compute;
  nlohmann::ordered_json media = {{"available", r.mediaMap.available}};
  if (r.mediaMap.available) {
    media["mirrored_bytes"] = r.mediaMapBytes;
    media["entries_taken_back"] = r.mediaManagerPurges;
    media["host_media_bytes"] = r.hostMediaBytes;
    media["host_media_left"] = r.hostMediaLeft;
  } else {
    media["reason"] = r.mediaMap.why;
  }
  j["media_map"] = media;
  // The library's own look-ups: the reasons add up to the misses.
  j["misses"] = r.missReasons.total;
  auto reasons = [](const JX_MissReasons& m) {
    nlohmann::ordered_json o = nlohmann::ordered_json::object();
    for (int i = 0; i < kJX_MissReasonCount; ++i) o[JX_MissReasonName(i)] = m.byReason[i];
    return o;
  };
  j["miss_reasons"] = reasons(r.missReasons);
  nlohmann::ordered_json byClass = nlohmann::ordered_json::object();
  for (const JX_MissReasons& c : r.missReasonsByClass) byClass[c.payloadClass] = reasons(c);
  j["miss_reasons_by_class"] = byClass;
  AddRecording(r, j);
  j["farm"] = FarmJson(r);
  j["readahead"] = ReadAheadJson(r);
  return j;
}

}  // namespace jx::tool
