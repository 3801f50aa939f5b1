#include "tavix/settings/IniWatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
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

// A watcher that has started, and its document.
struct Watched {
  Watched(Client* client, const std::string& pattern) : watcher(client, &document) {
    watcher.AddPattern(pattern);
    watcher.Update();
  }

  IniFile document;
  IniWatcher watcher;
};

}  // namespace

TEST(IniWatcher, ANullClientOrDocumentIsRefused) {
  Client client(Client::Local);
  IniFile document;
  EXPECT_THAT([&] { IniWatcher(nullptr, &document); }, ThrowsMessage<Exception>("client was NULL"));
  EXPECT_THAT([&] { IniWatcher(&client, nullptr); }, ThrowsMessage<Exception>("targetIni was NULL"));
  EXPECT_THAT([&] { IniWatcher(nullptr, nullptr); }, ThrowsMessage<Exception>("client was NULL"));
}

TEST(IniWatcher, TheFirstUpdateEmptiesTheDocumentAndReadsNamesAndPatterns) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n[B/1]\nx=1\n[B/2]\ny=2\n[C]\nx=1\n");
    IniFile document = DocumentOf("[Old]\nx=1\n");
    IniWatcher watcher(store.GetClient(), &document);
    watcher.AddPattern("A");
    watcher.AddPattern("B/*");
    watcher.AddPattern("Nowhere");
    EXPECT_EQ(TextOf(document), "[Old]\nx=1\n");
    EXPECT_TRUE(watcher.Update());
    EXPECT_EQ(TextOf(document), "[A]\nx=1\n[B/1]\nx=1\n[B/2]\ny=2\n");
  }
}

TEST(IniWatcher, AnUpdateWithoutANoticeReturnsFalseAndLeavesTheDocumentAlone) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    Watched watched(store.GetClient(), "A");
    watched.document.SetValue("A", "mine", "kept");
    EXPECT_FALSE(watched.watcher.Update());
    EXPECT_FALSE(watched.watcher.TryUpdate());
    EXPECT_EQ(TextOf(watched.document), "[A]\nmine=kept\nx=1\n");
  }
}

TEST(IniWatcher, ANoticeTouchesTheDocumentOnlyInTheNextUpdate) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    Watched watched(store.GetClient(), "A");
    store.Merge("[A]\nx=2\n");
    EXPECT_EQ(TextOf(watched.document), "[A]\nx=1\n");
    EXPECT_TRUE(watched.watcher.Update());
    EXPECT_EQ(TextOf(watched.document), "[A]\nx=2\n");
    EXPECT_FALSE(watched.watcher.Update());
  }
}

TEST(IniWatcher, TryUpdateAppliesANoticeToo) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    Watched watched(store.GetClient(), "*");
    store.Merge("[B]\ny=2\n");
    EXPECT_TRUE(watched.watcher.TryUpdate());
    EXPECT_EQ(TextOf(watched.document), "[A]\nx=1\n[B]\ny=2\n");
    EXPECT_FALSE(watched.watcher.TryUpdate());
  }
}

TEST(IniWatcher, OfTwoNoticesForAGroupOnlyTheSecondOnesContentIsLeft) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    Watched watched(store.GetClient(), "A");
    store.Merge("[A]\nx=2\ny=2\n");
    store.Overwrite("A", "[A]\nz=3\n");
    EXPECT_TRUE(watched.watcher.Update());
    EXPECT_EQ(TextOf(watched.document), "[A]\nz=3\n");
  }
}

TEST(IniWatcher, AKeyThatIsGoneInTheStoreGoesFromTheDocument) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\ny=1\n");
    Watched watched(store.GetClient(), "A");
    store.Overwrite("A", "[A]\ny=1\n");
    EXPECT_TRUE(watched.watcher.Update());
    EXPECT_EQ(TextOf(watched.document), "[A]\ny=1\n");
  }
}

TEST(IniWatcher, AGroupThatIsGoneInTheStoreGoesFromTheDocument) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n[B]\nx=1\n");
    Watched watched(store.GetClient(), "*");
    store.Merge("[A]\nx=2\n");
    store.Erase("A");
    EXPECT_TRUE(watched.watcher.Update());
    EXPECT_FALSE(watched.document.HasGroup("A"));
    EXPECT_TRUE(watched.document.HasGroup("B"));
  }
}

TEST(IniWatcher, AGroupThatComesBackAfterItWasErasedIsInTheDocument) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\ny=1\n");
    Watched watched(store.GetClient(), "A");
    store.Erase("A");
    store.Merge("[A]\nz=2\n");
    EXPECT_TRUE(watched.watcher.Update());
    EXPECT_EQ(TextOf(watched.document), "[A]\nz=2\n");
  }
}

TEST(IniWatcher, GroupsOfTheDocumentThatNoNoticeNamedAreLeftAlone) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n[B]\nx=1\n");
    Watched watched(store.GetClient(), "*");
    watched.document.SetValue("B", "mine", "kept");
    watched.document.SetValue("Own", "mine", "kept");
    store.Merge("[A]\nx=2\n");
    EXPECT_TRUE(watched.watcher.Update());
    EXPECT_EQ(TextOf(watched.document), "[A]\nx=2\n[B]\nmine=kept\nx=1\n[Own]\nmine=kept\n");
  }
}

TEST(IniWatcher, PatternsAddedAfterTheFirstUpdateNeitherReadNorSubscribe) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n[B]\nx=1\n");
    Watched watched(store.GetClient(), "A");
    watched.watcher.AddPattern("B");
    store.Merge("[B]\nx=2\n");
    EXPECT_FALSE(watched.watcher.Update());
    store.Merge("[A]\nx=2\n[B]\nx=3\n");
    EXPECT_TRUE(watched.watcher.Update());
    EXPECT_EQ(TextOf(watched.document), "[A]\nx=2\n");
  }
}

TEST(IniWatcher, APatternThatIsAddedTwiceCountsOnce) {
  AnsweringServer server("[A]\nx=1\n");
  IniFile document;
  IniWatcher watcher(server.GetClient(), &document);
  watcher.AddPattern("A");
  watcher.AddPattern("A");
  watcher.Update();
  server.AwaitArrival();
  EXPECT_THAT(server.GetRequests(), testing::ElementsAre("get delimited\nA\n.\n", "subscribe\nA\n.\n"));
}

TEST(IniWatcher, WithoutPatternsTheDocumentIsEmptyAndStaysSo) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    IniFile document = DocumentOf("[Old]\nx=1\n");
    IniWatcher watcher(store.GetClient(), &document);
    EXPECT_TRUE(watcher.Update());
    store.Merge("[A]\nx=2\n");
    EXPECT_FALSE(watcher.Update());
    EXPECT_EQ(TextOf(document), "");
  }
}

TEST(IniWatcher, TryUpdateBeforeUpdateIsRefused) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode);
    IniFile document = DocumentOf("[Old]\nx=1\n");
    IniWatcher watcher(store.GetClient(), &document);
    EXPECT_THAT([&] { watcher.TryUpdate(); }, ThrowsMessage<Exception>("TryUpdate called before Update"));
    EXPECT_EQ(TextOf(document), "[Old]\nx=1\n");
  }
}

TEST(IniWatcher, WithASingleThreadedClientEveryFirstUpdateThrows) {
  for (const Mode mode : test::kSingleThreadedModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    IniFile document;
    IniWatcher watcher(store.GetClient(), &document);
    watcher.AddPattern("A");
    const auto refusal =
        ThrowsMessage<Exception>("TavixSettingsClient::Subscribe not supported in single threaded mode");
    EXPECT_THAT([&] { watcher.Update(); }, refusal);
    EXPECT_THAT([&] { watcher.TryUpdate(); }, ThrowsMessage<Exception>("TryUpdate called before Update"));
    EXPECT_THAT([&] { watcher.Update(); }, refusal);
  }
}

TEST(IniWatcher, AFirstUpdateThatLosesTheConnectionMayBeCalledAgain) {
  AnsweringServer server("[A]\nx=1\n");
  IniFile document;
  server.GetClient()->GetSettings("A", document);
  IniWatcher watcher(server.GetClient(), &document);
  watcher.AddPattern("A");
  server.Disconnect();
  EXPECT_THROW(watcher.Update(), Exception);
  EXPECT_THAT([&] { watcher.TryUpdate(); }, ThrowsMessage<Exception>("TryUpdate called before Update"));
  EXPECT_TRUE(test::Eventually([&] {
    try {
      return watcher.Update();
    } catch (const Exception&) {
      return false;
    }
  }));
  EXPECT_EQ(TextOf(document), "[A]\nx=1\n");
}

TEST(IniWatcher, AReplyThatIsNoSettingsTextIsReported) {
  test::ScriptedServer server;
  Client client(Client::MultiThreaded);
  IniFile document;
  IniWatcher watcher(&client, &document);
  watcher.AddPattern("A");
  BackgroundCall update([&] { watcher.Update(); });
  test::ServerEnd peer = server.Accept();
  peer.ReadThrough();
  peer.Send("data\nno settings text\n.\n");
  EXPECT_THAT([&] { update.Join(); }, ThrowsMessage<Exception>("The settings to watch could not be read"));
}

TEST(IniWatcher, TakesOverOnlyTheGroupsThatANoticeNames) {
  AnsweringServer server("[A]\nx=1\n[B]\nx=1\n");
  Watched watched(server.GetClient(), "*");
  server.Send("async change\nA\n.\n[A]\nx=2\n[B]\nx=2\n[C]\nx=2\n.\n");
  server.AwaitArrival();
  EXPECT_TRUE(watched.watcher.Update());
  EXPECT_EQ(TextOf(watched.document), "[A]\nx=2\n[B]\nx=1\n");
}

TEST(IniWatcher, ANoticeForAGroupThatItsDocumentLacksRemovesTheGroup) {
  AnsweringServer server("[A]\nx=1\n[B]\nx=1\n");
  Watched watched(server.GetClient(), "*");
  server.Send("async change\nA\n.\n.\n");
  server.AwaitArrival();
  EXPECT_TRUE(watched.watcher.Update());
  EXPECT_EQ(TextOf(watched.document), "[B]\nx=1\n");
}

// Deliberate: it reads first and subscribes then. SyncedDocument does it the other way round.
TEST(IniWatcher, MissesAChangeBetweenItsReadingAndItsSubscription) {
  AnsweringServer server("[A]\nx=1\n", [](AnsweringServer& self, const std::string& request) {
    if (request == "subscribe\nA\n.\n") self.served.store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  });
  Watched watched(server.GetClient(), "A");
  EXPECT_EQ(server.GetClient()->GetValue("[A]x"), "2");
  EXPECT_FALSE(watched.watcher.Update());
  EXPECT_EQ(TextOf(watched.document), "[A]\nx=1\n");
}

// Deliberate: it does not know of connections. SyncedDocument reads again.
TEST(IniWatcher, MissesAChangeWhileTheConnectionIsLostUntilTheGroupChangesAgain) {
  AnsweringServer server("[A]\nx=1\n[B]\nx=1\n");
  Watched watched(server.GetClient(), "*");
  server.Disconnect();
  server.served.store.MergeSettings(DocumentOf("[A]\nx=2\n[B]\nx=2\n"), 0);
  server.AwaitConnection();
  EXPECT_EQ(server.GetClient()->GetValue("[A]x"), "2");
  EXPECT_FALSE(watched.watcher.Update());
  EXPECT_EQ(TextOf(watched.document), "[A]\nx=1\n[B]\nx=1\n");
  server.Send("async change\nA\n.\n[A]\nx=3\n.\n");
  server.AwaitArrival();
  EXPECT_TRUE(watched.watcher.Update());
  EXPECT_EQ(TextOf(watched.document), "[A]\nx=3\n[B]\nx=1\n");
}

TEST(IniWatcher, IsNotCalledOnceItIsDestroyed) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    auto watched = std::make_unique<Watched>(store.GetClient(), "*");
    watched.reset();
    store.Merge("[A]\nx=2\n");
    EXPECT_EQ(store.Read("A"), "[A]\nx=2\n");
  }
}

TEST(IniWatcher, MayBeDestroyedWithoutEverHavingStarted) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    IniFile document;
    auto watcher = std::make_unique<IniWatcher>(store.GetClient(), &document);
    watcher->AddPattern("A");
    watcher.reset();
    store.Merge("[A]\nx=2\n");
    EXPECT_EQ(store.Read("A"), "[A]\nx=2\n");
  }
}

TEST(IniWatcher, DestroyingOneLeavesTheOthersWatching) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n");
    auto gone = std::make_unique<Watched>(store.GetClient(), "A");
    Watched left(store.GetClient(), "A");
    gone.reset();
    store.Merge("[A]\nx=2\n");
    EXPECT_TRUE(left.watcher.Update());
    EXPECT_EQ(TextOf(left.document), "[A]\nx=2\n");
  }
}

TEST(IniWatcher, MayBeDestroyedFromACallbackOfTheSameClient) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[A]\nx=1\n[B]\nx=1\n");
    auto watched = std::make_unique<Watched>(store.GetClient(), "*");
    test::RecordingCallback callback([&] { watched.reset(); });
    Subscription subscription(store.GetClient(), &callback);
    subscription.Subscribe({"B"});
    store.Merge("[B]\nx=2\n");
    EXPECT_EQ(watched, nullptr);
    store.Merge("[A]\nx=2\n[B]\nx=3\n");
    EXPECT_EQ(callback.GetChanges().size(), 2u);
  }
}

TEST(IniWatcher, TryUpdateReturnsFalseWhileANoticeIsCollectedAndKeepsWhatIsPending) {
  StoreInMode store(Client::Local);
  Watched watched(store.GetClient(), "*");
  const IniFile large = test::LargeDocument();
  EXPECT_TRUE(test::FindsTheLockBusy(*store.GetClient(), large, [&] { return watched.watcher.TryUpdate(); }));
  EXPECT_TRUE(watched.watcher.TryUpdate());
  EXPECT_EQ(TextOf(watched.document), TextOf(large));
}

TEST(IniWatcher, HoldsWhatTheStoreHoldsOnceAWriterAtFullSpeedIsDone) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Busy/0]\nkey0=first\n");
    Watched watched(store.GetClient(), "Busy/*");
    BackgroundCall writer([&] { test::ChangeAtFullSpeed(*store.GetClient()); });
    while (!writer.HasEnded()) watched.watcher.TryUpdate();
    writer.Join();
    store.AwaitNotices();
    watched.watcher.Update();
    EXPECT_EQ(TextOf(watched.document), store.Read("Busy/*"));
  }
}

}  // namespace tavix::settings
