// Walks a folder tree depth-first, yielding regular files. Unreadable sub-folders are skipped.
#pragma once

#include <memory>
#include <string>

#include "jxcache/host/file.h"

namespace zelcore::filesupport {

class RecursiveFileIterator {
 public:
  explicit RecursiveFileIterator(const Dir& root);
  ~RecursiveFileIterator();
  // Where the file Next gave lies: its folder and its name there, both valid until the next
  // call. A walk over a large folder uses them instead of taking each path apart again.
  struct Place {
    const Dir* folder = nullptr;
    const std::string* name = nullptr;
  };
  // The next file, or false when the walk is done.
  bool Next(File* out, Place* place = nullptr);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zelcore::filesupport
