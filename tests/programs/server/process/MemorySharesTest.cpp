#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programs/server/options/MemoryShares.h"
#include "programs/server/system/MemorySize.h"
#include "tests/programs/server/Daemon.h"

namespace tavix::test {

namespace {

using daemon::FormatSize;
using daemon::Limits;
using testing::HasSubstr;

std::string Show(const std::vector<std::string>& arguments) {
  const TemporaryDirectory directory;
  DaemonProcess daemon(ServerProgram(), directory.GetPath(), arguments);
  EXPECT_EQ(daemon.AwaitEnd(), 0) << daemon.GetErrors();
  return daemon.GetOutput();
}

}  // namespace

TEST(MemoryShares, HelpTellsWhatTheyComeToHere) {
  const Limits limits = daemon::ShareMemory(daemon::MemorySize().GetBytes());
  std::string help = Show({"--help"});
  for (size_t at = 0; (at = help.find("\n  ", at)) != std::string::npos;)  // lines that go on
    help.replace(at, help.find_first_not_of(' ', at + 1) - at, " ");
  EXPECT_THAT(help, HasSubstr("from 4 to 512 MiB; here " + FormatSize(limits.allBacklogBytes)));
  EXPECT_THAT(help,
              HasSubstr("eighth of the memory that the machine and the control group allow, from 4 to 256 MiB; here " +
                        FormatSize(limits.allRequestBytes)));
  EXPECT_THAT(help, HasSubstr("quarter of the memory, as for --all-requests, from 4 to 256 MiB; here " +
                              FormatSize(limits.storeBytes)));
}

TEST(MemoryShares, CheckTellsWhatTheyComeToHere) {
  const uint64_t memory = daemon::MemorySize().GetBytes();
  const Limits limits = daemon::ShareMemory(memory);
  EXPECT_THAT(Show({"--check"}),
              HasSubstr("bounds: --all-backlogs " + FormatSize(limits.allBacklogBytes) + ", --all-requests " +
                        FormatSize(limits.allRequestBytes) + ", --max-store " + FormatSize(limits.storeBytes) +
                        ", with " + FormatSize(memory) + " of memory\n"));
}

TEST(MemoryShares, OptionsAreTakenAsGiven) {
  EXPECT_THAT(Show({"--check", "--all-backlogs", "1048576", "--all-requests", "1073741824", "--max-store", "1572864"}),
              HasSubstr("bounds: --all-backlogs 1 MiB, --all-requests 1024 MiB, --max-store 1.5 MiB, with "));
}

}  // namespace tavix::test
