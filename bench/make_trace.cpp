// Writes a synthetic access trace in the oracle-general layout (24-byte little-endian records:
// uint32 time, uint64 object id, uint32 size, int64 next access) for the replay benchmark:
// 80% of requests go to 2,000 hot objects, the rest to 100,000 cold ones, 1-200 KB each.
// Usage: make_trace REQUESTS SEED > trace.bin
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

int main(int argc, char** argv) {
  const uint64_t requests = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
  std::mt19937_64 rng(argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 42);
  std::vector<uint32_t> hot(2000), cold(100000);
  for (auto& s : hot) s = 1000 + static_cast<uint32_t>(rng() % 199000);
  for (auto& s : cold) s = 1000 + static_cast<uint32_t>(rng() % 199000);
  unsigned char record[24];
  for (uint64_t t = 0; t < requests; ++t) {
    const bool isHot = rng() % 10 < 8;
    const uint64_t index = isHot ? rng() % hot.size() : rng() % cold.size();
    const uint64_t id = isHot ? index : 100000 + index;
    const uint32_t size = isHot ? hot[index] : cold[index];
    const uint32_t time = static_cast<uint32_t>(t);
    const int64_t next = -1;
    std::memcpy(record, &time, 4);
    std::memcpy(record + 4, &id, 8);
    std::memcpy(record + 12, &size, 4);
    std::memcpy(record + 16, &next, 8);
    if (std::fwrite(record, sizeof record, 1, stdout) != 1) return 1;
  }
  return 0;
}
