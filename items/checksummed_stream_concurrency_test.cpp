// A large read is hashed by the helper thread a slice behind the reads: the verdict must be an
// inline hash's, and neither failing reads, busy helpers nor stops may hang, mix two reads' bytes
// or leave the helper taken; a stop never waits for a read.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "items/checksum_helper.h"
#include "items/checksummed_stream_test_support.h"
#include "jxcache/items/checksummed_stream.h"

namespace {

using jx::ChecksummedIByteStream;
using zelcore::filesupport::CorruptDataError;
using zelcore::filesupport::IByteStream;

constexpr size_t kLarge = 3 * 1024 * 1024 + 12345;  // past the size that the helper hashes

using jx::testing::Pattern;
using jx::testing::Sealed;

// Hands out a file's bytes at most `chunk` at a time (so the helper's slices end anywhere), and
// throws once `failAt` bytes have gone.
class ChunkyStream : public IByteStream {
 public:
  ChunkyStream(const std::vector<uint8_t>& bytes, size_t chunk, size_t failAt = SIZE_MAX)
      : bytes_(bytes), chunk_(chunk), failAt_(failAt) {}
  size_t Read(void* data, size_t length) override {
    if (onRead) onRead();
    if (at_ >= failAt_) {
      ++throws;
      throw std::runtime_error("device gone");
    }
    const size_t n = std::min({length, chunk_, bytes_.size() - at_, failAt_ - at_});
    std::memcpy(data, bytes_.data() + at_, n);
    at_ += n;
    return n;
  }
  uint64_t Remaining() const override { return bytes_.size() - at_; }
  int throws = 0;
  std::function<void()> onRead;  // runs on the reading thread before every read

 private:
  const std::vector<uint8_t>& bytes_;
  const size_t chunk_;
  const size_t failAt_;
  size_t at_ = 0;
};

bool Verifies(ChecksummedIByteStream& in) {
  try {
    in.Verify();
    return true;
  } catch (const CorruptDataError&) {
    return false;
  }
}

// Reads the payload in one call (large enough for the helper) and verifies it; returns whether
// it verified, and the bytes in `got`. `onRead` runs before every read of the device.
bool ReadAndVerify(const std::vector<uint8_t>& file, size_t chunk, std::vector<uint8_t>* got,
                   std::function<void()> onRead = {}) {
  ChunkyStream raw(file, chunk);
  raw.onRead = std::move(onRead);
  ChecksummedIByteStream in(raw);
  got->assign(file.size() - jx::kChecksumTrailerSize, 0);
  in.ReadExactly(got->data(), got->size());
  return Verifies(in);
}

// Runs `fn` on a thread of its own and returns what it returns; a hang ends the process, saying
// what hung, once `limit` has passed.
template <typename Fn>
auto FinishesOrAborts(std::chrono::seconds limit, const char* hang, Fn fn) {
  auto run = std::async(std::launch::async, std::move(fn));
  if (run.wait_for(limit) != std::future_status::ready) {
    std::fprintf(stderr, "checksum helper: %s\n", hang);
    std::abort();
  }
  return run.get();
}

TEST(ChecksumHelper, AReadHashedAsideVerifiesAsInlineAndCatchesDamageAnywhere) {
  jx::StopChecksumHelper();  // the first read below starts it again
  const auto payload = Pattern(kLarge, 0);
  const auto file = Sealed(payload);
  std::vector<uint8_t> got;
  for (size_t chunk : {size_t{1} << 20, size_t{100003}, size_t{4096}}) {
    const uint64_t before = jx::ChecksumHelperTransfers();
    EXPECT_TRUE(ReadAndVerify(file, chunk, &got)) << "chunk " << chunk;
    EXPECT_EQ(got, payload);
    EXPECT_EQ(jx::ChecksumHelperTransfers(), before + 1) << "the helper hashed it";
  }
  // The same file read in small pieces is hashed inline, and verifies just the same.
  {
    ChunkyStream raw(file, SIZE_MAX);
    ChecksummedIByteStream in(raw);
    const uint64_t before = jx::ChecksumHelperTransfers();
    for (size_t at = 0; at < kLarge; at += 65536) {
      in.ReadExactly(got.data() + at, std::min<size_t>(65536, kLarge - at));
    }
    EXPECT_NO_THROW(in.Verify());
    EXPECT_EQ(jx::ChecksumHelperTransfers(), before);
  }
  for (size_t at : {size_t{0}, kLarge / 2, kLarge - 1, kLarge}) {  // kLarge: the trailer
    auto bad = file;
    bad[at] ^= 0x10;
    EXPECT_FALSE(ReadAndVerify(bad, 100003, &got)) << "flipped at " << at;
  }
}

TEST(ChecksumHelper, AReadThatFailsPartWayThrowsAndLeavesTheHelperFree) {
  const auto payload = Pattern(kLarge, 1);
  const auto file = Sealed(payload);
  std::vector<uint8_t> got(kLarge);
  for (size_t failAt : {size_t{0}, size_t{1}, kLarge / 3, kLarge - 1}) {
    ChunkyStream raw(file, 300007, failAt);
    {
      ChecksummedIByteStream in(raw);
      EXPECT_THROW(in.ReadExactly(got.data(), got.size()), std::runtime_error) << failAt;
    }
    EXPECT_EQ(raw.throws, 1) << "the failure was injected at " << failAt;
    // The failed read gave the helper back: the next one gets it.
    const uint64_t before = jx::ChecksumHelperTransfers();
    EXPECT_TRUE(ReadAndVerify(file, 300007, &got));
    EXPECT_EQ(jx::ChecksumHelperTransfers(), before + 1) << "after a failure at " << failAt;
  }
}

// The threads this process has now.
int ThreadCount() {
  int n = 0;
  if (DIR* d = ::opendir("/proc/self/task")) {
    while (dirent* e = ::readdir(d)) n += e->d_name[0] != '.';
    ::closedir(d);
  }
  return n;
}

// A host that shuts background work down from inside a payload's read, on the reading thread,
// must not wait for that very read: the helper gives the read up and ends at once, and the read
// goes on hashed inline.
TEST(ChecksumHelper, AStopFromInsideALargeReadEndsTheHelperAtOnce) {
  const auto payload = Pattern(kLarge, 2);
  const auto file = Sealed(payload);
  std::vector<uint8_t> got;
  ASSERT_TRUE(ReadAndVerify(file, 300007, &got));  // the helper runs
  jx::StopChecksumHelper();
  EXPECT_TRUE(FinishesOrAborts(std::chrono::seconds(60), "a stop inside a read waited for it", [&] {
    const int withoutHelper = ThreadCount();
    int afterStop = -1, reads = 0;
    const uint64_t before = jx::ChecksumHelperTransfers();
    std::vector<uint8_t> mine;
    const bool verified = ReadAndVerify(file, 300007, &mine, [&] {
      if (reads++ != 1) return;  // the second read: the helper is ours
      jx::StopChecksumHelper();
      afterStop = ThreadCount();
    });
    EXPECT_EQ(afterStop, withoutHelper) << "the helper outlived the stop asked during the read";
    return verified && mine == payload && jx::ChecksumHelperTransfers() == before + 1 && reads > 1;
  }));
}

// A read held up in its device (a network folder) must not hold up a stop: the helper gives the
// read up, and the reading thread hashes the rest once its device answers. Damage before and
// after the point where the helper stopped is still caught.
TEST(ChecksumHelper, AStopDoesNotWaitForAReadStuckInItsDevice) {
  const auto payload = Pattern(kLarge, 9);
  for (size_t flip : {SIZE_MAX, size_t{100}, kLarge - 10}) {
    auto file = Sealed(payload);
    if (flip != SIZE_MAX) file[flip] ^= 0x04;
    std::promise<void> stuck;
    std::atomic<bool> answer{false};
    auto reader = std::async(std::launch::async, [&] {
      int reads = 0;
      const uint64_t before = jx::ChecksumHelperTransfers();
      std::vector<uint8_t> got;
      const bool verified = ReadAndVerify(file, 300007, &got, [&] {
        if (reads++ != 3) return;
        stuck.set_value();
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!answer && std::chrono::steady_clock::now() < limit) {
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      });
      EXPECT_EQ(jx::ChecksumHelperTransfers(), before + 1) << "the helper had the read";
      return verified && got == payload;
    });
    stuck.get_future().wait();
    // Long past the helper's spin: it sleeps, waiting for the stuck read's next slice.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    auto stop = std::async(std::launch::async, [] { jx::StopChecksumHelper(); });
    const bool stopWaited = stop.wait_for(std::chrono::seconds(10)) != std::future_status::ready;
    answer = true;
    stop.wait();
    EXPECT_FALSE(stopWaited) << "the stop waited for a read stuck in its device";
    EXPECT_EQ(reader.get(), flip == SIZE_MAX) << "flipped at " << flip;
  }
}

// A stop must not wait behind a thread that reads large payloads back to back (playback), which
// could otherwise take the helper again each time before the stop wakes.
TEST(ChecksumHelper, AStopIsNotStarvedByOneThreadReadingBackToBack) {
  const auto file = Sealed(Pattern(kLarge, 5));
  constexpr auto kReading = std::chrono::seconds(20);  // at most: the stop ends it
  std::atomic<bool> stopped{false};
  std::atomic<int> reads{0}, bad{0};
  std::thread reader([&] {
    // Nothing between two reads but the next read: the helper is free only for a moment.
    std::vector<uint8_t> got(kLarge);
    const auto until = std::chrono::steady_clock::now() + kReading;
    while (!stopped && std::chrono::steady_clock::now() < until) {
      ChunkyStream raw(file, SIZE_MAX);
      ChecksummedIByteStream in(raw);
      in.ReadExactly(got.data(), got.size());
      bad += !Verifies(in);
      ++reads;
    }
  });
  while (reads < 3) std::this_thread::yield();
  const uint64_t before = jx::ChecksumHelperTransfers();
  jx::StopChecksumHelper();
  // Reads that took the helper while the stop waited for it: the one under way, perhaps one
  // that took it just before the stop asked, and those of a moment in which a busy machine kept
  // this thread from asking (13 of them once, in a CI run). Starved, the stop waits out the whole
  // 20 s of reading, thousands of reads.
  const uint64_t tookHelper = jx::ChecksumHelperTransfers() - before;
  stopped = true;
  reader.join();
  EXPECT_EQ(bad, 0);
  EXPECT_LE(tookHelper, 100u) << "the stop waited behind " << tookHelper << " reads of " << reads;
  EXPECT_LT(reads, 1000) << "the reading ran until its own end, not the stop's";
}

// A stop just as a read hands the helper its bytes (from the read's first device call) must still
// leave someone to hash the read. Back to back, so that the helper is between two transfers,
// looking for the next, when the read begins.
TEST(ChecksumHelper, AStopAsAReadBeginsNeverStrandsTheRead) {
  const auto payload = Pattern(kLarge, 11);
  const auto file = Sealed(payload);
  constexpr int kRounds = 200;
  const int wrong = FinishesOrAborts(std::chrono::seconds(60), "a read begun at a stop hung", [&] {
    int wrong = 0;
    std::vector<uint8_t> got(kLarge);
    for (int i = 0; i < kRounds; ++i) {
      if (!ReadAndVerify(file, 300007, &got) || got != payload) ++wrong;  // the helper runs
      ChunkyStream raw(file, 300007);
      bool first = true;
      raw.onRead = [&] {
        if (std::exchange(first, false)) jx::StopChecksumHelper();
      };
      ChecksummedIByteStream in(raw);
      in.ReadExactly(got.data(), got.size());
      wrong += !Verifies(in) || got != payload;
    }
    return wrong;
  });
  EXPECT_EQ(wrong, 0);
}

TEST(ChecksumHelper, ConcurrentReadersAndStopsNeitherHangNorMixReads) {
  constexpr int kReaders = 4, kReads = 12;
  // Each reader has its own file; every third read is of a damaged copy.
  std::vector<std::vector<uint8_t>> payloads, files, damaged;
  for (int r = 0; r < kReaders; ++r) {
    payloads.push_back(Pattern(kLarge, 7 * r + 3));
    files.push_back(Sealed(payloads.back()));
    damaged.push_back(files.back());
    damaged.back()[(r + 1) * kLarge / (kReaders + 1)] ^= 0x01;
  }
  const uint64_t before = jx::ChecksumHelperTransfers();
  std::atomic<int> readersLeft{kReaders};
  const auto [wrong, stops] =
      FinishesOrAborts(std::chrono::seconds(120), "readers and stops hung", [&] {
        std::atomic<int> wrong{0};  // the readers count into it together
        int stops = 0;
        std::vector<std::thread> readers;
        for (int r = 0; r < kReaders; ++r) {
          readers.emplace_back([&, r] {
            std::vector<uint8_t> got;
            for (int i = 0; i < kReads; ++i) {
              const bool bad = i % 3 == 2;
              const bool verified = ReadAndVerify(bad ? damaged[r] : files[r], 262147, &got);
              if (verified == bad || (!bad && got != payloads[r])) ++wrong;
            }
            --readersLeft;
          });
        }
        while (readersLeft > 0) {
          jx::StopChecksumHelper();
          ++stops;
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        for (auto& t : readers) t.join();
        return std::make_pair(wrong.load(), stops);
      });
  EXPECT_EQ(wrong, 0) << "a read verified that should not have, or returned other bytes";
  EXPECT_GT(stops, 0);
  const uint64_t aside = jx::ChecksumHelperTransfers() - before;
  EXPECT_GT(aside, 0u) << "some reads found the helper free";
  std::printf("reads %d, hashed aside %llu, stops %d\n", kReaders * kReads,
              static_cast<unsigned long long>(aside), stops);
}

}  // namespace
