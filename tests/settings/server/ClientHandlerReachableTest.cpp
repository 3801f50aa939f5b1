#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/IMessageObserver.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ServedStore.h"

// What is made for whom: messages that nobody reads are not made, and what many are told is made once.

namespace {

using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::ClientHandler;
using tavix::settings::server::IMessageObserver;
using tavix::test::AllSettingsOf;
using tavix::test::DocumentOf;
using tavix::test::ServedStore;

// Takes shared messages over, and says that nobody reads when the test says so.
struct Observer : IMessageObserver {
  void OnMessage(std::ostream&, const GroupNameMatcher*) override { ++messages; }

  bool OnSharedMessage(std::ostream& out, const std::shared_ptr<const std::string>& text,
                       const GroupNameMatcher*) override {
    if (!takesShared) return false;
    shared.push_back(text);
    out << *text << std::flush;
    return true;
  }

  bool IsReachable(std::ostream&) override { return isReachable; }

  bool takesShared = true;
  bool isReachable = true;
  int messages = 0;
  std::vector<std::shared_ptr<const std::string>> shared;
};

class ObservedHandlers : public testing::Test {
 protected:
  ObservedHandlers() { _served.env.messageObserver = &_observer; }

  struct Subscriber {
    Subscriber(ServedStore& served, const std::string& groups)
        : in("subscribe\n" + groups + ".\n"), handler(&served.env, &in, &out) {
      EXPECT_TRUE(handler.HandleNext());
    }

    std::istringstream in;
    std::ostringstream out;
    ClientHandler handler;
  };

  size_t CountTexts() const {
    return std::set<std::shared_ptr<const std::string>>(_observer.shared.begin(), _observer.shared.end()).size();
  }

  Observer _observer;
  ServedStore _served{{"[A]\nx=1\n"}};
};

const std::string kLong(200'000, 'v');

}  // namespace

TEST_F(ObservedHandlers, MakeNoAnswersForAPeerThatIsNotReachable) {
  _observer.isReachable = false;
  EXPECT_EQ(_served.Serve("get delimited\nA\n.\nget\n*\n.\ndump\ndump all\ninfo subscribed\n"), "");
  EXPECT_EQ(_observer.messages, 0);
}

TEST_F(ObservedHandlers, ReadTheListsOfRequestsThatTheyDoNotAnswerAndMakeChanges) {
  _observer.isReachable = false;
  EXPECT_EQ(_served.Serve("get delimited\nquit\nA\n.\nmerge\n[B]\ny=1\n.\nget\nquit\n.\n"
                          "test-and-merge\n[A]\nx=1\n.\n[A]\nx=2\n.\noverwrite\nC\n.\n[C]\nz=1\n.\n"),
            "");
  EXPECT_EQ(AllSettingsOf(_served.store), "[A]\nx=2\n[B]\ny=1\n[C]\nz=1\n");
  EXPECT_EQ(_observer.messages, 0);
}

TEST_F(ObservedHandlers, MakeNoNoticesForAPeerThatIsNotReachable) {
  const Subscriber subscriber(_served, "A\n");
  _observer.isReachable = false;
  const unsigned long long before = ClientHandler::ReadStatistics().notices;
  _served.store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  EXPECT_EQ(subscriber.out.str(), "");
  EXPECT_EQ(_observer.messages + _observer.shared.size(), 0u);
  EXPECT_EQ(ClientHandler::ReadStatistics().notices, before);
}

TEST_F(ObservedHandlers, MakeNothingForABrokenOutput) {
  std::istringstream in("get delimited\nA\n.\nmerge\n[B]\n.\ndump\n");
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  ClientHandler(&_served.env, &in, &out).Run();
  EXPECT_EQ(_observer.messages, 0);
  EXPECT_EQ(AllSettingsOf(_served.store), "[A]\nx=1\n[B]\n");
}

TEST_F(ObservedHandlers, HandOverOneTextForAllThatAreToldTheSame) {
  std::list<Subscriber> subscribers;
  for (int i = 0; i < 10; ++i) subscribers.emplace_back(_served, "A\n");
  for (const std::string& value : {std::string("2"), kLong}) {
    _observer.shared.clear();
    _served.store.MergeSettings(DocumentOf("[A]\nx=" + value + "\n"), 0);
    EXPECT_EQ(_observer.shared.size(), 10u);
    EXPECT_EQ(CountTexts(), 1u);
    EXPECT_EQ(*_observer.shared.front(), "async change\nA\n.\n[A]\nx=" + value + "\n.\n");
  }
  EXPECT_EQ(_observer.messages, 0);
}

TEST_F(ObservedHandlers, HandOverOneTextForEachSetOfGroupsInWhateverOrderTheyAreTold) {
  std::list<Subscriber> subscribers;
  for (int i = 0; i < 9; ++i) subscribers.emplace_back(_served, i % 3 == 0 ? "A\n" : i % 3 == 1 ? "B\n" : "*\n");
  _served.store.MergeSettings(DocumentOf("[A]\nx=" + kLong + "\n[B]\ny=" + kLong + "\n"), 0);
  EXPECT_EQ(_observer.shared.size(), 9u);
  EXPECT_EQ(CountTexts(), 3u);
}

TEST_F(ObservedHandlers, KeepNoTextOnceAllAreTold) {
  const Subscriber subscriber(_served, "A\n");
  _served.store.MergeSettings(DocumentOf("[A]\nx=" + kLong + "\n"), 0);
  EXPECT_EQ(_observer.shared.front().use_count(), 1);
}

TEST_F(ObservedHandlers, WriteWhatTheObserverDoesNotTakeOver) {
  _observer.takesShared = false;
  const Subscriber subscriber(_served, "A\n");
  _served.store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  EXPECT_EQ(subscriber.out.str(), "async change\nA\n.\n[A]\nx=2\n.\n");
  EXPECT_EQ(_observer.messages, 1);
}
