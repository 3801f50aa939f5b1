#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/Watchdog.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // What a developer's shell may have for the installed daemon.
  for (const char* variable : {"TAVIX_SETTINGS_SERVER", "TAVIX_SETTINGS_LOCALFILE"}) unsetenv(variable);
  testing::UnitTest::GetInstance()->listeners().Append(
      new tavix::test::Watchdog(tavix::test::Watchdog::LimitFromEnvironment()));
  return RUN_ALL_TESTS();
}
