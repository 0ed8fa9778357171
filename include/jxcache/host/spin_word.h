// A spin word: a 32-bit lock for critical sections of a few instructions (a key copy, a directory
// shard). Exchange to 1 takes it, store 0 releases it; between attempts a waiter re-reads the
// word with a back-off that doubles from 1 up to 64 pauses and then yields (SpinBackoff).
#pragma once

#include <atomic>
#include <cstdint>

#include "jxcache/host/cpu_relax.h"

namespace zelcore::threads {

inline void LockSpinWord(std::atomic<uint32_t>& word) {
  SpinBackoff backoff;
  while (word.exchange(1, std::memory_order_acquire) != 0) {
    do {
      backoff.Wait();
    } while (word.load(std::memory_order_relaxed) != 0);
  }
}

inline void UnlockSpinWord(std::atomic<uint32_t>& word) {
  word.store(0, std::memory_order_release);
}

class SpinWordGuard {
 public:
  explicit SpinWordGuard(std::atomic<uint32_t>& word) : word_(word) { LockSpinWord(word_); }
  ~SpinWordGuard() { UnlockSpinWord(word_); }
  SpinWordGuard(const SpinWordGuard&) = delete;
  SpinWordGuard& operator=(const SpinWordGuard&) = delete;

 private:
  std::atomic<uint32_t>& word_;
};

}  // namespace zelcore::threads
