#include <gtest/gtest.h>

#include "tests/support/Watchdog.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(
      new tavix::test::Watchdog(tavix::test::Watchdog::LimitFromEnvironment()));
  return RUN_ALL_TESTS();
}
