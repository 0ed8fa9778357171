#include "mediamap/manager_outbox.h"

#include <atomic>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <new>

#include "host/trace.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/disk/disk_executor.h"

namespace jx::mediamap {
namespace {

struct Outbox {
  std::mutex mutex;  // guards queue
  std::list<ManagerOutbox::Letter::Item> queue;
  std::mutex delivering;  // held by the one thread delivering
  std::atomic<uint64_t> posted{0};
  std::atomic<uint64_t> delivered{0};
};

Outbox& Box() {
  // Never destroyed (static destructors may still post), and made without allocating: delivery
  // runs where nothing may throw, the shut-down of a start-up that ran out of memory among them.
  alignas(Outbox) static unsigned char storage[sizeof(Outbox)];
  static Outbox* box = new (storage) Outbox();
  return *box;
}

thread_local int tInHostCallback = 0;
// This thread is delivering: a manager that calls back into the cache from inside a delivered
// call posts more calls, which the delivery under way takes along (it looks again after each).
// Trying the delivery mutex again from the thread that holds it would be undefined.
thread_local bool tDelivering = false;

}  // namespace

void ManagerOutbox::Post(Letter&& letter) noexcept {
  Outbox& box = Box();
  std::lock_guard<std::mutex> lock(box.mutex);
  box.queue.splice(box.queue.end(), letter.node_);
  box.posted.fetch_add(1, std::memory_order_release);
}

uint64_t ManagerOutbox::Posted() { return Box().posted.load(std::memory_order_acquire); }
uint64_t ManagerOutbox::Delivered() { return Box().delivered.load(std::memory_order_acquire); }

void ManagerOutbox::ScheduleDelivery() noexcept {
  if (tInHostCallback > 0) {
    // The host may hold its own locks around the callback, which its manager calls take: a
    // thread outside the callback delivers. Without one (asynchronous work stopped), the next
    // delivery takes these calls along.
    try {
      if (auto executor = jx::DiskExecutor()) executor->Post([] { Deliver(); });
    } catch (const std::bad_alloc&) {
    }
    return;
  }
  if (!JXp_ScLock::IsLockedByCurrentThread()) {
    Deliver();
    return;
  }
  try {
    std::deque<std::shared_ptr<void>> owners;
    owners.emplace_back(nullptr, [](void*) { Deliver(); });
    JXp_ScLock::ReleaseOutsideLock(std::move(owners));
  } catch (const std::bad_alloc&) {
    // The calls stay queued for the next delivery.
  }
}

namespace {

// Delivers until the queue is empty; the caller holds the delivery mutex.
void DeliverQueued(Outbox& box) noexcept {
  tDelivering = true;
  struct Done {
    ~Done() { tDelivering = false; }
  } done;
  for (;;) {
    std::list<ManagerOutbox::Letter::Item> next;
    {
      std::lock_guard<std::mutex> lock(box.mutex);
      if (box.queue.empty()) return;
      next.splice(next.end(), box.queue, box.queue.begin());
    }
    try {
      next.front().call(next.front().id);
    } catch (const std::exception& e) {
      // The host refused the call; its pool and the adapter differ until the entry goes.
      ZC_TRACE("JX_MediaMap", 3, "media manager call failed: " << e.what());
    } catch (...) {
      ZC_TRACE("JX_MediaMap", 3, "media manager call failed");
    }
    box.delivered.fetch_add(1, std::memory_order_release);
  }
}

}  // namespace

void ManagerOutbox::Deliver() noexcept {
  if (tInHostCallback > 0 || tDelivering || JXp_ScLock::IsLockedByCurrentThread()) return;
  Outbox& box = Box();
  for (;;) {
    {
      std::unique_lock<std::mutex> delivering(box.delivering, std::try_to_lock);
      // Another thread is delivering: it takes this thread's calls too (it looks again below
      // after it lets go).
      if (!delivering.owns_lock()) return;
      DeliverQueued(box);
    }
    std::lock_guard<std::mutex> lock(box.mutex);
    if (box.queue.empty()) return;
  }
}

bool ManagerOutbox::DeliverAll() noexcept {
  if (tInHostCallback > 0 || tDelivering || JXp_ScLock::IsLockedByCurrentThread()) {
    ScheduleDelivery();
    return false;
  }
  Outbox& box = Box();
  // Once the mutex is ours, a delivery under way on another thread has finished its call; what
  // it left queued goes out from here.
  std::lock_guard<std::mutex> delivering(box.delivering);
  DeliverQueued(box);
  return true;
}

ManagerOutbox::ScInHostCallback::ScInHostCallback() { ++tInHostCallback; }
ManagerOutbox::ScInHostCallback::~ScInHostCallback() { --tInHostCallback; }

}  // namespace jx::mediamap
