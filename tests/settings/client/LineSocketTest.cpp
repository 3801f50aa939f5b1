#include "tavix/settings/client/LineSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Patience.h"
#include "tests/support/ScriptedServer.h"

namespace tavix::test {

namespace {

using settings::client::LineSocket;
using settings::client::ProtocolException;
using testing::Optional;

settings::client::ProtocolOptions Patient() {
  settings::client::ProtocolOptions options;
  options.timeouts.silence = kPatience;
  return options;
}

void AwaitReadable(const LineSocket& socket) {
  pollfd wait{socket.GetDescriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&wait, 1, -1), 1);
}

}  // namespace

TEST(LineSocket, ReceivesWhatCameWithoutWaiting) {
  ScriptedServer server;
  LineSocket socket(Patient());
  ServerEnd peer = server.Accept();
  EXPECT_TRUE(socket.ReceiveAvailable());
  EXPECT_EQ(socket.TakeLine(), std::nullopt);
  peer.Send("a\nb");
  EXPECT_TRUE(socket.ReceiveUntil(std::nullopt, false));
  EXPECT_TRUE(socket.ReceiveAvailable());
  EXPECT_THAT(socket.TakeLine(), Optional(std::string("a")));
  EXPECT_EQ(socket.GetReceivedBytes(), 1U);
}

TEST(LineSocket, FindsTheEndOfTheConnectionBehindWhatCame) {
  ScriptedServer server;
  LineSocket socket(Patient());
  ServerEnd peer = server.Accept();
  peer.Send("a\n");
  peer.HalfClose();
  EXPECT_TRUE(socket.ReceiveUntil(std::nullopt, false));
  EXPECT_TRUE(Eventually([&] { return !socket.ReceiveAvailable(); }));
  EXPECT_THAT(socket.TakeLine(), Optional(std::string("a")));
}

// A peer that sends faster than it is read must not hold a call up.
TEST(LineSocket, ReceivesNoMoreAtATimeThanItsBound) {
  ScriptedServer server;
  LineSocket socket(Patient());
  ServerEnd peer = server.Accept();
  BackgroundCall sender([&] {
    while (true) peer.Send(std::string(64 * 1024, 'x'));
  });
  size_t calls = 0;
  for (size_t before = 0; before < 4 * LineSocket::kMaxAvailableBytes; ++calls) {
    EXPECT_TRUE(socket.ReceiveAvailable());
    EXPECT_LE(socket.GetReceivedBytes() - before, LineSocket::kMaxAvailableBytes);
    before = socket.GetReceivedBytes();
  }
  EXPECT_GE(calls, 4U);
  socket.Close();
}

TEST(LineSocket, ReceivesNoMoreWhileMoreThanAMessageWasNotTaken) {
  ScriptedServer server;
  settings::client::ProtocolOptions options = Patient();
  options.maxMessageBytes = 100 * 1024;
  LineSocket socket(options);
  ServerEnd peer = server.Accept();
  BackgroundCall sender([&] {
    while (true) peer.Send(std::string(1023, 'x') + "\n");
  });
  EXPECT_TRUE(Eventually([&] { return socket.ReceiveAvailable() && socket.GetReceivedBytes() > 100 * 1024; }));
  const size_t full = socket.GetReceivedBytes();
  EXPECT_TRUE(socket.ReceiveAvailable());
  EXPECT_EQ(socket.GetReceivedBytes(), full);
  EXPECT_LE(full, 120U * 1024);
  socket.Close();
}

// What has come is received even when no time is left, but what keeps coming is left to the next call.
TEST(LineSocket, BytesThatKeepComingDoNotHideTheEndOfAWait) {
  ScriptedServer server;
  LineSocket socket(Patient());
  ServerEnd peer = server.Accept();
  const auto now = LineSocket::Clock::now();
  for (int call = 0; call < 2; ++call) {
    socket.StartCall();
    peer.Send("a");
    AwaitReadable(socket);
    EXPECT_TRUE(socket.ReceiveUntil(now, call > 0));
    peer.Send("a");
    AwaitReadable(socket);
    EXPECT_FALSE(socket.ReceiveUntil(now, true));
  }
  EXPECT_EQ(socket.GetReceivedBytes(), 3U) << "the second call has received the rest of the first";
}

TEST(LineSocket, BytesThatKeepComingDoNotHideTheEndOfACall) {
  ScriptedServer server;
  LineSocket socket(Patient());
  ServerEnd peer = server.Accept();
  socket.SetTimeouts({kPatience, LineSocket::Milliseconds(0)});
  socket.StartCall();
  peer.Send("a");
  AwaitReadable(socket);
  EXPECT_TRUE(socket.ReceiveUntil(std::nullopt, true));
  peer.Send("a");
  AwaitReadable(socket);
  EXPECT_THROW(socket.ReceiveUntil(std::nullopt, true), ProtocolException);
  EXPECT_EQ(socket.GetDescriptor(), -1);
}

TEST(LineSocket, SendingReturnsHowMuchHasLeft) {
  ScriptedServer server;
  LineSocket socket(Patient());
  ServerEnd peer = server.Accept();
  socket.StartCall();
  EXPECT_FALSE(socket.WasSent());
  EXPECT_EQ(socket.SendSome("a\n"), 2U);
  EXPECT_TRUE(socket.WasSent());
  EXPECT_EQ(peer.ReadThrough("a"), "a\n");
}

TEST(LineSocket, AWriteIsUnconfirmedUntilAReplyIsThere) {
  ScriptedServer server;
  LineSocket socket(Patient());
  const ServerEnd peer = server.Accept();
  socket.StartCall();
  socket.StartRequest("merge\n.\n", true);
  EXPECT_EQ(socket.SendSome("merge\n.\n"), 8U);
  socket.StartCall();
  EXPECT_TRUE(socket.WasSent());
  socket.ConfirmWrites();
  EXPECT_FALSE(socket.WasSent());
}

TEST(LineSocket, AnyTimeOutIsKept) {
  using Milliseconds = LineSocket::Milliseconds;
  const auto now = LineSocket::Clock::now();
  EXPECT_EQ(LineSocket::After(now, Milliseconds(5)), now + Milliseconds(5));
  EXPECT_EQ(LineSocket::After(now, Milliseconds::min()), now);
  EXPECT_GT(LineSocket::After(now, Milliseconds::max()), now + std::chrono::hours(24));
}

}  // namespace tavix::test
