#include "programs/server/persistence/FoundHistory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "programs/server/persistence/JournalText.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

using daemon::FoundHistory;
using daemon::JournalReader;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Found : testing::Test, FoundHistory {
  void AddRecord(const std::string& removed, const std::string& set) {
    const std::string bytes = MakeJournal(removed, set);
    JournalReader record(bytes);
    EXPECT_TRUE(record.Next());
    Add(record);
  }

  // settings: as the record finds them.
  void AddNextRecord(const std::string& removed, const std::string& set, const std::string& settings = "") {
    const std::string bytes = MakeJournal(removed, set);
    JournalReader record(bytes);
    EXPECT_TRUE(record.Next());
    AddNext(record, DocumentOf(settings));
  }

  std::vector<uint64_t> GetRevisions() const {
    std::vector<uint64_t> revisions;
    for (const auto& entry : entries) revisions.push_back(entry.first);
    return revisions;
  }

 private:
  static std::string MakeJournal(const std::string& removed, const std::string& set) {
    uint32_t checksum = daemon::BeginJournalChecksum({1, 2});
    return daemon::EncodeJournalHeader({1, 2}, daemon::kJournalHeaderSize) +
           daemon::EncodeRecord({removed, set}, checksum);
  }
};

}  // namespace

TEST_F(Found, EntriesHaveTheNewValuesOfTheSettings) {
  AddNextRecord("#@ 1 7 merge tcp - - -\n#- [A]x=1\n#- [A]y=1\n#! [A]z\n#! [B]\n[C]\n", "[A]\nw=1\nx=2\nz=3\n[B]\n");
  ASSERT_THAT(GetRevisions(), ElementsAre(1));
  EXPECT_EQ(TextOf(entries[1].is), "[A]\nx=2\nz=3\n[B]\n");
  EXPECT_EQ(GetRevision(), 1u);
  EXPECT_FALSE(lacksEntries);
}

TEST_F(Found, EntriesHaveTheValuesThatALaterOneOfTheRecordReplaced) {
  AddRecord("#@ 1 7 merge tcp - - -\n#! [A]x\n#@ 2 7 merge tcp - - -\n#- [A]x=1\n#@ 3 7 merge tcp - - -\n#- [A]x=2\n",
            "[B]\nx=1\n");
  ASSERT_THAT(GetRevisions(), ElementsAre(1, 2, 3));
  EXPECT_EQ(TextOf(entries[1].is), "[A]\nx=1\n");
  EXPECT_EQ(TextOf(entries[2].is), "[A]\nx=2\n");
  EXPECT_EQ(TextOf(entries[3].is), "");
}

// The change in the middle may have replaced what the first one set.
TEST_F(Found, EntriesBeforeAGapInTheirRecordAreUnknown) {
  AddRecord("#@ 1 7 merge tcp - - -\n#! [A]x\n#@ 2 7 gap daemon - - -\n#@ 3 7 merge tcp - - -\n#- [A]y=2\n",
            "[A]\nx=9\ny=3\n");
  EXPECT_THAT(GetRevisions(), ElementsAre(2, 3));
  EXPECT_EQ(GetRevision(), 3u);
}

TEST_F(Found, EntriesOfSeveralJournalsAreInTheirOrderAndCountOnce) {
  snapshotRevision = 3;
  AddRecord("#@ 3 7 merge tcp - - -\n#- [A]x=1\n", "[A]\nx=3\n");
  AddRecord("#@ 2 7 merge tcp - - -\n#- [A]x=1\n", "[A]\nx=2\n");
  AddRecord("#@ 2 7 overwrite tcp - - -\n#- [A]x=1\n#@ 4 7 merge tcp - - -\n#- [A]x=2\n", "[A]\nx=2\n");
  EndEarlier();
  ASSERT_THAT(GetRevisions(), ElementsAre(2, 3));
  EXPECT_EQ(entries[2].command, "merge");
}

TEST_F(Found, ChangeMayHaveNoEntry) {
  snapshotRevision = 5;
  AddRecord("[C]\n", "");
  EXPECT_FALSE(lacksEntries);
  AddNextRecord("[C]\n", "", "[C]\nx=1\n");
  EXPECT_TRUE(lacksEntries);
  EXPECT_EQ(GetRevision(), 5u);
}

// A trial that was confirmed, or what readers alone notice.
TEST_F(Found, RecordThatLeavesTheSettingsAsTheyAreLacksNoEntry) {
  snapshotRevision = 5;
  AddNextRecord("#c t confirmed\n", "", "[C]\nx=1\n");
  AddNextRecord("#t t tcp - - -\n#t~ [C]x\n", "[C]\nx=1\n", "[C]\nx=1\n");
  AddNextRecord("[B]\n", "[C]\nx=1\n[D]\n", "[C]\nx=1\n[D]\n");
  EXPECT_FALSE(lacksEntries);
  AddNextRecord("", "[C]\n", "[C]\nx=1\n");
  EXPECT_TRUE(lacksEntries);
}

// The daemon that went on there left a revision out.
TEST_F(Found, ChangesWithoutAnEntryHaveARevisionThatStandsForThem) {
  snapshotRevision = 5;
  AddNextRecord("[C]\n", "", "[C]\nx=1\n");
  AddNextRecord("#@ 7 7 merge tcp - - -\n#- [C]x=1\n", "");
  EXPECT_FALSE(lacksEntries);
  EXPECT_EQ(GetRevision(), 7u);
}

TEST_F(Found, NothingIsLackingOfADaemonThatNeverHadAHistory) {
  AddNextRecord("", "[A]\nx=1\n");
  AddNextRecord("#@ 1 7 merge tcp - - -\n#- [A]x=1\n", "[A]\nx=2\n");
  EXPECT_FALSE(lacksEntries);
}

TEST_F(Found, RevisionsOfLostChangesAreNoted) {
  NoteLost("#@ 7 1 merge\n[A]\nx=#@ 9 1\n\1#@ 10 1\n#@ 99999999999 1\n#@ 8 1\n");
  EXPECT_EQ(seenRevision, 8u);
  EXPECT_THAT(GetRevisions(), IsEmpty());
}

}  // namespace tavix::test
