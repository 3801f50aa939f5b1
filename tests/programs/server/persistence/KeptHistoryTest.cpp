#include "programs/server/persistence/KeptHistory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/programs/server/persistence/SavedHistory.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/MemoryFiles.h"

// The history as readers find it, in memory and in both files.

namespace tavix::test {

using daemon::HistoryParts;
using daemon::KeptHistory;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr size_t kAll = SIZE_MAX;

struct HistoryStore : PersistedStore {
  explicit HistoryStore(MemoryFiles& files, size_t bytes = kHistoryBytes)
      : PersistedStore(files, kAlways, "", std::chrono::hours(1), bytes) {}

  void Set(int value, size_t bytes = 1) {
    Merge("[A]\nx=" + std::to_string(value) + std::string(bytes, '.') + "\n");
    AwaitDurable();
  }
};

// Makes changes and ends the daemon: all entries are in the files.
void Live(MemoryFiles& files, int first, int last, size_t bytes = 1, size_t historyBytes = kHistoryBytes) {
  HistoryStore store(files, historyBytes);
  for (int value = first; value <= last; ++value) store.Set(value, bytes);
  EXPECT_TRUE(store.Finish());
}

// All revisions, block by block.
std::vector<uint64_t> ReadAll(const KeptHistory& history, uint64_t below = KeptHistory::kNewest) {
  std::vector<uint64_t> revisions;
  for (KeptHistory::Block block; !block.isEnd; below = block.next) {
    block = history.ReadBelow(below, kAll, kAll);
    for (const KeptHistory::Item& item : block.items) revisions.push_back(item.entry.revision);
  }
  return revisions;
}

std::vector<uint64_t> DownFrom(uint64_t last, uint64_t first) {
  std::vector<uint64_t> revisions;
  for (uint64_t revision = last; revision >= first; --revision) revisions.push_back(revision);
  return revisions;
}

std::vector<uint64_t> RangeOf(const KeptHistory& history) {
  const HistoryParts::Range range = history.GetRange();
  return {range.oldest, range.last};
}

struct KeptEntries : testing::Test {
  MemoryFiles files;
};

}  // namespace

TEST_F(KeptEntries, AreNoneAtFirst) {
  HistoryStore store(files);
  EXPECT_THAT(ReadAll(*store.GetHistory()), IsEmpty());
  EXPECT_THAT(RangeOf(*store.GetHistory()), ElementsAre(0, 0));
}

TEST_F(KeptEntries, AreThoseInMemoryAndThenThoseOfTheFile) {
  Live(files, 1, 3);
  HistoryStore store(files);
  store.Set(4);
  store.Set(5);
  EXPECT_EQ(ReadAll(*store.GetHistory()), DownFrom(5, 1));
  EXPECT_EQ(ReadAll(*store.GetHistory(), 3), DownFrom(2, 1));
  EXPECT_THAT(RangeOf(*store.GetHistory()), ElementsAre(0, 5));
}

TEST_F(KeptEntries, AreThoseOfBothFilesInParts) {
  Live(files, 1, 60, 2000, 256 * 1024);
  HistoryStore store(files, 256 * 1024);
  const std::vector<uint64_t> revisions = ReadAll(*store.GetHistory());
  const uint64_t oldest = store.GetHistory()->GetRange().oldest;
  EXPECT_EQ(revisions, DownFrom(60, oldest + 1));
  EXPECT_GT(files.Get(daemon::HistoryFile::OldPathOf(kUserFile)).size(), 64u * 1024);
  EXPECT_LE(store.GetHistory()->ReadBelow(KeptHistory::kNewest, kAll, kAll).bytes, HistoryParts::kPartBytes);
}

TEST_F(KeptEntries, BehindAGapAreKnownAndThoseBeforeItAreShown) {
  Live(files, 1, 2);
  {
    PersistedStore store(files, kAlways);
    store.Merge("[A]\nx=unrecorded\n");
    EXPECT_TRUE(store.Finish());
  }
  HistoryStore store(files);
  store.Set(4);
  EXPECT_EQ(ReadAll(*store.GetHistory()), DownFrom(4, 1));
  EXPECT_THAT(RangeOf(*store.GetHistory()), ElementsAre(3, 4));
}

TEST_F(KeptEntries, AreUnknownUpToOneThatIsLost) {
  HistoryStore store(files, 16 * 1024);
  store.Set(1);
  store.Set(2, 9 * 1024);
  store.Set(3);
  EXPECT_THAT(ReadAll(*store.GetHistory()), ElementsAre(3, 2, 1));
  EXPECT_EQ(store.GetHistory()->ReadBelow(3, kAll, kAll).items[0].entry.command, "gap");
  EXPECT_THAT(RangeOf(*store.GetHistory()), ElementsAre(3, 3));
}

TEST_F(KeptEntries, AreUnknownUpToOneThatIsDamaged) {
  Live(files, 1, 4);
  std::string bytes = files.Get(daemon::HistoryFile::PathOf(kUserFile));
  bytes[bytes.find("#+ [A]x=2") + 8] = '7';
  files.Put(daemon::HistoryFile::PathOf(kUserFile), bytes);
  HistoryStore store(files);
  EXPECT_THAT(ReadAll(*store.GetHistory()), ElementsAre(4, 3, 1));
  EXPECT_THAT(RangeOf(*store.GetHistory()), ElementsAre(2, 4));
}

TEST_F(KeptEntries, OfMoreThanTheBoundShowWhoMadeThemAlone) {
  for (const bool isInFile : {false, true}) {
    MemoryFiles own;
    if (isInFile) Live(own, 1, 1, 100 * 1000);
    HistoryStore store(own);
    if (!isInFile) store.Set(1, 100 * 1000);
    const KeptHistory::Block block = store.GetHistory()->ReadBelow(KeptHistory::kNewest, kAll, 90 * 1000);
    ASSERT_EQ(block.items.size(), 1u);
    EXPECT_GT(block.items[0].omittedBytes, 100u * 1000);
    EXPECT_EQ(block.items[0].entry.by, "local - - -");
    EXPECT_TRUE(block.items[0].entry.is.IsEmpty());
    EXPECT_LE(block.bytes, 4096u);
  }
}

TEST_F(KeptEntries, OfMoreThanIsAskedForAreLeftForTheNextTime) {
  Live(files, 1, 1, 100 * 1000);
  HistoryStore store(files);
  const KeptHistory::Block block = store.GetHistory()->ReadBelow(KeptHistory::kNewest, 90 * 1000, kAll);
  EXPECT_TRUE(block.isTooLong);
  EXPECT_THAT(block.items, IsEmpty());
}

TEST_F(KeptEntries, OfAFileThatCanNotBeReadAreAnError) {
  Live(files, 1, 1);
  HistoryStore store(files);
  files.FailReads(daemon::HistoryFile::PathOf(kUserFile), EIO, 1);
  EXPECT_THROW(ReadAll(*store.GetHistory()), osa::Exception);
  EXPECT_THAT(ReadAll(*store.GetHistory()), ElementsAre(1));
}

// While the file grows and is replaced again and again.
TEST_F(KeptEntries, AreFoundWithoutAHoleBesideChanges) {
  HistoryStore store(files, 256 * 1024);
  BackgroundCall changes([&] {
    for (int value = 1; value <= 300; ++value) store.Set(value, 2000);
  });
  while (!changes.HasEnded()) {
    const std::vector<uint64_t> revisions = ReadAll(*store.GetHistory());
    const uint64_t oldest = store.GetHistory()->GetRange().oldest;  // what a slow disk lost is below
    for (size_t i = 1; i < revisions.size() && revisions[i - 1] > oldest + 1; ++i)
      ASSERT_EQ(revisions[i] + 1, revisions[i - 1]);
  }
}

}  // namespace tavix::test
