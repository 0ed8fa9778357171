// Depth-first walk with one open directory stream per level.
#include "host/file_iterator.h"

#include <dirent.h>
#include <sys/stat.h>

#include <string_view>
#include <vector>

namespace zelcore::filesupport {

struct RecursiveFileIterator::Impl {
  struct Level {
    DIR* dir;
    Dir path;
  };
  std::vector<Level> stack;

  // An unreadable folder is left out of the walk rather than ending it.
  void Enter(const Dir& path) {
    if (DIR* dir = ::opendir(path.GetPath().c_str())) stack.push_back(Level{dir, path});
  }

  void Leave() {
    ::closedir(stack.back().dir);
    stack.pop_back();
  }

  ~Impl() {
    while (!stack.empty()) Leave();
  }
};

namespace {

enum class Kind { kFile, kFolder, kOther };

// Symbolic links count as what they point to, except that a linked folder is not entered: a
// link back up the tree would make the walk endless, and a cache folder has no business
// reaching into another tree.
Kind Classify(const Dir& parent, const dirent& entry) {
#if defined(_DIRENT_HAVE_D_TYPE) || defined(__APPLE__)
  if (entry.d_type == DT_REG) return Kind::kFile;
  if (entry.d_type == DT_DIR) return Kind::kFolder;
  if (entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN) return Kind::kOther;
#endif
  const std::string path = parent.GetPath() + "/" + entry.d_name;
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return Kind::kOther;
  if (S_ISDIR(st.st_mode)) return Kind::kFolder;
  if (S_ISLNK(st.st_mode) && ::stat(path.c_str(), &st) != 0) return Kind::kOther;
  return S_ISREG(st.st_mode) ? Kind::kFile : Kind::kOther;
}

}  // namespace

RecursiveFileIterator::RecursiveFileIterator(const Dir& root) : impl_(std::make_unique<Impl>()) {
  impl_->Enter(root);
}

RecursiveFileIterator::~RecursiveFileIterator() = default;

bool RecursiveFileIterator::Next(File* out) {
  auto& stack = impl_->stack;
  while (!stack.empty()) {
    const dirent* entry = ::readdir(stack.back().dir);
    if (entry == nullptr) {
      impl_->Leave();
      continue;
    }
    const std::string_view name(entry->d_name);
    if (name == "." || name == "..") continue;
    const Dir parent = stack.back().path;
    switch (Classify(parent, *entry)) {
      case Kind::kFile:
        *out = File(parent, std::string(name));
        return true;
      case Kind::kFolder:
        impl_->Enter(parent.Join(std::string(name)));
        break;
      case Kind::kOther:
        break;
    }
  }
  return false;
}

}  // namespace zelcore::filesupport
