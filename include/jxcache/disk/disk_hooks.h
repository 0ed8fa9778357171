// What the items and the bag ask of the disk writer, which sits above them: the one header of
// disk/ that lower layers may include. (The disk methods of JX_Stuff itself are declared with
// the class, in items/stuff.h, and defined here in disk/.)
#pragma once

#include <cstdint>

#include "jxcache/host/export.h"

// Writes queued and not yet started, both queues: a renderer far ahead of the disk writer is
// held back while it is high.
JX_EXPORT uint32_t JX_GetQueuedDiskWriteCount();
