#include "tools/jxcache/replay.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

#include "jxcache/host/high_precision_time.h"
#include "jxcache/items/stuff.h"
#include "standalone/standalone_host.h"
#include "tools/jxcache/belady.h"
#include "tools/jxcache/library_run.h"
#include "tools/jxcache/progress.h"
#include "tools/jxcache/size_arg.h"
#include "tools/jxcache/table.h"
#include "tools/jxcache/tool_error.h"
#include "tools/jxcache/trace_spool.h"

namespace cf = jx::checkout_flags;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace jx::tool {
namespace {

// A payload that reports the object's size without allocating it: replay measures the cache's
// decisions, not the machine's memory. An object of size 0 costs the cache nothing, so purging
// it would free nothing: it stays, and every later request for it is a hit.
class ReplayPayload : public JX_StuffData {
 public:
  explicit ReplayPayload(unsigned int size) : size_(size) {}
  unsigned int GetApproximateMemorySize() const override { return inMemory_ ? size_ : 0; }
  bool ShouldAllowPurge() const override { return size_ > 0; }
  bool PurgeIfPossible(ReleaseQueue*) override {
    const bool was = inMemory_;
    inMemory_ = false;
    return was;
  }
  bool IsInMemory() const override { return inMemory_; }

 private:
  unsigned int size_;
  bool inMemory_ = true;
};

// The object id in the first eight bytes, a fixed tag in the rest: id 0 still gives a GUID that
// is not the empty one.
Guid GuidForObject(uint64_t id) {
  std::array<uint8_t, 16> bytes{};
  std::memcpy(bytes.data(), &id, 8);
  std::memcpy(bytes.data() + 8, "jxreplay", 8);
  return Guid(bytes);
}

void PurgeIfOver(JX_Bag& bag, uint64_t cacheSize, ReplayResult* r) {
  const long long held = bag.GetInMemoryCacheSizeInBytes_LockFree();
  if (held > 0 && static_cast<uint64_t>(held) > cacheSize) {
    jx::PurgeOverBudget(bag, static_cast<uint64_t>(held) - cacheSize);
    ++r->purges;
  }
  r->peakBytes =
      std::max<uint64_t>(r->peakBytes, std::max(0LL, bag.GetInMemoryCacheSizeInBytes_LockFree()));
}

}  // namespace

ReplayResult ReplayOnce(RequestSource& trace, uint64_t cacheSize,
                        const std::function<void(uint64_t)>& progress) {
  StandaloneHost::Instance().SetMemoryLimit(cacheSize);
  LibraryRun run(false, 1);
  JX_Bag& bag = run.bag();
  ReplayResult r;
  r.cacheSize = cacheSize;
  // One request item, re-keyed for each request: it never enters the bag itself.
  IntrusivePtr<JX_StuffData> requestKey(new ReplayPayload(0));
  IntrusivePtr<JX_Stuff> request = JX_Stuff::CreateNew(requestKey, 0.0);
  const int flags = cf::kReadOnly | cf::kCreatePending;
  zelcore::utility::Timer timer;
  TraceRequest t;
  while (trace.Next(&t)) {
    if (progress && r.requests % (1u << 14) == 0) progress(r.requests);
    ++r.requests;
    r.bytesRequested += t.size;
    request->SetGuid(GuidForObject(t.id));
    IntrusivePtr<JX_Stuff> found;
    bool created = false;
    const JX_CheckoutResult result = bag.FindAndCheckout(request, flags, &found, &created);
    if (result == kJX_CheckedOut) {
      found->Checkin(0, 0.0);  // a hit renews the object's recency
      continue;
    }
    if (result != kJX_CreatedPending)
      throw ToolError("the cache refused a request it should serve");
    ++r.misses;
    r.bytesMissed += t.size;
    found->SetStuffDataFromPendingRender_Impl(IntrusivePtr<JX_StuffData>(new ReplayPayload(t.size)),
                                              0.0, true);
    if (t.size > cacheSize) {
      ++r.tooLarge;
      found->Checkin(jx::checkin_flags::kRemove, 0.0);
      continue;
    }
    found->Checkin(0, 0.0);
    PurgeIfOver(bag, cacheSize, &r);
  }
  r.seconds = timer.GetElapsedSeconds();
  if (progress) progress(r.requests);
  return r;
}

namespace {

struct ReplayOptions {
  std::string trace;
  std::string cacheSizes;
  std::string format;
  bool json = false;
  bool progress = false;
  bool noOptimal = false;
};

// One cache size: LRU through the library, and the optimal policy when it ran.
struct SizeResult {
  ReplayResult lru;
  std::optional<OptimalResult> optimal;
};

struct TraceFacts {
  TraceFormat format;
  bool compressed = false;
  uint64_t requests = 0;
  uint64_t distinctObjects = 0;  // known only when the optimal policy ran
};

double Ratio(uint64_t part, uint64_t whole) {
  return whole ? static_cast<double>(part) / static_cast<double>(whole) : 0.0;
}

double Rate(const ReplayResult& r) { return r.seconds > 0 ? r.requests / r.seconds : 0.0; }

double LruHitRatio(const ReplayResult& r) { return 1.0 - Ratio(r.misses, r.requests); }
double OptimalHitRatio(const OptimalResult& r) { return 1.0 - Ratio(r.misses, r.requests); }

void PrintText(const ReplayOptions& o, const TraceFacts& facts,
               const std::vector<SizeResult>& results) {
  std::cout << "replay of " << o.trace << " (" << facts.requests << " requests";
  if (facts.distinctObjects) std::cout << ", " << facts.distinctObjects << " objects";
  std::cout << ")\n\n";
  TextTable table({"cache size", "requests", "misses", "miss ratio", "byte miss ratio", "too large",
                   "requests/s"});
  for (const SizeResult& s : results) {
    const ReplayResult& r = s.lru;
    table.AddRow({FormatSize(r.cacheSize), std::to_string(r.requests), std::to_string(r.misses),
                  Fixed(Ratio(r.misses, r.requests), 4),
                  Fixed(Ratio(r.bytesMissed, r.bytesRequested), 4), std::to_string(r.tooLarge),
                  Fixed(Rate(r), 0)});
  }
  table.Print(std::cout);
  if (results.front().optimal) {
    std::cout << "\nLRU against the optimal policy (furthest next use evicted first):\n\n";
    TextTable gap({"cache size", "LRU hit ratio", "optimal hit ratio", "gap", "LRU misses",
                   "optimal misses", "LRU byte hit ratio", "optimal byte hit ratio"});
    for (const SizeResult& s : results) {
      const ReplayResult& r = s.lru;
      const OptimalResult& b = *s.optimal;
      gap.AddRow({FormatSize(r.cacheSize), Fixed(LruHitRatio(r), 4), Fixed(OptimalHitRatio(b), 4),
                  Fixed(OptimalHitRatio(b) - LruHitRatio(r), 4), std::to_string(r.misses),
                  std::to_string(b.misses), Fixed(1.0 - Ratio(r.bytesMissed, r.bytesRequested), 4),
                  Fixed(1.0 - Ratio(b.bytesMissed, b.bytesRequested), 4)});
    }
    gap.Print(std::cout);
  }
}

void PrintJson(const ReplayOptions& o, const TraceFacts& facts,
               const std::vector<SizeResult>& results) {
  nlohmann::ordered_json out;
  out["trace"] = o.trace;
  out["format"] = facts.format == TraceFormat::kCsv ? "csv" : "oracle-general";
  out["compressed"] = facts.compressed;
  out["requests"] = facts.requests;
  if (facts.distinctObjects) out["distinct_objects"] = facts.distinctObjects;
  out["runs"] = nlohmann::json::array();
  for (const SizeResult& s : results) {
    const ReplayResult& r = s.lru;
    nlohmann::ordered_json run = {{"cache_size", r.cacheSize},
                                  {"requests", r.requests},
                                  {"misses", r.misses},
                                  {"miss_ratio", Ratio(r.misses, r.requests)},
                                  {"hit_ratio", LruHitRatio(r)},
                                  {"bytes_requested", r.bytesRequested},
                                  {"bytes_missed", r.bytesMissed},
                                  {"byte_miss_ratio", Ratio(r.bytesMissed, r.bytesRequested)},
                                  {"too_large", r.tooLarge},
                                  {"purges", r.purges},
                                  {"peak_bytes", r.peakBytes},
                                  {"seconds", r.seconds},
                                  {"requests_per_second", Rate(r)}};
    if (s.optimal) {
      const OptimalResult& b = *s.optimal;
      run["optimal"] = {{"misses", b.misses},
                        {"miss_ratio", Ratio(b.misses, b.requests)},
                        {"hit_ratio", OptimalHitRatio(b)},
                        {"bytes_missed", b.bytesMissed},
                        {"byte_miss_ratio", Ratio(b.bytesMissed, b.bytesRequested)},
                        {"too_large", b.tooLarge},
                        {"peak_objects", b.peakObjects}};
      run["hit_ratio_gap"] = OptimalHitRatio(b) - LruHitRatio(r);
    }
    out["runs"].push_back(std::move(run));
  }
  // A path need not be UTF-8; JSON must be.
  std::cout << out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

// The optimal policy reads only the spool, never the cache, so it runs on a thread of its own
// beside the LRU runs: a long trace takes about the longer of the two instead of their sum. Its
// progress is counted here and drawn by the caller's thread, which owns the meter.
class OptimalPass {
 public:
  OptimalPass(TraceSpool& spool, std::vector<uint64_t> sizes)
      : requests_(spool.requests()),
        started_(ProgressMeter::Clock::now()),
        thread_([this, &spool, sizes = std::move(sizes)] { Run(spool, sizes); }) {}
  // Should the LRU runs fail, the pass is told to stop and is waited for: it uses the spool.
  ~OptimalPass() {
    cancelled_ = true;
    thread_.join();
  }
  OptimalPass(const OptimalPass&) = delete;
  OptimalPass& operator=(const OptimalPass&) = delete;

  // The results, once the pass has ended; its error, if it failed. The pass shows on `meter`
  // from here on, with its rate counted from its start: both halves (the next uses, found
  // backwards, then the policy) as one piece of work.
  std::vector<OptimalResult> Wait(ProgressMeter& meter) {
    meter.Start("next uses and optimal", 2 * requests_, "requests", started_);
    std::unique_lock lock(mutex_);
    while (!ended_.wait_for(lock, std::chrono::milliseconds(100), [this] { return done_; })) {
      meter.Update(progress_.load(std::memory_order_relaxed));
    }
    meter.Update(progress_.load(std::memory_order_relaxed));
    meter.Finish();
    if (error_) std::rethrow_exception(error_);
    return std::move(results_);
  }

  uint64_t distinctObjects() const { return distinct_; }  // after Wait

 private:
  struct Cancelled {};

  void Run(TraceSpool& spool, const std::vector<uint64_t>& sizes) {
    std::vector<OptimalResult> results;
    std::exception_ptr error;
    try {
      spool.FindNextUses([this](uint64_t done) { Note(done); });
      results = ReplayOptimal(spool, sizes, [this](uint64_t done) { Note(requests_ + done); });
      distinct_ = spool.distinctObjects();
    } catch (const Cancelled&) {
    } catch (...) {
      error = std::current_exception();
    }
    std::lock_guard lock(mutex_);
    results_ = std::move(results);
    error_ = error;
    done_ = true;
    ended_.notify_all();
  }

  void Note(uint64_t done) {
    if (cancelled_.load(std::memory_order_relaxed)) throw Cancelled{};
    progress_.store(done, std::memory_order_relaxed);
  }

  const uint64_t requests_;
  const ProgressMeter::Clock::time_point started_;
  std::atomic<uint64_t> progress_{0};
  std::atomic<bool> cancelled_{false};
  uint64_t distinct_ = 0;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool done_ = false;
  std::vector<OptimalResult> results_;
  std::exception_ptr error_;
  std::thread thread_;  // last: it starts once everything it uses is made
};

int RunReplay(const ReplayOptions& o) {
  const std::vector<uint64_t> sizes = ParseSizeList(o.cacheSizes, "--cache-size");
  TraceFacts facts;
  facts.format = o.format.empty() ? GuessTraceFormat(o.trace) : ParseTraceFormat(o.format);
  ProgressMeter meter(ProgressMeter::ModeFor(o.progress), std::cerr);
  const auto update = [&meter](uint64_t done) { meter.Update(done); };
  std::unique_ptr<TraceSpool> spool;
  {
    TraceReader reader(o.trace, facts.format);
    if (o.format.empty() && facts.format == TraceFormat::kOracleGeneral &&
        reader.StartsWithText()) {
      throw ToolError("trace '" + o.trace +
                      "' is text, not binary oracle-general records: for id,size lines give "
                      "--format csv");
    }
    facts.compressed = reader.compressed();
    meter.Start("reading trace", reader.fileSize(), "");
    spool = TraceSpool::Make(reader, update);
    meter.Finish();
  }
  facts.requests = spool->requests();
  if (facts.requests == 0) throw ToolError("trace '" + o.trace + "' holds no requests");
  std::optional<OptimalPass> optimalPass;
  if (!o.noOptimal) optimalPass.emplace(*spool, sizes);
  UsePureRecencyPurging();
  std::vector<SizeResult> results;
  for (uint64_t size : sizes) {
    meter.Start("LRU " + FormatSize(size), facts.requests, "requests");
    std::unique_ptr<RequestSource> requests = spool->Forward();
    results.push_back({ReplayOnce(*requests, size, update), std::nullopt});
    meter.Finish();
  }
  if (optimalPass) {
    const std::vector<OptimalResult> optimal = optimalPass->Wait(meter);
    for (size_t i = 0; i < sizes.size(); ++i) results[i].optimal = optimal[i];
    facts.distinctObjects = optimalPass->distinctObjects();
  }
  if (o.json) {
    PrintJson(o, facts, results);
  } else {
    PrintText(o, facts, results);
  }
  return kExitOk;
}

}  // namespace

void AddReplayCommand(CLI::App& app, int* exitCode) {
  auto options = std::make_shared<ReplayOptions>();
  CLI::App* cmd = app.add_subcommand(
      "replay",
      "Replay an access trace through the cache, once per cache size (LRU by bytes), and "
      "through the offline optimal policy to show how far LRU is from it");
  cmd->add_option("trace", options->trace,
                  "Trace file, zstd-compressed or not (told by its first bytes)")
      ->required();
  cmd->add_option("--cache-size", options->cacheSizes,
                  std::string("Cache sizes, comma-separated. ") + kSizeHelp)
      ->required();
  cmd->add_option("--format", options->format,
                  "oracle-general (24-byte binary records) or csv (id,size lines); default: csv "
                  "for a .csv or .csv.zst file, else oracle-general");
  cmd->add_flag("--no-optimal", options->noOptimal, "Skip the optimal policy");
  cmd->add_flag("--json", options->json, "Print the results as JSON");
  cmd->add_flag("--progress", options->progress,
                "Show progress on stderr (done/total, rate, ETA) even when it is not a terminal");
  cmd->footer(
      "The trace is read once, streaming, into a copy of 12 bytes per request in the temporary "
      "folder (TMPDIR, else /tmp) that each run reads back; memory does not grow with the "
      "trace's length.\n"
      "The optimal policy evicts the object whose next request is furthest away (Belady's MIN: "
      "the optimum when objects have one size; with mixed sizes the usual heuristic, not a "
      "bound). It runs on a second thread beside the LRU runs, whose rates it may lower on a "
      "machine with one core. Finding next uses takes a table of 23 to 46 bytes per distinct "
      "object in the trace and another temporary file of 8 bytes per request; the policy itself "
      "about 100 bytes per object in its cache, for each cache size.");
  cmd->callback([options, exitCode] { *exitCode = RunReplay(*options); });
}

}  // namespace jx::tool
