// A checksumming writer/reader pair for payload authors.
//
// A cache file holds nothing but the payload's own bytes, so a flipped bit or a torn sector would
// be read back as a good frame unless the payload checks its own stream. A payload's Write wraps
// its output in ChecksummedOByteStream and calls Finish after its last byte, which appends an
// 8-byte trailer (the XXH3-64 hash of the bytes before it, little-endian). Its Read wraps its
// input in ChecksummedIByteStream, reads exactly what it wrote, and calls Verify, which reads the
// trailer, compares, and throws CorruptDataError on a mismatch or on bytes after the trailer.
// The cache counts that as a failed read: the file is deleted and the value computed again.
//
// A file's bytes alone cannot tell whose they are: a whole, good file copied or renamed to another
// item's name would pass a plain checksum and be served as that item. So the streams the cache
// hands a payload for a cache file also carry a ChecksumIdentity, a seed derived from the file's
// name, and a checksummed stream wrapped directly around such a stream seeds its hash with it.
// The trailer then holds for those bytes under that name only; a file under any other name fails
// Verify like a damaged one. Streams without an identity (in memory, the farm tier's values)
// keep the unseeded XXH3-64. A payload that puts a stream of its own in between loses the
// binding unless its stream forwards the identity too.
//
// Before allocating what a header claims, a reader compares the claim with Remaining() (which,
// here, leaves the trailer out): a damaged name or body can then never make it allocate more
// than the file can hold.
//
// Both streams belong to one thread, like the streams they wrap, which must outlive them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "jxcache/host/byte_stream.h"
#include "jxcache/host/export.h"

struct XXH3_state_s;

namespace jx {

inline constexpr size_t kChecksumTrailerSize = 8;

// Mixed into a byte stream that stands for one named copy of an item (the cache's file streams).
// The seed must be the same for the stream that writes the copy and every stream that reads it.
class JX_EXPORT ChecksumIdentity {
 public:
  explicit ChecksumIdentity(uint64_t seed) : seed_(seed) {}
  virtual ~ChecksumIdentity() = default;
  uint64_t ChecksumSeed() const { return seed_; }

 private:
  uint64_t seed_;
};

class JX_EXPORT ChecksummedOByteStream : public zelcore::filesupport::OByteStream {
 public:
  explicit ChecksummedOByteStream(zelcore::filesupport::OByteStream& out);
  ~ChecksummedOByteStream() override;
  ChecksummedOByteStream(const ChecksummedOByteStream&) = delete;
  ChecksummedOByteStream& operator=(const ChecksummedOByteStream&) = delete;

  void Write(const void* data, size_t length) override;
  void Flush() override { out_.Flush(); }
  // Appends the trailer. Call once, after the payload's last byte; nothing may follow it.
  void Finish();

 private:
  zelcore::filesupport::OByteStream& out_;
  std::unique_ptr<XXH3_state_s, void (*)(XXH3_state_s*)> state_;
  bool finished_ = false;
};

class JX_EXPORT ChecksummedIByteStream : public zelcore::filesupport::IByteStream {
 public:
  explicit ChecksummedIByteStream(zelcore::filesupport::IByteStream& in);
  ~ChecksummedIByteStream() override;
  ChecksummedIByteStream(const ChecksummedIByteStream&) = delete;
  ChecksummedIByteStream& operator=(const ChecksummedIByteStream&) = delete;

  // Reads payload bytes; never reads into the trailer when the wrapped stream knows its length.
  size_t Read(void* data, size_t length) override;
  // Payload bytes left: the wrapped stream's remaining bytes less the trailer.
  uint64_t Remaining() const override;
  // Reads the trailer and checks it against the bytes read so far; throws CorruptDataError when
  // the trailer is missing or does not match, or when anything follows it.
  void Verify();

 private:
  zelcore::filesupport::IByteStream& in_;
  std::unique_ptr<XXH3_state_s, void (*)(XXH3_state_s*)> state_;
};

}  // namespace jx
