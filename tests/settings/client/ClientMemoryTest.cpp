#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "tavix/settings/client/KeptByServer.h"
#include "tavix/settings/client/TavixSettingsTcpConnection.h"
#include "tests/support/Environment.h"
#include "tests/support/LogOf.h"
#include "tests/support/RefusedAllocation.h"
#include "tests/support/ScriptedServer.h"

// Clients of a process whose memory runs out at any moment.

namespace tavix::test {

using settings::client::AskServerForKeeping;
using settings::client::Keeping;
using settings::client::TavixSettingsTcpConnection;

namespace {

Keeping AskWithout(long allocation) {
  const RefusedAllocation refused(allocation);
  return AskServerForKeeping();
}

// The lines that are required of an attempt that fails, and of the call.
long CountLines(const std::vector<std::string>& messages) {
  return std::count_if(messages.begin(), messages.end(), [](const std::string& message) {
    return message == "WARNING TavixSettingsConnection: Failed to connect to tavix-settings-server" ||
           message == "INFO TavixSettingsConnection: Retrying connection";
  });
}

}  // namespace

TEST(ClientMemory, ThatRunsOutLeavesItUnknownWhetherChangesAreKept) {
  const ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t) {
    peer.ReadThrough();
    peer.Send("Server\n------\nkept=true\n\ndata\n.\n");
    peer.ReadToEnd();
  });
  EXPECT_EQ(AskWithout(0), Keeping::kUnknown);
  Keeping last = Keeping::kUnknown;
  for (long allocation = 1; RefusedAllocation::WasRefused(); ++allocation) {
    last = AskWithout(allocation);
    EXPECT_NE(last, Keeping::kNotKept) << allocation;
  }
  // The question has a limit, and a machine may stand still for longer.
  EXPECT_TRUE(last == Keeping::kKept || Eventually([] { return AskServerForKeeping() == Keeping::kKept; }));
}

// The log may lose the line that the allocation was for, and then shows the two beside it as one.
TEST(ClientMemory, ThatRunsOutTakesNoLineOfAFailureToConnect) {
  const ScopedEnvironment variable("TAVIX_SETTINGS_SERVER", "unix:/nowhere/server");
  long allocation = 0;
  do {
    TavixSettingsTcpConnection connection;
    const auto messages = LogOf([&] {
      const RefusedAllocation refused(allocation);
      try {
        connection.EnsureConnection(1);
      } catch (const std::exception&) {
      }
    });
    EXPECT_GE(CountLines(messages), 1) << allocation;
  } while (RefusedAllocation::WasRefused() && ++allocation > 0);
  EXPECT_GT(allocation, 1);
}

}  // namespace tavix::test
