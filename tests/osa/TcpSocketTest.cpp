#include "tavix/osa/TcpSocket.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <memory>
#include <string>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tavix/osa/Time.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/Environment.h"
#include "tests/support/FullListener.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::osa::Descriptor;
using tavix::osa::Exception;
using tavix::osa::kWaitForever;
using tavix::osa::TcpSocket;
using tavix::test::BackgroundCall;
using tavix::test::FullListener;
using tavix::test::ListeningSocket;
using tavix::test::MillisecondsOf;
using tavix::test::ReceiveAll;
using tavix::test::ScopedEnvironment;

constexpr char kLoopback[] = "127.0.0.1";

int Option(int descriptor, int level, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  getsockopt(descriptor, level, name, &value, &size);
  return value;
}

std::string ConnectedText(unsigned short port) {
  return std::string("Failed to connect to 127.0.0.1 port ") + std::to_string(port) + ": ";
}

TEST(TcpSocket, IsUnconnectedAtFirst) {
  TcpSocket socket(7211);
  EXPECT_EQ(socket.GetDescriptor(), -1);
  EXPECT_NO_THROW(socket.Shutdown());
}

TEST(TcpSocket, ConnectsToAListeningPeer) {
  for (const unsigned int timeout : {0u, 1000u, 60000u, kWaitForever}) {
    const ListeningSocket listener;
    TcpSocket socket(0);
    socket.Connect(kLoopback, listener.GetPort(), timeout);
    const Descriptor peer = listener.Accept();
    EXPECT_EQ(send(socket.GetDescriptor(), "x", 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(tavix::test::ReceiveOnce(peer), "x");
  }
}

TEST(TcpSocket, ARefusalNamesHostPortAndReason) {
  const ListeningSocket occupied(ListeningSocket::kNotListening);
  TcpSocket socket(0);
  EXPECT_THAT([&] { socket.Connect(kLoopback, occupied.GetPort(), 1000); },
              testing::ThrowsMessage<Exception>(ConnectedText(occupied.GetPort()) + "Connection refused"));
  EXPECT_EQ(socket.GetDescriptor(), -1);
}

TEST(TcpSocket, AHostThatCannotBeResolvedIsNamed) {
  TcpSocket socket(0);
  EXPECT_THAT([&] { socket.Connect("no..host", 7211, 1000); },
              testing::ThrowsMessage<Exception>(testing::StartsWith("Failed to connect to no..host port 7211: ")));
  EXPECT_EQ(socket.GetDescriptor(), -1);
}

TEST(TcpSocket, ANullHostIsAnErrorLikeAnyOther) {
  TcpSocket socket(0);
  EXPECT_THROW(socket.Connect(nullptr, 1, 1000), Exception);
}

TEST(TcpSocket, MayTryAgainAfterAFailure) {
  const ListeningSocket later(ListeningSocket::kNotListening);
  TcpSocket socket(0);
  EXPECT_THROW(socket.Connect(kLoopback, later.GetPort(), 1000), Exception);
  ASSERT_EQ(listen(later.GetDescriptor(), 1), 0);
  EXPECT_NO_THROW(socket.Connect(kLoopback, later.GetPort(), 1000));
  EXPECT_GE(socket.GetDescriptor(), 0);
}

TEST(TcpSocket, ConnectingAgainEndsTheFirstConnection) {
  const ListeningSocket listener;
  TcpSocket socket(0);
  socket.Connect(kLoopback, listener.GetPort(), 1000);
  const Descriptor first = listener.Accept();
  socket.Connect(kLoopback, listener.GetPort(), 1000);
  const Descriptor second = listener.Accept();
  EXPECT_EQ(ReceiveAll(first), "");
  EXPECT_EQ(send(socket.GetDescriptor(), "x", 1, MSG_NOSIGNAL), 1);
  EXPECT_EQ(tavix::test::ReceiveOnce(second), "x");
}

TEST(TcpSocket, ALimitBelowASecondCountsAsASecond) {
  const FullListener full;
  for (const unsigned int timeout : {0u, 1u}) {
    TcpSocket socket(0);
    EXPECT_GE(MillisecondsOf([&] { EXPECT_THROW(socket.Connect(kLoopback, full.GetPort(), timeout), Exception); }),
              1000);
  }
}

TEST(TcpSocket, AConnectThatTimesOutSaysSo) {
  const FullListener full;
  TcpSocket socket(0);
  const long took = MillisecondsOf([&] {
    EXPECT_THAT([&] { socket.Connect(kLoopback, full.GetPort(), 1200); },
                testing::ThrowsMessage<Exception>(ConnectedText(full.GetPort()) + "Connection timed out"));
  });
  EXPECT_GE(took, 1200);
  EXPECT_EQ(socket.GetDescriptor(), -1);
}

TEST(TcpSocket, AServiceLabelGoesWhereItsVariableSays) {
  const ListeningSocket listener;
  const ScopedEnvironment variable("TAVIX_SETTINGS_SERVER",
                                   ("127.0.0.1:" + std::to_string(listener.GetPort())).c_str());
  TcpSocket socket(0);
  socket.Connect("tavix-settings-server", 0, 1000);
  EXPECT_GE(listener.Accept().Get(), 0);
}

TEST(TcpSocket, TheVariableIsReadAtEachAttempt) {
  const ListeningSocket listener;
  const ListeningSocket occupied(ListeningSocket::kNotListening);
  TcpSocket socket(0);
  const ScopedEnvironment first("TAVIX_SETTINGS_SERVER", ("127.0.0.1:" + std::to_string(occupied.GetPort())).c_str());
  EXPECT_THROW(socket.Connect("tavix-settings-server", 0, 1000), Exception);
  const ScopedEnvironment second("TAVIX_SETTINGS_SERVER", ("127.0.0.1:" + std::to_string(listener.GetPort())).c_str());
  EXPECT_NO_THROW(socket.Connect("tavix-settings-server", 0, 1000));
}

// The error names where the attempt went, not the label: that is what the person who reads it has to look at.
TEST(TcpSocket, AFailureNamesWhereTheVariableLedTo) {
  const ListeningSocket occupied(ListeningSocket::kNotListening);
  const ScopedEnvironment variable("TAVIX_SETTINGS_SERVER",
                                   ("127.0.0.1:" + std::to_string(occupied.GetPort())).c_str());
  TcpSocket socket(0);
  EXPECT_THAT([&] { socket.Connect("tavix-settings-server", 0, 1000); },
              testing::ThrowsMessage<Exception>(testing::StartsWith(ConnectedText(occupied.GetPort()))));
}

TEST(TcpSocket, IsClosedOnExecAndBlocksAndFindsDeadPeers) {
  const ListeningSocket listener;
  TcpSocket socket(0);
  socket.Connect(kLoopback, listener.GetPort(), 1000);
  const auto adopted = TcpSocket::Adopt(listener.Accept().Release());
  for (const int descriptor : {socket.GetDescriptor(), adopted->GetDescriptor()}) {
    EXPECT_TRUE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
    EXPECT_FALSE(fcntl(descriptor, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(Option(descriptor, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(Option(descriptor, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(Option(descriptor, IPPROTO_TCP, TCP_KEEPIDLE) +
                  Option(descriptor, IPPROTO_TCP, TCP_KEEPINTVL) * Option(descriptor, IPPROTO_TCP, TCP_KEEPCNT),
              120);
    EXPECT_EQ(Option(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT), 120 * 1000);
  }
}

TEST(TcpSocket, AnAdoptedDescriptorIsClosedOnExecWhateverItWas) {
  const Descriptor occupied(socket(AF_INET, SOCK_STREAM, 0));
  const auto adopted = TcpSocket::Adopt(dup(occupied.Get()));
  EXPECT_TRUE(fcntl(adopted->GetDescriptor(), F_GETFD) & FD_CLOEXEC);
}

TEST(TcpSocket, TheDestructorClosesTheConnection) {
  const ListeningSocket listener;
  auto socket = std::make_unique<TcpSocket>(static_cast<unsigned short>(0));
  socket->Connect(kLoopback, listener.GetPort(), 1000);
  const Descriptor peer = listener.Accept();
  const int descriptor = socket->GetDescriptor();
  socket.reset();
  EXPECT_EQ(ReceiveAll(peer), "");
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST(TcpSocket, ShutdownFromAnotherThreadWakesAReader) {
  const ListeningSocket listener;
  TcpSocket socket(0);
  socket.Connect(kLoopback, listener.GetPort(), 1000);
  const Descriptor peer = listener.Accept();
  ssize_t received = -1;
  BackgroundCall reader([&] {
    char byte = 0;
    received = recv(socket.GetDescriptor(), &byte, 1, 0);
  });
  reader.AwaitBlocked();
  EXPECT_FALSE(reader.HasEnded());
  socket.Shutdown();
  reader.Join();
  EXPECT_EQ(received, 0);
  EXPECT_EQ(ReceiveAll(peer), "") << "the peer sees the end, too";
}

// A unix socket in a directory of its own.
class UnixListener {
 public:
  explicit UnixListener(int backlog) : _socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = GetAddress();
    EXPECT_EQ(bind(_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(_socket.Get(), backlog), 0);
  }

  std::string GetHost() const { return "unix:" + _directory.Path("s"); }

  sockaddr_un GetAddress() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    _directory.Path("s").copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
  }

  Descriptor Accept() const { return Descriptor(accept(_socket.Get(), nullptr, nullptr)); }

 private:
  const tavix::test::TemporaryDirectory _directory;
  const Descriptor _socket;
};

TEST(TcpSocket, ConnectsToAUnixSocket) {
  for (const unsigned int timeout : {0u, 1000u, kWaitForever}) {
    const UnixListener listener(1);
    TcpSocket socket(0);
    socket.Connect(listener.GetHost().c_str(), 0, timeout);
    const Descriptor peer = listener.Accept();
    EXPECT_EQ(send(socket.GetDescriptor(), "x", 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(tavix::test::ReceiveOnce(peer), "x");
    EXPECT_NE(fcntl(socket.GetDescriptor(), F_GETFD) & FD_CLOEXEC, 0);
  }
}

TEST(TcpSocket, TheVariableMayNameAUnixSocket) {
  const UnixListener listener(1);
  const ScopedEnvironment variable("TAVIX_SETTINGS_SERVER", listener.GetHost().c_str());
  TcpSocket socket(0);
  EXPECT_NO_THROW(socket.Connect("tavix-settings-server", 0, 1000));
}

TEST(TcpSocket, AUnixSocketThatIsNotThereIsNamedWithTheReason) {
  const tavix::test::TemporaryDirectory directory;
  const std::string gone = "unix:" + directory.Path("gone");
  const std::string file = "unix:" + directory.Write("file", "");
  TcpSocket socket(0);
  EXPECT_THAT([&] { socket.Connect(gone.c_str(), 0, 1000); },
              testing::ThrowsMessage<Exception>("Failed to connect to " + gone + ": No such file or directory"));
  EXPECT_THAT([&] { socket.Connect(file.c_str(), 0, 1000); },
              testing::ThrowsMessage<Exception>("Failed to connect to " + file + ": Connection refused"));
  EXPECT_EQ(socket.GetDescriptor(), -1);
}

TEST(TcpSocket, AUnixSocketWhoseQueueIsFullIsWaitedForAsLongAsTheLimitSays) {
  const UnixListener listener(0);
  TcpSocket first(0);
  first.Connect(listener.GetHost().c_str(), 0, 1000);
  TcpSocket second(0);
  EXPECT_GE(MillisecondsOf([&] {
              EXPECT_THAT([&] { second.Connect(listener.GetHost().c_str(), 0, 0); },
                          testing::ThrowsMessage<Exception>("Failed to connect to " + listener.GetHost() +
                                                            ": Connection timed out"));
            }),
            1000);
  BackgroundCall waiting([&] { second.Connect(listener.GetHost().c_str(), 0, kWaitForever); });
  waiting.AwaitBlocked();
  const Descriptor taken = listener.Accept();
  EXPECT_NO_THROW(waiting.Join());
}

}  // namespace
