// JX_ScCheckout: the handle through which callers hold a check-out of a JX_Stuff.
//
// It checks the item out when built or told to, remembers the result and the flags, and checks
// the item in when destroyed (never letting an exception out of the destructor). A check-out can
// be suspended (the item is given back, the right to ask for it again kept) and reacquired, and
// the item's disk file can be held against deletion. Plug-ins hold this very object as their
// compute-cache receipt; the guard word tells a live handle from anything else.
//
// Ownership: the handle owns one check-out and references to the held and suspended items.
// Threads: every operation takes the handle's own reader/writer lock (write lock for changes,
// read lock for queries), so one handle may be used from several threads. The handle's lock is
// taken before any library or item lock.
//
// Check-out flags are those of JX_Stuff (common/jx_types.h); bit 7 (0x80) is this class's own:
// hold the item without checking it out (result 3).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "jxcache/host/export.h"
#include "jxcache/host/multi_tenant_mutex.h"
#include "jxcache/items/stuff.h"

class JX_Bag;

class JX_EXPORT JX_ScCheckout {
 public:
  template <class T>
  using IntrusivePtr = zelcore::utility::IntrusivePtr<T>;
  static constexpr uint32_t kGuardWord = 0xFEEDBEEF;

  JX_ScCheckout();
  JX_ScCheckout(IntrusivePtr<JX_Stuff> item, int flags);
  virtual ~JX_ScCheckout();
  JX_ScCheckout(const JX_ScCheckout&) = delete;
  JX_ScCheckout& operator=(const JX_ScCheckout&) = delete;

  // Checks in what the handle holds, then checks `item` out (bit 7: holds it, result 3).
  JX_CheckoutResult Checkout(IntrusivePtr<JX_Stuff> item, int flags);
  // Checks in what the handle holds, then finds a matching item in the global bag (or creates a
  // pending one with flag 0x10: result 2, the caller must fill it). The item held may differ
  // from the one passed in. Bit 7 returns 0 without looking.
  JX_CheckoutResult FindAndCheckout(const IntrusivePtr<JX_Stuff>& item, int flags);
  // Adds `item` to `bag` and its directory, then checks it out as Checkout does.
  JX_CheckoutResult AddToBagAndSortDirAndCheckout(IntrusivePtr<JX_Stuff> item,
                                                  const std::shared_ptr<JX_Bag>& bag, int flags);
  // Checks the held item in (when the guard word is intact and something is held), drops the
  // disk hold and the item. Exceptions of the item's check-in pass on; the handle is empty after.
  void Checkin(int flags, double computeTime);
  void Checkin();

  void SetCheckinFlags(int flags);
  int GetCheckinFlags() const;
  int GetCheckoutFlags() const;
  JX_CheckoutResult GetResult() const;
  bool DidCheckout() const { return GetResult() != kJX_CheckoutRefused; }
  bool DidCreateNewPending() const { return GetResult() == kJX_CreatedPending; }
  // The held item, or empty.
  IntrusivePtr<JX_Stuff> GetStuffPtr() const;
  // The held item, or null, without the handle's lock and without a reference: only for a handle
  // no other thread can reach (just made and not yet handed out), which keeps the item while it
  // holds it.
  JX_Stuff* GetStuffOfUnsharedHandle() const { return item_.get(); }
  // Checkin() without the handle's lock, for a handle no other thread can reach any more (one
  // about to be destroyed): there is nobody for the lock to keep out.
  void CheckinUnsharedHandle() { CheckinLocked(checkinFlags_, 0.0); }
  // FindAndCheckout() without the handle's lock, for a handle no other thread can reach yet (just
  // made and not yet handed out). The search may wait for a pending item as FindAndCheckout's
  // does; with no lock held here, that wait is the bag's to allow.
  JX_CheckoutResult FindAndCheckoutUnsharedHandle(const IntrusivePtr<JX_Stuff>& item, int flags);
  // Hands the duty to check in over to the caller: result and check-in flags become 0 and the
  // held item is returned (the handle keeps its pointer but will never check it in).
  IntrusivePtr<JX_Stuff> Release();
  // Exchanges result, check-in flags, the opaque slot, the disk hold and the item with `other`.
  // Check-out flags and suspended items stay where they are; `other`'s lock is not taken.
  void Swap(JX_ScCheckout& other);

  // Gives the item back but keeps the result, the flags and the disk hold.
  void SuspendCheckout();
  // Checks the suspended item out again (reading from disk if needed, never waiting), looking it
  // up afresh when it was replaced meanwhile. True when it is checked out again.
  bool ReacquireSuspendedCheckout();
  void ReleaseSuspendedCheckout();
  bool HasSuspendedCheckout() const;

  bool AcquireDiskHold();
  void ReleaseDiskHold();
  bool HasDiskHold() const;
  // True when no hold is needed (the item has no disk copy), else as HasDiskHold.
  bool HasDiskHoldIfWanted() const;

  bool IsInMemory() const;
  bool IsOnDisk() const;
  bool IsCompressed() const;
  bool IsPendingRender() const;
  bool WasTaggedToWriteToDisk() const;
  JX_StuffData::NoDiskCacheReason GetReasonWhyNoDiskCache() const;
  bool EnsureInMemory();

  // The guard word as it stands (kGuardWord for a live handle).
  uint32_t GetGuardWord() const { return guard_.load(std::memory_order_acquire); }
  void* GetOpaque() const { return opaque_; }
  void SetOpaque(void* p) { opaque_ = p; }

 private:
  // Holds the item's disk file: one count on the item's and one on the library-wide counter.
  struct DiskHold {
    IntrusivePtr<JX_Stuff> stuff;
    bool tookItem = false;
    bool tookGlobal = false;
    ~DiskHold();
  };

  IntrusivePtr<JX_Stuff> GetStuffPtrImpl(bool includeSuspended) const;
  // The check-in of Checkin, with the write lock held.
  void CheckinLocked(int flags, double computeTime);
  JX_CheckoutResult CheckoutImpl(IntrusivePtr<JX_Stuff> item, int flags);
  // Keeps what a check-out gave (nothing when it was refused), with the write lock held or on a
  // handle no other thread can reach; returns `result`.
  JX_CheckoutResult KeepLocked(JX_CheckoutResult result, IntrusivePtr<JX_Stuff>&& item) {
    result_ = result;
    if (result != kJX_CheckoutRefused) item_ = std::move(item);
    return result;
  }
  bool AcquireDiskHoldLocked();
  // The two steps of ReacquireSuspendedCheckout that take the write lock on top of its upgrade
  // lock: taking out the suspended item, its disk hold and flags (false when nothing is
  // suspended); and, after the new check-out, putting the flags back and the hold (when the
  // check-out succeeded). Returns whether it did.
  bool TakeSuspended(IntrusivePtr<JX_Stuff>* suspended, std::unique_ptr<DiskHold>* hold,
                     int* storedFlags);
  bool EndReacquire(JX_CheckoutResult result, std::unique_ptr<DiskHold> hold, int storedFlags);

  std::atomic<uint32_t> guard_{kGuardWord};
  IntrusivePtr<JX_Stuff> item_;
  JX_CheckoutResult result_ = kJX_CheckoutRefused;
  int checkoutFlags_ = 0;
  int checkinFlags_ = 0;
  void* opaque_ = nullptr;
  std::unique_ptr<DiskHold> diskHold_;
  IntrusivePtr<JX_Stuff> suspended_;
  mutable zelcore::threads::MultiTenantRecursiveMutex mutex_;
};

// Held by the thread that must fill a pending item. If that thread leaves the scope without
// filling it (its render threw, say), the destructor completes the item empty: it leaves the bag
// and the directory and every waiter is released.
class JX_EXPORT JX_ScStuffSetter {
 public:
  explicit JX_ScStuffSetter(zelcore::utility::IntrusivePtr<JX_Stuff> item = {})
      : item_(std::move(item)) {}
  JX_ScStuffSetter(const JX_ScStuffSetter&) = default;
  JX_ScStuffSetter& operator=(const JX_ScStuffSetter&) = default;
  ~JX_ScStuffSetter();
  const zelcore::utility::IntrusivePtr<JX_Stuff>& Get() const { return item_; }

 private:
  zelcore::utility::IntrusivePtr<JX_Stuff> item_;
};
