// The standalone host's policy and the Y_ functions that answer from it.
#include "standalone/standalone_host.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/y_api.h"
#include "jxcache/host/file.h"

namespace jx {
namespace {

using Kind = HostReport::Kind;

class StandaloneHostTest : public testing::Test {
 protected:
  void SetUp() override {
    host.Reset();
    host.SetEchoReports(false);
  }
  void TearDown() override { host.Reset(); }
  StandaloneHost& host = StandaloneHost::Instance();
};

TEST_F(StandaloneHostTest, MemoryBudgetDefaultsOverridesAndReset) {
  const uint64_t half = uint64_t(sysconf(_SC_PHYS_PAGES)) * uint64_t(sysconf(_SC_PAGE_SIZE)) / 2;
  uint64_t limit = 0, soft = 0;
  EXPECT_EQ(Y_GetMemUsageLimits(&limit, &soft), 0);
  EXPECT_EQ(limit, half);
  EXPECT_EQ(Y_AmountAvailableBeforePurge(), half);
  EXPECT_EQ(Y_AmountToPurge(), 0u);

  host.SetMemoryLimit(1000);  // the amount available follows the limit until set itself
  EXPECT_EQ(Y_AmountAvailableBeforePurge(), 1000u);
  host.SetAmountAvailableBeforePurge(600);
  EXPECT_EQ(Y_AmountAvailableBeforePurge(), 600u);
  host.SetAmountAvailableBeforePurgeFunction([] { return 750; });  // beats the value
  EXPECT_EQ(Y_AmountAvailableBeforePurge(), 750u);

  Y_PurgeRecycledMemory(10);
  Y_PurgeRecycledMemory(32);
  EXPECT_EQ(host.GetRecycledMemoryPurged(), 42u);
  EXPECT_EQ(host.GetRecycledMemoryPurgeCalls(), 2u);

  host.Reset();
  EXPECT_EQ(Y_AmountAvailableBeforePurge(), half);
  EXPECT_EQ(host.GetRecycledMemoryPurgeCalls(), 0u);
}

TEST_F(StandaloneHostTest, AmountToPurgeScopesNestAndRestore) {
  {
    ScAmountToPurge outer(100);
    {
      ScAmountToPurge inner(50);
      EXPECT_EQ(Y_AmountToPurge(), 50u);
    }
    EXPECT_EQ(Y_AmountToPurge(), 100u);
  }
  EXPECT_EQ(Y_AmountToPurge(), 0u);
}

TEST_F(StandaloneHostTest, MainThreadAndNotifyingLockArePerThread) {
  EXPECT_TRUE(Y_IsOnMainThread());  // the test program's thread touched the host first
  const auto original = host.GetMainThread();
  bool mainElsewhere = true, afterMove = false, lockElsewhere = true;
  Y::ScNotifyHoldingMutexLock outer;
  { Y::ScNotifyHoldingMutexLock inner; }
  EXPECT_TRUE(Y::ScNotifyHoldingMutexLock::IsHoldingLock());  // still inside `outer`
  std::thread([&] {
    mainElsewhere = Y_IsOnMainThread();
    lockElsewhere = Y::ScNotifyHoldingMutexLock::IsHoldingLock();
    host.MakeCurrentThreadMain();
    afterMove = Y_IsOnMainThread();
  }).join();
  EXPECT_FALSE(mainElsewhere);
  EXPECT_FALSE(lockElsewhere);
  EXPECT_TRUE(afterMove);
  EXPECT_FALSE(Y_IsOnMainThread());
  host.SetMainThread(original);
}

TEST_F(StandaloneHostTest, EachReportIsRecordedOnceWithUtf8Text) {
  Y_ReportFailedVerification("invariant broken");
  Yp_ReportErrString(-43, 2, u"caf\u00E9 not found");
  Y_ReportError(0, 0, "$$$/JX/Err/Full=The disk is full");
  EXPECT_EQ(host.CountReports(Kind::kFailedVerification, "invariant"), 1u);
  EXPECT_EQ(host.CountReports(Kind::kErrString, "caf\xC3\xA9 not found"), 1u);
  EXPECT_EQ(host.CountReports(Kind::kError, "The disk is full"), 1u);
  EXPECT_EQ(host.CountReports(Kind::kError, "$$$"), 0u);  // the looked-up text, not the key
  ASSERT_EQ(host.GetReports().size(), 3u);
  EXPECT_EQ(host.GetReports()[1].code, -43);
  EXPECT_EQ(host.GetReports()[1].severity, 2);
}

TEST_F(StandaloneHostTest, OnlyTheLastReportsAreKeptButAllAreCounted) {
  const size_t total = StandaloneHost::kKeptReports + 10;
  for (size_t i = 0; i < total; ++i) {
    Y_ReportFailedVerification(("check " + std::to_string(i) + ";").c_str());
  }
  Y_ReportError(0, 0, "$$$/JX/Err/Last=last");
  EXPECT_EQ(host.CountReports(Kind::kFailedVerification), total);
  EXPECT_EQ(host.CountReports(Kind::kError), 1u);
  const auto reports = host.GetReports();
  ASSERT_EQ(reports.size(), StandaloneHost::kKeptReports);
  EXPECT_EQ(reports.front().text, "check 11;");  // the oldest that still fits
  EXPECT_EQ(reports.back().text, "last");
  EXPECT_EQ(host.CountReports(Kind::kFailedVerification, "check 5;"), 0u);  // dropped
  EXPECT_EQ(host.CountReports(Kind::kFailedVerification, "check 1000;"), 1u);
  host.ClearReports();
  EXPECT_EQ(host.CountReports(Kind::kFailedVerification), 0u);
  EXPECT_TRUE(host.GetReports().empty());
}

TEST_F(StandaloneHostTest, QuietScopesNestPerThreadAndSilenceTheEcho) {
  host.SetEchoReports(true);
  testing::internal::CaptureStderr();
  Y_ReportFailedVerification("loud one");
  Y_StartQuietErrorsOnCurrentThread();
  Y_StartQuietErrorsOnCurrentThread();
  Y_EndQuietErrorsOnCurrentThread();
  bool otherThreadQuiet = true;
  std::thread([&] { otherThreadQuiet = Y_AreErrorsQuietOnCurrentThread(); }).join();
  Y_ReportFailedVerification("quiet one");
  Y_EndQuietErrorsOnCurrentThread();
  Y_EndQuietErrorsOnCurrentThread();  // unbalanced: must not go negative
  EXPECT_FALSE(Y_AreErrorsQuietOnCurrentThread());
  host.SetEchoReports(false);
  Y_ReportFailedVerification("unechoed");
  const std::string err = testing::internal::GetCapturedStderr();

  EXPECT_FALSE(otherThreadQuiet);
  const auto reports = host.GetReports();
  ASSERT_EQ(reports.size(), 3u);
  EXPECT_FALSE(reports[0].quiet);
  EXPECT_TRUE(reports[1].quiet);
  EXPECT_FALSE(reports[2].quiet);
  EXPECT_EQ(err, "jxcache host: failed verification: loud one\n");
}

TEST_F(StandaloneHostTest, ExceptionsTranslateToCodesAndAreReported) {
  using zelcore::filesupport::FileError;
  const std::vector<std::pair<std::function<void()>, int32_t>> cases = {
      {[] { throw 42; }, 42},
      {[] { throw FileError(ENOSPC, "write /x"); }, ENOSPC},
      {[] { throw zelcore::filesupport::FileNotFoundError("open"); }, ENOENT},
      {[] { throw std::bad_alloc(); }, kHostOutOfMemoryCode},
      {[] { throw std::runtime_error("boom"); }, kHostGenericErrorCode},
      {[] { throw 2.5; }, kHostGenericErrorCode},
      {nullptr, kHostGenericErrorCode}};  // nothing in flight
  for (size_t i = 0; i < cases.size(); ++i) {
    int32_t code = 0;
    try {
      if (cases[i].first) cases[i].first();
      code = Y_TranslateAndReportException();
    } catch (...) {
      code = Y_TranslateAndReportException();
    }
    EXPECT_EQ(code, cases[i].second) << "case " << i;
    ASSERT_EQ(host.GetReports().size(), i + 1);
    EXPECT_EQ(host.GetReports().back().kind, Kind::kException) << "case " << i;
    EXPECT_EQ(host.GetReports().back().code, cases[i].second) << "case " << i;
  }
  EXPECT_EQ(host.CountReports(Kind::kException, "write /x"), 1u);
  EXPECT_EQ(host.CountReports(Kind::kException, "boom"), 1u);
}

TEST_F(StandaloneHostTest, LocalisedStringsUseTranslationOrDefaultText) {
  const char* key = "$$$/JX/Msg/CantOpen=Can#{rsquo}t open #{rsquo}x#{rsquo}=now";
  EXPECT_EQ(Y_ZLookupLStrCache(key), u"Can\u2019t open \u2019x\u2019=now");
  host.SetTranslation("$$$/JX/Msg/CantOpen", u"Impossible d\u2019ouvrir");
  EXPECT_EQ(Y_ZLookupLStrCache(key), u"Impossible d\u2019ouvrir");
  EXPECT_EQ(Y_ZLookupLStrCache("plain text, no key"), u"plain text, no key");
  EXPECT_EQ(Y_ZLookupLStrCache("$$$/JX/Empty="), u"");
  EXPECT_EQ(Y_AsciiToUTF16String("abc 123"), u"abc 123");
}

struct Tracked : Y_MemTrackedObject {
  int value = 7;
};

TEST_F(StandaloneHostTest, NthAllocationFailsOnceOrFromThenOn) {
  auto* zeroed = static_cast<unsigned char*>(Y_AllocatePtrClear(0, "test", 64));
  ASSERT_NE(zeroed, nullptr);
  EXPECT_EQ(std::count(zeroed, zeroed + 64, 0), 64);
  Y_DisposePtr(zeroed);

  host.FailNthAllocation(3);
  std::vector<void*> got;
  for (int i = 0; i < 5; ++i) got.push_back(Y_AllocatePtrClear(0, "test", 8));
  EXPECT_EQ(std::vector<bool>({got[0] != nullptr, got[1] != nullptr, got[2] != nullptr,
                               got[3] != nullptr, got[4] != nullptr}),
            std::vector<bool>({true, true, false, true, true}));
  for (void* p : got) Y_DisposePtr(p);

  host.FailNthAllocation(2, /*persistent=*/true);  // both allocators share the countdown
  Tracked* first = new Tracked;
  EXPECT_THROW(new Tracked, std::bad_alloc);
  EXPECT_EQ(Y_AllocatePtrClear(0, "test", 8), nullptr);
  EXPECT_THROW(new Tracked, std::bad_alloc);
  delete first;
  host.FailNthAllocation(0);
  delete new Tracked;
}

TEST_F(StandaloneHostTest, SuitesArePublishedByNameAndVersion) {
  static const int v1[1] = {1}, v2[1] = {2}, v2b[1] = {3};
  EXPECT_EQ(Y_VX_AddVXSuite(0, 0, "JX Test Suite", 1, 0, 1, v1), 0);
  EXPECT_EQ(Y_VX_AddVXSuite(0, 0, "JX Test Suite", 2, 0, 1, v2), 0);
  const void* out = nullptr;
  EXPECT_EQ(Y_VX_AcquireVXSuite("JX Test Suite", 1, &out), 0);
  EXPECT_EQ(out, v1);
  EXPECT_EQ(Y_VX_AcquireVXSuite("JX Test Suite", 2, &out), 0);
  EXPECT_EQ(out, v2);

  EXPECT_NE(Y_VX_AcquireVXSuite("JX Test Suite", 3, &out), 0);
  EXPECT_NE(Y_VX_AcquireVXSuite("JX Other Suite", 1, &out), 0);
  EXPECT_NE(Y_VX_AcquireVXSuite(nullptr, 1, &out), 0);
  EXPECT_NE(Y_VX_AcquireVXSuite("JX Test Suite", 1, nullptr), 0);
  EXPECT_EQ(out, v2);  // untouched by the failures

  EXPECT_EQ(Y_VX_AddVXSuite(0, 0, "JX Test Suite", 2, 0, 1, v2b), 0);
  EXPECT_EQ(Y_VX_AcquireVXSuite("JX Test Suite", 2, &out), 0);
  EXPECT_EQ(out, v2b);
}

}  // namespace
}  // namespace jx
