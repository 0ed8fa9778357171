// MurmurHash3 x64 128, streaming. Blocks are read as little-endian words from any alignment, so
// that the result does not depend on the machine's byte order or on the alignment of the input.
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
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  v = __builtin_bswap64(v);
#endif
  return v;
}

inline void StoreLE64(uint8_t* p, uint64_t v) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  v = __builtin_bswap64(v);
#endif
  std::memcpy(p, &v, sizeof v);
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

// The first n (at most 8) bytes at p as a little-endian number, the bytes after them as zeros.
// Reads all eight: the caller's buffer holds them.
inline uint64_t LoadLEPrefix(const uint8_t* p, size_t n) {
  const uint64_t v = LoadLE64(p);
  return n >= 8 ? v : v & ((uint64_t{1} << (8 * n)) - 1);
}

void Finish(const HashState& state, uint64_t* outH1, uint64_t* outH2) {
  uint64_t h1 = state.h1;
  uint64_t h2 = state.h2;
  const size_t n = state.tailLength;

  // The tail buffer is sixteen bytes whatever n is; bytes past n are left from earlier runs.
  if (n > 8) {
    uint64_t k2 = LoadLEPrefix(state.tail + 8, n - 8);
    k2 *= kC2;
    k2 = Rotl64(k2, 33);
    k2 *= kC1;
    h2 ^= k2;
  }
  if (n > 0) {
    uint64_t k1 = LoadLEPrefix(state.tail, n);
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
  StoreLE64(out.data(), h1);
  StoreLE64(out.data() + 8, h2);
  return out;
}

std::array<uint8_t, 16> GetHashResultWith16(const HashState& state, const uint8_t* bytes) {
  // The pending tail and the sixteen bytes in a row: one whole block, then as many bytes as the
  // tail held, which become the new tail. Zeroed first, so that no byte is read unwritten.
  uint8_t run[32] = {};
  std::memcpy(run, state.tail, sizeof state.tail);
  std::memcpy(run + state.tailLength, bytes, 16);
  HashState fed = state;
  MixBlock(fed.h1, fed.h2, run);
  std::memcpy(fed.tail, run + 16, sizeof fed.tail);
  fed.totalLength += 16;
  return GetHashResult(fed);
}

void MurmurHash3_x64_128(const void* key, size_t length, uint32_t seed, void* out) {
  HashState state = MakeHashState(seed);
  UpdateHashState(state, key, length);
  uint64_t h[2];
  Finish(state, &h[0], &h[1]);
  std::memcpy(out, h, sizeof h);
}

}  // namespace zelcore::utility
