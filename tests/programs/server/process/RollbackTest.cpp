#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"

// The way back to earlier settings, as clients of a daemon have it.

namespace tavix::test {

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kEnd[] = "\n.\n";

class Rollbacks : public testing::Test {
 protected:
  Rollbacks() { Start({"--history", "1048576"}); }

  void Start(std::vector<std::string> options) {
    options.insert(options.end(), {"--listen", _address, "--listen", "127.0.0.1:0", "--user-settings", _file,
                                   "--stop-timeout", std::to_string(kPatience.count() / 2)});
    _daemon = std::make_unique<DaemonProcess>(ServerProgram(), _directory.GetPath(), options);
    _addresses = _daemon->AwaitAddresses(2);
  }

  void Kill() { EXPECT_EQ(_daemon->Stop(SIGKILL), 128 + SIGKILL); }

  static std::string Ask(ProtocolClient& client, const std::string& request, const std::string& end = kEnd) {
    client.Send(request);
    return client.ReadUntil(end);
  }

  // Of a request that is refused.
  static std::string AskInVain(ProtocolClient& client, const std::string& request) {
    return Ask(client, request + "get delimited\n.\n");
  }

  // The names, and the values.
  static std::string ReadNotice(ProtocolClient& client) {
    const std::string names = client.ReadUntil(kEnd);
    return names + client.ReadUntil(kEnd);
  }

  static std::string GetAll(ProtocolClient& client) { return Ask(client, "get delimited\n*\n.\n"); }

  static void Set(ProtocolClient& client, const std::string& settings) {
    client.Send("merge\n" + settings + ".\n");
    Ask(client, "get delimited\n.\n");
  }

  const TemporaryDirectory _directory;
  const std::string _address = "unix:" + _directory.Path("s.sock");
  const std::string _file = _directory.Path("user.ini");
  std::unique_ptr<DaemonProcess> _daemon;
  std::vector<std::string> _addresses;
};

}  // namespace

TEST_F(Rollbacks, AreAFeatureOfADaemonWithAHistory) {
  ProtocolClient client(_address);
  EXPECT_THAT(Ask(client, "info features\n", "\n\n"), HasSubstr("\nrollback\n"));
  _daemon.reset();
  Start({"--history", "0"});
  ProtocolClient other(_address);
  EXPECT_THAT(Ask(other, "info features\n", "\n\n"), Not(HasSubstr("rollback")));
  EXPECT_EQ(AskInVain(other, "rollback 0\n"), "data\n.\n");  // an unknown command
}

TEST_F(Rollbacks, NameWhoMadeThem) {
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n");
  const std::string by = "\nby=unix " + std::to_string(geteuid()) + " " + std::to_string(getegid()) + " " +
                         std::to_string(getpid()) + "\n";
  EXPECT_THAT(Ask(client, "test-rollback 0\n"), AllOf(StartsWith("data\n[0000000002]\nby="), HasSubstr(by)));
  EXPECT_THAT(Ask(client, "rollback 0\n"), AllOf(StartsWith("data\n[0000000002]\nby="), HasSubstr(by)));
  ProtocolClient other(_addresses[1]);
  EXPECT_THAT(Ask(other, "rollback 1\n"), HasSubstr("\nby=tcp - - -\ncommand=rollback\nis [A]x=1\n"));
}

TEST_F(Rollbacks, ReportToWatchersWhatTheySeeOtherwise) {
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n[B]\nx=1\n");
  Set(client, "[A]\nx=2\n");
  ProtocolClient watcher(_address);
  watcher.Send("subscribe\n*\n.\n");
  Ask(watcher, "get delimited\n.\n");
  Ask(client, "rollback 1\n");
  const std::string notice = ReadNotice(watcher);
  EXPECT_THAT(notice, HasSubstr("[A]\nx=1\n"));
  EXPECT_THAT(notice, Not(HasSubstr("B")));
}

TEST_F(Rollbacks, GoBackBehindARestartAndAKill) {
  {
    ProtocolClient client(_address);
    for (const char* value : {"1", "2", "3"}) Set(client, std::string("[A]\nx=") + value + "\n");
    Ask(client, "checkpoint good\n");
    Set(client, "[A]\nx=4\n");
  }
  EXPECT_EQ(_daemon->Stop(), 0);
  Start({"--history", "1048576"});
  {
    ProtocolClient client(_address);
    EXPECT_THAT(Ask(client, "rollback 2\n"), HasSubstr("\nis [A]x=2\n"));
    EXPECT_EQ(GetAll(client), "data\n[A]\nx=2\n.\n");
  }
  Kill();
  Start({"--history", "1048576"});
  ProtocolClient client(_address);
  EXPECT_EQ(GetAll(client), "data\n[A]\nx=2\n.\n");
  EXPECT_THAT(Ask(client, "rollback 1\n"), StartsWith("data\n[0000000006]\n"));
  EXPECT_EQ(GetAll(client), "data\n[A]\nx=1\n.\n");
  Ask(client, "rollback @good\n");
  EXPECT_EQ(GetAll(client), "data\n[A]\nx=3\n.\n");
}

TEST_F(Rollbacks, CanBePutOnTrial) {
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n");
  Set(client, "[A]\nx=2\n[B]\ny=2\n");
  EXPECT_THAT(Ask(client, "note back\ntry 3600 t\nrollback 1\n"), HasSubstr("\nnote=back\n"));
  EXPECT_EQ(GetAll(client), "data\n[A]\nx=1\n.\n");
  EXPECT_THAT(Ask(client, "trial t\n"), AllOf(HasSubstr("\nstate=pending\n"), HasSubstr("\nwas [B]y=2\n")));
  EXPECT_THAT(Ask(client, "revert t\n"), HasSubstr("state=reverted\n"));
  EXPECT_EQ(GetAll(client), "data\n[A]\nx=2\n[B]\ny=2\n.\n");
}

TEST_F(Rollbacks, OnTrialGoBackInTime) {
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n");
  ProtocolClient watcher(_address);
  watcher.Send("subscribe\nA\n.\n");
  Ask(watcher, "get delimited\n.\n");
  Ask(client, "try 1 t\nrollback 0\n");
  while (watcher.ReadUntil(".\n").find("x=1\n") == std::string::npos) continue;
  EXPECT_EQ(GetAll(client), "data\n[A]\nx=1\n.\n");
}

TEST_F(Rollbacks, ThatCanNotBePutOnTrialAreNotMade) {
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n");
  EXPECT_EQ(AskInVain(client, "try 0 t\nrollback 0\n"),
            "refused\n'0 t' is no try: seconds from 1 to 3600, and a name of 1 to 64 of A-Z a-z 0-9 . _ -\ndata\n.\n");
  EXPECT_EQ(GetAll(client), "data\n[A]\nx=1\n.\n");
}

TEST_F(Rollbacks, AreMadeThoughTheirClientLeaves) {
  ProtocolClient watcher(_address);
  Set(watcher, "[A]\nx=1\n");
  Set(watcher, "[A]\nx=2\n");
  watcher.Send("subscribe\nA\n.\n");
  Ask(watcher, "get delimited\n.\n");
  {
    ProtocolClient client(_address);
    client.Send("test-rollback 0\nrollback 1\n");
  }
  EXPECT_THAT(ReadNotice(watcher), HasSubstr("x=1\n"));
}

// Each goes to one of two states, and between them there is no other.
TEST_F(Rollbacks, OfSeveralClientsAtOnceAreMadeWhole) {
  constexpr int kRollbacks = 30;
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n[B]\nx=1\n");
  Set(client, "[A]\nx=2\n[B]\nx=2\n[C]\nx=2\n");
  std::vector<std::unique_ptr<BackgroundCall>> calls;
  for (const char* revision : {"1", "2"}) {
    calls.push_back(std::make_unique<BackgroundCall>([this, revision] {
      ProtocolClient own(_address);
      for (int i = 0; i < kRollbacks; ++i)
        EXPECT_THAT(Ask(own, std::string("rollback ") + revision + "\n"), StartsWith("data\n"));
    }));
  }
  while (!calls[0]->HasEnded() || !calls[1]->HasEnded())
    ASSERT_THAT(GetAll(client),
                testing::AnyOf("data\n[A]\nx=1\n[B]\nx=1\n.\n", "data\n[A]\nx=2\n[B]\nx=2\n[C]\nx=2\n.\n"));
  for (const auto& call : calls) call->Join();
}

TEST_F(Rollbacks, AreRefusedWithAReason) {
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n");
  EXPECT_EQ(AskInVain(client, "rollback 7\n"), "refused\nrevision 7 is not there: the last is 1\ndata\n.\n");
  EXPECT_EQ(AskInVain(client, "rollback @good\n"), "refused\nno checkpoint is named 'good'\ndata\n.\n");
  _daemon.reset();
  Start({"--history", "1048576", "--checkpoints", "0"});
  ProtocolClient other(_address);
  EXPECT_EQ(AskInVain(other, "rollback @good\n"), "refused\nno checkpoint is named 'good'\ndata\n.\n");
}

TEST_F(Rollbacks, AreRefusedWhereADaemonWithoutAHistoryMadeChanges) {
  {
    ProtocolClient client(_address);
    Set(client, "[A]\nx=1\n");
  }
  EXPECT_EQ(_daemon->Stop(), 0);
  Start({});
  {
    ProtocolClient client(_address);
    Set(client, "[A]\nx=2\n");
  }
  EXPECT_EQ(_daemon->Stop(), 0);
  Start({"--history", "1048576"});
  ProtocolClient client(_address);
  Set(client, "[A]\nx=3\n");
  EXPECT_THAT(
      AskInVain(client, "rollback 1\n"),
      testing::MatchesRegex("refused\nrevision 1 is not kept: the oldest is [23], as changes up to that one are "
                            "missing from the history\ndata\n\\.\n"));
  EXPECT_EQ(GetAll(client), "data\n[A]\nx=3\n.\n");
}

TEST_F(Rollbacks, AreRefusedByAFullStore) {
  _daemon.reset();
  Start({"--history", "1048576", "--max-store", "600000"});
  ProtocolClient client(_address);
  const std::string half(200 * 1000, 'x');
  Set(client, "[A]\nx=" + half + "\n");
  client.Send("overwrite\nA\n.\n[B]\nx=" + half + "\n.\n");
  Set(client, "[C]\nx=1\n");
  EXPECT_THAT(AskInVain(client, "rollback 1 A\n"), StartsWith("refused\nthe store holds about "));
  EXPECT_THAT(Ask(client, "rollback 1\n"), StartsWith("data\n"));
}

}  // namespace tavix::test
