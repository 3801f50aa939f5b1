#include "programs/server/persistence/NotedChanges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "programs/server/persistence/LargeChange.h"

namespace tavix::test {

using daemon::ChangedGroups;
using daemon::DurabilityGate;
using daemon::NotedChanges;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Of a large change.
std::set<std::string> ManyGroups(char first) {
  std::set<std::string> groups;
  for (size_t i = 0; i <= daemon::kManyGroups; ++i) groups.insert(std::string(1, first) + std::to_string(i));
  return groups;
}

class NotedChangesTest : public testing::Test {
 protected:
  void Note(const std::set<std::string>& groups, bool isPending) { _notes.Note(groups, {}, true, isPending); }

  std::set<std::string> TakePending() { return _notes.GetPending().TakeChanges().TakeNames(); }
  std::set<std::string> TakeChanged() { return _notes.GetChanged().TakeChanges().TakeNames(); }

  DurabilityGate _gate{true};
  NotedChanges _notes{_gate};
};

}  // namespace

TEST_F(NotedChangesTest, ArePendingWhenTheyAreWrittenLater) {
  Note({"A"}, false);
  Note({"B"}, true);
  EXPECT_THAT(TakePending(), ElementsAre("B"));
  EXPECT_THAT(TakeChanged(), IsEmpty());
  EXPECT_FALSE(_gate.IsDurable(2));
}

TEST_F(NotedChangesTest, ThatTheNextJournalLacksArePendingOnceItFollows) {
  _notes.GetChanged().Begin();
  Note({"A"}, true);
  EXPECT_THAT(TakeChanged(), ElementsAre("A"));
  Note({"B"}, true);
  const NotedChanges::Epoch before = _notes.GetEpoch();
  _notes.FollowSnapshot();
  EXPECT_NE(_notes.GetEpoch(), before);
  EXPECT_THAT(TakePending(), ElementsAre("B"));
}

TEST_F(NotedChangesTest, ThatASnapshotWillHoldAreDroppedAndAnotherEpochBegins) {
  const NotedChanges::Epoch before = _notes.GetEpoch();
  _notes.DropPending();
  EXPECT_EQ(_notes.GetEpoch(), before);
  Note({"A"}, true);
  _notes.DropPending();
  EXPECT_NE(_notes.GetEpoch(), before);
  EXPECT_THAT(TakePending(), IsEmpty());
}

TEST_F(NotedChangesTest, OfOneLargeChangeThatIsMadeAgainAndAgainAreKeptOnce) {
  _notes.GetChanged().Begin();
  for (int change = 0; change < 20; ++change) {
    Note(ManyGroups('A'), true);
    Note(ManyGroups('B'), true);
  }
  const ChangedGroups::Changes changed = _notes.GetChanged().TakeChanges();
  const ChangedGroups::Changes pending = _notes.GetPending().TakeChanges();
  EXPECT_EQ(pending.many.size(), 2u);
  EXPECT_EQ(changed.many, pending.many);
  EXPECT_THAT(pending.groups, IsEmpty());
}

// What was taken may have been written before the later change was made.
TEST_F(NotedChangesTest, OfALargeChangeArePendingAgainBehindATake) {
  Note(ManyGroups('A'), true);
  EXPECT_EQ(TakePending(), ManyGroups('A'));
  Note(ManyGroups('A'), true);
  EXPECT_EQ(TakePending(), ManyGroups('A'));
}

}  // namespace tavix::test
