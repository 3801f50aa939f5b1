// The way back to earlier settings, at a server whose answers a test decides.

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tests/programs/cli/process/HistoryScript.h"

namespace tavix::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

}  // namespace

TEST(RollbackCommand, BringsSettingsBackAndPrintsThem) {
  const Outcome outcome =
      RunBeside({kFeatures,
                 {"note oops\nrollback 116 Network/*\n",
                  "data\n[0000000119]\nby=unix 0 0 900\ncommand=rollback\nis [Network/Eth0]mtu=1400\ntime=0\n"
                  "was [Network/Eth0]address=10.0.0.2\n.\n"},
                 kServer},
                {"rollback", "-y", "-m", "oops", "116", "Network/*"});
  ExpectOutcome(outcome, 0, "[Network/Eth0]address: 10.0.0.2 -> (default)\n[Network/Eth0]mtu: (default) -> 1400\n",
                "done: 2 settings as after revision 116\n");
}

TEST(RollbackCommand, DryRunChangesNothing) {
  const Exchange exchange{kFeatures, {"test-rollback @good\n", "data\n[0000000119]\nis [A]b=1\nwas [A]b=2\n.\n"}};
  ExpectOutcome(RunBeside(exchange, {"rollback", "--dry-run", "@good"}), 0, "[A]b: 2 -> 1\n", "");
  EXPECT_EQ(json::parse(RunBeside(exchange, {"rollback", "--dry-run", "--json", "@good"}).output),
            json::parse(R"([{"group": "A", "key": "b", "old": "2", "new": "1"}])"));
}

TEST(RollbackCommand, NeedsAYesWhereNobodyCanBeAsked) {
  const Outcome outcome = RunBeside(
      {kFeatures, {"test-rollback 116\n", "data\n[0000000119]\nis [A]b=1\nis [B]b=1\n.\n"}}, {"rollback", "116"});
  ExpectOutcome(outcome, 2, "",
                "tavix-settings: a rollback would change 2 groups: give --yes to do it\nhint: --dry-run shows them\n");
}

TEST(RollbackCommand, WhatCameWhileItAskedStays) {
  const ScriptedDaemon daemon({{kFeatures,
                                {"test-rollback 116\n", "data\n[0000000119]\nis [A]b=1\n.\n"},
                                {"test-rollback 116\n", "data\n[0000000120]\nis [A]b=1\nwas [A]c=2\n.\n"}}});
  const auto command = daemon.Start({"rollback", "116"}, CommandProcess::Streams::kTerminal);
  command->AwaitOutput("Change 1 group? [y/N] ");
  command->Write("y\n");
  EXPECT_EQ(command->AwaitEnd(), 4);
  EXPECT_THAT(command->GetOutput(), HasSubstr("tavix-settings: condition failed: [A]c was changed by now\n"));
}

TEST(RollbackCommand, NamesWhatCameRightBehindThat) {
  const std::string shown = "data\n[0000000119]\nis [A]b=1\n.\n";
  const ScriptedDaemon daemon({{kFeatures,
                                {"test-rollback 116\n", shown},
                                {"test-rollback 116\n", shown},
                                {"rollback 116\n", "data\n[0000000120]\nis [A]b=1\nwas [A]c=2\n.\n"},
                                kServer}});
  const auto command = daemon.Start({"--color", "never", "rollback", "116"}, CommandProcess::Streams::kTerminal);
  command->AwaitOutput("Change 1 group? [y/N] ");
  command->Write("y\n");
  EXPECT_EQ(command->AwaitEnd(), 0);
  EXPECT_THAT(command->GetOutput(),
              HasSubstr("[A]b: (default) -> 1\n[A]c: 2 -> (default)\n"
                        "tavix-settings: others have just changed [A]c, which is brought back, too\n"));
}

TEST(RollbackCommand, WithoutADifferenceChangesNothing) {
  ExpectOutcome(RunBeside({kFeatures, {"rollback 118\n", "data\n.\n"}}, {"rollback", "-y", "118"}), 0, "",
                "done: no differences\n");
}

TEST(RollbackCommand, ReportsTheServersReason) {
  const Outcome outcome =
      RunBeside({kFeatures, {"rollback 3\n", "refused\nrevision 3 is not kept\\x3a the oldest is 96\n"}},
                {"rollback", "-y", "3"});
  ExpectOutcome(outcome, 7, "", "tavix-settings: not applied: revision 3 is not kept: the oldest is 96\n");
}

TEST(RollbackCommand, TakesTheLastChangeUpToATime) {
  const Exchange::value_type history{"history - 64\n", "data\n" + k117 + k118 + kEnd};
  const Outcome outcome = RunBeside({kFeatures, history, {"rollback 117 A\n", "data\n.\n"}},
                                    {"rollback", "-y", "--at", "2026-11-22 01:43:20", "A"});
  ExpectOutcome(outcome, 0, "",
                "the last change up to then: revision 117, of 2026-11-22 01:43:20\ndone: no differences\n");
  ExpectOutcome(RunBeside({kFeatures, history}, {"rollback", "-y", "--at", "2026-11-22 01:43:19"}), 7, "",
                "tavix-settings: not applied: no change is kept that is so old\n"
                "hint: the oldest is revision 117, of 2026-11-22 01:43:20\n");
  EXPECT_THAT(RunBeside({kFeatures}, {"rollback", "--at", "soon"}).errors, HasSubstr("'soon' is no time"));
}

TEST(RollbackCommand, LeavesRestrictedGroupsToTheirFiles) {
  const Outcome outcome = RunBeside({}, {"rollback", "-y", "3", "Secure/A"});
  EXPECT_EQ(outcome.status, 5);
}

TEST(CheckpointCommand, MakesListsAndForgetsCopies) {
  const std::string kept = "[good]\nbytes=1234\nrevision=118\ntime=1795311855000000000\n";
  ExpectOutcome(RunBeside({kFeatures, {"checkpoint good\n", "data\n" + kept + ".\n"}}, {"checkpoint", "good"}), 0,
                "good  revision 118  2026-11-22 01:44:15  1234 bytes\n",
                "done: bring it back by: tavix-settings rollback @good\n");
  const ScriptedDaemon named({{kFeatures, {"checkpoint good\n", "data\n" + kept + ".\n"}}});
  EXPECT_EQ(named.Run({"-s", named.GetAddress(), "checkpoint", "good"}).errors,
            "done: bring it back by: tavix-settings -s '" + named.GetAddress() + "' rollback @good\n");
  const Exchange list{kFeatures, {"checkpoint\n", "data\n[bad]\nbytes=5\ndamaged=no end\n" + kept + ".\n"}};
  ExpectOutcome(RunBeside(list, {"checkpoint"}), 0,
                "bad  damaged: no end\ngood  revision 118  2026-11-22 01:44:15  1234 bytes\n", "");
  EXPECT_EQ(json::parse(RunBeside(list, {"checkpoint", "--json"}).output),
            json::parse(R"([{"name": "bad", "bytes": 5, "damaged": "no end"},
      {"name": "good", "bytes": 1234, "revision": 118, "time": "2026-11-22T01:44:15.000Z"}])"));
  ExpectOutcome(RunBeside({kFeatures, {"checkpoint\n", "data\n.\n"}}, {"checkpoint"}), 0, "", "no checkpoints\n");
  ExpectOutcome(RunBeside({kFeatures, {"forget good\n", "data\n.\n"}}, {"checkpoint", "good", "--forget"}), 0, "",
                "done: forgot checkpoint good\n");
  ExpectOutcome(
      RunBeside({kFeatures, {"forget x\n", "refused\nno checkpoint is named 'x'\n"}}, {"checkpoint", "--forget", "x"}),
      7, "", "tavix-settings: not applied: no checkpoint is named 'x'\n");
}

}  // namespace tavix::test
