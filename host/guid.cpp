// Guid generation and text form.
#include "jxcache/host/guid.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <stdexcept>

namespace zelcore::utility {

namespace {

// Counts fork()s: a child starts with a copy of its parent's generators, which would hand it
// the very GUIDs its parent (and every sibling) hands out next.
std::atomic<uint64_t> gForkGeneration{0};
void NoteFork() { gForkGeneration.fetch_add(1, std::memory_order_relaxed); }

std::mt19937_64& ThreadGenerator() {
  // One generator per thread: no lock on the hot path, and each is seeded from the OS entropy
  // source so that two threads (or two processes) never walk the same sequence; after a fork
  // the child seeds afresh.
  static const int registered = ::pthread_atfork(nullptr, nullptr, &NoteFork);
  (void)registered;
  struct Seeded {
    std::mt19937_64 engine;
    uint64_t generation = UINT64_MAX;
  };
  thread_local Seeded generator;
  const uint64_t generation = gForkGeneration.load(std::memory_order_relaxed);
  if (generator.generation != generation) {
    std::random_device device;
    std::seed_seq seq{device(), device(), device(), device(),
                      device(), device(), device(), device()};
    generator.engine.seed(seq);
    generator.generation = generation;
  }
  return generator.engine;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

constexpr bool IsDashPosition(size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

}  // namespace

Guid Guid::CreateUnique() {
  std::mt19937_64& generator = ThreadGenerator();
  std::array<uint8_t, 16> bytes;
  for (size_t half = 0; half < 2; ++half) {
    uint64_t r = generator();
    for (size_t i = 0; i < 8; ++i) bytes[half * 8 + i] = static_cast<uint8_t>(r >> (8 * i));
  }
  // Version 4 (random) and the RFC 4122 variant; the fixed bits also keep it non-empty.
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);
  return Guid(bytes);
}

Guid Guid::FromBytes(const uint8_t bytes[16]) {
  std::array<uint8_t, 16> copy;
  std::memcpy(copy.data(), bytes, 16);
  return Guid(copy);
}

bool Guid::TryParse(std::string_view text, Guid* out) {
  if (text.size() != 36) return false;
  std::array<uint8_t, 16> bytes{};
  size_t byte = 0;
  for (size_t i = 0; i < 36;) {
    if (IsDashPosition(i)) {
      if (text[i] != '-') return false;
      ++i;
      continue;
    }
    int hi = HexValue(text[i]);
    int lo = HexValue(text[i + 1]);
    // A pair never straddles a dash: every group has an even number of digits.
    if (hi < 0 || lo < 0) return false;
    bytes[byte++] = static_cast<uint8_t>((hi << 4) | lo);
    i += 2;
  }
  if (out) *out = Guid(bytes);
  return true;
}

Guid Guid::Parse(std::string_view text) {
  Guid result;
  if (!TryParse(text, &result)) {
    throw std::invalid_argument("malformed GUID text: \"" + std::string(text) + "\"");
  }
  return result;
}

std::string Guid::AsString() const {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kDigits[bytes_[i] >> 4]);
    text.push_back(kDigits[bytes_[i] & 0x0F]);
  }
  return text;
}

bool Guid::IsEmpty() const {
  for (uint8_t b : bytes_) {
    if (b != 0) return false;
  }
  return true;
}

}  // namespace zelcore::utility
