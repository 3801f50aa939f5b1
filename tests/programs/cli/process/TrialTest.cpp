// Changes that go back unless they are confirmed, at a server whose answers a test decides.

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
const Exchange::value_type kFeatures{kAskFeatures, "Features\n--------\namend\nhistory 96 118\ntrial\n\ndata\n.\n"};
const Exchange::value_type kServer{"info server\nget delimited\n.\n", "data\n.\n"};
const Exchange::value_type kNoTrials{"trial\n", "data\n.\n"};
const std::string kAskRefusal = "info refused\nget delimited\n.\n";
const Exchange::value_type kNotRefused{kAskRefusal, "Refused\n-------\n\ndata\n.\n"};
const std::string kPending =
    "data\n[NAME]\nby=unix 0 0 812\nis [A]b=1\nnote=site 4\nrevision=118\nseconds=89\nstate=pending\n.\n";
const Exchange::value_type kArmed{"trial NAME\n", kPending};

Exchange::value_type EndedAs(const std::string& word, const std::string& state, const std::string& more = {}) {
  return {word + " NAME\n", "data\n[NAME]\nby=unix 0 0 812\n" + more + "revision=119\nstate=" + state + "\n.\n"};
}

Exchange::value_type Refused(const std::string& word, const std::string& reason) {
  return {word + " NAME\n", "refused\n" + reason + "\n"};
}

// A change of one setting that is on trial.
Exchange Set(const std::string& seconds, const Exchange& more = {}) {
  Exchange exchange{kFeatures,
                    kNoTrials,
                    {"try " + seconds + " NAME\nmerge\n[A]\nb=1\n.\nget delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"},
                    kServer,
                    kNotRefused,
                    kArmed};
  exchange.insert(exchange.end(), more.begin(), more.end());
  return exchange;
}

void ExpectRun(const std::vector<Exchange>& connections, const Words& words, int status, const std::string& errors,
               const std::string& output = {}) {
  ScriptedDaemon daemon(connections);
  const Outcome outcome = daemon.Run(words);
  EXPECT_EQ(daemon.WithoutName(outcome.errors), errors);
  EXPECT_EQ(daemon.WithoutName(outcome.output), output);
  EXPECT_EQ(outcome.status, status);
}

const std::string kAnnounced = "on trial as NAME: 1 setting, goes back in 90 s; keep it: tavix-settings confirm NAME\n";
const std::string kAnnouncedCheck = "on trial as NAME: 1 setting, goes back in 90 s unless this succeeds: ";

}  // namespace

TEST(CommandOnTrial, NamesTheTrialAndHowToKeepIt) {
  ExpectRun({Set("90")}, {"set", "[A]b=1", "--try", "90"}, 0, kAnnounced);
}

TEST(CommandOnTrial, NoteGoesWithIt) {
  ExpectRun({{kFeatures,
              kNoTrials,
              {"note site 4\ntry 90 NAME\nmerge\n[A]\nb=1\n.\nget delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"},
              kServer,
              kNotRefused,
              kArmed}},
            {"set", "[A]b=1", "--try", "90", "-m", "site 4"}, 0, kAnnounced);
}

TEST(CommandOnTrial, NamesTheServerThatWasNamed) {
  ScriptedDaemon daemon({Set("90")});
  const Outcome outcome = daemon.Run({"-s", daemon.GetAddress(), "set", "[A]b=1", "--try", "90"});
  EXPECT_THAT(daemon.WithoutName(outcome.errors),
              HasSubstr("keep it: tavix-settings -s '" + daemon.GetAddress() + "' confirm NAME\n"));
}

TEST(CommandOnTrial, ImportOfSeveralSettingsIsOneTrial) {
  ScriptedDaemon daemon({{kFeatures,
                          kNoTrials,
                          {"get delimited\nA\n.\n", "data\n.\n"},
                          {"try 60 NAME\nmerge\n[A]\nb=1\nc=2\n.\nget delimited\nA\n.\n", "data\n[A]\nb=1\nc=2\n.\n"},
                          kServer,
                          kNotRefused,
                          {"trial NAME\n", "data\n[NAME]\nis [A]b=1\nis [A]c=2\nstate=pending\n.\n"}}});
  const Outcome outcome = daemon.Run({"import", "--try", "60"}, "[A]\nb=1\nc=2\n");
  EXPECT_THAT(daemon.WithoutName(outcome.errors),
              HasSubstr("on trial as NAME: 2 settings, go back in 60 s; keep them: tavix-settings confirm NAME\n"));
}

TEST(CommandOnTrial, RollbackIsPutOnTrialToo) {
  ExpectRun({{kFeatures,
              kNoTrials,
              {"try 90 NAME\nrollback 7\n", "data\n[0000000119]\nis [A]b=1\n.\n"},
              kServer,
              kNotRefused,
              kArmed}},
            {"rollback", "-y", "7", "--try", "90"}, 0, kAnnounced, "[A]b: (default) -> 1\n");
}

TEST(CommandOnTrial, EachPartOfAChangeIsOfTheSameTrial) {
  ScriptedDaemon daemon({{kFeatures,
                          kNoTrials,
                          {"dump\n", "[A]\nb=1\n[B]\nb=1\n.\n"},
                          {"try 90 NAME\nrestore\nB\n.\nget delimited\nB\n.\n", "data\n.\n"},
                          {"try 90 NAME\nmerge\n[A]\nb=2\n.\nget delimited\nA\n.\n", "data\n[A]\nb=2\n.\n"},
                          {"dump\n", "[A]\nb=2\n.\n"},
                          kServer,
                          kNotRefused,
                          kArmed}});
  const Outcome outcome = daemon.Run({"import", "--replace", "--user", "-y", "--try", "90"}, "[A]\nb=2\n");
  EXPECT_THAT(daemon.WithoutName(outcome.errors), HasSubstr(kAnnounced));
  EXPECT_EQ(outcome.status, 0);
}

TEST(CommandOnTrial, ServerWithoutTrialsIsNamedAndNothingIsSent) {
  for (const Words& words :
       std::vector<Words>{{"set", "[A]b=1", "--try", "90"}, {"import", "--try", "90"}, {"edit", "A", "--try", "90"}}) {
    ExpectRun({{kOld}}, words, 7, "tavix-settings: not applied: the server is too old for --try\n");
    ExpectRun({{kOff}}, words, 7, "tavix-settings: not applied: the server has no trials for --try\n");
  }
  for (const Words& words : std::vector<Words>{{"trials"}, {"confirm", "t-1"}, {"revert", "t-1"}}) {
    ExpectRun({{kOld}}, words, 7, "tavix-settings: the server is too old for trials\n");
    ExpectRun({{kOff}}, words, 7, "tavix-settings: the server has no trials\n");
  }
}

TEST(CommandOnTrial, FileHasNone) {
  const TemporaryDirectory directory;
  ExpectRun({}, {"--local", directory.Path("x.ini"), "set", "[A]b=1", "--try", "90"}, 2,
            "tavix-settings: a file has neither history nor trials: leave --local out\n");
}

TEST(CommandOnTrial, OptionsThatCannotGoTogetherAreRefused) {
  ExpectRun({}, {"set", "[A]b=1", "--try", "90", "--volatile"}, 2,
            "tavix-settings: --volatile and --try can't go together: what is on trial is always saved\n");
  for (const std::string time : {"1.5", "3601"})
    ExpectRun({{}}, {"set", "[A]b=1", "--try", time}, 2, "tavix-settings: --try: expected whole seconds, 1 to 3600\n");
  EXPECT_EQ(RunBeside({}, {"set", "[A]b=1", "--check", "true"}).status, 2);
}

TEST(CommandOnTrial, ReasonWhyItCannotBeArmedIsReported) {
  const Exchange::value_type full{kAskRefusal, "Refused\n-------\nreason=trial: 16 are pending\n\ndata\n.\n"};
  ExpectRun({{kFeatures, kNoTrials, {"try 90 NAME\nmerge\n[A]\nb=1\n.\nget delimited\nA\n.\n", "data\n.\n"}, full}},
            {"set", "[A]b=1", "--try", "90"}, 7, "tavix-settings: not applied: trial: 16 are pending\n");
  ExpectRun({{kFeatures,
              kNoTrials,
              {"try 90 NAME\nmerge\n[A]\nb=1\n.\nget delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"},
              kServer,
              full}},
            {"set", "[A]b=1", "--try", "90"}, 7, "tavix-settings: not applied: trial: 16 are pending\n");
}

TEST(CommandOnTrial, WithoutADifferenceNothingIsOnTrial) {
  Exchange exchange = Set("90");
  exchange.back() = Refused("trial", "no trial is named 'NAME'");
  ExpectRun({exchange}, {"set", "[A]b=1", "--try", "90", "--check", "false"}, 0,
            "nothing is on trial: there was nothing to change\n");
}

TEST(CommandOnTrial, NameThatIsTakenIsNotUsed) {
  std::string all = "data\n";
  for (int i = 0; i < 0x10000; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "[t-%04x]\n", i);
    if (i != 0x3f9a) all += name;
  }
  Exchange exchange = Set("90");
  exchange[1].second = all + ".\n";
  ScriptedDaemon daemon({exchange});
  EXPECT_EQ(daemon.Run({"set", "[A]b=1", "--try", "90"}).status, 0);
  EXPECT_EQ(daemon.GetName(), "t-3f9a");
}

TEST(CommandOnTrial, HalfAChangeIsTakenBack) {
  ExpectRun({{kFeatures,
              kNoTrials,
              {"try 90 NAME\nmerge\n[A]\nb=1\nc=1\n.\nget delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"},
              kNotRefused,
              EndedAs("revert", "reverted")}},
            {"set", "[A]b=1", "[A]c=1", "--try", "90"}, 7,
            "tavix-settings: not applied: [A]c is not set\nhint: what was made of the change is taken back\n");
}

TEST(CommandOnTrial, LostConnectionLeavesTheOutcomeOpen) {
  ScriptedDaemon daemon({{kFeatures, kNoTrials, {"try 90 NAME\nmerge\n[A]\nb=1\n.\nget delimited\nA\n.\n", kHangUp}}});
  const Outcome outcome = daemon.Run({"set", "[A]b=1", "--try", "90"});
  EXPECT_THAT(daemon.WithoutName(outcome.errors),
              HasSubstr("hint: it is unknown whether the change was made; if it was, it goes back in 90 s: "
                        "'tavix-settings trials' shows it as NAME\n"));
  EXPECT_EQ(outcome.status, 3);
}

TEST(CommandWithACheck, ConfirmsWhenItSucceeds) {
  const std::string check = "test \"$TAVIX_TRIAL\" && ! read line";
  ExpectRun({Set("90", {EndedAs("confirm", "confirmed")})}, {"set", "[A]b=1", "--try", "90", "--check", check}, 0,
            kAnnouncedCheck + check + "\nconfirmed NAME: 1 setting\n");
}

TEST(CommandWithACheck, RevertsWhenItFails) {
  ExpectRun({Set("90", {EndedAs("revert", "reverted")})}, {"set", "[A]b=1", "--try", "90", "--check", "exit 3"}, 8,
            kAnnouncedCheck + "exit 3\ntavix-settings: the check ended with status 3; reverted NAME: 1 setting\n");
}

TEST(CommandWithACheck, NamesWhatOthersHaveChangedMeanwhile) {
  ExpectRun({Set("90", {EndedAs("revert", "reverted", "kept [A]b=\n")})},
            {"set", "[A]b=1", "--try", "90", "--check", "false"}, 8,
            kAnnouncedCheck +
                "false\ntavix-settings: the check ended with status 1; reverted NAME: 1 setting; 1 setting stays, as "
                "others have changed it since\n");
}

TEST(CommandWithACheck, RevertsWhenItDoesNotEndInTime) {
  ScriptedDaemon daemon(
      {Set("1", {Refused("revert", "trial 'NAME' is not pending: it was reverted"), EndedAs("trial", "reverted")})});
  const Outcome outcome =
      daemon.Run({"set", "[A]b=1", "--try", "1", "--check", "trap '' TERM; sleep 1000 & wait; wait"});
  EXPECT_THAT(daemon.WithoutName(outcome.errors),
              HasSubstr("tavix-settings: the check did not end within 1 s; reverted NAME: 1 setting\n"));
  EXPECT_EQ(outcome.status, 8);
}

TEST(CommandWithACheck, ComesTooLateWhenTheTrialHasEnded) {
  ExpectRun(
      {Set("90", {Refused("confirm", "trial 'NAME' is not pending: it was reverted"), EndedAs("trial", "reverted")})},
      {"set", "[A]b=1", "--try", "90", "--check", "true"}, 8,
      kAnnouncedCheck + "true\ntavix-settings: reverted NAME: it went back before the check ended\n");
}

TEST(CommandWithACheck, ConfirmsOverANewConnectionWhenTheFirstIsLost) {
  Exchange first = Set("90", {{"confirm NAME\n", kHangUp}});
  ExpectRun({first, {EndedAs("confirm", "confirmed")}}, {"set", "[A]b=1", "--try", "90", "--check", "true"}, 0,
            kAnnouncedCheck + "true\nconfirmed NAME: 1 setting\n");
}

TEST(CommandWithACheck, NamesWhereTheOutcomeIsShownWhenTheServerIsLost) {
  ScriptedDaemon daemon({Set("90", {{"confirm NAME\n", kHangUp}}), {{"confirm NAME\n", kHangUp}}});
  const Outcome outcome = daemon.Run({"set", "[A]b=1", "--try", "90", "--check", "true"});
  EXPECT_THAT(daemon.WithoutName(outcome.errors),
              HasSubstr("hint: it is unknown whether NAME was confirmed; otherwise it goes back by itself: "
                        "'tavix-settings trials' shows it\n"));
  EXPECT_EQ(outcome.status, 3);
}

TEST(CommandWithACheck, InterruptEndsTheCheckAndLeavesTheTrialToItsTime) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    ScriptedDaemon daemon({Set("90")});
    const auto command = daemon.Start({"set", "[A]b=1", "--try", "90", "--check", "echo runs; exec sleep 1000"});
    command->AwaitOutput("runs\n");
    command->Signal(signal);
    EXPECT_EQ(command->AwaitEnd(), 128 + signal);  // and so has the check, which would keep its output open
    EXPECT_THAT(daemon.WithoutName(command->GetErrors()),
                HasSubstr("tavix-settings: interrupted: NAME is still on trial, and goes back by itself\n"
                          "hint: keep it: tavix-settings confirm NAME\n"));
  }
}

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
  EXPECT_THAT(RunBeside({}, {"confirm", "a b"}).errors, HasSubstr("'a b' is no name of a trial"));
}

TEST(TrialCommands, LostAnswerLeavesTheOutcomeOpen) {
  const Exchange::value_type pending{"trial t-1\n", "data\n[t-1]\nstate=pending\n.\n"};
  const Outcome outcome = RunBeside({kFeatures, pending, {"confirm t-1\n", kHangUp}}, {"confirm", "t-1"});
  EXPECT_THAT(outcome.errors, HasSubstr("hint: it is unknown what became of t-1: 'tavix-settings trials' shows it\n"));
  EXPECT_EQ(outcome.status, 3);
}

TEST(TrialCommands, TrialsArePrinted) {
  const std::string two =
      "data\n[t-1]\nby=unix 0 0 812\nis [A]b=1\nkept [A]c=\nnote=site 4\nrevision=118\nseconds=87\nstate=pending\n"
      "[t-2]\nby=tcp - - -\nstate=reverted\n.\n";
  ExpectRun({{kFeatures, {"trial\n", two}}}, {"trials"}, 0, "",
            "t-1  pending, 87 s left  root, process 812  revision 118  site 4\n"
            "     [A]b: (default) -> 1\n"
            "     [A]c: stays, as others have changed it since\n"
            "t-2  reverted  over TCP\n");
  EXPECT_EQ(json::parse(RunBeside({kFeatures, {"trial\n", two}}, {"trials", "--json"}).output),
            json::parse(R"([{"name": "t-1", "state": "pending", "seconds": 87, "revision": 118, "note": "site 4",
      "by": {"connection": "unix", "user": 0, "group": 0, "process": 812},
      "changes": [{"group": "A", "key": "b", "old": null, "new": "1"}], "kept": [{"group": "A", "key": "c"}]},
      {"name": "t-2", "state": "reverted", "by": {"connection": "tcp"}, "changes": []}])"));
  ExpectRun({{kFeatures, kNoTrials}}, {"trials"}, 0, "no trials\n");
}

}  // namespace tavix::test
