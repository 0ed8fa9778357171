// The sole-item table searched by readers under a spin word, as a directory shard does, while
// its one writer adds and removes hashes, growing the table to many times its size and shrinking
// it back (new tables made outside the spin word, adopted under it, old slots freed after it).
// A hash that stays in the table throughout must be found, with its item, by every search; a
// hash that comes and goes may be missing or shared but never filed under another hash's item.
// The ThreadSanitizer build checks that the spin word is all the ordering the table needs.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdint>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "bag/sole_item_table.h"
#include "jxcache/host/spin_word.h"

namespace jx {
namespace {

using zelcore::threads::SpinWordGuard;

constexpr int kStable = 16;
constexpr int kChurn = 600;
char g_items[kStable + kChurn];
uintptr_t Addr(int i) { return reinterpret_cast<uintptr_t>(&g_items[i]); }

TEST(SoleItemTableConcurrency, SearchesUnderTheSpinWordSurviveResizing) {
  constexpr int kReaders = 2;
  constexpr int kRounds = 12;
  constexpr int kSearches = 150000;
  std::vector<size_t> hashes(kStable + kChurn);
  std::mt19937_64 random(7);
  for (size_t& h : hashes) h = random();

  SoleItemTable table;
  std::atomic<uint32_t> spin{0};
  for (int i = 0; i < kStable; ++i) {
    if (std::unique_ptr<SoleItemTable> grown = table.GrownForOneMore()) table.Adopt(*grown);
    table.Add(hashes[i], &g_items[i]);
  }

  std::barrier start(kReaders + 1);
  std::atomic<int> lost{0}, misfiled{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; ++r) {
    readers.emplace_back([&, r] {
      std::mt19937 pick(r);
      start.arrive_and_wait();
      for (int n = 0; n < kSearches; ++n) {
        const int i = static_cast<int>(pick() % hashes.size());
        uintptr_t found;
        {
          SpinWordGuard g(spin);
          found = table.Find(hashes[i]);
        }
        if (i < kStable && found != Addr(i)) lost.fetch_add(1, std::memory_order_relaxed);
        if (found != SoleItemTable::kNone && found != SoleItemTable::kSeveral && found != Addr(i)) {
          misfiled.fetch_add(1, std::memory_order_relaxed);
        }
      }
    });
  }

  // The writer: in each round every churning hash joins (some twice, so that they are shared
  // for a while) and leaves again.
  size_t largest = 0, smallestAfterGrowing = SIZE_MAX;
  start.arrive_and_wait();
  for (int round = 0; round < kRounds; ++round) {
    for (int i = kStable; i < kStable + kChurn; ++i) {
      std::unique_ptr<SoleItemTable> grown = table.GrownForOneMore();
      {
        SpinWordGuard g(spin);
        if (grown) table.Adopt(*grown);
        table.Add(hashes[i], &g_items[i]);
        if (i % 3 == 0) table.Add(hashes[i], &g_items[i]);
      }
      grown.reset();  // the old slots, freed outside the spin word
    }
    largest = std::max(largest, table.Capacity());
    for (int i = kStable; i < kStable + kChurn; ++i) {
      {
        SpinWordGuard g(spin);
        if (i % 3 == 0) table.Remove(hashes[i], 1, &g_items[i]);
        table.Remove(hashes[i], 0, nullptr);
      }
      if (std::unique_ptr<SoleItemTable> smaller = table.ShrunkIfSparse()) {
        SpinWordGuard g(spin);
        table.Adopt(*smaller);
      }
    }
    smallestAfterGrowing = std::min(smallestAfterGrowing, table.Capacity());
  }
  for (auto& t : readers) t.join();

  EXPECT_EQ(lost.load(), 0);
  EXPECT_EQ(misfiled.load(), 0);
  // The writer did resize under the readers: up to 1024 slots, and down to a few dozen again.
  EXPECT_GE(largest, 1024u);
  EXPECT_LE(smallestAfterGrowing, 64u);
  EXPECT_EQ(table.Used(), static_cast<size_t>(kStable));
}

}  // namespace
}  // namespace jx
