#include "programs/server/trials/TrialBook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/programs/server/trials/TriedStore.h"

// What becomes of settings on trial, without a file and without a clock.

namespace tavix::test {

using daemon::Trial;
using daemon::TrialBook;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(TrialBook, BringsBackWhatWasThere) {
  TriedStore store("[A]\nx=1\n");
  store.Try("60 t", "[A]\nx=2\ny=2\n[B]\nz=2\n");
  EXPECT_EQ(store.GetUser(), "[A]\nx=2\ny=2\n[B]\nz=2\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A]\nx=1\n");
  EXPECT_EQ(store.GetState("t"), "reverted");
}

TEST(TrialBook, KeepsWhatIsConfirmed) {
  TriedStore store("[A]\nx=1\n");
  store.Try("60 t", "[A]\nx=2\n");
  store.Confirm("t");
  EXPECT_EQ(store.GetState("t"), "confirmed");
  EXPECT_THAT(store.book.FindDue(store.now + minutes(2)), IsEmpty());
  EXPECT_EQ(store.GetUser(), "[A]\nx=2\n");
}

TEST(TrialBook, BringsDefaultsBackThatAnOverwriteTook) {
  TriedStore store("", "[A]\nd=1\n");
  store.TryToOverwrite("60 t", {"A"}, "[A]\nx=2\n");
  EXPECT_EQ(store.GetSeen(), "[A]\nx=2\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "");
  EXPECT_EQ(store.GetSeen(), "[A]\nd=1\n");
}

TEST(TrialBook, BringsBackWhatAPatternTook) {
  TriedStore store("[A/1]\nx=1\n[A/2]\n[B]\nx=1\n");
  store.TryToOverwrite("60 t", {"A/*"}, "");
  EXPECT_EQ(store.GetSeen(), "[B]\nx=1\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A/1]\nx=1\n[A/2]\n[B]\nx=1\n");
}

TEST(TrialBook, BringsBackWhatARestoreTook) {
  const std::string user = "[A]\nx=1\n[TavixSettings/Data/DeletedGroups]\nB=B\n";
  TriedStore store(user, "[A]\nd=1\n[B]\nd=1\n");
  store.TryToRestore("60 t", "*");
  EXPECT_EQ(store.GetSeen(), "[A]\nd=1\n[B]\nd=1\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), user);
  EXPECT_EQ(store.GetSeen(), "[A]\nd=1\nx=1\n");
}

TEST(TrialBook, BringsBackWhatAnAmendmentTook) {
  const std::string user = "[A]\nx=1\ny=1\n[B]\nx=1\n[C]\nx=1\n";
  TriedStore store(user, "[A]\nx=d\n");
  settings::Amendment amendment;
  amendment.set = DocumentOf("[A]\nz=2\n");
  amendment.unset = DocumentOf("[A]\nx=\n[B]\n");
  amendment.replace = DocumentOf("[C]\ny=2\n");
  store.TryToAmend("60 t", amendment);
  EXPECT_EQ(store.GetSeen(), "[A]\nx=d\ny=1\nz=2\n[C]\ny=2\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), user);
}

TEST(TrialBook, KeepsWhatAnotherClientWroteSince) {
  TriedStore store("[A]\nx=1\ny=1\n");
  store.Try("60 t", "[A]\nx=2\ny=2\n");
  store.Merge("[A]\nx=3\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A]\nx=3\ny=1\n");
}

TEST(TrialBook, KeepsTheSameValueThatAnotherClientWroteSince) {
  TriedStore store("[A]\nx=1\n");
  store.Try("60 t", "[A]\nx=2\n");
  store.Merge("[A]\nx=2\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A]\nx=2\n");
}

TEST(TrialBook, KeepsADeletionThatAnotherClientRepeated) {
  TriedStore store("[A]\nx=1\n", "[A]\nd=1\n");
  store.TryToOverwrite("60 t", {"A"}, "");
  store.manager.OverwriteSettings(std::set<std::string>{"A"}, core::IniFile());
  store.Revert("t");
  EXPECT_EQ(store.GetSeen(), "");
}

TEST(TrialBook, KeepsADeletionByAPatternOfAnotherClient) {
  TriedStore store("[A/1]\nx=1\n[B]\nx=1\n");
  store.Try("60 t", "[A/1]\nx=2\n[B]\nx=2\n");
  store.manager.OverwriteSettings(std::set<std::string>{"A/*"}, core::IniFile());
  store.Revert("t");
  EXPECT_EQ(store.GetSeen(), "[B]\nx=1\n");
}

TEST(TrialBook, KeepsAGroupInWhichAnotherClientSetSomething) {
  TriedStore store;
  store.Try("60 t", "[A]\n");
  store.Merge("[A]\nx=3\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A]\nx=3\n");
}

TEST(TrialBook, DoesNotCountWhatIsNotSaved) {
  TriedStore store("[A]\nx=1\n");
  store.Try("60 t", "[A]\nx=2\n");
  store.manager.MergeSettings(DocumentOf("[A]\nx=3\n"), settings::server::SettingsManager::kNoPersist);
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A]\nx=1\n");
}

TEST(TrialBook, LetsALaterTrialGoBackToWhatWasBeforeBoth) {
  for (const bool isFirstEndedFirst : {true, false}) {
    TriedStore store("[A]\nx=1\ny=1\n");
    store.Try("60 one", "[A]\nx=2\ny=2\n");
    store.Try("60 two", "[A]\nx=3\n");
    store.Revert(isFirstEndedFirst ? "one" : "two");
    EXPECT_EQ(store.GetUser(), isFirstEndedFirst ? "[A]\nx=3\ny=1\n" : "[A]\nx=1\ny=2\n");
    store.Revert(isFirstEndedFirst ? "two" : "one");
    EXPECT_EQ(store.GetUser(), "[A]\nx=1\ny=1\n");
  }
}

TEST(TrialBook, EndsEachOfTwoTrialsOfASettingForItself) {
  TriedStore store("[A]\nx=1\ny=1\n");
  store.Try("60 one", "[A]\nx=2\ny=2\n");
  store.Try("60 two", "[A]\nx=3\n");
  store.Confirm("two");
  store.Revert("one");
  EXPECT_EQ(store.GetUser(), "[A]\nx=3\ny=1\n");

  TriedStore other("[A]\nx=1\ny=1\n");
  other.Try("60 one", "[A]\nx=2\ny=2\n");
  other.Try("60 two", "[A]\nx=3\n");
  other.Confirm("one");
  other.Revert("two");
  EXPECT_EQ(other.GetUser(), "[A]\nx=1\ny=2\n");
}

TEST(TrialBook, InheritsADeletionFromAnEarlierTrial) {
  TriedStore store("[A]\nx=1\n");
  store.TryToOverwrite("60 one", {"A"}, "");
  store.TryToOverwrite("60 two", {"A"}, "");
  store.Confirm("one");
  store.Revert("two");
  EXPECT_EQ(store.GetUser(), "[A]\nx=1\n");
}

TEST(TrialBook, AddsToATrialWhoseFirstOldValuesStay) {
  TriedStore store("[A]\nx=1\ny=1\n");
  store.Try("60 t", "[A]\nx=2\n");
  store.now += seconds(50);
  store.Try("60 t", "[A]\nx=3\ny=3\n");
  EXPECT_THAT(store.book.FindDue(store.now + seconds(59)), IsEmpty());
  EXPECT_THAT(store.book.FindDue(store.now + seconds(60)), ElementsAre("t"));
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A]\nx=1\ny=1\n");
}

TEST(TrialBook, TriesAgainWhatAnotherClientWroteInBetween) {
  TriedStore store("[A]\nx=1\n");
  store.Try("60 t", "[A]\nx=2\n");
  store.Merge("[A]\nx=3\n");
  store.Try("60 t", "[A]\nx=4\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A]\nx=3\n");
}

TEST(TrialBook, ArmsNothingForAChangeThatFails) {
  TriedStore store("[A]\nx=1\n");
  EXPECT_FALSE(store.manager.TestAndMerge(DocumentOf("[A]\nx=9\n"), DocumentOf("[A]\nx=2\n"), store.Origin("60 t"),
                                          store.ticket));
  settings::Amendment amendment;
  amendment.absent = DocumentOf("[A]\n");
  amendment.set = DocumentOf("[A]\nx=2\n");
  EXPECT_FALSE(store.manager.Amend(amendment, store.Origin("60 t"), store.ticket));
  EXPECT_FALSE(store.book.HasPending());
}

TEST(TrialBook, ArmsNothingForAChangeThatIsRefused) {
  TriedStore store("[A]\nx=1\n");
  store.manager.SetMaxBytes(1);
  EXPECT_EQ(store.TryToTry("60 t", "[A]\nmuch=more\n").substr(0, 15), "the store holds");
  EXPECT_FALSE(store.book.HasPending());
}

TEST(TrialBook, ArmsNothingForAChangeThatIsNotSaved) {
  TriedStore store("[A]\nx=1\n");
  store.manager.MergeSettings(DocumentOf("[A]\nx=2\n"), settings::server::SettingsManager::kNoPersist,
                              store.Origin("60 t"), store.ticket);
  EXPECT_FALSE(store.book.HasPending());
}

TEST(TrialBook, ArmsNothingForAChangeOfNothing) {
  TriedStore store;
  store.Try("60 t", "");
  EXPECT_FALSE(store.book.HasPending());
}

TEST(TrialBook, LeavesAChangeUndoneThatCanNotBePutOnTrial) {
  TriedStore store("[A]\nx=1\n");
  for (const char* text : {"0 t", "3601 t", "x t", "60", "60 a/b", "60 .", "60 t u", "-1 t", "00060 t"}) {
    const std::string refusal = store.TryToTry(text, "[A]\nx=2\n");
    EXPECT_EQ(refusal, "'" + std::string(text) +
                           "' is no try: seconds from 1 to 3600, and a name of 1 to 64 of A-Z a-z 0-9 . _ -");
  }
  EXPECT_EQ(store.TryToTry("60 " + std::string(65, 'n'), "[A]\nx=2\n").substr(0, 5), "'60 n");
  EXPECT_EQ(store.TryToTry("60" + std::string(300, ' ') + "n", "[A]\nx=2\n").substr(0, 4), "'60 ");
  EXPECT_EQ(store.GetUser(), "[A]\nx=1\n");
}

TEST(TrialBook, BoundsHowManyArePending) {
  TriedStore store("[A]\nx=1\n");
  for (size_t i = 0; i < TriedStore::kMaxTrials; ++i) store.Try("60 t" + std::to_string(i), "[A]\nx=2\n");
  EXPECT_EQ(store.TryToTry("60 more", "[A]\nx=3\n"), "3 trials are pending already");
  EXPECT_EQ(store.GetUser(), "[A]\nx=2\n");
  EXPECT_EQ(store.TryToTry("60 t0", "[A]\nx=3\n"), "");
  store.Confirm("t1");
  EXPECT_EQ(store.TryToTry("60 more", "[A]\nx=4\n"), "");
}

TEST(TrialBook, IsEndedByWhoArmedItOrRoot) {
  TriedStore store;
  store.client = TriedStore::ClientOf(1000);
  store.Try("60 t", "[A]\nx=2\n");
  for (const auto& other : {TriedStore::ClientOf(1001), TriedStore::Tcp()}) {
    EXPECT_EQ(store.TryToConfirm("t", other), "trial 't' belongs to user 1000");
    EXPECT_EQ(store.TryToTry("60 t", "[A]\nx=3\n", other), "trial 't' belongs to user 1000");
    EXPECT_THROW(store.book.RequireRevertible("t", other), settings::server::RefusedChange);
  }
  EXPECT_NO_THROW(store.book.RequireRevertible("t", TriedStore::ClientOf(0)));
  EXPECT_EQ(store.TryToConfirm("t", TriedStore::ClientOf(1000)), "");
}

TEST(TrialBook, IsEndedByAnybodyWhenNobodyIsKnownToHaveArmedIt) {
  TriedStore store;
  store.client = TriedStore::Tcp();
  store.Try("60 t", "[A]\nx=2\n");
  EXPECT_EQ(store.TryToConfirm("t", TriedStore::ClientOf(1000)), "");
}

TEST(TrialBook, RefusesToEndWhatIsNotPending) {
  TriedStore store;
  EXPECT_EQ(store.TryToConfirm("t", store.client), "no trial is named 't'");
  store.Try("60 t", "[A]\nx=2\n");
  store.Confirm("t");
  EXPECT_EQ(store.TryToConfirm("t", store.client), "trial 't' is not pending: it was confirmed");
  store.Try("60 t", "[A]\nx=3\n");
  store.now += seconds(60);
  EXPECT_EQ(store.TryToConfirm("t", store.client), "trial 't' is not pending: its time is over");
  store.Revert("t");
  EXPECT_EQ(store.TryToConfirm("t", store.client), "trial 't' is not pending: it was reverted");
}

TEST(TrialBook, ForgetsWhatHasEndedAfterTenMinutes) {
  TriedStore store;
  store.Try("60 t", "[A]\nx=2\n");
  store.Confirm("t");
  store.now += minutes(10) - seconds(1);
  EXPECT_EQ(store.GetState("t"), "confirmed");
  store.now += seconds(1);
  EXPECT_EQ(store.GetState("t"), "none");
}

TEST(TrialBook, KeepsABoundedNumberOfWhatHasEnded) {
  TriedStore store;
  for (size_t i = 0; i < TrialBook::kMaxEnded + 10; ++i) {
    const std::string name = "t" + std::to_string(i);
    store.now += seconds(1);
    store.Try("60 " + name, "[A]\nx=2\n");
    store.Confirm(name);
  }
  EXPECT_EQ(store.book.FindKnown(store.now).size(), TrialBook::kMaxEnded);
  EXPECT_EQ(store.GetState("t0"), "none");
}

TEST(TrialBook, KnowsWhenTheNextOneGoesBack) {
  TriedStore store;
  EXPECT_FALSE(store.book.FindNextEnd());
  const auto begin = store.now;
  store.Try("90 one", "[A]\nx=2\n");
  store.Try("60 two", "[A]\ny=2\n");
  EXPECT_EQ(store.book.FindNextEnd(), begin + seconds(60));
  store.Confirm("two");
  EXPECT_EQ(store.book.FindNextEnd(), begin + seconds(90));
}

TEST(TrialBook, RefusesARevertThatWasPlannedBeforeAnotherWrite) {
  TriedStore store("[A]\nx=1\ny=1\n");
  store.Try("60 t", "[A]\nx=2\ny=2\n");
  const auto revert = store.PlanRevert("t");
  store.Merge("[A]\nx=3\n");
  EXPECT_THROW(store.CarryOutRevert("t", revert), TrialBook::OutdatedRevert);
  EXPECT_EQ(store.GetUser(), "[A]\nx=3\ny=2\n");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A]\nx=3\ny=1\n");
}

TEST(TrialBook, RefusesARevertThatWasPlannedBeforeTheConfirmation) {
  TriedStore store("[A]\nx=1\n");
  store.Try("60 t", "[A]\nx=2\n");
  const auto revert = store.PlanRevert("t");
  store.Confirm("t");
  EXPECT_THROW(store.CarryOutRevert("t", revert), TrialBook::OutdatedRevert);
  EXPECT_EQ(store.book.EndReverted("t", store.now), "");
  EXPECT_EQ(store.GetUser(), "[A]\nx=2\n");
}

TEST(TrialBook, RevertsBeyondTheBoundOfAFullStore) {
  TriedStore store("[A]\nx=" + std::string(1000, 'x') + "\n");
  store.Try("60 t", "[A]\nx=2\n");
  store.manager.SetMaxBytes(1);
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A]\nx=" + std::string(1000, 'x') + "\n");
}

TEST(TrialBook, ReadsOfOthersChangeNothing) {
  TriedStore store("[A]\nx=1\n");
  store.Try("60 t", "[A]\nx=2\n");
  EXPECT_EQ(store.GetSeen(), "[A]\nx=2\n");
  EXPECT_EQ(store.GetState("t"), "pending");
  store.Revert("t");
  EXPECT_EQ(store.GetUser(), "[A]\nx=1\n");
}

}  // namespace tavix::test
