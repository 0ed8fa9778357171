// Helpers for the file layer's tests: a scratch folder per test and whole-file read and write.
#pragma once

#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "jxcache/host/file.h"
#include "jxcache/host/host_services.h"
#include "testing/fault_injection.h"

namespace zelcore::filesupport::testing {

// A fresh folder under the system temporary folder, removed with everything in it at the end.
// Fault plans are cleared on both ends so that one test's faults never reach another.
class ScratchFolder {
 public:
  ScratchFolder() {
    FaultInjection::Reset();
    std::string pattern = Dir::TempDirectory().GetPath() + "/jx_file_test.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp " << pattern;
    dir_ = Dir(pattern);
  }
  ~ScratchFolder() {
    FaultInjection::Reset();
    ::nftw(dir_.GetPath().c_str(), &RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const Dir& dir() const { return dir_; }
  File file(const std::string& name) const { return dir_.GetFile(name); }

 private:
  static int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    ::chmod(path, 0700);  // undo permission tests before removing
    ::remove(path);
    return 0;
  }
  Dir dir_;
};

inline void WriteWholeFile(const File& file, const std::string& bytes) {
  std::ofstream(file.GetPath(), std::ios::binary | std::ios::trunc) << bytes;
}

inline std::string ReadWholeFile(const File& file) {
  std::ifstream in(file.GetPath(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Deterministic, position-dependent bytes: a shifted or dropped byte shows up as a mismatch.
inline std::vector<uint8_t> PatternBytes(size_t n, uint32_t seed = 1) {
  std::vector<uint8_t> v(n);
  uint32_t x = seed * 2654435761u + 1;
  for (auto& b : v) {
    x = x * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(x >> 24);
  }
  return v;
}

// The errno of the FileError `fn` throws (its message into *what), or 0 when it throws none.
inline int ErrnoThrownBy(const std::function<void()>& fn, std::string* what = nullptr) {
  try {
    fn();
  } catch (const FileError& e) {
    if (what != nullptr) *what = e.what();
    return e.Errno();
  }
  return 0;
}

}  // namespace zelcore::filesupport::testing

namespace jx::testing {

// The default file system, call for call: a test's wrapper derives from it and changes only the
// calls it watches or delays.
class ForwardingFileSystem : public jx::host::FileSystem {
 public:
  int Open(const char* p, int f, mode_t m) override { return in_.Open(p, f, m); }
  ssize_t Read(int fd, void* d, size_t n) override { return in_.Read(fd, d, n); }
  ssize_t Write(int fd, const void* d, size_t n) override { return in_.Write(fd, d, n); }
  int SyncData(int fd) override { return in_.SyncData(fd); }
  int Truncate(int fd, off_t n) override { return in_.Truncate(fd, n); }
  int Close(int fd) override { return in_.Close(fd); }
  int GetStatusFlags(int fd) override { return in_.GetStatusFlags(fd); }
  int SetStatusFlags(int fd, int f) override { return in_.SetStatusFlags(fd, f); }
  int Status(const char* p, struct stat* st) override { return in_.Status(p, st); }
  int StatusOf(int fd, struct stat* st) override { return in_.StatusOf(fd, st); }
  int Stat(const char* p, struct stat* st) override { return in_.Stat(p, st); }
  int FStat(int fd, struct stat* st) override { return in_.FStat(fd, st); }
  int LStat(const char* p, struct stat* st) override { return in_.LStat(p, st); }
  int Rename(const char* a, const char* b) override { return in_.Rename(a, b); }
  int Unlink(const char* p) override { return in_.Unlink(p); }
  int MakeDirectory(const char* p, mode_t m) override { return in_.MakeDirectory(p, m); }
  int ListDirectory(const char* p, std::vector<Entry>* e) override {
    return in_.ListDirectory(p, e);
  }
  int VolumeStats(const char* p, struct statvfs* st) override { return in_.VolumeStats(p, st); }

 protected:
  jx::host::FileSystem& in_ = jx::host::DefaultFileSystem();
};

// Installs a file system for the scope and then puts back the one that was installed before (the
// fault-injecting one, in a test program that uses it), never the default in its place.
class InstalledFileSystem {
 public:
  explicit InstalledFileSystem(jx::host::FileSystem& files) : previous_(&jx::host::GetFiles()) {
    jx::host::InstallFileSystem(&files);
  }
  ~InstalledFileSystem() { jx::host::InstallFileSystem(previous_); }
  InstalledFileSystem(const InstalledFileSystem&) = delete;
  InstalledFileSystem& operator=(const InstalledFileSystem&) = delete;

 private:
  jx::host::FileSystem* const previous_;
};

}  // namespace jx::testing
