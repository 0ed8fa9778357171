// The stand-in media manager: one pool, oldest first across the host's media and the maps'
// entries, owners called without the manager's lock, pinned and dead owners' entries.
#include "standalone/media_manager_pool.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace {

// A map that records what the manager hands back, and checks that the manager can be called
// from inside its callback (it would deadlock if the manager still held its mutex).
class RecordingMap : public RV::IMediaMap {
 public:
  explicit RecordingMap(RV::MediaManager& manager)
      : manager_(manager), id_(manager.NewMediaMapID()) {}
  const RV::MediaMapID& GetMediaMapID() const override { return id_; }
  void PurgeEntry(uint64_t id) override {
    purged.push_back(id);
    totalSeenInCallback = manager_.GetTotalBytes();
  }
  bool IsNonPurgeable(uint64_t id) const override { return pinned.count(id) != 0; }

  std::vector<uint64_t> purged;
  std::set<uint64_t> pinned;
  uint64_t totalSeenInCallback = 0;

 private:
  RV::MediaManager& manager_;
  const RV::MediaMapID id_;
};

TEST(MediaManagerTest, PurgesOldestFirstAcrossHostMediaAndMaps) {
  RV::MediaManager manager;
  auto map = std::make_shared<RecordingMap>(manager);
  const uint64_t oldMedia = manager.AddHostMedia(100);
  manager.RegisterEntry(1, 50, 1, 0, map);
  manager.RegisterEntry(2, 50, 1, 0, map);
  manager.RegisterEntry(3, 50, 1, 0, map);
  manager.RegisterEntry(4, 50, 1, 0, map);
  manager.AddHostMedia(30);
  EXPECT_EQ(manager.GetTotalBytes(), 330u);

  manager.NotifyEntry(1, map->GetMediaMapID());  // used again: now the youngest
  manager.ForgetEntry(3, map->GetMediaMapID());
  manager.ForgetEntry(3, map->GetMediaMapID());  // twice is harmless
  map->pinned.insert(2);
  EXPECT_EQ(manager.GetEntryIDsOfMap(map->GetMediaMapID()), (std::vector<uint64_t>{2, 4, 1}));

  // 280 held: the host's old media is dropped, 2 is pinned, 4 goes; 130 is within 140.
  manager.SetBudget(140);
  EXPECT_EQ(map->purged, std::vector<uint64_t>{4});
  EXPECT_EQ(map->totalSeenInCallback, 130u)
      << "the entry is no longer counted when its owner hears";
  EXPECT_FALSE(manager.RemoveHostMedia(oldMedia));
  EXPECT_EQ(manager.GetTotalBytes(), 130u);
  EXPECT_EQ(manager.GetBytesOfMap(map->GetMediaMapID()), 100u);
  EXPECT_EQ(manager.GetPurgeCallCount(), 1u);

  // Only pinned entries left over budget: the walk stops instead of spinning.
  manager.SetBudget(0);
  EXPECT_EQ(map->purged, (std::vector<uint64_t>{4, 1}));
  EXPECT_EQ(manager.GetTotalBytes(), 50u);
  manager.UnregisterMediaMap(map->GetMediaMapID());
  EXPECT_EQ(manager.GetTotalBytes(), 0u);
}

TEST(MediaManagerTest, DeadOwnersEntriesAreDropped) {
  RV::MediaManager manager;
  auto map = std::make_shared<RecordingMap>(manager);
  manager.RegisterEntry(1, 500, 1, 0, map);
  manager.RegisterEntry(1, 70, 1, 0, map);  // registering again replaces the entry
  EXPECT_EQ(manager.GetTotalBytes(), 70u);
  map.reset();
  EXPECT_EQ(manager.EnforceBudget(), 0u) << "within the unlimited budget";
  manager.SetBudget(0);
  EXPECT_EQ(manager.GetTotalBytes(), 0u);
  EXPECT_EQ(manager.GetPurgeCallCount(), 0u);
}

}  // namespace
