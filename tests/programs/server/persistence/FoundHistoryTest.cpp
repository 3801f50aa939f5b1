#include "programs/server/persistence/FoundHistory.h"

#include <gtest/gtest.h>

#include "tests/support/DocumentText.h"

namespace tavix::test {

using daemon::FoundHistory;

TEST(FoundHistory, FindsTheNewValuesInTheSettings) {
  FoundHistory found;
  found.Add("#@ 1 7 merge tcp - - -\n#- [A]x=1\n#- [A]y=1\n#! [A]z\n#! [B]\n[C]\n", "[A]\nw=1\nx=2\nz=3\n[B]\n", false);
  ASSERT_EQ(found.entries.size(), 1u);
  EXPECT_EQ(TextOf(found.entries[0].is), "[A]\nx=2\nz=3\n[B]\n");
  EXPECT_EQ(found.GetRevision(), 1u);
  EXPECT_FALSE(found.lacksEntries);
}

TEST(FoundHistory, FindsThoseThatALaterEntryOfTheRecordReplaced) {
  FoundHistory found;
  found.Add("#@ 1 7 merge tcp - - -\n#! [A]x\n#@ 2 7 merge tcp - - -\n#- [A]x=1\n#@ 3 7 merge tcp - - -\n#- [A]x=2\n",
            "[B]\nx=1\n", true);
  ASSERT_EQ(found.entries.size(), 3u);
  EXPECT_EQ(TextOf(found.entries[0].is), "[A]\nx=1\n");
  EXPECT_EQ(TextOf(found.entries[1].is), "[A]\nx=2\n");
  EXPECT_EQ(TextOf(found.entries[2].is), "");
}

TEST(FoundHistory, KnowsWhetherAChangeHasNoEntry) {
  FoundHistory found;
  found.snapshotRevision = 5;
  found.Add("[C]\n", "", true);
  EXPECT_FALSE(found.lacksEntries);
  found.Add("[C]\n", "", false);
  EXPECT_TRUE(found.lacksEntries);
  EXPECT_EQ(found.GetRevision(), 5u);
}

// The daemon that went on there left a revision out.
TEST(FoundHistory, KnowsOfChangesWithoutAnEntryThatARevisionStandsForThem) {
  FoundHistory found;
  found.snapshotRevision = 5;
  found.Add("[C]\n", "", false);
  found.Add("#@ 7 7 merge tcp - - -\n#- [C]x=1\n", "", false);
  EXPECT_FALSE(found.lacksEntries);
  EXPECT_EQ(found.GetRevision(), 7u);
}

TEST(FoundHistory, OfADaemonThatNeverHadAHistoryLacksNothing) {
  FoundHistory found;
  found.Add("", "[A]\nx=1\n", false);
  found.Add("#@ 1 7 merge tcp - - -\n#- [A]x=1\n", "[A]\nx=2\n", false);
  EXPECT_FALSE(found.lacksEntries);
}

}  // namespace tavix::test
