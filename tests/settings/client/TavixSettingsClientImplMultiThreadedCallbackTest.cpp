// What the multi-threaded client makes of what its users' callbacks do.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/settings/client/MultiThreadedExchange.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/LogOf.h"
#include "tests/support/PendingValue.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::TavixSettingsClient;
using tavix::test::BackgroundCall;
using tavix::test::ErrorsIn;
using tavix::test::ExpectGoodCall;
using tavix::test::kGetFailed;
using tavix::test::kMode;
using tavix::test::kNoticeA;
using tavix::test::LogOf;
using tavix::test::PendingValue;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;

TEST(TavixSettingsClientImplMultiThreaded, ACallbackThatThrowsEndsTheConnectionAndTheClientLives) {
  ScriptedServer server;
  std::promise<void> second;
  int calls = 0;
  RecordingCallback callback([&] {
    if (++calls == 1) throw std::runtime_error("of the callback");
    second.set_value();
  });
  TavixSettingsClient client(kMode);
  client.Subscribe(&callback, "A");
  ServerEnd before = server.Accept();
  const auto messages = LogOf([&] {
    before.Send(kNoticeA);
    EXPECT_EQ(before.ReadToEnd(), "subscribe\nA\n.\n");
  });
  EXPECT_THAT(ErrorsIn(messages), testing::ElementsAre("ERROR TavixSettings: Caught of the callback"));
  ServerEnd after = server.Accept();
  EXPECT_EQ(after.ReadThrough(), "subscribe\nA\n.\n");
  after.Send(kNoticeA);
  second.get_future().wait();
}

// The pipes can't be made again: they must stay in use, with all that is on its way in them.
TEST(TavixSettingsClientImplMultiThreaded, ACallbackThatThrowsLeavesALocalConnectionInUse) {
  int calls = 0;
  RecordingCallback callback([&] {
    if (++calls == 1) throw std::runtime_error("of the callback");
  });
  TavixSettingsClient client(TavixSettingsClient::MultiThreadedLocalConnection);
  client.Subscribe(&callback, "A");
  client.SetValue("[A]x", "1");
  EXPECT_THAT([&] { client.GetValue("[A]x"); }, testing::ThrowsMessage<Exception>(kGetFailed));
  EXPECT_EQ(client.GetValue("[A]x"), "1");
  EXPECT_EQ(client.GetValue("[B]x"), "");  // and not the late reply of the call that was failed
  client.SetValue("[A]x", "2");
  EXPECT_EQ(client.GetValue("[A]x"), "2");
  EXPECT_EQ(callback.GetChanges().size(), 2u);
}

TEST(TavixSettingsClientImplMultiThreaded, AnythingElseThatACallbackThrowsEndsTheWorkerAndLaterCallsTimeOut) {
  ScriptedServer server;
  RecordingCallback callback([] { throw 42; });
  TavixSettingsClient client(kMode);
  client.Subscribe(&callback, "A");
  ServerEnd peer = server.Accept();
  PendingValue waits(client);
  peer.ReadThrough(), peer.ReadThrough();
  const auto messages = LogOf(
      [&] {
        peer.Send(kNoticeA);
        EXPECT_EQ(peer.ReadToEnd(), "");
      },
      3);
  EXPECT_THAT(messages, testing::Contains("ERROR Thread: thread 'TavixSettings' ended by an exception: unknown"));
  EXPECT_THAT([&] { waits.Join(); }, testing::ThrowsMessage<Exception>(kGetFailed));
  BackgroundCall get([&] { client.GetValue("[A]x"); });
  BackgroundCall merge([&] { client.SetValue("[A]x", "1"); });
  EXPECT_THAT([&] { get.Join(); }, testing::ThrowsMessage<Exception>(testing::StartsWith("Lock Timeout")));
  EXPECT_THAT([&] { merge.Join(); }, testing::ThrowsMessage<Exception>(testing::StartsWith("Lock Timeout")));
  EXPECT_FALSE(server.HasWaitingConnection());
}

TEST(TavixSettingsClientImplMultiThreaded, CallsThatWouldWaitForThemselvesAreRefusedInACallback) {
  ScriptedServer server;
  std::unique_ptr<TavixSettingsClient> client;
  std::promise<void> done;
  const std::string why = " can't be called from a change callback of the same client: its thread receives the replies";
  RecordingCallback callback([&] {
    IniFile out;
    const auto refuses = [&](const char* name) { return testing::ThrowsMessage<Exception>(name + why); };
    EXPECT_THAT([&] { client->GetSettings("A", out); }, refuses("GetSettings"));
    EXPECT_THAT([&] { client->TestAndMerge(out, out); }, refuses("TestAndMerge"));
    EXPECT_THAT([&] { client->Subscribe(&callback, "B"); }, refuses("Subscribe"));
    EXPECT_THROW(client->UnSubscribe(&callback), Exception);
    client->SetValue("[B]y", "2");
    client->EraseGroups("C");
    client->RestoreToDefaults("D");
    done.set_value();
  });
  client = std::make_unique<TavixSettingsClient>(kMode);
  client->Subscribe(&callback, "A");
  ServerEnd peer = server.Accept();
  peer.Send(kNoticeA);
  done.get_future().wait();
  EXPECT_EQ(peer.ReadThrough("D"), "subscribe\nA\n.\nmerge\n[B]\ny=2\n.\noverwrite\nC\n.\n.\nrestore\nD\n");
  EXPECT_EQ(peer.ReadThrough(), ".\n");
  ExpectGoodCall(*client, peer);
}

}  // namespace
