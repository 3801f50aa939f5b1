#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <regex>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/process/FileFaultsModule.h"
#include "tests/support/FileFaults.h"

// What the log tells of a daemon's life, byte for byte but for the time in front of each line.

namespace tavix::test {

namespace {

using testing::HasSubstr;
using testing::Not;

// Without what no test can know.
std::string WithoutTimes(std::string log) {
  log = std::regex_replace(log, std::regex("(^|\n)[0-9]{4}-[0-9-]+T[0-9:.]+Z "), "$1");
  return std::regex_replace(log, std::regex("Ended after [0-9]+\\.[0-9]{3} s"), "Ended after T s");
}

std::string LineOf(const std::string& text) {
  return "NOTICE Program: " + text + "\n";
}

class LifeLog : public testing::Test {
 protected:
  // What the daemon logs at the default level from its start to its end.
  std::string RunAndRead(std::vector<std::string> arguments, bool sendsChange = false) {
    arguments.insert(arguments.end(), {"--log-level", "notice"});
    Daemon daemon(_directory, arguments);
    _id = std::to_string(daemon.GetId());
    _port = std::to_string(daemon.GetPort());
    if (sendsChange) CarryOut(daemon.GetPort(), "merge\n[A]\nx=1\n.\n");
    _status = daemon.Stop();
    return WithoutTimes(daemon.GetErrors());
  }

  std::string StartLine() const {
    return LineOf("tavix-settings-server " TAVIX_TEST_VERSION " starts, process " + _id + " of user " +
                  std::to_string(geteuid()));
  }

  std::string EndLines(const std::string& state) const {
    return LineOf("Ending: SIGTERM from process " + std::to_string(getpid()) + " of user " +
                  std::to_string(geteuid())) +
           LineOf("Ended after T s" + state);
  }

  const TemporaryDirectory _directory;
  std::string _id;
  std::string _port;
  int _status = -1;
};

}  // namespace

TEST_F(LifeLog, OfADaemonThatKeepsNothingSaysSo) {
  const std::string log = RunAndRead({});
  EXPECT_EQ(log, StartLine() +
                     LineOf("Nothing is kept: without --user-settings changes are gone when the daemon ends") +
                     LineOf("Serving 0 groups on 127.0.0.1:" + _port) + EndLines(""));
}

TEST_F(LifeLog, NamesTheFilesOfEachLayerAndWhereChangesAreKept) {
  _directory.Write("d.ini", "[A]\nx=1\n[B]\n");
  _directory.Write("r.ini", "[Secure/S]\nk=1\n");
  const std::string log = RunAndRead(
      {"--defaults", "d.ini", "--restricted", "r.ini", "--user-settings", "user.ini", "--durability", "250ms"}, true);
  EXPECT_EQ(log, StartLine() + LineOf("defaults: d.ini: 2 groups") +
                     LineOf("user settings: user.ini: absent, nothing loaded") + LineOf("restricted: r.ini: 1 group") +
                     LineOf("Changes are kept in 'user.ini', durability 250ms") +
                     LineOf("Serving 3 groups on 127.0.0.1:" + _port) + EndLines(", everything is saved"));
}

TEST_F(LifeLog, SaysWhenTheLastChangesAreNotSaved) {
  FileFaults faults(_directory.GetPath());
  const FileFaults::Environment environment(faults, FileFaultsModule());
  faults.Fail(ENOSPC);
  Daemon daemon(_directory, {"--user-settings", _directory.Path("user.ini"), "--log-level", "notice"});
  CarryOut(daemon.GetPort(), "merge\n[A]\nx=1\n.\n");
  EXPECT_EQ(daemon.Stop(), 74);
  EXPECT_THAT(WithoutTimes(daemon.GetErrors()), HasSubstr(LineOf("Ended after T s, the last changes are not saved")));
}

TEST_F(LifeLog, GoesToEveryTarget) {
  const std::string file = _directory.Path("d.log");
  const std::string errors = RunAndRead({"--log-file", file});
  EXPECT_EQ(WithoutTimes(_directory.Read("d.log")), errors);
  EXPECT_THAT(errors, HasSubstr(EndLines("")));
}

TEST_F(LifeLog, HasAStartThatFailedWhereStandardErrorIsNotRead) {
  const std::string file = _directory.Path("d.log");
  Daemon daemon(_directory, {"--listen", "192.0.2.1:7211", "--log-file", file, "--log-level", "notice"});
  EXPECT_EQ(daemon.AwaitEnd(), 69);
  const std::string reason = "Can't listen on '192.0.2.1:7211': it is not loopback, and --allow-remote was not given";
  EXPECT_THAT(daemon.GetErrors(), HasSubstr("tavix-settings-server: " + reason + "\n"));
  EXPECT_THAT(daemon.GetErrors(), Not(HasSubstr("ERROR")));
  EXPECT_THAT(_directory.Read("d.log"), HasSubstr("ERROR Program: " + reason + "\n"));
}

TEST_F(LifeLog, HasConnectionsAndChangesAtTheLevelInformationWithoutValues) {
  Daemon daemon(_directory, {"--log-level", "information", "--listen", "unix:s"});
  daemon.AwaitAddresses(2);
  const std::string peer =
      "INFO Connection: user " + std::to_string(geteuid()) + " process " + std::to_string(getpid()) + ": ";
  {
    ProtocolClient client("unix:" + _directory.Path("s"));
    client.Send("merge\n[A]\nx=1\ny=2\n[Secure/B]\nk=hidden\n.\ntest-and-merge\n[A]\nx=2\n.\n[A]\nx=3\n.\n");
    client.Send("test-and-merge\n[A]\nx=1\n.\n[A]\nx=3\n.\noverwrite\nA\nB*\n.\n[C]\nz=1\n.\nrestore\nC\n.\n");
    EXPECT_EQ(client.ReadUntil("ok\n"), "result\nfailure\nresult\nok\n");
    client.AwaitHandled();
  }
  daemon.AwaitErrors(peer + "disconnected\n");
  const std::string log = WithoutTimes(daemon.GetErrors());
  EXPECT_EQ(log.substr(log.find(peer)), peer + "connected\n" + peer + "merge: 1 group, 2 keys: A\n" + peer +
                                            "test-and-merge: 1 group, 1 key: A\n" + peer +
                                            "overwrite: 3 groups, 1 key: A, B*, C\n" + peer +
                                            "restore: 1 group, 0 keys: C\n" + peer + "disconnected\n");
}

TEST_F(LifeLog, HasValuesAtTheLevelTraceButForRestrictedOnes) {
  Daemon daemon(_directory, {"--log-level", "trace"});
  CarryOut(daemon.GetPort(), "merge\n[A]\nx=1\n[Secure/B]\nk=hidden\n.\n");
  daemon.AwaitErrors(": disconnected\n");
  EXPECT_THAT(daemon.GetErrors(), testing::ContainsRegex("TRACE Connection: 127.0.0.1:[0-9]+: merge: .A.x=1\n"));
  EXPECT_THAT(daemon.GetErrors(), Not(HasSubstr("hidden")));
}

TEST_F(LifeLog, HasNeitherConnectionsNorChangesAtTheDefaultLevel) {
  EXPECT_THAT(RunAndRead({}, true), Not(HasSubstr("Connection:")));
}

}  // namespace tavix::test
