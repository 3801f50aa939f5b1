#include <nlohmann/json.hpp>

#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

class GetCommand : public CommandTest {};

constexpr char kEth0[] = "[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n";

}  // namespace

TEST_F(GetCommand, PrintsTheValueOfASettingInEitherSpelling) {
  ExpectRun({"get", "[Network/Eth0]address"}, 0, "192.168.0.90\n", "");
  ExpectRun({"get", "Network/Eth0", "address"}, 0, "192.168.0.90\n", "");
}

TEST_F(GetCommand, PrintsAGroupAsIni) {
  ExpectRun({"get", "Network/Eth0"}, 0, kEth0, "");
  ExpectRun({"get", "[Network/Eth0]"}, 0, kEth0, "");
}

TEST_F(GetCommand, PrintsSeveralAsOneLineEach) {
  ExpectRun({"get", "Network/*"}, 0,
            "[Network/Eth0]address=192.168.0.90\n[Network/Eth0]dhcp=true\n[Network/Wlan0]enabled=false\n", "");
  ExpectRun({"get", "[Network/Eth0]dhcp", "Network/Wlan0"}, 0,
            "[Network/Eth0]dhcp=true\n[Network/Wlan0]enabled=false\n", "");
}

TEST_F(GetCommand, MissingSettingIsExitStatus1AndASuggestion) {
  ExpectRun({"get", "[Network/Eth0]adress"}, 1, "",
            "tavix-settings: [Network/Eth0]adress is not set; did you mean 'address'?\n");
  ExpectRun({"get", "Network/Eht0"}, 1, "",
            "tavix-settings: there is no group 'Network/Eht0'; did you mean 'Network/Eth0'?\n");
  ExpectRun({"get", "Network/Eth0", "Network/Wlan0"}, 1, "",
            "tavix-settings: [Network/Eth0]Network/Wlan0 is not set; for two groups, use 'show'\n");
  ExpectRun({"get", "Nothing/*"}, 1, "", "tavix-settings: no group matches 'Nothing/*'\n");
}

TEST_F(GetCommand, RecognizesPairs) {
  ExpectRun({"get", "Network/Eth0", "dhcp", "nosuch", "y"}, 1, "[Network/Eth0]dhcp=true\n",
            "tavix-settings: [nosuch]y is not set\n");
  ExpectRun({"get", "nosuch", "x", "nosuch", "y"}, 1, "",
            "tavix-settings: [nosuch]x is not set\ntavix-settings: [nosuch]y is not set\n");
  ExpectRun({"get", "Network/Eth0", "Network/Wlan0", "Device/Identity", "nosuch"}, 1,
            "[Device/Identity]model=NC-240\n[Device/Identity]name=Camera\n[Network/Eth0]address=192.168.0.90\n"
            "[Network/Eth0]dhcp=true\n[Network/Wlan0]enabled=false\n",
            "tavix-settings: there is no group 'nosuch'\n");
}

TEST_F(GetCommand, AnswersOtherSpellingsWithTheRightForm) {
  for (const std::string word : {"Network.Eth0.dhcp", "Network/Eth0/dhcp", "Network/Eth0.dhcp"})
    ExpectRun({"get", word}, 1, "",
              "tavix-settings: there is no group '" + word + "'; one setting is '[Network/Eth0]dhcp'\n");
  Merge("[a.b]\nc.d=1\n");
  ExpectRun({"get", "a.b.c.d"}, 1, "", "tavix-settings: there is no group 'a.b.c.d'; one setting is '[a/b/c]d'\n");
  ExpectRun({"get", "a.b/c.d"}, 1, "", "tavix-settings: there is no group 'a.b/c.d'; one setting is '[a.b]c.d'\n");
  ExpectRun({"get", "Video.Main.fps"}, 1, "",
            "tavix-settings: there is no group 'Video.Main.fps'; one setting is '[Video/Main]fps'\n");
  ExpectRun({"get", "./x", "/", "x."}, 1, "",
            "tavix-settings: there is no group './x'\ntavix-settings: there is no group '/'\n"
            "tavix-settings: there is no group 'x.'\n");
}

TEST_F(GetCommand, PrintsWhatThereIsBesideWhatIsMissing) {
  ExpectRun({"get", "[Network/Eth0]dhcp", "[X/Y]z"}, 1, "[Network/Eth0]dhcp=true\n",
            "tavix-settings: [X/Y]z is not set\n");
}

TEST_F(GetCommand, DefaultStandsForWhatIsNotSet) {
  ExpectRun({"get", "[X]y", "--default", "fallback"}, 0, "fallback\n", "");
  ExpectRun({"get", "[X]y", "--default", "-5"}, 0, "-5\n", "");
  ExpectRun({"get", "[X]y", "--default", ""}, 0, "\n", "");
  ExpectRun({"get", "[X]y", "--default=[a]"}, 0, "[a]\n", "");
  ExpectRun({"get", "[Network/Eth0]dhcp", "--default", "fallback"}, 0, "true\n", "");
}

TEST_F(GetCommand, EndsValuesAsToldTo) {
  ExpectRun({"get", "-n", "[Network/Eth0]dhcp"}, 0, "true", "");
  ExpectRun({"get", "--no-newline", "[Network/Eth0]dhcp"}, 0, "true", "");
  ExpectRun({"get", "-z", "[Network/Eth0]dhcp"}, 0, std::string("true\0", 5), "");
  ExpectRun({"get", "--null", "Network/Eth0"}, 0, std::string("192.168.0.90\0true\0", 18), "");
}

TEST_F(GetCommand, PrintsInEveryForm) {
  ExpectRun({"get", "-o", "ini", "[Network/Eth0]dhcp"}, 0, "[Network/Eth0]\ndhcp=true\n", "");
  ExpectRun({"get", "-o", "shell", "Network/Eth0"}, 0,
            "Network_Eth0_address='192.168.0.90'\nNetwork_Eth0_dhcp='true'\n", "");
  ExpectRun({"get", "-o", "value", "Network/Eth0"}, 0, "192.168.0.90\ntrue\n", "");
  ExpectRun({"get", "-o", "text", "Network/Eth0"}, 0, kEth0, "");
  ExpectRun({"get", "--json", "[Network/Eth0]dhcp"}, 0, "\"true\"\n", "");
  const Outcome outcome = Run({"get", "Network/*", "--json"});
  EXPECT_EQ(nlohmann::json::parse(outcome.output),
            nlohmann::json::parse(R"({"Network/Eth0": {"address": "192.168.0.90", "dhcp": "true"},
                                      "Network/Wlan0": {"enabled": "false"}})"));
}

TEST_F(GetCommand, ShellFormIsSafeToEvaluate) {
  Merge("[Q]\nx=a'b $(false) `false` \\n\\x01\"\n");
  const Outcome outcome = RunInShell(R"~(eval "$("$0" "$@" -o shell get Q)"; printf %s "$Q_x")~");
  EXPECT_EQ(outcome.output, "a'b $(false) `false` \n\x01\"");
}

TEST_F(GetCommand, ValueThatIsNotUtf8IsEscapedForPeopleAndBareForScripts) {
  Merge("[B]\nx=caf\xC3\xA9\ny=\xFF\xFE\n");
  ExpectRun({"get", "[B]x"}, 0, "caf\xC3\xA9\n", "");
  ExpectRun({"get", "[B]y"}, 0, "\\xff\\xfe\n", "");
  ExpectRun({"get", "-o", "value", "[B]y"}, 0, "\xFF\xFE\n", "");
  ExpectRun({"get", "-z", "[B]y"}, 0, std::string("\xFF\xFE\0", 3), "");
  ExpectRun({"get", "B"}, 0, "[B]\nx=caf\xC3\xA9\ny=\\xff\\xfe\n", "");
  ExpectRun({"get", "--json", "[B]y"}, 0, "{\"base64\":\"//4=\"}\n", "");
}

TEST_F(GetCommand, MultipleLinesOfOneValueArePrintedAsTheyAreToAPipe) {
  Merge("[M]\nx=one\\ntwo\n");
  ExpectRun({"get", "[M]x"}, 0, "one\ntwo\n", "");
  ExpectRun({"get", "[M]x", "[M]x"}, 0, "[M]x=one\\ntwo\n", "");
}

TEST_F(GetCommand, NamesMayNeedEscapes) {
  Merge("[a\\x5db]\nk\\x3dl=v\n");
  ExpectRun({"get", "[a\\x5db]k\\x3dl"}, 0, "v\n", "");
  ExpectRun({"get", "a]b", "k=l"}, 0, "v\n", "");
  ExpectRun({"list", "--keys", "a*"}, 0, "[a\\x5db]k\\x3dl\n", "");
}

TEST_F(GetCommand, BracketThatDoesNotCloseIsAUsageError) {
  ExpectRun({"get", "[Network/Eth0"}, 2, "",
            "tavix-settings: '[Network/Eth0' has no ']': expected '[group]key'\n"
            "hint: quote it, so that the shell leaves the brackets alone\n");
}

}  // namespace tavix::test
