#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tavix/settings/Amendment.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"

// What a change replaced, down to the persister.

namespace {

using tavix::settings::Amendment;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::ChangeTicket;
using tavix::settings::server::SettingsManager;
using tavix::test::DocumentOf;
using tavix::test::MemoryPersister;
using tavix::test::TextOf;

class OldSettingsPersister : public MemoryPersister {
 public:
  using MemoryPersister::MemoryPersister;

  bool NeedsOldSettings() const override { return needsThem; }

  ChangeTicket SaveChange(const SavedChange& change) override {
    before = change.before ? TextOf(*change.before) : "none";
    return MemoryPersister::SaveChange(change);
  }

  bool needsThem = true;
  std::string before;
};

struct SettingsManagerOldSettings : testing::Test {
  static constexpr char kUser[] = "[A]\nx=1\ny=2\n[B]\nx=1\n[C]\n";

  OldSettingsPersister persister{{"[A]\nx=default\n[D]\nx=default\n"}, kUser};
  SettingsManager store{&persister, nullptr, nullptr, false};
};

TEST_F(SettingsManagerOldSettings, AreNotCopiedUnlessThePersisterNeedsThem) {
  persister.needsThem = false;
  store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  EXPECT_EQ(persister.before, "none");
}

TEST_F(SettingsManagerOldSettings, AreTheGroupsThatAMergeChanges) {
  store.MergeSettings(DocumentOf("[A]\nx=2\n[B]\nx=1\n[New]\nx=1\n"), 0);
  EXPECT_EQ(persister.before, "[A]\nx=1\ny=2\n");
}

TEST_F(SettingsManagerOldSettings, AreTheGroupsThatGo) {
  store.OverwriteSettings(std::set<std::string>{"A", "D"}, DocumentOf("[B]\nz=1\n"));
  EXPECT_EQ(persister.before, "[A]\nx=1\ny=2\n[B]\nx=1\n");
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern("C");
  store.RestoreToDefaults(matcher);
  EXPECT_EQ(persister.before, "[C]\n");
}

TEST_F(SettingsManagerOldSettings, AreThoseOfAnAmendment) {
  Amendment amendment;
  amendment.set = DocumentOf("[B]\nx=2\n");
  amendment.unset = DocumentOf("[A]\nx=\n");
  EXPECT_TRUE(store.Amend(amendment));
  EXPECT_EQ(persister.before, "[A]\nx=1\ny=2\n[B]\nx=1\n");
}

// More groups than are changed without a plan.
TEST_F(SettingsManagerOldSettings, AreThoseOfALongChange) {
  tavix::core::IniFile many;
  for (int i = 0; i < 100; ++i) many.SetValue("Many/" + std::to_string(i), "x", "1");
  store.MergeSettings(many, 0);
  EXPECT_EQ(persister.before, "");
  tavix::core::IniFile others = many;
  for (auto& group : others) group.second["x"] = "2";
  store.MergeSettings(others, 0);
  EXPECT_EQ(persister.before, TextOf(many));
}

TEST_F(SettingsManagerOldSettings, HaveTheRecordWhenItWasThereWithoutAName) {
  store.OverwriteSettings(std::string("A"), {});
  EXPECT_EQ(persister.before, "[A]\nx=1\ny=2\n");
  OldSettingsPersister withRecord({}, "[TavixSettings/Data/DeletedGroups]\n");
  SettingsManager other(&withRecord, nullptr, nullptr, false);
  other.OverwriteSettings(std::string("A"), {});
  EXPECT_EQ(withRecord.before, "[TavixSettings/Data/DeletedGroups]\n");
}

}  // namespace
