// `simulate` on damaged and shared disk cache folders: a file that cannot be read back is a miss.
#include <gtest/gtest.h>

#include <filesystem>

#include "tools/jxcache/frame_payload.h"
#include "tools/jxcache/tool_test_support.h"

namespace jx::tool {
namespace {

using testing::FrameFileBytes;
using testing::FrameFileName;
using testing::ReadBytes;
using testing::RunToolJson;
using testing::TempDir;
using testing::WriteBytes;

// Renders of tens of milliseconds: worth a file under the proclivity below, and still quick.
constexpr uint32_t kWidth = 640, kHeight = 360, kFrames = 12;

std::vector<std::string> Session(const TempDir& dir) {
  return {"simulate", "--frames", std::to_string(kFrames), "--width", std::to_string(kWidth),
          "--height", std::to_string(kHeight), "--threads", "3", "--passes", "1", "--json",
          "--disk-cache", dir.File("cache"), "--disk-margin", "0", "--disk-proclivity", "0.001",
          // The render threads read every file themselves, so the counts below are theirs.
          "--read-ahead", "0"};
}

// A first run that leaves a file for every frame; *folder is where they are.
void WarmFolder(const TempDir& dir, std::string* folder) {
  const auto j = RunToolJson(Session(dir));
  ASSERT_EQ(j["disk"]["files_written"].get<uint64_t>(), kFrames) << j["disk"].dump();
  *folder = j["disk"]["folder"].get<std::string>();
  for (uint32_t f = 0; f < kFrames; ++f)
    ASSERT_TRUE(std::filesystem::exists(*folder + "/" + FrameFileName(kWidth, kHeight, f))) << f;
}

// Every request was served once, and every read that failed was asked for again.
void ExpectServedWell(const nlohmann::json& j) {
  uint64_t failed = 0;
  for (const auto& p : j["passes"]) {
    const uint64_t requests = p["requests"];
    EXPECT_EQ(requests, p["memory_hits"].get<uint64_t>() + p["disk_hits"].get<uint64_t>() +
                            p["renders"].get<uint64_t>());
    EXPECT_GE(p["frames_checked"].get<uint64_t>(), requests);
    failed += p["failed_reads_asked_again"].get<uint64_t>();
  }
  EXPECT_EQ(j["overall"]["failed_reads_asked_again"].get<uint64_t>(), failed);
  // The read-ahead's failures are its own: the render threads never saw those files.
  EXPECT_EQ(j["disk"]["failed_reads"].get<uint64_t>(),
            failed + j["readahead"].value("failed_reads", uint64_t{0}));
}

TEST(SimulateDamagedFolder, DamagedFilesAreServedAsMissesAndWrittenAgain) {
  TempDir dir;
  std::string folder;
  ASSERT_NO_FATAL_FAILURE(WarmFolder(dir, &folder));
  auto path = [&](uint32_t frame) { return folder + "/" + FrameFileName(kWidth, kHeight, frame); };
  auto bytes = ReadBytes(path(2));
  bytes.resize(bytes.size() / 2);
  WriteBytes(path(2), bytes);
  WriteBytes(path(5), {});
  bytes = ReadBytes(path(9));
  bytes[bytes.size() / 2] ^= 0x08;
  WriteBytes(path(9), bytes);
  // Not adopted: a frame too large, another version, an unregistered class, not a cache file.
  WriteBytes(folder + "/" + FrameFileName(65535, 16383, 0), std::vector<uint8_t>(100, 0x5A));
  WriteBytes(folder + "/" + FrameFileName(kWidth, kHeight, 0, 2),
             FrameFileBytes(kWidth, kHeight, 0));
  std::string otherClass = FrameFileName(kWidth, kHeight, 4);
  otherClass.insert(otherClass.find(FramePayload::kMatchname), "Not");
  WriteBytes(folder + "/" + otherClass, FrameFileBytes(kWidth, kHeight, 4));
  WriteBytes(folder + "/notes.txt", {'x'});

  const auto j = RunToolJson(Session(dir));
  ExpectServedWell(j);
  EXPECT_EQ(j["disk"]["files_at_start"].get<uint64_t>(), kFrames);
  EXPECT_EQ(j["disk"]["failed_reads"].get<uint64_t>(), 3u);
  EXPECT_EQ(j["passes"][0]["renders"].get<uint64_t>(), 3u);
  EXPECT_EQ(j["passes"][0]["disk_hits"].get<uint64_t>(), kFrames - 3);
  EXPECT_EQ(j["overall"]["bad_frames"].get<uint64_t>(), 0u);
  // Rendered again, the three were worth a file again: whole and right this time.
  for (uint32_t f : {2u, 5u, 9u})
    EXPECT_TRUE(ReadBytes(path(f)) == FrameFileBytes(kWidth, kHeight, f)) << "frame " << f;
}

// A file's checksum binds it to its name, not its folder: another frame's file copied over one
// fails its read, while a moved folder's files still read back.
TEST(SimulateDamagedFolder, AFileVerifiesOnlyUnderItsOwnNameWhereverItsFolderIs) {
  TempDir dir, moved;
  std::string folder;
  ASSERT_NO_FATAL_FAILURE(WarmFolder(dir, &folder));
  WriteBytes(folder + "/" + FrameFileName(kWidth, kHeight, 3),
             ReadBytes(folder + "/" + FrameFileName(kWidth, kHeight, 4)));
  std::filesystem::rename(dir.File("cache"), moved.File("cache"));

  const auto j = RunToolJson(Session(moved));
  ExpectServedWell(j);
  const auto& o = j["overall"];
  EXPECT_EQ(j["disk"]["files_at_start"].get<uint64_t>(), kFrames);
  EXPECT_EQ(j["disk"]["failed_reads"].get<uint64_t>(), 1u);
  EXPECT_EQ(o["bad_frames"].get<uint64_t>(), 0u);
  EXPECT_EQ(o["renders"].get<uint64_t>(), 1u);
  EXPECT_EQ(o["disk_hits"].get<uint64_t>(), kFrames - 1);
  const std::string three =
      j["disk"]["folder"].get<std::string>() + "/" + FrameFileName(kWidth, kHeight, 3);
  EXPECT_TRUE(ReadBytes(three) == FrameFileBytes(kWidth, kHeight, 3));
}

// Runs sharing one folder with different limits delete files the others adopted or wrote.
TEST(SimulateSharedFolder, RunsWithDifferentLimitsServeOnlyGoodFrames) {
  TempDir dir;
  std::vector<std::vector<std::string>> runs;
  // 5.3 MiB of files per run against limits that hold a few; the memory budget, a few frames.
  for (const char* limit : {"1MiB", "3MiB", "64MiB"}) {
    runs.push_back({"simulate", "--frames", "24", "--width", "320", "--height", "180", "--threads",
                    "2", "--memory", "1MiB", "--passes", "3", "--json", "--disk-limit", limit});
    runs.back().insert(runs.back().end(), {"--disk-cache", dir.File("cache"), "--disk-margin", "0",
                                           "--disk-proclivity", "0.001"});
  }
  uint64_t failedReads = 0, diskHits = 0;
  // The second round starts from what the first left in the folder.
  for (int round = 0; round < 2; ++round) {
    const auto results = testing::RunToolsAtOnce(runs);
    for (size_t i = 0; i < results.size(); ++i) {
      SCOPED_TRACE("round " + std::to_string(round) + ", run " + std::to_string(i));
      ASSERT_EQ(results[i].exitCode, 0) << results[i].err;
      const auto j = results[i].Json();
      ExpectServedWell(j);
      EXPECT_EQ(j["overall"]["bad_frames"].get<uint64_t>(), 0u);
      failedReads += j["disk"]["failed_reads"].get<uint64_t>();
      diskHits += j["overall"]["disk_hits"].get<uint64_t>();
    }
  }
  EXPECT_GT(diskHits, 0u) << "the runs never read the folder: nothing was shared";
  RecordProperty("failed_reads", std::to_string(failedReads));
}

}  // namespace
}  // namespace jx::tool
