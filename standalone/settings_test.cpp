// Settings, tracing, profiling, feature flags and preferences.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "host/trace.h"
#include "host/y_api.h"
#include "jxcache/host/profiler.h"
#include "standalone/debug_database.h"
#include "standalone/standalone_settings.h"

namespace {

// The settings database and the feature registry read the environment once, on first use, and
// an earlier test in the same program may already have used them. So the environment is set
// here, during static initialisation: before main() and before the features below register.
struct EnvironmentSeed {
  std::string path = "/tmp/jx_settings_test." + std::to_string(getpid());
  std::string tracePath = "/tmp/jx_trace_test." + std::to_string(getpid());
  EnvironmentSeed() {
    std::ofstream(path) << "# a comment=not an entry\n  SettingsTest.Int =  42 \r\n"
                        << "SettingsTest.Text=a=b\nnot a setting\n = no name\n";
    setenv("JX_SETTINGS", path.c_str(), 1);
    setenv("JX_FEATURES", "SettingsTest.EnvOn, SettingsTest.EnvOnDefaultOff", 1);
    std::remove(tracePath.c_str());
    setenv("JX_TRACE", "SettingsTest.Env:3, SettingsTest.EnvAll,SettingsTest.Bad:x", 1);
    setenv("JX_TRACE_FILE", tracePath.c_str(), 1);
  }
  ~EnvironmentSeed() {
    std::remove(path.c_str());
    std::remove(tracePath.c_str());
  }
} environmentSeed;

using zelappsupport::feature::BetaFeature;
BetaFeature featureOn("SettingsTest.DefaultOn", 1, "On", "on by default", "t1", 1, 1, 1);
BetaFeature featureOff("SettingsTest.DefaultOff", 1, "Off", "", "t2", 1, 1, 0);
BetaFeature featureEnvOn("SettingsTest.EnvOnDefaultOff", 1, "Env", "", "t3", 1, 1, 0);

}  // namespace

namespace zelcore::debug {
namespace {

TEST(DebugDatabaseTest, SeededFromTheSettingsFileAndSettableFromCode) {
  DebugDatabase& db = DebugDatabase::Instance();
  EXPECT_EQ(db.GetEntry("SettingsTest.Int", "none"), "42");
  EXPECT_EQ(db.GetEntry("SettingsTest.Text", "none"), "a=b");
  EXPECT_FALSE(db.HasEntry("# a comment"));
  EXPECT_FALSE(db.HasEntry("not a setting"));
  EXPECT_FALSE(db.HasEntry(""));

  db.SetEntry("SettingsTest.Code", "v");
  EXPECT_EQ(db.GetEntry("SettingsTest.Code", "dflt"), "v");
  db.RemoveEntry("SettingsTest.Code");
  EXPECT_EQ(db.GetEntry("SettingsTest.Code", "dflt"), "dflt");
  EXPECT_FALSE(db.LoadFile("/nonexistent/jx/settings"));
  // Saved by an editor that starts the file with a byte-order mark: the first line still counts.
  const std::string marked = environmentSeed.path + ".marked";
  std::ofstream(marked) << "\xEF\xBB\xBFSettingsTest.Marked=1\n";
  EXPECT_TRUE(db.LoadFile(marked));
  std::remove(marked.c_str());
  EXPECT_EQ(db.GetEntry("SettingsTest.Marked", "none"), "1");

  // Look-ups are counted per name, found or not; writes and presence checks are not look-ups.
  EXPECT_EQ(db.LookupCount("SettingsTest.Code"), 2u);
  EXPECT_EQ(db.LookupCount("SettingsTest.Int"), 1u);
  EXPECT_EQ(db.LookupCount("not a setting"), 0u);
}

TEST(DebugDatabaseTest, TypedParsingFallsBackToTheDefault) {
  EXPECT_TRUE(ParseBoolSetting("true"));
  EXPECT_FALSE(ParseBoolSetting("TRUE") || ParseBoolSetting("1") || ParseBoolSetting(" true"));
  EXPECT_EQ(ParseInt32Setting("-2147483648", 7), INT32_MIN);
  for (const char* bad : {"", "2147483648", "12abc", " 5", "5 ", "1.5"}) {
    EXPECT_EQ(ParseInt32Setting(bad, 7), 7) << bad;
  }
  EXPECT_EQ(ParseUInt32Setting("4294967295", 7u), 4294967295u);
  for (const char* bad : {"", "-1", "4294967296", "3x"}) EXPECT_EQ(ParseUInt32Setting(bad, 7u), 7u);
  EXPECT_EQ(ParseDoubleSetting("-1e3", 1.0), -1000.0);
  for (const char* bad : {"", "abc", "1.5x", "nan", "1e999"}) {
    EXPECT_EQ(ParseDoubleSetting(bad, 1.5), 1.5) << bad;
  }
  EXPECT_EQ(FormatDoubleSetting(0.1), "0.10000000000000001");
  for (double v : {1.0 / 3.0, 6.02214076e23, -2.5e-300}) {
    EXPECT_EQ(ParseDoubleSetting(FormatDoubleSetting(v), 0.0), v);
  }
}

TEST(TracingTest, SeededFromTheEnvironmentAndWrittenToTheTraceFile) {
  EXPECT_TRUE(Tracing::IsEnabled("SettingsTest.Env", 3));
  EXPECT_FALSE(Tracing::IsEnabled("SettingsTest.Env", 4));
  EXPECT_TRUE(Tracing::IsEnabled("SettingsTest.EnvAll", 1000));  // no level: every level
  EXPECT_FALSE(Tracing::IsEnabled("SettingsTest.Bad", 1));       // a level that does not parse
  EXPECT_FALSE(Tracing::IsEnabled("SettingsTest.Unnamed", 1));
  ZC_TRACE("SettingsTest.Env", 3, "line " << 1);
  ZC_TRACE("SettingsTest.Env", 4, "not this");
  Tracing::Write("SettingsTest.Out", 3, "hello");
  std::ifstream in(environmentSeed.tracePath);
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  EXPECT_NE(text.find("[SettingsTest.Env:3] line 1\n[SettingsTest.Out:3] hello\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("not this"), std::string::npos);
}

int sideEffects = 0;
int Counted(int v) { return ++sideEffects, v; }
// One call site used repeatedly: its cached answer is what is under test.
void TraceFromOneSite(int v) { ZC_TRACE("SettingsTest.Site", 5, "value " << Counted(v)); }

TEST(TracingTest, TextIsBuiltOnlyWhileTheSiteIsOnAndTheCacheFollowsChanges) {
  sideEffects = 0;
  std::vector<std::string> lines;
  Tracing::Configure("");
  Tracing::SetSink([&](const char* category, int level, const std::string& text) {
    lines.push_back(std::string(category) + ":" + std::to_string(level) + ":" + text);
  });
  TraceFromOneSite(1);
  Tracing::SetLevel("SettingsTest.Site", 4);  // below the site's level
  TraceFromOneSite(2);
  EXPECT_EQ(sideEffects, 0);
  YLOG_Log(5, "SettingsTest.Site", "log", "hidden");
  Tracing::SetLevel("SettingsTest.Site", 5);
  TraceFromOneSite(3);
  YLOG_Log(5, "SettingsTest.Site", "log", "shown");  // the host log goes through tracing
  Tracing::SetLevel("SettingsTest.Site", 0);         // the cached "on" must be dropped
  TraceFromOneSite(4);
  Tracing::SetSink(nullptr);
  EXPECT_EQ(sideEffects, 1);
  EXPECT_EQ(lines, (std::vector<std::string>{"SettingsTest.Site:5:value 3",
                                             "SettingsTest.Site:5:log: shown"}));
}

TEST(TracingTest, ConfigureReplacesLevelsAndHonoursTheWildcard) {
  Tracing::Configure("SettingsTest.A:7, SettingsTest.B:2,bogus:x");
  EXPECT_TRUE(Tracing::IsEnabled("SettingsTest.A", 7));
  EXPECT_FALSE(Tracing::IsEnabled("SettingsTest.A", 8));
  EXPECT_FALSE(Tracing::IsEnabled("SettingsTest.B", 3));
  Tracing::Configure("*:3,SettingsTest.B:1");
  EXPECT_TRUE(Tracing::IsEnabled("SettingsTest.A", 3));
  EXPECT_FALSE(Tracing::IsEnabled("SettingsTest.A", 4));
  EXPECT_FALSE(Tracing::IsEnabled("SettingsTest.B", 2));  // a named category beats "*"
  Tracing::Configure("");
}

uint64_t CountOf(const std::string& name) {
  for (const auto& e : CodeProfiler::Snapshot()) {
    if (e.name == name) return e.count;
  }
  return 0;
}

TEST(CodeProfilerTest, ScopesRecordOnlyAtTheirVolumeAndEndOnce) {
  CodeProfiler::Reset();
  { ZC_PROFILE_SCOPE("SettingsTest.Off", 1); }
  CodeProfiler::SetConditionalProfilingVolume(CodeProfiler::kDefaultVolume);
  for (int i = 0; i < 3; ++i) {
    ZC_PROFILE_SCOPE("SettingsTest.Loud", 5);
  }
  { ZC_PROFILE_SCOPE("SettingsTest.TooQuiet", 6); }
  {
    CodeProfiler p("SettingsTest.Ended");
    p.End();
  }
  CodeProfiler::SetConditionalProfilingVolume(0);
  EXPECT_EQ(CountOf("SettingsTest.Off"), 0u);
  EXPECT_EQ(CountOf("SettingsTest.Loud"), 3u);
  EXPECT_EQ(CountOf("SettingsTest.TooQuiet"), 0u);
  EXPECT_EQ(CountOf("SettingsTest.Ended"), 1u);
  CodeProfiler::Reset();
  EXPECT_TRUE(CodeProfiler::Snapshot().empty());
}

}  // namespace
}  // namespace zelcore::debug

namespace zelappsupport {
namespace {

TEST(FeatureTest, ExplicitStateBeatsEnvironmentBeatsDefault) {
  using namespace feature;
  EXPECT_TRUE(IsFeatureEnabled("SettingsTest.DefaultOn"));
  EXPECT_FALSE(IsFeatureEnabled("SettingsTest.DefaultOff"));
  EXPECT_FALSE(IsFeatureEnabled("SettingsTest.NeverDeclared"));
  EXPECT_TRUE(IsFeatureEnabled("SettingsTest.EnvOn"));  // declared or not
  EXPECT_TRUE(IsFeatureEnabled("SettingsTest.EnvOnDefaultOff"));
  SetFeatureEnabled("SettingsTest.DefaultOn", false);
  SetFeatureEnabled("SettingsTest.EnvOn", false);
  EXPECT_FALSE(IsFeatureEnabled("SettingsTest.DefaultOn"));
  EXPECT_FALSE(IsFeatureEnabled("SettingsTest.EnvOn"));
  SetFeatureEnabled("SettingsTest.DefaultOn", true);
}

TEST(FeatureTest, FeaturesAreRegisteredForTheirLifetime) {
  using namespace feature;
  ASSERT_EQ(FindFeature("SettingsTest.DefaultOn"), &featureOn);
  {
    BetaFeature scoped("SettingsTest.Scoped", 2, "Scoped", "", "t4", 0, 0, 1);
    EXPECT_EQ(FindFeature("SettingsTest.Scoped"), &scoped);
    EXPECT_TRUE(IsFeatureEnabled("SettingsTest.Scoped"));
  }
  EXPECT_EQ(FindFeature("SettingsTest.Scoped"), nullptr);
  EXPECT_FALSE(IsFeatureEnabled("SettingsTest.Scoped"));
}

}  // namespace
}  // namespace zelappsupport
