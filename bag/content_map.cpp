// JX_TakeContentSnapshot: the recency order walked in short holds of the library lock, then each
// item read under its own lock.
#include "jxcache/bag/content_map.h"

#include <algorithm>
#include <unordered_set>

#include "bag/recency_log.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/host/high_precision_time.h"

using zelcore::utility::HighPrecisionTime;

namespace {

// How many of the last chunk's items a hold tries, youngest first, to find where to go on.
constexpr size_t kResumeCandidates = 64;
// The clock is read every so many items of a hold, not on each one.
constexpr uint32_t kClockEvery = 256;

}  // namespace

namespace jx::content {

// Reaches the bag's recency order and the items' fields (a friend of JX_Bag and JX_Stuff).
struct Walker {
  using StuffPtr = JX_Bag::StuffPtr;
  using Iterator = JX_Bag::MruSet::const_iterator;

  Walker(const JX_Bag& bag, const JX_ContentSnapshotOptions& options, JX_ContentSnapshot& out)
      : bag_(bag), options_(options), out_(out) {}

  // Takes references to every item, chunk by chunk; returns them in recency order, each once.
  std::vector<StuffPtr> CollectItems() {
    // Room made before the first hold: growing under the library lock would allocate and free
    // there.
    const size_t expected = static_cast<size_t>(bag_.GetNumItems()) + 64;
    items_.reserve(expected);
    stamps_.reserve(expected);
    bool done = false;
    for (bool first = true; !done; first = false) {
      uint64_t held;
      {
        JXp_ScLock lock;
        // The hold counts from the moment the lock is ours: waiting for it holds nobody up.
        const uint64_t start = HighPrecisionTime::GetCurrentTimeStamp();
        // Check-ins note their recency moves for later: the order we report includes them.
        if (first) jx::recency::ApplyAll(lock);
        done = TakeChunk(first ? bag_.mru_.begin() : ResumePoint(), start);
        held = HighPrecisionTime::GetCurrentTimeStamp() - start;
      }
      ++out_.lockHolds;
      if (held > out_.maxLockHoldNanos) out_.maxLockHoldNanos = held;
    }
    return Deduplicated();
  }

  // The row of one item, read under its upgrade lock: no writer and no other size change can
  // interleave, so its sizes agree with its flags.
  static JX_ContentRow ReadRow(const JX_Stuff& s) {
    JX_ContentRow row;
    zelcore::threads::ScopedUpgradeLockWrapper up(s.mutex_);
    const JX_StuffData* data = s.data_.get();
    const JX_StuffData* request = data ? data : s.FindKeyDataLocked().get();
    // A payload class may have no match name.
    if (const char* name = request ? request->GetSubclassMatchname() : nullptr) {
      row.payloadClass = name;
    }
    row.key = s.GetGuid().AsString();
    row.pending = s.pending_.load(std::memory_order_acquire);
    row.inMemory = data && data->IsInMemory();
    row.memorySize = row.inMemory ? data->GetApproximateMemorySize() : 0;
    row.onDisk = s.diskFile_ != nullptr;
    row.diskSize = row.onDisk ? s.diskSize_.load(std::memory_order_acquire) : 0;
    row.lastUsedTime = s.lastUsedTime_.load(std::memory_order_acquire);
    row.checkoutCount = s.checkoutCount_.load(std::memory_order_acquire);
    return row;
  }

 private:
  // Under the library lock: references to items from `it` on, until the end of the order, the
  // item budget or the time budget. True when the end was reached.
  bool TakeChunk(Iterator it, uint64_t start) {
    chunkBegin_ = items_.size();
    const auto end = bag_.mru_.end();
    for (uint32_t n = 0; it != end; ++it, ++n) {
      if (n == options_.maxItemsPerHold) return false;
      if (n % kClockEvery == kClockEvery - 1 &&
          HighPrecisionTime::GetCurrentTimeStamp() - start >= options_.maxHoldNanos) {
        return false;
      }
      items_.emplace_back(const_cast<JX_Stuff*>(&*it));
      stamps_.push_back(it->mruStamp_);
    }
    return true;
  }

  // Under the library lock: where the next chunk starts. Normally right after the last item
  // taken; when that one moved or left, after the youngest of the chunk's last items that is
  // still where it was (same bag, same stamp). When none is, the order is walked again from the
  // oldest end past every stamp already seen: the list is sorted by stamp, so what lies before
  // is what we have, or items that moved to the young end, where we will find them.
  Iterator ResumePoint() {
    const size_t tried = std::min(kResumeCandidates, items_.size() - chunkBegin_);
    for (size_t i = 0; i < tried; ++i) {
      const size_t k = items_.size() - 1 - i;
      const JX_Stuff& s = *items_[k];
      if (s.mruBag_ == &bag_ && s.mruStamp_ == stamps_[k]) {
        return std::next(bag_.mru_.iterator_to(s));
      }
    }
    ++out_.resumesLost;
    const uint64_t seen = stamps_.back();
    auto it = bag_.mru_.begin();
    while (it != bag_.mru_.end() && it->mruStamp_ <= seen) ++it;
    return it;
  }

  // An item that moved to the young end after it was taken is taken again there: keep its first
  // place.
  std::vector<StuffPtr> Deduplicated() {
    std::unordered_set<const JX_Stuff*> seen;
    seen.reserve(items_.size());
    std::vector<StuffPtr> unique;
    unique.reserve(items_.size());
    for (StuffPtr& s : items_) {
      if (seen.insert(s.get()).second) unique.push_back(std::move(s));
    }
    items_.clear();
    return unique;
  }

  const JX_Bag& bag_;
  const JX_ContentSnapshotOptions& options_;
  JX_ContentSnapshot& out_;
  std::vector<StuffPtr> items_;
  std::vector<uint64_t> stamps_;  // each taken item's stamp when it was taken
  size_t chunkBegin_ = 0;
};

}  // namespace jx::content

JX_ContentSnapshot JX_TakeContentSnapshot(const JX_Bag& bag,
                                          const JX_ContentSnapshotOptions& options) {
  const uint64_t start = HighPrecisionTime::GetCurrentTimeStamp();
  JX_ContentSnapshot snapshot;
  JX_ContentSnapshotOptions bounded = options;
  if (bounded.maxItemsPerHold == 0) bounded.maxItemsPerHold = 1;
  std::vector<JX_Bag::StuffPtr> items = jx::content::Walker(bag, bounded, snapshot).CollectItems();
  snapshot.rows.reserve(items.size());
  for (const auto& s : items) snapshot.rows.push_back(jx::content::Walker::ReadRow(*s));
  // The references go before the clock stops: dropping the last one of an item that left the
  // bag frees it, and that is part of what the snapshot costs.
  items.clear();
  snapshot.totalNanos = HighPrecisionTime::GetCurrentTimeStamp() - start;
  return snapshot;
}

JX_ContentSnapshot JX_TakeGlobalContentSnapshot(const JX_ContentSnapshotOptions& options) {
  if (std::shared_ptr<JX_Bag> bag = JX_GlobalBag()) return JX_TakeContentSnapshot(*bag, options);
  return {};
}
