// FastWriteOnlyStream: the output stream disk cache files are written through.
//
// Cache files are large and written once; going through the system cache would evict the host's
// own files for data nobody will read soon. So the stream writes unbuffered (O_DIRECT where the
// file system allows it, see OPlatformByteStream) from a buffer of about 4 MiB (64 units of
// 64 KiB; a single unit where the volume's unit is larger), aligned to a unit, in whole blocks.
// The unit is the volume's efficient disk buffer size. The last part of a unit goes through the
// system cache, synced at close with the rest; where the file cannot leave unbuffered mode, it is
// padded to a whole unit, and the file is cut back to its true length at close.
//
// Unbuffered writes take aligned memory, so every byte is copied into the buffer first. For a
// file longer than one slot (an eighth of the buffer) that copy would add to the disk's time;
// instead, a thread of the stream's own writes the full slots while the caller fills the next
// ones. A file of one slot or less is written by the caller alone. A failed write of that
// thread is thrown by the caller's next Write, WriteFinalBlock or Close.
//
// Ownership: owned by the one writer that made it; belongs to one thread. The file must exist.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "jxcache/host/byte_stream.h"
#include "jxcache/host/file.h"

namespace jx::disk {

class FastWriteOnlyStream : public zelcore::filesupport::OPlatformByteStream {
 public:
  // The buffer's size in bytes, rounded up to whole units. Volumes with huge blocks get larger
  // units, not more of them: a fixed count of units would grow the buffer with the block size.
  static constexpr size_t kBufferBytes = 4 * 1024 * 1024;
  // The buffer is cut into this many slots when it holds at least as many units; otherwise it is
  // one slot and nothing is written in the background. The disk idles until the first slot is
  // full: eight slots of 512 KiB wrote 8 MiB files about 6% faster than four of 1 MiB, since
  // the writer joins whatever slots are waiting into one block once it is under way.
  static constexpr size_t kSlots = 8;

  // Opens the existing `file` for writing. Throws FileNotFoundError / FileError when it cannot
  // be opened, std::bad_alloc when the buffer cannot be had.
  explicit FastWriteOnlyStream(const zelcore::filesupport::File& file);
  // Waits for the slots being written, then closes without writing what is still buffered: a
  // stream that was not finished by Close belongs to a write that failed.
  ~FastWriteOnlyStream() override;

  void Write(const void* data, size_t length) override;
  void WriteByte(uint8_t byte) override { Write(&byte, 1); }
  // Waits for the slots being written, writes the buffered tail once (padded to whole units) and
  // records the true length; later calls do nothing. Throws FileError, also for a slot that
  // failed in the background.
  void WriteFinalBlock();
  // WriteFinalBlock, then closes the file at its true length. Throws FileError.
  void Close() override;

  uint64_t GetTotalCount() const { return totalCount_; }
  size_t GetUnit() const { return unit_; }
  size_t GetBufferSize() const { return bufferSize_; }

 private:
  class BackgroundWriter;

  uint8_t* Slot(size_t index) const { return buffer_.get() + index * slotSize_; }
  // The current slot is full: hands it to the background writer (started on the first call) and
  // moves on to the next slot, once that one has been written.
  void HandOffFullSlot();

  size_t unit_;
  size_t bufferSize_;
  size_t slots_;
  size_t slotSize_;
  std::unique_ptr<uint8_t, void (*)(uint8_t*)> buffer_;
  size_t slot_ = 0;    // the slot being filled
  size_t cursor_ = 0;  // bytes in it
  uint64_t totalCount_ = 0;
  uint8_t finalBlockWritten_ = 0;
  // Declared after the buffer: destroyed (and joined) before the memory it writes from is freed.
  std::unique_ptr<BackgroundWriter> writer_;
};

}  // namespace jx::disk
