#include "compute/compute_value.h"

#include <cstring>
#include <mutex>
#include <unordered_set>
#include <utility>

#include "host/y_api.h"

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

// The process's one copy of `classId`. Never destroyed: values may outlive every static.
const std::string* InternClassId(std::string classId) {
  struct Table {
    std::mutex mutex;
    std::unordered_set<std::string> ids;  // nodes: a string never moves once in
  };
  static Table* table = new Table;
  std::lock_guard lock(table->mutex);
  return &*table->ids.insert(std::move(classId)).first;
}

}  // namespace

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
    : classId_(InternClassId(std::move(classId))),
      callbacks_(callbacks),
      holder_(std::move(holder)) {}

JXComputeValue::~JXComputeValue() = default;

size_t JXComputeValue::GetApproximateSize() const {
  return callbacks_.approx_size_value ? callbacks_.approx_size_value(GetRefcon()) : 0;
}

GenericJXComputeStuffData::GenericJXComputeStuffData(const KQGP_GUID& key) : key_(key) {}

GenericJXComputeStuffData::GenericJXComputeStuffData(const KQGP_GUID& key,
                                                     std::shared_ptr<JXComputeValue> value)
    : key_(key),
      value_(std::move(value)),
      holdsValue_(value_ != nullptr),
      valueSize_(SizeOf(value_.get())),
      valueClassId_(value_ ? &value_->GetClassId() : nullptr),
      valueRefcon_(value_ ? value_->GetRefcon() : 0) {}

GenericJXComputeStuffData::~GenericJXComputeStuffData() = default;

zelcore::utility::Guid GenericJXComputeStuffData::GetKey() const {
  Lock lock(mutex_);
  return zelcore::utility::Guid::FromBytes(key_.bytes);
}

std::shared_ptr<JXComputeValue> GenericJXComputeStuffData::GetValue() const {
  Lock lock(mutex_);
  return value_;
}

GenericJXComputeStuffData::Facts GenericJXComputeStuffData::Inspect(
    std::string_view classId) const {
  Lock lock(mutex_);
  Facts facts;
  facts.key = zelcore::utility::Guid::FromBytes(key_.bytes);
  if (!value_) return facts;
  facts.hasValue = true;
  facts.sameClass = *valueClassId_ == classId;
  facts.refcon = valueRefcon_;
  return facts;
}

void GenericJXComputeStuffData::ReplaceValueLocked(std::shared_ptr<JXComputeValue>& value,
                                                   unsigned int size) {
  value_.swap(value);
  holdsValue_.store(value_ != nullptr, std::memory_order_release);
  valueSize_.store(size, std::memory_order_release);
  valueClassId_ = value_ ? &value_->GetClassId() : nullptr;
  valueRefcon_ = value_ ? value_->GetRefcon() : 0;
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
