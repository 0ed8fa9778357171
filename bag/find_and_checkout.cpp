// JX_Bag::FindAndCheckout: find an item that answers a request and check it out, or create the
// pending item the caller must fill while others wait for it.
#include <boost/container/small_vector.hpp>

#include "bag/miss_reasons.h"
#include "bag/sort_dir.h"
#include "common/failures.h"
#include "host/y_api.h"
#include "jxcache/bag/bag.h"
#include "jxcache/host/profiler.h"

namespace cf = jx::checkout_flags;

namespace {

bool MayWaitForPending(int flags) {
  if (!(flags & cf::kWaitBits)) return false;
  // A thread holding a notifying host lock, the library lock or an item lock must never block
  // on another thread's render: the renderer may need exactly that lock to finish.
  return !Y::ScNotifyHoldingMutexLock::IsHoldingLock() &&
         JXp_ScLock::CurrentThreadHoldsNoCacheLock();
}

// Miss accounting, all of it off the hit path, which returns before any of it.
jx::miss::Reason DepartureOfRequest(const JX_Stuff& request) {
  size_t hash;
  request.GetGuidAndHash(&hash);
  return jx::miss::DepartureOf(hash);
}

void CountMiss(const JX_Stuff& request, jx::miss::Reason reason) {
  if (jx::miss::CurrentLookupMode() & jx::miss::kNotALookup) return;
  jx::miss::CountMissOf(request, reason);
}

// A refusal whose caller searches again right after counts with that search instead.
void CountRefusal(const JX_Stuff& request, jx::miss::Reason reason) {
  if (jx::miss::CurrentLookupMode() & jx::miss::kRefusalNotCounted) return;
  CountMiss(request, reason);
}

void CountIfNotServedFromMemory(const JX_Stuff& request, const JX_Stuff& match, int checkoutFlags,
                                jx::miss::ThreadReads before) {
  if (jx::miss::ThisThreadReads().done != before.done) {
    CountMiss(request, DepartureOfRequest(request));
  } else if (match.IsPendingRender()) {
    // Handed over still pending: this thread could not wait for it here.
    if (!(jx::miss::CurrentLookupMode() & jx::miss::kCallerWaits) &&
        !match.IsPendingFromThisThread()) {
      CountMiss(request, jx::miss::Reason::kPendingDeadline);
    }
  } else if (checkoutFlags & (cf::kNoDiskRead | cf::kAcceptNotInMemory)) {
    // Checked out as it stands, perhaps with the payload left on disk: the caller reads it or
    // does without. Not pending, the payload is final and is looked at without the item's lock.
    const bool inMemory =
        match.VisitData([](const JX_StuffData* data) { return data && data->IsInMemory(); });
    if (!inMemory) CountMiss(request, DepartureOfRequest(request));
  }
}

}  // namespace

bool JX_Bag::FindReadOnlyUnlocked(const JX_Stuff& request, int checkoutFlags, StuffPtr* match) {
  bool keyKeptByRequest;
  auto key = request.GetFindKeyData(&keyKeptByRequest);
  const JX_CompressedAllowedOption option =
      key ? key->GetCompressedAllowedOption() : kJX_CompressionNotAllowed;
  const int rounds = option != kJX_CompressionNotAllowed ? 2 : 1;
  size_t hash;
  const auto guid = request.GetGuidAndHash(&hash);
  // Held references: without the library lock a candidate may leave the directory at any time.
  boost::container::small_vector<StuffPtr, 4> candidates;
  sortDir_->ForEachWithGuidUnlocked(guid, hash, [&](JX_Stuff& s) {
    candidates.emplace_back(&s);
    return true;
  });
  for (int round = 0; round < rounds; ++round) {
    for (StuffPtr& candidate : candidates) {
      bool matched = false;
      const bool lastUse =
          keyKeptByRequest && round == rounds - 1 && &candidate == &candidates.back();
      const JX_Stuff::MatchRequest ask{&key, round == 1, &matched,
                                       this, &guid,      lastUse ? &key : nullptr};
      if (candidate->CheckoutInBag(checkoutFlags | cf::kNoDiskRead, this, nullptr, &ask) ==
          kJX_CheckedOut) {
        *match = std::move(candidate);
        return true;
      }
    }
  }
  // Nothing taken: a miss, a pending or on-disk match, or a directory in mid-change. The locked
  // search decides.
  return false;
}

JX_CheckoutResult JX_Bag::FindAndCheckout(const StuffPtr& request, int checkoutFlags,
                                          StuffPtr* found, bool* createdPending) {
  ZC_PROFILE_SCOPE("KQ.JX_SortDir::FindAndCheckout", 7);
  ZC_PROFILE_SCOPE("KQ.JX_SortDir::FindAndCheckout 1", 7);
  if (!request) jx::ThrowNullPtr("JX_Stuff");
  if (!found || !createdPending) jx::ThrowNullPtr("JX_Bag::FindAndCheckout output");
  found->reset();
  *createdPending = false;
  if ((checkoutFlags & cf::kReadOnly) && FindReadOnlyUnlocked(*request, checkoutFlags, found)) {
    // Taken in memory and not pending; checked out, it stays so (a checked-out payload is never
    // purged, and an item is pending only from its creation). Nothing below applies.
    return kJX_CheckedOut;
  }
  StuffPtr match;
  bool matchWasPending = false;
  bool pendingMatchRefused = false;
  const JX_CheckoutResult result = FindOrCreateLocked(
      *request, checkoutFlags, &match, &matchWasPending, createdPending, &pendingMatchRefused);
  if (!match) {
    CountRefusal(*request, pendingMatchRefused ? jx::miss::Reason::kPendingDeadline
                                               : DepartureOfRequest(*request));
    return kJX_CheckoutRefused;
  }
  if (result == kJX_CheckedOut) {
    const jx::miss::ThreadReads before = jx::miss::ThisThreadReads();
    if (!FinishCheckoutOfMatch(*match, checkoutFlags, matchWasPending)) {
      // Refused after all: the render we found was abandoned, or the payload could not be read
      // back. The read may have been another thread's, which this one waited for (and which
      // recorded why the payload is gone): only a read of this thread's own shows here.
      const bool readFailed = jx::miss::ThisThreadReads().failed != before.failed;
      CountRefusal(*request, readFailed        ? jx::miss::Reason::kFailedRead
                             : matchWasPending ? jx::miss::Reason::kPendingDeadline
                                               : DepartureOfRequest(*request));
      return kJX_CheckoutRefused;
    }
    CountIfNotServedFromMemory(*request, *match, checkoutFlags, before);
  } else {
    CountMiss(*request, DepartureOfRequest(*request));
  }
  *found = std::move(match);
  return result;
}

JX_CheckoutResult JX_Bag::FindOrCreateLocked(const JX_Stuff& request, int checkoutFlags,
                                             StuffPtr* match, bool* matchWasPending,
                                             bool* createdPending, bool* pendingMatchRefused) {
  JXp_ScLock lock;
  ZC_PROFILE_SCOPE("KQ.JX_SortDir::FindAndCheckout 1 - post lock attempt", 7);
  const auto key = request.GetFindKeyData();
  size_t hash;
  const auto guid = request.GetGuidAndHash(&hash);
  if (CheckoutFirstMatchLocked(key, guid, hash, checkoutFlags, match, matchWasPending,
                               pendingMatchRefused)) {
    return kJX_CheckedOut;
  }
  // A key that is being rendered never gets a second pending item: that would compute it twice.
  if (!(checkoutFlags & cf::kCreatePending) || *pendingMatchRefused) return kJX_CheckoutRefused;
  ZC_PROFILE_SCOPE("KQ.JX_SortDir.CreatePending", 7);
  *match = JX_Stuff::CreatePending(guid, key);
  AddToBagAndSortDir(*match);
  (*match)->CheckoutNewPending();
  (*match)->MaybeWriteToDisk();
  *createdPending = true;
  return kJX_CreatedPending;
}

bool JX_Bag::CheckoutFirstMatchLocked(const IntrusivePtr<JX_StuffData>& key,
                                      const zelcore::utility::Guid& guid, size_t hash,
                                      int checkoutFlags, StuffPtr* match, bool* matchWasPending,
                                      bool* pendingMatchRefused) {
  const JX_CompressedAllowedOption option =
      key ? key->GetCompressedAllowedOption() : kJX_CompressionNotAllowed;
  const int rounds = option != kJX_CompressionNotAllowed ? 2 : 1;
  // Candidates are copied first: a writeable check-out takes its item out of the directory.
  // Plain pointers suffice while this thread holds the library lock: nothing leaves the
  // directory meanwhile except through a writeable check-out made here, which keeps its own
  // reference to the item (below).
  boost::container::small_vector<JX_Stuff*, 4> candidates;
  sortDir_->ForEachWithGuid(guid, hash, [&](const StuffPtr& s) {
    candidates.push_back(s.get());
    return true;
  });
  // Disk reads happen after the library lock is released, never under it.
  const int lockedFlags = checkoutFlags | cf::kNoDiskRead;
  const bool forWrite = !(checkoutFlags & cf::kReadOnly);
  for (int round = 0; round < rounds; ++round) {
    for (JX_Stuff* candidate : candidates) {
      bool matched = false;
      const JX_Stuff::MatchRequest request{&key, /*wantCompressed=*/round == 1, &matched};
      // Leaving the directory may drop its last reference to the item.
      const StuffPtr held = forWrite ? StuffPtr(candidate) : StuffPtr();
      // Its sizes are this bag's only while this bag's recency order links it.
      JX_Bag* accountingBag = candidate->mruBag_ == this ? this : nullptr;
      if (candidate->CheckoutInBag(lockedFlags, accountingBag, matchWasPending, &request) ==
          kJX_CheckedOut) {
        *match = StuffPtr(candidate);
        return true;
      }
      if (matched && candidate->IsPendingRender()) *pendingMatchRefused = true;
    }
  }
  return false;
}

bool JX_Bag::FinishCheckoutOfMatch(JX_Stuff& match, int checkoutFlags, bool matchWasPending) {
  if (match.IsPendingRender() && MayWaitForPending(checkoutFlags)) {
    match.WaitForPendingCompletion();
  }
  // Checked whether or not we waited: the render may have been abandoned right after our
  // check-out of the pending item, before we looked. An item that was not pending had its
  // payload, and a checked-out item keeps it.
  if (matchWasPending && !match.IsPendingRender() && !match.GetDataPtr()) {
    match.Checkin(0, 0.0);
    return false;
  }
  // Unlike the item's own check-out, a search undoes a failed read with a check-in that renews
  // the item's recency.
  return (checkoutFlags & cf::kNoDiskRead) || match.ReadBackOrUndoCheckout(0, checkoutFlags);
}
