#include "programs/cli/text/UtcTime.h"

#include <gtest/gtest.h>

namespace tavix::test {

using programs::cli::ShowSeconds;
using programs::cli::ShowTime;
using std::chrono::milliseconds;
using std::chrono::system_clock;

TEST(UtcTime, IsShownAsTheStandardSays) {
  const system_clock::time_point time(milliseconds(1767225599007));
  EXPECT_EQ(ShowTime(time), "2025-12-31T23:59:59.007Z");
  EXPECT_EQ(ShowSeconds(time), "2025-12-31T23:59:59Z");
  EXPECT_EQ(ShowTime(system_clock::time_point(milliseconds(-1))), "1969-12-31T23:59:59.999Z");
}

}  // namespace tavix::test
