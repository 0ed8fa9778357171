#include "tools/jxcache/html_report.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "tools/jxcache/content_strip.h"
#include "tools/jxcache/run_info.h"
#include "tools/jxcache/size_arg.h"
#include "tools/jxcache/summary.h"
#include "tools/jxcache/svg_chart.h"
#include "tools/jxcache/table.h"
#include "tools/jxcache/tool_error.h"

namespace jx::tool {
namespace {

constexpr const char* kOutcomeColour[] = {"#3c9d5d", "#3b7dd8", "#d9822b", "#8e5bc4"};
constexpr const char* kOutcomeName[] = {"memory hit", "disk hit", "rendered", "farm hit"};
// A strip shows at most this many cells; longer passes give each cell a run of requests.
constexpr size_t kMaxCells = 1200;

std::string Seconds(double s) { return Fixed(s, s < 10 ? 2 : 1) + " s"; }

std::vector<double> PassStarts(const SessionResult& r) {
  std::vector<double> starts;
  uint32_t current = UINT32_MAX;
  for (const Sample& s : r.samples) {
    if (s.pass != current) starts.push_back(s.seconds);
    current = s.pass;
  }
  if (!starts.empty()) starts.front() = 0.0;
  return starts;
}

// The memory and disk samples come every 20 ms, which on a long run is more points than a chart
// can show: past kMaxPoints, each run of samples gives its lowest and highest value, in the order
// they came, so that a peak over the budget still shows.
constexpr size_t kMaxPoints = 2000;

void FillThinned(const std::vector<Sample>& samples, uint64_t Sample::*field, double divisor,
                 LineSeries* line) {
  const size_t per =
      samples.size() <= kMaxPoints ? 1 : (2 * samples.size() + kMaxPoints - 1) / kMaxPoints;
  for (size_t i = 0; i < samples.size(); i += per) {
    const size_t end = std::min(samples.size(), i + per);
    size_t lo = i, hi = i;
    for (size_t k = i; k < end; ++k) {
      if (samples[k].*field < samples[lo].*field) lo = k;
      if (samples[k].*field > samples[hi].*field) hi = k;
    }
    const size_t first = std::min(lo, hi), second = std::max(lo, hi);
    line->x.push_back(samples[first].seconds);
    line->y.push_back(samples[first].*field / divisor);
    if (second != first) {
      line->x.push_back(samples[second].seconds);
      line->y.push_back(samples[second].*field / divisor);
    }
  }
}

double EndTime(const SessionResult& r) {
  double end = r.seconds;
  if (!r.samples.empty()) end = std::max(end, r.samples.back().seconds);
  if (!r.series.empty()) end = std::max(end, r.series.back().seconds);
  return std::max(end, 1e-3);
}

// A chart over the run's time, with the pass boundaries marked.
ChartData TimeChart(const SessionResult& r, std::string title, std::string yTitle) {
  ChartData c;
  c.title = std::move(title);
  c.xTitle = "time since the session started (s)";
  c.yTitle = std::move(yTitle);
  c.xMax = EndTime(r);
  c.passStarts = PassStarts(r);
  return c;
}

std::string MemoryChart(const SessionResult& r) {
  double top = static_cast<double>(r.options.memoryBudget);
  for (const Sample& s : r.samples) top = std::max(top, static_cast<double>(s.memory));
  const ByteUnit unit = ByteUnitFor(top);
  ChartData c =
      TimeChart(r, "Memory in use against the budget", std::string("memory (") + unit.name + ")");
  LineSeries line{"cache and host media in memory", "line", {}, {}, false};
  FillThinned(r.samples, &Sample::memory, unit.divisor, &line);
  c.lines.push_back(std::move(line));
  c.levels.push_back(
      {r.options.memoryBudget / unit.divisor, "budget " + FormatSize(r.options.memoryBudget)});
  c.yMax = top / unit.divisor;
  // Purges closer together than a marker is wide share one marker: hundreds of them would
  // otherwise paint a solid band.
  const double close = c.xMax / 150;
  std::vector<PurgeEvent> marks;
  uint64_t purges = 0;
  for (const PurgeEvent& e : r.purgeEvents) {
    purges += e.purges;
    if (!marks.empty() && e.seconds - marks.back().seconds < close) {
      marks.back().bytesFreed += e.bytesFreed;
      marks.back().purges += e.purges;
    } else {
      marks.push_back(e);
    }
  }
  for (const PurgeEvent& e : marks) {
    const std::string what = e.purges == 1
                                 ? "purge at " + Seconds(e.seconds)
                                 : std::to_string(e.purges) + " purges from " + Seconds(e.seconds);
    c.markers.push_back({e.seconds, what + ": " + FormatSize(e.bytesFreed) + " freed"});
  }
  c.markerName = "purge (" + std::to_string(purges) + ", " + FormatSize(r.bytesPurged) +
                 " freed; hover for each)";
  return RenderChart(c);
}

std::string HitRateChart(const SessionResult& r, const std::vector<SeriesPoint>& points) {
  ChartData c = TimeChart(r, "Hit rate over time", "hit rate (%)");
  LineSeries line{"hits per request, over each " + Fixed(r.seriesInterval, 1) + " s or less",
                  "line",
                  {},
                  {},
                  false};
  // A stretch that served no request has no rate: the line runs on to the next that did.
  for (const SeriesPoint& p : points) {
    if (!p.hitRate) continue;
    line.x.push_back(p.sample.seconds);
    line.y.push_back(*p.hitRate * 100);
  }
  c.lines.push_back(std::move(line));
  c.yMax = 100;
  return RenderChart(c);
}

std::string SpeedChart(const SessionResult& r, const std::vector<SeriesPoint>& points) {
  ChartData c = TimeChart(r, "Frames served per second over time", "frames/s");
  LineSeries line{
      "frames served per second, over each " + Fixed(r.seriesInterval, 1) + " s or less",
      "line2",
      {},
      {},
      false};
  for (size_t i = 1; i < points.size(); ++i) {
    line.x.push_back(points[i].sample.seconds);
    line.y.push_back(points[i].framesPerSecond);
    c.yMax = std::max(c.yMax, points[i].framesPerSecond);
  }
  c.lines.push_back(std::move(line));
  return RenderChart(c);
}

// The render times as a histogram over round bin widths. A few slow outliers would squeeze every
// other render into one bar, so renders slower than three times the 90th percentile share the
// last bar, and the caption says so.
std::string RenderTimeHistogram(const SessionResult& r) {
  std::vector<double> ms = r.renderMs;
  if (ms.empty()) return "<p>No frame was rendered: the cache served every request.</p>\n";
  std::sort(ms.begin(), ms.end());
  const double p99 = Quantile(ms, 0.99);
  const double hi = std::min(ms.back(), 3 * Quantile(ms, 0.9));
  const Ticks bins = NiceTicks(ms.front(), std::max(hi, ms.front() + 1e-3), 25);
  const size_t n = bins.values.size() - 1;
  std::vector<double> counts(n, 0.0);
  size_t over = 0;
  for (double v : ms) {
    size_t b = static_cast<size_t>((v - bins.first()) / bins.step);
    if (v > bins.last()) ++over;
    counts[std::min(b, n - 1)] += 1;
  }
  ChartData c;
  c.title = "Distribution of render times";
  c.xTitle = "render time (ms)";
  c.yTitle = r.renderMs.size() < r.renderTimesSeen ? "renders (in the sample)" : "renders";
  c.xMin = bins.first();
  c.xMax = bins.last();
  for (size_t i = 0; i < n; ++i) {
    const double x0 = bins.values[i], x1 = bins.values[i + 1];
    c.yMax = std::max(c.yMax, counts[i]);
    std::string tip = TickLabel(x0, bins.step) + " to " + TickLabel(x1, bins.step) +
                      " ms: " + Fixed(counts[i], 0) + " renders";
    if (i + 1 == n && over) tip += ", " + std::to_string(over) + " of them slower";
    c.bars.push_back({x0, x1, counts[i], tip});
  }
  std::ostringstream o;
  o << "<p class=\"note\">" << r.renderTimesSeen << " renders timed";
  if (ms.size() < r.renderTimesSeen) o << " (a uniform sample of " << ms.size() << " shown)";
  o << "; median " << Fixed(Quantile(ms, 0.5), 2) << " ms, 90th percentile "
    << Fixed(Quantile(ms, 0.9), 2) << " ms, 99th " << Fixed(p99, 2) << " ms, slowest "
    << Fixed(ms.back(), 2) << " ms.";
  if (over)
    o << " The " << over << " slower than " << TickLabel(bins.last(), bins.step)
      << " ms are counted in the last bar.";
  o << "</p>\n" << RenderChart(c);
  return o.str();
}

std::string DiskCharts(const SessionResult& r) {
  if (!r.disk.available) return "<p>Disk cache unavailable: " + XmlEscape(r.disk.why) + ".</p>\n";
  double top = static_cast<double>(r.options.diskLimit);
  for (const Sample& s : r.samples) top = std::max(top, static_cast<double>(s.disk));
  const ByteUnit unit = ByteUnitFor(top);
  ChartData size = TimeChart(r, "Disk cache size against its limit",
                             std::string("disk cache (") + unit.name + ")");
  LineSeries line{"bytes in the disk cache folder", "line", {}, {}, false};
  FillThinned(r.samples, &Sample::disk, unit.divisor, &line);
  size.lines.push_back(std::move(line));
  size.levels.push_back(
      {r.options.diskLimit / unit.divisor, "limit " + FormatSize(r.options.diskLimit)});
  size.yMax = top / unit.divisor;

  ChartData queue = TimeChart(r, "Disk write queue over time", "frames queued");
  LineSeries q{"frames waiting to be written", "line2", {}, {}, true};
  for (const SeriesSample& s : r.series) {
    q.x.push_back(s.seconds);
    q.y.push_back(static_cast<double>(s.writeQueue));
    // Whole frames: keep the axis from counting in fifths of one.
    queue.yMax = std::max(queue.yMax, static_cast<double>(s.writeQueue));
  }
  queue.yMax = std::max(queue.yMax, 5.0);
  queue.lines.push_back(std::move(q));
  return "<h3>Size</h3>\n" + RenderChart(size) + "<h3>Write queue</h3>\n" + RenderChart(queue);
}

// One row of cells per pass, in request order.
std::string PassStrips(const SessionResult& r) {
  constexpr double kW = 900, kLeft = 84, kRight = 30, kTop = 8, kRowH = 22, kGap = 12;
  size_t longest = 1;
  for (const PassResult& p : r.passes) longest = std::max(longest, p.outcomes.size());
  const size_t perCell = (longest + kMaxCells - 1) / kMaxCells;
  const double cellW = (kW - kLeft - kRight) / ((longest + perCell - 1) / perCell);
  const double legendY = kTop + r.passes.size() * (kRowH + kGap) + 14;
  const double height = legendY + 10;
  std::ostringstream o;
  o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"100%\" viewBox=\"0 0 " << kW << " "
    << Fixed(height, 1) << "\" role=\"img\" aria-label=\"Requests of each pass, in order\">\n";
  for (size_t p = 0; p < r.passes.size(); ++p) {
    const PassResult& pass = r.passes[p];
    const double y = kTop + p * (kRowH + kGap);
    o << "<text x=\"" << kLeft - 6 << "\" y=\"" << Fixed(y + 15, 1) << "\" class=\"axis\" "
      << "text-anchor=\"end\">" << p + 1 << " " << XmlEscape(pass.kind) << "</text>\n";
    for (size_t i = 0, cell = 0; i < pass.outcomes.size(); i += perCell, ++cell) {
      const size_t end = std::min(pass.outcomes.size(), i + perCell);
      size_t count[4] = {};
      for (size_t k = i; k < end; ++k) ++count[static_cast<int>(pass.outcomes[k])];
      const int most = static_cast<int>(std::max_element(count, count + 4) - count);
      o << "<rect x=\"" << Fixed(kLeft + cell * cellW, 2) << "\" y=\"" << y << "\" width=\""
        << Fixed(std::max(0.5, cellW - (cellW > 3 ? 0.5 : 0)), 2) << "\" height=\"" << kRowH
        << "\" fill=\"" << kOutcomeColour[most] << "\"><title>";
      if (perCell == 1) {
        o << "frame " << pass.frames[i] << ": " << kOutcomeName[most];
      } else {
        o << "requests " << i + 1 << " to " << end << ": " << count[0] << " memory hits, "
          << count[1] << " disk hits, " << count[2] << " rendered";
        if (count[3] > 0) o << ", " << count[3] << " farm hits";
      }
      o << "</title></rect>\n";
    }
  }
  double lx = kLeft;
  // The farm's colour only where a farm was used.
  for (int k = 0; k < (r.farm.used ? 4 : 3); ++k) {
    o << "<rect x=\"" << lx << "\" y=\"" << Fixed(legendY - 10, 1)
      << "\" width=\"12\" height=\"12\" fill=\"" << kOutcomeColour[k] << "\"/>\n<text x=\""
      << lx + 16 << "\" y=\"" << Fixed(legendY, 1) << "\" class=\"legend\">" << kOutcomeName[k]
      << "</text>\n";
    lx += 16 + LabelWidth(kOutcomeName[k]) + 24;
  }
  if (perCell > 1) {
    o << "<text x=\"" << Fixed(kW - kRight, 1) << "\" y=\"" << Fixed(legendY, 1)
      << "\" class=\"legend\" text-anchor=\"end\">each cell: " << perCell
      << " requests, coloured by the most common outcome</text>\n";
  }
  o << "</svg>\n";
  return o.str();
}

void Table(std::ostringstream& o, const SummaryTable& t, const char* cls) {
  auto left = [&](size_t c) {
    return std::find(t.leftAligned.begin(), t.leftAligned.end(), c) != t.leftAligned.end();
  };
  o << "<table class=\"" << cls << "\">\n<thead><tr>";
  for (size_t c = 0; c < t.header.size(); ++c)
    o << "<th" << (left(c) ? "" : " class=\"num\"") << ">" << XmlEscape(t.header[c]) << "</th>";
  o << "</tr></thead>\n<tbody>\n";
  for (const auto& row : t.rows) {
    o << "<tr>";
    for (size_t c = 0; c < row.size(); ++c) {
      const char* tag = c == 0 ? "th" : "td";
      o << "<" << tag << (left(c) ? "" : " class=\"num\"") << ">" << XmlEscape(row[c]) << "</"
        << tag << ">";
    }
    o << "</tr>\n";
  }
  o << "</tbody>\n</table>\n";
}

void KeyValues(std::ostringstream& o, const std::vector<std::pair<std::string, std::string>>& kv,
               const char* id) {
  o << "<table class=\"kv\" id=\"" << id << "\">\n";
  for (const auto& [k, v] : kv)
    o << "<tr><th>" << XmlEscape(k) << "</th><td>" << XmlEscape(v) << "</td></tr>\n";
  o << "</table>\n";
}

void Card(std::ostringstream& o, const std::string& label, const std::string& value,
          const std::string& detail) {
  o << "<div class=\"card\"><div class=\"label\">" << XmlEscape(label)
    << "</div><div class=\"value\">" << XmlEscape(value) << "</div><div class=\"detail\">"
    << XmlEscape(detail) << "</div></div>\n";
}

void KeyFigures(std::ostringstream& o, const SessionResult& r) {
  uint64_t requests = 0, hits = 0, renders = 0, bad = 0;
  double passSeconds = 0;
  for (const PassResult& p : r.passes) {
    requests += p.Requests();
    hits += p.memoryHits + p.diskHits;
    renders += p.renders;
    bad += p.badFrames;
    passSeconds += p.seconds;
  }
  std::vector<double> ms = r.renderMs;
  std::sort(ms.begin(), ms.end());
  o << "<div class=\"cards\">\n";
  Card(o, "hit rate", Percent(requests ? static_cast<double>(hits) / requests : 0.0),
       std::to_string(hits) + " of " + std::to_string(requests) + " requests");
  Card(o, "frames/s", Fixed(passSeconds > 0 ? requests / passSeconds : 0.0, 1),
       "over " + Seconds(passSeconds) + " of playback");
  Card(o, "peak memory", FormatSize(r.peakMemory),
       Percent(r.options.memoryBudget ? static_cast<double>(r.peakMemory) / r.options.memoryBudget
                                      : 0.0) +
           " of the " + FormatSize(r.options.memoryBudget) + " budget");
  Card(o, "purges", std::to_string(r.purges), FormatSize(r.bytesPurged) + " freed");
  Card(o, "renders", std::to_string(renders),
       ms.empty() ? "none" : "median " + Fixed(Quantile(ms, 0.5), 2) + " ms");
  if (r.disk.available) {
    Card(o, "disk", std::to_string(r.filesRead) + " read",
         std::to_string(r.filesWritten) + " written, " + FormatSize(r.diskBytesAtEnd) + " held");
  }
  Card(o, "bad frames", std::to_string(bad), bad ? "served wrong, rendered again" : "all good");
  Card(o, "wall time", Seconds(r.seconds), "including start-up and the disk writer's drain");
  o << "</div>\n";
}

std::vector<std::pair<std::string, std::string>> RunRows(const SessionResult& r) {
  const RunInfo& run = r.run;
  return {
      {"tool", "jxcache simulate " + (run.version.empty() ? "?" : run.version)},
      {"library version", run.version.empty() ? "unknown" : run.version},
      {"started", run.startedAt.empty() ? "unknown" : run.startedAt},
      {"host", run.host.empty() ? "unknown" : run.host},
      {"command line", run.commandLine.empty() ? "unknown" : ShellCommandLine(run.commandLine)}};
}

std::vector<std::pair<std::string, std::string>> SettingRows(const SessionResult& r) {
  const SimulateOptions& o = r.options;
  std::vector<std::pair<std::string, std::string>> rows = {
      {"timeline", std::to_string(o.frames) + " frames of " + std::to_string(o.width) + "x" +
                       std::to_string(o.height) + " RGBA8, " + FormatSize(r.frameBytes) + " each"},
      {"render threads", std::to_string(o.threads)},
      {"memory budget", FormatSize(o.memoryBudget)},
      {"passes", std::to_string(o.passes) + " (forward, forward, then scrubs), seed " +
                     std::to_string(o.seed)}};
  if (r.disk.available) {
    rows.push_back({"disk cache", r.diskFolder});
    rows.push_back({"disk limit", FormatSize(o.diskLimit)});
    rows.push_back({"files at start", std::to_string(r.diskFilesAtStart) + " (" +
                                          FormatSize(r.diskBytesAtStart) + ") adopted"});
    rows.push_back(
        {"disk proclivity", o.diskProclivity > 0 ? Fixed(o.diskProclivity, 3) : "unset (1)"});
    rows.push_back({"disk margin", o.diskMarginGiB >= 0 ? std::to_string(o.diskMarginGiB) + " GiB"
                                                        : "unset (10 GiB)"});
  } else {
    rows.push_back({"disk cache", "unavailable: " + r.disk.why});
  }
  return rows;
}

const char* kStyle =
    "body{font-family:system-ui,-apple-system,'Segoe UI',sans-serif;margin:0 auto;padding:16px "
    "24px 48px;max-width:1100px;color:#222;line-height:1.4}"
    "h1{font-size:24px;margin:8px 0 2px}h2{font-size:18px;margin:28px 0 6px;border-bottom:1px "
    "solid #ddd;padding-bottom:3px}h3{font-size:14px;margin:14px 0 4px;color:#444}"
    ".sub{color:#666;margin:0 0 12px}.note{color:#555;font-size:13px;margin:4px 0}"
    ".cards{display:flex;flex-wrap:wrap;gap:10px;margin:12px 0}"
    ".card{border:1px solid #d8dde3;border-radius:6px;padding:8px 12px;min-width:130px;"
    "background:#f8fafc}.card .label{font-size:12px;color:#666;text-transform:uppercase;"
    "letter-spacing:.04em}.card .value{font-size:22px;font-weight:600}.card .detail{font-size:"
    "12px;color:#555}"
    "table{border-collapse:collapse;margin:8px 0;font-size:14px}"
    "td,th{border:1px solid #d8dde3;padding:3px 8px;text-align:left;vertical-align:top}"
    "thead th{background:#eef2f6}tbody th{font-weight:normal;background:#f8fafc}"
    ".num{text-align:right;font-variant-numeric:tabular-nums}"
    "table.kv td{word-break:break-all}table.kv th{white-space:nowrap}"
    "code{font-family:ui-monospace,monospace}"
    "svg{display:block;width:100%;height:auto;margin:4px 0 8px}"
    "svg text{font-family:system-ui,-apple-system,'Segoe UI',sans-serif}"
    ".axis{font-size:11px;fill:#555}.legend{font-size:11px;fill:#333}"
    ".atitle{font-size:12px;fill:#333}"
    ".grid{stroke:#ebebeb}.frame,.tick{stroke:#888}.pass{stroke:#999;stroke-dasharray:2 3}"
    ".level{stroke:#c0392b;stroke-dasharray:6 4;fill:none}"
    ".line{fill:none;stroke:#2c6fbb;stroke-width:1.6}"
    ".line2{fill:none;stroke:#8e44ad;stroke-width:1.6}"
    ".bar{fill:#5b8fd0}.marker{fill:#c0392b;opacity:.8}";

}  // namespace

std::string RenderHtmlReport(const SessionResult& r) {
  std::ostringstream o;
  o << "<!DOCTYPE html>\n<html xmlns=\"http://www.w3.org/1999/xhtml\" lang=\"en\">\n<head>\n"
    << "<meta charset=\"utf-8\"/>\n"
    << "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n"
    << "<title>jxcache simulate report" << (r.run.startedAt.empty() ? "" : ", ")
    << XmlEscape(r.run.startedAt) << "</title>\n<style>" << kStyle
    << "</style>\n</head>\n<body>\n<h1>jxcache simulate</h1>\n";
  o << "<p class=\"sub\">" << r.options.frames << " frames of " << r.options.width << "x"
    << r.options.height << ", " << r.options.passes << " passes, " << r.options.threads
    << " threads, budget " << XmlEscape(FormatSize(r.options.memoryBudget));
  if (!r.run.startedAt.empty()) o << "; started " << XmlEscape(r.run.startedAt);
  if (!r.run.host.empty()) o << " on " << XmlEscape(r.run.host);
  o << "</p>\n";
  KeyFigures(o, r);
  const SummaryTables tables = BuildSummary(r);
  o << "<h2>Passes</h2>\n";
  Table(o, tables.passes, "passes");

  const std::vector<SeriesPoint> points = WithRates(r.series);
  o << "<h2>Memory</h2>\n" << MemoryChart(r);
  o << "<h2>Hit rate</h2>\n" << HitRateChart(r, points);
  o << "<h2>Frames per second</h2>\n" << SpeedChart(r, points);
  o << "<h2>Render times</h2>\n" << RenderTimeHistogram(r);
  o << "<h2>Disk cache</h2>\n" << DiskCharts(r);
  o << "<h2>Requests of each pass, in order</h2>\n" << PassStrips(r);
  if (!r.contentMoments.empty()) {
    o << "<h2>Cache content, frame by frame</h2>\n" << RenderContentStrips(r);
  }
  o << "<h2>All figures</h2>\n";
  Table(o, tables.overall, "overall");
  o << "<h2>Why look-ups missed</h2>\n";
  Table(o, tables.misses, "misses");
  o << "<h2>Settings</h2>\n";
  KeyValues(o, SettingRows(r), "settings");
  o << "<h2>Run</h2>\n";
  KeyValues(o, RunRows(r), "run");
  o << "</body>\n</html>\n";
  return o.str();
}

ReportFile::ReportFile(std::string path) : path_(std::move(path)) {
  std::error_code ec;
  if (std::filesystem::is_directory(path_, ec))
    throw ToolError("--report: '" + path_ + "' is a folder; give the report's file name");
  temp_ = path_ + ".tmp-" + std::to_string(::getpid());
  FILE* f = std::fopen(temp_.c_str(), "wb");
  if (!f) throw ToolError("--report: cannot write '" + path_ + "': " + std::strerror(errno));
  std::fclose(f);
  // Not kept for the session: a run killed meanwhile (Ctrl-C) would leave it beside the report.
  std::remove(temp_.c_str());
}

ReportFile::~ReportFile() {
  if (!committed_) std::remove(temp_.c_str());
}

void ReportFile::Commit(const std::string& text) {
  FILE* f = std::fopen(temp_.c_str(), "wb");
  bool ok = f && std::fwrite(text.data(), 1, text.size(), f) == text.size();
  if (f) ok = (std::fclose(f) == 0) && ok;
  if (!ok || std::rename(temp_.c_str(), path_.c_str()) != 0) {
    throw ToolError("--report: cannot write '" + path_ + "': " + std::strerror(errno));
  }
  committed_ = true;
}

}  // namespace jx::tool
