// Progress of long work on stderr: how far, how fast, how long still ("1200/4800 frames  310
// frames/s  ETA 12s"). On a terminal the line is redrawn in place a few times a second and wiped
// at the end; elsewhere (only when asked for, --progress) a line is written at most once a
// second, and a last one when the work ends, so that a log shows the run's pace without drowning.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace jx::tool {

// "12s", "3m05s", "2h07m"; "?" for a negative or non-finite time.
std::string FormatDuration(double seconds);

// One progress line. `unit` names what is counted ("frames"); when it is empty the counts are
// bytes and are shown as sizes ("312 MiB/1.00 GiB  85.0 MiB/s"). `total` 0 means unknown: no
// ETA. The rate and the ETA are left out until some work is done.
std::string FormatProgress(std::string_view label, uint64_t done, uint64_t total,
                           std::string_view unit, double seconds, std::string_view extra = "");

class ProgressMeter {
 public:
  enum class Mode { kOff, kTerminal, kLog };
  // kTerminal when stderr is a terminal, else kLog when `asked`, else kOff.
  static Mode ModeFor(bool asked);

  ProgressMeter(Mode mode, std::ostream& out);
  ~ProgressMeter();
  ProgressMeter(const ProgressMeter&) = delete;
  ProgressMeter& operator=(const ProgressMeter&) = delete;

  bool on() const { return mode_ != Mode::kOff; }
  using Clock = std::chrono::steady_clock;
  // Starts a new piece of work: the rate and the ETA count from `since` (for work that began on
  // another thread before it could be shown), by default from now.
  void Start(std::string label, uint64_t total, std::string unit,
             std::optional<Clock::time_point> since = std::nullopt);
  // Cheap when nothing is drawn: call it as often as convenient.
  void Update(uint64_t done, std::string_view extra = "");
  // Ends the piece of work: a log gets its last line, a terminal line is wiped.
  void Finish();

 private:
  void Draw(uint64_t done, std::string_view extra);

  Mode mode_;
  std::ostream& out_;
  std::string label_, unit_;
  uint64_t total_ = 0, last_ = 0;
  std::string lastExtra_;
  Clock::time_point start_, lastDrawn_;
  size_t drawnWidth_ = 0;
  bool started_ = false;
};

}  // namespace jx::tool
