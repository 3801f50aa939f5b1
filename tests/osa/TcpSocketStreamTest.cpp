#include "tavix/osa/TcpSocketStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <memory>
#include <optional>
#include <random>
#include <string>

#include "tavix/osa/TcpSocket.h"
#include "tavix/osa/Thread.h"
#include "tavix/osa/Time.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/ForeignLocale.h"
#include "tests/support/ListeningSocket.h"

namespace {

using tavix::osa::kWaitForever;
using tavix::osa::TcpSocket;
using Stream = tavix::osa::TcpSocketStream;
using tavix::osa::Descriptor;
using tavix::test::BackgroundCall;
using tavix::test::ListeningSocket;
using tavix::test::MillisecondsOf;
using tavix::test::Receive;
using tavix::test::ReceiveAll;
using tavix::test::ReceiveOnce;
using tavix::test::Send;

class TcpSocketStream : public testing::Test {
 protected:
  TcpSocketStream() {
    const ListeningSocket listener;
    _socket.Connect("127.0.0.1", listener.GetPort(), 1000);
    _peer = listener.Accept();
  }

  bool PeerHasBytes() const {
    char byte = 0;
    return recv(_peer.Get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
  }

  // The peer ends the connection with a reset instead of an orderly end.
  void ResetByPeer() {
    const linger atOnce{1, 0};
    setsockopt(_peer.Get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    _peer.Reset();
  }

  TcpSocket _socket{0};
  Descriptor _peer;
};

std::string RandomBytes(size_t count) {
  std::mt19937 random(1);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

std::string Read(std::istream& in, size_t count) {
  std::string bytes(count, '\0');
  in.read(bytes.data(), static_cast<std::streamsize>(count));
  bytes.resize(static_cast<size_t>(in.gcount()));
  return bytes;
}

// Writes until the connection breaks.
void WriteUntilItFails(std::ostream& out) {
  const std::string block(64 * 1024, 'x');
  while (out << block << std::flush) continue;
}

TEST_F(TcpSocketStream, CarriesTextBothWays) {
  Stream stream(&_socket, kWaitForever);
  stream.GetOstream() << "get delimited\n" << std::flush;
  EXPECT_EQ(Receive(_peer, 14), "get delimited\n");
  Send(_peer, "data\n.\n");
  std::string line;
  EXPECT_TRUE(std::getline(stream, line));
  EXPECT_EQ(line, "data");
}

TEST_F(TcpSocketStream, CanWriteByItself) {
  Stream stream(&_socket, kWaitForever);
  std::iostream& plain = stream;
  plain << "merge " << 0 << '\n' << std::flush;
  EXPECT_EQ(Receive(_peer, 8), "merge 0\n");
}

TEST_F(TcpSocketStream, NothingLeavesBeforeTheFlush) {
  Stream stream(&_socket, kWaitForever);
  for (int i = 0; i < 1000; ++i) stream.GetOstream() << "0123456789";
  EXPECT_FALSE(PeerHasBytes());
  stream.GetOstream().flush();
  EXPECT_EQ(Receive(_peer, 10000).size(), 10000u);
}

TEST_F(TcpSocketStream, AMessageArrivesInOnePiece) {
  Stream stream(&_socket, kWaitForever);
  for (const size_t size : {1u, 100u, 5000u, 20000u}) {
    for (size_t i = 0; i < size; ++i) stream.GetOstream().put('x');
    stream.GetOstream().flush();
    EXPECT_EQ(ReceiveOnce(_peer).size(), size);
  }
}

TEST_F(TcpSocketStream, WhatWasNotFlushedIsGoneWithTheStream) {
  {
    Stream stream(&_socket, kWaitForever);
    stream.GetOstream() << "sent" << std::flush << "kept";
    stream << "kept";
  }
  _socket.Shutdown();
  EXPECT_EQ(ReceiveAll(_peer), "sent");
}

TEST_F(TcpSocketStream, LargeMessagesArriveWholeBothWays) {
  const std::string bytes = RandomBytes(1024 * 1024);
  Stream stream(&_socket, kWaitForever);
  BackgroundCall echo([&] { Send(_peer, Receive(_peer, bytes.size())); });
  stream.GetOstream() << bytes << std::flush;
  EXPECT_TRUE(Read(stream, bytes.size()) == bytes);
}

TEST_F(TcpSocketStream, EveryWayToWriteKeepsTheOrder) {
  const std::string bytes = RandomBytes(300 * 1000);
  Stream stream(&_socket, kWaitForever);
  std::string received;
  BackgroundCall peer([&] { received = Receive(_peer, bytes.size()); });
  std::mt19937 random(2);
  for (size_t at = 0; at < bytes.size();) {
    const size_t size = std::min<size_t>(bytes.size() - at, random() % 3 ? random() % 100 : random() % 100000);
    stream.GetOstream() << bytes.substr(at, size);
    at += size;
    if (at < bytes.size()) stream.GetOstream().put(bytes[at++]);
    if (random() % 10 == 0) stream.GetOstream().flush();
  }
  stream.GetOstream().flush();
  peer.Join();
  EXPECT_TRUE(received == bytes);
}

TEST_F(TcpSocketStream, TheEndOfTheConnectionFailsTheStream) {
  Stream stream(&_socket, kWaitForever);
  Send(_peer, "last words");
  _peer.Reset();
  std::string line;
  EXPECT_TRUE(std::getline(stream, line));
  EXPECT_EQ(line, "last words");
  EXPECT_FALSE(std::getline(stream, line));
  EXPECT_TRUE(stream.eof());
}

TEST_F(TcpSocketStream, AResetFailsTheStreamWithoutAnException) {
  Stream stream(&_socket, kWaitForever);
  ResetByPeer();
  EXPECT_EQ(stream.get(), std::char_traits<char>::eof());
  EXPECT_TRUE(stream.fail());
}

TEST_F(TcpSocketStream, WritingToAClosedPeerFailsWithoutASignal) {
  signal(SIGPIPE, SIG_DFL);
  Stream stream(&_socket, kWaitForever);
  ResetByPeer();
  EXPECT_EQ(stream.get(), std::char_traits<char>::eof()) << "takes the reset: a write now is one to a broken pipe";
  EXPECT_FALSE(stream.GetOstream() << "x" << std::flush);
}

TEST_F(TcpSocketStream, WritingAfterAShutdownFailsWithoutASignal) {
  signal(SIGPIPE, SIG_DFL);
  Stream stream(&_socket, kWaitForever);
  _socket.Shutdown();
  EXPECT_FALSE(stream.GetOstream() << "x" << std::flush);
}

TEST_F(TcpSocketStream, AConnectionThatFailedToWriteStaysBroken) {
  Stream stream(&_socket, kWaitForever);
  ResetByPeer();
  WriteUntilItFails(stream.GetOstream());
  stream.GetOstream().clear();
  EXPECT_FALSE(stream.GetOstream() << "more" << std::flush);
}

TEST_F(TcpSocketStream, TheProcesssSignalHandlersStayAsTheyAre) {
  struct sigaction before {};
  before.sa_handler = [](int) {};
  sigaction(SIGPIPE, &before, nullptr);
  Stream stream(&_socket, kWaitForever);
  ResetByPeer();
  WriteUntilItFails(stream.GetOstream());
  struct sigaction after {};
  sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(after.sa_handler, before.sa_handler);
}

TEST_F(TcpSocketStream, AWriteToAnUnconnectedSocketFails) {
  TcpSocket unconnected(0);
  Stream stream(&unconnected, kWaitForever);
  EXPECT_FALSE(stream.GetOstream() << "x" << std::flush);
  EXPECT_EQ(stream.get(), std::char_traits<char>::eof());
}

TEST_F(TcpSocketStream, AReadEndsWithItsLimit) {
  for (const unsigned int timeout : {1u, 50u, 1010u}) {
    Stream stream(&_socket, timeout);
    EXPECT_GE(MillisecondsOf([&] { EXPECT_EQ(stream.get(), std::char_traits<char>::eof()); }),
              static_cast<long>(timeout));
    EXPECT_TRUE(stream.fail());
  }
}

TEST_F(TcpSocketStream, AReadThatTimedOutLosesNothing) {
  Stream stream(&_socket, 200u);
  EXPECT_EQ(stream.get(), std::char_traits<char>::eof());
  Send(_peer, "late");
  stream.clear();
  EXPECT_EQ(Read(stream, 4), "late");
}

TEST_F(TcpSocketStream, AReadWithoutLimitWaits) {
  Stream stream(&_socket, kWaitForever);
  std::string line;
  BackgroundCall reader([&] { std::getline(stream, line); });
  reader.AwaitBlocked();
  EXPECT_FALSE(reader.HasEnded());
  Send(_peer, "late\n");
  reader.Join();
  EXPECT_EQ(line, "late");
}

TEST_F(TcpSocketStream, AWriteToAPeerThatNeverReadsEndsWithItsLimit) {
  Stream stream(&_socket, kWaitForever, 50);
  EXPECT_GE(MillisecondsOf([&] { WriteUntilItFails(stream.GetOstream()); }), 50);
  EXPECT_FALSE(stream.GetOstream());
}

TEST_F(TcpSocketStream, AWriteThatTimesOutWakesTheReader) {
  Stream stream(&_socket, kWaitForever, 50);
  BackgroundCall reader([&] { EXPECT_EQ(stream.get(), std::char_traits<char>::eof()); });
  reader.AwaitBlocked();
  EXPECT_FALSE(reader.HasEnded());
  WriteUntilItFails(stream.GetOstream());
  reader.Join();
}

void SetBufferSize(const Descriptor& peer, const TcpSocket& socket, int size) {
  setsockopt(peer.Get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  setsockopt(socket.GetDescriptor(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

TEST_F(TcpSocketStream, EachDirectionHasALimitOfItsOwn) {
  SetBufferSize(_peer, _socket, 64 * 1024);
  Stream stream(&_socket, 20, kWaitForever);
  EXPECT_EQ(stream.get(), std::char_traits<char>::eof());
  BackgroundCall writer([&] { stream.GetOstream() << std::string(16 * 1024 * 1024, 'x') << std::flush; });
  writer.AwaitBlocked();
  EXPECT_FALSE(writer.HasEnded()) << "no limit was given for writing";
  EXPECT_EQ(Receive(_peer, 16 * 1024 * 1024).size(), 16u * 1024 * 1024);
}

TEST_F(TcpSocketStream, TheLimitOfWritesMayChangeWhileAnotherThreadReads) {
  Stream stream(&_socket, kWaitForever);
  BackgroundCall reader([&] { EXPECT_EQ(stream.get(), std::char_traits<char>::eof()); });
  reader.AwaitBlocked();
  stream.SetWriteTimeout(50);
  EXPECT_GE(MillisecondsOf([&] { WriteUntilItFails(stream.GetOstream()); }), 50);
  reader.Join();
}

// Whether a message arrives whole at a peer that pauses before each part for a fifth of the limit, twelve times: far
// more parts than the buffers hold, so that the write takes longer than its limit.
bool ArrivesWholeAtASlowPeer(unsigned int limit) {
  constexpr size_t kParts = 12;
  constexpr size_t kPart = 512 * 1024;
  const ListeningSocket listener;
  TcpSocket socket(0);
  socket.Connect("127.0.0.1", listener.GetPort(), 1000);
  const Descriptor peer = listener.Accept();
  SetBufferSize(peer, socket, kPart / 4);
  Stream stream(&socket, kWaitForever, limit);
  size_t received = 0;
  BackgroundCall slowPeer([&] {
    for (size_t part = 0; part < kParts; ++part) {
      tavix::osa::Thread::CurrentThread::Sleep(limit / 5);
      received += Receive(peer, kPart).size();
    }
  });
  const long took = MillisecondsOf([&] { stream.GetOstream() << std::string(kParts * kPart, 'x') << std::flush; });
  slowPeer.Join();
  if (!stream.GetOstream()) return false;
  EXPECT_EQ(received, kParts * kPart);
  EXPECT_GT(took, static_cast<long>(limit));
  return true;
}

// A peer that takes its time but keeps reading is not cut off, however long the whole message takes. Only a machine
// that stalls for a limit lets the peer miss it: then a longer one shows it.
TEST_F(TcpSocketStream, AWriteThatMakesProgressMayTakeLonger) {
  EXPECT_TRUE(ArrivesWholeAtASlowPeer(250) || ArrivesWholeAtASlowPeer(1000) || ArrivesWholeAtASlowPeer(8000));
}

TEST_F(TcpSocketStream, OneThreadReadsWhileAnotherWrites) {
  const std::string bytes = RandomBytes(1024 * 1024);
  Stream stream(&_socket, kWaitForever);
  BackgroundCall echo([&] {
    for (size_t echoed = 0; echoed < bytes.size();) {
      const std::string part = ReceiveOnce(_peer);
      Send(_peer, part);
      echoed += part.size();
    }
  });
  BackgroundCall writer([&] {
    for (size_t at = 0; at < bytes.size(); at += 1000) stream.GetOstream() << bytes.substr(at, 1000) << std::flush;
  });
  EXPECT_TRUE(Read(stream, bytes.size()) == bytes);
}

TEST_F(TcpSocketStream, AStreamThatFailedToReadCanStillWrite) {
  Stream stream(&_socket, 1);
  EXPECT_EQ(stream.get(), std::char_traits<char>::eof());
  EXPECT_TRUE(stream.GetOstream() << "quit\n" << std::flush);
  EXPECT_EQ(Receive(_peer, 5), "quit\n");
}

// Leaves system calls interrupted.
void InstallHandlerFor(int number) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(number, &action, nullptr);
}

TEST_F(TcpSocketStream, ASignalDoesNotEndARead) {
  InstallHandlerFor(SIGUSR1);
  Stream stream(&_socket, kWaitForever);
  std::string line;
  BackgroundCall reader([&] { std::getline(stream, line); });
  reader.AwaitBlocked();
  pthread_kill(reader.GetHandle(), SIGUSR1);
  reader.AwaitBlocked();
  Send(_peer, "still here\n");
  reader.Join();
  EXPECT_EQ(line, "still here");
}

// The first signal finds a part of the message sent, the others find a send that has not sent anything.
TEST_F(TcpSocketStream, ASignalDoesNotEndAWrite) {
  InstallHandlerFor(SIGUSR1);
  const std::string bytes = RandomBytes(16 * 1024 * 1024);
  Stream stream(&_socket, kWaitForever);
  BackgroundCall writer([&] { stream.GetOstream() << bytes << std::flush; });
  for (int sent = 0; sent < 3; ++sent) {
    writer.AwaitBlocked();
    pthread_kill(writer.GetHandle(), SIGUSR1);
  }
  EXPECT_TRUE(Receive(_peer, bytes.size()) == bytes);
  writer.Join();
  EXPECT_TRUE(stream.GetOstream().good());
}

TEST_F(TcpSocketStream, NumbersDoNotFollowTheProcesssLocale) {
  const tavix::test::ForeignLocale foreign;
  Stream stream(&_socket, kWaitForever);
  stream.GetOstream() << 1234567 << '\n' << std::flush;
  stream << 1234567 << '\n' << std::flush;
  EXPECT_EQ(Receive(_peer, 16), "1234567\n1234567\n");
}

}  // namespace
