#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ServedStore.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::SettingsManager;
using tavix::test::AllSettingsOf;
using tavix::test::Change;
using tavix::test::DocumentOf;
using tavix::test::RecordingCallback;
using tavix::test::ServedStore;
using tavix::test::UserSettingsOf;
using testing::ElementsAre;
using testing::IsEmpty;

using Names = std::set<std::string>;

GroupNameMatcher MatcherOf(const std::string& nameOrPattern) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(nameOrPattern);
  return matcher;
}

// Every operation that changes a store which has a user group A.
std::vector<std::function<void(SettingsManager&)>> AllChanges() {
  return {[](SettingsManager& store) { store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0); },
          [](SettingsManager& store) { store.MergeSettings(DocumentOf("[A]\nx=3\n"), SettingsManager::kNoPersist); },
          [](SettingsManager& store) { store.TestAndMerge(IniFile(), DocumentOf("[A]\nx=4\n")); },
          [](SettingsManager& store) { store.OverwriteSettings("A", DocumentOf("[A]\nx=5\n")); },
          [](SettingsManager& store) { store.RestoreToDefaults(MatcherOf("A")); }};
}

TEST(SettingsManager, SubscribesByMatcherBySetAndByOneNameOrPattern) {
  ServedStore served;
  RecordingCallback callback;
  served.store.Subscribe(&callback, MatcherOf("Match*"));
  served.store.Subscribe(&callback, Names{"Set1", "Set2*"});
  served.store.Subscribe(&callback, "Name");
  served.store.Subscribe(&callback, "Pattern*");
  served.store.MergeSettings(DocumentOf("[Matched]\n[Name]\n[Other]\n[Pattern1]\n[Set1]\n[Set22]\n"), 0);
  ASSERT_EQ(callback.GetChanges().size(), 1u) << "subscriptions add up to one";
  EXPECT_THAT(callback.GetChanges()[0].groups, ElementsAre("Matched", "Name", "Pattern1", "Set1", "Set22"));
}

TEST(SettingsManager, UnsubscribingEndsTheWholeSubscription) {
  ServedStore served;
  RecordingCallback callback;
  RecordingCallback other;
  served.store.Subscribe(&callback, Names{"A", "B*"});
  served.store.Subscribe(&other, "A");
  served.store.Unsubscribe(&callback);
  served.store.Unsubscribe(&callback);  // a stranger by now
  served.store.MergeSettings(DocumentOf("[A]\n[B1]\n"), 0);
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
  EXPECT_EQ(other.GetChanges().size(), 1u);
}

TEST(SettingsManager, ListsWhatAllSubscribersSubscribedTo) {
  ServedStore served;
  RecordingCallback first;
  RecordingCallback second;
  served.store.Subscribe(&first, Names{"A", "Net*"});
  served.store.Subscribe(&second, "A");
  Names groups = {"there before"};
  served.store.GetAllSubscribedGroups(groups);
  EXPECT_THAT(groups, ElementsAre("A", "Net*", "there before"));
}

TEST(SettingsManager, EveryChangeIsToldOnce) {
  for (const auto& change : AllChanges()) {
    ServedStore served({"[A]\nx=0\n"}, "[A]\nx=1\n");
    RecordingCallback subscribed;
    RecordingCallback elsewhere;
    served.store.Subscribe(&subscribed, Names{"A", "*"});
    served.store.Subscribe(&elsewhere, "B");
    change(served.store);
    EXPECT_EQ(subscribed.GetChanges().size(), 1u);
    EXPECT_THAT(elsewhere.GetChanges(), IsEmpty());
  }
}

TEST(SettingsManager, ACallbackMayReadAndSeesTheChange) {
  for (const auto& change : AllChanges()) {
    ServedStore served({"[A]\nx=0\n"}, "[A]\nx=1\n");
    std::string seen;
    RecordingCallback callback([&] {
      IniFile groups;
      served.store.GetGroups(groups, "A");
      seen = AllSettingsOf(served.store);
      EXPECT_EQ(seen, tavix::test::TextOf(groups));
      UserSettingsOf(served.store);
    });
    served.store.Subscribe(&callback, "A");
    change(served.store);
    EXPECT_EQ(seen, AllSettingsOf(served.store));
    EXPECT_NE(seen, "[A]\nx=1\n");
  }
}

// Deliberate: it would wait for itself otherwise.
TEST(SettingsManager, ACallbackThatChangesItsOwnStoreGetsAnExceptionAndChangesNothing) {
  for (const auto& change : AllChanges()) {
    ServedStore served({"[A]\nx=0\n"}, "[A]\nx=1\n");
    RecordingCallback callback([&] {
      EXPECT_THAT(
          [&] { change(served.store); },
          testing::ThrowsMessage<Exception>("A change callback must not change the store that it is told about"));
    });
    served.store.Subscribe(&callback, "A");
    served.store.MergeSettings(DocumentOf("[A]\nx=9\n"), 0);
    EXPECT_EQ(callback.GetChanges().size(), 1u);
    EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=9\n");
    EXPECT_EQ(served.persister.CountSaves(), 1);
  }
}

TEST(SettingsManager, ACallbackMayChangeAnotherStore) {
  ServedStore served;
  ServedStore other({"[A]\nx=0\n"}, "[A]\nx=1\n");
  RecordingCallback callback([&] {
    for (const auto& change : AllChanges()) change(other.store);
  });
  served.store.Subscribe(&callback, "A");
  served.store.MergeSettings(DocumentOf("[A]\n"), 0);
  EXPECT_EQ(AllSettingsOf(other.store), "[A]\nx=0\n");
}

TEST(SettingsManager, ACallbackThatSubscribesGetsAnException) {
  ServedStore served;
  RecordingCallback other;
  RecordingCallback callback([&] {
    Names groups;
    EXPECT_THROW(served.store.Subscribe(&other, "B"), Exception);
    EXPECT_THROW(served.store.Unsubscribe(&other), Exception);
    EXPECT_THROW(served.store.GetAllSubscribedGroups(groups), Exception);
  });
  served.store.Subscribe(&callback, "A");
  served.store.MergeSettings(DocumentOf("[A]\n"), 0);
  EXPECT_EQ(callback.GetChanges().size(), 1u);
}

// Deliberate: whoever made the change gets the exception, those behind the thrower hear nothing; the change stands.
TEST(SettingsManager, ACallbackThatThrowsEndsTheNotificationAndTheChangeStands) {
  for (const auto& change : AllChanges()) {
    ServedStore served({"[A]\nx=0\n"}, "[A]\nx=1\n");
    std::deque<RecordingCallback> callbacks;
    for (int i = 0; i < 2; ++i) {
      callbacks.emplace_back([] { throw Exception("no more"); });
      served.store.Subscribe(&callbacks.back(), "A");
    }
    EXPECT_THAT([&] { change(served.store); }, testing::ThrowsMessage<Exception>("no more"));
    EXPECT_EQ(callbacks[0].GetChanges().size() + callbacks[1].GetChanges().size(), 1u);
    EXPECT_NE(AllSettingsOf(served.store), "[A]\nx=1\n");
  }
}

TEST(SettingsManager, AfterACallbackThatThrewTheNextChangeIsToldAgain) {
  ServedStore served;
  RecordingCallback callback([] { throw Exception("no more"); });
  served.store.Subscribe(&callback, "A");
  for (int round = 0; round < 2; ++round) EXPECT_THROW(served.store.MergeSettings(DocumentOf("[A]\n"), 0), Exception);
  EXPECT_EQ(callback.GetChanges().size(), 2u) << "every lock is free again";
}

TEST(SettingsManager, ItsEndLeavesSubscribersAlone) {
  RecordingCallback callback;
  {
    ServedStore served;
    served.store.Subscribe(&callback, "*");
  }
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

}  // namespace
