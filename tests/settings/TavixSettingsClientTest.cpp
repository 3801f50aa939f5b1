#include "tavix/settings/TavixSettingsClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tests/settings/TavixSettingsClientTest.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
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
using tavix::test::kRemoteModes;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::TavixSettingsClientTest;
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
const Mode kModesThatReceive[] = {TavixSettingsClient::Local, TavixSettingsClient::MultiThreadedLocalConnection};

Mode ModeOf(int number) {
  return static_cast<Mode>(number);
}

std::string AllOf(const TavixSettingsClient& client) {
  IniFile all;
  client.GetSettings("*", all);
  return TextOf(all);
}

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
