#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/UserFiles.h"

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

constexpr char kDefaults[] = "[A]\nx=1\ny=2\n[B]\nz=3\n";

class UserSettings : public testing::Test {
 protected:
  UserSettings() { _directory.Write("defaults.ini", kDefaults); }

  // The requests' whole answer, from a daemon of their own that is ended by the signal.
  std::string Session(const std::string& requests, int signal = SIGTERM) {
    Daemon daemon(_directory, {"--defaults", "defaults.ini", "--user-settings", "user.ini"});
    const std::string replies = Converse(daemon.GetPort(), requests);
    EXPECT_EQ(daemon.Stop(signal), signal == SIGKILL ? 128 + SIGKILL : 0);
    return replies;
  }

  const TemporaryDirectory _directory;
};

}  // namespace

TEST_F(UserSettings, SurviveAnyEndOfTheDaemon) {
  for (const int signal : {SIGTERM, SIGINT, SIGKILL}) {
    const std::string value = std::to_string(signal);
    Session("merge\n[A]\nx=" + value + "\n[New]\nk=" + value + "\n.\nget\nNew\n.\n", signal);
    EXPECT_EQ(Session("get\nA\nNew\n.\n"), "[A]\nx=" + value + "\ny=2\n[New]\nk=" + value + "\n");
  }
}

TEST_F(UserSettings, AreOneTextOfWhatClientsSet) {
  Session("merge\n[A]\nx=5\n.\nmerge nopersist\n[A]\ny=6\n.\n");
  EXPECT_EQ(ReadSnapshot(_directory), "[A]\nx=5\n");
}

TEST_F(UserSettings, DefaultsOfAnOverwrittenGroupDoNotComeBack) {
  Session("overwrite\nA\n.\n[A]\nz=1\n.\noverwrite\nB*\n.\n.\n");
  EXPECT_EQ(Session("get\n*\n.\n"), "[A]\nz=1\n");
}

TEST_F(UserSettings, MergeWithoutPersistenceIsGoneAfterARestart) {
  EXPECT_EQ(Session("merge nopersist\n[A]\nx=5\n.\nget\nA\n.\n"), "[A]\nx=5\ny=2\n");
  EXPECT_EQ(Session("get\nA\n.\n"), "[A]\nx=1\ny=2\n");
}

// Deliberate: a restore copies the defaults of its moment into the user layer.
TEST_F(UserSettings, RestoredGroupStaysAsItWasRestored) {
  Session("merge\n[A]\nx=5\n.\nrestore\nA\n.\n");
  EXPECT_EQ(ReadSnapshot(_directory), "[A]\nx=1\ny=2\n");
  _directory.Write("defaults.ini", "[A]\nx=100\nnew=3\n");
  EXPECT_EQ(Session("get\nA\n.\n"), "[A]\nnew=3\nx=1\ny=2\n");
}

TEST_F(UserSettings, RestoreReadsTheDefaultsAnew) {
  Daemon daemon(_directory, {"--defaults", "defaults.ini"});
  ProtocolClient client(daemon.GetPort());
  _directory.Write("defaults.ini", "[A]\nx=100\n");
  client.Send("restore\nA\n.\n");
  EXPECT_EQ(client.Get("A\n"), "data\n[A]\nx=100\ny=2\n.\n");
}

TEST_F(UserSettings, RestoreFromDefaultsThatCanNotBeReadEndsTheConnectionAndChangesNothing) {
  Daemon daemon(_directory, {"--defaults", "defaults.ini"});
  Converse(daemon.GetPort(), "merge\n[A]\nx=5\n.\n");
  _directory.Write("defaults.ini", "nonsense\n");
  EXPECT_EQ(Converse(daemon.GetPort(), "restore\nA\n.\nget\nA\n.\n"), "");
  daemon.AwaitErrors("connection ended: defaults.ini:1: expected \"[group]\" or \"key=value\", found \"nonsense\"\n");
  EXPECT_EQ(Converse(daemon.GetPort(), "get\nA\n.\n"), "[A]\nx=5\ny=2\n");
}

TEST_F(UserSettings, EveryByteSurvives) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  const std::string token = "s:256:\"" + bytes + "\";";
  const std::string document = "a:1:{s:1:\"A\";a:1:{" + token + token + "}}";
  Session("serialize phparray\noverwrite\nA\n.\n" + document + "\n.\n");
  EXPECT_EQ(Session("serialize phparray\nget\nA\n.\n"), document + "\n\n");
}

TEST_F(UserSettings, AreOnTheDiskBeforeAChangeIsAnnounced) {
  Daemon daemon(_directory, {"--user-settings", "user.ini"});
  ProtocolClient client(daemon.GetPort());
  client.Send("subscribe\nA\n.\n");
  for (const char* value : {"1", "2", "3"}) {
    client.Send(std::string("merge\n[A]\nx=") + value + "\n.\n");
    client.ReadUntil("x=" + std::string(value) + "\n.\n");
    EXPECT_EQ(FindSavedText(_directory), "[A]\nx=" + std::string(value) + "\n");
  }
}

TEST_F(UserSettings, AbsentFileIsAnEmptyLayerAndIsMadeByTheFirstChange) {
  EXPECT_EQ(Session("merge nopersist\n[A]\nx=5\n.\ndump\n"), ".\n");
  EXPECT_FALSE(_directory.Has("user.ini"));
  Session("merge\n[A]\nx=5\n.\n");
  EXPECT_TRUE(_directory.Has("user.ini"));
}

TEST_F(UserSettings, FileIsForItsOwnerOnlyAndNothingIsLeftBesideIt) {
  _directory.Write("user.ini", "");
  ASSERT_EQ(chmod(_directory.Path("user.ini").c_str(), 0666), 0);
  Session("merge\n[A]\nx=5\n.\n");
  struct stat status {};
  ASSERT_EQ(stat(_directory.Path("user.ini").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_FALSE(_directory.Has("user.ini.new"));
}

TEST_F(UserSettings, FileThatIsALinkStaysALink) {
  fs::create_directory(_directory.Path("data"));
  for (const char* target : {"data/user.ini", "/data/absolute.ini"}) {
    const std::string to = *target == '/' ? _directory.GetPath() + target : target;
    for (const char* about : {"the target does not exist yet", "the target exists"}) {
      fs::remove(_directory.Path("user.ini"));
      fs::create_symlink(to, _directory.Path("user.ini"));
      Session("merge\n[A]\nx=5\n.\n");
      EXPECT_EQ(fs::read_symlink(_directory.Path("user.ini")), to) << about;
      EXPECT_EQ(ReadSnapshot(_directory), "[A]\nx=5\n") << about;
    }
  }
}

TEST_F(UserSettings, LinkThatPointsToALinkStaysALink) {
  fs::create_directory(_directory.Path("data"));
  fs::create_symlink("data/second.ini", _directory.Path("user.ini"));
  fs::create_symlink("third.ini", _directory.Path("data/second.ini"));
  Session("merge\n[A]\nx=5\n.\n");
  EXPECT_EQ(fs::read_symlink(_directory.Path("user.ini")), "data/second.ini");
  EXPECT_EQ(fs::read_symlink(_directory.Path("data/second.ini")), "third.ini");
  EXPECT_EQ(ReadSnapshot(_directory, "data/third.ini"), "[A]\nx=5\n");
}

TEST_F(UserSettings, RestrictedGroupsOfTheFileDoNotCountAndAreDroppedByTheNextSave) {
  _directory.Write("user.ini", "[A]\nx=5\n[Secure/Keys]\nk=1\n");
  EXPECT_EQ(Session("get\nSecure/*\n.\nmerge\n[A]\ny=6\n.\n"), "");
  EXPECT_EQ(ReadSnapshot(_directory), "[A]\nx=5\ny=6\n");
}

TEST_F(UserSettings, FileThatAPersonWroteIsRead) {
  _directory.Write("user.ini", "\xEF\xBB\xBF# mine\r\n\r\n[A]\r\n  x = 5 \r\n; more\r\n[B]\r\n[A]\r\ny=6");
  EXPECT_EQ(Session("get\nA\n.\n"), "[A]\nx=5\ny=6\n");
}

TEST_F(UserSettings, WithoutAFileNothingIsPersisted) {
  Daemon daemon(_directory, {});
  Converse(daemon.GetPort(), "merge\n[A]\nx=5\n.\n");
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(daemon.GetErrors(), "");
}

}  // namespace tavix::test
