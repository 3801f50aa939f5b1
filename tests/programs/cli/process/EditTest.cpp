#include <sys/stat.h>

#include <filesystem>
#include <memory>

#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

using testing::HasSubstr;

class EditCommand : public CommandTest {
 protected:
  // A shell's commands as the editor; the file is "$1".
  std::string Editor(const std::string& commands) const {
    const std::string path = _directory.Write("editor", "#!/bin/sh\n" + commands + "\n");
    chmod(path.c_str(), 0700);
    return path;
  }

  Outcome Edit(const std::string& commands, Words words) const {
    words.insert(words.begin(), "edit");
    return Run(words, {}, {{"EDITOR", Editor(commands)}});
  }

  size_t CountTexts() const {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(_directory.GetPath()))
      count += entry.path().filename().string().rfind("tavix-", 0) == 0 ? 1 : 0;
    return count;
  }
};

}  // namespace

TEST_F(EditCommand, ShowsTheGroupsAndWritesWhatChanged) {
  const Outcome outcome = Edit("cp \"$1\" seen; sed -i s/true/false/ \"$1\"", {"Network/*"});
  EXPECT_EQ(outcome.output, "-[Network/Eth0]dhcp=true\n+[Network/Eth0]dhcp=false\n");
  EXPECT_EQ(outcome.errors, "done\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(_directory.Read("seen"),
            "# Change, add or remove settings and groups; then save and leave the editor.\n"
            "# A text without any group changes nothing. Lines like these are ignored.\n\n"
            "[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n\n[Network/Wlan0]\nenabled=false\n\n");
  EXPECT_EQ(AskUser(), "[Network/Eth0]\ndhcp=false\n.\n");
  EXPECT_EQ(CountTexts(), 0U);
}

TEST_F(EditCommand, SettingsAndGroupsMayComeAndGo) {
  const Outcome outcome = Edit("printf '[Network/Eth0]\\ndhcp=true\\nmtu=5\\n[New]\\na=1\\n' >\"$1\"", {"Network/*"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(Ask("N*"), "[Network/Eth0]\ndhcp=true\nmtu=5\n[New]\na=1\n");
}

TEST_F(EditCommand, WithoutAGroupEverythingThatIsNotRestrictedIsShown) {
  Edit("cp \"$1\" seen", {});
  EXPECT_THAT(_directory.Read("seen"), HasSubstr("[Device/Identity]"));
  EXPECT_THAT(_directory.Read("seen"), testing::Not(HasSubstr("Secure")));
}

TEST_F(EditCommand, GroupThatDoesNotExistIsOffered) {
  const Outcome outcome = Edit("echo a=1 >>\"$1\"", {"New"});
  EXPECT_EQ(outcome.output, "+[New]a=1\n");
  EXPECT_EQ(Edit("true", {"Newer"}).errors, "no changes\n");
  EXPECT_EQ(Ask("New*"), "[New]\na=1\n");
}

TEST_F(EditCommand, TextWithoutChangesOrGroupsChangesNothing) {
  EXPECT_EQ(Edit("true", {"Network/*"}).errors, "no changes\n");
  EXPECT_EQ(Edit(": >\"$1\"", {"Network/*"}).errors, "no changes\n");
  EXPECT_EQ(AskUser(), ".\n");
  EXPECT_EQ(CountTexts(), 0U);
}

TEST_F(EditCommand, ConcurrentChangeIsMetAndTheTextKept) {
  const std::string other = QuotedProgram() + " -q set '[Network/Eth0]address=10.0.0.9'";
  const Outcome outcome = Edit("sed -i s/true/false/ \"$1\"; " + other, {"Network/Eth0"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_THAT(outcome.errors,
              testing::StartsWith("tavix-settings: condition failed: [Network/Eth0]address is '10.0.0.9', not "
                                  "'192.168.0.90'\nhint: the edited text is kept in " +
                                  _directory.GetPath() + "/tavix-"));
  EXPECT_EQ(Ask("Network/Eth0"), "[Network/Eth0]\naddress=10.0.0.9\ndhcp=true\n");
  EXPECT_EQ(CountTexts(), 1U);
}

TEST_F(EditCommand, ConcurrentChangeOfAGroupThatWasNotEditedDoesNotMatter) {
  const std::string other = QuotedProgram() + " -q set '[Network/Wlan0]enabled=true'";
  EXPECT_EQ(Edit("sed -i s/true/false/ \"$1\"; " + other, {"Network/*"}).status, 0);
  EXPECT_EQ(Ask("Network/*"), "[Network/Eth0]\naddress=192.168.0.90\ndhcp=false\n[Network/Wlan0]\nenabled=true\n");
}

TEST_F(EditCommand, SettingThatSomebodyElseAddedMeanwhileIsNotLost) {
  const std::string other = QuotedProgram() + " -q set '[Network/Eth0]mtu=9000'";
  const Outcome outcome = Edit("sed -i /dhcp/d \"$1\"; " + other, {"Network/Eth0"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_THAT(outcome.errors,
              testing::StartsWith("tavix-settings: condition failed: [Network/Eth0]mtu is set by now, to "
                                  "'9000'\nhint: the edited text is kept in "));
  EXPECT_EQ(Ask("Network/Eth0"), "[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\nmtu=9000\n");
}

TEST_F(EditCommand, GroupThatSomebodyElseMadeMeanwhileIsNotOverwritten) {
  const std::string program = QuotedProgram();
  const Outcome set = Edit("echo owner=me >>\"$1\"; " + program + " -q set '[New]owner=other'", {"New"});
  EXPECT_EQ(set.status, 4);
  EXPECT_EQ(Ask("New"), "[New]\nowner=other\n");
  const Outcome empty = Edit("echo owner=me >>\"$1\"; echo '[Empty]' | " + program + " -q import", {"Empty"});
  EXPECT_EQ(empty.status, 4);
  EXPECT_THAT(empty.errors, HasSubstr("there is a group 'Empty' by now\n"));
}

TEST_F(EditCommand, TextThatDoesNotParseIsExitStatus6AndKept) {
  const Outcome outcome = Edit("echo nonsense >>\"$1\"", {"Network/Wlan0"});
  EXPECT_EQ(outcome.status, 6);
  EXPECT_THAT(outcome.errors, HasSubstr(":7: expected \"[group]\" or \"key=value\", found \"nonsense\"\n"));
  EXPECT_EQ(CountTexts(), 1U);
}

TEST_F(EditCommand, EditorThatFailsChangesNothing) {
  const Outcome outcome = Edit("exit 3", {"Network/Wlan0"});
  EXPECT_EQ(outcome.status, 7);
  EXPECT_THAT(outcome.errors, HasSubstr("ended with status 3; nothing was changed\n"));
}

TEST_F(EditCommand, RestrictedGroupsAreRefused) {
  EXPECT_EQ(Edit("true", {"Secure/Wlan0"}).status, 5);
  EXPECT_EQ(Edit("printf '[Trusted/X]\\na=1\\n' >>\"$1\"", {"Network/Wlan0"}).status, 5);
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(EditCommand, DryRunShowsWhatWouldChange) {
  const Outcome outcome = Edit("sed -i s/true/false/ \"$1\"", {"Network/Eth0", "--dry-run"});
  EXPECT_EQ(outcome.output, "-[Network/Eth0]dhcp=true\n+[Network/Eth0]dhcp=false\n");
  EXPECT_EQ(outcome.errors, "nothing was written\n");
  EXPECT_EQ(AskUser(), ".\n");
}

TEST_F(EditCommand, VisualGoesBeforeEditorAndMayHaveArguments) {
  const Outcome outcome =
      Run({"edit", "New"}, {}, {{"EDITOR", "false"}, {"VISUAL", Editor("echo \"$1=1\" >>\"$2\"") + " key"}});
  EXPECT_EQ(outcome.output, "+[New]key=1\n");
}

TEST_F(EditCommand, InterruptWhenAskedToEditAgainLeavesTheTextAndTellsWhere) {
  CommandProcess process(_directory.GetPath(), WithProgram({"edit", "New"}),
                         Environment({{"EDITOR", Editor("echo nonsense >>\"$1\"")}}),
                         CommandProcess::Streams::kTerminal);
  process.AwaitOutput("Edit again? [y/N] ");
  process.Write("\x03");
  EXPECT_EQ(process.AwaitEnd(), 130);
  EXPECT_THAT(process.GetOutput(), HasSubstr("hint: the edited text is kept in " + _directory.GetPath() + "/tavix-"));
  EXPECT_EQ(CountTexts(), 1U);
}

TEST_F(EditCommand, OnATerminalWhatDoesNotParseMayBeEditedAgain) {
  const std::string editor =
      Editor("if test -e second; then sed -i s/nonsense/a=1/ \"$1\"; else echo nonsense >>\"$1\"; touch second; fi");
  CommandProcess process(_directory.GetPath(), WithProgram({"--color=never", "edit", "New"}),
                         Environment({{"EDITOR", editor}}), CommandProcess::Streams::kTerminal);
  process.AwaitOutput("Edit again? [y/N] ");
  process.Write("y\n");
  EXPECT_EQ(process.AwaitEnd(), 0);
  EXPECT_THAT(process.GetOutput(), testing::EndsWith("+[New]a=1\ndone\n"));
}

}  // namespace tavix::test
