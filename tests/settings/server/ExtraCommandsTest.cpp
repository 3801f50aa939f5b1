#include "tavix/settings/server/IExtraCommands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/IClientOutput.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ServedStore.h"

// Requests that a host adds to those of the protocol.

namespace {

using tavix::core::IniFile;
using tavix::core::ViewIstream;
using tavix::settings::server::ChangeTicket;
using tavix::settings::server::ClientHandler;
using tavix::settings::server::IClientOutput;
using tavix::settings::server::IExtraCommands;
using tavix::settings::server::RefusedChange;
using tavix::test::CapturedLog;
using tavix::test::DocumentOf;
using tavix::test::ServedStore;
using testing::ElementsAre;

// `show` reads, `undo` changes, `search` takes long and is for its client only, `arm` is not answered, `next` is for
// the next change; `merge` is the protocol's own.
class HostCommands : public IExtraCommands {
 public:
  const Command* Find(std::string_view word) const override {
    static const Command kReads;
    static const Command kTakesLong{true, false, true, false};
    static const Command kChanges{false, true, false, false};
    static const Command kIsForNextChange{false, false, false, true};
    if (word == "next") return &kIsForNextChange;
    if (word == "undo") return &kChanges;
    if (word == "search") return &kTakesLong;
    return word == "show" || word == "arm" || word == "merge" ? &kReads : nullptr;
  }

  Answer CarryOut(const Call& call) override {
    calls.push_back(std::string(call.word) + "," + std::string(call.args) + "," + std::string(call.origin.command) +
                    "," + std::string(call.origin.note));
    trials.emplace_back(call.origin.trial);
    if (isFull) throw RefusedChange(RefusedChange::Reason::kStoreFull, "the store is full");
    return answer;
  }

  void AddFeatures(std::set<std::string>& features) const override { features.insert({"trial", "history 1 5"}); }

  Answer answer;
  bool isFull = false;
  std::vector<std::string> calls;
  std::vector<std::string> trials;  // what came with them
};

struct ExtraCommands : testing::Test {
  ExtraCommands() { served.env.extraCommands = &commands; }

  ServedStore served{{"[A]\nx=1\n"}};
  HostCommands commands;
};

IExtraCommands::Answer Data(const std::string& text) {
  IExtraCommands::Answer answer;
  answer.kind = IExtraCommands::Answer::Kind::kData;
  answer.data = DocumentOf(text);
  return answer;
}

IExtraCommands::Answer Refusal(const std::string& reason) {
  IExtraCommands::Answer answer;
  answer.kind = IExtraCommands::Answer::Kind::kRefused;
  answer.reason = reason;
  return answer;
}

TEST_F(ExtraCommands, GetTheirLineAndAnswerWithAPayload) {
  commands.answer = Data("[118]\nby=7\n");
  EXPECT_EQ(served.Serve("show  12 A*\r\nget delimited\n.\n"), "data\n[118]\nby=7\n.\ndata\n.\n");
  EXPECT_THAT(commands.calls, ElementsAre("show,  12 A*\r,show,"));
}

TEST_F(ExtraCommands, AnswerInTheFormOfTheConnection) {
  commands.answer = Data("[A]\nx=1\n");
  EXPECT_EQ(served.Serve("serialize phparray\nshow\n"), "data\na:1:{s:1:\"A\";a:1:{s:1:\"x\";s:1:\"1\";}}\n\n.\n");
  commands.answer = Data("");
  EXPECT_EQ(served.Serve("show\nserialize phparray\nshow\n"), "data\n.\ndata\na:0:{}\n\n.\n");
}

TEST_F(ExtraCommands, AreRefusedOnOneLineThatIsBounded) {
  commands.answer = Refusal("revision 3 is not kept:\nthe oldest is 7");
  EXPECT_EQ(served.Serve("undo 3\n"), "refused\nrevision 3 is not kept:\\nthe oldest is 7\n");
  commands.answer = Refusal(std::string(200, '\n') + std::string(400, 'x'));
  EXPECT_EQ(served.Serve("show\n").size(), std::string("refused\n").size() + 512 + 1);
}

TEST_F(ExtraCommands, RefusalIsKnownToInfoWithTheWordAsItsKind) {
  commands.answer = Refusal("too old");
  EXPECT_EQ(served.Serve("undo 3\ninfo refused\n"), "refused\ntoo old\nRefused\n-------\nreason=undo: too old\n\n");
}

TEST_F(ExtraCommands, ThatTheStoreRefusesAreAnsweredAndTheConnectionStays) {
  commands.isFull = true;
  EXPECT_EQ(served.Serve("undo 3\ninfo refused\n"),
            "refused\nthe store is full\nRefused\n-------\nreason=undo: the store is full\n\n");
  std::istringstream in("undo 3\nshow\n");
  std::ostringstream out;
  ClientHandler handler(&served.env, &in, &out);
  EXPECT_TRUE(handler.HandleNext());
  ASSERT_NE(handler.GetRefusal(), nullptr);
  EXPECT_EQ(handler.GetRefusal()->GetReason(), RefusedChange::Reason::kStoreFull);
  commands.isFull = false;
  EXPECT_TRUE(handler.HandleNext());
  EXPECT_EQ(handler.GetRefusal(), nullptr);
}

TEST_F(ExtraCommands, ThatAreCarriedOutClearTheReasonOfAnEarlierRequest) {
  commands.answer = Data("");
  for (const std::string word : {"show", "undo"}) {
    EXPECT_EQ(served.Serve("merge\n[Secure]\n.\n" + word + "\ninfo refused\n"), "data\n.\nRefused\n-------\n\n");
  }
}

TEST_F(ExtraCommands, WithoutAReplyMayLeaveAReason) {
  commands.answer.reason = "bound: 16 are armed";
  EXPECT_EQ(served.Serve("arm\ninfo refused\n"), "Refused\n-------\nreason=bound: 16 are armed\n\n");
  commands.answer.reason = "";
  EXPECT_EQ(served.Serve("merge\n[Secure]\n.\narm\ninfo refused\n"), "Refused\n-------\n\n");
}

TEST_F(ExtraCommands, ThatChangeUseTheNoteUpAndOthersDoNot) {
  served.Serve("note site 4\nshow\nundo 1\nundo 2\n");
  EXPECT_THAT(commands.calls, ElementsAre("show,,show,", "undo, 1,undo,site 4", "undo, 2,undo,"));
}

TEST_F(ExtraCommands, ThatAreForTheNextChangeGoWithThatOneAlone) {
  EXPECT_EQ(served.Serve("next 1 a\nnext  2 b \nshow\nundo 1\nundo 2\n"), "");
  EXPECT_THAT(commands.trials, ElementsAre("", "2 b", ""));
  commands.trials.clear();
  served.Serve("next 3 c\nmerge nopersist\n[A]\nx=2\n.\nundo 1\n");
  EXPECT_THAT(commands.trials, ElementsAre(""));
}

TEST_F(ExtraCommands, ThatAreForTheNextChangeAreCutWhenTheyAreLong) {
  served.Serve("next " + std::string(1000, 'x') + "\nundo 1\n");
  EXPECT_THAT(commands.trials, ElementsAre(std::string(257, 'x')));
}

TEST_F(ExtraCommands, ThatAreForTheNextChangeLeaveTheReasonOfARefusedNote) {
  EXPECT_THAT(served.Serve("note " + std::string(300, 'x') + "\nnext 1 a\nmerge\n[A]\nx=2\n.\ninfo refused\n"),
              testing::HasSubstr("reason=bound: a note of 300 bytes"));
}

TEST_F(ExtraCommands, AreFeatures) {
  EXPECT_EQ(served.Serve("info features\n"), "Features\n--------\namend\nhistory 1 5\ntrial\n\n");
}

TEST_F(ExtraCommands, CanNotReplaceThoseOfTheProtocol) {
  EXPECT_EQ(served.Serve("merge\n[A]\nx=2\n.\nget\nA\n.\n"), "[A]\nx=2\n");
  EXPECT_THAT(commands.calls, testing::IsEmpty());
}

TEST_F(ExtraCommands, LeaveOtherWordsUnknown) {
  const CapturedLog log;
  EXPECT_EQ(served.Serve("bogus\n"), "");
  EXPECT_THAT(log.GetMessages(), ElementsAre("WARNING MsgDispatcher: Invalid command: bogus"));
}

TEST_F(ExtraCommands, AreUnknownToAHostWithoutThem) {
  served.env.extraCommands = nullptr;
  const CapturedLog log;
  EXPECT_EQ(served.Serve("show 1\n"), "");
  EXPECT_THAT(log.GetMessages(), ElementsAre("WARNING MsgDispatcher: Invalid command: show"));
}

// The beginning of a line may mean something else: "undo 1" of "undo 12".
TEST_F(ExtraCommands, LineThatTheEndCutsOffIsNotCarriedOut) {
  commands.answer = Data("");
  EXPECT_EQ(served.Serve("undo 1"), "");
  EXPECT_THAT(commands.calls, testing::IsEmpty());
}

TEST_F(ExtraCommands, ThatTakeLongAreLeftToOthers) {
  using Attempt = ClientHandler::Attempt;
  ViewIstream in;
  std::ostringstream out;
  ClientHandler handler(&served.env, &in, &out);
  commands.answer = Data("");
  in.SetText("show\n");
  EXPECT_EQ(handler.HandleNextIfShort(), Attempt::kHandled);
  in.SetText("search x\n");
  EXPECT_EQ(handler.HandleNextIfShort(), Attempt::kTooLong);
  EXPECT_THAT(commands.calls, ElementsAre("show,,show,"));
  EXPECT_TRUE(handler.HandleNextInParts([] { return false; }));
  EXPECT_THAT(commands.calls, ElementsAre("show,,show,", "search, x,search,"));
}

TEST_F(ExtraCommands, AreForTheirClientOnlyWhereTheHostDeclaresIt) {
  std::istringstream in;
  std::ostringstream out;
  const ClientHandler handler(&served.env, &in, &out);
  EXPECT_TRUE(handler.IsForClientOnly("search x\n"));
  EXPECT_FALSE(handler.IsForClientOnly("show\n"));
  EXPECT_FALSE(handler.IsForClientOnly("merge\n.\n")) << "of the protocol";
  EXPECT_TRUE(handler.IsForClientOnly("dump\n"));
}

// Notes in order what a handler asks of it.
struct OrderedOutput : IClientOutput {
  std::ostream& GetOstream() override { return out; }
  void HoldMessages(ChangeTicket ticket) override { events.push_back("hold " + std::to_string(ticket)); }
  void BeginMessage(const tavix::settings::common::GroupNameMatcher*) override { events.emplace_back("message"); }

  std::ostringstream out;
  std::vector<std::string> events;
};

TEST_F(ExtraCommands, AnswerBehindAChangeWaitsForIt) {
  ViewIstream in;
  OrderedOutput output;
  ClientHandler handler(&served.env, &in, &output);
  commands.answer = Data("");
  commands.answer.ticket = 9;
  in.SetText("undo 1\n");
  EXPECT_TRUE(handler.HandleNext());
  EXPECT_THAT(output.events, ElementsAre("hold 9", "message"));
}

}  // namespace
