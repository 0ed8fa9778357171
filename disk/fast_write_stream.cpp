// FastWriteOnlyStream: whole aligned blocks out, the true length at close.
#include "disk/fast_write_stream.h"

#include <cstring>
#include <stdexcept>

#include "host/file_utils.h"

namespace jx::disk {

using zelcore::filesupport::AllocateAligned;
using zelcore::filesupport::File;
using zelcore::filesupport::OPlatformByteStream;

FastWriteOnlyStream::FastWriteOnlyStream(const File& file)
    : OPlatformByteStream(file, /*unbuffered=*/true),
      unit_(zelcore::utility::FileUtils::GetEfficientDiskBufferSizeFromPath(file.GetPath())),
      bufferSize_((kBufferBytes + unit_ - 1) / unit_ * unit_),
      buffer_(AllocateAligned(bufferSize_, unit_)) {}

FastWriteOnlyStream::~FastWriteOnlyStream() = default;

void FastWriteOnlyStream::Write(const void* data, size_t length) {
  if (finalBlockWritten_) throw std::logic_error("FastWriteOnlyStream: write after the last block");
  const auto* bytes = static_cast<const uint8_t*>(data);
  totalCount_ += length;
  while (length >= bufferSize_ - cursor_) {
    const size_t room = bufferSize_ - cursor_;
    std::memcpy(buffer_.get() + cursor_, bytes, room);
    WriteBlock(buffer_.get(), bufferSize_);
    cursor_ = 0;
    bytes += room;
    length -= room;
  }
  if (length > 0) {
    std::memcpy(buffer_.get() + cursor_, bytes, length);
    cursor_ += length;
  }
}

void FastWriteOnlyStream::WriteFinalBlock() {
  if (finalBlockWritten_) return;
  finalBlockWritten_ = 1;
  if (cursor_ > 0) {
    // Unbuffered transfers take whole units only; the padding is cut off again at close.
    const size_t padded = (cursor_ + unit_ - 1) / unit_ * unit_;
    std::memset(buffer_.get() + cursor_, 0, padded - cursor_);
    WriteBlock(buffer_.get(), padded);
    cursor_ = 0;
  }
  SetFinalLength(totalCount_);
}

void FastWriteOnlyStream::Close() {
  WriteFinalBlock();
  OPlatformByteStream::Close();
}

}  // namespace jx::disk
