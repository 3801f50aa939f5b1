// Groups of the user settings whose keys are in memory once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/AmendmentPlan.h"
#include "tavix/settings/server/ChangeNotifier.h"
#include "tavix/settings/server/ChangeRequest.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/LayerView.h"
#include "tavix/settings/server/PlannedChange.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/SharedPlaces.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tavix/settings/server/StoreAmendment.h"
#include "tavix/settings/server/StoreChange.h"
#include "tavix/settings/server/StoreDocuments.h"
#include "tests/support/DocumentText.h"
#include "tests/support/SharedUserSettings.h"

using tavix::core::IniFile;
using tavix::settings::Amendment;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::AmendmentPlan;
using tavix::settings::server::ChangeNotifier;
using tavix::settings::server::ChangeRequest;
using tavix::settings::server::ChangeTicket;
using tavix::settings::server::ISettingsPersister;
using tavix::settings::server::LayerView;
using tavix::settings::server::PlannedChange;
using tavix::settings::server::RefusedChange;
using tavix::settings::server::SettingsCombiner;
using tavix::settings::server::SharedPlaces;
using tavix::settings::server::StoreAccount;
using tavix::settings::server::StoreAmendment;
using tavix::settings::server::StoreChange;
using tavix::settings::server::StoreDocuments;
using tavix::test::DocumentOf;
using tavix::test::SharedUserSettings;
using tavix::test::ShareEqualGroups;
using tavix::test::TextOf;
using testing::ElementsAre;

namespace {

using Names = std::set<std::string>;

class NotingPersister : public ISettingsPersister {
 public:
  void LoadDefaultSettings(SettingsCombiner&) override {}
  void LoadUserSettings(SettingsCombiner&) override {}
  void SaveUserSettings(const IniFile&) override {}

  void PrepareChange(const PlannedChange&) override {
    if (refuses) throw RefusedChange(RefusedChange::Reason::kTrial, "not now");
  }

  ChangeTicket SaveChange(const SavedChange& change) override {
    user = TextOf(change.userSettings);
    saves.push_back(change.changedGroups);
    return 0;
  }

  bool NeedsWholeUserSettings() const override { return false; }

  std::string user;
  std::vector<Names> saves;
  bool refuses = false;
};

// A store whose groups A and B are shared; the defaults add a key to C.
struct SharedGroupsTest : testing::Test {
  SharedGroupsTest() { Load("[A]\nx=1\n[B]\nx=2\n[C]\nd=4\nx=3\n", "[A]\nx=1\n[B]\nx=2\n[C]\nx=3\n"); }

  void Load(const std::string& allText, const std::string& userText, const std::string& hiddenDefaults = {}) {
    const IniFile all = DocumentOf(allText);
    SharedUserSettings shared = ShareEqualGroups(all, DocumentOf(userText));
    const tavix::osa::WriteAutoLock lock(documents.GetLock());
    StoreChange::ReplaceAll(documents, all, std::move(shared.settings), {DocumentOf(hiddenDefaults), {}, {}},
                            std::move(shared.shared));
  }

  void Merge(const std::string& text, bool isPersistent = true) {
    const IniFile settings = DocumentOf(text);
    ChangeRequest request;
    request.Merge(settings);
    if (!isPersistent) request.KeepUserSettings();
    ASSERT_TRUE(StoreChange(documents, &persister, notifier, request).Make());
  }

  void Overwrite(const std::string& group, const std::string& text) {
    const IniFile settings = DocumentOf(text);
    const Names groups{group};
    GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(groups);
    ChangeRequest request;
    request.RemoveVisible(matcher, groups);
    request.Merge(settings);
    ASSERT_TRUE(StoreChange(documents, &persister, notifier, request).Make());
  }

  void Amend(const StoreAmendment& amendment) {
    AmendmentPlan plan(amendment, amendment.drop);
    ChangeTicket ticket = 0;
    ASSERT_TRUE(StoreChange::Amend(documents, &persister, notifier, plan, {}, {}, ticket));
  }

  // What the account of the store should have counted.
  size_t CountBytes() {
    return StoreAccount::Count(documents.GetAll()) + StoreAccount::Count(documents.GetUser().GetGroups()) +
           StoreAccount::Count(documents.GetHidden().defaults);
  }

  // Nothing that makes the store larger has room.
  void Fill() { documents.SetMaxBytes(documents.GetAccount().GetBytes()); }

  Names FindShared() {
    Names shared;
    for (const auto& group : documents.GetUser().GetGroups()) {
      if (documents.GetUser().IsShared(group.first)) shared.insert(group.first);
    }
    return shared;
  }

  StoreDocuments documents{"Record"};
  NotingPersister persister;
  ChangeNotifier notifier;
};

TEST_F(SharedGroupsTest, StaySharedWhenBothLayersGetAlikeSettings) {
  Merge("[A]\nx=1\n[B]\nx=9\ny=5\n[C]\nx=3\n");
  EXPECT_THAT(persister.saves, ElementsAre(Names{"B"}));
  EXPECT_EQ(persister.user, "[A]\nx=1\n[B]\nx=9\ny=5\n[C]\nx=3\n");
  EXPECT_EQ(FindShared(), (Names{"A", "B"}));
  EXPECT_EQ(documents.GetUser().CountSharedKeys(), 3u);
}

TEST_F(SharedGroupsTest, AreSavedForNewKeysAlone) {
  Merge("[A]\ny=1\n");
  Merge("[B]\n");
  EXPECT_THAT(persister.saves, ElementsAre(Names{"A"}, Names{}));
  EXPECT_EQ(documents.GetUser().CountSharedKeys(), 3u);
}

TEST_F(SharedGroupsTest, BecomeOwnOnesWhenReadersAloneGetSettings) {
  Merge("[A]\nx=7\n[C]\nx=7\n", false);
  EXPECT_EQ(TextOf(LayerView(documents.GetUser())), "[A]\nx=1\n[B]\nx=2\n[C]\nx=3\n");
  EXPECT_EQ(TextOf(documents.GetAll()), "[A]\nx=7\n[B]\nx=2\n[C]\nd=4\nx=7\n");
  EXPECT_EQ(FindShared(), (Names{"B"}));
  EXPECT_EQ(documents.GetUser().CountSharedKeys(), 1u);
  Merge("[A]\nx=7\n");
  EXPECT_THAT(persister.saves, ElementsAre(Names{"A"}));
}

TEST_F(SharedGroupsTest, AreReplacedByShorterOnesInAFullStore) {
  Merge("[A]\nx=" + std::string(2000, 'v') + "\n");
  EXPECT_EQ(FindShared(), (Names{"A", "B"}));
  Fill();
  const std::string shorter = "[A]\nx=" + std::string(1500, 'v') + "\n";
  Overwrite("A", shorter);
  EXPECT_EQ(TextOf(documents.GetAll()), shorter + "[B]\nx=2\n[C]\nd=4\nx=3\n");
  EXPECT_EQ(persister.user, shorter + "[B]\nx=2\n[C]\nx=3\n[Record]\nA=A\n");
  EXPECT_EQ(FindShared(), Names{"B"});
  EXPECT_THROW(Overwrite("B", "[B]\nx=" + std::string(2000, 'v') + "\n"), RefusedChange);
}

TEST_F(SharedGroupsTest, AreSetAgainByALongChangeInAFullStore) {
  const std::string text = "[A]\nx=" + std::string(20'000, 'v') + "\n";
  Load(text, text);
  Fill();
  Merge(text);
  EXPECT_THAT(persister.saves, ElementsAre(Names{}));
  EXPECT_EQ(TextOf(documents.GetAll()), text);
  EXPECT_EQ(persister.user, text);
  EXPECT_THROW(Merge("[B]\nx=" + std::string(20'000, 'v') + "\n"), RefusedChange);
}

TEST_F(SharedGroupsTest, StaySharedWhenAnAmendmentMakesBothLayersAlike) {
  StoreAmendment amendment;
  amendment.set = DocumentOf("[A]\nx=9\ny=5\n");
  amendment.replace = DocumentOf("[B]\ny=2\nz=2\n");
  Amend(amendment);
  EXPECT_THAT(persister.saves, ElementsAre(Names{"A", "B"}));
  EXPECT_EQ(persister.user, "[A]\nx=9\ny=5\n[B]\ny=2\nz=2\n[C]\nx=3\n[Record]\nB=B\n");
  EXPECT_EQ(TextOf(documents.GetAll()), "[A]\nx=9\ny=5\n[B]\ny=2\nz=2\n[C]\nd=4\nx=3\n");
  EXPECT_EQ(FindShared(), (Names{"A", "B"}));
  EXPECT_EQ(documents.GetUser().CountSharedKeys(), 4u);
  EXPECT_EQ(documents.GetAccount().GetBytes(), CountBytes());
}

TEST_F(SharedGroupsTest, LoseKeysInBothLayersByAnAmendment) {
  Merge("[A]\ny=1\n");
  StoreAmendment amendment;
  amendment.unset = DocumentOf("[A]\nx=\n[B]\nx=\n");
  Amend(amendment);
  EXPECT_EQ(persister.user, "[A]\ny=1\n[C]\nx=3\n");
  EXPECT_EQ(TextOf(documents.GetAll()), "[A]\ny=1\n[C]\nd=4\nx=3\n");
  EXPECT_EQ(FindShared(), Names{"A"});
  EXPECT_EQ(documents.GetUser().CountSharedKeys(), 1u);
  EXPECT_EQ(documents.GetAccount().GetBytes(), CountBytes());
}

TEST_F(SharedGroupsTest, BecomeOwnOnesWhenAnAmendmentShowsADefault) {
  Load("[A]\nx=1\ny=1\n[B]\nx=2\n", "[A]\nx=1\ny=1\n[B]\nx=2\n", "[A]\nx=default\n[B]\nx=default\n");
  StoreAmendment amendment;
  amendment.set = DocumentOf("[A]\nz=" + std::string(500, 'v') + "\n");
  amendment.unset = DocumentOf("[A]\nx=\n");
  amendment.drop = DocumentOf("[B]\n");
  Fill();
  EXPECT_THROW(Amend(amendment), RefusedChange);
  documents.SetMaxBytes(0);
  Amend(amendment);
  const std::string rest = "y=1\nz=" + std::string(500, 'v') + "\n";
  EXPECT_EQ(persister.user, "[A]\n" + rest);
  EXPECT_EQ(TextOf(documents.GetAll()), "[A]\nx=default\n" + rest + "[B]\nx=default\n");
  EXPECT_FALSE(documents.GetUser().HasShared());
  EXPECT_EQ(documents.GetUser().CountSharedKeys(), 0u);
  EXPECT_EQ(documents.GetAccount().GetBytes(), CountBytes());
}

// The copy that a group takes is no reason to refuse what erases.
TEST_F(SharedGroupsTest, LoseKeysInAFullStoreThoughACopyIsMade) {
  const std::string rest = "y=" + std::string(2000, 'v') + "\n";
  Load("[A]\nx=1\n" + rest, "[A]\nx=1\n" + rest, "[A]\nx=0\n");
  Fill();
  StoreAmendment amendment;
  amendment.unset = DocumentOf("[A]\nx=\n");
  Amend(amendment);
  EXPECT_EQ(persister.user, "[A]\n" + rest);
  EXPECT_EQ(TextOf(documents.GetAll()), "[A]\nx=0\n" + rest);
  EXPECT_EQ(documents.GetAccount().GetBytes(), CountBytes());
}

TEST_F(SharedGroupsTest, AreAsTheyWereBehindAmendmentsThatAreRefused) {
  const std::string user = "[A]\nx=" + std::string(2000, 'v') + "\n[B]\nx=2\n";
  Load(user, user, "[A]\nx=default\n");
  StoreAmendment amendment;
  amendment.unset = DocumentOf("[A]\nx=\n");
  amendment.set = DocumentOf("[A]\ny=1\n[B]\nx=" + std::string(9000, 'v') + "\n");
  documents.SetMaxBytes(documents.GetAccount().GetBytes() + 4000);
  const size_t bytes = documents.GetAccount().GetBytes();
  for (const bool isFull : {true, false}) {
    if (!isFull) documents.SetMaxBytes(0);
    persister.refuses = !isFull;
    for (int i = 0; i < 100; ++i) {
      EXPECT_THROW(Amend(amendment), RefusedChange);
      EXPECT_EQ(documents.GetAccount().GetBytes(), bytes);
    }
  }
  EXPECT_EQ(TextOf(documents.GetAll()), user);
  EXPECT_EQ(FindShared(), (Names{"A", "B"}));
  persister.refuses = false;
  documents.SetMaxBytes(bytes + 4000);
  Merge("[B]\nx=" + std::string(3500, 'v') + "\n");
}

TEST_F(SharedGroupsTest, ThatBecomeOwnOnesBehindAPlanOutdateIt) {
  Amendment amendment;
  amendment.set = DocumentOf("[A]\nx=9\n");
  AmendmentPlan plan(amendment);
  {
    const tavix::osa::ReadAutoLock lock(documents.GetLock());
    ASSERT_TRUE(plan.Make(documents));
    EXPECT_FALSE(plan.GetEdits().user.Touches("A"));
  }
  documents.OwnGroups(amendment.set);
  const tavix::osa::ReadAutoLock lock(documents.GetLock());
  ASSERT_TRUE(plan.Make(documents));
  EXPECT_TRUE(plan.GetEdits().user.Touches("A"));
}

TEST(SharedPlaces, KnowTheirGroupsUntilTheyLeave) {
  const std::vector<IniFile::KeyMap> groups(2000);
  SharedPlaces places(1000);
  for (size_t i = 0; i < 1000; ++i) places.Add(groups[2 * i], 3);
  for (size_t i = 0; i < groups.size(); ++i) EXPECT_EQ(places.Has(groups[i]), i % 2 == 0) << i;
  EXPECT_EQ(places.CountKeys(), 3000u);
  for (size_t i = 0; i < 999; ++i) places.Remove(groups[2 * i], 3);
  for (size_t i = 0; i < groups.size(); ++i) EXPECT_EQ(places.Has(groups[i]), i == 1998) << i;
  places.AddKeys(2);
  places.Remove(groups[1998], 5);
  EXPECT_TRUE(places.IsEmpty());
  EXPECT_EQ(places.CountKeys(), 0u);
  EXPECT_FALSE(places.Has(groups[1998]));
}

}  // namespace
