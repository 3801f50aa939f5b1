#include "programs/bridge/local/DaemonStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <csignal>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>

#include "programs/bridge/local/DaemonLink.h"
#include "tavix/settings/client/ProtocolClient.h"
#include "tests/programs/server/Daemon.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/Patience.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/StoppedProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace {

using bridge::DaemonLink;
using bridge::DaemonStore;
using bridge::LocalLost;
using bridge::Milliseconds;
using core::IniFile;
using settings::Amendment;
using settings::client::ProtocolClient;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr DaemonStore::Patience kPatient{kPatience, kPatience};
constexpr char kDefaults[] = "[Net/A]\nmtu=1500\nname=a\n[Net/B]\nmtu=1500\n[Other]\nx=1\n";

// A daemon, the store that a bridge makes of it, and a neighbour.
class DaemonStoreTest : public testing::Test {
 protected:
  DaemonStoreTest() { store.Connect(); }

  static ProtocolClient::Options MakeOptions(const std::string& address) {
    ProtocolClient::Options options;
    options.address = address;
    options.timeouts.silence = kPatience;
    return options;
  }

  void Set(const std::string& text) {
    neighbour.Merge(DocumentOf(text));
    neighbour.Flush();
  }

  // The groups of the notices that come, until one is about that group.
  std::set<std::string> AwaitChange(const std::string& group) {
    std::set<std::string> changed;
    while (changed.count(group) == 0) {
      pollfd wait{store.GetDescriptor(), POLLIN, 0};
      if (poll(&wait, 1, static_cast<int>(Milliseconds(kPatience).count())) == 0) throw std::runtime_error("No notice");
      const std::set<std::string> groups = store.TakeChanged();
      changed.insert(groups.begin(), groups.end());
    }
    return changed;
  }

  TemporaryDirectory directory;
  Daemon daemon{directory, {"--defaults", directory.Write("defaults.ini", kDefaults)}};
  const std::string address = daemon.AwaitAddresses()[0];
  ProtocolClient neighbour{MakeOptions(address)};
  DaemonStore store{address, {"Net/*"}, kPatient};
};

Amendment SetIf(const std::string& present, const std::string& set) {
  Amendment amendment;
  amendment.present = DocumentOf(present);
  amendment.set = DocumentOf(set);
  return amendment;
}

std::string FailureOf(const std::function<void()>& call) {
  try {
    call();
    return "";
  } catch (const LocalLost& lost) {
    return lost.what();
  }
}

TEST_F(DaemonStoreTest, ReadsWhatReadersSeeAndWhatTheUsersLayerHolds) {
  Set("[Net/A]\nmtu=9000\n[Other]\nx=2\n");
  EXPECT_EQ(TextOf(store.Read({"Net/A"})), TextOf(DocumentOf("[Net/A]\nmtu=9000\nname=a\n")));
  EXPECT_EQ(TextOf(store.ReadUsers({"Net/A", "Net/B"})), TextOf(DocumentOf("[Net/A]\nmtu=9000\n")));
}

TEST_F(DaemonStoreTest, NamesTheGroupsThatNeighboursChange) {
  Set("[Other]\nx=2\n[Net/B]\nmtu=1400\n");
  EXPECT_THAT(AwaitChange("Net/B"), ElementsAre("Net/B"));
  EXPECT_THAT(store.TakeChanged(), IsEmpty());
}

// So what a read shows behind a change holds each change whose notice came before.
TEST_F(DaemonStoreTest, HasTheNoticeOfItsOwnChangeWhenTheReplyCame) {
  ASSERT_TRUE(store.Amend(SetIf("[Net/A]\nmtu=1500\n", "[Net/A]\nmtu=9000\n")));
  EXPECT_THAT(store.TakeChanged(), ElementsAre("Net/A"));
}

TEST_F(DaemonStoreTest, RemovesAValueSoThatItsDefaultShowsAgain) {
  Set("[Net/A]\nmtu=9000\n");
  Amendment amendment;
  amendment.present = DocumentOf("[Net/A]\nmtu=9000\n");
  amendment.unset = DocumentOf("[Net/A]\nmtu=\n");
  EXPECT_TRUE(store.CanRemove());
  EXPECT_TRUE(store.Amend(amendment));
  EXPECT_EQ(store.Read({"Net/A"}).GetValue("Net/A", "mtu"), "1500");
}

TEST_F(DaemonStoreTest, ChangesNothingWhenANeighbourWasFaster) {
  Set("[Net/A]\nmtu=1400\n");
  EXPECT_FALSE(store.Amend(SetIf("[Net/A]\nmtu=1500\n", "[Net/A]\nmtu=9000\n")));
  EXPECT_EQ(store.Read({"Net/A"}).GetValue("Net/A", "mtu"), "1400");
}

TEST_F(DaemonStoreTest, AGroupThatNoRequestCanNameDoesNotExist) {
  EXPECT_EQ(TextOf(store.Read({"a\nb", ".", "Net/B"})), TextOf(DocumentOf("[Net/B]\nmtu=1500\n")));
  EXPECT_TRUE(store.Read({"a\nb"}).IsEmpty());
  Amendment amendment;
  amendment.set.SetValue("a\nb", "k", "v");
  EXPECT_FALSE(store.Amend(amendment));
  EXPECT_TRUE(store.IsConnected());
}

TEST_F(DaemonStoreTest, IsLostWithTheDaemonAndConnectsAgain) {
  ASSERT_EQ(daemon.Stop(SIGKILL), 128 + SIGKILL);
  EXPECT_NE(FailureOf([&] { store.Read({"Net/A"}); }), "");
  EXPECT_FALSE(store.IsConnected());
  EXPECT_EQ(store.GetDescriptor(), -1);
  EXPECT_THAT(FailureOf([&] { store.Connect(); }), HasSubstr(address));

  const Daemon next(directory, {"--defaults", directory.Path("defaults.ini")});
  DaemonStore again(next.AwaitAddresses()[0], {"Net/*"}, kPatient);
  again.Connect();
  EXPECT_TRUE(again.Read({"Net/A"}).HasGroup("Net/A"));
}

TEST_F(DaemonStoreTest, GivesADaemonUpThatStandsStill) {
  DaemonStore impatient(address, {"Net/*"}, {kPatience, Milliseconds(50)});
  impatient.Connect();
  StopProcess(daemon.GetId());
  EXPECT_NE(FailureOf([&] { impatient.Read({"Net/A"}); }), "");
  daemon.Signal(SIGCONT);
  EXPECT_FALSE(impatient.IsConnected());
}

TEST_F(DaemonStoreTest, AsksBeforeEachCallWhetherItIsToBeMade) {
  bool isEnding = false;
  DaemonStore asking(address, {"Net/*"}, kPatient, [&isEnding] {
    if (isEnding) throw LocalLost("the end");
  });
  asking.Connect();
  EXPECT_TRUE(asking.Read({"Net/A"}).HasGroup("Net/A"));
  isEnding = true;
  EXPECT_EQ(FailureOf([&] { asking.Read({"Net/A"}); }), "the end");
  EXPECT_EQ(FailureOf([&] { (void)asking.Amend(SetIf("", "[Net/A]\nmtu=1\n")); }), "the end");
  EXPECT_EQ(store.Read({"Net/A"}).GetValue("Net/A", "mtu"), "1500");
}

TEST_F(DaemonStoreTest, TakesNoConnectionWhoseSubscriptionIsRefused) {
  const Daemon small(directory, {"--max-subscriptions", "1"});
  DaemonStore two(small.AwaitAddresses()[0], {"A/*", "B/*"}, kPatient);
  EXPECT_EQ(FailureOf([&] { two.Connect(); }), "The daemon has no room for a subscription");
  EXPECT_FALSE(two.IsConnected());
}

// What an older daemon answers to the requests of a connection's beginning.
void AcceptSubscription(ServerEnd& peer) {
  EXPECT_EQ(peer.ReadThrough(), "info features\nget delimited\n.\n");
  peer.Send("data\n.\n");
  EXPECT_EQ(peer.ReadThrough(), "subscribe\nNet/*\n.\n");
  EXPECT_EQ(peer.ReadThrough(), "get delimited\nNet/*\n.\n");
  peer.Send("data\n.\n");
  EXPECT_EQ(peer.ReadThrough("info subscribed"), "info subscribed\n");
  EXPECT_EQ(peer.ReadThrough(), "get delimited\n.\n");
  peer.Send("Subscribed groups\n-----------------\nNet/*\n\ndata\n.\n");
}

TEST(DaemonStore, SetsValuesOfAnOlderDaemonIfWhatIsThereHolds) {
  const ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t) {
    AcceptSubscription(peer);
    EXPECT_EQ(peer.ReadThrough(), "test-and-merge\n[Net/A]\nmtu=1\n.\n");
    EXPECT_EQ(peer.ReadThrough(), "[Net/A]\nmtu=2\n.\n");
    peer.Send("result\nok\n");
    EXPECT_EQ(peer.ReadThrough(), "get delimited\nNet/A\n.\n");
    peer.Send("data\n[Net/A]\nmtu=2\n.\n");
    peer.ReadToEnd();
  });
  DaemonStore store("127.0.0.1:" + std::to_string(server.GetPort()), {"Net/*"}, kPatient);
  store.Connect();
  EXPECT_FALSE(store.CanRemove());
  Amendment amendment = SetIf("[Net/A]\nmtu=1\n", "[Net/A]\nmtu=2\n");
  amendment.unset = DocumentOf("[Net/A]\ngone=\n");
  EXPECT_TRUE(store.Amend(amendment));
}

TEST(DaemonLink, TriesAtOnceAndThenWithinTheLimit) {
  const ScriptedServer server(ListeningSocket::kNotListening);
  DaemonStore store("127.0.0.1:" + std::to_string(server.GetPort()), {"*"});
  DaemonLink link(store, 1);
  EXPECT_EQ(link.GetNext(), Milliseconds(0));
  EXPECT_FALSE(link.Run(Milliseconds(0)));
  EXPECT_THAT(link.GetLastReason(), HasSubstr("127.0.0.1"));
  ASSERT_TRUE(link.GetNext());
  EXPECT_LE(*link.GetNext(), Milliseconds(1000));
  EXPECT_FALSE(link.Run(*link.GetNext()));
  EXPECT_FALSE(link.IsConnected());
}

}  // namespace

}  // namespace tavix::test
