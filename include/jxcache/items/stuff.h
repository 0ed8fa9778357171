// JX_Stuff: one cached item, a payload (JX_StuffData) under a GUID key.
//
// Nobody uses a payload without checking its item out first, and every check-out is matched by
// a check-in. A check-out is read-only (any number at once) or writeable (exactly one, and only
// when nobody else holds the item). An item may be pending: created by a thread that is still
// rendering its payload while other threads that want it wait on the item's gate.
//
// Ownership: intrusively reference-counted with weak references (IntrusivePtr<JX_Stuff>); the
// bag owns its items through its recency set and its sort directory; the item refers back to
// its directory by weak pointer and to its bag by a plain pointer (mruBag_) that the bag clears
// as it dies, a strong reference to the bag being had from the bag itself (GetBag).
//
// Locks, in the only order they may be taken: the library lock (JXp_ScLock) -> this item's
// reader/writer lock (mutex_) -> this item's GUID spin lock (inside key_). Never take the library
// lock while holding an item lock, and never wait (gate, sleep, executor) while holding either.
//   mutex_ guards (GUARDED_BY: written under the write lock, read under any mode): data_,
//                  writeable_, tempRemovedFromSortDir_, sortDir_, computeTime_, diskFile_, and
//                  the side record's fields of the same rule (Extras). Directory membership
//                  (sortDir_, tempRemovedFromSortDir_ and inSortDir_) changes under both the
//                  library lock and the write lock, which is what lets a search without the library
//                  lock check it under this lock. data_ is written only at construction and when a
//                  pending item is completed, before pending_ clears: once pending_ reads false,
//                  data_ is final and may be read without the lock (FinalData(), the one read the
//                  analysis is told to skip).
//   mutex_'s owner role (the upgrade or write lock: one holder at a time) guards accountedIn_,
//                  and is what the functions that move the check-out count and the accounted
//                  sizes require.
//   key_ (the GUID and its hash) has a spin word of its own that serialises re-keying; readers
//                  never block: they copy again when a write overlapped their copy
//                  (items/seqlocked_guid.h).
//   The library lock guards: the recency-set hook (mruHook_) and mruStamp_ (the stamp that
//                  places the item there), and directory membership. mruBag_ is written holding
//                  both the library lock and mutex_, so holding either is enough to read it and
//                  use the bag (which clears it, under both, as it dies). These carry no
//                  annotations: the library lock is not a capability the analysis knows.
//   Atomics (no lock): checkoutCount_, pending_, the side record's pendingWaiters, inSortDir_,
//                      keyIsFinalPayload_, lastUsedTime_, the accounted sizes (memSize_,
//                      checkedOutSize_, diskSize_), purgeState_, writeInProgress_,
//                      diskCheckouts_, taggedToWrite_.
//                      checkoutCount_ and the accounted sizes are read without a lock but written
//                      only under mutex_'s upgrade or write lock, which has one holder at a time:
//                      the hit path's writers use a load and a store, not an atomic
//                      read-modify-write (the rarer ForgetAccountedSizes and SyncDiskSizeWithBag
//                      keep their exchanges).
// With Clang, -Wthread-safety checks the mutex_ part of this at compile time.
//
// The methods of one behaviour live in the folder that owns the behaviour: check-out and pending
// in items/, bag membership and purging in bag/, disk files in disk/, the media map in mediamap/.
// The plain accessors of the item's own fields live in items/stuff.cpp, whichever behaviour uses
// them. Each section below names the files that define its methods.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include <boost/intrusive/list_hook.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include "jxcache/common/jx_types.h"
#include "jxcache/host/export.h"
#include "jxcache/host/file.h"
#include "jxcache/host/guid.h"
#include "jxcache/host/multi_tenant_mutex.h"
#include "jxcache/host/open_once_gate.h"
#include "jxcache/host/ref_counted.h"
#include "jxcache/host/signal.h"
#include "jxcache/host/striped_counter.h"
#include "jxcache/host/thread_annotations.h"
#include "jxcache/host/thread_id.h"
#include "jxcache/items/seqlocked_guid.h"
#include "jxcache/items/stuff_data.h"

class JX_Bag;
class JX_ScCheckout;
namespace jx::disk {
class ClaimedFile;
}
namespace jx::recency {
struct Applier;
}
namespace jx::content {
struct Walker;
}
class JX_SortDir;
class JXp_ScLock;

class JX_EXPORT JX_Stuff : public zelcore::utility::RefCountedObjectWithWeakPtr {
 public:
  template <class T>
  using IntrusivePtr = zelcore::utility::IntrusivePtr<T>;
  using Guid = zelcore::utility::Guid;
  using ReleaseQueue = std::deque<std::shared_ptr<void>>;
  using MemDiskChangedSignal = zelcore::messaging::Signal<void(bool inMemory, bool onDisk)>;
  // The hook that links the item into its bag's recency order.
  using MruHook = boost::intrusive::list_member_hook<
      boost::intrusive::link_mode<boost::intrusive::normal_link>>;

  // ---- creation (items/stuff.cpp) ------------------------------------------------------------
  // A ready item holding `data` (which may be empty), with the compute time it took.
  static IntrusivePtr<JX_Stuff> CreateNew(IntrusivePtr<JX_StuffData> data, double computeTime);
  // A pending item: no payload yet, gate closed, rendered by the calling thread; it answers
  // requests like `findKeyData` until its payload arrives.
  static IntrusivePtr<JX_Stuff> CreatePending(const Guid& guid,
                                              IntrusivePtr<JX_StuffData> findKeyData);
  ~JX_Stuff() override;

  // ---- check-out protocol (items/checkout.cpp) -----------------------------------------------
  // Checks the item out; returns kJX_CheckedOut or kJX_CheckoutRefused (a refusal is a result,
  // never an error). Flags: jx::checkout_flags. A pending item that the flags allow waiting for
  // is checked out as it stands; the caller waits with WaitForPendingCompletion.
  JX_CheckoutResult Checkout(int flags);
  // Matches one check-out. Renews recency (unless kKeepRecency), returns a writeable item to the
  // sort directory, then removes, purges or offers the item to the disk writer as the flags and
  // the payload say. `computeTime`: seconds it took to produce the payload.
  void Checkin(int flags, double computeTime);
  // Turns the caller's single read-only check-out into the writeable one. Throws 14851 (already
  // writeable, or checked out more than once) or 14852 (not checked out) after reporting.
  void ConvertToWriteable();
  // Check-in then check-out under one hold of the library lock: nobody comes in between.
  JX_CheckoutResult CheckinAndCheckout(int checkinFlags, double computeTime, int checkoutFlags);

  // ---- pending items (items/pending.cpp; IsPendingFromThisThread in items/stuff.cpp) ---------
  // Waits while the item is pending (at most 24 hours); returns at once for the thread that
  // renders it, which would otherwise wait for itself. Must not be called holding the library
  // lock or an item lock.
  void WaitForPendingCompletion() const;
  // Completes a pending item with `data` (empty: the render failed; the item leaves the bag and
  // directory) and releases every waiter. Completing twice does nothing the second time.
  void SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData> data, double computeTime);
  // Same; `skipBackPressure` true skips holding a fast renderer back behind the disk writer.
  void SetStuffDataFromPendingRender_Impl(IntrusivePtr<JX_StuffData> data, double computeTime,
                                          bool skipBackPressure);
  bool IsPendingRender() const { return pending_.load(std::memory_order_acquire); }
  bool IsPendingFromThisThread() const;
  // Threads waiting for the pending render right now.
  uint32_t GetPendingWaiterCount() const {
    const Extras* extras = FindExtras();
    return extras ? extras->pendingWaiters.load(std::memory_order_relaxed) : 0;
  }
  // The payload, after waiting for a pending render to finish.
  IntrusivePtr<JX_StuffData> GetDataWaitIfPending() const;
  // Reads the payload back from the disk cache when it is not in memory; returns IsInMemory().
  bool EnsureInMemory();

  // ---- state (items/stuff.cpp) ---------------------------------------------------------------
  bool IsCheckedOutWriteable() const;
  uint32_t GetCheckoutCount() const { return checkoutCount_.load(std::memory_order_acquire); }
  void ThrowIfCheckedOutWriteable() const;
  void ThrowIfCheckedOutMoreThan(uint32_t count) const;
  void ThrowIfCheckedOutLessThan(uint32_t count) const;
  IntrusivePtr<JX_StuffData> GetDataPtr() const;
  // Calls fn with the payload (or null), without taking a reference to it: under the item's read
  // lock while the item is pending, without it after (the payload is final then, and the item
  // keeps it). The caller keeps the item alive. fn must not take item locks or the library lock.
  template <class Fn>
  auto VisitData(Fn&& fn) const {
    if (!pending_.load(std::memory_order_acquire)) return fn(FinalData().get());
    zelcore::threads::ScopedReadLockWrapper r(mutex_);
    return fn(data_.get());
  }
  // The request this item answers: the find-key data while pending, else the payload itself.
  IntrusivePtr<JX_StuffData> GetFindKeyData() const;
  // GetFindKeyData and IsCompressed under one hold of the item's lock.
  IntrusivePtr<JX_StuffData> GetFindKeyDataAndCompression(bool* compressed) const;
  void SetFindKeyData(IntrusivePtr<JX_StuffData> data);
  bool IsInMemory() const;
  bool IsCompressed() const;
  double GetComputeTime() const;
  uint64_t GetLastUsedTime() const { return lastUsedTime_.load(std::memory_order_acquire); }
  zelcore::threads::MultiTenantRecursiveMutex& GetMutex() const { return mutex_; }

  // ---- key and directory (items/stuff.cpp; re-keying in bag/sort_dir.cpp) --------------------
  Guid GetGuid() const;
  // The GUID and its directory hash, read together (the hash is computed when the GUID is
  // stored, not on every search).
  Guid GetGuidAndHash(size_t* hash) const;
  // Sets the GUID of an item that is in no directory (a request being built).
  void SetGuid(const Guid& guid);
  // Re-keys the item: leaves the directory, takes the new GUID, re-enters (superseding older
  // items it can stand for). A writeable item only takes the GUID; check-in re-enters it.
  void UpdateWithNewGuid(const Guid& guid);
  std::shared_ptr<JX_SortDir> GetSortDir() const;
  bool IsInSortDir() const;

  // ---- bag -----------------------------------------------------------------------------------
  // GetBag in items/stuff.cpp, joining and leaving in bag/sort_dir.cpp, the sizes in bag/bag.cpp.
  // The bag holding the item, or empty.
  std::shared_ptr<JX_Bag> GetBag() const;
  void AddToBagAndSortDir(const std::shared_ptr<JX_Bag>& bag);
  // Leaves the directory and the bag, wherever the item is (a no-op when in neither).
  void RemoveFromBagAndSortDir();
  // Re-synchronises the bag's in-memory and checked-out totals with this item's new size. Items
  // in no bag account to the global bag; with no global bag, nothing happens. Takes the item's
  // upgrade lock: the caller may hold the item's upgrade or write lock, not only a read lock.
  void SyncMemorySizeWithBag(unsigned int newSize);
  void SyncDiskSizeWithBag(unsigned int newSize);
  unsigned int GetAccountedMemorySize() const { return memSize_.load(std::memory_order_relaxed); }
  // The share of it counted as checked out (0 when nobody has the item checked out).
  unsigned int GetAccountedCheckedOutSize() const {
    return checkedOutSize_.load(std::memory_order_relaxed);
  }
  unsigned int GetAccountedDiskSize() const { return diskSize_.load(std::memory_order_relaxed); }

  // ---- purging (bag/purge.cpp) ---------------------------------------------------------------
  // Frees this item's memory if nobody has it checked out; an item left with nothing worth
  // keeping leaves the bag and directory. Returns the bytes freed (0 if nothing). Takes the
  // library lock, then the item's write lock; asked from a payload's own code under its item's
  // lock (a read back), it only tries the library lock, and frees nothing when it is busy.
  unsigned int FreeUpAsMuchAsPossible(bool removeFromMediaMap, ReleaseQueue* toRelease);
  bool ShouldAllowPurge();
  // What the purge walk asks of each item, under one hold of its lock: the payload allows a
  // purge and is in memory (and, with `needsDiskCopy`, the item has a disk file).
  bool IsPurgeCandidate(bool needsDiskCopy) const;
  // Takes the item out of its bag and directory when nobody has it checked out and it keeps
  // nothing (no payload in memory, no disk file, not pending). For an item whose disk copy went
  // while its payload was out of memory (a failed read back): no purge walk visits such an item.
  // An item whose file went to make room while its payload was out of memory is another. The
  // reference the removal took goes into `toRelease` when given (to be let go after the caller's
  // locks), else it is let go once this returns. Takes the library lock, then the item's write
  // lock.
  void LeaveIfKeepsNothing(ReleaseQueue* toRelease = nullptr);

  // ---- disk cache ----------------------------------------------------------------------------
  // Writing in disk/prep_and_write.cpp, reading in disk/prep_and_read.cpp, the file link and the
  // pins in disk/stuff_disk_file.cpp, the speeds in disk/stuff_speed.cpp, the offers to the
  // writer in disk/write_policy.cpp.
  // Writes the item's disk cache file if it has none (errors are caught and counted).
  void PrepAndWrite(const std::shared_ptr<JX_Bag>& bag);
  // What a deleted disk copy tells the item's change handler, kept by a caller that deleted it
  // under the item's lock: the handler is the host's, and runs with no lock of the cache held
  // (Tell, once the caller has let go, with TellMemDiskState).
  struct DiskCopyGone {
    IntrusivePtr<JX_Stuff> item;
    MemDiskChangedSignal* signal = nullptr;
    void Tell() const;
  };
  // Reads the payload back from the item's file; the caller holds the item's upgrade lock.
  // On failure the file is deleted (what that tells the handler left in *gone for the caller),
  // the failed-reads counter raised and the error thrown on.
  void PrepAndRead(const zelcore::threads::ScopedUpgradeLockWrapper& lock, DiskCopyGone* gone);
  // Links the item to `file` (replacing its link, unless `onlyIfNone` and it has one). False
  // when nothing changed, also when another item's link holds the file: a file belongs to one
  // item. Does not touch the disk or the sizes.
  bool SetDiskCacheFile(const zelcore::filesupport::File& file, bool onlyIfNone);
  // The same with a claim already taken (disk/claimed_file.h); on success the item holds it and
  // `claim` is left empty.
  // With `size`, the file's size is counted in the same hold of the item's lock as the link.
  bool TakeDiskCacheFile(std::shared_ptr<jx::disk::ClaimedFile>& claim, bool onlyIfNone,
                         std::optional<unsigned int> size = std::nullopt);
  zelcore::filesupport::File GetDiskCacheFile() const;
  bool HasDiskCacheFile() const;
  bool IsOnDisk() const { return HasDiskCacheFile(); }
  void ClearDiskCacheFile();
  bool DeleteDiskCacheFile();
  // The same for a caller holding the item's lock: the handler is left to it, in *gone.
  bool DeleteDiskCacheFile(DiskCopyGone* gone);
  // The disk copy no longer holds what the item answers (the payload was written to through a
  // writeable check-out, or the item was re-keyed): the item forgets it at once, so that nothing
  // can read it back, and the file is deleted once the calling thread holds no library lock.
  // With `onlyIfInMemory`, an item whose payload is not in memory keeps its copy (it is the only
  // one, and nothing can have changed it). The item may then be written to disk again.
  void DiscardDiskCopy(bool onlyIfInMemory);
  void MaybeDeleteDiskCacheFile(uint64_t lastUsedThreshold, bool* deleted, bool* skipped);
  uint32_t GetNumDiskCacheCheckouts() const {
    return diskCheckouts_.load(std::memory_order_acquire);
  }
  // Pins the item's disk file against the folder's size keeping while it lives.
  class JX_EXPORT DiskCacheCheckoutScoper {
   public:
    explicit DiskCacheCheckoutScoper(IntrusivePtr<JX_Stuff> stuff);
    ~DiskCacheCheckoutScoper();
    DiskCacheCheckoutScoper(const DiskCacheCheckoutScoper&) = delete;
    DiskCacheCheckoutScoper& operator=(const DiskCacheCheckoutScoper&) = delete;

   private:
    IntrusivePtr<JX_Stuff> stuff_;
  };
  // A pin on the item's disk file, or empty when the item has none.
  std::unique_ptr<DiskCacheCheckoutScoper> CheckoutDiskCache(bool unused = false);
  // The disk speed statistics (disk/disk_speed.cpp, through disk/stuff_speed.cpp): averages and
  // maxima of reads and writes, in bytes per second; the adjusted read speed is the average after
  // the proclivity multiplier (and, for low priority, the low-priority factor), and that times the
  // write queue's free fraction squared. Either output may be null.
  static double GetAverageDiskReadSpeed();
  static double GetAverageDiskWriteSpeed();
  static double GetMaxDiskReadSpeed();
  static double GetMaxDiskWriteSpeed();
  static void GetAdjustedAverageReadSpeed(double* average, double* adjusted, bool lowPriority);
  static double GetAdjustedAverageReadSpeed(bool lowPriority, bool adjustForQueue);
  // The library-wide number of live disk pins.
  static std::atomic<uint32_t>& GetNumDiskCacheCheckoutsGlobal();
  // Offers the item to the background disk writer when it is worth writing.
  void MaybeWriteToDisk();
  bool WasTaggedToWriteToDisk() const { return taggedToWrite_.load(std::memory_order_acquire); }
  void ReconsiderWriteToDisk();
  MemDiskChangedSignal& GetMemDiskChangedSignal();
  // Tells `signal`'s handlers the item's state as it is now, with no lock of the cache held, and
  // again as long as it changed meanwhile: news is told after the change it reports, so a change
  // made in between (by another thread, or by a handler in its turn) could otherwise leave a
  // handler with an older state as its last word.
  void TellMemDiskState(MemDiskChangedSignal& signal) const;

  // ---- media map -----------------------------------------------------------------------------
  // The GUID and ID accessors in items/stuff.cpp, PurgeFromMediaMap in
  // mediamap/stuff_media_map.cpp.
  Guid GetMediaMapGuid() const;
  void SetMediaMapGuid(const Guid& guid);
  uint64_t GetMediaMapID() const;
  void SetMediaMapID(uint64_t id);
  // The host purged this item's media-map entry: free its memory.
  void PurgeFromMediaMap();

 private:
  friend class JX_Bag;
  friend class JX_SortDir;
  friend class JX_ScCheckout;
  friend struct jx::recency::Applier;
  friend struct jx::content::Walker;  // the content map reads an item's fields under its lock
  friend struct JX_BagTestAccess;     // tests that need equal time stamps
  struct SortDirHash;
  struct SortDirEqual;

  JX_Stuff(IntrusivePtr<JX_StuffData> data, double computeTime, bool pending,
           IntrusivePtr<JX_StuffData> findKeyData = {});
  // The payload, read without the lock by a caller that saw pending_ false or
  // keyIsFinalPayload_ true (acquire): data_ is then written no more, for as long as the item
  // lives. The analysis cannot see that, hence the exemption, kept to this one read.
  const IntrusivePtr<JX_StuffData>& FinalData() const NO_THREAD_SAFETY_ANALYSIS { return data_; }
  // Nothing a request could use: no payload in memory, no disk file, no render on the way.
  bool KeepsNothingLocked() const REQUIRES_SHARED(mutex_) {
    return !(data_ && data_->IsInMemory()) && !diskFile_ &&
           !pending_.load(std::memory_order_acquire);
  }

  // What a search asks of a candidate before checking it out: the request it must answer and
  // the compression state wanted. `matched` says whether the candidate answered it.
  // `unlockedIn`: the search found the candidate without the library lock, in that bag's
  // directory under `guid`; the candidate is then taken only if, under its own lock, it is still
  // there, in memory and not pending (anything else is left to the locked search).
  struct MatchRequest {
    const IntrusivePtr<JX_StuffData>* key;
    bool wantCompressed;
    bool* matched;
    JX_Bag* unlockedIn = nullptr;
    const Guid* guid = nullptr;
    // Set on the search's last use of `key`: the caller's own reference, handed to the payload's
    // CanSatisfyRequest (which takes it by value) instead of a copy. Only for a key its request
    // keeps for good (see GetFindKeyData(bool*)): one that another thread could replace might
    // lose its last reference inside that call, under this item's lock.
    IntrusivePtr<JX_StuffData>* lastUseOfKey = nullptr;
  };
  JX_CheckoutResult CheckoutForWrite(int flags, JX_Bag* knownBag, bool* wasPending,
                                     const MatchRequest* match);
  // Reads the payload back when the item is only on disk; true when it is usable now: in
  // memory, pending, or as it stands for a caller whose `checkoutFlags` accept an item not in
  // memory. An item whose file went after it was checked out (replaced or re-keyed meanwhile) has
  // nothing left to serve: false. Never called under the library lock.
  bool ReadBackIfOnDiskOnly(int checkoutFlags);
  // The end of a check-out made with kNoDiskRead for a caller that wants the payload:
  // ReadBackIfOnDiskOnly, and when it is false the check-out is undone (checked in with
  // `undoCheckinFlags`) and false returned.
  bool ReadBackOrUndoCheckout(int undoCheckinFlags, int checkoutFlags);
  // Checkin without taking a reference of its own: the caller keeps the item alive.
  void CheckinImpl(int flags, double computeTime);
  // The check-in of a read-only check-out that asks for nothing but the count and the recency:
  // no library lock, the recency move noted for later. False when it is not such a check-in.
  bool CheckinReadOnly(int flags);
  // Deletes the item's disk file once the calling thread holds no library lock; a file pinned by
  // a disk hold goes when the last pin does. For items nobody can find any more.
  void DropDiskCacheFileOutsideLock();
  // Lets go of one pin on the disk file (a DiskCacheCheckoutScoper, a check-out's disk hold). The
  // last one deletes the file DropDiskCacheFileOutsideLock had to leave to its pins.
  void ReleaseDiskCheckout() noexcept;
  // DiscardDiskCopy in two steps: the link is taken away under the item's write lock, in the same
  // hold that makes the item usable again (so that no purge frees the payload while the stale
  // copy still looks like its backup), and the rest is done with the locks released.
  struct DetachedDiskCopy {
    std::shared_ptr<jx::disk::ClaimedFile> claim;
    bool inMemory = false;
    MemDiskChangedSignal* signal = nullptr;
  };
  DetachedDiskCopy DetachDiskCopyLocked(bool onlyIfInMemory) REQUIRES(mutex_);
  void MaybeDeleteDiskCacheFileLocked(uint64_t lastUsedThreshold, bool* deleted, bool* skipped,
                                      DiskCopyGone* gone) REQUIRES(mutex_);
  void DropDetachedDiskCopy(DetachedDiskCopy stale);
  // The compressed copies the disk writer made of this item's payload: the other items filed
  // under `guid` in `dir` that are compressed and answer a request this item answers. The caller
  // holds the library lock. Rewritten or re-keyed, the item leaves them holding what it no longer
  // holds (for what it no longer is): DropCopies takes them out of the bag and their files out of
  // the folder.
  std::vector<IntrusivePtr<JX_Stuff>> CompressedCopiesIn(const JX_SortDir& dir,
                                                         const Guid& guid) const;
  static void DropCopies(std::vector<IntrusivePtr<JX_Stuff>>&& copies);
  // The steps of SetStuffDataFromPendingRender_Impl: the debugging pause and the back-pressure
  // behind the disk writer, then the completion that opens the gate.
  void PauseBeforeFilling(bool skipBackPressure);
  void CompletePending(IntrusivePtr<JX_StuffData> data, double computeTime);
  // For a candidate found without the library lock (caller holds this item's upgrade lock):
  // still in `bag`'s directory under `guid`, readable, in memory and not pending.
  bool IsFindableUnlocked(const JX_Bag& bag, const Guid& guid) const REQUIRES_SHARED(mutex_);
  // GetFindKeyData, telling whether the key is this item's final payload, which the item keeps
  // for as long as it lives (so a caller holding the item may give its own copy away anywhere).
  IntrusivePtr<JX_StuffData> GetFindKeyData(bool* keptByItem) const;
  // The check-out under the caller's upgrade lock on this item (and, for a writeable one, the
  // library lock), in steps: the search's request, the refusals that need no payload, the
  // payload (read back from disk unless kNoDiskRead), the move out of the directory.
  // A read back that fails deletes the file: what that tells the item's handler is left in *gone
  // (required unless kNoDiskRead), for the caller to tell once it lets go of the lock.
  JX_CheckoutResult CheckoutLocked(int flags, const zelcore::threads::ScopedUpgradeLockWrapper& up,
                                   JXp_ScLock* libraryLock, JX_Bag* knownBag, bool* wasPending,
                                   const MatchRequest* match, DiskCopyGone* gone)
      REQUIRES_SHARED(mutex_) REQUIRES(mutex_.OwnerRole());
  // Its steps on every cache hit are always inlined (items/checkout.cpp alone calls them), so
  // that a hit pays no calls for the check-out being written in steps.
  // Whether this item answers the search's request (and sets *match.matched), and, for a
  // candidate found without the library lock, is still where the search found it.
  [[gnu::always_inline]] inline bool AnswersRequestLocked(const MatchRequest& match)
      REQUIRES_SHARED(mutex_);
  // False when the item is writeable, checked out at all (`forWrite`), pending and the flags do
  // not allow waiting for it (counted), rendered by the calling thread, or without a payload.
  [[gnu::always_inline]] inline bool MayCheckOutLocked(int flags, bool forWrite, bool pending) const
      REQUIRES_SHARED(mutex_);
  // Whether the payload can be handed out: in memory (read back first unless kNoDiskRead;
  // `seenInMemory` skips asking), pending, accepted out of memory by the flags, or on disk for
  // the caller to read back after the library lock.
  [[gnu::always_inline]] inline bool PayloadUsableLocked(int flags, bool pending, bool seenInMemory,
                                                         DiskCopyGone* gone)
      REQUIRES_SHARED(mutex_);
  // EnsureInMemory for a caller that holds the item's lock: a failed read's news for the item's
  // handler is left in *gone.
  bool EnsureInMemory(DiskCopyGone* gone);
  // Takes the item out of the directory and marks it writeable, taking the write lock on top of
  // the caller's upgrade lock.
  void MakeWriteableLocked(const JXp_ScLock& libraryLock);
  // Checkout from inside `bag`'s own find, which keeps `bag` alive and holds the library lock:
  // the size sync can use it without looking the bag up.
  // `wasPending` (optional) tells whether the item was pending when it was checked out.
  // With `match`, the candidate is first tested against the search's request under the same
  // hold of its lock, and refused when it does not answer it.
  JX_CheckoutResult CheckoutInBag(int flags, JX_Bag* bag, bool* wasPending = nullptr,
                                  const MatchRequest* match = nullptr);
  // Re-synchronises the totals with the payload's current size, measured under the item's
  // upgrade lock. `knownBag`: the bag accounting for the item when the caller already has it
  // (null: look it up).
  void ResyncMemorySize(JX_Bag* knownBag);
  // The exchange of the accounted sizes; the caller holds the item's upgrade or write lock, so
  // that no purge and no other sync interleaves between measuring and exchanging.
  void SyncMemorySizeLocked(unsigned int newSize, JX_Bag* knownBag) REQUIRES_SHARED(mutex_)
      REQUIRES(mutex_.OwnerRole());
  // After findKeyData_ or pending_ changed: under the write lock, or before the item is shared.
  void UpdateKeyIsFinalPayload() REQUIRES(mutex_) {
    keyIsFinalPayload_.store(!FindKeyDataLocked() && !pending_.load(std::memory_order_relaxed),
                             std::memory_order_release);
  }
  // Moves the check-out count by `step`; the caller holds the upgrade or write lock.
  void StepCheckoutCountLocked(int step) REQUIRES(mutex_.OwnerRole()) {
    checkoutCount_.store(checkoutCount_.load(std::memory_order_relaxed) + step,
                         std::memory_order_release);
  }
  void MoveAccountedSizes(unsigned int newSize, unsigned int newCheckedOut, JX_Bag& bag)
      REQUIRES(mutex_.OwnerRole());
  // Before `bag` counts anything of this item: what the item counted in another bag goes back
  // to that bag (when it still exists), and its disk size joins `bag`. The caller holds the
  // item's upgrade or write lock.
  void AccountIn(JX_Bag& bag) REQUIRES(mutex_.OwnerRole());
  // Takes the item's accounted memory sizes out of `bag`'s totals (the item leaves it).
  void ForgetAccountedSizes(JX_Bag& bag);
  // Hands a newly created pending item to its creator: checked out once, no wait.
  void CheckoutNewPending();
  void TempRemoveFromSortDir(const JXp_ScLock& lock);
  void SetBagAndInMru(JX_Bag* bag);
  // Renews the last-used time with a stamp taken now, and returns the stamp. Under the write
  // lock, renewals take their stamps one after another, so the time never moves back: a
  // renewal that took its stamp first cannot store it last.
  uint64_t RenewLastUsedTimeLocked() REQUIRES(mutex_);
  // A strong reference to the bag holding the item, or empty (also while that bag is being
  // destroyed). The caller holds mutex_ in any mode. Never to be dropped under a lock: were it
  // the bag's last reference, the bag's destructor would run there.
  std::shared_ptr<JX_Bag> BagLocked() const REQUIRES_SHARED(mutex_);
  // The bag holding the item, by its plain link, or null (also while that bag is being
  // destroyed): no owning reference is made. The caller holds mutex_ in any mode, which keeps
  // that bag there (a dying bag unlinks its items under their locks); so does a hold of the
  // library lock, which a dying bag takes first.
  JX_Bag* LiveBagLocked() const REQUIRES_SHARED(mutex_);
  JX_Bag* LiveBag(const JXp_ScLock& libraryLock) const;
  // The steps of PrepAndWrite (disk/prep_and_write.cpp): the write itself, which throws on
  // failure and sets *claimed once it holds the item's one write in progress; the claims (the
  // write in progress and the target's path, empty when there is nothing to write); and the
  // link to the committed file, with its size counted. The link is refused (and the file
  // deleted) when the item no longer answers `guid`, the key the file is named after, has left
  // the bag it was in when the write began (`wasInBag`), or has been given a file meanwhile.
  void WriteDiskCacheFile(const std::shared_ptr<JX_Bag>& bag, bool* claimed);
  std::shared_ptr<jx::disk::ClaimedFile> ClaimWrite(const zelcore::filesupport::File& target,
                                                    const zelcore::filesupport::File& temp,
                                                    bool* claimed);
  void LinkWrittenFile(const zelcore::filesupport::File& target, const zelcore::utility::Guid& guid,
                       bool wasInBag, std::shared_ptr<jx::disk::ClaimedFile> claim);
  // Disk decision of a check-in (disk/): flag 8 writes at once, a writeable check-in asks the
  // write-worthiness rule.
  void OfferToDiskAtCheckin(int flags, bool wasWriteable, double computeTime);
  // One offer of MaybeWriteToDisk to the disk writer: the payload as it is, or a compressed copy
  // (`compressedCopy`, judged at low priority). Says whether a write was queued, whether the
  // worthiness rule turned it down, and whether only the queue's fullness did.
  struct DiskOffer {
    bool queued = false;
    bool ruleSaidNo = false;
    bool worthIfQueueEmpty = false;
  };
  DiskOffer OfferToDiskWriter(const IntrusivePtr<JX_Stuff>& self, bool compressedCopy,
                              double computeTime, JX_StuffData& data);
  // Write policy and background writer (disk/write_policy.cpp, disk/disk_writer.cpp).
  bool WorthWritingToDiskCache(double computeTime, bool lowPriority, bool* cacheable,
                               bool* worthIfQueueEmpty, bool* lowPriorityForced) const;
  // Queues a write of `item` (`flag`: write a compressed copy); `now` puts it at the head of the
  // line. False when nothing was queued (no disk thread, or the item could not be held).
  static bool WriteToDiskAsyncOnDiskThread(IntrusivePtr<JX_Stuff> item, bool flag,
                                           bool now = false);
  static void WriteToDiskAsyncFromQueue();
  static void WriteToDiskAsync(IntrusivePtr<JX_Stuff> item,
                               boost::shared_ptr<JX_ScCheckout> checkout, bool flag);
  bool PurgeIfPossiblePrivate(const zelcore::threads::ScopedWriteLockWrapper& itemWriteLock,
                              ReleaseQueue* toRelease) REQUIRES(mutex_);
  void StoreGuid(const Guid& guid);

  // What only some items need: pending items (the renderer, the gate and its waiters, the
  // find-key data), items given find-key data, items in the media map, items somebody watches
  // for memory and disk changes. Most cached items never need any of it, so it lives beside the
  // item, made on first need and kept until the item dies: a pointer read once may be used for
  // as long as the item lives. A pending item gets it at construction, before it is shared,
  // which is what lets the gate and the waiter count be reached without the item's lock while
  // the item is pending. The GUARDED_BY fields' rule applies to pendingThread, findKeyData,
  // memDiskChanged, mediaMapGuid and mediaMapID: written under the write lock, read under any
  // mode.
  struct Extras {
    zelcore::threads::ThreadId pendingThread = zelcore::threads::kNoThread;
    zelcore::threads::OpenOnceGate pendingGate;
    // Threads waiting at the gate right now: what the pending watchdog reports of an overdue
    // item (items/pending_watch.h). Moved only around the wait, never on a hit.
    mutable std::atomic<uint32_t> pendingWaiters{0};
    IntrusivePtr<JX_StuffData> findKeyData;
    std::unique_ptr<MemDiskChangedSignal> memDiskChanged;
    Guid mediaMapGuid;
    uint64_t mediaMapID = 0;
  };
  // The side record, or null when the item has never needed one.
  Extras* FindExtras() const { return extras_.load(std::memory_order_acquire); }
  // The side record, made now if need be: under the write lock, or before the item is shared.
  Extras& ExtrasLocked() REQUIRES(mutex_);
  // The find-key data, or null.
  const IntrusivePtr<JX_StuffData>& FindKeyDataLocked() const REQUIRES_SHARED(mutex_);
  // What a search matches against: the find-key data, else the payload. A completed item tells
  // from keyIsFinalPayload_ (on a line every check-out reads) that it is the payload, without
  // reaching for the side record.
  const IntrusivePtr<JX_StuffData>& KeyLocked() const REQUIRES_SHARED(mutex_) {
    if (keyIsFinalPayload_.load(std::memory_order_acquire)) return data_;
    const IntrusivePtr<JX_StuffData>& findKey = FindKeyDataLocked();
    return findKey ? findKey : data_;
  }
  // The change signal when somebody asked for it, else null.
  MemDiskChangedSignal* MemDiskChangedLocked() const REQUIRES_SHARED(mutex_);

  // The members are grouped by use: what every check-out and check-in touches comes first, so
  // that a cache hit reads as few cache lines of the item as possible. Fields of one size sit
  // together: an item is made for every cached payload, and padding would be paid for each.

  // Key: the GUID and its directory hash, read without a lock (items/seqlocked_guid.h).
  jx::SeqLockedGuid key_;
  mutable zelcore::threads::MultiTenantRecursiveMutex mutex_;

  // Check-out state, and the accounted sizes (what this item currently contributes to the bag's
  // totals).
  std::atomic<uint32_t> checkoutCount_{0};
  std::atomic<uint32_t> memSize_{0};
  std::atomic<uint32_t> checkedOutSize_{0};
  bool writeable_ GUARDED_BY(mutex_) = false;
  std::atomic<bool> pending_{false};
  // In a directory and not taken out for a writeable check-out: sortDir_ set and
  // tempRemovedFromSortDir_ clear. Written with them; readable without the lock.
  std::atomic<bool> inSortDir_{false};
  // Set when the key is the payload for good: no find-key data, and not pending (data_ is
  // written only at construction and when a pending item is completed). Written under the write
  // lock after either changes; while it is set, data_ may be read without the lock.
  std::atomic<bool> keyIsFinalPayload_{false};

  // Payload.
  IntrusivePtr<JX_StuffData> data_ GUARDED_BY(mutex_);

  // The serial number of the bag the accounted sizes are counted in (0: none). Sizes belong to
  // the bag that counted them: an item that outlives a restart of the library, say, must not
  // take what it counted in the old global bag out of the new one. Written with the sizes, under
  // the upgrade or write lock.
  uint64_t accountedIn_ GUARDED_BY(mutex_.OwnerRole()) = 0;

  // Bag and recency.
  std::atomic<uint64_t> lastUsedTime_;
  MruHook mruHook_;
  JX_Bag* mruBag_ = nullptr;  // the bag whose recency order links the item
  uint64_t mruStamp_ = 0;     // the time stamp that places it there (library lock)
  // The item's claim on its disk file (disk/claimed_file.h): a file belongs to one item.
  std::shared_ptr<jx::disk::ClaimedFile> diskFile_ GUARDED_BY(mutex_);

  // Less frequently used: the rest of the disk and purge state, the directory link.
  std::atomic<uint32_t> diskSize_{0};
  std::atomic<uint32_t> purgeState_{0};
  std::atomic<uint32_t> writeInProgress_{0};
  std::atomic<uint32_t> diskCheckouts_{0};
  std::atomic<bool> taggedToWrite_{false};
  // Set when the disk copy went while the payload was out of memory (a failed read back): the
  // check-in that leaves the item idle asks whether it keeps anything (LeaveIfKeepsNothing).
  std::atomic<bool> mayKeepNothing_{false};
  // Set when the item's file was to go while pinned: the last pin's release deletes it.
  std::atomic<bool> dropFileWhenUnpinned_{false};
  bool tempRemovedFromSortDir_ GUARDED_BY(mutex_) = false;
  double computeTime_ GUARDED_BY(mutex_) = 0.0;
  std::weak_ptr<JX_SortDir> sortDir_ GUARDED_BY(mutex_);
  std::atomic<Extras*> extras_{nullptr};
};

// Process-wide counters of the check-out protocol. Every hit changes itemsCheckedOut twice, on
// whatever thread it runs, so that one is striped.
struct JX_StuffCounters {
  zelcore::utility::StripedCounter<int64_t> itemsCheckedOut;
  std::atomic<uint64_t> pendingRefusals{0};
  std::atomic<uint64_t> pendingWaits{0};
  // Pending items whose renderer had not filled them within the watchdog's time.
  std::atomic<uint64_t> pendingOverdue{0};
};
namespace jx::detail {
extern JX_EXPORT constinit JX_StuffCounters g_stuffCounters;
}  // namespace jx::detail
inline JX_StuffCounters& JX_GetStuffCounters() { return jx::detail::g_stuffCounters; }
