// The payload of a compute-cache entry: one value a plug-in computed, and the item payload that
// holds it in the cache.
//
// JXComputeValue wraps the plug-in's value handle together with a copy of its class's callbacks
// (so the value can be sized and deleted after the class is unregistered) and the identifier of
// the class that computed it. Identifiers are kept once per process (a table that only grows, by
// one string per registered identifier ever asked for): every value of a class points at the same
// string, which therefore stays in the cache for the hit path's class check. It is shared
// (std::shared_ptr) between the entry and anyone who took it with GetValue; the last one to let go
// deletes the handle through the class's delete_compute_value, on its own thread, exactly once.
//
// GenericJXComputeStuffData is the entry's JX_StuffData: its 16-byte key and its value. It keeps
// the base class's disk behaviour (compute entries are not written to disk). Its recursive mutex
// guards the value pointer and is a leaf: plug-in callbacks run outside it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "jxcache/host/export.h"
#include "jxcache/host/guid.h"
#include "jxcache/host/recursive_mutex.h"
#include "jxcache/items/stuff_data.h"
#include "jxcache/kqgp_compute_cache.h"

namespace jx::compute {

// The process's one copy of `classId`, added on first use. Never destroyed, so the pointer stays
// valid for the life of the process.
const std::string* InternClassId(std::string_view classId);

}  // namespace jx::compute

// Owns one value handle: deletes it (once, if non-zero) when destroyed.
struct JXComputeValueHolder {
  JXComputeValueHolder(void (*deleter)(intptr_t), intptr_t handle)
      : deleter(deleter), handle(handle) {}
  ~JXComputeValueHolder();
  JXComputeValueHolder(const JXComputeValueHolder&) = delete;
  JXComputeValueHolder& operator=(const JXComputeValueHolder&) = delete;

  void (*deleter)(intptr_t);
  intptr_t handle;
};

class JX_EXPORT JXComputeValue {
 public:
  JXComputeValue(std::string classId, const KQGP_ComputeCacheCallbacks& callbacks,
                 std::unique_ptr<JXComputeValueHolder> holder);
  // Deletes the handle through the class's delete_compute_value (when it is non-zero).
  virtual ~JXComputeValue();
  JXComputeValue(const JXComputeValue&) = delete;
  JXComputeValue& operator=(const JXComputeValue&) = delete;

  // approx_size_value(handle).
  virtual size_t GetApproximateSize() const;

  const std::string& GetClassId() const { return *classId_; }
  intptr_t GetRefcon() const { return holder_ ? holder_->handle : 0; }
  const KQGP_ComputeCacheCallbacks& GetCallbacks() const { return callbacks_; }

 private:
  const std::string* classId_;  // the process's one copy
  KQGP_ComputeCacheCallbacks callbacks_;
  std::unique_ptr<JXComputeValueHolder> holder_;
};

// Final: the compute core tells its entries from other payloads by their exact type.
//
// Aligned to a cache line (by its mutex, the first member a hit does not touch), with what a cache
// hit reads (the virtual table pointer, the in-memory flag, the size, the facts Inspect reports and
// the key) in the first line: a hit on an entry the processor has not seen lately then misses once
// on the entry, not twice.
class JX_EXPORT GenericJXComputeStuffData final : public JX_StuffData {
 public:
  explicit GenericJXComputeStuffData(const KQGP_GUID& key);
  GenericJXComputeStuffData(const KQGP_GUID& key, std::shared_ptr<JXComputeValue> value);
  ~GenericJXComputeStuffData() override;

  zelcore::utility::Guid GetKey() const;
  // A share of the value (empty when none is held).
  std::shared_ptr<JXComputeValue> GetValue() const;
  // What the compute core checks before it hands a value out, as one consistent snapshot, read
  // without the entry's mutex and without taking a share of the value.
  struct Facts {
    bool hasValue = false;
    zelcore::utility::Guid key;
    bool sameClass = false;  // the value was made by the class asked about
    intptr_t refcon = 0;
  };
  Facts Inspect(std::string_view classId) const;
  // Takes ownership of `value`, dropping this entry's share of the previous one.
  void SetValue(JXComputeValue* value);

  // The value's approximate size truncated to 32 bits; 0 with no value.
  unsigned int GetApproximateMemorySize() const override;
  // Empties the entry. The value itself goes to `toRelease` (when given) so that the plug-in's
  // delete_compute_value runs after the cache's locks are let go; without a queue it is released
  // at once. True when the entry held the last share (the value is gone, or will be once the
  // queue is drained); false when there was no value or someone else still holds it.
  bool PurgeIfPossible(ReleaseQueue* toRelease) override;
  bool IsInMemory() const override;

 private:
  // Changes the value, the flag, the size and the facts together; `size` is the new value's.
  void ReplaceValueLocked(std::shared_ptr<JXComputeValue>& value, unsigned int size);

  // Whether value_ is set: written with it, read without the mutex (every check-out and check-in
  // asks, and the answer is stale the moment the mutex is let go all the same).
  std::atomic<bool> holdsValue_{false};
  // The value's size, asked once when the entry takes the value: a computed value is shared
  // read-only by every receipt, so its size does not change, and every check-out and check-in
  // reads it. Written with value_.
  std::atomic<unsigned int> valueSize_{0};
  // What Inspect reports of the value, copied when the entry takes it (neither changes during the
  // value's life), so that a hit does not reach into the value's own memory. Written with value_,
  // under the mutex, between two steps of factsSeq_ (odd while a write is in progress); read
  // without the mutex, again when factsSeq_ shows that a write overlapped the read. A hit then
  // writes nothing of the entry: hits on one entry from several threads do not contend for it.
  std::atomic<uint32_t> factsSeq_{0};
  std::atomic<const std::string*> valueClassId_{nullptr};
  std::atomic<intptr_t> valueRefcon_{0};
  const KQGP_GUID key_;  // set once, at construction

  alignas(64) mutable zelcore::threads::RecursiveMutex mutex_;
  std::shared_ptr<JXComputeValue> value_;  // guarded by mutex_
};
