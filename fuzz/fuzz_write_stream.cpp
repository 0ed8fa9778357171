// fuzz_write_stream: FastWriteOnlyStream fed writes of random lengths (some of single bytes),
// with O_DIRECT used or refused and writes cut short; the file must be exactly their
// concatenation.
//
// Input: byte 0 bit 0 refuses O_DIRECT; bit 1 cuts writes short (half of each, so a direct
// stream ends up off a unit boundary) from the write call numbered by bits 2-4, plus one. Then
// pairs of bytes, each a write length: with the top bit clear, up to 32 KiB; with it set, up to
// a buffer and a unit, so that writes cross and fill whole buffers; 0xFFFF writes one byte. An
// input writes a little over one buffer at most.
//
// Each input is cheap: the file lives in a memory-backed folder where there is one (/dev/shm),
// so that neither the direct writes nor the sync at close wait for a device.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "disk/fast_write_stream.h"
#include "fuzz_common.h"
#include "testing/fault_injection.h"

using zelcore::filesupport::FaultInjection;
using zelcore::filesupport::File;
using zelcore::filesupport::FileOp;

namespace {

// A fresh folder in memory when the machine has one, else the disk cache folder.
std::string ScratchFolder(const JX_Bag& bag) {
  std::string folder = "/dev/shm/jxfuzz-stream.XXXXXX";
  if (::access("/dev/shm", W_OK) == 0 && mkdtemp(folder.data())) return folder;
  return bag.GetDiskCacheDirSpec().GetPath();
}

std::vector<uint8_t> ReadBack(const std::string& path) {
  std::vector<uint8_t> bytes;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return bytes;
  uint8_t chunk[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n <= 0) break;
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  ::close(fd);
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto bag = jx::fuzz::StartLibrary();
  static const std::string folder = ScratchFolder(*bag);
  if (size < 1) return 0;
  const File file(folder + "/stream.bin");
  std::remove(file.GetPath().c_str());
  file.Create();

  std::vector<uint8_t> expected;
  {
    if (data[0] & 1) FaultInjection::FailNth(FileOp::kOpen, 1, EINVAL);
    jx::disk::FastWriteOnlyStream stream(file);
    FaultInjection::Reset();
    if (data[0] & 2) FaultInjection::ShortNth(FileOp::kWrite, ((data[0] >> 2) & 7) + 1, true);
    const size_t unit = stream.GetUnit();
    const size_t cap = stream.GetBufferSize() + 2 * unit;
    // Byte p of a write is p * 31 + 7 (mod 256): a pattern of period 256, made once, that any
    // write copies from at its offset.
    static std::vector<uint8_t> pattern;
    if (pattern.size() < cap + 256) {
      pattern.resize(cap + 256);
      for (size_t p = 0; p < pattern.size(); ++p) pattern[p] = static_cast<uint8_t>(p * 31 + 7);
    }
    expected.reserve(cap);
    for (size_t i = 1; i + 1 < size && expected.size() < cap; i += 2) {
      const uint32_t word = data[i] | (uint32_t{data[i + 1]} << 8);
      if (word == 0xFFFF) {
        const auto byte = static_cast<uint8_t>(expected.size() * 7 + 1);
        stream.WriteByte(byte);
        expected.push_back(byte);
        continue;
      }
      size_t length =
          (word & 0x8000) ? (word & 0x7FFF) * 977u % (stream.GetBufferSize() + unit + 1) : word;
      length = std::min(length, cap - expected.size());
      const uint8_t* chunk = pattern.data() + expected.size() % 256;
      stream.Write(chunk, length);
      expected.insert(expected.end(), chunk, chunk + length);
    }
    JX_FUZZ_CHECK(stream.GetTotalCount() == expected.size());
    stream.Flush();
    stream.Close();
  }
  FaultInjection::Reset();
  JX_FUZZ_CHECK(ReadBack(file.GetPath()) == expected);
  file.Delete();
  return 0;
}
