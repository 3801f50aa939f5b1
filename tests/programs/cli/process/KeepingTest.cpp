#include <optional>
#include <thread>

#include "tests/programs/cli/process/CommandTest.h"
#include "tests/programs/server/process/FileFaultsModule.h"
#include "tests/support/FileFaults.h"
#include "tests/support/ListeningSocket.h"

namespace tavix::test {

namespace {

constexpr char kDefaults[] =
    "[A]\nx=1\n[Logging/App]\nlog.level=3\n[Resources/R]\nTotalAvailable=10\n[Resources/R/Consumers/Me]\nMax=10\n";

struct Case {
  Words words;
  std::string verb;
  std::string count;  // behind "done"
};

// Each changes something, whatever those before it did.
std::vector<Case> AllChanges() {
  return {{{"set", "[B]y=1"}, "set", ": 1 setting"},
          {{"set", "[B]y=2", "--if", "[B]y=1"}, "set", ": 1 setting"},
          {{"unset", "[B]y"}, "unset", ": 1 setting unset"},
          {{"delete", "B"}, "deleted", ": 1 group deleted"},
          {{"edit", "A"}, "set", ""},
          {{"import"}, "imported", ": 1 difference"},
          {{"log-level", "Logging/App", "trace"}, "set", ": Logging/App 8 trace"},
          {{"resource", "reserve", "R", "2", "-c", "Me"}, "booked", ": Me has 2 of R"}};
}

// Until it ends so, or its peer is gone.
void AwaitRequest(const osa::Descriptor& peer, const std::string& end) {
  std::string received;
  for (std::string part; received.size() < end.size() || received.substr(received.size() - end.size()) != end;
       received += part) {
    part = ReceiveOnce(peer);
    if (part.empty()) return;
  }
}

// A command over a daemon of each kind.
class Keeping : public testing::Test {
 protected:
  Outcome Run(const Daemon& daemon, const Words& words) const { return Run(daemon.AwaitAddresses().front(), words); }

  Outcome Run(const std::string& address, Words words) const {
    words.insert(words.begin(), {TAVIX_CLI_PROGRAM, "-t", "80"});
    return RunToEnd(
        _directory.GetPath(), words, "[C]\nz=1\n",
        {{"TAVIX_SETTINGS_SERVER", address}, {"TMPDIR", _directory.GetPath()}, {"EDITOR", "sed -i s/x=1/x=2/"}});
  }

  const TemporaryDirectory _directory;
  const std::string _defaults = _directory.Write("defaults.ini", kDefaults);
};

}  // namespace

TEST_F(Keeping, ChangesOfADaemonThatKeepsNothingLastUntilItEnds) {
  const Daemon daemon(_directory, {"--defaults", _defaults});
  for (const Case& change : AllChanges()) {
    const Outcome outcome = Run(daemon, change.words);
    EXPECT_EQ(outcome.status, 0) << testing::PrintToString(change.words);
    EXPECT_EQ(outcome.errors, "done, until the server ends" + change.count + "\n");
  }
  EXPECT_EQ(Run(daemon, {"reset", "A"}).errors, "done, until the server ends: 1 group at its defaults\n");
  EXPECT_EQ(Run(daemon, {"set", "--volatile", "[B]y=1"}).errors, "done: 1 setting\n");
  EXPECT_EQ(Run(daemon, {"import"}).errors, "done: no differences\n");
}

TEST_F(Keeping, ChangesThatAFailingDiskCanNotKeepAreExitStatus9) {
  FileFaults faults(_directory.GetPath());
  std::optional<Daemon> daemon;
  {
    const FileFaults::Environment environment(faults, FileFaultsModule());
    const Words options{"--defaults", _defaults, "--user-settings", _directory.Path("user.ini")};
    daemon.emplace(_directory, options);
    daemon->AwaitAddresses();
  }
  EXPECT_EQ(Run(*daemon, {"set", "[D]x=1"}).errors, "done: 1 setting\n");
  faults.Fail(ENOSPC);
  for (const Case& change : AllChanges()) {
    const Outcome outcome = Run(*daemon, change.words);
    EXPECT_EQ(outcome.status, 9) << testing::PrintToString(change.words);
    EXPECT_THAT(outcome.errors, testing::MatchesRegex("tavix-settings: " + change.verb +
                                                      ", but not kept: Failed to .*: No space left on device\n"));
  }
  faults.Succeed();
  EXPECT_TRUE(Eventually([&] { return Run(*daemon, {"set", "[D]x=2"}).errors == "done: 1 setting\n"; }));
}

TEST_F(Keeping, OlderDaemonLeavesItOpen) {
  const ListeningSocket listener;
  std::thread server([&] {
    const osa::Descriptor peer = listener.Accept();
    AwaitRequest(peer, "get delimited\nB\n.\n");
    Send(peer, "data\n[B]\ny=1\n.\n");
    AwaitRequest(peer, "info server\nget delimited\n.\n");
    Send(peer, "data\n.\n");
  });
  EXPECT_EQ(Run("127.0.0.1:" + std::to_string(listener.GetPort()), {"set", "[B]y=1"}).errors, "done: 1 setting\n");
  server.join();
}

TEST_F(Keeping, DaemonThatDoesNotAnswerBehindAChangeIsAWarning) {
  for (const std::string answer : {"", "data\nno settings\n.\n"}) {
    const ListeningSocket listener;
    const std::string address = "127.0.0.1:" + std::to_string(listener.GetPort());
    std::thread server([&] {
      const osa::Descriptor peer = listener.Accept();
      AwaitRequest(peer, "get delimited\nB\n.\n");
      Send(peer, "data\n[B]\ny=1\n.\n");
      AwaitRequest(peer, "info server\nget delimited\n.\n");
      if (!answer.empty()) Send(peer, answer);
    });
    const Outcome outcome = Run(address, {"set", "[B]y=1"});
    EXPECT_EQ(outcome.status, 0) << answer;
    EXPECT_THAT(outcome.errors, testing::MatchesRegex("tavix-settings: it is unknown whether the change is kept: .+\n"
                                                      "done: 1 setting\n"));
    server.join();
  }
}

TEST_F(Keeping, FileKeepsChanges) {
  const Daemon daemon(_directory);
  EXPECT_EQ(Run(daemon, {"--local", "x.ini", "set", "[A]x=1"}).errors, "done: 1 setting\n");
}

}  // namespace tavix::test
