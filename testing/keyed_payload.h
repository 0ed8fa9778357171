// KeyedPayload: a disk-cacheable payload whose bytes follow from its item's key, for the stress,
// crash and fuzz programs (header only: those programs link the library, not the unit-test
// support).
//
// The header names a seed (derived from the key) and a size; the bytes are a fixed function of
// both. A factory registered under "KeyedPayload" rebuilds an empty payload from a file name in
// a fresh process, and Read accepts exactly the bytes Write produced: a short, long or altered
// body is refused, so a damaged file can never be taken for good data.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "jxcache/host/file.h"
#include "jxcache/host/guid.h"
#include "jxcache/items/stuff_data.h"

namespace jx::testing {

inline constexpr const char* kKeyedPayloadName = "KeyedPayload";

inline uint64_t SplitMix64(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

inline uint32_t SeedOfKey(const zelcore::utility::Guid& key) {
  uint64_t a, b;
  std::memcpy(&a, key.Bytes().data(), 8);
  std::memcpy(&b, key.Bytes().data() + 8, 8);
  return static_cast<uint32_t>(SplitMix64(a ^ SplitMix64(b)));
}

// The `size` bytes of the payload of `seed`.
inline std::vector<uint8_t> KeyedBytes(uint32_t seed, uint32_t size) {
  std::vector<uint8_t> bytes(size);
  for (uint32_t i = 0; i < size; i += 8) {
    const uint64_t word = SplitMix64((uint64_t{seed} << 32) ^ i);
    std::memcpy(bytes.data() + i, &word, std::min<uint32_t>(8, size - i));
  }
  return bytes;
}

// The file's bytes (none when it cannot be read). Read in blocks: the stress programs read every
// cache file after every step, and a byte-by-byte read costs them most of their time under the
// sanitizers.
inline std::vector<uint8_t> ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> bytes;
  char block[65536];
  while (in) {
    in.read(block, sizeof block);
    bytes.insert(bytes.end(), block, block + in.gcount());
  }
  return bytes;
}

class KeyedPayload : public JX_StuffData {
 public:
  KeyedPayload(uint32_t seed, uint32_t size, bool filled) : seed_(seed), size_(size) {
    if (filled) bytes_ = std::make_shared<std::vector<uint8_t>>(KeyedBytes(seed, size));
  }
  static IntrusivePtr<JX_StuffData> ForKey(const zelcore::utility::Guid& key, uint32_t size) {
    return IntrusivePtr<JX_StuffData>(new KeyedPayload(SeedOfKey(key), size, true));
  }

  unsigned int GetApproximateMemorySize() const override { return bytes_ ? size_ : 0; }
  bool IsInMemory() const override { return bytes_ != nullptr; }
  bool PurgeIfPossible(ReleaseQueue* toRelease) override {
    if (!bytes_) return false;
    if (toRelease) toRelease->push_back(bytes_);
    bytes_.reset();
    return true;
  }
  bool CanDiskCache() const override { return true; }
  const char* GetSubclassMatchname() const override { return kKeyedPayloadName; }
  void GetHeader(Header& header) const override {
    header.resize(8);
    std::memcpy(header.data(), &seed_, 4);
    std::memcpy(header.data() + 4, &size_, 4);
  }
  double Write(zelcore::filesupport::OByteStream& out) const override {
    if (bytes_) out.Write(bytes_->data(), bytes_->size());
    return 0.0;
  }
  double Read(zelcore::filesupport::IByteStream& in,
              zelcore::threads::MultiTenantRecursiveMutex&) override {
    auto bytes = std::make_shared<std::vector<uint8_t>>(size_);
    in.ReadExactly(bytes->data(), size_);
    uint8_t extra;
    if (in.Read(&extra, 1) != 0 || *bytes != KeyedBytes(seed_, size_)) {
      throw zelcore::filesupport::FileError(EILSEQ, "KeyedPayload: the body is not its bytes");
    }
    bytes_ = std::move(bytes);
    return 0.0;
  }

  uint32_t Seed() const { return seed_; }
  uint32_t Size() const { return size_; }
  // In memory, and holding the bytes of `key`.
  bool HoldsBytesOf(const zelcore::utility::Guid& key) const {
    return bytes_ && seed_ == SeedOfKey(key) && *bytes_ == KeyedBytes(seed_, size_);
  }

  // The factory a folder scan builds payloads with: an empty payload of the header's seed and
  // size; nothing for a header of another shape.
  static void RegisterFactory() {
    JX_StuffData::Factory factory = [](const Header& header) -> IntrusivePtr<JX_StuffData> {
      if (header.size() != 8) return {};
      uint32_t seed, size;
      std::memcpy(&seed, header.data(), 4);
      std::memcpy(&size, header.data() + 4, 4);
      return IntrusivePtr<JX_StuffData>(new KeyedPayload(seed, size, false));
    };
    JX_StuffData::RegisterFactory(kKeyedPayloadName, factory);
  }

 private:
  uint32_t seed_;
  uint32_t size_;
  std::shared_ptr<std::vector<uint8_t>> bytes_;
};

}  // namespace jx::testing
