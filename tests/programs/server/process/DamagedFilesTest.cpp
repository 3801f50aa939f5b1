#include "tests/programs/server/process/DamagedFiles.h"

// The daemon starts all the same, with the backup.

namespace tavix::test {

namespace fs = std::filesystem;

using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;

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

// Where it leads is where the settings are: there is nothing yet.
TEST_F(DamagedFiles, LinkToNowhereIsAnEmptyLayer) {
  fs::remove(_directory.Path("user.ini"));
  fs::create_symlink("elsewhere.ini", _directory.Path("user.ini"));
  EXPECT_EQ(Serve(), "");
  EXPECT_EQ(_errors, "");
  EXPECT_THAT(FindBad(), IsEmpty());
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

// To ask for memory for it would end the start, and the backup is good.
TEST_F(DamagedFiles, SizeThatIsNoneDoesNotKeepTheDaemonFromStarting) {
  fs::resize_file(_directory.Path("user.ini"), uintmax_t{2} << 30);
  EXPECT_EQ(Serve(), kBackup);
  EXPECT_THAT(_errors, HasSubstr("'user.ini': it is too large: 2147483648 bytes; the backup 'user.ini.bak' is used\n"));
  EXPECT_EQ(FindBad().size(), 1u);
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

}  // namespace tavix::test
