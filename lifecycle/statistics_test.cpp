// Counters move with their work, a reset zeroes counters and keeps states, and the text and JSON
// forms carry exactly the list.
#include "jxcache/lifecycle/statistics.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "disk/disk_test_support.h"
#include "farm/farm_counters.h"
#include "jxcache/items/sc_checkout.h"
#include "standalone/standalone_host.h"

namespace {

using jx::testing::TestPayload;
using zelcore::utility::IntrusivePtr;

std::map<std::string, JX_Statistic> ByName() {
  std::map<std::string, JX_Statistic> m;
  for (auto& s : JX_GetStatistics()) m[s.group + "." + s.name] = s;
  return m;
}

class StatisticsTest : public jx::testing::DiskTest {};

TEST_F(StatisticsTest, CountersFollowTheWorkAndAResetKeepsTheStates) {
  jx::testing::RegisterTestPayloadFactory();
  JX_ResetStatistics();
  // Work: two items, one written to disk, purged and read back; a purge walk.
  auto written = AddDiskCacheableItem(4096);
  auto other = AddDiskCacheableItem(2048);
  written->PrepAndWrite(bag_);
  JX_Stuff::ReleaseQueue queue;
  written->FreeUpAsMuchAsPossible(false, &queue);
  ASSERT_TRUE(written->EnsureInMemory());
  jx::PurgeOverBudget(*bag_, 1);
  // The farm tier's work, as its lookups and writes count it (its own tests drive a server).
  jx::farm::GetCounters().hits.fetch_add(3);
  jx::farm::GetCounters().duplicateWrites.fetch_add(1);

  auto after = ByName();
  EXPECT_EQ(after["farm.hits"].value, 3);
  EXPECT_EQ(after["farm.duplicate_writes"].value, 1);
  EXPECT_EQ(after["disk.files_written"].value, 1);
  EXPECT_EQ(after["disk.files_read"].value, 1);
  EXPECT_GT(after["disk.bytes_written"].value, 0);
  EXPECT_EQ(after["purge.calls"].value, 1);
  EXPECT_EQ(after["memory.items"].value, 2);
  EXPECT_EQ(after["memory.in_memory_bytes"].value, bag_->GetInMemoryCacheSizeInBytes_LockFree());
  EXPECT_EQ(after["disk.bytes_on_disk"].value, bag_->GetCurrentDiskCacheSize());

  JX_ResetStatistics();
  for (const auto& [name, s] : ByName()) {
    if (s.counter) {
      EXPECT_EQ(s.value, 0) << name << " is a counter and the reset left it";
    } else {
      EXPECT_EQ(s.value, after[name].value) << name << " is a state and the reset changed it";
    }
  }
}

TEST_F(StatisticsTest, TextAndJsonCarryEveryStatisticOnce) {
  const auto stats = JX_GetStatistics();
  ASSERT_GT(stats.size(), 30u);
  std::set<std::string> names;
  for (const auto& s : stats) {
    EXPECT_TRUE(names.insert(s.group + "." + s.name).second) << "twice: " << s.name;
  }
  const std::string text = JX_GetStatisticsText();
  EXPECT_EQ(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')), stats.size());
  const std::string json = JX_GetStatisticsJson();
  ASSERT_FALSE(json.empty());
  EXPECT_EQ(json.front(), '{');
  EXPECT_EQ(json.back(), '}');
  for (const auto& s : stats) {
    const std::string line = s.group + "." + s.name;
    EXPECT_NE(text.find(line), std::string::npos) << line;
    // Each group is one object, and the statistic sits inside its own group's.
    const size_t group = json.find("\"" + s.group + "\": {");
    ASSERT_NE(group, std::string::npos) << s.group;
    const size_t end = json.find('}', group);
    const size_t at = json.find("\"" + s.name + "\": " + std::to_string(s.value), group);
    EXPECT_TRUE(at != std::string::npos && at < end) << line;
  }
}

}  // namespace
