#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/programs/server/Daemon.h"

namespace tavix::test {

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr char kDevice[] = TAVIX_SOURCE_DIR "/examples/device/";

// What a daemon with these arguments answers to the requests.
std::string Ask(const TemporaryDirectory& directory, const std::vector<std::string>& arguments,
                const std::string& requests) {
  Daemon daemon(directory, arguments);
  return Converse(daemon.GetPort(), requests);
}

}  // namespace

class DeviceExample : public testing::Test {
 protected:
  std::string Ask(const std::string& requests) {
    return test::Ask(_directory,
                     {"--defaults", kDevice + std::string("defaults.d"), "--restricted",
                      kDevice + std::string("restricted.d"), "--user-settings", "user.ini"},
                     requests);
  }

  const TemporaryDirectory _directory;
};

TEST_F(DeviceExample, LoadPrioritiesDecideAsItsTableSays) {
  EXPECT_THAT(Ask("get\nDevice/Identity\n.\n"),
              testing::AllOf(HasSubstr("\nname=Kamera Südtor\n"), HasSubstr("\nmodel=NC-240 Gateway\n")));
  EXPECT_THAT(Ask("get\nNetwork/Ntp\n.\n"), HasSubstr("\nserver1=ntp.site.example\n"));
  EXPECT_THAT(Ask("get\nVideo/Osd\n.\n"), HasSubstr("\nposition=bottom-right\n"));
  EXPECT_THAT(Ask("get\nNetwork/Firewall\n.\n"), HasSubstr("\nenabled=true\n"));
  EXPECT_THAT(Ask("get\nEvents/Tamper\n.\n"), HasSubstr("\nenabled=true\n"));
}

TEST_F(DeviceExample, RestrictedGroupsComeFromTheRestrictedFilesOnly) {
  const std::string before = Ask("get\nSecure/*\nTrusted/*\n.\n");
  EXPECT_THAT(before,
              testing::AllOf(HasSubstr("[Secure/Users/admin]\nmust_change=true\n"), HasSubstr("[Trusted/Hosts]\n")));
  EXPECT_THAT(before, Not(HasSubstr("[Secure/Users/installer]")));
  Ask("merge\n[Secure/Users/installer]\nrole=administrator\n.\noverwrite\nSecure/*\n.\n[Secure/Tls]\nkey=mine\n.\n");
  EXPECT_EQ(Ask("get\nSecure/*\nTrusted/*\n.\n"), before);
}

TEST_F(DeviceExample, RestoreDoesNotBringRestrictedDefaultsBack) {
  const std::string before = Ask("get\nSecure/*\n.\n");
  EXPECT_EQ(Ask("restore\nSecure/*\n.\nget\nSecure/*\n.\n"), before);
}

// Deliberate: the highest priority of a group is remembered, so a file that was outbid at the start counts no more.
TEST_F(DeviceExample, RestoreTakesAGroupFromTheFileWithTheHighestPriorityAlone) {
  const std::string restored = Ask("restore\nNetwork/Ntp\n.\nget\nNetwork/Ntp\n.\n");
  EXPECT_THAT(restored, HasSubstr("\nserver1=ntp.site.example\n"));
  EXPECT_EQ(Ask("dump\n"), restored + ".\n");
}

TEST_F(DeviceExample, PrioritiesAreNeverServed) {
  EXPECT_EQ(Ask("get\nTavixSettings/*\n.\n"), "");
}

TEST(Layers, FilesOfADirectoryAreReadInLexicalOrderOfTheirNames) {
  const TemporaryDirectory directory;
  std::filesystem::create_directory(directory.Path("d"));
  for (const char* name : {"9", "10", "a", "B", "10-x", "\xC3\xA4"})
    directory.Write(std::string("d/") + name + ".ini", "[A]\nlast=" + std::string(name) + "\n");
  EXPECT_EQ(Ask(directory, {"--defaults", "d"}, "get\nA\n.\n"), "[A]\nlast=\xC3\xA4\n");
  std::filesystem::remove(directory.Path("d/\xC3\xA4.ini"));
  EXPECT_EQ(Ask(directory, {"--defaults", "d"}, "get\nA\n.\n"), "[A]\nlast=a\n");
  std::filesystem::remove(directory.Path("d/a.ini"));
  EXPECT_EQ(Ask(directory, {"--defaults", "d"}, "get\nA\n.\n"), "[A]\nlast=B\n");
  std::filesystem::remove(directory.Path("d/B.ini"));
  EXPECT_EQ(Ask(directory, {"--defaults", "d"}, "get\nA\n.\n"), "[A]\nlast=9\n");
}

TEST(Layers, OnlyIniFilesOfADirectoryCount) {
  const TemporaryDirectory directory;
  std::filesystem::create_directory(directory.Path("d"));
  for (const char* name : {"x.ini~", "x.ini.new", "x.INI", "x", ".ini", "README.md"})
    directory.Write(std::string("d/") + name, "no settings text");
  directory.Write("d/x.ini", "[A]\nx=1\n");
  EXPECT_EQ(Ask(directory, {"--defaults", "d"}, "get\n*\n.\n"), "[A]\nx=1\n");
}

TEST(Layers, SourcesAreReadInTheOrderOfTheCommandLineAndLaterOnesWinKeyByKey) {
  const TemporaryDirectory directory;
  std::filesystem::create_directory(directory.Path("b"));
  directory.Write("a.ini", "[A]\nx=a\ny=a\nz=a\n");
  directory.Write("b/1.ini", "[A]\nx=b\ny=b\n");
  directory.Write("c.ini", "[A]\nx=c\n");
  EXPECT_EQ(Ask(directory, {"--defaults", "a.ini", "--defaults", "b", "--defaults", "c.ini"}, "get\nA\n.\n"),
            "[A]\nx=c\ny=b\nz=a\n");
  EXPECT_EQ(Ask(directory, {"--defaults", "c.ini", "--defaults", "b", "--defaults", "a.ini"}, "get\nA\n.\n"),
            "[A]\nx=a\ny=a\nz=a\n");
}

TEST(Layers, RestrictedSourcesWinOverAllOthers) {
  const TemporaryDirectory directory;
  directory.Write("d.ini", "[A]\nx=default\n[Secure/K]\nk=default\n");
  directory.Write("u.ini", "[A]\nx=user\n[Secure/K]\nk=user\n");
  directory.Write("r.ini", "[A]\nx=restricted\n[Secure/K]\nk=restricted\n");
  EXPECT_EQ(Ask(directory, {"--defaults", "d.ini", "--user-settings", "u.ini", "--restricted", "r.ini"}, "get\n*\n.\n"),
            "[A]\nx=restricted\n[Secure/K]\nk=restricted\n");
}

}  // namespace tavix::test
