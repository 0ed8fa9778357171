// MurmurHash3 x64 128, streaming. Blocks are read little-endian byte by byte so that the
// result does not depend on the machine's byte order or on the alignment of the input.
#include "host/murmur3.h"

#include <cstring>

namespace zelcore::utility {

namespace {

constexpr uint64_t kC1 = 0x87c37b91114253d5ull;
constexpr uint64_t kC2 = 0x4cf5ad432745937full;

inline uint64_t Rotl64(uint64_t x, int r) { return (x << r) | (x >> (64 - r)); }

inline uint64_t FMix64(uint64_t k) {
  k ^= k >> 33;
  k *= 0xff51afd7ed558ccdull;
  k ^= k >> 33;
  k *= 0xc4ceb9fe1a85ec53ull;
  k ^= k >> 33;
  return k;
}

inline uint64_t LoadLE64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

inline void MixBlock(uint64_t& h1, uint64_t& h2, const uint8_t* block) {
  uint64_t k1 = LoadLE64(block);
  uint64_t k2 = LoadLE64(block + 8);

  k1 *= kC1;
  k1 = Rotl64(k1, 31);
  k1 *= kC2;
  h1 ^= k1;
  h1 = Rotl64(h1, 27);
  h1 += h2;
  h1 = h1 * 5 + 0x52dce729;

  k2 *= kC2;
  k2 = Rotl64(k2, 33);
  k2 *= kC1;
  h2 ^= k2;
  h2 = Rotl64(h2, 31);
  h2 += h1;
  h2 = h2 * 5 + 0x38495ab5;
}

void Finish(const HashState& state, uint64_t* outH1, uint64_t* outH2) {
  uint64_t h1 = state.h1;
  uint64_t h2 = state.h2;
  const uint8_t* tail = state.tail;
  const size_t n = state.tailLength;

  uint64_t k1 = 0;
  uint64_t k2 = 0;
  for (size_t i = n; i > 8; --i) k2 ^= static_cast<uint64_t>(tail[i - 1]) << ((i - 9) * 8);
  if (n > 8) {
    k2 *= kC2;
    k2 = Rotl64(k2, 33);
    k2 *= kC1;
    h2 ^= k2;
  }
  for (size_t i = n < 8 ? n : 8; i > 0; --i)
    k1 ^= static_cast<uint64_t>(tail[i - 1]) << ((i - 1) * 8);
  if (n > 0) {
    k1 *= kC1;
    k1 = Rotl64(k1, 31);
    k1 *= kC2;
    h1 ^= k1;
  }

  h1 ^= state.totalLength;
  h2 ^= state.totalLength;
  h1 += h2;
  h2 += h1;
  h1 = FMix64(h1);
  h2 = FMix64(h2);
  h1 += h2;
  h2 += h1;
  *outH1 = h1;
  *outH2 = h2;
}

}  // namespace

HashState MakeHashState(uint32_t seed) {
  HashState state;
  state.h1 = seed;
  state.h2 = seed;
  return state;
}

void UpdateHashState(HashState& state, const void* data, size_t length) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  state.totalLength += length;

  // Complete a block left over from the previous run first.
  if (state.tailLength > 0) {
    size_t take = 16 - state.tailLength;
    if (take > length) take = length;
    std::memcpy(state.tail + state.tailLength, p, take);
    state.tailLength += take;
    p += take;
    length -= take;
    if (state.tailLength < 16) return;
    MixBlock(state.h1, state.h2, state.tail);
    state.tailLength = 0;
  }
  while (length >= 16) {
    MixBlock(state.h1, state.h2, p);
    p += 16;
    length -= 16;
  }
  if (length > 0) {
    std::memcpy(state.tail, p, length);
    state.tailLength = length;
  }
}

std::array<uint8_t, 16> GetHashResult(const HashState& state) {
  uint64_t h1, h2;
  Finish(state, &h1, &h2);
  std::array<uint8_t, 16> out;
  for (int i = 0; i < 8; ++i) {
    out[i] = static_cast<uint8_t>(h1 >> (8 * i));
    out[8 + i] = static_cast<uint8_t>(h2 >> (8 * i));
  }
  return out;
}

void MurmurHash3_x64_128(const void* key, size_t length, uint32_t seed, void* out) {
  HashState state = MakeHashState(seed);
  UpdateHashState(state, key, length);
  uint64_t h[2];
  Finish(state, &h[0], &h[1]);
  std::memcpy(out, h, sizeof h);
}

}  // namespace zelcore::utility
