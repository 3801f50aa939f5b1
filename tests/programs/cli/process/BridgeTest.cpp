// What the command makes of bridges whose answers a test decides.

#include <gmock/gmock.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/programs/cli/process/ScriptedBridge.h"
#include "tests/support/CommandProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace {

using nlohmann::json;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using testing::StrEq;
using Words = std::vector<std::string>;
using Ending = ScriptedBridge::Ending;

class BridgeCommand : public testing::Test {
 protected:
  Outcome RunAtOnce(Words words) const {
    words.insert(words.begin(), TAVIX_CLI_PROGRAM);
    const Variables variables{{"TZ", "UTC0"},
                              {"LC_ALL", "C"},
                              {"TERM", "xterm"},
                              {"TAVIX_SETTINGS_SERVER", std::nullopt},
                              {"TAVIX_SETTINGS_LOCALFILE", std::nullopt}};
    return RunToEnd(_directory.GetPath(), words, {}, variables);
  }

  // With time for a busy machine.
  Outcome Run(Words words) const {
    words.insert(words.end(), {"--runtime", ".", "-t", "80"});
    return RunAtOnce(std::move(words));
  }

  void ExpectRun(const Words& words, int status, const std::string& output, const std::string& errors = {}) const {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.output, output);
    EXPECT_EQ(outcome.errors, errors);
    EXPECT_EQ(outcome.status, status);
  }

  // A bridge that answers so: what the command reports of it on standard error, and its exit status.
  void ExpectFailure(const Words& words, const std::string& answer, int status, const std::string& error) const {
    const ScriptedBridge bridge(_directory.GetPath(), "failing", answer);
    ExpectRun(words, status, "", "tavix-settings: bridge 'failing'" + error + "\n");
    ASSERT_EQ(unlink(_directory.Path("bridge-failing.sock").c_str()), 0);
  }

  static std::string Status(const json& changes = json::object()) {
    json status = json::parse(R"({"name": "fleet", "engine": "mqtt", "state": "in sync", "link": "connected",
        "since": 1795312800, "daemon": "connected", "lag": 0, "waiting": 0, "conflicts": 3, "overridden": 2,
        "refused": 1, "held": 0, "undecided": 0, "leftOut": 4, "lastError": "", "lastErrorTime": 0, "from": "later versions"})");
    for (const auto& [member, value] : changes.items()) status[member] = value;
    return status.dump() + "\n";
  }

  const TemporaryDirectory _directory;
};

}  // namespace

TEST_F(BridgeCommand, StatusOfABridgeInSyncIsPrinted) {
  const ScriptedBridge bridge(_directory.GetPath(), "fleet", Status());
  ExpectRun(
      {"bridge", "status", "--name", "fleet"}, 0,
      "bridge         fleet\nengine         mqtt\nstate          in sync\nlink           connected\n"
      "  since        2026-11-22 02:00:00\ndaemon         connected\nlag            0 s\nwaiting        0\n"
      "conflicts      3\noverridden     2\nrefused        1\nheld           0\nundecided      0\nleft out       4\n");
  EXPECT_THAT(bridge.GetRequests(), ElementsAre("status\n"));
}

TEST_F(BridgeCommand, StatusShowsTheLastErrorAndWhatIsHeld) {
  const json changes{{"state", "not in sync"},
                     {"link", "lost"},
                     {"lag", 90},
                     {"waiting", 5},
                     {"held", 12},
                     {"lastError", "the broker\x1b refused"},
                     {"lastErrorTime", 1795316405}};
  const ScriptedBridge bridge(_directory.GetPath(), "fleet", Status(changes));
  ExpectRun(
      {"bridge", "status"}, 1,
      "bridge         fleet\nengine         mqtt\nstate          not in sync\nlink           lost\n"
      "  since        2026-11-22 02:00:00\ndaemon         connected\nlag            90 s\nwaiting        5\n"
      "conflicts      3\noverridden     2\nrefused        1\nheld           12\nundecided      0\nleft out       4\n"
      "last error     the broker\\x1b refused\n  at           2026-11-22 03:00:05\n",
      "'tavix-settings bridge sync --accept' accepts the losses that are held\n");
}

TEST_F(BridgeCommand, StatusTellsHowToDecideWhatIsUndecided) {
  const ScriptedBridge bridge(_directory.GetPath(), "fleet", Status({{"state", "not in sync"}, {"undecided", 3}}));
  const Outcome outcome = Run({"bridge", "status"});
  EXPECT_THAT(outcome.output, HasSubstr("\nundecided      3\n"));
  EXPECT_EQ(outcome.errors, "'tavix-settings bridge sync --from centre|device' decides who is right first\n");
  EXPECT_EQ(outcome.status, 1);
}

TEST_F(BridgeCommand, DoesNotWaitForABridgeThatSendsAByteNowAndThen) {
  const ScriptedBridge bridge(_directory.GetPath(), "slow", "{", Ending::kDribble);
  const Outcome outcome = RunAtOnce({"bridge", "status", "--runtime", ".", "-t", "0.5"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.errors, StartsWith("tavix-settings: bridge 'slow' "));
}

TEST_F(BridgeCommand, JsonHasTheAnswerOfEachBridge) {
  const std::string chassis = Status({{"engine", "etcd"}, {"state", "not in sync"}});
  const ScriptedBridge one(_directory.GetPath(), "fleet", Status());
  const ScriptedBridge other(_directory.GetPath(), "chassis", chassis);
  _directory.Write("bridge-.sock", "");
  _directory.Write("bridge-fleet.patterns", "");
  const Outcome outcome = Run({"bridge", "status", "--json"});
  EXPECT_EQ(json::parse(outcome.output), json({{"chassis", json::parse(chassis)}, {"fleet", json::parse(Status())}}));
  EXPECT_EQ(outcome.errors, "");
  EXPECT_EQ(outcome.status, 1);
}

TEST_F(BridgeCommand, JsonHoldsNoControlCharacters) {
  const ScriptedBridge bridge(_directory.GetPath(), "x", "{\"conflicts\": [], \"more\": \"\x7F\xC2\x9B\"}\n");
  ExpectRun({"bridge", "conflicts", "--json"}, 0, "{\n\"x\": {\"conflicts\": [], \"more\": \"\\u007f\\u009b\"}\n}\n");
}

TEST_F(BridgeCommand, StatusShowsTheOthersWhenOneDoesNotRun) {
  const ScriptedBridge running(_directory.GetPath(), "z", Status({{"state", "not in sync"}}));
  { const ScriptedBridge killed(_directory.GetPath(), "a", ""); }
  const std::string error = "bridge 'a' is not running: './bridge-a.sock': Connection refused";
  Outcome outcome = Run({"bridge", "status"});
  EXPECT_THAT(outcome.output, StartsWith("bridge         z\n"));
  EXPECT_EQ(outcome.errors, "tavix-settings: " + error + "\n");
  EXPECT_EQ(outcome.status, 3);
  outcome = Run({"bridge", "status", "--json"});
  EXPECT_EQ(json::parse(outcome.output).at("a"), json({{"error", error}}));
  EXPECT_EQ(json::parse(outcome.output).at("z").at("state"), "not in sync");
  EXPECT_EQ(outcome.status, 3);
}

TEST_F(BridgeCommand, WithoutABridgeItIsSaidWhereOneWasLookedFor) {
  const std::string none = "tavix-settings: no bridge is running: there is no 'bridge-NAME.sock' in ";
  ExpectRun({"bridge", "status"}, 3, "", none + "'.'\n");
  EXPECT_EQ(RunAtOnce({"bridge", "diff", "--runtime", "missing"}).errors, none + "'missing'\n");
  ExpectRun({"bridge", "status", "--name", "x"}, 3, "",
            "tavix-settings: bridge 'x' is not running: './bridge-x.sock': No such file or directory\n");
  _directory.Write("file", "");
  const Outcome outcome = RunAtOnce({"bridge", "status", "--runtime", "file"});
  EXPECT_EQ(outcome.errors, "tavix-settings: failed to read 'file': Not a directory\n");
  EXPECT_EQ(outcome.status, 3);
}

TEST_F(BridgeCommand, WrongWordsAreRefused) {
  for (const char* name : {"", ".", "../x", "a b", "a\nb"})
    EXPECT_EQ(Run({"bridge", "status", "--name", name}).status, 2);
  EXPECT_THAT(Run({"bridge", "status", "--name", std::string(120, 'n')}).errors,
              HasSubstr("': the path of its socket is too long: './bridge-nnn"));
  EXPECT_EQ(RunAtOnce({"bridge", "status", "--runtime", ""}).errors,
            "tavix-settings: --runtime: expected a folder, found an empty text\n");
  const std::string foreign =
      "tavix-settings: --server and --local don't belong to 'bridge', which asks the bridges of this device\n";
  ExpectRun({"--local", "x", "bridge", "status"}, 2, "", foreign);
  ExpectRun({"-s", "127.0.0.1", "bridge", "diff"}, 2, "", foreign);
  EXPECT_THAT(Run({"-o", "ini", "bridge", "status"}).errors, HasSubstr("can't print as 'ini', only as text, json"));
}

TEST_F(BridgeCommand, AnswersThatCantBeReadAreNamed) {
  const Words status{"bridge", "status"};
  ExpectFailure(status, "", 3, " hung up before the end of its answer");
  ExpectFailure(status, Status().substr(0, 20), 3, " hung up before the end of its answer");
  ExpectFailure(status, std::string(17, '[') + "\n", 6, ": it nests too deeply");
  ExpectFailure(status, "[]\n", 6, ": 'engine' is missing");
  ExpectFailure(status, "{\"" + std::string(257, 'a') + "\": 1}\n", 6, ": a name is too long");
  ExpectFailure(status, Status({{"engine", nullptr}}), 6, ": 'engine': expected a string, found null");
  ExpectFailure(status, Status({{"lag", -1}}), 6, ": 'lag': expected a whole number from 0 on, found -1");
  ExpectFailure(status, Status({{"since", 1e18}}), 6, ": 'since': expected a whole number from 0 on, found 1e+18");
  ExpectFailure(status, Status({{"since", 9999999999}}), 6, ": 'since': expected seconds since 1970, found 9999999999");
  json cut = json::parse(Status());
  cut.erase("held");
  ExpectFailure(status, cut.dump() + "\n", 6, ": 'held' is missing");
  ExpectFailure(status, "{\"error\": \"busy\\u001b\"}\n", 7, ": busy\\x1b");
}

TEST_F(BridgeCommand, WhatIsNoJsonIsRefused) {
  for (const char* answer : {"{]\n", "{} {}\n", "yes\n", "\"\xFF\"\n", "\n"}) {
    const ScriptedBridge bridge(_directory.GetPath(), "garbled", answer);
    const Outcome outcome = Run({"bridge", "status"});
    EXPECT_THAT(outcome.errors, StartsWith("tavix-settings: bridge 'garbled': parse error at line "));
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.status, 6);
    ASSERT_EQ(unlink(_directory.Path("bridge-garbled.sock").c_str()), 0);
  }
}

TEST_F(BridgeCommand, LongAnswersAreCutOff) {
  ExpectFailure({"bridge", "diff"}, std::string(17 * 1024 * 1024, ' '), 6, ": its answer is longer than 16 MiB");
}

TEST_F(BridgeCommand, SilentBridgesAreNotWaitedFor) {
  const ScriptedBridge bridge(_directory.GetPath(), "x", Status().substr(0, 9), Ending::kKeepSilent);
  const Outcome outcome = RunAtOnce({"bridge", "status", "--runtime", ".", "-t", "0.3"});
  // The second one where the machine stood still before the first bytes were read.
  EXPECT_THAT(outcome.errors,
              AnyOf(StrEq("tavix-settings: bridge 'x' keeps silent\nhint: --timeout gives it more time\n"),
                    StrEq("tavix-settings: bridge 'x' is too slow\nhint: --timeout gives it more time\n")));
  EXPECT_EQ(outcome.status, 3);
}

TEST_F(BridgeCommand, VerboseShowsWhatIsSentAndReceived) {
  const ScriptedBridge bridge(_directory.GetPath(), "x", "{\"conflicts\": []}\n");
  ExpectRun({"-v", "bridge", "conflicts"}, 0, "", "> conflicts\n< {\"conflicts\": []}\n");
}

TEST_F(BridgeCommand, DiffPrintsEachKeyWithAllThreeSides) {
  const ScriptedBridge bridge(_directory.GetPath(), "x", R"json({"groups": [
      {"group": "Network/Eth0", "keys": [
        {"key": "mtu", "here": "1500", "there": null, "agreed": ""},
        {"key": "key", "here": {"masked": true}, "there": {"base64": "/w=="}, "agreed": "(not set)"}]},
      {"group": "base64:/w==", "keys": [{"key": "a\u009bb", "here": "''", "there": "a\u009bb", "agreed": null}]}],
      "more": true}
)json");
  ExpectRun({"bridge", "diff"}, 1,
            "[Network/Eth0]mtu: here 1500  there (not set)  agreed ''\n"
            "[Network/Eth0]key: here (masked)  there \\xff  agreed \\x28not set)\n"
            "[\\xff]a\\xc2\\x9bb: here \\x27'  there a\\xc2\\x9bb  agreed (not set)\n",
            "there are more groups that differ\n");
}

TEST_F(BridgeCommand, DiffOfSeveralBridgesNamesThem) {
  const ScriptedBridge same(_directory.GetPath(), "a", "{\"groups\": [], \"more\": false}\n");
  ExpectRun({"bridge", "diff"}, 0, "");
  const ScriptedBridge other(
      _directory.GetPath(), "b",
      R"({"groups": [{"group": "G", "keys": [{"key": "k", "here": "1", "there": "2", "agreed": "1"}]}], "more": false})"
      "\n");
  ExpectRun({"bridge", "diff"}, 1, "bridge         a\n\nbridge         b\n[G]k: here 1  there 2  agreed 1\n");
}

TEST_F(BridgeCommand, PlacesInALongAnswerAreNamed) {
  const auto differing = [](const std::string& key) {
    return R"({"groups": [{"group": "G", "keys": [)" + key + "]}], \"more\": false}\n";
  };
  const Words diff{"bridge", "diff"};
  ExpectFailure(diff, differing(R"({"key": "k", "here": "1", "there": "1"})"), 6,
                ": 'groups[0].keys[0].agreed' is missing");
  ExpectFailure(diff, differing(R"({"key": "k", "here": 7, "there": "1", "agreed": "1"})"), 6,
                ": 'groups[0].keys[0].here': expected a string, found 7");
  ExpectFailure(diff, differing(R"({"key": "base64:x", "here": "1", "there": "1", "agreed": "1"})"), 6,
                ": 'groups[0].keys[0].key': expected base64");
  ExpectFailure(diff, "{\"groups\": {}, \"more\": false}\n", 6, ": 'groups': expected a list, found an object");
}

TEST_F(BridgeCommand, ConflictsArePrinted) {
  const ScriptedBridge bridge(_directory.GetPath(), "x",
                              R"({"conflicts": [
      {"time": 1795312800, "group": "G", "key": "k", "here": "1", "there": "2", "winner": "centre"},
      {"time": 0, "group": "G", "key": "l", "here": null, "there": {"masked": true}, "winner": "device"}]})"
                              "\n");
  ExpectRun({"bridge", "conflicts"}, 0,
            "2026-11-22 02:00:00  [G]k: here 1  there 2  kept centre\n"
            "[G]l: here (not set)  there (masked)  kept device\n");
}

TEST_F(BridgeCommand, SyncSendsWhatAPersonDecided) {
  const ScriptedBridge bridge(_directory.GetPath(), "x", "{\"done\": true, \"groups\": 12}\n");
  ExpectRun({"bridge", "sync", "--from", "centre"}, 0, "", "done: 12 groups\n");
  ExpectRun({"bridge", "sync", "--name", "x", "--from=device", "-q"}, 0, "");
  ExpectRun({"bridge", "sync", "--accept", "-o", "json"}, 0, "{\n\"x\": {\"done\": true, \"groups\": 12}\n}\n",
            "done: 12 groups\n");
  EXPECT_THAT(bridge.GetRequests(), ElementsAre("sync from=centre\n", "sync from=device\n", "sync accept\n"));
}

TEST_F(BridgeCommand, SyncNeedsADecisionOfOneBridge) {
  const ScriptedBridge one(_directory.GetPath(), "x", "{\"done\": false, \"groups\": 0}\n");
  ExpectRun({"bridge", "sync", "--accept"}, 7, "", "tavix-settings: not applied: bridge 'x' refused it\n");
  const ScriptedBridge other(_directory.GetPath(), "y", "");
  ExpectRun({"bridge", "sync"}, 2, "",
            "tavix-settings: expected --from or --accept\nhint: try 'tavix-settings bridge sync --help'\n");
  ExpectRun({"bridge", "sync", "--from", "left"}, 2, "",
            "tavix-settings: --from: expected 'centre' or 'device', found 'left'\n");
  EXPECT_EQ(Run({"bridge", "sync", "--from", "centre", "--accept"}).status, 2);
  ExpectRun({"bridge", "sync", "--from", "centre"}, 2, "",
            "tavix-settings: there are several bridges: 'x' and others\nhint: choose one with --name\n");
}

TEST_F(BridgeCommand, NamesAndSidesAreCompleted) {
  const ScriptedBridge one(_directory.GetPath(), "fleet", "");
  const ScriptedBridge other(_directory.GetPath(), "chassis", "");
  const auto complete = [this](Words words) {
    words.insert(words.begin(), "__complete");
    return RunAtOnce(std::move(words)).output;
  };
  EXPECT_EQ(complete({"bridge", "diff", "--runtime", ".", "--name", ""}), "chassis\nfleet\n");
  EXPECT_EQ(complete({"bridge", "sync", "--runtime=.", "--name=f"}), "--name=fleet\n");
  EXPECT_EQ(complete({"bridge", "sync", "--from", ""}), "centre\ndevice\n");
  EXPECT_EQ(complete({"bridge", "status", "--runtime", ""}), "\tfiles\n");
  EXPECT_EQ(complete({"bridge", "status", ""}), "");
  EXPECT_THAT(complete({"bridge", "s"}), HasSubstr("sync\t"));
}

}  // namespace tavix::test
