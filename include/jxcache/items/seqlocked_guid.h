// SeqLockedGuid: an item's key, a GUID and its directory hash, that any thread reads without a
// lock while another thread may be re-keying the item.
//
// Every search and every check-in of an item reads its key; the key changes rarely (a request
// being built, an item re-keyed through its directory). So readers never block and never write
// shared memory: they copy the words and start again when the sequence count shows that a write
// overlapped the copy. Writers are serialised by a spin word, the last lock of the item's lock
// order (library lock -> item lock -> this spin word): nothing else is taken while it is held,
// and it is held for four stores.
//
// The sixteen bytes are kept as two 64-bit atomics so that a torn copy is a race the sequence
// count detects, not undefined behaviour; the class is 32 bytes, one half of a cache line.
//
// The key also says whether a directory has filed the item under it ("filed"): the directory
// reads the key and marks it filed in one hold of the spin word, and a re-key that is not the
// directory's own (StoreUnlessFiled) checks the mark in that same hold. So a thread re-keying an
// item while another files it cannot leave the item in the directory under a hash that is not
// its key's: either the directory reads the new key, or the re-key sees the mark and goes
// through the directory. The mark shares the spin word (bit 1; bit 0 is the lock).
//
// Owned by value by its item (JX_Stuff). Any thread may call any method, Store included: two
// threads re-keying at once take turns on the spin word (EqualsStable alone asks more of its
// caller).
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "jxcache/host/cpu_relax.h"
#include "jxcache/host/guid.h"

namespace jx {

class SeqLockedGuid {
 public:
  using Guid = zelcore::utility::Guid;

  // The empty GUID, filed under `emptyHash` (the directory hash of the empty GUID).
  explicit SeqLockedGuid(uint64_t emptyHash) : hash_(emptyHash) {}
  SeqLockedGuid(const SeqLockedGuid&) = delete;
  SeqLockedGuid& operator=(const SeqLockedGuid&) = delete;

  // Replaces the key, filed or not: for the directory's own re-key (it holds the library lock,
  // and the item is out of it) and for an item nobody else can reach yet. `hash` is the
  // directory hash of `guid`: it is computed once here rather than on every search.
  void Store(const Guid& guid, uint64_t hash) {
    const uint32_t filed = Lock();
    Write(guid, hash);
    Unlock(filed);
  }

  // Store, unless a directory has filed the key: then nothing changes and false comes back (the
  // caller re-keys through the directory).
  bool StoreUnlessFiled(const Guid& guid, uint64_t hash) {
    const uint32_t filed = Lock();
    if (!filed) Write(guid, hash);
    Unlock(filed);
    return !filed;
  }

  // The key, marked filed: what the directory files the item under. Until Unfile, only Store
  // changes it. `*wasFiled`: whether the mark was already set.
  Guid LoadAndFile(size_t* hash, bool* wasFiled) {
    *wasFiled = Lock() != 0;
    // Relaxed: only the spin word's holder writes them.
    const Guid guid = Words();
    *hash = static_cast<size_t>(hash_.load(std::memory_order_relaxed));
    Unlock(kFiled);
    return guid;
  }

  // Clears the mark: the directory no longer holds the item.
  void Unfile() {
    Lock();
    Unlock(0);
  }

  // The key and its hash, as one consistent pair: never half of one GUID and half of another,
  // never a hash of another GUID.
  Guid Load(size_t* hash) const {
    zelcore::threads::SpinBackoff backoff;
    for (;;) {
      // Acquire: pairs with the release store that ended the write this value comes from, so
      // the words read below are at least that write's.
      const uint32_t seq = seq_.load(std::memory_order_acquire);
      if (seq & 1) {  // a writer is in the middle of it
        backoff.Wait();
        continue;
      }
      // Relaxed: the copy may be torn; the check of the count below finds out.
      const uint64_t w0 = words_[0].load(std::memory_order_relaxed);
      const uint64_t w1 = words_[1].load(std::memory_order_relaxed);
      const uint64_t h = hash_.load(std::memory_order_relaxed);
      // Acquire fence: if any load above saw a word of a later write, this synchronises with
      // that write's release fence, so the count read next is at least its odd value. Without
      // it the second read of the count could be satisfied before the words were read.
      std::atomic_thread_fence(std::memory_order_acquire);
      // Relaxed: the fence above already orders it after the words.
      if (seq_.load(std::memory_order_relaxed) != seq) continue;
      std::array<uint8_t, 16> bytes;
      std::memcpy(bytes.data(), &w0, 8);
      std::memcpy(bytes.data() + 8, &w1, 8);
      *hash = static_cast<size_t>(h);
      return Guid(bytes);
    }
  }
  Guid Load() const {
    size_t hash;
    return Load(&hash);
  }

  // Whether the key is `guid`, for a caller that knows no Store can overlap the comparison and
  // that the last Store happened before it: no sequence check, two loads. The directory is such
  // a caller: an item is re-keyed only while out of the directory, and is filed again under the
  // shard's spin word after its Store, which a search then holds.
  bool EqualsStable(const Guid& guid) const {
    uint64_t w0, w1;
    std::memcpy(&w0, guid.Bytes().data(), 8);
    std::memcpy(&w1, guid.Bytes().data() + 8, 8);
    // Relaxed: the caller's lock orders them after the last Store (see above).
    return words_[0].load(std::memory_order_relaxed) == w0 &&
           words_[1].load(std::memory_order_relaxed) == w1;
  }

 private:
  static constexpr uint32_t kHeld = 1, kFiled = 2;

  // Takes the spin word (exchange-like: a locked bit test-and-set, which keeps the mark) and
  // returns the mark as it stands, which only the holder changes.
  uint32_t Lock() {
    zelcore::threads::SpinBackoff backoff;
    while (spin_.fetch_or(kHeld, std::memory_order_acquire) & kHeld) {
      do {
        backoff.Wait();
      } while (spin_.load(std::memory_order_relaxed) & kHeld);
    }
    return spin_.load(std::memory_order_relaxed) & kFiled;
  }
  void Unlock(uint32_t filed) { spin_.store(filed, std::memory_order_release); }

  // The write itself, with the spin word held.
  void Write(const Guid& guid, uint64_t hash) {
    uint64_t w0, w1;
    std::memcpy(&w0, guid.Bytes().data(), 8);
    std::memcpy(&w1, guid.Bytes().data() + 8, 8);
    // Relaxed: only the spin word's holder writes the count, and the spin word's acquire
    // made the previous holder's last store of it visible here.
    const uint32_t seq = seq_.load(std::memory_order_relaxed);
    // Odd: a write is in progress. Relaxed, because the fence below is what orders it before
    // the words: a reader whose acquire fence follows its load of any word stored below
    // synchronises with this fence, and so its second look at the count sees this odd value
    // (or a later one) and it starts again.
    seq_.store(seq + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    // Relaxed: ordered for readers by the fence above and the release store below.
    words_[0].store(w0, std::memory_order_relaxed);
    words_[1].store(w1, std::memory_order_relaxed);
    hash_.store(hash, std::memory_order_relaxed);
    // Even: stable again. Release, so that a reader whose acquire load of the count sees it
    // also sees every word stored above.
    seq_.store(seq + 2, std::memory_order_release);
  }

  // The two words as a GUID, for the spin word's holder.
  Guid Words() const {
    std::array<uint8_t, 16> bytes;
    const uint64_t w0 = words_[0].load(std::memory_order_relaxed);
    const uint64_t w1 = words_[1].load(std::memory_order_relaxed);
    std::memcpy(bytes.data(), &w0, 8);
    std::memcpy(bytes.data() + 8, &w1, 8);
    return Guid(bytes);
  }

  std::atomic<uint64_t> words_[2] = {};
  std::atomic<uint64_t> hash_;
  std::atomic<uint32_t> spin_{0};  // bit 0 serialises writers; bit 1 is the filed mark
  std::atomic<uint32_t> seq_{0};   // odd while a Store is in progress
};

}  // namespace jx
