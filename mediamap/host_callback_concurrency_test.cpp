// Callbacks into the host that the host answers by using the cache on a thread of its own that
// the callback waits for: run under a cache lock, they deadlock. Every wait here is bounded.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "disk/disk_test_support.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/library_lock.h"
#include "mediamap/mediamap_test_support.h"
#include "standalone/media_manager_pool.h"
#include "standalone/standalone_host.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using namespace jx::testing;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

using namespace std::chrono_literals;

// The media map on, and a disk cache folder, so that every way an item leaves memory or loses
// its disk copy can be taken.
class HostCallbackTest : public jx::testing::MediaMapDiskTest {};

void Watch(const IntrusivePtr<JX_Stuff>& item, const std::shared_ptr<JX_Bag>& bag,
           HostThreadWatch& watch) {
  JX_Stuff* const raw = item.get();  // the test holds the item for longer than the handler runs
  item->GetMemDiskChangedSignal().Connect([raw, bag, &watch](bool, bool) {
    watch.Called([raw, bag] {
      (void)bag->GetNumItems();
      if (raw->Checkout(cf::kReadOnly | cf::kNoDiskRead) == kJX_CheckedOut)
        raw->Checkin(ci::kKeepRecency, 0.0);
    });
  });
}

// Runs `change` where a hang can be seen, then checks that the cache called the host once, with
// none of its locks held. Every host thread must get its answer in the end: only time was lost.
void ExpectHostFreeToUseTheCache(const std::function<void()>& change, HostThreadWatch& watch) {
  auto changed = std::async(std::launch::async, change);
  ASSERT_EQ(changed.wait_for(60s), std::future_status::ready) << "the change never returned";
  changed.get();
  EXPECT_TRUE(watch.AllAnswered()) << "host thread never answered";
  ASSERT_EQ(watch.Calls(), 1) << "the host must hear of the change once";
  EXPECT_EQ(watch.UnderLibraryLock(), 0) << "host called holding the library lock";
  EXPECT_EQ(watch.UnderItemLock(), 0) << "host called holding an item's lock";
  EXPECT_EQ(watch.Stuck(), 0)
      << "the host's thread could not use the cache while the cache waited for the host";
}

// Three ways an item's payload leaves memory, each telling the item's change handler, which is
// the host's code and must run with the cache's locks released.
TEST_F(HostCallbackTest, AnItemLeavingMemoryTellsItsHandlerWithNoCacheLockHeld) {
  struct Way {
    const char* name;
    std::function<void(JX_Bag&, const IntrusivePtr<JX_Stuff>&)> purge;
  };
  const Way ways[] = {
      {"host purge walk",
       [](JX_Bag& bag, const IntrusivePtr<JX_Stuff>&) { jx::PurgeOverBudget(bag, 1u << 20); }},
      {"media manager takes the entry back",
       [](JX_Bag&, const IntrusivePtr<JX_Stuff>& item) {
         auto adapter = jx::mediamap::CurrentAdapter();
         ASSERT_TRUE(adapter);
         ASSERT_TRUE(jx::standalone::MediaManagerPool()->PurgeEntry(adapter->GetMediaMapID(),
                                                                    item->GetMediaMapID()));
       }},
      {"check-in that purges",
       [](JX_Bag&, const IntrusivePtr<JX_Stuff>& item) {
         ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);
         item->Checkin(ci::kPurge, 0.0);
       }},
  };
  for (const Way& way : ways) {
    SCOPED_TRACE(way.name);
    // Large enough to keep the bag above the purge walk's floor (a tenth of the host's limit).
    auto item = AddedItem(*bag_, 400);
    HostThreadWatch watch;
    Watch(item, bag_, watch);
    ExpectHostFreeToUseTheCache([&] { way.purge(*bag_, item); }, watch);
    EXPECT_FALSE(item->IsInMemory()) << "the payload must have left memory";
    item->RemoveFromBagAndSortDir();
  }
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// A handler on the purging thread that renews the next frame: called mid-walk, the renewal moves
// the item the walk was about to visit to the young end, and the items in between are skipped.
TEST_F(HostCallbackTest, AHandlerThatRenewsAnItemOnThePurgingThreadLeavesNothingUnpurged) {
  std::vector<IntrusivePtr<JX_Stuff>> items;
  for (int i = 0; i < 4; ++i) items.push_back(AddedItem(*bag_, 400));  // oldest first
  std::atomic<int> calls{0};
  JX_Stuff* const next = items[1].get();
  items[0]->GetMemDiskChangedSignal().Connect([next, &calls](bool inMemory, bool) {
    if (inMemory) return;
    calls.fetch_add(1);
    if (next->Checkout(cf::kReadOnly) != kJX_CheckedOut) return;
    next->Checkin(0, 0.0);
  });

  auto purged = std::async(std::launch::async, [&] { jx::PurgeOverBudget(*bag_, 1u << 20); });
  ASSERT_EQ(purged.wait_for(60s), std::future_status::ready) << "the purge never returned";
  purged.get();

  EXPECT_EQ(calls.load(), 1) << "the handler must have heard of the purge once";
  EXPECT_FALSE(items[0]->IsInMemory());
  for (size_t i = 1; i < items.size(); ++i)
    EXPECT_FALSE(items[i]->IsInMemory()) << "item " << i << " left in memory by a purge asked "
                                         << "for more than the bag holds";
  EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
  for (auto& item : items) item->RemoveFromBagAndSortDir();
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// A handler that drops the next frame from the cache: called mid-walk, which already stepped
// onto that frame, the walk's next step reads a freed item. In a child, as that may end it.
void DropTheNextItemDuringAPurge(JX_Bag& bag) {
  auto first = AddedItem(bag, 400);
  const Guid next = AddedItem(bag, 400)->GetGuid();  // the item is owned by the cache alone
  std::vector<IntrusivePtr<JX_Stuff>> rest;
  for (int i = 0; i < 2; ++i) rest.push_back(AddedItem(bag, 400));
  int calls = 0;
  first->GetMemDiskChangedSignal().Connect([&bag, &next, &calls](bool inMemory, bool) {
    if (inMemory) return;
    ++calls;
    for (const auto& item : bag.CopyMruItems()) {
      if (item->GetGuid() == next) item->RemoveFromBagAndSortDir();
    }
  });

  auto purged = std::async(std::launch::async, [&] { jx::PurgeOverBudget(bag, 1u << 20); });
  if (purged.wait_for(60s) != std::future_status::ready) {
    std::fprintf(stderr, "the purge never returned\n");
    std::_Exit(2);
  }
  purged.get();
  bool sound = calls == 1 && !first->IsInMemory() && bag.GetNumItems() == 0 &&
               bag.GetInMemoryCacheSizeInBytes_LockFree() == 0;
  for (const auto& item : rest) sound = sound && !item->IsInMemory();
  if (!sound) std::fprintf(stderr, "the purge left memory or items behind\n");
  std::_Exit(sound ? 0 : 1);
}

TEST_F(HostCallbackTest, AHandlerThatDropsAnItemOnThePurgingThreadLeavesTheWalkSound) {
  // The child starts the test afresh rather than inheriting this process's threads mid-lock.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(DropTheNextItemDuringAPurge(*bag_), ::testing::ExitedWithCode(0), "")
      << "the purge walk must come through a handler that drops the item it is about to visit";
}

// Three ways an item's payload memory goes while only the cache holds the item: a new render of
// its key replaces it, the host's purge walk frees it, the host's media manager takes its entry
// back. The owner hands the buffer back to its pool, whose thread uses the cache: the memory must
// go with none of the cache's locks held.
TEST_F(HostCallbackTest, APayloadsMemoryGoesWithNoCacheLockHeld) {
  struct Way {
    const char* name;
    std::function<void(JX_Bag&, const Guid&)> free;
  };
  const Way ways[] = {
      {"a new render of the key replaces the item",
       [](JX_Bag& bag, const Guid& guid) { bag.AddToBagAndSortDir(MakeItem(400, guid, 9)); }},
      {"host purge walk", [](JX_Bag& bag, const Guid&) { jx::PurgeOverBudget(bag, 1u << 20); }},
      {"media manager takes the entry back",
       [](JX_Bag&, const Guid&) {
         auto adapter = jx::mediamap::CurrentAdapter();
         ASSERT_TRUE(adapter);
         const auto mirrored = adapter->Snapshot();
         ASSERT_EQ(mirrored.size(), 1u);
         ASSERT_TRUE(jx::standalone::MediaManagerPool()->PurgeEntry(adapter->GetMediaMapID(),
                                                                    mirrored.front().id));
       }},
  };
  for (const Way& way : ways) {
    SCOPED_TRACE(way.name);
    const Guid guid = Guid::CreateUnique();
    bag_->AddToBagAndSortDir(MakeItem(400, guid, 1));  // the cache alone holds it
    HostThreadWatch watch;
    TestPayload::OnRelease() = [&watch, bag = bag_] {
      watch.Called([bag] { (void)bag->GetNumItems(); });
    };
    std::shared_ptr<void> unhook(nullptr, [](void*) { TestPayload::OnRelease() = nullptr; });
    ExpectHostFreeToUseTheCache([&] { way.free(*bag_, guid); }, watch);
    unhook.reset();
    for (const auto& item : bag_->CopyMruItems()) item->RemoveFromBagAndSortDir();
  }
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// A payload whose disk copy cannot be read back.
class UnreadablePayload : public TestPayload {
 public:
  using TestPayload::TestPayload;
  double Read(zelcore::filesupport::IByteStream&,
              zelcore::threads::MultiTenantRecursiveMutex&) override {
    reads.fetch_add(1);
    throw 5;
  }
  static inline std::atomic<int> reads{0};
};

// Ways an item loses its disk copy: made writeable, a failed read back (under the item's lock),
// the writer making room (which looks at each item under its lock). The handler comes after.
TEST_F(HostCallbackTest, AnItemLosingItsDiskCopyTellsItsHandlerWithNoItemLockHeld) {
  {
    SCOPED_TRACE("check-out made writeable");
    auto item = AddNewItem(*bag_, new TestPayload(400, 2, true), 1.0);
    ASSERT_TRUE(WriteToDisk(bag_, item));
    ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);

    HostThreadWatch watch;
    Watch(item, bag_, watch);
    ExpectHostFreeToUseTheCache([&] { item->ConvertToWriteable(); }, watch);
    EXPECT_FALSE(item->HasDiskCacheFile()) << "the stale copy must have been dropped";
    item->Checkin(0, 0.0);
    item->RemoveFromBagAndSortDir();
  }
  // On disk only, its copy unreadable: read back on its own, and by a check-out that asks for
  // the payload in memory.
  for (const bool byCheckout : {false, true}) {
    SCOPED_TRACE(byCheckout ? "failed read back in a check-out" : "failed read back");
    auto item = AddNewItem(*bag_, new UnreadablePayload(400, 3, true), 1.0);
    ASSERT_TRUE(WriteToDisk(bag_, item, /*leaveMemory=*/true));

    HostThreadWatch watch;
    Watch(item, bag_, watch);
    const int readsBefore = UnreadablePayload::reads.load();
    if (byCheckout) {
      JX_CheckoutResult result = kJX_CheckedOut;
      ExpectHostFreeToUseTheCache([&] { result = item->Checkout(cf::kReadOnly); }, watch);
      EXPECT_EQ(result, kJX_CheckoutRefused) << "an item whose payload cannot be read is refused";
    } else {
      int thrown = 0;
      ExpectHostFreeToUseTheCache([&] { thrown = ThrownCode([&] { item->EnsureInMemory(); }); },
                                  watch);
      EXPECT_EQ(thrown, 5) << "the read's failure comes back to the caller";
    }
    EXPECT_EQ(UnreadablePayload::reads.load(), readsBefore + 1) << "the read must have been tried";
    EXPECT_FALSE(item->HasDiskCacheFile()) << "a copy that cannot be read is dropped";
    item->RemoveFromBagAndSortDir();
  }
  // In memory and on disk, its copy the oldest in a folder that must make room.
  {
    SCOPED_TRACE("disk writer making room");
    auto item = AddNewItem(*bag_, new TestPayload(400, 4, true), 1.0);
    ASSERT_TRUE(WriteToDisk(bag_, item));

    HostThreadWatch watch;
    Watch(item, bag_, watch);
    ExpectHostFreeToUseTheCache(
        [&] { bag_->EnsureDiskSpace(bag_->GetCurFreeSpace() + 1, UINT64_MAX); }, watch);
    EXPECT_FALSE(item->HasDiskCacheFile()) << "the copy must have been deleted to make room";
    EXPECT_TRUE(item->IsInMemory());
    item->RemoveFromBagAndSortDir();
  }
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// A payload whose purge runs `onPurge` first, on the purging thread, while the walk holds the
// library lock.
class PurgeHookPayload : public TestPayload {
 public:
  PurgeHookPayload(unsigned int size, std::function<void()> onPurge)
      : TestPayload(size), onPurge_(std::move(onPurge)) {}
  bool PurgeIfPossible(ReleaseQueue* toRelease) override {
    if (onPurge_) onPurge_();
    return TestPayload::PurgeIfPossible(toRelease);
  }

 private:
  std::function<void()> onPurge_;
};

// A host mirrors an item's state from its handler. A purge walk frees a frame with a disk copy;
// later in the walk, the writer deletes that copy on its own thread. Were the walk's news heard
// after the writer's, the host would believe a deleted frame is on disk.
TEST_F(HostCallbackTest, TheLastChangeAHandlerHearsIsTheItemsState) {
  auto first = AddNewItem(*bag_, new TestPayload(400, 5, true), 1.0);  // the walk frees it first
  ASSERT_TRUE(WriteToDisk(bag_, first));

  std::mutex heardMutex;
  std::vector<std::pair<bool, bool>> heard;  // (in memory, on disk), in the order heard
  first->GetMemDiskChangedSignal().Connect([&](bool inMemory, bool onDisk) {
    std::lock_guard<std::mutex> lock(heardMutex);
    heard.emplace_back(inMemory, onDisk);
  });

  // The next item the walk frees deletes the first's copy on another thread, waited for
  // (bounded): that needs no lock the walk holds.
  int deletes = 0;
  bool deleterDone = false;
  std::future<bool> deleter;
  auto second = AddNewItem(
      *bag_,
      new PurgeHookPayload(400,
                           [&] {
                             if (deletes++ != 0) return;
                             deleter = std::async(std::launch::async,
                                                  [&] { return first->DeleteDiskCacheFile(); });
                             deleterDone = deleter.wait_for(10s) == std::future_status::ready;
                           }),
      1.0);

  auto purged = std::async(std::launch::async, [&] { jx::PurgeOverBudget(*bag_, 1u << 20); });
  ASSERT_EQ(purged.wait_for(60s), std::future_status::ready) << "the purge never returned";
  purged.get();
  ASSERT_EQ(deletes, 1) << "the second item was never purged: nothing tested";
  ASSERT_TRUE(deleterDone) << "the disk copy's deletion waited for the purge walk";
  ASSERT_TRUE(deleter.get()) << "the disk copy was not deleted: nothing tested";
  ASSERT_FALSE(first->IsInMemory());
  ASSERT_FALSE(first->HasDiskCacheFile());

  std::lock_guard<std::mutex> lock(heardMutex);
  ASSERT_EQ(heard.size(), 2u) << "the handler must hear of the purge and of the deletion";
  EXPECT_EQ(heard.back(), std::make_pair(false, false))
      << "the handler heard last that the item is on disk, after it heard the copy was deleted";
  first->RemoveFromBagAndSortDir();
  second->RemoveFromBagAndSortDir();
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// A payload whose read back from disk runs `duringRead` first, on the reading thread, which
// holds the item's lock for the read.
class ReadHookPayload : public TestPayload {
 public:
  using TestPayload::TestPayload;
  double Read(zelcore::filesupport::IByteStream& in,
              zelcore::threads::MultiTenantRecursiveMutex& itemMutex) override {
    if (duringRead) duringRead();
    return TestPayload::Read(in, itemMutex);
  }
  static inline std::function<void()> duringRead;
};

// A host makes room for a frame read back (its manager takes an entry back, its purge walk runs)
// on the reading thread, which holds the frame's lock while another thread, holding the library
// lock, waits for that frame: the reader's purges must give up, not wait. In a child: a deadlock.
void PurgeFromInsideARead(JX_Bag& bag) {
  auto read = AddNewItem(bag, new ReadHookPayload(400, 3, true), 1.0);
  read->PrepAndWrite(bag.shared_from_this());
  read->FreeUpAsMuchAsPossible(false, nullptr);
  auto other = AddedItem(bag, 400);
  if (!read->HasDiskCacheFile() || read->IsInMemory() || other->GetMediaMapID() == 0) {
    std::fprintf(stderr, "set-up failed\n");
    std::_Exit(3);
  }
  std::promise<void> reading;
  std::atomic<int> reads{0}, roomMade{0};
  std::future<void> emptied;
  ReadHookPayload::duringRead = [&] {
    ++reads;
    reading.set_value();
    std::this_thread::sleep_for(200ms);  // the emptying thread reaches this frame meanwhile
    auto adapter = jx::mediamap::CurrentAdapter();
    jx::standalone::MediaManagerPool()->PurgeEntry(adapter->GetMediaMapID(),
                                                   other->GetMediaMapID());
    jx::PurgeOverBudget(bag, 1u << 20);
    ++roomMade;
  };
  auto reader = std::async(std::launch::async, [&] { return read->Checkout(cf::kReadOnly); });
  reading.get_future().wait();
  emptied = std::async(std::launch::async, [&] { bag.PurgeAllMemoryCaches(); });
  if (reader.wait_for(10s) != std::future_status::ready ||
      emptied.wait_for(10s) != std::future_status::ready) {
    std::fprintf(stderr, "the reader and the emptying thread wait for each other\n");
    std::_Exit(2);
  }
  const bool sound = reads == 1 && roomMade == 1 && reader.get() == kJX_CheckedOut &&
                     read->IsInMemory() && !other->IsInMemory();
  if (!sound) std::fprintf(stderr, "the read or the purges went wrong\n");
  std::_Exit(sound ? 0 : 1);
}

TEST_F(HostCallbackTest, APurgeFromInsideAReadBackNeverWaitsForTheLibraryLock) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(PurgeFromInsideARead(*bag_), ::testing::ExitedWithCode(0), "")
      << "a purge made on a reading thread must not wait for a thread that waits for the read";
}

}  // namespace
