// The frame payload's disk format, the pixels and their checksum: a read gives back the frame
// that was written or refuses, and refuses a file too short for what its name claims before it
// allocates anything.
#include <gtest/gtest.h>

#include <filesystem>

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

void ReadInto(FramePayload& frame, const std::vector<uint8_t>& bytes) {
  zelcore::filesupport::MemoryIByteStream in(bytes.data(), bytes.size());
  zelcore::threads::MultiTenantRecursiveMutex itemMutex;
  frame.Read(in, itemMutex);
}

TEST(FramePayload, ReadGivesBackTheWrittenFrameOrRefuses) {
  const uint32_t w = 64, h = 36, f = 7;
  const auto rendered = FramePayload::Render(w, h, f);
  const std::vector<uint8_t> good = FrameFileBytes(w, h, f);
  ASSERT_EQ(good.size(), rendered->ByteCount() + jx::kChecksumTrailerSize);
  auto back = Empty(w, h, f);
  ReadInto(*back, good);
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
    EXPECT_THROW(ReadInto(*frame, bytes), CorruptDataError) << what;
    EXPECT_FALSE(frame->IsInMemory()) << what << ": kept pixels it refused";
  }

  // Another frame's file under this frame's name passes the checksum: only the check against
  // the image, which `simulate` makes of every frame it serves, catches it.
  auto other = Empty(w, h, f + 1);
  ReadInto(*other, good);
  EXPECT_FALSE(other->Verify());
  EXPECT_TRUE(back->Verify());

  // A payload purged before its write has nothing to write: no file that could never be read.
  zelcore::filesupport::VectorOByteStream out;
  EXPECT_THROW(Empty(w, h, f)->Write(out), zelcore::filesupport::FileError);
  EXPECT_TRUE(out.Bytes().empty());
}

TEST(FramePayload, AHeaderClaimingAHugeFrameIsRefusedBeforeAllocating) {
  // 65535 x 16383 RGBA: nearly 4 GiB claimed, 100 bytes held. Allocating first would end in
  // bad_alloc, or in a plain end-of-file FileError once the pixels ran out.
  auto huge = Empty(65535, 16383, 0);
  ASSERT_GT(huge->ByteCount(), kMaxFrameBytes);
  EXPECT_THROW(ReadInto(*huge, std::vector<uint8_t>(100, 0x5A)), CorruptDataError);
  EXPECT_FALSE(huge->IsInMemory());

  // The folder scan never makes such a payload: the factory refuses every header `simulate`
  // could not have written.
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

// Through the library: damaged files in the folder are adopted by name, and the read of each is
// refused; the file goes and the failed read is counted.
TEST(FramePayload, DamagedFilesInTheFolderAreRefusedDeletedAndCounted) {
  TempDir dir;
  LibraryRun run(/*mediaMapAllowed=*/false, 1);
  FramePayload::RegisterFactory(nullptr);
  JX_Bag& bag = run.bag();
  bag.EnableDiskCache(true);
  bag.SetDiskCacheInfo(dir.path(), 1ll << 30);
  ASSERT_TRUE(bag.IsDiskCacheEnabled());
  const std::string folder = bag.GetDiskCacheDirSpec().GetPath();
  fs::create_directories(folder);

  // A real frame with one bit flipped; 100 bytes under the name of the largest frame the factory
  // takes (2 GiB); 100 bytes under a name claiming nearly 4 GiB, which it refuses.
  const uint32_t w = 64, h = 36;
  auto flipped = FrameFileBytes(w, h, 1);
  flipped[flipped.size() / 3] ^= 0x01;
  const std::string flippedPath = folder + "/" + FrameFileName(w, h, 1);
  const std::string shortPath = folder + "/" + FrameFileName(32768, 16384, 2);
  const std::string hugePath = folder + "/" + FrameFileName(65535, 16383, 3);
  testing::WriteBytes(flippedPath, flipped);
  testing::WriteBytes(shortPath, std::vector<uint8_t>(100, 0x5A));
  testing::WriteBytes(hugePath, std::vector<uint8_t>(100, 0x5A));

  auto& counters = jx::disk::GetCounters();
  const uint64_t adopted = counters.filesAdopted.load();
  bag.RequestDiskCacheScan();
  bag.ScanDiskCacheDir();
  EXPECT_EQ(counters.filesAdopted.load() - adopted, 2u);

  auto& host = StandaloneHost::Instance();
  const size_t corruptBefore = host.CountReports(HostReport::Kind::kException, "corrupt data");
  const size_t tooShortBefore = host.CountReports(HostReport::Kind::kException, "frame pixels");
  const uint32_t failedBefore = counters.failedReads.load();
  struct Case {
    uint32_t width, height, frame;
    const std::string& path;
  };
  for (const Case& c : {Case{w, h, 1, flippedPath}, Case{32768, 16384, 2, shortPath}}) {
    auto request = JX_Stuff::CreateNew(
        IntrusivePtr<JX_StuffData>(new FramePayload(c.width, c.height, c.frame)), 0.0);
    request->SetGuid(FramePayload::KeyOf(c.width, c.height, c.frame));
    JX_ScCheckout handle;
    EXPECT_EQ(handle.FindAndCheckout(request, jx::checkout_flags::kReadOnly), kJX_CheckoutRefused)
        << c.path;
    EXPECT_FALSE(fs::exists(c.path));
  }
  EXPECT_EQ(counters.failedReads.load() - failedBefore, 2u);
  // Both refused as damaged, the short one for its size (which is checked before allocating):
  // neither ran out of memory nor out of file.
  EXPECT_EQ(host.CountReports(HostReport::Kind::kException, "corrupt data") - corruptBefore, 2u);
  EXPECT_EQ(host.CountReports(HostReport::Kind::kException, "frame pixels") - tooShortBefore, 1u);
}

}  // namespace
}  // namespace jx::tool
