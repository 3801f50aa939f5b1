#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/IMessageObserver.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/DocumentText.h"
#include "tests/support/PipedHandler.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ServedStore.h"

// What a connection is told of changes.

namespace {

using tavix::core::IniFile;
using tavix::settings::server::ClientHandler;
using tavix::settings::server::SettingsManager;
using tavix::test::CapturedLog;
using tavix::test::DocumentOf;
using tavix::test::PipedHandler;
using tavix::test::RecordingCallback;
using tavix::test::ServedStore;

// A handler that subscribed to groups, a line each, and hears of what others do.
class Subscriber {
 public:
  Subscriber(ServedStore& served, const std::string& groups, std::streambuf* output = nullptr)
      : _in("subscribe\n" + groups + ".\n"), out(output ? output : &_text), _handler(&served.env, &_in, &out) {
    EXPECT_TRUE(_handler.HandleNext());
  }

  std::string GetText() const { return _text.str(); }

 private:
  std::istringstream _in;
  std::stringbuf _text;

 public:
  std::ostream out;

 private:
  ClientHandler _handler;
};

class ThrowingBuffer : public std::streambuf {
 protected:
  int_type overflow(int_type) override { throw std::runtime_error("broken"); }
  std::streamsize xsputn(const char*, std::streamsize) override { throw std::runtime_error("broken"); }
  int sync() override { throw std::runtime_error("broken"); }
};

TEST(ClientHandler, TellsOfOwnChanges) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve("subscribe\nA\n.\nmerge\n[A]\nx=2\n.\noverwrite\nA\n.\n[A]\ny=3\n.\nrestore\nA\n.\n"),
            "async change\nA\n.\n[A]\nx=2\n.\n"
            "async change\nA\n.\n[A]\ny=3\n.\n"
            "async change\nA\n.\n[A]\nx=1\n.\n");
}

// Deliberate: the store tells its subscribers before the handler writes its reply.
TEST(ClientHandler, TheNoticeOfATestAndMergeComesBeforeItsResult) {
  ServedStore served({"[A]\nx=1\n"});
  const std::string request = "test-and-merge\n[A]\nx=1\n.\n[A]\nx=2\n.\n";
  EXPECT_EQ(served.Serve("subscribe\nA\n.\n" + request + request),
            "async change\nA\n.\n[A]\nx=2\n.\nresult\nok\nresult\nfailure\n");
}

TEST(ClientHandler, TellsOfTheChangesOfOthers) {
  ServedStore served;
  const Subscriber subscriber(served, "A\n");
  served.Serve("merge nopersist\n[A]\nx=2\n[B]\n.\n");
  EXPECT_EQ(subscriber.GetText(), "async change\nA\n.\n[A]\nx=2\n.\n");
}

TEST(ClientHandler, SubscriptionsAddUpAndAChangeIsToldOnce) {
  ServedStore served;
  EXPECT_EQ(served.Serve("subscribe\nB\n.\nsubscribe\nN*\nB\n.\nsubscribe\n.\nmerge\n[A]\n[B]\n[N1]\n[N2]\n.\n"),
            "async change\nB\nN1\nN2\n.\n[B]\n[N1]\n[N2]\n.\n");
}

TEST(ClientHandler, WhatNobodySubscribedToIsToldToNobody) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve("subscribe\nB\n.\nmerge\n[A]\n.\ntest-and-merge\n[A]\nx=9\n.\n[B]\n.\nmerge\n[SecureB]\n.\n"),
            "result\nfailure\n");
}

TEST(ClientHandler, ANoticeHoldsTheWholeGroupsAsTheyAreNow) {
  ServedStore served({"[A]\nx=1\ny=1\n"});
  EXPECT_EQ(served.Serve("subscribe\nA\n.\nmerge\n[A]\nx=2\n.\n"), "async change\nA\n.\n[A]\nx=2\ny=1\n.\n")
      << "not the values of the request";
}

TEST(ClientHandler, ANoticeListsRemovedGroupsThatItsDocumentLacks) {
  ServedStore served({"[A]\nx=1\n[B]\ny=1\n"}, "[C]\nz=1\n");
  EXPECT_EQ(served.Serve("subscribe\n*\n.\noverwrite\nA\nB\n.\n[B]\n.\nrestore\nC\n.\n"),
            "async change\nA\nB\n.\n[B]\n.\nasync change\nC\n.\n.\n");
}

TEST(ClientHandler, ANoticeIsWrittenFromTheStoreAndNotFromTheDocumentGiven) {
  ServedStore served({"[A]\nx=1\n[B]\n"});
  std::istringstream in;
  std::ostringstream out;
  ClientHandler handler(&served.env, &in, &out);
  handler.OnChange({"A", "Gone"}, DocumentOf("[A]\nx=9\n[Gone]\n"));
  EXPECT_EQ(out.str(), "async change\nA\nGone\n.\n[A]\nx=1\n.\n");
}

// Deliberate: the names of a notice are read as a list of groups, in which a star makes a pattern.
TEST(ClientHandler, TheNoticeOfAGroupWithAStarInItsNameHoldsAllThatMatchIt) {
  ServedStore served({"[A1]\nx=1\n"});
  EXPECT_EQ(served.Serve("subscribe\nA*\n.\nmerge\n[A*]\ny=1\n.\n"), "async change\nA*\n.\n[A*]\ny=1\n[A1]\nx=1\n.\n");
}

// The process that owns the store may use such names; a list can't tell of them.
TEST(ClientHandler, ANoticeLeavesOutNamesThatCanNotStandOnALine) {
  ServedStore served;
  const Subscriber subscriber(served, "*\n");
  served.store.MergeSettings(DocumentOf("[.]\n[A]\n[B\\nC]\n"), 0);
  EXPECT_EQ(subscriber.GetText(), "async change\nA\n.\n[.]\n[A]\n[B\\nC]\n.\n");
}

TEST(ClientHandler, ANoticeArrivesWhileTheConnectionIsIdle) {
  ServedStore served;
  PipedHandler client(&served.env);
  client.Send("subscribe\nA\n.\n");
  client.AwaitHandled();
  served.store.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  EXPECT_EQ(client.ReadThrough("."), "async change\nA\n.\n");
  EXPECT_EQ(client.ReadThrough("."), "[A]\nx=1\n.\n");
}

TEST(ClientHandler, EveryMessageEndsWithAFlush) {
  struct FlushWatch : std::stringbuf {
    int sync() override {
      flushed = str();
      return 0;
    }
    std::string flushed;
  };
  ServedStore served({"[A]\nx=1\n"});
  for (const char* request : {"get delimited\nA\n.\n", "get\nA\n.\n", "dump\n", "dump all\n", "info subscribed\n",
                              "test-and-merge\n.\n.\n", "merge\n[A]\n.\n"}) {
    FlushWatch buffer;
    std::ostream out(&buffer);
    std::istringstream in(std::string("subscribe\nA\n.\n") + request);
    ClientHandler(&served.env, &in, &out).Run();
    EXPECT_NE(buffer.str(), "") << request;
    EXPECT_EQ(buffer.flushed, buffer.str()) << request;
  }
}

TEST(ClientHandler, AnOutputThatThrowsBreaksItselfOnly) {
  const CapturedLog log;
  ServedStore served;
  ThrowingBuffer broken;
  std::deque<Subscriber> subscribers;
  for (int i = 0; i < 5; ++i) subscribers.emplace_back(served, "A\n", i % 2 ? &broken : nullptr);
  subscribers[3].out.exceptions(std::ios::badbit | std::ios::failbit);  // throws what the stream itself would swallow
  EXPECT_NO_THROW(served.store.MergeSettings(DocumentOf("[A]\nx=1\n"), 0));
  for (size_t i : {0u, 2u, 4u}) EXPECT_EQ(subscribers[i].GetText(), "async change\nA\n.\n[A]\nx=1\n.\n");
  for (size_t i : {1u, 3u}) EXPECT_TRUE(subscribers[i].out.bad());
  EXPECT_THAT(log.GetMessages(),
              testing::Contains(testing::StartsWith("WARNING ClientHandler: Failed to write a change notice: ")));
}

TEST(ClientHandler, ObserverIsToldOfANoticeThatIsLost) {
  struct Observer : tavix::settings::server::IMessageObserver {
    void OnMessage(std::ostream&, const tavix::settings::common::GroupNameMatcher*) override {}
    void OnMessageLost(std::ostream& out) override { lost.push_back(&out); }
    std::vector<std::ostream*> lost;
  };
  const CapturedLog log;
  Observer observer;
  ServedStore served;
  served.env.messageObserver = &observer;
  ThrowingBuffer broken;
  Subscriber lost(served, "A\n", &broken);
  Subscriber other(served, "A\n");
  lost.out.exceptions(std::ios::badbit | std::ios::failbit);  // throws what the stream itself would swallow
  served.store.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  EXPECT_THAT(observer.lost, testing::ElementsAre(&lost.out));
}

TEST(ClientHandler, AnOutputThatIsBrokenDoesNotKeepOthersFromLaterNotices) {
  ServedStore served;
  ThrowingBuffer broken;
  Subscriber first(served, "A\n", &broken);
  Subscriber second(served, "A\n");
  Subscriber third(served, "A\n", &broken);
  for (int round = 0; round < 3; ++round) served.store.MergeSettings(DocumentOf("[A]\n"), 0);
  EXPECT_EQ(second.GetText(), "async change\nA\n.\n[A]\n.\nasync change\nA\n.\n[A]\n.\nasync change\nA\n.\n[A]\n.\n");
}

}  // namespace
