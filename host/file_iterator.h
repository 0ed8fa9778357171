// Walks a folder tree depth-first, yielding regular files. Unreadable sub-folders are skipped.
#pragma once

#include <memory>

#include "jxcache/host/file.h"

namespace zelcore::filesupport {

class RecursiveFileIterator {
 public:
  explicit RecursiveFileIterator(const Dir& root);
  ~RecursiveFileIterator();
  // The next file, or false when the walk is done.
  bool Next(File* out);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zelcore::filesupport
