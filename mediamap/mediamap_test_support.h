// A library fixture with the media map on, and a check of its books against items and manager.
#pragma once

#include <chrono>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "disk/disk_test_support.h"
#include "mediamap/manager_outbox.h"
#include "mediamap/media_map_impl.h"
#include "standalone/media_manager_pool.h"
#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace jx::testing {

class MediaMapTest : public LibraryTest {
 protected:
  void Birth() override {
    jx::standalone::MediaManagerPool()->Reset();
    // A small host limit keeps the purge walk's floor (a tenth of it) out of the way.
    StandaloneHost::Instance().SetMemoryLimit(1000);
    JX_Birth(true, 1, false);
    adapter_ = jx::mediamap::CurrentAdapter();
    ASSERT_TRUE(adapter_);
  }
  void TearDown() override {
    adapter_.reset();
    LibraryTest::TearDown();
  }

  std::shared_ptr<kq::JX_MediaMapImpl> adapter_;
};

// The same, with a disk cache folder: frames read back, written or dropped from the disk.
class MediaMapDiskTest : public MediaMapTest {
 protected:
  void SetUp() override {
    zelappsupport::preferences::Clear();
    zelappsupport::preferences::SetValue(jx::disk::kPreferencesGroup,
                                         jx::disk::kMinVolumeFreeSpaceName, "0");
    MediaMapTest::SetUp();
    RegisterTestPayloadFactory();
    bag_->EnableDiskCache(true);
    bag_->SetDiskCacheInfo(tempDir_, 1LL << 30);
    ASSERT_TRUE(bag_->IsDiskCacheEnabled());
  }
  void TearDown() override {
    MediaMapTest::TearDown();
    zelappsupport::preferences::Clear();
  }
};

// Waits (bounded) until the manager has heard every call posted so far.
inline bool SettleDeliveries() {
  using jx::mediamap::ManagerOutbox;
  const uint64_t posted = ManagerOutbox::Posted();
  ManagerOutbox::Deliver();
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (ManagerOutbox::Delivered() < posted && std::chrono::steady_clock::now() < giveUp)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return ManagerOutbox::Delivered() >= posted;
}

// Empty when consistent, else what is wrong. Every idle in-memory bag item is mirrored once, in
// `bag`, at its size and ID; the adapter's total, its entries and the manager's figure agree.
inline std::string CheckMediaMapBooks(const kq::JX_MediaMapImpl& adapter, JX_Bag& bag) {
  std::ostringstream why;
  // The manager hears of changes after the library's locks go (or from a background thread).
  if (!SettleDeliveries()) why << "calls to the manager never delivered; ";
  uint64_t recorded = 0;
  std::set<const JX_Stuff*> items;
  std::set<uint64_t> ids;
  for (const auto& m : adapter.Snapshot()) {
    recorded += m.size;
    ids.insert(m.id);
    auto data = m.stuff->GetDataPtr();
    if (!m.stuff->IsInMemory() || data->GetApproximateMemorySize() != m.size)
      why << "entry " << m.id << " is not the item's in-memory size; ";
    if (m.stuff->GetBag().get() != &bag) why << "entry " << m.id << " item not in the bag; ";
    if (m.stuff->GetMediaMapID() != m.id) why << "entry " << m.id << " item has another ID; ";
    if (!items.insert(m.stuff.get()).second) why << "item mirrored twice; ";
  }
  auto manager = jx::standalone::MediaManagerPool();
  const auto managerIDs = manager->GetEntryIDsOfMap(adapter.GetMediaMapID());
  if (adapter.GetCacheSize() != recorded)
    why << "total " << adapter.GetCacheSize() << " != entries " << recorded << "; ";
  if (manager->GetBytesOfMap(adapter.GetMediaMapID()) != recorded)
    why << "manager holds " << manager->GetBytesOfMap(adapter.GetMediaMapID()) << " != " << recorded
        << "; ";
  if (std::set<uint64_t>(managerIDs.begin(), managerIDs.end()) != ids)
    why << "manager's entries differ; ";
  for (const auto& s : bag.CopyMruItems()) {
    if (s->IsInMemory() && s->GetCheckoutCount() == 0 &&
        s->GetDataPtr()->GetApproximateMemorySize() > 0 && !items.count(s.get()))
      why << "in-memory item not mirrored; ";
  }
  return why.str();
}

}  // namespace jx::testing
