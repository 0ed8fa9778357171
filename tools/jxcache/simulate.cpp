#include "tools/jxcache/simulate.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>

#include "tools/jxcache/cache_folder.h"
#include "tools/jxcache/frame_payload.h"
#include "tools/jxcache/html_report.h"
#include "tools/jxcache/progress.h"
#include "tools/jxcache/run_info.h"
#include "tools/jxcache/session.h"
#include "tools/jxcache/session_disk.h"
#include "tools/jxcache/session_farm.h"
#include "tools/jxcache/size_arg.h"
#include "tools/jxcache/summary.h"
#include "tools/jxcache/tool_error.h"

namespace jx::tool {
namespace {

struct SimulateArgs {
  SimulateOptions options;
  std::string memory = "256MiB";
  std::string diskLimit = "2GiB";
  std::string proclivity;
  std::string report;
  bool json = false;
  bool progress = false;
};

void Check(bool ok, const std::string& why) {
  if (!ok) throw UsageError(why);
}

SimulateOptions Validate(SimulateArgs& a) {
  SimulateOptions o = a.options;
  o.memoryBudget = ParseSize(a.memory, "--memory");
  o.diskLimit = ParseSize(a.diskLimit, "--disk-limit");
  Check(o.frames >= 1 && o.frames <= 1000000, "--frames: give 1 to 1000000 frames");
  Check(o.width >= 1 && o.height >= 1 && uint64_t{o.width} * o.height * 4 <= kMaxFrameBytes,
        "--width/--height: a frame must have pixels and stay under 2 GiB");
  Check(o.threads >= 1 && o.threads <= 64, "--threads: give 1 to 64 render threads");
  Check(o.passes >= 1 && o.passes <= 100, "--passes: give 1 to 100 passes");
  Check(o.memoryBudget > 0, "--memory: the memory budget must be more than 0");
  Check(o.noDisk || o.diskLimit > 0, "--disk-limit: the disk limit must be more than 0");
  // The library takes the limit as a signed 64-bit count: from 2^63 it would be negative.
  Check(o.diskLimit <= uint64_t{INT64_MAX}, "--disk-limit: give less than 8388608T (8 EiB)");
  Check(a.proclivity.empty() || !o.noDisk, "--disk-proclivity: not with --no-disk");
  Check(o.readAhead <= 10000, "--read-ahead: give 0 to 10000 frames");
  Check(std::isfinite(o.fps) && o.fps >= 0 && o.fps <= 1000,
        "--fps: give 0 (as fast as possible) to 1000 frames per second");
  Check(o.diskMarginGiB >= -1 && o.diskMarginGiB <= (1 << 20),
        "--disk-margin: give whole GiB from 0 to 1048576");
  ValidateFarmOptions(o);
  if (!a.proclivity.empty()) {
    char* end = nullptr;
    o.diskProclivity = std::strtod(a.proclivity.c_str(), &end);
    Check(end == a.proclivity.c_str() + a.proclivity.size() && std::isfinite(o.diskProclivity) &&
              o.diskProclivity > 0,
          "--disk-proclivity: give a number above 0, like 0.5 or 2");
  }
  return o;
}

// The frames of all passes together: a later pass is faster (it hits), so the ETA of the first
// is pessimistic, never optimistic.
void ShowProgress(ProgressMeter& meter, const SessionResult& r, uint32_t pass, uint64_t done) {
  const SimulateOptions& o = r.options;
  const Sample& s = r.samples.back();
  std::string extra = "pass " + std::to_string(pass + 1) + "/" + std::to_string(o.passes) +
                      "  memory " + FormatSize(s.memory) + " / " + FormatSize(o.memoryBudget);
  if (r.disk.available) extra += "  disk " + FormatSize(s.disk);
  meter.Update(uint64_t{pass} * o.frames + done, extra);
}

int RunSimulate(SimulateArgs& args) {
  SimulateOptions options = Validate(args);
  options.contentMaps = !args.report.empty();
  std::optional<ReportFile> report;
  if (!args.report.empty()) report.emplace(args.report);
  ProgressMeter meter(ProgressMeter::ModeFor(args.progress), std::cerr);
  ProgressFn progress;
  if (meter.on()) {
    meter.Start("", uint64_t{options.frames} * options.passes, "frames");
    progress = [&meter](const SessionResult& r, uint32_t pass, uint64_t done) {
      ShowProgress(meter, r, pass, done);
    };
  }
  // The writes still queued after the last frame are a piece of work of their own.
  bool draining = false;
  DrainFn drain;
  if (meter.on()) {
    drain = [&](uint64_t gone, uint64_t total) {
      if (!draining) {
        meter.Update(uint64_t{options.frames} * options.passes);
        meter.Finish();
        meter.Start("disk writes still queued", total, "writes");
        draining = true;
      }
      meter.Update(gone);
    };
  }
  const RunInfo run = CollectRunInfo();  // the start time is the session's
  SessionResult result = RunSession(options, progress, drain);
  result.run = run;
  // The last line says all frames were done, or how many queued writes went.
  if (!draining) meter.Update(uint64_t{options.frames} * options.passes);
  meter.Finish();
  // The summary first: a report that cannot be written at the end must not take the run's
  // figures with it.
  if (args.json) {
    // A folder name need not be UTF-8; JSON must be.
    std::cout << SummaryJson(result).dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
              << '\n';
  } else {
    PrintSummary(result, std::cout);
  }
  std::cout.flush();
  if (report) {
    report->Commit(RenderHtmlReport(result));
    if (!args.json) std::cout << "\nreport written to " << args.report << '\n';
  }
  return kExitOk;
}

}  // namespace

void AddSimulateCommand(CLI::App& app, int* exitCode) {
  auto args = std::make_shared<SimulateArgs>();
  SimulateOptions& o = args->options;
  CLI::App* cmd = app.add_subcommand(
      "simulate", "Play a compositing session through the cache: renders, memory budget, disk");
  cmd->add_option("--frames", o.frames, "Frames on the timeline")->capture_default_str();
  cmd->add_option("--width", o.width, "Frame width in pixels")->capture_default_str();
  cmd->add_option("--height", o.height, "Frame height in pixels")->capture_default_str();
  cmd->add_option("--threads", o.threads, "Render threads")->capture_default_str();
  cmd->add_option("--memory", args->memory,
                  std::string("Host memory budget for the cache. ") + kSizeHelp)
      ->capture_default_str();
  cmd->add_option("--disk-cache", o.diskFolder,
                  "Disk cache folder, reused across runs (default: " + DefaultDiskFolder() + "). " +
                      DiskCacheLayoutHelp())
      ->check(NotEmpty());
  cmd->add_option("--disk-limit", args->diskLimit, "Disk cache size limit")->capture_default_str();
  cmd->add_flag("--no-disk", o.noDisk, "Run without the disk cache");
  cmd->add_option("--disk-proclivity", args->proclivity,
                  "The host's \"Proclivity Multiplier 2\" disk cache preference: the write rule "
                  "divides the measured read speed by it, so below 1 more frames are worth a file "
                  "(default: unset, 1)");
  cmd->add_option("--disk-margin", o.diskMarginGiB,
                  "The host's \"Minimum Volume Free Space (Gigabytes)\" preference: whole GiB the "
                  "disk writer leaves free on the volume (default: unset, 10)");
  cmd->add_option("--passes", o.passes, "Playback passes: forward, forward, then scrubs")
      ->capture_default_str();
  cmd->add_option("--seed", o.seed, "Seed of the scrub passes")->capture_default_str();
  cmd->add_option("--read-ahead", o.readAhead,
                  "Frames the forward passes read back from disk ahead of the playhead, within a "
                  "quarter of the memory budget (0: off)")
      ->capture_default_str();
  cmd->add_option("--fps", o.fps,
                  "Play the passes at this many frames per second, as a viewer shows them; a "
                  "frame served after its display time is late (0: as fast as possible)")
      ->capture_default_str();
  AddFarmOptions(*cmd, o);
  cmd->add_flag("--json", args->json, "Print the summary as JSON");
  cmd->add_flag("--progress", args->progress,
                "Show progress on stderr (frames, frames/s, ETA) even when it is not a terminal");
  cmd->add_option("--report", args->report, "Write an HTML report with charts to this file")
      ->check(NotEmpty());
  for (const char* name :
       {"--frames", "--width", "--height", "--threads", "--disk-margin", "--passes", "--seed",
        "--read-ahead", "--farm-timeout", "--farm-lease", "--farm-wait", "--farm-ttl"}) {
    cmd->get_option(name)->transform(DecimalNumber());
  }
  cmd->callback([args, exitCode] { *exitCode = RunSimulate(*args); });
}

}  // namespace jx::tool
