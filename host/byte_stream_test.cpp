// Round trips through the platform streams, direct and buffered, with short writes and reads.
#include "jxcache/host/byte_stream.h"

#include <cstring>

#include <gtest/gtest.h>

#include "host/file_test_support.h"
#include "host/file_utils.h"
#include "testing/fault_injection.h"

namespace zelcore::filesupport {
namespace {

using testing::ErrnoThrownBy;
using testing::PatternBytes;
using testing::ScratchFolder;
using utility::FileUtils;

// Writes `blocks` aligned blocks as the disk writer does and sets a true length off the unit.
std::vector<uint8_t> WriteBlocks(OPlatformByteStream& out, size_t unit, size_t blocks,
                                 size_t trim) {
  const size_t blockSize = 4 * unit;
  const std::vector<uint8_t> data = PatternBytes(blocks * blockSize);
  auto buffer = AllocateAligned(blockSize, unit);
  for (size_t i = 0; i < blocks; ++i) {
    std::memcpy(buffer.get(), data.data() + i * blockSize, blockSize);
    out.WriteBlock(buffer.get(), blockSize);
  }
  out.SetFinalLength(data.size() - trim);
  out.Close();
  return {data.begin(), data.end() - static_cast<ptrdiff_t>(trim)};
}

// Reads the file back in odd-sized pieces through a buffer smaller than the file.
std::vector<uint8_t> ReadBack(const File& file, size_t unit) {
  IPlatformByteStream in(file);
  std::vector<uint8_t> bytes(in.Size());
  BufferedIByteStream buffered(in, 3 * unit, unit);
  // A large read that comes while the buffer holds bytes must take those first.
  const size_t sizes[] = {1000, 3 * unit + 5, 17, 3 * unit};
  size_t done = 0;
  for (size_t i = 0; done < bytes.size(); ++i) {
    const size_t want = std::min<size_t>(sizes[i % 4], bytes.size() - done);
    buffered.ReadExactly(bytes.data() + done, want);
    done += want;
  }
  uint8_t extra;
  EXPECT_EQ(buffered.Read(&extra, 1), 0u);
  return bytes;
}

class PlatformStreams : public ::testing::Test {
 protected:
  File NewFile(const char* name) {
    const File file = scratch_.file(name);
    file.Create();
    return file;
  }
  // A block of `units` units of one byte value.
  auto Block(size_t units) {
    auto buffer = AllocateAligned(units * unit_, unit_);
    std::memset(buffer.get(), 7, units * unit_);
    return buffer;
  }

  ScratchFolder scratch_;
  const size_t unit_ = FileUtils::GetEfficientDiskBufferSizeFromPath(scratch_.dir().GetPath());
};

// The truncation to the true length must reach the disk too, even after direct writes.
TEST_F(PlatformStreams, DirectBlocksWithFinalLengthRoundTripExactly) {
  const File file = NewFile("f");
  std::vector<uint8_t> written;
  {
    OPlatformByteStream out(file, true);
    written = WriteBlocks(out, unit_, 5, 123);
  }
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kFlush), 1u);
  EXPECT_EQ(file.Size(), written.size());
  EXPECT_EQ(ReadBack(file, unit_), written);
}

TEST_F(PlatformStreams, DirectModeRefusesMisalignedBlocks) {
  const File file = NewFile("f");
  OPlatformByteStream out(file, true);
  if (!out.IsDirect()) GTEST_SKIP() << "this file system refuses O_DIRECT";
  auto buffer = Block(2);
  for (auto [offset, length] : {std::pair<size_t, size_t>{1, unit_}, {0, unit_ - 1}}) {
    EXPECT_EQ(ErrnoThrownBy([&, at = offset, n = length] { out.WriteBlock(buffer.get() + at, n); }),
              EINVAL)
        << "misaligned block at offset " << offset << " length " << length;
  }
  out.WriteBlock(buffer.get(), unit_);  // the stream is still usable
  out.Close();
  EXPECT_EQ(file.Size(), unit_);
}

TEST_F(PlatformStreams, RefusedDirectOpenFallsBackToBufferedAndSyncs) {
  const File file = NewFile("f");
  FaultInjection::FailNth(FileOp::kOpen, 1, EINVAL);
  std::vector<uint8_t> written;
  {
    OPlatformByteStream out(file, true);
    EXPECT_FALSE(out.IsDirect());
    EXPECT_EQ(FaultInjection::CallCount(FileOp::kOpen), 2u);
    written = WriteBlocks(out, unit_, 3, unit_ + 1);
  }
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kFlush), 1u);  // the data was synced at Close
  EXPECT_EQ(ReadBack(file, unit_), written);

  // EINVAL on a plain open is an error like any other: there is nothing to fall back to.
  FaultInjection::FailNth(FileOp::kOpen, 1, EINVAL);
  EXPECT_THROW(OPlatformByteStream(file, false), FileError);
}

// Halving a four-unit block leaves whole units, so the stream stays direct; halving every write
// from then on does not, and the rest goes through the page cache. The file must be exact.
TEST_F(PlatformStreams, ShortWritesAreFinishedOnAndOffUnitBoundaries) {
  for (bool persistent : {false, true}) {
    SCOPED_TRACE(persistent ? "every write from the first short" : "the first write short");
    const File file = NewFile(persistent ? "every" : "first");
    std::vector<uint8_t> written;
    bool directAtStart, directAtEnd;
    {
      OPlatformByteStream out(file, true);
      directAtStart = out.IsDirect();
      FaultInjection::ShortNth(FileOp::kWrite, 1, persistent);
      written = WriteBlocks(out, unit_, 3, 17);
      directAtEnd = out.IsDirect();
    }
    // Once: the first block in two writes (2 units each), the others whole.
    if (!persistent) {
      EXPECT_EQ(FaultInjection::CallCount(FileOp::kWrite), 4u);
    }
    // Close syncs the data in either mode: O_DIRECT alone does not reach the device.
    EXPECT_EQ(FaultInjection::CallCount(FileOp::kFlush), 1u);
    if (directAtStart) {
      EXPECT_EQ(directAtEnd, !persistent);
    }
    FaultInjection::Reset();
    EXPECT_EQ(file.Size(), written.size());
    FaultInjection::ShortNth(FileOp::kRead, 1, true);
    EXPECT_EQ(ReadBack(file, unit_), written);
    FaultInjection::Reset();
  }
}

// Some file systems accept O_DIRECT at open and refuse it (EINVAL) only at the first transfer.
TEST_F(PlatformStreams, DirectWriteRefusedAfterOpenCarriesOnBufferedWithEveryByte) {
  const File file = NewFile("f");
  std::vector<uint8_t> written;
  {
    OPlatformByteStream out(file, true);
    if (!out.IsDirect()) GTEST_SKIP() << "this file system refuses O_DIRECT at open";
    FaultInjection::FailNth(FileOp::kWrite, 2, EINVAL);  // the first block is already direct
    written = WriteBlocks(out, unit_, 4, 77);
    EXPECT_FALSE(out.IsDirect());
  }
  EXPECT_EQ(FaultInjection::InjectedCount(), 1u);
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kWrite), 5u);  // four blocks, one of them twice
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kFlush), 1u);
  EXPECT_EQ(ReadBack(file, unit_), written);

  // A buffered write refused as well is a real error, reported once and not retried forever.
  FaultInjection::Reset();
  OPlatformByteStream out(file, true);
  ASSERT_TRUE(out.IsDirect());
  FaultInjection::FailNth(FileOp::kWrite, 1, EINVAL, /*persistent=*/true);
  EXPECT_EQ(ErrnoThrownBy([&] { out.WriteBlock(Block(1).get(), unit_); }), EINVAL);
  EXPECT_EQ(FaultInjection::InjectedCount(), 2u);
  EXPECT_FALSE(out.IsDirect());
}

TEST_F(PlatformStreams, MissingFilesAreReportedAsNotFound) {
  const File missing = scratch_.file("missing");
  EXPECT_THROW(OPlatformByteStream(missing, true), FileNotFoundError);
  EXPECT_THROW(OPlatformByteStream(missing, false), FileNotFoundError);
  EXPECT_THROW(IPlatformByteStream{missing}, FileNotFoundError);
  EXPECT_FALSE(missing.Exists());  // opening for writing never creates
}

// A source that hands out at most `step` bytes per call, as pipes and network mounts do.
class TrickleStream : public IByteStream {
 public:
  TrickleStream(const std::vector<uint8_t>& bytes, size_t step) : bytes_(bytes), step_(step) {}
  size_t Read(void* data, size_t length) override {
    const size_t n = std::min({length, step_, bytes_.size() - pos_});
    std::memcpy(data, bytes_.data() + pos_, n);
    pos_ += n;
    return n;
  }

 private:
  const std::vector<uint8_t>& bytes_;
  size_t step_;
  size_t pos_ = 0;
};

TEST(BufferedStream, SurvivesShortSourcesAndEndsCleanly) {
  const std::vector<uint8_t> bytes = PatternBytes(10000);
  for (size_t step : {1, 7, 4096, 100000}) {
    SCOPED_TRACE(step);
    TrickleStream source(bytes, step);
    BufferedIByteStream buffered(source, 1024, 512);
    std::vector<uint8_t> got(bytes.size());
    buffered.ReadExactly(got.data(), 3);
    buffered.ReadExactly(got.data() + 3, 5000);  // larger than the buffer
    buffered.ReadExactly(got.data() + 5003, bytes.size() - 5003);
    EXPECT_EQ(got, bytes);
    uint8_t extra;
    EXPECT_EQ(ErrnoThrownBy([&] { buffered.ReadExactly(&extra, 1); }), EIO) << "past the end";
  }
}

}  // namespace
}  // namespace zelcore::filesupport
