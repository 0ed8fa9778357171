// Test support: a fixture that starts the library on a configured stand-in host with its own
// temporary folder and tears it all down, and a payload class for tests.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bag/bag.h"
#include "host/guid.h"
#include "host/standalone_host.h"
#include "items/stuff.h"
#include "lifecycle/lifecycle.h"

namespace jx::testing {

// A payload of `size` bytes whose content derives from a seed, so a test can check it.
class TestPayload : public JX_StuffData {
 public:
  explicit TestPayload(unsigned int size, uint32_t seed = 0, bool diskCacheable = false);
  ~TestPayload() override;

  unsigned int GetApproximateMemorySize() const override;
  bool PurgeIfPossible(ReleaseQueue* toRelease) override;
  bool IsInMemory() const override;
  bool ShouldAllowPurge() const override { return allowPurge_; }
  bool CanDiskCache() const override { return diskCacheable_; }
  const char* GetSubclassMatchname() const override { return "TestPayload"; }
  void GetHeader(Header& header) const override;
  double Write(zelcore::filesupport::OByteStream& out) const override;
  double Read(zelcore::filesupport::IByteStream& in,
              zelcore::threads::MultiTenantRecursiveMutex& itemMutex) override;
  bool CanSatisfyRequest(IntrusivePtr<JX_StuffData> request) const override;

  void SetAllowPurge(bool allow) { allowPurge_ = allow; }
  // Changes the reported size in place (the bytes are not reallocated).
  void SetReportedSize(unsigned int size) { size_ = size; }
  // When set, the payload refuses requests of another variant (same GUID, other request).
  void SetVariant(int variant) { variant_ = variant; }
  int Variant() const { return variant_; }
  uint32_t Seed() const { return seed_; }
  // Whether the bytes are present and match the seed.
  bool Verify() const;
  // Called when the payload's memory is finally released (from the purge queue or at once).
  static std::function<void()>& OnRelease();
  static std::atomic<int>& LiveCount();

 private:
  std::shared_ptr<std::vector<uint8_t>> bytes_;
  unsigned int size_;
  uint32_t seed_;
  bool diskCacheable_;
  bool allowPurge_ = true;
  int variant_ = 0;
};

// Creates a ready item holding a TestPayload, with `guid` (a fresh one when empty).
zelcore::utility::IntrusivePtr<JX_Stuff> MakeItem(unsigned int size,
                                                  const zelcore::utility::Guid& guid = {},
                                                  uint32_t seed = 0);
// A request item: a GUID and a request payload, for find-and-check-out.
zelcore::utility::IntrusivePtr<JX_Stuff> MakeRequest(const zelcore::utility::Guid& guid,
                                                     int variant = 0);
// The int code `fn` throws (the library's way of failing), or 0 when it does not throw.
inline int ThrownCode(const std::function<void()>& fn) {
  try {
    fn();
  } catch (int code) {
    return code;
  }
  return 0;
}

// Sum of the accounted sizes of the bag's items.
long long SumOfItemSizes(JX_Bag& bag);

// Starts the library (JX_Birth) with a quiet, deterministic host and a temporary folder;
// stops it in TearDown and checks that nothing is left checked out.
class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Override to start differently (media map allowed, Gfxpak limit...).
  virtual void Birth();

  std::shared_ptr<JX_Bag> bag_;
  std::string tempDir_;
};

}  // namespace jx::testing
