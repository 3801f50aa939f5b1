#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/net.h>
#include <netinet/in.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/NotifySocket.h"
#include "tests/programs/server/UserFiles.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/Environment.h"
#include "tests/support/OwnLoopbackAddress.h"

// The real daemon as a service manager runs it: told of by datagrams, given sockets, watched.

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

class ServiceManager : public testing::Test {
 protected:
  const TemporaryDirectory _directory;
  NotifySocket _manager;
};

// With NOTIFY_SOCKET set for every process that the test starts.
class Notified : public ServiceManager {
 protected:
  const ScopedEnvironment _notify{"NOTIFY_SOCKET", _manager.GetPath().c_str()};
};

// With WATCHDOG_USEC set, too.
class Watched : public Notified {
 protected:
  static constexpr int kMilliseconds = 600;

  // Whether nothing is fed for longer than the service manager would wait.
  bool StopsFeeding() {
    return Eventually([&] {
      for (int waited = 0; waited < 2; ++waited) {
        if (_manager.ReceiveFor(kMilliseconds)) return false;
      }
      return true;
    });
  }

  const ScopedEnvironment _time{"WATCHDOG_USEC", "600000"};
};

// The program under systemd-socket-activate, which listens and starts it when the first client comes.
class Activated : public DaemonProcess {
 public:
  Activated(const TemporaryDirectory& directory, const std::string& listen, const NotifySocket& manager,
            const std::vector<std::string>& arguments = {})
      : DaemonProcess(TAVIX_ACTIVATE_PROGRAM, directory.GetPath(), Arguments(listen, manager, arguments)) {
    AwaitErrors("Listening on ");
  }

 private:
  static std::vector<std::string> Arguments(const std::string& listen, const NotifySocket& manager,
                                            const std::vector<std::string>& more) {
    std::vector<std::string> all{"--listen=" + listen, "--setenv=NOTIFY_SOCKET=" + manager.GetPath()};
    for (const char* variable : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
      if (getenv(variable)) all.push_back("--setenv=" + std::string(variable));
    }
    all.insert(all.end(),
               {ServerProgram(), "--config", "/dev/null", "--stop-timeout", std::to_string(kPatience.count() / 2)});
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }
};

// A socket that listens on every address, which programs inherit.
osa::Descriptor ListenEverywhere() {
  osa::Descriptor made(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(made.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(made.Get(), 16) != 0)
    throw std::runtime_error("listen");
  return made;
}

// The thread of the process that has that name.
pid_t FindThread(pid_t process, const std::string& name) {
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
    std::ifstream file(task.path() / "comm");
    std::string found;
    if (std::getline(file, found) && found == name) return std::stoi(task.path().filename().string());
  }
  throw std::runtime_error("There is no thread " + name);
}

// Whether a thread begins to send. That of a program of 32 bits has other numbers than this one, and glibc passes all
// of sockets through one call there.
bool IsSend(const __ptrace_syscall_info& info) {
  constexpr uint64_t kSendto = 369;
  constexpr uint64_t kSocketcall = 102;
  if (info.op != PTRACE_SYSCALL_INFO_ENTRY) return false;
  if (info.arch != AUDIT_ARCH_I386) return info.entry.nr == SYS_sendto;
  const uint64_t kind = info.entry.args[0];
  return info.entry.nr == kSendto || (info.entry.nr == kSocketcall && (kind == SYS_SEND || kind == SYS_SENDTO));
}

// Another process's thread that stands still when it sends, until it is let go.
class HeldThread {
 public:
  explicit HeldThread(pid_t thread) : _thread(thread) {
    Require(ptrace(PTRACE_SEIZE, _thread, nullptr, PTRACE_O_TRACESYSGOOD));
    Require(ptrace(PTRACE_INTERRUPT, _thread, nullptr, nullptr));
    AwaitStop();
  }

  ~HeldThread() {
    if (!_isLetGo) LetGo();
  }

  // Lets it run up to its next send, which is not carried out yet.
  void RunUpToSend() {
    __ptrace_syscall_info info{};
    do {
      Require(ptrace(PTRACE_SYSCALL, _thread, nullptr, nullptr));
      AwaitStop();
      Require(ptrace(PTRACE_GET_SYSCALL_INFO, _thread, sizeof info, &info));
    } while (!IsSend(info));
  }

  void LetGo() {
    _isLetGo = true;
    ptrace(PTRACE_DETACH, _thread, nullptr, nullptr);
  }

 private:
  static void Require(long result) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), "ptrace");
  }

  void AwaitStop() const {
    int status = 0;
    Require(waitpid(_thread, &status, __WALL));
    if (!WIFSTOPPED(status)) throw std::runtime_error("The thread has ended");
  }

  const pid_t _thread;
  bool _isLetGo = false;
};

}  // namespace

TEST_F(Notified, IsToldOfLoadingOfReadinessOfTheStatusAndOfTheEnd) {
  Daemon daemon(_directory);
  EXPECT_EQ(_manager.Await(""), "STATUS=Loading settings");
  EXPECT_EQ(_manager.Await(""), "READY=1\nSTATUS=Serving 0 clients on " + daemon.AwaitAddresses().front());
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(_manager.Await(""), "STOPPING=1\nSTATUS=Ending");
  EXPECT_EQ(_manager.ReceiveFor(0), std::nullopt);
}

TEST_F(Notified, DaemonThatIsReadyAnswers) {
  Daemon daemon(_directory, {"--listen", "unix:s.sock"});
  _manager.Await("READY=1");
  ProtocolClient("unix:" + _directory.Path("s.sock")).AwaitHandled();
}

// A client must not be refused because it comes while a large store is loaded.
TEST_F(Notified, ClientsThatComeWhileSettingsAreLoadedAreServedAfterwards) {
  std::string text;
  for (int i = 0; i < 100000; ++i) text += "[Group" + std::to_string(i) + "]\nkey=value\n";
  _directory.Write("large.ini", text);
  Daemon daemon(_directory, {"--defaults", "large.ini", "--listen", "unix:s.sock"});
  EXPECT_EQ(_manager.Await(""), "STATUS=Loading settings");
  ProtocolClient client("unix:" + _directory.Path("s.sock"));
  EXPECT_EQ(client.Get("Group99999\n"), "data\n[Group99999]\nkey=value\n.\n");
  EXPECT_THAT(_manager.Await(""), StartsWith("READY=1\n"));
}

TEST_F(Notified, FailedStartIsNeverReady) {
  _directory.Write("d.ini", "nonsense\n");
  Daemon daemon(_directory, {"--defaults", "d.ini"});
  EXPECT_EQ(daemon.AwaitEnd(), 78);
  EXPECT_EQ(_manager.Await(""), "STATUS=Loading settings");
  EXPECT_EQ(_manager.ReceiveFor(0), std::nullopt);
}

TEST_F(Notified, CheckTellsNothing) {
  Daemon daemon(_directory, {"--check"});
  EXPECT_EQ(daemon.AwaitEnd(), 0);
  EXPECT_EQ(_manager.ReceiveFor(0), std::nullopt);
}

TEST_F(Notified, ReloadIsToldFromItsBeginningToItsEnd) {
  Daemon daemon(_directory);
  _manager.Await("READY=1");
  daemon.Signal(SIGHUP);
  EXPECT_THAT(_manager.Await(""), MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+"));
  EXPECT_THAT(_manager.Await(""), StartsWith("READY=1\nSTATUS=Serving 0 clients on "));
}

TEST_F(Notified, WithoutAWatchdogTimeNothingIsFed) {
  const ScopedEnvironment otherProcess("WATCHDOG_PID", "1");
  const ScopedEnvironment time("WATCHDOG_USEC", "1000");
  Daemon daemon(_directory);
  _manager.Await("READY=1");
  EXPECT_EQ(_manager.ReceiveFor(100), std::nullopt);
}

TEST(ServiceManagerThatIsGone, DoesNotKeepTheDaemonFromServing) {
  const TemporaryDirectory directory;
  for (const char* socket : {"", "/gone/notify", "@tavix-nobody-listens", "relative", "/", "@"}) {
    const ScopedEnvironment notify("NOTIFY_SOCKET", socket);
    const ScopedEnvironment watchdog("WATCHDOG_USEC", "many");
    Daemon daemon(directory);
    ProtocolClient(daemon.GetPort()).AwaitHandled();
  }
}

TEST_F(Notified, ShortestWatchdogTimeIsKept) {
  const ScopedEnvironment watchdog("WATCHDOG_USEC", "1");
  Daemon daemon(_directory);
  for (int i = 0; i < 100; ++i) _manager.Await("WATCHDOG=1");
  ProtocolClient(daemon.GetPort()).AwaitHandled();
}

TEST_F(Notified, EndlessWatchdogTimeIsNoReasonToSpin) {
  const std::string longest = "9223372036854775807";
  for (const std::string& time : {longest, std::string("18446744073709551615"), std::string("-1"), std::string()}) {
    const ScopedEnvironment watchdog("WATCHDOG_USEC", time.c_str());
    Daemon daemon(_directory);
    _manager.Await("READY=1");
    if (time == longest) _manager.Await("WATCHDOG=1");  // the others are none
    EXPECT_EQ(_manager.ReceiveFor(100), std::nullopt) << time;
    EXPECT_EQ(daemon.Stop(), 0);
    while (_manager.ReceiveFor(0)) continue;
  }
}

TEST_F(Watched, FeedsWhileTheStoreCanBeHadAndSaysHowManyClientsThereAre) {
  Daemon daemon(_directory);
  _manager.Await("READY=1");
  for (int i = 0; i < 5; ++i) EXPECT_THAT(_manager.Await(""), StartsWith("WATCHDOG=1\nSTATUS=Serving 0 clients on "));
  ProtocolClient client(daemon.GetPort());
  _manager.Await("WATCHDOG=1\nSTATUS=Serving 1 client on 127.0.0.1:");
}

// The thread that announces a change stands still, with the gate and the dispatcher locked.
TEST_F(Watched, StopsFeedingWhileTheStoreIsHeldAndGoesOnAfterwards) {
  Daemon daemon(_directory, {"--loops", "1"});
  ProtocolClient subscriber(daemon.GetPort());
  subscriber.Send("subscribe\nA\n.\n");
  subscriber.AwaitHandled();
  _manager.Await("WATCHDOG=1");
  ProtocolClient writer(daemon.GetPort());
  writer.AwaitHandled();
  HeldThread loop(FindThread(daemon.GetId(), "EventLoop"));
  writer.Send("merge nopersist\n[A]\nx=1\n.\n");
  loop.RunUpToSend();
  EXPECT_TRUE(StopsFeeding());
  loop.LetGo();
  _manager.Await("WATCHDOG=1");
  EXPECT_EQ(subscriber.ReadUntil("x=1\n.\n"), "async change\nA\n.\n[A]\nx=1\n.\n");
}

// It holds nothing, so that the store can be had, and its clients wait for ever.
TEST_F(Watched, StopsFeedingWhileAnEventLoopStandsStillAndGoesOnAfterwards) {
  Daemon daemon(_directory, {"--loops", "1"});
  ProtocolClient(daemon.GetPort()).AwaitHandled();
  _manager.Await("WATCHDOG=1");
  HeldThread loop(FindThread(daemon.GetId(), "EventLoop"));
  EXPECT_TRUE(StopsFeeding());
  loop.LetGo();
  _manager.Await("WATCHDOG=1");
  ProtocolClient(daemon.GetPort()).AwaitHandled();
}

TEST_F(ServiceManager, PassesAUnixSocketAndTheFirstClientStartsTheDaemon) {
  const std::string path = _directory.Path("s.sock");
  Activated daemon(_directory, path, _manager, {"--user-settings", "user.ini"});
  ProtocolClient client("unix:" + path);
  client.Send("merge\n[A]\nx=1\n.\n");
  client.AwaitHandled();
  EXPECT_THAT(_manager.Await("READY=1"), HasSubstr("clients on unix:" + path));
  EXPECT_EQ(daemon.AwaitAddresses(), std::vector<std::string>{"unix:" + path});
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_TRUE(_directory.Has("s.sock")) << "it is the service manager's";
  EXPECT_THAT(_directory.Read("user.ini"), HasSubstr("[A]\nx=1\n"));
}

TEST_F(ServiceManager, PassesATcpSocketThatIsServedInsteadOfTheUsualAddress) {
  const std::string address = OwnLoopbackAddress() + ":7299";
  Activated daemon(_directory, address, _manager, {"--listen", "127.0.0.1:1"});
  ProtocolClient(address).AwaitHandled();
  EXPECT_EQ(daemon.AwaitAddresses(), std::vector<std::string>{address});
}

TEST_F(ServiceManager, PassedSocketThatIsNotLoopbackNeedsToBeAllowed) {
  const osa::Descriptor remote = ListenEverywhere();
  const std::string number = std::to_string(remote.Get());  // of any length, which not every shell takes
  const auto run = [&](const std::string& options) {
    return std::vector<std::string>{
        "-c",
        "LISTEN_FDS=1 LISTEN_PID=$$ exec \"$0\" --config /dev/null --log-level warning " + options + " 3<&" + number,
        ServerProgram()};
  };
  DaemonProcess refused("/bin/bash", _directory.GetPath(), run(""));
  EXPECT_EQ(refused.AwaitEnd(), 69);
  EXPECT_THAT(refused.GetErrors(), MatchesRegex("tavix-settings-server: Can't listen on '0\\.0\\.0\\.0:[0-9]+': it is "
                                                "not loopback, and --allow-remote was not given\n"));
  DaemonProcess daemon("/bin/bash", _directory.GetPath(), run("--allow-remote"));
  ProtocolClient(daemon.GetPort()).AwaitHandled();
}

TEST_F(ServiceManager, SocketsOfAnotherProcessAreNotTaken) {
  const ScopedEnvironment process("LISTEN_PID", "1");
  const ScopedEnvironment count("LISTEN_FDS", "1");
  Daemon daemon(_directory);
  ProtocolClient(daemon.GetPort()).AwaitHandled();
}

TEST_F(ServiceManager, PassedDescriptorThatIsNoListeningSocketEndsWithStatus69) {
  DaemonProcess daemon(
      "/bin/sh", _directory.GetPath(),
      {"-c", "LISTEN_FDS=1 LISTEN_PID=$$ exec \"$0\" --config /dev/null --log-level warning 3</dev/null",
       ServerProgram()});
  EXPECT_EQ(daemon.AwaitEnd(), 69);
  EXPECT_EQ(daemon.GetErrors(),
            "tavix-settings-server: Descriptor 3, which the service manager passed, is no listening stream socket\n");
}

TEST(Journal, LinesBeginWithTheirLevelWhenStandardErrorIsTheJournal) {
  const TemporaryDirectory directory;
  DaemonProcess daemon("/bin/sh", directory.GetPath(),
                       {"-c", "JOURNAL_STREAM=$(stat -L -c %d:%i /proc/self/fd/2) exec \"$0\" \"$@\"", ServerProgram(),
                        "--config", "/dev/null", "--listen", "127.0.0.1:0"});
  Converse(daemon.GetPort(), "bogus\n");
  daemon.AwaitErrors("<4>MsgDispatcher: Invalid command: bogus\n");
  daemon.Signal(SIGHUP);
  daemon.AwaitErrors("<5>Upkeep: SIGHUP: the log options were read again;");
  Converse(daemon.GetPort(), "again\n");
  daemon.AwaitErrors("<4>MsgDispatcher: Invalid command: again\n");
}

TEST(Journal, FailedStartIsAnErrorInTheJournal) {
  const TemporaryDirectory directory;
  DaemonProcess daemon("/bin/sh", directory.GetPath(),
                       {"-c", "JOURNAL_STREAM=$(stat -L -c %d:%i /proc/self/fd/2) exec \"$0\" \"$@\"", ServerProgram(),
                        "--config", "/dev/null", "--defaults", "gone.ini", "--listen", "127.0.0.1:0"});
  EXPECT_EQ(daemon.AwaitEnd(), 78);
  EXPECT_THAT(daemon.GetErrors(), HasSubstr("\n<3>tavix-settings-server: Failed to open settings file 'gone.ini'"));
}

TEST(Journal, LinesAreAsUsualWhenStandardErrorIsSomethingElse) {
  const TemporaryDirectory directory;
  const ScopedEnvironment journal("JOURNAL_STREAM", "8:1234");
  Daemon daemon(directory);
  Converse(daemon.GetPort(), "bogus\n");
  daemon.AwaitErrors("WARNING MsgDispatcher: Invalid command: bogus\n");
  EXPECT_THAT(daemon.GetErrors(), Not(HasSubstr("<4>")));
}

}  // namespace tavix::test
