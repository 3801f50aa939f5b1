#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "tests/programs/server/Daemon.h"

// Changes on trial, as clients of a daemon have them.

namespace tavix::test {

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

constexpr char kEnd[] = "\n.\n";

class Trials : public testing::Test {
 protected:
  Trials() { Start(); }

  void Start(std::vector<std::string> options = {}) {
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

  static std::string Get(ProtocolClient& client, const std::string& group) {
    return Ask(client, "get delimited\n" + group + "\n.\n");
  }

  static std::string AskWhyRefused(ProtocolClient& client) { return Ask(client, "info refused\n", "\n\n"); }

  static void Set(ProtocolClient& client, const std::string& settings) {
    client.Send("merge\n" + settings + ".\n");
    Get(client, "None");
  }

  static void Subscribe(ProtocolClient& client, const std::string& group) {
    client.Send("subscribe\n" + group + "\n.\n");
    Get(client, "None");
  }

  // Returns when the group has been announced with that text.
  static void AwaitNotice(ProtocolClient& client, const std::string& text) {
    while (client.ReadUntil(".\n").find(text) == std::string::npos) continue;
  }

  const TemporaryDirectory _directory;
  const std::string _address = "unix:" + _directory.Path("s.sock");
  const std::string _file = _directory.Path("user.ini");
  std::unique_ptr<DaemonProcess> _daemon;
  std::vector<std::string> _addresses;
};

}  // namespace

TEST_F(Trials, AreAFeatureOfADaemonThatKeepsUserSettings) {
  ProtocolClient client(_address);
  EXPECT_THAT(Ask(client, "info features\n", "\n\n"), HasSubstr("\ntrial\n"));
}

TEST_F(Trials, ShowWhatGoesBackAndWhen) {
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n");
  client.Send("note site 4\ntry 3600 t-1\nmerge\n[A]\nx=2\ny=2\n.\n");
  const std::string by =
      "by=unix " + std::to_string(geteuid()) + " " + std::to_string(getegid()) + " " + std::to_string(getpid()) + "\n";
  EXPECT_THAT(Ask(client, "trial t-1\n"),
              MatchesRegex("data\n\\[t-1\\]\n" + by +
                           "is \\[A\\]x=2\nis \\[A\\]y=2\nnote=site 4\nseconds=[0-9]+\nstate=pending\n"
                           "was \\[A\\]x=1\n\\.\n"));
  EXPECT_EQ(Ask(client, "trial none\n", "'none'\n"), "refused\nno trial is named 'none'\n");
}

TEST_F(Trials, GoBackInTimeAndAreAnnounced) {
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n");
  ProtocolClient watcher(_address);
  Subscribe(watcher, "A");
  client.Send("try 1 t\nmerge\n[A]\nx=2\n.\n");
  AwaitNotice(watcher, "x=1\n");
  EXPECT_THAT(Ask(client, "trial t\n"), HasSubstr("state=reverted\n"));
}

TEST_F(Trials, GoBackInTimeWhenTheirClientIsGone) {
  ProtocolClient watcher(_address);
  {
    ProtocolClient client(_address);
    Set(client, "[A]\nx=1\n");
    Subscribe(watcher, "A");
    client.Send("try 1 t\nmerge\n[A]\nx=2\n.\n");
    Get(client, "A");
  }
  AwaitNotice(watcher, "x=1\n");
  EXPECT_THAT(Ask(watcher, "trial t\n"), HasSubstr("state=reverted\n"));
}

TEST_F(Trials, AreConfirmedAndRevertedOnAnyConnection) {
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n");
  client.Send("try 3600 one\nmerge\n[A]\nx=2\n.\ntry 3600 two\nmerge\n[B]\nx=2\n.\n");
  Get(client, "A");
  ProtocolClient other(_address);
  EXPECT_THAT(Ask(other, "confirm one\n"), HasSubstr("state=confirmed\n"));
  EXPECT_THAT(Ask(other, "revert two\n"), HasSubstr("state=reverted\n"));
  EXPECT_EQ(Ask(other, "confirm two\n", "reverted\n"), "refused\ntrial 'two' is not pending: it was reverted\n");
  EXPECT_THAT(Ask(other, "trial\n"), testing::AllOf(HasSubstr("[one]\n"), HasSubstr("[two]\n")));
  EXPECT_EQ(Get(client, "*"), "data\n[A]\nx=2\n.\n");
}

TEST_F(Trials, OfAUserAreNobodyElsesOverTcp) {
  ProtocolClient client(_address);
  client.Send("try 3600 mine\nmerge\n[A]\nx=2\n.\n");
  Get(client, "A");
  ProtocolClient other(_addresses[1]);
  const std::string refusal = "refused\ntrial 'mine' belongs to user " + std::to_string(geteuid()) + "\n";
  EXPECT_EQ(Ask(other, "confirm mine\n", "\n"), refusal.substr(0, 8));
  EXPECT_EQ(other.ReadUntil("\n"), refusal.substr(8));
  other.Send("try 3600 nobodys\nmerge\n[B]\nx=2\n.\n");
  Get(other, "B");
  EXPECT_THAT(Ask(client, "confirm nobodys\n"), HasSubstr("state=confirmed\n"));
}

TEST_F(Trials, ThatCanNotBeArmedLeaveTheChangeUndone) {
  ProtocolClient client(_address);
  client.Send("try 0 t\nmerge\n[A]\nx=2\n.\n");
  EXPECT_EQ(Get(client, "A"), "data\n.\n");
  EXPECT_THAT(AskWhyRefused(client), HasSubstr("reason=trial: '0 t' is no try: "));
  Set(client, "[A]\nx=3\n");
  EXPECT_EQ(Get(client, "A"), "data\n[A]\nx=3\n.\n");
  EXPECT_EQ(AskWhyRefused(client), "Refused\n-------\n\n");
}

TEST_F(Trials, BeyondTheBoundLeaveTheChangeUndone) {
  _daemon.reset();
  Start({"--trials", "1"});
  ProtocolClient client(_address);
  client.Send("try 3600 one\nmerge\n[A]\nx=2\n.\ntry 3600 two\ntest-and-merge\n.\n[A]\nx=3\n.\n");
  EXPECT_EQ(client.ReadUntil("failure\n"), "result\nfailure\n");
  EXPECT_THAT(AskWhyRefused(client), HasSubstr("reason=trial: 1 trials are pending already\n"));
  EXPECT_EQ(Get(client, "A"), "data\n[A]\nx=2\n.\n");
}

TEST_F(Trials, AreUsedUpByAChangeThatFails) {
  ProtocolClient client(_address);
  client.Send("try 3600 t\ntest-and-merge\n[A]\nx=9\n.\n[A]\nx=2\n.\nmerge\n[A]\nx=3\n.\n");
  client.ReadUntil("failure\n");
  EXPECT_EQ(Ask(client, "trial\n"), "data\n.\n");
  client.Send("try 3600 t\nmerge nopersist\n[A]\nx=4\n.\nmerge\n[A]\nx=5\n.\n");
  EXPECT_EQ(Ask(client, "trial\n"), "data\n.\n");
}

TEST_F(Trials, GoWithTheirOwnConnectionsChangeAlone) {
  ProtocolClient client(_address);
  ProtocolClient other(_address);
  client.Send("try 3600 t\n");
  Get(client, "A");
  Set(other, "[A]\nx=2\n");
  EXPECT_EQ(Ask(client, "trial\n"), "data\n.\n");
}

TEST_F(Trials, AreNoMatterForARevert) {
  ProtocolClient client(_address);
  client.Send("try 3600 one\nmerge\n[A]\nx=2\n.\ntry 3600 two\n");
  EXPECT_EQ(Ask(client, "revert one\n", "trial\n"), "refused\na revert can't be put on trial\n");
  EXPECT_THAT(Ask(client, "revert one\n"), HasSubstr("state=reverted\n"));
}

TEST_F(Trials, GoBackWhenTheDaemonEnds) {
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n");
  client.Send("try 3600 t\nmerge\n[A]\nx=2\n.\n");
  Get(client, "A");
  EXPECT_EQ(_daemon->Stop(), 0);
  Start();
  ProtocolClient next(_address);
  EXPECT_EQ(Get(next, "A"), "data\n[A]\nx=1\n.\n");
}

TEST_F(Trials, GoBackBeforeAnybodyIsServedWhenTheDaemonWasKilled) {
  ProtocolClient client(_address);
  Set(client, "[A]\nx=1\n");
  client.Send("try 3600 t\nmerge\n[A]\nx=2\n.\n");
  Get(client, "A");
  Kill();
  Start();
  ProtocolClient next(_address);
  EXPECT_EQ(Get(next, "A"), "data\n[A]\nx=1\n.\n");
  EXPECT_THAT(Ask(next, "trial t\n"), HasSubstr("state=reverted\n"));
  EXPECT_EQ(Ask(next, "confirm t\n", "reverted\n"), "refused\ntrial 't' is not pending: it was reverted\n");
}

TEST_F(Trials, ThatAreConfirmedOutliveAKill) {
  ProtocolClient client(_address);
  client.Send("try 3600 t\nmerge\n[A]\nx=2\n.\n");
  EXPECT_THAT(Ask(client, "confirm t\n"), HasSubstr("state=confirmed\n"));
  Kill();
  Start();
  ProtocolClient next(_address);
  EXPECT_EQ(Get(next, "A"), "data\n[A]\nx=2\n.\n");
}

TEST_F(Trials, GoBackAlsoWhenTheNextDaemonTriesNothing) {
  ProtocolClient client(_address);
  client.Send("try 3600 t\nmerge\n[A]\nx=2\n.\n");
  Get(client, "A");
  Kill();
  Start({"--trials", "0"});
  ProtocolClient next(_address);
  EXPECT_EQ(Get(next, "A"), "data\n.\n");
  EXPECT_EQ(Ask(next, "info features\n", "\n\n").find("trial"), std::string::npos);
}

}  // namespace tavix::test
