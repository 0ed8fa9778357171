// Three `jxcache simulate` nodes render one job through one redis-server, under a watchdog.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "testing/redis_server.h"
#include "tools/jxcache/tool_test_support.h"

using jx::testing::RedisServer;
using jx::tool::testing::TempDir;

namespace {

TEST(FarmNodesTest, EachFrameIsRenderedOnceAcrossNodes) {
  RedisServer server;
  JX_REDIS_OR_SKIP(server, RedisServer::Listen::kLoopbackPort);
  TempDir dir;
  constexpr int kFrames = 36;
  std::vector<std::vector<std::string>> nodes;
  for (size_t i = 0; i < 3; ++i) {
    const std::string name = "node-" + std::to_string(i);
    // Each node starts at another seed's scrub, so that they meet on frames in every order.
    nodes.push_back(
        {"simulate", "--frames", std::to_string(kFrames), "--passes", "3", "--threads", "2",
         "--memory", "64MiB", "--seed", std::to_string(i + 1), "--disk-cache", dir.File(name),
         "--farm", server.Address(), "--node", name, "--farm-wait", "60000",
         // Three nodes on a shared two-core machine: a slow answer is load here, not a fault.
         "--farm-timeout", "5000",
         // On a loaded machine a fetch can take as long as a render: share anyway.
         "--disk-proclivity", "0.1", "--json"});
  }
  const auto results = jx::tool::testing::RunToolsAtOnce(nodes, std::chrono::seconds(240));
  for (const auto& r : results)
    ASSERT_FALSE(r.killed) << "a node did not finish within the watchdog's limit";

  uint64_t renders = 0, farmHits = 0, farmWrites = 0, bad = 0, duplicates = 0;
  for (const auto& r : results) {
    ASSERT_EQ(r.exitCode, 0) << r.err << r.out;
    const nlohmann::json j = r.Json();
    for (const auto& p : j["passes"]) {
      renders += p["renders"].get<uint64_t>();
      bad += p["bad_frames"].get<uint64_t>();
    }
    const auto& farm = j["farm"];
    ASSERT_TRUE(farm["used"].get<bool>());
    farmHits += farm["hits"].get<uint64_t>();
    farmWrites += farm["writes"].get<uint64_t>();
    duplicates += farm["duplicate_writes"].get<uint64_t>();
    EXPECT_EQ(farm["errors"].get<uint64_t>(), 0u) << farm.dump();
    EXPECT_EQ(farm["corrupt"].get<uint64_t>(), 0u);
    EXPECT_EQ(farm["not_worth_sharing"].get<uint64_t>(), 0u);
  }
  EXPECT_EQ(renders, uint64_t{kFrames});
  EXPECT_EQ(farmWrites, uint64_t{kFrames});
  EXPECT_EQ(duplicates, 0u);
  EXPECT_EQ(bad, 0u);
  // Each frame a node did not render came from the farm, or from itself after that.
  EXPECT_GE(farmHits, uint64_t{kFrames} * (nodes.size() - 1));
}

}  // namespace
