// JX_ReadAhead: reads the items just ahead of a playhead back from the disk cache before they
// are asked for, so that playback finds them in memory.
//
// The host says where the playhead is, which way it moves, and which items come next (requests,
// as for a find: a GUID and find-key data), nearest first. A thread of its own then walks that
// list, starting with the playhead's own item: an item only on disk is checked out read-only and
// read back into memory; an item already in memory is checked out as it stands. Every item it holds
// stays checked out until the playhead has passed it or the plan changes, which keeps the memory
// purges away from it: a frame ahead is never freed to make room for one further ahead. What it
// holds never exceeds a share of the cache's maximum size (JX_Bag::GetCurrentMaxCacheSize); at that
// share it stops, and the frames further on wait for the playhead to come closer.
//
// A new playhead replaces the plan at once: a read under way finishes, nothing more of the old
// plan is read, and what the new plan no longer lists is let go, as is a held item the plan's
// request for its key would no longer find (replaced, removed or re-keyed meanwhile, or asked for
// as another variant): that request is looked up afresh. A playhead that is not where the
// previous plan led (a jump, or a reversal of direction, even across a pause) counts as a jump; a
// pause (direction 0) on a frame the previous plan listed, and playing on from it, do not. A key
// the cache does not hold, or holds pending, or whose file went before it could be read, is
// skipped; a read that fails is skipped and counted (the library deletes the file, as it does
// for any failed read).
//
// Threads: any thread may call any method. SetPlayhead only hands the plan over; it never waits
// for a read. Locks: none of this class's is held while it calls into the cache or the host.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "jxcache/host/export.h"
#include "jxcache/host/ref_counted.h"

class JX_Stuff;

struct JX_ReadAheadCounters {
  uint64_t prefetched = 0;        // items read back from disk ahead of the playhead
  uint64_t prefetchedBytes = 0;   // their bytes on disk
  uint64_t hitsOnPrefetched = 0;  // of those, used by someone before they were let go
  uint64_t wasted = 0;            // of those, let go unused (passed, jumped over, stopped)
  uint64_t notInCache = 0;        // keys ahead the cache did not hold, held pending, or whose
                                  // file went before the read: skipped
  uint64_t failedReads = 0;       // reads back that failed or the host refused room for: skipped
  uint64_t jumps = 0;             // playheads the previous plan did not lead to
  uint64_t stoppedAtShare = 0;    // walks that stopped at the share of the budget
  uint64_t heldBytes = 0;         // gauge: bytes held now (read ahead or found in memory)
  double readSeconds = 0;         // time spent reading back
};

class JX_EXPORT JX_ReadAhead {
 public:
  template <class T>
  using IntrusivePtr = zelcore::utility::IntrusivePtr<T>;
  using StuffPtr = IntrusivePtr<JX_Stuff>;

  struct Options {
    // The most it holds, as a share of the cache's maximum size (0 < share <= 1).
    double budgetShare = 0.25;
    // Called with no lock held around each read back, with the bytes about to be allocated: a
    // host that keeps its own budget makes room before and accounts after. A beforeRead that
    // throws refuses the room: that frame is skipped unread (a failed read; its file stays), and
    // its afterRead is not called. An afterRead that throws leaves the read as it went.
    std::function<void(uint64_t bytes)> beforeRead;
    std::function<void(uint64_t bytes)> afterRead;
  };

  JX_ReadAhead();
  explicit JX_ReadAhead(Options options);
  // Stops (see Stop).
  ~JX_ReadAhead();
  JX_ReadAhead(const JX_ReadAhead&) = delete;
  JX_ReadAhead& operator=(const JX_ReadAhead&) = delete;

  // The playhead's item, the direction it moves (+1 forward, -1 backward, 0 still) and the items
  // that come next in that direction, nearest first. Replaces the previous plan, which is the
  // playhead's item followed by the list: it too is read and held, being on screen or about to
  // be. Everything else held is let go. Null entries are skipped. Ignored after Stop.
  void SetPlayhead(const StuffPtr& playhead, int direction, std::vector<StuffPtr> ahead);
  // Reads nothing more, lets go of everything it holds and ends its thread, waiting for the read
  // under way; returns once nothing is held, whichever thread calls and however many at once.
  // Must be called before the library shuts down (the destructor does it). Called back on the
  // read-ahead's own thread (a read's callbacks, or one of the cache's it makes), it cannot wait
  // for itself: it returns at once, and the thread lets go of everything as the callback returns.
  void Stop();
  // Waits until the current plan has been walked as far as it goes; false on timeout. Called back
  // on the read-ahead's own thread, it answers at once: that walk cannot end while it waits.
  bool WaitIdle(std::chrono::milliseconds timeout) const;
  JX_ReadAheadCounters GetCounters() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};
