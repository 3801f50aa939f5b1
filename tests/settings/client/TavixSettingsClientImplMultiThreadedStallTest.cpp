// How the multi-threaded client gets on with a peer that does not read. Where something else than the limit of ten
// seconds is to end a write, its connection has no limit: otherwise it hangs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/Time.h"
#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"
#include "tavix/settings/client/TavixSettingsTcpConnection.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::client::TavixSettingsClientImplMultiThreaded;
using tavix::settings::client::TavixSettingsTcpConnection;
using tavix::test::BackgroundCall;
using tavix::test::ElapsedTime;
using tavix::test::Eventually;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::TextOf;

constexpr char kMergeLost[] = "MergeSettings lost connection to tavix-settings-server";

// More than the buffers of a connection hold.
IniFile LargeDocument() {
  IniFile document;
  for (int i = 0; i < 16; ++i) document["Large"][std::to_string(i)] = std::string(1 << 20, 'x');
  return document;
}

// With another limit than ten seconds.
template <unsigned int milliseconds>
class LimitedConnection : public TavixSettingsTcpConnection {
 public:
  void EnsureConnection(int attempts) override {
    TavixSettingsTcpConnection::EnsureConnection(attempts);
    LimitWrites(milliseconds);
  }
};

class PatientClient {
 public:
  auto* operator->() { return &_client; }

 private:
  using Connection = LimitedConnection<tavix::osa::kWaitForever>;
  TavixSettingsClientImplMultiThreaded _client{std::make_unique<Connection>().release()};
};

// A caller that is blocked in a write to a peer which reads nothing.
struct BlockedMerge {
  BlockedMerge() : peer(server.Accept()), merge([this] { client->MergeSettings(LargeDocument(), 0); }) {
    peer.AwaitBytes();
    merge.AwaitBlocked();
  }

  ScriptedServer server;
  PatientClient client;
  ServerEnd peer;
  BackgroundCall merge;
};

TEST(TavixSettingsClientImplMultiThreaded, AWriteWithoutProgressEndsAfterItsLimitAndTheWorkerWakes) {
  ScriptedServer server;
  TavixSettingsClientImplMultiThreaded client(std::make_unique<LimitedConnection<1000>>().release());
  const ServerEnd before = server.Accept();
  const IniFile large = LargeDocument();
  const ElapsedTime took(
      [&] { EXPECT_THAT([&] { client.MergeSettings(large, 0); }, testing::ThrowsMessage<Exception>(kMergeLost)); });
  EXPECT_GE(took.milliseconds, 1000);
  EXPECT_LT(took.undisturbed, 9000);
  ServerEnd after = server.Accept();
  client.RestoreToDefaults({"A"});
  EXPECT_EQ(after.ReadThrough(), "restore\nA\n.\n");
}

TEST(TavixSettingsClientImplMultiThreaded, TheEndOfThePeersOutputWakesABlockedWriter) {
  BlockedMerge blocked;
  blocked.peer.HalfClose();
  EXPECT_THAT([&] { blocked.merge.Join(); }, testing::ThrowsMessage<Exception>(kMergeLost));
}

TEST(TavixSettingsClientImplMultiThreaded, AResetWakesABlockedWriter) {
  BlockedMerge blocked;
  blocked.peer.Reset();
  EXPECT_THAT([&] { blocked.merge.Join(); }, testing::ThrowsMessage<Exception>(kMergeLost));
}

TEST(TavixSettingsClientImplMultiThreaded, ACallbackThatThrowsWakesABlockedWriter) {
  ScriptedServer server;
  RecordingCallback callback([] { throw std::runtime_error("of the callback"); });
  PatientClient client;
  client->Subscribe(&callback, {"A"});
  ServerEnd peer = server.Accept();
  BackgroundCall merge([&] { client->MergeSettings(LargeDocument(), 0); });
  peer.ReadThrough("merge");
  merge.AwaitBlocked();
  peer.Send("async change\nA\n.\n.\n");
  EXPECT_THAT([&] { merge.Join(); }, testing::ThrowsMessage<Exception>(kMergeLost));
}

// The server reads no request before it has written its reply: the worker must read it though a caller that is blocked
// in a write has the right to write.
TEST(TavixSettingsClientImplMultiThreaded, ALargeReplyIsReadWhileALargeRequestIsWritten) {
  ScriptedServer server;
  PatientClient client;
  ServerEnd peer = server.Accept();
  IniFile out;
  BackgroundCall get([&] { EXPECT_TRUE(client->GetSettings({"Large"}, out)); });
  peer.ReadThrough();
  BackgroundCall merge([&] { client->MergeSettings(LargeDocument(), 0); });
  peer.AwaitBytes();
  merge.AwaitBlocked();
  const std::string large = TextOf(LargeDocument());
  peer.Send("data\n" + large + ".\n");
  get.Join();
  EXPECT_TRUE(TextOf(out) == large);
  EXPECT_FALSE(merge.HasEnded());
  EXPECT_TRUE(peer.ReadThrough() == "merge\n" + large + ".\n");
  merge.Join();
}

TEST(TavixSettingsClientImplMultiThreaded, LargeNoticesAreReadWhileALargeRequestIsWritten) {
  ScriptedServer server;
  RecordingCallback callback;
  PatientClient client;
  client->Subscribe(&callback, {"Large"});
  ServerEnd peer = server.Accept();
  peer.ReadThrough();
  BackgroundCall merge([&] { client->MergeSettings(LargeDocument(), 0); });
  peer.AwaitBytes();
  merge.AwaitBlocked();
  peer.Send("async change\nLarge\n.\n" + TextOf(LargeDocument()) + ".\n");
  EXPECT_TRUE(Eventually([&] { return callback.GetChanges().size() == 1; }));
  EXPECT_FALSE(merge.HasEnded());
  peer.ReadThrough();
  merge.Join();
}

}  // namespace
