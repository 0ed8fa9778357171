// JX_Stuff's side of the media map: what happens to an item whose entry the host purged.
#include <memory>

#include "bag/miss_reasons.h"
#include "host/trace.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/items/stuff.h"

using zelcore::threads::ScopedReadLockWrapper;

void JX_Stuff::PurgeFromMediaMap() {
  std::shared_ptr<JX_Bag> bag;  // outlives the lock: a last reference is not dropped under it
  // The library lock before the bag link: a check-in renews the item's entry by taking it out of
  // the bag and putting it back under that lock, and a link read in between is empty, which
  // would make this purge give up on an item that is in the bag. A host that purges from inside
  // a payload's own code, under that item's lock, purges only when the lock is free now (see
  // JX_Bag::FreeUpSomeMemory); the item then stays for the cache's own purges, and its next
  // check-in mirrors it again.
  JXp_ScLock lock(jx::kTryIfItemLockHeld);
  if (!lock.owns_lock()) return;
  {
    ScopedReadLockWrapper r(mutex_);
    bag = BagLocked();
  }
  if (!bag) {
    ZC_TRACE("JX_MediaMap", 6,
             "PurgeFromMediaMap " << static_cast<const void*>(this)
                                  << " stuff ain't got no bag, this should be harmless and mem "
                                     "will go away when stuff ref does.");
    return;
  }
  // The purged entry is gone already, but a check-in may have mirrored the item again since the
  // host picked it; erasing on the way out drops that newer entry with the memory, and finds
  // nothing otherwise. Without a release queue the memory goes at once.
  jx::miss::ScDepartureCause cause(jx::miss::Reason::kMediaManager);
  FreeUpAsMuchAsPossible(true, nullptr);
}
