#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/programs/server/Daemon.h"

// Drop-ins of three directories, as an image, a run and an administrator would fill them.

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;

// "layer": defaults or restricted, with the group names that fit.
class DropIns : public testing::TestWithParam<std::string> {
 protected:
  DropIns() {
    for (const char* directory : {"usr", "run", "etc"}) fs::create_directory(_directory.Path(directory));
  }

  std::vector<std::string> Arguments() const {
    const std::string option = "--" + GetParam() + "-dir";
    return {option, "usr", option, "run", option, "etc"};
  }

  // A group of a name that the layer takes.
  std::string Group(const std::string& name) const { return (GetParam() == "restricted" ? "Secure/" : "") + name; }

  void Write(const std::string& file, const std::string& value) const {
    _directory.Write(file, "[" + Group("G") + "]\nx=" + value + "\n" + value + "=1\n");
  }

  std::string Check() const {
    std::vector<std::string> arguments = Arguments();
    arguments.emplace_back("--check");
    DaemonProcess daemon(ServerProgram(), _directory.GetPath(), arguments);
    EXPECT_EQ(daemon.AwaitEnd(), 0) << daemon.GetErrors();
    return WithoutBounds(daemon.GetOutput());
  }

  // What readers see of the group.
  std::string Read() const {
    Daemon daemon(_directory, Arguments());
    return Converse(daemon.GetPort(), "get\n" + Group("G") + "\n.\n");
  }

  // What --check says of a file.
  std::string Line(const std::string& file, const std::string& outcome) const {
    return GetParam() + ": " + file + ": " + outcome + "\n";
  }

  const TemporaryDirectory _directory;
};

INSTANTIATE_TEST_SUITE_P(OfBothLayers, DropIns, testing::Values("defaults", "restricted"),
                         [](const auto& test) { return test.param; });

}  // namespace

TEST_P(DropIns, AreMergedInTheOrderOfTheirNamesWhateverTheirDirectory) {
  Write("etc/10-a.ini", "a");
  Write("usr/30-c.ini", "c");
  Write("run/20-b.ini", "b");
  EXPECT_EQ(Check(), Line("etc/10-a.ini", "1 group") + Line("run/20-b.ini", "1 group") +
                         Line("usr/30-c.ini", "1 group") + "ok: 1 group\n");
  EXPECT_EQ(Read(), "[" + Group("G") + "]\na=1\nb=1\nc=1\nx=c\n");
}

TEST_P(DropIns, OfEqualNamesOnlyTheOneInTheLastDirectoryCounts) {
  Write("usr/10-a.ini", "usr");
  Write("run/10-a.ini", "run");
  Write("usr/20-b.ini", "below");
  Write("etc/20-b.ini", "etc");
  EXPECT_EQ(Check(), Line("usr/10-a.ini", "overridden by run/10-a.ini, nothing loaded") +
                         Line("run/10-a.ini", "1 group") +
                         Line("usr/20-b.ini", "overridden by etc/20-b.ini, nothing loaded") +
                         Line("etc/20-b.ini", "1 group") + "ok: 1 group\n");
  EXPECT_EQ(Read(), "[" + Group("G") + "]\netc=1\nrun=1\nx=etc\n");
}

TEST_P(DropIns, EmptyFileOrLinkToTheNullDeviceSwitchesANameOff) {
  Write("usr/10-a.ini", "a");
  Write("run/10-a.ini", "a");
  Write("usr/20-b.ini", "b");
  Write("usr/30-c.ini", "c");
  _directory.Write("etc/10-a.ini", "");
  fs::create_symlink("/dev/null", _directory.Path("run/20-b.ini"));
  EXPECT_EQ(Check(), Line("usr/10-a.ini", "overridden by etc/10-a.ini, nothing loaded") +
                         Line("run/10-a.ini", "overridden by etc/10-a.ini, nothing loaded") +
                         Line("etc/10-a.ini", "switched off, nothing loaded") +
                         Line("usr/20-b.ini", "overridden by run/20-b.ini, nothing loaded") +
                         Line("run/20-b.ini", "switched off, nothing loaded") + Line("usr/30-c.ini", "1 group") +
                         "ok: 1 group\n");
  EXPECT_EQ(Read(), "[" + Group("G") + "]\nc=1\nx=c\n");
}

TEST_P(DropIns, SwitchedOffNameCountsAgainWhereAStrongerDirectoryHasIt) {
  Write("usr/10-a.ini", "usr");
  _directory.Write("run/10-a.ini", "");
  Write("etc/10-a.ini", "etc");
  EXPECT_EQ(Read(), "[" + Group("G") + "]\netc=1\nx=etc\n");
}

TEST_P(DropIns, OverriddenFileIsNotEvenRead) {
  _directory.Write("usr/10-a.ini", "nonsense\n");
  Write("etc/10-a.ini", "etc");
  EXPECT_EQ(Read(), "[" + Group("G") + "]\netc=1\nx=etc\n");
}

TEST_P(DropIns, OnlyIniFilesCountAndAMissingDirectoryIsFine) {
  Write("usr/10-a.ini", "a");
  Write("usr/README", "r");
  Write("usr/20-b.ini.bak", "b");
  fs::remove_all(_directory.Path("run"));
  fs::remove_all(_directory.Path("etc"));
  EXPECT_EQ(Check(), Line("usr/10-a.ini", "1 group") + "ok: 1 group\n");
}

TEST_P(DropIns, DirectoryThatCanNotBeReadIsAnErrorThatNamesIt) {
  _directory.Write("file", "");
  DaemonProcess daemon(ServerProgram(), _directory.GetPath(), {"--check", "--" + GetParam() + "-dir", "file/d"});
  EXPECT_EQ(daemon.AwaitEnd(), 78);
  EXPECT_THAT(daemon.GetErrors(), HasSubstr("Failed to read directory 'file/d': Not a directory\n"));
}

TEST_P(DropIns, BrokenFileIsNamedWithItsLine) {
  _directory.Write("etc/10-a.ini", "[A]\nnonsense\n");
  std::vector<std::string> arguments = Arguments();
  arguments.emplace_back("--check");
  DaemonProcess daemon(ServerProgram(), _directory.GetPath(), arguments);
  EXPECT_EQ(daemon.AwaitEnd(), 78);
  EXPECT_THAT(daemon.GetErrors(), HasSubstr("etc/10-a.ini:2: expected"));
}

TEST_P(DropIns, ComeAfterThePathsThatAreGiven) {
  Write("given.ini", "given");
  Write("usr/10-a.ini", "dropped");
  std::vector<std::string> arguments = Arguments();
  arguments.insert(arguments.end(), {"--" + GetParam(), "given.ini"});
  Daemon daemon(_directory, arguments);
  EXPECT_EQ(Converse(daemon.GetPort(), "get\n" + Group("G") + "\n.\n"),
            "[" + Group("G") + "]\ndropped=1\ngiven=1\nx=dropped\n");
}

TEST(DropInsOfDefaults, AreListedAnewAtARestore) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Path("etc"));
  Daemon daemon(directory, {"--defaults-dir", "etc"});
  ProtocolClient client(daemon.GetPort());
  EXPECT_EQ(client.Get("A\n"), "data\n.\n");
  directory.Write("etc/10-a.ini", "[A]\nx=1\n");
  client.Send("restore\nA\n.\n");
  EXPECT_EQ(client.Get("A\n"), "data\n[A]\nx=1\n.\n");
}

}  // namespace tavix::test
