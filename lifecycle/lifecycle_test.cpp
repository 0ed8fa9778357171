// Start-up, shut-down, the media-map decision, settings read once, and the payload factories.
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

using jx::testing::AddedItem;
using zelcore::debug::DebugDatabase;

namespace {

uint64_t Lookups(const char* name) { return DebugDatabase::Instance().LookupCount(name); }

// A quiet stand-in host, reset.
class LifecycleTest : public ::testing::Test {
  void SetUp() override {
    jx::StandaloneHost::Instance().Reset();
    jx::StandaloneHost::Instance().SetEchoReports(false);
  }
};

// The media-map setting switched off keeps the media map off even when the start-up allows it.
TEST_F(LifecycleTest, StartUpMakesTheGlobalBagAndShutDownEmptiesIt) {
  DebugDatabase::Instance().SetEntry("JX.UseMediaMap1", "false");
  EXPECT_FALSE(JX_GlobalBag());
  JX_Birth(true, 0x80000005u, false);
  auto bag = JX_GlobalBag();
  ASSERT_TRUE(bag);
  EXPECT_EQ(bag->GetAppVersion(), 5u);
  EXPECT_FALSE(jx::settings::UseMediaMap() || jx::mediamap::CurrentAdapter());
  auto item = AddedItem(*bag, 10);
  JX_StopAllAsyncWork();
  JX_Death();
  EXPECT_FALSE(JX_GlobalBag());
  EXPECT_FALSE(item->GetBag()) << "death empties the bag";
  EXPECT_EQ(bag->GetNumItems(), 0);
}

// A start-up refused memory leaves the previous bag, its items, executor and permissions alone.
TEST_F(LifecycleTest, StartUpRefusedForMemoryChangesNothing) {
  JX_Birth(false, 1, false);
  auto bag = JX_GlobalBag();
  auto item = AddedItem(*bag, 10);
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

// Under the Gfxpak limit the manager is told the cache's maximum; otherwise the media map is used.
TEST_F(LifecycleTest, StartUpChoosesBetweenTheGfxpakLimitAndTheMediaMap) {
  zelappsupport::feature::SetFeatureEnabled(kJX_GfxpakLimitFeature, true);
  jx::standalone::MediaManagerPool()->SetFixedMaxCacheSize(1000);
  const struct {
    bool mediaMapAllowed, gfxpakAllowed, limit, mediaMap;
  } cases[] = {{true, true, true, false}, {false, false, false, false}, {true, false, false, true}};
  for (const auto& c : cases) {
    JX_Birth(c.mediaMapAllowed, 1, c.gfxpakAllowed);
    // Under the limit (the first case) the media-map setting is not even read.
    if (c.limit) {
      EXPECT_EQ(Lookups("JX.UseMediaMap1"), 0u);
    }
    EXPECT_EQ(JX_IsSetJXCacheLimitForGfxpaksEnabled(), c.limit);
    EXPECT_EQ(jx::settings::UseMediaMap(), c.mediaMap);
    EXPECT_EQ(jx::mediamap::CurrentAdapter() != nullptr, c.mediaMap);
    auto item = AddedItem(*JX_GlobalBag(), 10);
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

// An item checked out across a restart gives its sizes back to the bag that counted them, never
// to the new one (it used to drive the new bag's totals below zero).
TEST_F(LifecycleTest, AnItemThatOutlivesARestartTakesItsSizesBackFromItsOwnBag) {
  for (bool hostKeepsOldBag : {false, true}) {
    SCOPED_TRACE(hostKeepsOldBag ? "old bag kept" : "old bag gone");
    JX_Birth(false, 1, false);
    std::shared_ptr<JX_Bag> old = JX_GlobalBag();
    auto item = AddedItem(*old, 1000);
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

// The first start-up's media map must leave the host's media manager whichever way a second
// start-up decides, or it keeps the replaced bag's items alive and offered to the host's purges.
TEST_F(LifecycleTest, ASecondStartUpDetachesTheFirstOnesMediaMap) {
  zelappsupport::feature::SetFeatureEnabled(kJX_GfxpakLimitFeature, true);
  auto manager = jx::standalone::MediaManagerPool();
  for (bool secondTakesGfxpakLimit : {false, true}) {
    JX_Birth(true, 1, false);
    auto first = AddedItem(*JX_GlobalBag(), 10);
    ASSERT_EQ(manager->GetTotalBytes(), 10u);
    JX_Birth(secondTakesGfxpakLimit, 1, secondTakesGfxpakLimit);
    EXPECT_EQ(jx::mediamap::CurrentAdapter(), nullptr);
    EXPECT_FALSE(jx::settings::UseMediaMap()) << "the first start-up's decision outlived it";
    EXPECT_EQ(manager->GetTotalBytes(), 0u);
    EXPECT_EQ(first->GetRefCount(), 1) << "nothing but the test holds the first bag's item";
    AddedItem(*JX_GlobalBag(), 10);
    EXPECT_EQ(manager->GetTotalBytes(), 0u);
    JX_Death();
  }
}

// A write priority of 3 or more falls back to 2; the playback option is read once.
TEST(SettingsTest, SetValuesAreReadOnceAndKeptForTheProcess) {
  zelappsupport::feature::SetFeatureEnabled(kJX_ImprovedDiskCacheFeature, true);
  DebugDatabase::Instance().SetEntry("KQ.JX.WriteToDiskPriorityR", "7");
  DebugDatabase::Instance().SetEntry("KQ.JX.LowPriorityFactorR", "4.5");
  DebugDatabase::Instance().SetEntry("KQ.IsDiskCompressionEnabledR", "true");
  EXPECT_EQ(jx::settings::WriteToDiskPriority(), 2);
  EXPECT_DOUBLE_EQ(jx::settings::LowPriorityFactor(), 4.5);
  EXPECT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowedForPlayback);
  DebugDatabase::Instance().SetEntry("KQ.JX.PlaybackCompressionOptionR", "0");
  EXPECT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionAllowedForPlayback);
  EXPECT_EQ(Lookups("KQ.JX.PlaybackCompressionOptionR"), 1u);
}

// The write priority is not read while the improved behaviour is off (a value set then is the one
// read once it is on), nor the playback option while compression is off.
TEST(SettingsTest, WritePriorityIsReadOnlyOnceImprovedBehaviourIsOn) {
  DebugDatabase::Instance().SetEntry("KQ.JX.WriteToDiskPriorityR", "0");
  ASSERT_FALSE(JX_IsImprovedDiskCacheBehaviorFullyEnabled());
  EXPECT_EQ(jx::settings::WriteToDiskPriority(), 2);
  EXPECT_EQ(JX_GetPlaybackCompressionAllowedOption(), kJX_CompressionNotAllowed);
  EXPECT_EQ(Lookups("KQ.JX.WriteToDiskPriorityR"), 0u);
  EXPECT_EQ(Lookups("KQ.JX.PlaybackCompressionOptionR"), 0u);
  JX_PlaybackFromDiskLogicIsEnabled();
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
