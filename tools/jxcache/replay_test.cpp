// Replay against a brute-force LRU by bytes: the library, purging by recency alone with no floor,
// must miss exactly where the textbook cache misses.
#include <gtest/gtest.h>

#include <fstream>
#include <list>
#include <random>
#include <unordered_map>
#include <unordered_set>

#include "tools/jxcache/tool_test_support.h"

namespace jx::tool {
namespace {

using testing::RunTool;
using testing::TempDir;

struct Request {
  uint64_t id;
  uint32_t size;
};

// The obvious LRU: a list in recency order and a byte total; an object larger than the cache
// is a miss and never kept. An object of size 0 takes no room, so evicting it would make none:
// it is kept for good.
struct BruteForce {
  uint64_t misses = 0, bytesMissed = 0;
};
BruteForce BruteForceLru(const std::vector<Request>& trace, uint64_t capacity) {
  std::list<Request> order;  // most recent first
  std::unordered_map<uint64_t, std::list<Request>::iterator> where;
  std::unordered_set<uint64_t> empty;  // objects of size 0 seen so far
  uint64_t held = 0;
  BruteForce r;
  for (const Request& q : trace) {
    if (empty.count(q.id)) continue;
    auto it = where.find(q.id);
    if (it != where.end()) {
      order.splice(order.begin(), order, it->second);
      continue;
    }
    ++r.misses;
    r.bytesMissed += q.size;
    if (q.size == 0) {
      empty.insert(q.id);
      continue;
    }
    if (q.size > capacity) continue;
    order.push_front(q);
    where[q.id] = order.begin();
    held += q.size;
    while (held > capacity) {
      held -= order.back().size;
      where.erase(order.back().id);
      order.pop_back();
    }
  }
  return r;
}

// A skewed trace: a hot set and a long tail, now and then an object too large for the small
// caches, objects of 0.9 to 1 times the smallest cache (each of which empties that cache of
// everything else), and objects of size 0. Each object keeps one size.
std::vector<Request> MakeTrace(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint32_t> sizeOf(3000);
  for (auto& s : sizeOf) s = 500 + rng() % 20000;
  sizeOf[7] = 3u << 20;  // larger than the smallest caches below
  for (uint32_t id = 2900; id < 2940; ++id) sizeOf[id] = (9u << 20) / 10 + rng() % (100u << 10);
  for (uint32_t id = 2940; id < 2950; ++id) sizeOf[id] = 0;
  std::vector<Request> trace;
  std::uniform_real_distribution<double> u(0, 1);
  for (size_t i = 0; i < n; ++i) {
    const double pick = u(rng);
    const uint64_t id = pick < 0.65   ? rng() % 150
                        : pick < 0.72 ? 2900 + rng() % 50
                                      : rng() % sizeOf.size();
    trace.push_back({id, sizeOf[id]});
  }
  return trace;
}

void WriteOracle(const std::string& path, const std::vector<Request>& trace) {
  std::ofstream f(path, std::ios::binary);
  uint32_t t = 0;
  for (const Request& q : trace) {
    unsigned char rec[24] = {};
    for (int b = 0; b < 4; ++b) rec[b] = static_cast<unsigned char>(t >> (8 * b));
    for (int b = 0; b < 8; ++b) rec[4 + b] = static_cast<unsigned char>(q.id >> (8 * b));
    for (int b = 0; b < 4; ++b) rec[12 + b] = static_cast<unsigned char>(q.size >> (8 * b));
    for (int b = 0; b < 8; ++b) rec[16 + b] = 0xFF;
    f.write(reinterpret_cast<const char*>(rec), 24);
    ++t;
  }
}

// Replay is a byte-sized LRU whatever the settings say: a settings file that puts the purge
// floor above the cache size would otherwise stop the purges altogether.
TEST(Replay, MissCountsEqualBruteForceLruAtSeveralSizes) {
  TempDir dir;
  const auto trace = MakeTrace(40000, 11);
  WriteOracle(dir.File("trace.bin"), trace);
  std::ofstream(dir.File("settings")) << "KQ.MinJXSizeToPurgeLimitRatioR=2\n";
  const std::vector<uint64_t> sizes = {1u << 20, 2u << 20, 5u << 20, 16u << 20, 64u << 20};
  auto r = RunTool(
      {"replay", dir.File("trace.bin"), "--cache-size", "1MiB,2MiB,5MiB,16MiB,64MiB", "--json"},
      {"JX_SETTINGS=" + dir.File("settings")});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const auto j = r.Json();
  ASSERT_EQ(j["runs"].size(), sizes.size());
  uint64_t previousMisses = UINT64_MAX;
  for (size_t i = 0; i < sizes.size(); ++i) {
    const auto& run = j["runs"][i];
    const BruteForce want = BruteForceLru(trace, sizes[i]);
    EXPECT_EQ(run["cache_size"].get<uint64_t>(), sizes[i]);
    EXPECT_EQ(run["requests"].get<uint64_t>(), trace.size());
    EXPECT_EQ(run["misses"].get<uint64_t>(), want.misses) << "cache size " << sizes[i];
    EXPECT_EQ(run["bytes_missed"].get<uint64_t>(), want.bytesMissed) << "cache size " << sizes[i];
    EXPECT_LE(run["peak_bytes"].get<uint64_t>(), sizes[i]);
    EXPECT_LE(run["misses"].get<uint64_t>(), previousMisses);
    previousMisses = run["misses"].get<uint64_t>();
  }
  EXPECT_GT(j["runs"][0]["too_large"].get<uint64_t>(), 0u);
  EXPECT_EQ(j["runs"][4]["too_large"].get<uint64_t>(), 0u);
}

TEST(Replay, CsvWithHeaderMatchesTheBinaryTrace) {
  TempDir dir;
  const auto trace = MakeTrace(5000, 3);
  WriteOracle(dir.File("t.bin"), trace);
  {
    std::ofstream f(dir.File("t.csv"));
    f << "id,size\r\n";
    for (const Request& q : trace) f << q.id << "," << q.size << "\n";
  }
  auto bin = RunTool({"replay", dir.File("t.bin"), "--cache-size", "2MiB", "--json"});
  auto csv = RunTool({"replay", dir.File("t.csv"), "--cache-size", "2MiB", "--json"});
  ASSERT_EQ(bin.exitCode, 0) << bin.err;
  ASSERT_EQ(csv.exitCode, 0) << csv.err;
  EXPECT_EQ(csv.Json()["format"], "csv");
  EXPECT_EQ(bin.Json()["runs"][0]["misses"], csv.Json()["runs"][0]["misses"]);
  EXPECT_EQ(bin.Json()["runs"][0]["misses"].get<uint64_t>(), BruteForceLru(trace, 2u << 20).misses);

  auto text = RunTool({"replay", dir.File("t.csv"), "--cache-size", "2MiB"});
  ASSERT_EQ(text.exitCode, 0);
  EXPECT_NE(text.out.find("byte miss ratio"), std::string::npos);
  EXPECT_NE(text.out.find("2.00 MiB"), std::string::npos);
}

}  // namespace
}  // namespace jx::tool
