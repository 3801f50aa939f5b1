#include "tavix/settings/server/StoreAccount.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>

#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/RandomDocument.h"
#include "tests/support/StoreModel.h"

namespace tavix::test {

using core::IniFile;
using settings::common::GroupNameMatcher;
using settings::server::RefusedChange;
using settings::server::SettingsManager;
using settings::server::StoreAccount;

namespace {

size_t Count(const StoreModel::Groups& groups) {
  return StoreAccount::Count(IniFile(groups));
}

// What all layers take, counted anew. Of unsaved settings the store keeps the keys.
size_t CountAnew(const StoreModel& model) {
  StoreModel::Groups unsaved = model.GetUnsaved();
  for (auto& group : unsaved) {
    for (auto& setting : group.second) setting.second.clear();
  }
  return Count(model.all) + Count(model.user) + Count(model.FindHiddenDefaults()) + Count(unsaved);
}

size_t CountKeys(const IniFile& document) {
  size_t keys = 0;
  for (const auto& group : document) keys += group.second.size();
  return keys;
}

// What the store knows of its size is what it holds.
void ExpectSizesCountedAnew(const SettingsManager& store) {
  const IniFile all(DocumentOf(AllSettingsOf(store)));
  IniFile user(DocumentOf(UserSettingsOf(store)));
  user.RemoveGroup(SettingsManager::kDeletedGroups);
  const SettingsManager::Sizes sizes = store.GetSizes();
  EXPECT_EQ(sizes.allGroups, all.GetGroups().size());
  EXPECT_EQ(sizes.allKeys, CountKeys(all));
  EXPECT_EQ(sizes.userGroups, user.GetGroups().size());
  EXPECT_EQ(sizes.userKeys, CountKeys(user));
  size_t nameBytes = 0;
  for (const auto& group : all) nameBytes += group.first.size();
  EXPECT_EQ(store.CountNameBytes(), nameBytes);
}

GroupNameMatcher MatcherOf(const std::string& nameOrPattern) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(nameOrPattern);
  return matcher;
}

// What is copied before the store's lock is taken, with some keys of small documents.
IniFile MakeLarge(IniFile document, std::mt19937& random) {
  for (int i = 0; i < 80; ++i) document.SetValue("N" + std::to_string(random() % 200), "y", std::to_string(random()));
  document.SetValue(SettingsManager::kDeletedGroups, std::to_string(random() % 3), "M" + std::to_string(random() % 3));
  return document;
}

// A store and its model, which are changed alike.
struct ModelledStore {
  ModelledStore(const StoreModel::Groups& defaults, const std::string& user)
      : model(defaults, {}), persister({StoreModel::TextOf(defaults)}, user) {
    model.user = DocumentOf(user).GetGroups();
    model.Load();
    store.LoadSettings();
  }

  void MakeRandomChange(RandomDocuments& documents, std::mt19937& random) {
    IniFile document(documents.Next());
    if (random() % 4 == 0) document = MakeLarge(document, random);
    const StoreModel::Groups groups = document.GetGroups();
    const std::string group = document.IsEmpty() ? "A" : document.begin()->first;
    switch (random() % 6) {
      case 0:
        store.OverwriteSettings(std::set<std::string>{group, "A", "N*"}, document);
        static_cast<void>(model.Overwrite({group, "A", "N*"}, groups));
        return;
      case 1:
        store.OverwriteSettings(group, IniFile());
        static_cast<void>(model.Overwrite({group}, {}));
        return;
      case 2:
        return Restore(random() % 4 == 0 ? "*" : group);
      default:
        return Merge(document, random() % 3 > 0);
    }
  }

  void Restore(const std::string& nameOrPattern) {
    store.RestoreToDefaults(MatcherOf(nameOrPattern));
    static_cast<void>(model.Restore({nameOrPattern}));
  }

  void Merge(const IniFile& document, bool isPersistent) {
    store.MergeSettings(document, isPersistent ? 0 : SettingsManager::kNoPersist);
    static_cast<void>(model.Merge(document.GetGroups(), isPersistent));
  }

  StoreModel model;
  MemoryPersister persister;
  SettingsManager store{&persister, nullptr, nullptr, true};
};

const StoreModel::Groups kDefaults = [] {
  StoreModel::Groups defaults{{"A", {{"x", "1"}}}, {"Empty", {}}};
  for (int i = 0; i < 150; ++i) {
    auto& group = defaults["N" + std::to_string(i)];
    group = {{"y", "a value that is longer than a string holds in itself"}, {"z", "1"}};
  }
  return defaults;
}();

}  // namespace

TEST(StoreAccount, IsThatOfTheDocumentsAndWhatTheyHideAfterAnyChanges) {
  RandomDocuments documents(2);
  std::mt19937 random(3);
  ModelledStore both(kDefaults, "[N1]\nz=2\n[TavixSettings/Data/DeletedGroups]\nN2=N2\n");
  ASSERT_EQ(both.store.GetApproximateBytes(), CountAnew(both.model));
  for (int i = 0; i < 300; ++i) {
    both.MakeRandomChange(documents, random);
    ASSERT_EQ(AllSettingsOf(both.store), StoreModel::TextOf(both.model.all)) << i;
    ASSERT_EQ(both.store.GetApproximateBytes(), CountAnew(both.model)) << i;
  }
}

TEST(StoreAccount, KnowsGroupsKeysAndBytesOfNamesAfterAnyChanges) {
  RandomDocuments documents(5);
  std::mt19937 random(7);
  ModelledStore both(kDefaults, "[B]\nx=1\n[TavixSettings/Data/DeletedGroups]\nC=C\n");
  ExpectSizesCountedAnew(both.store);
  for (int i = 0; i < 300 && !testing::Test::HasFailure(); ++i) {
    SCOPED_TRACE(i);
    both.MakeRandomChange(documents, random);
    ExpectSizesCountedAnew(both.store);
  }
}

TEST(StoreAccount, KnowsWhatWasLoadedAgain) {
  MemoryPersister persister({"[A]\nx=1\n"}, "[B]\nx=1\ny=2\n");
  SettingsManager store(&persister, nullptr, nullptr, false);
  store.MergeSettings(DocumentOf("[C]\nx=1\n"), SettingsManager::kNoPersist);
  store.LoadSettings();
  ExpectSizesCountedAnew(store);
  EXPECT_EQ(store.GetSizes().allKeys, 3u);
}

TEST(StoreAccount, LetsAnythingGrowWithoutABound) {
  StoreAccount account;
  account.RequireRoom(1 << 30);
  EXPECT_TRUE(account.HasRoom(1 << 30));
}

TEST(StoreAccount, LetsNothingGrowBeyondTheBound) {
  StoreAccount account;
  account.Set(90);
  account.SetBound(100);
  account.RequireRoom(10);
  EXPECT_THROW(account.RequireRoom(11), RefusedChange);
  account.Set(200);
  account.RequireRoom(0);
  account.RequireRoom(-50);
  EXPECT_THROW(account.RequireRoom(1), RefusedChange);
}

}  // namespace tavix::test
