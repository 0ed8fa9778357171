#include "jxcache/host/thread_id.h"

#include <atomic>
#include <mutex>
#include <type_traits>

#include "jxcache/host/thread_id.h"

namespace zelcore::threads::detail {

thread_local constinit ThreadId t_threadId = kNoThread;
thread_local constinit uint32_t t_threadSlot = kSlotUnassigned;

ThreadId AssignThreadId() {
  static std::atomic<ThreadId> next{1};
  t_threadId = next.fetch_add(1, std::memory_order_relaxed);
  return t_threadId;
}

namespace {

// Which slots live threads own. The mutex also orders a slot's last writes by the thread that
// ends before the first writes of the thread that takes the slot over.
// Constant-initialised and trivially destroyed: threads may end after exit has begun, and
// taking a slot must never allocate (a counter changes in the middle of operations that must not
// fail half-way).
struct SlotTable {
  std::mutex mutex;
  bool taken[kThreadSlots] = {};
};
constinit SlotTable g_slots;
static_assert(std::is_trivially_destructible_v<SlotTable>);

SlotTable& Slots() { return g_slots; }

// Gives the slot back when its thread ends. A counter touched later in the thread's exit (by
// another thread_local's destructor) uses the shared word.
struct SlotOwner {
  uint32_t slot = kNoThreadSlot;
  ~SlotOwner() {
    t_threadSlot = kNoThreadSlot;
    if (slot == kNoThreadSlot) return;
    SlotTable& table = Slots();
    std::lock_guard<std::mutex> g(table.mutex);
    table.taken[slot] = false;
  }
};

}  // namespace

uint32_t AssignThreadSlot() {
  thread_local SlotOwner owner;
  SlotTable& table = Slots();
  uint32_t slot = kNoThreadSlot;
  {
    std::lock_guard<std::mutex> g(table.mutex);
    for (uint32_t i = 0; i < kThreadSlots; ++i) {
      if (!table.taken[i]) {
        table.taken[i] = true;
        slot = i;
        break;
      }
    }
  }
  owner.slot = slot;
  t_threadSlot = slot;
  return slot;
}

}  // namespace zelcore::threads::detail
