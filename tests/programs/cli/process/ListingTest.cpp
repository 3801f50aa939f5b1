#include <nlohmann/json.hpp>

#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

using nlohmann::json;

class ListingCommands : public CommandTest {};

}  // namespace

TEST_F(ListingCommands, ListPrintsGroupsWithTheirNumbersOfSettings) {
  const std::string all = "Device/Identity  2\nNetwork/Eth0     2\nNetwork/Wlan0    1\nSecure/Wlan0     1\n";
  ExpectRun({"list"}, 0, all, "");
  ExpectRun({"ls", "*"}, 0, all, "");
  ExpectRun({"list", "Network/*", "Device/Identity"}, 0, "Device/Identity  2\nNetwork/Eth0     2\nNetwork/Wlan0    1\n",
            "");
  ExpectRun({"list", "-o", "value", "N*"}, 0, "Network/Eth0\nNetwork/Wlan0\n", "");
  ExpectRun({"list", "Nothing"}, 1, "", "tavix-settings: there is no group 'Nothing'\n");
  ExpectRun({"list", "Network/Wlan0", "nosuch", "X*", "N*"}, 1, "Network/Eth0   2\nNetwork/Wlan0  1\n",
            "tavix-settings: no group matches 'X*'\ntavix-settings: there is no group 'nosuch'\n");
}

TEST_F(ListingCommands, ListTellsTheLayer) {
  Merge("[Network/Eth0]\ndhcp=false\n[Own]\nx=1\n");
  ExpectRun({"list", "--origin"}, 0,
            "Device/Identity  2  default\nNetwork/Eth0     2  mixed\nNetwork/Wlan0    1  default\n"
            "Own              1  user\nSecure/Wlan0     1  restricted\n",
            "");
}

TEST_F(ListingCommands, ListPrintsKeys) {
  ExpectRun({"list", "--keys", "N*"}, 0, "[Network/Eth0]address\n[Network/Eth0]dhcp\n[Network/Wlan0]enabled\n", "");
  Merge("[Network/Eth0]\ndhcp=false\n");
  ExpectRun({"list", "--keys", "--origin", "*0"}, 0,
            "default     [Network/Eth0]address\nuser        [Network/Eth0]dhcp\n"
            "default     [Network/Wlan0]enabled\nrestricted  [Secure/Wlan0]passphrase\n",
            "");
}

TEST_F(ListingCommands, ListPrintsJson) {
  EXPECT_EQ(json::parse(Run({"list", "--json", "Network/*", "--keys", "--origin"}).output), json::parse(R"([
    {"group": "Network/Eth0", "count": 2, "origin": "default", "keys": ["address", "dhcp"]},
    {"group": "Network/Wlan0", "count": 1, "origin": "default", "keys": ["enabled"]}])"));
  EXPECT_EQ(json::parse(Run({"list", "--json", "Nothing"}).output), json::array());
}

TEST_F(ListingCommands, ShowPrintsIniWithEmptyLinesBetweenGroups) {
  ExpectRun({"show", "Network/*"}, 0,
            "[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n\n[Network/Wlan0]\nenabled=false\n", "");
  EXPECT_THAT(Run({"show"}).output, testing::EndsWith("\n\n[Secure/Wlan0]\npassphrase=example\n"));
  ExpectRun({"show", "Nothing"}, 1, "", "tavix-settings: there is no group 'Nothing'\n");
  ExpectRun({"show", "Nothing", "X*", "Network/Wlan0"}, 1, "[Network/Wlan0]\nenabled=false\n",
            "tavix-settings: there is no group 'Nothing'\ntavix-settings: no group matches 'X*'\n");
  ExpectRun({"show", "Network/eth0"}, 1, "",
            "tavix-settings: there is no group 'Network/eth0'; did you mean 'Network/Eth0'?\n");
}

TEST_F(ListingCommands, ShowPrintsInEveryForm) {
  ExpectRun({"show", "-o", "ini", "*0"}, 0,
            "[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n[Network/Wlan0]\nenabled=false\n"
            "[Secure/Wlan0]\npassphrase=example\n",
            "");
  ExpectRun({"show", "-o", "shell", "Network/Wlan0"}, 0, "Network_Wlan0_enabled='false'\n", "");
  ExpectRun({"show", "-o", "value", "Network/Wlan0"}, 0, "false\n", "");
  EXPECT_EQ(json::parse(Run({"show", "--json", "Network/Wlan0"}).output),
            json::parse(R"({"Network/Wlan0": {"enabled": "false"}})"));
}

TEST_F(ListingCommands, ShowTellsTheLayerOfEachSetting) {
  Merge("[Network/Eth0]\ndhcp=false\n[Own]\n");
  ExpectRun({"show", "--origin", "Network/Eth0", "Own", "Secure/*"}, 0,
            "default\t[Network/Eth0]address=192.168.0.90\nuser\t[Network/Eth0]dhcp=false\nuser\t[Own]\n"
            "restricted\t[Secure/Wlan0]passphrase=example\n",
            "");
  EXPECT_EQ(json::parse(Run({"show", "--origin", "--json", "Network/Eth0"}).output),
            json::parse(R"({"Network/Eth0": {"address": {"value": "192.168.0.90", "origin": "default"},
                                             "dhcp": {"value": "false", "origin": "user"}}})"));
}

TEST_F(ListingCommands, SearchLooksIntoNamesKeysAndValues) {
  ExpectRun({"search", "Wlan"}, 0, "[Network/Wlan0]enabled=false\n[Secure/Wlan0]passphrase=example\n", "");
  ExpectRun({"grep", "dhcp"}, 0, "[Network/Eth0]dhcp=true\n", "");
  ExpectRun({"search", "192.168"}, 0, "[Network/Eth0]address=192.168.0.90\n", "");
  ExpectRun({"search", "true", "Network/Wlan0", "Device/*"}, 1, "", "");
  ExpectRun({"search", "nowhere"}, 1, "", "");
}

TEST_F(ListingCommands, SearchMayIgnoreCase) {
  ExpectRun({"search", "CAMERA"}, 1, "", "");
  ExpectRun({"search", "-i", "CAMERA"}, 0, "[Device/Identity]name=Camera\n", "");
  ExpectRun({"search", "--ignore-case", "nc-240"}, 0, "[Device/Identity]model=NC-240\n", "");
}

TEST_F(ListingCommands, SearchMayLookAtKeysOrGroupsOnly) {
  ExpectRun({"search", "-k", "a"}, 0,
            "[Device/Identity]name=Camera\n[Network/Eth0]address=192.168.0.90\n[Network/Wlan0]enabled=false\n"
            "[Secure/Wlan0]passphrase=example\n",
            "");
  ExpectRun({"search", "--keys", "Camera"}, 1, "", "");
  ExpectRun({"search", "-g", "Wlan"}, 0, "Network/Wlan0\nSecure/Wlan0\n", "");
  ExpectRun({"search", "--groups", "true"}, 1, "", "");
}

TEST_F(ListingCommands, SearchTakesAnyText) {
  Merge("[V]\na=[x,y]\nb={}\nc=-5\n");
  ExpectRun({"search", "[x,y]"}, 0, "[V]a=[x,y]\n", "");
  ExpectRun({"search", "{}"}, 0, "[V]b={}\n", "");
  ExpectRun({"search", "-5"}, 0, "[V]c=-5\n", "");
  EXPECT_EQ(json::parse(Run({"search", "{}", "--json"}).output), json::parse(R"({"V": {"b": "{}"}})"));
}

TEST_F(ListingCommands, FormThatMakesNoSenseIsAUsageError) {
  ExpectRun({"list", "-o", "shell"}, 2, "",
            "tavix-settings: this command can't print as 'shell', only as text, json, value\n");
  ExpectRun({"show", "--origin", "-o", "ini"}, 2, "",
            "tavix-settings: this command can't print as 'ini', only as text, json\n");
}

}  // namespace tavix::test
