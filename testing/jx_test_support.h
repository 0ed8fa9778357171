// Test support: a fixture that starts the library on a configured stand-in host with its own
// temporary folder and tears it all down, and a payload class for tests.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "jxcache/bag/bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/host/guid.h"
#include "jxcache/host/multi_tenant_mutex.h"
#include "jxcache/items/stuff.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"

namespace jx::testing {

// A payload of `size` bytes whose content derives from a seed, so a test can check it.
class TestPayload : public JX_StuffData {
 public:
  explicit TestPayload(unsigned int size, uint32_t seed = 0, bool diskCacheable = false);
  ~TestPayload() override;

  unsigned int GetApproximateMemorySize() const override;
  bool PurgeIfPossible(ReleaseQueue* toRelease) override;
  bool IsInMemory() const override;
  bool ShouldAllowPurge() const override { return allowPurge_; }
  bool CanDiskCache() const override { return diskCacheable_; }
  const char* GetSubclassMatchname() const override { return "TestPayload"; }
  void GetHeader(Header& header) const override;
  double Write(zelcore::filesupport::OByteStream& out) const override;
  double Read(zelcore::filesupport::IByteStream& in,
              zelcore::threads::MultiTenantRecursiveMutex& itemMutex) override;
  bool CanSatisfyRequest(IntrusivePtr<JX_StuffData> request) const override;

  void SetAllowPurge(bool allow) { allowPurge_ = allow; }
  // Gives the payload the bytes (and header) of `seed` in place, as a holder of a writeable
  // check-out rewrites what it holds.
  void Rewrite(uint32_t seed);
  // Changes the reported size in place (the bytes are not reallocated).
  void SetReportedSize(unsigned int size) { size_ = size; }
  // When set, the payload refuses requests of another variant (same GUID, other request).
  void SetVariant(int variant) { variant_ = variant; }
  // A payload that can stand in for every variant (while requests of its own variant only
  // accept it): makes the direction of CanSatisfyRequest observable.
  void SetSatisfiesAnyVariant(bool any) { satisfiesAny_ = any; }
  // The compressed form of a payload, and the compression a request accepts.
  void SetIsCompressed(bool compressed) override { compressed_ = compressed; }
  bool IsCompressed() const override { return compressed_; }
  void SetCompressedAllowedOption(JX_CompressedAllowedOption option) override { option_ = option; }
  JX_CompressedAllowedOption GetCompressedAllowedOption() const override { return option_; }
  uint32_t Seed() const { return seed_; }
  // Whether the bytes are present and match the seed.
  bool Verify() const;
  // Called when the payload's memory is finally released (from the purge queue or at once).
  static std::function<void()>& OnRelease();
  static std::atomic<int>& LiveCount();

 private:
  std::shared_ptr<std::vector<uint8_t>> bytes_;
  // Whether bytes_ is set, for the questions the cache asks under the item's read lock while a
  // read back from disk fills bytes_ under its upgrade lock.
  std::atomic<bool> inMemory_{true};
  unsigned int size_;
  uint32_t seed_;
  bool diskCacheable_;
  bool allowPurge_ = true;
  int variant_ = 0;
  bool satisfiesAny_ = false;
  bool compressed_ = false;
  JX_CompressedAllowedOption option_ = kJX_CompressionNotAllowed;
};

// Creates a ready item holding a TestPayload, with `guid` (a fresh one when empty).
zelcore::utility::IntrusivePtr<JX_Stuff> MakeItem(unsigned int size,
                                                  const zelcore::utility::Guid& guid = {},
                                                  uint32_t seed = 0);
// A request item: a GUID and a request payload, for find-and-check-out. `option`: which
// compression the requester accepts.
zelcore::utility::IntrusivePtr<JX_Stuff> MakeRequest(
    const zelcore::utility::Guid& guid, int variant = 0,
    JX_CompressedAllowedOption option = kJX_CompressionNotAllowed);
// The TestPayload of an item (null when it holds none or another class).
TestPayload* PayloadOf(const JX_Stuff& item);
// MakeItem's item, added to `bag`.
inline zelcore::utility::IntrusivePtr<JX_Stuff> AddedItem(JX_Bag& bag, unsigned int size,
                                                          const zelcore::utility::Guid& guid = {},
                                                          uint32_t seed = 0) {
  auto item = MakeItem(size, guid, seed);
  bag.AddToBagAndSortDir(item);
  return item;
}
// A new item of `payload` under a fresh GUID, added to `bag`.
inline zelcore::utility::IntrusivePtr<JX_Stuff> AddNewItem(JX_Bag& bag, JX_StuffData* payload,
                                                           double computeTime = 0.0) {
  auto item =
      JX_Stuff::CreateNew(zelcore::utility::IntrusivePtr<JX_StuffData>(payload), computeTime);
  item->SetGuid(zelcore::utility::Guid::CreateUnique());
  bag.AddToBagAndSortDir(item);
  return item;
}
// The int code `fn` throws (the library's way of failing), or 0 when it does not throw.
inline int ThrownCode(const std::function<void()>& fn) {
  try {
    fn();
  } catch (int code) {
    return code;
  }
  return 0;
}

// Waits until `done` holds, checking every millisecond, for at most a minute: a guard against a
// hang, never a measure of how long anything took.
inline bool EventuallyTrue(const std::function<bool()>& done) {
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!done()) {
    if (std::chrono::steady_clock::now() > giveUp) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Sum of the accounted sizes of the bag's items.
long long SumOfItemSizes(JX_Bag& bag);
// What the bag's items hold in memory, asked of their payloads (GetCacheSizesInBytes): a figure
// independent of the running totals, which at rest must equal them.
long long PayloadBytesInBag(const JX_Bag& bag);

// Puts back what a new process starts with and a test may have changed: the settings the library
// read once, the stand-in's settings database (entries and look-up counts) and features, the
// disk speed estimates and the tracing configuration. The shared test entry point calls it before
// every test, so that a test program's tests pass in one process as they do one process each. Only
// while the library runs no work of its own.
void StartAsANewProcess();

// Stands in for the host's code that the cache calls (an item's change handler, a payload's owner
// giving memory back): each call has a thread of the host's own use the cache, and waits for it
// (bounded), as a host refreshing its display or handing a buffer back to its pool does. Made
// under a lock of the cache that thread needs, the call and the thread would wait for each other.
class HostThreadWatch {
 public:
  void Called(std::function<void()> hostThread) {
    const bool libraryLocked = JXp_ScLock::IsLockedByCurrentThread();
    const bool itemLocked = zelcore::threads::MultiTenantRecursiveMutex::CurrentThreadHoldsAny();
    auto done = std::make_shared<std::promise<void>>();
    std::shared_future<void> answered = done->get_future().share();
    std::thread([work = std::move(hostThread), done]() mutable {
      work();
      work = nullptr;  // what it holds (a bag, say) goes before the answer
      done->set_value();
    }).detach();  // a thread stuck for good must not hang the test
    const bool stuck = answered.wait_for(std::chrono::seconds(2)) != std::future_status::ready;
    std::lock_guard<std::mutex> lock(mutex_);
    ++calls_;
    underLibraryLock_ += libraryLocked;
    underItemLock_ += itemLocked;
    stuck_ += stuck;
    answers_.push_back(std::move(answered));
  }
  int Calls() const { return Read(calls_); }
  int UnderLibraryLock() const { return Read(underLibraryLock_); }
  int UnderItemLock() const { return Read(underItemLock_); }
  // Calls whose host thread got no answer while the call waited for it.
  int Stuck() const { return Read(stuck_); }
  // Whether every host thread has had its answer by now or within 30 s: one that waited for the
  // caller gets it once the caller lets go.
  bool AllAnswered() const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& a : answers_) {
      if (a.wait_for(std::chrono::seconds(30)) != std::future_status::ready) return false;
    }
    return true;
  }

 private:
  int Read(const int& n) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return n;
  }
  mutable std::mutex mutex_;
  int calls_ = 0, underLibraryLock_ = 0, underItemLock_ = 0, stuck_ = 0;
  std::vector<std::shared_future<void>> answers_;
};

// Holds the library lock on a thread of its own for its lifetime: what needs the lock (applying
// recency notes, a bag's tear-down) waits meanwhile, while what does not goes on.
class LibraryLockHolder {
 public:
  LibraryLockHolder() { held_.get_future().wait(); }
  ~LibraryLockHolder() {
    release_.set_value();
    thread_.join();
  }
  LibraryLockHolder(const LibraryLockHolder&) = delete;
  LibraryLockHolder& operator=(const LibraryLockHolder&) = delete;

 private:
  std::promise<void> held_, release_;
  std::future<void> released_ = release_.get_future();
  std::thread thread_{[this] {
    JXp_ScLock lock;
    held_.set_value();
    released_.wait();
  }};
};

// Starts the library (JX_Birth) with a quiet, deterministic host and a temporary folder;
// stops it in TearDown and checks that nothing is left checked out.
class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Override to start differently (media map allowed, Gfxpak limit...).
  virtual void Birth();
  // Finds and checks out a request for `key` in the bag.
  JX_CheckoutResult Ask(const zelcore::utility::Guid& key, int flags,
                        zelcore::utility::IntrusivePtr<JX_Stuff>* found) {
    bool created = false;
    return bag_->FindAndCheckout(MakeRequest(key), flags, found, &created);
  }

  std::shared_ptr<JX_Bag> bag_;
  std::string tempDir_;
};

}  // namespace jx::testing
