#include "tavix/settings/server/PlannedChange.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tavix/settings/Amendment.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tavix/settings/server/StoreAmendment.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"

// What a persister is told before a change, and may refuse.

namespace {

using tavix::core::IniFile;
using tavix::settings::Amendment;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::ChangeOrigin;
using tavix::settings::server::ChangeTicket;
using tavix::settings::server::PlannedChange;
using tavix::settings::server::RefusedChange;
using tavix::settings::server::SettingsManager;
using tavix::settings::server::StoreAmendment;
using tavix::test::DocumentOf;
using tavix::test::MemoryPersister;
using tavix::test::TextOf;

template <class Names>
std::string ListOf(const Names* names) {
  std::string list;
  if (names) {
    for (const auto& name : *names) list += name + " ";
  }
  return list;
}

std::string TextOrNone(const IniFile* document) {
  return document ? TextOf(*document) : "";
}

class AskedPersister : public MemoryPersister {
 public:
  using MemoryPersister::MemoryPersister;

  void PrepareChange(const PlannedChange& change) override {
    isSaved = change.isSaved;
    before = TextOf(change.userSettings);
    removed = ListOf(change.removed);
    recorded = ListOf(change.recorded);
    recordErased = ListOf(change.recordErased);
    set = TextOrNone(change.set);
    unset = TextOrNone(change.unset);
    replaced = TextOrNone(change.replaced);
    asked = change.asked ? ListOf(&change.asked->GetPatterns()) : "";
    recordSet = change.recordSet ? change.recordSet->size() : 0;
    if (refuses) throw RefusedChange(RefusedChange::Reason::kTrial, "no");
  }

  bool refuses = false;
  bool isSaved = false;
  size_t recordSet = 0;
  std::string before, removed, recorded, recordErased, set, unset, replaced, asked;
};

struct SettingsManagerPlannedChange : testing::Test {
  static constexpr char kUser[] = "[A]\nx=1\n[B]\nx=1\n[TavixSettings/Data/DeletedGroups]\nD=D\n";

  AskedPersister persister{{"[D]\nx=default\n"}, kUser};
  SettingsManager store{&persister, nullptr, nullptr, false};
};

TEST_F(SettingsManagerPlannedChange, OfAMergeIsWhatItSetsAlsoTheSameValue) {
  store.MergeSettings(DocumentOf("[A]\nx=1\n[Secure/C]\nx=1\n"), 0);
  EXPECT_EQ(persister.set, "[A]\nx=1\n");
  EXPECT_EQ(persister.before, kUser);
  EXPECT_TRUE(persister.isSaved);
}

TEST_F(SettingsManagerPlannedChange, OfWhatIsNotSavedSaysSo) {
  store.MergeSettings(DocumentOf("[A]\nx=2\n"), SettingsManager::kNoPersist);
  EXPECT_EQ(persister.set, "[A]\nx=2\n");
  EXPECT_FALSE(persister.isSaved);
}

TEST_F(SettingsManagerPlannedChange, OfAnOverwriteIsWhatGoesAndWhatIsRecorded) {
  store.OverwriteSettings(std::set<std::string>{"A*", "C"}, DocumentOf("[C]\nx=1\n"));
  EXPECT_EQ(persister.removed, "A ");
  EXPECT_EQ(persister.asked, "A* ");
  EXPECT_EQ(persister.recorded, "A* C ");
  EXPECT_EQ(persister.recordSet, 2U);
  EXPECT_EQ(persister.set, "[C]\nx=1\n");
}

TEST_F(SettingsManagerPlannedChange, OfARestoreIsWhatGoesTheRecordIncluded) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern("*");
  store.RestoreToDefaults(matcher);
  EXPECT_EQ(persister.removed, "A B TavixSettings/Data/DeletedGroups ");
  EXPECT_EQ(persister.recorded, "");
  EXPECT_EQ(persister.set, "[D]\nx=default\n");
}

TEST_F(SettingsManagerPlannedChange, OfAnAmendmentIsAllThatItNames) {
  Amendment amendment;
  amendment.set = DocumentOf("[A]\nx=1\n[Secure/C]\nx=1\n");
  amendment.unset = DocumentOf("[D]\n");
  amendment.replace = DocumentOf("[B]\ny=2\n");
  ASSERT_TRUE(store.Amend(amendment));
  EXPECT_EQ(persister.set, "[A]\nx=1\n");
  EXPECT_EQ(persister.unset, "[D]\n");
  EXPECT_EQ(persister.replaced, "[B]\ny=2\n");
  EXPECT_EQ(persister.removed, "B ");
  EXPECT_EQ(persister.recordErased, "D ");
  EXPECT_EQ(persister.recordSet, 1U);
}

TEST_F(SettingsManagerPlannedChange, OfDroppedGroupsIsWhatGoesWithoutBeingRecorded) {
  StoreAmendment amendment;
  amendment.drop = DocumentOf("[B]\n[TavixSettings/Data/DeletedGroups]\n[Secure/C]\n");
  amendment.replace = DocumentOf("[A]\n");
  ChangeTicket ignored = 0;
  ASSERT_TRUE(store.Amend(amendment, ChangeOrigin(), ignored));
  EXPECT_EQ(persister.removed, "A B ");
  EXPECT_EQ(persister.recorded, "A ");
  EXPECT_EQ(persister.recordSet, 1U);
  EXPECT_EQ(persister.recordErased, "");
}

TEST_F(SettingsManagerPlannedChange, ThatIsRefusedChangesNothing) {
  persister.refuses = true;
  EXPECT_THROW(store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0), RefusedChange);
  EXPECT_THROW(store.OverwriteSettings("A", IniFile()), RefusedChange);
  Amendment amendment;
  amendment.unset = DocumentOf("[A]\n");
  EXPECT_THROW(static_cast<void>(store.Amend(amendment)), RefusedChange);
  EXPECT_EQ(persister.CountSaves(), 0);
  EXPECT_EQ(store.FindValue("A", "x"), "1");
}

TEST_F(SettingsManagerPlannedChange, ThatFailsItsConditionIsNotAskedFor) {
  persister.set = "not asked";
  EXPECT_FALSE(store.TestAndMerge(DocumentOf("[A]\nx=9\n"), DocumentOf("[A]\nx=2\n")));
  EXPECT_EQ(persister.set, "not asked");
}

TEST_F(SettingsManagerPlannedChange, OfARevertHasNoBound) {
  store.SetMaxBytes(1);
  Amendment amendment;
  amendment.set = DocumentOf("[A]\nlong=" + std::string(1000, 'x') + "\n");
  EXPECT_THROW(static_cast<void>(store.Amend(amendment)), RefusedChange);
  ChangeOrigin origin;
  origin.isRevert = true;
  ChangeTicket ticket = 0;
  EXPECT_TRUE(store.Amend(amendment, origin, ticket));
}

}  // namespace
