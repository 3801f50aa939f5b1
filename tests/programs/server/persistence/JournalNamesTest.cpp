#include "programs/server/persistence/JournalNames.h"

#include <gtest/gtest.h>

namespace tavix::test {

using daemon::JournalNames;

TEST(JournalNames, JournalThatWasOpenedMayTakeItsPlaceOnce) {
  JournalNames names;
  names.OnOpened();
  const JournalNames::Number journal = names.GetCurrent();
  EXPECT_TRUE(names.MayTakePlace(journal));
  names.OnTookPlace(journal);
  EXPECT_FALSE(names.MayTakePlace(journal));
  EXPECT_EQ(names.GetOwner(), 0u);
}

TEST(JournalNames, JournalThatWasFoundHasTheNameWhereItWasFoundUnderIt) {
  JournalNames inPlace;
  inPlace.OnFound(true);
  EXPECT_EQ(inPlace.GetOwner(), 0u);
  JournalNames onItsWay;
  onItsWay.OnFound(false);
  EXPECT_TRUE(onItsWay.MayTakePlace(onItsWay.GetCurrent()));
}

TEST(JournalNames, NextJournalMayTakeItsPlaceOnlyOnceItIsTheCurrentOne) {
  JournalNames names;
  names.OnFound(true);
  const JournalNames::Number next = names.OnNextCreated();
  EXPECT_FALSE(names.MayTakePlace(next));
  names.OnReplaced(next);
  EXPECT_TRUE(names.MayTakePlace(next));
}

TEST(JournalNames, JournalThatWasReplacedOrGivenUpTakesNoPlace) {
  JournalNames names;
  names.OnOpened();
  const JournalNames::Number first = names.GetCurrent();
  names.OnGivenUp(false);
  EXPECT_FALSE(names.MayTakePlace(first));
  names.OnReplaced(names.OnNextCreated());
  EXPECT_FALSE(names.MayTakePlace(first));
}

TEST(JournalNames, UselessFileIsRemovedOnce) {
  JournalNames names;
  names.OnOpened();
  names.OnGivenUp(false);
  EXPECT_TRUE(names.TakeUselessName());
  EXPECT_FALSE(names.TakeUselessName());
}

TEST(JournalNames, FileIsNotUselessThatMayHoldWhatWasShownOrHasItsPlace) {
  JournalNames shown;
  shown.OnOpened();
  shown.OnGivenUp(true);
  EXPECT_FALSE(shown.TakeUselessName());
  JournalNames inPlace;
  inPlace.OnFound(true);
  inPlace.OnGivenUp(false);
  EXPECT_FALSE(inPlace.TakeUselessName());
}

// Its name is the next one's by then.
TEST(JournalNames, UselessFileThatANextJournalReplacedIsNotRemoved) {
  JournalNames names;
  names.OnOpened();
  names.OnGivenUp(false);
  names.OnNextCreated();
  EXPECT_FALSE(names.TakeUselessName());
}

TEST(JournalNames, NextJournalThatWasGivenUpLeavesAFileToRemoveUnlessTheCurrentOneHasTheName) {
  JournalNames names;
  names.OnFound(false);
  EXPECT_FALSE(names.ReleaseNext());
  EXPECT_TRUE(names.MayTakePlace(names.GetCurrent()));
  names.OnTookPlace(names.GetCurrent());
  names.OnNextCreated();
  EXPECT_TRUE(names.ReleaseNext());
  EXPECT_EQ(names.GetOwner(), 0u);
}

}  // namespace tavix::test
