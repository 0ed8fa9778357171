// Compute-cache receipts: the JX_ScCheckout that holds a plug-in's value checked out, handed to
// the plug-in as an opaque KQGP_JXComputeReceipt.
//
// Receipts live in blocks that are recycled, never given back to the system allocator: a
// receipt checked in twice (or any stale receipt) then still points at mapped memory whose
// guard word was scrubbed at check-in, so the second check-in is recognised and refused instead
// of freeing memory twice. Two check-ins of one receipt at once both find the guard word live:
// a claim word after the receipt lets only one of them through. The pool holds as many blocks as
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

inline KQGP_JXComputeReceipt ToHandle(JX_ScCheckout* receipt) {
  return reinterpret_cast<KQGP_JXComputeReceipt>(receipt);
}

// The receipt behind `handle` when it carries a live guard word, else null. `handle` must be
// non-null. Reads four bytes at the guard word's offset, and only when `handle` is aligned like
// a JX_ScCheckout: a pointer that is not a receipt is read there and nowhere else.
JX_ScCheckout* LiveReceiptFromHandle(KQGP_JXComputeReceipt handle);

// The receipt behind `handle`, claimed for its check-in, or null when it is not live or another
// caller has claimed it already: of the callers checking one receipt in, only one gets it.
JX_ScCheckout* ClaimReceiptFromHandle(KQGP_JXComputeReceipt handle);

}  // namespace jx::compute
