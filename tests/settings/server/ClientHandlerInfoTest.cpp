#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/ClientIdentity.h"
#include "tavix/settings/server/SubscriptionBudget.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ServedStore.h"

// What a client may ask about the connection: what it can ask for, who it is, and why nothing came of its last request.

namespace {

using tavix::settings::server::ChangeTicket;
using tavix::settings::server::ClientHandler;
using tavix::settings::server::ClientIdentity;
using tavix::test::AllSettingsOf;
using tavix::test::CapturedLog;
using tavix::test::ServedStore;
using testing::HasSubstr;

constexpr char kNothing[] = "Refused\n-------\n\n";
const std::string kLongNote = "note " + std::string(257, 'n') + "\n";

std::string Refused(const std::string& reason) {
  return "Refused\n-------\nreason=" + reason + "\n\n";
}

// What `info refused` answers behind a request without a reply.
std::string ReasonBehind(ServedStore& served, const std::string& request) {
  return served.Serve(request + "info refused\n");
}

TEST(ClientHandlerInfo, WhoamiOfAClientInTheProcess) {
  ServedStore served;
  EXPECT_EQ(served.Serve("info whoami\n"), "Whoami\n------\nconnection=local\n\n");
}

TEST(ClientHandlerInfo, WhoamiIsWhatTheHostKnows) {
  ServedStore served;
  std::istringstream in("serialize phparray\ninfo whoami\n");
  std::ostringstream out;
  ClientHandler handler(&served.env, &in, &out);
  handler.SetClient({ClientIdentity::Connection::kUnix, 1000, 100, 812}, {4, 24});
  handler.Run();
  EXPECT_EQ(out.str(), "Whoami\n------\nconnection=unix\ngroup=100\ngroups=4,24\nprocess=812\nuser=1000\n\n");
}

TEST(ClientHandlerInfo, NothingIsRefusedAtFirst) {
  ServedStore served;
  EXPECT_EQ(served.Serve("info refused\n"), kNothing);
}

TEST(ClientHandlerInfo, RefusedNamesARestrictedGroup) {
  ServedStore served;
  const std::string reason = Refused("restricted group: Secure/K");
  EXPECT_EQ(ReasonBehind(served, "merge\n[A]\nx=1\n[Secure/K]\nk=1\n.\n"), reason);
  EXPECT_EQ(ReasonBehind(served, "merge nopersist\n[Secure/K]\nk=1\n.\n"), reason);
  EXPECT_EQ(ReasonBehind(served, "overwrite\n*\nSecure/K\n.\n[A]\nx=2\n.\n"), reason);
  EXPECT_EQ(ReasonBehind(served, "overwrite\n.\n[Secure/K]\n.\n"), reason);
  EXPECT_EQ(ReasonBehind(served, "test-and-merge\n.\n[Secure/K]\nk=1\n.\n"), "result\nok\n" + reason);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\n") << "the rest was carried out";
}

TEST(ClientHandlerInfo, RefusedNamesAConditionThatDoesNotHold) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(ReasonBehind(served, "test-and-merge\n[A]\nx=2\n.\n[A]\nx=3\n.\n"),
            "result\nfailure\n" + Refused("condition: it does not hold"));
  EXPECT_EQ(ReasonBehind(served, "test-and-merge\n[A]\nx=1\n.\n[A]\nx=3\n.\n"), "result\nok\n" + std::string(kNothing));
}

TEST(ClientHandlerInfo, RefusedNamesAFullStore) {
  ServedStore served;
  served.store.SetMaxBytes(1);
  for (const char* request : {"merge\n[A]\nx=1\n.\n", "overwrite\nB\n.\n[A]\n.\n"})
    EXPECT_THAT(ReasonBehind(served, request), testing::StartsWith("Refused\n-------\nreason=full store: ")) << request;
  EXPECT_THAT(ReasonBehind(served, "test-and-merge\n.\n[A]\nx=1\n.\n"),
              testing::StartsWith("result\nfailure\nRefused\n-------\nreason=full store: "));
}

TEST(ClientHandlerInfo, RefusedNamesABound) {
  ServedStore served;
  served.store.SetMaxDeletedPatterns(1);
  served.env.mostSubscriptions = 1;
  EXPECT_THAT(ReasonBehind(served, "overwrite\nA*\nB*\n.\n.\n"), HasSubstr("\nreason=bound: the record of deleted"));
  EXPECT_THAT(ReasonBehind(served, "subscribe\nA\nB\n.\n"), HasSubstr("\nreason=bound: "));
  EXPECT_EQ(ReasonBehind(served, kLongNote), Refused("bound: a note of 257 bytes is longer than the 256 allowed"));
}

TEST(ClientHandlerInfo, RefusedIsGivenOnce) {
  ServedStore served;
  EXPECT_EQ(served.Serve("merge\n[Secure/K]\n.\ninfo refused\ninfo refused\n"),
            Refused("restricted group: Secure/K") + kNothing);
}

TEST(ClientHandlerInfo, RefusedIsOfThisConnection) {
  ServedStore served;
  served.Serve("merge\n[Secure/K]\n.\n");
  EXPECT_EQ(served.Serve("info refused\n"), kNothing);
}

// The last request is the last one that can be refused: a client may wait for the end of it by reading first.
TEST(ClientHandlerInfo, RequestsThatReadOrAskLeaveTheReason) {
  ServedStore served;
  for (const char* request : {"get\n.\n", "dump\n", "info server\n", "info whoami\n", "serialize ini\n", "unknown\n"}) {
    const std::string replies = served.Serve(std::string("merge\n[Secure/K]\n.\n") + request + "info refused\n");
    EXPECT_THAT(replies, testing::EndsWith(Refused("restricted group: Secure/K"))) << request;
  }
}

TEST(ClientHandlerInfo, RequestThatIsCarriedOutTakesTheReasonBack) {
  ServedStore served;
  for (const char* request : {"merge\n[A]\n.\n", "test-and-merge\n.\n.\n", "overwrite\nA\n.\n.\n", "restore\nA\n.\n",
                              "subscribe\nA\n.\n", "note n\n"}) {
    const std::string replies = served.Serve(std::string("merge\n[Secure/K]\n.\n") + request + "info refused\n");
    EXPECT_THAT(replies, testing::EndsWith(kNothing)) << request;
  }
}

TEST(ClientHandlerInfo, ReasonShowsOddNamesAsSettingsTextAndIsBounded) {
  ServedStore served;
  EXPECT_EQ(ReasonBehind(served, "merge\n[Secure\\t]\n.\n"), Refused("restricted group: Secure\\t"));
  const std::string line = ReasonBehind(served, "merge\n[Secure" + std::string(4000, 'x') + "]\n.\n");
  EXPECT_EQ(line.size(), Refused(std::string(512, 'x')).size());
}

TEST(ClientHandlerInfo, NoteThatIsIgnoredIsLogged) {
  ServedStore served;
  const CapturedLog log;
  served.Serve(kLongNote);
  EXPECT_THAT(log.GetMessages(),
              testing::Contains("WARNING ClientHandler: Note ignored: it has 257 bytes, 256 are allowed"));
}

TEST(ClientHandlerInfo, NoteHasNoReply) {
  ServedStore served;
  EXPECT_EQ(served.Serve("note\nnote  site 4 \r\nnote\tx\n"), "");
}

}  // namespace
