#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <filesystem>
#include <optional>
#include <random>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/UserFiles.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/RunLength.h"

// User settings that something has damaged while the daemon was off: it starts all the same, with the backup.

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kDamaged[] = "ERROR UserSettings: User settings are damaged: 'user.ini': ";
constexpr long kReady = 1000;  // milliseconds

std::string Values(int first) {
  std::string text;
  for (int i = 0; i < 20; ++i) text += "key" + std::to_string(10 + i) + "=value " + std::to_string(first + i) + "\n";
  return text;
}

const std::string kBackup = "[A]\n" + Values(100) + "[B]\n" + Values(200);
const std::string kSaved = kBackup + "[C]\nlast=1\n";

// A daemon's files in a directory: a snapshot, and the one before as its backup.
class DamagedFiles : public testing::Test {
 protected:
  DamagedFiles() {
    Save(kBackup);
    Save("[C]\nlast=1\n");
    _snapshot = _directory.Read("user.ini");
    EXPECT_EQ(WithoutComments(_snapshot), kSaved);
    EXPECT_EQ(ReadSnapshot(_directory, "user.ini.bak"), kBackup);
  }

  void Save(const std::string& settings) const {
    Daemon daemon(_directory, kArguments);
    Converse(daemon.GetPort(), "merge\n" + settings + ".\n");
    EXPECT_EQ(daemon.Stop(), 0);
    EXPECT_EQ(daemon.GetErrors(), "");
  }

  // As before the damage: the snapshot with its time, the backup, and nothing else.
  void Repair() {
    const std::string backup = _directory.Read("user.ini.bak");
    for (const auto& entry : fs::directory_iterator(_directory.GetPath())) fs::remove_all(entry.path());
    _directory.Write("user.ini.bak", backup);
    WriteAsSaved(_snapshot);
  }

  // With the modification time that the snapshot names: nobody has edited it.
  void WriteAsSaved(const std::string& text) const {
    _directory.Write("user.ini", text);
    const std::string name = ", written ";
    const size_t at = _snapshot.rfind(name) + name.size();
    const int64_t written = std::stoll(_snapshot.substr(at));
    timespec times[2] = {{0, UTIME_OMIT}, {}};
    times[1].tv_sec = written / 1'000'000'000;
    times[1].tv_nsec = written % 1'000'000'000;
    ASSERT_EQ(utimensat(AT_FDCWD, _directory.Path("user.ini").c_str(), times, 0), 0);
  }

  // What was put aside, by name.
  std::vector<std::string> FindBad() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(_directory.GetPath())) {
      const std::string name = entry.path().filename();
      if (name.find(".bad-") != std::string::npos) names.push_back(name);
    }
    return names;
  }

  // What the daemon serves, and says, when it starts over the files as they are.
  std::string Serve() {
    std::optional<Daemon> daemon;
    unsigned short port = 0;
    const long took = MillisecondsOf([&] {
      daemon.emplace(_directory, kArguments);
      port = daemon->GetPort();
    });
    EXPECT_LT(took, IsLongRun() ? kReady : LONG_MAX);
    const std::string served = Converse(port, "get\n*\n.\n");
    EXPECT_EQ(daemon->Stop(), 0);
    _errors = daemon->GetErrors();
    return served;
  }

  // That --check says so, and touches nothing.
  void ExpectCheckFinds(const std::string& damage) {
    const std::vector<std::string> before = ListFiles();
    DaemonProcess check(TAVIX_SERVER_PROGRAM, _directory.GetPath(), {"--check", "--user-settings", "user.ini"});
    EXPECT_EQ(check.AwaitEnd(), 78);
    EXPECT_THAT(check.GetErrors(),
                HasSubstr("tavix-settings-server: User settings are damaged: 'user.ini': " + damage));
    EXPECT_EQ(ListFiles(), before);
  }

  // Names, sizes and times.
  std::vector<std::string> ListFiles() const {
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(_directory.GetPath())) {
      struct stat status {};
      EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
      files.push_back(entry.path().string() + " " + std::to_string(status.st_size) + " " +
                      std::to_string(status.st_mtim.tv_nsec) + " " + std::to_string(status.st_ino));
    }
    std::sort(files.begin(), files.end());
    return files;
  }

  // The backup is served, one error says why, the damaged file is kept byte for byte, and what is left is whole.
  void ExpectTheBackup(const std::string& bytes) {
    ExpectCheckFinds("");
    EXPECT_EQ(Serve(), kBackup);
    EXPECT_EQ(CountOf(" ERROR ", " " + _errors), 1u) << _errors;
    EXPECT_THAT(_errors, HasSubstr(kDamaged));
    EXPECT_THAT(_errors, HasSubstr("; the backup 'user.ini.bak' is used\n"));
    EXPECT_THAT(_errors, HasSubstr("The damaged 'user.ini' is kept as 'user.ini.bad-"));
    const std::vector<std::string> bad = FindBad();
    ASSERT_EQ(bad.size(), 1u);
    EXPECT_EQ(_directory.Read(bad[0]), bytes);
    EXPECT_EQ(Serve(), kBackup);
    EXPECT_EQ(_errors, "");
  }

  // The same for something that is no file.
  void ExpectTheBackupInsteadOf(const std::string& damage) {
    ExpectCheckFinds(damage);
    EXPECT_EQ(Serve(), kBackup);
    EXPECT_THAT(_errors, HasSubstr(kDamaged + damage + "; the backup 'user.ini.bak' is used\n"));
    EXPECT_THAT(_errors, HasSubstr("The damaged 'user.ini' is kept as 'user.ini.bad-"));
    EXPECT_EQ(FindBad().size(), 1u);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(_directory.Path("user.ini"))));
  }

  const std::vector<std::string> kArguments{"--user-settings", "user.ini"};
  const TemporaryDirectory _directory;
  std::string _snapshot;
  std::string _errors;
};

std::string Flip(std::string text, size_t bit) {
  text[bit / 8] = static_cast<char>(text[bit / 8] ^ (1 << bit % 8));
  return text;
}

size_t Pick(size_t count, std::mt19937& random) {
  return std::uniform_int_distribution<size_t>(0, count - 1)(random);
}

}  // namespace

TEST_F(DamagedFiles, BitThatFlippedOnTheDisk) {
  std::mt19937 random(1);
  for (int i = 0; i < (IsLongRun() ? 400 : 30) && !HasFailure(); ++i) {
    const size_t bit = Pick(8 * _snapshot.rfind('#'), random);
    SCOPED_TRACE("bit " + std::to_string(bit));
    const std::string damaged = Flip(_snapshot, bit);
    Repair();
    WriteAsSaved(damaged);
    ExpectTheBackup(damaged);
  }
}

// The settings themselves are whole; a flipped time looks like an edit.
TEST_F(DamagedFiles, BitThatFlippedInTheLastLineLosesAtMostTheLastSnapshot) {
  std::mt19937 random(8);
  for (int i = 0; i < (IsLongRun() ? 200 : 10) && !HasFailure(); ++i) {
    const size_t begin = 8 * _snapshot.rfind('#');
    const size_t bit = begin + Pick(8 * _snapshot.size() - begin, random);
    SCOPED_TRACE("bit " + std::to_string(bit));
    Repair();
    WriteAsSaved(Flip(_snapshot, bit));
    EXPECT_THAT(Serve(), AnyOf(kSaved, kBackup));
  }
}

// With a new time it looks as if somebody had edited it; then it counts if it can be read.
TEST_F(DamagedFiles, BitThatFlippedAndChangedTheTimeIsAnEditOrADamage) {
  std::mt19937 random(2);
  for (int i = 0; i < (IsLongRun() ? 200 : 20) && !HasFailure(); ++i) {
    const size_t bit = Pick(8 * _snapshot.size(), random);
    SCOPED_TRACE("bit " + std::to_string(bit));
    const std::string damaged = Flip(_snapshot, bit);
    Repair();
    _directory.Write("user.ini", damaged);
    const bool isRead = FindSaved(_directory.Path("user.ini")).problems.empty();
    const std::string served = Serve();
    EXPECT_EQ(served == kBackup, !isRead) << served;
    EXPECT_EQ(FindBad().size(), isRead ? 0u : 1u);
    EXPECT_EQ(CountOf(" ERROR ", " " + _errors), isRead ? 0u : 1u) << _errors;
  }
}

TEST_F(DamagedFiles, FileThatEndsTooEarly) {
  std::mt19937 random(3);
  const size_t checksum = _snapshot.rfind(' ');
  std::vector<size_t> sizes{0, 1, _snapshot.find('\n') + 1, _snapshot.rfind('#'), checksum};
  while (sizes.size() < (IsLongRun() ? 200u : 20u)) sizes.push_back(Pick(checksum, random));
  for (const size_t size : sizes) {
    SCOPED_TRACE("size " + std::to_string(size));
    Repair();
    _directory.Write("user.ini", _snapshot.substr(0, size));
    ExpectTheBackup(_snapshot.substr(0, size));
    if (HasFailure()) return;
  }
}

TEST_F(DamagedFiles, FileThatLacksTheEndOfItsChecksumHasLostNothing) {
  for (size_t size = _snapshot.rfind(' ') + 2; size < _snapshot.size(); ++size) {
    Repair();
    _directory.Write("user.ini", _snapshot.substr(0, size));
    EXPECT_EQ(Serve(), kSaved) << size;
    EXPECT_THAT(FindBad(), IsEmpty());
  }
}

TEST_F(DamagedFiles, PartThatIsZeros) {
  std::mt19937 random(4);
  for (int i = 0; i < (IsLongRun() ? 200 : 20) && !HasFailure(); ++i) {
    const size_t begin = i == 0 ? 0 : Pick(_snapshot.size(), random);
    const size_t count = i == 0 ? _snapshot.size() : 1 + Pick(_snapshot.size() - begin, random);
    SCOPED_TRACE(std::to_string(count) + " zeros at " + std::to_string(begin));
    std::string damaged = _snapshot;
    damaged.replace(begin, count, std::string(count, '\0'));
    Repair();
    _directory.Write("user.ini", damaged);
    ExpectTheBackup(damaged);
  }
}

TEST_F(DamagedFiles, BytesThatAreNoText) {
  std::mt19937 random(5);
  std::string bytes(5000, '\0');
  for (char& byte : bytes) byte = static_cast<char>(Pick(256, random));
  _directory.Write("user.ini", bytes);
  ExpectTheBackup(bytes);
}

TEST_F(DamagedFiles, DirectoryInsteadOfTheFile) {
  fs::remove(_directory.Path("user.ini"));
  fs::create_directory(_directory.Path("user.ini"));
  _directory.Write("user.ini/kept", "x");
  ExpectTheBackupInsteadOf("not a regular file");
  EXPECT_EQ(_directory.Read(FindBad().at(0) + "/kept"), "x");
}

TEST_F(DamagedFiles, PipeInsteadOfTheFile) {
  fs::remove(_directory.Path("user.ini"));
  ASSERT_EQ(mkfifo(_directory.Path("user.ini").c_str(), 0600), 0);
  ExpectTheBackupInsteadOf("not a regular file");
}

TEST_F(DamagedFiles, LinkToItself) {
  fs::remove(_directory.Path("user.ini"));
  fs::create_symlink("user.ini", _directory.Path("user.ini"));
  ExpectTheBackupInsteadOf("Too many levels of symbolic links");
}

// Where it leads is where the settings are: there is nothing yet.
TEST_F(DamagedFiles, LinkToNowhereIsAnEmptyLayer) {
  fs::remove(_directory.Path("user.ini"));
  fs::create_symlink("elsewhere.ini", _directory.Path("user.ini"));
  EXPECT_EQ(Serve(), "");
  EXPECT_EQ(_errors, "");
  EXPECT_THAT(FindBad(), IsEmpty());
}

TEST_F(DamagedFiles, LinkToADirectoryPutsTheDirectoryAsideAndStaysALink) {
  fs::remove(_directory.Path("user.ini"));
  fs::create_directory(_directory.Path("elsewhere"));
  fs::create_symlink("elsewhere", _directory.Path("user.ini"));
  EXPECT_EQ(Serve(), "");
  EXPECT_THAT(_errors, HasSubstr("elsewhere': not a regular file; there is no backup of use, they begin empty\n"));
  EXPECT_THAT(_errors, HasSubstr("elsewhere' is kept as '"));
  EXPECT_TRUE(fs::is_directory(_directory.Path(FindBad().at(0))));
  EXPECT_TRUE(fs::is_symlink(_directory.Path("user.ini")));
}

TEST_F(DamagedFiles, WithoutABackupTheLayerBeginsEmptyAndIsSavedFromThenOn) {
  for (const char* about : {"no backup", "a damaged one"}) {
    SCOPED_TRACE(about);
    Repair();
    _directory.Write("user.ini", _snapshot.substr(0, 100));
    if (std::string(about) == "no backup") {
      fs::remove(_directory.Path("user.ini.bak"));
    } else {
      _directory.Write("user.ini.bak", _snapshot.substr(0, 90));
    }
    EXPECT_EQ(Serve(), "");
    EXPECT_THAT(_errors, HasSubstr("there is no backup of use, they begin empty\n"));
    EXPECT_THAT(_errors, HasSubstr("The damaged 'user.ini' is kept as 'user.ini.bad-"));
    EXPECT_EQ(FindBad().size(), 1u);
    Save("[D]\nx=1\n");
    EXPECT_EQ(Serve(), "[D]\nx=1\n");
  }
}

TEST_F(DamagedFiles, FileThatAPersonEditedIsUsedAndTheLogSaysSo) {
  _directory.Write("user.ini", _snapshot.substr(0, _snapshot.find("[B]")) + "[B]\nmine=1\n" +
                                   _snapshot.substr(_snapshot.rfind("# End")));
  EXPECT_EQ(Serve(), "[A]\n" + Values(100) + "[B]\nmine=1\n");
  EXPECT_THAT(_errors, HasSubstr("WARNING UserSettings: 'user.ini' was edited by hand since it was saved; it is used"));
  EXPECT_THAT(FindBad(), IsEmpty());
}

TEST_F(DamagedFiles, FileThatSomebodyElseWroteIsUsed) {
  _directory.Write("user.ini", "[B]\nmine=1\n");
  EXPECT_EQ(Serve(), "[B]\nmine=1\n");
  EXPECT_EQ(_errors, "");
  Save("[C]\nlast=2\n");
  EXPECT_EQ(Serve(), "[B]\nmine=1\n[C]\nlast=2\n");
  EXPECT_EQ(ReadSnapshot(_directory, "user.ini.bak"), "[B]\nmine=1\n");
}

// A journal of a daemon that was killed, cut or flipped anywhere: what counts is what came before.
class DamagedJournal : public DamagedFiles {
 protected:
  DamagedJournal() {
    Daemon daemon(_directory, kArguments);
    ProtocolClient client(daemon.GetPort());
    for (int i = 1; i <= kChanges; ++i) {
      client.Send("merge\n" + Change(i) + ".\n");
      client.AwaitHandled();
    }
    EXPECT_EQ(daemon.Stop(SIGKILL), 128 + SIGKILL);
    _journal = _directory.Read("user.ini.journal");
    _journal.erase(_journal.find_last_not_of('\0') + 1);
  }

  static std::string Change(int number) { return "[J]\nn=" + std::to_string(number) + "\n"; }

  // Whether it is the state after some change, or after none.
  static bool IsAState(const std::string& served) {
    for (int i = 1; i <= kChanges; ++i) {
      if (served == kSaved + Change(i)) return true;
    }
    return served == kSaved;
  }

  void ExpectAState(const std::string& journal) {
    fs::remove(_directory.Path("user.ini.lock"));
    WriteAsSaved(_snapshot);
    _directory.Write("user.ini.journal", journal);
    const std::string served = Serve();
    EXPECT_TRUE(IsAState(served)) << served;
    EXPECT_EQ(Serve(), served);
    EXPECT_EQ(_errors, "");
  }

  static constexpr int kChanges = 5;
  std::string _journal;
};

TEST_F(DamagedJournal, TornAnywhereLosesNothingBeforeThat) {
  std::mt19937 random(6);
  for (int i = 0; i < (IsLongRun() ? 100 : 15) && !HasFailure(); ++i) {
    const size_t size = Pick(_journal.size() + 1, random);
    SCOPED_TRACE("size " + std::to_string(size));
    ExpectAState(_journal.substr(0, size));
  }
}

TEST_F(DamagedJournal, FlippedAnywhereLosesNothingBeforeThat) {
  std::mt19937 random(7);
  for (int i = 0; i < (IsLongRun() ? 100 : 15) && !HasFailure(); ++i) {
    const size_t bit = Pick(8 * _journal.size(), random);
    SCOPED_TRACE("bit " + std::to_string(bit));
    ExpectAState(Flip(_journal, bit));
  }
}

TEST_F(DamagedJournal, WhatIsNoJournalIsPutAside) {
  fs::remove(_directory.Path("user.ini.lock"));
  _directory.Write("user.ini.journal", "something else\n");
  EXPECT_EQ(Serve(), kSaved);
  EXPECT_THAT(_errors,
              HasSubstr("ERROR UserSettings: The changes in 'user.ini.journal' belong to no user settings that "
                        "are there; it is kept as 'user.ini.journal.bad-"));
  ASSERT_EQ(FindBad().size(), 1u);
  EXPECT_EQ(_directory.Read(FindBad()[0]), "something else\n");
}

TEST_F(DamagedJournal, ThatIsADirectoryIsPutAside) {
  fs::remove(_directory.Path("user.ini.lock"));
  fs::remove(_directory.Path("user.ini.journal"));
  fs::create_directory(_directory.Path("user.ini.journal"));
  EXPECT_EQ(Serve(), kSaved);
  EXPECT_THAT(_errors, HasSubstr("; it is kept as 'user.ini.journal.bad-"));
  Save("[C]\nlast=2\n");
  EXPECT_THAT(Serve(), HasSubstr("[C]\nlast=2\n"));
}

}  // namespace tavix::test
