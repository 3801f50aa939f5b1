#include "tavix/settings/SyncedDocument.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/Subscription.h"
#include "tests/settings/BusyWriter.h"
#include "tests/settings/StoreInMode.h"
#include "tests/support/AnsweringServer.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"

namespace tavix::settings {

using core::IniFile;
using osa::Exception;
using test::AnsweringServer;
using test::BackgroundCall;
using test::Client;
using test::DocumentOf;
using test::Mode;
using test::StoreInMode;
using test::TextOf;
using testing::ThrowsMessage;

namespace {

// A document that was filled, and what keeps it in step.
struct Synced {
  Synced(Client* client, const std::string& pattern) : synced(client, &document) {
    synced.AddPattern(pattern);
    synced.Update();
  }

  IniFile document;
  SyncedDocument synced;
};

// Without a connection for so long that it gives up, it may be asked again.
bool EventuallyUpdates(SyncedDocument& synced) {
  return test::Eventually([&] {
    try {
      return synced.Update();
    } catch (const Exception&) {
      return false;
    }
  });
}

bool IsReading(const std::string& request) {
  return request == "get delimited\nA\n.\n";
}

}  // namespace

TEST(SyncedDocument, ANullClientOrDocumentIsRefused) {
  Client client(Client::Local);
  IniFile document;
  EXPECT_THAT([&] { SyncedDocument(nullptr, &document); }, ThrowsMessage<Exception>("client was NULL"));
  EXPECT_THAT([&] { SyncedDocument(&client, nullptr); }, ThrowsMessage<Exception>("target was NULL"));
}

TEST(SyncedDocument, TheFirstUpdateFillsTheDocumentByNamesAndPatterns) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n[B/1]\nx=1\n[C]\nx=1\n");
    IniFile document = DocumentOf("[Old]\nx=1\n");
    SyncedDocument synced(store.GetClient(), &document);
    synced.AddPattern("A");
    synced.AddPattern("B/*");
    EXPECT_EQ(TextOf(document), "[Old]\nx=1\n");
    EXPECT_TRUE(synced.Update());
    EXPECT_EQ(TextOf(document), "[A]\nx=1\n[B/1]\nx=1\n");
  }
}

TEST(SyncedDocument, TheFirstUpdateReturnsTrueEvenWhenThereIsNothingToRead) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode);
    IniFile document;
    SyncedDocument synced(store.GetClient(), &document);
    synced.AddPattern("A");
    EXPECT_TRUE(synced.Update());
    EXPECT_FALSE(synced.Update());
    EXPECT_FALSE(synced.TryUpdate());
  }
}

TEST(SyncedDocument, ChangesReachTheDocumentInTheNextUpdate) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\ny=1\n[B]\nx=1\n[C]\nx=1\n");
    Synced synced(store.GetClient(), "*");
    store.Overwrite("A", "[A]\ny=2\n");
    store.Erase("B");
    EXPECT_EQ(TextOf(synced.document), "[A]\nx=1\ny=1\n[B]\nx=1\n[C]\nx=1\n");
    EXPECT_TRUE(synced.synced.Update());
    EXPECT_EQ(synced.document.GetGroups(), DocumentOf(store.Read("*")).GetGroups());
    EXPECT_FALSE(synced.synced.TryUpdate());
  }
}

TEST(SyncedDocument, TryUpdateAppliesANoticeToo) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    Synced synced(store.GetClient(), "A");
    store.Merge("[A]\nx=2\n");
    EXPECT_TRUE(synced.synced.TryUpdate());
    EXPECT_EQ(TextOf(synced.document), "[A]\nx=2\n");
  }
}

TEST(SyncedDocument, PatternsAddedAfterTheFirstUpdateAreNotSubscribed) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n[B]\nx=1\n");
    Synced synced(store.GetClient(), "A");
    synced.synced.AddPattern("B");
    store.Merge("[B]\nx=2\n");
    EXPECT_FALSE(synced.synced.Update());
    EXPECT_EQ(TextOf(synced.document), "[A]\nx=1\n");
  }
}

TEST(SyncedDocument, PatternsAddedAfterTheFirstUpdateAreNotReadAfterALostConnection) {
  AnsweringServer server("[A]\nx=1\n[B]\nx=1\n");
  Synced synced(server.GetClient(), "A");
  synced.synced.AddPattern("B");
  server.served.store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  server.Disconnect();
  EXPECT_TRUE(EventuallyUpdates(synced.synced));
  EXPECT_EQ(TextOf(synced.document), "[A]\nx=2\n");
}

TEST(SyncedDocument, TryUpdateBeforeUpdateIsRefused) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode);
    IniFile document;
    SyncedDocument synced(store.GetClient(), &document);
    EXPECT_THAT([&] { synced.TryUpdate(); }, ThrowsMessage<Exception>("TryUpdate called before Update"));
  }
}

TEST(SyncedDocument, WithASingleThreadedClientUpdateThrowsAndLeavesTheDocumentAlone) {
  for (const Mode mode : test::kSingleThreadedModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    IniFile document = DocumentOf("[Old]\nx=1\n");
    SyncedDocument synced(store.GetClient(), &document);
    synced.AddPattern("A");
    for (int times = 0; times < 2; ++times) {
      EXPECT_THAT([&] { synced.Update(); },
                  ThrowsMessage<Exception>("TavixSettingsClient::Subscribe not supported in single threaded mode"));
    }
    EXPECT_EQ(TextOf(document), "[Old]\nx=1\n");
  }
}

TEST(SyncedDocument, SeesAChangeBeforeItsSubscription) {
  AnsweringServer server("[A]\nx=1\n", [](AnsweringServer& self, const std::string& request) {
    if (request == "subscribe\nA\n.\n") self.served.store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  });
  Synced synced(server.GetClient(), "A");
  EXPECT_EQ(TextOf(synced.document), "[A]\nx=2\n");
}

// The change comes when the request is on its way: its notice is ahead of the reply, which has it already.
TEST(SyncedDocument, SeesAChangeBetweenItsSubscriptionAndItsReading) {
  std::atomic<int> gets{0};
  AnsweringServer server("[A]\nx=1\n", [&](AnsweringServer& self, const std::string& request) {
    if (!IsReading(request) || ++gets != 1) return;
    self.served.store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
    self.Send("async change\nA\n.\n[A]\nx=2\n.\n");
  });
  Synced synced(server.GetClient(), "A");
  EXPECT_EQ(TextOf(synced.document), "[A]\nx=2\n");
  EXPECT_FALSE(synced.synced.Update());
}

TEST(SyncedDocument, AReplyThatIsOlderThanANoticeAheadOfItDoesNotCount) {
  std::atomic<int> gets{0};
  AnsweringServer server("[A]\nx=1\n", [&](AnsweringServer& self, const std::string& request) {
    if (!IsReading(request)) return;
    if (++gets == 1) self.Send("async change\nA\n.\n[A]\nx=2\n.\n");
    if (gets == 2) self.served.store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  });
  Synced synced(server.GetClient(), "A");
  EXPECT_EQ(TextOf(synced.document), "[A]\nx=2\n");
}

TEST(SyncedDocument, UnderConstantChangeAReadingCountsAfterThreeTriesAndIsDoneAgainNextTime) {
  std::atomic<bool> busy{true};
  AnsweringServer server("[A]\nx=1\n", [&](AnsweringServer& self, const std::string& request) {
    if (IsReading(request) && busy) self.Send("async change\nA\n.\n[A]\nx=1\n.\n");
  });
  Synced synced(server.GetClient(), "A");
  EXPECT_EQ(TextOf(synced.document), "[A]\nx=1\n");
  EXPECT_EQ(server.GetRequests().size(), 4u);  // the subscription and three readings
  busy = false;
  EXPECT_FALSE(synced.synced.TryUpdate());
  EXPECT_EQ(server.GetRequests().size(), 5u);
  EXPECT_FALSE(synced.synced.TryUpdate());
  EXPECT_EQ(server.GetRequests().size(), 5u);
}

TEST(SyncedDocument, AReadingThatFailsLeavesTheDocumentAndTheNextUpdateMakesUpForIt) {
  std::atomic<bool> failing{false};
  AnsweringServer server("[A]\nx=1\n", [&](AnsweringServer&, const std::string& request) {
    if (IsReading(request) && failing) throw std::runtime_error("no answer, and no connection any more");
  });
  Synced synced(server.GetClient(), "A");
  server.Disconnect();
  server.served.store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  server.AwaitConnection();
  failing = true;
  EXPECT_THAT([&] { synced.synced.TryUpdate(); },
              ThrowsMessage<Exception>("GetSettings failed to communicate with tavix-settings-server"));
  EXPECT_EQ(TextOf(synced.document), "[A]\nx=1\n");
  failing = false;
  EXPECT_TRUE(synced.synced.Update());
  EXPECT_EQ(TextOf(synced.document), "[A]\nx=2\n");
}

TEST(SyncedDocument, AReplyThatIsNoSettingsTextIsReported) {
  test::ScriptedServer server;
  Client client(Client::MultiThreaded);
  IniFile document = DocumentOf("[Old]\nx=1\n");
  SyncedDocument synced(&client, &document);
  synced.AddPattern("A");
  BackgroundCall update([&] { synced.Update(); });
  test::ServerEnd peer = server.Accept();
  EXPECT_EQ(peer.ReadThrough(), "subscribe\nA\n.\n");
  for (int tries = 0; tries < 2; ++tries) {
    EXPECT_EQ(peer.ReadThrough(), "get delimited\nA\n.\n");
    peer.Send("data\nno settings text\n.\n");
  }
  EXPECT_THAT([&] { update.Join(); }, ThrowsMessage<Exception>("The settings to follow could not be read"));
  EXPECT_EQ(TextOf(document), "[Old]\nx=1\n");
}

TEST(SyncedDocument, ReadsAgainAfterALostConnectionBeforeItReports) {
  AnsweringServer server("[A]\nx=1\n[B]\nx=1\n");
  Synced synced(server.GetClient(), "*");
  server.Disconnect();
  server.served.store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  server.served.store.OverwriteSettings("B", IniFile());
  EXPECT_TRUE(EventuallyUpdates(synced.synced));
  EXPECT_EQ(TextOf(synced.document), "[A]\nx=2\n");
}

TEST(SyncedDocument, ALostConnectionDuringWhichNothingChangedIsNoChange) {
  AnsweringServer server("[A]\nx=1\n");
  Synced synced(server.GetClient(), "A");
  server.Disconnect();
  server.AwaitConnection();
  const size_t requests = server.GetRequests().size();
  EXPECT_FALSE(synced.synced.TryUpdate());
  EXPECT_EQ(server.GetRequests().size(), requests + 1);
  EXPECT_FALSE(synced.synced.TryUpdate());
  EXPECT_EQ(server.GetRequests().size(), requests + 1);
  EXPECT_EQ(TextOf(synced.document), "[A]\nx=1\n");
}

TEST(SyncedDocument, WhatWasPendingWhenTheConnectionWasLostIsReadAgainInstead) {
  AnsweringServer server("[A]\nx=1\n");
  Synced synced(server.GetClient(), "A");
  server.Send("async change\nA\n.\n[A]\nx=2\n.\n");
  server.AwaitArrival();
  server.Disconnect();
  server.served.store.MergeSettings(DocumentOf("[A]\nx=3\n"), 0);
  server.AwaitConnection();
  EXPECT_TRUE(synced.synced.Update());
  EXPECT_EQ(TextOf(synced.document), "[A]\nx=3\n");
}

TEST(SyncedDocument, TakesOverOnlyTheGroupsThatANoticeNames) {
  AnsweringServer server("[A]\nx=1\n[B]\nx=1\n");
  Synced synced(server.GetClient(), "*");
  server.Send("async change\nA\n.\n[A]\nx=2\n[B]\nx=2\n[C]\nx=2\n.\n");
  server.AwaitArrival();
  EXPECT_TRUE(synced.synced.Update());
  EXPECT_EQ(TextOf(synced.document), "[A]\nx=2\n[B]\nx=1\n");
}

TEST(SyncedDocument, IsNotCalledOnceItIsDestroyed) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    auto synced = std::make_unique<Synced>(store.GetClient(), "*");
    synced.reset();
    store.Merge("[A]\nx=2\n");
    EXPECT_EQ(store.Read("A"), "[A]\nx=2\n");
  }
}

TEST(SyncedDocument, IsNotToldOfConnectionsOnceItIsDestroyed) {
  AnsweringServer server("[A]\nx=1\n");
  auto synced = std::make_unique<Synced>(server.GetClient(), "A");
  synced.reset();
  server.Disconnect();
  server.AwaitConnection();
  EXPECT_EQ(server.GetClient()->GetValue("[A]x"), "1");
}

TEST(SyncedDocument, MayBeDestroyedWithoutEverHavingBeenUpdated) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    IniFile document;
    auto synced = std::make_unique<SyncedDocument>(store.GetClient(), &document);
    synced.reset();
    store.Merge("[A]\nx=2\n");
    EXPECT_EQ(store.Read("A"), "[A]\nx=2\n");
  }
}

TEST(SyncedDocument, MayBeDestroyedFromACallbackOfTheSameClient) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n[B]\nx=1\n");
    auto synced = std::make_unique<Synced>(store.GetClient(), "*");
    test::RecordingCallback callback([&] { synced.reset(); });
    Subscription subscription(store.GetClient(), &callback);
    subscription.Subscribe({"B"});
    store.Merge("[B]\nx=2\n");
    EXPECT_EQ(synced, nullptr);
    store.Merge("[A]\nx=2\n[B]\nx=3\n");
    EXPECT_EQ(callback.GetChanges().size(), 2u);
  }
}

TEST(SyncedDocument, TryUpdateReturnsFalseWhileANoticeIsCollectedAndKeepsWhatIsPending) {
  StoreInMode store(Client::Local);
  Synced synced(store.GetClient(), "*");
  const IniFile large = test::LargeDocument();
  EXPECT_TRUE(test::FindsTheLockBusy(*store.GetClient(), large, [&] { return synced.synced.TryUpdate(); }));
  EXPECT_TRUE(synced.synced.TryUpdate());
  EXPECT_EQ(TextOf(synced.document), TextOf(large));
}

// The first update, too, is made while the writer writes: it has no moment in which a change gets lost.
TEST(SyncedDocument, HoldsWhatTheStoreHoldsOnceAWriterAtFullSpeedIsDone) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Busy/0]\nkey0=first\n");
    BackgroundCall writer([&] { test::ChangeAtFullSpeed(*store.GetClient()); });
    Synced synced(store.GetClient(), "Busy/*");
    while (!writer.HasEnded()) synced.synced.TryUpdate();
    writer.Join();
    store.AwaitNotices();
    synced.synced.Update();
    EXPECT_EQ(TextOf(synced.document), store.Read("Busy/*"));
  }
}

}  // namespace tavix::settings
