// SafeSave writes a file so that readers see either the old content or the whole new content.
//
// The data goes to a temporary file in the target's folder (named from the target's name, the
// process ID and a per-process attempt counter, ending in ".tmp", so it never looks like a cache
// file and never collides between threads or processes). Commit syncs the data and renames the
// temporary over the target atomically. Destroying a SafeSave that was not committed deletes the
// temporary. A SafeSave belongs to one thread.
#pragma once

#include <string_view>

#include "jxcache/host/file.h"

namespace zelcore::filesupport {

class SafeSave {
 public:
  explicit SafeSave(const File& target);
  ~SafeSave();
  SafeSave(const SafeSave&) = delete;
  SafeSave& operator=(const SafeSave&) = delete;

  const File& GetTarget() const { return target_; }
  const File& GetTempFile() const { return temp_; }
  // Syncs the temporary file's data to disk, then renames it over the target. Throws FileError
  // (and deletes the temporary) on failure. A writer that synced the temporary itself, after its
  // last write, passes kAlreadySynced and saves a second sync.
  enum class Sync { kNeeded, kAlreadySynced };
  void Commit(Sync sync = Sync::kNeeded);
  bool IsCommitted() const { return committed_; }

  // The suffix every temporary file carries; a folder scan can recognise leftovers by it.
  static constexpr const char* kTempSuffix = ".tmp";
  // Whether a file name looks like a SafeSave temporary.
  static bool IsTempFileName(std::string_view name);

 private:
  File target_;
  File temp_;
  bool committed_ = false;
};

}  // namespace zelcore::filesupport
