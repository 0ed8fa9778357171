// Files one process wrote are adopted by the next one: each phase runs in a fresh child process
// that starts the library on the same folder, so nothing but the folder carries over.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#include "host/file_utils.h"

#include <cstring>
#include <filesystem>
#include <functional>

#include "disk/disk_test_support.h"
#include "disk/scan_one_file.h"
#include "jxcache/bag/bag.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/lifecycle.h"
#include "standalone/standalone_host.h"

using jx::testing::CompressiblePayload;
using jx::testing::TestPayload;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr int kItems = 5;
constexpr unsigned int kSizeStep = 300001;  // different sizes, none a whole number of sectors

// Runs `phase` in a child process with the library started at `version` on `folder`; returns
// the child's exit code (the phase's result, or 100+ when the child died otherwise).
int RunChild(unsigned int version, const std::string& folder,
             const std::function<int(JX_Bag&)>& phase) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    auto& host = jx::StandaloneHost::Instance();
    host.Reset();
    host.SetEchoReports(false);
    host.MakeCurrentThreadMain();
    JX_Birth(false, version, false);
    jx::testing::RegisterTestPayloadFactory();
    auto bag = JX_GlobalBag();
    zelcore::utility::FileUtils::EnsureDirectoryExists(folder);
    bag->SetDiskCacheInfo(folder, 1ll << 32);
    const int code = phase(*bag);
    bag.reset();
    JX_StopAllAsyncWork();
    JX_Death();
    ::_exit(code);
  }
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return 100;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

// Adopts every file in the folder, as a start-up scan does.
void ScanFolder(JX_Bag& bag) {
  const auto dir = bag.GetDiskCacheDirSpec();
  for (const auto& name : jx::testing::FolderNames(dir)) JX_ScanOneDiskCacheFile(dir.GetFile(name));
}

TEST(AdoptionTest, AFreshProcessAdoptsAndReadsBackWhatAnotherWrote) {
  char pattern[] = "/tmp/jxadopt.XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string folder = std::string(pattern) + "/cache";
  std::vector<Guid> guids;
  for (int i = 0; i < kItems; ++i) guids.push_back(Guid::CreateUnique());

  const int wrote = RunChild(1, folder, [&](JX_Bag& bag) {
    for (int i = 0; i < kItems; ++i) {
      auto payload = IntrusivePtr<JX_StuffData>(new TestPayload((i + 1) * kSizeStep, i, true));
      auto item = JX_Stuff::CreateNew(payload, 0.0);
      item->SetGuid(guids[i]);
      item->AddToBagAndSortDir(JX_GlobalBag());
      item->PrepAndWrite(JX_GlobalBag());
      if (!item->HasDiskCacheFile()) return 1;
    }
    return bag.GetNumItems() == kItems ? 0 : 2;
  });
  ASSERT_EQ(wrote, 0);

  // (That another version leaves them alone is the in-process scan test's business.)
  const int adopted = RunChild(1, folder, [&](JX_Bag& bag) {
    ScanFolder(bag);
    if (bag.GetNumItems() != kItems) return 1;
    if (bag.GetCurrentDiskCacheSize() != jx::testing::SumOfFileSizes(bag.GetDiskCacheDirSpec()))
      return 2;
    for (int i = 0; i < kItems; ++i) {
      JX_ScCheckout handle;
      if (handle.FindAndCheckout(jx::testing::MakeRequest(guids[i]),
                                 jx::checkout_flags::kReadOnly) != kJX_CheckedOut)
        return 3;
      auto* payload = dynamic_cast<TestPayload*>(handle.GetStuffPtr()->GetDataPtr().get());
      if (!payload || payload->Seed() != static_cast<uint32_t>(i)) return 4;
      if (payload->GetApproximateMemorySize() != (i + 1) * kSizeStep || !payload->Verify())
        return 5;
    }
    return 0;
  });
  EXPECT_EQ(adopted, 0);
  std::filesystem::remove_all(pattern);
}

// Rebuilds compressed copies too (their header carries one more byte).
void RegisterCompressiblePayloadFactory() {
  JX_StuffData::Factory factory =
      [](const JX_StuffData::Header& header) -> IntrusivePtr<JX_StuffData> {
    if (header.size() != 8 && header.size() != 9) return {};
    uint32_t seed, size;
    std::memcpy(&seed, header.data(), 4);
    std::memcpy(&size, header.data() + 4, 4);
    auto* payload = new CompressiblePayload(size, seed);
    payload->SetIsCompressed(header.size() == 9);
    payload->PurgeIfPossible(nullptr);
    return IntrusivePtr<JX_StuffData>(payload);
  };
  JX_StuffData::RegisterFactory("TestPayload", factory);
}

// A key's compressed copy and its original are two items, each with a file of its own. Another
// process (or this one after a restart) that holds the key in one form and scans the folder
// links the other form's file to an item of that form: it neither deletes it (another process
// may be counting and reading it) nor links it to the item of the other form.
TEST(AdoptionTest, AKeysCompressedCopyAndItsOriginalAreAdoptedAsTwoItems) {
  char pattern[] = "/tmp/jxadopt.XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const Guid guid = Guid::CreateUnique();
  const auto add = [&](JX_Bag& bag, bool compressed) {
    auto* payload = new CompressiblePayload(kSizeStep, 9);
    payload->SetIsCompressed(compressed);
    auto item = JX_Stuff::CreateNew(IntrusivePtr<JX_StuffData>(payload), 0.0);
    item->SetGuid(guid);
    bag.AddToBagAndSortDir(item);
    return item;
  };
  for (const bool heldCompressed : {false, true}) {
    SCOPED_TRACE(heldCompressed ? "holding the compressed copy" : "holding the original");
    const std::string folder = std::string(pattern) + (heldCompressed ? "/b" : "/a");
    ASSERT_EQ(RunChild(1, folder,
                       [&](JX_Bag& bag) {
                         int written = 0;
                         for (const bool compressed : {false, true}) {
                           auto item = add(bag, compressed);
                           item->PrepAndWrite(JX_GlobalBag());
                           written += item->HasDiskCacheFile();
                         }
                         return written == 2 ? 0 : 1;
                       }),
              0);
    const int code = RunChild(1, folder, [&](JX_Bag& bag) {
      RegisterCompressiblePayloadFactory();
      auto held = add(bag, heldCompressed);
      ScanFolder(bag);
      if (jx::testing::FolderNames(bag.GetDiskCacheDirSpec()).size() != 2) return 1;
      if (bag.GetNumItems() != 2 || !held->HasDiskCacheFile()) return 2;
      if (bag.GetCurrentDiskCacheSize() != jx::testing::SumOfFileSizes(bag.GetDiskCacheDirSpec()))
        return 3;
      return 0;
    });
    EXPECT_EQ(code, 0) << "1: a file deleted, 2: not two items, 3: the count is off";
  }
  std::filesystem::remove_all(pattern);
}

}  // namespace
