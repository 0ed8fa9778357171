#include "tools/jxcache/svg_chart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <sstream>

namespace jx::tool {
namespace {

// The coordinate box every chart is drawn in; the page scales it to its width.
constexpr double kW = 900, kPlotH = 200, kLeft = 84, kRight = 30, kBottom = 52;
constexpr double kLegendRow = 18, kPassBand = 16;

// The length of the UTF-8 sequence that starts at text[i], or 0 when none valid does: an
// overlong form, a surrogate, a code point past U+10FFFF, or a sequence cut short.
size_t Utf8Length(std::string_view text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char b = byte(i);
  size_t n;
  uint32_t cp;
  if (b < 0x80) return 1;
  if (b >= 0xC2 && b <= 0xDF) {
    n = 2;
    cp = b & 0x1F;
  } else if (b >= 0xE0 && b <= 0xEF) {
    n = 3;
    cp = b & 0x0F;
  } else if (b >= 0xF0 && b <= 0xF4) {
    n = 4;
    cp = b & 0x07;
  } else {
    return 0;
  }
  if (i + n > text.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i + k) & 0x3F);
  }
  if ((n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) || cp > 0x10FFFF) return 0;
  if (cp >= 0xD800 && cp <= 0xDFFF) return 0;
  // Not characters in XML either.
  if (cp == 0xFFFE || cp == 0xFFFF) return 0;
  return n;
}

std::string Num(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f", v);
  return buf;
}

// Where the plot sits in the box, and the value-to-coordinate maps.
struct Frame {
  double top, height, x0, x1, y0, y1;
  double X(double x) const { return kLeft + (kW - kLeft - kRight) * (x - x0) / (x1 - x0); }
  double Y(double y) const { return top + kPlotH * (1.0 - (y - y0) / (y1 - y0)); }
  double Right() const { return kW - kRight; }
  double Bottom() const { return top + kPlotH; }
};

struct LegendItem {
  std::string label, style;
  enum Kind { kLine, kLevel, kMarker, kBar } kind;
};

// Lays the legend out in rows that fit the box; returns the rows' count.
int LegendRows(const std::vector<LegendItem>& items) {
  int rows = items.empty() ? 0 : 1;
  double x = kLeft;
  for (const LegendItem& it : items) {
    const double w = 28 + LabelWidth(it.label) + 20;
    if (x + w > kW - kRight && x > kLeft) {
      ++rows;
      x = kLeft;
    }
    x += w;
  }
  return rows;
}

void DrawLegend(std::ostringstream& o, const std::vector<LegendItem>& items) {
  double x = kLeft, y = 16;
  for (const LegendItem& it : items) {
    const double w = 28 + LabelWidth(it.label) + 20;
    if (x + w > kW - kRight && x > kLeft) {
      x = kLeft;
      y += kLegendRow;
    }
    switch (it.kind) {
      case LegendItem::kLine:
      case LegendItem::kLevel:
        o << "<line x1=\"" << Num(x) << "\" x2=\"" << Num(x + 22) << "\" y1=\"" << Num(y - 4)
          << "\" y2=\"" << Num(y - 4) << "\" class=\"" << it.style << "\"/>";
        break;
      case LegendItem::kMarker:
        o << "<path d=\"M" << Num(x + 6) << " " << Num(y - 9) << "h10l-5 8z\" class=\"" << it.style
          << "\"/>";
        break;
      case LegendItem::kBar:
        o << "<rect x=\"" << Num(x + 4) << "\" y=\"" << Num(y - 10) << "\" width=\"14\" "
          << "height=\"10\" class=\"" << it.style << "\"/>";
        break;
    }
    o << "<text x=\"" << Num(x + 28) << "\" y=\"" << Num(y) << "\" class=\"legend\">"
      << XmlEscape(it.label) << "</text>\n";
    x += w;
  }
}

void DrawAxes(std::ostringstream& o, const Frame& f, const ChartData& s, const Ticks& xt,
              const Ticks& yt) {
  for (double v : yt.values) {
    const double y = f.Y(v);
    o << "<line x1=\"" << kLeft << "\" x2=\"" << Num(f.Right()) << "\" y1=\"" << Num(y)
      << "\" y2=\"" << Num(y) << "\" class=\"grid\"/>";
    const std::string label = s.yLabel ? s.yLabel(v, yt.step) : TickLabel(v, yt.step);
    o << "<text x=\"" << kLeft - 6 << "\" y=\"" << Num(y + 4) << "\" class=\"axis\" "
      << "text-anchor=\"end\">" << XmlEscape(label) << "</text>\n";
  }
  for (double v : xt.values) {
    const double x = f.X(v);
    o << "<line x1=\"" << Num(x) << "\" x2=\"" << Num(x) << "\" y1=\"" << Num(f.Bottom())
      << "\" y2=\"" << Num(f.Bottom() + 4) << "\" class=\"tick\"/>";
    o << "<text x=\"" << Num(x) << "\" y=\"" << Num(f.Bottom() + 17) << "\" class=\"axis\" "
      << "text-anchor=\"middle\">" << XmlEscape(TickLabel(v, xt.step)) << "</text>\n";
  }
  o << "<line x1=\"" << kLeft << "\" x2=\"" << Num(f.Right()) << "\" y1=\"" << Num(f.Bottom())
    << "\" y2=\"" << Num(f.Bottom()) << "\" class=\"frame\"/>";
  o << "<line x1=\"" << kLeft << "\" x2=\"" << kLeft << "\" y1=\"" << Num(f.top) << "\" y2=\""
    << Num(f.Bottom()) << "\" class=\"frame\"/>\n";
  const double mid = (kLeft + f.Right()) / 2;
  o << "<text x=\"" << Num(mid) << "\" y=\"" << Num(f.Bottom() + 40) << "\" class=\"atitle\" "
    << "text-anchor=\"middle\">" << XmlEscape(s.xTitle) << "</text>\n";
  const double ymid = f.top + kPlotH / 2;
  o << "<text transform=\"translate(18 " << Num(ymid) << ") rotate(-90)\" class=\"atitle\" "
    << "text-anchor=\"middle\">" << XmlEscape(s.yTitle) << "</text>\n";
}

// Pass boundaries: a dotted line each, labelled in the band above the plot unless the label
// would run into the one before it or off the box.
void DrawPasses(std::ostringstream& o, const Frame& f, const std::vector<double>& starts) {
  double freeFrom = 0;
  for (size_t p = 0; p < starts.size(); ++p) {
    const double x = f.X(starts[p]);
    if (p > 0 || starts[p] > f.x0) {
      o << "<line x1=\"" << Num(x) << "\" x2=\"" << Num(x) << "\" y1=\"" << Num(f.top) << "\" y2=\""
        << Num(f.Bottom()) << "\" class=\"pass\"/>";
    }
    // A short pass gets its number alone; one too short for that, no label.
    for (std::string label : {"pass " + std::to_string(p + 1), std::to_string(p + 1)}) {
      const double w = LabelWidth(label);
      const double next = p + 1 < starts.size() ? f.X(starts[p + 1]) : kW;
      if (x + 3 < freeFrom || x + 3 + w > std::min<double>(kW, next + 3)) continue;
      o << "<text x=\"" << Num(x + 3) << "\" y=\"" << Num(f.top - 5) << "\" class=\"axis\">"
        << label << "</text>";
      freeFrom = x + 3 + w + 6;
      break;
    }
    o << "\n";
  }
}

void DrawLine(std::ostringstream& o, const Frame& f, const LineSeries& l) {
  std::string points;
  auto flush = [&] {
    if (!points.empty())
      o << "<polyline class=\"" << l.style << "\" points=\"" << points << "\"/>\n";
    points.clear();
  };
  double lastY = std::numeric_limits<double>::quiet_NaN();
  for (size_t i = 0; i < l.x.size() && i < l.y.size(); ++i) {
    if (std::isnan(l.y[i])) {
      flush();
      lastY = l.y[i];
      continue;
    }
    if (l.steps && !points.empty() && !std::isnan(lastY))
      points += Num(f.X(l.x[i])) + "," + Num(f.Y(lastY)) + " ";
    points += Num(f.X(l.x[i])) + "," + Num(f.Y(l.y[i])) + " ";
    lastY = l.y[i];
  }
  flush();
}

}  // namespace

std::string XmlEscape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const size_t n = Utf8Length(text, i);
    if (n == 0 || (c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7F) {
      out += "\xEF\xBF\xBD";  // U+FFFD
      ++i;
      continue;
    }
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
      case '\'':
        out += "&#39;";
        break;
      default:
        out.append(text.substr(i, n));
    }
    i += n;
  }
  return out;
}

Ticks NiceTicks(double lo, double hi, int maxIntervals) {
  if (!std::isfinite(lo) || !std::isfinite(hi)) lo = 0, hi = 1;
  if (lo > hi) std::swap(lo, hi);
  if (hi - lo < 1e-12 * std::max(1.0, std::abs(hi))) {
    // A flat range still gets an axis: one unit around it, or [0, 1] at zero.
    hi = lo == 0 ? 1 : hi + std::abs(hi) * 0.5;
    lo = lo == 0 ? 0 : lo - std::abs(lo) * 0.5;
  }
  maxIntervals = std::max(1, maxIntervals);
  // The smallest 1-2-5 step that needs no more than maxIntervals intervals to cover the range.
  const double raw = (hi - lo) / maxIntervals;
  double power = std::pow(10.0, std::floor(std::log10(raw)));
  double step = 0;
  for (;;) {
    for (double m : {1.0, 2.0, 5.0}) {
      step = m * power;
      const double first = std::floor(lo / step + 1e-9), last = std::ceil(hi / step - 1e-9);
      if (last - first <= maxIntervals) {
        Ticks t;
        t.step = step;
        for (double k = first; k <= last + 0.5; k += 1) {
          // Multiples computed, not accumulated, so that 0.1 + 0.2 never shows up as a label.
          double v = k * step;
          if (std::abs(v) < step * 1e-9) v = 0;
          t.values.push_back(v);
        }
        return t;
      }
    }
    power *= 10;
  }
}

std::string TickLabel(double value, double step) {
  const int decimals = std::max(0, static_cast<int>(-std::floor(std::log10(step) + 1e-9)));
  char buf[48];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, value);
  return buf;
}

ByteUnit ByteUnitFor(double largest) {
  static const char* names[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double divisor = 1;
  int i = 0;
  while (i < 4 && largest >= divisor * 1024) {
    divisor *= 1024;
    ++i;
  }
  return {names[i], divisor};
}

double LabelWidth(std::string_view text) {
  // Count characters, not bytes; 0.62 of the font size is a fair average for sans-serif digits
  // and lower-case letters.
  size_t chars = 0;
  for (char c : text) chars += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return chars * 11 * 0.62;
}

std::string RenderChart(const ChartData& s) {
  std::vector<LegendItem> legend;
  for (const LineSeries& l : s.lines)
    if (!l.name.empty()) legend.push_back({l.name, l.style, LegendItem::kLine});
  for (const Level& l : s.levels) legend.push_back({l.label, "level", LegendItem::kLevel});
  if (!s.markers.empty()) legend.push_back({s.markerName, "marker", LegendItem::kMarker});
  const int rows = LegendRows(legend);
  Frame f;
  f.top = 8 + rows * kLegendRow + (s.passStarts.empty() ? 4 : kPassBand);
  f.height = f.top + kPlotH + kBottom;
  double yMax = s.yMax;
  for (const Level& l : s.levels) yMax = std::max(yMax, l.y);
  const Ticks xt = NiceTicks(s.xMin, s.xMax, 8);
  const Ticks yt = NiceTicks(s.yMin, yMax, 5);
  f.x0 = xt.first();
  f.x1 = xt.last();
  f.y0 = yt.first();
  f.y1 = yt.last();

  std::ostringstream o;
  o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"100%\" viewBox=\"0 0 " << kW << " "
    << Num(f.height) << "\" role=\"img\" aria-label=\"" << XmlEscape(s.title) << "\">\n";
  DrawLegend(o, legend);
  DrawAxes(o, f, s, xt, yt);
  DrawPasses(o, f, s.passStarts);
  for (const Bar& b : s.bars) {
    const double x0 = f.X(b.x0), x1 = f.X(b.x1), y = f.Y(b.count);
    o << "<rect x=\"" << Num(x0 + 0.5) << "\" y=\"" << Num(y) << "\" width=\""
      << Num(std::max(0.5, x1 - x0 - 1)) << "\" height=\"" << Num(f.Bottom() - y)
      << "\" class=\"bar\"><title>" << XmlEscape(b.tooltip) << "</title></rect>\n";
  }
  for (const Level& l : s.levels) {
    o << "<line x1=\"" << kLeft << "\" x2=\"" << Num(f.Right()) << "\" y1=\"" << Num(f.Y(l.y))
      << "\" y2=\"" << Num(f.Y(l.y)) << "\" class=\"level\"/>\n";
  }
  for (const LineSeries& l : s.lines) DrawLine(o, f, l);
  for (const Marker& m : s.markers) {
    const double x = f.X(m.x);
    // Along the top edge of the plot, pointing down at the moment.
    o << "<path d=\"M" << Num(x - 4) << " " << Num(f.top) << "h8l-4 7z\" class=\"marker\">"
      << "<title>" << XmlEscape(m.tooltip) << "</title></path>\n";
  }
  o << "</svg>\n";
  return o.str();
}

}  // namespace jx::tool
