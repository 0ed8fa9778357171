// FastWriteOnlyStream: every length comes back byte for byte and at its true length, through
// O_DIRECT and through the buffered fallback of a file system that refuses it; the slots its own
// thread writes fail cleanly. Run under ThreadSanitizer too, for that thread.
#include "disk/fast_write_stream.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>

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
  std::vector<uint8_t> ReadAll(const File& file) {
    std::ifstream in(file.GetPath(), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  std::string dir_;
};

TEST_F(FastWriteStreamTest, RoundTripsEveryLengthDirectAndBuffered) {
  File probe(dir_ + "/probe");
  probe.Create();
  const size_t unit = FastWriteOnlyStream(probe).GetUnit();
  for (bool refuseDirect : {false, true}) {
    for (size_t size : {size_t{0}, size_t{1}, unit - 1, unit, unit + 1, 64 * unit + 3}) {
      SCOPED_TRACE(::testing::Message() << "size " << size << " refuseDirect " << refuseDirect);
      std::vector<uint8_t> bytes(size);
      for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 3);
      File file(dir_ + "/f" + std::to_string(size) + (refuseDirect ? "b" : "d"));
      file.Create();
      FaultInjection::Reset();
      if (refuseDirect) FaultInjection::FailNth(FileOp::kOpen, 1, EINVAL);
      {
        FastWriteOnlyStream stream(file);
        if (refuseDirect) {
          EXPECT_FALSE(stream.IsDirect());
        }
        EXPECT_EQ(stream.GetBufferSize(), 64 * unit);
        // Single bytes, odd runs and one run longer than the buffer, so that every path through
        // the buffer is taken.
        size_t done = 0;
        if (size > 0) stream.WriteByte(bytes[done++]);
        while (done < size) {
          const size_t run = std::min(size - done, done % 3 == 0 ? 65 * unit : size_t{13});
          stream.Write(bytes.data() + done, run);
          done += run;
        }
        EXPECT_EQ(stream.GetTotalCount(), size);
        stream.Close();
      }
      EXPECT_EQ(file.Size(), size);
      EXPECT_EQ(ReadAll(file), bytes);
    }
  }
}

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
