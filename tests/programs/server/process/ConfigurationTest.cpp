#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/programs/server/Daemon.h"

// The configuration file, and who wins where the command line says something else.

namespace tavix::test {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class Configuration : public testing::Test {
 protected:
  // Runs the program with that configuration and --check; leaves what it wrote in _output and _errors.
  int Check(const std::string& configuration, std::vector<std::string> arguments = {}) {
    _directory.Write("server.conf", configuration);
    arguments.insert(arguments.begin(), {"--config", "server.conf", "--check"});
    DaemonProcess daemon(ServerProgram(), _directory.GetPath(), arguments);
    const int status = daemon.AwaitEnd();
    _output = WithoutBounds(daemon.GetOutput());
    _errors = daemon.GetErrors();
    return status;
  }

  const TemporaryDirectory _directory;
  std::string _output;
  std::string _errors;
};

}  // namespace

TEST_F(Configuration, KeysAreTheOptionsWithoutTheirDashesAndListsHaveCommas) {
  _directory.Write("a.ini", "[A]\nx=1\n");
  _directory.Write("b.ini", "[B]\nx=1\n");
  EXPECT_EQ(Check("# who we are\n[Server]\ndefaults = a.ini, b.ini\nuser-settings=u.ini\nallow-remote=off\nloops=2\n"),
            0);
  EXPECT_EQ(_errors, "");
  EXPECT_EQ(_output,
            "configuration: server.conf\ndefaults: a.ini: 1 group\ndefaults: b.ini: 1 group\n"
            "user settings: u.ini: absent, nothing loaded\nok: 2 groups\n");
}

TEST_F(Configuration, CommandLineReplacesWhatTheFileSaysOfTheSameOption) {
  _directory.Write("a.ini", "[A]\nx=1\n");
  _directory.Write("b.ini", "[B]\nx=1\n");
  EXPECT_EQ(Check("[Server]\ndefaults=a.ini\nuser-settings=u.ini\n", {"--defaults", "b.ini"}), 0);
  EXPECT_EQ(_output,
            "configuration: server.conf\ndefaults: b.ini: 1 group\nuser settings: u.ini: absent, nothing loaded\n"
            "ok: 1 group\n");
}

TEST_F(Configuration, AddressesOfTheFileAreServedUnlessTheCommandLineNamesOthers) {
  _directory.Write("server.conf", "[Server]\nlisten=127.0.0.1:0, unix:a.sock\n");
  {
    DaemonProcess daemon(ServerProgram(), _directory.GetPath(), {"--config", "server.conf"});
    EXPECT_THAT(daemon.AwaitAddresses(2), ElementsAre(StartsWith("127.0.0.1:"), "unix:a.sock"));
  }
  DaemonProcess daemon(ServerProgram(), _directory.GetPath(), {"--config", "server.conf", "--listen", "unix:b.sock"});
  daemon.AwaitAddresses();
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(daemon.GetOutput(), "tavix-settings-server: listening on unix:b.sock\n");
}

TEST_F(Configuration, FlagOfTheFileCanBeTakenBack) {
  EXPECT_EQ(Check("[Server]\nallow-remote=true\n"), 0);
  _directory.Write("server.conf", "[Server]\nallow-remote=true\nlisten=0.0.0.0:0\n");
  DaemonProcess daemon(ServerProgram(), _directory.GetPath(), {"--config", "server.conf", "--allow-remote=no"});
  EXPECT_EQ(daemon.AwaitEnd(), 69);
}

TEST_F(Configuration, WhatIsWrongIsNamedWithFileKeyAndValueAndEndsWithStatus78) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"[Server]\nlouds=8\n", "server.conf: unknown key 'louds' with value '8'"},
      {"[Server]\ncheck=true\n", "server.conf: unknown key 'check' with value 'true'"},
      {"[Server]\nconfig=other.conf\n", "server.conf: unknown key 'config' with value 'other.conf'"},
      {"[Server]\n--loops=2\n", "server.conf: unknown key '--loops' with value '2'"},
      {"[Server]\nloops=many\n", "server.conf: loops 'many': expected a number from 1 to 64"},
      {"[Server]\nallow-remote=\n", "server.conf: allow-remote '': expected true or false"},
      {"[Server]\nallow-remote=perhaps\n", "server.conf: allow-remote 'perhaps': expected true or false"},
      {"[Server]\nlisten=127.0.0.1:0,nowhere\n",
       "server.conf: listen 'nowhere': expected HOST:PORT, [V6]:PORT or unix:PATH"},
      {"[Server]\nlog-level=\\x1b\n",
       "server.conf: log-level '\\x1b': expected error, warning, notice, information or trace"},
      {"[server]\nloops=2\n", "server.conf: unknown group [server]; options stand in [Server]"},
      {"loops=2\n", "server.conf:1: expected \"[group]\" before the first \"key=value\", found \"loops=2\""},
      {"[Server]\nloops\n", "server.conf:2: expected \"[group]\" or \"key=value\", found \"loops\""},
  };
  for (const auto& [configuration, error] : cases) {
    EXPECT_EQ(Check(configuration), 78) << configuration;
    EXPECT_EQ(_errors, "tavix-settings-server: " + error + "\n");
    EXPECT_EQ(_output, "");
  }
}

TEST_F(Configuration, WrongValueCountsEvenWhenTheCommandLineReplacesIt) {
  EXPECT_EQ(Check("[Server]\nloops=many\n", {"--loops", "2"}), 78);
}

TEST_F(Configuration, FileThatWasGivenMustBeThereAndBeAFile) {
  const auto errorsOf = [&](const char* path) {
    DaemonProcess daemon(ServerProgram(), _directory.GetPath(), {"--config", path, "--check"});
    EXPECT_EQ(daemon.AwaitEnd(), 78);
    return daemon.GetErrors();
  };
  ASSERT_EQ(mkfifo(_directory.Path("pipe").c_str(), 0600), 0);
  EXPECT_THAT(errorsOf("gone.conf"),
              HasSubstr("Failed to open settings file 'gone.conf': No such file or directory\n"));
  EXPECT_THAT(errorsOf("pipe"), HasSubstr("Failed to open settings file 'pipe': not a regular file\n"));
  EXPECT_THAT(errorsOf("."), HasSubstr("Failed to open settings file '.': not a regular file\n"));
}

TEST_F(Configuration, NullDeviceIsAnEmptyFile) {
  DaemonProcess daemon(ServerProgram(), _directory.GetPath(), {"--config", "/dev/null", "--check"});
  EXPECT_EQ(daemon.AwaitEnd(), 0);
  EXPECT_EQ(daemon.GetErrors(), "");
}

TEST_F(Configuration, FileThatIsWrongDoesNotKeepTheHelpAway) {
  _directory.Write("server.conf", "nonsense");
  DaemonProcess daemon(ServerProgram(), _directory.GetPath(), {"--config", "server.conf", "--help"});
  EXPECT_EQ(daemon.AwaitEnd(), 0);
}

}  // namespace tavix::test
