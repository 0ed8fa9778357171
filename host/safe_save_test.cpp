// SafeSave: all or nothing, whatever fails and whenever it is abandoned.
#include "host/safe_save.h"

#include <unistd.h>

#include <mutex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "host/file_test_support.h"
#include "jxcache/host/byte_stream.h"
#include "testing/fault_injection.h"

namespace zelcore::filesupport {
namespace {

using testing::ReadWholeFile;
using testing::ScratchFolder;
using testing::WriteWholeFile;

// The whole write path a cache writer takes: create the temporary, stream into it, commit.
void SaveBytes(SafeSave& save, const std::string& bytes) {
  save.GetTempFile().Create();
  OPlatformByteStream out(save.GetTempFile(), false);
  out.Write(bytes.data(), bytes.size());
  out.Close();
  save.Commit();
}

TEST(SafeSaveTest, FailureAnywhereKeepsTheOldTargetAndLeavesNoTemporary) {
  const struct {
    FileOp op;
    int err;
  } faults[] = {{FileOp::kCreate, EROFS},
                {FileOp::kOpen, EIO},
                {FileOp::kWrite, ENOSPC},
                {FileOp::kFlush, EIO},
                {FileOp::kRename, EROFS}};
  for (const auto& fault : faults) {
    SCOPED_TRACE(FileOpName(fault.op));
    ScratchFolder scratch;
    const File target = scratch.file("item.kqcache");
    WriteWholeFile(target, "old");
    {
      SafeSave save(target);
      // Persistent, so that whichever call of the operation comes first is the one that fails.
      FaultInjection::FailNth(fault.op, 1, fault.err, true);
      std::string what;
      EXPECT_EQ(testing::ErrnoThrownBy([&] { SaveBytes(save, "new bytes"); }, &what), fault.err)
          << what;
      EXPECT_FALSE(save.IsCommitted());
      FaultInjection::Reset();  // the clean-up itself must be able to delete
    }
    EXPECT_EQ(scratch.dir().ListNames(), std::vector<std::string>{"item.kqcache"});
    EXPECT_EQ(ReadWholeFile(target), "old");
  }
}

TEST(SafeSaveTest, AbandonedOrEmptyLeavesNothingBehind) {
  ScratchFolder scratch;
  const File target = scratch.file("item.kqcache");
  {
    SafeSave abandoned(target);
    abandoned.GetTempFile().Create();
    WriteWholeFile(abandoned.GetTempFile(), "partial");
  }
  {
    SafeSave neverStarted(target);  // destroying one whose temporary was never made is harmless
  }
  {
    SafeSave save(target);
    EXPECT_THROW(save.Commit(), FileNotFoundError);  // nothing was written
  }
  EXPECT_TRUE(scratch.dir().ListNames().empty());
}

TEST(SafeSaveTest, TemporaryNamesAreUniqueRecognisableAndNeverCacheNames) {
  const File target("/cache/abc.v3.kqcache");
  std::set<std::string> names;
  std::mutex mutex;
  auto make = [&](int n) {
    for (int i = 0; i < n; ++i) {
      SafeSave save(target);  // nothing on disk, so the destructor does no harm
      const std::string name = save.GetTempFile().GetName();
      std::lock_guard lock(mutex);
      names.insert(name);
    }
  };
  std::thread t1(make, 200), t2(make, 200);
  make(200);
  t1.join();
  t2.join();
  EXPECT_EQ(names.size(), 600u);
  for (const auto& name : names) {
    EXPECT_TRUE(SafeSave::IsTempFileName(name)) << name;
    EXPECT_EQ(name.rfind("abc.v3.kqcache.", 0), 0u) << name;
    EXPECT_FALSE(name.ends_with(".kqcache")) << name;
  }
  for (const char* other : {"abc.kqcache", "abc.1.tmp", "abc.1.x.tmp", "abc.1.2.tmpx", "abc.1..tmp",
                            ".tmp", "abc.1.2.TMP"}) {
    EXPECT_FALSE(SafeSave::IsTempFileName(other)) << other;
  }
}

// A writer that died, with this process's ID (as a restarted process in a container has), left
// temporaries under the names of this process's next attempts. The commit replaces a longer file.
TEST(SafeSaveTest, LeftoversUnderTheNamesThisProcessWouldPickDoNotBlockTheSave) {
  ScratchFolder scratch;
  const File target = scratch.file("item.kqcache");
  WriteWholeFile(target, "previous content that is longer");
  std::string name;
  { name = SafeSave(target).GetTempFile().GetName(); }
  const std::string prefix = "item.kqcache." + std::to_string(::getpid()) + ".";
  ASSERT_EQ(name.rfind(prefix, 0), 0u);
  const uint64_t last = std::stoull(name.substr(prefix.size()));
  std::set<std::string> leftovers;
  for (uint64_t attempt = last + 1; attempt <= last + 20; ++attempt) {
    const std::string leftover = prefix + std::to_string(attempt) + ".tmp";
    leftovers.insert(leftover);
    WriteWholeFile(scratch.file(leftover), "left by a writer that died");
  }
  {
    SafeSave save(target);
    EXPECT_FALSE(leftovers.count(save.GetTempFile().GetName()));
    EXPECT_EQ(save.GetTempFile().GetParent(), target.GetParent());
    SaveBytes(save, "fresh");
    EXPECT_TRUE(save.IsCommitted());
  }
  EXPECT_EQ(ReadWholeFile(target), "fresh");
  EXPECT_EQ(scratch.dir().ListNames().size(), leftovers.size() + 1);  // no temporary of ours left
  for (const auto& leftover : leftovers) {
    EXPECT_EQ(ReadWholeFile(scratch.file(leftover)), "left by a writer that died");
  }
}

}  // namespace
}  // namespace zelcore::filesupport
