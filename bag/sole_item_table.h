// SoleItemTable: a flat table from a hash to the one item filed under it, beside each directory
// shard's hash set.
//
// A set reaches an entry through three dependent reads (the bucket, the node before the bucket's
// first, the node), each likely a cache miss on a large directory; this table reaches the item
// through one. Only hashes that exactly one entry of the shard has point at an item; a hash that
// several entries share is marked kSeveral and searched in the set.
//
// Open addressing with linear probing, at most three quarters full; a removal shifts the later
// entries of its probe run back, so there are no tombstones and a search stops at the first
// empty slot.
//
// Threads: the table has no atomics and no lock of its own; the directory shard's spin word and
// the library lock guard it. There is one writer at a time (it holds the library lock), and
// readers search without the library lock. So:
//   - Find: under the lock that Add, Remove and Adopt are called under (the shard's spin
//     word). The spin word's acquire exchange and release store order the slots; nothing else
//     is needed.
//   - Add, Remove, Adopt: by the one writer, under that same lock.
//   - GrownForOneMore, ShrunkIfSparse, Used, Capacity: by the one writer, with or without that
//     lock. They read only what the writer itself writes, and make a new table rather than
//     change this one, so they may run while readers search: the allocation stays outside the
//     spin word, and the old slots, which Adopt hands back, are freed by the caller after it.
// Owned by value by its shard; items are not owned (the shard's set holds their references).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace jx {

class SoleItemTable {
 public:
  static constexpr uintptr_t kNone = 0;     // no entry has the hash
  static constexpr uintptr_t kSeveral = 1;  // several entries have it: ask the set
  static constexpr size_t kInitialCapacity = 16;

  SoleItemTable();

  // kNone, kSeveral, or the address of the one item under `hash`.
  uintptr_t Find(size_t hash) const {
    for (size_t i = Home(hash);; i = (i + 1) & mask_) {
      const Slot& slot = slots_[i];
      if (slot.item == kNone || slot.hash == hash) return slot.item;
    }
  }

  // A larger table when one more hash would make this one more than three quarters full, and a
  // smaller one when this one is less than an eighth full (a directory that shrank should not
  // keep probing, and missing the cache, across the table of its largest size); null otherwise.
  // Either is empty until handed to Adopt.
  std::unique_ptr<SoleItemTable> GrownForOneMore() const;
  std::unique_ptr<SoleItemTable> ShrunkIfSparse() const;
  // Takes over `resized`'s slots after copying this table's entries into them; `resized` is left
  // with the old slots, for the caller to free outside the readers' lock.
  void Adopt(SoleItemTable& resized);

  // An entry with `hash` joined the set. The caller made room first (GrownForOneMore).
  void Add(size_t hash, const void* item);
  // An entry with `hash` left the set: `left` entries of the set still have it, and `item` is
  // the one when left == 1.
  void Remove(size_t hash, size_t left, const void* item);

  // The hashes in the table, and its number of slots.
  size_t Used() const { return used_; }
  size_t Capacity() const { return mask_ + 1; }

 private:
  struct Slot {
    size_t hash;
    uintptr_t item;
  };
  explicit SoleItemTable(size_t capacity);
  // Multiplicative hashing: the top bits of the product depend on every bit of the hash.
  size_t Home(size_t hash) const {
    return static_cast<size_t>(static_cast<uint64_t>(hash) * 0xD6E8FEB86659FD93ull >> shift_);
  }
  // The slot that holds `hash`, or the empty slot that ends its probe run.
  size_t SlotOf(size_t hash) const;

  std::unique_ptr<Slot[]> slots_;
  size_t mask_;
  unsigned shift_;
  size_t used_ = 0;
};

}  // namespace jx
