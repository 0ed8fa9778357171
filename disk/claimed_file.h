// ClaimedFile: an item's hold on its disk cache file.
//
// A cache file belongs to at most one item of the process. Without that rule a folder scan that
// runs while an item is out of the directory (checked out writeable, or re-keyed) adopts the
// item's own file as a second item: the folder's size is counted twice, and deleting the file
// through one item makes the other's read fail. Every item's link to its file is therefore a
// claim on the file's path, registered process-wide for as long as the claim lives; a second
// claim on the same path is refused, and the scan passes claimed files by.
//
// The claim outlives the item's link when someone still holds it: a read in progress, or a
// deletion deferred until the library lock is released. The path then stays claimed until the
// file is gone, so that a scan cannot adopt a file that is about to be deleted.
//
// Thread-safe: the registry is guarded by its own mutex, a leaf lock that nothing is called
// under.
#pragma once

#include <memory>

#include "jxcache/host/export.h"
#include "jxcache/host/file.h"

namespace jx::disk {

class ClaimedFile {
 public:
  // A claim on `file`'s path, or empty when another claim holds it.
  static std::shared_ptr<ClaimedFile> TryClaim(const zelcore::filesupport::File& file);
  // Whether some claim holds `file`'s path now.
  static bool IsClaimed(const zelcore::filesupport::File& file);

  // For TryClaim's single allocation only; the key keeps everyone else to TryClaim.
  struct Key {
   private:
    Key() = default;
    friend class ClaimedFile;
  };
  ClaimedFile(Key, zelcore::filesupport::File file) : file_(std::move(file)) {}
  ~ClaimedFile();
  ClaimedFile(const ClaimedFile&) = delete;
  ClaimedFile& operator=(const ClaimedFile&) = delete;

  const zelcore::filesupport::File& File() const { return file_; }

 private:
  const zelcore::filesupport::File file_;
  bool registered_ = false;
};

}  // namespace jx::disk
