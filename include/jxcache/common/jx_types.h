// Plain types shared by every subsystem: check-out results, the check-out and check-in flag
// words, compression options and payload priorities.
#pragma once

#include <cstdint>

// Result of a check-out.
using JX_CheckoutResult = int32_t;
inline constexpr JX_CheckoutResult kJX_CheckoutRefused = 0;      // nothing was checked out
inline constexpr JX_CheckoutResult kJX_CheckedOut = 1;           // the item is checked out
inline constexpr JX_CheckoutResult kJX_CreatedPending = 2;       // a new pending item, to fill
inline constexpr JX_CheckoutResult kJX_HeldWithoutCheckout = 3;  // scoped handle only

// Check-out flags (the int argument of JX_Stuff::Checkout and JX_ScCheckout):
//
//   bit  value  meaning
//   0    0x01   read-only check-out (clear: writeable, exclusive)
//   1    0x02   passed along; no effect of its own on the read-only path
//   2    0x04   accept an item whose payload is not in memory
//   3    0x08   do not read the payload back from disk; an item only on disk is acceptable
//   4    0x10   find-and-check-out only: create a pending item when nothing matches
//   5    0x20   wait for a pending item, unless the thread holds a notifying host lock
//   6    0x40   wait for a pending item in any case (a notifying host lock still prevents it
//               inside the bag's find, which never blocks such a thread)
//   7    0x80   JX_ScCheckout only: hold the item without checking it out
namespace jx::checkout_flags {
inline constexpr int kReadOnly = 0x01;
inline constexpr int kPassAlong = 0x02;
inline constexpr int kAcceptNotInMemory = 0x04;
inline constexpr int kNoDiskRead = 0x08;
inline constexpr int kCreatePending = 0x10;
inline constexpr int kWaitUnlessHostLock = 0x20;
inline constexpr int kWaitAlways = 0x40;
inline constexpr int kHoldWithoutCheckout = 0x80;
inline constexpr int kWaitBits = kWaitUnlessHostLock | kWaitAlways;
// Cleared on reacquisition of a suspended check-out: it always reads from disk and never waits.
inline constexpr int kReacquireClearMask = 0x78;
}  // namespace jx::checkout_flags

// Check-in flags (the int argument of JX_Stuff::Checkin):
//
//   bit  value  meaning
//   0    0x01   keep the item's place in the recency order and its last-use time
//   1    0x02   remove the item from the bag and the sort directory afterwards
//   2    0x04   purge the item's payload as far as possible afterwards
//   3    0x08   write the item to disk now, ahead of other background writes
namespace jx::checkin_flags {
inline constexpr int kKeepRecency = 0x01;
inline constexpr int kRemove = 0x02;
inline constexpr int kPurge = 0x04;
inline constexpr int kWriteNow = 0x08;
}  // namespace jx::checkin_flags

// Whether a payload may be written to disk compressed.
enum JX_CompressedAllowedOption : int32_t {
  kJX_CompressionNotAllowed = 0,
  kJX_CompressionAllowed = 1,
  kJX_CompressionAllowedForPlayback = 2,
};

// A payload's cache priority. The library compares with kJX_CachePriorityHigh when it picks the
// disk-write priority; the host assigns the other values.
using JX_CachePriority = int32_t;
inline constexpr JX_CachePriority kJX_CachePriorityDefault = 0;
inline constexpr JX_CachePriority kJX_CachePriorityLow = 1;
inline constexpr JX_CachePriority kJX_CachePriorityHigh = 2;
