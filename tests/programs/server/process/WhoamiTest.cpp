#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/programs/server/Daemon.h"

// What the daemon reports to a client about the client itself.

namespace tavix::test {

namespace {

using testing::HasSubstr;
using testing::Not;

class Whoami : public testing::Test {
 protected:
  static std::string Ask(ProtocolClient& client) {
    client.Send("info whoami\n");
    return client.ReadUntil("\n\n");
  }

  const TemporaryDirectory _directory;
  const std::string _address = "unix:" + _directory.Path("s.sock");
  DaemonProcess _daemon{ServerProgram(), _directory.GetPath(), {"--listen", _address, "--listen", "127.0.0.1:0"}};
  const std::vector<std::string> _addresses = _daemon.AwaitAddresses(2);
};

}  // namespace

TEST_F(Whoami, OverAUnixSocketIsUserGroupAndProcess) {
  ProtocolClient client(_address);
  const std::string text = Ask(client);
  EXPECT_THAT(text, testing::StartsWith("Whoami\n------\nconnection=unix\ngroup=" + std::to_string(getegid()) + "\n"));
  EXPECT_THAT(text, testing::EndsWith("\nprocess=" + std::to_string(getpid()) + "\nuser=" + std::to_string(geteuid()) +
                                      "\n\n"));
}

TEST_F(Whoami, OverTcpIsNobody) {
  ProtocolClient client(_addresses[1]);
  EXPECT_EQ(Ask(client), "Whoami\n------\nconnection=tcp\nuser=nobody\n\n");
}

TEST_F(Whoami, IsOfEachConnectionItsOwn) {
  ProtocolClient first(_address);
  ProtocolClient second(_addresses[1]);
  EXPECT_THAT(Ask(second), Not(HasSubstr("process=")));
  EXPECT_THAT(Ask(first), HasSubstr("process="));
}

}  // namespace tavix::test
