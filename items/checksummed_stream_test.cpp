#include "jxcache/items/checksummed_stream.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "items/checksum_helper.h"
#include "items/checksummed_stream_test_support.h"
#include "items/xxh3.h"

// ThreadSanitizer's runtime refuses to start a thread in a child forked from a process with
// threads, which is what the fork test checks.
#if defined(__SANITIZE_THREAD__)
#define JX_FORK_STARTS_THREADS 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define JX_FORK_STARTS_THREADS 0
#endif
#endif
#ifndef JX_FORK_STARTS_THREADS
#define JX_FORK_STARTS_THREADS 1
#endif

namespace {

using jx::ChecksumIdentity;
using jx::ChecksummedIByteStream;
using jx::ChecksummedOByteStream;
using zelcore::filesupport::CorruptDataError;
using zelcore::filesupport::IByteStream;
using zelcore::filesupport::MemoryIByteStream;
using zelcore::filesupport::VectorOByteStream;

using jx::testing::Pattern;
using jx::testing::Sealed;

// Reads back `n` payload bytes and verifies; returns what was read (throws as Verify does).
std::vector<uint8_t> Open(IByteStream& raw, size_t n) {
  ChecksummedIByteStream in(raw);
  std::vector<uint8_t> got(n);
  in.ReadExactly(got.data(), n);
  in.Verify();
  return got;
}
std::vector<uint8_t> Open(const std::vector<uint8_t>& file, size_t n) {
  MemoryIByteStream raw(file.data(), file.size());
  return Open(raw, n);
}

TEST(ChecksummedStream, RoundTripsWhateverTheWritesSizesAndTellsThePayloadWhatIsLeft) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{4095}, size_t{300000}}) {
    const auto payload = Pattern(size);
    const auto one = Sealed(payload, size ? size : 1);
    const auto many = Sealed(payload, 7);
    EXPECT_EQ(one, many) << "the trailer depends on the bytes, not on how they were written";
    ASSERT_EQ(one.size(), size + jx::kChecksumTrailerSize);

    MemoryIByteStream raw(one.data(), one.size());
    ChecksummedIByteStream in(raw);
    EXPECT_EQ(in.Remaining(), size) << "the trailer is not the payload's to read";
    std::vector<uint8_t> got(size + 10);
    // A greedy reader gets the payload's bytes and no more: the trailer stays for Verify.
    size_t n = 0;
    while (size_t r = in.Read(got.data() + n, got.size() - n)) n += r;
    EXPECT_EQ(n, size);
    got.resize(n);
    EXPECT_EQ(got, payload);
    EXPECT_NO_THROW(in.Verify());
  }
}

// Streams that carry an identity bind the trailer to it: the bytes verify under that identity
// and no other, also when the helper thread hashes a large read. Without one, the trailer is
// the plain XXH3-64 that files written before identities have.
TEST(ChecksummedStream, ATrailerWrittenUnderAnIdentityVerifiesUnderThatIdentityOnly) {
  struct NamedOut : VectorOByteStream, ChecksumIdentity {
    using ChecksumIdentity::ChecksumIdentity;
  };
  struct NamedIn : MemoryIByteStream, ChecksumIdentity {
    NamedIn(const std::vector<uint8_t>& b, uint64_t seed)
        : MemoryIByteStream(b.data(), b.size()), ChecksumIdentity(seed) {}
  };
  for (size_t size : {size_t{100}, size_t{3} << 20}) {
    const auto payload = Pattern(size);
    NamedOut out(7);
    ChecksummedOByteStream sum(out);
    sum.Write(payload.data(), size);
    sum.Finish();
    const auto& file = out.Bytes();
    ASSERT_EQ(file.size(), size + jx::kChecksumTrailerSize);
    EXPECT_NE(file, Sealed(payload));
    NamedIn same(file, 7), other(file, 8);
    MemoryIByteStream none(file.data(), file.size());
    const uint64_t before = jx::ChecksumHelperTransfers();
    EXPECT_EQ(Open(same, size), payload) << size;
    EXPECT_THROW(Open(other, size), CorruptDataError) << size;
    EXPECT_THROW(Open(none, size), CorruptDataError) << size;
    if (size >= (size_t{1} << 20)) {
      EXPECT_EQ(jx::ChecksumHelperTransfers(), before + 3) << "the helper hashed the large reads";
    }
  }
  const auto payload = Pattern(100);
  const auto file = Sealed(payload);
  uint64_t trailer = 0;
  for (size_t i = 0; i < jx::kChecksumTrailerSize; ++i)
    trailer |= uint64_t{file[100 + i]} << (8 * i);
  EXPECT_EQ(trailer, XXH3_64bits(payload.data(), payload.size()));
}

TEST(ChecksummedStream, EveryFlippedBitTruncationOrTailIsCaught) {
  const auto payload = Pattern(200);
  const auto good = Sealed(payload, 64);
  ASSERT_EQ(Open(good, payload.size()), payload);
  // A flipped bit in the body or the trailer must never verify.
  for (size_t byte = 0; byte < good.size(); ++byte) {
    for (int bit = 0; bit < 8; ++bit) {
      auto bad = good;
      bad[byte] ^= static_cast<uint8_t>(1u << bit);
      EXPECT_THROW(Open(bad, payload.size()), CorruptDataError) << byte << ":" << bit;
    }
  }

  for (size_t cut : {size_t{1}, size_t{8}, size_t{9}, good.size()}) {
    std::vector<uint8_t> shorter(good.begin(), good.end() - static_cast<long>(cut));
    EXPECT_THROW(Open(shorter, std::min(shorter.size(), payload.size())), std::exception)
        << "cut by " << cut;
  }
  auto longer = good;
  longer.push_back(0);
  EXPECT_THROW(Open(longer, payload.size()), CorruptDataError);
}

TEST(ChecksummedStream, AHeaderThatClaimsMoreThanTheStreamHoldsIsRefusedBeforeAllocating) {
  const auto file = Sealed(Pattern(100), 100);
  MemoryIByteStream raw(file.data(), file.size());
  ChecksummedIByteStream in(raw);
  EXPECT_NO_THROW(in.ExpectAtLeast(100, "frame"));
  EXPECT_THROW(in.ExpectAtLeast(101, "frame"), CorruptDataError);
  EXPECT_THROW(in.ExpectAtLeast(uint64_t{65535} * 16383 * 4, "frame"), CorruptDataError);
}

// Whether the forked child `pid` exited with 0 (a hang ends it by its alarm's signal).
::testing::AssertionResult ExitedWell(pid_t pid) {
  if (pid <= 0) return ::testing::AssertionFailure() << "fork failed";
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid) return ::testing::AssertionFailure() << "waitpid";
  if (!WIFEXITED(status)) {
    return ::testing::AssertionFailure()
           << "the child hung or crashed: signal " << WTERMSIG(status);
  }
  if (WEXITSTATUS(status) != 0) return ::testing::AssertionFailure() << "the child's check failed";
  return ::testing::AssertionSuccess();
}

// A forked child has no hashing thread. Forked after the parent's large reads started one, its
// own large reads must start their own rather than wait for the parent's; forked from inside a
// large read (a payload's callback), it carries that read on and a good file still verifies.
TEST(ChecksummedStream, AForkedChildHashesItsLargeReadsWithoutTheParentsThread) {
  if (!JX_FORK_STARTS_THREADS) GTEST_SKIP() << "ThreadSanitizer: no threads after a fork";
  const auto payload = Pattern(3 << 20);
  const auto file = Sealed(payload, payload.size());
  const uint64_t before = jx::ChecksumHelperTransfers();
  ASSERT_EQ(Open(file, payload.size()), payload);
  ASSERT_EQ(jx::ChecksumHelperTransfers(), before + 1) << "the parent's read went to the helper";
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(10);
    const uint64_t mine = jx::ChecksumHelperTransfers();
    const bool own =
        Open(file, payload.size()) == payload && jx::ChecksumHelperTransfers() == mine + 1;
    ::_exit(own ? 0 : 1);
  }
  EXPECT_TRUE(ExitedWell(child));

  // Forked inside a read: slices before the fork were hashed by the parent's helper.
  class ForkingStream : public MemoryIByteStream {
   public:
    using MemoryIByteStream::MemoryIByteStream;
    size_t Read(void* data, size_t length) override {
      if (++reads == 3) child = ::fork();
      if (child == 0) ::alarm(10);
      return MemoryIByteStream::Read(data, std::min<size_t>(length, 300007));
    }
    int reads = 0;
    pid_t child = -1;
  };
  ForkingStream raw(file.data(), file.size());
  bool verified = false;
  {
    ChecksummedIByteStream in(raw);
    std::vector<uint8_t> got(payload.size());
    in.ReadExactly(got.data(), got.size());
    try {
      in.Verify();
      verified = got == payload;
    } catch (const CorruptDataError&) {
    }
  }
  if (raw.child == 0) ::_exit(verified ? 0 : 1);
  EXPECT_TRUE(verified);
  EXPECT_TRUE(ExitedWell(raw.child)) << "the child's read of a good file";
}

}  // namespace
