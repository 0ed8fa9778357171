// The background disk writer as the rest of the library sees it.
#pragma once

#include <cstdint>

// A foreground read is waiting for the disk: queued background writes hold back for a while.
void JX_DeprioritizeBackgroundWrites();
// Writes queued for the disk thread and not yet started.
uint32_t JX_GetQueuedDiskWriteCount();
