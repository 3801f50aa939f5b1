#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/UserFiles.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/RunLength.h"

// User settings that something has damaged while the daemon was off.

namespace tavix::test {

inline constexpr char kDamaged[] = "ERROR UserSettings: User settings are damaged: 'user.ini': ";
inline constexpr long kReady = 1000;  // milliseconds

inline std::string Values(int first) {
  std::string text;
  for (int i = 0; i < 20; ++i) text += "key" + std::to_string(10 + i) + "=value " + std::to_string(first + i) + "\n";
  return text;
}

inline const std::string kBackup = "[A]\n" + Values(100) + "[B]\n" + Values(200);
inline const std::string kSaved = kBackup + "[C]\nlast=1\n";

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
    for (const auto& entry : std::filesystem::directory_iterator(_directory.GetPath()))
      std::filesystem::remove_all(entry.path());
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
    for (const auto& entry : std::filesystem::directory_iterator(_directory.GetPath())) {
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
    DaemonProcess check(ServerProgram(), _directory.GetPath(), {"--check", "--user-settings", "user.ini"});
    EXPECT_EQ(check.AwaitEnd(), 78);
    EXPECT_THAT(check.GetErrors(),
                testing::HasSubstr("tavix-settings-server: User settings are damaged: 'user.ini': " + damage));
    EXPECT_EQ(ListFiles(), before);
  }

  // Names, sizes and times.
  std::vector<std::string> ListFiles() const {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(_directory.GetPath())) {
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
    EXPECT_THAT(_errors, testing::HasSubstr(kDamaged));
    EXPECT_THAT(_errors, testing::HasSubstr("; the backup 'user.ini.bak' is used\n"));
    EXPECT_THAT(_errors, testing::HasSubstr("The damaged 'user.ini' is kept as 'user.ini.bad-"));
    const std::vector<std::string> bad = FindBad();
    ASSERT_EQ(bad.size(), 1u);
    EXPECT_EQ(_directory.Read(bad[0]), bytes);
    EXPECT_EQ(Serve(), kBackup);
    EXPECT_EQ(_errors, "");
  }

  const std::vector<std::string> kArguments{"--user-settings", "user.ini"};
  const TemporaryDirectory _directory;
  std::string _snapshot;
  std::string _errors;
};

inline std::string Flip(std::string text, size_t bit) {
  text[bit / 8] = static_cast<char>(text[bit / 8] ^ (1 << bit % 8));
  return text;
}

inline size_t Pick(size_t count, std::mt19937& random) {
  return std::uniform_int_distribution<size_t>(0, count - 1)(random);
}

}  // namespace tavix::test
