#include "bag/recency_log.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "jxcache/bag/bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/host/ref_counted.h"

namespace jx::recency {

// Moves the item to where its stamp puts it, unless it has left the bag (or been moved by a newer
// stamp) since the note was taken.
struct Applier {
  static bool InBag(const JX_Stuff& stuff) { return stuff.mruBag_ != nullptr; }
  // InBag of an item that may have been destroyed since it was seen alive, in memory a weak
  // reference keeps. mruBag_ was cleared before the bag let go of its reference, and nothing
  // writes it after. Exempt from the sanitizer's dynamic-type check, which would read the type
  // word a destructor on another thread may be rewriting.
  __attribute__((no_sanitize("vptr"))) static bool InBagPeeked(const JX_Stuff* stuff) {
    return stuff->mruBag_ != nullptr;
  }
  // Starts loading the recency fields of an item that may be gone: only their address is
  // formed, nothing is read.
  __attribute__((no_sanitize("vptr"))) static void PrefetchFields(const JX_Stuff* stuff) {
    __builtin_prefetch(&stuff->mruBag_);
    __builtin_prefetch(&stuff->mruHook_);
  }
  // Starts loading the neighbours that moving an item out of its place rewrites. The caller
  // holds the library lock and knows the item is in its bag (so alive, its links stable).
  static void PrefetchNeighbours(const JX_Stuff& stuff) {
    const auto& hook = stuff.mruHook_;
    __builtin_prefetch(hook.prev_, 1);
    __builtin_prefetch(hook.next_, 1);
  }
  static void Apply(JX_Stuff& stuff, uint64_t stamp, const JXp_ScLock& lock) {
    JX_Bag* bag = stuff.mruBag_;
    if (bag && stamp > stuff.mruStamp_) bag->Reposition(stuff, stamp, lock);
  }
};

namespace {

// From this many notes on, a thread applies its log whenever the library lock is free; only a
// full log waits for the lock.
constexpr size_t kApplyWhenFree = kNotesPerThread * 3 / 4;

using zelcore::utility::IntrusivePtr;
using zelcore::utility::WeakPtr;

struct Noted {
  WeakPtr<JX_Stuff> stuff;
  uint64_t stamp;
};

// One thread's notes: a ring with one writer (the owning thread) and one reader (the applier,
// under the registry mutex), so that taking a note needs no spin word or lock (the note's weak
// reference is still one locked add). Slots [applied, taken) hold notes; the owner fills a slot
// and then publishes it by moving `taken`, the applier empties slots and then hands them back
// by moving `applied`. Each counter has one writer, so each side reads its own counter relaxed
// and the other's with acquire, and moves its own with release:
//   - the owner's release of `taken` and the applier's acquire of it: the applier reads a slot
//     only after the owner finished writing it;
//   - the applier's release of `applied` and the owner's acquire of it: the owner writes a slot
//     again only after the applier finished emptying it (dropping its weak reference).
// Only these two words are shared; the slots themselves are plain, handed over by the counters.
struct Log {
  std::atomic<uint64_t> taken{0};    // written by the owner
  std::atomic<uint64_t> applied{0};  // written by the applier
  Noted notes[kNotesPerThread];      // in stamp order: one thread's stamps only grow
  uint64_t next = 0;                 // the applier's cursor and the end it saw (registry mutex)
  uint64_t end = 0;

  Log();
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  Noted& Slot(uint64_t n) { return notes[n % kNotesPerThread]; }
};

// Every thread's log, and the notes of threads that have ended.
struct Registry {
  std::mutex mutex;
  std::vector<Log*> logs;
  std::vector<Noted> orphans;
};
Registry& TheRegistry() {
  static auto* registry = new Registry;  // never destroyed: threads may end after statics go
  return *registry;
}

Log::Log() {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> g(r.mutex);
  r.logs.push_back(this);
}

Log::~Log() {
  // Kept for the next reader rather than applied here: a thread must not wait for the library
  // lock on its way out (the thread holding it may be joining this one), and an apply could hand
  // items to this thread's deferred-release list, which may already be gone.
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> g(r.mutex);
  r.logs.erase(std::find(r.logs.begin(), r.logs.end(), this));
  // Relaxed: this is the owner (a thread-local's destructor runs on its thread), and the registry
  // mutex held here orders every applier's moves of `applied` before this.
  const uint64_t from = applied.load(std::memory_order_relaxed);
  const uint64_t to = taken.load(std::memory_order_relaxed);
  try {
    r.orphans.reserve(r.orphans.size() + (to - from));
    for (uint64_t n = from; n < to; ++n) r.orphans.push_back(std::move(Slot(n)));
  } catch (const std::bad_alloc&) {
    // Out of memory as the thread ends: these items keep their older places.
  }
}

// The calling thread's log; null when it could not be made (out of memory).
Log* MyLog() noexcept {
  try {
    thread_local Log log;
    return &log;
  } catch (...) {
    return nullptr;
  }
}

// The log whose next note is the oldest (each log is in order already); null when every log is
// used up. Ties go to the earlier log.
Log* OldestNext(const std::vector<Log*>& logs) {
  Log* best = nullptr;
  for (Log* log : logs) {
    if (log->next < log->end &&
        (!best || log->Slot(log->next).stamp < best->Slot(best->next).stamp)) {
      best = log;
    }
  }
  return best;
}

// What an apply lets go of once the library lock is released. Room for every note is reserved
// before the walk, so filling it never allocates.
struct LetGo {
  std::vector<IntrusivePtr<JX_Stuff>> items;  // out of every bag: maybe the last reference
  std::vector<WeakPtr<JX_Stuff>> dead;        // destroyed already: maybe the last weak reference
};

void ApplyOne(Noted& note, const JXp_ScLock& lock, LetGo& letGo) {
  // Most notes are of items still in their bag: the bag's reference keeps such an item alive for
  // as long as the library lock is held, and only that lock links or unlinks it, so it is moved
  // without a reference of the note's own (two locked instructions a note fewer).
  if (const JX_Stuff* peeked = note.stuff.PeekIfMemoryKept();
      peeked && Applier::InBagPeeked(peeked)) {
    Applier::Apply(*const_cast<JX_Stuff*>(peeked), note.stamp, lock);
    return;
  }
  IntrusivePtr<JX_Stuff> stuff = note.stuff.Lock();
  if (!stuff) {
    // The item is gone but its memory may still be held by weak references such as this one:
    // the last of them frees it, which must not happen under the library lock.
    letGo.dead.push_back(std::move(note.stuff));
    return;
  }
  if (Applier::InBag(*stuff)) {
    // The bag holds a reference of its own for as long as the library lock is held: letting go of
    // this one here never frees the item.
    Applier::Apply(*stuff, note.stamp, lock);
  } else {
    letGo.items.push_back(std::move(stuff));
  }
}

// Starts loading what the apply of every pending note will read and write: first each item's
// reference block and recency fields, then the neighbours of those still in their bag.
void Prefetch(const Registry& r, const JXp_ScLock&) {
  const auto each = [&r](auto&& f) {
    for (const Noted& note : r.orphans) f(note);
    for (Log* log : r.logs) {
      for (uint64_t n = log->next; n < log->end; ++n) f(log->Slot(n));
    }
  };
  each([](const Noted& note) {
    note.stuff.PrefetchBlock();
    Applier::PrefetchFields(note.stuff.UncheckedAddress());
  });
  each([](const Noted& note) {
    const JX_Stuff* peeked = note.stuff.PeekIfMemoryKept();
    if (peeked && Applier::InBagPeeked(peeked)) Applier::PrefetchNeighbours(*peeked);
  });
}

}  // namespace

void Note(JX_Stuff& stuff, uint64_t stamp) noexcept {
  if (Log* log = MyLog()) {
    // Relaxed: this thread is the only writer of `taken`. Acquire: the slots below `applied`
    // were emptied before it moved (see Log).
    const uint64_t taken = log->taken.load(std::memory_order_relaxed);
    const uint64_t applied = log->applied.load(std::memory_order_acquire);
    // The log is applied when it fills up, unless that apply ran out of memory.
    const bool room = taken - applied < kNotesPerThread;
    if (room) {
      Noted& slot = log->Slot(taken);  // emptied by the applier before it handed the slot back
      slot.stuff = WeakPtr<JX_Stuff>(&stuff);
      slot.stamp = stamp;
      // Release: publishes the slot to the applier's acquire of `taken`.
      log->taken.store(taken + 1, std::memory_order_release);
      const uint64_t used = taken + 1 - applied;
      if (used < kApplyWhenFree) return;
      if (used < kNotesPerThread) {
        // Room is left: apply now only if nobody holds the library lock. A thread that does
        // may be applying these very notes, and waiting for it would only queue this one
        // behind it.
        try {
          JXp_ScLock lock(std::try_to_lock);
          if (lock.owns_lock()) ApplyAll(lock);
        } catch (...) {
          // Out of memory: the notes stay for the apply of a full log.
        }
        return;
      }
    }
    try {
      JXp_ScLock lock;
      ApplyAll(lock);
    } catch (...) {
      // Out of memory: the notes stay where they are, and this move is made on its own.
    }
    if (room) return;
  }
  // Not noted. The caller's reference keeps the item alive.
  JXp_ScLock lock;
  Applier::Apply(stuff, stamp, lock);
}

void ApplyAll(const JXp_ScLock& lock) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> g(r.mutex);
  size_t count = r.orphans.size();
  for (Log* log : r.logs) {
    // Relaxed: appliers are the only writers of `applied`, and the registry mutex makes them
    // take turns.
    log->next = log->applied.load(std::memory_order_relaxed);
    // Acquire: the owner filled the slots below `taken` before it moved it. Notes taken after
    // this are left for the next apply.
    log->end = log->taken.load(std::memory_order_acquire);
    count += log->end - log->next;
  }
  if (count == 0) return;
  // Every allocation before anything moves: out of memory, the notes stay for the next reader.
  auto letGo = std::make_shared<LetGo>();
  letGo->items.reserve(count);
  letGo->dead.reserve(count);
  // Orphans come from several ended threads: into stamp order first (without memory for a
  // buffer the sort still works, only slower).
  std::stable_sort(r.orphans.begin(), r.orphans.end(),
                   [](const Noted& a, const Noted& b) { return a.stamp < b.stamp; });
  // An apply moves items scattered over memory, one after another, each a few cache misses: the
  // loads are started for all of them first, so that they overlap.
  Prefetch(r, lock);
  size_t orphan = 0;
  for (;;) {
    Log* log = OldestNext(r.logs);
    Noted* note;
    if (orphan < r.orphans.size() &&
        (!log || r.orphans[orphan].stamp <= log->Slot(log->next).stamp)) {
      note = &r.orphans[orphan++];
    } else if (log) {
      note = &log->Slot(log->next++);
    } else {
      break;
    }
    ApplyOne(*note, lock, *letGo);
  }
  // Every note left is of a live item (the reference taken above, or the bag's, keeps it), so
  // dropping them frees nothing. Each slot is emptied before its log's owner gets it back.
  for (Log* log : r.logs) {
    // Relaxed as above. Release: the slots were emptied before the owner may fill them again.
    for (uint64_t n = log->applied.load(std::memory_order_relaxed); n < log->end; ++n) {
      log->Slot(n).stuff.reset();
    }
    log->applied.store(log->end, std::memory_order_release);
  }
  r.orphans.clear();
  if (letGo->items.empty() && letGo->dead.empty()) return;
  std::deque<std::shared_ptr<void>> owners;
  try {
    owners.push_back(std::move(letGo));
    JXp_ScLock::ReleaseOutsideLock(std::move(owners));
  } catch (const std::bad_alloc&) {
    // Out of memory with nowhere to defer them: they go now, under the lock.
  }
}

}  // namespace jx::recency
