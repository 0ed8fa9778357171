// Guid, MurmurHash3, base64, UTF conversion, and where weak references keep their counts.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/murmur3.h"
#include "host/text_encoding.h"
#include "jxcache/host/guid.h"
#include "jxcache/host/ref_counted.h"

namespace zelcore::utility {
namespace {

TEST(GuidTest, MalformedTextIsRejectedAndLeavesOutputAlone) {
  const Guid sentinel = Guid::CreateUnique();
  for (const char* text : {"", "0123ABCD-0123-4567-89AB-CDEF0123456",  // short
                           "0123ABCD-0123-4567-89AB-CDEF012345678",    // long
                           "0123ABCD00123-4567-89AB-CDEF01234567",     // dash missing
                           "0123ABC-D0123-4567-89AB-CDEF01234567",     // dash misplaced
                           "0123ABCD-0123-4567-89AB+CDEF01234567",     // wrong separator
                           "0123ABCG-0123-4567-89AB-CDEF01234567"}) {  // not hex
    Guid out = sentinel;
    EXPECT_FALSE(Guid::TryParse(text, &out)) << text;
    EXPECT_EQ(out, sentinel) << text;
    EXPECT_THROW(Guid::Parse(text), std::invalid_argument) << text;
  }
}

// The upper-case text form itself is held by the cache file name tests.
TEST(GuidTest, CreateUniqueIsDistinctVersion4AndRoundTrips) {
  EXPECT_TRUE(Guid().IsEmpty());
  std::set<Guid> seen;
  for (int i = 0; i < 1000; ++i) {
    Guid g = Guid::CreateUnique();
    EXPECT_FALSE(g.IsEmpty());
    EXPECT_EQ(g.Bytes()[6] >> 4, 4);
    EXPECT_EQ(g.Bytes()[8] & 0xC0, 0x80);
    std::string text = g.AsString();
    EXPECT_EQ(Guid::Parse(text), g);
    for (char& c : text) c = static_cast<char>(std::tolower(c));
    EXPECT_EQ(Guid::Parse(text), g);  // either case parses
    uint8_t raw[16];
    GuidToBytes(g, raw);
    EXPECT_EQ(Guid::FromBytes(raw), g);
    seen.insert(g);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(GuidTest, ForkedProcessesDoNotRepeatEachOthersGuids) {
  // Workers forked from one parent start with copies of its generator (they used to repeat it).
  (void)Guid::CreateUnique();  // the parent's generator is in use before the fork
  std::set<Guid> seen;
  for (int child = 0; child < 2; ++child) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
      const Guid g = Guid::CreateUnique();
      ::_exit(::write(fds[1], g.Bytes().data(), 16) == 16 ? 0 : 1);
    }
    ::close(fds[1]);
    std::array<uint8_t, 16> bytes{};
    EXPECT_EQ(::read(fds[0], bytes.data(), 16), 16);
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    seen.insert(Guid(bytes));
  }
  seen.insert(Guid::CreateUnique());
  EXPECT_EQ(seen.size(), 3u);
}

// The reference verification value: hashes of {}, {0}, {0,1}, ... (seed 256-i), hashed again.
TEST(Murmur3Test, ReferenceVerificationValue) {
  uint8_t key[256];
  uint8_t hashes[256 * 16];
  for (int i = 0; i < 256; ++i) {
    key[i] = static_cast<uint8_t>(i);
    MurmurHash3_x64_128(key, size_t(i), uint32_t(256 - i), &hashes[i * 16]);
  }
  uint8_t r[16];
  MurmurHash3_x64_128(hashes, sizeof hashes, 0, r);
  EXPECT_EQ(uint32_t{r[0]} | uint32_t{r[1]} << 8 | uint32_t{r[2]} << 16 | uint32_t{r[3]} << 24,
            0x6384BA69u);
}

TEST(Murmur3Test, StreamingEqualsOneShotForAnySplit) {
  std::mt19937 rng(12345);
  std::vector<uint8_t> data(300);
  for (uint8_t& b : data) b = static_cast<uint8_t>(rng());
  for (size_t length : {0, 1, 15, 16, 17, 24, 31, 33, 300}) {
    const uint32_t seed = uint32_t(length * 7 + 1);
    std::array<uint8_t, 16> expected;
    MurmurHash3_x64_128(data.data(), length, seed, expected.data());
    for (int trial = 0; trial < 50; ++trial) {
      HashState state = MakeHashState(seed);
      for (size_t offset = 0; offset < length;) {
        size_t run = std::uniform_int_distribution<size_t>(0, length - offset)(rng);
        UpdateHashState(state, data.data() + offset, run);
        offset += run;
      }
      ASSERT_EQ(GetHashResult(state), expected) << "length " << length;
      ASSERT_EQ(GetHashResult(state), expected) << "taking the result changed the state";
    }
    // The last sixteen bytes given to GetHashResultWith16, after any tail the rest leaves.
    if (length >= 16) {
      HashState state = MakeHashState(seed);
      UpdateHashState(state, data.data(), length - 16);
      EXPECT_EQ(GetHashResultWith16(state, data.data() + length - 16), expected)
          << "length " << length;
    }
  }
}

std::vector<uint8_t> Bytes(std::string_view s) { return std::vector<uint8_t>(s.begin(), s.end()); }

TEST(Base64Test, RfcVectorsAndSlashRoundTrip) {
  const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"},
                                                         {"\xFF\xFF\xFF", "////"},
                                                         {"\xFB\xEF\xBE", "++++"}};
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(EncodeBinaryDataToUTF8String(Bytes(plain)), encoded);
    std::vector<uint8_t> decoded{0xAA};
    ASSERT_TRUE(DecodeBinaryDataFromUTF8String(encoded, &decoded)) << encoded;
    EXPECT_EQ(decoded, Bytes(plain)) << encoded;
  }
}

TEST(Base64Test, MalformedTextIsRejectedWithEmptyOutput) {
  for (const char* text : {"Zg=", "Zm9vY",             // length not a multiple of four
                           "Zm9v!mFy", "Zm-_",         // outside the alphabet
                           "Zg==Zm8=", "Zm=v",         // padding before the end
                           "Z===", "====", "Zg=A"}) {  // malformed padding
    std::vector<uint8_t> out{1, 2, 3};
    EXPECT_FALSE(DecodeBinaryDataFromUTF8String(text, &out)) << text;
    EXPECT_TRUE(out.empty()) << text;
  }
}

TEST(UtfTest, RoundTripsEveryEncodedLengthIncludingSurrogatePairs) {
  const std::string utf8 = "a\xC3\xA9\xE2\x80\x99\xEF\xBF\xBF\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";
  const std::u16string utf16 = u"a\u00E9\u2019\uFFFF\U0001F600\U0010FFFF";
  EXPECT_EQ(UTF8ToUTF16(utf8), utf16);
  EXPECT_EQ(UTF16ToUTF8(utf16), utf8);
}

TEST(UtfTest, InvalidSequencesBecomeReplacementCharacters) {
  const std::pair<std::string, std::u16string> cases[] = {
      {"\x80", u"\uFFFD"},                                // stray continuation byte
      {"a\xC3", u"a\uFFFD"},                              // truncated at the end
      {"\xC3z", u"\uFFFDz"},                              // the breaking byte is kept
      {"\xE2\x80", u"\uFFFD"},                            // one replacement per broken sequence
      {"\xC0\xAF", u"\uFFFD\uFFFD"},                      // overlong
      {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},            // encoded surrogate
      {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(UTF8ToUTF16(input), expected);
  EXPECT_EQ(UTF16ToUTF8(std::u16string{0xD83D, u'x', 0xDE00}), "\xEF\xBF\xBDx\xEF\xBF\xBD");
}

class Counted : public RefCountedObjectWithWeakPtr {
 public:
  explicit Counted(bool fail = false) {
    if (fail) throw std::runtime_error("refused");
  }
  char payload[40] = {};
};

struct Holder {
  int before = 0;
  Counted member;
};

// An object made by new keeps its counts in front of its memory, kept while weak references
// remain; objects made otherwise, and one whose constructor throws, are unaffected.
TEST(WeakControlBlockTest, HeapObjectsCarryTheirCountsAndOthersGetTheirOwn) {
  WeakPtr<Counted> weak;
  {
    IntrusivePtr<Counted> p(new Counted);
    auto* block = reinterpret_cast<const char*>(p->GetWeakControlBlock());
    EXPECT_EQ(block + detail::kControlBlockRoom, reinterpret_cast<const char*>(p.get()));
    weak = p;
    EXPECT_EQ(weak.Lock().get(), p.get());
    EXPECT_EQ(p->GetRefCount(), 1);
    EXPECT_EQ(weak.PeekIfMemoryKept(), p.get());
  }
  EXPECT_TRUE(weak.Expired());
  EXPECT_FALSE(weak.Lock());
  EXPECT_EQ(weak.PeekIfMemoryKept(), nullptr);  // memory kept, object gone
  weak.reset();

  Counted onStack;
  // Nothing keeps a stack object's memory for its weak references.
  EXPECT_EQ(WeakPtr<Counted>(&onStack).PeekIfMemoryKept(), nullptr);
  EXPECT_NE(
      reinterpret_cast<const char*>(onStack.GetWeakControlBlock()) + detail::kControlBlockRoom,
      reinterpret_cast<const char*>(&onStack));
  // A member of a heap object is not at the start of that object's memory.
  auto* holder = new Holder;
  EXPECT_NE(reinterpret_cast<const char*>(holder->member.GetWeakControlBlock()) +
                detail::kControlBlockRoom,
            reinterpret_cast<const char*>(&holder->member));
  delete holder;

  EXPECT_THROW(new Counted(true), std::runtime_error);
  // The next object made by new claims its own block, not the one freed by the throw.
  IntrusivePtr<Counted> next(new Counted);
  EXPECT_EQ(reinterpret_cast<const char*>(next->GetWeakControlBlock()) + detail::kControlBlockRoom,
            reinterpret_cast<const char*>(next.get()));
}

}  // namespace
}  // namespace zelcore::utility
