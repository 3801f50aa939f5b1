#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/programs/server/Daemon.h"

namespace tavix::test {

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kDevice[] = TAVIX_SOURCE_DIR "/examples/device/";

class Check : public testing::Test {
 protected:
  // Runs the program with --check and these arguments; leaves what it wrote in _output and _errors.
  int RunToEnd(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "--check");
    DaemonProcess daemon(ServerProgram(), _directory.GetPath(), arguments);
    const int status = daemon.AwaitEnd();
    _output = WithoutBounds(daemon.GetOutput());
    _errors = daemon.GetErrors();
    return status;
  }

  const TemporaryDirectory _directory;
  std::string _output;
  std::string _errors;
};

}  // namespace

TEST_F(Check, SaysWhatTheDeviceExampleLoads) {
  const std::string device = kDevice;
  EXPECT_EQ(RunToEnd({"--defaults", device + "defaults.d", "--restricted", device + "restricted.d", "--user-settings",
                      "u.ini"}),
            0);
  EXPECT_EQ(_errors, "");
  EXPECT_THAT(_output, StartsWith("defaults: " + device + "defaults.d/10-base.ini: "));
  EXPECT_THAT(_output, HasSubstr("/90-site.ini: 3 groups\n"
                                 "  dropped, restricted: [Secure/Users/installer]\n"
                                 "  dropped, outbid by an earlier file's priority: [Events/Tamper]\n"
                                 "  dropped, outbid by an earlier file's priority: [Network/Firewall]\n"));
  EXPECT_THAT(_output, HasSubstr("\nuser settings: u.ini: absent, nothing loaded\n"));
  EXPECT_THAT(_output, HasSubstr("\nrestricted: " + device + "restricted.d/20-keys.ini: 4 groups\nok: "));
}

TEST_F(Check, SaysWhatWasLoadedFromWhereAndHowMuchReadersWillSee) {
  _directory.Write("d.ini", "[A]\nx=1\n[B]\ny=1\n[Trusted/T]\n");
  _directory.Write("u.ini", "[A]\nx=2\n[Secure/S]\nk=1\n");
  _directory.Write("r.ini", "[Secure/R]\nk=1\n");
  EXPECT_EQ(RunToEnd({"--defaults", "d.ini", "--user-settings", "u.ini", "--restricted", "r.ini"}), 0);
  EXPECT_EQ(_output,
            "defaults: d.ini: 2 groups\n  dropped, restricted: [Trusted/T]\n"
            "user settings: u.ini: 2 groups\n  dropped, restricted: [Secure/S]\n"
            "restricted: r.ini: 1 group\n"
            "ok: 3 groups\n");
}

TEST_F(Check, DefaultsThatTakeMoreThanTheStoreMayAreWrong) {
  _directory.Write("d.ini", "[Large]\nk=" + std::string(10'000, 'v') + "\n");
  EXPECT_EQ(RunToEnd({"--defaults", "d.ini", "--max-store", "10000"}), 78);
  EXPECT_THAT(_output, HasSubstr("\nwarning: The settings take about "));
  EXPECT_THAT(_output, HasSubstr(" bytes of memory, more than --max-store 10000: only changes that do not make them "
                                 "larger are carried out\n"));
}

TEST_F(Check, UserSettingsThatTakeMoreThanTheStoreMayAreWorthAWarning) {
  _directory.Write("u.ini", "[Large]\nk=" + std::string(10'000, 'v') + "\n");
  EXPECT_EQ(RunToEnd({"--user-settings", "u.ini", "--max-store", "10000"}), 0);
  EXPECT_THAT(_output, HasSubstr("\nwarning: The settings take about "));
}

TEST_F(Check, NoFilesAreNoSettings) {
  EXPECT_EQ(RunToEnd({}), 0);
  EXPECT_EQ(_output, "ok: 0 groups\n");
}

TEST_F(Check, ServesNothingAndWritesNothing) {
  const std::string text = "[A]\n # by hand\n x = 1\n[Secure/S]\n";
  _directory.Write("u.ini", text);
  EXPECT_EQ(RunToEnd({"--listen", "192.0.2.1:1", "--allow-remote", "--user-settings", "u.ini"}), 0);
  EXPECT_EQ(_directory.Read("u.ini"), text);
}

TEST_F(Check, LineThatIsNoSettingsTextEndsWithStatus78AndItsPlace) {
  std::filesystem::create_directory(_directory.Path("d"));
  _directory.Write("d/bad.ini", "[A]\nx=1\n\nnonsense\n");
  _directory.Write("early.ini", "x=1\n");
  _directory.Write("open.ini", "[A]\n[B\n");
  const std::vector<std::pair<std::string, std::string>> cases{
      {"d", "d/bad.ini:4: expected \"[group]\" or \"key=value\", found \"nonsense\""},
      {"early.ini", "early.ini:1: expected \"[group]\" before the first \"key=value\", found \"x=1\""},
      {"open.ini", "open.ini:2: expected \"[group]\" or \"key=value\", found \"[B\""},
  };
  for (const auto& [path, error] : cases) {
    for (const char* option : {"--defaults", "--restricted"}) {
      EXPECT_EQ(RunToEnd({option, path}), 78) << option << ' ' << path;
      EXPECT_EQ(_errors, "tavix-settings-server: " + error + "\n");
      EXPECT_THAT(_output, EndsWith(": error, nothing loaded\n"));
    }
  }
}

TEST_F(Check, OneWrongFileDoesNotHideTheOthers) {
  std::filesystem::create_directory(_directory.Path("d"));
  _directory.Write("d/10.ini", "[A]\nx=1\n");
  _directory.Write("d/20.ini", "oops\n");
  _directory.Write("d/30.ini", "[B]\noops\n");
  _directory.Write("d/40.ini", "[C]\ny=1\n");
  _directory.Write("user.ini", "[D\n");
  EXPECT_EQ(RunToEnd({"--defaults", "d", "--user-settings", "user.ini", "--restricted", "gone.ini"}), 78);
  EXPECT_EQ(_output,
            "defaults: d/10.ini: 1 group\n"
            "defaults: d/20.ini: error, nothing loaded\n"
            "defaults: d/30.ini: error, nothing loaded\n"
            "defaults: d/40.ini: 1 group\n"
            "user settings: user.ini: error, nothing loaded\n"
            "restricted: gone.ini: error, nothing loaded\n");
  EXPECT_THAT(_errors, HasSubstr("tavix-settings-server: d/20.ini:1: expected "));
  EXPECT_THAT(_errors, HasSubstr("tavix-settings-server: d/30.ini:2: expected "));
  EXPECT_THAT(_errors, HasSubstr("tavix-settings-server: Failed to use --user-settings 'user.ini': it is not a file of "
                                 "user settings (user.ini:1: expected "));
  EXPECT_THAT(_errors, HasSubstr("tavix-settings-server: Failed to open settings file 'gone.ini': "));
}

TEST_F(Check, AddressesThatAStartWouldRefuseEndWithStatus69) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{"--listen", "0.0.0.0:1"}, "'0.0.0.0:1': it is not loopback, and --allow-remote was not given"},
      {{"--listen", "unix:s.sock", "--unix-group", "no-such-group"},
       "'unix:s.sock': there is no group 'no-such-group'"},
  };
  for (const auto& [arguments, reason] : cases) {
    EXPECT_EQ(RunToEnd(arguments), 69) << reason;
    EXPECT_EQ(_errors, "tavix-settings-server: Can't listen on " + reason + "\n");
  }
  EXPECT_EQ(RunToEnd({"--unix-group", "no-such-group"}), 0) << "of no socket";
}

TEST_F(Check, AddressesAndFilesAreToldTogether) {
  _directory.Write("d.ini", "oops\n");
  EXPECT_EQ(RunToEnd({"--listen", "0.0.0.0:1", "--listen", "0.0.0.0:2", "--defaults", "d.ini"}), 69);
  EXPECT_THAT(_errors, AllOf(HasSubstr("'0.0.0.0:1'"), HasSubstr("'0.0.0.0:2'"), HasSubstr("d.ini:1: expected ")));
}

// The daemon starts in spite of them.
TEST_F(Check, FilesThatTheDaemonCouldNotWriteAreWarnedOf) {
  const std::string gone = _directory.Path("gone");
  std::filesystem::create_directory(_directory.Path("d"));
  EXPECT_EQ(RunToEnd({"--log-file", gone + "/l", "--metrics-file", gone + "/m"}), 0);
  const auto warning = [&](const std::string& option, const std::string& file) {
    return "warning: --" + option + " '" + gone + file + "': directory '" + gone + "': No such file or directory\n";
  };
  EXPECT_THAT(_output, EndsWith(warning("log-file", "/l") + warning("metrics-file", "/m") + "ok: 0 groups\n"));
  EXPECT_EQ(RunToEnd({"--log-file", _directory.Path("d")}), 0);
  EXPECT_THAT(_output, StartsWith("warning: --log-file '" + _directory.Path("d") + "': not a regular file\n"));
  EXPECT_EQ(RunToEnd({"--log-file", _directory.Path("l"), "--metrics-file", "m", "--user-settings", "u.ini"}), 0);
  EXPECT_THAT(_output, Not(HasSubstr("warning")));
}

TEST_F(Check, UserSettingsThatWouldNotBeKeptEndWithStatus78) {
  _directory.Write("file", "");
  const std::pair<std::string, std::string> cases[] = {{"gone", "No such file or directory"},
                                                       {"file", "Not a directory"}};
  for (const auto& [directory, reason] : cases) {
    EXPECT_EQ(RunToEnd({"--user-settings", directory + "/user.ini"}), 78);
    EXPECT_EQ(_errors, "tavix-settings-server: --user-settings '" + directory + "/user.ini': directory '" + directory +
                           "': " + reason + "; changes will not be kept\n");
  }
}

TEST_F(Check, GroupsThatNoListOfNamesCanHoldAreLeftOutAndEndWithStatus78) {
  _directory.Write("d.ini", "[A]\nx=[.]\n\n [.]\ny=1\n[B]\n[C\\nD]\nz=1\n");
  EXPECT_EQ(RunToEnd({"--defaults", "d.ini"}), 78);
  EXPECT_EQ(_errors,
            "tavix-settings-server: d.ini:4: group [.] is left out: no list of names can hold its name\n"
            "tavix-settings-server: d.ini:7: group [C\\x0aD] is left out: no list of names can hold its name\n");
  EXPECT_EQ(_output, "defaults: d.ini: 2 groups\n");
}

TEST_F(Check, RestrictedFilesWithGroupsThatClientsCanChangeAreWarnedOf) {
  _directory.Write("r.ini", "[Secure/A]\n[A]\n[B]\n[C]\n[D]\n[E]\n[F]\n[G]\n[Trusted/B]\n");
  EXPECT_EQ(RunToEnd({"--restricted", "r.ini"}), 0);
  EXPECT_THAT(_output, StartsWith("restricted: r.ini: 9 groups\n  warning: clients can change, until the next start, "
                                  "groups whose names are not restricted: [A], [B], [C], [D], [E] and 2 more\n"));
}

TEST_F(Check, FileThatIsNotThereEndsWithStatus78AndItsName) {
  for (const char* option : {"--defaults", "--restricted"}) {
    EXPECT_EQ(RunToEnd({option, "gone.ini"}), 78);
    EXPECT_EQ(_errors, "tavix-settings-server: Failed to open settings file 'gone.ini': No such file or directory\n");
  }
  std::filesystem::create_directory(_directory.Path("d"));
  std::filesystem::create_symlink("gone", _directory.Path("d/link.ini"));
  EXPECT_EQ(RunToEnd({"--defaults", "d"}), 78);
  EXPECT_EQ(_errors, "tavix-settings-server: Failed to open settings file 'd/link.ini': No such file or directory\n");
}

// A pipe would hold the start up for ever.
TEST_F(Check, WhatIsNoFileIsRefusedAndNotWaitedFor) {
  std::filesystem::create_directories(_directory.Path("d/sub.ini"));
  std::filesystem::create_directory(_directory.Path("p"));
  ASSERT_EQ(mkfifo(_directory.Path("pipe").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(_directory.Path("p/x.ini").c_str(), 0600), 0);
  const std::vector<std::pair<std::string, std::string>> cases{
      {"--defaults", "pipe"}, {"--restricted", "pipe"}, {"--defaults", "/dev/zero"}, {"--restricted", "/dev/zero"}};
  for (const auto& [option, path] : cases) {
    EXPECT_EQ(RunToEnd({option, path}), 78) << option;
    EXPECT_EQ(_errors, "tavix-settings-server: Failed to open settings file '" + path + "': not a regular file\n");
  }
  EXPECT_EQ(RunToEnd({"--defaults", "p"}), 78);
  EXPECT_EQ(_errors, "tavix-settings-server: Failed to open settings file 'p/x.ini': not a regular file\n");
  EXPECT_EQ(RunToEnd({"--defaults", "d"}), 78);
  EXPECT_EQ(_errors, "tavix-settings-server: Failed to open settings file 'd/sub.ini': not a regular file\n");
}

TEST_F(Check, BytesThatAreNoTextAreAnErrorThatCanBePrinted) {
  _directory.Write("d.ini", std::string("[A]\n\0\x1b[31m\n", 12));
  EXPECT_EQ(RunToEnd({"--defaults", "d.ini"}), 78);
  EXPECT_EQ(_errors,
            "tavix-settings-server: d.ini:2: expected \"[group]\" or \"key=value\", found \"\\x00\\x1b[31m\"\n");
}

}  // namespace tavix::test
