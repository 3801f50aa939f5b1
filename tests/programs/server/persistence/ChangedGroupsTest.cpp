#include "programs/server/persistence/ChangedGroups.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>

#include "tests/programs/server/persistence/RefusedMemory.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

using daemon::ChangedGroups;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(ChangedGroups, AreNotedFromTheBeginToTheEnd) {
  ChangedGroups changed;
  changed.Note({"Before"});
  changed.Begin();
  changed.Note({"A", "B"});
  changed.Note({"B", "C"});
  EXPECT_EQ(changed.Count(), 3u);
  EXPECT_THAT(changed.TakeChanges().TakeNames(), ElementsAre("A", "B", "C"));
  changed.Note({"D"});
  EXPECT_THAT(changed.TakeChanges().TakeNames(), ElementsAre("D"));
  changed.Note({"E"});
  changed.End();
  changed.Note({"Behind"});
  EXPECT_THAT(changed.TakeChanges().TakeNames(), IsEmpty());
}

TEST(ChangedGroups, AreToldApartFromWhatWasAddedToOthers) {
  ChangedGroups changed;
  changed.Begin();
  changed.Note({"A"}, DocumentOf("[List]\n1=one\n"));
  changed.Note({}, DocumentOf("[List]\n2=two\n3=three\n"));
  EXPECT_EQ(changed.Count(), 4u);
  const ChangedGroups::Changes changes = changed.TakeChanges();
  EXPECT_THAT(changes.groups, ElementsAre("A"));
  EXPECT_EQ(TextOf(changes.added), "[List]\n1=one\n2=two\n3=three\n");
  EXPECT_EQ(changed.Count(), 0u);
  changed.Note({"A"}, DocumentOf("[List]\n4=four\n"));
  EXPECT_THAT(changed.TakeChanges().TakeNames(), ElementsAre("A", "List"));
}

TEST(ChangedGroups, ThatWereNotedBeforeASecondBeginAreForgotten) {
  ChangedGroups changed;
  changed.Begin();
  changed.Note({"A"});
  changed.Begin();
  EXPECT_THAT(changed.TakeChanges().TakeNames(), IsEmpty());
}

TEST(ChangedGroups, OfALargeChangeAreSharedAndCounted) {
  ChangedGroups changed;
  changed.Begin();
  EXPECT_TRUE(changed.IsEmpty());
  const auto many = std::make_shared<const std::set<std::string>>(std::set<std::string>{"A", "B"});
  changed.NoteMany(many);
  changed.Note({"B", "C"});
  EXPECT_EQ(changed.Count(), 4u);
  ChangedGroups::Changes changes = changed.TakeChanges();
  EXPECT_EQ(changes.many.front(), many);
  EXPECT_THAT(changes.TakeNames(), ElementsAre("A", "B", "C"));
  EXPECT_TRUE(changed.IsEmpty());
}

TEST(ChangedGroups, OfLargeChangesTakeNoMoreMemoryThanTheDifferentOnesOfAll) {
  ChangedGroups changed;
  changed.Begin();
  std::set<std::string> all;
  for (int change = 0; change < 100; ++change) {
    const std::set<std::string> groups{"A", "G" + std::to_string(change % 10)};
    all.insert(groups.begin(), groups.end());
    changed.NoteMany(std::make_shared<const std::set<std::string>>(groups));
    EXPECT_LE(changed.Count(), all.size() + 2 * ChangedGroups::kMaxMany);
  }
  ChangedGroups::Changes changes = changed.TakeChanges();
  EXPECT_LE(changes.many.size(), ChangedGroups::kMaxMany);
  EXPECT_EQ(changes.TakeNames(), all);
  EXPECT_TRUE(changed.IsEmpty());
}

// The taker would write a snapshot that lacks them.
TEST(ChangedGroups, ThatThereIsNoMemoryForAreToldUntilTheNextBeginOrEnd) {
  ChangedGroups changed;
  changed.Begin();
  const std::set<std::string> groups{std::string(1000, 'g')};
  {
    RefusedMemory refused(500);
    changed.Note(groups);
  }
  EXPECT_THROW(changed.TakeChanges().TakeNames(), std::bad_alloc);
  EXPECT_THROW(changed.TakeChanges().TakeNames(), std::bad_alloc);
  changed.Begin();
  EXPECT_THAT(changed.TakeChanges().TakeNames(), IsEmpty());
  {
    RefusedMemory refused(500);
    changed.Note(groups);
  }
  changed.End();
  EXPECT_THAT(changed.TakeChanges().TakeNames(), IsEmpty());
}

}  // namespace tavix::test
