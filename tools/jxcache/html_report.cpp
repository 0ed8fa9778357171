#include "tools/jxcache/html_report.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "tools/jxcache/size_arg.h"
#include "tools/jxcache/summary.h"
#include "tools/jxcache/tool_error.h"

namespace jx::tool {
namespace {

constexpr double kChartW = 760, kChartH = 220, kLeft = 70, kRight = 20, kTop = 30, kBottom = 36;
constexpr const char* kOutcomeColour[] = {"#3c9d5d", "#3b7dd8", "#d9822b", "#8e5bc4"};
constexpr const char* kOutcomeName[] = {"memory hit", "disk hit", "rendered", "farm hit"};

std::string Escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string Num(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f", v);
  return buf;
}

struct Series {
  std::vector<double> x, y;
};

// A line chart of bytes over seconds, with an optional horizontal limit line and the pass
// boundaries marked.
std::string LineChart(const std::string& title, const Series& s, double limit,
                      const std::string& limitLabel, const std::vector<double>& passStarts) {
  const double xmax = std::max(1e-3, s.x.empty() ? 1.0 : s.x.back());
  double ymax = limit;
  for (double y : s.y) ymax = std::max(ymax, y);
  ymax = std::max(1.0, ymax * 1.1);
  const double pw = kChartW - kLeft - kRight, ph = kChartH - kTop - kBottom;
  auto X = [&](double x) { return kLeft + pw * x / xmax; };
  auto Y = [&](double y) { return kTop + ph * (1.0 - y / ymax); };
  std::ostringstream o;
  o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kChartW << "\" height=\"" << kChartH
    << "\" viewBox=\"0 0 " << kChartW << " " << kChartH << "\" role=\"img\">\n";
  o << "<text x=\"" << kLeft << "\" y=\"18\" class=\"title\">" << Escape(title) << "</text>\n";
  for (int i = 0; i <= 4; ++i) {
    const double v = ymax * i / 4;
    o << "<line x1=\"" << kLeft << "\" x2=\"" << Num(kLeft + pw) << "\" y1=\"" << Num(Y(v))
      << "\" y2=\"" << Num(Y(v)) << "\" class=\"grid\"/>\n";
    o << "<text x=\"" << kLeft - 6 << "\" y=\"" << Num(Y(v) + 4) << "\" class=\"axis\" "
      << "text-anchor=\"end\">" << Escape(FormatSize(static_cast<uint64_t>(v))) << "</text>\n";
  }
  for (int i = 0; i <= 5; ++i) {
    const double t = xmax * i / 5;
    o << "<text x=\"" << Num(X(t)) << "\" y=\"" << Num(kChartH - 14) << "\" class=\"axis\" "
      << "text-anchor=\"middle\">" << Num(t) << " s</text>\n";
  }
  for (size_t p = 0; p < passStarts.size(); ++p) {
    o << "<line x1=\"" << Num(X(passStarts[p])) << "\" x2=\"" << Num(X(passStarts[p])) << "\" y1=\""
      << kTop << "\" y2=\"" << Num(kTop + ph) << "\" class=\"pass\"/>\n";
    o << "<text x=\"" << Num(X(passStarts[p]) + 3) << "\" y=\"" << kTop + 10 << "\" class=\"axis\">"
      << "pass " << p + 1 << "</text>\n";
  }
  if (limit > 0) {
    o << "<line x1=\"" << kLeft << "\" x2=\"" << Num(kLeft + pw) << "\" y1=\"" << Num(Y(limit))
      << "\" y2=\"" << Num(Y(limit)) << "\" class=\"limit\"/>\n";
    o << "<text x=\"" << Num(kLeft + pw - 4) << "\" y=\"" << Num(Y(limit) - 4)
      << "\" class=\"axis\" "
      << "text-anchor=\"end\">" << Escape(limitLabel) << "</text>\n";
  }
  o << "<polyline class=\"line\" points=\"";
  for (size_t i = 0; i < s.x.size(); ++i) o << Num(X(s.x[i])) << "," << Num(Y(s.y[i])) << " ";
  o << "\"/>\n</svg>\n";
  return o.str();
}

// One row of cells per pass; wide timelines get thinner cells so that a strip fits the page.
std::string PassStrips(const SessionResult& r) {
  size_t longest = 1;
  for (const PassResult& p : r.passes) longest = std::max(longest, p.outcomes.size());
  const double rowH = 22, gap = 14, cellW = std::max(0.5, (kChartW - kLeft - kRight) / longest);
  const double height = kTop + r.passes.size() * (rowH + gap) + 24;
  std::ostringstream o;
  o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kChartW << "\" height=\""
    << Num(height) << "\" viewBox=\"0 0 " << kChartW << " " << Num(height) << "\" role=\"img\">\n";
  o << "<text x=\"" << kLeft
    << "\" y=\"18\" class=\"title\">Requests of each pass, in order</text>\n";
  for (size_t p = 0; p < r.passes.size(); ++p) {
    const PassResult& pass = r.passes[p];
    const double y = kTop + p * (rowH + gap);
    o << "<text x=\"" << kLeft - 6 << "\" y=\"" << Num(y + 15) << "\" class=\"axis\" "
      << "text-anchor=\"end\">" << p + 1 << " " << Escape(pass.kind) << "</text>\n";
    for (size_t i = 0; i < pass.outcomes.size(); ++i) {
      const int k = static_cast<int>(pass.outcomes[i]);
      o << "<rect x=\"" << Num(kLeft + i * cellW) << "\" y=\"" << Num(y) << "\" width=\""
        << Num(std::max(0.5, cellW - (cellW > 3 ? 0.5 : 0))) << "\" height=\"" << rowH
        << "\" fill=\"" << kOutcomeColour[k] << "\"><title>frame " << pass.frames[i] << ": "
        << kOutcomeName[k] << "</title></rect>\n";
    }
  }
  const double ly = height - 10;
  // The farm's colour only where a farm was used.
  const int outcomeKinds = r.farm.used ? 4 : 3;
  for (int k = 0; k < outcomeKinds; ++k) {
    const double lx = kLeft + k * 130;
    o << "<rect x=\"" << lx << "\" y=\"" << Num(ly - 10) << "\" width=\"12\" height=\"12\" fill=\""
      << kOutcomeColour[k] << "\"/>\n<text x=\"" << lx + 16 << "\" y=\"" << Num(ly)
      << "\" class=\"axis\">" << kOutcomeName[k] << "</text>\n";
  }
  o << "</svg>\n";
  return o.str();
}

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

const char* kStyle =
    "body{font-family:sans-serif;margin:24px;color:#222}"
    "table{border-collapse:collapse;margin:12px 0}"
    "td,th{border:1px solid #ccc;padding:3px 8px;text-align:right}"
    "th:first-child,td:first-child{text-align:left}"
    ".title{font-size:14px;font-weight:bold}.axis{font-size:11px;fill:#555}"
    ".grid{stroke:#e4e4e4}.pass{stroke:#999;stroke-dasharray:2 3}"
    ".limit{stroke:#c0392b;stroke-dasharray:6 4}.line{fill:none;stroke:#2c6fbb;stroke-width:1.5}";

}  // namespace

std::string RenderHtmlReport(const SessionResult& r) {
  std::ostringstream o;
  o << "<!DOCTYPE html>\n<html xmlns=\"http://www.w3.org/1999/xhtml\" lang=\"en\">\n<head>\n"
    << "<meta charset=\"utf-8\"/>\n<title>jxcache simulate report</title>\n<style>" << kStyle
    << "</style>\n</head>\n<body>\n<h1>jxcache simulate</h1>\n";
  std::ostringstream summary;
  PrintSummary(r, summary);
  o << "<pre>" << Escape(summary.str()) << "</pre>\n";
  Series memory, disk;
  for (const Sample& s : r.samples) {
    memory.x.push_back(s.seconds);
    memory.y.push_back(static_cast<double>(s.memory));
    disk.x.push_back(s.seconds);
    disk.y.push_back(static_cast<double>(s.disk));
  }
  const auto starts = PassStarts(r);
  o << "<h2>Memory</h2>\n"
    << LineChart("Cache memory in use against the host budget", memory,
                 static_cast<double>(r.options.memoryBudget),
                 "budget " + FormatSize(r.options.memoryBudget), starts);
  o << "<h2>Disk cache</h2>\n";
  if (r.disk.available) {
    o << LineChart("Disk cache size", disk, static_cast<double>(r.options.diskLimit),
                   "limit " + FormatSize(r.options.diskLimit), starts);
  } else {
    o << "<p>Disk cache unavailable: " << Escape(r.disk.why) << ".</p>\n";
  }
  o << "<h2>Passes</h2>\n" << PassStrips(r) << "</body>\n</html>\n";
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
