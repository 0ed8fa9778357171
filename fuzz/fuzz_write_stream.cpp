// fuzz_write_stream: FastWriteOnlyStream fed writes of random lengths (some of single bytes);
// the file must be exactly their concatenation, whether O_DIRECT is used or refused.
//
// Input: byte 0 bit 0 refuses O_DIRECT; then pairs of bytes, each a write length (up to three
// buffers, so writes cross and fill whole buffers); a length of 0xFFFF writes one byte.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "disk/fast_write_stream.h"
#include "fuzz_common.h"
#include "host/fault_injection.h"

using zelcore::filesupport::FaultInjection;
using zelcore::filesupport::File;
using zelcore::filesupport::FileOp;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto bag = jx::fuzz::StartLibrary();
  if (size < 1) return 0;
  const File file = bag->GetDiskCacheDirSpec().GetFile("stream.bin");
  std::remove(file.GetPath().c_str());
  file.Create();

  std::vector<uint8_t> expected;
  {
    if (data[0] & 1) FaultInjection::FailNth(FileOp::kOpen, 1, EINVAL);
    jx::disk::FastWriteOnlyStream stream(file);
    FaultInjection::Reset();
    const size_t maxWrite = 3 * stream.GetBufferSize();
    std::vector<uint8_t> chunk;
    for (size_t i = 1; i + 1 < size && expected.size() < (512u << 10); i += 2) {
      const uint32_t word = data[i] | (uint32_t{data[i + 1]} << 8);
      if (word == 0xFFFF) {
        const auto byte = static_cast<uint8_t>(expected.size() * 7 + 1);
        stream.WriteByte(byte);
        expected.push_back(byte);
        continue;
      }
      const size_t length = word * 977u % (maxWrite + 1);
      chunk.resize(length);
      for (size_t k = 0; k < length; ++k)
        chunk[k] = static_cast<uint8_t>((expected.size() + k) * 31 + 7);
      stream.Write(chunk.data(), chunk.size());
      expected.insert(expected.end(), chunk.begin(), chunk.end());
    }
    JX_FUZZ_CHECK(stream.GetTotalCount() == expected.size());
    stream.Flush();
    stream.Close();
  }
  JX_FUZZ_CHECK(jx::testing::ReadWholeFile(file.GetPath()) == expected);
  file.Delete();
  return 0;
}
