#include "testing/jx_test_support.h"

#include <sys/stat.h>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "common/settings.h"
#include "disk/disk_speed.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "standalone/debug_database.h"
#include "standalone/standalone_settings.h"

namespace jx::testing {

TestPayload::TestPayload(unsigned int size, uint32_t seed, bool diskCacheable)
    : bytes_(std::make_shared<std::vector<uint8_t>>(size)),
      size_(size),
      seed_(seed),
      diskCacheable_(diskCacheable) {
  for (unsigned int i = 0; i < size; ++i)
    (*bytes_)[i] = static_cast<uint8_t>((seed * 131 + i) & 0xFF);
  LiveCount().fetch_add(1);
}

void TestPayload::Rewrite(uint32_t seed) {
  seed_ = seed;
  if (!bytes_) return;
  for (unsigned int i = 0; i < size_; ++i)
    (*bytes_)[i] = static_cast<uint8_t>((seed * 131 + i) & 0xFF);
}

TestPayload::~TestPayload() {
  if (bytes_ && OnRelease()) OnRelease()();
  LiveCount().fetch_sub(1);
}

std::function<void()>& TestPayload::OnRelease() {
  static std::function<void()> fn;
  return fn;
}

std::atomic<int>& TestPayload::LiveCount() {
  static std::atomic<int> n{0};
  return n;
}

unsigned int TestPayload::GetApproximateMemorySize() const {
  return inMemory_.load(std::memory_order_acquire) ? size_ : 0;
}

bool TestPayload::IsInMemory() const { return inMemory_.load(std::memory_order_acquire); }

bool TestPayload::PurgeIfPossible(ReleaseQueue* toRelease) {
  if (!bytes_) return false;
  // The release hook runs where the memory really goes: in the queue's owner or right here.
  struct Release {
    std::shared_ptr<std::vector<uint8_t>> bytes;
    ~Release() {
      if (bytes && OnRelease()) OnRelease()();
    }
  };
  auto release = std::make_shared<Release>();
  release->bytes = std::move(bytes_);
  inMemory_.store(false, std::memory_order_release);
  if (toRelease) toRelease->push_back(release);
  return true;
}

void TestPayload::GetHeader(Header& header) const {
  header.resize(8);
  std::memcpy(header.data(), &seed_, 4);
  std::memcpy(header.data() + 4, &size_, 4);
}

double TestPayload::Write(zelcore::filesupport::OByteStream& out) const {
  if (bytes_) out.Write(bytes_->data(), bytes_->size());
  return 0.0;
}

double TestPayload::Read(zelcore::filesupport::IByteStream& in,
                         zelcore::threads::MultiTenantRecursiveMutex&) {
  auto bytes = std::make_shared<std::vector<uint8_t>>(size_);
  in.ReadExactly(bytes->data(), size_);
  bytes_ = std::move(bytes);
  inMemory_.store(true, std::memory_order_release);
  return 0.0;
}

bool TestPayload::CanSatisfyRequest(IntrusivePtr<JX_StuffData> request) const {
  auto* other = dynamic_cast<TestPayload*>(request.get());
  return !other || satisfiesAny_ || other->variant_ == variant_;
}

bool TestPayload::Verify() const {
  if (!bytes_ || bytes_->size() != size_) return false;
  for (unsigned int i = 0; i < size_; ++i) {
    if ((*bytes_)[i] != static_cast<uint8_t>((seed_ * 131 + i) & 0xFF)) return false;
  }
  return true;
}

zelcore::utility::IntrusivePtr<JX_Stuff> MakeItem(unsigned int size,
                                                  const zelcore::utility::Guid& guid,
                                                  uint32_t seed) {
  auto item = JX_Stuff::CreateNew(
      zelcore::utility::IntrusivePtr<JX_StuffData>(new TestPayload(size, seed)), 0.0);
  item->SetGuid(guid.IsEmpty() ? zelcore::utility::Guid::CreateUnique() : guid);
  return item;
}

zelcore::utility::IntrusivePtr<JX_Stuff> MakeRequest(const zelcore::utility::Guid& guid,
                                                     int variant,
                                                     JX_CompressedAllowedOption option) {
  auto* payload = new TestPayload(0);
  payload->SetVariant(variant);
  payload->SetCompressedAllowedOption(option);
  auto item = JX_Stuff::CreateNew(zelcore::utility::IntrusivePtr<JX_StuffData>(payload), 0.0);
  item->SetGuid(guid);
  return item;
}

TestPayload* PayloadOf(const JX_Stuff& item) {
  return dynamic_cast<TestPayload*>(item.GetDataPtr().get());
}

long long PayloadBytesInBag(const JX_Bag& bag) {
  unsigned long long inMemory = 0, withDiskCopy = 0;
  bag.GetCacheSizesInBytes(inMemory, withDiskCopy);
  return static_cast<long long>(inMemory);
}

long long SumOfItemSizes(JX_Bag& bag) {
  long long sum = 0;
  for (const auto& s : bag.CopyMruItems()) sum += s->GetAccountedMemorySize();
  return sum;
}

void StartAsANewProcess() {
  jx::settings::ForgetForTests();
  zelcore::debug::DebugDatabase::Instance().ResetForTests();
  zelappsupport::feature::ResetFeaturesForTests();
  jx::disk::ReadSpeedStatistics().Reset();
  jx::disk::WriteSpeedStatistics().Reset();
  const char* trace = std::getenv("JX_TRACE");
  zelcore::debug::Tracing::Configure(trace != nullptr ? trace : "");
  zelcore::debug::Tracing::SetSink(nullptr);
}

void LibraryTest::SetUp() {
  auto& host = StandaloneHost::Instance();
  host.Reset();
  host.SetEchoReports(false);
  host.MakeCurrentThreadMain();
  char pattern[] = "/tmp/jxtest.XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  tempDir_ = pattern;
  // The system temporary folder is where an unusable cache folder falls back to: give each test
  // its own, so that tests running side by side never share cache files.
  const std::string systemTemp = tempDir_ + "/systemp";
  ASSERT_EQ(mkdir(systemTemp.c_str(), 0700), 0);
  setenv("TMPDIR", systemTemp.c_str(), 1);
  Birth();
  bag_ = JX_GlobalBag();
  ASSERT_TRUE(bag_);
}

void LibraryTest::Birth() { JX_Birth(false, 1, false); }

void LibraryTest::TearDown() {
  if (bag_) {
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
  }
  bag_.reset();
  JX_StopAllAsyncWork();
  JX_Death();
  std::error_code ec;
  std::filesystem::remove_all(tempDir_, ec);
}

}  // namespace jx::testing
