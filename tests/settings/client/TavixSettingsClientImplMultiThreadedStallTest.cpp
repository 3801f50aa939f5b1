// How the multi-threaded client gets on with a peer that does not read.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"
#include "tavix/settings/client/TavixSettingsTcpConnection.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/PendingValue.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::TavixSettingsClient;
using tavix::settings::client::TavixSettingsClientImplMultiThreaded;
using tavix::settings::client::TavixSettingsTcpConnection;
using tavix::test::BackgroundCall;
using tavix::test::Eventually;
using tavix::test::MillisecondsOf;
using tavix::test::PendingValue;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;

constexpr auto kMode = TavixSettingsClient::MultiThreaded;
constexpr char kMergeLost[] = "MergeSettings lost connection to tavix-settings-server";

// More than the buffers of a connection hold.
IniFile LargeDocument() {
  IniFile document;
  for (int i = 0; i < 16; ++i) document["Large"][std::to_string(i)] = std::string(1 << 20, 'x');
  return document;
}

// A caller that is blocked in a write to a peer which reads nothing.
struct BlockedMerge {
  BlockedMerge() : client(kMode), peer(server.Accept()), merge([this] { client.MergeSettings(LargeDocument()); }) {
    peer.AwaitBytes();
    merge.AwaitBlocked();
  }

  ScriptedServer server;
  TavixSettingsClient client;
  ServerEnd peer;
  BackgroundCall merge;
};

// With the limit of ten seconds cut down to one.
class ImpatientConnection : public TavixSettingsTcpConnection {
 public:
  void EnsureConnection(int attempts) override {
    TavixSettingsTcpConnection::EnsureConnection(attempts);
    LimitWrites(1000);
  }
};

TEST(TavixSettingsClientImplMultiThreaded, AWriteWithoutProgressEndsAfterItsLimitAndTheWorkerWakes) {
  ScriptedServer server;
  TavixSettingsClientImplMultiThreaded client(std::make_unique<ImpatientConnection>().release());
  const ServerEnd before = server.Accept();
  const long took = MillisecondsOf([&] {
    EXPECT_THAT([&] { client.MergeSettings(LargeDocument(), 0); }, testing::ThrowsMessage<Exception>(kMergeLost));
  });
  EXPECT_GE(took, 1000);
  EXPECT_LT(took, 5000);
  ServerEnd after = server.Accept();
  client.RestoreToDefaults({"A"});
  EXPECT_EQ(after.ReadThrough(), "restore\nA\n.\n");
}

TEST(TavixSettingsClientImplMultiThreaded, TheEndOfThePeersOutputWakesABlockedWriter) {
  BlockedMerge blocked;
  blocked.peer.HalfClose();
  const long took = MillisecondsOf(
      [&] { EXPECT_THAT([&] { blocked.merge.Join(); }, testing::ThrowsMessage<Exception>(kMergeLost)); });
  EXPECT_LT(took, 2000);
}

TEST(TavixSettingsClientImplMultiThreaded, AResetWakesABlockedWriter) {
  BlockedMerge blocked;
  blocked.peer.Reset();
  const long took = MillisecondsOf(
      [&] { EXPECT_THAT([&] { blocked.merge.Join(); }, testing::ThrowsMessage<Exception>(kMergeLost)); });
  EXPECT_LT(took, 2000);
}

TEST(TavixSettingsClientImplMultiThreaded, ACallbackThatThrowsWakesABlockedWriter) {
  ScriptedServer server;
  RecordingCallback callback([] { throw std::runtime_error("of the callback"); });
  TavixSettingsClient client(kMode);
  client.Subscribe(&callback, "A");
  ServerEnd peer = server.Accept();
  BackgroundCall merge([&] { client.MergeSettings(LargeDocument()); });
  peer.ReadThrough("merge");
  merge.AwaitBlocked();
  peer.Send("async change\nA\n.\n.\n");
  const long took =
      MillisecondsOf([&] { EXPECT_THAT([&] { merge.Join(); }, testing::ThrowsMessage<Exception>(kMergeLost)); });
  EXPECT_LT(took, 2000);
}

// The server reads no request before it has written its reply: the worker must read it though a caller that is blocked
// in a write has the right to write.
TEST(TavixSettingsClientImplMultiThreaded, ALargeReplyIsReadWhileALargeRequestIsWritten) {
  ScriptedServer server;
  TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  PendingValue value(client, "[Large]0");
  peer.ReadThrough();
  BackgroundCall merge([&] { client.MergeSettings(LargeDocument()); });
  peer.AwaitBytes();
  merge.AwaitBlocked();
  std::ostringstream reply;
  LargeDocument().SaveToStream(reply);
  const long took = MillisecondsOf([&] {
    peer.Send("data\n" + reply.str() + ".\n");
    EXPECT_EQ(value.Join().size(), size_t{1} << 20);
    EXPECT_EQ(peer.ReadThrough(), "merge\n" + reply.str() + ".\n");
    merge.Join();
  });
  EXPECT_LT(took, 9000);
}

TEST(TavixSettingsClientImplMultiThreaded, LargeNoticesAreReadWhileALargeRequestIsWritten) {
  ScriptedServer server;
  RecordingCallback callback;
  TavixSettingsClient client(kMode);
  client.Subscribe(&callback, "Large");
  ServerEnd peer = server.Accept();
  peer.ReadThrough();
  BackgroundCall merge([&] { client.MergeSettings(LargeDocument()); });
  peer.AwaitBytes();
  merge.AwaitBlocked();
  std::ostringstream notice;
  LargeDocument().SaveToStream(notice);
  peer.Send("async change\nLarge\n.\n" + notice.str() + ".\n");
  EXPECT_TRUE(Eventually([&] { return callback.GetChanges().size() == 1; }));
  EXPECT_FALSE(merge.HasEnded());
  peer.ReadThrough();
  merge.Join();
}

}  // namespace
