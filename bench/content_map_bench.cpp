// The content map of a 100,000-item cache: how long a snapshot takes and the longest single hold
// of the library lock it needed, alone and with two threads hitting the cache meanwhile.
// Prints one line per case; usage: content_map_bench [items] [rounds].
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "jxcache/bag/content_map.h"
#include "jxcache/bag/global_bag.h"

namespace {

struct Figures {
  std::vector<double> totalMs;
  double maxHoldMs = 0;
  uint32_t holds = 0;
  size_t rows = 0;
};

Figures Measure(int rounds) {
  Figures f;
  for (int i = 0; i < rounds; ++i) {
    const JX_ContentSnapshot snap = JX_TakeGlobalContentSnapshot();
    f.totalMs.push_back(static_cast<double>(snap.totalNanos) / 1e6);
    f.maxHoldMs = std::max(f.maxHoldMs, static_cast<double>(snap.maxLockHoldNanos) / 1e6);
    f.holds = snap.lockHolds;
    f.rows = snap.rows.size();
  }
  std::sort(f.totalMs.begin(), f.totalMs.end());
  return f;
}

void Print(const char* what, const Figures& f) {
  std::printf(
      "%-28s rows %zu  snapshot median %.1f ms, max %.1f ms  lock holds %u, longest %.3f ms\n",
      what, f.rows, f.totalMs[f.totalMs.size() / 2], f.totalMs.back(), f.holds, f.maxHoldMs);
}

}  // namespace

int main(int argc, char** argv) {
  const size_t items = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 10;
  jx::bench::EnsureLibrary();
  const auto& guids = jx::bench::FillBag(items);
  Print("idle cache:", Measure(rounds));

  std::atomic<bool> stop{false};
  std::atomic<uint64_t> hits{0};
  std::vector<std::thread> hitters;
  for (int t = 0; t < 2; ++t) {
    hitters.emplace_back([&, t] {
      jx::bench::Requests requests(guids, t);
      auto bag = JX_GlobalBag();
      while (!stop.load(std::memory_order_relaxed)) {
        JX_Bag::StuffPtr found;
        bool created = false;
        if (bag->FindAndCheckout(requests.Next(), jx::checkout_flags::kReadOnly, &found,
                                 &created) == kJX_CheckedOut) {
          found->Checkin(0, 0.0);
          hits.fetch_add(1, std::memory_order_relaxed);
        }
      }
    });
  }
  Print("two threads hitting:", Measure(rounds));
  stop = true;
  for (auto& t : hitters) t.join();
  std::printf("hits meanwhile: %llu\n", static_cast<unsigned long long>(hits.load()));
  return 0;
}
