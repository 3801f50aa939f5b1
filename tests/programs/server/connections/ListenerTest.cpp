#include "programs/server/connections/Listener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "programs/server/options/ListenAddress.h"
#include "tavix/osa/TcpSocket.h"
#include "tests/support/ListeningSocket.h"

namespace tavix::test {

using daemon::Listener;

namespace {

int Option(int descriptor, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  getsockopt(descriptor, level, option, &value, &size);
  return value;
}

std::vector<Listener> Listen(const std::string& address) {
  daemon::Options options;
  options.listen = {daemon::ParseListenAddress(address)};
  return Listener::OpenAll(options);
}

osa::Descriptor Accept(const Listener& listener) {
  pollfd waits{listener.GetDescriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&waits, 1, -1), 1);
  daemon::SocketAddress peer;
  return osa::Descriptor(listener.Accept(peer));
}

osa::Descriptor ConnectTo(unsigned short port) {
  osa::Descriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  EXPECT_EQ(connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return client;
}

// In a process of its own, to which the socket is passed as a service manager does. Accepts as many as it says.
bool AreAcceptedAndSetUp(const ListeningSocket& passed, int count) {
  constexpr int kFirstPassed = 3;
  if (dup2(passed.GetDescriptor(), kFirstPassed) != kFirstPassed) return false;
  setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
  setenv("LISTEN_FDS", "1", 1);
  const std::vector<Listener> listeners = Listener::OpenAll({});
  bool areSetUp = listeners.size() == 1;
  for (; areSetUp && count > 0; --count)
    areSetUp = Option(Accept(listeners.front()).Get(), IPPROTO_TCP, TCP_USER_TIMEOUT) == 120 * 1000;
  return areSetUp;
}

}  // namespace

// The kernel hands the listener's options down: setting each of them on each connection would cost more than a request.
TEST(Listener, ConnectionsAreSetUpAsTheyAreAccepted) {
  const std::vector<Listener> listeners = Listen("127.0.0.1:0");
  const std::string& address = listeners.front().GetAddress();
  osa::TcpSocket client(0);
  client.Connect("127.0.0.1", static_cast<unsigned short>(std::stoi(address.substr(address.rfind(':') + 1))), 200'000);
  const osa::Descriptor accepted = Accept(listeners.front());
  EXPECT_TRUE(fcntl(accepted.Get(), F_GETFD) & FD_CLOEXEC);
  EXPECT_EQ(Option(accepted.Get(), IPPROTO_TCP, TCP_NODELAY), 1);
  EXPECT_EQ(Option(accepted.Get(), SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(Option(accepted.Get(), IPPROTO_TCP, TCP_KEEPIDLE), 60);
  EXPECT_EQ(Option(accepted.Get(), IPPROTO_TCP, TCP_KEEPINTVL), 10);
  EXPECT_EQ(Option(accepted.Get(), IPPROTO_TCP, TCP_KEEPCNT), 6);
  EXPECT_EQ(Option(accepted.Get(), IPPROTO_TCP, TCP_USER_TIMEOUT), 120 * 1000);
}

// As when a client's connection has a service manager start the daemon.
TEST(Listener, ConnectionsThatCameBeforeTheDaemonAreSetUpToo) {
  const ListeningSocket passed;
  const osa::Descriptor first = ConnectTo(passed.GetPort());
  const osa::Descriptor second = ConnectTo(passed.GetPort());
  const pid_t child = fork();
  if (child == 0) _exit(AreAcceptedAndSetUp(passed, 2) ? 0 : 1);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace tavix::test
