// Why look-ups missed, per payload class: for a host's statistics display and for tuning.
//
// A look-up is one search of the cache for a caller (JX_Bag::FindAndCheckout, which the
// check-out handles and the compute-cache suite use). It is a hit when it returns the item with
// its payload in memory, also after waiting for another thread's render; every other outcome is
// a miss and counts exactly one reason, so a row's reasons add up to its total. A payload class
// is the registered match name of the request's find-key data; requests without one, and
// classes beyond the first few that missed, count under "other". The counts are counters:
// JX_ResetStatistics zeroes them. Any thread may call.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "jxcache/host/export.h"

// The reasons, in the order of JX_MissReasons::byReason.
enum JX_MissReason : int {
  kJX_MissNeverSeen = 0,    // not known to have been cached (or forgotten since)
  kJX_MissMemoryPurge,      // freed by a memory purge
  kJX_MissMediaManager,     // freed by the host's media manager
  kJX_MissReplaced,         // replaced by a newer item of the same GUID
  kJX_MissFolderLimit,      // its disk file was deleted to keep the folder within its limit
  kJX_MissFailedRead,       // its disk file could not be read back
  kJX_MissOtherVersion,     // the folder holds it only for another application version
  kJX_MissNotWorthWriting,  // freed from memory, never written: reading back was not faster
  kJX_MissPendingDeadline,  // still being rendered when the caller could wait no longer
  kJX_MissReasonCount
};

struct JX_EXPORT JX_MissReasons {
  std::string payloadClass;
  int64_t total = 0;  // the sum of byReason
  std::array<int64_t, kJX_MissReasonCount> byReason{};
};

// snake_case: "never_seen", "memory_purge", ... "pending_deadline".
JX_EXPORT const char* JX_MissReasonName(int reason);
// One row per payload class that has missed since the process started (rows may be all zero
// after a reset).
JX_EXPORT std::vector<JX_MissReasons> JX_GetMissReasons();
// All classes together.
JX_EXPORT JX_MissReasons JX_GetMissReasonsTotal();
