// Brings the library up for one run of a subcommand and down again at the end of the scope, as a
// host does at start-up and shut-down: JX_Birth, then JX_StopAllAsyncWork and JX_Death.
#pragma once

#include <memory>

#include "jxcache/bag/bag.h"

namespace jx::tool {

class LibraryRun {
 public:
  // Arguments of JX_Birth; the stand-in host is made quiet and this thread its main thread.
  LibraryRun(bool mediaMapAllowed, unsigned int appVersion);
  ~LibraryRun();
  LibraryRun(const LibraryRun&) = delete;
  LibraryRun& operator=(const LibraryRun&) = delete;

  JX_Bag& bag() const { return *bag_; }
  const std::shared_ptr<JX_Bag>& bagPtr() const { return bag_; }

 private:
  std::shared_ptr<JX_Bag> bag_;
};

// Purging by recency alone, with no floor under the cache: what `replay` needs for its results
// to be those of a byte-sized LRU. Must run before the library first reads its settings.
void UsePureRecencyPurging();

}  // namespace jx::tool
