// Compute-cache receipts: the JX_ScCheckout that holds a plug-in's value checked out, handed to
// the plug-in as an opaque KQGP_JXComputeReceipt.
//
// Receipts live in blocks that are recycled, never given back to the system allocator: a
// receipt checked in twice (or any stale receipt) then still points at mapped memory whose
// guard word was scrubbed at check-in, so the second check-in is recognised and refused instead
// of freeing memory twice. A block may meanwhile hold a newer receipt, whose guard word is live:
// each block counts the receipts it has held, and a handle carries that count in the top 16 bits
// of the address (which user-space addresses leave clear), so a stale handle is refused rather
// than check in somebody else's receipt (unless the block served exactly a multiple of 65,535
// receipts in between). Two check-ins of one receipt at once both find the guard word live: a
// word after the receipt, which holds the count and a claim bit, lets only one of them through,
// and never a stale handle, whose claim expects its own count. The pool holds as many blocks as
// were ever out at once.
//
// Threads: any thread. The pool's mutex is a leaf.
#pragma once

#include <memory>

#include "jxcache/items/sc_checkout.h"
#include "jxcache/kqgp_compute_cache.h"

namespace jx::compute {

// Destroys a receipt and returns its block to the pool, guard word scrubbed.
struct ReceiptDeleter {
  void operator()(JX_ScCheckout* receipt) const noexcept;
};
using ReceiptPtr = std::unique_ptr<JX_ScCheckout, ReceiptDeleter>;

// A new, empty receipt.
ReceiptPtr NewReceipt();

// The handle of a receipt made by NewReceipt: its address and its block's count.
KQGP_JXComputeReceipt ToHandle(JX_ScCheckout* receipt);

// The receipt behind `handle` when it carries a live guard word and its block's current count,
// else null. `handle` must be non-null. A value without a count (any plain pointer) is refused
// unread; otherwise reads the guard word and the count at their offsets from the address the
// handle carries, and only when that address is aligned like a JX_ScCheckout.
JX_ScCheckout* LiveReceiptFromHandle(KQGP_JXComputeReceipt handle);

// The receipt behind `handle`, claimed for its check-in, or null when it is not live or another
// caller has claimed it already: of the callers checking one receipt in, only one gets it.
JX_ScCheckout* ClaimReceiptFromHandle(KQGP_JXComputeReceipt handle);

}  // namespace jx::compute
