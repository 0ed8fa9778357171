// The parking table. Every slot is a mutex, a condition variable and a count of the threads
// registered on it; an address picks its slot by hash, so unrelated addresses may share one and
// see spurious wake-ups (callers re-check their condition, so that is only a cost).
#include "host/parking.h"

#include <condition_variable>
#include <mutex>

namespace zelcore::threads::detail {
namespace {

constexpr unsigned kSlotBits = 7;
constexpr size_t kSlotCount = size_t{1} << kSlotBits;

struct alignas(64) Slot {
  std::mutex mutex;
  std::condition_variable cv;
  std::atomic<uint32_t> waiters{0};
};

Slot& SlotFor(const void* address) {
  // Never destroyed: locks and gates may still be used while static objects are torn down.
  static Slot* const table = new Slot[kSlotCount];
  // Fibonacci hashing spreads neighbouring objects (items allocated next to each other) over
  // different slots.
  const uint64_t key = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(address));
  return table[(key * 0x9E3779B97F4A7C15ull) >> (64 - kSlotBits)];
}

// Keeps the waiter count right even when ready() throws.
class Registration {
 public:
  explicit Registration(Slot& slot) : slot_(slot) {
    slot_.waiters.fetch_add(1, std::memory_order_seq_cst);
  }
  ~Registration() { slot_.waiters.fetch_sub(1, std::memory_order_relaxed); }
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

 private:
  Slot& slot_;
};

}  // namespace

// Why a waker may skip the slot when it reads a waiter count of 0:
//
// The waiter increments `waiters` and only then evaluates ready(); the waker changes its state
// and only then reads `waiters`. Both accesses to `waiters` are read-modify-writes (the waker
// uses fetch_add(0) rather than a load on purpose), so they are totally ordered in the
// modification order of `waiters`:
//  - the waker's RMW comes first: it read 0, and the waiter's seq_cst RMW reads the value the
//    waker's seq_cst RMW wrote (or a later one of its release sequence, which only contains RMWs),
//    so it synchronizes with it. The caller's state change is sequenced before the waker's RMW,
//    hence happens before the waiter's ready(), which therefore sees it and does not sleep.
//  - the waiter's RMW comes first: the waker reads a count that includes this waiter (the waiter
//    decrements only once it stops waiting), locks the slot and notifies. The waiter evaluates
//    ready() and goes to sleep under the slot mutex without releasing it in between, so the
//    notification either finds it asleep or comes after it re-checked ready() under that mutex,
//    after the waker's state change.
// A plain seq_cst load of the count would need the caller's state change to be seq_cst as well
// (or a fence); the RMW makes the argument hold for any caller and lets ThreadSanitizer, which
// does not model fences, follow it.
void ParkUntil(const void* address, const std::function<bool()>& ready) {
  Slot& slot = SlotFor(address);
  std::unique_lock<std::mutex> lock(slot.mutex);
  Registration registration(slot);
  while (!ready()) slot.cv.wait(lock);
}

bool ParkUntil(const void* address, const std::function<bool()>& ready,
               std::chrono::steady_clock::time_point deadline) {
  Slot& slot = SlotFor(address);
  std::unique_lock<std::mutex> lock(slot.mutex);
  Registration registration(slot);
  while (!ready()) {
    if (slot.cv.wait_until(lock, deadline) == std::cv_status::timeout) return ready();
  }
  return true;
}

void WakeAll(const void* address) {
  Slot& slot = SlotFor(address);
  if (slot.waiters.fetch_add(0, std::memory_order_seq_cst) == 0) return;
  // Taking the mutex orders this wake-up after any waiter that is between its check and its
  // sleep; notifying after releasing it spares the woken threads from blocking on it at once.
  { std::lock_guard<std::mutex> lock(slot.mutex); }
  slot.cv.notify_all();
}

}  // namespace zelcore::threads::detail
