#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <list>
#include <memory>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/Durations.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/RunLength.h"

namespace tavix::test {

namespace {

constexpr size_t kMegabyte = 1024 * 1024;

// A daemon with a group, and a client that is to be served whatever others do.
class Flood : public testing::Test {
 protected:
  void Start(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--defaults", _directory.Write("d.ini", _group)});
    _daemon = std::make_unique<Daemon>(_directory, arguments);
    _port = _daemon->GetPort();
    _bystander = std::make_unique<ProtocolClient>(_port);
    ExpectBystanderIsServed();
    _memory = ResidentMemory(_daemon->GetId());
  }

  void ExpectBystanderIsServed() { ASSERT_EQ(_bystander->Get("A\n"), "data\n" + _group + ".\n"); }

  // A thousand requests of the bystander and one of a newcomer.
  Durations MeasureOthers() {
    EXPECT_EQ(Converse(_port, "get\nA\n.\n"), _group);
    Durations durations;
    for (int i = 0; i < 1000; ++i) durations.Measure([this] { ExpectBystanderIsServed(); });
    return durations;
  }

  // How much more memory the daemon ever had than before the flood.
  size_t MostMemory() const { return PeakResidentGrowth(_daemon->GetId(), _memory); }

  // Sends the part again and again until the daemon has enough of it, or "most" bytes are sent; returns how many were.
  size_t SendUntilCut(const std::string& begin, const std::string& part, size_t most) {
    ProtocolClient client(_port);
    size_t sent = 0;
    for (bool lives = client.TrySend(begin); lives && sent < most; sent += part.size()) lives = client.TrySend(part);
    EXPECT_EQ(client.ReadToEnd(), "");
    ExpectBystanderIsServed();
    return sent;
  }

  const std::string _group = "[A]\nv=" + std::string(250, 'v') + "\n";
  const TemporaryDirectory _directory;
  std::unique_ptr<Daemon> _daemon;
  unsigned short _port = 0;
  std::unique_ptr<ProtocolClient> _bystander;
  size_t _memory = 0;
};

}  // namespace

TEST_F(Flood, OneLineOfAGigabyteIsCutAtTheBoundOfALine) {
  Start({});
  EXPECT_LT(SendUntilCut("", std::string(kMegabyte, 'x'), 1024 * kMegabyte), 64 * kMegabyte);
  EXPECT_LT(SendUntilCut("merge\n[A]\nv=", std::string(kMegabyte, 'x'), 1024 * kMegabyte), 64 * kMegabyte);
  EXPECT_EQ(CountOf("connection cut: line too long, bytes 1", _daemon->GetErrors()), 2u) << _daemon->GetErrors();
  EXPECT_LT(MostMemory(), 4 * 16 * kMegabyte);  // a line, and the memory that it moves to as it grows
}

TEST_F(Flood, RequestOfAGigabyteIsCutAtTheBoundOfARequest) {
  Start({"--request-timeout", "1000"});
  std::string lines;
  while (lines.size() < kMegabyte) lines += "key" + std::to_string(lines.size()) + "=value\n";
  EXPECT_LT(SendUntilCut("merge\n[A]\n", lines, 1024 * kMegabyte), 128 * kMegabyte);
  EXPECT_EQ(CountOf("connection cut: request too long, bytes 67", _daemon->GetErrors()), 1u) << _daemon->GetErrors();
  EXPECT_LT(MostMemory(), 160 * kMegabyte);
}

TEST_F(Flood, PhpArrayThatIsAsLongAsItSaysIsCutAtTheBoundOfARequest) {
  Start({"--max-request", "4194304"});
  std::string groups;
  while (groups.size() < kMegabyte) groups += "s:1:\"A\";a:0:{}";
  const std::string begin = "serialize phparray\nmerge\na:4294967295:{";
  EXPECT_LT(SendUntilCut(begin, groups, 1024 * kMegabyte), 64 * kMegabyte);
  EXPECT_LT(SendUntilCut(begin + "s:4294967295:\"", std::string(kMegabyte, 'x'), 1024 * kMegabyte), 64 * kMegabyte);
  EXPECT_LT(SendUntilCut("serialize phparray\nmerge\n", std::string(kMegabyte, ' '), 1024 * kMegabyte), 64 * kMegabyte);
  EXPECT_EQ(CountOf("connection cut: request too long, bytes 4", _daemon->GetErrors()), 3u) << _daemon->GetErrors();
  EXPECT_LT(MostMemory(), 48 * kMegabyte);  // one may still be on its way out when the next comes
}

// Each sends a byte from time to time of a request that never ends. The log does not name all of one peer.
TEST_F(Flood, FiveHundredTricklingConnectionsAreCutAndOthersServed) {
  Start({"--request-timeout", IsLongRun() ? "20" : "2"});
  const Durations before = MeasureOthers();
  _daemon->AwaitIdle();
  const size_t descriptors = CountDescriptors(_daemon->GetId());
  std::list<ProtocolClient> clients;
  while (clients.size() < 500) {
    clients.emplace_back(_port);
    clients.back().Send(clients.size() % 2 ? "merge\n[A]\nx=" : "get");
  }
  Durations during;
  size_t rounds = 0;
  do {
    for (ProtocolClient& client : clients) client.TrySend("x");
    for (int i = 0; i < 10; ++i) during.Measure([this] { ExpectBystanderIsServed(); });
    ++rounds;
    EXPECT_EQ(_bystander->ReadFor(IsLongRun() ? 1000 : 50), "");  // nobody sends it anything
  } while (CountDescriptors(_daemon->GetId()) > descriptors);
  // Some may not have been accepted yet: only their ends prove that all were cut.
  for (ProtocolClient& client : clients) EXPECT_EQ(client.ReadToEnd(), "");
  EXPECT_GE(CountOf("connection cut: unfinished request, bytes ", _daemon->GetErrors()), 10u);
  std::printf("%zu bytes each; a get of another: p50 %.3f and p99 %.3f ms, before %.3f and %.3f ms\n", rounds,
              during.Quantile(0.5), during.Quantile(0.99), before.Quantile(0.5), before.Quantile(0.99));
  if (IsLongRun()) {
    EXPECT_GE(rounds, 2u);
  }
  EXPECT_LT(MostMemory(), 16 * kMegabyte);
}

// Nothing more is read from one that reads nothing; once it does, it gets every reply.
TEST_F(Flood, RequestsWithoutEndWhoseRepliesNobodyReadsArePaused) {
  Start({});
  const size_t count = IsLongRun() ? 1'000'000 : 100'000;
  std::string requests;
  for (size_t i = 0; i < count; ++i) requests += "get\nA\n.\n";
  ProtocolClient client(_port);
  client.WaitForEver();
  BackgroundCall flood([&] { client.TrySend(requests); });
  const Durations others = MeasureOthers();
  _daemon->AwaitIdle();
  std::printf("a get of another meanwhile: p50 %.3f and p99 %.3f ms\n", others.Quantile(0.5), others.Quantile(0.99));
  EXPECT_LT(MostMemory(), 8 * kMegabyte);

  for (size_t i = 0; i < count; ++i) ASSERT_EQ(client.Read(_group.size()), _group);
  flood.Join();
  ExpectBystanderIsServed();
}

}  // namespace tavix::test
