#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <list>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

// Runs the call as often, each time on a thread of its own, and passes on what one of them throws.
void RunAtOnce(int count, const std::function<void(int)>& call) {
  std::list<BackgroundCall> calls;
  for (int i = 0; i < count; ++i) calls.emplace_back([&call, i] { call(i); });
  for (BackgroundCall& one : calls) one.Join();
}

int ValueIn(const std::string& reply) {
  return std::stoi(reply.substr(reply.find('=') + 1));
}

// Adds one to the counter, whatever others do meanwhile.
void Increment(ProtocolClient& client) {
  std::string outcome;
  while (outcome != "ok\n") {
    const int value = ValueIn(client.Get("Counter\n"));
    client.Send("test-and-merge\n[Counter]\nn=" + std::to_string(value) +
                "\n.\n[Counter]\nn=" + std::to_string(value + 1) + "\n.\n");
    ASSERT_EQ(client.ReadLine(), "result\n");
    outcome = client.ReadLine();
    ASSERT_THAT(outcome, testing::AnyOf("ok\n", "failure\n"));
  }
}

std::string Pair(int writer, int value) {
  const std::string text = std::to_string(value);
  return "[Pair" + std::to_string(writer) + "]\na=" + text + "\nb=" + text + "\n";
}

}  // namespace

TEST(Load, CounterThatEightConnectionsIncrementLosesNothing) {
  const TemporaryDirectory directory;
  const std::vector<std::string> arguments{"--user-settings", directory.Write("user.ini", "[Counter]\nn=0\n"),
                                           "--durability", "none"};
  {
    Daemon daemon(directory, arguments);
    const unsigned short port = daemon.GetPort();
    RunAtOnce(8, [&](int) {
      ProtocolClient client(port);
      for (int i = 0; i < 60; ++i) Increment(client);
    });
    EXPECT_EQ(ProtocolClient(port).Get("Counter\n"), "data\n[Counter]\nn=480\n.\n");
  }
  Daemon restarted(directory, arguments);
  EXPECT_EQ(ProtocolClient(restarted.GetPort()).Get("Counter\n"), "data\n[Counter]\nn=480\n.\n");
}

TEST(Load, ReadersSeeEveryChangeWholeAndWritersTheirOwn) {
  constexpr int kRounds = 1000;
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  const unsigned short port = daemon.GetPort();
  for (int writer = 0; writer < 4; ++writer) Converse(port, "merge\n" + Pair(writer, 0) + ".\n");
  RunAtOnce(8, [&](int number) {
    ProtocolClient client(port);
    const int writer = number / 2;
    const bool writes = number % 2 == 0;
    for (int round = 1; round <= kRounds; ++round) {
      if (writes) client.Send("merge\n" + Pair(writer, round) + ".\n");
      const std::string reply = client.Get("Pair" + std::to_string(writer) + "\n");
      ASSERT_EQ(reply, "data\n" + Pair(writer, writes ? round : ValueIn(reply)) + ".\n");
    }
  });
  for (int writer = 0; writer < 4; ++writer)
    EXPECT_EQ(Converse(port, "get\nPair" + std::to_string(writer) + "\n.\n"), Pair(writer, kRounds));
}

TEST(Load, SubscriberGetsEveryNoticeOfEveryWriterWholeAndInOrder) {
  constexpr int kRounds = 500;
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  const unsigned short port = daemon.GetPort();
  ProtocolClient subscriber(port);
  subscriber.Send("subscribe\nPair*\n.\n");
  subscriber.AwaitHandled();
  BackgroundCall writers([&] {
    RunAtOnce(4, [&](int writer) {
      std::string requests;
      for (int round = 1; round <= kRounds; ++round) requests += "merge\n" + Pair(writer, round) + ".\n";
      CarryOut(port, requests);
    });
  });
  int last[4] = {0, 0, 0, 0};
  for (int i = 0; i < 4 * kRounds; ++i) {
    const std::string header = subscriber.ReadUntil(".\n");
    const int writer = header.at(header.find("Pair") + 4) - '0';
    ++last[writer];
    ASSERT_EQ(header + subscriber.ReadUntil("\n.\n"),
              "async change\nPair" + std::to_string(writer) + "\n.\n" + Pair(writer, last[writer]) + ".\n");
  }
  writers.Join();
  EXPECT_THAT(last, testing::Each(kRounds));
}

}  // namespace tavix::test
