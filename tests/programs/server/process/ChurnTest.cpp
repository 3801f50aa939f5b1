#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ProcessFigures.h"

namespace tavix::test {

namespace {

constexpr int kConnections = 10'000;

// A client that leaves in one of the ways there are, half of which are resets.
void ComeAndGo(unsigned short port, int way) {
  ProtocolClient client(port);
  switch (way % 6) {
    case 0:
      return;
    case 1:
      return client.Reset();
    case 2:
      return client.AwaitHandled();
    case 3:
      client.AwaitHandled();
      return client.Reset();
    case 4:
      return client.Send("subscribe\nA\n.\nmerge nopersist\n[A]\nx=1\n.\nquit\n");
    default:
      client.Send("subscribe\nA\nB*\n.\nmerge nopersist\n[A]\nx=1\n.\nmerge\n[A]\nx=");
      return client.Reset();
  }
}

}  // namespace

TEST(Churn, TenThousandConnectionsHalfOfThemResetLeaveNothingBehind) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  ProtocolClient bystander(daemon.GetPort());
  bystander.AwaitHandled();
  const size_t descriptors = CountDescriptors(daemon.GetId());
  const size_t threads = CountThreads(daemon.GetId());
  const auto areGone = [&] { return CountDescriptors(daemon.GetId()) == descriptors; };
  for (int i = 0; i < 1000; ++i) ComeAndGo(daemon.GetPort(), i);
  ASSERT_TRUE(Eventually(areGone));
  const size_t memory = ResidentMemory(daemon.GetId());

  for (int i = 0; i < kConnections; ++i) ComeAndGo(daemon.GetPort(), i);

  EXPECT_TRUE(Eventually(areGone)) << CountDescriptors(daemon.GetId()) << " descriptors, not " << descriptors;
  EXPECT_EQ(CountThreads(daemon.GetId()), threads);
  EXPECT_LT(ResidentGrowth(daemon.GetId(), memory), 1024u * 1024);
  bystander.AwaitHandled();
}

// Notices are on their way to them when they leave.
TEST(Churn, SubscribersThatComeAndGoWhileGroupsChangeCostNobodyANotice) {
  constexpr int kChanges = 5000;
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  const unsigned short port = daemon.GetPort();
  ProtocolClient witness(port);
  witness.Send("subscribe\nCounter\n.\n");
  witness.AwaitHandled();
  std::list<BackgroundCall> guests;
  for (int guest = 0; guest < 3; ++guest) {
    guests.emplace_back([port, guest] {
      for (int i = 0; i < 300; ++i) {
        ProtocolClient client(port);
        client.Send("subscribe\n*\n.\nget delimited\nCounter\n.\n");
        client.Read(5);
        if ((i + guest) % 3 == 0) client.Send("quit\n");
        if ((i + guest) % 3 == 1) client.Reset();
      }
    });
  }
  BackgroundCall writer([port] {
    std::string requests;
    for (int n = 0; n < kChanges; ++n) requests += "merge\n[Counter]\nn=" + std::to_string(n) + "\n.\n";
    CarryOut(port, requests);
  });
  for (int n = 0; n < kChanges; ++n) {
    const std::string notice = "async change\nCounter\n.\n[Counter]\nn=" + std::to_string(n) + "\n.\n";
    ASSERT_EQ(witness.Read(notice.size()), notice);
  }
  writer.Join();
  for (BackgroundCall& guest : guests) guest.Join();
  const std::string listing = "Subscribed groups\n-----------------\nCounter\n\n";
  EXPECT_TRUE(Eventually([&] { return Converse(port, "info subscribed\n") == listing; }));
}

}  // namespace tavix::test
