// Changes that go back unless they are confirmed, at a server whose answers a test decides.

#include <gmock/gmock.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "tests/programs/cli/process/TrialScript.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

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
                          kArmed,
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
  const Exchange::value_type notReverted = Refused("revert", "no trial is named 'NAME'");
  const Exchange::value_type unknown = Refused("trial", "no trial is named 'NAME'");
  ExpectRun({{kFeatures,
              kNoTrials,
              {"try 90 NAME\nmerge\n[A]\nb=1\n.\nget delimited\nA\n.\n", "data\n.\n"},
              full,
              notReverted,
              unknown}},
            {"set", "[A]b=1", "--try", "90"}, 7, "tavix-settings: not applied: trial: 16 are pending\n");
  ExpectRun({{kFeatures,
              kNoTrials,
              {"try 90 NAME\nmerge\n[A]\nb=1\n.\nget delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"},
              kServer,
              full,
              notReverted,
              unknown}},
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

TEST(CommandOnTrial, ConnectionThatIsLostInTheChangeHasItTakenBackOverANewOne) {
  const Exchange lost{kFeatures, kNoTrials, {"try 90 NAME\nmerge\n[A]\nb=1\n.\nget delimited\nA\n.\n", kHangUp}};
  ScriptedDaemon made({lost, {EndedAs("revert", "reverted")}});
  const Outcome outcome = made.Run({"set", "[A]b=1", "--try", "90"});
  EXPECT_THAT(outcome.errors, HasSubstr("hint: what was made of the change is taken back\n"));
  EXPECT_EQ(outcome.status, 3);
  ScriptedDaemon notMade(
      {lost, {Refused("revert", "no trial is named 'NAME'"), Refused("trial", "no trial is named 'NAME'")}});
  EXPECT_THAT(notMade.Run({"set", "[A]b=1", "--try", "90"}).errors,
              HasSubstr("hint: nothing of the change was made, or it has gone back already\n"));
}

TEST(CommandOnTrial, ConnectionThatIsLostBehindTheChangeIsReplaced) {
  Exchange first = Set("90");
  first[4].second = kHangUp;
  first.pop_back();
  ExpectRun({first, {kArmed}}, {"set", "[A]b=1", "--try", "90"}, 0, kAnnounced);
}

TEST(CommandOnTrial, ServerThatIsLostBehindTheChangeLeavesTheNameOfTheTrial) {
  Exchange first = Set("90");
  first[4].second = kHangUp;
  first.pop_back();
  ScriptedDaemon daemon({first, {{"trial NAME\n", kHangUp}}});
  const Outcome outcome = daemon.Run({"set", "[A]b=1", "--try", "90"});
  EXPECT_THAT(daemon.WithoutName(outcome.errors),
              HasSubstr("hint: the change is on trial as NAME, and goes back in 90 s unless it is confirmed: "
                        "tavix-settings confirm NAME\n"));
  EXPECT_EQ(outcome.status, 3);
}

TEST(CommandOnTrial, ServerThatStartedAnewBehindTheChangeKnowsNoTrial) {
  Exchange first = Set("90");
  first[4].second = kHangUp;
  first.pop_back();
  ExpectRun({first, {Refused("trial", "no trial is named 'NAME'")}}, {"set", "[A]b=1", "--try", "90"}, 3,
            "tavix-settings: the connection was lost behind the change, and the server knows no NAME\n"
            "hint: there was nothing to change, or the server has started anew, which takes the change back\n");
}

TEST(CommandOnTrial, TrialThatHasGoneBackAlreadyIsExitStatus8) {
  Exchange exchange = Set("90");
  exchange.back() = EndedAs("trial", "reverted");
  const std::string text = "tavix-settings: reverted NAME: its time was over, or somebody has reverted it\n";
  ExpectRun({exchange}, {"set", "[A]b=1", "--try", "90"}, 8, text);
  ExpectRun({exchange}, {"set", "[A]b=1", "--try", "90", "--check", "true"}, 8, text);
}

TEST(CommandOnTrial, TrialThatSomebodyHasConfirmedAlreadyIsNamed) {
  Exchange exchange = Set("90");
  exchange.back() = EndedAs("trial", "confirmed");
  ExpectRun({exchange}, {"set", "[A]b=1", "--try", "90"}, 0, "somebody has confirmed NAME already\n");
}

TEST(CommandOnTrial, TrialWhoseSettingsOthersHaveAllChangedIsNamed) {
  Exchange exchange = Set("90");
  exchange.back().second = "data\n[NAME]\nkept [A]b=\nrevision=118\nseconds=89\nstate=pending\n.\n";
  ExpectRun({exchange}, {"set", "[A]b=1", "--try", "90"}, 0,
            "on trial as NAME: nothing that could go back, as others have changed all of it since\n");
}

namespace {

// An import of two parts, up to the second one.
Exchange TwoParts(const Exchange& more) {
  Exchange exchange{kFeatures,
                    kNoTrials,
                    {"dump\n", "[A]\nb=1\n[B]\nb=1\n.\n"},
                    {"try 90 NAME\nrestore\nB\n.\nget delimited\nB\n.\n", "data\n.\n"}};
  exchange.insert(exchange.end(), more.begin(), more.end());
  return exchange;
}

void ExpectImport(const Exchange& exchange, int status, const std::string& errors) {
  ScriptedDaemon daemon({exchange});
  const Outcome outcome = daemon.Run({"import", "--replace", "--user", "-y", "--try", "90"}, "[A]\nb=2\n");
  EXPECT_EQ(daemon.WithoutName(outcome.errors), errors);
  EXPECT_EQ(outcome.status, status);
}

}  // namespace

TEST(CommandOnTrial, SecondPartIsNotMadeOnceTheFirstHasGoneBack) {
  ExpectImport(
      TwoParts({EndedAs("trial", "reverted"), Refused("revert", "trial 'NAME' is not pending: it was reverted"),
                EndedAs("trial", "reverted")}),
      8,
      "tavix-settings: reverted NAME: its time was over before the whole change was made\n"
      "hint: what was made of the change is taken back\n");
}

TEST(CommandOnTrial, SecondPartIsNotMadeOnceTheFirstIsConfirmed) {
  ExpectImport(
      TwoParts({EndedAs("trial", "confirmed"), Refused("revert", "trial 'NAME' is not pending: it was confirmed"),
                EndedAs("trial", "confirmed")}),
      4,
      "tavix-settings: condition failed: somebody has confirmed NAME before the whole change was made\n"
      "hint: somebody has confirmed what was made of the change by then, as NAME\n");
}

TEST(CommandOnTrial, FirstPartIsTakenBackWhenTheSecondCannotBeArmed) {
  ExpectImport(
      TwoParts({kArmed,
                {"try 90 NAME\nmerge\n[A]\nb=2\n.\nget delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"},
                {kAskRefusal, "Refused\n-------\nreason=trial: its time is over\n\ndata\n.\n"},
                EndedAs("revert", "reverted")}),
      7, "tavix-settings: not applied: trial: its time is over\nhint: what was made of the change is taken back\n");
}

TEST(CommandOnTrial, QuietOneIsPrintedByItsNameAndJsonAsTrialsPrintIt) {
  ExpectRun({Set("90")}, {"-q", "set", "[A]b=1", "--try", "90"}, 0, "", "NAME\n");
  ScriptedDaemon daemon({Set("90")});
  const json trial = json::parse(daemon.Run({"-q", "--json", "set", "[A]b=1", "--try", "90"}).output);
  EXPECT_EQ(trial["name"], daemon.GetName());
  EXPECT_EQ(trial["changes"], json::parse(R"([{"group": "A", "key": "b", "old": null, "new": "1"}])"));
}

TEST(CommandOnTrial, OutputThatCannotBeWrittenEndsNothing) {
  Exchange rollback = Set("90", {EndedAs("confirm", "confirmed")});
  rollback[2] = {"try 90 NAME\nrollback 7\n", "data\n[0000000119]\nis [A]b=1\n.\n"};
  const Words words{"rollback", "-y", "7", "--try", "90", "--check", "true"};
  ScriptedDaemon full({rollback});
  const Outcome outcome = full.RunInShell("exec \"$@\" >/dev/full", words);
  EXPECT_EQ(full.WithoutName(outcome.errors),
            kAnnouncedCheck +
                "true\nconfirmed NAME: 1 setting\n"
                "tavix-settings: standard output can't be written: No space left on device\n");
  EXPECT_EQ(outcome.status, 7);
  ScriptedDaemon unread({rollback});
  const auto command = unread.Start(words, CommandProcess::Streams::kUnread);
  EXPECT_EQ(command->AwaitEnd(), 7);
  EXPECT_THAT(unread.WithoutName(command->GetErrors()), HasSubstr("confirmed NAME: 1 setting\n"));
}

TEST(CommandOnTrial, InterruptInTheChangeLeavesTheNameOfTheTrial) {
  for (const int signal : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) {
    ScriptedDaemon daemon({{kFeatures, kNoTrials, {"try 90 NAME\nmerge\n[A]\nb=1\n.\nget delimited\nA\n.\n", ""}}});
    const auto command = daemon.Start({"set", "[A]b=1", "--try", "90"});
    Eventually([&] { return !daemon.GetName().empty(); });
    command->Signal(signal);
    EXPECT_EQ(command->AwaitEnd(), 128 + signal);
    EXPECT_THAT(daemon.WithoutName(command->GetErrors()),
                HasSubstr("tavix-settings: interrupted: what was made of the change goes back in 90 s\n"
                          "hint: 'tavix-settings trials' shows it as NAME\n"));
  }
}

}  // namespace tavix::test
