// What the cache costs per frame of the main job: `simulate`'s playback pass over frames that
// are all in memory, served by jxcache and by the mutex+map+list LRU. Each side does the work
// `simulate` does for a frame it is given: build the request, find the frame, check the pixels
// it samples, ask the histogram plug-in (through the compute cache) and give the frame back.
// The frames are rendered once and shared by both sides, so the difference is the look-up, the
// check-out and the check-in. The two sides run in turns; each figure is the median of its turns.
//
// Prints {"figures": [...]} for bench_report (see scripts/run-bench.sh).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <list>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <unordered_map>
#include <vector>

#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"
#include "tools/jxcache/frame_payload.h"
#include "tools/jxcache/histogram_plugin.h"
#include "tools/jxcache/library_run.h"

namespace cf = jx::checkout_flags;
using jx::tool::FramePayload;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr uint32_t kWidth = 1280, kHeight = 720, kFrames = 240;
constexpr unsigned kThreads = 2;
constexpr int kPassesPerTurn = 20;
constexpr int kTurns = 5;

// The peer: one mutex, a hash map from frame number to frame and a recency list.
class SimpleFrameLru {
 public:
  void Put(uint32_t frame, IntrusivePtr<FramePayload> payload) {
    std::lock_guard<std::mutex> lock(mutex_);
    order_.emplace_back(frame, std::move(payload));
    map_[frame] = std::prev(order_.end());
  }
  IntrusivePtr<FramePayload> Get(uint32_t frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = map_.find(frame);
    if (it == map_.end()) return {};
    order_.splice(order_.end(), order_, it->second);
    return it->second->second;
  }

 private:
  using Entry = std::pair<uint32_t, IntrusivePtr<FramePayload>>;
  std::mutex mutex_;
  std::list<Entry> order_;
  std::unordered_map<uint32_t, std::list<Entry>::iterator> map_;
};

// Runs `passes` forward passes of every frame on kThreads threads, which take the frames in
// order as `simulate`'s render threads do. `serve(frame)` returns false for a frame it could not
// serve whole. Returns frames per second; counts the frames not served in *bad.
template <class Serve>
double RunPasses(int passes, Serve serve, std::atomic<uint64_t>* bad) {
  std::atomic<uint64_t> next{0};
  const uint64_t total = uint64_t{kFrames} * passes;
  const auto t0 = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (uint64_t i; (i = next.fetch_add(1, std::memory_order_relaxed)) < total;) {
        if (!serve(static_cast<uint32_t>(i % kFrames))) bad->fetch_add(1);
      }
    });
  }
  for (auto& t : threads) t.join();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  return static_cast<double>(total) / seconds;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main() {
  jx::tool::LibraryRun run(/*mediaMapAllowed=*/false, 1);
  jx::StandaloneHost::Instance().SetMemoryLimit(uint64_t{16} << 30);  // never purges here
  JX_VX_Birth();
  jx::tool::HistogramPlugin plugin;

  // Rendered once; both sides hand out the same payloads.
  SimpleFrameLru lru;
  for (uint32_t f = 0; f < kFrames; ++f) {
    IntrusivePtr<FramePayload> frame = FramePayload::Render(kWidth, kHeight, f);
    IntrusivePtr<JX_Stuff> item = JX_Stuff::CreateNew(frame, 0.0);
    item->SetGuid(FramePayload::KeyOf(kWidth, kHeight, f));
    run.bag().AddToBagAndSortDir(item);
    lru.Put(f, frame);
  }

  const int flags = cf::kReadOnly | cf::kCreatePending | cf::kWaitAlways | cf::kNoDiskRead;
  auto viaCache = [&](uint32_t f) {
    IntrusivePtr<JX_Stuff> request =
        JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new FramePayload(kWidth, kHeight, f)), 0.0);
    request->SetGuid(FramePayload::KeyOf(kWidth, kHeight, f));
    JX_ScCheckout handle;
    if (handle.FindAndCheckout(request, flags) != kJX_CheckedOut) return false;
    IntrusivePtr<JX_Stuff> item = handle.GetStuffPtr();
    auto* frame = dynamic_cast<FramePayload*>(item ? item->GetDataPtr().get() : nullptr);
    if (!frame || frame->Frame() != f || !frame->Verify()) return false;
    return plugin.Histogram(*frame) != 0;
  };
  auto viaLru = [&](uint32_t f) {
    // The request is built as the cache's side builds it: the host makes it either way.
    IntrusivePtr<FramePayload> request(new FramePayload(kWidth, kHeight, f));
    IntrusivePtr<FramePayload> frame = lru.Get(request->Frame());
    if (!frame || frame->Frame() != f || !frame->Verify()) return false;
    return plugin.Histogram(*frame) != 0;
  };

  std::atomic<uint64_t> badCache{0}, badLru{0};
  RunPasses(1, viaCache, &badCache);  // computes the histograms, warms both sides
  RunPasses(1, viaLru, &badLru);
  std::vector<double> cacheRates, lruRates;
  for (int turn = 0; turn < kTurns; ++turn) {
    cacheRates.push_back(RunPasses(kPassesPerTurn, viaCache, &badCache));
    lruRates.push_back(RunPasses(kPassesPerTurn, viaLru, &badLru));
  }
  if (badCache.load() || badLru.load() || plugin.Computes() != kFrames) {
    std::fprintf(stderr,
                 "main_job_figures: frames not served whole: %llu (cache), %llu (LRU); histograms "
                 "computed %llu times for %u frames\n",
                 static_cast<unsigned long long>(badCache.load()),
                 static_cast<unsigned long long>(badLru.load()),
                 static_cast<unsigned long long>(plugin.Computes()), kFrames);
    return 1;
  }
  const double cache = Median(cacheRates), peer = Median(lruRates);
  nlohmann::json figures = nlohmann::json::array();
  figures.push_back({{"figure",
                      "main job: pass from memory, 240 frames 1280x720, 2 threads, frames/s "
                      "vs mutex+map+list LRU"},
                     {"jxcache", cache},
                     {"peer", peer},
                     {"peer_name", "simple"},
                     {"unit", "frames/s"}});
  figures.push_back({{"figure", "main job: thread time jxcache adds per frame over the LRU, us"},
                     {"jxcache", std::max(0.0, (1.0 / cache - 1.0 / peer) * 1e6 * kThreads)},
                     {"peer", nullptr},
                     {"unit", "us"},
                     {"higher_is_better", false}});
  std::printf("%s\n", nlohmann::json{{"figures", figures}}.dump(2).c_str());
  return 0;
}
