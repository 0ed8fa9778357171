// MurmurHash3 x64 128-bit, as a streaming state: feed any number of byte runs, then take the
// result. Feeding "ab" then "c" gives the same hash as feeding "abc" once. Seed 0 unless given.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zelcore::utility {

struct HashState {
  uint64_t h1 = 0;
  uint64_t h2 = 0;
  uint64_t totalLength = 0;
  uint8_t tail[16] = {};
  size_t tailLength = 0;
};

HashState MakeHashState(uint32_t seed = 0);
void UpdateHashState(HashState& state, const void* data, size_t length);
// The 128-bit result as sixteen bytes: h1 then h2, each little-endian (the reference
// implementation's output layout). The state itself is not changed.
std::array<uint8_t, 16> GetHashResult(const HashState& state);

// GetHashResult of `state` fed sixteen more bytes: as copying the state, feeding it `bytes` and
// taking the result, in fixed-size steps (the compute cache hashes a kept prefix and a 16-byte key
// on every request).
std::array<uint8_t, 16> GetHashResultWith16(const HashState& state, const uint8_t* bytes);

// One-shot form of the reference MurmurHash3_x64_128 (out receives h1, h2 as two uint64).
void MurmurHash3_x64_128(const void* key, size_t length, uint32_t seed, void* out);

}  // namespace zelcore::utility
