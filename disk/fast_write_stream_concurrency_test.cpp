// FastWriteOnlyStream: the slots its own thread writes fail cleanly. Run under ThreadSanitizer
// too, for that thread. (Lengths, direct and buffered, are the fuzz_write_stream corpus's.)
#include "disk/fast_write_stream.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <vector>

#include "testing/fault_injection.h"

using jx::disk::FastWriteOnlyStream;
using zelcore::filesupport::FaultInjection;
using zelcore::filesupport::File;
using zelcore::filesupport::FileOp;

namespace {

class FastWriteStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FaultInjection::Reset();
    char pattern[] = "/tmp/jxstream.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    FaultInjection::Reset();
    std::filesystem::remove_all(dir_);
  }
  std::string dir_;
};

// Slots past the first are written by the stream's own thread: its failure reaches the caller,
// later slots are not written after it. A stream dropped unclosed belongs to a failed write: it
// writes no tail, and one dropped with slots queued does not hang.
TEST_F(FastWriteStreamTest, AFailedOrUnfinishedWriteIsNeverCompleted) {
  File file(dir_ + "/f");
  file.Create();
  const size_t slot = FastWriteOnlyStream(file).GetBufferSize() / FastWriteOnlyStream::kSlots;
  const std::vector<uint8_t> bytes(3 * FastWriteOnlyStream::kSlots * slot + 5, 0x33);
  FaultInjection::FailNth(FileOp::kWrite, 2, EIO);
  EXPECT_THROW(
      {
        FastWriteOnlyStream stream(file);
        stream.Write(bytes.data(), bytes.size());
        stream.Close();
      },
      zelcore::filesupport::FileError);
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kWrite), 2u);
  EXPECT_LE(file.Size(), FastWriteOnlyStream::kSlots * slot);  // no more than one run of slots

  FaultInjection::Reset();
  for (size_t length : {size_t{3}, bytes.size()}) {
    File unfinished(dir_ + "/u" + std::to_string(length));
    unfinished.Create();
    FastWriteOnlyStream(unfinished).Write(bytes.data(), length);
    EXPECT_EQ(unfinished.Size() % slot, 0u) << "a tail was written";
    EXPECT_LT(unfinished.Size(), length);
  }
}

}  // namespace
