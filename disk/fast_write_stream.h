// FastWriteOnlyStream: the output stream disk cache files are written through.
//
// Cache files are large and written once; going through the system cache would evict the host's
// own files for data nobody will read soon. So the stream writes unbuffered (O_DIRECT where the
// file system allows it, see OPlatformByteStream) from a buffer of about 4 MiB (64 units of
// 64 KiB; a single unit where the volume's unit is larger), aligned to a unit, in whole blocks.
// The unit is the volume's efficient disk buffer size. The last, partial block
// is padded to whole units, written once, and the file is cut back to the true length at close.
//
// Ownership: owned by the one writer that made it; belongs to one thread. The file must exist.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "host/byte_stream.h"
#include "host/file.h"

namespace jx::disk {

class FastWriteOnlyStream : public zelcore::filesupport::OPlatformByteStream {
 public:
  // The buffer's size in bytes, rounded up to whole units. Volumes with huge blocks get larger
  // units, not more of them: a fixed count of units would grow the buffer with the block size.
  static constexpr size_t kBufferBytes = 4 * 1024 * 1024;

  // Opens the existing `file` for writing. Throws FileNotFoundError / FileError when it cannot
  // be opened, std::bad_alloc when the buffer cannot be had.
  explicit FastWriteOnlyStream(const zelcore::filesupport::File& file);
  // Closes without writing what is still buffered: a stream that was not finished by Close
  // belongs to a write that failed.
  ~FastWriteOnlyStream() override;

  void Write(const void* data, size_t length) override;
  void WriteByte(uint8_t byte) override { Write(&byte, 1); }
  // Writes the buffered tail once (padded to whole units) and records the true length; later
  // calls do nothing.
  void WriteFinalBlock();
  // WriteFinalBlock, then closes the file at its true length. Throws FileError.
  void Close() override;

  uint64_t GetTotalCount() const { return totalCount_; }
  size_t GetUnit() const { return unit_; }
  size_t GetBufferSize() const { return bufferSize_; }

 private:
  size_t unit_;
  size_t bufferSize_;
  std::unique_ptr<uint8_t, void (*)(uint8_t*)> buffer_;
  size_t cursor_ = 0;
  uint64_t totalCount_ = 0;
  uint8_t finalBlockWritten_ = 0;
};

}  // namespace jx::disk
