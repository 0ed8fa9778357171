// Pending items: waiting for a render another thread is doing, and completing it.
#include <chrono>

#include "common/settings.h"
#include "host/config.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "items/pending_watch.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/disk/disk_hooks.h"
#include "jxcache/host/host_services.h"
#include "jxcache/host/profiler.h"
#include "jxcache/items/stuff.h"

using zelcore::threads::ScopedUpgradeLockWrapper;
using zelcore::threads::ScopedWriteLockWrapper;

namespace {

constexpr auto kPendingWaitDeadline = std::chrono::hours(24);
constexpr uint32_t kBackPressureQueuedWrites = 200;
constexpr auto kBackPressureStep = std::chrono::milliseconds(100);

// The disk writer needs the library lock and the items' locks to drain its queue: a thread
// holding one of them (or a host lock another thread may need) must not sleep until it drains.
bool MaySleepForTheWriter() {
  return JXp_ScLock::CurrentThreadHoldsNoCacheLock() &&
         !Y::ScNotifyHoldingMutexLock::IsHoldingLock();
}

}  // namespace

void JX_Stuff::WaitForPendingCompletion() const {
  if (!IsPendingRender()) return;
  // The renderer itself would wait for ever: it is the one who must open the gate.
  if (IsPendingFromThisThread()) return;
  ZC_PROFILE_SCOPE("KQ.JX_Stuff::WaitForPendingCompletion", 6);
  // A pending item got its side record before it was shared, and keeps it.
  Extras* extras = FindExtras();
  if (!extras) return;
  JX_GetStuffCounters().pendingWaits.fetch_add(1, std::memory_order_relaxed);
  extras->pendingWaiters.fetch_add(1, std::memory_order_relaxed);
  zelcore::config::ExecuteTopLevelFunction leave(
      [extras] { extras->pendingWaiters.fetch_sub(1, std::memory_order_relaxed); });
  extras->pendingGate.WaitFor(kPendingWaitDeadline);
}

JX_Stuff::IntrusivePtr<JX_StuffData> JX_Stuff::GetDataWaitIfPending() const {
  WaitForPendingCompletion();
  return GetDataPtr();
}

void JX_Stuff::SetStuffDataFromPendingRender(IntrusivePtr<JX_StuffData> data, double computeTime) {
  SetStuffDataFromPendingRender_Impl(std::move(data), computeTime, false);
}

void JX_Stuff::SetStuffDataFromPendingRender_Impl(IntrusivePtr<JX_StuffData> data,
                                                  double computeTime, bool skipBackPressure) {
  IntrusivePtr<JX_Stuff> self(this);
  if (data) {
    try {
      PauseBeforeFilling(skipBackPressure);
    } catch (...) {
      // A fill that cannot even start (a setting refused for memory) must not leave anybody
      // waiting at the gate: the render is abandoned.
      CompletePending({}, 0.0);
      throw;
    }
  }
  CompletePending(std::move(data), computeTime);
}

void JX_Stuff::PauseBeforeFilling(bool skipBackPressure) {
  if (uint32_t sleepMs = jx::settings::DebugSleepTimeSetStuffDataMs()) {
    jx::host::GetClock().SleepFor(std::chrono::milliseconds(sleepMs));
  }
  // A renderer that outruns the disk writer is held back until the whole queue has drained,
  // not merely until it is under the threshold: that keeps writes in long, even batches.
  if (!skipBackPressure && JX_IsImprovedDiskCacheBehaviorFullyEnabled() &&
      JX_GetQueuedDiskWriteCount() > kBackPressureQueuedWrites && MaySleepForTheWriter()) {
    while (JX_GetQueuedDiskWriteCount() > 0) jx::host::GetClock().SleepFor(kBackPressureStep);
  }
}

void JX_Stuff::CompletePending(IntrusivePtr<JX_StuffData> data, double computeTime) {
  // Kept until the end: the payload may answer the item's requests until then.
  IntrusivePtr<JX_StuffData> findKey = GetFindKeyData();
  {
    // The pending flag and the payload change together, so a check-out never sees an item that
    // is neither pending nor filled.
    ScopedWriteLockWrapper wl(mutex_);
    // The payload before the flag: whoever sees the item no longer pending sees its final
    // payload, also without the lock.
    if (!pending_.load(std::memory_order_relaxed)) return;
    data_ = data;
    pending_.store(false, std::memory_order_release);
    computeTime_ = computeTime;
    ExtrasLocked().pendingThread = zelcore::threads::kNoThread;
  }
  jx::pending::Forget(*this);
  // Whatever happens below, nobody may be left waiting at the gate.
  zelcore::config::ExecuteTopLevelFunction openGate([this] {
    if (Extras* extras = FindExtras()) extras->pendingGate.Open();
  });
  if (data) {
    ResyncMemorySize(nullptr);
    MaybeWriteToDisk();
    ScopedWriteLockWrapper wl(mutex_);
    if (Extras* extras = FindExtras()) extras->findKeyData.reset();
    UpdateKeyIsFinalPayload();
  } else {
    // The render failed: the key is free again.
    RemoveFromBagAndSortDir();
  }
}

bool JX_Stuff::EnsureInMemory() {
  // A failed read deletes the file with the item's lock held; its handler hears of it after.
  DiskCopyGone gone;
  try {
    return EnsureInMemory(&gone);
  } catch (...) {
    try {
      gone.Tell();
    } catch (...) {
      // The read's failure is what the caller hears.
    }
    throw;
  }
}

bool JX_Stuff::EnsureInMemory(DiskCopyGone* gone) {
  // A file that cannot be read back is an expected event: its reports stay quiet.
  Y::ScQuietErrors quiet(Y::ScQuietErrors::Refused::kCarryOn);
  ZC_TRACE("JX_Stuff", 1,
           "JX_Stuff::EnsureInMemory pre-prep " << zelcore::threads::CurrentThreadId());
  {
    ScopedUpgradeLockWrapper up(mutex_);
    if (!(data_ && data_->IsInMemory()) && diskFile_) PrepAndRead(up, gone);
  }
  ZC_TRACE("JX_Stuff", 1,
           "JX_Stuff::EnsureInMemory post-prep " << zelcore::threads::CurrentThreadId());
  return IsInMemory();
}
