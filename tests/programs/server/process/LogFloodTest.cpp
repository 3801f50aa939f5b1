#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

constexpr int kLines = 100'000;

// Different ones, which the log does not fold.
std::string BadLines(const std::string& word) {
  std::string lines;
  for (int i = 0; i < kLines; ++i) lines += word + std::to_string(i) + "\n";
  return lines;
}

}  // namespace

// However slow the machine is: 6,000 lines are those of an hour.
TEST(LogFlood, OfTwoClientsLeavesABoundedLogInWhichOthersAreSeen) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--listen", "unix:socket"});
  const std::string address = daemon.AwaitAddresses(2)[1];
  std::list<BackgroundCall> floods;
  for (const char* word : {"bad", "worse"}) {
    floods.emplace_back([&address, word] {
      ProtocolClient client(address);
      client.WaitForEver();
      client.Send(BadLines(word));
      client.AwaitHandled();
    });
  }
  for (BackgroundCall& flood : floods) flood.Join();
  ProtocolClient other("unix:" + directory.GetPath() + "/socket");
  other.Send("other\n");
  other.AwaitHandled();
  daemon.AwaitErrors("WARNING MsgDispatcher: Invalid command: other\n");
  EXPECT_EQ(daemon.Stop(), 0);
  const std::string errors = daemon.GetErrors();
  EXPECT_THAT(CountOf("\n", errors), testing::Lt(6000u));
  EXPECT_THAT(errors, testing::ContainsRegex("WARNING LogLimiter: 127.0.0.1: lines left out: [0-9]+, like: MsgDisp"));
}

TEST(LogFlood, LeavesOutNoLineUncounted) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  CarryOut(daemon.GetPort(), BadLines("bad"));
  EXPECT_EQ(daemon.Stop(), 0);
  const std::string errors = daemon.GetErrors();
  size_t count = CountOf("Invalid command: bad", errors) - CountOf("like: MsgDispatcher: Invalid command: bad", errors);
  const std::string beginning = "LogLimiter: 127.0.0.1: lines left out: ";
  for (size_t at = 0; (at = errors.find(beginning, at)) != std::string::npos; at += beginning.size())
    count += std::stoul(errors.substr(at + beginning.size()));
  EXPECT_EQ(count, static_cast<size_t>(kLines));
}

}  // namespace tavix::test
