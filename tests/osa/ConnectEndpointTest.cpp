#include "tavix/osa/ConnectEndpoint.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "tavix/osa/Time.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/FullListener.h"
#include "tests/support/NoMoreDescriptors.h"

namespace tavix::test {

namespace {

// The addresses of a host, as the resolver gives them: 127.0.0.1 with each of the ports.
class Addresses {
 public:
  explicit Addresses(const std::vector<unsigned short>& ports) : _sockets(ports.size()), _addresses(ports.size()) {
    for (size_t i = 0; i < ports.size(); ++i) {
      _sockets[i].sin_family = AF_INET;
      _sockets[i].sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      _sockets[i].sin_port = htons(ports[i]);
      _addresses[i].ai_family = AF_INET;
      _addresses[i].ai_socktype = SOCK_STREAM;
      _addresses[i].ai_addr = reinterpret_cast<sockaddr*>(&_sockets[i]);
      _addresses[i].ai_addrlen = sizeof _sockets[i];
      if (i > 0) _addresses[i - 1].ai_next = &_addresses[i];
    }
  }

  const addrinfo* Get() const { return _addresses.data(); }

 private:
  std::vector<sockaddr_in> _sockets;
  std::vector<addrinfo> _addresses;
};

// The connects to a port of 127.0.0.1 that are pending in the whole system.
size_t CountPendingConnects(unsigned short port) {
  char peer[32];
  std::snprintf(peer, sizeof peer, " %08X:%04X 02 ", static_cast<unsigned int>(htonl(INADDR_LOOPBACK)),
                static_cast<unsigned int>(port));
  size_t count = 0;
  std::ifstream sockets("/proc/net/tcp");
  for (std::string line; std::getline(sockets, line);) count += line.find(peer) != std::string::npos ? 1 : 0;
  return count;
}

osa::ConnectResult Connect(const std::vector<unsigned short>& ports, unsigned int timeout) {
  const Addresses addresses(ports);
  return osa::ConnectAddresses(addresses.Get(), osa::Deadline(timeout));
}

}  // namespace

TEST(ConnectEndpoint, AnAddressThatDoesNotAnswerLeavesTimeToTheNext) {
  const FullListener silent;
  const ListeningSocket listener;
  const osa::Descriptor connected(Connect({silent.GetPort(), listener.GetPort()}, 2000).descriptor);
  EXPECT_TRUE(connected);
  EXPECT_TRUE(listener.Accept());
}

// The share of each is half a second; the kernel asks the first one again after a second.
TEST(ConnectEndpoint, AnAddressMayAnswerAfterItsShare) {
  FullListener slow;
  const FullListener silent;
  std::vector<unsigned short> ports(200, silent.GetPort());
  ports.front() = slow.GetPort();
  const size_t before = CountPendingConnects(silent.GetPort());
  osa::ConnectResult result;
  BackgroundCall call([&] { result = Connect(ports, 100 * 1000); });
  EXPECT_TRUE(Eventually([&] { return CountPendingConnects(silent.GetPort()) > before; }));
  slow.MakeRoom();
  call.Join();
  const osa::Descriptor connected(result.descriptor);
  EXPECT_TRUE(connected) << result.reason;
  EXPECT_EQ(CountPendingConnects(silent.GetPort()), before) << "the others are closed";
}

TEST(ConnectEndpoint, TheLastThatRefusesLeavesTheTimeToTheOthers) {
  FullListener slow;
  const ListeningSocket refusing(ListeningSocket::kNotListening);
  const size_t before = CountPendingConnects(slow.GetPort());
  osa::ConnectResult result;
  std::vector<unsigned short> ports(200, refusing.GetPort());
  ports.front() = slow.GetPort();
  BackgroundCall call([&] { result = Connect(ports, 100 * 1000); });
  EXPECT_TRUE(Eventually([&] { return CountPendingConnects(slow.GetPort()) > before; }));
  slow.MakeRoom();
  call.Join();
  const osa::Descriptor connected(result.descriptor);
  EXPECT_TRUE(connected) << result.reason;
}

TEST(ConnectEndpoint, AnAddressThatRefusesIsNotTheLast) {
  const ListeningSocket refusing(ListeningSocket::kNotListening);
  const ListeningSocket listener;
  const osa::Descriptor connected(Connect({refusing.GetPort(), listener.GetPort()}, osa::kWaitForever).descriptor);
  EXPECT_TRUE(connected);
}

TEST(ConnectEndpoint, TheFailureIsThatOfTheLastAddress) {
  const FullListener silent;
  const ListeningSocket refusing(ListeningSocket::kNotListening);
  EXPECT_EQ(Connect({silent.GetPort(), refusing.GetPort()}, 100).error, ECONNREFUSED);
  EXPECT_EQ(Connect({refusing.GetPort(), silent.GetPort()}, 100).error, ETIMEDOUT);
  EXPECT_EQ(osa::ConnectAddresses(nullptr, osa::Deadline(0)).error, EHOSTUNREACH);
}

TEST(ConnectEndpoint, WithoutADescriptorThisSystemIsShort) {
  const ListeningSocket listener;
  const NoMoreDescriptors none;
  EXPECT_EQ(Connect({listener.GetPort()}, 1000).error, EMFILE);
  EXPECT_TRUE(osa::IsShortage(EMFILE));
  EXPECT_FALSE(osa::IsShortage(ECONNREFUSED));
  EXPECT_FALSE(osa::IsShortage(EADDRNOTAVAIL)) << "of IPv6, where there is none";
}

}  // namespace tavix::test
