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
