#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/StringUtil.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/settings/common/CallbackDispatcher.h"
#include "tests/settings/common/CallbackDispatcherRoundTest.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/RandomDocument.h"
#include "tests/support/RecordingCallback.h"

// Changes of few and of many groups, and who comes and goes while a change is on its way to its subscribers.

namespace {

using tavix::core::IniFile;
using tavix::core::StringUtil;
using tavix::osa::Exception;
using tavix::osa::Mutex;
using tavix::osa::MutexAutoLock;
using tavix::settings::IChangeCallback;
using tavix::settings::common::CallbackDispatcher;
using tavix::test::BackgroundCall;
using tavix::test::GroupsTold;
using tavix::test::ManyNames;
using tavix::test::Names;
using tavix::test::RandomDocuments;
using tavix::test::RecordingCallback;
using testing::ElementsAre;
using testing::IsEmpty;

Names Matching(const Names& namesAndPatterns, const Names& changed) {
  Names matching;
  for (const std::string& name : changed) {
    for (const std::string& wanted : namesAndPatterns) {
      if (StringUtil::MatchesPattern(wanted, name)) matching.insert(name);
    }
  }
  return matching;
}

// A change that has found its subscribers and waits for the gate, which this object holds until it is told to open.
class WaitingChange {
 public:
  WaitingChange(const CallbackDispatcher& dispatcher, Names changed)
      : _changed(std::move(changed)),
        _held(std::make_unique<MutexAutoLock>(_gate)),
        _call([&dispatcher, this] { dispatcher.OnChange(_gate, _changed, IniFile()); }) {
    _call.AwaitBlocked();
  }

  void Finish() {
    _held.reset();
    _call.Join();
  }

 private:
  Mutex _gate{"gate"};
  const Names _changed;
  std::unique_ptr<MutexAutoLock> _held;
  BackgroundCall _call;
};

TEST(CallbackDispatcherRound, FindsSubscribersOfManyGroupsBeforeItTakesTheGate) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  dispatcher.AddCallback(&callback, Names{"*7*"});
  WaitingChange change(dispatcher, ManyNames());
  EXPECT_GT(dispatcher.CountTriedPatterns(), 1000u) << "the gate is still held here";
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
  change.Finish();
  EXPECT_THAT(GroupsTold(callback), ElementsAre(Matching({"*7*"}, ManyNames())));
}

TEST(CallbackDispatcherRound, FindsSubscribersWhileCallbacksOfAnotherChangeRun) {
  CallbackDispatcher dispatcher;
  RecordingCallback found;
  dispatcher.AddCallback(&found, Names{"*7*"});
  std::promise<void> entered;
  std::promise<void> mayLeave;
  RecordingCallback slow([&] {
    entered.set_value();
    mayLeave.get_future().wait();
  });
  dispatcher.AddCallback(&slow, Names{"Slow"});
  BackgroundCall first([&] { dispatcher.OnChange(Names{"Slow"}, IniFile()); });
  entered.get_future().wait();
  BackgroundCall second([&] { dispatcher.OnChange(ManyNames(), IniFile()); });
  second.AwaitBlocked();
  EXPECT_GT(dispatcher.CountTriedPatterns(), 1000u);
  EXPECT_THAT(found.GetChanges(), IsEmpty());
  mayLeave.set_value();
  first.Join();
  second.Join();
  EXPECT_EQ(found.GetChanges().size(), 1u);
}

TEST(CallbackDispatcherRound, WhoWasRemovedAfterItWasFoundIsNotCalled) {
  CallbackDispatcher dispatcher;
  RecordingCallback removed;
  RecordingCallback stays;
  for (RecordingCallback* callback : {&removed, &stays}) dispatcher.AddCallback(callback, Names{"*"});
  WaitingChange change(dispatcher, ManyNames());
  dispatcher.RemoveCallback(&removed);
  change.Finish();
  EXPECT_THAT(removed.GetChanges(), IsEmpty());
  EXPECT_EQ(stays.GetChanges().size(), 1u);
}

TEST(CallbackDispatcherRound, WhoSubscribesBeforeTheCallsIsCalled) {
  CallbackDispatcher dispatcher;
  RecordingCallback early;
  RecordingCallback late;
  dispatcher.AddCallback(&early, Names{"Group1"});
  WaitingChange change(dispatcher, ManyNames());
  dispatcher.AddCallback(&late, Names{"Group2", "Other"});
  dispatcher.AddCallback(&late, Names{"*99*"});
  dispatcher.AddCallback(&early, Names{"Group3"});
  change.Finish();
  EXPECT_THAT(GroupsTold(early), ElementsAre(Names{"Group1", "Group3"}));
  EXPECT_THAT(GroupsTold(late), ElementsAre(Matching({"Group2", "*99*"}, ManyNames())));
}

TEST(CallbackDispatcherRound, WhoIsRemovedAndSubscribesAnewIsToldOfItsNewGroupsOnly) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  RecordingCallback other;
  dispatcher.AddCallback(&callback, Names{"*1*"});
  dispatcher.AddCallback(&other, Names{"Group4"});
  WaitingChange change(dispatcher, ManyNames());
  dispatcher.AddCallback(&callback, Names{"Group3"});
  dispatcher.RemoveCallback(&callback);
  dispatcher.AddCallback(&callback, Names{"Group2"});
  change.Finish();
  EXPECT_THAT(GroupsTold(callback), ElementsAre(Names{"Group2"}));
  EXPECT_THAT(GroupsTold(other), ElementsAre(Names{"Group4"}));
}

TEST(CallbackDispatcherRound, WhoTakesThePlaceOfARemovedOneIsNotToldInItsStead) {
  CallbackDispatcher dispatcher;
  RecordingCallback removed;
  RecordingCallback added;
  dispatcher.AddCallback(&removed, Names{"*1*"});
  WaitingChange change(dispatcher, ManyNames());
  dispatcher.RemoveCallback(&removed);
  dispatcher.AddCallback(&added, Names{"Elsewhere"});
  change.Finish();
  EXPECT_THAT(removed.GetChanges(), IsEmpty());
  EXPECT_THAT(added.GetChanges(), IsEmpty());
}

TEST(CallbackDispatcherRound, ManyAlikePatternsAreNotTriedUnderTheGateForASmallChange) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  Names stars;
  for (size_t i = 1; i <= 1000; ++i) stars.insert(std::string(i, '*'));
  dispatcher.AddCallback(&callback, stars);
  Mutex gate("gate");
  dispatcher.OnChange(gate, Names{"A"}, IniFile());
  EXPECT_THAT(GroupsTold(callback), ElementsAre(Names{"A"}));
  EXPECT_EQ(dispatcher.CountTriedPatterns(), 1256u) << "some, in vain, under the gate, and then all without it";
}

TEST(CallbackDispatcherRound, AChangeOfManyGroupsTakesAndReleasesTheGateAsAnyOther) {
  CallbackDispatcher dispatcher;
  Mutex gate("gate");
  RecordingCallback callback([&] {
    EXPECT_TRUE(gate.IsHeldByThisThread());
    throw Exception("no more");
  });
  dispatcher.AddCallback(&callback, Names{"Group*"});
  for (const Names& changed : {Names{"Group"}, ManyNames()}) {
    EXPECT_THAT([&] { dispatcher.OnChange(gate, changed, IniFile()); }, testing::ThrowsMessage<Exception>("no more"));
    EXPECT_FALSE(gate.IsHeldByThisThread());
  }
  dispatcher.RemoveCallback(&callback);
}

TEST(CallbackDispatcherRound, ACallbackThatRaisesALargeChangeGetsAnException) {
  CallbackDispatcher dispatcher;
  int refused = 0;
  RecordingCallback callback([&] {
    EXPECT_THROW(dispatcher.OnChange(ManyNames(), IniFile()), Exception);
    ++refused;
  });
  dispatcher.AddCallback(&callback, Names{"*"});
  dispatcher.OnChange(ManyNames(), IniFile());
  EXPECT_EQ(refused, 1);
}

// Changes of all sizes, subscribers of all kinds: everyone is told once, of its own groups, in the order of addresses.
TEST(CallbackDispatcherRound, AgreesWithAskingEachSubscriberInTurn) {
  RandomDocuments random(2106);
  const auto randomTexts = [&](size_t maxCount, size_t maxLength) {
    Names texts;
    for (size_t count = random.Below(maxCount + 1); count > 0; --count) {
      std::string text(random.Below(maxLength + 1), 'a');
      for (char& c : text) c = "abc*"[random.Below(4)];
      texts.insert(text);
    }
    return texts;
  };
  for (int round = 0; round < 400; ++round) {
    CallbackDispatcher dispatcher;
    std::vector<const IChangeCallback*> called;
    std::deque<RecordingCallback> callbacks;
    std::map<const IChangeCallback*, Names> wanted;
    for (size_t i = 0; i < 12; ++i) {
      callbacks.emplace_back([&, i] { called.push_back(&callbacks[i]); });
      wanted[&callbacks[i]] = randomTexts(6, 4);
      dispatcher.AddCallback(&callbacks[i], wanted[&callbacks[i]]);
    }
    const Names changed = randomTexts(round % 2 ? 10 : 200, 6);
    dispatcher.OnChange(changed, IniFile());
    std::vector<const IChangeCallback*> expected;
    for (const auto& [callback, texts] : wanted) {
      const Names matching = Matching(texts, changed);
      if (matching.empty()) continue;
      expected.push_back(callback);
      ASSERT_THAT(GroupsTold(static_cast<const RecordingCallback&>(*callback)), ElementsAre(matching));
    }
    ASSERT_EQ(called, expected);
  }
}

TEST(CallbackDispatcherRound, ServesChangesOfAllSizesWhileSubscribersComeAndGo) {
  CallbackDispatcher dispatcher;
  constexpr int kRounds = 60;
  RecordingCallback steady;
  dispatcher.AddCallback(&steady, Names{"Group1", "*999*"});
  const Names many = ManyNames();
  const auto comeAndGo = [&] {
    for (int round = 0; round < kRounds; ++round) {
      std::atomic<bool> isSubscribed{true};
      RecordingCallback callback([&] { EXPECT_TRUE(isSubscribed); });
      dispatcher.AddCallback(&callback, Names{"Group1", "Gr*2*", "*"});
      dispatcher.OnChange(round % 4 ? Names{"Group1"} : many, IniFile());
      dispatcher.RemoveCallback(&callback);
      isSubscribed = false;
      EXPECT_GE(callback.GetChanges().size(), 1u) << "it had subscribed before the change";
    }
  };
  {
    BackgroundCall first(comeAndGo);
    BackgroundCall second(comeAndGo);
    BackgroundCall third(comeAndGo);
  }
  EXPECT_EQ(steady.GetChanges().size(), 3u * kRounds) << "no change is missed";
}

}  // namespace
