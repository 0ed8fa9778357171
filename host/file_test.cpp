// File, Dir, FileUtils and the recursive iterator against a real folder.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include <gtest/gtest.h>

#include "host/file_iterator.h"
#include "host/file_test_support.h"
#include "host/file_utils.h"
#include "jxcache/host/file.h"

namespace zelcore::filesupport {
namespace {

using testing::ReadWholeFile;
using testing::ScratchFolder;
using testing::WriteWholeFile;
using utility::FileUtils;

TEST(FilePath, NamesParentsAndJoinsAgree) {
  const File f("/a/b/c.d.kqcache");
  EXPECT_EQ(f.GetName(), "c.d.kqcache");
  EXPECT_EQ(f.GetParent().GetPath(), "/a/b");
  EXPECT_EQ(File("/top").GetParent().GetPath(), "/");
  // A folder given with a trailing slash must not produce "//" or a different value.
  EXPECT_EQ(Dir("/a/b/"), Dir("/a/b"));
  EXPECT_EQ(File(Dir("/a/b/"), "x").GetPath(), "/a/b/x");
  EXPECT_EQ(Dir("/").GetFile("x").GetPath(), "/x");
}

TEST(FileOnDisk, CreateSizeRenameDeleteAndTheirErrors) {
  ScratchFolder scratch;
  const File a = scratch.file("a");
  const File b = scratch.file("b");

  EXPECT_FALSE(a.Exists());
  a.Create();
  EXPECT_TRUE(a.Exists());
  EXPECT_EQ(a.Size(), 0u);
  EXPECT_EQ(testing::ErrnoThrownBy([&] { a.Create(); }), EEXIST) << "the file exists";

  WriteWholeFile(a, "new");
  WriteWholeFile(b, "old content");
  a.Rename(b);  // replaces the existing target
  EXPECT_FALSE(a.Exists());
  EXPECT_EQ(ReadWholeFile(b), "new");
  EXPECT_GT(b.GetCreationTime(), 0);

  EXPECT_EQ(scratch.dir().ListNames(), std::vector<std::string>{"b"});
  EXPECT_FALSE(File(scratch.dir().GetPath()).Exists());  // a folder is not a file
  EXPECT_FALSE(Dir(b.GetPath()).Exists());
  EXPECT_TRUE(Dir(b.GetPath()).PathExists());

  b.Delete();
  EXPECT_FALSE(b.Exists());
  EXPECT_THROW(b.Delete(), FileNotFoundError);
  EXPECT_THROW(b.Size(), FileNotFoundError);
  EXPECT_THROW(a.Rename(b), FileNotFoundError);
  EXPECT_THROW(scratch.dir().Join("missing").ListNames(), FileNotFoundError);
  EXPECT_THROW(scratch.dir().Join("missing").GetFile("x").Create(), FileNotFoundError);
}

TEST(EnsureDirectoryExists, MakesMissingParentsAndExplainsFailures) {
  ScratchFolder scratch;
  std::string error;
  const std::string deep = scratch.dir().GetPath() + "/x/y/z/";
  EXPECT_TRUE(FileUtils::EnsureDirectoryExists(deep, &error)) << error;
  EXPECT_TRUE(Dir(deep).Exists());
  EXPECT_TRUE(FileUtils::EnsureDirectoryExists(deep));  // already there

  // A file where the folder (or one of its parents) should be.
  scratch.file("blocker").Create();
  error.clear();
  EXPECT_FALSE(FileUtils::EnsureDirectoryExists(scratch.file("blocker").GetPath(), &error));
  EXPECT_NE(error.find("file is in the way"), std::string::npos) << error;
  error.clear();
  EXPECT_FALSE(FileUtils::EnsureDirectoryExists(scratch.file("blocker").GetPath() + "/a", &error));
  EXPECT_NE(error.find("blocker"), std::string::npos) << error;
  EXPECT_FALSE(FileUtils::EnsureDirectoryExists("", &error));
#if defined(__linux__)
  // /proc refuses new folders even to root, so a failing mkdir is covered on every run.
  error.clear();
  EXPECT_FALSE(FileUtils::EnsureDirectoryExists("/proc/jx_no_such_folder/cache", &error));
  EXPECT_NE(error.find("/proc/jx_no_such_folder"), std::string::npos) << error;
#endif

  if (::geteuid() == 0) GTEST_SKIP() << "root ignores folder permissions";
  const Dir locked = scratch.dir().Join("locked");
  ASSERT_EQ(::mkdir(locked.GetPath().c_str(), 0500), 0);
  error.clear();
  EXPECT_FALSE(FileUtils::EnsureDirectoryExists(locked.GetPath() + "/cache", &error));
  EXPECT_NE(error.find(std::strerror(EACCES)), std::string::npos) << error;
  ::chmod(locked.GetPath().c_str(), 0700);
}

TEST(FileUtilsTest, ReplacesEveryIllegalCharacterAndNothingElse) {
  EXPECT_EQ(FileUtils::ReplaceIllegalFileNameCharacters("a/b\\c:d*e?f\"g<h>i|j", '_'),
            "a_b_c_d_e_f_g_h_i_j");
  EXPECT_EQ(FileUtils::ReplaceIllegalFileNameCharacters(std::string("x\0y\ty\x1f", 6), '-'),
            "x-y-y-");
  // Printable ASCII and UTF-8 bytes stay as they are.
  const std::string kept = "Comp 1 (final) [v2] #3 \xc3\xa9t\xc3\xa9.mov";
  EXPECT_EQ(FileUtils::ReplaceIllegalFileNameCharacters(kept, '_'), kept);
  EXPECT_EQ(FileUtils::ReplaceIllegalFileNameCharacters("", '_'), "");
}

TEST(FileUtilsTest, VolumeQueriesWorkForFoldersNotYetMade) {
  ScratchFolder scratch;
  const std::string future = scratch.dir().GetPath() + "/not/yet/made";
  const size_t unit = FileUtils::GetEfficientDiskBufferSizeFromPath(future);
  EXPECT_EQ(unit, FileUtils::GetEfficientDiskBufferSizeFromPath(scratch.dir().GetPath()));
  EXPECT_TRUE(unit >= 512 && unit <= 65536 && (unit & (unit - 1)) == 0) << unit;
  EXPECT_GT(FileUtils::GetVolumeFreeSpace(future), 0);
}

TEST(RecursiveFileIteratorTest, FindsNestedFilesWithoutFollowingLinkedFolders) {
  ScratchFolder scratch;
  const std::string root = scratch.dir().GetPath();
  ASSERT_TRUE(FileUtils::EnsureDirectoryExists(root + "/a/b/c"));
  ASSERT_TRUE(FileUtils::EnsureDirectoryExists(root + "/empty"));
  for (const char* name : {"top", "a/one", "a/b/two", "a/b/c/three", "a/b/c/four"}) {
    File(root + "/" + name).Create();
  }
  // A link back up the tree would loop forever if followed.
  ASSERT_EQ(::symlink(root.c_str(), (root + "/a/loop").c_str()), 0);

  std::multiset<std::string> found;
  RecursiveFileIterator it(scratch.dir());
  File f;
  RecursiveFileIterator::Place place;
  while (it.Next(&f, &place)) {
    found.insert(f.GetPath().substr(root.size() + 1));
    EXPECT_EQ(place.folder->GetPath(), f.GetParent().GetPath());
    EXPECT_EQ(*place.name, f.GetName());
  }
  EXPECT_EQ(found,
            (std::multiset<std::string>{"top", "a/one", "a/b/two", "a/b/c/three", "a/b/c/four"}));
  EXPECT_FALSE(it.Next(&f));

  RecursiveFileIterator missing(scratch.dir().Join("missing"));
  EXPECT_FALSE(missing.Next(&f));

  if (::geteuid() == 0) GTEST_SKIP() << "root reads every folder";
  ASSERT_EQ(::chmod((root + "/a/b").c_str(), 0), 0);
  found.clear();
  RecursiveFileIterator skipping(scratch.dir());
  while (skipping.Next(&f)) found.insert(f.GetPath().substr(root.size() + 1));
  EXPECT_EQ(found, (std::multiset<std::string>{"top", "a/one"}));
  ::chmod((root + "/a/b").c_str(), 0700);
}

// The built-in file system answers a folder's names from one handle on it; each answer must be
// what Status gives for the name's path, failures (and their errno) included.
TEST(FileSystemTest, StatusInFolderAnswersEachNameAsStatusDoes) {
  ScratchFolder scratch;
  const std::string root = scratch.dir().GetPath();
  WriteWholeFile(File(root + "/file"), "abc");
  ASSERT_EQ(::mkfifo((root + "/fifo").c_str(), 0600), 0);
  ASSERT_EQ(::symlink((root + "/file").c_str(), (root + "/link").c_str()), 0);
  ASSERT_TRUE(FileUtils::EnsureDirectoryExists(root + "/folder"));
  const std::vector<const char*> names = {"file", "fifo", "link", "missing", "folder", "file"};

  jx::host::FileSystem& fs = jx::host::DefaultFileSystem();
  const auto expectAsStatus = [&](const std::string& folder) {
    std::vector<struct stat> stats(1);  // answers replace whatever the vectors held
    std::vector<int> errors(9, -1);
    fs.StatusInFolder(folder.c_str(), names, &stats, &errors);
    ASSERT_EQ(stats.size(), names.size());
    ASSERT_EQ(errors.size(), names.size());
    for (size_t i = 0; i < names.size(); ++i) {
      struct stat want {};
      errno = 0;
      const int result = fs.Status((folder + "/" + names[i]).c_str(), &want);
      EXPECT_EQ(errors[i], result == 0 ? 0 : errno) << folder << " " << names[i];
      if (result != 0) continue;
      EXPECT_EQ(stats[i].st_ino, want.st_ino) << names[i];
      EXPECT_EQ(stats[i].st_mode, want.st_mode) << names[i];
      EXPECT_EQ(stats[i].st_size, want.st_size) << names[i];
      EXPECT_EQ(stats[i].st_ctime, want.st_ctime) << names[i];
    }
  };
  expectAsStatus(root);
  // No handle to be had on a file or a missing folder: each name fails as its path would.
  expectAsStatus(root + "/file");
  expectAsStatus(root + "/missing");

  std::vector<struct stat> stats;
  std::vector<int> errors;
  fs.StatusInFolder(root.c_str(), names, &stats, &errors);
  EXPECT_TRUE(S_ISREG(stats[2].st_mode)) << "a link answers for what it points to";
  EXPECT_EQ(stats[2].st_size, 3);
  EXPECT_EQ(errors[3], ENOENT);
  EXPECT_TRUE(S_ISFIFO(stats[1].st_mode));

  // A file system that only overrides Status sees every name through it.
  struct CountingStatus final : jx::testing::ForwardingFileSystem {
    int Status(const char* p, struct stat* st) override {
      paths.insert(p);
      return in_.Status(p, st);
    }
    std::multiset<std::string> paths;
  } counting;
  counting.StatusInFolder(root.c_str(), names, &stats, &errors);
  EXPECT_EQ(counting.paths.size(), names.size());
  EXPECT_EQ(counting.paths.count(root + "/file"), 2u);
  EXPECT_EQ(errors[3], ENOENT);
}

}  // namespace
}  // namespace zelcore::filesupport
