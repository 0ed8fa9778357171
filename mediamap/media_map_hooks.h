// What the rest of the library asks of the media map: mirror an item, forget it, report sizes,
// and tear the adapter down. While the media map is not in use (jx::settings::UseMediaMap()
// false) none of these is called, except the size queries, which then answer 0.
//
// Locks: start-up and shut-down replace or tear the adapter down under the recursive media-map
// lock; everyone else reads the adapter's handle atomically, without it. The order across the
// library is
//   library lock (JXp_ScLock) -> item lock -> adapter mutex -> outbox mutex
// The bag may call these hooks holding the library lock and an item's lock. The host's media
// manager is never called under any of them: the adapter posts its calls to an outbox that is
// delivered once the library lock is let go (mediamap/manager_outbox.h), because a host may call
// back into the cache from inside those calls, or around its callbacks hold a lock of its own.
#pragma once

#include <cstdint>

#include "jxcache/host/guid.h"
#include "jxcache/host/ref_counted.h"

class JX_Stuff;

// Mirrors an in-memory item into the host's media manager; true when it is now mirrored.
bool JX_MediaMapAddOrUpdate(const zelcore::utility::IntrusivePtr<JX_Stuff>& stuff);
// Mirrors the item only when it has no entry now (the host took its entry back while it was
// checked out, which freed nothing); an entry it has keeps its place in the host's order. True
// when a new entry was made.
bool JX_MediaMapAddIfMissing(const zelcore::utility::IntrusivePtr<JX_Stuff>& stuff);
// Forgets the item's entry; true when one was erased.
bool JX_MediaMapErase(const zelcore::utility::IntrusivePtr<JX_Stuff>& stuff);
// Bytes and entries the adapter mirrors now.
uint64_t JX_MediaMapSizeBytes();
uint64_t JX_MediaMapEntryCount();
// Start-up: create the adapter when the media map is used. Shut-down: close it (its entries are
// dropped and its unregistration posted behind its other manager calls) and drop it, under the
// media-map lock. Both close an earlier adapter, then wait, with no lock of ours held, until the
// manager has heard its unregistration, which takes the end of a delivery under way on another
// thread: a host must not call them holding a lock that its manager calls take. Called from
// inside one of the host's manager calls or purges, they do not wait: the unregistration follows
// the calls still queued, with the delivery under way or the next one.
void JX_MediaMapBirth();
void JX_MediaMapDeath();
// Tells the media manager the maximum size of the cache `cacheIdentity`.
void JX_MediaMapSetCacheLimit(const zelcore::utility::Guid& cacheIdentity, uint64_t bytes);
