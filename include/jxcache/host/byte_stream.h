// Byte streams over files.
//
// OPlatformByteStream writes whole blocks straight to disk where the file system allows it
// (O_DIRECT with an aligned buffer; the caller supplies aligned blocks of whole units) and falls
// back to buffered writes where it refuses O_DIRECT (EINVAL), whether at open or at the first
// write. Close sets the file to its true length and syncs its data in either mode.
// IPlatformByteStream reads a file; BufferedIByteStream puts a large buffer in front of another
// input stream. Streams belong to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "jxcache/host/export.h"
#include "jxcache/host/file.h"

namespace zelcore::filesupport {

class JX_EXPORT OByteStream {
 public:
  virtual ~OByteStream() = default;
  virtual void Write(const void* data, size_t length) = 0;
  virtual void WriteByte(uint8_t byte) { Write(&byte, 1); }
  virtual void Flush() {}
  virtual void Close() {}
};

class JX_EXPORT IByteStream {
 public:
  static constexpr uint64_t kUnknownLength = UINT64_MAX;

  virtual ~IByteStream() = default;
  // Reads up to `length` bytes; returns how many were read, 0 at the end.
  virtual size_t Read(void* data, size_t length) = 0;
  // Bytes left to read, or kUnknownLength where the stream cannot tell. A reader checks what a
  // header claims against it before it allocates: a damaged file must not make it allocate more
  // than the file can hold.
  virtual uint64_t Remaining() const { return kUnknownLength; }
  // Reads exactly `length` bytes or throws FileError(EIO) ("unexpected end of file").
  void ReadExactly(void* data, size_t length);
  // Throws CorruptDataError when fewer than `length` bytes are left (see Remaining).
  void ExpectAtLeast(uint64_t length, const char* what) const;
};

// Bytes that cannot be what their writer wrote: a header that does not fit the stream, a
// checksum that does not match. A reader throws it; the cache then treats the file as damaged.
class JX_EXPORT CorruptDataError : public FileError {
 public:
  explicit CorruptDataError(const std::string& what);
};

// An OByteStream that collects bytes in memory (for tests and for payloads that serialise first).
class VectorOByteStream : public OByteStream {
 public:
  void Write(const void* data, size_t length) override;
  std::vector<uint8_t>& Bytes() { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};

// An IByteStream over bytes in memory.
class MemoryIByteStream : public IByteStream {
 public:
  MemoryIByteStream(const uint8_t* data, size_t length) : data_(data), length_(length) {}
  size_t Read(void* data, size_t length) override;
  uint64_t Remaining() const override { return length_ - pos_; }

 private:
  const uint8_t* data_;
  size_t length_;
  size_t pos_ = 0;
};

class OPlatformByteStream : public OByteStream {
 public:
  // Opens an existing file for writing, truncating it. `unbuffered` asks for O_DIRECT.
  // Throws FileNotFoundError when the file does not exist, FileError otherwise.
  OPlatformByteStream(const File& file, bool unbuffered);
  ~OPlatformByteStream() override;

  // Plain write at the current position (buffered mode; in direct mode only aligned whole
  // units are accepted, see WriteBlock).
  void Write(const void* data, size_t length) override;
  // Writes one block. In direct mode `data` must be aligned to the unit and `length` a multiple
  // of it. Short writes are retried (after one that ends off a unit boundary the stream is no
  // longer direct); errors throw FileError. A direct write refused with EINVAL switches the
  // stream to buffered mode (IsDirect turns false) and is retried there.
  void WriteBlock(const void* data, size_t length);
  // Sets the length the file will have after Close.
  void SetFinalLength(uint64_t length) { finalLength_ = static_cast<int64_t>(length); }
  void Flush() override;
  // Truncates to the final length (if set), syncs the data, closes. Throws FileError.
  void Close() override;
  bool IsDirect() const { return direct_; }

 protected:
  // Clears O_DIRECT on the open descriptor, so that what follows goes through the page cache
  // (synced at Close); false when the system will not.
  bool LeaveDirectMode();

 private:
  int fd_ = -1;
  bool direct_ = false;
  size_t unit_ = 0;  // direct mode: the alignment every block's address and length must have
  int64_t finalLength_ = -1;
  std::string path_;
};

class IPlatformByteStream : public IByteStream {
 public:
  // Throws FileNotFoundError / FileError.
  explicit IPlatformByteStream(const File& file);
  ~IPlatformByteStream() override;
  size_t Read(void* data, size_t length) override;
  // The file's size when it was opened, less what was read since (a cache file is replaced by a
  // rename, never rewritten in place, so the open file keeps its size).
  uint64_t Remaining() const override;
  uint64_t Size() const;

 private:
  int fd_ = -1;
  uint64_t openedSize_ = 0;
  uint64_t read_ = 0;
  std::string path_;
};

class BufferedIByteStream : public IByteStream {
 public:
  // Reads from `source` in chunks of `bufferSize` bytes (a multiple of blockSize). Requests of
  // at least min(bufferSize, kPassThroughBytes) bytes go straight to `source` whenever the
  // buffer is empty.
  BufferedIByteStream(IByteStream& source, size_t bufferSize, size_t blockSize);
  static constexpr size_t kPassThroughBytes = 64 * 1024;
  size_t Read(void* data, size_t length) override;
  uint64_t Remaining() const override;

 private:
  IByteStream& source_;
  std::unique_ptr<uint8_t[]> buffer_;
  size_t capacity_ = 0;
  size_t passThrough_ = 0;
  size_t pos_ = 0;
  size_t end_ = 0;
};

// Allocates `size` bytes aligned to `alignment` (a power of two); throws std::bad_alloc.
std::unique_ptr<uint8_t, void (*)(uint8_t*)> AllocateAligned(size_t size, size_t alignment);

}  // namespace zelcore::filesupport
