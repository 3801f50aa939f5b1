#include "tavix/osa/ConnectEndpoint.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <vector>

#include "tavix/osa/Time.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/FullListener.h"
#include "tests/support/NoMoreDescriptors.h"
#include "tests/support/OwnSockets.h"

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

// A connect that is under way is a descriptor of this process. (The system's table of connections is no witness: while
// others come and go, an entry may be missing from it or be there twice.)
std::ptrdiff_t CountDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
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
  const std::ptrdiff_t before = CountDescriptors();
  osa::ConnectResult result;
  BackgroundCall call([&] { result = Connect(ports, 100 * 1000); });
  EXPECT_TRUE(Eventually([&] { return CountDescriptors() >= before + 2; })) << "the second is tried as well";
  slow.MakeRoom();
  call.Join();
  osa::Descriptor connected(result.descriptor);
  ASSERT_TRUE(connected) << result.reason;
  EXPECT_EQ(FindConnectionsTo(slow.GetPort()), std::vector<int>{connected.Get()});
  connected.Reset();
  EXPECT_EQ(CountDescriptors(), before - FullListener::kFillers) << "the others are closed";
}

TEST(ConnectEndpoint, TheLastThatRefusesLeavesTheTimeToTheOthers) {
  FullListener slow;
  const ListeningSocket refusing(ListeningSocket::kNotListening);
  const std::ptrdiff_t before = CountDescriptors();
  osa::ConnectResult result;
  std::vector<unsigned short> ports(200, refusing.GetPort());
  ports.front() = slow.GetPort();
  BackgroundCall call([&] { result = Connect(ports, 100 * 1000); });
  EXPECT_TRUE(Eventually([&] { return CountDescriptors() > before; }));
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
