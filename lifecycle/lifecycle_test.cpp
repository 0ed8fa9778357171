// Start-up, shut-down and the tuning settings: defaults, read-once, the media-map decision.
#include <gtest/gtest.h>

#include "bag/bag.h"
#include "host/debug_database.h"
#include "host/feature.h"
#include "host/media_manager.h"
#include "host/standalone_host.h"
#include "items/stuff_data.h"
#include "lifecycle/lifecycle.h"
#include "lifecycle/messages.h"
#include "lifecycle/settings.h"
#include "testing/jx_test_support.h"

using zelcore::debug::DebugDatabase;

namespace {

void QuietHost() {
  jx::StandaloneHost::Instance().Reset();
  jx::StandaloneHost::Instance().SetEchoReports(false);
}

TEST(LifecycleTest, GlobalBagExistsOnlyBetweenBirthAndDeath) {
  QuietHost();
  EXPECT_FALSE(JX_GlobalBag());
  JX_Birth(false, 0x80000005u, false);
  auto bag = JX_GlobalBag();
  ASSERT_TRUE(bag);
  EXPECT_EQ(bag->GetAppVersion(), 5u);
  auto item = jx::testing::MakeItem(10);
  bag->AddToBagAndSortDir(item);
  JX_StopAllAsyncWork();
  JX_Death();
  EXPECT_FALSE(JX_GlobalBag());
  EXPECT_FALSE(item->GetBag()) << "death empties the bag";
  EXPECT_EQ(bag->GetNumItems(), 0);
}

// The host refusing the bag's memory must leave whatever ran before untouched: the previous bag
// with its items, its disk executor and the media-map permission.
TEST(LifecycleTest, StartUpRefusedForMemoryChangesNothing) {
  QuietHost();
  JX_Birth(false, 1, false);
  auto bag = JX_GlobalBag();
  auto item = jx::testing::MakeItem(10);
  bag->AddToBagAndSortDir(item);
  const auto executor = jx::DiskExecutor();
  jx::StandaloneHost::Instance().FailNthAllocation(1);
  EXPECT_THROW(JX_Birth(true, 2, false), std::bad_alloc);
  EXPECT_EQ(JX_GlobalBag(), bag);
  EXPECT_EQ(bag->GetNumItems(), 1);
  EXPECT_EQ(jx::DiskExecutor(), executor);
  EXPECT_FALSE(jx::settings::MediaMapAllowed());
  bag.reset();
  JX_StopAllAsyncWork();
  JX_Death();
}

TEST(LifecycleTest, MediaMapIsUsedOnlyWhenAllowedAndSwitchedOn) {
  QuietHost();
  JX_Birth(false, 1, false);
  EXPECT_FALSE(jx::settings::UseMediaMap());
  EXPECT_EQ(JX_GetMediaMapSize(), 0u);
  JX_Death();
  JX_Birth(true, 1, false);
  EXPECT_TRUE(jx::settings::UseMediaMap());
  JX_Death();
}

TEST(LifecycleTest, MediaMapSwitchedOffBySetting) {
  QuietHost();
  DebugDatabase::Instance().SetEntry("JX.UseMediaMap1", "false");
  JX_Birth(true, 1, false);
  EXPECT_FALSE(jx::settings::UseMediaMap());
  EXPECT_EQ(JX_GetMediaMapSize(), 0u);
  JX_Death();
}

TEST(LifecycleTest, GfxpakLimitNeedsFeatureAndPermission) {
  QuietHost();
  zelappsupport::feature::SetFeatureEnabled(kJX_GfxpakLimitFeature, true);
  JX_Birth(true, 1, false);
  EXPECT_FALSE(JX_IsSetJXCacheLimitForGfxpaksEnabled());
  EXPECT_TRUE(jx::settings::UseMediaMap()) << "without permission the media-map branch is taken";
  JX_Death();
  JX_Birth(true, 1, true);
  EXPECT_TRUE(JX_IsSetJXCacheLimitForGfxpaksEnabled());
  EXPECT_TRUE(JX_IsGlobalBagSizeAboveMinimum()) << "even an empty bag, under the fixed limit";
  RV::MM::SetFixedMaxCacheSize(1000);
  EXPECT_EQ(JX_GetMaxJXCacheSize(), 100u);
  JX_Death();
}

uint64_t Lookups(const char* name) { return DebugDatabase::Instance().LookupCount(name); }

// Each accessor is asked twice: a setting is looked up once, on first use, and never again.
TEST(SettingsTest, DefaultsAndFallbacks) {
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionNotAllowed);
    EXPECT_FALSE(JX_IsDiskCompressionEnabled());
    EXPECT_EQ(jx::settings::WriteToDiskPriority(), 2);
    EXPECT_DOUBLE_EQ(jx::settings::LowPriorityFactor(), 2.0);
    EXPECT_DOUBLE_EQ(jx::settings::MinJXSizeToPurgeLimitRatio(), 0.1);
    EXPECT_DOUBLE_EQ(jx::settings::GfxpaksCacheLimitMultiplier(), 0.1);
    EXPECT_EQ(jx::settings::DebugSleepTimeSetStuffDataMs(), 0u);
    EXPECT_EQ(jx::settings::ReadDiskDelayMs(), 0);
    EXPECT_EQ(jx::settings::WriteDiskDelayMs(), 0);
    EXPECT_TRUE(jx::settings::UseMediaMapSetting());
  }
  for (const char* name :
       {"KQ.IsDiskCompressionEnabledR", "KQ.JX.LowPriorityFactorR",
        "KQ.MinJXSizeToPurgeLimitRatioR", "Graphics.DefaultJXCacheLimitForGfxpaksMultiplier",
        "KQ.DebugSleepTimeInMs_JXSetStuffDataR", "KQ.JX.ReadDiskDelayInMsR",
        "KQ.JX.WriteDiskDelayInMsR", "JX.UseMediaMap1"}) {
    EXPECT_EQ(Lookups(name), 1u) << name;
  }
  EXPECT_EQ(Lookups("KQ.JX.PlaybackCompressionOptionR"), 0u) << "compression is off";
  EXPECT_EQ(Lookups("KQ.JX.WriteToDiskPriorityR"), 0u) << "improved behaviour is off";
}

// The write priority is not read while the improved behaviour is off, so a value set then is
// still the one read once it comes on.
TEST(SettingsTest, WritePriorityIsReadOnlyOnceImprovedBehaviourIsOn) {
  DebugDatabase::Instance().SetEntry("KQ.JX.WriteToDiskPriorityR", "0");
  ASSERT_FALSE(JX_IsImprovedDiskCacheBehaviorFullyEnabled());
  EXPECT_EQ(jx::settings::WriteToDiskPriority(), 2);
  EXPECT_EQ(Lookups("KQ.JX.WriteToDiskPriorityR"), 0u);
  JX_PlaybackFromDiskLogicIsEnabled();
  EXPECT_EQ(jx::settings::WriteToDiskPriority(), 0);
  EXPECT_EQ(jx::settings::WriteToDiskPriority(), 0);
  EXPECT_EQ(Lookups("KQ.JX.WriteToDiskPriorityR"), 1u);
}

TEST(SettingsTest, ReadOnceAndKeptForTheProcess) {
  DebugDatabase::Instance().SetEntry("KQ.JX.LowPriorityFactorR", "4.5");
  EXPECT_DOUBLE_EQ(jx::settings::LowPriorityFactor(), 4.5);
  DebugDatabase::Instance().SetEntry("KQ.JX.LowPriorityFactorR", "8");
  EXPECT_DOUBLE_EQ(jx::settings::LowPriorityFactor(), 4.5);
}

TEST(SettingsTest, CompressionOptionOnceCompressionIsOn) {
  DebugDatabase::Instance().SetEntry("KQ.IsDiskCompressionEnabledR", "true");
  EXPECT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowedForPlayback);
  DebugDatabase::Instance().SetEntry("KQ.JX.PlaybackCompressionOptionR", "0");
  EXPECT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowedForPlayback);
  EXPECT_EQ(Lookups("KQ.JX.PlaybackCompressionOptionR"), 1u);
}

TEST(SettingsTest, PlaybackCompressionSettingZeroGivesOptionOne) {
  DebugDatabase::Instance().SetEntry("KQ.IsDiskCompressionEnabledR", "true");
  DebugDatabase::Instance().SetEntry("KQ.JX.PlaybackCompressionOptionR", "0");
  EXPECT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowed);
}

TEST(SettingsTest, WritePriorityOutOfRangeFallsBackToTwo) {
  zelappsupport::feature::SetFeatureEnabled(kJX_ImprovedDiskCacheFeature, true);
  DebugDatabase::Instance().SetEntry("KQ.JX.WriteToDiskPriorityR", "7");
  EXPECT_EQ(jx::settings::WriteToDiskPriority(), 2);
}

TEST(SettingsTest, WritePriorityInRangeIsUsed) {
  zelappsupport::feature::SetFeatureEnabled(kJX_ImprovedDiskCacheFeature, true);
  DebugDatabase::Instance().SetEntry("KQ.JX.WriteToDiskPriorityR", "0");
  EXPECT_EQ(jx::settings::WriteToDiskPriority(), 0);
}

TEST(SettingsTest, PlaybackFromDiskLogicTurnsImprovedBehaviourOn) {
  EXPECT_FALSE(JX_IsImprovedDiskCacheBehaviorFullyEnabled());
  JX_PlaybackFromDiskLogicIsEnabled();
  EXPECT_TRUE(JX_IsImprovedDiskCacheBehaviorFullyEnabled());
  EXPECT_TRUE(jx::settings::PlaybackFromDiskLogic());
}

TEST(SettingsTest, FeaturesAreDeclaredWithTheirTexts) {
  auto* f = zelappsupport::feature::FindFeature(kJX_ImprovedDiskCacheFeature);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->Stage(), 2);
  EXPECT_NE(f->DescriptionString().find("efficiently.  Writes less"), std::string::npos);
  ASSERT_NE(zelappsupport::feature::FindFeature(kJX_GfxpakLimitFeature), nullptr);
}

TEST(MessagesTest, TableIsLookedUpThroughTheHost) {
  EXPECT_EQ(jx::LookupMessage(11), u"cached item already checked-out read/write");
  EXPECT_EQ(jx::LookupMessage(22), u"can\u2019t convert to writeable when not checked out");
  EXPECT_EQ(jx::LookupMessage(23), u"This Computer");
  EXPECT_EQ(jx::MessageKey(27), nullptr);
}

TEST(PayloadRegistryTest, FactoriesByMatchName) {
  using jx::testing::TestPayload;
  JX_StuffData::Header header;
  EXPECT_FALSE(JX_StuffData::CreateSubclass("Frame", header)) << "nothing registered yet";
  JX_StuffData::Factory factory = [](const JX_StuffData::Header&) {
    return zelcore::utility::IntrusivePtr<JX_StuffData>(new TestPayload(5));
  };
  JX_StuffData::RegisterFactory("Frame", factory);
  auto made = JX_StuffData::CreateSubclass("Frame", header);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->GetApproximateMemorySize(), 5u);
  JX_StuffData::Death();
  EXPECT_FALSE(JX_StuffData::CreateSubclass("Frame", header));
}

// Asking for an unknown name leaves an empty entry behind; registering the name later must fill
// that entry, not be shadowed by it.
TEST(PayloadRegistryTest, NameAskedForBeforeItsFactoryIsRegisteredFindsItLater) {
  using jx::testing::TestPayload;
  JX_StuffData::Factory frame = [](const JX_StuffData::Header&) {
    return zelcore::utility::IntrusivePtr<JX_StuffData>(new TestPayload(1));
  };
  JX_StuffData::RegisterFactory("Frame", frame);
  JX_StuffData::Header header{7, 8, 9};
  EXPECT_FALSE(JX_StuffData::CreateSubclass("Later", header));

  int calls = 0;
  JX_StuffData::Header seen;
  JX_StuffData::Factory later = [&](const JX_StuffData::Header& h) {
    ++calls;
    seen = h;
    return zelcore::utility::IntrusivePtr<JX_StuffData>(new TestPayload(5));
  };
  JX_StuffData::RegisterFactory("Later", later);
  auto made = JX_StuffData::CreateSubclass("Later", header);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->GetApproximateMemorySize(), 5u);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(seen, header);
  JX_StuffData::Death();
}

TEST(PayloadRegistryTest, BaseClassOptsOutOfDiskAndCompression) {
  zelcore::utility::IntrusivePtr<JX_StuffData> hold(new jx::testing::TestPayload(1));
  const JX_StuffData& base = *hold;
  EXPECT_FALSE(base.CanBeCompressed());
  EXPECT_EQ(base.GetCompressedAllowedOption(), kJX_CompressionNotAllowed);
  zelcore::utility::IntrusivePtr<JX_StuffData> other(new jx::testing::TestPayload(2));
  for (const auto& arg : {zelcore::utility::IntrusivePtr<JX_StuffData>(), other}) {
    EXPECT_TRUE(base.JX_StuffData::CanSatisfyRequest(arg));
    EXPECT_TRUE(base.JX_StuffData::IdenticalRequest(arg));
  }
  EXPECT_TRUE(base.JX_StuffData::ShouldAllowPurge());
  EXPECT_FALSE(base.JX_StuffData::CanDiskCache());
  EXPECT_EQ(base.JX_StuffData::GetSubclassMatchname(), nullptr);
}

}  // namespace
