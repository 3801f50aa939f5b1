#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "tavix/osa/Descriptor.h"
#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/UserFiles.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/FileFaults.h"

// A slip in an option harms nothing.

namespace tavix::test {

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::Not;

namespace {

class FilePlaces : public testing::Test {
 protected:
  // The daemon and --check end with that status and sentence, and leave everything as it was.
  void ExpectRefused(const std::vector<std::string>& arguments, const std::string& sentence, int status = 78) const {
    const std::vector<std::string> before = ListFiles();
    std::vector<std::string> check = arguments;
    check.emplace_back("--check");
    for (const auto& all : {arguments, check}) {
      Daemon daemon(_directory, all);
      EXPECT_EQ(daemon.AwaitEnd(), status);
      EXPECT_EQ(daemon.GetErrors(), "tavix-settings-server: " + sentence + "\n");
      EXPECT_EQ(ListFiles(), before);
    }
  }

  // Names, kinds and identities.
  std::vector<std::string> ListFiles() const {
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(_directory.GetPath())) {
      struct stat status {};
      EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
      files.push_back(entry.path().string() + " " + std::to_string(status.st_mode) + " " +
                      std::to_string(status.st_ino) + " " + std::to_string(status.st_mtim.tv_nsec));
    }
    std::sort(files.begin(), files.end());
    return files;
  }

  const TemporaryDirectory _directory;
};

std::string NotUsed(const std::string& kind) {
  return "Failed to use --user-settings 'user.ini': it is a " + kind + ", not a regular file";
}

}  // namespace

TEST_F(FilePlaces, DirectoryInPlaceOfTheUserSettingsIsRefused) {
  fs::create_directory(_directory.Path("user.ini"));
  _directory.Write("user.ini/kept", "x");
  ExpectRefused({"--user-settings", "user.ini"}, NotUsed("directory"));
}

TEST_F(FilePlaces, PipeInPlaceOfTheUserSettingsIsRefusedAndNotWaitedFor) {
  ASSERT_EQ(mkfifo(_directory.Path("user.ini").c_str(), 0600), 0);
  ExpectRefused({"--user-settings", "user.ini"}, NotUsed("pipe"));
}

TEST_F(FilePlaces, SocketInPlaceOfTheUserSettingsIsRefused) {
  const osa::Descriptor unbound(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = _directory.Path("user.ini");
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(unbound.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ExpectRefused({"--user-settings", "user.ini"}, NotUsed("socket"));
}

TEST_F(FilePlaces, DeviceInPlaceOfTheUserSettingsIsRefused) {
  ExpectRefused({"--user-settings", "/dev/null"},
                "Failed to use --user-settings '/dev/null': it is a device, not a regular file");
}

TEST_F(FilePlaces, LinkToADirectoryIsRefused) {
  fs::create_directory(_directory.Path("elsewhere"));
  fs::create_symlink("elsewhere", _directory.Path("user.ini"));
  ExpectRefused(
      {"--user-settings", "user.ini"},
      "Failed to use --user-settings 'user.ini', a link to 'elsewhere': it is a directory, not a regular file");
}

TEST_F(FilePlaces, LinkToItselfIsRefused) {
  fs::create_symlink("user.ini", _directory.Path("user.ini"));
  ExpectRefused({"--user-settings", "user.ini"},
                "Failed to read --user-settings 'user.ini': Too many levels of symbolic links");
}

TEST_F(FilePlaces, FileThatWasNeverOursIsRefused) {
  _directory.Write("user.ini", "root:x:0:0\n");
  ExpectRefused({"--user-settings", "user.ini"},
                "Failed to use --user-settings 'user.ini': it is not a file of user settings (user.ini:1: expected "
                "\"[group]\" or \"key=value\", found \"root:x:0:0\"), and it is left as it is");
}

TEST_F(FilePlaces, LargeFileThatWasNeverOursIsRefused) {
  _directory.Write("user.ini", "an image");
  fs::resize_file(_directory.Path("user.ini"), uintmax_t{2} << 30);
  ExpectRefused({"--user-settings", "user.ini"},
                "Failed to use --user-settings 'user.ini': it is not a file of user settings (it is too large: "
                "2147483648 bytes), and it is left as it is");
}

TEST_F(FilePlaces, DirectoryThatIsMissingIsWarnedOfAtTheStart) {
  Daemon daemon(_directory, {"--user-settings", "gone/user.ini"});
  daemon.AwaitErrors(
      "WARNING Program: --user-settings 'gone/user.ini': directory 'gone': No such file or directory; changes will not "
      "be kept\n");
  ProtocolClient(daemon.GetPort()).AwaitHandled();
}

TEST_F(FilePlaces, MetricsInPlaceOfSomethingElseThanAFileAreRefused) {
  ASSERT_EQ(mkfifo(_directory.Path("m").c_str(), 0600), 0);
  ExpectRefused({"--metrics-file", "m"}, "Failed to use --metrics-file 'm': it is not a regular file");
}

TEST_F(FilePlaces, MetricsThatSomebodyReplacedAreNotRemovedAtTheEnd) {
  Daemon daemon(_directory, {"--metrics-file", "m", "--metrics-interval", "1000"});  // written once
  daemon.AwaitAddresses();
  EXPECT_TRUE(Eventually([&] { return _directory.Has("m"); }));
  _directory.Write("other", "not ours");
  fs::rename(_directory.Path("other"), _directory.Path("m"));
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(_directory.Read("m"), "not ours");
}

TEST_F(FilePlaces, RestrictedFilesWithGroupsThatClientsCanChangeAreWarnedOfAtTheStart) {
  _directory.Write("r.ini", "[Secure/A]\n[A]\n");
  Daemon daemon(_directory, {"--restricted", "r.ini"});
  daemon.AwaitErrors(
      "WARNING SettingsSources: 'r.ini': clients can change, until the next start, groups whose names are not "
      "restricted: [A]\n");
}

TEST_F(FilePlaces, GroupsThatNoListOfNamesCanHoldAreLeftOutOfTheDefaults) {
  _directory.Write("d.ini", "[.]\ny=1\n[B]\nz=1\n");
  Daemon daemon(_directory, {"--defaults", "d.ini"});
  EXPECT_EQ(Converse(daemon.GetPort(), "restore\nB\n.\nget\n*\n.\n"), "[B]\nz=1\n");
  daemon.AwaitErrors("WARNING SettingsSources: d.ini:1: group [.] is left out: no list of names can hold its name\n");
  EXPECT_EQ(CountOf("is left out", daemon.GetErrors()), 1u);
}

}  // namespace tavix::test
