// Injected faults reach callers exactly as real ones would, at exactly the planned call.
#include "testing/fault_injection.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "host/file_test_support.h"
#include "host/safe_save.h"
#include "jxcache/host/byte_stream.h"
#include "jxcache/host/file.h"

namespace zelcore::filesupport {
namespace {

using testing::ScratchFolder;
using testing::WriteWholeFile;

// Makes one call of `op`, and none in its setup.
void OneCallOf(FileOp op, const File& f, const File& g) {
  if (op == FileOp::kCreate) {
    ::unlink(f.GetPath().c_str());
    return f.Create();
  }
  if (!f.Exists()) WriteWholeFile(f, "data");
  char c;
  switch (op) {
    case FileOp::kOpen:
      IPlatformByteStream{f};
      break;
    case FileOp::kWrite:
      OPlatformByteStream(f, false).Write("x", 1);
      break;
    case FileOp::kFlush:
      OPlatformByteStream(f, false).Close();
      break;
    case FileOp::kTruncate: {
      OPlatformByteStream out(f, false);
      out.SetFinalLength(10);
      return out.Close();
    }
    case FileOp::kRename:
      return f.Rename(g);
    case FileOp::kSize:
      (void)f.Size();
      break;
    case FileOp::kDelete:
      return f.Delete();
    case FileOp::kRead:
      IPlatformByteStream(f).Read(&c, 1);
      break;
    case FileOp::kCreate:
      break;
  }
}

TEST(FaultInjectionTest, EveryOperationReportsTheInjectedErrnoOnceThenRecovers) {
  const int errnos[] = {EIO, ENOSPC, EROFS};
  for (int i = 0; i < kFileOpCount; ++i) {
    const FileOp op = static_cast<FileOp>(i);
    const int err = errnos[i % 3];
    SCOPED_TRACE(FileOpName(op));
    ScratchFolder scratch;
    const auto call = [&] { OneCallOf(op, scratch.file("f"), scratch.file("g")); };
    call();  // the operation works when nothing is planned

    FaultInjection::FailNth(op, 1, err);
    std::string what;
    EXPECT_EQ(testing::ErrnoThrownBy(call, &what), err);
    EXPECT_NE(what.find(scratch.dir().GetPath()), std::string::npos)
        << "the message names the path: " << what;
    EXPECT_EQ(FaultInjection::InjectedCount(), 1u);
    EXPECT_NO_THROW(call());  // a one-off fault is gone after it fired
  }
}

TEST(FaultInjectionTest, CountsFromNowAndHonoursOnceVersusPersistent) {
  ScratchFolder scratch;
  const File f = scratch.file("f");
  f.Create();
  // Which of the next `n` calls fail: 'x' a failure, '.' a success.
  auto sizeCalls = [&](int n) {
    std::string seen;
    for (int i = 0; i < n; ++i) {
      try {
        (void)f.Size();
        seen += '.';
      } catch (const FileError&) {
        seen += 'x';
      }
    }
    return seen;
  };

  EXPECT_EQ(sizeCalls(2), "..");
  FaultInjection::FailNth(FileOp::kSize, 2, EIO);  // the second call from now, not the second ever
  EXPECT_EQ(sizeCalls(3), ".x.");
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kSize), 5u);

  FaultInjection::FailNth(FileOp::kSize, 2, EIO, true);
  EXPECT_EQ(sizeCalls(4), ".xxx");
  EXPECT_EQ(FaultInjection::InjectedCount(), 4u);
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kDelete), 0u);  // other operations are untouched

  FaultInjection::Reset();
  EXPECT_EQ(sizeCalls(1), ".");
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kSize), 1u);
  EXPECT_EQ(FaultInjection::InjectedCount(), 0u);

  // ENOENT is reported as the not-found error, like a real missing file.
  FaultInjection::FailNth(FileOp::kSize, 1, ENOENT);
  EXPECT_THROW((void)f.Size(), FileNotFoundError);
}

TEST(FaultInjectionTest, FailedCloseIsReportedOnceAndTheDestructorStaysQuiet) {
  ScratchFolder scratch;
  const File f = scratch.file("f");
  f.Create();
  FaultInjection::FailNth(FileOp::kTruncate, 1, EIO, true);
  {
    OPlatformByteStream out(f, false);
    out.Write("abc", 3);
    out.SetFinalLength(2);
    EXPECT_THROW(out.Close(), FileError);
    EXPECT_NO_THROW(out.Close());
  }
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kTruncate), 1u);
}

// Reaches `point` once, through the file operation that passes it.
void ReachOnce(CrashPoint point, const Dir& dir) {
  const File f(dir, "f"), g(dir, "g");
  switch (point) {
    case CrashPoint::kCreated:
      ::unlink(f.GetPath().c_str());
      return f.Create();
    case CrashPoint::kWritten:
      if (!f.Exists()) WriteWholeFile(f, "data");
      return OPlatformByteStream(f, false).Write("x", 1);
    case CrashPoint::kRenaming:
      if (!f.Exists()) WriteWholeFile(f, "data");
      f.Rename(g);
      return g.Rename(f);  // a second rename, back: reached twice per call
    case CrashPoint::kRenamed: {
      SafeSave save(f);
      WriteWholeFile(save.GetTempFile(), "data");
      return save.Commit();
    }
  }
}

// A planned kill ends the process at exactly the planned reach of its point, not before.
TEST(FaultInjectionDeathTest, PlannedKillEndsTheProcessAtTheNthReach) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (int p = 0; p < kCrashPointCount; ++p) {
    const auto point = static_cast<CrashPoint>(p);
    SCOPED_TRACE(CrashPointName(point));
    ScratchFolder scratch;
    // Renaming is reached twice per ReachOnce: its third reach is the second call's first.
    const uint64_t nth = point == CrashPoint::kRenaming ? 3 : 2;
    EXPECT_EXIT(
        {
          FaultInjection::KillAtNth(point, nth);
          ReachOnce(point, scratch.dir());
          std::fprintf(stderr, "survived the first\n");
          ReachOnce(point, scratch.dir());
          std::fprintf(stderr, "survived the second\n");
          std::exit(0);
        },
        ::testing::KilledBySignal(SIGKILL), "survived the first\n$");
  }
  // Reset takes the plan back: nothing is killed after it.
  ScratchFolder scratch;
  FaultInjection::KillAtNth(CrashPoint::kCreated, 1);
  FaultInjection::Reset();
  ReachOnce(CrashPoint::kCreated, scratch.dir());
  EXPECT_TRUE(File(scratch.dir(), "f").Exists());
}

}  // namespace
}  // namespace zelcore::filesupport
