// The fault plan under concurrent callers: a one-off fault fires once, counts are exact.
#include "testing/fault_injection.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace zelcore::filesupport {
namespace {

TEST(FaultInjectionTest, AOnceFaultFiresExactlyOnceAcrossThreads) {
  FaultInjection::Reset();
  FaultInjection::FailNth(FileOp::kRead, 1000, EIO);
  std::atomic<int> failures{0};
  auto hammer = [&] {
    for (int i = 0; i < 1000; ++i) {
      if (FaultInjection::ShouldFail(FileOp::kRead) != 0) failures.fetch_add(1);
    }
  };
  std::thread a(hammer), b(hammer), c(hammer);
  a.join();
  b.join();
  c.join();
  EXPECT_EQ(failures.load(), 1);
  EXPECT_EQ(FaultInjection::CallCount(FileOp::kRead), 3000u);
  FaultInjection::Reset();
}

}  // namespace
}  // namespace zelcore::filesupport
