#include "compute/compute_value.h"

#include <cstring>
#include <mutex>
#include <unordered_set>
#include <utility>

#include "host/y_api.h"
#include "jxcache/host/cpu_relax.h"

using Lock = std::lock_guard<zelcore::threads::RecursiveMutex>;

namespace {

// The value's approximate size truncated to 32 bits; 0 with no value, or when the plug-in throws.
unsigned int SizeOf(const JXComputeValue* value) {
  if (value == nullptr) return 0;
  try {
    return static_cast<unsigned int>(value->GetApproximateSize());
  } catch (...) {
    Y_TranslateAndReportException();
    return 0;
  }
}

}  // namespace

namespace jx::compute {

const std::string* InternClassId(std::string_view classId) {
  struct Table {
    std::mutex mutex;
    std::unordered_set<std::string> ids;  // nodes: a string never moves once in
  };
  // Never destroyed: values may outlive every static.
  static Table* table = new Table;
  std::lock_guard lock(table->mutex);
  return &*table->ids.emplace(classId).first;
}

}  // namespace jx::compute

JXComputeValueHolder::~JXComputeValueHolder() {
  if (handle == 0 || deleter == nullptr) return;
  try {
    deleter(handle);
  } catch (...) {
    // A C++ plug-in broke the no-throw rule; a destructor must not let it through.
    Y_TranslateAndReportException();
  }
}

JXComputeValue::JXComputeValue(std::string classId, const KQGP_ComputeCacheCallbacks& callbacks,
                               std::unique_ptr<JXComputeValueHolder> holder)
    : classId_(jx::compute::InternClassId(classId)),
      callbacks_(callbacks),
      holder_(std::move(holder)) {}

JXComputeValue::~JXComputeValue() = default;

size_t JXComputeValue::GetApproximateSize() const {
  return callbacks_.approx_size_value ? callbacks_.approx_size_value(GetRefcon()) : 0;
}

GenericJXComputeStuffData::GenericJXComputeStuffData(const KQGP_GUID& key) : key_(key) {}

GenericJXComputeStuffData::GenericJXComputeStuffData(const KQGP_GUID& key,
                                                     std::shared_ptr<JXComputeValue> value)
    : holdsValue_(value != nullptr),
      valueSize_(SizeOf(value.get())),
      valueClassId_(value ? &value->GetClassId() : nullptr),
      valueRefcon_(value ? value->GetRefcon() : 0),
      key_(key),
      value_(std::move(value)) {}

GenericJXComputeStuffData::~GenericJXComputeStuffData() = default;

zelcore::utility::Guid GenericJXComputeStuffData::GetKey() const {
  return zelcore::utility::Guid::FromBytes(key_.bytes);
}

std::shared_ptr<JXComputeValue> GenericJXComputeStuffData::GetValue() const {
  Lock lock(mutex_);
  return value_;
}

GenericJXComputeStuffData::Facts GenericJXComputeStuffData::Inspect(
    std::string_view classId) const {
  Facts facts;
  facts.key = zelcore::utility::Guid::FromBytes(key_.bytes);
  const std::string* id;
  intptr_t refcon;
  zelcore::threads::SpinBackoff backoff;
  for (;;) {
    // Acquire: pairs with the release store that ended the write these facts come from.
    const uint32_t seq = factsSeq_.load(std::memory_order_acquire);
    if (seq & 1) {  // a write is in progress
      backoff.Wait();
      continue;
    }
    // Relaxed: the pair may be torn; the second look at the count finds out.
    id = valueClassId_.load(std::memory_order_relaxed);
    refcon = valueRefcon_.load(std::memory_order_relaxed);
    // Orders the second look at the count after the loads above (see SeqLockedGuid::Load).
    std::atomic_thread_fence(std::memory_order_acquire);
    if (factsSeq_.load(std::memory_order_relaxed) == seq) break;
  }
  // Every value has a class, so the class pointer also says whether there is a value.
  if (id == nullptr) return facts;
  facts.hasValue = true;
  // The compute core asks with the process's copy of the identifier: then the address decides.
  facts.sameClass =
      (classId.data() == id->data() && classId.size() == id->size()) || *id == classId;
  facts.refcon = refcon;
  return facts;
}

void GenericJXComputeStuffData::ReplaceValueLocked(std::shared_ptr<JXComputeValue>& value,
                                                   unsigned int size) {
  value_.swap(value);
  holdsValue_.store(value_ != nullptr, std::memory_order_release);
  valueSize_.store(size, std::memory_order_release);
  // Only the mutex's holder writes the count; odd while the facts change. The fence orders the odd
  // count before the facts for a reader that sees any of them (see SeqLockedGuid::Store).
  const uint32_t seq = factsSeq_.load(std::memory_order_relaxed);
  factsSeq_.store(seq + 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  valueClassId_.store(value_ ? &value_->GetClassId() : nullptr, std::memory_order_relaxed);
  valueRefcon_.store(value_ ? value_->GetRefcon() : 0, std::memory_order_relaxed);
  factsSeq_.store(seq + 2, std::memory_order_release);
}

void GenericJXComputeStuffData::SetValue(JXComputeValue* value) {
  std::shared_ptr<JXComputeValue> incoming(value);
  // Asked before the value is shared, and outside the entry's mutex: it is plug-in code.
  const unsigned int size = SizeOf(incoming.get());
  {
    Lock lock(mutex_);
    ReplaceValueLocked(incoming, size);
  }
  // `incoming` now holds the previous value: dropped here, outside the entry's lock.
}

unsigned int GenericJXComputeStuffData::GetApproximateMemorySize() const {
  return valueSize_.load(std::memory_order_acquire);
}

bool GenericJXComputeStuffData::PurgeIfPossible(ReleaseQueue* toRelease) {
  std::shared_ptr<JXComputeValue> value;
  {
    Lock lock(mutex_);
    ReplaceValueLocked(value, 0);
  }
  if (!value) return false;
  // use_count() is exact when it reads 1: the entry no longer hands out shares, so nobody can
  // come to hold the value after that read.
  const bool lastShare = value.use_count() == 1;
  // The purge walk holds the library lock; the plug-in's delete_compute_value must not run
  // under it, so the value waits in the release queue the walk drains after unlocking.
  if (toRelease != nullptr) toRelease->push_back(std::move(value));
  return lastShare;
}

bool GenericJXComputeStuffData::IsInMemory() const {
  return holdsValue_.load(std::memory_order_acquire);
}
