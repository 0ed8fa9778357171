#include "tools/jxcache/replay.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <iostream>

#include "jxcache/host/high_precision_time.h"
#include "jxcache/items/stuff.h"
#include "standalone/standalone_host.h"
#include "tools/jxcache/library_run.h"
#include "tools/jxcache/size_arg.h"
#include "tools/jxcache/table.h"
#include "tools/jxcache/tool_error.h"

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

ReplayResult ReplayOnce(const std::vector<TraceRequest>& trace, uint64_t cacheSize) {
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
  for (const TraceRequest& t : trace) {
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
  return r;
}

namespace {

struct ReplayOptions {
  std::string trace;
  std::string cacheSizes;
  std::string format;
  bool json = false;
};

TraceFormat ChooseFormat(const ReplayOptions& o) {
  if (!o.format.empty()) return ParseTraceFormat(o.format);
  const bool csvName = o.trace.size() >= 4 && o.trace.compare(o.trace.size() - 4, 4, ".csv") == 0;
  return csvName ? TraceFormat::kCsv : TraceFormat::kOracleGeneral;
}

double Ratio(uint64_t part, uint64_t whole) {
  return whole ? static_cast<double>(part) / static_cast<double>(whole) : 0.0;
}

double Rate(const ReplayResult& r) { return r.seconds > 0 ? r.requests / r.seconds : 0.0; }

void PrintText(const ReplayOptions& o, const std::vector<ReplayResult>& results) {
  std::cout << "replay of " << o.trace << " (" << results.front().requests << " requests)\n\n";
  TextTable table({"cache size", "requests", "misses", "miss ratio", "byte miss ratio", "too large",
                   "requests/s"});
  for (const ReplayResult& r : results) {
    table.AddRow({FormatSize(r.cacheSize), std::to_string(r.requests), std::to_string(r.misses),
                  Fixed(Ratio(r.misses, r.requests), 4),
                  Fixed(Ratio(r.bytesMissed, r.bytesRequested), 4), std::to_string(r.tooLarge),
                  Fixed(Rate(r), 0)});
  }
  table.Print(std::cout);
}

void PrintJson(const ReplayOptions& o, TraceFormat format,
               const std::vector<ReplayResult>& results) {
  nlohmann::ordered_json out;
  out["trace"] = o.trace;
  out["format"] = format == TraceFormat::kCsv ? "csv" : "oracle-general";
  out["runs"] = nlohmann::json::array();
  for (const ReplayResult& r : results) {
    out["runs"].push_back({{"cache_size", r.cacheSize},
                           {"requests", r.requests},
                           {"misses", r.misses},
                           {"miss_ratio", Ratio(r.misses, r.requests)},
                           {"bytes_requested", r.bytesRequested},
                           {"bytes_missed", r.bytesMissed},
                           {"byte_miss_ratio", Ratio(r.bytesMissed, r.bytesRequested)},
                           {"too_large", r.tooLarge},
                           {"purges", r.purges},
                           {"peak_bytes", r.peakBytes},
                           {"seconds", r.seconds},
                           {"requests_per_second", Rate(r)}});
  }
  std::cout << out.dump(2) << '\n';
}

int RunReplay(const ReplayOptions& o) {
  const std::vector<uint64_t> sizes = ParseSizeList(o.cacheSizes, "--cache-size");
  const TraceFormat format = ChooseFormat(o);
  const std::vector<TraceRequest> trace = ReadTrace(o.trace, format);
  UsePureRecencyPurging();
  std::vector<ReplayResult> results;
  for (uint64_t size : sizes) results.push_back(ReplayOnce(trace, size));
  if (o.json) {
    PrintJson(o, format, results);
  } else {
    PrintText(o, results);
  }
  return kExitOk;
}

}  // namespace

void AddReplayCommand(CLI::App& app, int* exitCode) {
  auto options = std::make_shared<ReplayOptions>();
  CLI::App* cmd = app.add_subcommand(
      "replay", "Replay an access trace through the cache, once per cache size (LRU by bytes)");
  cmd->add_option("trace", options->trace, "Trace file")->required();
  cmd->add_option("--cache-size", options->cacheSizes,
                  "Cache sizes, comma-separated (bytes, or with KiB, MiB, GiB)")
      ->required();
  cmd->add_option("--format", options->format,
                  "oracle-general (24-byte binary records) or csv (id,size lines); default: csv "
                  "for a .csv file, else oracle-general");
  cmd->add_flag("--json", options->json, "Print the results as JSON");
  cmd->callback([options, exitCode] { *exitCode = RunReplay(*options); });
}

}  // namespace jx::tool
