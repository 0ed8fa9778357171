// GoogleTest entry point shared by every test program.
#include <gtest/gtest.h>

#include "standalone/standalone_host.h"

int main(int argc, char** argv) {
  // Every test runs on the stand-in host: its first use installs its services.
  jx::StandaloneHost::Instance();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
