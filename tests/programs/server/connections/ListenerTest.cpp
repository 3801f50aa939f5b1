#include "programs/server/connections/Listener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "programs/server/options/ListenAddress.h"
#include "tavix/osa/TcpSocket.h"

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
  return osa::Descriptor(listener.Accept());
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

}  // namespace tavix::test
