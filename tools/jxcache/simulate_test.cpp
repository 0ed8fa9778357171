// `simulate` and `inspect` on small sessions, through the built binary.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>

#include "jxcache/items/checksummed_stream.h"
#include "tools/jxcache/session.h"
#include "tools/jxcache/tool_test_support.h"

namespace jx::tool {
namespace {

using testing::RunTool;
using testing::RunToolJson;
using testing::TempDir;

std::vector<std::string> SmallSession(const TempDir& dir, std::vector<std::string> extra = {},
                                      const char* width = "1280", const char* height = "720",
                                      const char* threads = "3", const char* frames = "12") {
  std::vector<std::string> args = {"simulate",      "--frames", frames,         "--width",
                                   width,           "--height", height,         "--threads",
                                   threads,         "--json",   "--disk-cache", dir.File("cache"),
                                   "--disk-margin", "0"};
  args.insert(args.end(), extra.begin(), extra.end());
  return args;
}

// A proclivity of 0.001 makes any frame that takes over 1 ms to render worth a file, whatever
// read speed this machine measures; a full-size frame takes tens of milliseconds.
std::vector<std::string> WritingSession(const TempDir& dir) {
  return SmallSession(dir, {"--disk-proclivity", "0.001"});
}

void ExpectPassesAddUp(const nlohmann::json& j) {
  const char* const kCounts[] = {"requests", "renders", "memory_hits", "disk_hits"};
  std::map<std::string, uint64_t> sum;
  for (const auto& p : j["passes"]) {
    const uint64_t n = p["requests"];
    EXPECT_EQ(n, j["options"]["frames"].get<uint64_t>());
    EXPECT_EQ(n, p["memory_hits"].get<uint64_t>() + p["disk_hits"].get<uint64_t>() +
                     p["renders"].get<uint64_t>());
    EXPECT_EQ(p["frames_checked"].get<uint64_t>(), n);  // every frame served, rendered or not
    EXPECT_EQ(p["bad_frames"].get<uint64_t>(), 0u);
    for (const char* count : kCounts) sum[count] += p[count].get<uint64_t>();
  }
  const auto& o = j["overall"];
  for (const char* count : kCounts) EXPECT_EQ(o[count].get<uint64_t>(), sum[count]) << count;
  const uint64_t requests = sum["requests"];
  // A render happens only when the cache holds no copy of the frame.
  EXPECT_EQ(o["renders_while_in_memory"].get<uint64_t>(), 0u);
  EXPECT_EQ(o["first_renders"].get<uint64_t>() + o["renders_after_purge"].get<uint64_t>(),
            sum["renders"]);
  // Every served frame asks for its histogram once: computed, or answered from the cache.
  const auto& c = j["compute_cache"];
  ASSERT_TRUE(c["available"].get<bool>());
  EXPECT_EQ(c["calls"].get<uint64_t>(), requests);
  EXPECT_EQ(c["failures"].get<uint64_t>(), 0u);
  EXPECT_EQ(c["computes"].get<uint64_t>() + c["hits"].get<uint64_t>(), requests);
}

uint64_t SumOf(const nlohmann::json& counts) {
  uint64_t n = 0;
  for (const auto& [name, count] : counts.items()) n += count.get<uint64_t>();
  return n;
}

TEST(Simulate, FiguresAddUpAndTheSecondRunStartsWarm) {
  TempDir dir;
  const auto a = RunToolJson(WritingSession(dir));
  ExpectPassesAddUp(a);
  // The whole timeline fits in memory: each frame is rendered once, however many threads want it.
  EXPECT_EQ(a["passes"][0]["renders"].get<uint64_t>(), 12u);
  EXPECT_EQ(a["overall"]["renders"].get<uint64_t>(), 12u);
  EXPECT_EQ(a["passes"][1]["memory_hits"].get<uint64_t>(), 12u);
  // Each histogram is computed once; the later passes find every one of them cached.
  EXPECT_EQ(a["compute_cache"]["computes"].get<uint64_t>(), 12u);
  EXPECT_EQ(a["compute_cache"]["hits"].get<uint64_t>(), 3u * 12 - 12);
  EXPECT_TRUE(a["media_map"]["available"].get<bool>());
  EXPECT_GT(a["media_map"]["mirrored_bytes"].get<uint64_t>(), 0u);
  EXPECT_LE(a["overall"]["peak_memory"].get<uint64_t>(),
            a["overall"]["memory_budget"].get<uint64_t>());
  ASSERT_TRUE(a["disk"]["available"].get<bool>());
  EXPECT_EQ(a["disk"]["files_at_start"].get<uint64_t>(), 0u);
  EXPECT_EQ(a["disk"]["failed_writes"].get<uint64_t>(), 0u);
  // Each render is one write decision, and every one of them is worth a file here.
  EXPECT_EQ(a["disk"]["write_requests"].get<uint64_t>(), 12u);
  EXPECT_EQ(SumOf(a["disk"]["writes_refused"]), 0u) << a["disk"]["writes_refused"];
  EXPECT_EQ(a["disk"]["writes_skipped"].get<uint64_t>(), 0u);
  const uint64_t written = a["disk"]["files_written"];
  EXPECT_EQ(written, 12u) << a["disk"].dump();
  // Each file holds the pixels and their checksum.
  EXPECT_EQ(a["disk"]["bytes_written"].get<uint64_t>(),
            12 * (a["frame_bytes"].get<uint64_t>() + jx::kChecksumTrailerSize));
  EXPECT_EQ(a["disk"]["bytes_written"].get<uint64_t>(), a["disk"]["folder_bytes"].get<uint64_t>());

  // A second run on the same folder: what the first wrote is found and read back, not rendered.
  const auto b = RunToolJson(WritingSession(dir));
  ExpectPassesAddUp(b);
  EXPECT_EQ(b["disk"]["files_at_start"].get<uint64_t>(), written);
  // Each file read once, by a render thread (a disk hit) or by the read-ahead (a memory hit).
  const uint64_t prefetched = b["readahead"]["prefetched"];
  EXPECT_EQ(
      b["passes"][0]["disk_hits"].get<uint64_t>() + b["passes"][0]["memory_hits"].get<uint64_t>(),
      written);
  EXPECT_EQ(b["overall"]["renders"].get<uint64_t>(), 0u);
  EXPECT_EQ(b["disk"]["files_written"].get<uint64_t>(), 0u);
  EXPECT_EQ(b["disk"]["files_read"].get<uint64_t>(),
            b["overall"]["disk_hits"].get<uint64_t>() + prefetched);
  EXPECT_EQ(b["readahead"]["hits_on_prefetched"].get<uint64_t>(), prefetched);
  EXPECT_EQ(b["disk"]["failed_reads"].get<uint64_t>(), 0u);

  // inspect agrees with the simulator about what the folder holds.
  const auto c = RunToolJson({"inspect", dir.File("cache"), "--json", "--limit", "1KiB"});
  EXPECT_EQ(c["cache_files"]["files"].get<uint64_t>(),
            written + b["disk"]["files_written"].get<uint64_t>());
  EXPECT_EQ(c["cache_files"]["bytes"].get<uint64_t>(), b["disk"]["folder_bytes"].get<uint64_t>());
  EXPECT_EQ(c["by_class"]["JxSimFrame"]["files"], c["cache_files"]["files"]);
  EXPECT_EQ(c["by_version"]["1"]["files"], c["cache_files"]["files"]);
  EXPECT_TRUE(c["over_limit"].get<bool>());
}

// A budget of 28 frames and a timeline of 48: without read-ahead the second pass finds at most the
// budget in memory (bounded, not counted: a frame whose write is still queued outlives older ones
// on disk, as the load decides) and the rest on disk. Paced as a viewer plays.
TEST(Simulate, ReadAheadServesAForwardPassOverFramesOnDiskFromMemory) {
  auto run = [](const TempDir& dir, const char* readAhead) {
    auto args = SmallSession(dir,
                             {"--disk-proclivity", "0.001", "--memory", "4MiB", "--passes", "2",
                              "--fps", "100", "--read-ahead", readAhead},
                             "256", "144", "1", "48");
    return RunToolJson(args);
  };
  TempDir off, on;
  const auto without = run(off, "0");
  const auto with = run(on, "4");
  ExpectPassesAddUp(with);
  EXPECT_FALSE(without["readahead"]["used"].get<bool>());
  EXPECT_EQ(without["readahead"]["prefetched"].get<uint64_t>(), 0u);
  const auto& ra = with["readahead"];
  ASSERT_TRUE(ra["used"].get<bool>());
  const uint64_t prefetched = ra["prefetched"];
  EXPECT_GT(prefetched, 0u);
  // Everything read ahead was let go by the end of its pass, used or not.
  EXPECT_EQ(ra["hits_on_prefetched"].get<uint64_t>() + ra["wasted"].get<uint64_t>(), prefetched);
  EXPECT_EQ(ra["failed_reads"].get<uint64_t>(), 0u);
  const uint64_t budgetFrames = (4u << 20) / with["frame_bytes"].get<uint64_t>();
  ASSERT_EQ(budgetFrames, 28u);
  const uint64_t hitsWithout = without["passes"][1]["memory_hits"];
  const uint64_t hitsWith = with["passes"][1]["memory_hits"];
  EXPECT_LE(hitsWithout, budgetFrames) << "more frames in memory than the budget holds";
  EXPECT_GE(without["passes"][1]["disk_hits"].get<uint64_t>(), 48u - budgetFrames);
  // More memory hits than the budget could have kept from the first pass: the rest were read ahead.
  EXPECT_GE(hitsWith, 36u) << "read-ahead should have served most of the pass from memory";
  EXPECT_GE(ra["hits_on_prefetched"].get<uint64_t>(), hitsWith - budgetFrames);
  EXPECT_LE(with["overall"]["peak_memory"].get<uint64_t>(), 4u << 20);
}

// Render threads faster than the one serving the playhead's request finish requests after it: the
// read-ahead is not told of those, which it would hold (or read back again) for nobody, taking
// the share from frames still to come.
TEST(Simulate, TheReadAheadIsToldOnlyOfRequestsStillToServe) {
  std::vector<std::atomic<bool>> served(10);
  served[3] = true;
  served[4] = true;
  EXPECT_EQ(RequestsAhead(2, 5, 3, 10, served), (std::vector<size_t>{5, 6, 7, 8}));
  EXPECT_EQ(RequestsAhead(7, 8, 3, 10, served), (std::vector<size_t>{8, 9}));
}

// Render threads that reach their requests together announce the playhead together: a forward
// pass, which never jumps, must not count a jump.
TEST(Simulate, ForwardPassesOfSeveralThreadsCountNoJump) {
  TempDir dir;
  const auto j = RunToolJson(
      SmallSession(dir, {"--disk-proclivity", "0.001", "--memory", "1MiB", "--passes", "2"}, "128",
                   "72", "4", "480"));
  EXPECT_EQ(j["readahead"]["jumps"].get<uint64_t>(), 0u);
}

// Four threads want the same frames at once, under a budget of about six frames.
TEST(Simulate, ThreadsWantingTheSameFrameRenderItOnce) {
  TempDir dir;
  const auto j = RunToolJson(SmallSession(dir, {"--no-disk", "--memory", "72KiB", "--passes", "5"},
                                          "64", "36", "4", "48"));
  ExpectPassesAddUp(j);
  const auto& o = j["overall"];
  EXPECT_EQ(o["first_renders"].get<uint64_t>(), 48u);  // nothing cached at the start
  EXPECT_GT(o["renders_after_purge"].get<uint64_t>(), 0u) << "the budget forced no re-render";
  EXPECT_GT(o["purges"].get<uint64_t>(), 0u);
}

// Three 64x36 frames fit beside the host's media, the 12 do not; one render thread makes the
// eviction order the request order. Each miss counts one reason, overall and per class, and every
// render follows a miss of its frame.
TEST(Simulate, SmallBudgetForcesPurgesAndTheMissReasonsShowThem) {
  TempDir dir;
  auto args =
      SmallSession(dir, {"--no-disk", "--memory", "36864", "--passes", "2"}, "64", "36", "1");
  const auto j = RunToolJson(args);
  ExpectPassesAddUp(j);
  EXPECT_FALSE(j["disk"]["available"].get<bool>());
  EXPECT_GT(j["overall"]["purges"].get<uint64_t>(), 0u);
  EXPECT_GT(j["overall"]["bytes_purged"].get<uint64_t>(), 0u);
  EXPECT_EQ(j["passes"][1]["renders"].get<uint64_t>(), 12u);  // forward again: all evicted
  EXPECT_LE(j["overall"]["peak_memory"].get<uint64_t>(), 36864u);
  EXPECT_FALSE(std::filesystem::exists(dir.File("cache")));

  const uint64_t misses = j["misses"];
  EXPECT_EQ(SumOf(j["miss_reasons"]), misses) << j["miss_reasons"];
  uint64_t byClass = 0;
  for (const auto& [cls, reasons] : j["miss_reasons_by_class"].items()) byClass += SumOf(reasons);
  EXPECT_EQ(byClass, misses);
  EXPECT_GT(j["miss_reasons"]["memory_purge"].get<uint64_t>(), 0u) << j["miss_reasons"];
  const auto& frames = j["miss_reasons_by_class"]["JxSimFrame"];
  EXPECT_EQ(SumOf(frames),
            j["overall"]["renders"].get<uint64_t>() + j["overall"]["disk_hits"].get<uint64_t>())
      << frames;
  EXPECT_EQ(frames["never_seen"].get<uint64_t>(), 12u);

  // The text summary lists the same reasons.
  std::erase(args, std::string("--json"));
  auto text = RunTool(args);
  ASSERT_EQ(text.exitCode, 0) << text.err;
  EXPECT_NE(text.out.find("memory_purge"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("all misses"), std::string::npos);
}

// A name that is not valid UTF-8 is shown in the JSON with U+FFFD in place of its bad bytes.
TEST(Inspect, JsonSurvivesNamesThatAreNotUtf8) {
  TempDir dir;
  const std::string name = "frame\xff\xfe";
  const std::string replaced = "\xEF\xBF\xBD";  // U+FFFD
  std::filesystem::create_directories(dir.File("cache"));
  std::ofstream(dir.File("cache/" + name + ".kqcache")) << "x";
  const auto j = RunToolJson({"inspect", dir.File("cache"), "--json", "--limit", "0"});
  EXPECT_EQ(j["over_limit"], true) << "a limit of 0 is a limit";
  ASSERT_EQ(j["unparsed_names"].size(), 1u);
  const std::string shown = j["unparsed_names"][0]["name"];
  EXPECT_EQ(shown.rfind("frame" + replaced, 0), 0u) << shown;
  EXPECT_TRUE(shown.ends_with(".kqcache")) << shown;

  const auto s = RunToolJson({"simulate", "--frames", "2", "--width", "16", "--height", "16",
                              "--passes", "1", "--json", "--disk-cache", dir.File(name)});
  const std::string folder = s["disk"]["folder"];
  EXPECT_NE(folder.find(dir.path() + "/frame" + replaced), std::string::npos) << folder;

  std::ofstream(dir.File(name + ".csv")) << "1,5\n";
  const auto r = RunToolJson({"replay", dir.File(name + ".csv"), "--cache-size", "1k", "--json"});
  EXPECT_EQ(r["trace"], dir.File("frame" + replaced + replaced + ".csv"));
}

// The first fragment that would make a browser reach off the page, or nothing. Namespace
// declarations are never fetched, so they are left out.
std::string OffPageReference(std::string html) {
  for (size_t p = html.find(" xmlns"); p != std::string::npos; p = html.find(" xmlns", p)) {
    const size_t open = html.find('"', p), close = html.find('"', open + 1);
    if (open == std::string::npos || close == std::string::npos) return "unterminated xmlns";
    html.erase(p, close + 1 - p);
  }
  std::string lower = html;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const char* bad : {"http:", "https:", "//", "url(", "@import", "src=", "<link", "<script"}) {
    const size_t p = lower.find(bad);
    if (p != std::string::npos) return html.substr(p, 40);
  }
  for (size_t p = lower.find("href="); p != std::string::npos; p = lower.find("href=", p + 1)) {
    if (lower.compare(p, 7, "href=\"#") != 0 && lower.compare(p, 7, "href='#") != 0)
      return html.substr(p, 40);
  }
  return {};
}

TEST(Simulate, HtmlReportAndJsonRecordTheRun) {
  TempDir dir;
  auto args = SmallSession(dir, {"--report", dir.File("report.html")}, "64", "36");
  auto r = RunTool(args);
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string html = testing::ReadText(dir.File("report.html"));
  std::string why;
  EXPECT_TRUE(testing::IsWellFormedXml(html, &why)) << why;
  EXPECT_EQ(OffPageReference(html), "") << "the report must open with no network";
  // The miss reasons get a table of their own, one row per reason.
  EXPECT_NE(html.find("<table class=\"misses\">"), std::string::npos);
  EXPECT_NE(html.find("<th>pending_deadline</th>"), std::string::npos);
  // Memory, hit rate, frames/s, render times, disk size, write queue, pass and content strips.
  EXPECT_EQ(testing::Count(html, "<svg"), 8u);
  const size_t contentCells = testing::Count(html, "<rect class=\"content-cell\"");
  EXPECT_EQ(testing::Count(html, "<title>frame ") - contentCells, 3u * 12);  // one per request
  // A cell per frame (12) for each content map: at least the end of each of the 3 passes.
  EXPECT_EQ(contentCells % 12, 0u);
  EXPECT_GE(contentCells, 3u * 12);
  EXPECT_NE(html.find(">pass 3 end<"), std::string::npos);

  const auto j = r.Json();
  const auto& run = j["run"];
  EXPECT_EQ(run["command_line"].size(), args.size() + 1);  // the program's name first
  EXPECT_EQ(run["command_line"].back(), args.back());
  EXPECT_FALSE(run["version"].get<std::string>().empty());
  EXPECT_EQ(run["started_at"].get<std::string>().size(), 20u);  // 2024-05-01T09:30:00Z
  EXPECT_NE(html.find(run["host"].get<std::string>()), std::string::npos);
  EXPECT_NE(html.find(run["started_at"].get<std::string>()), std::string::npos);
  EXPECT_NE(html.find(run["version"].get<std::string>()), std::string::npos);

  // A sample at the start and at the end of each pass, in time order, up to every request.
  const auto& series = j["time_series"];
  ASSERT_GE(series.size(), 1u + 3);
  EXPECT_EQ(series[0]["frames_done"], 0);
  double last = -1;
  uint64_t done = 0;
  for (const auto& p : series) {
    EXPECT_GE(p["seconds"].get<double>(), last);
    EXPECT_GE(p["frames_done"].get<uint64_t>(), done);
    last = p["seconds"];
    done = p["frames_done"];
    if (!p["hit_rate"].is_null()) {
      EXPECT_GE(p["hit_rate"].get<double>(), 0.0);
      EXPECT_LE(p["hit_rate"].get<double>(), 1.0);
    }
    EXPECT_GE(p["frames_per_second"].get<double>(), 0.0);
    EXPECT_GT(p["memory_bytes"].get<uint64_t>(), 0u);  // the host's media at least
    EXPECT_TRUE(p["write_queue"].is_number_unsigned());
  }
  EXPECT_EQ(done, j["overall"]["requests"].get<uint64_t>());
  EXPECT_EQ(series.back()["hits"].get<uint64_t>(), j["overall"]["memory_hits"].get<uint64_t>() +
                                                       j["overall"]["disk_hits"].get<uint64_t>());
  EXPECT_EQ(series.back()["write_queue"], 0) << "the writer drained before the end";
  EXPECT_EQ(j["render_time_ms"]["renders_timed"], j["overall"]["renders"]);
}

// The checks themselves catch what they are there for.
TEST(Simulate, ReportChecksRejectWhatABrowserWouldNot) {
  std::string why;
  for (const char* bad :
       {"<a><b></a></b>", "<a x=1/>", "<a>&nbsp;</a>", "<a/><b/>", "<a></a>tail", "lead<a></a>",
        "<a><b></c></a>", "<a x='1'y='2'/>", "<a><!-- open </a>", "<a>", "", "<a>&#xZ;</a>"}) {
    EXPECT_FALSE(testing::IsWellFormedXml(bad, &why)) << bad;
  }
  const char* good = "<!DOCTYPE html>\n<a q=\"&amp;\"><!-- c --><b/>t&#233;&#xE9;</a>\n";
  EXPECT_TRUE(testing::IsWellFormedXml(good, &why)) << why;

  const std::string page = "<html xmlns=\"http://www.w3.org/1999/xhtml\"><a href=\"#top\">x</a>";
  EXPECT_EQ(OffPageReference(page), "");
  for (const char* fetch : {"<img src=\"a.png\"/>", "<a href=\"x.html\">", "<a href=\"//host/\">",
                            "<style>@import 'x.css';</style>", "<rect fill=\"url(#g)\"/>",
                            "<p>see https://example.org</p>", "<LINK rel=\"icon\"/>"}) {
    EXPECT_NE(OffPageReference(page + fetch), "") << fetch;
  }
}

}  // namespace
}  // namespace jx::tool
