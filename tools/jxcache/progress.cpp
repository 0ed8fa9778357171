#include "tools/jxcache/progress.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "tools/jxcache/size_arg.h"

namespace jx::tool {
namespace {

// How often the line may change: a terminal is for watching, a log for reading later.
constexpr auto kTerminalInterval = std::chrono::milliseconds(100);
constexpr auto kLogInterval = std::chrono::seconds(1);

std::string Count(double value) {
  char buf[32];
  if (value >= 1e6) {
    std::snprintf(buf, sizeof buf, "%.2fM", value / 1e6);
  } else if (value >= 1e4) {
    std::snprintf(buf, sizeof buf, "%.0fk", value / 1e3);
  } else if (value >= 100) {
    std::snprintf(buf, sizeof buf, "%.0f", value);
  } else {
    std::snprintf(buf, sizeof buf, "%.1f", value);
  }
  return buf;
}

}  // namespace

std::string FormatDuration(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) return "?";
  const auto s = static_cast<uint64_t>(std::llround(seconds));
  char buf[32];
  if (s < 60) {
    std::snprintf(buf, sizeof buf, "%llus", static_cast<unsigned long long>(s));
  } else if (s < 3600) {
    std::snprintf(buf, sizeof buf, "%llum%02llus", static_cast<unsigned long long>(s / 60),
                  static_cast<unsigned long long>(s % 60));
  } else {
    std::snprintf(buf, sizeof buf, "%lluh%02llum", static_cast<unsigned long long>(s / 3600),
                  static_cast<unsigned long long>(s / 60 % 60));
  }
  return buf;
}

std::string FormatProgress(std::string_view label, uint64_t done, uint64_t total,
                           std::string_view unit, double seconds, std::string_view extra) {
  const bool bytes = unit.empty();
  std::string line(label);
  if (!line.empty()) line += "  ";
  line += bytes ? FormatSize(done) : std::to_string(done);
  if (total > 0) line += "/" + (bytes ? FormatSize(total) : std::to_string(total));
  if (!bytes) line += " " + std::string(unit);
  if (done > 0 && seconds > 0) {
    const double rate = static_cast<double>(done) / seconds;
    line +=
        "  " +
        (bytes ? FormatSize(static_cast<uint64_t>(rate)) : Count(rate) + " " + std::string(unit)) +
        "/s";
    if (total > 0) {
      const double left = done >= total ? 0.0 : static_cast<double>(total - done) / rate;
      line += "  ETA " + FormatDuration(left);
    }
  }
  if (!extra.empty()) line += "  " + std::string(extra);
  return line;
}

ProgressMeter::Mode ProgressMeter::ModeFor(bool asked) {
  if (::isatty(STDERR_FILENO) == 1) return Mode::kTerminal;
  return asked ? Mode::kLog : Mode::kOff;
}

ProgressMeter::ProgressMeter(Mode mode, std::ostream& out) : mode_(mode), out_(out) {}

ProgressMeter::~ProgressMeter() {
  // An exception on its way out: a terminal keeps no half-drawn line under the error message.
  if (started_ && mode_ == Mode::kTerminal) Finish();
}

void ProgressMeter::Start(std::string label, uint64_t total, std::string unit,
                          std::optional<Clock::time_point> since) {
  if (started_) Finish();
  label_ = std::move(label);
  unit_ = std::move(unit);
  total_ = total;
  last_ = 0;
  lastExtra_.clear();
  start_ = since.value_or(Clock::now());
  lastDrawn_ = Clock::now();
  started_ = true;
}

void ProgressMeter::Update(uint64_t done, std::string_view extra) {
  if (mode_ == Mode::kOff || !started_) return;
  last_ = done;
  const auto now = Clock::now();
  if (now - lastDrawn_ < (mode_ == Mode::kTerminal ? kTerminalInterval : kLogInterval)) {
    lastExtra_.assign(extra);
    return;
  }
  lastDrawn_ = now;
  Draw(done, extra);
}

void ProgressMeter::Draw(uint64_t done, std::string_view extra) {
  const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  std::string line = FormatProgress(label_, done, total_, unit_, seconds, extra);
  if (mode_ == Mode::kLog) {
    out_ << line << '\n' << std::flush;
    return;
  }
  const size_t width = line.size();
  if (width < drawnWidth_) line.append(drawnWidth_ - width, ' ');  // cover the longer last line
  drawnWidth_ = width;
  out_ << '\r' << line << std::flush;
}

void ProgressMeter::Finish() {
  if (!started_) return;
  started_ = false;
  if (mode_ == Mode::kLog) {
    Draw(last_, lastExtra_);
  } else if (mode_ == Mode::kTerminal && drawnWidth_ > 0) {
    out_ << '\r' << std::string(drawnWidth_, ' ') << '\r' << std::flush;
    drawnWidth_ = 0;
  }
}

}  // namespace jx::tool
