// JX_Stuff: construction, destruction and the state accessors.
#include "items/stuff.h"

#include <array>
#include <cstring>

#include "bag/bag.h"
#include "bag/sort_dir.h"
#include "host/cpu_relax.h"
#include "host/high_precision_time.h"
#include "host/spin_word.h"
#include "common/failures.h"

using zelcore::threads::ScopedReadLockWrapper;
using zelcore::threads::ScopedWriteLockWrapper;
using zelcore::utility::HighPrecisionTime;

using GuidSpinGuard = zelcore::threads::SpinWordGuard;  // the item's GUID spin lock

namespace jx::detail {
constinit JX_StuffCounters g_stuffCounters;
}  // namespace jx::detail

namespace {
uint64_t EmptyGuidHash() {
  static const uint64_t hash = JX_SortDir::HashGuid(zelcore::utility::Guid());
  return hash;
}
}  // namespace

JX_Stuff::JX_Stuff(IntrusivePtr<JX_StuffData> data, double computeTime, bool pending)
    : guidHash_(EmptyGuidHash()),
      pending_(pending),
      data_(std::move(data)),
      lastUsedTime_(HighPrecisionTime::GetCurrentTimeStamp()),
      computeTime_(computeTime) {
  if (pending) pendingThread_ = zelcore::threads::CurrentThreadId();
  UpdateKeyIsFinalPayload();
}

JX_Stuff::IntrusivePtr<JX_Stuff> JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData> data,
                                                     double computeTime) {
  return IntrusivePtr<JX_Stuff>(new JX_Stuff(std::move(data), computeTime, false));
}

JX_Stuff::IntrusivePtr<JX_Stuff> JX_Stuff::CreatePending(const Guid& guid,
                                                         IntrusivePtr<JX_StuffData> findKeyData) {
  IntrusivePtr<JX_Stuff> stuff(new JX_Stuff({}, 0.0, true));
  stuff->StoreGuid(guid);
  stuff->findKeyData_ = std::move(findKeyData);
  stuff->UpdateKeyIsFinalPayload();
  return stuff;
}

JX_Stuff::~JX_Stuff() {
  // Nothing in here, nor in any member's destructor, may write mruBag_: the recency apply reads
  // it through a weak reference's memory after the item's last strong reference went (see
  // Applier::InBagPeeked), and relies on it staying null once the bag let go of the item.
  // An item outside any bag still counted its bytes in the global bag; take them out so that the
  // totals stay exact when the last reference goes.
  try {
    SyncMemorySizeWithBag(0);
    SyncDiskSizeWithBag(0);
  } catch (...) {
  }
}

bool JX_Stuff::IsCheckedOutWriteable() const {
  ScopedReadLockWrapper r(mutex_);
  return writeable_;
}

bool JX_Stuff::IsPendingFromThisThread() const {
  ScopedReadLockWrapper r(mutex_);
  return pending_.load(std::memory_order_acquire) &&
         pendingThread_ == zelcore::threads::CurrentThreadId();
}

void JX_Stuff::ThrowIfCheckedOutWriteable() const {
  if (IsCheckedOutWriteable()) jx::FailWithMessage(11, jx::kErrCheckedOutWrite);
}

void JX_Stuff::ThrowIfCheckedOutMoreThan(uint32_t count) const {
  if (GetCheckoutCount() > count) jx::FailWithMessage(12, jx::kErrCheckedOutWrite);
}

void JX_Stuff::ThrowIfCheckedOutLessThan(uint32_t count) const {
  if (GetCheckoutCount() < count) jx::FailWithMessage(22, jx::kErrNotCheckedOut);
}

JX_Stuff::IntrusivePtr<JX_StuffData> JX_Stuff::GetDataPtr() const {
  ScopedReadLockWrapper r(mutex_);
  return data_;
}

JX_Stuff::IntrusivePtr<JX_StuffData> JX_Stuff::GetFindKeyData() const {
  bool keptByItem;
  return GetFindKeyData(&keptByItem);
}

JX_Stuff::IntrusivePtr<JX_StuffData> JX_Stuff::GetFindKeyData(bool* keptByItem) const {
  // Every search asks its request for this: most requests are plain items whose key cannot
  // change any more.
  *keptByItem = keyIsFinalPayload_.load(std::memory_order_acquire);
  if (*keptByItem) return data_;
  ScopedReadLockWrapper r(mutex_);
  return findKeyData_ ? findKeyData_ : data_;
}

void JX_Stuff::SetFindKeyData(IntrusivePtr<JX_StuffData> data) {
  ScopedWriteLockWrapper w(mutex_);
  findKeyData_ = std::move(data);
  UpdateKeyIsFinalPayload();
}

bool JX_Stuff::IsInMemory() const {
  ScopedReadLockWrapper r(mutex_);
  return data_ && data_->IsInMemory();
}

JX_Stuff::IntrusivePtr<JX_StuffData> JX_Stuff::GetFindKeyDataAndCompression(
    bool* compressed) const {
  ScopedReadLockWrapper r(mutex_);
  const auto& key = findKeyData_ ? findKeyData_ : data_;
  *compressed = key && key->IsCompressed();
  return key;
}

bool JX_Stuff::IsCompressed() const {
  ScopedReadLockWrapper r(mutex_);
  const auto& key = data_ ? data_ : findKeyData_;
  return key && key->IsCompressed();
}

double JX_Stuff::GetComputeTime() const {
  ScopedReadLockWrapper r(mutex_);
  return computeTime_;
}

zelcore::utility::Guid JX_Stuff::GetGuid() const {
  size_t hash;
  return GetGuidAndHash(&hash);
}

zelcore::utility::Guid JX_Stuff::GetGuidAndHash(size_t* hash) const {
  std::array<uint8_t, 16> bytes;
  zelcore::threads::SpinBackoff backoff;
  for (;;) {
    uint32_t seq = guidSeq_.load(std::memory_order_acquire);
    if (seq & 1) {  // a writer is in the middle of it
      backoff.Wait();
      continue;
    }
    uint64_t w0 = guidWords_[0].load(std::memory_order_relaxed);
    uint64_t w1 = guidWords_[1].load(std::memory_order_relaxed);
    uint64_t h = guidHash_.load(std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (guidSeq_.load(std::memory_order_relaxed) != seq) continue;
    std::memcpy(bytes.data(), &w0, 8);
    std::memcpy(bytes.data() + 8, &w1, 8);
    *hash = static_cast<size_t>(h);
    return Guid(bytes);
  }
}

void JX_Stuff::SetGuid(const Guid& guid) {
  // The directory hashes items by GUID: an item in it must be re-keyed through the directory.
  if (IsInSortDir()) {
    UpdateWithNewGuid(guid);
    return;
  }
  StoreGuid(guid);
}

void JX_Stuff::StoreGuid(const Guid& guid) {
  uint64_t w0, w1;
  std::memcpy(&w0, guid.Bytes().data(), 8);
  std::memcpy(&w1, guid.Bytes().data() + 8, 8);
  const uint64_t hash = JX_SortDir::HashGuid(guid);
  GuidSpinGuard g(guidSpin_);
  // The spin word makes this the only writer: the count moves with plain stores.
  const uint32_t seq = guidSeq_.load(std::memory_order_relaxed);
  guidSeq_.store(seq + 1, std::memory_order_relaxed);  // odd: write in progress
  // Keeps the odd count ahead of the new words for a reader whose acquire fence follows them.
  std::atomic_thread_fence(std::memory_order_release);
  guidWords_[0].store(w0, std::memory_order_relaxed);
  guidWords_[1].store(w1, std::memory_order_relaxed);
  guidHash_.store(hash, std::memory_order_relaxed);
  guidSeq_.store(seq + 2, std::memory_order_release);  // even: stable again
}

std::shared_ptr<JX_Bag> JX_Stuff::GetBag() const {
  ScopedReadLockWrapper r(mutex_);
  return bag_.lock();
}

std::shared_ptr<JX_SortDir> JX_Stuff::GetSortDir() const {
  ScopedReadLockWrapper r(mutex_);
  return sortDir_.lock();
}

bool JX_Stuff::IsInSortDir() const { return inSortDir_.load(std::memory_order_acquire); }

JX_Stuff::Guid JX_Stuff::GetMediaMapGuid() const {
  ScopedReadLockWrapper r(mutex_);
  return mediaMapGuid_;
}

void JX_Stuff::SetMediaMapGuid(const Guid& guid) {
  ScopedWriteLockWrapper w(mutex_);
  mediaMapGuid_ = guid;
}

uint64_t JX_Stuff::GetMediaMapID() const {
  ScopedReadLockWrapper r(mutex_);
  return mediaMapID_;
}

void JX_Stuff::SetMediaMapID(uint64_t id) {
  ScopedWriteLockWrapper w(mutex_);
  mediaMapID_ = id;
}
