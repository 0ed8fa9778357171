// Weak locks racing the final release: a lock wins (and the object lives) or comes back empty,
// the object dies once, and the sanitizer builds check the memory orders and the frees.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <thread>
#include <vector>

#include "jxcache/host/ref_counted.h"

namespace zelcore::utility {
namespace {

constexpr uint32_t kAlive = 0xA11CE;
constexpr uint32_t kDead = 0xDEAD;

std::atomic<int> destroyed{0};

class Tracked : public RefCountedObjectWithWeakPtr {
 public:
  ~Tracked() override {
    state = kDead;  // a plain write: a reader the release does not order shows up under TSan
    destroyed.fetch_add(1, std::memory_order_relaxed);
  }
  uint32_t state = kAlive;
};

TEST(RefCountedConcurrency, WeakLockRacingTheFinalReleaseNeverRevivesTheObject) {
  constexpr int kLockers = 3;
  constexpr int kRounds = 2000;
  constexpr int kAttempts = 20;
  destroyed.store(0);  // a count of this run only, when the test is repeated
  IntrusivePtr<Tracked> strong;
  WeakPtr<Tracked> weak;
  std::atomic<int> foundDead{0};
  // Per round: the main thread makes an object, the lockers copy the weak reference, then the
  // main thread drops its strong reference while the lockers lock their copies.
  std::barrier step(kLockers + 1);
  std::vector<std::thread> lockers;
  for (int t = 0; t < kLockers; ++t) {
    lockers.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        step.arrive_and_wait();
        WeakPtr<Tracked> mine = weak;  // its release races the object's own, below
        step.arrive_and_wait();
        // Several locks, so that some land around the moment the count reaches zero.
        for (int attempt = 0; attempt < kAttempts; ++attempt) {
          IntrusivePtr<Tracked> p = mine.Lock();
          if (!p) break;
          if (p->state != kAlive) foundDead.fetch_add(1, std::memory_order_relaxed);
        }
        mine.reset();
        step.arrive_and_wait();
      }
    });
  }
  int expired = 0;
  for (int round = 0; round < kRounds; ++round) {
    strong = IntrusivePtr<Tracked>(new Tracked);
    weak = strong;
    step.arrive_and_wait();
    step.arrive_and_wait();
    strong.reset();
    step.arrive_and_wait();
    if (weak.Expired() && !weak.Lock()) ++expired;
    weak.reset();
  }
  for (auto& t : lockers) t.join();
  EXPECT_EQ(foundDead.load(), 0);
  EXPECT_EQ(destroyed.load(), kRounds);
  EXPECT_EQ(expired, kRounds);
}

}  // namespace
}  // namespace zelcore::utility
