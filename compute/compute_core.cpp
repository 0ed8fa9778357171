#include "compute/compute_core.h"

#include <atomic>

#include "jxcache/host/striped_counter.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <typeinfo>

#include "bag/miss_reasons.h"
#include "common/failures.h"
#include "compute/compute_registry.h"
#include "compute/compute_value.h"
#include "compute/receipt.h"
#include "host/murmur3.h"
#include "host/y_api.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/host/guid.h"
#include "jxcache/host/high_precision_time.h"
#include "jxcache/host/host_services.h"
#include "jxcache/items/sc_checkout.h"

namespace jx::compute {
namespace {

namespace cf = jx::checkout_flags;
using StuffPtr = zelcore::utility::IntrusivePtr<JX_Stuff>;
using zelcore::utility::Guid;

// Modes 1 and 2 find the entry or create it pending for this caller to compute (0x53).
constexpr int kFindOrCreateFlags =
    cf::kReadOnly | cf::kPassAlong | cf::kCreatePending | cf::kWaitAlways;
// Mode 0 only finds (0x03).
constexpr int kFindOnlyFlags = cf::kReadOnly | cf::kPassAlong;

constexpr int32_t kNotAvailable = kKQGPComputeCacheNotAvailable;
constexpr size_t kAllocationProbeSize = 80;

constexpr char kInvalidReceiptMessage[] =
    "$$$/KQ/JX/ThreeWayCheckOut/InvalidReceiptCheckInError=Trying to check in invalid receipt. "
    "Please make sure you are not double checking in or checking in invalid receipts.";

// The entry-key hash fed with the domain "JX-Compute" and the class identifier with its NUL (so
// that ("ab", key) and ("a", "b"+key) cannot meet): everything but the plug-in's key, which
// EntryKeyFrom adds. Kept per class, so that a request hashes its own sixteen bytes only.
zelcore::utility::HashState KeyPrefixOf(std::string_view classId) {
  static constexpr char kDomain[] = "JX-Compute";
  zelcore::utility::HashState state = zelcore::utility::MakeHashState();
  zelcore::utility::UpdateHashState(state, kDomain, sizeof kDomain - 1);
  zelcore::utility::UpdateHashState(state, classId.data(), classId.size());
  zelcore::utility::UpdateHashState(state, "", 1);
  return state;
}

KQGP_GUID EntryKeyFrom(const zelcore::utility::HashState& prefix, const KQGP_GUID& pluginKey) {
  static_assert(sizeof pluginKey.bytes == 16);
  KQGP_GUID key;
  zelcore::utility::GuidToBytes(
      Guid(zelcore::utility::GetHashResultWith16(prefix, pluginKey.bytes)), key.bytes);
  return key;
}

// What a request needs of its class: a copy, so that a compute that asks for another class on the
// same thread (which replaces the thread's kept class) leaves the caller's alone.
struct RequestClass {
  KQGP_ComputeCacheCallbacks callbacks{};
  zelcore::utility::HashState keyPrefix;
  // The process's copy of the identifier (see InternClassId), which the entry check compares by
  // address; the caller's own string when there was no memory to make that copy.
  std::string_view id;
};

// The class this thread asked for last, kept while the registry stays as it was: nearly every
// request asks for the class of the one before it.
struct KeptClass {
  uint64_t generation = 0;  // 0: nothing kept (the registry's generations start at 1)
  RequestClass facts;
};
thread_local constinit KeptClass tKeptClass;

// Fills *out for `classId` and returns 0, or returns 1 (not registered) or the registry's code.
int32_t FindClass(const char* classId, RequestClass* out) {
  KeptClass& kept = tKeptClass;
  // Read before the registry is asked: a change after this read makes the kept answer stale.
  const uint64_t generation = RegistryGeneration();
  // Compared up to and including the kept identifier's NUL: equal bytes and equal length.
  if (kept.generation == generation &&
      std::strncmp(classId, kept.facts.id.data(), kept.facts.id.size() + 1) == 0) {
    *out = kept.facts;
    return 0;
  }
  KQGP_ComputeCacheCallbacks callbacks;
  if (int32_t err = JX_ComputeClassFind(classId, &callbacks)) return err;
  out->callbacks = callbacks;
  out->id = classId;
  out->keyPrefix = KeyPrefixOf(out->id);
  kept.generation = 0;
  try {
    out->id = *InternClassId(out->id);
  } catch (const std::bad_alloc&) {
    return 0;  // no memory to keep it: the next request asks the registry again
  }
  kept.facts = *out;
  kept.generation = generation;
  return 0;
}

// The search item: a request for `key` that the bag enters as the pending item itself when the
// key is absent.
StuffPtr MakeSearchItem(const KQGP_GUID& key) {
  zelcore::utility::IntrusivePtr<JX_StuffData> request(new GenericJXComputeStuffData(key));
  StuffPtr item = JX_Stuff::CreateNew(request, 0.0);
  item->SetGuid(Guid::FromBytes(key.bytes));
  return item;
}

// A request that only looks: one per thread, re-keyed for every call, so that a value already
// cached is found without building (and then dropping) a search item of its own. Entries answer
// any request for their key, so the request's payload carries nothing but the key's type.
const StuffPtr& LookingRequest(const KQGP_GUID& key) {
  thread_local StuffPtr request = MakeSearchItem(key);
  request->SetGuid(Guid::FromBytes(key.bytes));
  return request;
}

// Modes 1 and 2 ask the bag with the same flags, 0x53, under a notifying-lock scope, so that
// the bag never blocks this thread: a pending match comes back checked out as it stands (or
// refused, when this very thread is computing it), and the core decides what happens next. Mode 1
// answers 22 at once. Mode 2 waits here, not in the bag: a waiter whose value failed to compute
// then sees the abandoned entry and answers 3 (the bag would turn that into a plain refusal,
// indistinguishable from "being computed"), and the wait can be timed. Dropping the wait bits in
// mode 1 instead would refuse pending matches just the same; one rule for both modes is simpler.
// A value already cached is looked for first with the looking request and the flags without the
// creation bit; only when that finds nothing is a search item built, which the bag then enters as
// the pending entry (another thread may have created it meanwhile: then it is found). The receipt
// is not handed out yet, so its own lock has nobody to keep out and is not taken.
JX_CheckoutResult FindEntry(JX_ScCheckout& handle, const KQGP_GUID& key, Mode mode) {
  // A pending entry found is ours to wait for, and to count as a miss if we do not get it; a
  // probe that finds nothing is followed by the search that counts.
  if (mode == Mode::kCachedOnly) {
    jx::miss::ScLookupMode callerWaits(jx::miss::kCallerWaits);
    return handle.FindAndCheckoutUnsharedHandle(LookingRequest(key), kFindOnlyFlags);
  }
  Y::ScNotifyHoldingMutexLock neverBlockInTheBag;
  JX_CheckoutResult found;
  {
    jx::miss::ScLookupMode probe(jx::miss::kCallerWaits | jx::miss::kRefusalNotCounted);
    found = handle.FindAndCheckoutUnsharedHandle(LookingRequest(key),
                                                 kFindOrCreateFlags & ~cf::kCreatePending);
  }
  if (found != kJX_CheckoutRefused) return found;
  jx::miss::ScLookupMode callerWaits(jx::miss::kCallerWaits);
  return handle.FindAndCheckoutUnsharedHandle(MakeSearchItem(key), kFindOrCreateFlags);
}

// The rule the bag applies to its own waits: a thread under a notifying host lock, or holding
// the library lock or an item lock, would stall the very compute it waits for.
bool MayWait(bool callerHeldNotifyingLock) {
  return !callerHeldNotifyingLock && JXp_ScLock::CurrentThreadHoldsNoCacheLock();
}

void WaitForOtherCompute(const JX_Stuff& item) {
  using zelcore::debug::CodeProfiler;
  if (!CodeProfiler::IsConditionalProfiling(CodeProfiler::kDefaultVolume)) {
    item.WaitForPendingCompletion();
    return;
  }
  zelcore::utility::Timer timer;
  item.WaitForPendingCompletion();
  ThreadWaitingLog().Add(timer.GetElapsedSeconds());
}

// Has the plug-in compute the value of the pending `item` and fills the item with it. Returns 0
// or compute's own code.
int32_t ComputeInto(const StuffPtr& item, std::string_view classId,
                    const KQGP_ComputeCacheCallbacks& callbacks, const KQGP_GUID& key,
                    void* request) {
  // Leaving before the item is filled (compute failed or threw, or memory was refused) abandons
  // it: it leaves the bag and every waiter is released, so nothing is stored.
  JX_ScStuffSetter abandonUnlessFilled(item);
  zelcore::utility::IntrusivePtr<GenericJXComputeStuffData> payload(
      new GenericJXComputeStuffData(key));
  zelcore::utility::Timer timer;
  // The holder owns whatever compute leaves in the handle, also on failure.
  auto holder = std::make_unique<JXComputeValueHolder>(callbacks.delete_compute_value, 0);
  if (int32_t err = callbacks.compute(request, &holder->handle)) return err;
  payload->SetValue(new JXComputeValue(std::string(classId), callbacks, std::move(holder)));
  item->SetStuffDataFromPendingRender(payload, timer.GetElapsedSeconds());
  return 0;
}

// The compute entry a payload is, or null. The entry class is final: its exact type is the test,
// cheaper than a dynamic_cast on every hit.
GenericJXComputeStuffData* EntryOf(JX_StuffData* payload) {
  return payload && typeid(*payload) == typeid(GenericJXComputeStuffData)
             ? static_cast<GenericJXComputeStuffData*>(payload)
             : nullptr;
}

// The checks an entry found under `key` must pass before its value is handed out; each reports and
// throws 3.
void CheckEntry(const JX_Stuff& item, const KQGP_GUID& key, std::string_view classId) {
  bool wrongType = false;
  const GenericJXComputeStuffData::Facts facts = item.VisitData([&](JX_StuffData* data) {
    auto* entry = EntryOf(data);
    // An item without any payload is one whose compute failed while we waited for it: it holds
    // no value, which is what the second check is about, not a payload of the wrong type.
    wrongType = data && !entry;
    return entry ? entry->Inspect(classId) : GenericJXComputeStuffData::Facts{};
  });
  if (wrongType) FailVerification("JXCompute unexpected stuff of wrong type. corrupt cache??");
  if (!facts.hasValue) {
    FailVerification(
        "JXCompute unexpected missing compute value on successful checkout. corrupt cache??");
  }
  // The item was found under `key` (the search compares GUIDs under the item's lock, and a
  // checked-out item keeps its GUID), so `key` stands for the item's GUID here.
  if (Guid::FromBytes(key.bytes) != facts.key) {
    FailVerification(
        "JXCompute unexpected mismatch between Stuff GUID and ComputeStuff Key! corrupt cached??");
  }
  if (!facts.sameClass) {
    FailVerification(
        "JXCompute unexpected creator of cached item/version should match! corrupt cached??");
  }
  if (facts.refcon == 0) {
    FailVerification("JXCompute unexpected missing refcon in value! corrupt cached??");
  }
}

// Tells a host that is out of memory from one that is not before anything is searched, computed
// or cached for the caller: a refused caller leaves the cache as it found it. The block is freed
// at once: keeping it would leak on every call.
void ProbeHostAllocator() {
  // The host's allocator itself, which is what Y_AllocatePtrClear and Y_DisposePtr call.
  jx::host::MemoryBudget& memory = jx::host::GetMemory();
  void* block = memory.AllocateCleared(kAllocationProbeSize, "KQGP_JXComputeReceipt");
  if (block == nullptr) FailVerification("JXCompute alloc failure");
  memory.FreeCleared(block);
}

}  // namespace

KQGP_GUID MakeEntryKey(std::string_view classId, const KQGP_GUID& pluginKey) {
  return EntryKeyFrom(KeyPrefixOf(classId), pluginKey);
}

zelcore::debug::ProfileDataLog& ThreadWaitingLog() {
  static zelcore::debug::ProfileDataLog log("KQ.Levels.ThreadWaiting");
  return log;
}

namespace {
// Every served value counts on whatever thread asked, so that one is striped; the rest are rare.
struct LiveCounters {
  zelcore::utility::StripedCounter<uint64_t> served;
  std::atomic<uint64_t> computed{0}, failed{0}, waits{0}, notAvailable{0};
};
constinit LiveCounters gCounters;

int32_t NotAvailable() {
  gCounters.notAvailable.fetch_add(1, std::memory_order_relaxed);
  return kNotAvailable;
}

// A pending entry the bag handed over that this caller did not get a value from: it could not
// wait, or the compute it waited for failed.
int32_t PendingNotServed(const JX_Stuff& item) {
  jx::miss::CountMissOf(item, jx::miss::Reason::kPendingDeadline);
  return NotAvailable();
}
}  // namespace

Counters GetCounters() {
  return {gCounters.served.load(), gCounters.computed.load(), gCounters.failed.load(),
          gCounters.waits.load(), gCounters.notAvailable.load()};
}

void ResetCounters() {
  // A striped counter is reset by taking back what it holds: its stripes belong to their threads.
  gCounters.served.fetch_sub(gCounters.served.load());
  gCounters.computed = 0;
  gCounters.failed = 0;
  gCounters.waits = 0;
  gCounters.notAvailable = 0;
}

int32_t ComputeAndCheckout(const char* classId, void* request, Mode mode,
                           KQGP_JXComputeReceipt* receipt) {
  if (classId == nullptr) FailVerification("JXCompute null class identifier");
  if (receipt == nullptr) FailVerification("JXCompute null receipt pointer");
  RequestClass cls;
  if (int32_t err = FindClass(classId, &cls)) return err;
  const std::string_view id = cls.id;
  const KQGP_ComputeCacheCallbacks& callbacks = cls.callbacks;
  KQGP_GUID pluginKey{};
  if (int32_t err = callbacks.generate_key(request, &pluginKey)) return err;
  const KQGP_GUID key = EntryKeyFrom(cls.keyPrefix, pluginKey);
  if (*receipt != nullptr) {
    FailVerification("unexpected: receipt already exists. improper receipt use?");
  }

  ProbeHostAllocator();
  const bool callerHeldNotifyingLock = Y::ScNotifyHoldingMutexLock::IsHoldingLock();
  ReceiptPtr handle = NewReceipt();
  const JX_CheckoutResult found = FindEntry(*handle, key, mode);
  // Nobody else has the receipt yet: the item is read from it without its lock or a reference.
  JX_Stuff* item = handle->GetStuffOfUnsharedHandle();
  if (found == kJX_CheckoutRefused || !item) return NotAvailable();

  if (found == kJX_CreatedPending) {
    if (int32_t err = ComputeInto(StuffPtr(item), id, callbacks, key, request)) {
      gCounters.failed.fetch_add(1, std::memory_order_relaxed);
      return err;
    }
    gCounters.computed.fetch_add(1, std::memory_order_relaxed);
  } else if (item->IsPendingRender()) {
    if (mode != Mode::kWait || !MayWait(callerHeldNotifyingLock)) return PendingNotServed(*item);
    gCounters.waits.fetch_add(1, std::memory_order_relaxed);
    WaitForOtherCompute(*item);
    if (!item->GetDataPtr()) jx::miss::CountMissOf(*item, jx::miss::Reason::kPendingDeadline);
  } else if (mode != Mode::kWait && !item->GetDataPtr()) {
    // Found while another caller computed it, and abandoned since (its compute failed): for a
    // caller that does not wait that is "not available", as if it had looked a moment earlier.
    return PendingNotServed(*item);
  }
  CheckEntry(*item, key, id);
  if (found != kJX_CreatedPending) gCounters.served.fetch_add(1);
  *receipt = ToHandle(handle.release());
  return 0;
}

void GetReceiptValue(KQGP_JXComputeReceipt receipt, intptr_t* outValue) {
  JX_ScCheckout* live = receipt != nullptr ? LiveReceiptFromHandle(receipt) : nullptr;
  StuffPtr item = live != nullptr ? live->GetStuffPtr() : StuffPtr();
  if (!item || item->GetCheckoutCount() == 0) {
    FailVerification("bad compute receipt or not checked out");
  }
  if (outValue == nullptr) FailVerification("JXCompute null out value");
  zelcore::utility::IntrusivePtr<JX_StuffData> data = item->GetDataPtr();
  auto* entry = EntryOf(data.get());
  std::shared_ptr<JXComputeValue> value = entry ? entry->GetValue() : nullptr;
  if (!value) FailVerification("bad compute receipt or not checked out");
  *outValue = value->GetRefcon();
}

int32_t CheckinReceipt(KQGP_JXComputeReceipt receipt) {
  if (receipt == nullptr) return 0;
  JX_ScCheckout* live = ClaimReceiptFromHandle(receipt);
  if (live == nullptr) {
    Y_ReportError(0, 8, kInvalidReceiptMessage);
    return kKQGPComputeCacheInvalidReceipt;
  }
  ReceiptPtr owned(live);  // destroyed and recycled also when the check-in throws
  // The plug-in hands the receipt back for good: no other thread may use it from here on.
  owned->CheckinUnsharedHandle();
  return 0;
}

}  // namespace jx::compute
