#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

using testing::HasSubstr;

class ImportThatReplaces : public CommandTest {
 protected:
  Outcome ReplaceUser(const std::string& backup, Words words = {}) const {
    words.insert(words.begin(), {"import", "-", "--user", "--replace", "--yes"});
    return Run(words, backup);
  }
};

}  // namespace

TEST_F(ImportThatReplaces, DoesNotTakeEverythingAwayForAnEmptyText) {
  for (const char* text : {"", "# nothing\n", "{}"}) {
    const Outcome outcome = Run({"import", "--replace"}, text);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors,
              "tavix-settings: a text without any group would take 3 groups away: give --yes to do it\n"
              "hint: --dry-run shows them\n");
  }
  EXPECT_THAT(Run({"import", "-", "--replace", "Network/*"}, "[Other]\na=1\n").errors,
              HasSubstr("a text without any of these groups would take 2 groups away: give --yes to do it\n"));
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(ImportThatReplaces, TakesEverythingAwayForAnEmptyTextWhenToldTo) {
  EXPECT_THAT(Run({"import", "--replace", "--dry-run"}).output, HasSubstr("-[Device/Identity]\n"));
  EXPECT_EQ(Run({"import", "--replace", "--yes"}).status, 0);
  EXPECT_EQ(Ask("*"), kRestricted);
}

TEST_F(ImportThatReplaces, NeedsYesBeforeGroupsGo) {
  _directory.Write("x.ini", "[Network/Eth0]\ndhcp=true\n");
  ExpectRun({"import", "x.ini", "--replace"}, 2, "",
            "tavix-settings: --replace would delete 2 groups that 'x.ini' lacks: give --yes to do it\n"
            "hint: --dry-run shows them\n");
  EXPECT_EQ(Run({"import", "--replace", "-", "Network/*"}, "[Network/Eth0]\n").errors,
            "tavix-settings: --replace would delete 1 group that 'standard input' lacks: give --yes to do it\n"
            "hint: --dry-run shows them\n");
  Merge("[Own]\nx=1\n");
  ExpectRun({"import", "x.ini", "--replace", "--user"}, 2, "",
            "tavix-settings: --replace would reset 1 group that 'x.ini' lacks: give --yes to do it\n"
            "hint: --dry-run shows them\n");
  EXPECT_EQ(AskUser(), "[Own]\nx=1\n.\n");
  ExpectRun({"import", "x.ini", "--replace", "--yes"}, 0, "", "done: 8 differences\n");
  EXPECT_EQ(Ask("*"), "[Network/Eth0]\ndhcp=true\n" + std::string(kRestricted));
}

TEST_F(ImportThatReplaces, NeedsYesBeforeTheUserLayerDeletesWhatStandsAtItsDefaults) {
  _directory.Write(
      "user.backup",
      "[TavixSettings/Data/DeletedGroups]\nNetwork/Wlan0=Network/Wlan0\nDevice/Identity=Device/Identity\n");
  ExpectRun(
      {"import", "user.backup", "--replace", "--user"}, 2, "",
      "tavix-settings: --replace would delete 2 groups that 'user.backup' records as deleted: give --yes to do it\n"
      "hint: --dry-run shows them\n");
  Merge("[Own]\nx=1\n");
  ExpectRun(
      {"import", "user.backup", "--replace", "--user"}, 2, "",
      "tavix-settings: --replace would reset 1 group that 'user.backup' lacks and delete 2 groups that it records "
      "as deleted: give --yes to do it\nhint: --dry-run shows them\n");
  EXPECT_EQ(Ask("*"),
            "[Device/Identity]\nmodel=NC-240\nname=Camera\n[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n"
            "[Network/Wlan0]\nenabled=false\n[Own]\nx=1\n" +
                std::string(kRestricted));
}

TEST_F(ImportThatReplaces, NeedsNoYesWhereTheUserLayerLosesOnlyItsRecord) {
  Run({"delete", "Network/Wlan0"});
  EXPECT_EQ(Run({"import", "--replace", "--user"}, "[Device/Identity]\nname=Gate\n").status, 0);
  EXPECT_EQ(Ask("Network/Wlan0"), "[Network/Wlan0]\nenabled=false\n");
}

TEST_F(ImportThatReplaces, NeedsNoYesWhereNoGroupGoes) {
  _directory.Write("x.ini", Run({"export"}).output);
  Merge("[Network/Eth0]\ndhcp=false\n");
  Run({"delete", "Network/Wlan0"});
  ExpectRun({"import", "x.ini", "--replace"}, 0, "", "done: 2 differences\n");
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(ImportThatReplaces, ReplacesWhatTheBackupCoversAlone) {
  _directory.Write("x.ini", Run({"export", "Network/*"}).output);
  Merge("[Network/Eth1]\na=1\n[Own]\nx=1\n");
  ExpectRun({"import", "x.ini", "--replace", "--yes"}, 0, "", "done: 2 differences\n");
  EXPECT_EQ(Ask("*"),
            "[Device/Identity]\nmodel=NC-240\nname=Camera\n[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n"
            "[Network/Wlan0]\nenabled=false\n[Own]\nx=1\n" +
                std::string(kRestricted));
  ExpectRun({"import", "x.ini", "--replace", "Device/*"}, 2, "",
            "tavix-settings: a text without any of these groups would take 1 group away: give --yes to do it\n"
            "hint: --dry-run shows them\n");
}

TEST_F(ImportThatReplaces, RefusesABackupThatHoldsWhatItDoesNotCover) {
  _directory.Write("x.ini", Run({"export", "Network/*"}).output + "[Own]\nx=1\n# End of backup\n");
  ExpectRun({"import", "x.ini", "--replace"}, 2, "",
            "tavix-settings: 'x.ini' holds 'Own', and says that it covers others alone\n"
            "hint: name the groups that are meant\n");
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(ImportThatReplaces, KeepsToTheCoverageBehindAByteOrderMark) {
  const std::string backup = Run({"export", "Network/Eth0"}).output;
  EXPECT_EQ(Run({"import", "--replace", "--yes"}, "\xEF\xBB\xBF" + backup).errors, "done: no differences\n");
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(ImportThatReplaces, RefusesAPartOfABackup) {
  const std::string backup = Run({"export", "Network/*", "Device/*"}).output;
  _directory.Write("x.ini", backup.substr(0, backup.find("[Network/Wlan0]")));
  for (const Words& words : std::vector<Words>{{"import", "x.ini", "--replace", "--yes"},
                                               {"import", "x.ini", "--replace", "--yes", "*"},
                                               {"import", "x.ini", "--replace", "--user"}})
    ExpectRun(words, 2, "",
              "tavix-settings: 'x.ini' is a part of a backup: its last line is not '# End of backup'\n"
              "hint: make the backup again\n");
  ExpectRun({"import", "x.ini"}, 0, "", "done: no differences\n");
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(ImportThatReplaces, RefusesAPartOfABackupOfEverything) {
  Merge("[Own]\nx=1\n");
  for (const Words& form : std::vector<Words>{{"export"}, {"export", "--user"}}) {
    const std::string backup = Run(form).output;
    _directory.Write("x.ini", backup.substr(0, backup.size() - 2));
    ExpectRun({"import", "x.ini", "--replace", "--user", "--yes"}, 2, "",
              "tavix-settings: 'x.ini' is a part of a backup: its last line is not '# End of backup'\n"
              "hint: make the backup again\n");
  }
  EXPECT_EQ(AskUser(), "[Own]\nx=1\n.\n");
}

TEST_F(ImportThatReplaces, NeedsToKnowWhatJsonCovers) {
  _directory.Write("x.json", Run({"export", "--json", "Network/Eth0"}).output);
  for (const Words& words :
       std::vector<Words>{{"import", "x.json", "--replace"}, {"import", "x.json", "--replace", "--yes"}})
    ExpectRun(words, 2, "",
              "tavix-settings: 'x.json' is JSON, which does not tell what it covers, and lacks 2 groups\n"
              "hint: name the groups that it was made of, or '*' for all\n");
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
  ExpectRun({"import", "x.json", "--replace", "--yes", "Network/Eth0"}, 0, "", "done: no differences\n");
  EXPECT_EQ(Run({"import", "x.json", "--replace", "--yes", "--user"}).status, 0);
  Merge("[Own]\nx=1\n");
  ExpectRun({"import", "x.json", "--replace", "--yes", "--user"}, 2, "",
            "tavix-settings: 'x.json' is JSON, which does not tell what it covers, and lacks 1 group\n"
            "hint: name the groups that it was made of, or '*' for all\n");
  ExpectRun({"import", "x.json", "--replace", "--yes", "*"}, 0, "", "done: 7 differences\n");
}

TEST_F(ImportThatReplaces, PartOfTheUserLayerKnowsWhatWasDeleted) {
  Run({"delete", "Network/Wlan0", "Device/Identity"});
  const Outcome backup = Run({"export", "--user", "Network/*"});
  EXPECT_EQ(backup.output,
            "# This backup covers: Network/*\n[TavixSettings/Data/DeletedGroups]\nNetwork/Wlan0=Network/Wlan0\n"
            "# End of backup\n");
  EXPECT_EQ(Run({"diff", "--user", "-"}, backup.output).status, 0);
  EXPECT_EQ(Run({"import", "--user", "--replace"}, backup.output).errors, "done: no differences\n");
}

TEST_F(ImportThatReplaces, RefusesABackupOfTheUserLayerInPlaceOfAllSettings) {
  Run({"delete", "Network/Wlan0"});
  _directory.Write("user.backup", Run({"export", "--user"}).output);
  const std::string before = Ask("*");
  ExpectRun({"import", "--replace", "user.backup"}, 2, "",
            "tavix-settings: 'user.backup' tells what users deleted: it is a backup of the user layer\n"
            "hint: give --user with --replace\n");
  EXPECT_EQ(Ask("*"), before);
}

TEST_F(ImportThatReplaces, RecordOfDeletedGroupsIsNoGroupThatAPatternMeans) {
  Run({"delete", "Network/Wlan0", "Device/Identity"});
  const std::string backup = Run({"export", "--user"}).output;
  Run({"reset", "-y", "*"});
  for (const Words& more : std::vector<Words>{{}, {"--replace", "--user"}}) {
    Words words{"import", "-", "TavixSettings/*"};
    words.insert(words.end(), more.begin(), more.end());
    EXPECT_EQ(Run(words, backup).errors, "done: no differences\n");
  }
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
  EXPECT_EQ(Run({"export", "--user", "TavixSettings/*"}).status, 1);
}

TEST_F(ImportThatReplaces, UserSettingsNeedsReplace) {
  const Outcome outcome = Run({"import", "--user"}, "[A]\nb=1\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.errors, testing::StartsWith("tavix-settings: --user requires --replace\n"));
}

TEST_F(ImportThatReplaces, UserSettingsBringsDeletedGroupsBack) {
  Merge("[Network/Eth0]\ndhcp=false\n");
  const std::string backup = Run({"export", "--user"}).output;
  const std::string all = Ask("*");
  Run({"delete", "Network/Wlan0", "Device/Identity"});
  Merge("[Own]\nx=1\n");
  const Outcome outcome = ReplaceUser(backup);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(Ask("*"), all);
  EXPECT_EQ(outcome.errors,
            "done: 8 differences\nkept as user settings, which the backup lacks: 3 settings, at the defaults\n");
  EXPECT_EQ(
      AskUser(),
      "[Device/Identity]\nmodel=NC-240\nname=Camera\n[Network/Eth0]\ndhcp=false\n[Network/Wlan0]\nenabled=false\n.\n");
}

TEST_F(ImportThatReplaces, UserSettingsKeepsWhatTheBackupDeletedAway) {
  Merge("[Network/Eth0]\ndhcp=false\n");
  Run({"delete", "Network/Wlan0"});
  const std::string user = AskUser();
  const std::string backup = Run({"export", "--user"}).output;
  const std::string all = Ask("*");
  Run({"reset", "-y", "*"});
  Merge("[Network/Wlan0]\nchannel=6\n[Own]\nx=1\n");
  Run({"delete", "Device/Identity"});
  EXPECT_EQ(ReplaceUser(backup).status, 0);
  EXPECT_EQ(Ask("*"), all);
  EXPECT_EQ(ReplaceUser(backup).status, 0);
  EXPECT_EQ(Ask("*"), all);
}

TEST_F(ImportThatReplaces, UserSettingsWithoutDifferencesTouchesNothing) {
  Merge("[Network/Eth0]\ndhcp=false\n");
  Run({"delete", "Network/Wlan0"});
  const std::string user = AskUser();
  EXPECT_EQ(ReplaceUser(Run({"export", "--user"}).output).errors, "done: no differences\n");
  EXPECT_EQ(AskUser(), user);
}

TEST_F(ImportThatReplaces, UserSettingsShowsDeletionsInADryRun) {
  Run({"delete", "Network/Wlan0"});
  const Outcome outcome = ReplaceUser("[Own]\nx=1\n", {"--dry-run"});
  EXPECT_EQ(outcome.output,
            "+[Own]x=1\n-[TavixSettings/Data/DeletedGroups]\n"
            "-[TavixSettings/Data/DeletedGroups]Network/Wlan0=Network/Wlan0\n");
}

TEST_F(ImportThatReplaces, UserSettingsKeepsToTheGroupsGiven) {
  const std::string device = Ask("Device/*");
  Run({"delete", "Network/Wlan0", "Device/Identity"});
  Merge("[Own]\nx=1\n");
  EXPECT_EQ(ReplaceUser("[Device/Identity]\nname=Gate\n", {"D*"}).status, 0);
  EXPECT_EQ(Ask("*"),
            "[Device/Identity]\nmodel=NC-240\nname=Gate\n[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n"
            "[Own]\nx=1\n" +
                std::string(kRestricted));
}

TEST_F(ImportThatReplaces, RestrictedNamesAmongTheDeletedAreNoHindrance) {
  ProtocolClient client(_daemon.GetPort());
  client.Send("overwrite\nSecure/Wlan0\n.\n.\nmerge\n[Network/Eth0]\ndhcp=false\n.\n");
  client.AwaitHandled();
  const std::string backup = Run({"export", "--user"}).output;
  EXPECT_THAT(backup, HasSubstr("Secure/Wlan0=Secure/Wlan0"));
  EXPECT_EQ(Run({"import"}, backup).errors, "done: no differences\n");
  EXPECT_EQ(ReplaceUser(backup).errors, "done: no differences\n");
}

}  // namespace tavix::test
