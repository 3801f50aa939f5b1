#include "programs/server/persistence/TrialFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

using daemon::SnapshotId;
using daemon::TrialFile;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kFile[] = "user.ini.trials";

struct FileOfTrials : testing::Test {
  // A snapshot takes its place, and the one before becomes the backup unless that fails.
  void Replace(uint64_t generation, const std::string& lines, bool isBackedUp = true) {
    file.Write(IdOf(generation), lines);
    if (isBackedUp) file.OnBackedUp();
    file.OnReplaced();
  }

  // The lines that a start finds with that snapshot.
  std::string LoadAgain(uint64_t generation) {
    problems.clear();
    return TrialFile(files, kUserFile).Load(IdOf(generation), problems);
  }

  static SnapshotId IdOf(uint64_t generation) { return {generation, 7}; }

  MemoryFiles files;
  TrialFile file{files, kUserFile};
  std::vector<std::string> problems;
};

}  // namespace

TEST_F(FileOfTrials, HasTheLinesOfTheSnapshotAndOfItsBackup) {
  for (uint64_t generation = 1; generation <= 4; ++generation)
    Replace(generation, "#t " + std::to_string(generation) + "\n");
  EXPECT_EQ(LoadAgain(4), "#t 4\n");
  EXPECT_EQ(LoadAgain(3), "#t 3\n");
  EXPECT_EQ(LoadAgain(5), "");
  Replace(5, "");
  Replace(6, "");
  EXPECT_EQ(LoadAgain(3), "");
  EXPECT_EQ(LoadAgain(4), "#t 4\n");  // it was the backup when that was written
  Replace(7, "");
  EXPECT_THAT(files.GetNames(), IsEmpty());
}

TEST_F(FileOfTrials, KeepsTheLinesOfABackupForAsLongAsItIsTheBackup) {
  Replace(1, "#t 1\n");
  Replace(2, "#t 2\n");
  for (uint64_t generation = 3; generation <= 6; ++generation)
    Replace(generation, "#t " + std::to_string(generation) + "\n", false);
  EXPECT_EQ(LoadAgain(1), "#t 1\n");
  EXPECT_EQ(LoadAgain(6), "#t 6\n");
  EXPECT_EQ(LoadAgain(4), "");
}

TEST_F(FileOfTrials, KeepsTheLinesOfTheBackupBehindAStart) {
  Replace(1, "#t 1\n");
  Replace(2, "#t 2\n");
  TrialFile next(files, kUserFile);
  EXPECT_EQ(next.Load(IdOf(2), problems), "#t 2\n");
  next.Write(IdOf(3), "#t 3\n");
  EXPECT_EQ(LoadAgain(1), "#t 1\n");
  EXPECT_EQ(LoadAgain(2), "#t 2\n");
  EXPECT_EQ(LoadAgain(3), "#t 3\n");
}

TEST_F(FileOfTrials, HasTheLinesOfOneSnapshotThoughThoseOfAnotherAreDamaged) {
  Replace(1, "#t 1\n#t- [A]x=1\n");
  Replace(2, "#t 2\n");
  const std::string whole = files.Get(kFile);
  for (size_t at = 0; at < whole.find("#t 2") - 57; ++at) {
    std::string damaged = whole;
    damaged[at] ^= 4;
    files.Put(kFile, damaged);
    EXPECT_EQ(LoadAgain(2), "#t 2\n") << at;
    EXPECT_EQ(LoadAgain(1), "") << at;
    EXPECT_THAT(problems, ElementsAre("'user.ini.trials' is damaged: what was on trial may not be known"));
  }
}

}  // namespace tavix::test
