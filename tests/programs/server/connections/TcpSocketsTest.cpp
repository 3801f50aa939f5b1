#include "programs/server/connections/TcpSockets.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <deque>

#include "programs/server/system/SocketName.h"
#include "tavix/osa/Exception.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/OwnLoopbackAddress.h"

namespace tavix::test {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::ThrowsMessage;

constexpr char kNowhere[] = "203.0.113.1";  // of RFC 5737, for documents alone

// What a name server or a hosts file may answer.
class Answer {
 public:
  explicit Answer(const std::vector<std::string>& addresses, in_port_t port = 0) {
    for (const std::string& address : addresses) Add(address, port);
  }

  const addrinfo* Get() const { return &_entries.front(); }

 private:
  void Add(const std::string& address, in_port_t port) {
    sockaddr_in& made = _addresses.emplace_back();
    made.sin_family = AF_INET;
    made.sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &made.sin_addr);
    addrinfo entry{};
    entry.ai_family = AF_INET;
    entry.ai_socktype = SOCK_STREAM;
    entry.ai_addr = reinterpret_cast<sockaddr*>(&made);
    entry.ai_addrlen = sizeof made;
    _entries.push_back(entry);
    if (_entries.size() > 1) _entries[_entries.size() - 2].ai_next = &_entries.back();
  }

  std::deque<sockaddr_in> _addresses;
  std::deque<addrinfo> _entries;
};

in_port_t PortOf(const osa::Descriptor& descriptor) {
  sockaddr_in bound{};
  socklen_t size = sizeof bound;
  getsockname(descriptor.Get(), reinterpret_cast<sockaddr*>(&bound), &size);
  return ntohs(bound.sin_port);
}

}  // namespace

TEST(TcpSockets, EveryAddressOfANameIsListenedOn) {
  const CapturedLog log;
  EXPECT_EQ(daemon::ListenOnAll(Answer({"127.0.0.1", "127.0.0.2"}).Get(), "here:0").size(), 2u);
  EXPECT_THAT(log.GetMessages(), IsEmpty());
}

TEST(TcpSockets, AddressThatTheSystemHasNotIsWarnedOfAndTheOthersServe) {
  for (const std::vector<std::string>& addresses :
       {std::vector<std::string>{kNowhere, "127.0.0.1"}, std::vector<std::string>{"127.0.0.1", kNowhere}}) {
    const CapturedLog log;
    EXPECT_EQ(daemon::ListenOnAll(Answer(addresses).Get(), "here:0").size(), 1u);
    EXPECT_THAT(log.GetMessages(), ElementsAre("WARNING Listener: Not listening on '203.0.113.1:0' of 'here:0': Cannot "
                                               "assign requested address"));
  }
}

TEST(TcpSockets, NameOfWhoseAddressesTheSystemHasNoneIsAnError) {
  EXPECT_THAT(
      [] {
        (void)daemon::ListenOnAll(Answer({kNowhere, "198.51.100.1"}).Get(), "here:0");
      },
      ThrowsMessage<osa::Exception>("Can't listen on 'here:0': Cannot assign requested address"));
}

// Clients that look there would meet a stranger.
TEST(TcpSockets, AddressThatSomebodyElseHasIsAnErrorThoughOthersAreFree) {
  const auto first = daemon::ListenOnAll(Answer({"127.0.0.1"}).Get(), "first:0");
  const in_port_t port = PortOf(first.front());
  EXPECT_THAT(
      [&] {
        (void)daemon::ListenOnAll(Answer({"127.0.0.2", "127.0.0.1"}, port).Get(), "here");
      },
      ThrowsMessage<osa::Exception>("Can't listen on 'here': Address already in use"));
}

TEST(TcpSockets, AddressThatIsGivenTwiceIsListenedOnOnce) {
  const std::string own = OwnLoopbackAddress();
  in_port_t port = 0;
  {
    const auto free = daemon::ListenOnAll(Answer({own}).Get(), "free:0");
    port = PortOf(free.front());
  }
  EXPECT_EQ(daemon::ListenOnAll(Answer({own, own}, port).Get(), "here").size(), 1u);
}

}  // namespace tavix::test
