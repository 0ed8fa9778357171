// fuzz_farm_value: a value as the farm's server hands it back, whoever wrote it. Decoding never
// crashes or reads past the bytes; a value it accepts is consistent (a plain value's payload is
// exactly the bytes after its header; a manifest is its header alone, with exactly the parts its
// length needs, so a reader never fetches or allocates more than the length says); and its
// header, encoded again, decodes to the same fields. The same bytes as the server's address
// setting: an accepted address prints as text that parses back to it.
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "farm/farm_value.h"
#include "farm/redis_client.h"
#include "fuzz_common.h"

using jx::farm::DecodeError;
using jx::farm::ValueHeader;

namespace {

bool SameFields(const ValueHeader& a, const ValueHeader& b) {
  // The seconds compared by their bits: a NaN a writer stored is a NaN again.
  return a.manifest == b.manifest && a.payloadLength == b.payloadLength && a.hash == b.hash &&
         std::memcmp(&a.computeSeconds, &b.computeSeconds, sizeof(double)) == 0 &&
         a.guid == b.guid && a.parts == b.parts && a.partBytes == b.partBytes &&
         a.matchName == b.matchName && a.writerNode == b.writerNode && a.partTag == b.partTag &&
         a.key == b.key;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view value(reinterpret_cast<const char*>(data), size);
  ValueHeader header;
  size_t headerSize = 0;
  if (jx::farm::DecodeHeader(value, &header, &headerSize) == DecodeError::kNone) {
    JX_FUZZ_CHECK(headerSize >= jx::farm::kFixedHeaderSize && headerSize <= size);
    if (header.manifest) {
      JX_FUZZ_CHECK(headerSize == size && header.partBytes != 0 && !header.partTag.empty());
      const uint64_t covered = uint64_t{header.parts} * header.partBytes;
      JX_FUZZ_CHECK(covered >= header.payloadLength);
      JX_FUZZ_CHECK(header.parts == 0 || covered - header.partBytes < header.payloadLength);
    } else {
      JX_FUZZ_CHECK(size - headerSize == header.payloadLength);
    }
    std::string again = jx::farm::EncodeHeader(header);
    const size_t againHeaderSize = again.size();
    if (!header.manifest) again.append(value.substr(headerSize));
    ValueHeader decoded;
    size_t decodedSize = 0;
    JX_FUZZ_CHECK(jx::farm::DecodeHeader(again, &decoded, &decodedSize) == DecodeError::kNone);
    JX_FUZZ_CHECK(decodedSize == againHeaderSize && SameFields(decoded, header));
  }

  jx::farm::Address address;
  std::string why;
  if (jx::farm::ParseAddress(value, &address, &why)) {
    JX_FUZZ_CHECK(address.unixSocket
                      ? !address.path.empty() && address.path[0] == '/'
                      : !address.host.empty() && address.port >= 1 && address.port <= 65535);
    jx::farm::Address reparsed;
    JX_FUZZ_CHECK(jx::farm::ParseAddress(address.ToString(), &reparsed, &why));
    JX_FUZZ_CHECK(reparsed.ToString() == address.ToString());
  } else {
    JX_FUZZ_CHECK(!why.empty());
  }
  return 0;
}
