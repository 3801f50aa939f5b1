#include "tavix/settings/common/CallbackDispatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tavix/osa/Mutex.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RecordingCallback.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::common::CallbackDispatcher;
using tavix::settings::common::GroupNameMatcher;
using tavix::test::BackgroundCall;
using tavix::test::Change;
using tavix::test::DocumentOf;
using tavix::test::RecordingCallback;
using testing::ElementsAre;
using testing::IsEmpty;

using Names = std::set<std::string>;

TEST(CallbackDispatcher, AChangeThatNobodySubscribedToCallsNobody) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  dispatcher.AddCallback(&callback, Names{"A", "N*"});
  dispatcher.OnChange(Names{"B", "a"}, DocumentOf("[B]\nx=1\n"));
  dispatcher.OnChange(Names{}, IniFile());
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST(CallbackDispatcher, SubscribingTwiceAddsUpAndCallsOnce) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  dispatcher.AddCallback(&callback, Names{"A"});
  dispatcher.AddCallback(&callback, Names{"B*"});
  dispatcher.OnChange(Names{"A", "B1", "C"}, DocumentOf("[A]\nx=1\n[C]\nz=3\n"));
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A", "B1"}, "[A]\nx=1\n[C]\nz=3\n"}))
      << "only its own groups are named; the document is passed on as it is";
}

TEST(CallbackDispatcher, AMatcherAddsToTheSubscriptionAsItIs) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns({"B*", "C"});
  dispatcher.AddCallback(&callback, Names{"A"});
  dispatcher.AddCallback(&callback, matcher);
  dispatcher.OnChange(Names{"A", "B1", "C", "D"}, IniFile());
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A", "B1", "C"}, ""}));
}

TEST(CallbackDispatcher, AnEmptySubscriptionMatchesNothing) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  dispatcher.AddCallback(&callback, Names{});
  dispatcher.AddCallback(&callback, GroupNameMatcher());
  dispatcher.OnChange(Names{"", "A"}, IniFile());
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST(CallbackDispatcher, CallsInTheOrderOfAddresses) {
  CallbackDispatcher dispatcher;
  std::vector<const RecordingCallback*> called;
  std::deque<RecordingCallback> callbacks;
  std::set<const RecordingCallback*> ascending;
  for (size_t i = 0; i < 5; ++i) {
    callbacks.emplace_back([&, i] { called.push_back(&callbacks[i]); });
    ascending.insert(&callbacks.back());
  }
  for (const size_t i : {3u, 0u, 4u, 1u, 2u}) dispatcher.AddCallback(&callbacks[i], Names{"A"});
  dispatcher.OnChange(Names{"A"}, IniFile());
  EXPECT_THAT(called, testing::ElementsAreArray(ascending));
}

TEST(CallbackDispatcher, EachCallbackHearsOfItsOwnGroupsOnly) {
  CallbackDispatcher dispatcher;
  RecordingCallback first;
  RecordingCallback second;
  dispatcher.AddCallback(&first, Names{"A"});
  dispatcher.AddCallback(&second, Names{"*"});
  dispatcher.OnChange(Names{"A", "B"}, IniFile());
  EXPECT_THAT(first.GetChanges(), ElementsAre(Change{{"A"}, ""}));
  EXPECT_THAT(second.GetChanges(), ElementsAre(Change{{"A", "B"}, ""}));
}

TEST(CallbackDispatcher, ADocumentAloneMeansThatAllItsGroupsChanged) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  dispatcher.AddCallback(&callback, Names{"*"});
  dispatcher.OnChange(DocumentOf("[A]\nx=1\n[Empty]\n"));
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A", "Empty"}, "[A]\nx=1\n[Empty]\n"}));
}

TEST(CallbackDispatcher, AChangeOfOneGroupCallsWhomAnyChangeWould) {
  CallbackDispatcher dispatcher;
  RecordingCallback byName;
  RecordingCallback byPatterns;
  RecordingCallback other;
  tavix::osa::Mutex gate("gate");
  dispatcher.AddCallback(&byName, Names{"A1", "B"});
  dispatcher.AddCallback(&byPatterns, Names{"C", "A*", "*1"});
  dispatcher.AddCallback(&other, Names{"A", "B*"});
  dispatcher.OnChangeOfOne(gate, Names{"A1"}, DocumentOf("[A1]\nx=1\n"));
  EXPECT_THAT(byName.GetChanges(), ElementsAre(Change{{"A1"}, "[A1]\nx=1\n"}));
  EXPECT_THAT(byPatterns.GetChanges(), ElementsAre(Change{{"A1"}, "[A1]\nx=1\n"}));
  EXPECT_THAT(other.GetChanges(), IsEmpty());
}

TEST(CallbackDispatcher, AnEmptyDocumentCallsNobody) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  dispatcher.AddCallback(&callback, Names{"*"});
  dispatcher.OnChange(IniFile());
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST(CallbackDispatcher, RemovingForgetsTheWholeSubscription) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  dispatcher.AddCallback(&callback, Names{"A", "B*"});
  dispatcher.RemoveCallback(&callback);
  dispatcher.OnChange(Names{"A", "B1"}, IniFile());
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
  dispatcher.AddCallback(&callback, Names{"C"});
  dispatcher.OnChange(Names{"A", "B1", "C"}, IniFile());
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"C"}, ""})) << "it starts anew";
}

TEST(CallbackDispatcher, RemovingAStrangerIsNoError) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  RecordingCallback stranger;
  dispatcher.AddCallback(&callback, Names{"A"});
  dispatcher.RemoveCallback(&stranger);
  dispatcher.RemoveCallback(nullptr);
  dispatcher.OnChange(Names{"A"}, IniFile());
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A"}, ""}));
}

TEST(CallbackDispatcher, ListsNamesAndPatternsOfAllSubscriptions) {
  CallbackDispatcher dispatcher;
  RecordingCallback first;
  RecordingCallback second;
  dispatcher.AddCallback(&first, Names{"A"});
  dispatcher.AddCallback(&second, Names{"A", "Net*"});
  Names groups = {"there before"};
  dispatcher.GetAllSubscribedGroups(groups);
  EXPECT_THAT(groups, ElementsAre("A", "Net*", "there before"));
}

TEST(CallbackDispatcher, ListsNothingOfWhoWasRemoved) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  dispatcher.AddCallback(&callback, Names{"A", "Net*"});
  dispatcher.RemoveCallback(&callback);
  Names groups;
  dispatcher.GetAllSubscribedGroups(groups);
  EXPECT_THAT(groups, IsEmpty());
}

TEST(CallbackDispatcher, ListsAStateThatWasWhileOthersComeAndGo) {
  CallbackDispatcher dispatcher;
  Names steady;
  for (int i = 0; i < 20'000; ++i) steady.insert("Name" + std::to_string(i));
  RecordingCallback callback;
  dispatcher.AddCallback(&callback, steady);
  std::atomic<bool> stop{false};
  BackgroundCall others([&] {
    RecordingCallback other;
    while (!stop) {
      dispatcher.AddCallback(&other, Names{"All of us", "or none", "Z*"});
      dispatcher.RemoveCallback(&other);
    }
  });
  for (int round = 0; round < 50; ++round) {
    Names groups;
    dispatcher.GetAllSubscribedGroups(groups);
    const size_t ofOthers = groups.count("All of us") + groups.count("or none") + groups.count("Z*");
    EXPECT_TRUE(ofOthers == 0 || ofOthers == 3) << ofOthers;
    EXPECT_EQ(groups.size() - ofOthers, steady.size());
  }
  stop = true;
}

// Deliberate: what a callback throws is for whoever made the change, and ends the round.
TEST(CallbackDispatcher, ACallbackThatThrowsEndsTheRound) {
  CallbackDispatcher dispatcher;
  const auto fail = [] { throw Exception("no more"); };
  std::deque<RecordingCallback> callbacks;
  for (int i = 0; i < 3; ++i) callbacks.emplace_back(fail);
  for (RecordingCallback& callback : callbacks) dispatcher.AddCallback(&callback, Names{"A"});
  for (int round = 0; round < 2; ++round) {
    EXPECT_THAT([&] { dispatcher.OnChange(Names{"A"}, IniFile()); }, testing::ThrowsMessage<Exception>("no more"));
  }
  size_t calls = 0;
  for (const RecordingCallback& callback : callbacks) calls += callback.GetChanges().size();
  EXPECT_EQ(calls, 2u) << "one in each round; the second shows that the mutex is free again";
}

TEST(CallbackDispatcher, ACallbackThatCallsBackGetsAnException) {
  CallbackDispatcher dispatcher;
  int refused = 0;
  RecordingCallback* self = nullptr;
  const auto callBack = [&] {
    Names groups;
    const std::function<void()> calls[] = {
        [&] { dispatcher.AddCallback(self, Names{"B"}); }, [&] { dispatcher.AddCallback(self, GroupNameMatcher()); },
        [&] { dispatcher.RemoveCallback(self); }, [&] { dispatcher.OnChange(Names{"A"}, IniFile()); },
        [&] { dispatcher.GetAllSubscribedGroups(groups); }};
    for (const auto& call : calls) {
      EXPECT_THROW(call(), Exception);
      ++refused;
    }
  };
  RecordingCallback callback(callBack);
  self = &callback;
  dispatcher.AddCallback(&callback, Names{"A"});
  dispatcher.OnChange(Names{"A"}, IniFile());
  EXPECT_EQ(refused, 5);
  EXPECT_EQ(callback.GetChanges().size(), 1u) << "and is not called again";
}

TEST(CallbackDispatcher, RemovingWaitsForACallThatIsUnderWay) {
  CallbackDispatcher dispatcher;
  std::promise<void> entered;
  std::promise<void> mayLeave;
  RecordingCallback callback([&] {
    entered.set_value();
    mayLeave.get_future().wait();
  });
  dispatcher.AddCallback(&callback, Names{"A"});
  BackgroundCall change([&] { dispatcher.OnChange(Names{"A"}, IniFile()); });
  entered.get_future().wait();
  BackgroundCall removal([&] { dispatcher.RemoveCallback(&callback); });
  removal.AwaitBlocked();
  EXPECT_FALSE(removal.HasEnded());
  mayLeave.set_value();
  removal.Join();
  change.Join();
}

TEST(CallbackDispatcher, ServesAllThreadsAtOnce) {
  CallbackDispatcher dispatcher;
  RecordingCallback steady;
  dispatcher.AddCallback(&steady, Names{"A"});
  const auto comeAndGo = [&] {
    RecordingCallback callback;
    for (int round = 0; round < 300; ++round) {
      Names groups;
      dispatcher.AddCallback(&callback, Names{"A", "B*"});
      dispatcher.GetAllSubscribedGroups(groups);
      dispatcher.OnChange(Names{"A"}, IniFile());
      dispatcher.RemoveCallback(&callback);
    }
    EXPECT_GE(callback.GetChanges().size(), 300u);
  };
  {
    BackgroundCall first(comeAndGo);
    BackgroundCall second(comeAndGo);
    BackgroundCall third(comeAndGo);
  }
  EXPECT_EQ(steady.GetChanges().size(), 900u);
}

}  // namespace
