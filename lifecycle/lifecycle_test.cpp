// Start-up, shut-down and the tuning settings: defaults, read-once, the media-map decision, and
// the payload factories that shut-down forgets.
#include <gtest/gtest.h>

#include "common/settings.h"
#include "jxcache/bag/bag.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/items/stuff_data.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "mediamap/media_map_impl.h"
#include "standalone/debug_database.h"
#include "standalone/media_manager_pool.h"
#include "standalone/standalone_host.h"
#include "standalone/standalone_settings.h"
#include "testing/jx_test_support.h"

using zelcore::debug::DebugDatabase;

namespace {

uint64_t Lookups(const char* name) { return DebugDatabase::Instance().LookupCount(name); }

void QuietHost() {
  jx::StandaloneHost::Instance().Reset();
  jx::StandaloneHost::Instance().SetEchoReports(false);
}

// The media-map setting switched off keeps the media map off even when the start-up allows it.
TEST(LifecycleTest, StartUpMakesTheGlobalBagAndShutDownEmptiesIt) {
  QuietHost();
  DebugDatabase::Instance().SetEntry("JX.UseMediaMap1", "false");
  EXPECT_FALSE(JX_GlobalBag());
  JX_Birth(true, 0x80000005u, false);
  auto bag = JX_GlobalBag();
  ASSERT_TRUE(bag);
  EXPECT_EQ(bag->GetAppVersion(), 5u);
  EXPECT_FALSE(jx::settings::UseMediaMap() || jx::mediamap::CurrentAdapter());
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

// With the Gfxpak limit (the feature and the start-up's permission) the media manager is told the
// cache's maximum and the media map stays off; otherwise the media map is used when allowed, and
// then mirrors the bag's items.
TEST(LifecycleTest, StartUpChoosesBetweenTheGfxpakLimitAndTheMediaMap) {
  QuietHost();
  zelappsupport::feature::SetFeatureEnabled(kJX_GfxpakLimitFeature, true);
  jx::standalone::MediaManagerPool()->SetFixedMaxCacheSize(1000);
  const struct {
    bool mediaMapAllowed, gfxpakAllowed, limit, mediaMap;
  } cases[] = {{true, true, true, false}, {false, false, false, false}, {true, false, false, true}};
  for (const auto& c : cases) {
    JX_Birth(c.mediaMapAllowed, 1, c.gfxpakAllowed);
    // Under the Gfxpak limit the media-map setting is not consulted at all: the first case
    // starts the process under it.
    if (c.limit) {
      EXPECT_EQ(Lookups("JX.UseMediaMap1"), 0u);
    }
    EXPECT_EQ(JX_IsSetJXCacheLimitForGfxpaksEnabled(), c.limit);
    EXPECT_EQ(jx::settings::UseMediaMap(), c.mediaMap);
    EXPECT_EQ(jx::mediamap::CurrentAdapter() != nullptr, c.mediaMap);
    auto item = jx::testing::MakeItem(10);
    JX_GlobalBag()->AddToBagAndSortDir(item);
    EXPECT_EQ(JX_GetMediaMapSize(), c.mediaMap ? 10u : 0u);
    if (c.limit) {
      auto limit =
          jx::standalone::MediaManagerPool()->GetCacheMaxSize(jx::settings::CacheIdentity());
      EXPECT_TRUE(limit && *limit == 100 && JX_GetMaxJXCacheSize() == 100);
      EXPECT_TRUE(JX_IsGlobalBagSizeAboveMinimum()) << "whatever the bag holds, under the limit";
    }
    JX_Death();
  }
}

// An item still checked out when the library stops, and checked in after it started again: what
// it counted belongs to the bag that counted it, never to the new one. Once with the old bag gone
// and once with the host still holding it.
TEST(LifecycleTest, AnItemThatOutlivesARestartTakesItsSizesBackFromItsOwnBag) {
  QuietHost();
  for (bool hostKeepsOldBag : {false, true}) {
    SCOPED_TRACE(hostKeepsOldBag ? "old bag kept" : "old bag gone");
    JX_Birth(false, 1, false);
    std::shared_ptr<JX_Bag> old = JX_GlobalBag();
    auto item = jx::testing::MakeItem(1000);
    old->AddToBagAndSortDir(item);
    auto handle = std::make_unique<JX_ScCheckout>(item, jx::checkout_flags::kReadOnly);
    ASSERT_EQ(old->GetCheckedOutMemoryCacheSizeInBytes(), 1000);
    JX_Death();
    if (!hostKeepsOldBag) old.reset();
    JX_Birth(false, 1, false);
    auto bag = JX_GlobalBag();
    handle.reset();  // checks the item in
    EXPECT_GE(bag->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    EXPECT_EQ(bag->GetCheckedOutMemoryCacheSizeInBytes(), 0);
    item.reset();
    EXPECT_EQ(bag->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    EXPECT_EQ(bag->GetCheckedOutMemoryCacheSizeInBytes(), 0);
    if (old) {
      EXPECT_EQ(old->GetInMemoryCacheSizeInBytes_LockFree(), 0);
      EXPECT_EQ(old->GetCheckedOutMemoryCacheSizeInBytes(), 0);
    }
    bag.reset();
    JX_StopAllAsyncWork();
    JX_Death();
  }
}

// A second start-up replaces the bag. The first one's media map mirrors the first bag's items: it
// must leave the host's media manager whichever way the second start-up decides, or the host
// would keep purging (and the map keep alive) items of a bag that is gone.
TEST(LifecycleTest, ASecondStartUpDetachesTheFirstOnesMediaMap) {
  QuietHost();
  zelappsupport::feature::SetFeatureEnabled(kJX_GfxpakLimitFeature, true);
  auto manager = jx::standalone::MediaManagerPool();
  for (bool secondTakesGfxpakLimit : {false, true}) {
    JX_Birth(true, 1, false);
    auto first = jx::testing::MakeItem(10);
    JX_GlobalBag()->AddToBagAndSortDir(first);
    ASSERT_EQ(manager->GetTotalBytes(), 10u);
    JX_Birth(secondTakesGfxpakLimit, 1, secondTakesGfxpakLimit);
    EXPECT_EQ(jx::mediamap::CurrentAdapter(), nullptr);
    EXPECT_EQ(manager->GetTotalBytes(), 0u);
    EXPECT_EQ(first->GetRefCount(), 1) << "nothing but the test holds the first bag's item";
    JX_GlobalBag()->AddToBagAndSortDir(jx::testing::MakeItem(10));
    EXPECT_EQ(manager->GetTotalBytes(), 0u);
    JX_Death();
  }
}

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

// Values set before first use are the ones read (a write priority of 3 or more falls back to 2),
// and kept when the entries change later. The playback option is read only once compression is on.
TEST(SettingsTest, SetValuesAreReadOnceAndKeptForTheProcess) {
  zelappsupport::feature::SetFeatureEnabled(kJX_ImprovedDiskCacheFeature, true);
  DebugDatabase::Instance().SetEntry("KQ.JX.WriteToDiskPriorityR", "7");
  DebugDatabase::Instance().SetEntry("KQ.JX.LowPriorityFactorR", "4.5");
  DebugDatabase::Instance().SetEntry("KQ.IsDiskCompressionEnabledR", "true");
  EXPECT_EQ(jx::settings::WriteToDiskPriority(), 2);
  EXPECT_DOUBLE_EQ(jx::settings::LowPriorityFactor(), 4.5);
  EXPECT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowedForPlayback);
  DebugDatabase::Instance().SetEntry("KQ.JX.LowPriorityFactorR", "8");
  DebugDatabase::Instance().SetEntry("KQ.JX.PlaybackCompressionOptionR", "0");
  EXPECT_DOUBLE_EQ(jx::settings::LowPriorityFactor(), 4.5);
  EXPECT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowedForPlayback);
  EXPECT_EQ(Lookups("KQ.JX.PlaybackCompressionOptionR"), 1u);
}

TEST(SettingsTest, PlaybackCompressionSettingZeroGivesOptionOne) {
  DebugDatabase::Instance().SetEntry("KQ.IsDiskCompressionEnabledR", "true");
  DebugDatabase::Instance().SetEntry("KQ.JX.PlaybackCompressionOptionR", "0");
  EXPECT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowed);
}

// The write priority is not read while the improved behaviour is off, so a value set then is
// still the one read once the playback-from-disk logic turns the behaviour on.
TEST(SettingsTest, WritePriorityIsReadOnlyOnceImprovedBehaviourIsOn) {
  DebugDatabase::Instance().SetEntry("KQ.JX.WriteToDiskPriorityR", "0");
  ASSERT_FALSE(JX_IsImprovedDiskCacheBehaviorFullyEnabled());
  EXPECT_EQ(jx::settings::WriteToDiskPriority(), 2);
  EXPECT_EQ(Lookups("KQ.JX.WriteToDiskPriorityR"), 0u);
  JX_PlaybackFromDiskLogicIsEnabled();
  EXPECT_TRUE(JX_IsImprovedDiskCacheBehaviorFullyEnabled());
  EXPECT_EQ(jx::settings::WriteToDiskPriority(), 0);
  EXPECT_EQ(jx::settings::WriteToDiskPriority(), 0);
  EXPECT_EQ(Lookups("KQ.JX.WriteToDiskPriorityR"), 1u);
}

// Asking for an unknown name leaves an empty entry behind; registering the name later must fill
// that entry, not be shadowed by it. Shut-down forgets every factory.
TEST(PayloadRegistryTest, NameAskedForBeforeItsFactoryIsRegisteredFindsItLater) {
  JX_StuffData::Header header{7, 8, 9}, seen;
  JX_StuffData::Factory factory = [&](const JX_StuffData::Header& h) {
    seen = h;
    return zelcore::utility::IntrusivePtr<JX_StuffData>(new jx::testing::TestPayload(5));
  };
  JX_StuffData::RegisterFactory("Frame", factory);  // the registry exists from here on
  EXPECT_FALSE(JX_StuffData::CreateSubclass("Later", header));
  JX_StuffData::RegisterFactory("Later", factory);
  EXPECT_TRUE(JX_StuffData::CreateSubclass("Later", header));
  EXPECT_EQ(seen, header);
  JX_StuffData::Death();
  EXPECT_FALSE(JX_StuffData::CreateSubclass("Later", header));
}

}  // namespace
