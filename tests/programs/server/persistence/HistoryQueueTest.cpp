#include "programs/server/persistence/HistoryQueue.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace tavix::test {

using daemon::FoundHistory;
using daemon::HistoryItem;
using daemon::HistoryLines;
using daemon::HistoryQueue;

namespace {

HistoryLines LinesOf(size_t bytes) {
  return {std::string(bytes - 1, 'x') + "\n", ""};
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
  EXPECT_EQ(queue.Add(std::nullopt), "");
  EXPECT_EQ(queue.Add(LinesOf(51)), "");
  EXPECT_EQ(queue.Add(LinesOf(2)), "#@ 4 x\n");
  EXPECT_EQ(queue.GetLast(), 4u);
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
  for (uint64_t revision : {7u, 8u}) found.entries.push_back({revision, 1, "merge", "tcp - - -", "", {}, {}, {}});
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
