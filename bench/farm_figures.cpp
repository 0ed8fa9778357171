// The farm tier against what its server can do: a farm hit of an 8 MiB frame (FarmStore::Get:
// the GET, the header's checks and the XXH3-128 of the payload, as every lookup reads a value)
// against a raw hiredis GET of the very same value from the same server. Both run in turns in
// one process on a redis-server of its own (a unix socket, no persistence), so that a machine
// whose speed drifts slows both alike. Prints the figures as JSON for bench_report (--extra).
#include <hiredis/hiredis.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "farm/farm_store.h"
#include "farm/redis_client.h"
#include "jxcache/host/guid.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"
#include "testing/redis_process.h"

namespace {

constexpr size_t kFrameBytes = 8u << 20;
constexpr int kRounds = 60;

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

nlohmann::json Missing(const char* why) {
  std::fprintf(stderr, "farm_figures: %s\n", why);
  return {{"figures", nlohmann::json::array()}};
}

nlohmann::json Measure(const std::string& socket) {
  // The server already answered PING (RedisProcess::Start waits for it).
  const timeval timeout{5, 0};
  redisContext* raw = redisConnectUnixWithTimeout(socket.c_str(), timeout);
  if (!raw || raw->err) {
    if (raw) redisFree(raw);
    return Missing("redis-server did not answer");
  }
  redisSetTimeout(raw, timeout);

  jx::farm::Address address;
  std::string why;
  jx::farm::ParseAddress("unix://" + socket, &address, &why);
  jx::farm::RedisPool::Options options;
  options.address = address;
  options.commandTimeout = std::chrono::milliseconds(5000);
  jx::farm::RedisPool pool(options);
  jx::farm::FarmStore store(pool, "bench", {});
  jx::farm::Identity id;
  id.guid = zelcore::utility::Guid::CreateUnique();
  id.matchName = "BenchFrame";
  id.version = 1;
  id.header = {1, 2, 3, 4};
  std::string frame(kFrameBytes, '\0');
  for (size_t i = 0; i < kFrameBytes; ++i) frame[i] = static_cast<char>((i * 2654435761u) >> 13);
  if (store.Put(id, frame, 1.0) != jx::farm::FarmStore::PutStatus::kWritten) {
    redisFree(raw);
    return Missing("could not store the frame");
  }
  const std::string key = jx::farm::KeyOf(id);

  bool allGood = true;
  std::vector<double> times[2];                     // ours, raw: each round's seconds
  for (int round = -2; round < kRounds; ++round) {  // two rounds to warm up, not counted
    double seconds[2] = {0, 0};
    for (int turn = 0; turn < 2; ++turn) {
      const bool ours = (turn == 0) == (round % 2 == 0);
      const auto t0 = std::chrono::steady_clock::now();
      if (ours) {
        const jx::farm::FarmStore::Fetched got = store.Get(id);
        seconds[0] = Seconds(t0);
        allGood = allGood && got.status == jx::farm::FarmStore::GetStatus::kHit &&
                  got.payload.size() == kFrameBytes;
        if (round == 0) allGood = allGood && got.payload == frame;
      } else {
        auto* r = static_cast<redisReply*>(redisCommand(raw, "GET %b", key.data(), key.size()));
        seconds[1] = Seconds(t0);
        allGood = allGood && r && r->type == REDIS_REPLY_STRING && r->len > kFrameBytes;
        if (r) freeReplyObject(r);
      }
    }
    if (round >= 0) {
      times[0].push_back(seconds[0]);
      times[1].push_back(seconds[1]);
    }
  }
  redisFree(raw);
  if (!allGood) return Missing("a read came back wrong");
  // The median round of each: a shared machine's other work lands on a few rounds of either
  // side, and a total would charge it to whichever side it hit.
  double rate[2];
  for (int side = 0; side < 2; ++side) {
    std::vector<double>& t = times[side];
    std::nth_element(t.begin(), t.begin() + t.size() / 2, t.end());
    rate[side] = kFrameBytes / t[t.size() / 2];
  }
  std::fprintf(stderr,
               "farm_figures: farm hit %.0f MB/s, raw GET %.0f MB/s (median of %d rounds)\n",
               rate[0] / 1e6, rate[1] / 1e6, kRounds);
  return {{"figures",
           {{{"figure", "farm: hit of 8 MiB (checked) vs raw hiredis GET, same server"},
             {"jxcache", rate[0]},
             {"peer", rate[1]},
             {"peer_name", "raw GET"},
             {"unit", "MB/s"}}}}};
}

}  // namespace

int main() {
  if (jx::testing::FindRedisServer().empty()) {
    std::printf("%s\n", Missing("redis-server is not installed").dump(2).c_str());
    return 0;
  }
  char pattern[] = "/tmp/jx-farm-bench-XXXXXX";
  if (!::mkdtemp(pattern)) return 1;
  const std::string dir = pattern;
  const std::string socket = dir + "/redis.sock";
  nlohmann::json figures;
  {
    jx::testing::RedisProcess server;
    std::string why;
    if (!server.Start(dir, "unix://" + socket,
                      {"--port", "0", "--unixsocket", socket, "--maxmemory", "256mb"}, &why)) {
      figures = Missing(why.c_str());
    } else {
      jx::StandaloneHost::Instance().SetEchoReports(false);
      JX_Birth(false, 1, false);
      figures = Measure(socket);
      JX_Death();
    }
  }
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  std::printf("%s\n", figures.dump(2).c_str());
  return 0;
}
