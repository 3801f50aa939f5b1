// What becomes of changes on trial, at a server whose answers a test decides.

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tests/programs/cli/process/TrialScript.h"

namespace tavix::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

}  // namespace

TEST(TrialCommands, ConfirmKeepsAndRevertTakesBack) {
  const auto words = [](const std::string& word) { return Words{word, "t-1"}; };
  const Exchange::value_type pending{"trial t-1\n", "data\n[t-1]\nis [A]b=1\nis [A]c=1\nstate=pending\n.\n"};
  const auto ended = [](const std::string& word, const std::string& more) {
    return Exchange::value_type{word + " t-1\n", "data\n[t-1]\n" + more + "\n.\n"};
  };
  ExpectRun({{kFeatures, pending, ended("confirm", "state=confirmed")}}, words("confirm"), 0,
            "confirmed t-1: 2 settings\n");
  ExpectRun({{kFeatures, pending, ended("revert", "state=reverted")}}, words("revert"), 0,
            "reverted t-1: 2 settings\n");
  ExpectRun({{kFeatures, pending, ended("revert", "kept [A]d=\nkept [A]e=\nstate=reverted")}}, words("revert"), 0,
            "reverted t-1: 2 settings; 2 settings stay, as others have changed them since\n");
  ExpectRun({{kFeatures, ended("trial", "state=confirmed")}}, words("confirm"), 0, "t-1 was confirmed already\n");
  ExpectRun({{kFeatures, ended("trial", "state=reverted")}}, words("revert"), 0, "t-1 was reverted already\n");
}

TEST(TrialCommands, RefusalsHaveTheirStatus) {
  const Exchange::value_type unknown{"trial t-1\n", "refused\nno trial is named 't-1'\n"};
  ExpectRun({{kFeatures, unknown, {"confirm t-1\n", "refused\nno trial is named 't-1'\n"}, unknown}},
            {"confirm", "t-1"}, 1,
            "tavix-settings: no trial is named 't-1'\nhint: 'tavix-settings trials' shows those there are\n");
  const Exchange::value_type reverted{"trial t-1\n", "data\n[t-1]\nstate=reverted\n.\n"};
  ExpectRun(
      {{kFeatures, reverted, {"confirm t-1\n", "refused\ntrial 't-1' is not pending: it was reverted\n"}, reverted}},
      {"confirm", "t-1"}, 8, "tavix-settings: trial 't-1' is not pending: it was reverted\n");
  const Exchange::value_type over{"trial t-1\n", "data\n[t-1]\nseconds=0\nstate=pending\n.\n"};
  ExpectRun({{kFeatures, over, {"confirm t-1\n", "refused\ntrial 't-1' is not pending: its time is over\n"}, over}},
            {"confirm", "t-1"}, 8, "tavix-settings: trial 't-1' is not pending: its time is over\n");
  const Exchange::value_type confirmed{"trial t-1\n", "data\n[t-1]\nstate=confirmed\n.\n"};
  ExpectRun(
      {{kFeatures, confirmed, {"revert t-1\n", "refused\ntrial 't-1' is not pending: it was confirmed\n"}, confirmed}},
      {"revert", "t-1"}, 7, "tavix-settings: not applied: trial 't-1' is not pending: it was confirmed\n");
  const Exchange::value_type pending{"trial t-1\n", "data\n[t-1]\nstate=pending\n.\n"};
  ExpectRun({{kFeatures, pending, {"revert t-1\n", "refused\ntrial 't-1' belongs to user 1000\n"}, pending}},
            {"revert", "t-1"}, 5, "tavix-settings: refused: trial 't-1' belongs to user 1000\n");
  ExpectRun({{kFeatures, pending, {"revert t-1\n", "refused\nfull store: 4096 bytes\n"}, pending}}, {"revert", "t-1"},
            7, "tavix-settings: not applied: full store: 4096 bytes\n");
  EXPECT_THAT(RunBeside({}, {"confirm", "a b"}).errors, HasSubstr("'a b' is no name of a trial"));
  EXPECT_EQ(RunBeside({}, {"confirm", ".."}).status, 2);
}

TEST(TrialCommands, LostAnswerLeavesTheOutcomeOpen) {
  const Exchange::value_type pending{"trial t-1\n", "data\n[t-1]\nstate=pending\n.\n"};
  const Outcome outcome = RunBeside({kFeatures, pending, {"confirm t-1\n", kHangUp}}, {"confirm", "t-1"});
  EXPECT_THAT(outcome.errors, HasSubstr("hint: it is unknown what became of t-1: 'tavix-settings trials' shows it\n"));
  EXPECT_EQ(outcome.status, 3);
}

TEST(TrialCommands, TrialsArePrinted) {
  const std::string two =
      "data\n[t-1]\nby=unix 0 0 812\nis [A]b=1\nkept [A]c=\nkept [B]=\nnote=site 4\nrevision=118\nseconds=87\nstate=pending\n"
      "[t-2]\nby=tcp - - -\nstate=reverted\n.\n";
  ExpectRun({{kFeatures, {"trial\n", two}}}, {"trials"}, 0, "",
            "t-1  pending, 87 s left  root, process 812  revision 118  site 4\n"
            "     [A]b: (default) -> 1\n"
            "     [A]c: stays, as others have changed it since\n"
            "     [B]: stays, as others have changed it since\n"
            "t-2  reverted  over TCP\n");
  EXPECT_EQ(json::parse(RunBeside({kFeatures, {"trial\n", two}}, {"trials", "--json"}).output),
            json::parse(R"([{"name": "t-1", "state": "pending", "seconds": 87, "revision": 118, "note": "site 4",
      "by": {"connection": "unix", "user": 0, "group": 0, "process": 812},
      "changes": [{"group": "A", "key": "b", "old": null, "new": "1"}], "kept": [{"group": "A", "key": "c"}, {"group": "B"}]},
      {"name": "t-2", "state": "reverted", "by": {"connection": "tcp"}, "changes": []}])"));
  ExpectRun({{kFeatures, kNoTrials}}, {"trials"}, 0, "no trials\n");
}

}  // namespace tavix::test
