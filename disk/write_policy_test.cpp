// The speed statistics and the worthiness rule: the figures every disk write decision rests on.
#include <gtest/gtest.h>

#include <cmath>

#include "common/settings.h"
#include "disk/disk_speed.h"
#include "disk/disk_test_support.h"
#include "disk/disk_writer.h"
#include "disk/write_policy.h"

using jx::disk::SpeedStatistics;
using jx::testing::ScQueueLengths;
using jx::testing::TestPayload;

namespace {

constexpr double kCap = 1e9;
constexpr uint64_t kSecond = 1000000000ull;  // in time stamps

// A sample that cannot overlap its predecessor: it takes 1 ms and comes a second later.
void AddSpaced(SpeedStatistics& s, int i, uint64_t bytesPerMs) {
  s.AddSample(bytesPerMs, 0.001, kSecond * (10 + static_cast<uint64_t>(i)), kCap);
}

TEST(SpeedStatisticsTest, WarmUpCapAndPreviousSample) {
  SpeedStatistics s;
  EXPECT_EQ(s.GetAverage(), SpeedStatistics::kInitialAverage);
  for (int i = 0; i < 50; ++i) AddSpaced(s, i, 100000);  // 100 MB/s
  EXPECT_EQ(s.GetSampleCount(), 50);
  EXPECT_EQ(s.GetSnapshot().maxAverage, 0.0) << "maxima wait for the warm-up";
  EXPECT_EQ(s.GetSnapshot().maxSpeed, 0.0);
  const double before = s.GetAverage();
  EXPECT_LT(before, SpeedStatistics::kInitialAverage);

  AddSpaced(s, 50, 200000);  // 200 MB/s
  auto snap = s.GetSnapshot();
  EXPECT_EQ(snap.sampleCount, 51);
  EXPECT_DOUBLE_EQ(snap.average, 0.02 * 200e6 + 0.98 * before);
  EXPECT_DOUBLE_EQ(snap.maxAverage, snap.average);
  EXPECT_DOUBLE_EQ(snap.maxSpeed, 200e6);

  // At and above the cap: remembered as the previous sample, never averaged or counted.
  for (uint64_t bytes : {1000000ull, 5000000ull}) {  // exactly the cap, then 5x
    s.AddSample(bytes, 0.001, kSecond * 100 + bytes, kCap);
    auto capped = s.GetSnapshot();
    EXPECT_EQ(capped.sampleCount, 51);
    EXPECT_EQ(capped.average, snap.average);
    EXPECT_EQ(capped.maxSpeed, 200e6);
    EXPECT_EQ(capped.lastBytes, bytes);
    EXPECT_EQ(capped.lastTimeStamp, kSecond * 100 + bytes);
  }
  s.AddSample(100, 0.0, kSecond * 200, kCap);
  EXPECT_EQ(s.GetSampleCount(), 51) << "a sample without duration says nothing";
}

TEST(SpeedStatisticsTest, OverlappingSamplesMergeWhenThatIsFaster) {
  SpeedStatistics s;
  s.AddSample(100, 1.0, 10 * kSecond, kCap);
  const double avg1 = s.GetAverage();
  // Took 1 s but only 0.5 s passed since the previous one ended: 200 bytes over 1.5 s.
  s.AddSample(100, 1.0, 10 * kSecond + kSecond / 2, kCap);
  auto snap = s.GetSnapshot();
  EXPECT_EQ(snap.lastBytes, 200u);
  EXPECT_DOUBLE_EQ(snap.lastSeconds, 1.5);
  EXPECT_DOUBLE_EQ(snap.average, 0.02 * (200 / 1.5) + 0.98 * avg1);

  // No overlap: 1 s operation, 5 s later.
  s.AddSample(100, 1.0, 15 * kSecond + kSecond / 2, kCap);
  EXPECT_EQ(s.GetSnapshot().lastBytes, 100u);

  // Overlapping, but the merged figure is slower than the operation alone: keep it alone.
  s.AddSample(1000000, 1.0, 16 * kSecond, kCap);
  snap = s.GetSnapshot();
  EXPECT_EQ(snap.lastBytes, 1000000u);
  EXPECT_DOUBLE_EQ(snap.lastSeconds, 1.0);
}

TEST(SpeedStatisticsTest, WritesStandInForReadsOnlyWhileReadsWarmUp) {
  auto& reads = jx::disk::ReadSpeedStatistics();
  auto& writes = jx::disk::WriteSpeedStatistics();
  const int64_t reads0 = reads.GetSampleCount();
  const int64_t writes0 = writes.GetSampleCount();
  // 1 byte in 1 ns (1 GB/s, under the default cap) cannot overlap its predecessor.
  for (int i = 0; i < 30; ++i) jx::disk::AddWriteSpeedSample(1, 1e-9);
  EXPECT_EQ(writes.GetSampleCount(), writes0 + 30);
  EXPECT_EQ(reads.GetSampleCount(), std::max<int64_t>(reads0, std::min<int64_t>(reads0 + 30, 25)));
  jx::disk::AddReadSpeedSample(1, 1e-9);
  EXPECT_EQ(reads.GetSampleCount(), std::max<int64_t>(reads0, 25) + 1);
}

TEST(WritePolicyTest, SpeedRuleEdges) {
  // Size 0 is never worth a file, whatever it cost.
  EXPECT_FALSE(jx::disk::SpeedRuleSaysWorth(0, 1e9, 1e9));
  // No read speed: nothing passes.
  EXPECT_FALSE(jx::disk::SpeedRuleSaysWorth(1 << 20, 1e9, 0.0));
  // A 1-byte read is counted as 1 ms: 1000 B/s. It beats a 2 ms computation (500 B/s) but not
  // a 0.5 ms one (2000 B/s), however fast the disk.
  EXPECT_TRUE(jx::disk::SpeedRuleSaysWorth(1, 0.002, 1e9));
  EXPECT_FALSE(jx::disk::SpeedRuleSaysWorth(1, 0.0005, 1e9));
  // Above the floor it is the plain comparison: 100 MB at 100 MB/s takes 1 s.
  EXPECT_TRUE(jx::disk::SpeedRuleSaysWorth(100000000, 1.01, 1e8));
  EXPECT_FALSE(jx::disk::SpeedRuleSaysWorth(100000000, 0.99, 1e8));
  // No compute time: computing is "free", reading never wins.
  EXPECT_FALSE(jx::disk::SpeedRuleSaysWorth(1 << 20, 0.0, 1e9));
}

// (How the live queue enters the estimate shows in WorthinessOfAPayload.)
TEST(WritePolicyTest, ReadSpeedAdjustments) {
  auto e = jx::disk::AdjustReadSpeed(1000.0, 2.0, true, 2.0, 0.5);
  EXPECT_DOUBLE_EQ(e.average, 250.0);
  EXPECT_DOUBLE_EQ(e.adjusted, 62.5) << "free fraction enters squared";
  EXPECT_DOUBLE_EQ(jx::disk::AdjustReadSpeed(1000.0, 1.0, true, 0.0, 1.0).average, 1000.0)
      << "a factor of 0 means no division";
  EXPECT_DOUBLE_EQ(jx::disk::AdjustReadSpeed(1000.0, 1.0, false, 2.0, 1.0).average, 1000.0);
}

TEST(WritePolicyTest, FarmRuleWeighsTheRoundTrip) {
  using jx::disk::WorthWritingToFarm;
  constexpr double kFast = 1e9;  // bytes/s
  // A 4 MiB frame that took 30 ms: fetched in 4 ms plus the round trip.
  const uint64_t frame = 4u << 20;
  EXPECT_TRUE(WorthWritingToFarm(frame, 0.030, kFast, 0.001, 1.0, 1.0));
  // A round trip as long as the compute makes fetching no better than computing.
  EXPECT_FALSE(WorthWritingToFarm(frame, 0.030, kFast, 0.030, 1.0, 1.0));
  // A small value costs its round trip whatever the wire: the disk's rule would share it.
  EXPECT_FALSE(WorthWritingToFarm(1024, 0.0015, kFast, 0.002, 1.0, 1.0));
  EXPECT_TRUE(jx::disk::SpeedRuleSaysWorth(1024, 0.0015, kFast));
  // The host's proclivity scales the whole fetch, round trip included.
  EXPECT_TRUE(WorthWritingToFarm(frame, 0.030, kFast, 0.030, 0.1, 1.0));
  // A full queue of farm writes stops new ones; nothing measured or nothing to send is never
  // worth it.
  EXPECT_FALSE(WorthWritingToFarm(frame, 10.0, kFast, 0.001, 1.0, 0.0));
  EXPECT_FALSE(WorthWritingToFarm(frame, 10.0, 0.0, 0.001, 1.0, 1.0));
  EXPECT_FALSE(WorthWritingToFarm(0, 10.0, kFast, 0.001, 1.0, 1.0));
}

TEST(WritePolicyTest, QueueFreeFractionCountsHighPriorityDouble) {
  using jx::disk::QueueFreeFraction;
  EXPECT_EQ(QueueFreeFraction(0, 0, 1000), 1.0);
  EXPECT_EQ(QueueFreeFraction(500, 0, 1000), 0.5);
  EXPECT_EQ(QueueFreeFraction(100, 200, 1000), 0.5);
  EXPECT_EQ(QueueFreeFraction(0, 500, 1000), 0.0);
  EXPECT_EQ(QueueFreeFraction(1, 500, 1000), 0.0) << "over capacity";

  ScQueueLengths q(100, 200);
  EXPECT_DOUBLE_EQ(jx::disk::CurrentQueueFreeFraction(), 0.5);
  EXPECT_EQ(JX_GetQueuedDiskWriteCount(), 300u);
}

TEST(WritePolicyTest, WorthinessOfAPayload) {
  jx::disk::WorthOutputs out;
  EXPECT_FALSE(jx::disk::WorthWritingToDiskCache(nullptr, 10.0, false, &out));
  EXPECT_FALSE(out.cacheable);

  zelcore::utility::IntrusivePtr<TestPayload> empty(new TestPayload(0, 0, true));
  EXPECT_FALSE(jx::disk::WorthWritingToDiskCache(empty.get(), 1e9, false, &out));
  EXPECT_TRUE(out.cacheable);

  zelcore::utility::IntrusivePtr<TestPayload> mib(new TestPayload(1 << 20, 0, true));
  EXPECT_TRUE(jx::disk::WorthWritingToDiskCache(mib.get(), 10.0, false, &out));
  EXPECT_FALSE(out.worthIfQueueEmpty);
  {
    // 90% full: the estimate drops to 1%. A 1 MiB item that took 5 ms (200 MB/s) would beat
    // its computation at the full estimate (well above that) but not at 1% of it.
    ScQueueLengths q(jx::disk::WriteQueueCapacity() * 9 / 10, 0);
    ASSERT_GT(jx::disk::GetAverageDiskReadSpeed(), 4e8);
    EXPECT_FALSE(jx::disk::WorthWritingToDiskCache(mib.get(), 0.005, false, &out));
    EXPECT_TRUE(out.worthIfQueueEmpty);
    EXPECT_FALSE(jx::disk::WorthWritingToDiskCache(mib.get(), 0.0001, false, &out));
    EXPECT_FALSE(out.worthIfQueueEmpty) << "not worth it even with an empty queue";
  }
}

TEST(WritePolicyTest, CachePriorityDecidesFirstWithTheImprovedBehaviour) {
  JX_PlaybackFromDiskLogicIsEnabled();
  ASSERT_TRUE(JX_IsImprovedDiskCacheBehaviorFullyEnabled());
  ASSERT_EQ(jx::disk::GetAverageDiskReadSpeed(), SpeedStatistics::kInitialAverage);
  auto payload = [](unsigned size, JX_CachePriority priority) {
    zelcore::utility::IntrusivePtr<TestPayload> p(new TestPayload(size, 0, true));
    p->SetCachePriority(priority);
    return p;
  };
  using jx::disk::WorthWritingToDiskCache;
  jx::disk::WorthOutputs out;

  // 0: never, however costly the payload was.
  EXPECT_FALSE(WorthWritingToDiskCache(payload(1 << 20, 0).get(), 1e9, false, &out));
  EXPECT_FALSE(out.cacheable);

  // 1: the speed rule at low priority, whatever the caller asked. 1 MiB reads in about 2 ms at
  // the initial 512 MiB/s, in about 4 ms at the halved low-priority estimate: a 3 ms render
  // beats the low-priority estimate but not the full one, a 5 ms one beats neither.
  const auto low = payload(1 << 20, kJX_CachePriorityLow);
  EXPECT_FALSE(WorthWritingToDiskCache(low.get(), 0.003, false, &out));
  EXPECT_TRUE(out.cacheable);
  EXPECT_TRUE(out.lowPriorityForced);
  EXPECT_FALSE(out.worthIfQueueEmpty) << "the queue is empty: it is the priority that says no";
  EXPECT_TRUE(WorthWritingToDiskCache(low.get(), 0.005, false, &out));
  EXPECT_TRUE(out.lowPriorityForced);
  EXPECT_TRUE(WorthWritingToDiskCache(payload(1 << 20, 3).get(), 0.003, false, &out))
      << "another priority: the plain speed rule";
  EXPECT_FALSE(out.lowPriorityForced);

  // 2: no speed rule (even size 0 and no compute time pass); with the write priority setting at
  // its default, the caller's flag makes it high, else any room in the queue lets it in.
  const auto high = payload(0, kJX_CachePriorityHigh);
  EXPECT_TRUE(WorthWritingToDiskCache(high.get(), 0.0, false, &out));
  EXPECT_FALSE(out.worthIfQueueEmpty);
  {
    ScQueueLengths almostFull(jx::disk::WriteQueueCapacity() - 1, 0);
    EXPECT_TRUE(WorthWritingToDiskCache(high.get(), 0.0, false, &out));
  }
  ScQueueLengths full(jx::disk::WriteQueueCapacity(), 0);
  EXPECT_FALSE(WorthWritingToDiskCache(high.get(), 1e9, false, &out));
  EXPECT_TRUE(out.worthIfQueueEmpty) << "refused for the queue alone";
  EXPECT_TRUE(WorthWritingToDiskCache(high.get(), 0.0, true, &out)) << "high write priority";
  EXPECT_FALSE(out.worthIfQueueEmpty);
}

}  // namespace
