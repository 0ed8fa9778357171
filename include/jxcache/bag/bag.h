// JX_Bag: the container that owns the cached items of one cache.
//
// It keeps the items in recency order (oldest first), holds the GUID-keyed sort directory, and
// keeps the running byte counts every budget decision rests on: bytes in memory, bytes in memory
// that are checked out, bytes on disk. One bag exists per process in practice (the global bag of
// JX_Birth); items in no bag still account their sizes to the global bag.
//
// Ownership: always held by std::shared_ptr; items refer back to it by weak pointer; it owns its
// items through the recency set (one reference each) and the sort directory.
// Locks: every membership change happens under the library lock (JXp_ScLock); the size counters
// are lock-free atomics; the disk mutex (diskMutex_) is a leaf that guards the disk folder and
// the disk size limit and is never held while the library lock is being acquired.
// Threads: any thread may call any public method.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include <boost/intrusive/list.hpp>

#include "jxcache/bag/library_lock.h"
#include "jxcache/host/export.h"
#include "jxcache/host/file.h"
#include "jxcache/host/signal.h"
#include "jxcache/items/stuff.h"

class JX_SortDir;
namespace jx::recency {
struct Applier;
}
namespace jx::content {
struct Walker;
}

class JX_EXPORT JX_Bag : public std::enable_shared_from_this<JX_Bag> {
 public:
  template <class T>
  using IntrusivePtr = zelcore::utility::IntrusivePtr<T>;
  using StuffPtr = IntrusivePtr<JX_Stuff>;
  using ReleaseQueue = std::deque<std::shared_ptr<void>>;
  using DiskOutOfSpaceSignal = zelcore::messaging::Signal<void()>;

  // `appVersion`: the host's version; the bag keeps its low 31 bits. Disk cache files carry it.
  explicit JX_Bag(unsigned int appVersion);
  virtual ~JX_Bag();
  JX_Bag(const JX_Bag&) = delete;
  JX_Bag& operator=(const JX_Bag&) = delete;

  unsigned int GetAppVersion() const { return appVersion_; }

  // ---- membership (bag/bag.cpp) --------------------------------------------------------------
  // Adds the item at the young end of the recency order (last-used time = now). An item already
  // in a bag is reported ("stuff already in a bag") and 3 is thrown; nothing changes.
  void AddStuff(const StuffPtr& stuff);
  // Removes the item; an item of another bag is reported ("stuff not in the right bag") and 3 is
  // thrown; nothing changes.
  void RemoveStuff(const StuffPtr& stuff);
  // Renews the item's last-used time and moves it to the young end, re-synchronising its size.
  // Caller holds the lock.
  void UpdateWithNewLastUsedTime(const StuffPtr& stuff, const JXp_ScLock& lock);
  // A payload changed size in place: re-synchronise the totals with its new size.
  void AccountForStuffDataModification(const StuffPtr& stuff);

  // ---- membership with the directory (bag/sort_dir.cpp) ---------------------------------------
  void AddToBagAndSortDir(const StuffPtr& stuff);
  // Directory first, then bag; a writeable item or one of another directory throws 3.
  void RemoveStuffFromBagAndSortDir(const StuffPtr& stuff, const JXp_ScLock& lock,
                                    bool removeFromMediaMap);
  // Removes every item from the directory and the bag.
  void ClearBagAndSortDir();
  const std::shared_ptr<JX_SortDir>& GetSortDir() const { return sortDir_; }

  // ---- find or create (bag/find_and_checkout.cpp) --------------------------------------------
  // Looks for an item with the request's GUID that can answer the request and checks it out
  // with `checkoutFlags`. When none matches and flag 0x10 is set, creates a pending item, checks
  // it out to the caller and returns 2: the caller must fill it (SetStuffDataFromPendingRender)
  // and check it in. Results:
  //   1  *found is checked out (a pending match, after the wait the flags allow; or, when this
  //      thread may not wait, still pending);
  //   2  *found is the new pending item, *createdPending true;
  //   0  nothing: no match (and no creation asked), a pending match the flags do not let us wait
  //      for (a second pending item is never created for a key being rendered, so a thread
  //      asking again for the key it renders itself gets 0, not a deadlock), a match whose render
  //      was abandoned while we waited, or a disk read that failed.
  // Never waits while holding the library lock: the wait happens after it is released, and a
  // thread that already holds the library lock (or a notifying host lock) does not wait.
  // A read-only search first looks without the library lock (see FindReadOnlyUnlocked); what it
  // takes that way is an item a locked search could have returned at that moment.
  // Each call is one look-up: a hit when it returns an item checked out with its payload in
  // memory that it did not have to read from disk (waiting for another thread's render
  // included); any other outcome counts one miss with its reason (bag/miss_reasons.h).
  JX_CheckoutResult FindAndCheckout(const StuffPtr& request, int checkoutFlags, StuffPtr* found,
                                    bool* createdPending);

  // ---- size accounting (bag/bag.cpp) ---------------------------------------------------------
  void AdjustInMemoryCacheSize(long long delta);
  void AdjustCheckedOutMemoryCacheSize(long long delta);
  void AdjustOnDiskCacheSize(long long delta);
  // Walks every item under the library lock (statistics and tracing, never the purge path).
  void GetCacheSizesInBytes(unsigned long long& inMemory,
                            unsigned long long& inMemoryWithDiskCopy) const;
  long long GetInMemoryCacheSizeInBytes_LockFree() const {
    return inMemorySize_.load(std::memory_order_relaxed);
  }
  long long GetCheckedOutMemoryCacheSizeInBytes() const { return checkedOutSize_.load(); }
  long long GetCurrentDiskCacheSize() const { return onDiskSize_.load(std::memory_order_relaxed); }
  // What the cache holds plus what the host says may still be used before it must purge.
  unsigned long long GetCurrentMaxCacheSize() const;
  // Checked-out bytes of the global bag over (available before purge + in memory): 0..1.
  float GetPercentOfAvailableMemoryCheckedOut() const;
  // Bytes neither checked out nor otherwise held, over the same denominator: 0..1.
  float GetPercentOfAvailableMemoryFree() const;
  int GetNumItems() const;
  int GetNumMruSortedItems() const { return GetNumItems(); }
  int GetNumGuidSortedItems() const;
  unsigned long long GetLastPurgedUsedTime() const {
    return lastPurgedUsedTime_.load(std::memory_order_relaxed);
  }
  // The items in recency order, oldest first (a snapshot taken under the library lock, after the
  // check-ins' recency notes are applied).
  std::deque<StuffPtr> CopyMruItems() const;

  // ---- purging (bag/purge.cpp) ---------------------------------------------------------------
  // The host's purge entry: frees items, oldest first, until the host's Y_AmountToPurge() is met
  // or the cache reaches its floor. `amount` is deliberately not consulted. Freed memory is
  // released after the library lock is let go. Asked from a payload's own code while its item's
  // lock is held (a read back making room), it frees nothing when the library lock is busy.
  void FreeUpSomeMemory(unsigned long long amount);
  // Frees every item that can be freed, whatever the host wants.
  void PurgeAllMemoryCaches();

  // ---- disk cache folder (disk/) -------------------------------------------------------------
  void SetDiskCacheInfo(const std::string& folder, long long maxDiskCacheSize);
  void EnableDiskCache(bool enable) { diskCacheEnabled_.exchange(enable ? 1 : 0); }
  bool IsDiskCacheEnabled() const { return diskCacheEnabled_.load(std::memory_order_relaxed); }
  zelcore::filesupport::Dir GetDiskCacheDirSpec() const;
  long long GetCurFreeSpace() const;
  long long GetMaxDiskCacheSize() const;
  bool IsDiskCacheLimitedDueToDriveSpace() const;
  std::shared_ptr<DiskOutOfSpaceSignal>& GetDiskOutOfSpaceSignal() { return diskOutOfSpace_; }
  bool EnsureDiskSpace(long long bytesNeeded, unsigned long long lastUsedThreshold);
  void ScanOneDiskCacheFile(const zelcore::filesupport::File& file);
  double GetDiskWriteQueueSizePercentFull() const;
  // Hands every cache file in the folder, oldest first, to ScanOneDiskCacheFile (which adopts the
  // running version's) and deletes SafeSave leftovers of killed processes. Does nothing while the
  // disk cache is off; otherwise runs when the host allowed the media map at birth or a scan was
  // requested, and stops adopting once the host moves the cache to another folder. Never holds
  // the library lock while walking. Returns the files handed over; 0 when another thread's scan
  // took the request, after that scan has ended. Waits for a scan or purge under way: never call
  // it with the library lock or an item lock held.
  int ScanDiskCacheDir();
  // Asks for one scan, run by the deferred disk task.
  void RequestDiskCacheScan();
  struct DiskPurgeResult {
    int deleted = 0;  // cache files removed (the running version's through their items)
    int kept = 0;     // cache files left: pinned by a reader, or could not be removed
  };
  // Deletes every cache file in the folder, of every version.
  DiskPurgeResult PurgeAllDiskCaches();

 private:
  friend class JX_Stuff;
  friend class JX_SortDir;
  friend struct JX_BagTestAccess;  // tests that need equal time stamps
  friend struct jx::recency::Applier;
  friend struct jx::content::Walker;

  // The recency order, oldest first: a list kept sorted by last-used time, ties in insertion
  // order. Items enter with a time stamp taken under the library lock, so an insertion lands at
  // the end; InsertByTime still walks back for an item that carries an older time.
  using MruSet = boost::intrusive::list<
      JX_Stuff, boost::intrusive::member_hook<JX_Stuff, JX_Stuff::MruHook, &JX_Stuff::mruHook_>,
      boost::intrusive::constant_time_size<true>>;
  void InsertByTime(JX_Stuff& stuff);
  // Check-in's recency renewal: the item, which this bag's recency order links, gets a new
  // last-used time and goes to the young end. The caller has just re-synchronised its size.
  void MoveToYoungEnd(JX_Stuff& stuff, const JXp_ScLock& lock);
  // Places the item, which this bag's recency order links, where `stamp` puts it.
  void Reposition(JX_Stuff& stuff, uint64_t stamp, const JXp_ScLock& lock);

  // A read-only search's first try, without the library lock: checks out an in-memory, ready
  // item that answers the request, or returns false and leaves the decision to the locked search.
  bool FindReadOnlyUnlocked(const JX_Stuff& request, int checkoutFlags, StuffPtr* match);
  // The rest of FindAndCheckout (bag/find_and_checkout.cpp), in steps. Under the library lock:
  // checks out the first candidate that answers the request or, with kCreatePending and no
  // pending match refused, creates the pending item; *match is left empty when neither happened.
  // *pendingMatchRefused: a pending item answered but the flags did not let the caller have it.
  JX_CheckoutResult FindOrCreateLocked(const JX_Stuff& request, int checkoutFlags, StuffPtr* match,
                                       bool* matchWasPending, bool* createdPending,
                                       bool* pendingMatchRefused);
  // Tries the items filed under `guid` against `key`: uncompressed ones first, then, when the
  // request accepts compression, compressed ones. *pendingMatchRefused: one answered but was
  // pending, and the flags did not let the caller have it.
  bool CheckoutFirstMatchLocked(const IntrusivePtr<JX_StuffData>& key,
                                const zelcore::utility::Guid& guid, size_t hash, int checkoutFlags,
                                StuffPtr* match, bool* matchWasPending, bool* pendingMatchRefused);
  // After the library lock is released: waits for a pending match when the flags and the
  // thread's locks allow, then reads the payload back from disk unless kNoDiskRead. False, with
  // the check-out undone, when the render was abandoned or the read failed.
  static bool FinishCheckoutOfMatch(JX_Stuff& match, int checkoutFlags, bool matchWasPending);
  void AddStuffGuts(const StuffPtr& stuff, const JXp_ScLock& lock, bool addToMediaMap);
  void RemoveStuffGuts(const StuffPtr& stuff, const JXp_ScLock& lock, bool removeFromMediaMap);
  void TrackLastPurgedUsedTime(unsigned long long usedTime);
  void TraceMediaMapChange(const char* what, const JX_Stuff& stuff);

  // Takes back the sizes an item had counted in the bag numbered `serial`, if that bag still
  // exists (see JX_Stuff::accountedIn_).
  static void TakeBackAccounts(uint64_t serial, long long memory, long long checkedOut,
                               long long disk);

  // This bag's number, never reused in the process: an item remembers the bag its sizes are
  // counted in by it, so that a bag made later at the same address is never taken for it.
  const uint64_t serial_;
  MruSet mru_;  // guarded by the library lock; holds one reference per item
  std::shared_ptr<JX_SortDir> sortDir_;
  std::atomic<uint8_t> diskCacheEnabled_{0};
  mutable std::mutex diskMutex_;
  zelcore::filesupport::Dir diskCacheDir_;  // guarded by diskMutex_
  std::u16string diskCacheDirText_;         // guarded by diskMutex_
  long long maxDiskCacheSize_ = 0;          // guarded by diskMutex_
  std::atomic<long long> onDiskSize_{0};
  const unsigned int appVersion_;
  std::atomic<unsigned long long> lastPurgedUsedTime_{0};
  std::atomic<long long> inMemorySize_{0};
  // Changed twice by every hit, from whatever thread: striped so that threads do not contend.
  zelcore::utility::StripedCounter<long long> checkedOutSize_;
  std::shared_ptr<DiskOutOfSpaceSignal> diskOutOfSpace_;
  std::atomic<bool> diskScanRequested_{false};
  // One folder walk (scan or purge) at a time. Taken before any other lock, and only by them.
  std::mutex diskScanMutex_;
};

// The media layer's fixed maximum cache size times
// "Graphics.DefaultJXCacheLimitForGfxpaksMultiplier".
JX_EXPORT unsigned long long JX_GetMaxJXCacheSize();
// Whether the global bag holds at least its floor (host memory limit times
// "KQ.MinJXSizeToPurgeLimitRatioR"); always true under the fixed limit for templates. A failing
// Y_GetMemUsageLimits throws its status.
JX_EXPORT bool JX_IsGlobalBagSizeAboveMinimum();
