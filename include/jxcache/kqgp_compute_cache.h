/* KQGP Compute Cache: the host's cache of values that plug-ins compute, for plug-ins written in
 * C or C++ (plain C99).
 *
 * A plug-in registers a compute class (a text identifier and four callbacks), then asks the
 * cache, per request, for the value of that request: the cache hands out the value it already
 * holds, or has the caller compute it once while other callers for the same request wait or are
 * told it is on its way. Values live in the host's cache memory, are purged with everything else
 * when memory runs short, and are handed out under a receipt that pins them until it is checked
 * back in.
 *
 * Obtaining the suite: once the host has started the cache, a plug-in asks for the table with
 *
 *     const void* p = NULL;
 *     if (Y_VX_AcquireVXSuite(kKQGPComputeCacheSuite, kKQGPComputeCacheSuiteVersion1, &p) == 0) {
 *       const KQGP_ComputeCacheSuite1* suite = (const KQGP_ComputeCacheSuite1*)p;
 *       ...
 *     }
 *
 * The table stays valid, unchanged, for the life of the process; it may be kept in a global.
 *
 * Typical use:
 *
 *     KQGP_JXComputeReceipt receipt = NULL;          (must be NULL on entry)
 *     int32_t err = suite->ComputeIfNeededAndCheckout("com.example.histogram", &request, true,
 *                                                     &receipt);
 *     if (err == kKQGPComputeCacheNoError) {
 *       intptr_t value;
 *       suite->GetReceiptComputeValue(receipt, &value);
 *       ... use value ...
 *       suite->CheckinReceipt(receipt);              (value may be purged from here on)
 *     }
 *
 * Threads: every suite function may be called from any thread, concurrently. Nothing is ever
 * thrown out of a suite function: every failure comes back as a code (below).
 *
 * Callbacks: the cache calls them as follows. None of them may throw (C++) or longjmp out of the
 * call: either would unwind through the cache's frames and leave it inconsistent.
 *  - generate_key: on the thread calling ComputeIfNeededAndCheckout or CheckoutCached, before the
 *    cache is searched, with no cache lock held. Fills the 16-byte key that identifies `request`
 *    within its class; equal keys mean equal values. A non-zero result is returned to the caller.
 *  - compute: on the thread calling ComputeIfNeededAndCheckout, only when the request missed and
 *    this caller is the one chosen to compute it, with no cache lock held. At most one compute is
 *    in flight per key at any time. Stores the value handle in *outValue and returns 0. A
 *    non-zero result is returned to the caller and nothing is stored; a handle left in *outValue
 *    on failure is nonetheless passed to delete_compute_value, so leave it at 0 when failing.
 *    A handle of 0 is not a value: the call stores it but reports an inconsistency and returns 3.
 *  - approx_size_value: on any thread, whenever the cache accounts for the value's memory; it
 *    may be called while the cache holds its own locks. Must be quick and must not call the
 *    suite. The size is taken modulo 2^32.
 *  - delete_compute_value: exactly once per value, on whichever thread lets go of the value
 *    last (the thread purging memory, the thread checking in the last receipt of a value that
 *    left the cache, or the host's thread shutting the cache down). It may run after the class
 *    was unregistered (a value keeps a copy of its class's callbacks). It must not call the
 *    suite.
 *
 * Re-entrancy: compute may call the suite again, for other keys of any class, and may wait for
 * them (wait true). For the SAME key, a call made from inside that key's own compute returns 22
 * at once whatever `wait` says: the cache never lets a thread wait for a value it is computing
 * itself, and never starts a second computation of a key that is being computed. Waits that form
 * a cycle across threads (A's compute waits for key K2 while K2's compute, on another thread,
 * waits for A's key) are the plug-in's to avoid; use wait false inside compute when keys can
 * depend on each other that way.
 *
 * Receipts: a receipt is returned with code 0, owned by the caller, and holds its value pinned
 * (it cannot be purged) until CheckinReceipt. The handle from GetReceiptComputeValue is valid
 * while the receipt is checked out. A receipt must be checked in exactly once and not used
 * afterwards, nor by another thread while it is being checked in (a GetReceiptComputeValue that
 * overlaps the check-in of its receipt may wait for good). CheckinReceipt recognises misuses (a
 * receipt already checked in, a pointer that never was a receipt) and answers 2 without touching
 * anything. A receipt handle is not a plain pointer: it carries, in its top 16 bits, a count of the
 * receipts its memory has held, so a pointer that never was a receipt is refused unread, and a
 * receipt checked in again after its memory went to a newer receipt is refused rather than taken
 * for that one (unless the memory served exactly a multiple of 65,535 receipts in between). The
 * memory of receipts is never given back to the system, and to check a handle the library reads a
 * few bytes of it: a non-NULL value handed to CheckinReceipt or GetReceiptComputeValue must be a
 * handle the library returned (checked in or not) or a plain pointer; any other value may be read
 * as a handle.
 */
#ifndef KQGP_COMPUTE_CACHE_H
#define KQGP_COMPUTE_CACHE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define kKQGPComputeCacheSuite "KQGP Compute Cache"
#define kKQGPComputeCacheSuiteVersion1 1

/* Result codes. Any other value is a code returned by the plug-in's own generate_key or compute,
 * passed back unchanged (plug-ins should use codes that do not collide with these). */
#define kKQGPComputeCacheNoError 0            /* success */
#define kKQGPComputeCacheClassNotRegistered 1 /* the class identifier is not registered */
#define kKQGPComputeCacheInvalidReceipt 2     /* CheckinReceipt: not a live receipt */
/* A bad parameter (null pointer, receipt variable not NULL on entry, missing callback, receipt
 * not checked out) or inconsistent cache contents (also: a value whose compute failed while this
 * caller waited for it). Always reported to the host first. */
#define kKQGPComputeCacheBadParameter 3
/* The value is not available now: not cached (CheckoutCached), or being computed by another
 * caller and this caller did not ask to wait (or cannot wait: see re-entrancy above). */
#define kKQGPComputeCacheNotAvailable 22

/* A 16-byte key identifying one request within its class. */
typedef struct KQGP_GUID {
  uint8_t bytes[16];
} KQGP_GUID;

/* A receipt: an opaque handle that holds one value checked out. */
typedef struct KQGP_JXComputeReceiptOpaque* KQGP_JXComputeReceipt;

/* The callbacks of a compute class. All four are required. `request` is the caller's pointer,
 * passed through unchanged from the suite call. See above for threads. */
typedef struct KQGP_ComputeCacheCallbacks {
  int32_t (*generate_key)(void* request, KQGP_GUID* outKey);
  int32_t (*compute)(void* request, intptr_t* outValue);
  size_t (*approx_size_value)(intptr_t value);
  void (*delete_compute_value)(intptr_t value);
} KQGP_ComputeCacheCallbacks;

typedef struct KQGP_ComputeCacheSuite1 {
  /* Registers `classId` (a NUL-terminated byte string; "" is valid; compared bytewise) with a
   * copy of `callbacks` (the caller's structure may be freed afterwards). Registering an
   * identifier that is already registered keeps the first callbacks and returns 0: unregister
   * first to replace them. Returns 3 when a callback is missing. Register and unregister at
   * plug-in load and unload. */
  int32_t (*ClassRegister)(const char* classId, const KQGP_ComputeCacheCallbacks* callbacks);
  /* Forgets `classId` (0 also when it was not registered). Cached values of the class stay valid
   * and are still deleted through its delete_compute_value; new requests get 1. */
  int32_t (*ClassUnregister)(const char* classId);
  /* The value of `request`: cached, or computed now by this caller, or (another caller is
   * computing it) waited for when `wait` is true. *receipt must be NULL on entry and receives
   * the receipt on 0. Returns 0, 1, 3, 22 or the code of generate_key or compute. With `wait`
   * true and the computation failing on the other thread, the waiter gets 3. */
  int32_t (*ComputeIfNeededAndCheckout)(const char* classId, void* request, bool wait,
                                        KQGP_JXComputeReceipt* receipt);
  /* The value of `request` only if it is cached and ready: never computes, never waits (22). */
  int32_t (*CheckoutCached)(const char* classId, void* request, KQGP_JXComputeReceipt* receipt);
  /* The value handle a checked-out receipt holds; 3 for a receipt that is not checked out. */
  int32_t (*GetReceiptComputeValue)(KQGP_JXComputeReceipt receipt, intptr_t* outValue);
  /* Checks the receipt in and frees it. NULL: 0, nothing done. A pointer without the receipt
   * marker: reported, 2, nothing touched. */
  int32_t (*CheckinReceipt)(KQGP_JXComputeReceipt receipt);
} KQGP_ComputeCacheSuite1;

#ifdef __cplusplus
}
#endif

#endif /* KQGP_COMPUTE_CACHE_H */
