#include "jxcache/items/checksummed_stream.h"

#include <algorithm>
#include <new>
#include <string>

#define XXH_STATIC_LINKING_ONLY
#include <xxhash.h>
#if defined(__x86_64__) || defined(_M_X64)
#include <xxh_x86dispatch.h>
#define JX_XXH3_UPDATE XXH3_64bits_update_dispatch
#else
#define JX_XXH3_UPDATE XXH3_64bits_update
#endif

using zelcore::filesupport::CorruptDataError;

namespace jx {
namespace {

// Large transfers are hashed and moved a slice at a time, so that the slice the hash just read
// is still in the processor's cache when it is copied (and the reverse when reading): the data
// then comes from memory once, not twice.
constexpr size_t kSlice = 128 * 1024;

using StatePtr = std::unique_ptr<XXH3_state_s, void (*)(XXH3_state_s*)>;

StatePtr NewState() {
  StatePtr state(XXH3_createState(), [](XXH3_state_s* s) { XXH3_freeState(s); });
  if (!state || XXH3_64bits_reset(state.get()) != XXH_OK) throw std::bad_alloc();
  return state;
}

void Update(XXH3_state_s* state, const void* data, size_t length) {
  if (length != 0) JX_XXH3_UPDATE(state, data, length);
}

void StoreLittleEndian(uint64_t v, uint8_t out[kChecksumTrailerSize]) {
  for (size_t i = 0; i < kChecksumTrailerSize; ++i) out[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint64_t LoadLittleEndian(const uint8_t in[kChecksumTrailerSize]) {
  uint64_t v = 0;
  for (size_t i = 0; i < kChecksumTrailerSize; ++i) v |= uint64_t{in[i]} << (8 * i);
  return v;
}

}  // namespace

ChecksummedOByteStream::ChecksummedOByteStream(zelcore::filesupport::OByteStream& out)
    : out_(out), state_(NewState()) {}

ChecksummedOByteStream::~ChecksummedOByteStream() = default;

void ChecksummedOByteStream::Write(const void* data, size_t length) {
  if (finished_) throw zelcore::filesupport::FileError(EINVAL, "write after the checksum trailer");
  const auto* bytes = static_cast<const uint8_t*>(data);
  while (length > 0) {
    const size_t n = std::min(length, kSlice);
    Update(state_.get(), bytes, n);
    out_.Write(bytes, n);
    bytes += n;
    length -= n;
  }
}

void ChecksummedOByteStream::Finish() {
  if (finished_) return;
  uint8_t trailer[kChecksumTrailerSize];
  StoreLittleEndian(XXH3_64bits_digest(state_.get()), trailer);
  out_.Write(trailer, sizeof trailer);
  finished_ = true;
}

ChecksummedIByteStream::ChecksummedIByteStream(zelcore::filesupport::IByteStream& in)
    : in_(in), state_(NewState()) {}

ChecksummedIByteStream::~ChecksummedIByteStream() = default;

uint64_t ChecksummedIByteStream::Remaining() const {
  const uint64_t left = in_.Remaining();
  if (left == kUnknownLength) return left;
  return left > kChecksumTrailerSize ? left - kChecksumTrailerSize : 0;
}

size_t ChecksummedIByteStream::Read(void* data, size_t length) {
  length = static_cast<size_t>(std::min<uint64_t>(length, Remaining()));
  auto* bytes = static_cast<uint8_t*>(data);
  size_t done = 0;
  while (done < length) {
    const size_t n = in_.Read(bytes + done, std::min(length - done, kSlice));
    if (n == 0) break;
    Update(state_.get(), bytes + done, n);
    done += n;
  }
  return done;
}

void ChecksummedIByteStream::Verify() {
  uint8_t trailer[kChecksumTrailerSize];
  size_t got = 0;
  while (got < sizeof trailer) {
    const size_t n = in_.Read(trailer + got, sizeof trailer - got);
    if (n == 0) throw CorruptDataError("the checksum trailer is missing");
    got += n;
  }
  if (LoadLittleEndian(trailer) != XXH3_64bits_digest(state_.get())) {
    throw CorruptDataError("checksum mismatch");
  }
  uint8_t extra;
  if (in_.Read(&extra, 1) != 0) throw CorruptDataError("bytes after the checksum trailer");
}

}  // namespace jx
