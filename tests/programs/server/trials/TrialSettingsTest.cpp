#include "programs/server/trials/TrialSettings.h"

#include <gtest/gtest.h>

#include <string>

#include "tavix/settings/Amendment.h"
#include "tests/programs/server/trials/TriedStore.h"
#include "tests/support/DocumentText.h"

// Which user settings a change puts on trial, and what brings them back: groups without keys above all.

namespace tavix::test {

TEST(TrialSettings, BringsBackAGroupThatGoesAndComesWithoutKeys) {
  TriedStore store("[G]\nk=1\n");
  store.TryToOverwrite("60 t", {"G"}, "");
  store.Try("60 t", "[G]\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[G]\nk=1\n");
}

TEST(TrialSettings, BringsBackAGroupThatTwoTrialsTakeAway) {
  TriedStore store("[G]\nk=1\n");
  store.TryToOverwrite("60 one", {"G"}, "");
  store.TryToOverwrite("60 two", {"G"}, "[G]\n");
  store.Revert("two");
  EXPECT_EQ(store.GetUser(), "[G]\nk=1\n");
}

TEST(TrialSettings, TakesAGroupAwayThatARecordedPatternWillHideAgain) {
  const std::string user = "[TavixSettings/Data/DeletedGroups]\nG*=G*\n";
  TriedStore store(user);
  settings::Amendment amendment;
  amendment.set = DocumentOf("[G]\n");
  amendment.unset = DocumentOf("[G*]\n");
  store.TryToAmend("60 t", amendment);
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), user);
}

TEST(TrialSettings, TakesAGroupAwayThatHasTheNameOfAPattern) {
  TriedStore store;
  store.TryToOverwrite("60 t", {"A*"}, "[A*]\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "");
}

TEST(TrialSettings, LeavesNoNewNameInTheRecord) {
  TriedStore store("", "[G]\nd=1\n");
  store.TryToOverwrite("60 t", {"G*"}, "[G]\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "");
  EXPECT_EQ(store.GetSeen(), "[G]\nd=1\n");
}

TEST(TrialSettings, TakesAGroupAwayThatIsLeftWithoutKeys) {
  TriedStore store;
  store.Try("60 t", "[G]\nk=2\n");
  settings::Amendment amendment;
  amendment.set = DocumentOf("[G]\n");
  amendment.unset = DocumentOf("[G]\nk=\n");
  store.TryToAmend("60 t", amendment);
  EXPECT_EQ(store.GetUser(), "[G]\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "");
}

TEST(TrialSettings, ArmsNothingForKeysThatWereNotThere) {
  TriedStore store("[A]\nx=1\n");
  settings::Amendment amendment;
  amendment.unset = DocumentOf("[A]\ny=\n[B]\ny=\n");
  store.TryToAmend("60 t", amendment);
  EXPECT_FALSE(store.book.HasPending());
}

TEST(TrialSettings, KeepsAGroupAwayThatWentWithTheLastKeyOfAnotherClient) {
  TriedStore store("[A]\n");
  store.Try("60 t", "[A]\n");
  store.Merge("[A]\nx=3\n");
  settings::Amendment amendment;
  amendment.unset = DocumentOf("[A]\nx=\n");
  ASSERT_TRUE(store.manager.Amend(amendment));
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "");
}

TEST(TrialSettings, BringsGroupsWithoutKeysBackAndTakesThemAway) {
  TriedStore store("[A]\n");
  store.Try("60 t", "[A]\nx=2\n[B]\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A]\n");
}

TEST(TrialSettings, TakesAGroupWithoutKeysAwayWhoseNameIsRecorded) {
  const std::string user = "[TavixSettings/Data/DeletedGroups]\nB=B\n";
  TriedStore store(user, "[B]\nd=1\n");
  store.Try("60 t", "[B]\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), user);
  EXPECT_EQ(store.GetSeen(), "");
}

}  // namespace tavix::test
