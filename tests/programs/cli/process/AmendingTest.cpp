// What the commands do by conditional changes in one step, and at a server that does not know these.

#include "tests/programs/cli/process/CommandTest.h"
#include "tests/programs/cli/process/ScriptedDaemon.h"

namespace tavix::test {

namespace {

using testing::HasSubstr;

constexpr char kRecord[] = "[TavixSettings/Data/DeletedGroups]\n";

class AmendingCommands : public CommandTest {
 protected:
  // A change that the command has no word for: it makes a pattern a part of the record.
  void Overwrite(const std::string& groups) const {
    ProtocolClient client(_daemon.GetPort());
    client.Send("overwrite\n" + groups + "\n.\n.\n");
    client.AwaitHandled();
  }
};

const Exchange::value_type kOldFeatures{"info features\nget delimited\n.\n", "data\n.\n"};
const Exchange::value_type kFeatures{"info features\nget delimited\n.\n", "Features\n--------\namend\n\ndata\n.\n"};
const Exchange::value_type kRefusedByCondition{"info refused\nget delimited\n.\n",
                                               "Refused\n-------\nreason=condition: it does not hold\n\ndata\n.\n"};
const Exchange::value_type kServer{"info server\nget delimited\n.\n", "data\n.\n"};

}  // namespace

TEST_F(AmendingCommands, SetIfUnsetSetsWhatNobodyHasSet) {
  ExpectRun({"set", "--if-unset", "[Network/Eth0]mtu=1500", "[New]a=1"}, 0, "", "done: 2 settings\n");
  EXPECT_EQ(AskUser(), "[Network/Eth0]\nmtu=1500\n[New]\na=1\n.\n");
  ExpectRun({"set", "--if-unset", "[Network/Eth0]mtu=9000", "[New]b=1"}, 4, "",
            "tavix-settings: condition failed: [Network/Eth0]mtu is set, to '1500'\n");
  ExpectRun({"set", "--if-unset", "[Network/Eth0]dhcp=false"}, 4, "",
            "tavix-settings: condition failed: [Network/Eth0]dhcp is set, to 'true'\n");
  ExpectRun({"set", "--if-unset", "[New]b=1", "--if", "[New]a=2"}, 4, "",
            "tavix-settings: condition failed: [New]a is '1', not '2'\n");
  EXPECT_EQ(AskUser(), "[Network/Eth0]\nmtu=1500\n[New]\na=1\n.\n");
}

TEST_F(AmendingCommands, SetIfUnsetIsAlwaysSaved) {
  ExpectRun({"set", "--if-unset", "--volatile", "[New]a=1"}, 2, "",
            "tavix-settings: --volatile and --if-unset can't go together: a change with a condition is always saved\n");
}

TEST_F(AmendingCommands, UnsetAndDeleteLeaveWhatTheyAlwaysLeft) {
  Merge("[Own]\na=1\nb=1\n");
  Run({"unset", "[Own]a", "[Network/Eth0]dhcp", "[Network/Wlan0]enabled"});
  Run({"delete", "Device/Identity"});
  EXPECT_EQ(AskUser(), "[Network/Eth0]\naddress=192.168.0.90\n[Network/Wlan0]\n[Own]\nb=1\n" + std::string(kRecord) +
                           "Device/Identity=Device/Identity\nNetwork/Eth0=Network/Eth0\n"
                           "Network/Wlan0=Network/Wlan0\nOwn=Own\n.\n");
}

TEST_F(AmendingCommands, ResetKeepsCopiesUnlessItIsClean) {
  Merge("[Network/Eth0]\ndhcp=false\nmtu=9000\n");
  ExpectRun({"reset", "--clean", "Network/Eth0"}, 0,
            "-[Network/Eth0]dhcp=false\n+[Network/Eth0]dhcp=true\n-[Network/Eth0]mtu=9000\n",
            "done: 1 group at its defaults\n");
  EXPECT_EQ(AskUser(), ".\n");
  Merge("[Network/Eth0]\ndhcp=false\n");
  Run({"reset", "Network/Eth0"});
  EXPECT_EQ(AskUser(), "[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n.\n");
}

TEST_F(AmendingCommands, CleanResetBringsDeletedGroupsBack) {
  Run({"delete", "-y", "Network/*"});
  Merge("[Network/Wlan0]\nown=1\n[Other]\nx=1\n");
  ExpectRun({"reset", "--clean", "--dry-run", "Network/*"}, 0, "Network/Eth0\nNetwork/Wlan0\n", "");
  ExpectRun({"reset", "--clean", "Network/*"}, 2, "",
            "tavix-settings: a pattern would reset 2 groups: give --yes to do it\nhint: --dry-run shows them\n");
  ExpectRun({"reset", "--clean", "-y", "Network/*"}, 0,
            "+[Network/Eth0]address=192.168.0.90\n+[Network/Eth0]dhcp=true\n+[Network/Wlan0]enabled=false\n"
            "-[Network/Wlan0]own=1\n",
            "done: 2 groups at their defaults\n");
  EXPECT_EQ(AskUser(), "[Other]\nx=1\n.\n");
}

TEST_F(AmendingCommands, CleanResetOfWhatNobodyChangedChangesNothing) {
  ExpectRun({"reset", "--clean", "Network/Eth0"}, 0, "", "done: 1 group at its defaults\n");
  ExpectRun({"reset", "--clean", "Nothing"}, 1, "", "tavix-settings: no group matches, and no default does\n");
  EXPECT_EQ(AskUser(), ".\n");
}

TEST_F(AmendingCommands, CleanResetNamesThePatternThatHidesAGroup) {
  Overwrite("Netw*");
  Merge("[Network/Eth0]\nown=1\n");
  ExpectRun({"reset", "--clean", "Network/Eth0"}, 7, "",
            "tavix-settings: not applied: users deleted 'Netw*', which hides 'Network/Eth0'\n"
            "hint: name 'Netw*' as well\n");
  EXPECT_EQ(AskUser(), "[Network/Eth0]\nown=1\n" + std::string(kRecord) + "Netw*=Netw*\n.\n");
  EXPECT_EQ(Run({"reset", "--clean", "-y", "Netw*"}).status, 0);
  EXPECT_EQ(AskUser(), ".\n");
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(AmendingCommands, CleanResetTakesValuesThatAreNotSaved) {
  for (const Words& groups : {Words{"A"}, Words{"-y", "A*"}, Words{"-y", "*"}}) {
    Run({"set", "--volatile", "[A]x=9"});
    Words words{"reset", "--clean"};
    words.insert(words.end(), groups.begin(), groups.end());
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.output, "-[A]\n-[A]x=9\n") << groups.back();
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(Ask("A"), "") << groups.back();
  }
}

TEST_F(AmendingCommands, CleanResetNamesThePatternThatHidesADefault) {
  Overwrite("Netw*");
  ExpectRun({"reset", "--clean", "Network/Eth0"}, 7, "",
            "tavix-settings: not applied: users deleted 'Netw*', which hides 'Network/Eth0'\n"
            "hint: name 'Netw*' as well\n");
  EXPECT_EQ(AskUser(), std::string(kRecord) + "Netw*=Netw*\n.\n");
}

TEST_F(AmendingCommands, CleanResetOfTheRecordBringsAllThatWasDeletedBack) {
  Run({"delete", "-y", "*"});
  EXPECT_EQ(Run({"reset", "--clean", "-y", "TavixSettings/*"}).status, 0);
  EXPECT_EQ(AskUser(), ".\n");
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(AmendingCommands, WhoamiShowsWhatTheServerKnows) {
  ExpectRun({"whoami"}, 0, "connection     tcp\nuser           nobody\n", "");
  EXPECT_EQ(Run({"whoami", "--json"}).output, "{\n  \"connection\": \"tcp\",\n  \"user\": \"nobody\"\n}\n");
}

TEST_F(AmendingCommands, ChangesTakeANote) {
  for (const Words& words : std::vector<Words>{{"set", "-m", "site 4", "[A]b=1"},
                                               {"set", "--note", "site 4", "--if-unset", "[A]c=1"},
                                               {"unset", "-m", "site 4", "[A]b"},
                                               {"reset", "-m", "site 4", "A"},
                                               {"delete", "-m", "site 4", "Network/Eth0"}}) {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
  }
  EXPECT_EQ(Run({"import", "-m", "site 4"}, "[A]\nb=2\n").status, 0);
}

TEST_F(AmendingCommands, NoteThatCannotBeSentIsRefusedBeforeTheChange) {
  for (const std::string& note : {std::string(257, 'x'), std::string("a\nb"), std::string()}) {
    const Outcome outcome = Run({"set", "-m", note, "[A]b=1"});
    EXPECT_EQ(outcome.status, 2) << note;
    EXPECT_THAT(outcome.errors, HasSubstr("--note: expected a line of 1 to 256 bytes")) << note;
  }
  EXPECT_EQ(AskUser(), ".\n");
}

TEST(CommandThatAmends, OlderServerIsNamedForWhatNeedsANewerOne) {
  const std::string tooOld = "tavix-settings: not applied: the server is too old for ";
  for (const auto& [words, feature] : std::vector<std::pair<Words, std::string>>{
           {{"set", "--if-unset", "[A]b=1"}, "--if-unset"}, {{"set", "-m", "why", "[A]b=1"}, "--note"}}) {
    const Outcome outcome = RunBeside({kOldFeatures}, words);
    EXPECT_EQ(outcome.errors, tooOld + feature + "\n");
    EXPECT_EQ(outcome.status, 7);
  }
  const Outcome outcome = RunBeside({{"dump\n", "[A]\nb=1\n.\n"}, kOldFeatures}, {"reset", "--clean", "A"});
  EXPECT_EQ(outcome.errors, tooOld + "--clean\n");
  EXPECT_EQ(outcome.status, 7);
  const Outcome whoami = RunBeside({{"info whoami\nget delimited\n.\n", "data\n.\n"}}, {"whoami"});
  EXPECT_EQ(whoami.errors, "tavix-settings: the server is too old to report how it sees its clients\n");
  EXPECT_EQ(whoami.status, 7);
}

TEST(CommandThatAmends, OlderServerIsChangedByReplacing) {
  const Outcome outcome = RunBeside({kOldFeatures,
                                     {"get delimited\nA\n.\n", "data\n[A]\nb=1\nc=1\n.\n"},
                                     {"overwrite\nA\n.\n[A]\nc=1\n.\nget delimited\nA\n.\n", "data\n[A]\nc=1\n.\n"},
                                     kServer},
                                    {"unset", "[A]b"});
  EXPECT_EQ(outcome.errors, "done: 1 setting unset\n");
  EXPECT_EQ(outcome.status, 0);
}

TEST(CommandThatAmends, ChangeBySomebodyElseHasTheGroupReadAgain) {
  const Outcome outcome = RunBeside({kFeatures,
                                     {"get delimited\nA\n.\n", "data\n[A]\nb=1\nc=1\n.\n"},
                                     {"amend\n[A]\nb=1\nc=1\n.\n.\n.\n.\n[A]\nc=1\n.\n", "result\nfailure\n"},
                                     kRefusedByCondition,
                                     {"get delimited\nA\n.\n", "data\n[A]\nb=1\nc=2\n.\n"},
                                     {"amend\n[A]\nb=1\nc=2\n.\n.\n.\n.\n[A]\nc=2\n.\n", "result\nok\n"},
                                     {"get delimited\nA\n.\n", "data\n[A]\nc=2\n.\n"},
                                     kServer},
                                    {"unset", "[A]b"});
  EXPECT_EQ(outcome.errors, "done: 1 setting unset\n");
  EXPECT_EQ(outcome.status, 0);
}

TEST(CommandThatAmends, KnowsAFeatureByItsFirstWord) {
  const Exchange::value_type described{kFeatures.first, "Features\n--------\namend later words\n\ndata\n.\n"};
  const Outcome outcome = RunBeside({{"get delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"},
                                     described,
                                     {"get delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"},
                                     {"amend\n[A]\nb=1\n.\n.\n.\n.\n[A]\n.\n", "result\nok\n"},
                                     {"get delimited\nA\n.\n", "data\n.\n"},
                                     kServer},
                                    {"delete", "A"});
  EXPECT_EQ(outcome.errors, "done: 1 group deleted\n");
  EXPECT_EQ(outcome.status, 0);
}

TEST(CommandThatAmends, SendsItsNoteInFrontOfTheChange) {
  const Outcome outcome =
      RunBeside({kFeatures, {"note site 4\nmerge\n[A]\nb=1\n.\nget delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"}, kServer},
                {"set", "-m", "site 4", "[A]b=1"});
  EXPECT_EQ(outcome.errors, "done: 1 setting\n");
}

TEST(CommandThatAmends, GivesUpBehindSixteenAttempts) {
  Exchange exchange{{"get delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"}, kFeatures};
  for (int i = 0; i < 16; ++i) {
    const std::string group = "[A]\nb=" + std::to_string(i) + "\n.\n";
    exchange.push_back({"get delimited\nA\n.\n", "data\n" + group});
    exchange.push_back({"amend\n" + group + ".\n.\n.\n[A]\n.\n", "result\nfailure\n"});
    exchange.push_back(kRefusedByCondition);
  }
  const Outcome outcome = RunBeside(exchange, {"delete", "A"});
  EXPECT_EQ(outcome.errors,
            "tavix-settings: condition failed: somebody else changes the same groups again and again\n");
  EXPECT_EQ(outcome.status, 4);
}

TEST(CommandThatAmends, AnotherReasonThanTheConditionIsReportedAtOnce) {
  for (const auto& [answer, reason] : std::vector<std::pair<std::string, std::string>>{
           {"reason=full store: 5 of 4 bytes\n", "full store: 5 of 4 bytes"}, {"", "the server refuses the change"}}) {
    const Outcome outcome = RunBeside({kFeatures,
                                       {"get delimited\nA\n.\n", "data\n[A]\nb=1\nc=1\n.\n"},
                                       {"amend\n[A]\nb=1\nc=1\n.\n.\n.\n.\n[A]\nc=1\n.\n", "result\nfailure\n"},
                                       {kRefusedByCondition.first, "Refused\n-------\n" + answer + "\ndata\n.\n"}},
                                      {"unset", "[A]b"});
    EXPECT_EQ(outcome.errors, "tavix-settings: not applied: " + reason + "\n");
    EXPECT_EQ(outcome.status, 7);
  }
}

TEST(CommandThatAmends, FullStoreIsNoFailedCondition) {
  const TemporaryDirectory directory;
  directory.Write("defaults.ini", "[A]\nb=1\n");
  const Daemon daemon(directory, {"--defaults", "defaults.ini", "--max-store", "1"});
  const Words start{TAVIX_CLI_PROGRAM, "-t", "80", "-s", daemon.AwaitAddresses().front(), "set", "[A]c=1"};
  for (const Words& condition : {Words{"--if-unset"}, Words{"--if", "[A]b=1"}}) {
    Words words = start;
    words.insert(words.end(), condition.begin(), condition.end());
    const Outcome outcome = RunToEnd(directory.GetPath(), words, {}, {{"LC_ALL", "C"}});
    EXPECT_THAT(outcome.errors, testing::StartsWith("tavix-settings: not applied: full store: ")) << condition.front();
    EXPECT_EQ(outcome.status, 7) << condition.front();
  }
}

TEST(CommandThatAmends, ValueOfARestrictedFileThatStaysIsReported) {
  const TemporaryDirectory directory;
  directory.Write("restricted.ini", "[A]\nx=1\n");
  const Daemon daemon(directory, {"--restricted", "restricted.ini"});
  const std::string address = daemon.AwaitAddresses().front();
  for (const auto& [words, left] : std::vector<std::pair<Words, std::string>>{
           {{"unset", "[A]x"}, "[A]x is still set"}, {{"delete", "A"}, "there still is a group 'A'"}}) {
    Words all{TAVIX_CLI_PROGRAM, "-t", "80", "-s", address};
    all.insert(all.end(), words.begin(), words.end());
    const Outcome outcome = RunToEnd(directory.GetPath(), all, {}, {{"LC_ALL", "C"}});
    EXPECT_EQ(outcome.errors, "tavix-settings: not applied: " + left + "\n");
    EXPECT_EQ(outcome.status, 7);
  }
}

}  // namespace tavix::test
