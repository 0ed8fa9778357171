// Three `jxcache simulate` processes, each a node with its own disk cache folder, render the same
// job through one redis-server: every frame is rendered once on the whole farm, and every frame
// any node shows is the right one. A watchdog kills the nodes and fails the test if they hang.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "testing/redis_server.h"
#include "tools/jxcache/tool_test_support.h"

using jx::testing::RedisServer;
using jx::tool::testing::TempDir;

namespace {

constexpr auto kWatchdog = std::chrono::seconds(240);

struct Node {
  pid_t pid = -1;
  std::string out;
  int status = -1;
};

// Starts the binary with `args`, its standard output to `out`.
pid_t Spawn(const std::vector<std::string>& args, const std::string& out) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (!std::freopen(out.c_str(), "w", stdout)) ::_exit(126);
    std::vector<char*> argv;
    std::string binary = JXCACHE_BINARY;
    argv.push_back(binary.data());
    std::vector<std::string> copy = args;
    for (auto& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(binary.c_str(), argv.data());
    ::_exit(127);
  }
  return pid;
}

// Waits for every node; past the watchdog's deadline kills them all. False when it had to.
bool WaitOrKill(std::vector<Node>& nodes) {
  const auto deadline = std::chrono::steady_clock::now() + kWatchdog;
  size_t left = nodes.size();
  while (left > 0) {
    for (Node& n : nodes) {
      if (n.pid > 0 && ::waitpid(n.pid, &n.status, WNOHANG) == n.pid) {
        n.pid = -1;
        --left;
      }
    }
    if (left == 0) break;
    if (std::chrono::steady_clock::now() > deadline) {
      for (Node& n : nodes) {
        if (n.pid > 0) {
          ::kill(n.pid, SIGKILL);
          ::waitpid(n.pid, &n.status, 0);
        }
      }
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(FarmNodesTest, EachFrameIsRenderedOnceAcrossNodes) {
  RedisServer server;
  JX_REDIS_OR_SKIP(server, RedisServer::Listen::kLoopbackPort);
  TempDir dir;
  constexpr int kFrames = 36;
  std::vector<Node> nodes(3);
  for (size_t i = 0; i < nodes.size(); ++i) {
    const std::string name = "node-" + std::to_string(i);
    nodes[i].out = dir.File(name + ".json");
    // Each node starts at another seed's scrub, so that they meet on frames in every order.
    nodes[i].pid =
        Spawn({"simulate", "--frames", std::to_string(kFrames), "--passes", "3", "--threads", "2",
               "--memory", "64MiB", "--seed", std::to_string(i + 1), "--disk-cache", dir.File(name),
               "--farm", server.Address(), "--node", name, "--farm-wait", "60000",
               // Three nodes on a shared two-core machine: a slow answer is load
               // here, not a fault worth a second render.
               "--farm-timeout", "5000",
               // Sharing must pay on a loaded machine too, where a fetch can take as long as
               // a render: a frame the rule keeps to itself is rendered again by the next
               // node, which is right but not what this test counts.
               "--disk-proclivity", "0.1", "--json"},
              nodes[i].out);
    ASSERT_GT(nodes[i].pid, 0);
  }
  ASSERT_TRUE(WaitOrKill(nodes)) << "a node did not finish within the watchdog's limit";

  uint64_t renders = 0, farmHits = 0, farmWrites = 0, bad = 0, duplicates = 0;
  for (const Node& n : nodes) {
    ASSERT_TRUE(WIFEXITED(n.status) && WEXITSTATUS(n.status) == 0) << ReadText(n.out);
    const nlohmann::json j = nlohmann::json::parse(ReadText(n.out));
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
  // Every node showed every frame, so each frame it did not render came from the farm (or from
  // its own memory or folder after it had it once).
  EXPECT_GE(farmHits, uint64_t{kFrames} * (nodes.size() - 1));
}

}  // namespace
