// Callbacks into the host that the host answers by using the cache again, on a thread of its own
// that the callback waits for (its display thread, its worker pool). Such a callback must run
// with none of the cache's locks held, or the host's other thread waits for the very lock that
// the waiting callback holds. Every wait here is bounded: a hang fails the test instead of
// stopping the run.
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
using jx::testing::CheckMediaMapBooks;
using jx::testing::MakeItem;
using jx::testing::MediaMapTest;
using jx::testing::TestPayload;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

using namespace std::chrono_literals;

// How long the host's own thread may take to get an answer from the cache. Nothing it asks
// takes more than microseconds unless a lock keeps it out.
constexpr auto kHostThreadDeadline = 2s;

// The media map on, and a disk cache folder, so that every way an item leaves memory or loses
// its disk copy can be taken.
class HostCallbackTest : public jx::testing::MediaMapDiskTest {};

// What a host's change handler saw when an item lost its memory or its disk copy. The handler
// has its own thread check the item out and back in, and look at the bag, and waits for that,
// as a host refreshing its display of the cache does.
struct ChangeWatch {
  std::mutex mutex;
  int calls = 0;             // handler calls
  int underLibraryLock = 0;  // of those, made holding the library lock
  int underItemLock = 0;     // of those, made holding any item's lock
  int hostThreadStuck = 0;   // of those, whose host thread got no answer by the deadline
  // The host threads' results, kept here: a std::async future waits for its thread when it goes,
  // and the handler must not wait past its deadline.
  std::vector<std::future<void>> asked;
};

void Watch(const IntrusivePtr<JX_Stuff>& item, const std::shared_ptr<JX_Bag>& bag,
           ChangeWatch& watch) {
  JX_Stuff* const raw = item.get();  // the test holds the item for longer than the handler runs
  item->GetMemDiskChangedSignal().Connect([raw, bag, &watch](bool, bool) {
    const bool libraryLocked = JXp_ScLock::IsLockedByCurrentThread();
    const bool itemLocked = zelcore::threads::MultiTenantRecursiveMutex::CurrentThreadHoldsAny();
    auto asked = std::async(std::launch::async, [raw, bag] {
      (void)bag->GetNumItems();
      if (raw->Checkout(cf::kReadOnly | cf::kNoDiskRead) == kJX_CheckedOut)
        raw->Checkin(ci::kKeepRecency, 0.0);
    });
    const bool stuck = asked.wait_for(kHostThreadDeadline) != std::future_status::ready;
    std::lock_guard<std::mutex> lock(watch.mutex);
    ++watch.calls;
    watch.underLibraryLock += libraryLocked;
    watch.underItemLock += itemLocked;
    watch.hostThreadStuck += stuck;
    watch.asked.push_back(std::move(asked));
  });
}

// Runs `change` where a hang can be seen, then checks what the handler saw. Every host thread
// must get its answer in the end (the change let go of its locks): only time was lost.
void ExpectHandlerFreeToUseTheCache(const std::function<void()>& change, ChangeWatch& watch) {
  auto changed = std::async(std::launch::async, change);
  ASSERT_EQ(changed.wait_for(60s), std::future_status::ready) << "the change never returned";
  changed.get();
  std::lock_guard<std::mutex> lock(watch.mutex);
  for (auto& asked : watch.asked)
    EXPECT_EQ(asked.wait_for(30s), std::future_status::ready) << "host thread never answered";
  ASSERT_EQ(watch.calls, 1) << "the handler must hear of the change once";
  EXPECT_EQ(watch.underLibraryLock, 0) << "handler called holding the library lock";
  EXPECT_EQ(watch.underItemLock, 0) << "handler called holding an item's lock";
  EXPECT_EQ(watch.hostThreadStuck, 0)
      << "the host's thread could not use the cache while the handler waited for it";
}

// Three ways an item's payload leaves memory, each telling the item's change handler: the host's
// purge walk over its budget, the host's media manager taking the item's entry back, and a
// check-in that asks for a purge. The handler is the host's code: it must run with the cache's
// locks released, as the handler of a write to disk or of a dropped disk copy does.
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
    auto item = MakeItem(400);
    bag_->AddToBagAndSortDir(item);
    ChangeWatch watch;
    Watch(item, bag_, watch);
    ExpectHandlerFreeToUseTheCache([&] { way.purge(*bag_, item); }, watch);
    EXPECT_FALSE(item->IsInMemory()) << "the payload must have left memory";
    item->RemoveFromBagAndSortDir();
  }
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

// The same handler on the purging thread itself: a host that, told a frame left memory, looks at
// the next frame (checks it out and back in, which renews it). The host asked for more than the
// bag holds, so every idle item must go whatever order the renewal leaves them in. Were the
// handler called in the middle of the walk, the renewal would move the item the walk was about to
// visit to the young end, and the walk, following it there, would end with the items in between
// never visited.
TEST_F(HostCallbackTest, AHandlerThatRenewsAnItemOnThePurgingThreadLeavesNothingUnpurged) {
  std::vector<IntrusivePtr<JX_Stuff>> items;
  for (int i = 0; i < 4; ++i) {
    items.push_back(MakeItem(400));
    bag_->AddToBagAndSortDir(items.back());  // oldest first
  }
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

// The same, with a host that drops the next frame from the cache when told its neighbour left
// memory (a frame derived from it, say), found by its key among the bag's items. Were the
// handler called in the middle of the walk, which already stepped onto that frame before it
// purged the first, the walk's next step would read an item that is gone. Run in a child
// process, since that read may well end the process: the child says what went wrong, if it can.
void DropTheNextItemDuringAPurge(JX_Bag& bag) {
  auto first = MakeItem(400);
  bag.AddToBagAndSortDir(first);
  Guid next;  // the item is owned by the cache alone
  {
    auto item = MakeItem(400);
    bag.AddToBagAndSortDir(item);
    next = item->GetGuid();
  }
  std::vector<IntrusivePtr<JX_Stuff>> rest;
  for (int i = 0; i < 2; ++i) {
    rest.push_back(MakeItem(400));
    bag.AddToBagAndSortDir(rest.back());
  }
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

// What a payload's owner saw when the payload's memory went: a host whose frames come from its
// own media pool hands each buffer back there, on the pool's thread, and waits for it; the pool's
// thread looks at the cache on the way (or purges it, as the pool does under pressure).
struct ReleaseWatch {
  std::shared_ptr<JX_Bag> bag;
  std::mutex mutex;
  int releases = 0;
  int underLibraryLock = 0;
  int underItemLock = 0;
  int hostThreadStuck = 0;
  std::vector<std::future<void>> asked;  // kept: a future's destructor would wait

  void OnRelease() {
    const bool libraryLocked = JXp_ScLock::IsLockedByCurrentThread();
    const bool itemLocked = zelcore::threads::MultiTenantRecursiveMutex::CurrentThreadHoldsAny();
    auto pool = std::async(std::launch::async, [b = bag] { (void)b->GetNumItems(); });
    const bool stuck = pool.wait_for(kHostThreadDeadline) != std::future_status::ready;
    std::lock_guard<std::mutex> lock(mutex);
    ++releases;
    underLibraryLock += libraryLocked;
    underItemLock += itemLocked;
    hostThreadStuck += stuck;
    asked.push_back(std::move(pool));
  }
};

// Three ways an item's payload memory goes while only the cache holds the item: a new render of
// its key replaces it, the host's purge walk frees it, the host's media manager takes its entry
// back. The memory must go with none of the cache's locks held (the library's own rule), so that
// the payload's owner can do what it must to give it back.
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
       [](JX_Bag& bag, const Guid&) {
         auto adapter = jx::mediamap::CurrentAdapter();
         ASSERT_TRUE(adapter);
         const auto mirrored = adapter->Snapshot();
         ASSERT_EQ(mirrored.size(), 1u);
         const uint64_t id = mirrored.front().id;
         ASSERT_TRUE(jx::standalone::MediaManagerPool()->PurgeEntry(adapter->GetMediaMapID(), id));
         (void)bag;
       }},
  };
  for (const Way& way : ways) {
    SCOPED_TRACE(way.name);
    const Guid guid = Guid::CreateUnique();
    bag_->AddToBagAndSortDir(MakeItem(400, guid, 1));  // the cache alone holds it
    ReleaseWatch watch;
    watch.bag = bag_;
    TestPayload::OnRelease() = [&watch] { watch.OnRelease(); };
    auto freed = std::async(std::launch::async, [&] { way.free(*bag_, guid); });
    const bool returned = freed.wait_for(60s) == std::future_status::ready;
    TestPayload::OnRelease() = nullptr;
    ASSERT_TRUE(returned) << "the change never returned";
    freed.get();
    {
      std::lock_guard<std::mutex> lock(watch.mutex);
      for (auto& asked : watch.asked)
        EXPECT_EQ(asked.wait_for(30s), std::future_status::ready) << "host thread never answered";
      ASSERT_EQ(watch.releases, 1) << "the old payload's memory must have gone, once";
      EXPECT_EQ(watch.underLibraryLock, 0) << "memory freed holding the library lock";
      EXPECT_EQ(watch.underItemLock, 0) << "memory freed holding an item's lock";
      EXPECT_EQ(watch.hostThreadStuck, 0)
          << "the owner's pool thread could not use the cache while the memory went";
    }
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

// Three ways an item loses its disk copy, each telling the item's handler: a check-out made
// writeable (the copy no longer matches what the holder will make of the payload), a read back
// that fails (the reader holds the item's lock for the read), and the disk writer making room in
// the folder (it looks at each item under the item's lock). The handler must come after the lock
// is let go, as the first way has it.
TEST_F(HostCallbackTest, AnItemLosingItsDiskCopyTellsItsHandlerWithNoItemLockHeld) {
  {
    SCOPED_TRACE("check-out made writeable");
    auto item = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new TestPayload(400, 2, true)), 1.0);
    item->SetGuid(Guid::CreateUnique());
    bag_->AddToBagAndSortDir(item);
    item->PrepAndWrite(bag_);
    ASSERT_TRUE(item->HasDiskCacheFile());
    ASSERT_TRUE(jx::testing::WriterDrained());
    ASSERT_EQ(item->Checkout(cf::kReadOnly), kJX_CheckedOut);

    ChangeWatch watch;
    Watch(item, bag_, watch);
    ExpectHandlerFreeToUseTheCache([&] { item->ConvertToWriteable(); }, watch);
    EXPECT_FALSE(item->HasDiskCacheFile()) << "the stale copy must have been dropped";
    item->Checkin(0, 0.0);
    item->RemoveFromBagAndSortDir();
  }
  // On disk only, its copy unreadable: read back on its own, and by a check-out that asks for
  // the payload in memory.
  for (const bool byCheckout : {false, true}) {
    SCOPED_TRACE(byCheckout ? "failed read back in a check-out" : "failed read back");
    auto item =
        JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new UnreadablePayload(400, 3, true)), 1.0);
    item->SetGuid(Guid::CreateUnique());
    bag_->AddToBagAndSortDir(item);
    item->PrepAndWrite(bag_);
    ASSERT_TRUE(item->HasDiskCacheFile());
    ASSERT_TRUE(jx::testing::WriterDrained());
    item->FreeUpAsMuchAsPossible(true, nullptr);
    ASSERT_FALSE(item->IsInMemory());

    ChangeWatch watch;
    Watch(item, bag_, watch);
    const int readsBefore = UnreadablePayload::reads.load();
    if (byCheckout) {
      JX_CheckoutResult result = kJX_CheckedOut;
      ExpectHandlerFreeToUseTheCache([&] { result = item->Checkout(cf::kReadOnly); }, watch);
      EXPECT_EQ(result, kJX_CheckoutRefused) << "an item whose payload cannot be read is refused";
    } else {
      int thrown = 0;
      ExpectHandlerFreeToUseTheCache(
          [&] { thrown = jx::testing::ThrownCode([&] { item->EnsureInMemory(); }); }, watch);
      EXPECT_EQ(thrown, 5) << "the read's failure comes back to the caller";
    }
    EXPECT_EQ(UnreadablePayload::reads.load(), readsBefore + 1) << "the read must have been tried";
    EXPECT_FALSE(item->HasDiskCacheFile()) << "a copy that cannot be read is dropped";
    item->RemoveFromBagAndSortDir();
  }
  // In memory and on disk, its copy the oldest in a folder that must make room.
  {
    SCOPED_TRACE("disk writer making room");
    auto item = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new TestPayload(400, 4, true)), 1.0);
    item->SetGuid(Guid::CreateUnique());
    bag_->AddToBagAndSortDir(item);
    item->PrepAndWrite(bag_);
    ASSERT_TRUE(item->HasDiskCacheFile());
    ASSERT_TRUE(jx::testing::WriterDrained());

    ChangeWatch watch;
    Watch(item, bag_, watch);
    ExpectHandlerFreeToUseTheCache(
        [&] { bag_->EnsureDiskSpace(bag_->GetCurFreeSpace() + 1, UINT64_MAX); }, watch);
    EXPECT_FALSE(item->HasDiskCacheFile()) << "the copy must have been deleted to make room";
    EXPECT_TRUE(item->IsInMemory());
    item->RemoveFromBagAndSortDir();
  }
  EXPECT_EQ(CheckMediaMapBooks(*adapter_, *bag_), "");
}

}  // namespace

namespace {

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

// A host mirrors an item's state from what its change handler hears: the last thing it heard
// must be where the item is. A purge walk frees a frame that has a disk copy (the handler is to
// hear "on disk, not in memory"); later in the same walk, with the walk still holding the
// library lock, the disk writer deletes that copy on its own thread (which takes the item's lock
// only) and its handler call says "nowhere". When the walk's news reaches the handler after the
// writer's, the host ends up believing the frame is on disk, and will count it, show it as
// cached and ask for it from disk, while it is gone.
TEST_F(HostCallbackTest, TheLastChangeAHandlerHearsIsTheItemsState) {
  auto first = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new TestPayload(400, 5, true)), 1.0);
  first->SetGuid(Guid::CreateUnique());
  bag_->AddToBagAndSortDir(first);  // the oldest: the walk frees it first
  first->PrepAndWrite(bag_);
  ASSERT_TRUE(first->HasDiskCacheFile());
  ASSERT_TRUE(jx::testing::WriterDrained());

  std::mutex heardMutex;
  std::vector<std::pair<bool, bool>> heard;  // (in memory, on disk), in the order heard
  first->GetMemDiskChangedSignal().Connect([&](bool inMemory, bool onDisk) {
    std::lock_guard<std::mutex> lock(heardMutex);
    heard.emplace_back(inMemory, onDisk);
  });

  // The next item the walk frees: by then the first is out of memory, and the writer deletes
  // its copy meanwhile. The writer's thread is waited for, bounded: it needs no lock the walk
  // holds.
  int deletes = 0;
  bool deleterDone = false;
  std::future<bool> deleter;
  auto second = JX_Stuff::CreateNew(
      IntrusivePtr<JX_StuffData>(new PurgeHookPayload(
          400,
          [&] {
            if (deletes++ != 0) return;
            deleter = std::async(std::launch::async, [&] { return first->DeleteDiskCacheFile(); });
            deleterDone = deleter.wait_for(10s) == std::future_status::ready;
          })),
      1.0);
  second->SetGuid(Guid::CreateUnique());
  bag_->AddToBagAndSortDir(second);

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

// A frame read back from disk needs memory, and a host whose frames come from its own pool makes
// room as it hands the memory out: its manager takes another frame's entry back, and it runs its
// purge walk, on the reading thread. That thread holds the read frame's lock, while another thread
// empties memory and, holding the library lock, waits for that frame. The reader's purges must
// not wait for the library lock in turn: they give up, and the read goes on. Run in a child
// process, since a deadlock there cannot be undone: the child says what went wrong, if it can.
void PurgeFromInsideARead(JX_Bag& bag) {
  auto read =
      JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new ReadHookPayload(400, 3, true)), 1.0);
  read->SetGuid(Guid::CreateUnique());
  bag.AddToBagAndSortDir(read);
  read->PrepAndWrite(bag.shared_from_this());
  read->FreeUpAsMuchAsPossible(false, nullptr);
  auto other = MakeItem(400);
  bag.AddToBagAndSortDir(other);
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
