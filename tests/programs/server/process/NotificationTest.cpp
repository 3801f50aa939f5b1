#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

constexpr char kNothingSubscribed[] = "Subscribed groups\n-----------------\n\n";

class Notification : public testing::Test {
 protected:
  Notification() : _daemon(_directory, {"--defaults", _directory.Write("d.ini", "[A]\nx=1\n[Net/Eth0]\nip=1\n")}) {}

  ProtocolClient Subscriber(const std::string& groups) {
    ProtocolClient client(_daemon.GetPort());
    client.Send("subscribe\n" + groups + ".\n");
    client.AwaitHandled();
    return client;
  }

  void Change(const std::string& request) { EXPECT_EQ(Converse(_daemon.GetPort(), request), "") << request; }

  const TemporaryDirectory _directory;
  Daemon _daemon;
};

std::string NoticeOfX(int value) {
  return "async change\nA\n.\n[A]\nx=" + std::to_string(value) + "\n.\n";
}

}  // namespace

TEST_F(Notification, OwnChangesAreAnnounced) {
  ProtocolClient client = Subscriber("A\n");
  client.Send("merge nopersist\n[A]\nx=5\n.\noverwrite\nA\n.\n[A]\nx=6\n.\n");
  EXPECT_EQ(client.ReadUntil("x=6\n.\n"), NoticeOfX(5) + NoticeOfX(6));
}

// Deliberate: a client must be ready for notices before any reply.
TEST_F(Notification, NoticeOfATestAndMergeComesBeforeItsResult) {
  ProtocolClient client = Subscriber("A\n");
  client.Send("test-and-merge\n[A]\nx=1\n.\n[A]\nx=2\n.\n");
  EXPECT_EQ(client.ReadUntil("ok\n"), NoticeOfX(2) + "result\nok\n");
}

TEST_F(Notification, TestAndMergeThatFailsIsNotAnnounced) {
  ProtocolClient client = Subscriber("A\n");
  client.Send("test-and-merge\n[A]\nx=9\n.\n[A]\nx=2\n.\n");
  EXPECT_EQ(client.ReadUntil("failure\n"), "result\nfailure\n");
}

TEST_F(Notification, ChangesOfAnotherConnectionComeInTheirOrder) {
  ProtocolClient subscriber = Subscriber("A\n");
  std::string requests;
  std::string notices;
  for (int value = 100; value < 400; ++value) {
    requests += "merge\n[A]\nx=" + std::to_string(value) + "\n.\n";
    notices += NoticeOfX(value);
  }
  Change(requests);
  EXPECT_EQ(subscriber.Read(notices.size()), notices);
}

TEST_F(Notification, NoticeListsOnlyTheGroupsSubscribedTo) {
  ProtocolClient subscriber = Subscriber("Net/*\n");
  Change("merge\n[A]\nx=2\n.\n");
  Change("merge\n[A]\nx=3\n[Net/Wlan0]\nssid=lab\n[Net/Eth0]\nip=2\n.\n");
  EXPECT_EQ(subscriber.ReadUntil("lab\n.\n"),
            "async change\nNet/Eth0\nNet/Wlan0\n.\n[Net/Eth0]\nip=2\n[Net/Wlan0]\nssid=lab\n.\n");
}

TEST_F(Notification, NoticeShowsTheWholeGroupAndNotOnlyWhatTheRequestSet) {
  ProtocolClient subscriber = Subscriber("A\n");
  Change("merge\n[A]\ny=2\n.\n");
  EXPECT_EQ(subscriber.ReadUntil("\n.\n[A]\nx=1\ny=2\n.\n"), "async change\nA\n.\n[A]\nx=1\ny=2\n.\n");
}

// Deliberate: whoever merges announces, even when no value differs.
TEST_F(Notification, MergeThatChangesNoValueIsAnnounced) {
  ProtocolClient subscriber = Subscriber("A\n");
  Change("merge nopersist\n[A]\nx=1\n.\n");
  EXPECT_EQ(subscriber.ReadUntil("x=1\n.\n"), NoticeOfX(1));
}

TEST_F(Notification, GroupThatIsGoneIsListedAndAbsent) {
  ProtocolClient subscriber = Subscriber("*\n");
  Change("overwrite\nNet/*\n.\n.\n");
  EXPECT_EQ(subscriber.ReadUntil(".\n.\n"), "async change\nNet/Eth0\n.\n.\n");
  Change("merge\n[New]\nk=v\n.\n");
  EXPECT_EQ(subscriber.ReadUntil("k=v\n.\n"), "async change\nNew\n.\n[New]\nk=v\n.\n");
  Change("restore\nN*\n.\n");
  EXPECT_EQ(subscriber.ReadUntil("ip=1\n.\n"), "async change\nNet/Eth0\nNew\n.\n[Net/Eth0]\nip=1\n.\n");
}

TEST_F(Notification, WritesToRestrictedGroupsAreNotAnnounced) {
  ProtocolClient subscriber = Subscriber("*\n");
  Change("merge\n[Secure/Keys]\nk=1\n.\n");
  Change("merge\n[A]\nx=2\n[Trusted/Hosts]\nh=1\n.\n");
  EXPECT_EQ(subscriber.ReadUntil("x=2\n.\n"), NoticeOfX(2));
}

TEST_F(Notification, SubscriptionsGrow) {
  ProtocolClient subscriber = Subscriber("A\n");
  subscriber.Send("subscribe\nB*\n.\nsubscribe\n.\n");
  subscriber.AwaitHandled();
  Change("merge\n[A]\nx=2\n.\nmerge\n[B1]\ny=1\n.\n");
  EXPECT_EQ(subscriber.ReadUntil("y=1\n.\n"), NoticeOfX(2) + "async change\nB1\n.\n[B1]\ny=1\n.\n");
}

TEST_F(Notification, EverySubscriberIsToldInItsOwnSerialization) {
  ProtocolClient plain = Subscriber("A\n");
  ProtocolClient scripted(_daemon.GetPort());
  scripted.Send("serialize phparray\nsubscribe\nA\n.\n");
  scripted.AwaitHandled();
  Change("merge\n[A]\nx=2\n.\n");
  EXPECT_EQ(plain.ReadUntil("x=2\n.\n"), NoticeOfX(2));
  EXPECT_EQ(scripted.ReadUntil("\n\n.\n"), "async change\nA\n.\na:1:{s:1:\"A\";a:1:{s:1:\"x\";s:1:\"2\";}}\n\n.\n");
}

TEST_F(Notification, SubscriptionEndsWithItsConnection) {
  ProtocolClient quits = Subscriber("A\n");
  ProtocolClient halfCloses = Subscriber("B\n");
  ProtocolClient closes = Subscriber("C\n");
  ProtocolClient resets = Subscriber("D\n");
  quits.Send("quit\n");
  EXPECT_EQ(quits.ReadToEnd(), "");
  halfCloses.HalfClose();
  EXPECT_EQ(halfCloses.ReadToEnd(), "");
  closes.Close();
  resets.Reset();
  EXPECT_TRUE(Eventually([&] { return Converse(_daemon.GetPort(), "info subscribed\n") == kNothingSubscribed; }));
}

}  // namespace tavix::test
