// The pieces of the HTML report's charts: text made safe for an XML page, round axis ticks, and
// an SVG chart (lines, bars, markers) that scales with the page. Every chart is drawn in a fixed
// coordinate box and shown at the page's width through its viewBox, so nothing is laid out for
// one window size only.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace jx::tool {

// `text` as character data or an attribute value of an XML page: markup characters become
// entities, and what XML 1.0 cannot carry at all (control characters, bytes that are not UTF-8)
// becomes U+FFFD, so that a hostile folder name or argument can neither inject markup nor make
// the page unreadable.
std::string XmlEscape(std::string_view text);

// Axis ticks at round values: every tick is a whole multiple of `step`, which is 1, 2 or 5 times
// a power of ten, the first tick is at or below `lo` and the last at or above `hi`, with at most
// `maxIntervals` intervals between them.
struct Ticks {
  double step = 1.0;
  std::vector<double> values;
  double first() const { return values.front(); }
  double last() const { return values.back(); }
};
Ticks NiceTicks(double lo, double hi, int maxIntervals = 5);
// A tick value with just the decimals that its step needs ("0.25", "40", "1.5").
std::string TickLabel(double value, double step);

// Bytes on an axis: the binary unit that keeps the largest value at least 1, and its divisor.
struct ByteUnit {
  const char* name;  // "B", "KiB", "MiB", "GiB", "TiB"
  double divisor;
};
ByteUnit ByteUnitFor(double largest);

struct LineSeries {
  std::string name;          // for the legend
  std::string style;         // a class of the page's style sheet: "line", "line2"...
  std::vector<double> x, y;  // a NaN y leaves a gap
  bool steps = false;        // hold each value until the next point
};

// A horizontal reference line, such as a budget.
struct Level {
  double y;
  std::string label;  // in the legend
};

// A mark at one moment, drawn above the plot, with its text as a tooltip.
struct Marker {
  double x;
  std::string tooltip;
};

// A histogram bar over [x0, x1).
struct Bar {
  double x0, x1, count;
  std::string tooltip;
};

struct ChartData {
  std::string title;  // for screen readers; the page heads the chart itself
  std::string xTitle, yTitle;
  double xMin = 0, xMax = 1, yMin = 0, yMax = 1;  // the data's extent; the axes round outwards
  std::function<std::string(double value, double step)> yLabel;  // TickLabel unless set
  std::vector<LineSeries> lines;
  std::vector<Level> levels;
  std::vector<double> passStarts;  // dotted lines, labelled "pass N" where there is room
  std::vector<Marker> markers;
  std::string markerName;  // the markers' legend entry
  std::vector<Bar> bars;
};

// The chart as an <svg> element: width 100% of its container, height following its viewBox.
std::string RenderChart(const ChartData& chart);

// Roughly how wide `text` is drawn at the charts' 11-unit label size: enough to keep labels
// from running into each other without measuring fonts.
double LabelWidth(std::string_view text);

}  // namespace jx::tool
