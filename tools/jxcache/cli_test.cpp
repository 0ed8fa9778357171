// Arguments and bad input through the built binary: exit codes, one-line reasons, nothing left.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "jxcache/common/version.h"
#include "tools/jxcache/progress.h"
#include "tools/jxcache/size_arg.h"
#include "tools/jxcache/tool_error.h"
#include "tools/jxcache/tool_test_support.h"

namespace jx::tool {
namespace {

using testing::RunTool;
using testing::TempDir;

size_t Lines(const std::string& s) { return std::count(s.begin(), s.end(), '\n'); }

TEST(SizeArgument, UnitsFractionsAndRejections) {
  EXPECT_EQ(ParseSize("0", "--x"), 0u);
  EXPECT_EQ(ParseSize("4096", "--x"), 4096u);
  EXPECT_EQ(ParseSize("4096B", "--x"), 4096u);
  // Every unit is binary, whichever way it is written.
  for (const char* k : {"512k", "512K", "512KB", "512kb", "512KiB", "512kib"})
    EXPECT_EQ(ParseSize(k, "--x"), 512u << 10) << k;
  for (const char* m : {"256M", "256MB", "256MiB", "256m"})
    EXPECT_EQ(ParseSize(m, "--x"), 256ull << 20) << m;
  for (const char* g : {"1G", "1GB", "1GiB", "1g"}) EXPECT_EQ(ParseSize(g, "--x"), 1ull << 30) << g;
  EXPECT_EQ(ParseSize("2T", "--x"), 2ull << 40);
  EXPECT_EQ(ParseSize("1.5G", "--x"), 3ull << 29);
  EXPECT_EQ(ParseSize("1.5GiB", "--x"), 3ull << 29);
  EXPECT_EQ(ParseSize("0.5k", "--x"), 512u);
  EXPECT_EQ(ParseSizeList("1MiB,2M,3", "--x"), (std::vector<uint64_t>{1 << 20, 2 << 20, 3}));
  for (const char* bad :
       {"", "-1", "MiB", "G", "12XB", "12Mi", "12MiBs", "12P", "1.5", "1.5B", "1.MiB", "12 MiB",
        "1e3", "0x10", "99999999999GiB", "17000000T", "18446744073709551616", "1,,2"}) {
    EXPECT_THROW(ParseSizeList(bad, "--x"), UsageError) << bad;
  }
  try {
    ParseSize("12XB", "--memory");
    ADD_FAILURE();
  } catch (const UsageError& e) {
    EXPECT_STREQ(e.what(),
                 "--memory: '12XB' is not a size: unknown unit 'XB' (use k, M, G or T, optionally "
                 "followed by B or iB)");
  }
  EXPECT_THROW(ParseSizeList("0", "--cache-size"), UsageError);
  EXPECT_EQ(FormatSize(812), "812 B");
  EXPECT_EQ(FormatSize(256ull << 20), "256 MiB");
}

TEST(CommandLine, Version) {
  for (const char* flag : {"--version", "-V"}) {
    auto r = RunTool({flag});
    EXPECT_EQ(r.exitCode, 0) << flag;
    EXPECT_EQ(r.out, std::string("jxcache " JXCACHE_VERSION_STRING "\nlibrary ") +
                         JX_GetLibraryVersionString() + "\n");
  }
}

TEST(Progress, RateAndTimeLeft) {
  EXPECT_EQ(FormatProgress("", 1200, 4800, "frames", 1200 / 310.0),
            "1200/4800 frames  310 frames/s  ETA 12s");
  EXPECT_EQ(FormatProgress("reading trace", 312u << 20, 1u << 30, "", 4.0),
            "reading trace  312 MiB/1.00 GiB  78.00 MiB/s  ETA 9s");
  EXPECT_EQ(FormatProgress("LRU", 3000000, 0, "requests", 2.0),
            "LRU  3000000 requests  1.50M requests/s");
  EXPECT_EQ(FormatProgress("", 0, 100, "frames", 0.0, "pass 1/3"), "0/100 frames  pass 1/3");
  EXPECT_EQ(FormatProgress("", 100, 100, "frames", 5.0), "100/100 frames  20.0 frames/s  ETA 0s");
  EXPECT_EQ(FormatDuration(0), "0s");
  EXPECT_EQ(FormatDuration(59.6), "1m00s");
  EXPECT_EQ(FormatDuration(185), "3m05s");
  EXPECT_EQ(FormatDuration(7620), "2h07m");
  EXPECT_EQ(FormatDuration(-1), "?");
  EXPECT_EQ(FormatDuration(std::nan("")), "?");
}

// Progress goes to stderr only when asked for (the tests' stderr is not a terminal), and then
// ends with a line for each piece of work.
TEST(Progress, OnlyWhenAskedAndWithRates) {
  TempDir dir;
  {
    std::ofstream f(dir.File("t.csv"));
    for (int i = 0; i < 3000; ++i) f << i % 70 << "," << 1000 << "\n";
  }
  auto quiet = RunTool({"replay", dir.File("t.csv"), "--cache-size", "20k"});
  ASSERT_EQ(quiet.exitCode, 0) << quiet.err;
  EXPECT_TRUE(quiet.err.empty()) << quiet.err;
  auto shown = RunTool({"replay", dir.File("t.csv"), "--cache-size", "20k", "--progress"});
  ASSERT_EQ(shown.exitCode, 0) << shown.err;
  for (const char* want : {"reading trace  ", "/s  ETA 0s", "LRU 20.00 KiB  3000/3000 requests",
                           "next uses and optimal  6000/6000 requests"}) {
    EXPECT_NE(shown.err.find(want), std::string::npos) << want << "\n" << shown.err;
  }
  EXPECT_EQ(shown.err.find('\r'), std::string::npos) << "a log gets lines, not redraws";
  auto sim = RunTool({"simulate", "--frames", "4", "--width", "16", "--height", "16", "--passes",
                      "1", "--no-disk", "--progress"});
  ASSERT_EQ(sim.exitCode, 0) << sim.err;
  EXPECT_NE(sim.err.find("4/4 frames"), std::string::npos) << sim.err;
  // Writes still queued after the last frame (a slow disk, simulated) are shown while the run
  // waits for them, apart from the frames' rate.
  std::ofstream(dir.File("slow")) << "KQ.JX.WriteDiskDelayInMsR=400\n";
  auto slow =
      RunTool({"simulate", "--frames", "4", "--threads", "4", "--width", "320", "--height", "240",
               "--passes", "1", "--disk-cache", dir.File("c"), "--disk-margin", "0", "--progress"},
              {"JX_SETTINGS=" + dir.File("slow")});
  ASSERT_EQ(slow.exitCode, 0) << slow.err;
  EXPECT_NE(slow.err.find("4/4 frames"), std::string::npos) << slow.err;
  std::smatch last;
  const std::regex waited("disk writes still queued  ([0-9]+)/([0-9]+) writes");
  for (auto it = std::sregex_iterator(slow.err.begin(), slow.err.end(), waited);
       it != std::sregex_iterator(); ++it) {
    last = *it;
  }
  ASSERT_FALSE(last.empty()) << slow.err;
  EXPECT_EQ(last[1], last[2]) << "the wait's last line counts every queued write gone\n"
                              << slow.err;
}

// Help says where the disk cache files go; a usage error is one line on stderr and exit code 2.
TEST(CommandLine, HelpAndBadArgumentsExitCodes) {
  for (const char* sub : {"simulate", "inspect", "replay", "stats", "clear"}) {
    auto r = RunTool({sub, "--help"});
    EXPECT_EQ(r.exitCode, 0) << sub;
    EXPECT_NE(r.out.find("Usage"), std::string::npos) << sub;
    if (std::string(sub) == "inspect" || std::string(sub) == "replay") continue;
    std::string flat;  // help text is wrapped: compare with the line breaks and indents out
    for (char c : r.out) {
      if (c == '\n') c = ' ';
      if (c != ' ' || flat.empty() || flat.back() != ' ') flat += c;
    }
    EXPECT_NE(flat.find("DIR/Orvane/Plexmotion/Disk Cache - <host name>.noindex/"),
              std::string::npos)
        << sub << ": " << r.out;
  }
  const std::vector<std::pair<std::vector<std::string>, std::string>> bad = {
      {{}, "a subcommand is required (simulate, inspect"},
      {{"bogus", "--json"},
       "jxcache: unknown subcommand 'bogus' (subcommands: simulate, inspect, replay, stats, "
       "clear; see jxcache --help)\n"},
      {{"simulate", "--memory", "12XB"}, "unknown unit"},
      {{"simulate", "--memory", "lots"}, ""},
      {{"simulate", "--frames", "0"}, ""},  // out of range
      {{"simulate", "--threads", "two"}, ""},
      {{"simulate", "--frames", "0x10"}, "decimal digits only"},  // not hex, nor "010" octal
      {{"simulate", "--seed", "-1"}, "negative"},                 // not wrapped round to 2^64 - 1
      {{"simulate", "--seed", "18446744073709551616"}, "too large"},
      {{"simulate", "--bogus"}, ""},
      {{"simulate", "--disk-proclivity", "0"}, ""},  // divides the read speed: must be above 0
      {{"simulate", "--disk-proclivity", "1x"}, ""},
      {{"simulate", "--fps", "-1"}, ""},
      {{"simulate", "--fps", "nan"}, ""},
      {{"simulate", "--read-ahead", "100000"}, ""},
      {{"simulate", "--no-disk", "--farm-ttl", "0"}, "need --farm"},  // given, though 0
      {{"simulate", "--disk-limit", "8388608T"}, "--disk-limit"},  // 2^63: negative to the library
      // An empty name (an unset shell variable) is not the default folder's: not to clear.
      {{"stats", "--disk-cache", ""}, "--disk-cache"},
      {{"simulate", "--no-disk", "--report", ""}, "--report"},
      {{"replay", "/nonexistent"}, ""},  // --cache-size missing
      {{"replay", "/nonexistent", "--cache-size", "1MiB", "--format", "xml"}, ""},
      {{"replay", "/nonexistent", "--cache-size", "0"}, ""},  // checked before the trace is read
      {{"inspect", "/tmp", "--limit", "-3"}, ""},
  };
  for (const auto& [args, says] : bad) {
    auto r = RunTool(args);
    std::string joined;
    for (const auto& a : args) joined += a + " ";
    SCOPED_TRACE(joined + "\n" + r.err);
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(Lines(r.err), 1u);
    EXPECT_EQ(r.err.rfind("jxcache: ", 0), 0u);
    EXPECT_NE(r.err.find(says), std::string::npos);
    EXPECT_TRUE(r.out.empty());
  }
}

// A farm limit of 0 is a value, not the option left out: --farm-ttl 0 keeps frames for ever.
TEST(CommandLine, FarmLimitsOfZeroAreKept) {
  const auto j = testing::RunToolJson({"simulate", "--frames", "1", "--width", "8", "--height", "8",
                                       "--passes", "1", "--no-disk", "--farm",
                                       "redis://127.0.0.1:1", "--farm-ttl", "0", "--json"});
  EXPECT_EQ(j["farm"]["settings"]["ttl_seconds"], 0);
  EXPECT_EQ(RunTool({"simulate", "--no-disk", "--farm", "redis://127.0.0.1:1", "--farm-lease", "0"})
                .exitCode,
            2);
}

TEST(CommandLine, BadInputFailsCleanlyAndLeavesNothingBehind) {
  TempDir dir;
  auto expectFailure = [](const testing::RunResult& r, const std::string& fragment) {
    EXPECT_NE(r.exitCode, 0);
    EXPECT_NE(r.exitCode, 2) << "input errors are not usage errors";
    EXPECT_EQ(Lines(r.err), 1u) << r.err;
    EXPECT_NE(r.err.find(fragment), std::string::npos) << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
  };
  expectFailure(RunTool({"replay", dir.File("missing.bin"), "--cache-size", "1MiB"}),
                "cannot open trace");
  expectFailure(RunTool({"replay", dir.path(), "--cache-size", "1MiB"}), "is a folder");
  std::ofstream(dir.File("cut.bin"), std::ios::binary) << std::string(24 * 3 + 10, '\1');
  expectFailure(RunTool({"replay", dir.File("cut.bin"), "--cache-size", "1MiB"}),
                "truncated record at byte 72");
  // A csv trace not named so, whose length happens to be whole records, is no binary trace.
  std::ofstream(dir.File("cut.bin")) << "1,10001\n2,10002\n3,10003\n4,10004\n5,10005\n6,10006\n";
  expectFailure(RunTool({"replay", dir.File("cut.bin"), "--cache-size", "1MiB"}), "--format csv");
  std::ofstream(dir.File("bad.csv")) << "id,size\n1,100\n2,lots\n";
  expectFailure(RunTool({"replay", dir.File("bad.csv"), "--cache-size", "1MiB"}), "line 3");
  // A binary file read as csv: the message quotes the start of the line, escaped.
  std::ofstream(dir.File("bad.csv")) << "1,100\n" << std::string(100000, '\x1b') << "\n";
  const auto junk = RunTool({"replay", dir.File("bad.csv"), "--cache-size", "1MiB"});
  expectFailure(junk, "line 2");
  EXPECT_LT(junk.err.size(), 400u);
  EXPECT_EQ(junk.err.find('\x1b'), std::string::npos);
  expectFailure(RunTool({"inspect", dir.File("nowhere")}), "does not exist");
  // Output that cannot be written (a full disk) is a failed run, not a success with nothing.
  const std::string full = std::string(JXCACHE_BINARY) + " stats --json --disk-cache " +
                           dir.path() + " >/dev/full 2>/dev/null";
  EXPECT_EQ(WEXITSTATUS(std::system(full.c_str())), 1);
  // A report that cannot be written at the end (past a file size limit here) loses only itself.
  const std::string capped = "ulimit -f 8; trap '' XFSZ; " + std::string(JXCACHE_BINARY) +
                             " simulate --frames 4 --width 16 --height 16 --passes 1 --no-disk "
                             "--report " +
                             dir.File("r.html") + " >" + dir.File("out") + " 2>&1";
  EXPECT_EQ(WEXITSTATUS(std::system(capped.c_str())), 1);
  EXPECT_NE(testing::ReadText(dir.File("out")).find("wall time"), std::string::npos);
  std::filesystem::remove(dir.File("out"));
  // Settings and a trace file that cannot be used are said to be, and the run goes on.
  const auto unread = RunTool(
      {"simulate", "--frames", "2", "--width", "8", "--height", "8", "--passes", "1", "--no-disk"},
      {"JX_SETTINGS=" + dir.path(), "JX_TRACE_FILE=" + dir.File("no/trace")});
  EXPECT_EQ(unread.exitCode, 0);
  for (const char* what : {"JX_SETTINGS", "JX_TRACE_FILE"})
    EXPECT_NE(unread.err.find(what), std::string::npos) << what << ": " << unread.err;

  // A disk cache "folder" that is a file, and a report that cannot be written: the session does
  // not run and no report (nor its temporary) appears.
  std::ofstream(dir.File("plainfile")) << "x";
  auto simulate = [](std::vector<std::string> extra) {
    std::vector<std::string> args = {"simulate", "--frames", "4",        "--width", "16",
                                     "--height", "16",       "--passes", "1"};
    args.insert(args.end(), extra.begin(), extra.end());
    return RunTool(args);
  };
  expectFailure(simulate({"--disk-cache", dir.File("plainfile"), "--report", dir.File("r.html")}),
                "is not a folder");
  expectFailure(simulate({"--no-disk", "--report", dir.File("no/such/dir/r.html")}), "--report");
  // A file where the library's folder in DIR should be: named, not taken for a permission.
  std::filesystem::create_directory(dir.File("cache"));
  std::ofstream(dir.File("cache/Orvane")) << "x";
  expectFailure(simulate({"--disk-cache", dir.File("cache")}), "cache/Orvane' is not a folder");
  std::filesystem::remove_all(dir.File("cache"));
  // A report "file" that is a folder fails before the session starts: no disk cache folder.
  std::filesystem::create_directory(dir.File("reports"));
  expectFailure(simulate({"--disk-cache", dir.File("cache"), "--report", dir.File("reports")}),
                "is a folder");
  EXPECT_FALSE(std::filesystem::exists(dir.File("cache")));
  // Killed mid-run (Ctrl-C, a CI time limit): nothing is left where the report was to go.
  const auto killed = testing::RunToolsAtOnce(
      {{"simulate", "--no-disk", "--fps", "1", "--report", dir.File("reports/r.html")}},
      std::chrono::seconds(1));
  EXPECT_TRUE(killed[0].killed);
  EXPECT_TRUE(std::filesystem::is_empty(dir.File("reports")));
  size_t entries = 0;
  for (auto& e : std::filesystem::directory_iterator(dir.path())) {
    ++entries;
    EXPECT_EQ(e.path().filename().string().find("r.html"), std::string::npos) << e.path();
    EXPECT_EQ(e.path().filename().string().find(".tmp-"), std::string::npos) << e.path();
  }
  EXPECT_EQ(entries, 4u);  // cut.bin, bad.csv, plainfile and reports
}

}  // namespace
}  // namespace jx::tool
