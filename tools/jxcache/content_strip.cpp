#include "tools/jxcache/content_strip.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "tools/jxcache/svg_chart.h"

namespace jx::tool {
namespace {

// By FrameState.
constexpr const char* kStateColour[] = {"#e4e4e4", "#3c9d5d", "#3b7dd8", "#2a9d9a", "#d9822b"};
constexpr const char* kStateName[] = {"not cached", "in memory", "on disk only",
                                      "in memory and on disk", "being rendered"};
constexpr size_t kStates = 5;
// More frames than this share cells, each coloured by its frames' most common state.
constexpr size_t kMaxCells = 1200;

std::string Format(const char* fmt, double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, fmt, v);
  return buf;
}

std::string MomentLabel(const ContentMoment& m, size_t requests) {
  std::string label = "pass " + std::to_string(m.pass + 1);
  if (m.passEnded) return label + " end";
  const double share =
      requests ? 100.0 * static_cast<double>(m.requestsDone) / static_cast<double>(requests) : 0.0;
  return label + " " + Format("%.0f%%", share);
}

void Row(std::ostringstream& o, const ContentMoment& m, size_t perCell, double left, double y,
         double cellW, double rowH) {
  for (size_t i = 0, cell = 0; i < m.frames.size(); i += perCell, ++cell) {
    const size_t end = std::min(m.frames.size(), i + perCell);
    size_t count[kStates] = {};
    for (size_t k = i; k < end; ++k) ++count[static_cast<size_t>(m.frames[k])];
    const size_t most = static_cast<size_t>(std::max_element(count, count + kStates) - count);
    o << "<rect class=\"content-cell\" x=\"" << Format("%.2f", left + cell * cellW) << "\" y=\""
      << y << "\" width=\"" << Format("%.2f", std::max(0.5, cellW - (cellW > 3 ? 0.5 : 0)))
      << "\" height=\"" << rowH << "\" fill=\"" << kStateColour[most] << "\"><title>";
    if (perCell == 1) {
      o << "frame " << i << ": " << kStateName[most];
    } else {
      o << "frames " << i << " to " << end - 1 << ": mostly " << kStateName[most];
    }
    o << "</title></rect>\n";
  }
}

}  // namespace

std::string RenderContentStrips(const SessionResult& r) {
  if (r.contentMoments.empty()) return {};
  constexpr double kW = 900, kLeft = 110, kRight = 30, kTop = 8, kRowH = 14, kGap = 6;
  size_t frames = 1;
  for (const ContentMoment& m : r.contentMoments) frames = std::max(frames, m.frames.size());
  const size_t perCell = (frames + kMaxCells - 1) / kMaxCells;
  const double cellW =
      (kW - kLeft - kRight) / static_cast<double>((frames + perCell - 1) / perCell);
  const double legendY = kTop + r.contentMoments.size() * (kRowH + kGap) + 14;
  std::ostringstream o;
  o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"100%\" viewBox=\"0 0 " << kW << " "
    << Format("%.1f", legendY + 10) << "\" role=\"img\" "
    << "aria-label=\"What the cache held of each frame, moment by moment\">\n";
  for (size_t i = 0; i < r.contentMoments.size(); ++i) {
    const ContentMoment& m = r.contentMoments[i];
    const size_t requests = m.pass < r.passes.size() ? r.passes[m.pass].Requests() : 0;
    const double y = kTop + i * (kRowH + kGap);
    o << "<text x=\"" << kLeft - 6 << "\" y=\"" << Format("%.1f", y + 11) << "\" class=\"axis\" "
      << "text-anchor=\"end\">" << XmlEscape(MomentLabel(m, requests)) << "<title>"
      << Format("%.2f s", m.seconds) << ", " << m.items << " items, map taken in "
      << Format("%.2f ms", static_cast<double>(m.snapshotNanos) / 1e6) << ", longest lock hold "
      << Format("%.3f ms", static_cast<double>(m.maxLockHoldNanos) / 1e6) << "</title></text>\n";
    Row(o, m, perCell, kLeft, y, cellW, kRowH);
  }
  double lx = kLeft;
  for (size_t k = 0; k < kStates; ++k) {
    o << "<rect x=\"" << lx << "\" y=\"" << Format("%.1f", legendY - 10)
      << "\" width=\"12\" height=\"12\" fill=\"" << kStateColour[k] << "\"/>\n<text x=\"" << lx + 16
      << "\" y=\"" << Format("%.1f", legendY) << "\" class=\"legend\">" << kStateName[k]
      << "</text>\n";
    lx += 16 + LabelWidth(kStateName[k]) + 24;
  }
  o << "</svg>\n";
  return o.str();
}

}  // namespace jx::tool
