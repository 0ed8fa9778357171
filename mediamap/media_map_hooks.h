// What the rest of the library asks of the media map: mirror an item, forget it, report sizes,
// and tear the adapter down. While the media map is not in use (jx::settings::UseMediaMap()
// false) none of these is called, except the size queries, which then answer 0.
#pragma once

#include <cstdint>

#include "host/guid.h"
#include "host/ref_counted.h"

class JX_Stuff;

// Mirrors an in-memory item into the host's media manager; true when it is now mirrored.
bool JX_MediaMapAddOrUpdate(const zelcore::utility::IntrusivePtr<JX_Stuff>& stuff);
// Forgets the item's entry; true when one was erased.
bool JX_MediaMapErase(const zelcore::utility::IntrusivePtr<JX_Stuff>& stuff);
// Bytes and entries the adapter mirrors now.
uint64_t JX_MediaMapSizeBytes();
uint64_t JX_MediaMapEntryCount();
// Start-up: create the adapter when the media map is used. Shut-down: flush it, unregister it
// from the media manager and drop it (under the media-map lock).
void JX_MediaMapBirth();
void JX_MediaMapDeath();
// Tells the media manager the maximum size of the cache `cacheIdentity`.
void JX_MediaMapSetCacheLimit(const zelcore::utility::Guid& cacheIdentity, uint64_t bytes);
