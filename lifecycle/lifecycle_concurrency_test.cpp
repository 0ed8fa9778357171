// Shutting background work down while render threads still ask for the disk executor and queue
// the idle disk task: no torn handle, and no work runs once JX_StopAllAsyncWork has returned.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "jxcache/host/executor.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"

namespace {

TEST(AsyncShutdownTest, StopWhileOtherThreadsPostAndQueue) {
  jx::StandaloneHost::Instance().Reset();
  jx::StandaloneHost::Instance().SetEchoReports(false);
  JX_Birth(false, 1, false);

  constexpr int kPosters = 2, kLoopsEachSide = 500;  // loops per poster before and after the stop
  std::atomic<bool> stopped{false}, done{false};
  std::atomic<int> loops[kPosters] = {};
  std::atomic<int> ranAfterStop{0};
  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&, p] {
      while (!done.load()) {
        // A copy taken just before the stop may still be posted to: it must refuse, not run.
        if (auto executor = jx::DiskExecutor()) {
          executor->Post([&] {
            if (stopped.load()) ranAfterStop.fetch_add(1);
          });
        }
        jx::QueueIdleDiskTask();
        loops[p].fetch_add(1);
      }
    });
  }
  auto waitForLoops = [&](int target) {
    for (auto& n : loops) {
      while (n.load() < target) std::this_thread::yield();
    }
  };

  waitForLoops(kLoopsEachSide);
  JX_StopAllAsyncWork();
  stopped.store(true);
  EXPECT_FALSE(jx::DiskExecutor());
  int reached = 0;
  for (auto& n : loops) reached = std::max(reached, n.load());
  waitForLoops(reached + kLoopsEachSide);
  done.store(true);
  for (auto& t : posters) t.join();

  EXPECT_EQ(ranAfterStop.load(), 0);
  JX_StopAllAsyncWork();  // a second stop finds nothing to stop
  JX_Death();
}

}  // namespace
