#include "tavix/settings/server/ClientHandler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "tavix/osa/Exception.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/DocumentText.h"
#include "tests/support/PipedHandler.h"
#include "tests/support/ServedStore.h"

// The loop over requests, and what lasts as long as a connection. The requests themselves: ClientHandlerRequestTest.

namespace {

using tavix::osa::Exception;
using tavix::settings::server::ClientHandler;
using tavix::settings::server::SettingsManager;
using tavix::test::AllSettingsOf;
using tavix::test::CapturedLog;
using tavix::test::PipedHandler;
using tavix::test::ServedStore;
using testing::ElementsAre;
using testing::IsEmpty;

std::set<std::string> SubscribedGroupsOf(const SettingsManager& store) {
  std::set<std::string> groups;
  store.GetAllSubscribedGroups(groups);
  return groups;
}

std::string RestOf(std::istream& in) {
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(ClientHandler, HandlesRequestsOneAfterTheOther) {
  ServedStore served;
  EXPECT_EQ(served.Serve("merge\n[A]\nx=1\n.\nget delimited\nA\n.\nmerge\n[A]\nx=2\n.\nget delimited\nA\n.\n"),
            "data\n[A]\nx=1\n.\ndata\n[A]\nx=2\n.\n");
}

TEST(ClientHandler, AnswersBeforeItWaitsForTheNextRequest) {
  ServedStore served({"[A]\nx=1\n"});
  PipedHandler client(&served.env);
  for (int round = 0; round < 3; ++round) {
    client.Send("get delimited\nA\n.\n");
    EXPECT_EQ(client.ReadThrough("."), "data\n[A]\nx=1\n.\n");
  }
  EXPECT_EQ(client.Finish(), "");
}

TEST(ClientHandler, ReadsNothingBehindQuit) {
  ServedStore served;
  std::istringstream in("quit\nget delimited\n.\n");
  std::ostringstream out;
  ClientHandler(&served.env, &in, &out).Run();
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(RestOf(in), "get delimited\n.\n");
}

TEST(ClientHandler, HandlesOneRequestAtATime) {
  ServedStore served({"[A]\nx=1\n"});
  std::istringstream in("get delimited\nA\n.\nquit\nget delimited\nA\n.\n");
  std::ostringstream out;
  ClientHandler handler(&served.env, &in, &out);
  EXPECT_TRUE(handler.HandleNext());
  EXPECT_EQ(out.str(), "data\n[A]\nx=1\n.\n");
  EXPECT_TRUE(handler.HandleNext()) << "quit itself is handled";
  for (int round = 0; round < 2; ++round) EXPECT_FALSE(handler.HandleNext());
  EXPECT_EQ(out.str(), "data\n[A]\nx=1\n.\n");
  EXPECT_EQ(RestOf(in), "get delimited\nA\n.\n");
}

TEST(ClientHandler, TheEndOfTheInputEndsIt) {
  ServedStore served;
  std::istringstream in("\n");
  std::ostringstream out;
  ClientHandler handler(&served.env, &in, &out);
  EXPECT_TRUE(handler.HandleNext());
  for (int round = 0; round < 2; ++round) EXPECT_FALSE(handler.HandleNext());
}

TEST(ClientHandler, ALastLineNeedsNoLineFeed) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve("dump all"), "[A]\nx=1\n.\n");
}

TEST(ClientHandler, WordsAreSeparatedByAnyBlanksAndFurtherOnesIgnored) {
  ServedStore served({"[A]\nx=1\n"});
  for (const char* request :
       {"get delimited\n", "get delimited\r\n", " \t get\t delimited  \n", "get delimited more\n"})
    EXPECT_EQ(served.Serve(request + std::string("A\n.\n")), "data\n[A]\nx=1\n.\n") << request;
}

TEST(ClientHandler, CommandsAreMatchedExactly) {
  ServedStore served({"[A]\nx=1\n"});
  const CapturedLog log;
  for (const char* request : {"GET delimited\n", "Dump\n", "dumpall\n", "du\n", "QUIT\n", "test-and-merge,\n"})
    EXPECT_EQ(served.Serve(std::string(request) + "dump all\n"), "[A]\nx=1\n.\n") << request;
}

TEST(ClientHandler, EmptyLinesAndTerminatorsAreNoRequests) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve("\n  \n.\n . get\n\r\n.\r\n"), "");
}

// Deliberate: nothing says how much belongs to a command that is not known; the next command word is heeded again.
TEST(ClientHandler, AfterAnUnknownCommandTheNextKnownWordIsHandled) {
  ServedStore served({"[A]\nx=1\n"});
  const CapturedLog log;
  EXPECT_EQ(served.Serve("bogus\n[A]\nx=9\n.\ndump all\n"), "[A]\nx=1\n.\n");
}

TEST(ClientHandler, SubscribesToNothingByItself) {
  ServedStore served;
  std::istringstream in;
  std::ostringstream out;
  const ClientHandler handler(&served.env, &in, &out);
  served.store.MergeSettings(tavix::test::DocumentOf("[A]\n"), 0);
  EXPECT_THAT(SubscribedGroupsOf(served.store), IsEmpty());
  EXPECT_EQ(out.str(), "");
}

TEST(ClientHandler, ItsSubscriptionEndsWithRun) {
  ServedStore served;
  for (const char* input : {"subscribe\nA\n.\n", "subscribe\nA\n.\nquit\n"}) {
    std::istringstream in(input);
    std::ostringstream out;
    ClientHandler handler(&served.env, &in, &out);
    handler.Run();
    EXPECT_THAT(SubscribedGroupsOf(served.store), IsEmpty()) << "though the handler still lives";
  }
}

TEST(ClientHandler, ItsSubscriptionEndsWithTheHandlerThoughRunNeverRan) {
  ServedStore served;
  std::istringstream in("subscribe\nA\n.\n");
  std::ostringstream out;
  auto handler = std::make_unique<ClientHandler>(&served.env, &in, &out);
  EXPECT_TRUE(handler->HandleNext());
  EXPECT_THAT(SubscribedGroupsOf(served.store), ElementsAre("A"));
  handler.reset();
  EXPECT_THAT(SubscribedGroupsOf(served.store), IsEmpty());
  served.store.MergeSettings(tavix::test::DocumentOf("[A]\n"), 0);
  EXPECT_EQ(out.str(), "");
}

TEST(ClientHandler, AnExceptionLeavesTheSubscriptionToTheDestructor) {
  ServedStore served;
  std::istringstream in("subscribe\nA\n.\nmerge\nbogus\n.\n");
  std::ostringstream out;
  {
    ClientHandler handler(&served.env, &in, &out);
    EXPECT_THROW(handler.Run(), Exception);
    EXPECT_THAT(SubscribedGroupsOf(served.store), ElementsAre("A"));
  }
  EXPECT_THAT(SubscribedGroupsOf(served.store), IsEmpty());
}

TEST(ClientHandler, AnExceptionOfTheStoreLeavesRun) {
  ServedStore served;
  served.persister.FailNextSave();
  EXPECT_THAT([&] { served.Serve("merge\n[A]\nx=1\n.\ndump\n"); },
              testing::ThrowsMessage<Exception>("No space left on the device"));
}

TEST(ClientHandler, AnOutputThatFailedIsNotLookedAt) {
  ServedStore served;
  std::istringstream in("dump\nget delimited\n*\n.\ninfo subscribed\nmerge\n[A]\nx=1\n.\n");
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  ClientHandler(&served.env, &in, &out).Run();
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n");
  EXPECT_EQ(out.str(), "");
}

TEST(ClientHandler, EachConnectionStartsWithSettingsText) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_THAT(served.Serve("serialize phparray\nget\nA\n.\n"), testing::StartsWith("a:1:{"));
  EXPECT_EQ(served.Serve("get\nA\n.\n"), "[A]\nx=1\n");
}

}  // namespace
