#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <thread>

#include "tests/programs/cli/process/LocalFileTest.h"

namespace tavix::test {

namespace {

class LocalFile : public LocalFileTest {};

constexpr char kCommented[] =
    "# What this is.\n"
    "[Network]\n"
    "  name = camera\n"
    "# The address.\n"
    "address=10.0.0.2\n"
    "\n"
    "; Another.\n"
    "[Audio]\n"
    "volume=5\n";

}  // namespace

TEST_F(LocalFile, IsReadLikeAStore) {
  Write(kCommented);
  ExpectRun({"get", "[Network]name"}, 0, "camera\n", "");
  ExpectRun({"list"}, 0, "Audio    1\nNetwork  2\n", "");
  ExpectRun({"search", "10.0"}, 0, "[Network]address=10.0.0.2\n", "");
  EXPECT_THAT(Run({"status"}).output,
              testing::MatchesRegex("server         file 'x.ini'\nlatency        [0-9]+\\.[0-9]{3} ms\n"
                                    "groups         2\nsettings       3\nsize           [0-9]+ bytes\n"
                                    "command        [0-9.]+\n"));
}

TEST_F(LocalFile, ThatIsMissingCanBeWrittenAndNotRead) {
  ExpectRun({"get", "A"}, 3, "", "tavix-settings: there is no file 'x.ini'\nhint: 'set' and 'import' make it\n");
  ExpectRun({"set", "[A]b=c"}, 0, "", "done: 1 setting\n");
  EXPECT_EQ(Read(), "[A]\nb=c\n");
}

TEST_F(LocalFile, KeepsItsCommentsAndItsOrder) {
  Write(kCommented);
  ExpectRun({"set", "[Network]name=gate", "[Network]mtu=9000", "[Audio]volume=5", "[New]a=1"}, 0, "",
            "done: 4 settings\n");
  EXPECT_EQ(Read(),
            "# What this is.\n[Network]\nname=gate\n# The address.\naddress=10.0.0.2\nmtu=9000\n\n; Another.\n[Audio]\n"
            "volume=5\n\n[New]\na=1\n");
  ExpectRun({"unset", "[Network]address"}, 0, "", "done: 1 setting unset\n");
  ExpectRun({"delete", "Audio"}, 0, "", "done: 1 group deleted\n");
  EXPECT_EQ(Read(), "# What this is.\n[Network]\nname=gate\n# The address.\nmtu=9000\n\n; Another.\n\n[New]\na=1\n");
}

TEST_F(LocalFile, WriteThatChangesNothingLeavesTheFileAlone) {
  Write(kCommented);
  struct stat before {};
  ASSERT_EQ(stat(_directory.Path("x.ini").c_str(), &before), 0);
  ExpectRun({"set", "[Audio]volume=5"}, 0, "", "done: 1 setting\n");
  struct stat after {};
  ASSERT_EQ(stat(_directory.Path("x.ini").c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(LocalFile, KeepsItsPermissionsAndStaysBehindALink) {
  Write("[A]\nb=c\n");
  ASSERT_EQ(chmod(_directory.Path("x.ini").c_str(), 0640), 0);
  std::filesystem::rename(_directory.Path("x.ini"), _directory.Path("real.ini"));
  std::filesystem::create_symlink("real.ini", _directory.Path("x.ini"));
  ExpectRun({"set", "[A]b=d"}, 0, "", "done: 1 setting\n");
  EXPECT_EQ(_directory.Read("real.ini"), "[A]\nb=d\n");
  EXPECT_TRUE(std::filesystem::is_symlink(_directory.Path("x.ini")));
  struct stat status {};
  ASSERT_EQ(stat(_directory.Path("real.ini").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(_directory.GetPath()), {}), 2);
}

TEST_F(LocalFile, HasNoRestrictedGroups) {
  Write("[Secure/A]\nx=1\n");
  ExpectRun({"set", "[Secure/A]x=2"}, 0, "", "done: 1 setting\n");
  ExpectRun({"export"}, 0, "# This backup covers all groups\n[Secure/A]\nx=2\n# End of backup\n", "");
}

TEST_F(LocalFile, ConditionIsTestedUnderALock) {
  Write("[A]\nn=0\n");
  std::vector<std::thread> threads;
  std::atomic<int> done{0};
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      done += Run({"set", "--if", "[A]n=0", "[A]n=" + std::to_string(i + 1)}).status == 0 ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(done, 1);
}

TEST_F(LocalFile, ThatDoesNotParseIsExitStatus6AndStays) {
  Write("[A]\nnonsense\n");
  for (const Words& words : std::vector<Words>{{"list"}, {"set", "[A]b=c"}, {"delete", "A"}}) {
    ExpectRun(words, 6, "", "tavix-settings: x.ini:2: expected \"[group]\" or \"key=value\", found \"nonsense\"\n");
  }
  EXPECT_EQ(Read(), "[A]\nnonsense\n");
}

TEST_F(LocalFile, ThatCanNotBeWrittenIsExitStatus7AndStays) {
  ExpectRun({"--local", "gone/x.ini", "set", "[A]b=c"}, 2, "", Run({"--local", "gone/x.ini", "set", "[A]b=c"}).errors);
  const Outcome outcome = RunToEnd(_directory.GetPath(), {TAVIX_CLI_PROGRAM, "--local", "gone/x.ini", "set", "[A]b=c"});
  EXPECT_EQ(outcome.status, 7);
  EXPECT_EQ(outcome.errors, "tavix-settings: failed to make a file beside 'gone/x.ini': No such file or directory\n");
}

TEST_F(LocalFile, ResetTakesGroupsOutSoThatDefaultsCount) {
  Write(kCommented);
  ExpectRun({"reset", "Audio"}, 0, "-[Audio]\n-[Audio]volume=5\n", "done: 1 group at its defaults\n");
  ExpectRun({"list"}, 0, "Network  2\n", "");
}

TEST_F(LocalFile, ImportsExportsAndCompares) {
  EXPECT_EQ(Run({"import"}, "[B]\nc=1\n[A]\nx=\n").errors, "done: 2 differences\n");
  ExpectRun({"export"}, 0, "# This backup covers all groups\n[A]\nx=\n[B]\nc=1\n# End of backup\n", "");
  EXPECT_EQ(Run({"diff", "-"}, "[A]\nx=\n[B]\nc=2\n").output, "-[B]c=1\n+[B]c=2\n");
  EXPECT_EQ(Run({"import", "--replace", "--dry-run"}, Run({"export", "--json"}).output).errors, "no differences\n");
}

TEST_F(LocalFile, SomeThingsNeedADaemon) {
  Write("[A]\nx=1\n");
  ExpectRun({"subscribers"}, 2, "", "tavix-settings: a file has no subscribers: leave --local out\n");
  ExpectRun({"set", "--volatile", "[A]x=1"}, 2, "",
            "tavix-settings: --volatile makes no sense with --local: a file is all there is\n");
}

TEST_F(LocalFile, IsWatched) {
  Write("[A]\nx=1\n[B]\ny=1\n");
  CommandProcess watch(_directory.GetPath(), WithFile({"watch", "--initial", "A", "--count", "2"}));
  watch.AwaitOutput("x=1\n");
  Run({"set", "[B]y=2", "[A]x=2"});
  watch.AwaitOutput("-> 2\n");
  Run({"delete", "A"});
  watch.AwaitEnd();
  EXPECT_EQ(watch.GetOutput(), "[A]x=1\n[A]x: 1 -> 2\n[A]: group removed\n");
}

TEST_F(LocalFile, IsWaitedFor) {
  Write("[A]\nx=1\n");
  CommandProcess wait(_directory.GetPath(), WithFile({"wait", "[A]x=2"}));
  Run({"set", "[A]x=2"});
  EXPECT_EQ(wait.AwaitEnd(), 0);
}

TEST_F(LocalFile, HoldsResources) {
  Write("[Resources/R]\nTotalAvailable=10\n");
  ExpectRun({"resource", "reserve", "R", "50%", "-c", "Me"}, 0, "", "done: Me has 5 of R\n");
  EXPECT_EQ(Read(), "[Resources/R]\nTotalAvailable=10\n\n[Resources/R/Consumers/Me]\nCurrentlyUsed=5\n");
}

}  // namespace tavix::test
