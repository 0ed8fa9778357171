// Round trips through the platform streams, direct and buffered, with and without short reads.
#include "jxcache/host/byte_stream.h"

#include <cstring>

#include <gtest/gtest.h>

#include "host/file_test_support.h"
#include "host/file_utils.h"
#include "testing/fault_injection.h"

namespace zelcore::filesupport {
namespace {

using testing::PatternBytes;
using testing::ScratchFolder;
using utility::FileUtils;

// Writes `blocks` aligned blocks the way the cache's disk writer does (the last block at full
// length) and sets the true length, which is deliberately not a multiple of the unit.
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
  // Small reads go through the buffer and large ones past it, so a large read that comes while
  // the buffer still holds bytes must be served from the buffer first.
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

TEST(PlatformStreams, DirectBlocksWithFinalLengthRoundTripExactly) {
  ScratchFolder scratch;
  const size_t unit = FileUtils::GetEfficientDiskBufferSizeFromPath(scratch.dir().GetPath());
  for (bool shortReads : {false, true}) {
    SCOPED_TRACE(shortReads ? "short reads" : "full reads");
    const File file = scratch.file(shortReads ? "short" : "full");
    file.Create();
    std::vector<uint8_t> written;
    const uint64_t syncs = FaultInjection::CallCount(FileOp::kFlush);
    {
      OPlatformByteStream out(file, true);
      written = WriteBlocks(out, unit, 5, 123);
    }
    // The truncation to the true length must reach the disk too, even after direct writes.
    EXPECT_EQ(FaultInjection::CallCount(FileOp::kFlush), syncs + 1);
    EXPECT_EQ(file.Size(), written.size());
    FaultInjection::SetShortReads(shortReads);
    EXPECT_EQ(ReadBack(file, unit), written);
    FaultInjection::SetShortReads(false);
  }
}

TEST(PlatformStreams, DirectModeRefusesMisalignedBlocks) {
  ScratchFolder scratch;
  const File file = scratch.file("f");
  file.Create();
  OPlatformByteStream out(file, true);
  if (!out.IsDirect()) GTEST_SKIP() << "this file system refuses O_DIRECT";
  const size_t unit = FileUtils::GetEfficientDiskBufferSizeFromPath(file.GetPath());
  auto buffer = AllocateAligned(2 * unit, unit);
  std::memset(buffer.get(), 7, 2 * unit);
  for (auto [offset, length] : {std::pair<size_t, size_t>{1, unit}, {0, unit - 1}}) {
    try {
      out.WriteBlock(buffer.get() + offset, length);
      ADD_FAILURE() << "misaligned block accepted at offset " << offset << " length " << length;
    } catch (const FileError& e) {
      EXPECT_EQ(e.Errno(), EINVAL);
    }
  }
  out.WriteBlock(buffer.get(), unit);  // the stream is still usable
  out.Close();
  EXPECT_EQ(file.Size(), unit);
}

TEST(PlatformStreams, RefusedDirectOpenFallsBackToBufferedAndSyncs) {
  ScratchFolder scratch;
  const size_t unit = FileUtils::GetEfficientDiskBufferSizeFromPath(scratch.dir().GetPath());
  const File file = scratch.file("f");
  file.Create();
  FaultInjection::FailNth(FileOp::kOpen, 1, EINVAL);
  std::vector<uint8_t> written;
  {
    OPlatformByteStream out(file, true);
    EXPECT_FALSE(out.IsDirect());
    EXPECT_EQ(FaultInjection::CallCount(FileOp::kOpen), 2u);
    written = WriteBlocks(out, unit, 3, unit + 1);
  }
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kFlush), 1u);  // the data was synced at Close
  EXPECT_EQ(ReadBack(file, unit), written);

  // EINVAL on a plain open is an error like any other: there is nothing to fall back to.
  FaultInjection::FailNth(FileOp::kOpen, 1, EINVAL);
  EXPECT_THROW(OPlatformByteStream(file, false), FileError);
}
// A device may take part of a write. Halving a block of four units leaves whole units, so a
// direct stream stays direct; halving a single unit does not, and the rest of the file must go
// through the page cache. Either way the file is synced, is exactly what was written, and
// short reads of it give the same bytes.
TEST(PlatformStreams, ShortWritesAreFinishedOnAndOffUnitBoundaries) {
  ScratchFolder scratch;
  const size_t unit = FileUtils::GetEfficientDiskBufferSizeFromPath(scratch.dir().GetPath());
  for (bool persistent : {false, true}) {
    SCOPED_TRACE(persistent ? "every write from the first short" : "the first write short");
    const File file = scratch.file(persistent ? "every" : "first");
    file.Create();
    std::vector<uint8_t> written;
    bool directAtStart, directAtEnd;
    {
      OPlatformByteStream out(file, true);
      directAtStart = out.IsDirect();
      FaultInjection::ShortNth(FileOp::kWrite, 1, persistent);
      written = WriteBlocks(out, unit, 3, 17);
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
    EXPECT_EQ(ReadBack(file, unit), written);
    FaultInjection::Reset();
  }
}

// Some file systems accept O_DIRECT at open and refuse it (EINVAL) only at the first transfer.
TEST(PlatformStreams, DirectWriteRefusedAfterOpenCarriesOnBufferedWithEveryByte) {
  ScratchFolder scratch;
  const File file = scratch.file("f");
  file.Create();
  const size_t unit = FileUtils::GetEfficientDiskBufferSizeFromPath(file.GetPath());
  std::vector<uint8_t> written;
  {
    OPlatformByteStream out(file, true);
    if (!out.IsDirect()) GTEST_SKIP() << "this file system refuses O_DIRECT at open";
    // The second block is refused: the first is already on disk, direct.
    FaultInjection::FailNth(FileOp::kWrite, 2, EINVAL);
    written = WriteBlocks(out, unit, 4, 77);
    EXPECT_FALSE(out.IsDirect());
  }
  EXPECT_EQ(FaultInjection::InjectedCount(), 1u);
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kWrite), 5u);  // four blocks, one of them twice
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kFlush), 1u);
  EXPECT_EQ(ReadBack(file, unit), written);

  // A buffered write refused as well is a real error, reported once and not retried forever.
  FaultInjection::Reset();
  OPlatformByteStream out(file, true);
  ASSERT_TRUE(out.IsDirect());
  FaultInjection::FailNth(FileOp::kWrite, 1, EINVAL, /*persistent=*/true);
  auto buffer = AllocateAligned(unit, unit);
  std::memset(buffer.get(), 1, unit);
  try {
    out.WriteBlock(buffer.get(), unit);
    ADD_FAILURE() << "a write refused in both modes was accepted";
  } catch (const FileError& e) {
    EXPECT_EQ(e.Errno(), EINVAL);
  }
  EXPECT_EQ(FaultInjection::InjectedCount(), 2u);
  EXPECT_FALSE(out.IsDirect());
}

TEST(PlatformStreams, MissingFilesAreReportedAsNotFound) {
  ScratchFolder scratch;
  const File missing = scratch.file("missing");
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
    try {
      buffered.ReadExactly(&extra, 1);
      ADD_FAILURE() << "read past the end";
    } catch (const FileError& e) {
      EXPECT_EQ(e.Errno(), EIO);
    }
  }
}

}  // namespace
}  // namespace zelcore::filesupport
