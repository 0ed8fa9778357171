// The sole-item table: shared hashes marked and unmarked, growth and shrinking at their
// thresholds, and, against a plain model under random churn, probing and backward-shift removal
// (runs that wrap around the end of the table, holes filled from later in the run).
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "bag/sole_item_table.h"

namespace jx {
namespace {

// Distinct addresses to file; the table never looks behind them.
char g_items[64];
const void* Item(int i) { return &g_items[i]; }
uintptr_t Addr(int i) { return reinterpret_cast<uintptr_t>(Item(i)); }

// Adds as the directory does: room first, then the entry.
void AddWithRoom(SoleItemTable& table, size_t hash, const void* item) {
  if (std::unique_ptr<SoleItemTable> grown = table.GrownForOneMore()) table.Adopt(*grown);
  table.Add(hash, item);
}
void ShrinkIfSparse(SoleItemTable& table) {
  if (std::unique_ptr<SoleItemTable> smaller = table.ShrunkIfSparse()) table.Adopt(*smaller);
}

TEST(SoleItemTable, SharedHashesAreMarkedUntilOneEntryIsLeft) {
  SoleItemTable table;
  EXPECT_EQ(table.Find(42), SoleItemTable::kNone);
  table.Add(42, Item(1));
  table.Add(7, Item(2));
  EXPECT_EQ(table.Find(42), Addr(1));
  table.Add(42, Item(3));
  table.Add(42, Item(4));
  EXPECT_EQ(table.Find(42), SoleItemTable::kSeveral);
  EXPECT_EQ(table.Used(), 2u);  // a hash takes one slot however many entries share it

  table.Remove(42, 2, nullptr);
  EXPECT_EQ(table.Find(42), SoleItemTable::kSeveral);
  table.Remove(42, 1, Item(4));
  EXPECT_EQ(table.Find(42), Addr(4));
  table.Remove(42, 0, nullptr);
  EXPECT_EQ(table.Find(42), SoleItemTable::kNone);
  EXPECT_EQ(table.Used(), 1u);
  // A hash that is not there: nothing changes.
  table.Remove(42, 0, nullptr);
  EXPECT_EQ(table.Used(), 1u);
  EXPECT_EQ(table.Find(7), Addr(2));
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

// Random adds and removals over a small pool of hashes keep the table three quarters full at
// times and nearly empty at others: long probe runs, runs that wrap around the end, removals
// from the middle of a run. After every step each hash of the pool must be found as the model
// says.
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
    // Phases of 500 steps that mostly add, then mostly remove.
    const bool adding = (step / 500) % 2 == 0 ? random() % 4 != 0 : random() % 4 == 0;
    const size_t h = pool[random() % pool.size()];
    if (adding) {
      // At most three entries a hash, so that the removing phases empty the table.
      if (model.count(h) && model[h].size() == 3) continue;
      const int item = static_cast<int>(random() % 64);
      AddWithRoom(table, h, Item(item));
      model[h].insert(item);
    } else if (auto it = model.find(h); it != model.end()) {
      std::multiset<int>& items = it->second;
      items.erase(std::next(items.begin(), static_cast<long>(random() % items.size())));
      const size_t left = items.size();
      table.Remove(h, left, left == 1 ? Item(*items.begin()) : nullptr);
      if (left == 0) model.erase(it);
      ShrinkIfSparse(table);
    }
    shrankBack = shrankBack || table.Capacity() < maxCapacity;
    maxCapacity = std::max(maxCapacity, table.Capacity());
    ASSERT_NO_FATAL_FAILURE(check(step));
  }
  // The walk did reach a grown table, and came back down.
  EXPECT_GE(maxCapacity, 64u);
  EXPECT_TRUE(shrankBack);
}

}  // namespace
}  // namespace jx
