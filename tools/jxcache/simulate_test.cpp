// `simulate` and `inspect` on small sessions: the figures add up, agree with each other and with
// what the folder holds, a second run starts warm, and the report is well-formed XML.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "jxcache/items/checksummed_stream.h"
#include "tools/jxcache/tool_test_support.h"

namespace jx::tool {
namespace {

using testing::RunTool;
using testing::TempDir;

// Twelve frames on three threads. Whether a frame is worth a disk file depends on how its render
// time compares with the read speed the cache has measured, which varies from machine to machine.
// The host's "Proclivity Multiplier 2" preference divides that speed by a thousand, so any frame
// whose render takes longer than the rule's 1 ms floor for a read is worth writing; a full-size
// frame takes tens of milliseconds to render, well clear of it.
std::vector<std::string> SmallSession(const TempDir& dir, std::vector<std::string> extra = {},
                                      const char* width = "1280", const char* height = "720") {
  std::vector<std::string> args = {"simulate", "--frames", "12", "--width", width, "--height",
                                   height, "--threads", "3", "--json", "--disk-cache",
                                   dir.File("cache"),
                                   // the test writes whatever the volume has left
                                   "--disk-margin", "0"};
  args.insert(args.end(), extra.begin(), extra.end());
  return args;
}

std::vector<std::string> WritingSession(const TempDir& dir) {
  return SmallSession(dir, {"--disk-proclivity", "0.001"});
}

void ExpectPassesAddUp(const nlohmann::json& j) {
  uint64_t requests = 0, renders = 0, memory = 0, disk = 0;
  for (const auto& p : j["passes"]) {
    const uint64_t n = p["requests"];
    EXPECT_EQ(n, j["options"]["frames"].get<uint64_t>());
    EXPECT_EQ(n, p["memory_hits"].get<uint64_t>() + p["disk_hits"].get<uint64_t>() +
                     p["renders"].get<uint64_t>());
    EXPECT_EQ(p["frames_checked"].get<uint64_t>(), n);  // every frame served, rendered or not
    EXPECT_EQ(p["bad_frames"].get<uint64_t>(), 0u);
    requests += n;
    renders += p["renders"].get<uint64_t>();
    memory += p["memory_hits"].get<uint64_t>();
    disk += p["disk_hits"].get<uint64_t>();
  }
  EXPECT_EQ(j["overall"]["requests"].get<uint64_t>(), requests);
  EXPECT_EQ(j["overall"]["renders"].get<uint64_t>(), renders);
  EXPECT_EQ(j["overall"]["memory_hits"].get<uint64_t>(), memory);
  EXPECT_EQ(j["overall"]["disk_hits"].get<uint64_t>(), disk);
  // A render happens only when the cache holds no copy of the frame.
  const auto& o = j["overall"];
  EXPECT_EQ(o["renders_while_in_memory"].get<uint64_t>(), 0u);
  EXPECT_EQ(o["first_renders"].get<uint64_t>() + o["renders_after_purge"].get<uint64_t>(), renders);
  // Every served frame asks the plug-in for its histogram once. The compute callback counts the
  // computes, the caller the answers it got without one: together they are every call.
  const auto& c = j["compute_cache"];
  ASSERT_TRUE(c["available"].get<bool>());
  EXPECT_EQ(c["calls"].get<uint64_t>(), requests);
  EXPECT_EQ(c["failures"].get<uint64_t>(), 0u);
  EXPECT_EQ(c["computes"].get<uint64_t>() + c["hits"].get<uint64_t>(), requests);
}

uint64_t Refused(const nlohmann::json& disk) {
  uint64_t n = 0;
  for (const auto& [reason, count] : disk["writes_refused"].items()) n += count.get<uint64_t>();
  return n;
}

TEST(Simulate, FiguresAddUpAndTheSecondRunStartsWarm) {
  TempDir dir;
  auto first = RunTool(WritingSession(dir));
  ASSERT_EQ(first.exitCode, 0) << first.err;
  const auto a = first.Json();
  ExpectPassesAddUp(a);
  // The whole timeline fits in memory: every frame is rendered once, and only once, however many
  // threads want it.
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
  EXPECT_EQ(a["disk"]["write_requests"].get<uint64_t>() + Refused(a["disk"]), 12u);
  EXPECT_EQ(Refused(a["disk"]), 0u) << a["disk"]["writes_refused"];
  EXPECT_EQ(a["disk"]["writes_skipped"].get<uint64_t>(), 0u);
  const uint64_t written = a["disk"]["files_written"];
  EXPECT_EQ(written, 12u);
  // Each file holds the pixels and their checksum.
  EXPECT_EQ(a["disk"]["bytes_written"].get<uint64_t>(),
            12 * (a["frame_bytes"].get<uint64_t>() + jx::kChecksumTrailerSize));
  EXPECT_EQ(a["disk"]["bytes_written"].get<uint64_t>(), a["disk"]["folder_bytes"].get<uint64_t>());

  // A second run on the same folder: what the first wrote is found and read back, not rendered.
  auto second = RunTool(WritingSession(dir));
  ASSERT_EQ(second.exitCode, 0) << second.err;
  const auto b = second.Json();
  ExpectPassesAddUp(b);
  EXPECT_EQ(b["disk"]["files_at_start"].get<uint64_t>(), written);
  // Read back by the render threads (disk hits) or, ahead of them, by the read-ahead (memory
  // hits then): either way each file once.
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
  auto inspect = RunTool({"inspect", dir.File("cache"), "--json", "--limit", "1KiB"});
  ASSERT_EQ(inspect.exitCode, 0) << inspect.err;
  const auto c = inspect.Json();
  EXPECT_EQ(c["cache_files"]["files"].get<uint64_t>(),
            written + b["disk"]["files_written"].get<uint64_t>());
  EXPECT_EQ(c["cache_files"]["bytes"].get<uint64_t>(), b["disk"]["folder_bytes"].get<uint64_t>());
  EXPECT_EQ(c["by_class"]["JxSimFrame"]["files"], c["cache_files"]["files"]);
  EXPECT_EQ(c["by_version"]["1"]["files"], c["cache_files"]["files"]);
  EXPECT_TRUE(c["over_limit"].get<bool>());
}

TEST(Simulate, SmallBudgetForcesPurgesAndRendersAgain) {
  TempDir dir;
  // A 36 KiB budget, an eighth of it taken by the host's own media: three frames of 64x36x4 bytes
  // fit, the timeline of 12 does not. One render thread: the eviction order is then exactly the
  // request order.
  auto args = SmallSession(dir, {"--no-disk", "--memory", "36864", "--passes", "2"}, "64", "36");
  *(std::find(args.begin(), args.end(), "--threads") + 1) = "1";
  auto r = RunTool(args);
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const auto j = r.Json();
  ExpectPassesAddUp(j);
  EXPECT_FALSE(j["disk"]["available"].get<bool>());
  EXPECT_GT(j["overall"]["purges"].get<uint64_t>(), 0u);
  EXPECT_GT(j["overall"]["bytes_purged"].get<uint64_t>(), 0u);
  EXPECT_EQ(j["passes"][1]["renders"].get<uint64_t>(), 12u);  // forward again: all evicted
  EXPECT_LE(j["overall"]["peak_memory"].get<uint64_t>(), 36864u);
  EXPECT_FALSE(std::filesystem::exists(dir.File("cache")));
}

// A forward pass over frames that are on disk only: a budget of about 25 frames and a timeline of
// 48, so that the second pass finds nothing of its first half in memory and, without read-ahead,
// evicts its second half before it gets there. Paced at 100 frames/s, as a viewer plays, which
// leaves the read-ahead time to keep ahead of one render thread.
TEST(Simulate, ReadAheadServesAForwardPassOverFramesOnDiskFromMemory) {
  auto run = [](const TempDir& dir, const char* readAhead) {
    auto args = SmallSession(dir,
                             {"--disk-proclivity", "0.001", "--memory", "4MiB", "--passes", "2",
                              "--fps", "100", "--read-ahead", readAhead},
                             "256", "144");
    *(std::find(args.begin(), args.end(), "--threads") + 1) = "1";
    *(std::find(args.begin(), args.end(), "--frames") + 1) = "48";
    auto r = RunTool(args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return r.Json();
  };
  TempDir off, on;
  const auto without = run(off, "0");
  const auto with = run(on, "4");
  ExpectPassesAddUp(with);
  for (const auto& j : {without, with}) {
    for (const auto& p : j["passes"]) EXPECT_TRUE(p.contains("late_frames"));
  }
  EXPECT_FALSE(without["readahead"]["used"].get<bool>());
  const auto& ra = with["readahead"];
  ASSERT_TRUE(ra["used"].get<bool>());
  const uint64_t prefetched = ra["prefetched"];
  EXPECT_GT(prefetched, 0u);
  // Everything read ahead was let go by the end of its pass, used or not.
  EXPECT_EQ(ra["hits_on_prefetched"].get<uint64_t>() + ra["wasted"].get<uint64_t>(), prefetched);
  EXPECT_EQ(ra["failed_reads"].get<uint64_t>(), 0u);
  const uint64_t hitsWithout = without["passes"][1]["memory_hits"];
  const uint64_t hitsWith = with["passes"][1]["memory_hits"];
  EXPECT_LT(hitsWithout, 12u) << "the second pass should have found its frames on disk only";
  EXPECT_GE(hitsWith, 36u) << "read-ahead should have served most of the pass from memory";
  EXPECT_LE(with["overall"]["peak_memory"].get<uint64_t>(), 4u << 20);
}

TEST(Simulate, PlaybackOptionsAreChecked) {
  TempDir dir;
  for (const auto& bad : std::vector<std::vector<std::string>>{
           {"--fps", "-1"}, {"--fps", "nan"}, {"--read-ahead", "100000"}}) {
    auto args = SmallSession(dir, bad, "16", "16");
    const auto r = RunTool(args);
    EXPECT_EQ(r.exitCode, 2) << bad[0] << " " << bad[1];
  }
}

// Several threads scrubbing around a playhead want the same frames at the same time, and a small
// budget makes the cache purge frames they will want again. A frame is rendered once each time
// the cache is without it, never while another copy is in memory or being rendered. The ledger
// behind these figures follows the cache's own purge calls, not the clock.
TEST(Simulate, ThreadsWantingTheSameFrameRenderItOnce) {
  TempDir dir;
  // 48 frames of 9 KiB under a 72 KiB budget: about six fit beside the host's media.
  auto args = SmallSession(dir, {"--no-disk", "--memory", "72KiB", "--passes", "5"}, "64", "36");
  *(std::find(args.begin(), args.end(), "--frames") + 1) = "48";
  *(std::find(args.begin(), args.end(), "--threads") + 1) = "4";
  auto r = RunTool(args);
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const auto j = r.Json();
  ExpectPassesAddUp(j);
  const auto& o = j["overall"];
  EXPECT_EQ(o["renders_while_in_memory"].get<uint64_t>(), 0u);
  EXPECT_EQ(o["first_renders"].get<uint64_t>(), 48u);  // nothing cached at the start
  EXPECT_GT(o["renders_after_purge"].get<uint64_t>(), 0u) << "the budget forced no re-render";
  EXPECT_GT(o["purges"].get<uint64_t>(), 0u);
}

// The library's misses in the JSON: each counts one reason, overall and per class, and frames the
// budget pushed out miss because of a purge. Every render and every read back from disk follows a
// miss of its frame.
TEST(Simulate, MissReasonsAddUpToTheMissesAndShowThePurges) {
  TempDir dir;
  auto args = SmallSession(dir, {"--no-disk", "--memory", "36864", "--passes", "2"}, "64", "36");
  *(std::find(args.begin(), args.end(), "--threads") + 1) = "1";
  auto r = RunTool(args);
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const auto j = r.Json();
  const uint64_t misses = j["misses"];
  uint64_t sum = 0;
  for (const auto& [reason, n] : j["miss_reasons"].items()) sum += n.get<uint64_t>();
  EXPECT_EQ(sum, misses) << j["miss_reasons"];
  uint64_t byClass = 0;
  for (const auto& [cls, reasons] : j["miss_reasons_by_class"].items()) {
    for (const auto& [reason, n] : reasons.items()) byClass += n.get<uint64_t>();
  }
  EXPECT_EQ(byClass, misses);
  EXPECT_GT(j["miss_reasons"]["memory_purge"].get<uint64_t>(), 0u) << j["miss_reasons"];
  const auto& frames = j["miss_reasons_by_class"]["JxSimFrame"];
  uint64_t frameMisses = 0;
  for (const auto& [reason, n] : frames.items()) frameMisses += n.get<uint64_t>();
  EXPECT_EQ(frameMisses,
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

// Names are bytes; JSON is UTF-8. A name that is not valid UTF-8 is shown with U+FFFD in place of
// its bad bytes, whichever subcommand prints it.
TEST(Inspect, JsonSurvivesNamesThatAreNotUtf8) {
  TempDir dir;
  const std::string name = "frame\xff\xfe";
  const std::string replaced = "\xEF\xBF\xBD";  // U+FFFD
  std::filesystem::create_directories(dir.File("cache"));
  std::ofstream(dir.File("cache/" + name + ".kqcache")) << "x";
  auto r = RunTool({"inspect", dir.File("cache"), "--json"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const auto j = r.Json();
  ASSERT_EQ(j["unparsed_names"].size(), 1u);
  const std::string shown = j["unparsed_names"][0]["name"];
  EXPECT_EQ(shown.rfind("frame" + replaced, 0), 0u) << shown;
  EXPECT_TRUE(shown.ends_with(".kqcache")) << shown;

  auto s = RunTool({"simulate", "--frames", "2", "--width", "16", "--height", "16", "--passes", "1",
                    "--json", "--disk-cache", dir.File(name)});
  ASSERT_EQ(s.exitCode, 0) << s.err;
  const std::string folder = s.Json()["disk"]["folder"];
  EXPECT_NE(folder.find(dir.path() + "/frame" + replaced), std::string::npos) << folder;
}

// What in a page would make a browser reach off the page: a scheme, a protocol-relative or
// external address, a style sheet import or url(), a src, an href other than to the page itself.
// Namespace declarations name a namespace and are never fetched, so they are left out. Returns
// the first such fragment, or nothing.
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

// The real binary, with a disk cache folder whose name is markup: the report must show it as
// text, and the JSON must carry the run's time series and metadata.
TEST(Simulate, HtmlReportAndJsonRecordTheRun) {
  TempDir dir;
  const std::string hostile = dir.File("x</script><b>y");
  auto args = SmallSession(dir, {"--report", dir.File("report.html")}, "64", "36");
  *(std::find(args.begin(), args.end(), "--disk-cache") + 1) = hostile;
  auto r = RunTool(args);
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::ifstream in(dir.File("report.html"));
  std::stringstream s;
  s << in.rdbuf();
  const std::string html = s.str();
  std::string why;
  EXPECT_TRUE(testing::IsWellFormedXml(html, &why)) << why;
  EXPECT_EQ(OffPageReference(html), "") << "the report must open with no network";
  EXPECT_EQ(html.find("<b>"), std::string::npos);
  EXPECT_NE(html.find("x&lt;/script&gt;&lt;b&gt;y"), std::string::npos);
  // The miss reasons get a table of their own, one row per reason.
  EXPECT_NE(html.find("<table class=\"misses\">"), std::string::npos);
  EXPECT_NE(html.find("<th>pending_deadline</th>"), std::string::npos);
  size_t svgs = 0, cells = 0;
  for (size_t p = html.find("<svg"); p != std::string::npos; p = html.find("<svg", p + 1)) ++svgs;
  for (size_t p = html.find("<title>frame "); p != std::string::npos;
       p = html.find("<title>frame ", p + 1))
    ++cells;
  // Memory, hit rate, frames/s, render times, disk size, write queue, the pass strips and the
  // content strips.
  EXPECT_EQ(svgs, 8u);
  size_t contentCells = 0;
  const std::string cellTag = "<rect class=\"content-cell\"";
  for (size_t p = html.find(cellTag); p != std::string::npos; p = html.find(cellTag, p + 1))
    ++contentCells;
  EXPECT_EQ(cells - contentCells, 3u * 12);  // a cell per request of each pass
  // A cell per frame (12) for each content map: at least the end of each of the 3 passes.
  EXPECT_EQ(contentCells % 12, 0u);
  EXPECT_GE(contentCells, 3u * 12);
  EXPECT_NE(html.find(">pass 3 end<"), std::string::npos);

  const auto j = r.Json();
  const auto& run = j["run"];
  EXPECT_EQ(run["command_line"].size(), args.size() + 1);  // the program's name first
  EXPECT_EQ(run["command_line"].back(), args.back());
  EXPECT_FALSE(run["version"].get<std::string>().empty());
  EXPECT_NE(html.find(run["host"].get<std::string>()), std::string::npos);
  EXPECT_NE(html.find(run["started_at"].get<std::string>()), std::string::npos);
  EXPECT_NE(html.find(run["version"].get<std::string>()), std::string::npos);

  // One sample at the start and at least one at the end of each pass, in time order, counting up
  // to every request served.
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
