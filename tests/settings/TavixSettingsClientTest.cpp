#include "tavix/settings/TavixSettingsClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/Environment.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::SettingLocator;
using tavix::settings::TavixSettingsClient;
using tavix::test::BackgroundCall;
using tavix::test::Change;
using tavix::test::DocumentOf;
using tavix::test::Eventually;
using tavix::test::RecordingCallback;
using tavix::test::ScopedEnvironment;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::TextOf;
using Mode = TavixSettingsClient::OperationMode;
using Groups = std::set<std::string>;

static_assert(TavixSettingsClient::MultiThreaded == 0);
static_assert(TavixSettingsClient::SingleThreaded == 1);
static_assert(TavixSettingsClient::Local == 2);
static_assert(TavixSettingsClient::SingleThreadedLocalConnection == 3);
static_assert(TavixSettingsClient::MultiThreadedLocalConnection == 4);
static_assert(TavixSettingsClient::kNoPersist == 1);
static_assert(!std::is_copy_constructible_v<TavixSettingsClient>);

const Mode kInProcessModes[] = {TavixSettingsClient::Local, TavixSettingsClient::SingleThreadedLocalConnection,
                                TavixSettingsClient::MultiThreadedLocalConnection};
const Mode kRemoteModes[] = {TavixSettingsClient::MultiThreaded, TavixSettingsClient::SingleThreaded};
const Mode kModesThatReceive[] = {TavixSettingsClient::Local, TavixSettingsClient::MultiThreadedLocalConnection};

constexpr char kOverride[] = "TAVIX_SETTINGS_LOCALFILE";

Mode ModeOf(int number) {
  return static_cast<Mode>(number);
}

std::string AllOf(const TavixSettingsClient& client) {
  IniFile all;
  client.GetSettings("*", all);
  return TextOf(all);
}

// Clients of a process whose environment says nothing about settings.
class TavixSettingsClientTest : public testing::Test {
 private:
  const ScopedEnvironment _noOverride{kOverride, nullptr};
};

TEST_F(TavixSettingsClientTest, AnUnknownModeIsRefused) {
  for (const int number : {5, 7, 1000, -1}) {
    EXPECT_THAT([&] { TavixSettingsClient client(ModeOf(number)); },
                testing::ThrowsMessage<Exception>("Invalid or unsupported operation mode"));
    EXPECT_THAT([&] { TavixSettingsClient client(ModeOf(number), IniFile()); },
                testing::ThrowsMessage<Exception>("Invalid or unsupported operation mode"));
  }
}

TEST_F(TavixSettingsClientTest, ALocalClientCopiesItsDefaults) {
  auto defaults = std::make_unique<IniFile>(DocumentOf("[A]\nx=1\n"));
  TavixSettingsClient client(TavixSettingsClient::Local, *defaults);
  defaults.reset();
  client.SetValue("[A]x", "2");
  client.RestoreToDefaults("A");
  EXPECT_EQ(AllOf(client), "[A]\nx=1\n");
}

TEST_F(TavixSettingsClientTest, DefaultsOfConnectedClientsAreTheServersAlone) {
  for (const Mode mode :
       {TavixSettingsClient::SingleThreadedLocalConnection, TavixSettingsClient::MultiThreadedLocalConnection}) {
    const TavixSettingsClient client(mode, DocumentOf("[A]\nx=1\n"));
    EXPECT_EQ(AllOf(client), "") << mode;
  }
  for (const Mode mode : kRemoteModes) {
    ScriptedServer server;
    TavixSettingsClient client(mode, DocumentOf("[A]\nx=1\n"));
    BackgroundCall merge([&] { client.MergeSettings(IniFile()); });
    EXPECT_EQ(server.Accept().ReadThrough(), "merge\n.\n") << mode;
    merge.Join();
  }
}

TEST_F(TavixSettingsClientTest, EveryClientHasAStoreOfItsOwnInProcessModes) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient first(mode);
    const TavixSettingsClient second(mode);
    first.SetValue("[A]x", "1");
    EXPECT_EQ(AllOf(second), "") << mode;
  }
}

TEST_F(TavixSettingsClientTest, GetsNamesAndPatternsAndKeepsWhatTheDocumentHeld) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.MergeSettings(DocumentOf("[A]\nx=1\n[Net/Eth0]\nip=2\n[Net/Eth1]\nip=3\n[Other]\ny=4\n"));
    IniFile out = DocumentOf("[A]\nx=0\nz=0\n[Mine]\nm=0\n");
    EXPECT_TRUE(client.GetSettings(Groups{"A", "Net/*", "Missing"}, out));
    EXPECT_EQ(TextOf(out), "[A]\nx=1\nz=0\n[Mine]\nm=0\n[Net/Eth0]\nip=2\n[Net/Eth1]\nip=3\n") << mode;
  }
}

TEST_F(TavixSettingsClientTest, GetsNothingForNoGroups) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.SetValue("[A]x", "1");
    IniFile out;
    EXPECT_TRUE(client.GetSettings(Groups{}, out));
    EXPECT_TRUE(out.IsEmpty()) << mode;
  }
}

TEST_F(TavixSettingsClientTest, ValuesThatTextFearsSurviveEveryMode) {
  const IniFile feared({{"", {{"", ""}, {"=", "\n.\n"}}},
                        {"[x]", {{".", "."}, {"#", std::string("\0\x01\xff", 3)}}},
                        {"..", {}},
                        {" blank ", {{" k ", " v "}}}});
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.MergeSettings(feared);
    EXPECT_EQ(AllOf(client), TextOf(feared)) << mode;
  }
}

TEST_F(TavixSettingsClientTest, AValueThatIsNotThereIsEmptyAndNoError) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.SetValue("[A]x", "1");
    EXPECT_EQ(client.GetValue("[A]y"), "") << mode;
    EXPECT_EQ(client.GetValue("[B]x"), "") << mode;
  }
}

TEST_F(TavixSettingsClientTest, AValueThatIsNotSetIsToldFromAnEmptyOne) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.SetValue("[A]x", "");
    client.SetValue("[A]y", "1");
    EXPECT_EQ(client.FindValue("[A]x"), std::optional<std::string>("")) << mode;
    EXPECT_EQ(client.FindValue(SettingLocator("A", "y")), std::optional<std::string>("1")) << mode;
    for (const char* unset : {"[A]z", "[B]x", "[*]x"})
      EXPECT_EQ(client.FindValue(unset), std::nullopt) << mode << unset;
  }
}

TEST_F(TavixSettingsClientTest, SetsAndGetsOneValueByTextOrByLocator) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.SetValue("[A]x", "1");
    client.SetValue(SettingLocator("A", "y"), "2");
    EXPECT_EQ(client.GetValue(SettingLocator("A", "x")), "1") << mode;
    EXPECT_EQ(client.GetValue("[A]y"), "2") << mode;
    EXPECT_EQ(AllOf(client), "[A]\nx=1\ny=2\n") << mode;
  }
}

// A value is read out of the group that has the locator's very name, also when that name is taken for a pattern.
TEST_F(TavixSettingsClientTest, AValueOfAPatternIsNotThere) {
  TavixSettingsClient client(TavixSettingsClient::Local);
  client.SetValue("[A]x", "1");
  EXPECT_EQ(client.GetValue("[*]x"), "");
}

TEST_F(TavixSettingsClientTest, ALocatorThatCannotBeParsedSendsNothing) {
  ScriptedServer server;
  TavixSettingsClient client(TavixSettingsClient::SingleThreaded);
  const std::string text = "Failed to parse 'A.x' as a SettingLocator";
  EXPECT_THAT([&] { client.GetValue("A.x"); }, testing::ThrowsMessage<Exception>(text));
  EXPECT_THAT([&] { client.SetValue("A.x", "1"); }, testing::ThrowsMessage<Exception>(text));
  EXPECT_FALSE(server.HasWaitingConnection());
}

TEST_F(TavixSettingsClientTest, RefreshReadsTheGroupsOfTheDocumentAgain) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.MergeSettings(DocumentOf("[A]\nx=1\n[B]\ny=2\n"));
    IniFile document = DocumentOf("[A]\nx=0\nz=0\n[Gone]\ng=0\n");
    EXPECT_TRUE(client.RefreshSettings(document));
    EXPECT_EQ(TextOf(document), "[A]\nx=1\nz=0\n[Gone]\ng=0\n") << mode;
  }
}

TEST_F(TavixSettingsClientTest, RefreshLeavesAnEmptyDocumentEmpty) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.SetValue("[A]x", "1");
    IniFile document;
    EXPECT_TRUE(client.RefreshSettings(document));
    EXPECT_TRUE(document.IsEmpty()) << mode;
  }
}

TEST_F(TavixSettingsClientTest, TestAndMergeMergesOnlyWhatStillHolds) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.SetValue("[A]x", "1");
    EXPECT_TRUE(client.TestAndMerge(DocumentOf("[A]\nx=1\n"), DocumentOf("[A]\nx=2\n"))) << mode;
    EXPECT_FALSE(client.TestAndMerge(DocumentOf("[A]\nx=1\n"), DocumentOf("[A]\nx=3\n"))) << mode;
    EXPECT_TRUE(client.TestAndMerge(IniFile(), DocumentOf("[A]\ny=1\n"))) << mode;
    EXPECT_EQ(AllOf(client), "[A]\nx=2\ny=1\n") << mode;
  }
}

TEST_F(TavixSettingsClientTest, ErasesGroups) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.MergeSettings(DocumentOf("[A]\nx=1\n[B]\nx=1\n[C]\nx=1\n[D]\nx=1\n"));
    client.EraseGroups("A");
    EXPECT_EQ(AllOf(client), "[B]\nx=1\n[C]\nx=1\n[D]\nx=1\n") << mode;
    client.EraseGroups(Groups{"B", "C", "Missing"});
    EXPECT_EQ(AllOf(client), "[D]\nx=1\n") << mode;
  }
}

TEST_F(TavixSettingsClientTest, OverwritesTheGroupsNamedByTheContentGiven) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.MergeSettings(DocumentOf("[A]\nx=1\n[B]\nx=1\n[C]\nx=1\n"));
    client.OverwriteSettings("A", DocumentOf("[A]\ny=2\n"));
    EXPECT_EQ(AllOf(client), "[A]\ny=2\n[B]\nx=1\n[C]\nx=1\n") << mode;
    client.OverwriteSettings(Groups{"A", "B"}, DocumentOf("[B]\nz=3\n"));
    EXPECT_EQ(AllOf(client), "[B]\nz=3\n[C]\nx=1\n") << mode;
  }
}

TEST_F(TavixSettingsClientTest, OverwritingByADocumentTouchesOnlyTheGroupsThatItHolds) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    client.MergeSettings(DocumentOf("[A]\nx=1\n[B]\nx=1\n"));
    client.OverwriteSettings(DocumentOf("[B]\ny=2\n[C]\nz=3\n"));
    EXPECT_EQ(AllOf(client), "[A]\nx=1\n[B]\ny=2\n[C]\nz=3\n") << mode;
    client.OverwriteSettings(IniFile());
    EXPECT_EQ(AllOf(client), "[A]\nx=1\n[B]\ny=2\n[C]\nz=3\n") << mode;
  }
}

TEST_F(TavixSettingsClientTest, RestoresDefaultsOfNamesAndPatterns) {
  TavixSettingsClient client(TavixSettingsClient::Local, DocumentOf("[A]\nx=1\n[Net/Eth0]\nip=1\n[Net/Eth1]\nip=1\n"));
  client.MergeSettings(DocumentOf("[A]\nx=2\n[Net/Eth0]\nip=2\n[Net/Eth1]\nip=2\n"));
  client.RestoreToDefaults("Net/Eth0");
  EXPECT_EQ(AllOf(client), "[A]\nx=2\n[Net/Eth0]\nip=1\n[Net/Eth1]\nip=2\n");
  client.RestoreToDefaults(Groups{"A", "Net/*"});
  EXPECT_EQ(AllOf(client), "[A]\nx=1\n[Net/Eth0]\nip=1\n[Net/Eth1]\nip=1\n");
}

TEST_F(TavixSettingsClientTest, EachOperationIsOneRequestAndAMergePersistsUnlessToldOtherwise) {
  const IniFile document = DocumentOf("[B]\ny=2\n[A]\nx=1\n");
  const struct {
    void (*call)(TavixSettingsClient& client, const IniFile& document);
    const char* request;
  } cases[] = {
      {[](auto& c, auto& d) { c.MergeSettings(d); }, "merge\n[A]\nx=1\n[B]\ny=2\n.\n"},
      {[](auto& c, auto& d) { c.MergeSettings(d, 0); }, "merge\n[A]\nx=1\n[B]\ny=2\n.\n"},
      {[](auto& c, auto& d) { c.MergeSettings(d, 1); }, "merge nopersist\n[A]\nx=1\n[B]\ny=2\n.\n"},
      {[](auto& c, auto& d) { c.MergeSettings(d, 6); }, "merge\n[A]\nx=1\n[B]\ny=2\n.\n"},
      {[](auto& c, auto&) { c.SetValue("[A]x", "5"); }, "merge\n[A]\nx=5\n.\n"},
      {[](auto& c, auto&) { c.SetValue(SettingLocator("A", ""), ""); }, "merge\n[A]\n=\n.\n"},
      {[](auto& c, auto& d) { c.OverwriteSettings(d); }, "overwrite\nA\nB\n.\n[A]\nx=1\n[B]\ny=2\n.\n"},
      {[](auto& c, auto& d) { c.OverwriteSettings("C", d); }, "overwrite\nC\n.\n[A]\nx=1\n[B]\ny=2\n.\n"},
      {[](auto& c, auto& d) {
         c.OverwriteSettings(Groups{"D", "C"}, d);
       },
       "overwrite\nC\nD\n.\n[A]\nx=1\n[B]\ny=2\n.\n"},
      {[](auto& c, auto&) { c.EraseGroups("A"); }, "overwrite\nA\n.\n.\n"},
      {[](auto& c, auto&) {
         c.EraseGroups(Groups{"B", "A"});
       },
       "overwrite\nA\nB\n.\n.\n"},
      {[](auto& c, auto&) { c.RestoreToDefaults("A"); }, "restore\nA\n.\n"},
      {[](auto& c, auto&) {
         c.RestoreToDefaults(Groups{"B", "A*"});
       },
       "restore\nA*\nB\n.\n"},
  };
  for (const Mode mode : kRemoteModes) {
    ScriptedServer server;
    TavixSettingsClient client(mode);
    BackgroundCall calls([&] {
      for (const auto& each : cases) each.call(client, document);
      client.SetValue("[End]of", "requests");
    });
    ServerEnd peer = server.Accept();
    calls.Join();
    std::string expected;
    for (const auto& each : cases) expected += each.request;
    EXPECT_EQ(peer.ReadThrough("of=requests"), expected + "merge\n[End]\nof=requests\n") << mode;
  }
}

TEST_F(TavixSettingsClientTest, AReplyThatIsNoSettingsTextIsNoValueAndNotSaidToBeUnset) {
  ScriptedServer server;
  TavixSettingsClient client(TavixSettingsClient::MultiThreaded);
  BackgroundCall calls([&] {
    EXPECT_EQ(client.GetValue("[A]x"), "");
    EXPECT_THAT([&] { client.FindValue("[A]x"); },
                testing::ThrowsMessage<Exception>("The settings server's reply for '[A]x' can't be read"));
  });
  ServerEnd peer = server.Accept();
  for (int i = 0; i < 2; ++i) {
    peer.ReadThrough();
    peer.Send("data\nno settings text\n.\n");
  }
  calls.Join();
}

TEST_F(TavixSettingsClientTest, AConditionWhoseGroupsCannotBeReadIsNotSaidToHaveFailed) {
  ScriptedServer server;
  TavixSettingsClient client(TavixSettingsClient::MultiThreaded);
  BackgroundCall call([&] {
    EXPECT_THAT([&] { static_cast<void>(client.Apply(DocumentOf("[A]\nx=1\n[B]\n"), DocumentOf("[A]\nx=2\n"))); },
                testing::ThrowsMessage<Exception>("The settings server's reply for '[A], [B]' can't be read"));
  });
  ServerEnd peer = server.Accept();
  peer.ReadThrough();
  peer.ReadThrough();
  peer.Send("result\nfailure\n");
  peer.ReadThrough();
  peer.Send("data\nno settings text\n.\n");
  call.Join();
}

TEST_F(TavixSettingsClientTest, EachOperationThatAsksSendsOneRequestAndReadsItsReply) {
  const struct {
    void (*call)(TavixSettingsClient& client);
    const char* request;
    const char* reply;
  } cases[] = {
      {[](auto& c) { EXPECT_EQ(c.GetValue("[A]x"), "1"); }, "get delimited\nA\n.\n", "data\n[A]\nx=1\n.\n"},
      {[](auto& c) { EXPECT_EQ(c.FindValue("[A]x"), std::nullopt); }, "get delimited\nA\n.\n", "data\n.\n"},
      {[](auto& c) {
         IniFile out;
         EXPECT_TRUE(c.GetSettings("A", out));
         EXPECT_EQ(TextOf(out), "[A]\nx=1\n");
       },
       "get delimited\nA\n.\n", "data\n[A]\nx=1\n.\n"},
      {[](auto& c) {
         IniFile out;
         EXPECT_TRUE(c.GetSettings(Groups{"B", "A*"}, out));
         EXPECT_TRUE(out.IsEmpty());
       },
       "get delimited\nA*\nB\n.\n", "data\n.\n"},
      {[](auto& c) {
         IniFile document = DocumentOf("[B]\ny=0\n[A]\nx=0\n");
         EXPECT_TRUE(c.RefreshSettings(document));
         EXPECT_EQ(TextOf(document), "[A]\nx=1\n[B]\ny=0\n");
       },
       "get delimited\nA\nB\n.\n", "data\n[A]\nx=1\n.\n"},
      {[](auto& c) {
         IniFile empty;
         EXPECT_TRUE(c.RefreshSettings(empty));
         EXPECT_TRUE(empty.IsEmpty());
       },
       "get delimited\n.\n", "data\n.\n"},
      {[](auto& c) { EXPECT_TRUE(c.TestAndMerge(DocumentOf("[A]\nx=1\n"), DocumentOf("[A]\nx=2\n"))); },
       "test-and-merge\n[A]\nx=1\n.\n[A]\nx=2\n.\n", "result\nok\n"},
      {[](auto& c) { EXPECT_FALSE(c.TestAndMerge(IniFile(), IniFile())); }, "test-and-merge\n.\n.\n",
       "result\nfailure\n"},
  };
  for (const Mode mode : kRemoteModes) {
    ScriptedServer server;
    TavixSettingsClient client(mode);
    BackgroundCall calls([&] {
      for (const auto& each : cases) each.call(client);
    });
    ServerEnd peer = server.Accept();
    for (const auto& each : cases) {
      std::string request = peer.ReadThrough();
      if (request.rfind("test-and-merge", 0) == 0) request += peer.ReadThrough();
      EXPECT_EQ(request, each.request) << mode;
      peer.Send(each.reply);
    }
    calls.Join();
  }
}

TEST_F(TavixSettingsClientTest, SingleThreadedClientsRefuseToSubscribeEvenWithAServer) {
  ScriptedServer server;
  RecordingCallback callback;
  for (const Mode mode : {TavixSettingsClient::SingleThreaded, TavixSettingsClient::SingleThreadedLocalConnection}) {
    TavixSettingsClient client(mode);
    const std::string text = "TavixSettingsClient::Subscribe not supported in single threaded mode";
    EXPECT_THAT([&] { client.Subscribe(&callback, "A"); }, testing::ThrowsMessage<Exception>(text));
    EXPECT_THAT([&] { client.Subscribe(&callback, Groups{}); }, testing::ThrowsMessage<Exception>(text));
  }
}

TEST_F(TavixSettingsClientTest, SubscribersAreToldOfTheirGroups) {
  for (const Mode mode : kModesThatReceive) {
    RecordingCallback callback;
    TavixSettingsClient client(mode);
    client.Subscribe(&callback, "A");
    client.Subscribe(&callback, Groups{"Net/*"});
    client.MergeSettings(DocumentOf("[A]\nx=1\n[Net/Eth0]\nip=1\n[Other]\ny=1\n"));
    ASSERT_TRUE(Eventually([&] { return callback.GetChanges().size() == 1; })) << mode;
    EXPECT_EQ(callback.GetChanges().front(), (Change{{"A", "Net/Eth0"}, "[A]\nx=1\n[Net/Eth0]\nip=1\n"})) << mode;
  }
}

TEST_F(TavixSettingsClientTest, AGroupThatWentIsNamedAndNotInTheDocument) {
  for (const Mode mode : kModesThatReceive) {
    RecordingCallback callback;
    TavixSettingsClient client(mode);
    client.SetValue("[A]x", "1");
    client.Subscribe(&callback, "*");
    client.EraseGroups("A");
    ASSERT_TRUE(Eventually([&] { return callback.GetChanges().size() == 1; })) << mode;
    EXPECT_EQ(callback.GetChanges().front(), (Change{{"A"}, ""})) << mode;
  }
}

TEST_F(TavixSettingsClientTest, UnSubscribeEndsTheCallsOfOneCallback) {
  RecordingCallback stays, goes;
  TavixSettingsClient client(TavixSettingsClient::MultiThreadedLocalConnection);
  client.Subscribe(&stays, "A");
  client.Subscribe(&goes, "A");
  client.UnSubscribe(&goes);
  client.SetValue("[A]x", "1");
  EXPECT_TRUE(Eventually([&] { return stays.GetChanges().size() == 1; }));
  EXPECT_TRUE(goes.GetChanges().empty());
}

// The asymmetry is deliberate: a local client's subscribers stay for its whole life.
TEST_F(TavixSettingsClientTest, UnSubscribeDoesNothingInALocalClient) {
  RecordingCallback callback;
  TavixSettingsClient client(TavixSettingsClient::Local);
  client.Subscribe(&callback, "A");
  client.UnSubscribe(&callback);
  client.SetValue("[A]x", "1");
  EXPECT_EQ(callback.GetChanges().size(), 1u);
}

TEST_F(TavixSettingsClientTest, DetachEndsTheCallsInEveryMode) {
  for (const Mode mode : kModesThatReceive) {
    RecordingCallback stays, goes;
    TavixSettingsClient client(mode);
    client.Subscribe(&stays, "A");
    client.Subscribe(&goes, "A");
    client.Detach(&goes);
    client.SetValue("[A]x", "1");
    EXPECT_TRUE(Eventually([&] { return stays.GetChanges().size() == 1; })) << mode;
    EXPECT_TRUE(goes.GetChanges().empty()) << mode;
  }
}

TEST_F(TavixSettingsClientTest, UnSubscribingAnUnknownCallbackIsNoError) {
  for (const Mode mode : kInProcessModes) {
    RecordingCallback callback;
    TavixSettingsClient client(mode);
    EXPECT_NO_THROW(client.UnSubscribe(&callback)) << mode;
    EXPECT_NO_THROW(client.UnSubscribe(nullptr)) << mode;
  }
}

TEST_F(TavixSettingsClientTest, NamesThatCannotStandOnALineAreRefusedByConnectedClients) {
  const std::string bad = "a\nb";
  const IniFile badDocument({{bad, {{"x", "1"}}}});
  for (const Mode mode :
       {TavixSettingsClient::SingleThreadedLocalConnection, TavixSettingsClient::MultiThreadedLocalConnection}) {
    TavixSettingsClient client(mode);
    IniFile out;
    EXPECT_THROW(client.GetSettings(bad, out), Exception) << mode;
    EXPECT_THROW(client.MergeSettings(badDocument), Exception) << mode;
    EXPECT_THROW(client.TestAndMerge(badDocument, IniFile()), Exception) << mode;
    EXPECT_THROW(client.TestAndMerge(IniFile(), badDocument), Exception) << mode;
    EXPECT_THROW(client.OverwriteSettings(".", IniFile()), Exception) << mode;
    EXPECT_THROW(client.OverwriteSettings("A", badDocument), Exception) << mode;
    EXPECT_THROW(client.RestoreToDefaults(bad), Exception) << mode;
    client.SetValue("[A]x", "1");
    EXPECT_EQ(AllOf(client), "[A]\nx=1\n") << mode;
  }
}

// A store in the process needs no lines.
TEST_F(TavixSettingsClientTest, ALocalClientTakesAnyName) {
  TavixSettingsClient client(TavixSettingsClient::Local);
  client.SetValue(SettingLocator("a\nb", "x"), "1");
  client.SetValue(SettingLocator(".", "x"), "2");
  EXPECT_EQ(client.GetValue(SettingLocator("a\nb", "x")), "1");
  EXPECT_EQ(client.GetValue(SettingLocator(".", "x")), "2");
}

TEST_F(TavixSettingsClientTest, ManyThreadsShareOneClient) {
  for (const Mode mode : kInProcessModes) {
    TavixSettingsClient client(mode);
    std::vector<std::unique_ptr<BackgroundCall>> calls;
    for (int thread = 0; thread < 8; ++thread) {
      calls.push_back(std::make_unique<BackgroundCall>([&client, locator = "[T]" + std::to_string(thread)] {
        for (int i = 0; i < 100; ++i) {
          client.SetValue(locator, std::to_string(i));
          EXPECT_EQ(client.GetValue(locator), std::to_string(i));
        }
      }));
    }
    for (auto& call : calls) call->Join();
  }
}

}  // namespace
