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
  void Append(const HistoryItems& items) { file.Append(items, problems); }

  // Reading it fails, however often it is tried at once.
  void FailReads(const char* path, int error) { files.FailReads(path, error, 4); }

  MemoryFiles files;
  HistoryFile file{files, kUserFile, kMaxBytes};
  std::vector<std::string> problems;
};

}  // namespace

TEST_F(HistoryFiles, HaveTheLinesOfEachEntryAndItsChecksum) {
  Append(ItemsOf(1, 2));
  EXPECT_EQ(files.Get(kFile), TextOf(1) + TextOf(2));
  EXPECT_EQ(TextOf(1), "#@ 1 7 merge tcp - - -\n#! [A]x\n#+ [A]x=xxxxxxxxxx\n#. 5bb6ab4a\n");
}

TEST_F(HistoryFiles, GoOnBehindWhatIsThere) {
  files.Put(kFile, TextOf(4));
  EXPECT_EQ(Load(), 4u);
  Append(ItemsOf(5, 5));
  EXPECT_EQ(files.Get(kFile), TextOf(4) + TextOf(5));
  EXPECT_THAT(problems, IsEmpty());
}

TEST_F(HistoryFiles, CountAnEntryOnce) {
  files.Put(kFile, TextOf(4));
  Load();
  Append(ItemsOf(3, 5));
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
      Append(ItemsOf(2, 2));
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
  Append(ItemsOf(2, 4));
  EXPECT_THAT(Read(files.Get(kFile)), ElementsAre("1 merge", "2 merge", "3 merge", "4 merge"));
}

// The journal that has them is still there, though some have become the old ones since, or are gone.
TEST_F(HistoryFiles, DoNotTakeOnceMoreWhatBecameTheOldOnes) {
  for (const uint64_t journalBegin : {1, 20, 27}) {
    Append(ItemsOf(1, 30, 1000));
    const std::string bytes = files.Get(kFile);
    const std::string old = files.Get(kOldFile);
    ASSERT_FALSE(old.empty());
    EXPECT_EQ(Load(journalBegin), 30u);
    EXPECT_TRUE(file.Has(journalBegin));
    Append(ItemsOf(journalBegin, 30, 1000));
    EXPECT_EQ(files.Get(kFile), bytes);
    EXPECT_EQ(files.Get(kOldFile), old);
  }
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
  Append(ItemsOf(1, 10, 1000));
  EXPECT_LE(files.Get(kFile).size(), kMaxBytes / 2);
  EXPECT_LE(files.Get(kOldFile).size(), kMaxBytes / 2);
  EXPECT_THAT(Read(files.Get(kOldFile)),
              ElementsAre("1 merge", "2 merge", "3 merge", "4 merge", "5 merge", "6 merge", "7 merge"));
  EXPECT_THAT(Read(files.Get(kFile)), ElementsAre("8 merge", "9 merge", "10 merge"));
  EXPECT_EQ(Load(), 10u);
}

TEST_F(HistoryFiles, ThatCanNotBeWrittenHaveAGapAfterwards) {
  Append(ItemsOf(1, 1));
  files.FailAfter(0, true);
  EXPECT_THROW(Append(ItemsOf(2, 2)), osa::Exception);
  files.FailNoMore();
  Append(ItemsOf(3, 3));
  EXPECT_THAT(Read(files.Get(kFile)), ElementsAre("1 merge", "2 gap", "3 merge"));
  EXPECT_THAT(files.Get(kFile), HasSubstr(" gap daemon - - -\n#. "));
}

TEST_F(HistoryFiles, FailAtNoOperationInAWayThatLosesWhatIsThere) {
  for (size_t operations = 0; operations < 12; ++operations) {
    MemoryFiles failing;
    HistoryFile history(failing, kUserFile, kMaxBytes);
    history.Append(ItemsOf(1, 1, 7000), problems);
    failing.FailAfter(operations, false);
    EXPECT_NO_THROW(try { history.Append(ItemsOf(2, 2, 7000), problems); } catch (const osa::Exception&){});
    failing.FailNoMore();
    history.Append(ItemsOf(3, 3, 10), problems);
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
  EXPECT_THROW(Append(ItemsOf(1, 1)), osa::Exception);
  EXPECT_EQ(files.Get(kFile), "no history at all");
}

TEST_F(HistoryFiles, ThatTheDiskCanNotReadArePutAside) {
  for (const char* path : {kFile, kOldFile}) {
    files.Put(path, TextOf(1));
    FailReads(path, EIO);
    EXPECT_EQ(Load(), 0u);
    ASSERT_THAT(problems, ElementsAre(StartsWith("The history in '" + std::string(path) + "' can't be read: ")));
    const std::string problem = problems[0];
    const size_t name = problem.find("kept as '") + 9;
    EXPECT_EQ(files.Get(problem.substr(name, problem.size() - name - 1)), TextOf(1));
    EXPECT_EQ(files.Get(path), "");
  }
  Append(ItemsOf(1, 1));
  EXPECT_EQ(files.Get(kFile), TextOf(1));
}

TEST_F(HistoryFiles, StayAsTheyAreWhileNothingIsLeftToReadThemWith) {
  for (const int error : {EMFILE, ENFILE, ENOMEM, EACCES}) {
    files.Put(kFile, TextOf(1));
    FailReads(kFile, error);
    EXPECT_EQ(Load(), 0u);
    EXPECT_THAT(problems, ElementsAre(StartsWith("The history can't be used: Failed to read 'user.ini.history': ")));
    Append(ItemsOf(2, 2));
    EXPECT_EQ(files.Get(kFile), TextOf(1) + TextOf(2));
  }
}

TEST_F(HistoryFiles, StayAsTheyAreWhenTheyCanNotBeReadBehindAFailure) {
  Append(ItemsOf(1, 1));
  files.FailAfter(0, true);
  EXPECT_THROW(Append(ItemsOf(2, 2)), osa::Exception);
  files.FailNoMore();
  FailReads(kFile, EMFILE);
  EXPECT_THROW(Append(ItemsOf(2, 2)), osa::Exception);
  EXPECT_EQ(files.Get(kFile).find(TextOf(1)), 0u);
  Append(ItemsOf(2, 2));
  EXPECT_EQ(files.Get(kFile), TextOf(1) + TextOf(2));
}

TEST_F(HistoryFiles, OfOthersNeverGiveWayToOurs) {
  files.Put(kOldFile, "no history at all");
  Append(ItemsOf(1, 1, 7000));
  EXPECT_THROW(Append(ItemsOf(2, 2, 7000)), osa::Exception);
  EXPECT_FALSE(file.RemoveOld());
  EXPECT_EQ(files.Get(kOldFile), "no history at all");
  EXPECT_EQ(files.Get(kFile), SealEntry(1, ItemOf(1, 7000).lines));
}

TEST_F(HistoryFiles, GiveTheOldOneUpForRoom) {
  EXPECT_FALSE(file.RemoveOld());
  Append(ItemsOf(1, 10, 1000));
  EXPECT_TRUE(file.RemoveOld());
  EXPECT_FALSE(file.RemoveOld());
  EXPECT_EQ(files.Get(kOldFile), "");
  EXPECT_EQ(file.GetRange().oldest, 7u);
  EXPECT_EQ(file.GetRange().last, 10u);
  EXPECT_EQ(file.FindPart(8), std::nullopt);
  EXPECT_EQ(Read(file.ReadPart(*file.FindPart(11), SIZE_MAX).value_or("")).back(), "10 merge");
}

// More than is written at once.
TEST_F(HistoryFiles, TakeManyEntriesPieceByPiece) {
  HistoryFile large(files, kUserFile, 64 * 1024 * 1024);
  large.Append(ItemsOf(1, 100, 10 * 1000), problems);
  std::string expected;
  for (const auto& item : ItemsOf(1, 100, 10 * 1000)) expected += SealEntry(item->revision, item->lines);
  EXPECT_EQ(files.Get(kFile), expected);
  const auto part = large.FindPart(2);
  ASSERT_TRUE(part);
  EXPECT_EQ(Read(large.ReadPart(*part, part->bytes).value_or("")).front(), "1 merge");
}

// What is damaged between two entries, however long, hides none of those around it.
TEST_F(HistoryFiles, ArePartsWithoutDamage) {
  files.Put(kFile, TextOf(1) + std::string(300 * 1024, '\0') + "\n" + TextOf(2));
  Load();
  EXPECT_EQ(file.FindPart(2)->bytes, TextOf(1).size());
  EXPECT_EQ(file.FindPart(3)->bytes, TextOf(2).size());
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
    Append(ItemsOf(6, 6));
    EXPECT_EQ(Read(files.Get(kFile)).front(), "1 merge");
    EXPECT_EQ(Read(files.Get(kFile)).back(), "6 merge");
  }
}

}  // namespace tavix::test
