// The compute core: turns a plug-in request into a cache key, finds the entry or has the caller
// compute it exactly once, and hands the result out as a receipt; and the two receipt
// operations.
//
// Entries are ordinary cached items keyed by a Murmur3 hash of "JX-Compute", the class
// identifier (with its NUL) and the plug-in's 16-byte key; their payload is a
// GenericJXComputeStuffData. The bag decides who computes: the first caller for an absent key
// gets the pending item, later callers see it pending.
//
// Threads: any thread. No library or item lock is held while plug-in callbacks run, and the
// core never waits while holding one. These functions report and throw plain int codes (see
// include/kqgp_compute_cache.h); the suite entries turn them into return values.
#pragma once

#include <cstdint>
#include <string_view>

#include "jxcache/host/profiler.h"
#include "jxcache/kqgp_compute_cache.h"

namespace jx::compute {

enum class Mode {
  kCachedOnly = 0,  // never computes, never waits
  kNoWait = 1,      // computes an absent value; a value being computed elsewhere: 22
  kWait = 2,        // computes an absent value; waits for one being computed elsewhere
};

// Returns 0 and stores a receipt in *receipt, or returns 1, 22 or the code of generate_key or
// compute; throws 3 after reporting a bad parameter or an inconsistent entry.
int32_t ComputeAndCheckout(const char* classId, void* request, Mode mode,
                           KQGP_JXComputeReceipt* receipt);
// The value handle of a checked-out receipt; throws 3 after reporting otherwise.
void GetReceiptValue(KQGP_JXComputeReceipt receipt, intptr_t* outValue);
// 0 (null receipt: nothing done), 2 (not a live receipt, reported) or 0 after the check-in.
int32_t CheckinReceipt(KQGP_JXComputeReceipt receipt);

// What the compute cache has done since the start (or the last ResetCounters): values served
// from the cache, values this process computed, computes that failed, waits for a value another
// thread computed, and requests answered "not available".
struct Counters {
  uint64_t served = 0;
  uint64_t computed = 0;
  uint64_t failed = 0;
  uint64_t waits = 0;
  uint64_t notAvailable = 0;
};
Counters GetCounters();
void ResetCounters();

// The entry key of `pluginKey` in class `classId`.
KQGP_GUID MakeEntryKey(std::string_view classId, const KQGP_GUID& pluginKey);

// Durations of waits for values other threads compute, recorded while conditional profiling
// runs at the default volume or more. Created on first use.
zelcore::debug::ProfileDataLog& ThreadWaitingLog();

}  // namespace jx::compute
