#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tavix/osa/Descriptor.h"
#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/UserFiles.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/Environment.h"

// The init script, as each of the shells runs it that devices have.

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr char kScript[] = TAVIX_SOURCE_DIR "/packaging/init.d/tavix-settings-server";

class InitScript : public testing::TestWithParam<std::string> {
 protected:
  ~InitScript() override { Run("stop"); }

  // Runs the script with that word, and returns its exit status; _output is what it printed.
  int Run(const std::string& word) {
    std::vector<std::string> arguments{kScript, word};
    std::string program = "/bin/sh";
    if (GetParam() == "busybox") {
      program = TAVIX_BUSYBOX_PROGRAM;
      arguments.insert(arguments.begin(), "sh");
    }
    DaemonProcess script(program, _directory.GetPath(), arguments);
    const int status = script.AwaitEnd();
    _output = script.GetOutput() + script.GetErrors();
    return status;
  }

  // Whether no process has the lock of that file, as when the one that had it is gone.
  bool IsUnlocked(const std::string& name) const {
    const osa::Descriptor lock(open(_directory.Path(name + ".lock").c_str(), O_RDWR | O_CLOEXEC));
    return flock(lock.Get(), LOCK_EX | LOCK_NB) == 0;
  }

  std::string Address() const { return "unix:" + _directory.Path("s.sock"); }
  pid_t DaemonId() const { return std::stoi(_directory.Read("own/server.pid")); }

  const TemporaryDirectory _directory;
  const ScopedEnvironment _program{"DAEMON", ServerProgram()};
  const ScopedEnvironment _arguments{"DAEMON_ARGS", "--listen unix:s.sock --user-settings user.ini"};
  const ScopedEnvironment _defaults{"DEFAULTS", "/dev/null"};  // not those of a daemon that this machine may have
  const ScopedEnvironment _ownPlace{"OWN_DIR", _directory.Path("own").c_str()};
  const ScopedEnvironment _runPlace{"RUN_DIR", _directory.Path("run").c_str()};
  const ScopedEnvironment _statePlace{"STATE_DIR", _directory.Path("state").c_str()};
  std::string _output;
};

INSTANTIATE_TEST_SUITE_P(OfEveryShell, InitScript, testing::Values("sh", "busybox"),
                         [](const auto& test) { return test.param; });

}  // namespace

TEST_P(InitScript, StartReturnsWhenTheDaemonServesAndStopWhenItHasEnded) {
  EXPECT_EQ(Run("status"), 3);
  EXPECT_EQ(Run("start"), 0);
  EXPECT_EQ(_output, "tavix-settings-server started\n");
  ProtocolClient client(Address());
  client.Send("merge\n[A]\nx=1\n.\n");
  client.AwaitHandled();
  EXPECT_EQ(Run("status"), 0);
  EXPECT_EQ(_output, "tavix-settings-server is running as process " + std::to_string(DaemonId()) + "\n");
  EXPECT_EQ(Run("start"), 0);
  EXPECT_EQ(_output, "tavix-settings-server is running already\n");
  EXPECT_EQ(Run("stop"), 0);
  EXPECT_EQ(client.ReadToEnd(), "");
  EXPECT_THAT(_directory.Read("user.ini"), HasSubstr("[A]\nx=1\n"));
  EXPECT_EQ(Run("status"), 3);
}

TEST_P(InitScript, RestartMakesANewDaemonAndReloadIsASigHup) {
  EXPECT_EQ(Run("start"), 0);
  const pid_t first = DaemonId();
  EXPECT_EQ(Run("restart"), 0);
  EXPECT_NE(DaemonId(), first);
  EXPECT_EQ(Run("reload"), 0);
  ProtocolClient(Address()).AwaitHandled();
  EXPECT_TRUE(Eventually([&] { return _directory.Read("own/server.err").find("SIGHUP: ") != std::string::npos; }));
}

TEST_P(InitScript, StartThatFailsSaysWhy) {
  const ScopedEnvironment wrong("DAEMON_ARGS", "--listen nowhere");
  EXPECT_EQ(Run("start"), 1);
  EXPECT_THAT(_output, StartsWith("tavix-settings-server did not start:\ntavix-settings-server: --listen 'nowhere': "));
}

TEST_P(InitScript, NumberThatACrashLeftIsNotTakenForTheDaemon) {
  EXPECT_EQ(Run("start"), 0);
  const pid_t crashed = DaemonId();
  kill(crashed, SIGKILL);
  EXPECT_TRUE(Eventually([&] { return IsUnlocked("s.sock") && IsUnlocked("user.ini"); })) << "it does not go";
  _directory.Write("own/server.pid", std::to_string(getpid()) + "\n");
  EXPECT_EQ(Run("status"), 3);
  EXPECT_EQ(Run("stop"), 0) << "and this process still lives";
  EXPECT_EQ(Run("start"), 0);
  ProtocolClient(Address()).AwaitHandled();
}

// The kernel knows the daemon by the first letters of its name, which are the command's whole one and a dash.
TEST_P(InitScript, CommandIsNotTakenForTheDaemon) {
  fs::copy_file("/bin/sh", _directory.Path("tavix-settings"));
  DaemonProcess command(
      _directory.Path("tavix-settings"), _directory.GetPath(),
      {"-c", "trap 'exit 0' TERM; echo tavix-settings-server: listening on nothing; while :; do sleep 0.05; done"});
  command.AwaitAddresses();
  fs::create_directory(_directory.Path("own"));
  _directory.Write("own/server.pid", std::to_string(command.GetId()) + "\n");
  EXPECT_EQ(Run("status"), 3);
  EXPECT_EQ(Run("stop"), 0);
  EXPECT_TRUE(fs::exists("/proc/" + std::to_string(command.GetId()) + "/exe")) << "it has ended";
}

TEST_P(InitScript, DaemonThatDoesNotEndIsKilledAndGoneWhenStopReturns) {
  const std::string stubborn = _directory.Write(
      "stubborn",
      "#!/bin/sh\ntrap '' TERM\necho tavix-settings-server: listening on nothing\nwhile :; do sleep 1; done\n");
  ASSERT_EQ(chmod(stubborn.c_str(), 0755), 0);
  const ScopedEnvironment program("DAEMON", stubborn.c_str());
  const ScopedEnvironment seconds("STOP_SECONDS", "5");  // for its end by the signal that it can't ignore, too
  EXPECT_EQ(Run("start"), 0);
  const std::string process = "/proc/" + std::to_string(DaemonId());
  EXPECT_EQ(Run("stop"), 0);
  EXPECT_EQ(_output, "tavix-settings-server does not end; it is killed\ntavix-settings-server stopped\n");
  EXPECT_FALSE(fs::exists(process + "/exe")) << "which a process that has ended has not";
  EXPECT_FALSE(_directory.Has("own/server.pid"));
}

TEST_P(InitScript, DaemonOfAnotherUserHasPlacesForItsSocketSettingsAndMetrics) {
  const ScopedEnvironment user("DAEMON_USER", getuid() == 0 ? "nobody" : getpwuid(getuid())->pw_name);
  const std::string words = "--listen unix:" + _directory.Path("run/s.sock") + " --user-settings " +
                            _directory.Path("state/user.ini") + " --metrics-file " +
                            _directory.Path("run/metrics/m.prom") + " --log-level warning";
  const ScopedEnvironment arguments("DAEMON_ARGS", words.c_str());
  ASSERT_EQ(chmod(_directory.GetPath().c_str(), 0755), 0);
  EXPECT_EQ(Run("start"), 0) << _output;
  ProtocolClient client("unix:" + _directory.Path("run/s.sock"));
  client.Send("merge\n[A]\nx=1\n.\n");
  client.AwaitHandled();
  EXPECT_TRUE(Eventually([&] { return _directory.Has("run/metrics/m.prom"); }));
  EXPECT_EQ(Run("restart"), 0) << _output;
  EXPECT_THAT(_directory.Read("own/server.err"), IsEmpty());
  EXPECT_THAT(_directory.Read("state/user.ini"), HasSubstr("[A]\nx=1\n"));
  struct stat own {};
  ASSERT_EQ(stat(_directory.Path("own").c_str(), &own), 0);
  EXPECT_EQ(own.st_uid, getuid());
}

TEST_P(InitScript, WordThatIsNoneEndsWithStatus2) {
  EXPECT_EQ(Run("begin"), 2);
  EXPECT_THAT(
      _output,
      MatchesRegex("Usage: .*/tavix-settings-server \\{start\\|stop\\|restart\\|reload\\|force-reload\\|status\\}\n"));
}

// The place of the user settings is there on a device, and may be missing here.
TEST(PackagedConfiguration, IsRight) {
  const TemporaryDirectory directory;
  const std::string file = TAVIX_SOURCE_DIR "/packaging/server.conf";
  DaemonProcess asItIs(ServerProgram(), directory.GetPath(), {"--check", "--config", file});
  asItIs.AwaitEnd();
  EXPECT_THAT(asItIs.GetOutput(), StartsWith("configuration: " + file + "\nuser settings: /var/lib/tavix-settings/"));
  DaemonProcess elsewhere(ServerProgram(), directory.GetPath(),
                          {"--check", "--config", file, "--user-settings", "user.ini"});
  EXPECT_EQ(elsewhere.AwaitEnd(), 0) << elsewhere.GetErrors();
}

}  // namespace tavix::test
