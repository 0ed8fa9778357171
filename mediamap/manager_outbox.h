// The adapter's calls to the host's media manager (register, renew, forget an entry), delivered
// in the order the adapter made them, by a thread that holds none of the library's locks.
//
// The adapter changes its entries where the bag changes its items: under the library lock and,
// while an item is freed, under that item's write lock. A host's manager may enforce its budget
// inside a registration (and so call PurgeEntry back on the same thread), or call PurgeEntry
// while holding a lock of its own that its registration also takes; either deadlocks against a
// call made under our locks. So the adapter only posts its calls here, under its own mutex (which
// keeps them in the order of the entries' changes), and they are delivered once the posting
// thread lets go of the library lock, or, for a call posted inside one of the host's own
// callbacks, by the next thread that delivers.
//
// Thread-safe. The outbox's mutex is a leaf taken under the adapter's mutex; delivery holds it
// only to take the next call, and only one thread delivers at a time, so the manager sees the
// calls in the order they were posted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>

namespace jx::mediamap {

class ManagerOutbox {
 public:
  // A call about one entry, made with the entry's ID.
  using Call = std::function<void(uint64_t id)>;
  // A call ready to post: everything it needs is allocated when it is written, outside the
  // adapter's mutex, so that posting it there cannot fail. The entry's ID may be filled in
  // later, under that mutex, where it is first known.
  class Letter {
   public:
    explicit Letter(Call call, uint64_t id = 0) { node_.push_back({std::move(call), id}); }
    void SetID(uint64_t id) { node_.front().id = id; }

    struct Item {
      Call call;
      uint64_t id;
    };

   private:
    friend class ManagerOutbox;
    std::list<Item> node_;
  };

  // Queues the letter's call behind every call posted before it. Never allocates or throws.
  static void Post(Letter&& letter) noexcept;
  // Delivers what is queued once the calling thread holds no library lock (at once when it holds
  // none). Inside one of the host's callbacks, a background thread of the library's delivers
  // instead.
  static void ScheduleDelivery() noexcept;
  // Delivers now; the caller holds no library lock and no item lock. Does nothing inside a host
  // callback.
  static void Deliver() noexcept;
  // Delivers every call posted so far before it returns, waiting for a delivery under way on
  // another thread to finish its call first (the manager is still inside it). Inside a host
  // callback, inside a delivery or under the library lock, waiting could close a cycle: it only
  // schedules a delivery there and returns false.
  static bool DeliverAll() noexcept;
  // Calls posted so far, and calls delivered so far (made, whether the host accepted them or
  // threw): a caller that saw Posted() reach n knows the manager has heard all of them once
  // Delivered() reaches n.
  static uint64_t Posted();
  static uint64_t Delivered();

  // Marks the calling thread as inside a callback of the host's media manager for its scope:
  // nothing is delivered from there, since the host may hold its own locks around the callback.
  class ScInHostCallback {
   public:
    ScInHostCallback();
    ~ScInHostCallback();
    ScInHostCallback(const ScInHostCallback&) = delete;
    ScInHostCallback& operator=(const ScInHostCallback&) = delete;
  };
};

}  // namespace jx::mediamap
