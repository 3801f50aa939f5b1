#include "tavix/settings/server/StoreAmendment.h"

#include <gtest/gtest.h>

#include <string>

#include "tavix/osa/Exception.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ServedStore.h"

// Amendments by the store's own host. What clients can ask for is tested with SettingsManager.

namespace tavix::test {

using settings::server::ChangeOrigin;
using settings::server::ChangeTicket;
using settings::server::SettingsManager;
using settings::server::StoreAmendment;

namespace {

const std::string kRecord = std::string("[") + SettingsManager::kDeletedGroups + "]\n";

bool Amend(ServedStore& served, const StoreAmendment& amendment) {
  ChangeTicket ignored = 0;
  return served.store.Amend(amendment, ChangeOrigin(), ignored);
}

}  // namespace

TEST(StoreAmendment, ADroppedGroupGoesAndTheRecordStaysAsItIs) {
  const std::string record = kRecord + "B=B\n";
  ServedStore served({"[A]\nd=1\n[B]\nd=1\n"}, "[A]\nx=1\n[B]\nx=1\n[C]\nx=1\ny=1\n" + record);
  StoreAmendment amendment;
  amendment.drop = DocumentOf("[A]\n[B]\n[C]\nkey=\n" + kRecord);
  amendment.set = DocumentOf("[C]\nx=2\n");
  ASSERT_TRUE(Amend(served, amendment));
  EXPECT_EQ(UserSettingsOf(served.store), "[C]\nx=2\n" + record);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nd=1\n[C]\nx=2\n");
}

TEST(StoreAmendment, ADroppedGroupMayBeInEveryOtherChange) {
  ServedStore served({}, "[A]\nx=1\n[B]\nx=1\n[C]\nx=1\n" + kRecord + "C=C\n");
  StoreAmendment amendment;
  amendment.drop = DocumentOf("[A]\n[B]\n[C]\n");
  amendment.replace = DocumentOf("[A]\ny=2\n");
  amendment.unset = DocumentOf("[B]\nx=\n[C]\n");
  ASSERT_TRUE(Amend(served, amendment));
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\ny=2\n" + kRecord + "A=A\n");
}

TEST(StoreAmendment, ADroppedGroupMayHaveTheNameOfAPattern) {
  ServedStore served({"[A]\nd=1\n"}, "[A]\nx=1\n[A*]\nx=1\n");
  StoreAmendment amendment;
  amendment.drop = DocumentOf("[A*]\n");
  ASSERT_TRUE(Amend(served, amendment));
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=1\n");
}

namespace {

bool AmendAsChosen(ServedStore& served, const StoreAmendment& early, const SettingsManager::ChooseAmendment& choose) {
  ChangeTicket ignored = 0;
  return served.store.AmendAsChosen(early, choose, ChangeOrigin(), ignored);
}

StoreAmendment Set(const std::string& text) {
  StoreAmendment amendment;
  amendment.set = DocumentOf(text);
  return amendment;
}

}  // namespace

TEST(ChosenAmendment, IsTheEarlyOneOrAnotherOrNone) {
  ServedStore served({}, "[A]\nx=1\n");
  const StoreAmendment early = Set("[A]\nx=2\n");
  const StoreAmendment late = Set("[A]\nx=3\n");
  EXPECT_FALSE(AmendAsChosen(served, early, [](const auto&) { return nullptr; }));
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=1\n");
  EXPECT_TRUE(AmendAsChosen(served, early, [&](const auto&) { return &early; }));
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=2\n");
  EXPECT_TRUE(AmendAsChosen(served, early, [&](const auto&) { return &late; }));
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=3\n");
}

TEST(ChosenAmendment, IsChosenByTheUserSettingsThatItChanges) {
  ServedStore served({"[A]\nd=1\n"}, "[A]\nx=1\n");
  std::string seen;
  const StoreAmendment early = Set("[A]\nx=2\n");
  EXPECT_TRUE(AmendAsChosen(served, early, [&](const settings::server::LayerView& user) {
    seen = TextOf(user);
    return &early;
  }));
  EXPECT_EQ(seen, "[A]\nx=1\n");
}

TEST(ChosenAmendment, ThatContradictsItselfIsNotMade) {
  ServedStore served({}, "[A]\nx=1\n");
  StoreAmendment bad = Set("[A]\nx=2\n");
  bad.unset = DocumentOf("[A]\nx=\n");
  bool isAsked = false;
  const auto choose = [&](const auto&) {
    isAsked = true;
    return &bad;
  };
  EXPECT_FALSE(AmendAsChosen(served, bad, choose));
  EXPECT_FALSE(isAsked);
  EXPECT_FALSE(AmendAsChosen(served, StoreAmendment(), choose));
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=1\n");
}

TEST(ChosenAmendment, WhatItsChoiceThrowsPassesThrough) {
  ServedStore served({}, "[A]\nx=1\n");
  const auto choose = [](const auto&) -> const StoreAmendment* { throw osa::Exception("none"); };
  EXPECT_THROW(AmendAsChosen(served, StoreAmendment(), choose), osa::Exception);
  served.store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=2\n");
}

}  // namespace tavix::test
