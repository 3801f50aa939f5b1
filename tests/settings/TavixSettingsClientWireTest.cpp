// What the client sends to a server and reads from it, byte by byte.

#include "tavix/settings/TavixSettingsClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>

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
using tavix::test::DocumentOf;
using tavix::test::kRemoteModes;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::TavixSettingsClientTest;
using tavix::test::TextOf;
using Mode = TavixSettingsClient::OperationMode;
using Groups = std::set<std::string>;

TEST_F(TavixSettingsClientTest, ALocatorThatCannotBeParsedSendsNothing) {
  ScriptedServer server;
  TavixSettingsClient client(TavixSettingsClient::SingleThreaded);
  const std::string text = "Failed to parse 'A.x' as a SettingLocator";
  EXPECT_THAT([&] { client.GetValue("A.x"); }, testing::ThrowsMessage<Exception>(text));
  EXPECT_THAT([&] { client.SetValue("A.x", "1"); }, testing::ThrowsMessage<Exception>(text));
  EXPECT_FALSE(server.HasWaitingConnection());
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

}  // namespace
