// Files and folders. A File or Dir is a path value; operations touch the disk through the host's
// file system (jx::host::FileSystem, host/host_services.h: POSIX unless the host installs its
// own) and report failures by throwing FileError carrying the errno.
#pragma once

#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

#include "jxcache/host/export.h"

namespace zelcore::filesupport {

// The file operations, as errors name them (and as a host that checks its file system counts
// them: see jx::host::FileSystem).
enum class FileOp { kCreate, kOpen, kWrite, kFlush, kTruncate, kRename, kSize, kDelete, kRead };
constexpr int kFileOpCount = 9;
JX_EXPORT const char* FileOpName(FileOp op);

// A failed file operation: errno, the operation and the path.
class JX_EXPORT FileError : public std::system_error {
 public:
  FileError(int err, const std::string& what)
      : std::system_error(err, std::generic_category(), what) {}
  int Errno() const { return code().value(); }
};
// The file or folder does not exist (ENOENT).
class JX_EXPORT FileNotFoundError : public FileError {
 public:
  explicit FileNotFoundError(const std::string& what) : FileError(2, what) {}
};

class Dir;

class File {
 public:
  File() = default;
  explicit File(std::string path) : path_(std::move(path)) {}
  File(const Dir& dir, const std::string& name);

  bool IsEmpty() const { return path_.empty(); }
  const std::string& GetPath() const { return path_; }
  // The last path component ("a.b.kqcache" of "/x/a.b.kqcache").
  std::string GetName() const;
  Dir GetParent() const;

  bool Exists() const;
  // Exists and is a regular file (not a FIFO, socket or device, whose reads may block or never
  // end). Follows symbolic links.
  bool IsRegularFile() const;
  // Creates the file empty; throws FileError with EEXIST when it already exists.
  void Create() const;
  // Removes the file; throws FileError (FileNotFoundError when absent).
  void Delete() const;
  uint64_t Size() const;
  // Renames this file over `to` atomically (rename(2)).
  void Rename(const File& to) const;
  // Seconds since the epoch of the file's last status change (the closest POSIX has to
  // creation); throws FileError.
  int64_t GetCreationTime() const;
  // Asks desktop search to leave the file alone; a no-op where the platform has no such flag.
  void SetNotContentIndexed() const {}

  friend bool operator==(const File& a, const File& b) { return a.path_ == b.path_; }

 private:
  std::string path_;
};

class Dir {
 public:
  Dir() = default;
  explicit Dir(std::string path);

  bool IsEmpty() const { return path_.empty(); }
  const std::string& GetPath() const { return path_; }
  bool Exists() const;      // exists and is a folder
  bool PathExists() const;  // something (file or folder) exists at the path
  Dir Join(const std::string& name) const;
  File GetFile(const std::string& name) const { return File(*this, name); }
  // The names (not paths) of the entries directly in this folder, "." and ".." left out.
  // Throws FileError when the folder cannot be read.
  std::vector<std::string> ListNames() const;
  static Dir TempDirectory();

  friend bool operator==(const Dir& a, const Dir& b) { return a.path_ == b.path_; }

 private:
  std::string path_;
};

}  // namespace zelcore::filesupport
