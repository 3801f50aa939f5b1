#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ServedStore.h"

// The request `amend`, byte for byte. What a store makes of it is tested with the store.

namespace {

using tavix::core::ViewIstream;
using tavix::osa::Exception;
using tavix::settings::server::ClientHandler;
using tavix::test::AllSettingsOf;
using tavix::test::CapturedLog;
using tavix::test::ServedStore;
using tavix::test::UserSettingsOf;
using testing::HasSubstr;

const std::string kRecord = "[TavixSettings/Data/DeletedGroups]\n";
constexpr char kOk[] = "result\nok\n";
constexpr char kFailure[] = "result\nfailure\n";

std::string Amend(const std::string& present, const std::string& absent, const std::string& set,
                  const std::string& unset, const std::string& replace) {
  return "amend\n" + present + ".\n" + absent + ".\n" + set + ".\n" + unset + ".\n" + replace + ".\n";
}

struct ClientHandlerAmend : testing::Test {
  ServedStore served{{"[A]\nx=1\n[B]\ny=1\n[C]\nz=1\n"}, "[B]\ny=2\n"};
};

TEST_F(ClientHandlerAmend, IsAFeature) {
  EXPECT_EQ(served.Serve("info features\n"), "Features\n--------\namend\n\n");
}

TEST_F(ClientHandlerAmend, HasItsPayloadsInThisOrder) {
  EXPECT_EQ(served.Serve(Amend("[A]\nx=1\n", "[A]\nk=\n", "[A]\nk=2\n", "[B]\ny=\n", "[C]\nn=3\n")), kOk);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nk=2\nx=1\n[B]\ny=1\n[C]\nn=3\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nk=2\n[C]\nn=3\n[TavixSettings/Data/DeletedGroups]\nC=C\n");
}

TEST_F(ClientHandlerAmend, TakesEmptyPayloads) {
  EXPECT_EQ(served.Serve(Amend("", "", "", "", "") + "get delimited\nB\n.\n"),
            kOk + std::string("data\n[B]\ny=2\n.\n"));
}

TEST_F(ClientHandlerAmend, AnswersThatAConditionDoesNotHold) {
  EXPECT_EQ(served.Serve(Amend("[A]\nx=2\n", "", "[A]\nx=3\n", "", "")), kFailure);
  EXPECT_EQ(served.Serve(Amend("", "[A]\nx=\n", "[A]\nx=3\n", "[B]\ny=\n", "") + "info refused\n"),
            kFailure + std::string("Refused\n-------\nreason=condition: it does not hold\n\n"));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n[B]\ny=2\n[C]\nz=1\n");
}

// A client that tries again until its condition holds must not do so for a pattern that stays.
TEST_F(ClientHandlerAmend, AnswersThatARecordedPatternHidesWhatItUnsets) {
  served.Serve("overwrite\nB*\n.\n.\n");
  EXPECT_EQ(served.Serve(Amend("", "", "", "[B]\n", "") + "info refused\n"),
            kFailure + std::string("Refused\n-------\nreason=hidden: a recorded pattern hides a group of unset\n\n"));
  EXPECT_EQ(
      served.Serve(Amend("[A]\nx=1\n", "", "", "[B]\n", "") + "info refused\n"),
      kFailure + std::string("Refused\n-------\nreason=condition: it does not hold, or a recorded pattern hides a "
                             "group of unset\n\n"));
}

TEST_F(ClientHandlerAmend, AnswersThatItContradictsItself) {
  EXPECT_EQ(served.Serve(Amend("", "", "[A]\nx=3\n", "[A]\nx=\n", "") + "info refused\n"),
            kFailure + std::string("Refused\n-------\nreason=contradiction: its changes exclude one another\n\n"));
}

TEST_F(ClientHandlerAmend, TakesTheFormOfTheConnection) {
  const std::string nothing = "a:0:{}\n.\n";
  const std::string request =
      "amend\na:1:{s:1:\"A\";a:1:{s:1:\"x\";s:1:\"1\";}}\n.\n" + nothing +
      "a:1:{s:1:\"A\";a:1:{s:1:\"x\";s:3:\"\n.\n\";}}a:1:{s:1:\"B\";a:1:{s:1:\"y\";s:0:\"\";}}\n\n.\n" + nothing;
  EXPECT_EQ(served.Serve("serialize phparray\n" + request + "get delimited\nA\nB\n.\n"),
            kOk + std::string("data\na:2:{s:1:\"A\";a:1:{s:1:\"x\";s:3:\"\n.\n\";}s:1:\"B\";a:1:{s:1:\"y\";s:1:\"1\";}}"
                              "\n\n.\n"));
}

TEST_F(ClientHandlerAmend, LeavesRestrictedGroupsOut) {
  EXPECT_EQ(served.Serve(Amend("", "", "[A]\nx=2\n[Secure]\nk=1\n", "", "") + "info refused\n"),
            kOk + std::string("Refused\n-------\nreason=restricted group: Secure\n\n"));
  EXPECT_EQ(served.Serve(Amend("", "", "", "", "[Trusted]\nk=1\n") + "info refused\n"),
            kOk + std::string("Refused\n-------\nreason=restricted group: Trusted\n\n"));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\n[B]\ny=2\n[C]\nz=1\n");
}

TEST_F(ClientHandlerAmend, OfAFullStoreFails) {
  served.store.SetMaxBytes(1);
  EXPECT_THAT(served.Serve(Amend("", "", "[New]\nk=1\n", "", "") + "info refused\n"),
              testing::StartsWith(kFailure + std::string("Refused\n-------\nreason=full store: ")));
}

// Cut anywhere in front of its last byte that counts.
TEST_F(ClientHandlerAmend, ThatTheEndCutsOffChangesNothing) {
  const std::string request = Amend("", "", "[A]\nx=2\n", "[B]\ny=\n", "[C]\n");
  for (size_t size = 0; size + 1 < request.size(); ++size) {
    ServedStore cut({"[A]\nx=1\n[B]\ny=1\n[C]\nz=1\n"}, "[B]\ny=2\n");
    try {
      EXPECT_EQ(cut.Serve(request.substr(0, size)), "") << size;
    } catch (const Exception&) {  // half a line may be no settings text
    }
    EXPECT_EQ(AllSettingsOf(cut.store), "[A]\nx=1\n[B]\ny=2\n[C]\nz=1\n") << size;
    EXPECT_EQ(cut.persister.CountSaves(), 0) << size;
  }
}

TEST_F(ClientHandlerAmend, WithAPayloadThatCanNotBeParsedEndsTheConnectionAndChangesNothing) {
  const std::string set = "[A]\nx=2\n";
  for (const std::string& request :
       {Amend("bogus\n", "", set, "", ""), Amend("", "bogus\n", set, "", ""), Amend("", "", set + "bogus\n", "", ""),
        Amend("", "", set, "y=\n", ""), Amend("", "", set, "", "[B\n"), Amend("", "", set, "[.]\n", ""),
        Amend("", "", set, "", "[a\\nb]\n")}) {
    EXPECT_THROW(served.Serve(request), Exception) << request;
    EXPECT_EQ(UserSettingsOf(served.store), "[B]\ny=2\n") << request;
  }
}

TEST_F(ClientHandlerAmend, IsBoundInNamesAndPatterns) {
  served.env.maxNameBytes = 4;
  EXPECT_THROW(served.Serve(Amend("", "[12345]\n", "", "", "")), Exception);
  served.env.mostPatterns = 1;
  EXPECT_EQ(served.Serve(Amend("", "", "", "[A*]\n", "")), kOk);
  EXPECT_THAT([&] { served.Serve(Amend("", "", "", "[A*]\n[B*]\n", "")); },
              testing::ThrowsMessage<Exception>(HasSubstr("more than the 1 patterns allowed")));
}

TEST_F(ClientHandlerAmend, IsLoggedAsAChange) {
  ViewIstream in;
  std::ostringstream out;
  const CapturedLog log;
  ClientHandler handler(&served.env, &in, &out);
  const std::string request = Amend("", "", "[A]\nx=2\n", "[B]\ny=\n", "[C]\nz=2\n");
  in.SetText(request);
  ASSERT_TRUE(handler.HandleNext());
  ASSERT_FALSE(handler.GetChangeLines().empty());
  EXPECT_EQ(handler.GetChangeLines().front(), "amend: 3 groups, 2 keys: A, B, C");
}

// A pattern may bring many groups back, and so is for the thread that nobody waits for.
TEST_F(ClientHandlerAmend, ThatMayTakeLongIsLeftToOthersAndThenMadeOnce) {
  using Attempt = ClientHandler::Attempt;
  served.Serve("overwrite\n*\n.\n.\n");
  ViewIstream in;
  std::ostringstream out;
  ClientHandler handler(&served.env, &in, &out);
  const std::string shortOne = Amend("", "", "[D]\nx=2\n", "", "");
  in.SetText(shortOne);
  EXPECT_EQ(handler.HandleNextIfShort(), Attempt::kHandled);
  const std::string request = Amend("", "", "", "[*]\n", "");
  in.SetText(request);
  EXPECT_EQ(handler.HandleNextIfShort(), Attempt::kTooLong);
  EXPECT_EQ(AllSettingsOf(served.store), "[D]\nx=2\n");
  EXPECT_TRUE(handler.HandleNextInParts([] { return false; }));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n[B]\ny=1\n[C]\nz=1\n[D]\nx=2\n");
  EXPECT_EQ(out.str(), kOk + std::string(kOk));
}

// The patterns in the record may bring many groups back, too, though none stands in the request.
TEST_F(ClientHandlerAmend, ThatNamesTheRecordOfDeletedGroupsIsLeftToOthers) {
  ViewIstream in;
  std::ostringstream out;
  ClientHandler handler(&served.env, &in, &out);
  for (const char* keys : {"", "1=\n"}) {
    for (const std::string& request : {Amend("", "", "", kRecord + keys, ""), Amend("", "", "", "", kRecord + keys),
                                       Amend("", "", kRecord, "", "")}) {
      in.SetText(request);
      EXPECT_EQ(handler.HandleNextIfShort(), ClientHandler::Attempt::kTooLong) << request;
    }
  }
}

TEST_F(ClientHandlerAmend, IsBoundInTheRecordedPatternsThatItTouches) {
  served.Serve("merge\n" + kRecord + "1=A*\n2=B\n.\n");
  served.env.maxMatchingWork = 1;
  for (const std::string& request :
       {Amend("", "", "", kRecord, ""), Amend("", "", "", kRecord + "1=\n", ""), Amend("", "", "", "", kRecord),
        Amend("", "", kRecord + "1=B\n", "", ""), Amend("", "", kRecord + "3=C*\n", "", "")}) {
    EXPECT_THAT([&] { served.Serve(request); },
                testing::ThrowsMessage<Exception>(HasSubstr("To try 1 patterns on 3 bytes of group names")))
        << request;
  }
  EXPECT_EQ(served.Serve(Amend("", "", "", kRecord + "2=\n", "")), kOk);
}

}  // namespace
