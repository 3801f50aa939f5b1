// Changes on trial that a check confirms or reverts, at a server whose answers a test decides.

#include <gmock/gmock.h>

#include <csignal>

#include "tests/programs/cli/process/TrialScript.h"

namespace tavix::test {

namespace {

using testing::HasSubstr;

}  // namespace

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
  for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
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

TEST(CommandWithACheck, OutlivesAHangUp) {
  const std::string check = "kill -HUP $PPID; kill -HUP $$; true";
  ExpectRun({Set("90", {EndedAs("confirm", "confirmed")})}, {"set", "[A]b=1", "--try", "90", "--check", check}, 0,
            kAnnouncedCheck + check + "\nconfirmed NAME: 1 setting\n");
}

TEST(CommandWithACheck, RunsOverANewConnectionWhenTheFirstIsLostBehindTheChange) {
  Exchange first = Set("90");
  first[4].second = kHangUp;
  first.pop_back();
  ExpectRun({first, {kArmed, EndedAs("confirm", "confirmed")}}, {"set", "[A]b=1", "--try", "90", "--check", "true"}, 0,
            kAnnouncedCheck + "true\nconfirmed NAME: 1 setting\n");
}

TEST(CommandWithACheck, RunsWhatSomebodyHasConfirmedAlreadyToo) {
  Exchange exchange =
      Set("90", {Refused("revert", "trial 'NAME' is not pending: it was confirmed"), EndedAs("trial", "confirmed")});
  exchange[5] = EndedAs("trial", "confirmed");
  ExpectRun({exchange}, {"set", "[A]b=1", "--try", "90", "--check", "false"}, 1,
            "somebody has confirmed NAME already; the check: false\n"
            "tavix-settings: the check ended with status 1, but somebody has confirmed NAME\n");
}

TEST(CommandWithACheck, IsEndedWhenTheTrialsTimeIsOver) {
  Exchange exchange = Set("3600", {EndedAs("revert", "reverted")});
  exchange[5].second = "data\n[NAME]\nis [A]b=1\nrevision=118\nseconds=1\nstate=pending\n.\n";
  ScriptedDaemon daemon({exchange});
  const Outcome outcome = daemon.Run({"set", "[A]b=1", "--try", "3600", "--check", "sleep 10000"});
  EXPECT_THAT(outcome.errors, HasSubstr("the check did not end within 3600 s; reverted "));
  EXPECT_EQ(outcome.status, 8);
}

TEST(CommandWithACheck, RevertsWhenItAsksTheTerminal) {
  ScriptedDaemon daemon({Set("90", {EndedAs("revert", "reverted")})});
  const auto command = daemon.Start({"set", "[A]b=1", "--try", "90", "--check", "read line </dev/tty"},
                                    CommandProcess::Streams::kTerminal);
  EXPECT_EQ(command->AwaitEnd(), 8);
  EXPECT_THAT(daemon.WithoutName(command->GetOutput()),
              HasSubstr("the check was stopped, as it asked the terminal; reverted NAME: 1 setting\n"));
}

}  // namespace tavix::test
