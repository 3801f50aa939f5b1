#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

class RemovalCommands : public CommandTest {};

}  // namespace

TEST_F(RemovalCommands, UnsetTakesAKeyAwayForGood) {
  ExpectRun({"unset", "[Network/Eth0]dhcp"}, 0, "", "done: 1 setting unset\n");
  EXPECT_EQ(Ask("Network/Eth0"), "[Network/Eth0]\naddress=192.168.0.90\n");
  ExpectRun({"unset", "Network/Eth0", "address", "[Device/Identity]name"}, 0, "", "done: 2 settings unset\n");
  EXPECT_EQ(Ask("*"), "[Device/Identity]\nmodel=NC-240\n[Network/Eth0]\n[Network/Wlan0]\nenabled=false\n" +
                          std::string(kRestricted));
}

TEST_F(RemovalCommands, UnsetOfWhatIsNotSetIsExitStatus1AndChangesNothing) {
  ExpectRun({"unset", "[Network/Eth0]dhcp", "[Network/Eth0]nothing"}, 1, "",
            "tavix-settings: [Network/Eth0]nothing is not set\n");
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(RemovalCommands, UnsetTakesSettingsAndNoGroups) {
  ExpectRun({"unset", "Network/Eth0"}, 2, "",
            "tavix-settings: 'Network/Eth0' names no setting: expected '[group]key' or GROUP KEY\n");
}

TEST_F(RemovalCommands, UnsetInADryRunShowsWhatWouldGo) {
  ExpectRun({"unset", "--dry-run", "Network/Eth0", "dhcp"}, 0, "-[Network/Eth0]dhcp=true\n", "");
  EXPECT_EQ(Ask("Network/Eth0"), "[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n");
}

TEST_F(RemovalCommands, DeleteTakesGroupsAwayForGood) {
  ExpectRun({"delete", "Network/Wlan0"}, 0, "", "done: 1 group deleted\n");
  EXPECT_EQ(Ask("Network/*"), "[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n");
  ExpectRun({"rm", "Network/Eth0", "Device/Identity"}, 0, "", "done: 2 groups deleted\n");
  EXPECT_EQ(Ask("*"), kRestricted);
}

TEST_F(RemovalCommands, DeleteRemembersNamesAndNeverThePattern) {
  ExpectRun({"delete", "-y", "Network/*"}, 0, "", "done: 2 groups deleted\n");
  EXPECT_EQ(AskUser(),
            "[TavixSettings/Data/DeletedGroups]\nNetwork/Eth0=Network/Eth0\nNetwork/Wlan0=Network/Wlan0\n.\n");
}

TEST_F(RemovalCommands, PatternNeedsYesWhereNobodyCanBeAsked) {
  ExpectRun({"delete", "Network/*"}, 2, "",
            "tavix-settings: a pattern would delete 2 groups: give --yes to do it\nhint: --dry-run shows them\n");
  Merge("[Network/Eth0]\ndhcp=false\n");
  ExpectRun({"reset", "Network/*"}, 2, "",
            "tavix-settings: a pattern would reset 1 group: give --yes to do it\nhint: --dry-run shows them\n");
  EXPECT_EQ(Ask("Network/Eth0"), "[Network/Eth0]\naddress=192.168.0.90\ndhcp=false\n");
}

TEST_F(RemovalCommands, DeleteInADryRunShowsWhatWouldGo) {
  ExpectRun({"delete", "--dry-run", "Network/*"}, 0,
            "-[Network/Eth0]\n-[Network/Eth0]address=192.168.0.90\n-[Network/Eth0]dhcp=true\n"
            "-[Network/Wlan0]\n-[Network/Wlan0]enabled=false\n",
            "");
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(RemovalCommands, DeleteOfAMissingGroupIsExitStatus1AndDeletesNone) {
  ExpectRun({"delete", "Network/Eth0", "Network/Eth1"}, 1, "",
            "tavix-settings: there is no group 'Network/Eth1'; did you mean 'Network/Eth0'?\n");
  ExpectRun({"delete", "Nothing*", "-y"}, 1, "", "tavix-settings: no group matches that could be deleted\n");
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(RemovalCommands, RestrictedGroupsAreRefusedByNameAndPassedOverByPattern) {
  for (const Words& words : std::vector<Words>{
           {"unset", "[Secure/Wlan0]passphrase"}, {"delete", "Secure/Wlan0"}, {"reset", "Secure/Wlan0"}}) {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 5) << words[0];
    EXPECT_THAT(outcome.errors, testing::StartsWith("tavix-settings: refused: 'Secure/Wlan0' is a restricted group\n"));
  }
  ExpectRun({"delete", "--yes", "*"}, 0, "", "done: 3 groups deleted\n");
  EXPECT_EQ(Ask("*"), kRestricted);
}

TEST_F(RemovalCommands, DeleteTakesGroupsAndNoSettings) {
  ExpectRun({"delete", "[Network/Eth0]dhcp"}, 2, "",
            "tavix-settings: '[Network/Eth0]dhcp' is a setting; this command takes groups and patterns\n");
}

TEST_F(RemovalCommands, ResetBringsDefaultsBackAndShowsWhatThatChanged) {
  Merge("[Network/Eth0]\ndhcp=false\nmtu=9000\n");
  ExpectRun({"reset", "Network/Eth0"}, 0,
            "-[Network/Eth0]dhcp=false\n+[Network/Eth0]dhcp=true\n-[Network/Eth0]mtu=9000\n",
            "done: 1 group at its defaults\n");
  EXPECT_EQ(Ask("Network/Eth0"), "[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n");
}

TEST_F(RemovalCommands, ResetBringsDeletedGroupsBack) {
  Run({"delete", "-y", "Network/*"});
  ExpectRun({"reset", "-y", "Network/*"}, 0,
            "+[Network/Eth0]address=192.168.0.90\n+[Network/Eth0]dhcp=true\n+[Network/Wlan0]enabled=false\n",
            "done: 2 groups at their defaults\n");
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(RemovalCommands, ResetCountsGroupsThatHaveNoDefaults) {
  Merge("[Own]\nx=1\n");
  ExpectRun({"reset", "Own", "Network/Wlan0"}, 0, "-[Own]\n-[Own]x=1\n", "done: 2 groups at their defaults\n");
}

TEST_F(RemovalCommands, ResetOfWhatNobodyKnowsIsExitStatus1) {
  ExpectRun({"reset", "Nothing"}, 1, "", "tavix-settings: no group matches, and no default does\n");
}

TEST_F(RemovalCommands, ResetInADryRunShowsTheGroupsThatUsersChanged) {
  Merge("[Network/Eth0]\ndhcp=false\n[Own]\nx=1\n");
  ExpectRun({"reset", "--dry-run", "*"}, 0, "Network/Eth0\nOwn\n", "");
  EXPECT_EQ(Ask("Own"), "[Own]\nx=1\n");
}

}  // namespace tavix::test
