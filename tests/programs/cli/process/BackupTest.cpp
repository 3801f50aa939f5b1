#include <nlohmann/json.hpp>

#include <sstream>
#include <tuple>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tests/programs/cli/process/CommandTest.h"
#include "tests/support/RandomDocument.h"

namespace tavix::test {

namespace {

using core::IniFile;
using nlohmann::json;

constexpr char kLeftOut[] = "left out: 1 restricted group, which no import could set\n";
constexpr char kAll[] = "# This backup covers all groups\n";
constexpr char kEnd[] = "# End of backup\n";

class BackupCommands : public CommandTest {
 protected:
  // The command over a store of its own.
  Outcome RunOn(const DaemonProcess& daemon, const Words& words, const std::string& input = {}) const {
    return Run(words, input, {{"TAVIX_SETTINGS_SERVER", daemon.AwaitAddresses().front()}});
  }
};

// What a daemon takes: names that can stand on a line, and none that is restricted.
std::string SendableText(const IniFile::GroupMap& groups) {
  IniFile settings;
  for (const auto& [group, keys] : groups) {
    const bool isSendable = group != "." && group.find('\n') == std::string::npos;
    if (!isSendable || settings::server::GroupDiscriminator::IsRestrictedGroup(group)) continue;
    settings[group];
    for (const auto& [key, value] : keys) settings.SetValue(group, key, value);
  }
  std::ostringstream text;
  settings.SaveToStream(text);
  return text.str();
}

}  // namespace

TEST_F(BackupCommands, ExportLeavesRestrictedGroupsOutAndSaysSo) {
  ExpectRun({"export"}, 0, kAll + std::string(kDefaults) + kEnd, kLeftOut);
  ExpectRun({"export", "*"}, 0, "# This backup covers: *\n" + std::string(kDefaults) + kRestricted + kEnd, "");
  ExpectRun({"export", "Nothing"}, 1, "", "tavix-settings: there is no group 'Nothing'\n");
}

TEST_F(BackupCommands, ExportOfGroupsNamesThemInComments) {
  ExpectRun({"export", "Network/Wlan0"}, 0,
            "# This backup covers: Network/Wlan0\n[Network/Wlan0]\nenabled=false\n# End of backup\n", "");
  ExpectRun({"export", "-o", "ini", "[Device/Identity]", " a\\*", "Network/Wlan0"}, 0,
            "# This backup covers: \\sa\\\\*\n# This backup covers: Device/Identity\n"
            "# This backup covers: Network/Wlan0\n"
            "[Device/Identity]\nmodel=NC-240\nname=Camera\n[Network/Wlan0]\nenabled=false\n# End of backup\n",
            "");
}

TEST_F(BackupCommands, ExportOfNothingIsWholeAsWell) {
  ExpectRun({"export", "--user"}, 0, std::string(kAll) + kEnd, "");
}

TEST_F(BackupCommands, DiffComparesTheGroupsThatTheBackupCovers) {
  const std::string backup = Run({"export", "Network/*"}).output;
  Merge("[Device/Identity]\nname=Gate\n[Network/Wlan0]\nenabled=true\n");
  EXPECT_EQ(Run({"diff", "-"}, backup).output, "-[Network/Wlan0]enabled=true\n+[Network/Wlan0]enabled=false\n");
  EXPECT_EQ(Run({"diff", "-", "Device/*"}, backup).output,
            "-[Device/Identity]\n-[Device/Identity]model=NC-240\n-[Device/Identity]name=Gate\n");
}

TEST_F(BackupCommands, DiffOfWhatCanNotBeReadIsExitStatus2) {
  ExpectRun({"diff", "/nonexistent"}, 2, "",
            "tavix-settings: failed to open '/nonexistent': No such file or directory\n");
}

TEST_F(BackupCommands, ExportPrintsJson) {
  EXPECT_EQ(json::parse(Run({"export", "--json", "Network/Wlan0"}).output),
            json::parse(R"({"Network/Wlan0": {"enabled": "false"}})"));
}

TEST_F(BackupCommands, ExportOfTheUserLayerHoldsWhatUsersChangedAndDeleted) {
  Merge("[Network/Eth0]\ndhcp=false\n");
  Run({"delete", "Network/Wlan0"});
  ExpectRun({"export", "--user"}, 0,
            kAll + std::string("[Network/Eth0]\ndhcp=false\n[TavixSettings/Data/DeletedGroups]\n") +
                "Network/Wlan0=Network/Wlan0\n" + kEnd,
            "");
}

TEST_F(BackupCommands, DiffShowsWhatStandsInTheStoreAndInTheFile) {
  _directory.Write("x.ini",
                   "[Device/Identity]\nmodel=NC-240\nname=Gate\n[Network/Eth0]\naddress=192.168.0.90\n[New]\na=1\n");
  ExpectRun({"diff", "x.ini"}, 1,
            "-[Device/Identity]name=Camera\n+[Device/Identity]name=Gate\n-[Network/Eth0]dhcp=true\n"
            "-[Network/Wlan0]\n-[Network/Wlan0]enabled=false\n+[New]a=1\n",
            "");
  ExpectRun({"diff", "x.ini", "Device/*"}, 1, "-[Device/Identity]name=Camera\n+[Device/Identity]name=Gate\n", "");
  EXPECT_EQ(json::parse(Run({"diff", "x.ini", "--json", "N*"}).output), json::parse(R"([
      {"group": "Network/Eth0", "key": "dhcp", "old": "true", "new": null},
      {"group": "Network/Wlan0", "event": "group removed"},
      {"group": "Network/Wlan0", "key": "enabled", "old": "false", "new": null},
      {"group": "New", "key": "a", "old": null, "new": "1"}])"));
}

TEST_F(BackupCommands, DiffOfABackupIsEmptyAndExitStatus0) {
  for (const Words& words : std::vector<Words>{{"export"}, {"export", "*"}, {"export", "--json"}}) {
    const Outcome outcome = Run({"diff", "-"}, Run(words).output);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.status, 0);
  }
}

TEST_F(BackupCommands, DiffComparesWithTheUserLayer) {
  Merge("[Network/Eth0]\ndhcp=false\n");
  const std::string user = Run({"export", "--user"}).output;
  EXPECT_EQ(Run({"diff", "--user", "-"}, user).status, 0);
  EXPECT_EQ(Run({"diff", "--user", "-"}, "[Network/Eth0]\ndhcp=true\n").output,
            "-[Network/Eth0]dhcp=false\n+[Network/Eth0]dhcp=true\n");
}

TEST_F(BackupCommands, ImportSetsWhatTheFileHoldsAndLeavesTheRest) {
  const Outcome outcome = Run({"import"}, "[Network/Eth0]\ndhcp=false\n[New]\na=1\n[Empty]\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.errors, "done: 3 differences\n");
  EXPECT_EQ(Ask("[Network/Eth0]"), "");
  EXPECT_EQ(Ask("N*"),
            "[Network/Eth0]\naddress=192.168.0.90\ndhcp=false\n[Network/Wlan0]\nenabled=false\n[New]\na=1\n");
  EXPECT_EQ(Ask("Empty"), "[Empty]\n");
}

TEST_F(BackupCommands, ImportReadsAFileAndPartsOfIt) {
  _directory.Write("x.ini", "[A]\na=1\n[B]\nb=2\n");
  ExpectRun({"import", "x.ini", "B"}, 0, "", "done: 1 difference\n");
  EXPECT_EQ(Ask("A") + Ask("B"), "[B]\nb=2\n");
}

TEST_F(BackupCommands, ImportReadsJson) {
  const Outcome outcome =
      Run({"import", "-"}, R"({"A": {"text": "caf\u00e9", "bytes": {"base64": "//4="}, "number": 5, "truth": true}})");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(Ask("A"), "[A]\nbytes=\xFF\xFE\nnumber=5\ntext=caf\xC3\xA9\ntruth=true\n");
}

TEST_F(BackupCommands, ImportThatReplacesTakesAwayWhatTheFileLacks) {
  const Outcome outcome = Run({"import", "--replace", "-y"}, "[Network/Eth0]\ndhcp=false\n[New]\na=1\n");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(Ask("*"), "[Network/Eth0]\ndhcp=false\n[New]\na=1\n" + std::string(kRestricted));
}

TEST_F(BackupCommands, ImportThatReplacesKeepsToTheGroupsGiven) {
  EXPECT_EQ(Run({"import", "-", "Network/*", "--replace", "-y"}, "[Network/Eth0]\ndhcp=false\n[New]\na=1\n").status, 0);
  EXPECT_EQ(Ask("*"),
            "[Device/Identity]\nmodel=NC-240\nname=Camera\n[Network/Eth0]\ndhcp=false\n" + std::string(kRestricted));
}

TEST_F(BackupCommands, ImportTouchesOnlyGroupsThatDiffer) {
  Run({"import", "--replace", "-y"},
      "[Device/Identity]\nmodel=NC-240\nname=Gate\n[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n");
  EXPECT_EQ(AskUser(),
            "[Device/Identity]\nname=Gate\n[TavixSettings/Data/DeletedGroups]\nNetwork/Wlan0=Network/Wlan0\n.\n");
}

TEST_F(BackupCommands, ImportInADryRunShowsWhatWouldChange) {
  const Outcome outcome = Run({"import", "--dry-run"}, "[Network/Eth0]\ndhcp=false\n[New]\na=1\n");
  EXPECT_EQ(outcome.output, "-[Network/Eth0]dhcp=true\n+[Network/Eth0]dhcp=false\n+[New]a=1\n");
  EXPECT_EQ(outcome.errors, "");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(Ask("*"), std::string(kDefaults) + kRestricted);
}

TEST_F(BackupCommands, BackupOfTheUserLayerBringsChangesAndDeletionsBack) {
  Merge("[Network/Eth0]\ndhcp=false\n[Own]\nx=1\n");
  Run({"delete", "Network/Wlan0"});
  const std::string backup = Run({"export", "--user"}).output;
  const std::string all = Ask("*");
  EXPECT_EQ(Run({"reset", "-y", "*"}).status, 0);
  EXPECT_EQ(Run({"import"}, backup).status, 0);
  EXPECT_EQ(Ask("*"), all);
}

TEST_F(BackupCommands, ReplacingTheUserLayerPutsEverythingElseBackToItsDefaults) {
  Merge("[Network/Eth0]\ndhcp=false\n[Own]\nx=1\n");
  const Outcome outcome = Run({"import", "--replace", "--user", "-y"}, "[Device/Identity]\nname=Gate\n");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(Ask("*"),
            "[Device/Identity]\nmodel=NC-240\nname=Gate\n[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n"
            "[Network/Wlan0]\nenabled=false\n" +
                std::string(kRestricted));
}

TEST_F(BackupCommands, RestrictedGroupInABackupIsRefusedOnlyIfItDiffers) {
  EXPECT_EQ(Run({"import"}, kRestricted).status, 0);
  const Outcome outcome = Run({"import"}, "[A]\nx=1\n[Secure/Wlan0]\npassphrase=mine\n");
  EXPECT_EQ(outcome.status, 5);
  EXPECT_EQ(Ask("A"), "");
}

TEST_F(BackupCommands, InputThatDoesNotParseIsExitStatus6WithFileAndLine) {
  _directory.Write("bad.ini", "[A]\nx=1\nnonsense\n");
  ExpectRun({"import", "bad.ini"}, 6, "",
            "tavix-settings: bad.ini:3: expected \"[group]\" or \"key=value\", found \"nonsense\"\n");
  ExpectRun({"diff", "bad.ini"}, 6, "",
            "tavix-settings: bad.ini:3: expected \"[group]\" or \"key=value\", found \"nonsense\"\n");
  ExpectRun({"import", "gone.ini"}, 2, "", "tavix-settings: failed to open 'gone.ini': No such file or directory\n");
  EXPECT_EQ(Run({"import"}, "x=1\n").errors,
            "tavix-settings: standard input:1: expected \"[group]\" before the first \"key=value\", found \"x=1\"\n");
  _directory.Write("bad.json", "{\"A\":\n {\"x\": }}\n");
  EXPECT_THAT(Run({"import", "bad.json"}).errors, testing::StartsWith("tavix-settings: bad.json:2: "));
  EXPECT_EQ(Run({"import", "bad.json"}).status, 6);
  EXPECT_EQ(Run({"import"}, "{\"A\": {\"x\": [1]}}").errors,
            "tavix-settings: standard input:1: [A]x: expected a string or {\"base64\": \"...\"}, found an array\n");
}

TEST_F(BackupCommands, JsonThatIsNoSettingsIsExitStatus6WithFileAndLine) {
  const std::string wanted = "expected a string or {\"base64\": \"...\"}, found ";
  for (const auto& [text, line, error] : std::vector<std::tuple<std::string, int, std::string>>{
           {"{\n\"A\": 5}", 2, "[A]: expected an object of keys, found 5"},
           {"{\"A\": {\"x\":\n\nnull}}", 3, "[A]x: " + wanted + "null"},
           {"{\"A\": {\"x\": {}\n}}", 1, "[A]x: " + wanted + "an object"},
           {"{\"A\": {\"x\": {\"base64\": 5}}}", 1, "[A]x: " + wanted + "5"},
           {"{\"A\": {\"x\": {\"base64\": \"QQ==\", \"more\": \"\"}}}", 1, "[A]x: " + wanted + "an object"},
           {"{\"A\": {\"x\": {\"base64\": \"?\"}}}", 1, "'?' is no base64"},
           {"{\"base64:?\": {}}", 1, "'base64:?' is no base64"},
           {"{\"A\": {\"x\": \"1\",\n\"x\": \"2\"}}", 2, "[A]x stands twice"},
           {"{\"A\": {},\n\"A\": {}}", 2, "[A] stands twice"},
           {"{\"A\":\n{\"x\": 1e400}}", 2, "number overflow parsing '1e400'"},
           {"{\"A\": {\"x\": " + std::string(200000, '[') + std::string(200000, ']') + "}}", 1,
            "[A]x: " + wanted + "an array"}}) {
    const Outcome outcome = Run({"import"}, text);
    EXPECT_EQ(outcome.errors, "tavix-settings: standard input:" + std::to_string(line) + ": " + error + "\n");
    EXPECT_EQ(outcome.status, 6);
  }
  EXPECT_EQ(Ask("A"), "");
}

TEST_F(BackupCommands, JsonNumbersAreTakenAsTheyAreWritten) {
  EXPECT_EQ(Run({"import"}, "\xEF\xBB\xBF{\"A\": {\"a\": 1e2, \"b\": 0.10, \"c\": 12345678901234567890123, \"d\": -5}}")
                .status,
            0);
  EXPECT_EQ(Ask("A"), "[A]\na=1e2\nb=0.10\nc=12345678901234567890123\nd=-5\n");
}

TEST_F(BackupCommands, GroupThatNoListCanNameIsExitStatus6) {
  const Outcome outcome = Run({"import"}, "[A]\nx=1\n[.]\nx=1\n");
  EXPECT_EQ(outcome.status, 6);
  EXPECT_THAT(outcome.errors, testing::StartsWith("tavix-settings: standard input: "));
  EXPECT_EQ(Ask("A"), "");
}

TEST_F(BackupCommands, BackupOfTheExampleDeviceImportsWithoutDifferences) {
  const std::string device = std::string(TAVIX_SOURCE_DIR) + "/examples/device/";
  const Daemon daemon(_directory, {"--defaults", device + "defaults.d", "--restricted", device + "restricted.d"});
  for (const Words& form : std::vector<Words>{{"export"}, {"export", "*"}, {"export", "--json"}}) {
    const Outcome outcome = RunOn(daemon, {"import", "--replace", "--dry-run"}, RunOn(daemon, form).output);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, "no differences\n");
    EXPECT_EQ(outcome.status, 0);
  }
}

TEST_F(BackupCommands, BackupOfAnyDocumentImportsWithoutDifferencesAndRestoresTheStore) {
  RandomDocuments documents(7);
  for (int i = 0; i < 10; ++i) {
    const Daemon daemon(_directory, {"--defaults", _directory.Write("random.ini", SendableText(documents.Next()))});
    for (const Words& form : std::vector<Words>{{"export"}, {"export", "--json"}}) {
      const std::string backup = RunOn(daemon, form).output;
      EXPECT_EQ(RunOn(daemon, {"import", "--replace", "--dry-run"}, backup).errors, "no differences\n") << backup;
      const std::string before = ProtocolClient(daemon.GetPort()).Get("*\n");
      RunOn(daemon, {"delete", "-y", "*"});
      EXPECT_EQ(RunOn(daemon, {"import", "--replace"}, backup).status, 0) << backup;
      EXPECT_EQ(ProtocolClient(daemon.GetPort()).Get("*\n"), before);
    }
  }
}

TEST_F(BackupCommands, ThousandsOfGroupsAreImportedInOneStep) {
  std::string text;
  for (int i = 0; i < 5000; ++i) text += "[Many/" + std::to_string(10000 + i) + "]\nx=" + std::string(100, 'v') + "\n";
  const Outcome outcome = Run({"import"}, text);
  EXPECT_EQ(outcome.errors, "done: 5000 differences\n");
  EXPECT_EQ(Ask("Many/*"), text);
}

}  // namespace tavix::test
