#include "programs/server/persistence/HistoryQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace tavix::test {

using daemon::FoundHistory;
using daemon::HistoryEntry;
using daemon::HistoryItem;
using daemon::HistoryLines;
using daemon::HistoryQueue;
using testing::MatchesRegex;

namespace {

HistoryLines LinesOf(size_t bytes) {
  return {std::string(bytes - 1, 'x') + "\n", ""};
}

HistoryEntry EntryOf(uint64_t revision) {
  HistoryEntry entry;
  entry.revision = revision;
  entry.time = 1;
  entry.command = "merge";
  entry.by = "tcp - - -";
  return entry;
}

FoundHistory FoundBehind(uint64_t snapshotRevision) {
  FoundHistory found;
  found.snapshotRevision = snapshotRevision;
  return found;
}

}  // namespace

TEST(HistoryQueue, CountsEachChangeAlsoOneWhoseEntryIsLost) {
  HistoryQueue queue(100);
  EXPECT_EQ(queue.Add(LinesOf(2)), "#@ 1 x\n");
  EXPECT_THAT(queue.Add(std::nullopt), MatchesRegex("#@ 2 [0-9]+ gap daemon - - -\n"));
  EXPECT_THAT(queue.Add(LinesOf(51)), MatchesRegex("#@ 3 [0-9]+ gap daemon - - -\n"));
  EXPECT_EQ(queue.Add(LinesOf(2)), "#@ 4 x\n");
  EXPECT_EQ(queue.GetLast(), 4u);
  EXPECT_EQ(queue.GetState().lastLost, 3u);
}

TEST(HistoryQueue, GoesOnBehindWhatWasLoaded) {
  HistoryQueue queue(100);
  queue.Load({}, 0);
  EXPECT_EQ(queue.GetLast(), 0u);
  HistoryQueue other(1000);
  other.Load(FoundBehind(7), 7);
  EXPECT_EQ(other.Add(LinesOf(2)), "#@ 8 x\n");
}

TEST(HistoryQueue, KeepsTheEntriesOfTheJournalThatTheFileLacks) {
  HistoryQueue queue(1000);
  FoundHistory found = FoundBehind(6);
  for (uint64_t revision : {7u, 8u}) found.entries[revision] = EntryOf(revision);
  found.journalRevision = 8;
  queue.Load(found, 6);
  const daemon::HistoryItems items = queue.GetUpTo(8);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0]->revision, 7u);
  EXPECT_EQ(items[0]->lines.change, "1 merge tcp - - -\n");
  EXPECT_EQ(queue.GetUnjournaled(), "");
}

TEST(HistoryQueue, BeginsWithAGapWhenTheSettingsChangedWithoutEntries) {
  FoundHistory edited = FoundBehind(7);
  edited.lacksEntries = true;
  for (const auto& [found, inFile] :
       {std::pair(edited, 7u), std::pair(FoundBehind(4), 7u), std::pair(FoundHistory(), 7u)}) {
    HistoryQueue queue(1000);
    queue.Load(found, inFile);
    const daemon::HistoryItems items = queue.GetUpTo(8);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0]->revision, 8u);
    EXPECT_NE(items[0]->lines.change.find(" gap daemon - - -\n"), std::string::npos);
    EXPECT_EQ(queue.GetUnjournaled(), "");
  }
}

// The daemon before ended while the file could not be written.
TEST(HistoryQueue, BeginsWithAGapInThePlaceOfEntriesThatNothingHas) {
  HistoryQueue queue(1000);
  queue.Load(FoundBehind(9), 7);
  const daemon::HistoryItems items = queue.GetUpTo(9);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0]->revision, 9u);
  EXPECT_NE(items[0]->lines.change.find(" gap "), std::string::npos);
  EXPECT_EQ(queue.Add(LinesOf(2)), "#@ 10 x\n");
}

TEST(HistoryQueue, HasAGapBeforeAnEntryWhoseForerunnersNothingHas) {
  HistoryQueue queue(1000);
  FoundHistory found = FoundBehind(8);
  found.entries[9] = EntryOf(9);
  found.journalRevision = 9;
  queue.Load(found, 7);
  const daemon::HistoryItems items = queue.GetUpTo(9);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0]->revision, 8u);
  EXPECT_EQ(items[1]->revision, 9u);
  EXPECT_EQ(queue.GetState().lastLost, 8u);
}

TEST(HistoryQueue, GivesNoRevisionAgainThatALostChangeHad) {
  HistoryQueue queue(1000);
  FoundHistory found = FoundBehind(4);
  found.NoteLost(9);
  queue.Load(found, 4);
  EXPECT_EQ(queue.GetLast(), 10u);
  EXPECT_EQ(queue.GetUpTo(10).size(), 1u);
}

// One revision for all changes until there is a history again.
TEST(HistoryQueue, WithoutAHistoryRemembersThatThereWasOne) {
  HistoryQueue queue(0);
  queue.Load(FoundBehind(4), 0);
  EXPECT_EQ(queue.GetLast(), 5u);
  HistoryQueue other(0);
  other.Load({}, 0);
  EXPECT_EQ(other.GetLast(), 0u);
}

TEST(HistoryQueue, HasTheEntriesThatTheJournalLacks) {
  HistoryQueue queue(100);
  queue.Load(FoundBehind(1), 1);
  queue.Add(LinesOf(2));
  queue.OnJournaled();
  EXPECT_EQ(queue.GetUnjournaled(), "");
  queue.Add(LinesOf(2));
  queue.Add(LinesOf(2));
  EXPECT_EQ(queue.GetUnjournaled(), "#@ 3 x\n#@ 4 x\n");
}

TEST(HistoryQueue, GivesTheNextJournalWhatIsBehindTheSnapshot) {
  HistoryQueue queue(100);
  queue.Add(LinesOf(2));
  queue.BeginSnapshot();
  queue.Add(LinesOf(2));
  queue.OnJournaled();
  EXPECT_EQ(queue.GetUnjournaledByNext(), "#@ 2 x\n");
  queue.OnNextJournaled();
  queue.Add(LinesOf(2));
  queue.Follow();
  EXPECT_EQ(queue.GetUnjournaled(), "#@ 3 x\n");
}

TEST(HistoryQueue, LosesTheOldestBeyondItsBound) {
  HistoryQueue queue(100);
  for (int i = 0; i < 3; ++i) queue.Add(LinesOf(40));
  EXPECT_EQ(queue.GetUnjournaled().find("#@ 2 "), 0u);
  EXPECT_EQ(queue.GetUpTo(2).size(), 1u);
  queue.DropUpTo(2);
  EXPECT_EQ(queue.GetUnjournaled().find("#@ 3 "), 0u);
}

}  // namespace tavix::test
