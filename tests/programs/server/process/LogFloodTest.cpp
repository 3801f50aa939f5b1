#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <sstream>
#include <string>

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

// What follows "beginning" in the line, as a number; 0 where it does not stand there.
size_t NumberBehind(const std::string& beginning, const std::string& line) {
  const size_t at = line.find(beginning);
  return at == std::string::npos ? 0 : std::stoul(line.substr(at + beginning.size()));
}

// How many bad lines the log holds or reports as left out. Reports that are the same twice in a row are folded.
size_t CountBadLines(const std::string& log) {
  std::istringstream lines(log);
  size_t count = 0;
  size_t last = 0;
  for (std::string line; std::getline(lines, line);) {
    const size_t repeats = NumberBehind("last message repeated ", line);
    const size_t leftOut = NumberBehind("LogLimiter: 127.0.0.1: lines left out: ", line);
    const bool isBad = line.find("WARNING MsgDispatcher: Invalid command: bad") != std::string::npos;
    if (repeats == 0) last = leftOut > 0 ? leftOut : isBad ? 1 : 0;
    count += repeats > 0 ? repeats * last : last;
  }
  return count;
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
  EXPECT_EQ(CountBadLines(daemon.GetErrors()), static_cast<size_t>(kLines));
}

}  // namespace tavix::test
