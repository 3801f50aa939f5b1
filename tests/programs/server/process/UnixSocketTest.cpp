#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "tests/programs/server/Daemon.h"

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::StartsWith;

constexpr uid_t kNobody = 65534;

class UnixSocket : public testing::Test {
 protected:
  std::vector<std::string> Arguments(std::vector<std::string> more = {}) const {
    more.insert(more.begin(), {"--listen", _address});
    return more;
  }

  // Runs the program to its end; returns what it wrote to standard error.
  std::string RunToEnd(int expectedStatus, const std::vector<std::string>& more = {}) const {
    DaemonProcess daemon(ServerProgram(), _directory.GetPath(), Arguments(more));
    EXPECT_EQ(daemon.AwaitEnd(), expectedStatus);
    return daemon.GetErrors();
  }

  std::string Refusal(const std::string& reason) const {
    return "tavix-settings-server: Can't listen on '" + _address + "': " + reason + "\n";
  }

  struct stat Look() const {
    struct stat status {};
    EXPECT_EQ(lstat(_path.c_str(), &status), 0);
    return status;
  }

  const TemporaryDirectory _directory;
  const std::string _path = _directory.Path("s.sock");
  const std::string _address = "unix:" + _path;
};

class Running : public DaemonProcess {
 public:
  Running(const TemporaryDirectory& directory, const std::vector<std::string>& arguments)
      : DaemonProcess(ServerProgram(), directory.GetPath(), arguments) {
    AwaitAddresses();
  }
};

// A stream socket bound to the path, as another program would make it.
osa::Descriptor BindTo(const std::string& path, bool listens) {
  osa::Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(bind(made.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  if (listens && listen(made.Get(), 1) != 0) ADD_FAILURE() << "listen failed";
  return made;
}

// The error of a connect by an ordinary user: by this process's, unless that is root, whom no permissions stop.
int ConnectErrorOfAUser(const std::string& path) {
  const pid_t child = fork();
  if (child == 0) {
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)) _exit(255);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int made = socket(AF_UNIX, SOCK_STREAM, 0);
    _exit(connect(made, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? 0 : errno);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WEXITSTATUS(status);
}

}  // namespace

TEST_F(UnixSocket, IsServedBesideTcp) {
  Running daemon(_directory, Arguments({"--listen", "127.0.0.1:0"}));
  const std::vector<std::string> addresses = daemon.AwaitAddresses(2);
  EXPECT_EQ(addresses[0], _address);
  ProtocolClient first(_address);
  first.Send("merge\n[A]\nx=1\n.\n");
  first.AwaitHandled();
  EXPECT_EQ(ProtocolClient(addresses[1]).Get("A\n"), "data\n[A]\nx=1\n.\n");
}

TEST_F(UnixSocket, ModeAndGroupAreAsAskedFor) {
  {
    Running daemon(_directory, Arguments());
    EXPECT_EQ(Look().st_mode & 07777, 0660u);
  }
  Running daemon(_directory, Arguments({"--unix-mode", "0604", "--unix-group", std::to_string(getegid())}));
  EXPECT_EQ(Look().st_mode & 07777, 0604u);
  EXPECT_EQ(Look().st_gid, getegid());
}

TEST_F(UnixSocket, FilePermissionsSayWhoGetsIn) {
  fs::permissions(_directory.GetPath(), fs::perms(0755));
  {
    Running daemon(_directory, Arguments({"--unix-mode", "0000"}));
    EXPECT_EQ(ConnectErrorOfAUser(_path), EACCES);
  }
  Running daemon(_directory, Arguments({"--unix-mode", "0666"}));
  EXPECT_EQ(ConnectErrorOfAUser(_path), 0);
}

TEST_F(UnixSocket, GroupThatDoesNotExistEndsWithStatus69AndLeavesNothing) {
  EXPECT_EQ(RunToEnd(69, {"--unix-group", "no such group"}), Refusal("there is no group 'no such group'"));
  EXPECT_FALSE(_directory.Has("s.sock"));
}

TEST_F(UnixSocket, OnlyTheUsersOfTheListAreServed) {
  const std::string own = std::to_string(geteuid());
  const std::string other = std::to_string(geteuid() + 1);
  {
    Running daemon(_directory, Arguments({"--allow-uid", other + "," + own}));
    ProtocolClient(_address).AwaitHandled();
  }
  Running daemon(_directory, Arguments({"--allow-uid", other}));
  EXPECT_EQ(ProtocolClient(_address).ReadToEnd(), "");
  daemon.AwaitErrors("WARNING Server: Connection refused: user " + own + " process " + std::to_string(getpid()) +
                     " is not allowed\n");
}

TEST_F(UnixSocket, ListOfUsersThatTcpCanNotObeyIsWarnedOf) {
  Running daemon(_directory, Arguments({"--allow-uid", "0", "--listen", "127.0.0.1:0"}));
  daemon.AwaitErrors("--allow-uid counts for unix sockets alone: 127.0.0.1:");
}

TEST_F(UnixSocket, PeersAreUserAndProcessInTheLog) {
  Running daemon(_directory, Arguments());
  ProtocolClient client(_address);
  client.Send("GET / HTTP/1.1\n");
  EXPECT_EQ(client.ReadToEnd(), "");
  daemon.AwaitErrors("user " + std::to_string(geteuid()) + " process " + std::to_string(getpid()) +
                     ": connection cut: HTTP is not our protocol");
}

TEST_F(UnixSocket, GoesWithTheDaemonAndNothingIsLeft) {
  Running daemon(_directory, Arguments());
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_TRUE(fs::is_empty(_directory.GetPath()));
}

TEST_F(UnixSocket, WhatACrashLeftIsReplaced) {
  {
    Running daemon(_directory, Arguments());
    EXPECT_EQ(daemon.Stop(SIGKILL), 128 + SIGKILL);
  }
  EXPECT_TRUE(S_ISSOCK(Look().st_mode));
  Running daemon(_directory, Arguments());
  ProtocolClient(_address).AwaitHandled();
}

TEST_F(UnixSocket, WhatAnotherProgramLeftIsReplaced) {
  BindTo(_path, true).Reset();
  Running daemon(_directory, Arguments());
  ProtocolClient(_address).AwaitHandled();
}

TEST_F(UnixSocket, SecondDaemonIsRefusedAndTheFirstOneServesOn) {
  Running first(_directory, Arguments());
  EXPECT_EQ(RunToEnd(69), Refusal("'" + _path + "' is in use by process " + std::to_string(first.GetId())));
  ProtocolClient(_address).AwaitHandled();
}

TEST_F(UnixSocket, SocketThatAnotherProgramServesIsLeftAlone) {
  const osa::Descriptor other = BindTo(_path, true);
  const std::string owner = "user " + std::to_string(geteuid()) + " process " + std::to_string(getpid());
  EXPECT_EQ(RunToEnd(69), Refusal("it is served by " + owner));
  EXPECT_TRUE(S_ISSOCK(Look().st_mode));
}

TEST_F(UnixSocket, WhatIsNoSocketIsLeftAlone) {
  _directory.Write("s.sock", "precious");
  EXPECT_EQ(RunToEnd(69), Refusal("something that is no socket stands there"));
  EXPECT_EQ(_directory.Read("s.sock"), "precious");
}

TEST_F(UnixSocket, WhatTookItsPlaceIsNotRemovedAtTheEnd) {
  Running daemon(_directory, Arguments());
  fs::remove(_path);
  _directory.Write("s.sock", "precious");
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(_directory.Read("s.sock"), "precious");
}

TEST_F(UnixSocket, MissingDirectoryEndsWithStatus69) {
  DaemonProcess daemon(ServerProgram(), _directory.GetPath(), {"--listen", "unix:gone/s.sock"});
  EXPECT_EQ(daemon.AwaitEnd(), 69);
  EXPECT_EQ(
      daemon.GetErrors(),
      "tavix-settings-server: Can't listen on 'unix:gone/s.sock': Failed to lock 'gone/s.sock.lock': No such file "
      "or directory\n");
}

TEST_F(UnixSocket, FloodOfConnectionsIsServed) {
  Running daemon(_directory, Arguments());
  for (int i = 0; i < 500; ++i) ProtocolClient(_address).AwaitHandled();
}

}  // namespace tavix::test
