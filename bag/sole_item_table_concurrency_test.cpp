// The sole-item table: resize thresholds, a model under churn, searches racing resizes.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "bag/sole_item_table.h"
#include "jxcache/host/spin_word.h"

namespace jx {
namespace {

using zelcore::threads::SpinWordGuard;

// Distinct addresses to file; the table never looks behind them.
constexpr int kStable = 16;
constexpr int kChurn = 600;
char g_items[kStable + kChurn];
const void* Item(size_t i) { return &g_items[i]; }
uintptr_t Addr(size_t i) { return reinterpret_cast<uintptr_t>(Item(i)); }

// Adds as the directory does: room first, then the entry.
void AddWithRoom(SoleItemTable& table, size_t hash, const void* item) {
  if (std::unique_ptr<SoleItemTable> grown = table.GrownForOneMore()) table.Adopt(*grown);
  table.Add(hash, item);
}

TEST(SoleItemTable, GrowsPastThreeQuartersAndShrinksBelowAnEighth) {
  SoleItemTable table;
  ASSERT_EQ(table.Capacity(), SoleItemTable::kInitialCapacity);
  for (size_t h = 1; h <= 12; ++h) {
    EXPECT_EQ(table.GrownForOneMore(), nullptr) << h;  // 12 of 16 is three quarters
    table.Add(h * 1000, Item(h));
  }
  std::unique_ptr<SoleItemTable> grown = table.GrownForOneMore();
  ASSERT_NE(grown, nullptr);
  EXPECT_EQ(grown->Capacity(), 32u);
  table.Adopt(*grown);
  EXPECT_EQ(table.Capacity(), 32u);
  EXPECT_EQ(grown->Capacity(), 16u);  // the old slots, handed back to be freed
  EXPECT_EQ(table.Used(), 12u);
  for (size_t h = 1; h <= 12; ++h) EXPECT_EQ(table.Find(h * 1000), Addr(h));

  // Up to 48 hashes (capacity 64), then down: 8 of 64 is an eighth and stays; 7 shrinks to the
  // smallest table at most half full.
  for (size_t h = 13; h <= 48; ++h) AddWithRoom(table, h * 1000, Item(h));
  ASSERT_EQ(table.Capacity(), 64u);
  for (size_t h = 48; h > 8; --h) table.Remove(h * 1000, 0, nullptr);
  EXPECT_EQ(table.ShrunkIfSparse(), nullptr);
  table.Remove(8000, 0, nullptr);
  std::unique_ptr<SoleItemTable> smaller = table.ShrunkIfSparse();
  ASSERT_NE(smaller, nullptr);
  EXPECT_EQ(smaller->Capacity(), 16u);
  table.Adopt(*smaller);
  for (size_t h = 1; h <= 7; ++h) EXPECT_EQ(table.Find(h * 1000), Addr(h));
  EXPECT_EQ(table.Find(8000), SoleItemTable::kNone);
  // The smallest table never shrinks.
  for (size_t h = 1; h <= 7; ++h) table.Remove(h * 1000, 0, nullptr);
  EXPECT_EQ(table.ShrunkIfSparse(), nullptr);
  EXPECT_EQ(table.Used(), 0u);
}

// Adding and removing phases over a small hash pool (long and wrapping probe runs, shared hashes,
// absent removals): after every step each hash is found as the model says.
TEST(SoleItemTable, RandomChurnAgreesWithAModel) {
  std::mt19937_64 random(20240611);
  std::vector<size_t> pool(40);
  for (size_t& h : pool) h = random();
  // hash -> the items filed under it (an item may be filed twice, as two entries)
  std::map<size_t, std::multiset<int>> model;
  SoleItemTable table;
  size_t maxCapacity = 0;
  bool shrankBack = false;
  auto check = [&](int step) {
    size_t used = 0;
    for (size_t h : pool) {
      const auto it = model.find(h);
      const size_t n = it == model.end() ? 0 : it->second.size();
      used += n != 0;
      const uintptr_t want = n == 0   ? SoleItemTable::kNone
                             : n == 1 ? Addr(*it->second.begin())
                                      : SoleItemTable::kSeveral;
      ASSERT_EQ(table.Find(h), want) << "step " << step;
    }
    ASSERT_EQ(table.Used(), used) << "step " << step;
  };
  for (int step = 0; step < 4000; ++step) {
    const bool adding = (step / 500) % 2 == 0 ? random() % 4 != 0 : random() % 4 == 0;
    const size_t h = pool[random() % pool.size()];
    if (adding) {
      // At most three entries a hash, so that the removing phases empty the table.
      if (model.count(h) && model[h].size() == 3) continue;
      const int item = static_cast<int>(random() % 64);
      AddWithRoom(table, h, Item(item));
      model[h].insert(item);
    } else {
      if (auto it = model.find(h); it == model.end()) {
        table.Remove(h, 0, nullptr);
      } else {
        std::multiset<int>& items = it->second;
        items.erase(std::next(items.begin(), static_cast<long>(random() % items.size())));
        const size_t left = items.size();
        table.Remove(h, left, left == 1 ? Item(*items.begin()) : nullptr);
        if (left == 0) model.erase(it);
      }
      if (std::unique_ptr<SoleItemTable> smaller = table.ShrunkIfSparse()) table.Adopt(*smaller);
    }
    shrankBack = shrankBack || table.Capacity() < maxCapacity;
    maxCapacity = std::max(maxCapacity, table.Capacity());
    ASSERT_NO_FATAL_FAILURE(check(step));
  }
  // The walk did reach a grown table, and came back down.
  EXPECT_GE(maxCapacity, 64u);
  EXPECT_TRUE(shrankBack);
}

// While the writer resizes, a stable hash is always found with its item, and a churning one never
// under another's item.
TEST(SoleItemTableConcurrency, SearchesUnderTheSpinWordSurviveResizing) {
  constexpr int kReaders = 2;
  constexpr int kRounds = 12;
  constexpr int kSearches = 150000;
  std::vector<size_t> hashes(kStable + kChurn);
  std::mt19937_64 random(7);
  for (size_t& h : hashes) h = random();

  SoleItemTable table;
  std::atomic<uint32_t> spin{0};
  for (int i = 0; i < kStable; ++i) AddWithRoom(table, hashes[i], Item(i));

  std::barrier start(kReaders + 1);
  std::atomic<int> lost{0}, misfiled{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; ++r) {
    readers.emplace_back([&, r] {
      std::mt19937 pick(r);
      start.arrive_and_wait();
      for (int n = 0; n < kSearches; ++n) {
        const size_t i = pick() % hashes.size();
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

  // Tables made outside the spin word, adopted under it, freed after it.
  size_t largest = 0, smallestAfterGrowing = SIZE_MAX;
  start.arrive_and_wait();
  for (int round = 0; round < kRounds; ++round) {
    for (int i = kStable; i < kStable + kChurn; ++i) {
      std::unique_ptr<SoleItemTable> grown = table.GrownForOneMore();
      {
        SpinWordGuard g(spin);
        if (grown) table.Adopt(*grown);
        table.Add(hashes[i], Item(i));
        if (i % 3 == 0) table.Add(hashes[i], Item(i));
      }
      grown.reset();
    }
    largest = std::max(largest, table.Capacity());
    for (int i = kStable; i < kStable + kChurn; ++i) {
      {
        SpinWordGuard g(spin);
        if (i % 3 == 0) table.Remove(hashes[i], 1, Item(i));
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
