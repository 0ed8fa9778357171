// The frame payload's disk format: a read gives back the frame that was written or refuses.
#include <gtest/gtest.h>

#include <filesystem>

#include "disk/cache_file_name.h"
#include "disk/disk_counters.h"
#include "jxcache/host/byte_stream.h"
#include "jxcache/items/checksummed_stream.h"
#include "jxcache/items/sc_checkout.h"
#include "standalone/standalone_host.h"
#include "tools/jxcache/frame_payload.h"
#include "tools/jxcache/library_run.h"
#include "tools/jxcache/tool_test_support.h"

namespace jx::tool {
namespace {

namespace fs = std::filesystem;
using testing::FrameFileBytes;
using testing::FrameFileName;
using testing::TempDir;
using zelcore::filesupport::CorruptDataError;
using zelcore::utility::IntrusivePtr;

IntrusivePtr<FramePayload> Empty(uint32_t width, uint32_t height, uint32_t frame) {
  return IntrusivePtr<FramePayload>(new FramePayload(width, height, frame));
}

// Reads `bytes` the way the cache reads frame (w, h, f)'s file: under that file's name.
void ReadInto(FramePayload& frame, const std::vector<uint8_t>& bytes, uint32_t w, uint32_t h,
              uint32_t f) {
  struct FileStream : zelcore::filesupport::MemoryIByteStream, ChecksumIdentity {
    FileStream(const std::vector<uint8_t>& b, uint64_t seed)
        : MemoryIByteStream(b.data(), b.size()), ChecksumIdentity(seed) {}
  } in(bytes, disk::CacheFileChecksumSeed(FrameFileName(w, h, f)));
  zelcore::threads::MultiTenantRecursiveMutex itemMutex;
  frame.Read(in, itemMutex);
}

TEST(FramePayload, ReadGivesBackTheWrittenFrameOrRefuses) {
  const uint32_t w = 64, h = 36, f = 7;
  const auto rendered = FramePayload::Render(w, h, f);
  const std::vector<uint8_t> good = FrameFileBytes(w, h, f);
  ASSERT_EQ(good.size(), rendered->ByteCount() + jx::kChecksumTrailerSize);
  auto back = Empty(w, h, f);
  ReadInto(*back, good, w, h, f);
  ASSERT_TRUE(back->GetPixels());
  EXPECT_EQ(*back->GetPixels(), *rendered->GetPixels());

  auto flipped = [&](size_t at) {
    auto b = good;
    b[at] ^= 0x10;
    return b;
  };
  auto cut = [&](size_t n) { return std::vector<uint8_t>(good.begin(), good.begin() + n); };
  auto longer = good;
  longer.push_back(0);
  const std::vector<std::pair<const char*, std::vector<uint8_t>>> damaged = {
      {"first byte flipped", flipped(0)},
      {"a middle byte flipped", flipped(good.size() / 2)},
      {"trailer flipped", flipped(good.size() - 1)},
      {"a byte short", cut(good.size() - 1)},
      {"no trailer", cut(rendered->ByteCount())},
      {"half", cut(good.size() / 2)},
      {"empty", {}},
      {"a byte after the trailer", longer}};
  for (const auto& [what, bytes] : damaged) {
    auto frame = Empty(w, h, f);
    EXPECT_THROW(ReadInto(*frame, bytes, w, h, f), CorruptDataError) << what;
    EXPECT_FALSE(frame->IsInMemory()) << what << ": kept pixels it refused";
  }

  // Another frame's whole file under this frame's name fails the checksum, which is bound to the
  // name it was written under. Read under that name, it passes: only the image check catches it.
  auto other = Empty(w, h, f + 1);
  EXPECT_THROW(ReadInto(*other, good, w, h, f + 1), CorruptDataError);
  EXPECT_FALSE(other->IsInMemory());
  ReadInto(*other, good, w, h, f);
  EXPECT_FALSE(other->Verify());
  EXPECT_TRUE(back->Verify());

  // A payload purged before its write has nothing to write: no file that could never be read.
  zelcore::filesupport::VectorOByteStream out;
  EXPECT_THROW(Empty(w, h, f)->Write(out), zelcore::filesupport::FileError);
  EXPECT_TRUE(out.Bytes().empty());
}

TEST(FramePayload, AHeaderClaimingAHugeFrameIsRefusedBeforeAllocating) {
  // Nearly 4 GiB claimed, 100 bytes held: allocating first would end in bad_alloc or end of file.
  auto huge = Empty(65535, 16383, 0);
  ASSERT_GT(huge->ByteCount(), kMaxFrameBytes);
  EXPECT_THROW(ReadInto(*huge, std::vector<uint8_t>(100, 0x5A), 65535, 16383, 0), CorruptDataError);
  EXPECT_FALSE(huge->IsInMemory());

  // The factory refuses every header `simulate` could not have written.
  FramePayload::RegisterFactory(nullptr);
  auto make = [](uint32_t width, uint32_t height, size_t headerSize = 12) {
    JX_StuffData::Header header;
    FramePayload(width, height, 3).GetHeader(header);
    header.resize(headerSize);
    return JX_StuffData::CreateSubclass(FramePayload::kMatchname, header);
  };
  EXPECT_FALSE(make(65535, 16383));
  EXPECT_FALSE(make(32768, 16385));  // a row past the largest frame
  EXPECT_FALSE(make(0, 16));
  EXPECT_FALSE(make(16, 0));
  EXPECT_FALSE(make(16, 16, 11));
  auto largest = make(32768, 16384);
  ASSERT_TRUE(largest);
  EXPECT_EQ(static_cast<FramePayload*>(largest.get())->ByteCount(), kMaxFrameBytes);
  EXPECT_FALSE(largest->IsInMemory());
}

// A file too short for the 2 GiB frame its name claims is refused before the allocation (the
// library's streams tell the payload their length), deleted and counted; larger names not adopted.
TEST(FramePayload, AShortFileInTheFolderIsRefusedBeforeAllocatingDeletedAndCounted) {
  TempDir dir;
  LibraryRun run(/*mediaMapAllowed=*/false, 1);
  FramePayload::RegisterFactory(nullptr);
  JX_Bag& bag = run.bag();
  bag.EnableDiskCache(true);
  bag.SetDiskCacheInfo(dir.path(), 1ll << 30);
  ASSERT_TRUE(bag.IsDiskCacheEnabled());
  const std::string folder = bag.GetDiskCacheDirSpec().GetPath();
  fs::create_directories(folder);
  const std::string shortPath = folder + "/" + FrameFileName(32768, 16384, 2);
  testing::WriteBytes(shortPath, std::vector<uint8_t>(100, 0x5A));
  testing::WriteBytes(folder + "/" + FrameFileName(65535, 16383, 3),
                      std::vector<uint8_t>(100, 0x5A));

  auto& counters = jx::disk::GetCounters();
  const uint64_t adopted = counters.filesAdopted.load();
  bag.RequestDiskCacheScan();
  bag.ScanDiskCacheDir();
  EXPECT_EQ(counters.filesAdopted.load() - adopted, 1u);

  auto& host = StandaloneHost::Instance();
  const size_t tooShortBefore = host.CountReports(HostReport::Kind::kException, "frame pixels");
  const uint32_t failedBefore = counters.failedReads.load();
  auto request =
      JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(new FramePayload(32768, 16384, 2)), 0.0);
  request->SetGuid(FramePayload::KeyOf(32768, 16384, 2));
  JX_ScCheckout handle;
  EXPECT_EQ(handle.FindAndCheckout(request, jx::checkout_flags::kReadOnly), kJX_CheckoutRefused);
  EXPECT_FALSE(fs::exists(shortPath));
  EXPECT_EQ(counters.failedReads.load() - failedBefore, 1u);
  EXPECT_EQ(host.CountReports(HostReport::Kind::kException, "frame pixels") - tooShortBefore, 1u);
}

}  // namespace
}  // namespace jx::tool
