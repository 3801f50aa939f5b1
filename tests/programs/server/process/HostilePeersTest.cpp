#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ProcessFigures.h"

namespace tavix::test {

namespace {

constexpr size_t kMegabyte = 1024 * 1024;

class HostilePeers : public testing::Test {
 protected:
  HostilePeers()
      : _daemon(_directory, {"--defaults", _directory.Write("d.ini", "[A]\nx=1\n"), "--max-line", "67108864",
                             "--backlog-timeout", "1000"}),  // however long the machine stands still
        _port(_daemon.GetPort()),
        _bystander(_port) {
    _bystander.AwaitHandled();
  }

  void ExpectOthersAreServed() {
    EXPECT_EQ(_bystander.Get("A\n"), "data\n[A]\nx=1\n.\n");
    EXPECT_EQ(Converse(_port, "get\nA\n.\n"), "[A]\nx=1\n");
  }

  const TemporaryDirectory _directory;
  Daemon _daemon;
  const unsigned short _port;
  ProtocolClient _bystander;
};

std::string RandomBytes(size_t count) {
  std::mt19937 random(20240607);
  std::uniform_int_distribution<int> byte(0, 255);
  std::string bytes(count, '\0');
  for (char& one : bytes) one = static_cast<char>(byte(random));
  return bytes;
}

}  // namespace

TEST_F(HostilePeers, RandomBytesHarmNobodyElse) {
  const std::string bytes = RandomBytes(kMegabyte);
  for (const char* start : {"", "merge\n", "merge\n[B]\n", "get delimited\n", "overwrite\n", "subscribe\n", "restore\n",
                            "test-and-merge\n", "serialize phparray\nmerge\n", "serialize phparray\nmerge\na:9:{"}) {
    ProtocolClient client(_port);
    if (client.TrySend(start + bytes)) client.TrySend("\n.\n.\nquit\n");
    client.ReadToEnd();
    ExpectOthersAreServed();
  }
}

TEST_F(HostilePeers, SixteenMegabytesWithoutALineFeedAreOneLine) {
  const std::string huge(16 * kMegabyte, 'x');
  ProtocolClient client(_port);
  client.Send(huge);
  ExpectOthersAreServed();
  client.Send("\nget delimited\nA\n.\nmerge\n[B]\nk=" + huge + "\n.\n");
  EXPECT_EQ(client.ReadUntil("\n.\n"), "data\n[A]\nx=1\n.\n");
  EXPECT_EQ(client.Get("B\n"), "data\n[B]\nk=" + huge + "\n.\n");
  ExpectOthersAreServed();
}

TEST_F(HostilePeers, SixteenMegabytesInAListAreNoNameAndEndTheirConnection) {
  EXPECT_EQ(Converse(_port, "get delimited\nA\n" + std::string(16 * kMegabyte, 'x') + "\n.\nget\nA\n.\n"), "");
  EXPECT_THAT(_daemon.GetErrors(), testing::HasSubstr(" of 16777216 bytes is longer than the 4096 allowed\n"));
  ExpectOthersAreServed();
}

TEST_F(HostilePeers, FalseSizesInAPhpArrayReserveNothing) {
  const size_t before = PeakAddressSpace(_daemon.GetId());
  for (const char* start :
       {"merge\n", "merge nopersist\n", "test-and-merge\n", "test-and-merge\na:0:{}\n.\n", "overwrite\nA\n.\n"}) {
    for (const char* payload :
         {"a:4294967295:{", "a:1:{s:4294967295:\"", "a:1:{s:1:\"A\";a:4294967295:{",
          "a:1:{s:1:\"A\";a:4294967295:{s:4294967295:\"", "a:4294967296:{", "a:1:{s:99999999999999999999:\""}) {
      EXPECT_EQ(Converse(_port, std::string("serialize phparray\n") + start + payload), "") << start << payload;
      EXPECT_EQ(Converse(_port, std::string("serialize ini\n") + start + payload), "") << start << payload;
      ExpectOthersAreServed();
    }
  }
  EXPECT_LT(PeakAddressSpace(_daemon.GetId()), before + 1024 * kMegabyte);
}

TEST_F(HostilePeers, LongPatternAndLongNameThatAlmostMatchKeepNobodyWaiting) {
  const Daemon daemon(_directory, {"--max-name", std::to_string(kMegabyte)});
  const std::string group = "[" + std::string(kMegabyte - 2, 'a') + "]\nk=v\n";
  EXPECT_EQ(Converse(daemon.GetPort(), "merge\n" + group + ".\nget\na*\n.\n"), group);
  EXPECT_EQ(Converse(daemon.GetPort(), "get\n*" + std::string(kMegabyte / 2, 'a') + "b*\n.\n"), "");
  EXPECT_EQ(Converse(daemon.GetPort(), "get\na*\n.\n"), group);
}

TEST_F(HostilePeers, HalfClosedPeerGetsTheWholeOfALargeReply) {
  const std::string group = "[Large]\nk=" + std::string(8 * kMegabyte, 'v') + "\n";
  EXPECT_EQ(Converse(_port, "merge\n" + group + ".\nget\nLarge\n.\n"), group);
}

TEST_F(HostilePeers, PeerThatResetsItsConnectionWithinAReplyOrARequestHarmsNobodyElse) {
  const size_t descriptors = CountDescriptors(_daemon.GetId());
  Converse(_port, "merge\n[Large]\nk=" + std::string(8 * kMegabyte, 'v') + "\n.\n");
  for (const char* request :
       {"get delimited\nLarge\n.\n", "subscribe\nLarge\n.\nget delimited\nLarge\n.\n", "dump all\n"}) {
    ProtocolClient client(_port, 4096);
    client.Send(request);
    client.Read(1);
    client.Reset();
    ExpectOthersAreServed();
  }
  ProtocolClient client(_port);
  client.Send("merge\n[A]\nx=");
  _daemon.AwaitIdle();
  client.Reset();
  EXPECT_TRUE(Eventually([&] { return CountDescriptors(_daemon.GetId()) == descriptors; }));
  ExpectOthersAreServed();
}

}  // namespace tavix::test
