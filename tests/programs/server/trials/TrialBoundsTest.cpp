#include <gtest/gtest.h>

#include <set>
#include <string>

#include "programs/server/trials/TrialBook.h"
#include "tests/programs/server/trials/TriedStore.h"

// What trials may take in memory, and what they cost others.

namespace tavix::test {

using daemon::TrialBook;

namespace {

std::string Keys(size_t count, const std::string& value) {
  std::string text = "[A]\n";
  for (size_t i = 0; i < count; ++i) text += "key" + std::to_string(i) + "=" + value + "\n";
  return text;
}

}  // namespace

TEST(TrialBounds, AChangeIsRefusedWhoseOldValuesWouldTakeTooMuch) {
  TriedStore store("[A]\nx=" + std::string(2000, 'x') + "\n", "", 2000);
  EXPECT_EQ(store.TryToTry("60 t", "[A]\nx=2\n").substr(0, 64),
            "what is on trial takes about 0 bytes of the 2000 allowed, and wo");
  EXPECT_FALSE(store.book.HasPending());
  EXPECT_EQ(store.TryToTry("60 t", "[A]\ny=2\n"), "");
}

TEST(TrialBounds, AreForAllTrialsTogether) {
  TriedStore store("", "", 900);
  EXPECT_EQ(store.TryToTry("60 one", Keys(3, "1")), "");
  EXPECT_NE(store.TryToTry("60 two", "[B]\nx=1\ny=1\nz=1\n"), "");
  store.Confirm("one");
  EXPECT_EQ(store.TryToTry("60 two", "[B]\nx=1\ny=1\nz=1\n"), "");
}

TEST(TrialBounds, TheSameSettingsAgainTakeNothing) {
  TriedStore store("", "", 900);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(store.TryToTry("60 t", Keys(3, std::to_string(i))), "");
}

TEST(TrialBounds, WhatOthersWroteSinceCountsUntilItIsTriedAgain) {
  TriedStore store("", "", 900);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(store.TryToTry("60 t", Keys(3, "1")), "");
    store.Merge(Keys(3, "2"));
  }
  EXPECT_NE(store.TryToTry("60 t", "[B]\nx=1\ny=1\nz=1\n"), "");
}

TEST(TrialBounds, WhatHasEndedMakesRoom) {
  TriedStore store("", "", 900);
  for (int i = 0; i < 10; ++i) {
    const std::string name = "t" + std::to_string(i);
    EXPECT_EQ(store.TryToTry("60 " + name, Keys(3, "1")), "");
    store.Merge(Keys(3, "2"));
    store.Revert(name);
  }
  EXPECT_EQ(store.GetState("t9"), "reverted");
  EXPECT_EQ(store.GetState("t0"), "none");
}

TEST(TrialBounds, ATrialOfManySettingsGoesBackInParts) {
  const size_t many = 2 * TrialBook::kMaxAtOnce + 1;
  TriedStore store(Keys(many, "1"));
  store.Try("60 t", Keys(many, "2"));
  EXPECT_EQ(store.GetSettings("t").size(), many);
  store.Revert("t");
  EXPECT_EQ(DocumentOf(store.GetUser()).GetValue("A", "key0"), "1");
  EXPECT_EQ(store.GetUser(), TextOf(DocumentOf(Keys(many, "1"))));
}

TEST(TrialBounds, WhatATrialHeldIsHandedOutWhenItEnds) {
  TriedStore store;
  store.Try("60 one", Keys(3, "1"));
  store.Revert("one");
  EXPECT_EQ(store.book.TakeReleased().size(), 3U);
  store.Try("60 two", Keys(2, "1"));
  store.Confirm("two");
  EXPECT_EQ(store.book.TakeReleased().size(), 2U);
  EXPECT_TRUE(store.book.TakeReleased().empty());
}

}  // namespace tavix::test
