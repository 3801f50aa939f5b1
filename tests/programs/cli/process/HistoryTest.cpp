// Who changed what, as a server tells it whose answers a test decides.

#include <gmock/gmock.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "tests/programs/cli/process/HistoryScript.h"

namespace tavix::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;
using Words = std::vector<std::string>;

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

TEST(LogCommand, JsonHasItsEndWhenTheServerIsLost) {
  const Outcome outcome = RunBeside({kFeatures,
                                     {"history - 32\n", "data\n" + k118 + "[scanned]\nmore=true\nnext=118\n.\n"},
                                     {"history 118 32\n", kHangUp}},
                                    {"log", "--json"});
  EXPECT_EQ(json::parse(outcome.output).size(), 1U);
  EXPECT_EQ(outcome.status, 3);
}

TEST(LogCommand, NamesOnlyUsersThatAreNumbers) {
  const auto findUser = [](const std::string& id) {
    const std::string entry = "[0000000104]\nby=unix " + id + " - -\ncommand=merge\ntime=0\n";
    const Exchange exchange{kFeatures, {"history - 32\n", "data\n" + entry + kEnd}};
    return RunBeside(exchange, {"log"}).output;
  };
  EXPECT_EQ(findUser("0"), "104  1970-01-01 00:00:00  root  merge\n");
  for (const std::string id : {"x", "0x", "4294967295", "4294967296"})
    EXPECT_EQ(findUser(id), "104  1970-01-01 00:00:00  user " + id + "  merge\n");
}

TEST(LogCommand, ValuesLookLikeNoOthers) {
  const Outcome outcome =
      RunBeside({kFeatures,
                 {"history - 32\n",
                  "data\n[0000000104]\nby=tcp - - -\ncommand=merge\ntime=0\nwas [A]a=\nis [A]a=(default)\n"
                  "is [A]b=''\n" +
                      std::string(kEnd)}},
                {"log"});
  ExpectOutcome(outcome, 0,
                "104  1970-01-01 00:00:00  over TCP  merge\n"
                "     [A]a: '' -> \\x28default)\n"
                "     [A]b: (default) -> \\x27'\n",
                "");
}

TEST(LogCommand, OfNothingSaysSo) {
  ExpectOutcome(RunBeside({kFeatures, {"history - 32 A*\n", std::string("data\n") + kEnd}}, {"log", "A*"}), 0, "",
                "no change of 'A*' is kept\n");
  ExpectOutcome(RunBeside({kFeatures, {"history - 32\n", std::string("data\n") + kEnd}}, {"log"}), 0, "",
                "no changes are kept\n");
}

TEST(LogCommand, EndsWhenNobodyReadsAnyMore) {
  ScriptedDaemon daemon({{kFeatures,
                          {"history - 32\n", "data\n" + k118 + "[scanned]\nmore=true\nnext=118\n.\n"},
                          {"history 118 32\n", "data\n" + k117 + "[scanned]\nmore=true\nnext=117\n.\n"}}});
  const auto log = daemon.Start({"log"}, CommandProcess::Streams::kUnread);
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
  ExpectOutcome(daemon.Run({"checkpoint"}), 7, "", "tavix-settings: " + daemon.GetAddress() + " has no 'checkpoint'\n");
  for (const auto& [words, request] :
       std::vector<std::pair<Words, std::string>>{{{"rollback", "3"}, "test-rollback 3\n"},
                                                  {{"rollback", "-y", "3"}, "rollback 3\n"},
                                                  {{"checkpoint", "a"}, "checkpoint a\n"},
                                                  {{"checkpoint", "a", "--forget"}, "forget a\n"}}) {
    const ScriptedDaemon older({{kFeatures, {request, ""}}});
    ExpectOutcome(older.Run(words), 7, "",
                  "tavix-settings: not applied: " + older.GetAddress() + " has no '" + words.front() + "'\n");
  }
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
  for (const std::string name : {".", ".."}) EXPECT_EQ(RunBeside({}, {"checkpoint", name}).status, 2);
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

TEST(BlameCommand, AccusesNobodyBehindAnEntryWhoseSettingsAreNotKnown) {
  const std::string first =
      "[0000000110]\nby=unix 0 0 700\ncommand=merge\ntime=0\nis [A]b=1\nis [A]c=1\n"
      "[0000000121]\nby=tcp - - -\ncommand=merge\ntime=0\nis [A]c=2\n";
  const std::string omitted = "[0000000120]\nby=tcp - - -\ncommand=merge\nomitted=300000\ntime=0\n";
  const std::string gap = "[0000000120]\nby=daemon - - -\ncommand=gap\ntime=0\n";
  for (const std::string& entry : {omitted, gap}) {
    const Exchange exchange{kFeatures,
                            {"get delimited\nA\n.\n", "data\n[A]\nb=1\nc=2\n.\n"},
                            {"dump\n", "[A]\nb=1\nc=2\n.\n"},
                            {"history - 64 A\n", "data\n" + first + entry + kEnd}};
    EXPECT_EQ(RunBeside(exchange, {"blame", "A"}).output, "b  before 121\nc  121  1970-01-01 00:00:00  over TCP\n");
    EXPECT_EQ(json::parse(RunBeside(exchange, {"blame", "A", "--json"}).output)[0],
              json::parse(R"({"key": "b", "origin": "user", "before": 121})"));
  }
}

TEST(BlameCommand, AsksOnceMoreWhenASettingWentInBetween) {
  const Exchange::value_type seen{"get delimited\nA\n.\n", "data\n[A]\nb=1\nc=1\n.\n"};
  const std::string went = "[0000000118]\nby=tcp - - -\ncommand=amend\ntime=0\nwas [A]b=1\n";
  const std::string set = "[0000000117]\nby=tcp - - -\ncommand=merge\ntime=0\nis [A]c=1\n";
  const Exchange::value_type history{"history - 64 A\n", "data\n" + set + went + kEnd};
  const Outcome outcome = RunBeside(
      {kFeatures, seen, {"dump\n", "[A]\nb=1\nc=1\n.\n"}, history, seen, {"dump\n", "[A]\nc=1\n.\n"}, history},
      {"blame", "A"});
  EXPECT_EQ(outcome.output, "b  default\nc  117  1970-01-01 00:00:00  over TCP\n");
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

}  // namespace tavix::test
