// The report's building blocks on their own, then a report rendered from a made-up session.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tools/jxcache/html_report.h"
#include "tools/jxcache/run_info.h"
#include "tools/jxcache/summary.h"
#include "tools/jxcache/svg_chart.h"
#include "tools/jxcache/time_series.h"
#include "tools/jxcache/tool_test_support.h"

namespace jx::tool {
namespace {

// Whether `step` is 1, 2 or 5 times a power of ten.
bool IsOneTwoFive(double step) {
  const double mantissa = step / std::pow(10.0, std::floor(std::log10(step) + 1e-9));
  for (double m : {1.0, 2.0, 5.0, 10.0})
    if (std::abs(mantissa - m) < 1e-6) return true;
  return false;
}

TEST(NiceTicks, RoundValuesCoveringTheRange) {
  const std::pair<double, double> ranges[] = {
      {0, 1},        {0, 7.3},       {0, 256},    {0.003, 0.0171}, {0, 1e9},
      {13, 987},     {-42, 17},      {0, 4.213},  {0, 100},        {99.5, 100.5},
      {0, 0.000123}, {1e6, 1e6 + 3}, {0, 1023.9}, {250, 251}};
  for (const auto& [lo, hi] : ranges) {
    for (int most : {3, 5, 8, 25}) {
      const Ticks t = NiceTicks(lo, hi, most);
      SCOPED_TRACE(std::to_string(lo) + ".." + std::to_string(hi) + " in " + std::to_string(most));
      ASSERT_GE(t.values.size(), 2u);
      EXPECT_LE(t.values.size(), static_cast<size_t>(most) + 1);
      EXPECT_TRUE(IsOneTwoFive(t.step)) << t.step;
      EXPECT_LE(t.first(), lo);
      EXPECT_GE(t.last(), hi);
      for (size_t i = 0; i < t.values.size(); ++i) {
        const double k = t.values[i] / t.step;
        EXPECT_NEAR(k, std::round(k), 1e-6) << t.values[i] << " is not a multiple of the step";
        if (i > 0) {
          EXPECT_NEAR(t.values[i] - t.values[i - 1], t.step, t.step * 1e-6);
        }
      }
      // Covering, not padding: the ticks end within a step of the range.
      EXPECT_GT(t.first() + t.step, lo);
      EXPECT_LT(t.last() - t.step, hi);
    }
  }
  // The steps a reader expects.
  EXPECT_EQ(NiceTicks(0, 7.3, 5).values, (std::vector<double>{0, 2, 4, 6, 8}));
  EXPECT_EQ(NiceTicks(0, 100, 5).values, (std::vector<double>{0, 20, 40, 60, 80, 100}));
  EXPECT_EQ(NiceTicks(0, 3.9, 8).step, 0.5);
  // A flat or empty range still gets an axis.
  EXPECT_GE(NiceTicks(0, 0).values.size(), 2u);
  EXPECT_GE(NiceTicks(5, 5).values.size(), 2u);
  EXPECT_GE(NiceTicks(NAN, 3).values.size(), 2u);
}

TEST(NiceTicks, LabelsCarryTheDecimalsOfTheStep) {
  EXPECT_EQ(TickLabel(40, 20), "40");
  EXPECT_EQ(TickLabel(0.25, 0.05), "0.25");
  EXPECT_EQ(TickLabel(1.5, 0.5), "1.5");
  // 0.1 + 0.2 computed any other way would print its error.
  const Ticks t = NiceTicks(0, 0.7, 7);
  EXPECT_EQ(TickLabel(t.values[3], t.step), "0.3");
  EXPECT_STREQ(ByteUnitFor(300.0 * 1024 * 1024).name, "MiB");
  EXPECT_STREQ(ByteUnitFor(1000).name, "B");
}

TEST(XmlEscape, HostileTextBecomesCharacterData) {
  EXPECT_EQ(XmlEscape("</script><b>x</b>"), "&lt;/script&gt;&lt;b&gt;x&lt;/b&gt;");
  EXPECT_EQ(XmlEscape("a&b \"q\" 'r'"), "a&amp;b &quot;q&quot; &#39;r&#39;");
  // Valid UTF-8 passes through; what XML cannot carry becomes U+FFFD.
  EXPECT_EQ(XmlEscape("caf\xC3\xA9 \xE2\x82\xAC"), "caf\xC3\xA9 \xE2\x82\xAC");
  const std::string bad = "\xEF\xBF\xBD";
  EXPECT_EQ(XmlEscape(std::string("a\x01") + "b"), "a" + bad + "b");
  EXPECT_EQ(XmlEscape("\xFF\xFE"), bad + bad);
  EXPECT_EQ(XmlEscape("\xC3"), bad);                      // cut short
  EXPECT_EQ(XmlEscape("\xC0\xAF"), bad + bad);            // an overlong "/"
  EXPECT_EQ(XmlEscape("\xED\xA0\x80"), bad + bad + bad);  // a surrogate
  EXPECT_EQ(XmlEscape("tab\tnl\n"), "tab\tnl\n");
}

TEST(RunInfo, CommandLineQuotedForAShell) {
  EXPECT_EQ(ShellCommandLine({"jxcache", "simulate", "--frames", "12"}),
            "jxcache simulate --frames 12");
  EXPECT_EQ(ShellCommandLine({"a b", "it's", ""}), "'a b' 'it'\\''s' ''");
}

TEST(SeriesRecorder, StaysBoundedAndSpansTheWholeRun) {
  SeriesRecorder rec(0.1, 16);
  rec.Offer({0.0});
  rec.Offer({0.05});  // too soon: dropped
  EXPECT_EQ(rec.Samples().size(), 1u);
  rec.Offer({0.06}, /*force=*/true);
  EXPECT_EQ(rec.Samples().size(), 2u);
  for (int i = 1; i <= 1000; ++i) rec.Offer({i * 0.1, 0, static_cast<uint64_t>(i)});
  const auto& s = rec.Samples();
  EXPECT_LE(s.size(), 16u);
  EXPECT_GE(s.size(), 8u);
  EXPECT_EQ(s.front().seconds, 0.0);       // the start is kept
  EXPECT_GT(s.back().seconds, 100.0 - 8);  // and the recent past
  EXPECT_GE(rec.Interval(), 100.0 / 16);   // the spacing grew with the run
  for (size_t i = 1; i < s.size(); ++i) EXPECT_GT(s[i].seconds, s[i - 1].seconds);
  rec.Offer({1.0}, true);  // back in time: refused
  EXPECT_GT(rec.Samples().back().seconds, 1.0);
}

TEST(SeriesRecorder, RatesBetweenSamples) {
  const auto p = WithRates({{0.0, 0, 0, 0}, {0.5, 0, 10, 4}, {1.0, 0, 10, 4}, {2.0, 1, 40, 34}});
  ASSERT_EQ(p.size(), 4u);
  EXPECT_FALSE(p[0].hitRate);
  EXPECT_DOUBLE_EQ(p[1].framesPerSecond, 20.0);
  EXPECT_DOUBLE_EQ(*p[1].hitRate, 0.4);
  EXPECT_FALSE(p[2].hitRate) << "no request served: no rate to give";
  EXPECT_DOUBLE_EQ(p[2].framesPerSecond, 0.0);
  EXPECT_DOUBLE_EQ(*p[3].hitRate, 1.0);
}

TEST(PurgeLog, MergingKeepsEveryByteAndPurge) {
  PurgeLog log(8);
  uint64_t bytes = 0;
  for (int i = 0; i < 100; ++i) {
    log.Add(i * 0.01, 1000 + i);
    bytes += 1000 + i;
  }
  EXPECT_LE(log.Events().size(), 8u);
  uint64_t sumBytes = 0, sumPurges = 0;
  for (const PurgeEvent& e : log.Events()) {
    sumBytes += e.bytesFreed;
    sumPurges += e.purges;
  }
  EXPECT_EQ(sumBytes, bytes);
  EXPECT_EQ(sumPurges, 100u);
  EXPECT_EQ(log.Events().front().seconds, 0.0);
  // Thinned evenly: neither the early purges in one entry nor the recent ones left unmerged.
  EXPECT_GE(log.Events().size(), 3u);
  for (const PurgeEvent& e : log.Events()) EXPECT_LE(e.purges, 50u) << "at " << e.seconds;
  EXPECT_GT(log.Events().back().purges, 1u);
}

TEST(RenderTimes, SampleIsBoundedAndUnbiased) {
  RenderTimes times(1000, 7);
  for (int i = 0; i < 100000; ++i) times.Add(i < 50000 ? 1.0 : 3.0);
  EXPECT_EQ(times.Count(), 100000u);
  const std::vector<double> kept = times.Take();
  ASSERT_EQ(kept.size(), 1000u);
  double mean = 0;
  for (double v : kept) mean += v / kept.size();
  // Keeping only the first thousand would give 1.0; a fair sample gives about 2.
  EXPECT_NEAR(mean, 2.0, 0.2);
}

// A small made-up session, with hostile text wherever text from outside reaches the page.
SessionResult MadeUpSession() {
  SessionResult r;
  r.options.frames = 4;
  r.options.passes = 2;
  r.frameBytes = 1280 * 720 * 4;
  r.disk = {true, ""};
  r.diskFolder = "/tmp/</script><b>cache";
  r.mediaMap = {false, "off & <out>"};
  r.compute = {true, ""};
  r.run = {"0.1.0",
           "2024-05-01T09:30:00Z",
           {"jxcache", "simulate", "--disk-cache", "/tmp/</script><b>bold", "--x=\"q\""},
           "render-07"};
  for (uint32_t p = 0; p < 2; ++p) {
    PassResult pass;
    pass.kind = p ? "scrub" : "forward";
    pass.frames = {0, 1, 2, 3};
    pass.outcomes.assign(4, p ? Outcome::kMemoryHit : Outcome::kRendered);
    (p ? pass.memoryHits : pass.renders) = 4;
    pass.seconds = 0.5;
    r.passes.push_back(pass);
  }
  for (int i = 0; i <= 10; ++i) {
    r.samples.push_back({i * 0.1, uint64_t(i) << 20, uint64_t(i) << 19, i < 5 ? 0u : 1u});
    r.series.push_back({i * 0.1, i < 5 ? 0u : 1u, uint64_t(i * 8 / 10),
                        uint64_t(i < 5 ? 0 : (i - 5) * 8 / 10), uint64_t(i) << 20,
                        uint64_t(i) << 19, uint64_t(i % 3)});
  }
  r.seriesInterval = 0.1;
  r.purgeEvents = {{0.3, 5 << 20, 1}, {0.7, 9 << 20, 3}};
  for (int i = 0; i < 100; ++i) r.renderMs.push_back(20 + i % 10);
  r.renderMs.push_back(400);  // one slow render among a hundred quick ones
  r.renderTimesSeen = r.renderMs.size();
  r.seconds = 1.0;
  return r;
}

TEST(HtmlReport, EscapesHostileTextAndCarriesTheMetadata) {
  const std::string html = RenderHtmlReport(MadeUpSession());
  std::string why;
  EXPECT_TRUE(testing::IsWellFormedXml(html, &why)) << why;
  EXPECT_EQ(html.find("<b>"), std::string::npos) << "markup from the command line got through";
  EXPECT_EQ(html.find("</script>"), std::string::npos);
  EXPECT_NE(html.find("/tmp/&lt;/script&gt;&lt;b&gt;bold"), std::string::npos);
  EXPECT_NE(html.find("off &amp; &lt;out&gt;"), std::string::npos);
  // The metadata and the main settings, each where a reader looks for it.
  for (const char* text : {"0.1.0", "2024-05-01T09:30:00Z", "render-07", "jxcache simulate --disk",
                           "memory budget", "render threads", "256 MiB"}) {
    EXPECT_NE(html.find(text), std::string::npos) << text;
  }
  // Summary figures are table cells, not a preformatted dump.
  EXPECT_EQ(html.find("<pre"), std::string::npos);
  EXPECT_NE(html.find("<table class=\"passes\">"), std::string::npos);
  // Every memory sample of a short run is a point of its line.
  const std::string line = "<polyline class=\"line\" points=\"";
  const size_t from = html.find(line) + line.size();
  const std::string points = html.substr(from, html.find('"', from) - from);
  EXPECT_EQ(static_cast<size_t>(std::count(points.begin(), points.end(), ',')), 11u) << points;
  // Charts scale with the page.
  EXPECT_EQ(html.find("width=\"760\""), std::string::npos);
  EXPECT_NE(html.find("width=\"100%\" viewBox="), std::string::npos);
  // Purges are marked with what they freed; the slow render is counted, not dropped.
  EXPECT_NE(html.find("purge at 0.30 s: 5.00 MiB freed"), std::string::npos);
  EXPECT_NE(html.find("3 purges from 0.70 s: 9.00 MiB freed"), std::string::npos);
  EXPECT_NE(html.find("counted in the last bar"), std::string::npos);
}

// An hour of 20 ms samples must not make an hour-sized page, nor lose the moment memory peaked.
TEST(HtmlReport, LongRunsStayReadableAndKeepTheirPeaks) {
  SessionResult r = MadeUpSession();
  r.samples.clear();
  const size_t n = 180000, peakAt = 123457;
  for (size_t i = 0; i < n; ++i)
    r.samples.push_back({i * 0.02, (i == peakAt ? 900ull : 100ull) << 20, 0, 1});
  r.options.memoryBudget = 1ull << 30;
  const std::string html = RenderHtmlReport(r);
  EXPECT_LT(html.size(), 1u << 20);
  const std::string open = "<polyline class=\"line\" points=\"";
  const size_t from = html.find(open) + open.size();
  const std::string points = html.substr(from, html.find('"', from) - from);
  std::vector<double> ys;
  for (size_t p = points.find(','); p != std::string::npos; p = points.find(',', p + 1))
    ys.push_back(std::stod(points.substr(p + 1)));
  EXPECT_LE(ys.size(), 4100u);
  EXPECT_GE(ys.size(), 1000u) << "the line must still cover the run";
  // The peak is drawn, once, above every other point (SVG y grows downwards).
  const double top = *std::min_element(ys.begin(), ys.end());
  EXPECT_EQ(std::count(ys.begin(), ys.end(), top), 1);
  EXPECT_LT(top, *std::max_element(ys.begin(), ys.end()));
}

// One strip per content map, one cell per frame coloured by its state; none without maps.
TEST(HtmlReport, ContentStripsHaveACellPerFramePerMoment) {
  SessionResult r = MadeUpSession();
  EXPECT_EQ(RenderHtmlReport(r).find("content-cell"), std::string::npos);
  constexpr size_t kFrames = 37;
  const FrameState cycle[] = {FrameState::kAbsent, FrameState::kInMemory, FrameState::kOnDiskOnly,
                              FrameState::kBoth, FrameState::kPending};
  for (uint32_t m = 0; m < 3; ++m) {
    ContentMoment moment;
    moment.pass = m < 2 ? 0 : 1;
    moment.passEnded = m != 0;
    moment.requestsDone = m == 0 ? 2 : 4;
    for (size_t f = 0; f < kFrames; ++f) moment.frames.push_back(cycle[(f + m) % 5]);
    r.contentMoments.push_back(moment);
  }
  const std::string html = RenderHtmlReport(r);
  std::string why;
  EXPECT_TRUE(testing::IsWellFormedXml(html, &why)) << why;
  EXPECT_EQ(testing::Count(html, "<rect class=\"content-cell\""), 3 * kFrames);
  EXPECT_EQ(testing::Count(html, "frame 7: on disk only"), 1u) << "moment 0: frame 7 is state 2";
  EXPECT_EQ(testing::Count(html, "frame 7: in memory and on disk"), 1u) << "moment 1";
  EXPECT_EQ(testing::Count(html, "frame 2: being rendered"), 1u) << "moment 2";
  EXPECT_NE(html.find(">pass 1 50%<"), std::string::npos);
  EXPECT_NE(html.find(">pass 1 end<"), std::string::npos);
  EXPECT_NE(html.find(">pass 2 end<"), std::string::npos);
}

// The JSON carries outside text as it was, not escaped for a page.
TEST(SummaryJson, CarriesTheRecordings) {
  const SessionResult r = MadeUpSession();
  const auto j = SummaryJson(r);
  EXPECT_EQ(j["run"]["command_line"][3], "/tmp/</script><b>bold");
  ASSERT_EQ(j["time_series"].size(), r.series.size());
  EXPECT_TRUE(j["time_series"][0]["hit_rate"].is_null());
  EXPECT_EQ(j["time_series"][10]["write_queue"], 1);
  EXPECT_EQ(j["render_time_ms"]["max"], 400.0);
  EXPECT_EQ(j["purge_events"][1]["purges"], 3);
}

}  // namespace
}  // namespace jx::tool
