// Clients with the real daemon.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/DocumentText.h"
#include "tests/support/Environment.h"
#include "tests/support/OwnLoopbackAddress.h"
#include "tests/support/ProtocolClient.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::SettingLocator;
using tavix::settings::TavixSettingsClient;
using tavix::test::Change;
using tavix::test::DaemonProcess;
using tavix::test::DocumentOf;
using tavix::test::Eventually;
using tavix::test::OwnLoopbackAddress;
using tavix::test::ProtocolClient;
using tavix::test::RecordingCallback;
using tavix::test::ScopedEnvironment;
using tavix::test::TemporaryDirectory;
using tavix::test::TextOf;
using Groups = std::set<std::string>;
using Mode = TavixSettingsClient::OperationMode;

// A daemon that all clients of the test are led to, and that can be replaced by another one at the same address.
class ServedByDaemon {
 public:
  ServedByDaemon() {
    _daemon.emplace(TAVIX_SERVER_PROGRAM, _directory.GetPath(),
                    std::vector<std::string>{"--listen", OwnLoopbackAddress() + ":0"});
    _address = _daemon->AwaitAddresses().front();
    _endpoint.emplace("TAVIX_SETTINGS_SERVER", _address.c_str());
  }

  void KillAndReplace() {
    EXPECT_EQ(_daemon->Stop(SIGKILL), 128 + SIGKILL);
    _daemon.reset();
    _daemon.emplace(TAVIX_SERVER_PROGRAM, _directory.GetPath(), std::vector<std::string>{"--listen", _address});
    _daemon->AwaitAddresses();
  }

  // The groups that all of the daemon's subscribers want.
  std::string AskSubscribed() const {
    ProtocolClient client(_address);
    client.Send("info subscribed\n");
    return client.ReadUntil("\n\n");
  }

 private:
  const TemporaryDirectory _directory;
  const ScopedEnvironment _noOverride{"TAVIX_SETTINGS_LOCALFILE", nullptr};
  std::string _address;
  std::optional<DaemonProcess> _daemon;
  std::optional<ScopedEnvironment> _endpoint;
};

TEST(Daemon, ThatIsKilledAndStartedAgainHasAllItsSubscribersBack) {
  constexpr size_t kClients = 50;
  ServedByDaemon daemon;
  std::deque<RecordingCallback> callbacks(kClients);
  std::deque<TavixSettingsClient> clients;
  for (size_t i = 0; i < kClients; ++i)
    clients.emplace_back(TavixSettingsClient::MultiThreaded)
        .Subscribe(&callbacks[i], Groups{"Shared", "Client/" + std::to_string(i)});
  const auto awaitAll = [&] {
    return Eventually([&] {
      const std::string subscribed = daemon.AskSubscribed();
      return std::count(subscribed.begin(), subscribed.end(), '\n') == 2 + kClients + 1 + 1;
    });
  };
  ASSERT_TRUE(awaitAll());
  daemon.KillAndReplace();
  ASSERT_TRUE(awaitAll());
  clients.front().SetValue("[Shared]x", "1");
  for (const RecordingCallback& callback : callbacks) {
    EXPECT_TRUE(Eventually([&] { return !callback.GetChanges().empty(); }));
    EXPECT_THAT(callback.GetChanges(), testing::ElementsAre(Change{{"Shared"}, "[Shared]\nx=1\n"}));
  }
}

TEST(Daemon, ThatIsKilledAndStartedAgainIsFoundByEveryClientsNextCalls) {
  ServedByDaemon daemon;
  TavixSettingsClient multi(TavixSettingsClient::MultiThreaded);
  TavixSettingsClient single(TavixSettingsClient::SingleThreaded);
  EXPECT_EQ(multi.GetValue("[A]x") + single.GetValue("[A]x"), "");
  daemon.KillAndReplace();
  EXPECT_EQ(single.GetValue("[A]x"), "");
  EXPECT_TRUE(Eventually([&] {
    try {
      return multi.GetValue("[A]x").empty();
    } catch (const Exception&) {  // it is told of the loss once
      return false;
    }
  }));
}

// What a client of that mode sees of a session that uses everything but subscriptions.
std::string RunSession(Mode mode) {
  TavixSettingsClient client(mode);
  std::string seen;
  const auto look = [&] {
    IniFile all;
    client.GetSettings("*", all);
    seen += TextOf(all) + "--\n";
  };
  client.MergeSettings(DocumentOf("[A]\nx=1\n[Net/Eth0]\nip=1\n[Net/Eth1]\nip=2\n"));
  client.MergeSettings(DocumentOf("[A]\ny=1\n[Volatile]\nv=1\n"), TavixSettingsClient::kNoPersist);
  client.SetValue(SettingLocator("Feared", "=#"), std::string("\n.\n[x]\0", 7));
  look();
  seen += client.TestAndMerge(DocumentOf("[A]\nx=1\n"), DocumentOf("[A]\nx=2\n")) ? "ok\n" : "failure\n";
  seen += client.TestAndMerge(DocumentOf("[A]\nx=1\n"), DocumentOf("[A]\nx=3\n")) ? "ok\n" : "failure\n";
  client.OverwriteSettings(DocumentOf("[A]\nz=1\n"));
  client.EraseGroups(Groups{"Net/*"});
  look();
  IniFile document = DocumentOf("[A]\n[Volatile]\nv=0\n");
  client.RefreshSettings(document);
  return seen + TextOf(document);
}

TEST(Daemon, ServesClientsOfEveryModeAlike) {
  const std::string expected = RunSession(TavixSettingsClient::Local);
  EXPECT_THAT(expected, testing::HasSubstr("ok\nfailure\n[A]\nz=1\n"));
  for (const int mode : {0, 1, 3, 4}) {
    const ServedByDaemon daemon;
    EXPECT_EQ(RunSession(static_cast<Mode>(mode)), expected) << mode;
  }
}

TEST(Daemon, TellsAClientOfItsOwnAndOfOthersChanges) {
  const ServedByDaemon daemon;
  RecordingCallback callback;
  TavixSettingsClient subscriber(TavixSettingsClient::MultiThreaded);
  TavixSettingsClient other(TavixSettingsClient::SingleThreaded);
  subscriber.Subscribe(&callback, "A*");
  subscriber.SetValue("[A1]x", "1");
  EXPECT_EQ(subscriber.GetValue("[A1]x"), "1");  // and so the daemon knows of the subscription
  other.SetValue("[A2]y", "2");
  other.EraseGroups("A1");
  EXPECT_TRUE(Eventually([&] { return callback.GetChanges().size() == 3; }));
  EXPECT_THAT(callback.GetChanges(),
              testing::ElementsAre(Change{{"A1"}, "[A1]\nx=1\n"}, Change{{"A2"}, "[A2]\ny=2\n"}, Change{{"A1"}, ""}));
}

// What was subscribed before stays, and the client is not cut off to come back and ask for the same.
TEST(Daemon, RefusesTheSubscriptionThatIsOneTooManyAndServesItsClient) {
  const ServedByDaemon daemon;
  RecordingCallback callback;
  TavixSettingsClient client(TavixSettingsClient::MultiThreaded);
  client.Subscribe(&callback, "A");
  Groups names;
  for (int i = 0; i < 4096; ++i) names.insert("Name" + std::to_string(i));
  client.Subscribe(&callback, names);
  for (int i = 1; i <= 3; ++i) {
    client.SetValue("[A]x", std::to_string(i));
    EXPECT_EQ(client.GetValue("[A]x"), std::to_string(i));
  }
  EXPECT_EQ(daemon.AskSubscribed(), "Subscribed groups\n-----------------\nA\n\n");
  EXPECT_TRUE(Eventually([&] { return callback.GetChanges().size() == 3; }));
}

// Nothing is sent of it: the connection goes on.
TEST(Daemon, IsSentNoLineThatItWouldNotTake) {
  const ServedByDaemon daemon;
  for (const Mode mode : {TavixSettingsClient::MultiThreaded, TavixSettingsClient::SingleThreaded}) {
    TavixSettingsClient client(mode);
    EXPECT_THAT([&] { client.SetValue("[Long]key", std::string(17'000'000, 'x')); },
                testing::ThrowsMessage<Exception>(testing::HasSubstr("Key \"key\" of group \"Long\" can't be sent")));
    client.SetValue("[A]x", std::string(16'000'000, 'y'));
    EXPECT_EQ(client.GetValue("[A]x").size(), 16'000'000u);
  }
}

TEST(Daemon, CarriesDocumentsOfMegabytesBothWays) {
  const ServedByDaemon daemon;
  IniFile large;
  for (int i = 0; i < 20000; ++i) large["Group" + std::to_string(i)]["key"] = std::string(200, 'x');
  for (const Mode mode : {TavixSettingsClient::MultiThreaded, TavixSettingsClient::SingleThreaded}) {
    TavixSettingsClient client(mode);
    client.MergeSettings(large);
    IniFile all;
    EXPECT_TRUE(client.GetSettings("*", all));
    EXPECT_EQ(TextOf(all), TextOf(large));
  }
}

TEST(UnixSocket, LeadsClientsOfEveryModeToTheDaemon) {
  const TemporaryDirectory directory;
  const std::string address = "unix:" + directory.Path("settings.sock");
  DaemonProcess daemon(TAVIX_SERVER_PROGRAM, directory.GetPath(), {"--listen", address});
  EXPECT_EQ(daemon.AwaitAddresses().front(), address);
  const ScopedEnvironment endpoint("TAVIX_SETTINGS_SERVER", address.c_str());
  const ScopedEnvironment noOverride("TAVIX_SETTINGS_LOCALFILE", nullptr);
  for (const Mode mode : {TavixSettingsClient::SingleThreaded, TavixSettingsClient::MultiThreaded}) {
    TavixSettingsClient client(mode);
    const std::string value = "mode " + std::to_string(mode);
    client.SetValue("[A]x", value);
    EXPECT_EQ(client.GetValue("[A]x"), value);
  }
}

}  // namespace
