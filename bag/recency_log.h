// The recency log: how a read-only check-in renews an item's place in its bag's recency order
// without taking the library lock.
//
// Every hit ends in a check-in, and moving the item to the young end of the order would make
// every check-in take the library lock and write the end of one shared list: with several render
// threads that is where the time goes. Instead the check-in stamps the item's last-used time at
// once and notes (item, stamp) in its own thread's log; whoever needs the order (a purge walk, a
// copy of the items) applies every thread's notes first, in stamp order, under the library lock,
// and so does a thread whose log fills up. What they see is the order the moves would have made:
// an item stands where its latest stamp puts it. A note holds a weak reference, so it never
// keeps an item alive.
//
// Locks: the library lock, then the registry's mutex (a leaf). Note() takes no lock (its one
// locked instruction is the weak reference): each log is a ring with one writer, its thread, and
// one reader, the applier. A log three quarters full is applied when the library lock happens
// to be free; once it is full, the thread waits for the lock to apply it.
// Memory: a log is made once per thread; a note never allocates, and out of memory a move is
// made at once rather than lost.
#pragma once

#include <cstddef>
#include <cstdint>

class JX_Stuff;
class JXp_ScLock;

namespace jx::recency {

// The notes a thread keeps before it applies them itself: bounds both the delay before an item's
// move shows in the order and the memory the notes take.
inline constexpr size_t kNotesPerThread = 256;

// Notes that `stuff` was used at `stamp`, on behalf of the bag whose recency order links it.
void Note(JX_Stuff& stuff, uint64_t stamp) noexcept;
// Applies every thread's notes to the bags' recency orders. The caller holds the library lock.
void ApplyAll(const JXp_ScLock& lock);

// Reaches the items' recency fields (a friend of JX_Stuff).
struct Applier;

}  // namespace jx::recency
