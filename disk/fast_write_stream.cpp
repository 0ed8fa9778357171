// FastWriteOnlyStream: whole aligned blocks out, the true length at close.
#include "disk/fast_write_stream.h"

#include <cstring>
#include <stdexcept>

#include "host/file_utils.h"

namespace jx::disk {

using zelcore::filesupport::AllocateAligned;
using zelcore::filesupport::File;
using zelcore::filesupport::OPlatformByteStream;

namespace {
void NoBuffer(uint8_t*) {}
}  // namespace

FastWriteOnlyStream::FastWriteOnlyStream(const File& file)
    : OPlatformByteStream(file, /*unbuffered=*/true),
      unit_(zelcore::utility::FileUtils::GetEfficientDiskBufferSizeFromPath(file.GetPath())),
      blockSize_((kBufferBytes / 2 + unit_ - 1) / unit_ * unit_),
      buffers_{AllocateAligned(blockSize_, unit_), Buffer(nullptr, &NoBuffer)} {}

FastWriteOnlyStream::~FastWriteOnlyStream() {
  // The block in flight is read from one of the buffers, which go with this object.
  AbandonBlockBehind();
}

void FastWriteOnlyStream::Write(const void* data, size_t length) {
  if (finalBlockWritten_) throw std::logic_error("FastWriteOnlyStream: write after the last block");
  const auto* bytes = static_cast<const uint8_t*>(data);
  totalCount_ += length;
  while (length >= blockSize_ - cursor_) {
    const size_t room = blockSize_ - cursor_;
    std::memcpy(Filling() + cursor_, bytes, room);
    // Waits for the other buffer's block (if one is in flight), then sends this one and fills
    // the other meanwhile.
    WriteBlockBehind(Filling(), blockSize_);
    filling_ ^= 1;
    if (!buffers_[filling_]) buffers_[filling_] = AllocateAligned(blockSize_, unit_);
    cursor_ = 0;
    bytes += room;
    length -= room;
  }
  if (length > 0) {
    std::memcpy(Filling() + cursor_, bytes, length);
    cursor_ += length;
  }
}

void FastWriteOnlyStream::WriteFinalBlock() {
  if (finalBlockWritten_) return;
  finalBlockWritten_ = 1;
  WaitForBlockBehind();
  if (cursor_ > 0) {
    // Unbuffered transfers take whole units only; the padding is cut off again at close.
    const size_t padded = (cursor_ + unit_ - 1) / unit_ * unit_;
    std::memset(Filling() + cursor_, 0, padded - cursor_);
    WriteBlock(Filling(), padded);
    cursor_ = 0;
  }
  SetFinalLength(totalCount_);
}

void FastWriteOnlyStream::Close() {
  WriteFinalBlock();
  OPlatformByteStream::Close();
}

}  // namespace jx::disk
