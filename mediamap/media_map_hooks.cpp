// The media map is not built yet: nothing is mirrored, and the sizes are 0.
#include "mediamap/media_map_hooks.h"

bool JX_MediaMapAddOrUpdate(const zelcore::utility::IntrusivePtr<JX_Stuff>&) { return false; }
bool JX_MediaMapErase(const zelcore::utility::IntrusivePtr<JX_Stuff>&) { return false; }
uint64_t JX_MediaMapSizeBytes() { return 0; }
uint64_t JX_MediaMapEntryCount() { return 0; }
void JX_MediaMapBirth() {}
void JX_MediaMapDeath() {}
void JX_MediaMapSetCacheLimit(const zelcore::utility::Guid&, uint64_t) {}
