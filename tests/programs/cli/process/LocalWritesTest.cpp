#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "tavix/osa/Descriptor.h"
#include "tests/programs/cli/process/LocalFileTest.h"
#include "tests/programs/server/Daemon.h"

namespace tavix::test {

namespace {

using testing::HasSubstr;

class LocalWrites : public LocalFileTest {
 protected:
  // Keeps the directory locked, as another command does.
  osa::Descriptor Lock() const {
    osa::Descriptor directory(open(_directory.GetPath().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(flock(directory.Get(), LOCK_EX), 0);
    return directory;
  }

  // As many commands at once as there are.
  void RunAtOnce(const std::vector<Words>& commands, const std::string& input = {}) const {
    std::vector<std::thread> threads;
    for (const Words& words : commands) {
      threads.emplace_back([&, words] {
        Words patient{"--timeout", "60"};
        patient.insert(patient.end(), words.begin(), words.end());
        const Outcome outcome = Run(patient, input);
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  void ExpectRefused(const std::string& why) const {
    const Outcome outcome = Run({"set", "[A]b=1"});
    EXPECT_EQ(outcome.status, 7);
    EXPECT_THAT(outcome.errors, HasSubstr(why));
  }
};

}  // namespace

TEST_F(LocalWrites, UnsetsAtOnceAllCount) {
  std::string text = "[A]\nkept=1\n";
  std::vector<Words> commands;
  for (int i = 0; i < 12; ++i) {
    text += "k" + std::to_string(i) + "=1\n";
    commands.push_back({"unset", "[A]k" + std::to_string(i)});
  }
  Write(text);
  RunAtOnce(commands);
  EXPECT_EQ(Read(), "[A]\nkept=1\n");
}

TEST_F(LocalWrites, ImportsAtOnceAllCount) {
  Write("[A]\n");
  std::vector<Words> commands;
  for (int i = 0; i < 8; ++i) {
    const std::string name = "G" + std::to_string(i);
    _directory.Write(name + ".ini", "[" + name + "]\na=1\n");
    commands.push_back({"import", name + ".ini", name, "--replace"});
    commands.push_back({"set", "[A]" + name + "=1"});
  }
  RunAtOnce(commands);
  EXPECT_THAT(Run({"list"}).output, testing::StartsWith("A   8\nG0  1\n"));
  EXPECT_THAT(Run({"list"}).output, testing::EndsWith("G7  1\n"));
}

TEST_F(LocalWrites, EditMeetsAChangeThatCameMeanwhile) {
  Write("[A]\nx=1\ny=1\n");
  const std::string editor = _directory.Write(
      "editor", "#!/bin/sh\n'" TAVIX_CLI_PROGRAM "' -q --local x.ini set '[A]z=1' && sed -i /y=1/d \"$1\"\n");
  chmod(editor.c_str(), 0700);
  const Outcome outcome = Run({"edit", "A"}, {}, {{"EDITOR", editor}, {"TMPDIR", _directory.GetPath()}});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_EQ(Read(), "[A]\nx=1\ny=1\nz=1\n");
}

TEST_F(LocalWrites, EditMakesAFile) {
  const std::string editor = _directory.Write("editor", "#!/bin/sh\necho a=1 >>\"$1\"\n");
  chmod(editor.c_str(), 0700);
  const Outcome outcome = Run({"edit", "New"}, {}, {{"EDITOR", editor}, {"TMPDIR", _directory.GetPath()}});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(Read(), "[New]\na=1\n");
}

TEST_F(LocalWrites, WaitNoLongerThanTheTimeoutForAnother) {
  Write("[A]\nb=1\n");
  const osa::Descriptor locked = Lock();
  ExpectRun({"--timeout", "0.05", "set", "[A]b=2"}, 3, "",
            "tavix-settings: the directory of 'x.ini' is kept locked by another command\n"
            "hint: --timeout says how long to wait for it\n");
  ExpectRun({"--timeout", "0.05", "get", "[A]b"}, 0, "1\n", "");
}

TEST_F(LocalWrites, BehindALinkThatLeadsNowhereMakeTheFileThere) {
  std::filesystem::create_directory(_directory.Path("data"));
  std::filesystem::create_symlink("data/real.ini", _directory.Path("x.ini"));
  ExpectRun({"set", "[A]b=1"}, 0, "", "done: 1 setting\n");
  EXPECT_EQ(_directory.Read("data/real.ini"), "[A]\nb=1\n");
  EXPECT_TRUE(std::filesystem::is_symlink(_directory.Path("x.ini")));
}

TEST_F(LocalWrites, ReplaceNothingButPlainFiles) {
  ASSERT_EQ(mkfifo(_directory.Path("x.ini").c_str(), 0600), 0);
  ExpectRefused("'x.ini' is no plain file, and nothing else is replaced\n");
  EXPECT_TRUE(std::filesystem::is_fifo(_directory.Path("x.ini")));
  std::filesystem::remove(_directory.Path("x.ini"));
  std::filesystem::create_symlink("/dev/null", _directory.Path("x.ini"));
  ExpectRefused("'x.ini' is no plain file, and nothing else is replaced\n");
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

TEST_F(LocalWrites, RefuseTheUserSettingsOfADaemonThatRuns) {
  Write("[A]\nb=2\n");
  const Daemon daemon(_directory, {"--user-settings", "x.ini"});
  daemon.AwaitAddresses();  // it serves
  ExpectRefused("'x.ini' belongs to a daemon, which would undo the change\n");
  ExpectRun({"get", "[A]b"}, 0, "2\n", "");
}

TEST_F(LocalWrites, RefuseTheUserSettingsOfADaemonThatCameToThemByOtherLinks) {
  std::filesystem::create_directory(_directory.Path("data"));
  std::filesystem::create_symlink("data", _directory.Path("link"));
  std::filesystem::create_symlink("link/theirs.ini", _directory.Path("x.ini"));
  std::filesystem::create_symlink("../data/real.ini", _directory.Path("data/theirs.ini"));
  const Daemon daemon(_directory, {"--user-settings", "link/theirs.ini"});
  daemon.AwaitAddresses();  // it serves
  ExpectRefused("'x.ini' belongs to a daemon, which would undo the change\n");
}

TEST_F(LocalWrites, FollowNoCircle) {
  std::filesystem::create_symlink("x.ini", _directory.Path("x.ini"));
  ExpectRefused("failed to follow 'x.ini': Too many levels of symbolic links\n");
}

TEST_F(LocalWrites, RefuseTheUserSettingsOfADaemonThatWasKilled) {
  Write("[A]\nb=2\n");
  _directory.Write("x.ini.lock", "1\n");
  ExpectRun({"set", "[A]b=3"}, 0, "", "done: 1 setting\n");
  _directory.Write("x.ini.journal", "changes");
  ExpectRefused("one that was killed has to be started once more before\n");
  EXPECT_EQ(Read(), "[A]\nb=3\n");
}

TEST_F(LocalWrites, SetIfUnsetWhatTheFileLacks) {
  Write("# mine\n[A]\nb=1\n");
  ExpectRun({"set", "--if-unset", "[A]b=2", "[A]c=2"}, 4, "",
            "tavix-settings: condition failed: [A]b is set, to '1'\n");
  EXPECT_EQ(Read(), "# mine\n[A]\nb=1\n");
  ExpectRun({"set", "--if-unset", "[A]c=2", "--if", "[A]b=1"}, 0, "", "done: 1 setting\n");
  EXPECT_EQ(Read(), "# mine\n[A]\nb=1\nc=2\n");
  ExpectRun({"set", "--if-unset", "--dry-run", "[A]c=3"}, 4, "",
            "tavix-settings: condition failed: [A]c is set, to '2'\n");
}

TEST_F(LocalWrites, CleanGroupsAsTheyResetThem) {
  Write("[A]\nb=1\n# between\n[B]\nc=1\n");
  ExpectRun({"reset", "--clean", "B"}, 0, "-[B]\n-[B]c=1\n", "done: 1 group at its defaults\n");
  EXPECT_EQ(Read(), "[A]\nb=1\n# between\n");
  ExpectRun({"reset", "--clean", "B"}, 1, "", "tavix-settings: no group matches, and no default does\n");
}

TEST_F(LocalWrites, HaveNobodyToNoteThemAndNoClients) {
  Write("[A]\nb=1\n");
  ExpectRun({"set", "-m", "site 4", "[A]b=2"}, 2, "", "tavix-settings: a file takes no notes: leave --local out\n");
  ExpectRun({"whoami"}, 2, "", "tavix-settings: a file has no clients: leave --local out\n");
  EXPECT_EQ(Read(), "[A]\nb=1\n");
}

TEST_F(LocalWrites, KeepTheEndsOfLines) {
  Write("[A]\r\nb=1\r\nc=1\r\n");
  ExpectRun({"set", "[A]b=2", "[A]d=1", "[N]x=1"}, 0, "", "done: 3 settings\n");
  EXPECT_EQ(Read(), "[A]\r\nb=2\r\nc=1\r\nd=1\r\n\r\n[N]\r\nx=1\r\n");
}

class LocalWatch : public LocalFileTest {
 protected:
  LocalWatch() { std::filesystem::create_directory(_directory.Path("d")); }

  void WriteThere(const std::string& text) const { _directory.Write("d/y.ini", text); }

  Words Watch(Words words) const {
    words.insert(words.begin(), {TAVIX_CLI_PROGRAM, "--local", "d/y.ini", "watch", "--initial"});
    return words;
  }
};

TEST_F(LocalWatch, FindsItsDirectoryAgain) {
  WriteThere("[A]\nb=1\n");
  CommandProcess watch(_directory.GetPath(), Watch({"--count", "1", "[A]b"}));
  watch.AwaitOutput("b=1\n");
  std::filesystem::rename(_directory.Path("d"), _directory.Path("d.old"));
  watch.AwaitErrors("trying again\n");
  std::filesystem::create_directory(_directory.Path("new"));
  _directory.Write("new/y.ini", "[A]\nb=2\n");
  std::filesystem::rename(_directory.Path("new"), _directory.Path("d"));
  EXPECT_EQ(watch.AwaitEnd(), 0);
  EXPECT_EQ(watch.GetOutput(), "[A]b=1\n[A]b: 1 -> 2\n");
  EXPECT_EQ(watch.GetErrors(),
            "the directory of 'd/y.ini' was moved or removed; trying again\nconnected again to file 'd/y.ini'\n");
}

TEST_F(LocalWatch, OutlivesATextThatIsHalfWritten) {
  WriteThere("[A]\nb=1\n");
  CommandProcess watch(_directory.GetPath(), Watch({"--count", "1", "A"}));
  watch.AwaitOutput("b=1\n");
  WriteThere("[A");
  watch.AwaitErrors("waiting for the next change\n");
  WriteThere("[A]\nb=9\n");
  EXPECT_EQ(watch.AwaitEnd(), 0);
  EXPECT_EQ(watch.GetOutput(), "[A]b=1\n[A]b: 1 -> 9\n");
}

}  // namespace tavix::test
