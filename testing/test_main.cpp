// GoogleTest entry point shared by every test program.
#include <gtest/gtest.h>

#include "standalone/standalone_host.h"
#include "testing/jx_test_support.h"

namespace {

// Each test starts from what a new process starts with, whether the program runs one test (as
// ctest runs them) or all of them, in any order or repeated.
class NewProcessForEachTest : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo&) override { jx::testing::StartAsANewProcess(); }
};

}  // namespace

int main(int argc, char** argv) {
  // Every test runs on the stand-in host: its first use installs its services.
  jx::StandaloneHost::Instance();
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::UnitTest::GetInstance()->listeners().Append(new NewProcessForEachTest);
  return RUN_ALL_TESTS();
}
