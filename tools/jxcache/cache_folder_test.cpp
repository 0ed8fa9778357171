// `stats` and `clear` on a folder laid out by hand: `clear` takes cache files and nothing else.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tools/jxcache/tool_test_support.h"

namespace fs = std::filesystem;

namespace jx::tool {
namespace {

using testing::FrameFileName;
using testing::RunTool;
using testing::RunToolJson;
using testing::TempDir;

// Written out here rather than asked of the code: this is the path users are told about.
std::string MachineFolder(const std::string& dir) {
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  return dir + "/Orvane/Plexmotion/Disk Cache - " + host + ".noindex";
}

void Write(const std::string& path, size_t bytes) {
  std::ofstream(path, std::ios::binary) << std::string(bytes, 'x');
}

void SetModified(const std::string& path, int64_t secondsSinceEpoch) {
  fs::last_write_time(path, fs::file_time_type::clock::from_sys(
                                std::chrono::sys_seconds(std::chrono::seconds(secondsSinceEpoch))));
}

struct Folder {
  TempDir dir;
  std::string machine = MachineFolder(dir.path());
  std::vector<std::string> foreign;  // everything clear must leave
  Folder() {
    fs::create_directories(machine);
    // Frames of the simulate payload, one of another version, and one of another class.
    for (uint32_t f = 0; f < 3; ++f) Write(machine + "/" + FrameFileName(16, 16, f), 1000 + f);
    Write(machine + "/" + FrameFileName(16, 16, 9, 0x2A), 500);
    std::string other = FrameFileName(16, 16, 8);
    other.replace(other.find("JxSimFrame"), 10, "OtherClass");
    Write(machine + "/" + other, 4000);
    SetModified(machine + "/" + FrameFileName(16, 16, 1), 1'000'000'000);  // 2001-09-09
    SetModified(machine + "/" + other, 1'900'000'000);                     // 2030-03-17
    // Must survive: a user's file, an unparsed name, a folder, a link, a fresh temporary.
    Write(machine + "/notes.txt", 7);
    Write(machine + "/broken.kqcache", 11);
    fs::create_directory(machine + "/keep");
    Write(machine + "/keep/" + FrameFileName(16, 16, 5), 13);
    Write(dir.File("precious"), 17);
    fs::create_symlink(dir.File("precious"), machine + "/" + FrameFileName(16, 16, 6));
    Write(machine + "/" + FrameFileName(16, 16, 7) + ".4242.1.tmp", 19);
    foreign = {machine + "/notes.txt",
               machine + "/broken.kqcache",
               machine + "/keep/" + FrameFileName(16, 16, 5),
               dir.File("precious"),
               machine + "/" + FrameFileName(16, 16, 6),
               machine + "/" + FrameFileName(16, 16, 7) + ".4242.1.tmp"};
  }
};

TEST(CacheFolder, StatsCountsCacheFilesByClassAndTellsOthersApart) {
  Folder f;
  const auto j = RunToolJson({"stats", "--disk-cache", f.dir.path(), "--json"});
  EXPECT_EQ(j["folder"], f.machine);
  EXPECT_EQ(j["cache_files"]["files"], 5);
  EXPECT_EQ(j["cache_files"]["bytes"], 1000 + 1001 + 1002 + 500 + 4000);
  EXPECT_EQ(j["by_class"]["JxSimFrame"]["files"], 4);
  EXPECT_EQ(j["by_class"]["JxSimFrame"]["bytes"], 3503);
  EXPECT_EQ(j["by_class"]["OtherClass"]["bytes"], 4000);
  EXPECT_EQ(j["oldest"]["name"], FrameFileName(16, 16, 1));
  EXPECT_EQ(j["oldest"]["modified"], "2001-09-09T01:46:40Z");
  EXPECT_EQ(j["newest"]["modified_unix"], 1'900'000'000);
  EXPECT_EQ(j["temporaries"]["files"], 1);
  EXPECT_EQ(j["temporaries"]["bytes"], 19);
  EXPECT_EQ(j["not_cache_files"]["files"], 4);  // notes, broken, keep/ and the link
  EXPECT_EQ(j["not_cache_files"]["bytes"], 7 + 11);
  const auto names = j["not_cache_files"]["names"].get<std::vector<std::string>>();
  EXPECT_NE(std::find(names.begin(), names.end(), "keep/"), names.end());

  auto text = RunTool({"stats", "--disk-cache", f.dir.path()});
  ASSERT_EQ(text.exitCode, 0) << text.err;
  for (const char* want : {"JxSimFrame", "OtherClass", "all cache files", "2001-09-",
                           "not cache files       4", "notes.txt", "leftover temporaries  1"}) {
    EXPECT_NE(text.out.find(want), std::string::npos) << want << "\n" << text.out;
  }
}

TEST(CacheFolder, ClearDeletesOnlyCacheFilesAndLeavesEverythingElse) {
  Folder f;
  auto r = RunTool({"clear", "--disk-cache", f.dir.path()});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("deleted 5 cache files (7.33 KiB)"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("kept 1 temporaries younger than 60 s"), std::string::npos) << r.out;
  for (const std::string& path : f.foreign)
    EXPECT_TRUE(fs::exists(fs::symlink_status(path))) << path << " was deleted";
  const auto after = RunToolJson({"stats", "--disk-cache", f.dir.path(), "--json"});
  EXPECT_EQ(after["cache_files"]["files"], 0);
  EXPECT_EQ(after["oldest"], nullptr);
  EXPECT_EQ(after["not_cache_files"]["files"], 4);

  // Again: nothing left to delete is not a failure.
  const auto again = RunToolJson({"clear", "--disk-cache", f.dir.path(), "--json"});
  EXPECT_EQ(again["deleted_cache_files"]["files"], 0);
  EXPECT_EQ(again["other_entries_kept"], 4);
}

TEST(CacheFolder, MissingFoldersAndAFolderOfAnotherLayout) {
  TempDir dir;
  // A DIR that is not there is a mistake; a DIR without the machine folder is an empty cache.
  auto missing = RunTool({"stats", "--disk-cache", dir.File("nowhere")});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_NE(missing.err.find("does not exist"), std::string::npos) << missing.err;
  const auto empty = RunToolJson({"stats", "--disk-cache", dir.path(), "--json"});
  EXPECT_FALSE(empty["exists"].get<bool>());
  EXPECT_EQ(empty["cache_files"]["files"], 0);
  // Cache files straight in DIR are not where the library puts them: clear leaves them.
  Write(dir.File(FrameFileName(16, 16, 0)), 10);
  auto clear = RunTool({"clear", "--disk-cache", dir.path()});
  ASSERT_EQ(clear.exitCode, 0) << clear.err;
  EXPECT_TRUE(fs::exists(dir.File(FrameFileName(16, 16, 0))));
  EXPECT_FALSE(fs::exists(dir.File("Orvane"))) << "clear made folders";

  // A machine folder moved to another disk and linked back is where the library writes.
  TempDir elsewhere;
  fs::create_directories(dir.File("Orvane/Plexmotion"));
  fs::create_directory_symlink(elsewhere.path(), MachineFolder(dir.path()));
  Write(elsewhere.File(FrameFileName(16, 16, 1)), 10);
  EXPECT_EQ(RunToolJson({"stats", "--disk-cache", dir.path(), "--json"})["cache_files"]["files"],
            1);
  EXPECT_EQ(RunTool({"clear", "--disk-cache", dir.path()}).exitCode, 0);
  EXPECT_FALSE(fs::exists(elsewhere.File(FrameFileName(16, 16, 1))));
  // The disk it points to gone (unmounted): not an empty cache.
  fs::remove(elsewhere.path());
  auto gone = RunTool({"stats", "--disk-cache", dir.path()});
  EXPECT_EQ(gone.exitCode, 1);
  EXPECT_NE(gone.err.find("a link to"), std::string::npos) << gone.err;
}

}  // namespace
}  // namespace jx::tool
