#include "programs/server/options/MemoryShares.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "programs/server/options/OptionTable.h"

namespace tavix::test {

namespace {

using daemon::FormatSize;
using daemon::Limits;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr uint64_t kMegabyte = 1024 * 1024;

}  // namespace

TEST(MemoryShares, AreEighthsAndAQuarterOfTheMemory) {
  const Limits limits = daemon::ShareMemory(800 * kMegabyte);
  EXPECT_EQ(limits.allBacklogBytes, 100 * kMegabyte);
  EXPECT_EQ(limits.allRequestBytes, 100 * kMegabyte);
  EXPECT_EQ(limits.storeBytes, 200 * kMegabyte);
}

TEST(MemoryShares, AreBoundedByThatOfALargeMachine) {
  const Limits limits = daemon::ShareMemory(1000 * 1024 * kMegabyte);
  EXPECT_EQ(limits.allBacklogBytes, 512 * kMegabyte);
  EXPECT_EQ(limits.allRequestBytes, 256 * kMegabyte);
  EXPECT_EQ(limits.storeBytes, 256 * kMegabyte);
}

TEST(MemoryShares, AreFourMebibytesAtLeast) {
  for (const uint64_t memory : {uint64_t{0}, kMegabyte, 16 * kMegabyte}) {
    const Limits limits = daemon::ShareMemory(memory);
    EXPECT_EQ(limits.allBacklogBytes, 4 * kMegabyte);
    EXPECT_EQ(limits.allRequestBytes, 4 * kMegabyte);
    EXPECT_EQ(limits.storeBytes, 4 * kMegabyte);
  }
}

TEST(MemoryShares, SizesAreShownInMebibytes) {
  EXPECT_EQ(FormatSize(512 * kMegabyte), "512 MiB");
  EXPECT_EQ(FormatSize(15 * kMegabyte / 2), "7.5 MiB");
}

TEST(MemoryShares, HelpTellsWhatTheyComeToOnASmallMachine) {
  const std::string help = daemon::FormatHelp(daemon::ShareMemory(80 * kMegabyte));
  EXPECT_THAT(
      help,
      ContainsRegex("--all-requests BYTES[^-]*from[ \n]+4[ \n]+to[ \n]+256[ \n]+MiB;[ \n]+here[ \n]+10[ \n]+MiB\n"));
  EXPECT_THAT(help, ContainsRegex("--max-store BYTES[^{]*--all-requests,[ \n]+from[ \n]+4[ \n]+to[ \n]+256[ \n]+MiB;"
                                  "[ \n]+here[ \n]+20[ \n]+MiB\n"));
  EXPECT_THAT(help, Not(HasSubstr("{}")));
}

}  // namespace tavix::test
