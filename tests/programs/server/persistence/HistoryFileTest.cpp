#include "programs/server/persistence/HistoryFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

using daemon::HistoryFile;
using daemon::HistoryItem;
using daemon::HistoryItems;
using daemon::HistoryReader;
using daemon::SealEntry;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr size_t kMaxBytes = 16 * 1024;
constexpr char kFile[] = "user.ini.history";
constexpr char kOldFile[] = "user.ini.history.1";

HistoryItem ItemOf(uint64_t revision, size_t bytes = 10) {
  return {revision, {"7 merge tcp - - -\n#! [A]x\n", "#+ [A]x=" + std::string(bytes, 'x') + "\n"}};
}

HistoryItems ItemsOf(uint64_t first, uint64_t last, size_t bytes = 10) {
  HistoryItems items;
  for (uint64_t revision = first; revision <= last; ++revision)
    items.push_back(std::make_shared<const HistoryItem>(ItemOf(revision, bytes)));
  return items;
}

std::string TextOf(uint64_t revision) {
  return SealEntry(revision, ItemOf(revision).lines);
}

// The revisions and commands that stand in a file.
std::vector<std::string> Read(const std::string& bytes) {
  std::vector<std::string> entries;
  for (HistoryReader reader(bytes); reader.Next();) {
    const daemon::HistoryEntry entry = daemon::ReadEntries(reader.GetLines()).front();
    entries.push_back(std::to_string(entry.revision) + " " + entry.command);
  }
  return entries;
}

struct HistoryFiles : testing::Test {
  uint64_t Load(uint64_t journalBegin = 0) {
    problems.clear();
    return file.Load(journalBegin, problems);
  }

  MemoryFiles files;
  HistoryFile file{files, kUserFile, kMaxBytes};
  std::vector<std::string> problems;
};

}  // namespace

TEST_F(HistoryFiles, HaveTheLinesOfEachEntryAndItsChecksum) {
  file.Append(ItemsOf(1, 2));
  EXPECT_EQ(files.Get(kFile), TextOf(1) + TextOf(2));
  EXPECT_EQ(TextOf(1), "#@ 1 7 merge tcp - - -\n#! [A]x\n#+ [A]x=xxxxxxxxxx\n#. 5bb6ab4a\n");
}

TEST_F(HistoryFiles, GoOnBehindWhatIsThere) {
  files.Put(kFile, TextOf(4));
  EXPECT_EQ(Load(), 4u);
  file.Append(ItemsOf(5, 5));
  EXPECT_EQ(files.Get(kFile), TextOf(4) + TextOf(5));
  EXPECT_THAT(problems, IsEmpty());
}

TEST_F(HistoryFiles, CountAnEntryOnce) {
  files.Put(kFile, TextOf(4));
  Load();
  file.Append(ItemsOf(3, 5));
  EXPECT_EQ(files.Get(kFile), TextOf(4) + TextOf(5));
}

// Each of the bytes at which the power may go, with zeros behind it, and without.
TEST_F(HistoryFiles, DropATornEnd) {
  const std::string whole = TextOf(1) + TextOf(2);
  for (size_t bytes = TextOf(1).size() + 1; bytes + 12 < whole.size(); ++bytes) {
    for (const size_t zeros : {0, 5}) {
      files.Put(kFile, whole.substr(0, bytes) + std::string(zeros, '\0'));
      EXPECT_EQ(Load(), 1u);
      EXPECT_THAT(problems, IsEmpty()) << bytes;
      file.Append(ItemsOf(2, 2));
      EXPECT_EQ(files.Get(kFile), whole);
    }
  }
}

// While entries of the journal were appended the power went: the first is damaged, the second is there.
TEST_F(HistoryFiles, TakeWhatTheJournalHasOnceMore) {
  std::string second = TextOf(2);
  second[5] = '\0';
  files.Put(kFile, TextOf(1) + second + TextOf(3));
  EXPECT_EQ(Load(2), 1u);
  EXPECT_THAT(problems, IsEmpty());
  file.Append(ItemsOf(2, 4));
  EXPECT_THAT(Read(files.Get(kFile)), ElementsAre("1 merge", "2 merge", "3 merge", "4 merge"));
}

TEST_F(HistoryFiles, SkipADamagedEntryAndReportIt) {
  std::string second = TextOf(2);
  second[5] ^= 1;
  files.Put(kFile, TextOf(1) + second + TextOf(3));
  EXPECT_EQ(Load(), 3u);
  EXPECT_THAT(problems, ElementsAre("'user.ini.history' is damaged: 1 entries of the history can't be read, and are "
                                    "skipped"));
  EXPECT_THAT(Read(files.Get(kFile)), ElementsAre("1 merge", "3 merge"));
}

TEST_F(HistoryFiles, BecomeTheOldOneAtHalfOfTheBytes) {
  file.Append(ItemsOf(1, 10, 1000));
  EXPECT_LE(files.Get(kFile).size(), kMaxBytes / 2);
  EXPECT_LE(files.Get(kOldFile).size(), kMaxBytes / 2);
  EXPECT_THAT(Read(files.Get(kOldFile)),
              ElementsAre("1 merge", "2 merge", "3 merge", "4 merge", "5 merge", "6 merge", "7 merge"));
  EXPECT_THAT(Read(files.Get(kFile)), ElementsAre("8 merge", "9 merge", "10 merge"));
  EXPECT_EQ(Load(), 10u);
}

TEST_F(HistoryFiles, ThatCanNotBeWrittenHaveAGapAfterwards) {
  file.Append(ItemsOf(1, 1));
  files.FailAfter(0, true);
  EXPECT_THROW(file.Append(ItemsOf(2, 2)), osa::Exception);
  files.FailNoMore();
  file.Append(ItemsOf(3, 3));
  EXPECT_THAT(Read(files.Get(kFile)), ElementsAre("1 merge", "2 gap", "3 merge"));
  EXPECT_THAT(files.Get(kFile), HasSubstr(" gap daemon - - -\n#. "));
}

TEST_F(HistoryFiles, FailAtNoOperationInAWayThatLosesWhatIsThere) {
  for (size_t operations = 0; operations < 12; ++operations) {
    MemoryFiles failing;
    HistoryFile history(failing, kUserFile, kMaxBytes);
    history.Append(ItemsOf(1, 1, 7000));
    failing.FailAfter(operations, false);
    EXPECT_NO_THROW(try { history.Append(ItemsOf(2, 2, 7000)); } catch (const osa::Exception&){});
    failing.FailNoMore();
    history.Append(ItemsOf(3, 3, 10));
    const std::string all = failing.Get(kOldFile) + failing.Get(kFile);
    const std::vector<std::string> entries = Read(all);
    EXPECT_EQ(entries.front(), "1 merge") << operations;
    EXPECT_EQ(entries.back(), "3 merge") << operations;
    EXPECT_EQ(HistoryReader(all).Next(), true);
  }
}

TEST_F(HistoryFiles, LeaveWhatWasNeverAHistoryAsItIs) {
  files.Put(kFile, "no history at all");
  EXPECT_EQ(Load(), 0u);
  EXPECT_THROW(file.Append(ItemsOf(1, 1)), osa::Exception);
  EXPECT_EQ(files.Get(kFile), "no history at all");
}

TEST_F(HistoryFiles, ThatCanNotBeReadAreReportedAndBegunAnew) {
  files.Put(kFile, TextOf(1));
  files.FailReads(kFile, EIO, 1);
  EXPECT_EQ(Load(), 0u);
  EXPECT_THAT(problems, ElementsAre(StartsWith("The history in 'user.ini.history' can't be read: ")));
  file.Append(ItemsOf(1, 1));
  EXPECT_EQ(files.Get(kFile), TextOf(1));
}

TEST_F(HistoryFiles, AreReadHoweverTheyAreDamaged) {
  constexpr int kImages = 1000;
  std::mt19937 random(1);
  for (int image = 0; image < kImages; ++image) {
    std::string bytes;
    for (uint64_t revision = 2; revision <= 5; ++revision) bytes += TextOf(revision);
    for (size_t bits = 1 + random() % 8; bits > 0; --bits)
      bytes[random() % bytes.size()] = static_cast<char>(random() % 256);
    if (random() % 2 == 0) bytes.resize(random() % bytes.size());
    files.Put(kFile, TextOf(1) + bytes);
    EXPECT_LE(Load(), 5u);
    file.Append(ItemsOf(6, 6));
    EXPECT_EQ(Read(files.Get(kFile)).front(), "1 merge");
    EXPECT_EQ(Read(files.Get(kFile)).back(), "6 merge");
  }
}

}  // namespace tavix::test
