#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "tavix/settings/common/CallbackDispatcher.h"
#include "tests/settings/common/CallbackDispatcherRoundTest.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RecordingCallback.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Mutex;
using tavix::settings::common::CallbackDispatcher;
using tavix::settings::common::GroupNameMatcher;
using tavix::test::BackgroundCall;
using tavix::test::DocumentOf;
using tavix::test::GroupsTold;
using tavix::test::ManyNames;
using tavix::test::Names;
using tavix::test::RecordingCallback;
using testing::ElementsAre;
using testing::IsEmpty;

// While the first of its subscribers is called, another thread begins something.
class LongRound : public testing::Test {
 protected:
  LongRound() { _dispatcher.SetCallsInPieces(true); }

  void AddSubscribers(size_t count, const std::string& group) {
    for (size_t i = 0; i < count; ++i) {
      _callbacks.emplace_back([this] { OnCall(); });
      _dispatcher.AddCallback(&_callbacks.back(), Names{group});
    }
  }

  void OnCall() {
    if (++_called == 1) {
      _background = std::make_unique<BackgroundCall>(_other);
      _background->AwaitBlocked();
    }
    if (_isOtherDone()) ++_calledBehind;
  }

  void Announce(const Names& changed) {
    _dispatcher.OnChange(_gate, changed, IniFile());
    _background->Join();
  }

  CallbackDispatcher _dispatcher;
  Mutex _gate{"gate"};
  std::deque<RecordingCallback> _callbacks;
  int _called = 0;
  int _calledBehind = 0;         // when the other thread was done
  std::function<void()> _other;  // what it does
  std::function<bool()> _isOtherDone = [] { return false; };
  std::unique_ptr<BackgroundCall> _background;
};

TEST_F(LongRound, LetsOthersSubscribeBetweenItsCalls) {
  AddSubscribers(10, "*");
  RecordingCallback late;
  _other = [&] { _dispatcher.AddCallback(&late, Names{"*", "12345678"}); };
  _isOtherDone = [&] { return _dispatcher.CountSubscriptionBytes() > 10; };
  Announce(ManyNames());
  EXPECT_EQ(_called, 10);
  EXPECT_EQ(_calledBehind, 9);
  EXPECT_THAT(late.GetChanges(), IsEmpty()) << "the change came before it";
}

// Else the last document that a callback is given could be an older one.
TEST_F(LongRound, OfCallbacksThatTakeTheDocumentIsOnePiece) {
  _dispatcher.SetCallsInPieces(false);
  AddSubscribers(10, "*");
  RecordingCallback late;
  _other = [&] { _dispatcher.AddCallback(&late, Names{"*", "12345678"}); };
  _isOtherDone = [&] { return _dispatcher.CountSubscriptionBytes() > 10; };
  Announce(ManyNames());
  EXPECT_EQ(_called, 10);
  EXPECT_EQ(_calledBehind, 0);
}

TEST_F(LongRound, OfOneGroupLetsOthersSubscribeAsWell) {
  AddSubscribers(2000, "A");
  RecordingCallback late;
  _other = [&] { _dispatcher.AddCallback(&late, Names{"12345678"}); };
  _isOtherDone = [&] { return _dispatcher.CountSubscriptionBytes() > 2000; };
  Announce({"A"});
  EXPECT_EQ(_called, 2000);
  EXPECT_GT(_calledBehind, 1000);
}

TEST_F(LongRound, CallsNobodyWhoWasRemovedMeanwhile) {
  AddSubscribers(10, "*");
  std::set<RecordingCallback*> byAddress;
  for (RecordingCallback& callback : _callbacks) byAddress.insert(&callback);
  RecordingCallback* const last = *byAddress.rbegin();
  _other = [&] { _dispatcher.RemoveCallback(last); };
  Announce(ManyNames());
  EXPECT_EQ(_called, 9);
  EXPECT_THAT(last->GetChanges(), IsEmpty());
}

TEST_F(LongRound, LetsAnotherChangeBeAnnouncedBetweenItsCalls) {
  AddSubscribers(10, "*0*");
  RecordingCallback own;
  _dispatcher.AddCallback(&own, Names{"Own"});
  _other = [&] { _dispatcher.OnChange(_gate, Names{"Own"}, IniFile()); };
  _isOtherDone = [&] { return !own.GetChanges().empty(); };
  Announce(ManyNames());
  EXPECT_THAT(GroupsTold(own), ElementsAre(Names{"Own"}));
  EXPECT_EQ(_calledBehind, 9);
}

TEST(CallbackDispatcher, FindsOutHowManyCallsAChangeNeedsWithoutMakingThem) {
  CallbackDispatcher dispatcher;
  std::deque<RecordingCallback> callbacks(3);
  for (RecordingCallback& callback : callbacks) dispatcher.AddCallback(&callback, Names{"A", "B*"});
  EXPECT_FALSE(dispatcher.WouldCallMoreThan(6, Names{"A", "B1", "C"}));
  EXPECT_TRUE(dispatcher.WouldCallMoreThan(5, Names{"A", "B1", "C"}));
  EXPECT_FALSE(dispatcher.WouldCallMoreThan(3, DocumentOf("[A]\nx=1\n[C]\n[D]\n")));
  EXPECT_TRUE(dispatcher.WouldCallMoreThan(2, DocumentOf("[A]\nx=1\n[C]\n[D]\n")));
  EXPECT_THAT(callbacks.front().GetChanges(), IsEmpty());
}

TEST(CallbackDispatcher, TakesAChangeForLargeWhoseSubscribersTakeLongToFind) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  Names stars;
  for (size_t i = 1; i <= 20; ++i) stars.insert(std::string(i, '*') + "x" + std::string(i, '*'));
  dispatcher.AddCallback(&callback, stars);
  Names changed;
  for (size_t i = 0; i < 20; ++i) changed.insert("x" + std::to_string(i));
  EXPECT_TRUE(dispatcher.WouldCallMoreThan(10, changed));
}

TEST(CallbackDispatcher, CountsAllSubscriptionsAndTheirBytes) {
  CallbackDispatcher dispatcher;
  RecordingCallback first;
  RecordingCallback second;
  dispatcher.AddCallback(&first, Names{"12345", "*8"});
  dispatcher.AddCallback(&first, Names{"*8", "9"});
  dispatcher.AddCallback(&second, Names{"12345"});
  EXPECT_EQ(dispatcher.CountSubscriptionBytes(), 13u) << "what is subscribed to twice by one counts once";
  EXPECT_EQ(dispatcher.CountSubscriptions(), 4u);
  dispatcher.RemoveCallback(&first);
  EXPECT_EQ(dispatcher.CountSubscriptionBytes(), 5u);
  EXPECT_EQ(dispatcher.CountSubscriptions(), 1u);
  dispatcher.RemoveCallback(&second);
  EXPECT_EQ(dispatcher.CountSubscriptionBytes(), 0u);
  EXPECT_EQ(dispatcher.CountSubscriptions(), 0u);
}

TEST(CallbackDispatcher, TellsWhetherASubscriptionWouldHaveTooManyAlikePatterns) {
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  const Names stars = {"*", "**", "***"};
  EXPECT_FALSE(dispatcher.WouldExceedMaxAlikePatterns(stars)) << "there is no limit";
  dispatcher.SetMaxAlikePatterns(3);
  EXPECT_FALSE(dispatcher.WouldExceedMaxAlikePatterns(stars));
  dispatcher.AddCallback(&callback, Names{"****"});
  EXPECT_TRUE(dispatcher.WouldExceedMaxAlikePatterns(stars));
  EXPECT_FALSE(dispatcher.WouldExceedMaxAlikePatterns(Names{"*", "**", "A", "B*", "C*"}));
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(stars);
  EXPECT_TRUE(dispatcher.WouldExceedMaxAlikePatterns(matcher));
  dispatcher.RemoveCallback(&callback);
  EXPECT_FALSE(dispatcher.WouldExceedMaxAlikePatterns(matcher));
}

}  // namespace
