// What the checksummed stream tests write and read: a recognisable payload and its sealed file.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "jxcache/items/checksummed_stream.h"

namespace jx::testing {

// `n` bytes that differ from their neighbours and, with another `seed`, from another payload's.
inline std::vector<uint8_t> Pattern(size_t n, unsigned seed = 0) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 131 + (i >> 9) + seed);
  return v;
}

// `payload` written in pieces of `piece` bytes (one write by default), with the trailer.
inline std::vector<uint8_t> Sealed(const std::vector<uint8_t>& payload, size_t piece = SIZE_MAX) {
  zelcore::filesupport::VectorOByteStream out;
  ChecksummedOByteStream sum(out);
  for (size_t at = 0; at < payload.size();) {
    const size_t n = std::min(piece, payload.size() - at);
    sum.Write(payload.data() + at, n);
    at += n;
  }
  sum.Finish();
  return out.Bytes();
}

}  // namespace jx::testing
