// Depth-first walk over the host's file system, one folder's names at a time.
#include "host/file_iterator.h"

#include <sys/stat.h>

#include <string_view>
#include <vector>

#include "jxcache/host/host_services.h"

namespace zelcore::filesupport {

struct RecursiveFileIterator::Impl {
  struct Level {
    std::vector<jx::host::FileSystem::Entry> entries;
    size_t next = 0;
    Dir path;
  };
  std::vector<Level> stack;

  // An unreadable folder is left out of the walk rather than ending it.
  void Enter(const Dir& path) {
    Level level{{}, 0, path};
    if (jx::host::GetFiles().ListDirectory(path.GetPath().c_str(), &level.entries) == 0) {
      stack.push_back(std::move(level));
    }
  }

  void Leave() { stack.pop_back(); }
};

namespace {

enum class Kind { kFile, kFolder, kOther };

// Symbolic links count as what they point to, except that a linked folder is not entered: a
// link back up the tree would make the walk endless, and a cache folder has no business
// reaching into another tree.
Kind Classify(const Dir& parent, const jx::host::FileSystem::Entry& entry) {
  using Type = jx::host::FileSystem::Entry::Type;
  // The listing's own word saves a status call per file, which a folder of 100,000 files feels.
  if (entry.type == Type::kFile) return Kind::kFile;
  if (entry.type == Type::kFolder) return Kind::kFolder;
  if (entry.type == Type::kOther) return Kind::kOther;
  const std::string& name = entry.name;
  jx::host::FileSystem& fs = jx::host::GetFiles();
  const std::string path = parent.GetPath() + "/" + name;
  struct stat st {};
  if (fs.LStat(path.c_str(), &st) != 0) return Kind::kOther;
  if (S_ISDIR(st.st_mode)) return Kind::kFolder;
  if (S_ISLNK(st.st_mode) && fs.Stat(path.c_str(), &st) != 0) return Kind::kOther;
  return S_ISREG(st.st_mode) ? Kind::kFile : Kind::kOther;
}

}  // namespace

RecursiveFileIterator::RecursiveFileIterator(const Dir& root) : impl_(std::make_unique<Impl>()) {
  impl_->Enter(root);
}

RecursiveFileIterator::~RecursiveFileIterator() = default;

bool RecursiveFileIterator::Next(File* out, Place* place) {
  auto& stack = impl_->stack;
  while (!stack.empty()) {
    Impl::Level& level = stack.back();
    if (level.next == level.entries.size()) {
      impl_->Leave();
      continue;
    }
    const jx::host::FileSystem::Entry& entry = level.entries[level.next++];
    switch (Classify(level.path, entry)) {
      case Kind::kFile:
        *out = File(level.path, entry.name);
        if (place) *place = {&level.path, &entry.name};
        return true;
      case Kind::kFolder:
        // Joined before the push, which may move `level` and its entries.
        impl_->Enter(level.path.Join(entry.name));
        break;
      case Kind::kOther:
        break;
    }
  }
  return false;
}

}  // namespace zelcore::filesupport
