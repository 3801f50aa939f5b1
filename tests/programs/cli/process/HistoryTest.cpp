// What the commands print of a server's history, and do by it, at a server whose answers a test decides.

#include <gmock/gmock.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "tests/programs/cli/process/ScriptedDaemon.h"

namespace tavix::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;
using Words = std::vector<std::string>;

const std::string kAskFeatures = "info features\nget delimited\n.\n";
const Exchange::value_type kOld{kAskFeatures, "data\n.\n"};
const Exchange::value_type kOff{kAskFeatures, "Features\n--------\namend\n\ndata\n.\n"};
const Exchange::value_type kFeatures{kAskFeatures, "Features\n--------\namend\nhistory 96 118\n\ndata\n.\n"};
const Exchange::value_type kServer{"info server\nget delimited\n.\n", "data\n.\n"};
constexpr char kEnd[] = "[scanned]\nmore=false\nnext=97\n.\n";

// The changes 117 and 118.
const std::string k117 =
    "[0000000117]\nby=unix 0 0 700\ncommand=amend\ntime=1795311800000000000\n"
    "was [Network/Eth0]mtu=1400\nwas [Network/Wlan0]enabled=true\nis [Network/Wlan0]enabled=false\n";
const std::string k118 =
    "[0000000118]\nby=unix 0 0 812\ncommand=merge\nis [Network/Eth0]address=10.0.0.2\nnote=site 4\n"
    "time=1795311855000000000\ntrial=t-3f9a\n";

void ExpectOutcome(const Outcome& outcome, int status, const std::string& output, const std::string& errors) {
  EXPECT_EQ(outcome.output, output);
  EXPECT_EQ(outcome.errors, errors);
  EXPECT_EQ(outcome.status, status);
}

}  // namespace

TEST(LogCommand, PrintsTheLatestChange) {
  const Outcome outcome = RunBeside(
      {kFeatures, {"history - 1\n", "data\n" + k118 + "[scanned]\nmore=true\nnext=118\n.\n"}}, {"log", "-n", "1"});
  ExpectOutcome(outcome, 0,
                "118  2026-11-22 01:44:15  root, process 812  merge  site 4\n"
                "     [Network/Eth0]address: (default) -> 10.0.0.2\n",
                "");
}

TEST(LogCommand, AsksForMoreUntilItHasAll) {
  const Outcome outcome =
      RunBeside({kFeatures,
                 {"history - 32 Network/*\n", "data\n" + k117 + k118 + "[scanned]\nmore=true\nnext=117\n.\n"},
                 {"history 117 32 Network/*\n", "data\n[scanned]\nmore=true\nnext=100\n.\n"},
                 {"history 100 32 Network/*\n",
                  "data\n[0000000099]\nby=tcp - - -\ncommand=overwrite\ntime=0\nis [Network/New]=\n"
                  "was [Network/Old]=\n" +
                      std::string(kEnd)}},
                {"log", "Network/*"});
  ExpectOutcome(outcome, 0,
                "118  2026-11-22 01:44:15  root, process 812  merge  site 4\n"
                "     [Network/Eth0]address: (default) -> 10.0.0.2\n"
                "117  2026-11-22 01:43:20  root, process 700  amend\n"
                "     [Network/Eth0]mtu: 1400 -> (default)\n"
                "     [Network/Wlan0]enabled: true -> false\n"
                "99  1970-01-01 00:00:00  over TCP  overwrite\n"
                "    [Network/New]: group added\n"
                "    [Network/Old]: group removed\n",
                "");
}

TEST(LogCommand, AsksForNoMoreThanItPrints) {
  const Outcome outcome = RunBeside({kFeatures,
                                     {"history - 2\n", "data\n" + k118 + "[scanned]\nmore=true\nnext=118\n.\n"},
                                     {"history 118 1\n", "data\n" + k117 + "[scanned]\nmore=true\nnext=117\n.\n"}},
                                    {"log", "-n", "2"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, HasSubstr("117  2026"));
}

TEST(LogCommand, NamesWhatIsNoChangeOfAUser) {
  const Outcome outcome = RunBeside(
      {kFeatures,
       {"history - 32\n",
        "data\n[0000000101]\nby=daemon - - -\ncommand=gap\ntime=1795311855000000000\n"
        "[0000000102]\nby=local - - -\ncommand=-\ntime=1795311855000000000\nomitted=300000\n"
        "[0000000103]\nby=daemon - - -\ncommand=revert\ntime=1795311855000000000\ntrial=t-1\n"
        "is [TavixSettings/Data/DeletedGroups]A/*=A/*\nwas [TavixSettings/Data/DeletedGroups]B=B\n"
        "[0000000104]\nby=unix 4000000000 - -\ncommand=merge\ntime=1795311855000000000\nis [A]b=\\x1b\\x5b2J\n" +
            std::string(kEnd)}},
      {"log"});
  ExpectOutcome(outcome, 0,
                "104  2026-11-22 01:44:15  user 4000000000  merge\n"
                "     [A]b: (default) -> \\x1b[2J\n"
                "103  2026-11-22 01:44:15  the server  revert  t-1\n"
                "     [A/*]: deleted\n"
                "     [B]: no longer deleted\n"
                "102  2026-11-22 01:44:15  the server  call\n"
                "     too long to be shown: 300000 bytes\n"
                "101  2026-11-22 01:44:15  changes up to this one are missing\n",
                "");
}

TEST(LogCommand, PrintsJson) {
  const Outcome outcome = RunBeside({kFeatures, {"history - 32\n", "data\n" + k117 + k118 + kEnd}}, {"log", "--json"});
  const json all = json::parse(outcome.output);
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0], json::parse(R"({"revision": 118, "time": "2026-11-22T01:44:15.000Z", "command": "merge",
      "by": {"connection": "unix", "user": 0, "group": 0, "process": 812}, "note": "site 4", "trial": "t-3f9a",
      "changes": [{"group": "Network/Eth0", "key": "address", "old": null, "new": "10.0.0.2"}]})"));
  EXPECT_EQ(all[1]["changes"].size(), 2U);
  EXPECT_EQ(RunBeside({kFeatures, {"history - 32\n", std::string("data\n") + kEnd}}, {"log", "--json"}).output, "[]\n");
}

TEST(LogCommand, OfNothingSaysSo) {
  ExpectOutcome(RunBeside({kFeatures, {"history - 32\n", std::string("data\n") + kEnd}}, {"log"}), 0, "",
                "no changes are kept\n");
}

TEST(LogCommand, EndsWhenNobodyReadsAnyMore) {
  ScriptedDaemon daemon({{kFeatures,
                          {"history - 32\n", "data\n" + k118 + "[scanned]\nmore=true\nnext=118\n.\n"},
                          {"history 118 32\n", "data\n" + k117 + "[scanned]\nmore=true\nnext=117\n.\n"}}});
  const auto log = daemon.Start({"log"});
  log->CloseOutput();
  EXPECT_EQ(log->AwaitEnd(), 128 + SIGPIPE);
}

TEST(HistoryCommands, NameWhatTheServerLacks) {
  for (const Words& words : std::vector<Words>{{"log"},
                                               {"rollback", "3"},
                                               {"rollback", "--at", "1 h ago"},
                                               {"checkpoint"},
                                               {"checkpoint", "a", "--forget"},
                                               {"blame", "A"}}) {
    ExpectOutcome(RunBeside({kOld}, words), 7, "", "tavix-settings: the server is too old for a history\n");
    ExpectOutcome(RunBeside({kOff}, words), 7, "",
                  "tavix-settings: the server has no history\n"
                  "hint: it needs --history BYTES and --user-settings FILE\n");
  }
}

TEST(HistoryCommands, NameARequestThatTheServerDoesNotKnow) {
  const ScriptedDaemon daemon({{kFeatures, {"checkpoint\n", ""}}});
  ExpectOutcome(daemon.Run({"checkpoint"}), 7, "",
                "tavix-settings: " + daemon.GetAddress() + " is too old for 'checkpoint'\n");
}

TEST(HistoryCommands, FileHasNoHistory) {
  for (const Words& words :
       std::vector<Words>{{"log"}, {"blame", "A"}, {"rollback", "3"}, {"checkpoint"}, {"trials"}, {"confirm", "t-1"}}) {
    Words all = words;
    all.insert(all.begin(), {"--local", "file.ini"});
    ExpectOutcome(RunBeside({}, all), 2, "",
                  "tavix-settings: a file has neither history nor trials: leave --local out\n");
  }
}

TEST(HistoryCommands, RefuseWhatNoRequestCanHold) {
  for (const std::string word : {" A", "A ", "A\nB"})
    EXPECT_THAT(RunBeside({}, {"log", word}).errors, HasSubstr("the history can't be asked for"));
  EXPECT_THAT(RunBeside({}, {"log", ""}).errors, HasSubstr("the name of a group is empty"));
  EXPECT_THAT(RunBeside({}, {"rollback", "x"}).errors, HasSubstr("'x' is no revision\nhint: expected REVISION, @NAME"));
  EXPECT_THAT(RunBeside({}, {"rollback"}).errors, HasSubstr("expected REVISION, @NAME or --at TIME"));
  EXPECT_THAT(RunBeside({}, {"rollback", "@a b"}).errors, HasSubstr("'a b' is no name of a checkpoint"));
  EXPECT_THAT(RunBeside({}, {"checkpoint", ""}).errors, HasSubstr("'' is no name of a checkpoint"));
  EXPECT_EQ(RunBeside({}, {"checkpoint", "--forget"}).status, 2);
}

TEST(BlameCommand, PrintsWhereEachValueComesFrom) {
  const Outcome outcome = RunBeside(
      {kFeatures,
       {"get delimited\nNetwork/Eth0\n.\n", "data\n[Network/Eth0]\naddress=10.0.0.2\ndhcp=true\nmtu=1400\nold=1\n.\n"},
       {"dump\n", "[Network/Eth0]\naddress=10.0.0.2\nmtu=1400\nold=1\n.\n"},
       {"history - 64 Network/Eth0\n", "data\n" + k118 + "[scanned]\nmore=true\nnext=118\n.\n"},
       {"history 118 64 Network/Eth0\n",
        "data\n[0000000116]\nby=tcp - - -\ncommand=merge\ntime=1795311800000000000\nis [Network/Eth0]address=10.0.0.1\n"
        "is [Network/Eth0]mtu=1400\n[0000000096]\nby=tcp - - -\ncommand=merge\ntime=0\nis [Network/Eth0]old=1\n" +
            std::string(kEnd)}},
      {"blame", "Network/Eth0"});
  ExpectOutcome(outcome, 0,
                "address  118  2026-11-22 01:44:15  root, process 812  site 4\n"
                "dhcp     default\n"
                "mtu      116  2026-11-22 01:43:20  over TCP\n"
                "old      before 97\n",
                "");
}

TEST(BlameCommand, AsksForNoHistoryWhereAllIsDefault) {
  const Outcome outcome =
      RunBeside({kFeatures, {"get delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"}, {"dump\n", "[Other]\nb=1\n.\n"}},
                {"blame", "A", "--json"});
  EXPECT_EQ(json::parse(outcome.output), json::parse(R"([{"key": "b", "origin": "default"}])"));
}

TEST(BlameCommand, LooksAtAllWhereNoRequestCanNameTheGroup) {
  const Outcome outcome = RunBeside({kFeatures,
                                     {"get delimited\nA \n.\n", "data\n[A\\s]\nb=1\n.\n"},
                                     {"dump\n", "[A\\s]\nb=1\n.\n"},
                                     {"history - 64\n",
                                      "data\n[0000000110]\nby=tcp - - -\ncommand=merge\ntime=0\n"
                                      "is [A\\\\s]b=1\nis [A]b=1\n" +
                                          std::string(kEnd)}},
                                    {"blame", "A ", "--json"});
  EXPECT_EQ(json::parse(outcome.output)[0]["revision"], 110);
}

TEST(BlameCommand, OfNoGroupIsExitStatus1) {
  const Outcome outcome = RunBeside(
      {kFeatures, {"get delimited\nA\n.\n", "data\n.\n"}, {"get delimited\nA*\n.\n", "data\n.\n"}}, {"blame", "A"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(RunBeside({}, {"blame", "A*"}).errors, HasSubstr("'A*' is a pattern"));
}

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
                "done: bring it back by 'tavix-settings rollback @good'\n");
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
