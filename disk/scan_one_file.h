// Recognising one file found in the disk cache folder and adopting it as an item's disk copy.
//
// A cache file's name carries the item's whole identity (see cache_file_name.h), so adoption
// never opens the file. A file that is not ours, of another version, of a payload class nobody
// registered, or a temporary of an unfinished write is left alone (and not deleted here); the
// scan of the next file goes on. A file whose item already exists in memory becomes that item's
// disk copy (replacing a link into a folder the host has moved the cache away from); otherwise a
// new item that lives on disk only is added to the bag. A key's compressed copy and its original
// are two items, so a file looks only among the items of its own form.
//
// Threads: any thread. Takes the library lock, then item locks; never waits.
#pragma once

#include <cstdint>
#include <optional>

#include "jxcache/host/file.h"

class JX_Bag;

// Adopts `file` into the global bag (nothing happens without one).
void JX_ScanOneDiskCacheFile(const zelcore::filesupport::File& file);

namespace jx::disk {
// Adopts `file`, a regular file, into `bag`. `fileSize` is what a status call already said of
// it (the folder scan asks once per file while listing); without it, the file is asked once it
// is claimed.
void AdoptCacheFile(JX_Bag& bag, const zelcore::filesupport::File& file,
                    std::optional<uint64_t> fileSize);
}  // namespace jx::disk
