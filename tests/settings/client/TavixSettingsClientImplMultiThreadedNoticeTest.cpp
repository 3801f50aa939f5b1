#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <deque>
#include <future>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/settings/client/MultiThreadedExchange.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/PendingValue.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::TavixSettingsClient;
using tavix::test::Answer;
using tavix::test::BackgroundCall;
using tavix::test::Change;
using tavix::test::Eventually;
using tavix::test::kMode;
using tavix::test::kNoticeA;
using tavix::test::PendingValue;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using Groups = std::set<std::string>;

TEST(TavixSettingsClientImplMultiThreaded, SubscribesWithOneRequestWithoutAReply) {
  ScriptedServer server;
  RecordingCallback callback;
  TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  client.Subscribe(&callback, Groups{"B", "A", "Net/*"});
  EXPECT_EQ(peer.ReadThrough(), "subscribe\nA\nB\nNet/*\n.\n");
  client.Subscribe(&callback, Groups{});
  EXPECT_EQ(peer.ReadThrough(), "subscribe\n.\n");
}

TEST(TavixSettingsClientImplMultiThreaded, ANoticeReachesTheCallbacksOfItsGroupsOnTheWorker) {
  ScriptedServer server;
  char name[16] = "";
  RecordingCallback a([&] { pthread_getname_np(pthread_self(), name, sizeof name); });
  RecordingCallback b;
  TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  client.Subscribe(&a, "A*");
  client.Subscribe(&b, "B");
  peer.Send("async change\nA1\nA2\nOther\n.\n[A1]\nx=1\n[Other]\ny=1\n.\n");
  PendingValue value(client);  // its reply comes after the callbacks
  peer.ReadThrough(), peer.ReadThrough();
  Answer(peer);
  EXPECT_EQ(value.Join(), "1");
  EXPECT_THAT(a.GetChanges(), testing::ElementsAre(Change{{"A1", "A2"}, "[A1]\nx=1\n[Other]\ny=1\n"}));
  EXPECT_TRUE(b.GetChanges().empty());
  EXPECT_STREQ(name, "TavixSettings");
}

TEST(TavixSettingsClientImplMultiThreaded, NoticesMayComeBeforeAReply) {
  ScriptedServer server;
  RecordingCallback callback;
  TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  client.Subscribe(&callback, "A");
  bool merged = false;
  BackgroundCall call([&] { merged = client.TestAndMerge(IniFile(), IniFile()); });
  peer.ReadThrough(), peer.ReadThrough(), peer.ReadThrough();
  peer.Send(std::string(kNoticeA) + kNoticeA + "result\nok\n");
  call.Join();
  EXPECT_TRUE(merged);
  EXPECT_EQ(callback.GetChanges().size(), 2u);
}

TEST(TavixSettingsClientImplMultiThreaded, ANoticeForNobodyIsRead) {
  ScriptedServer server;
  const TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  peer.Send(std::string(kNoticeA) + "async\n.\n.\n" + kNoticeA);
  PendingValue value(client);
  Answer(peer);
  EXPECT_EQ(value.Join(), "1");
}

TEST(TavixSettingsClientImplMultiThreaded, UnSubscribeEndsTheCallsAtOnceAndSendsNothing) {
  ScriptedServer server;
  RecordingCallback callback;
  TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  client.Subscribe(&callback, "A");
  client.UnSubscribe(&callback);
  peer.Send(kNoticeA);
  PendingValue value(client);
  EXPECT_EQ(peer.ReadThrough(), "subscribe\nA\n.\n");
  Answer(peer);
  EXPECT_EQ(value.Join(), "1");
  EXPECT_TRUE(callback.GetChanges().empty());
}

TEST(TavixSettingsClientImplMultiThreaded, UnSubscribeWaitsForACallThatIsUnderWay) {
  ScriptedServer server;
  std::promise<void> called, mayReturn;
  RecordingCallback callback([&] {
    called.set_value();
    mayReturn.get_future().wait();
  });
  TavixSettingsClient client(kMode);
  ServerEnd peer = server.Accept();
  client.Subscribe(&callback, "A");
  peer.Send(kNoticeA);
  called.get_future().wait();
  BackgroundCall unsubscribe([&] { client.UnSubscribe(&callback); });
  unsubscribe.AwaitBlocked();
  EXPECT_FALSE(unsubscribe.HasEnded());
  mayReturn.set_value();
  unsubscribe.Join();
}

TEST(TavixSettingsClientImplMultiThreaded, AfterAReconnectAllGroupsAreSubscribedInOneRequestBeforeAnyOther) {
  ScriptedServer server;
  RecordingCallback first, second, gone;
  TavixSettingsClient client(kMode);
  ServerEnd before = server.Accept();
  client.Subscribe(&first, "B");
  client.Subscribe(&second, Groups{"A", "B", "C*"});
  client.Subscribe(&gone, "D");
  client.UnSubscribe(&gone);
  PendingValue value(client);
  before.ReadThrough("get delimited");
  before.Close();
  EXPECT_THROW(value.Join(), Exception);  // the worker has the right to write from now on
  std::deque<BackgroundCall> merges;
  for (int i = 0; i < 4; ++i) merges.emplace_back([&] { client.MergeSettings(IniFile()); });
  ServerEnd after = server.Accept();
  EXPECT_EQ(after.ReadThrough(), "subscribe\nA\nB\nC*\n.\n");
  for (BackgroundCall& merge : merges) merge.Join();
  for (size_t i = 0; i < merges.size(); ++i) EXPECT_EQ(after.ReadThrough(), "merge\n.\n");
  after.Send(kNoticeA);
  EXPECT_TRUE(Eventually([&] { return second.GetChanges().size() == 1; }));
}

}  // namespace
