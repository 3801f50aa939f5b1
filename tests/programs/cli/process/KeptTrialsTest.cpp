// Changes on trial at a real daemon.

#include <gmock/gmock.h>

#include <regex>

#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

using testing::ContainsRegex;
using testing::StartsWith;

class KeptTrials : public CommandTest {
 protected:
  // The name that the command has announced.
  static std::string NameIn(const std::string& errors) {
    std::smatch name;
    return std::regex_search(errors, name, std::regex("on trial as (t-[0-9a-f]{4}): ")) ? name[1].str() : "none";
  }
};

}  // namespace

TEST_F(KeptTrials, ChangeIsConfirmedByItsName) {
  const std::string name = NameIn(Run({"set", "[A]b=1", "[A]c=1", "--try", "3600"}).errors);
  EXPECT_THAT(Run({"trials"}).output, StartsWith(name + "  pending, "));
  ExpectRun({"confirm", name}, 0, "", "confirmed " + name + ": 2 settings\n");
  ExpectRun({"confirm", name}, 0, "", name + " was confirmed already\n");
  EXPECT_EQ(Run({"revert", name}).status, 7);
  EXPECT_EQ(AskUser(), "[A]\nb=1\nc=1\n.\n");
}

TEST_F(KeptTrials, ChangeIsRevertedByItsNameButForWhatOthersHaveWritten) {
  const std::string name = NameIn(Run({"set", "[A]b=1", "[A]c=1", "--try", "3600"}).errors);
  Merge("[A]\nc=2\n");
  ExpectRun({"revert", name}, 0, "",
            "reverted " + name + ": 1 setting; 1 setting stays, as others have changed it since\n");
  EXPECT_EQ(Run({"confirm", name}).status, 8);
  EXPECT_EQ(AskUser(), "[A]\nc=2\n.\n");
}

TEST_F(KeptTrials, ChangeStaysIfTheCheckSucceedsAndGoesBackIfNot) {
  EXPECT_EQ(Run({"set", "[A]b=1", "--try", "3600", "--check", "false"}).status, 8);
  EXPECT_EQ(AskUser(), ".\n");
  EXPECT_EQ(Run({"set", "[A]b=1", "--try", "3600", "--check", "true"}).status, 0);
  EXPECT_EQ(AskUser(), "[A]\nb=1\n.\n");
}

// On a busy machine a short trial may have ended before its check begins: a longer one has not.
TEST_F(KeptTrials, CheckThatIsTooSlowIsEndedAndTheChangeGoesBack) {
  Outcome outcome;
  bool hasRun = false;
  for (int seconds = 1; seconds <= 64 && !hasRun; seconds *= 4) {
    outcome = Run({"set", "[A]b=1", "--try", std::to_string(seconds), "--check", "echo runs; exec sleep 1000"});
    hasRun = outcome.output == "runs\n";
  }
  EXPECT_TRUE(hasRun);
  EXPECT_THAT(outcome.errors, ContainsRegex("the check did not end within [0-9]+ s; reverted "));
  EXPECT_EQ(outcome.status, 8);
  EXPECT_EQ(AskUser(), ".\n");
}

TEST_F(KeptTrials, AllPartsOfAnImportGoBackTogether) {
  Run({"set", "[A]b=1", "[B]b=1"});
  const std::string before = AskUser();
  const Outcome outcome =
      Run({"import", "--replace", "--user", "-y", "--try", "3600", "--check", "false"}, "[A]\nb=2\n");
  EXPECT_EQ(outcome.status, 8) << outcome.errors;
  EXPECT_EQ(AskUser(), before);
}

TEST_F(KeptTrials, NamesComplete) {
  const std::string name = NameIn(Run({"set", "[A]b=1", "--try", "3600"}).errors);
  EXPECT_EQ(Complete({"confirm", "t-"}), name + "\n");
  EXPECT_EQ(Complete({"revert", ""}), name + "\n");
}

TEST_F(KeptTrials, UnknownNameIsExitStatus1) {
  ExpectRun({"confirm", "t-0"}, 1, "",
            "tavix-settings: no trial is named 't-0'\nhint: 'tavix-settings trials' shows those there are\n");
}

}  // namespace tavix::test
