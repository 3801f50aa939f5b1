#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>

#include "tavix/settings/TavixSettingsClient.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/programs/server/Daemon.h"
#include "tests/settings/StoreInMode.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/Environment.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"

// What a client learns of its changes.

namespace tavix::test {

using Outcome = Client::Outcome;

namespace {

// A store that is asked for a change, and then on another connection for its figures.
Outcome ApplyOnceAtServerWith(const std::string& reply) {
  ScriptedServer server;
  Client client(Client::SingleThreaded);
  std::optional<Outcome> outcome;
  BackgroundCall call([&] { outcome = client.Apply(DocumentOf("[A]\nx=1\n")); });
  ServerEnd peer = server.Accept();
  peer.ReadThrough();
  peer.ReadThrough();
  peer.Send("result\nok\n");
  ServerEnd asking = server.Accept();
  EXPECT_EQ(asking.ReadThrough(), "info server\nget delimited\n.\n");
  asking.Send(reply);
  asking.HalfClose();
  call.Join();
  return outcome.value();
}

// The question for the figures has a limit of its own, and a machine may stand still for longer.
Outcome Decided(const std::function<Outcome()>& apply) {
  Outcome outcome = Outcome::kMaybeKept;
  Eventually([&] { return (outcome = apply()) != Outcome::kMaybeKept; });
  return outcome;
}

Outcome ApplyAtServerWith(const std::string& reply) {
  return Decided([&] { return ApplyOnceAtServerWith(reply); });
}

}  // namespace

TEST(Outcome, OfAChangeThatADaemonKeeps) {
  for (const Mode mode : {Client::MultiThreaded, Client::SingleThreaded}) {
    const TemporaryDirectory directory;
    const Daemon daemon(directory, {"--user-settings", "user.ini"});
    const ScopedEnvironment endpoint("TAVIX_SETTINGS_SERVER",
                                     ("127.0.0.1:" + std::to_string(daemon.GetPort())).c_str());
    Client client(mode);
    EXPECT_EQ(Decided([&] { return client.Apply(DocumentOf("[A]\nx=1\n")); }), Outcome::kDone);
  }
}

TEST(Outcome, OfAChangeThatADaemonMayNotKeep) {
  EXPECT_EQ(ApplyAtServerWith("Server\n------\nkept=true\n\ndata\n.\n"), Outcome::kDone);
  EXPECT_EQ(ApplyAtServerWith("Server\n------\nkept=false\n\ndata\n.\n"), Outcome::kNotKept);
  EXPECT_EQ(ApplyAtServerWith("Server\n------\nfailure=No space\nkept=true\n\ndata\n.\n"), Outcome::kNotKept);
  EXPECT_EQ(ApplyAtServerWith("data\n.\n"), Outcome::kDone) << "a daemon that is older than the question";
  EXPECT_EQ(ApplyOnceAtServerWith(""), Outcome::kMaybeKept) << "a daemon that does not answer";
}

TEST(Outcome, OfAChangeBeforeAServerThatTakesNoMoreConnections) {
  ScriptedServer server;
  Client client(Client::SingleThreaded);
  std::optional<Outcome> outcome;
  BackgroundCall call([&] { outcome = client.Apply(DocumentOf("[A]\nx=1\n")); });
  ServerEnd peer = server.Accept();
  peer.ReadThrough();
  peer.ReadThrough();
  server.StopListening();
  peer.Send("result\nok\n");
  call.Join();
  EXPECT_EQ(outcome, Outcome::kMaybeKept);
}

// The stores of these tests save nothing.
TEST(Outcome, OfAChangeThatIsMade) {
  for (const Mode mode : kAllModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    EXPECT_EQ(Decided([&] { return store.GetClient()->Apply(DocumentOf("[A]\ny=2\n[B]\n")); }), Outcome::kNotKept);
    EXPECT_EQ(store.Read("*"), "[A]\nx=1\ny=2\n[B]\n");
  }
}

TEST(Outcome, OfAChangeWithARestrictedGroupLeavesTheOthersAlone) {
  for (const Mode mode : kAllModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    EXPECT_EQ(store.GetClient()->Apply(DocumentOf("[A]\nx=2\n[Secure/B]\ny=1\n")), Outcome::kRefused);
    EXPECT_EQ(store.Read("*"), "[A]\nx=1\n");
  }
}

// No reader would ever see it.
TEST(Outcome, OfAChangeOfTheRecordOfDeletedGroups) {
  for (const Mode mode : kAllModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    const std::string record = settings::server::SettingsManager::kDeletedGroups;
    EXPECT_EQ(store.GetClient()->Apply(DocumentOf("[" + record + "]\nA=1\n[B]\nx=2\n")), Outcome::kRefused);
    EXPECT_FALSE(store.GetClient()->TrySetValue("[" + record + "]A", "1"));
    EXPECT_EQ(store.Read("*"), "[A]\nx=1\n");
  }
}

TEST(Outcome, OfAChangeWhoseConditionFails) {
  for (const Mode mode : kAllModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    EXPECT_EQ(store.GetClient()->Apply(DocumentOf("[A]\nx=9\n"), DocumentOf("[A]\nx=2\n")), Outcome::kConditionFailed);
    EXPECT_EQ(store.Read("*"), "[A]\nx=1\n");
    EXPECT_EQ(Decided([&] { return store.GetClient()->Apply(DocumentOf("[A]\nx=1\n"), DocumentOf("[A]\ny=2\n")); }),
              Outcome::kNotKept);
  }
}

TEST(Outcome, OfAValueIsWhetherTheStoreHoldsIt) {
  for (const Mode mode : kAllModes) {
    StoreInMode store(mode);
    EXPECT_TRUE(store.GetClient()->TrySetValue("[A]x", "1"));
    EXPECT_FALSE(store.GetClient()->TrySetValue("[Trusted]x", "1"));
    EXPECT_EQ(store.Read("*"), "[A]\nx=1\n");
  }
}

// The server's answer is the same as to a condition that fails.
TEST(Outcome, OfAChangeThatTheStoreHasNoRoomFor) {
  ScriptedServer server;
  Client client(Client::SingleThreaded);
  std::optional<Outcome> outcome;
  std::optional<Outcome> withCondition;
  BackgroundCall call([&] {
    outcome = client.Apply(DocumentOf("[A]\nx=1\n"));
    withCondition = client.Apply(DocumentOf("[B]\ny=1\n"), DocumentOf("[A]\nx=1\n"));
  });
  ServerEnd peer = server.Accept();
  EXPECT_EQ(peer.ReadThrough(), "test-and-merge\n.\n");
  EXPECT_EQ(peer.ReadThrough(), "[A]\nx=1\n.\n");
  peer.Send("result\nfailure\n");
  EXPECT_EQ(peer.ReadThrough(), "test-and-merge\n[B]\ny=1\n.\n");
  EXPECT_EQ(peer.ReadThrough(), "[A]\nx=1\n.\n");
  peer.Send("result\nfailure\n");
  EXPECT_EQ(peer.ReadThrough(), "get delimited\nB\n.\n");
  peer.Send("data\n[B]\ny=1\n.\n");
  call.Join();
  EXPECT_EQ(outcome, Outcome::kRefused);
  EXPECT_EQ(withCondition, Outcome::kRefused);
}

}  // namespace tavix::test
