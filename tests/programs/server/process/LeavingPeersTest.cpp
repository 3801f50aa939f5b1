#include <gtest/gtest.h>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ProcessFigures.h"

// Clients that ask for much and leave at once. Were their answers made all the same, these would be thousands of
// gigabytes, and what the tests await would come after hours.

namespace tavix::test {

namespace {

constexpr size_t kLeavers = 8;
constexpr size_t kGroups = 8;
constexpr size_t kGroupSize = 1'000'000;

// Of all groups, as many as the kernel takes while the daemon reads nothing.
std::string ManyQuestions() {
  std::string questions;
  while (questions.size() < 100'000) questions += "get\n*\n.\n";
  return questions;
}

std::string ChangeOf(size_t leaver) {
  return "merge\n[Left/" + std::to_string(leaver) + "]\nx=1\n.\n";
}

class LeavingPeers : public testing::Test {
 protected:
  LeavingPeers() : _bystander(GetTcpAddress()) {
    for (size_t i = 0; i < kGroups; ++i)
      _bystander.Send("merge\n[Large" + std::to_string(i) + "]\nk=" + std::string(kGroupSize, 'v') + "\n.\n");
    _bystander.Send("subscribe\nLeft/*\n.\n");
    _bystander.AwaitHandled();
    _descriptors = CountDescriptors(_daemon.GetId());
  }

  std::string GetTcpAddress() const { return _daemon.AwaitAddresses(2)[1]; }

  void AskAndLeave(const std::string& address) {
    for (size_t i = 0; i < kLeavers; ++i) {
      ProtocolClient client(address);
      client.Send(ManyQuestions() + ChangeOf(i));
      client.Close();
    }
  }

  // What they asked for before they left is done.
  void ExpectChangesOfAll() {
    for (size_t i = 0; i < kLeavers; ++i) EXPECT_EQ(_bystander.ReadUntil("x=1\n.\n").substr(0, 12), "async change");
    EXPECT_TRUE(Eventually([&] { return CountDescriptors(_daemon.GetId()) == _descriptors; }));
  }

  const TemporaryDirectory _directory;
  const std::string _path = "unix:" + _directory.Path("s.sock");
  Daemon _daemon{_directory, {"--listen", _path, "--backlog-timeout", "1000"}};
  ProtocolClient _bystander;
  size_t _descriptors = 0;
};

}  // namespace

TEST_F(LeavingPeers, GetNoAnswersOverTcpAndTheirChangesAreMade) {
  AskAndLeave(GetTcpAddress());
  ExpectChangesOfAll();
}

TEST_F(LeavingPeers, GetNoAnswersOverUnixSocketsAndTheirChangesAreMade) {
  AskAndLeave(_path);
  ExpectChangesOfAll();
}

TEST_F(LeavingPeers, ThatResetTheirConnectionsGetNoAnswers) {
  for (size_t i = 0; i < kLeavers; ++i) {
    ProtocolClient client(GetTcpAddress());
    client.Send(ManyQuestions() + ChangeOf(i));
    client.Read(1);
    client.Reset();
  }
  EXPECT_TRUE(Eventually([&] { return CountDescriptors(_daemon.GetId()) == _descriptors; }));
}

// They end their sending only.
TEST_F(LeavingPeers, ThatStillReadGetAllAnswers) {
  std::string questions;
  std::string answers;
  for (int i = 0; i < 1000; ++i) {
    questions += "get delimited\nA\n.\n";
    answers += "data\n.\n";
  }
  const std::string large = "data\n[Large0]\nk=" + std::string(kGroupSize, 'v') + "\n.\n";
  for (const std::string& address : {GetTcpAddress(), _path}) {
    ProtocolClient client(address);
    client.Send("get delimited\nLarge0\n.\n" + questions + "get delimited\nLarge0\n.\n");
    client.HalfClose();
    EXPECT_TRUE(client.ReadToEnd() == large + answers + large) << address;
  }
}

}  // namespace tavix::test
