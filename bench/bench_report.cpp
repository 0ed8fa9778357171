// Turns the benchmark outputs of one run into the comparison table: figure, jxcache, peer or
// limit, ratio. Ratios are "jxcache relative to the peer": above 1 means jxcache is ahead, for
// throughputs as for sizes (where the limit is a ceiling). Writes the same rows as JSON.
// A benchmark found in several files (passes of the same program, run one after the other) counts
// with the median of its passes, jxcache's and the peers' alike: the speed of a shared machine
// drifts over seconds, and one pass can catch one side in a slow moment.
//
// Usage: bench_report <out.json> <bookkeeping.json> <benchmark.json>... [--extra figures.json...]
// Benchmark files are Google Benchmark JSON outputs; extra files hold
// {"figures": [{"figure":..., "jxcache":..., "peer":..., "peer_name":..., "unit":...}]}.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

using nlohmann::json;

namespace {

struct Row {
  std::string figure;
  std::optional<double> jx;
  std::optional<double> peer;
  std::string peerName;
  std::string unit;
  bool higherIsBetter = true;
};

using Passes = std::map<std::string, std::vector<json>>;

void LoadBenchmarks(const std::string& path, Passes& out) {
  std::ifstream in(path);
  if (!in) return;
  json doc = json::parse(in, nullptr, false);
  if (doc.is_discarded() || !doc.contains("benchmarks")) return;
  for (auto& b : doc["benchmarks"]) {
    if (b.contains("error_occurred") && b["error_occurred"].get<bool>()) continue;
    out[b["name"].get<std::string>()].push_back(b);
  }
}

// The median of `field` over the passes of benchmark `name` (the mean of the middle two for an
// even count); nothing when no pass has it.
std::optional<double> Median(const Passes& b, const std::string& name, const std::string& field) {
  auto it = b.find(name);
  if (it == b.end()) return std::nullopt;
  std::vector<double> values;
  for (const json& pass : it->second) {
    if (pass.contains(field)) values.push_back(pass[field].get<double>());
  }
  if (values.empty()) return std::nullopt;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

std::optional<double> Rate(const Passes& b, const std::string& name) {
  return Median(b, name, "items_per_second");
}

std::optional<double> Counter(const Passes& b, const std::string& name,
                              const std::string& counter) {
  return Median(b, name, counter);
}

size_t MostPasses(const Passes& b) {
  size_t most = 0;
  for (const auto& [name, passes] : b) most = std::max(most, passes.size());
  return most;
}

std::string Fmt(std::optional<double> v, const std::string& unit) {
  if (!v) return "n/a";
  char buf[64];
  if (unit == "ops/s") {
    std::snprintf(buf, sizeof buf, "%.2f M/s", *v / 1e6);
  } else if (unit == "MB/s") {
    std::snprintf(buf, sizeof buf, "%.0f MB/s", *v / 1e6);
  } else {
    std::snprintf(buf, sizeof buf, "%.1f %s", *v, unit.c_str());
  }
  return buf;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr,
                 "usage: bench_report <out.json> <bookkeeping.json> <benchmark.json>... "
                 "[--extra figures.json...]\n");
    return 2;
  }
  const std::string outPath = argv[1];
  const std::string bookkeepingPath = argv[2];
  Passes b;
  std::vector<std::string> extras;
  std::string replayPath;
  bool extra = false;
  for (int i = 3; i < argc; ++i) {
    if (std::string(argv[i]) == "--replay" && i + 1 < argc) {
      replayPath = argv[++i];
    } else if (std::string(argv[i]) == "--extra") {
      extra = true;
    } else if (extra) {
      extras.push_back(argv[i]);
    } else {
      LoadBenchmarks(argv[i], b);
    }
  }
  std::vector<Row> rows;
  for (const char* items : {"10000", "100000"}) {
    for (const char* threads : {"1", "2"}) {
      const std::string suffix = std::string("/") + items + "/real_time/threads:" + threads;
      const std::string label = std::string(items) + " items, " + threads + " thread" +
                                (std::string(threads) == "1" ? "" : "s");
      auto jx = Rate(b, "BM_ScCheckoutHit" + suffix);
      rows.push_back({"hit " + label + " vs tbb::concurrent_lru_cache", jx,
                      Rate(b, "BM_TbbLruHit" + suffix), "tbb", "ops/s"});
      rows.push_back({"hit " + label + " vs OIIO ImageCache::get_tile", jx,
                      Rate(b, "BM_OiioGetTileHit" + suffix), "oiio", "ops/s"});
      rows.push_back({"hit " + label + " vs mutex+map+list LRU", jx,
                      Rate(b, "BM_SimpleLruHit" + suffix), "simple", "ops/s"});
    }
  }
  // Growth: the hit at a million items against the same at 100,000 (1.00x: no slower).
  for (const char* threads : {"1", "2"}) {
    const std::string suffix = std::string("/real_time/threads:") + threads;
    rows.push_back({std::string("hit 1000000 items, ") + threads + " thread(s) vs 100000 items",
                    Rate(b, "BM_ScCheckoutHit/1000000" + suffix),
                    Rate(b, "BM_ScCheckoutHit/100000" + suffix), "100k", "ops/s"});
  }
  for (const char* threads : {"1", "2"}) {
    const std::string suffix = std::string("/real_time/threads:") + threads;
    auto jx = Rate(b, "BM_MissCreateFillCheckin" + suffix);
    rows.push_back({std::string("miss, ") + threads + " thread(s) vs tbb", jx,
                    Rate(b, "BM_TbbLruMiss" + suffix), "tbb", "ops/s"});
    rows.push_back({std::string("miss, ") + threads + " thread(s) vs mutex+map+list LRU", jx,
                    Rate(b, "BM_SimpleLruMiss" + suffix), "simple", "ops/s"});
    // Measured in turns inside one benchmark (see bench/compute_bench.cpp).
    const std::string paired = "BM_ComputeHitBesideScCheckoutHit/min_time:2.000" + suffix;
    rows.push_back(
        {std::string("compute-cache hit, ") + threads + " thread(s) vs JX_ScCheckout hit",
         Counter(b, paired, "compute_per_second"), Counter(b, paired, "scoped_per_second"),
         "scoped", "ops/s"});
  }
  const std::string walk100k = "BM_PurgeWalkHalf/100000/iterations:3";
  const std::string walk1m = "BM_PurgeWalkHalf/1000000/iterations:3";
  rows.push_back({"purge walk, ns per item examined (100,000 items)",
                  Counter(b, walk100k, "ns_per_examined"), std::nullopt, "", "ns", false});
  rows.push_back({"purge walk, ns per item freed (100,000 items)",
                  Counter(b, walk100k, "ns_per_freed"), std::nullopt, "", "ns", false});
  // At most twice the cost per item of 100,000 items: a ratio of at least 0.5x.
  rows.push_back({"purge walk, ns per item freed (1,000,000 items) vs 100,000 items",
                  Counter(b, walk1m, "ns_per_freed"), Counter(b, walk100k, "ns_per_freed"), "100k",
                  "ns", false});
  // Each pair is measured in turns inside one benchmark (see bench/disk_bench.cpp).
  const std::string write = "BM_DiskWrite8MiB/min_time:4.000/manual_time";
  const std::string read = "BM_DiskRead8MiB/min_time:4.000/manual_time";
  rows.push_back({"disk: PrepAndWrite 8 MiB vs raw O_DIRECT write, same folder",
                  Counter(b, write, "jx_bytes_per_second"),
                  Counter(b, write, "raw_bytes_per_second"), "raw", "MB/s"});
  rows.push_back({"disk: PrepAndRead 8 MiB vs raw read of the same file",
                  Counter(b, read, "jx_bytes_per_second"), Counter(b, read, "raw_bytes_per_second"),
                  "raw", "MB/s"});
  // The floor of any read that verifies a checksum on one thread: how near the library comes.
  rows.push_back({"disk: PrepAndRead 8 MiB vs raw read + XXH3 of each 128 KiB slice",
                  Counter(b, read, "jx_bytes_per_second"),
                  Counter(b, read, "raw_hashed_bytes_per_second"), "raw+XXH3", "MB/s"});
  const std::string scan = "BM_DiskFolderScan/", listing = "BM_DiskListing/";
  const std::string timing = "/min_time:1.000/real_time";
  rows.push_back({"disk: folder scan of 10,000 files vs bare listing (files/s)",
                  Rate(b, scan + "10000" + timing), Rate(b, listing + "10000" + timing), "listing",
                  "ops/s"});
  rows.push_back({"disk: folder scan of 100,000 files vs bare listing (files/s)",
                  Rate(b, scan + "100000" + timing), Rate(b, listing + "100000" + timing),
                  "listing", "ops/s"});
  // Linear growth keeps the rate per file: 1.00x.
  rows.push_back({"disk: folder scan, files/s at 100,000 files vs at 10,000",
                  Rate(b, scan + "100000" + timing), Rate(b, scan + "10000" + timing), "10k",
                  "ops/s"});
  {
    std::ifstream in(bookkeepingPath);
    json k = in ? json::parse(in, nullptr, false) : json();
    std::optional<double> bytes;
    if (!k.is_discarded() && k.contains("bytes_with_allocator_per_item")) {
      bytes = k["bytes_with_allocator_per_item"].get<double>();
    }
    rows.push_back({"bookkeeping bytes per item (limit 320)", bytes, 320.0, "limit", "B", false});
  }
  {
    std::optional<double> rps;
    std::ifstream in(replayPath);
    json r = in ? json::parse(in, nullptr, false) : json();
    if (!r.is_discarded() && r.contains("runs") && !r["runs"].empty() &&
        r["runs"][0]["requests"].get<uint64_t>() > 0) {
      rps = r["runs"][0]["requests_per_second"].get<double>();
    }
    rows.push_back(
        {"replay of 1,000,000 requests at 256 MiB, requests/s", rps, std::nullopt, "", "ops/s"});
  }
  for (const std::string& path : extras) {
    std::ifstream in(path);
    json extra = in ? json::parse(in, nullptr, false) : json();
    if (extra.is_discarded() || !extra.contains("figures")) continue;
    for (auto& f : extra["figures"]) {
      Row r{f["figure"].get<std::string>(), std::nullopt,        std::nullopt,
            f.value("peer_name", ""),       f.value("unit", ""), f.value("higher_is_better", true)};
      if (f.contains("jxcache") && !f["jxcache"].is_null()) r.jx = f["jxcache"].get<double>();
      if (f.contains("peer") && !f["peer"].is_null()) r.peer = f["peer"].get<double>();
      rows.push_back(r);
    }
  }

  json out = json::array();
  if (MostPasses(b) > 1) std::printf("(median of %zu passes)\n", MostPasses(b));
  std::printf("%-62s %14s %14s %8s\n", "figure", "jxcache", "peer/limit", "ratio");
  for (const Row& r : rows) {
    std::optional<double> ratio;
    if (r.jx && r.peer && *r.jx > 0 && *r.peer > 0) {
      ratio = r.higherIsBetter ? *r.jx / *r.peer : *r.peer / *r.jx;
    }
    char ratioText[32] = "-";
    if (ratio) std::snprintf(ratioText, sizeof ratioText, "%.2fx", *ratio);
    std::string peerText = r.peerName.empty() ? "-" : (r.peer ? Fmt(r.peer, r.unit) : "missing");
    std::printf("%-62s %14s %14s %8s\n", r.figure.c_str(), Fmt(r.jx, r.unit).c_str(),
                peerText.c_str(), ratioText);
    json row = {{"figure", r.figure}, {"unit", r.unit}};
    row["jxcache"] = r.jx ? json(*r.jx) : json(nullptr);
    row["peer"] = r.peer ? json(*r.peer) : json(nullptr);
    row["ratio"] = ratio ? json(*ratio) : json(nullptr);
    out.push_back(row);
  }
  std::ofstream(outPath) << json{{"passes", MostPasses(b)}, {"figures", out}}.dump(2) << "\n";
  return 0;
}
