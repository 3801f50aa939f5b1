#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "tavix/osa/Exception.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ServedStore.h"

// Requests that the end of the connection cuts off: what would change something is not carried out, lest half a value
// is stored; what only asks is answered.

namespace {

using tavix::osa::Exception;
using tavix::settings::server::ClientHandler;
using tavix::test::AllSettingsOf;
using tavix::test::CapturedLog;
using tavix::test::RecordingCallback;
using tavix::test::ServedStore;
using tavix::test::UserSettingsOf;
using testing::IsEmpty;

constexpr char kDefaults[] = "[A]\nx=1\n[B]\ny=1\n";
constexpr char kUser[] = "[A]\nx=5\nz=5\n";

// Sends the request's first bytes, however the handler takes it, and says what became of the store.
std::string StoreAfter(const std::string& input) {
  ServedStore served({kDefaults}, kUser);
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  try {
    served.Serve(input);
  } catch (const Exception&) {  // the connection of a payload that can't be parsed ends so
  }
  std::ostringstream state;
  state << AllSettingsOf(served.store) << "--\n"
        << UserSettingsOf(served.store) << "--\n"
        << served.persister.CountSaves() << " saves, " << callback.GetChanges().size() << " notices";
  return state.str();
}

void ExpectOnlyTheWholeCounts(const std::string& before, const std::string& request) {
  const CapturedLog log;  // a cut command word is an unknown one
  const std::string untouched = StoreAfter("");
  for (size_t length = 0; length < request.size(); ++length)
    ASSERT_EQ(StoreAfter(before + request.substr(0, length)), untouched) << request.substr(0, length);
  EXPECT_NE(StoreAfter(before + request), untouched) << request;
}

TEST(ClientHandler, ARequestThatIsCutOffChangesNothing) {
  for (const char* request :
       {"merge\n[A]\nx=25\ny=3\n[C]\n.\n", "merge nopersist\n[A]\nx=25\n.\n", "overwrite\nA\nB*\n.\n[A]\nx=25\n.\n",
        "overwrite\nA\n.\n.\n", "test-and-merge\n[A]\nx=5\n.\n[A]\nx=25\n.\n", "test-and-merge\n.\n[A]\nx=25\n.\n",
        "restore\nA\nB\n.\n"}) {
    ExpectOnlyTheWholeCounts("", request);
  }
}

TEST(ClientHandler, ARequestInPhpArrayThatIsCutOffChangesNothing) {
  const std::string payload = R"(a:2:{s:1:"A";a:1:{s:1:"x";s:2:"25";}s:1:"C";a:0:{}})";
  for (const std::string& request : {"merge\n" + payload, "merge nopersist\n" + payload,
                                     "overwrite\nA\nB*\n.\n" + payload, "test-and-merge\na:0:{}\n.\n" + payload}) {
    ExpectOnlyTheWholeCounts("serialize phparray\n", request);
  }
}

TEST(ClientHandler, AnOverwriteThatIsCutOffInItsListIsNotTakenForAMalformedOne) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve("serialize phparray\noverwrite\nA\n"), "");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n");
}

TEST(ClientHandler, ATestAndMergeThatIsCutOffHasNoReply) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve("test-and-merge\n[A]\nx=1\n.\n[A]\nx=2\n"), "");
}

TEST(ClientHandler, AGetThatIsCutOffIsAnswered) {
  ServedStore served({"[A]\nx=1\n[B]\ny=1\n"});
  for (const char* request : {"get delimited\nA\n.", "get delimited\nA\n", "get delimited\nA"})
    EXPECT_EQ(served.Serve(request), "data\n[A]\nx=1\n.\n") << request;
  for (const char* request : {"get delimited\n", "get delimited"})
    EXPECT_EQ(served.Serve(request), "data\n.\n") << request;
}

TEST(ClientHandler, ASubscriptionThatIsCutOffCounts) {
  for (const char* request : {"subscribe\nA\nB\n.", "subscribe\nA\nB\n", "subscribe\nA\nB"}) {
    ServedStore served;
    std::istringstream in(request);
    std::ostringstream out;
    ClientHandler handler(&served.env, &in, &out);
    EXPECT_TRUE(handler.HandleNext());
    std::set<std::string> groups;
    served.store.GetAllSubscribedGroups(groups);
    EXPECT_THAT(groups, testing::ElementsAre("A", "B"));
  }
}

TEST(ClientHandler, CommandsOfOneLineNeedNoLineFeedAtTheEnd) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve("dump all"), "[A]\nx=1\n.\n");
  EXPECT_EQ(served.Serve("info subscribed"), "Subscribed groups\n-----------------\n\n");
  EXPECT_EQ(served.Serve("quit"), "");
  EXPECT_EQ(served.Serve("serialize phparray"), "");
}

}  // namespace
