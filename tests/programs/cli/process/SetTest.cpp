#include <nlohmann/json.hpp>

#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

class SetCommand : public CommandTest {};

constexpr char kNotRestricted[] =
    "hint: groups with 'Secure' or 'Trusted' in their names are set by the server's restricted files only\n";

}  // namespace

TEST_F(SetCommand, SetsOneSettingInEverySpelling) {
  ExpectRun({"set", "[A]x=1"}, 0, "", "done: 1 setting\n");
  EXPECT_EQ(Ask("A"), "[A]\nx=1\n");
  ExpectRun({"set", "[A]x", "2"}, 0, "", "done: 1 setting\n");
  EXPECT_EQ(Ask("A"), "[A]\nx=2\n");
  ExpectRun({"set", "A", "x", "3"}, 0, "", "done: 1 setting\n");
  EXPECT_EQ(Ask("A"), "[A]\nx=3\n");
  ExpectRun({"set", "[A]", "x=4"}, 0, "", "done: 1 setting\n");
  EXPECT_EQ(Ask("A"), "[A]\nx=4\n");
}

TEST_F(SetCommand, SetsManyInOneStep) {
  ProtocolClient subscriber(_daemon.GetPort());
  subscriber.Send("subscribe\n*\n.\n");
  subscriber.AwaitHandled();
  ExpectRun({"set", "[A]x=1", "[B]y=2", "Network/Eth0", "mtu=9000", "dhcp=false", "C", "z", "3"}, 0, "",
            "done: 5 settings\n");
  EXPECT_EQ(subscriber.ReadUntil("z=3\n"), "async change\nA\nB\nC\nNetwork/Eth0\n.\n[A]\nx=1\n[B]\ny=2\n[C]\nz=3\n");
  EXPECT_EQ(Ask("Network/Eth0"), "[Network/Eth0]\naddress=192.168.0.90\ndhcp=false\nmtu=9000\n");
}

TEST_F(SetCommand, TakesAnyValueAsItIs) {
  for (const std::string value : {"", "-5", "-x", "[1,2]", "{}", "%%", "a=b", "--", " blanks ", "\\n", "caf\xC3\xA9"}) {
    ExpectRun({"set", "--", "[V]v=" + value}, 0, "", "done: 1 setting\n");
    ExpectRun({"get", "-n", "[V]v"}, 0, value, "");
  }
  for (const std::string value : {"", "-5", "[1,2]", "{}", "%%", "a=b"}) {
    ExpectRun({"set", "W", "w", value}, 0, "", "done: 1 setting\n");
    ExpectRun({"get", "-n", "[W]w"}, 0, value, "");
  }
}

TEST_F(SetCommand, TakesAnOptionBehindAnOptionWithItsValueInOneWord) {
  ExpectRun({"set", "--if=[Device/Identity]name=Camera", "G", "--dry-run", "k=v"}, 0, "+[G]k=v\n", "");
  ExpectRun({"set", "--if=[Device/Identity]name=Camera", "G", "k", "-h"}, 0, "", "done: 1 setting\n");
  EXPECT_EQ(AskUser(), "[G]\nk=-h\n.\n");
  ExpectRun({"set", "--server=[::1]:1", "G", "--volatile", "k=v", "--if=[A]b=c"}, 2, "",
            "tavix-settings: --volatile and --if can't go together: a change with a condition is always saved\n");
}

TEST_F(SetCommand, TakesTheWordBehindGroupAndKeyWhateverItLooksLike) {
  for (const std::string value : {"-h", "--help", "--json", "--dry-run", "-q", "set"}) {
    ExpectRun({"set", "W", "w", value, "[W]v", value, "-q"}, 0, "", "");
    ExpectRun({"get", "-z", "W"}, 0, value + '\0' + value + '\0', "");
  }
  ExpectRun({"set", "W", "w", "--"}, 0, "", "done: 1 setting\n");
  ExpectRun({"get", "W", "w"}, 0, "--\n", "");
  ExpectRun({"set", "W", "w", "--", "-x"}, 0, "", "done: 1 setting\n");
  ExpectRun({"set", "--", "-g", "-k", "-v"}, 0, "", "done: 1 setting\n");
  ExpectRun({"get", "--", "-g", "-k"}, 0, "-v\n", "");
  EXPECT_EQ(Ask("W"), "[W]\nv=set\nw=-x\n");
}

TEST_F(SetCommand, RefusesAnEmptyGroupNameUnlessItIsMeant) {
  const std::string refused =
      "tavix-settings: the name of a group is empty, as that of a variable that is not set\n"
      "hint: --allow-empty takes it as it is\n";
  for (const Words& words : std::vector<Words>{{"set", "[]key=1"},
                                               {"set", "[A]b=1", "", "key", "1"},
                                               {"set", "[A]b=1", "--if", "[]x=1"},
                                               {"unset", "[]key"},
                                               {"delete", ""},
                                               {"reset", ""},
                                               {"edit", ""}})
    ExpectRun(words, 2, "", refused);
  ExpectRun({"log-level", "", "trace"}, 2, "", "tavix-settings: expected a log group, found an empty text\n");
  EXPECT_EQ(AskUser(), ".\n");
  ExpectRun({"set", "--allow-empty", "[]key=1"}, 0, "", "done: 1 setting\n");
  ExpectRun({"get", "[]key"}, 0, "1\n", "");
  ExpectRun({"unset", "--allow-empty", "[]key"}, 0, "", "done: 1 setting unset\n");
  ExpectRun({"delete", "--allow-empty", ""}, 0, "", "done: 1 group deleted\n");
}

TEST_F(SetCommand, AnswersOtherSpellingsWithTheRightForm) {
  ExpectRun({"set", "Video/Main.fps", "30"}, 2, "",
            "tavix-settings: expected a value behind 'Video/Main.fps 30': one setting is '[Video/Main]fps'\n"
            "hint: try '[Video/Main]fps=30'\n");
  ExpectRun({"set", "fps=30"}, 2, "",
            "tavix-settings: 'fps=30' names no group: one setting is '[group]fps'\nhint: try '[group]fps=30'\n");
  ExpectRun({"unset", "Video.Main.fps"}, 2, "",
            "tavix-settings: 'Video.Main.fps' names no setting: one setting is '[Video/Main]fps'\n");
  EXPECT_EQ(AskUser(), ".\n");
}

TEST_F(SetCommand, FillsInTheOneGroupThatHasSuchAKey) {
  const auto answer = [](const std::string& group, const std::string& key) {
    return "tavix-settings: '" + key + "=30' names no group: one setting is '[" + group + "]" + key +
           "'\nhint: try '[" + group + "]" + key + "=30'\n";
  };
  Merge("[Video/Main]\nfps=25\n[Video/Sub]\ndhcp=false\n");
  ExpectRun({"set", "fps=30"}, 2, "", answer("Video/Main", "fps"));
  ExpectRun({"set", "fps=30", "address=1"}, 2, "", answer("Video/Main", "fps"));
  ExpectRun({"set", "dhcp=30"}, 2, "", answer("group", "dhcp"));              // two groups have it
  ExpectRun({"set", "passphrase=30"}, 2, "", answer("group", "passphrase"));  // a restricted one has it
  ExpectRun({"-s", "127.0.0.1:1", "set", "fps=30"}, 2, "", answer("group", "fps"));
  _directory.Write("x.ini", "[Own/Video]\nfps=25\n");
  ExpectRun({"--local", "x.ini", "set", "fps=30"}, 2, "", answer("Own/Video", "fps"));
}

TEST_F(SetCommand, LooksThroughNoLargeStoreForAKey) {
  std::string text;
  for (int i = 0; i < 10000; ++i) text += "k" + std::to_string(i) + "=\n";
  Merge("[Large]\n" + text + "fps=25\n");
  EXPECT_THAT(Run({"set", "fps=30"}).errors, testing::HasSubstr("one setting is '[group]fps'\n"));
}

TEST_F(SetCommand, DashIsStandardInputLessOneLineFeed) {
  EXPECT_EQ(Run({"set", "[A]x", "-"}, "one\ntwo\n\n").status, 0);
  EXPECT_EQ(Ask("A"), "[A]\nx=one\\ntwo\\n\n");
  EXPECT_EQ(Run({"set", "[A]x", "-"}, std::string("\0\xFF", 2)).status, 0);
  EXPECT_EQ(Ask("A"), "[A]\nx=\\x00\xFF\n");
  ExpectRun({"set", "[A]x=-"}, 0, "", "done: 1 setting\n");
  EXPECT_EQ(Ask("A"), "[A]\nx=-\n");
}

TEST_F(SetCommand, ConditionThatHoldsLetsTheChangeThrough) {
  ExpectRun({"set", "[A]x=1", "--if", "[Network/Eth0]dhcp=true", "--if", "[Network/Wlan0]enabled=false"}, 0, "",
            "done: 1 setting\n");
  EXPECT_EQ(Ask("A"), "[A]\nx=1\n");
}

TEST_F(SetCommand, ConditionThatFailsIsExitStatus4AndNamed) {
  ExpectRun({"set", "--if", "[Network/Eth0]dhcp=false", "[A]x=1"}, 4, "",
            "tavix-settings: condition failed: [Network/Eth0]dhcp is 'true', not 'false'\n");
  ExpectRun({"set", "--if", "[X]y=", "[A]x=1"}, 4, "", "tavix-settings: condition failed: [X]y is not set\n");
  EXPECT_EQ(Ask("A"), "");
}

TEST_F(SetCommand, RestrictedGroupIsRefusedAndNothingIsSet) {
  ExpectRun({"set", "[A]x=1", "[Secure/Wlan0]passphrase=mine"}, 5, "",
            std::string("tavix-settings: refused: 'Secure/Wlan0' is a restricted group\n") + kNotRestricted);
  ExpectRun({"set", "Trusted/New", "a", "b"}, 5, "",
            std::string("tavix-settings: refused: 'Trusted/New' is a restricted group\n") + kNotRestricted);
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(SetCommand, VolatileSettingIsNotSaved) {
  ExpectRun({"set", "--volatile", "[A]x=1"}, 0, "", "done: 1 setting\n");
  EXPECT_EQ(Ask("A"), "[A]\nx=1\n");
  EXPECT_EQ(AskUser(), ".\n");
  ExpectRun({"set", "--volatile", "--if", "[A]x=1", "[A]x=2"}, 2, "",
            "tavix-settings: --volatile and --if can't go together: a change with a condition is always saved\n");
}

TEST_F(SetCommand, DryRunShowsWhatWouldChangeAndChangesNothing) {
  ExpectRun({"set", "--dry-run", "[Network/Eth0]dhcp=false", "[Network/Eth0]address=192.168.0.90", "[A]x=1"}, 0,
            "+[A]x=1\n-[Network/Eth0]dhcp=true\n+[Network/Eth0]dhcp=false\n", "");
  ExpectRun({"set", "--dry-run", "--if", "[X]y=1", "[A]x=1"}, 4, "",
            "tavix-settings: condition failed: [X]y is not set\n");
  const Outcome outcome = Run({"set", "--dry-run", "--json", "[Network/Eth0]dhcp=false"});
  EXPECT_EQ(nlohmann::json::parse(outcome.output),
            nlohmann::json::parse(R"([{"group": "Network/Eth0", "key": "dhcp", "old": "true", "new": "false"}])"));
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(SetCommand, WhatIsNoAssignmentIsAUsageError) {
  ExpectRun({"set", "A"}, 2, "", "tavix-settings: expected KEY VALUE or KEY=VALUE behind the group 'A'\n");
  ExpectRun({"set", "A", "x"}, 2, "", "tavix-settings: expected a value behind 'A x'\n");
  ExpectRun({"set", "[A]x"}, 2, "", "tavix-settings: expected a value behind '[A]x'\n");
  ExpectRun({"set", "A*", "x", "1"}, 2, "",
            "tavix-settings: 'A*' is a pattern: name the group whose settings are meant\n");
  ExpectRun({"set", "--if", "A", "[A]x=1"}, 2, "", "tavix-settings: --if: expected '[group]key=value', found 'A'\n");
}

TEST_F(SetCommand, NameThatCanNotStandOnALineIsAUsageError) {
  const Outcome outcome = Run({"set", "a\nb", "x", "1"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.errors, testing::StartsWith("tavix-settings: "));
}

TEST_F(SetCommand, QuietSaysNothing) {
  ExpectRun({"-q", "set", "[A]x=1"}, 0, "", "");
  ExpectRun({"set", "[A]x=2", "--quiet"}, 0, "", "");
  EXPECT_EQ(Ask("A"), "[A]\nx=2\n");
}

}  // namespace tavix::test
