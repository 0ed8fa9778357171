#include "jxcache/disk/read_ahead.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "bag/miss_reasons.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/common/jx_types.h"
#include "jxcache/host/guid.h"
#include "jxcache/host/high_precision_time.h"
#include "jxcache/host/host_services.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/items/stuff.h"

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using zelcore::utility::Guid;

namespace {

// An item the walk holds checked out, and what it knew of it when it took it.
struct Held {
  std::unique_ptr<JX_ScCheckout> handle;
  JX_ReadAhead::StuffPtr item;
  uint64_t bytes = 0;
  uint64_t usedAtTake = 0;  // its last-used time once held: a later one means someone used it
  bool readBack = false;    // read back by the walk, not found in memory
  bool registered = false;  // counted in PlanHolds
};

// How many check-outs of each item the read-ahead plans hold, all plans together: of an item's
// check-outs, those are not someone using it.
std::mutex gPlanHoldsMutex;  // leaf
std::unordered_map<const JX_Stuff*, uint32_t>& PlanHolds() {
  static auto* holds = new std::unordered_map<const JX_Stuff*, uint32_t>;
  return *holds;
}

// The threads of read-aheads stopped from their own thread, which cannot join itself. Each is
// joined by a later call from another thread once it has let go of everything: joining one that
// still runs a callback could wait for a lock the joining thread holds. Never destroyed: a
// thread left unjoined at exit has ended, and joining the host's threads then is not ours to do.
struct Orphan {
  std::shared_ptr<void> state;               // kept until the thread is joined
  std::function<bool()> endedForThisThread;  // has let go, and is not the calling thread
  std::unique_ptr<jx::host::JoinableThread> thread;
};
std::mutex gOrphansMutex;  // taken before a read-ahead's own mutex, never after
std::vector<Orphan>& Orphans() {
  static auto* orphans = new std::vector<Orphan>;
  return *orphans;
}

void JoinEndedOrphans() {
  // A join is a wait: never under the library lock or an item's (a host's callback may call in).
  if (!JXp_ScLock::CurrentThreadHoldsNoCacheLock()) return;
  std::vector<Orphan> ended;
  {
    std::lock_guard<std::mutex> l(gOrphansMutex);
    std::vector<Orphan>& orphans = Orphans();
    const auto done = std::stable_partition(
        orphans.begin(), orphans.end(), [](const Orphan& o) { return !o.endedForThisThread(); });
    ended.assign(std::make_move_iterator(done), std::make_move_iterator(orphans.end()));
    orphans.erase(done, orphans.end());
  }
  // Each only returns now: joined here, with no lock held.
  for (Orphan& o : ended) o.thread->Join();
}

}  // namespace

struct JX_ReadAhead::State {
  explicit State(Options o) : options(std::move(o)) {}

  const Options options;

  mutable std::mutex mutex;
  std::condition_variable wake;
  mutable std::condition_variable idle;
  // Guarded by mutex: the plan, the number of the newest one and of the last one walked.
  std::vector<StuffPtr> plan;
  uint64_t generation = 0;
  uint64_t walked = 0;
  bool stopping = false;
  bool havePrevious = false;
  int previousDirection = 0;              // of the last plan that moved
  std::unordered_set<Guid> previousKeys;  // the previous playhead and the keys ahead of it

  // Started by the first plan, on a thread of the host's; the thread holds a reference to this
  // state.
  std::unique_ptr<jx::host::JoinableThread> thread;
  bool started = false;    // a thread was asked for
  std::thread::id walker;  // that thread's id once it runs
  bool ended = false;      // the thread has let go of everything and returns

  std::atomic<uint64_t> prefetched{0}, prefetchedBytes{0}, hits{0}, wasted{0}, notInCache{0},
      failedReads{0}, jumps{0}, stoppedAtShare{0}, heldBytes{0}, readNanos{0};

  // The walk's own, touched by its thread only.
  // By key; one key may have several items held, one per variant the plan asks for.
  std::unordered_multimap<Guid, Held> held;

  bool Superseded(uint64_t gen) {
    std::lock_guard<std::mutex> l(mutex);
    return stopping || generation != gen;
  }

  void Run() {
    {
      std::lock_guard<std::mutex> l(mutex);
      walker = std::this_thread::get_id();
    }
    // Its searches are the library's own: the look-ups (and their misses) are the callers'.
    jx::miss::ScLookupMode notALookup(jx::miss::kNotALookup);
    for (;;) {
      std::vector<StuffPtr> todo;
      uint64_t gen;
      bool copied = true;
      {
        std::unique_lock<std::mutex> l(mutex);
        wake.wait(l, [&] { return stopping || generation != walked; });
        if (stopping) break;
        gen = generation;
        try {
          todo = plan;
        } catch (const std::bad_alloc&) {
          // No memory for a copy of the plan: this one is not walked, and what is held stays.
          copied = false;
        }
      }
      if (copied) {
        try {
          Walk(todo, gen);
        } catch (...) {
          // An allocation refused in the walk's own bookkeeping, or a search that threw: this
          // walk ends here, and the next plan starts afresh. An exception must not leave this
          // thread, which would end the host's process.
        }
      }
      // The walk's copy goes before it reports idle: a plan replaced after that is the last
      // holder of its requests, which go where it is replaced.
      todo.clear();
      {
        std::lock_guard<std::mutex> l(mutex);
        walked = gen;
      }
      idle.notify_all();
    }
    LetGoOfAll();
    // The plan's requests go before a stop that waits for the end returns: the library may die
    // next.
    std::vector<StuffPtr> requests;
    {
      std::lock_guard<std::mutex> l(mutex);
      requests.swap(plan);
    }
    requests.clear();
    {
      std::lock_guard<std::mutex> l(mutex);
      ended = true;
    }
    idle.notify_all();
  }

  void Walk(const std::vector<StuffPtr>& todo, uint64_t gen) {
    std::unordered_multimap<Guid, const JX_Stuff*> wanted;
    for (const StuffPtr& request : todo) {
      if (request) wanted.emplace(request->GetGuid(), request.get());
    }
    for (auto it = held.begin(); it != held.end();) {
      bool stillWanted = false;
      for (auto [w, end] = wanted.equal_range(it->first); w != end && !stillWanted; ++w) {
        stillWanted = Answers(*it->second.item, it->first, *w->second);
      }
      if (stillWanted) {
        ++it;
      } else {
        LetGo(it->second);
        it = held.erase(it);
      }
    }
    const std::shared_ptr<JX_Bag> bag = JX_GlobalBag();
    if (!bag) return;
    const uint64_t limit = Limit(bag->GetCurrentMaxCacheSize());
    // The share goes to the plan's frames in its order, nearest first. What is held already
    // counts where the plan lists it, not where an earlier plan did: a frame held for a plan
    // that started further on must not keep a nearer one out, and a share that has shrunk must
    // not keep frames past it held.
    Walked walked;
    for (size_t at = 0; at < todo.size(); ++at) {
      if (Superseded(gen)) return;
      const StuffPtr& request = todo[at];
      if (!request) continue;
      const Guid guid = request->GetGuid();
      if (Held* h = HeldFor(guid, *request)) {
        if (walked.met.count(h)) continue;
        if (walked.bytes + h->bytes > limit) {
          stoppedAtShare.fetch_add(1, std::memory_order_relaxed);
          LetGoOfAllBut(walked.met);
          return;
        }
        walked.met.insert(h);
        walked.bytes += h->bytes;
        continue;
      }
      if (!TakeNew(todo, at, guid, request, limit, walked)) return;
    }
  }

  // The share of `maxCacheSize`. A share that is not a number holds nothing, as 0 does; the
  // share of a cache the host leaves unbounded (2^64 as a double) is past what 64 bits hold, and
  // converting it is undefined (it gave 0: an unbounded cache held nothing).
  uint64_t Limit(uint64_t maxCacheSize) const {
    const double share = options.budgetShare > 0 ? std::min(options.budgetShare, 1.0) : 0.0;
    const double bytes = share * static_cast<double>(maxCacheSize);
    constexpr double kTwoTo64 = 18446744073709551616.0;
    return bytes >= kTwoTo64 ? UINT64_MAX : static_cast<uint64_t>(bytes);
  }

  // What a walk has met of the plan so far: the items held for it, and their bytes.
  struct Walked {
    std::unordered_set<const Held*> met;
    uint64_t bytes = 0;
  };

  // Checks out (and reads back) the item the request at `at` finds and holds it. False when the
  // walk ends there, at the share.
  bool TakeNew(const std::vector<StuffPtr>& todo, size_t at, const Guid& guid,
               const StuffPtr& request, uint64_t limit, Walked& walked) {
    auto handle = std::make_unique<JX_ScCheckout>();
    // Never waits for a render: a pending frame is being made by someone who wants it now.
    if (handle->FindAndCheckout(request, cf::kReadOnly | cf::kNoDiskRead) != kJX_CheckedOut) {
      notInCache.fetch_add(1, std::memory_order_relaxed);
      return true;
    }
    StuffPtr item = handle->GetStuffPtr();
    if (!item || item->IsPendingRender()) {
      notInCache.fetch_add(1, std::memory_order_relaxed);
      CheckIn(*handle);
      return true;
    }
    const bool inMemory = handle->IsInMemory();
    // Before a read, the file's size is all there is to go by.
    uint64_t bytes = inMemory ? item->GetAccountedMemorySize() : item->GetAccountedDiskSize();
    if (!RoomFor(todo, at, bytes, limit, walked)) {
      // Further frames wait for the playhead: making room for them would free nearer ones.
      CheckIn(*handle);
      return false;
    }
    // Taken before the read: a render thread may use the frame the moment it is in memory.
    const uint64_t usedAtTake = item->GetLastUsedTime();
    bool readBack = false;
    if (!inMemory && !ReadBack(*handle, bytes, &readBack)) {
      CheckIn(*handle);
      return true;
    }
    if (!inMemory) {
      // Read, the frame takes what its payload takes in memory, which a file stored compressed
      // understates: past the share, it is let go (unused, for the purges to take first).
      bytes = std::max<uint64_t>(bytes, item->GetAccountedMemorySize());
      if (!RoomFor(todo, at, bytes, limit, walked)) {
        if (readBack) wasted.fetch_add(1, std::memory_order_relaxed);
        CheckIn(*handle);
        return false;
      }
    }
    Held h;
    h.usedAtTake = usedAtTake;
    h.handle = std::move(handle);
    h.item = std::move(item);
    h.bytes = bytes;
    h.readBack = readBack;
    // Counted once held. An emplace refused for memory checks the item in with `h` (or with
    // the node it was moved into), and the walk ends: a frame read for nothing is waste.
    std::unordered_multimap<Guid, Held>::iterator it;
    try {
      it = held.emplace(guid, std::move(h));
    } catch (...) {
      if (readBack) wasted.fetch_add(1, std::memory_order_relaxed);
      throw;
    }
    heldBytes.fetch_add(bytes, std::memory_order_relaxed);
    try {
      walked.met.insert(&it->second);
    } catch (...) {
      // Held, but not counted where the plan lists it: let go at once rather than left over.
      LetGo(it->second);
      held.erase(it);
      throw;
    }
    walked.bytes += bytes;
    try {
      std::lock_guard<std::mutex> l(gPlanHoldsMutex);
      ++PlanHolds()[it->second.item.get()];
      it->second.registered = true;
    } catch (const std::bad_alloc&) {
      // Unregistered, the hold looks like a user of the frame to another plan's count.
    }
    return true;
  }

  // Whether `bytes` more fit in the share once the frames of the plan before `at` are counted.
  // Held frames the plan lists after `at` give way, the farthest first, as far as needed. When
  // they do not fit, the walk stops at the share and lets go of every frame past `at`.
  bool RoomFor(const std::vector<StuffPtr>& todo, size_t at, uint64_t bytes, uint64_t limit,
               const Walked& walked) {
    if (walked.bytes + bytes > limit) {
      stoppedAtShare.fetch_add(1, std::memory_order_relaxed);
      LetGoOfAllBut(walked.met);
      return false;
    }
    for (size_t i = todo.size();
         i-- > at + 1 && heldBytes.load(std::memory_order_relaxed) + bytes > limit;) {
      const StuffPtr& request = todo[i];
      if (!request) continue;
      const Guid guid = request->GetGuid();
      for (auto [it, end] = held.equal_range(guid); it != end;) {
        if (!walked.met.count(&it->second) && Answers(*it->second.item, guid, *request)) {
          LetGo(it->second);
          it = held.erase(it);
        } else {
          ++it;
        }
      }
    }
    // Every frame held and not met yet is one of those: past `at`.
    if (heldBytes.load(std::memory_order_relaxed) + bytes > limit) LetGoOfAllBut(walked.met);
    return true;
  }

  void LetGoOfAllBut(const std::unordered_set<const Held*>& keep) {
    for (auto it = held.begin(); it != held.end();) {
      if (keep.count(&it->second)) {
        ++it;
      } else {
        LetGo(it->second);
        it = held.erase(it);
      }
    }
  }

  // The item held for the request, or null.
  Held* HeldFor(const Guid& guid, const JX_Stuff& request) {
    for (auto [it, end] = held.equal_range(guid); it != end; ++it) {
      if (Answers(*it->second.item, guid, request)) return &it->second;
    }
    return nullptr;
  }

  // Whether a held item is one the plan's request for `guid` may find, as the cache's search
  // matches them. One replaced by a new render of its key, removed from the cache or re-keyed while
  // held is found by nobody under that key, and one of another variant (a request whose find-key
  // data it does not satisfy) not by this request: holding it keeps memory the plan cannot use,
  // and leaves the item the request does find unheld.
  static bool Answers(const JX_Stuff& item, const Guid& guid, const JX_Stuff& request) {
    if (!item.IsInSortDir() || item.GetGuid() != guid) return false;
    bool compressed = false;
    const auto itemKey = item.GetFindKeyDataAndCompression(&compressed);
    const auto requestKey = request.GetFindKeyData();
    // A compressed copy answers only a request that accepts one.
    if (compressed && !(requestKey && requestKey->CanBeCompressed())) return false;
    // No find-key data: the item answers any request for its GUID.
    return !itemKey || itemKey->CanSatisfyRequest(requestKey);
  }

  // `*didRead`: this thread read the payload back. A viewer that asked for the frame meanwhile
  // may have read it first (the playhead's own frame, typically): then it is found in memory,
  // and neither the read nor its later use is the read-ahead's doing.
  bool ReadBack(JX_ScCheckout& handle, uint64_t bytes, bool* didRead) {
    *didRead = false;
    try {
      if (options.beforeRead) options.beforeRead(bytes);
    } catch (...) {
      // The host has no room for the frame: it is skipped, unread. Its file is sound as far as
      // anyone knows, and stays for whoever asks for the frame.
      failedReads.fetch_add(1, std::memory_order_relaxed);
      return false;
    }
    const uint64_t start = zelcore::utility::HighPrecisionTime::GetCurrentTimeStamp();
    bool ok = false;
    bool threw = false;
    const jx::miss::ThreadReads readsBefore = jx::miss::ThisThreadReads();
    try {
      ok = handle.EnsureInMemory();
    } catch (...) {
      // The library has counted the failure and deleted the file; the frame is rendered later
      // by whoever asks for it.
      failedReads.fetch_add(1, std::memory_order_relaxed);
      threw = true;
    }
    const jx::miss::ThreadReads readsAfter = jx::miss::ThisThreadReads();
    const bool readHere = readsAfter.done != readsBefore.done;
    if (!ok && !threw) {
      // Not read and nothing thrown: a read that failed quietly, or no file left to read (a new
      // render of the key, or a purge of the folder, took it since the check-out).
      (readsAfter.failed != readsBefore.failed ? failedReads : notInCache)
          .fetch_add(1, std::memory_order_relaxed);
    }
    const uint64_t end = zelcore::utility::HighPrecisionTime::GetCurrentTimeStamp();
    try {
      if (options.afterRead) options.afterRead(bytes);
    } catch (...) {
      // The host's own accounting failed; the read itself stands, and the frame is held.
    }
    if (!ok) return false;
    if (!readHere) return true;
    *didRead = true;
    readNanos.fetch_add(end - start, std::memory_order_relaxed);  // stamps count nanoseconds
    prefetched.fetch_add(1, std::memory_order_relaxed);
    prefetchedBytes.fetch_add(bytes, std::memory_order_relaxed);
    return true;
  }

  // Keeps the item's place in the recency order: an unused frame read ahead goes first when
  // memory is short; one that was used has been renewed by its user.
  static void CheckIn(JX_ScCheckout& handle) {
    try {
      handle.Checkin(ci::kKeepRecency, 0.0);
    } catch (...) {
      // A check-in the item refused leaves nothing to undo here.
    }
  }

  void LetGo(Held& h) {
    uint32_t planHolds = h.registered ? 0 : 1;  // this one's, when not counted below
    {
      std::lock_guard<std::mutex> l(gPlanHoldsMutex);
      auto& holds = PlanHolds();
      if (const auto it = holds.find(h.item.get()); it != holds.end()) {
        planHolds += it->second;
        if (h.registered && --it->second == 0) holds.erase(it);
      }
      h.registered = false;
    }
    if (h.readBack) {
      // A user renews the frame's last use only as it checks the frame back in: one that holds
      // it now (a viewer with it on screen as the playhead moves on) is using it.
      const bool inUseNow = h.item->GetCheckoutCount() > planHolds;
      if (inUseNow || h.item->GetLastUsedTime() > h.usedAtTake) {
        hits.fetch_add(1, std::memory_order_relaxed);
      } else {
        wasted.fetch_add(1, std::memory_order_relaxed);
      }
    }
    heldBytes.fetch_sub(h.bytes, std::memory_order_relaxed);
    CheckIn(*h.handle);
  }

  void LetGoOfAll() {
    for (auto& [guid, h] : held) LetGo(h);
    held.clear();
  }
};

JX_ReadAhead::JX_ReadAhead() : JX_ReadAhead(Options{}) {}

JX_ReadAhead::JX_ReadAhead(Options options) : state_(std::make_shared<State>(std::move(options))) {}

JX_ReadAhead::~JX_ReadAhead() { Stop(); }

void JX_ReadAhead::SetPlayhead(const StuffPtr& playhead, int direction,
                               std::vector<StuffPtr> ahead) {
  State& s = *state_;
  std::unordered_set<Guid> keys;
  if (playhead) keys.insert(playhead->GetGuid());
  for (const StuffPtr& request : ahead) {
    if (request) keys.insert(request->GetGuid());
  }
  {
    std::lock_guard<std::mutex> l(s.mutex);
    if (s.stopping) return;
    // Stopping or starting again (a direction of 0 on either side) is no jump; a reversal is,
    // also across a pause: the frames held lie the other way.
    const bool reversed =
        direction != 0 && s.previousDirection != 0 && direction != s.previousDirection;
    if (s.havePrevious && (reversed || !playhead || !s.previousKeys.count(playhead->GetGuid()))) {
      s.jumps.fetch_add(1, std::memory_order_relaxed);
    }
    s.havePrevious = true;
    if (direction != 0) s.previousDirection = direction;
    s.previousKeys = std::move(keys);
    // The playhead's own frame is held too: it is being shown, or about to be.
    ahead.insert(ahead.begin(), playhead);
    // The old plan goes at the return, with no lock held: a request's payload is the host's, and
    // its destructor may call back in.
    s.plan.swap(ahead);
    ++s.generation;
    if (!s.started) {
      // The thread keeps the state: the host may drop the read-ahead from one of its callbacks.
      s.thread = jx::host::GetThreads().StartThread([state = state_] { state->Run(); });
      s.started = true;
    }
  }
  s.wake.notify_one();
  JoinEndedOrphans();
}

void JX_ReadAhead::Stop() {
  State& s = *state_;
  std::unique_ptr<jx::host::JoinableThread> thread;
  bool onWalker = false;
  {
    std::lock_guard<std::mutex> l(s.mutex);
    s.stopping = true;
    onWalker = s.walker == std::this_thread::get_id();
    thread = std::move(s.thread);
  }
  s.wake.notify_one();
  if (onWalker) {
    // Called back on the walk's own thread, which cannot wait for itself: it ends on its own,
    // letting go of everything once the callback returns, and another thread joins it.
    if (thread) {
      auto ended = [st = state_.get()] {
        std::lock_guard<std::mutex> l(st->mutex);
        return st->ended && st->walker != std::this_thread::get_id();
      };
      std::lock_guard<std::mutex> l(gOrphansMutex);
      try {
        Orphans().push_back({state_, std::move(ended), std::move(thread)});
      } catch (const std::bad_alloc&) {
        // Destroying the handle here would join this very thread: it is left unjoined.
        static_cast<void>(thread.release());
      }
    }
    return;
  }
  if (thread) {
    thread->Join();
  } else {
    // Another thread's stop, or the walk's own, ends the thread: this one too returns only once
    // nothing is held.
    std::unique_lock<std::mutex> l(s.mutex);
    s.idle.wait(l, [&] { return !s.started || s.ended; });
  }
  JoinEndedOrphans();
}

bool JX_ReadAhead::WaitIdle(std::chrono::milliseconds timeout) const {
  const State& s = *state_;
  std::unique_lock<std::mutex> l(s.mutex);
  const auto idle = [&] { return s.stopping || s.walked == s.generation; };
  // Called back on the walk's own thread, the walk cannot move on while this waits.
  if (s.walker == std::this_thread::get_id()) return idle();
  return s.idle.wait_for(l, timeout, idle);
}

JX_ReadAheadCounters JX_ReadAhead::GetCounters() const {
  const State& s = *state_;
  auto n = [](const std::atomic<uint64_t>& v) { return v.load(std::memory_order_relaxed); };
  JX_ReadAheadCounters c;
  c.prefetched = n(s.prefetched);
  c.prefetchedBytes = n(s.prefetchedBytes);
  c.hitsOnPrefetched = n(s.hits);
  c.wasted = n(s.wasted);
  c.notInCache = n(s.notInCache);
  c.failedReads = n(s.failedReads);
  c.jumps = n(s.jumps);
  c.stoppedAtShare = n(s.stoppedAtShare);
  c.heldBytes = n(s.heldBytes);
  c.readSeconds = static_cast<double>(n(s.readNanos)) * 1e-9;
  return c;
}
