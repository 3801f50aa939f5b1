#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/StoppedProcess.h"

namespace tavix::test {

namespace {

constexpr size_t kMegabyte = 1024 * 1024;
constexpr size_t kReceiveBuffer = 64 * 1024;  // of the daemon: what it takes at a time

// What a client sends behind its last request, more than is received at a time.
const std::string kGarbage = "merge\n[A]\nx=9\n.\nget\nA\n.\n" + std::string(100'000, 'x');

// Peers that use what the protocol and the sockets allow, and hardly anybody does.
class UnusualPeers : public testing::Test {
 protected:
  UnusualPeers()
      : _daemon(_directory, {"--defaults", _directory.Write("d.ini", "[A]\nx=1\n" + _large), "--max-line", "67108864"}),
        _port(_daemon.GetPort()) {}

  // Everything is sent while the daemon can't read, so that it finds it all at once.
  std::string ReplyToAllAtOnce(const std::string& requests) {
    ProtocolClient client(_port);
    client.AwaitHandled();
    StopProcess(_daemon.GetId());
    client.Send(requests);
    client.HalfClose();
    _daemon.Signal(SIGCONT);
    return client.ReadToEnd();
  }

  // Waits until the daemon's socket has all that the client sent, or takes no more of it: some kernels take less than
  // others of what nobody reads.
  static void AwaitTaken(const ProtocolClient& client) {
    int last = 0;
    int same = 0;
    EXPECT_TRUE(Eventually([&] {
      int left = 0;
      EXPECT_EQ(ioctl(client.GetDescriptor(), SIOCOUTQ, &left), 0);
      same = left == last ? same + 1 : 1;
      last = left;
      return left == 0 || same == 500;
    }));
  }

  // And until the daemon has nothing left to do with it.
  void AwaitArrived(const ProtocolClient& client) const {
    AwaitTaken(client);
    _daemon.AwaitIdle();
  }

  const std::string _large = "[Large]\nk=" + std::string(8 * kMegabyte, 'v') + "\n";
  const TemporaryDirectory _directory;
  Daemon _daemon;
  const unsigned short _port;
};

std::string Repeated(size_t count, const std::string& text) {
  std::string all;
  for (size_t i = 0; i < count; ++i) all += text;
  return all;
}

}  // namespace

TEST_F(UnusualPeers, SubscriberThatReadsAByteAtATimeGetsEveryNoticeWhole) {
  ProtocolClient subscriber(_port, 4096);
  subscriber.Send("subscribe\nA\n.\n");
  subscriber.AwaitHandled();
  std::string requests;
  std::string notices;
  for (int i = 0; i < 100; ++i) {
    const std::string group = "[A]\nx=" + std::to_string(i) + std::string(1000, 'x') + "\n.\n";
    requests += "merge\n" + group;
    notices += "async change\nA\n.\n" + group;
  }
  EXPECT_EQ(Converse(_port, requests), "");
  std::string received(notices.size(), '\0');
  for (char& byte : received) ASSERT_EQ(recv(subscriber.GetDescriptor(), &byte, 1, 0), 1);
  EXPECT_EQ(received, notices);
}

TEST_F(UnusualPeers, SubscriberThatResetsItsConnectionInTheMiddleOfANoticeHarmsNobodyElse) {
  ProtocolClient witness(_port);
  witness.Send("subscribe\nLarge\n.\n");
  witness.AwaitHandled();
  const size_t descriptors = CountDescriptors(_daemon.GetId());
  for (int i = 0; i < 5; ++i) {
    ProtocolClient subscriber(_port, 4096);
    subscriber.Send("subscribe\nL*\n.\n");
    subscriber.AwaitHandled();
    const std::string change = "[Large]\nk=" + std::to_string(i) + "\nn=" + std::string(kMegabyte, 'n') + "\n.\n";
    BackgroundCall writer([&] { Converse(_port, "merge nopersist\n" + change + "merge nopersist\n" + change); });
    subscriber.Read(1);
    subscriber.Reset();
    const std::string notice = "async change\nLarge\n.\n" + change;
    EXPECT_EQ(witness.Read(2 * notice.size()), notice + notice);
    writer.Join();
  }
  EXPECT_TRUE(Eventually([&] { return CountDescriptors(_daemon.GetId()) == descriptors; }));
  EXPECT_EQ(Converse(_port, "info subscribed\n"), "Subscribed groups\n-----------------\nLarge\n\n");
}

TEST_F(UnusualPeers, PeerThatHalfClosesBehindManyRequestsGetsEveryReplyOnceItReads) {
  ProtocolClient client(_port, 4096);
  client.Send(Repeated(10, "get\nLarge\n.\n") + "get delimited\nA\n");
  client.HalfClose();
  EXPECT_EQ(Converse(_port, "get\nA\n.\n"), "[A]\nx=1\n");
  _daemon.AwaitIdle();
  EXPECT_EQ(client.ReadToEnd(), Repeated(10, _large) + "data\n[A]\nx=1\n.\n");
}

TEST_F(UnusualPeers, PeerThatOnlyHalfClosesIsClosed) {
  EXPECT_EQ(Converse(_port, ""), "");
  EXPECT_EQ(Converse(_port, "merge"), "");
}

TEST_F(UnusualPeers, WhatFollowsAQuitIsNeitherCarriedOutNorTakesRepliesBack) {
  for (size_t before : {0, 1, 62, 63, 64, 65, 200}) {
    ProtocolClient client(_port, 4096);
    client.Send(Repeated(before, "get\nA\n.\n") + "get\nLarge\n.\nquit\n" + kGarbage);
    AwaitArrived(client);
    EXPECT_EQ(client.Read(before * 8 + _large.size()), Repeated(before, "[A]\nx=1\n") + _large);
    EXPECT_EQ(client.ReadToEnd(), "");
  }
  EXPECT_EQ(Converse(_port, "get\nA\n.\n"), "[A]\nx=1\n");
}

// Of all these replies some are more than the kernel keeps, and less than what the daemon pauses at.
TEST_F(UnusualPeers, QuitWithRepliesUnreadAtTheEndOfATurnKeepsNobodyBusy) {
  const std::string half = "[Half]\nk=" + std::string(kMegabyte / 2, 'h') + "\n";
  EXPECT_EQ(Converse(_port, "merge\n" + half + ".\n"), "");
  for (size_t large = 2; large < 16; ++large) {
    ProtocolClient client(_port, 4096);
    client.AwaitHandled();
    StopProcess(_daemon.GetId());  // what came behind the close would undo replies
    client.Send(Repeated(large, "get\nHalf\n.\n") + Repeated(63 - large, "get\nA\n.\n") + "quit\n" + kGarbage);
    AwaitTaken(client);
    _daemon.Signal(SIGCONT);
    _daemon.AwaitIdle();
    EXPECT_EQ(client.ReadToEnd(), Repeated(large, half) + Repeated(63 - large, "[A]\nx=1\n")) << large;
  }
}

TEST_F(UnusualPeers, RequestThatCanNotBeParsedTakesNoRepliesBack) {
  ProtocolClient client(_port, 4096);
  client.Send("get\nLarge\n.\nmerge\n[Open\n.\n" + kGarbage);
  AwaitArrived(client);
  EXPECT_EQ(client.ReadToEnd(), _large);
  EXPECT_EQ(Converse(_port, "get\nA\n.\n"), "[A]\nx=1\n");
}

// Nobody hears the replies, and that is no reason to drop the changes.
TEST_F(UnusualPeers, ChangesOfAPeerThatIsGoneBeforeItReadAReplyAreMade) {
  const std::string path = "unix:" + _directory.Path("s.sock");
  Daemon daemon(_directory, {"--listen", path});
  for (const std::string& address : daemon.AwaitAddresses(2)) {
    for (const char* first : {"", "get delimited\nA\n.\n", "subscribe\nM*\n.\n"}) {
      ProtocolClient client(address);
      client.AwaitHandled();
      StopProcess(daemon.GetId());
      std::string changes;
      for (int i = 0; i < 200; ++i) changes += "merge\n[M" + std::to_string(i) + "]\na=1\n.\n";
      client.Send(first + changes);
      client.Close();
      daemon.Signal(SIGCONT);
      ProtocolClient other(address);
      EXPECT_TRUE(Eventually([&] { return CountOf("[M", other.Get("M*\n")) == 200; })) << address << ' ' << first;
      other.Send("overwrite\nM*\n.\n.\n");
      other.AwaitHandled();
    }
  }
}

// An urgent byte stands beside the stream, which nobody reads here.
TEST_F(UnusualPeers, UrgentDataIsNoPartOfARequestAndKeepsNobodyBusy) {
  ProtocolClient client(_port);
  for (const char* part : {"!", "get delimited\n!", "A\n!", ".\n!"}) {
    const std::string text = part;
    ASSERT_EQ(send(client.GetDescriptor(), part, text.size(), MSG_OOB), static_cast<ssize_t>(text.size()));
    AwaitArrived(client);
  }
  EXPECT_EQ(client.ReadUntil("\n.\n"), "data\n[A]\nx=1\n.\n");
}

TEST_F(UnusualPeers, RequestMayEndWhereWhatIsReceivedAtATimeEnds) {
  for (size_t size : {kReceiveBuffer - 1, kReceiveBuffer, kReceiveBuffer + 1, 2 * kReceiveBuffer - 1,
                      2 * kReceiveBuffer, 2 * kReceiveBuffer + 1}) {
    std::string ini = "merge\n[B]\nk=\n.\n";
    const std::string value(size - ini.size(), 'v');
    ini.insert(ini.size() - 3, value);
    ASSERT_EQ(ini.size(), size);
    EXPECT_EQ(ReplyToAllAtOnce(ini + "get\nB\n.\nget\nA\n.\n"), "[B]\nk=" + value + "\n[A]\nx=1\n") << size;
  }
}

TEST_F(UnusualPeers, PhpArrayMayEndWhereWhatIsReceivedAtATimeEnds) {
  for (size_t size : {kReceiveBuffer - 1, kReceiveBuffer, kReceiveBuffer + 1}) {
    const std::string begin = "serialize phparray\nmerge\na:1:{s:1:\"B\";a:1:{s:1:\"k\";s:65000:\"";
    const std::string value(65'000, 'v');
    const std::string end = "\";}}";
    const std::string padding(size - begin.size() - value.size() - end.size(), '\n');
    const std::string requests = padding + begin + value + end;
    ASSERT_EQ(requests.size(), size);
    EXPECT_EQ(ReplyToAllAtOnce(requests + "serialize ini\nget\nB\n.\n"), "[B]\nk=" + value + "\n") << size;
  }
}

TEST_F(UnusualPeers, ManySmallRequestsInOneSegmentAreAllAnswered) {
  EXPECT_EQ(ReplyToAllAtOnce(Repeated(10'000, "get\nA\n.\n")), Repeated(10'000, "[A]\nx=1\n"));
}

}  // namespace tavix::test
