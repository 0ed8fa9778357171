// Byte streams over memory and over POSIX file descriptors.
#include "jxcache/host/byte_stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "host/file_syscall.h"
#include "host/file_utils.h"

namespace zelcore::filesupport {
namespace {

using detail::Fs;
using detail::ThrowFileError;

int OpenWithRetry(const std::string& path, int flags) {
  int fd;
  do {
    fd = Fs().Open(path.c_str(), flags, 0);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Opens for writing with O_DIRECT when asked and available. Returns the descriptor and sets
// *direct; a file system that refuses O_DIRECT (EINVAL) gets a plain open instead.
int OpenForWriting(const std::string& path, bool unbuffered, bool* direct) {
  *direct = false;
#if defined(O_DIRECT)
  if (unbuffered) {
    const int fd = OpenWithRetry(path, O_WRONLY | O_TRUNC | O_DIRECT);
    const int err = fd < 0 ? errno : 0;
    if (fd >= 0) {
      *direct = true;
      return fd;
    }
    if (err != EINVAL) ThrowFileError(err, FileOp::kOpen, path);
  }
#else
  (void)unbuffered;
#endif
  const int fd = OpenWithRetry(path, O_WRONLY | O_TRUNC);
  if (fd < 0) ThrowFileError(errno, FileOp::kOpen, path);
#if !defined(O_DIRECT) && defined(F_NOCACHE)
  if (unbuffered) ::fcntl(fd, F_NOCACHE, 1);  // best effort: keep the page cache out of the way
#endif
  return fd;
}

bool IsAligned(const void* data, size_t length, size_t unit) {
  return reinterpret_cast<uintptr_t>(data) % unit == 0 && length % unit == 0;
}

}  // namespace

// ---- IByteStream ----

void IByteStream::ReadExactly(void* data, size_t length) {
  auto* out = static_cast<uint8_t*>(data);
  size_t done = 0;
  while (done < length) {
    const size_t n = Read(out + done, length - done);
    if (n == 0) throw FileError(EIO, "read: unexpected end of file");
    done += n;
  }
}

void IByteStream::ExpectAtLeast(uint64_t length, const char* what) const {
  const uint64_t left = Remaining();
  if (left == kUnknownLength || length <= left) return;
  throw CorruptDataError(std::string(what) + " needs " + std::to_string(length) +
                         " bytes, the stream holds " + std::to_string(left));
}

CorruptDataError::CorruptDataError(const std::string& what)
    : FileError(EBADMSG, "corrupt data: " + what) {}

// ---- Memory streams ----

void VectorOByteStream::Write(const void* data, size_t length) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  bytes_.insert(bytes_.end(), bytes, bytes + length);
}

size_t MemoryIByteStream::Read(void* data, size_t length) {
  const size_t n = std::min(length, length_ - pos_);
  if (n > 0) std::memcpy(data, data_ + pos_, n);
  pos_ += n;
  return n;
}

// ---- OPlatformByteStream ----

OPlatformByteStream::OPlatformByteStream(const File& file, bool unbuffered)
    : path_(file.GetPath()) {
  fd_ = OpenForWriting(path_, unbuffered, &direct_);
  if (direct_) unit_ = utility::FileUtils::GetEfficientDiskBufferSizeFromPath(path_);
}

OPlatformByteStream::~OPlatformByteStream() {
  try {
    Close();
  } catch (...) {
    // Whoever needed the outcome called Close; a destructor must not throw.
  }
}

void OPlatformByteStream::Write(const void* data, size_t length) { WriteBlock(data, length); }

void OPlatformByteStream::WriteBlock(const void* data, size_t length) {
  if (fd_ < 0) throw FileError(EBADF, "write " + path_ + ": stream is closed");
  // O_DIRECT would refuse a misaligned transfer with a bare EINVAL from deep inside; say why.
  if (direct_ && !IsAligned(data, length, unit_)) {
    throw FileError(EINVAL, "write " + path_ + ": unbuffered block not aligned to " +
                                std::to_string(unit_) + " bytes");
  }
  const auto* bytes = static_cast<const uint8_t*>(data);
  while (length > 0) {
    // Injected faults take the system call's own path (WriteSome sets errno for them).
    const ssize_t n = detail::WriteSome(fd_, bytes, length);
    if (n < 0) {
      const int err = errno;
      if (err == EINTR) continue;
      // Some file systems accept O_DIRECT at open and refuse it only at the first transfer. The
      // block is aligned, so the refusal is about O_DIRECT itself: nothing was written and the
      // position has not moved. Carry on buffered from the same place.
      if (err == EINVAL && direct_ && LeaveDirectMode()) continue;
      ThrowFileError(err, FileOp::kWrite, path_);
    }
    if (n == 0) ThrowFileError(EIO, FileOp::kWrite, path_);
    bytes += n;
    length -= static_cast<size_t>(n);
    // A short count off a unit boundary leaves the rest misaligned in the file and in memory,
    // which O_DIRECT refuses: the rest of the file goes through the page cache, synced at Close.
    if (direct_ && length > 0 && static_cast<size_t>(n) % unit_ != 0 && !LeaveDirectMode()) {
      ThrowFileError(errno, FileOp::kWrite, path_);
    }
  }
}

bool OPlatformByteStream::LeaveDirectMode() {
#if defined(O_DIRECT)
  const int flags = Fs().GetStatusFlags(fd_);
  if (flags < 0 || Fs().SetStatusFlags(fd_, flags & ~O_DIRECT) != 0) return false;
#endif
  direct_ = false;
  return true;
}

void OPlatformByteStream::Flush() {
  // Nothing is held in user space; the data reaches the device at Close.
}

void OPlatformByteStream::Close() {
  if (fd_ < 0) return;
  const int fd = fd_;
  fd_ = -1;  // a failed Close is not retried: the stream is finished either way
  int err = 0;
  FileOp failed = FileOp::kTruncate;
  if (finalLength_ >= 0 && Fs().Truncate(fd, static_cast<off_t>(finalLength_)) != 0) err = errno;
  // Direct writes bypass the page cache but not the device's cache, and neither the writes that
  // grew the file nor the truncation have their new length on disk yet: sync either way.
  if (err == 0) {
    failed = FileOp::kFlush;
    err = detail::SyncData(fd);
  }
  if (Fs().Close(fd) != 0 && err == 0 && errno != EINTR) {
    failed = FileOp::kFlush;  // close reports a late write-back error
    err = errno;
  }
  if (err != 0) ThrowFileError(err, failed, path_);
}

// ---- IPlatformByteStream ----

IPlatformByteStream::IPlatformByteStream(const File& file) : path_(file.GetPath()) {
  // Without blocking: a FIFO put where a file was expected would wait for a writer forever.
  fd_ = OpenWithRetry(path_, O_RDONLY | O_NONBLOCK);
  if (fd_ < 0) ThrowFileError(errno, FileOp::kOpen, path_);
  struct stat st {};
  int err = Fs().FStat(fd_, &st) == 0 ? 0 : errno;
  if (err == 0 && !S_ISREG(st.st_mode)) err = EINVAL;  // a FIFO, device or socket
  if (err == 0 && Fs().SetStatusFlags(fd_, Fs().GetStatusFlags(fd_) & ~O_NONBLOCK) != 0) {
    err = errno;
  }
  if (err != 0) {
    Fs().Close(fd_);
    fd_ = -1;
    throw FileError(err, "open " + path_ + (err == EINVAL ? ": not a regular file" : ""));
  }
  openedSize_ = static_cast<uint64_t>(st.st_size);
}

uint64_t IPlatformByteStream::Remaining() const {
  return read_ < openedSize_ ? openedSize_ - read_ : 0;
}

IPlatformByteStream::~IPlatformByteStream() {
  if (fd_ >= 0) Fs().Close(fd_);
}

size_t IPlatformByteStream::Read(void* data, size_t length) {
  if (length == 0) return 0;
  for (;;) {
    const ssize_t n = detail::ReadSome(fd_, data, length);
    if (n >= 0) {
      read_ += static_cast<uint64_t>(n);
      return static_cast<size_t>(n);
    }
    if (errno != EINTR) ThrowFileError(errno, FileOp::kRead, path_);
  }
}

uint64_t IPlatformByteStream::Size() const {
  struct stat st {};
  if (Fs().StatusOf(fd_, &st) != 0) ThrowFileError(errno, FileOp::kSize, path_);
  return static_cast<uint64_t>(st.st_size);
}

// ---- BufferedIByteStream ----

BufferedIByteStream::BufferedIByteStream(IByteStream& source, size_t bufferSize, size_t blockSize)
    : source_(source) {
  const size_t block = std::max<size_t>(blockSize, 1);
  const size_t blocks = std::max<size_t>((bufferSize + block - 1) / block, 1);
  capacity_ = blocks * block;
  passThrough_ = std::min(capacity_, kPassThroughBytes);
}

size_t BufferedIByteStream::Read(void* data, size_t length) {
  auto* out = static_cast<uint8_t*>(data);
  size_t done = 0;
  while (done < length) {
    if (pos_ == end_) {
      // A large request goes straight to the source, but only while the buffer is empty so
      // that the order of bytes is kept: going through the buffer would copy every byte twice.
      if (length - done >= passThrough_) {
        const size_t n = source_.Read(out + done, length - done);
        if (n == 0) break;
        done += n;
        continue;
      }
      // Made on first need and never zeroed: a reader of large payloads may not need it at all.
      if (!buffer_) buffer_.reset(new uint8_t[capacity_]);
      pos_ = 0;
      end_ = source_.Read(buffer_.get(), capacity_);
      if (end_ == 0) break;
    }
    const size_t n = std::min(length - done, end_ - pos_);
    std::memcpy(out + done, buffer_.get() + pos_, n);
    pos_ += n;
    done += n;
  }
  return done;
}

uint64_t BufferedIByteStream::Remaining() const {
  const uint64_t source = source_.Remaining();
  return source == kUnknownLength ? source : source + (end_ - pos_);
}

// ---- AllocateAligned ----

std::unique_ptr<uint8_t, void (*)(uint8_t*)> AllocateAligned(size_t size, size_t alignment) {
  alignment = std::max(alignment, sizeof(void*));
  void* p = nullptr;
  if (::posix_memalign(&p, alignment, std::max<size_t>(size, 1)) != 0) throw std::bad_alloc();
  return {static_cast<uint8_t*>(p), [](uint8_t* q) { std::free(q); }};
}

}  // namespace zelcore::filesupport
