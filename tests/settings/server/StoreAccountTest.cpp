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

namespace tavix::test {

using core::IniFile;
using settings::common::GroupNameMatcher;
using settings::server::RefusedChange;
using settings::server::SettingsManager;
using settings::server::StoreAccount;

namespace {

// What both documents take, counted anew.
size_t CountAnew(const SettingsManager& store) {
  return StoreAccount::Count(DocumentOf(AllSettingsOf(store))) + StoreAccount::Count(DocumentOf(UserSettingsOf(store)));
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

void MakeRandomChange(SettingsManager& store, RandomDocuments& documents, std::mt19937& random) {
  IniFile document(documents.Next());
  if (random() % 4 == 0) document = MakeLarge(document, random);
  const std::string group = document.IsEmpty() ? "A" : document.begin()->first;
  switch (random() % 6) {
    case 0:
      return store.OverwriteSettings(std::set<std::string>{group, "A", "N*"}, document);
    case 1:
      return store.OverwriteSettings(group, IniFile());
    case 2:
      return store.RestoreToDefaults(MatcherOf(random() % 4 == 0 ? "*" : group));
    case 3:
      return store.MergeSettings(document, SettingsManager::kNoPersist);
    case 4:
      static_cast<void>(store.TestAndMerge(IniFile(), document));
      return;
    default:
      return store.MergeSettings(document, 0);
  }
}

}  // namespace

TEST(StoreAccount, IsThatOfTheDocumentsAfterAnyChanges) {
  RandomDocuments documents(2);
  std::mt19937 random(3);
  MemoryPersister persister({"[A]\nx=1\n[N1]\ny=a value that is longer than a string holds in itself\n"});
  SettingsManager store(&persister, nullptr, nullptr, false);
  ASSERT_EQ(store.GetApproximateBytes(), CountAnew(store));
  for (int i = 0; i < 500; ++i) {
    MakeRandomChange(store, documents, random);
    ASSERT_EQ(store.GetApproximateBytes(), CountAnew(store)) << i;
  }
}

TEST(StoreAccount, KnowsGroupsKeysAndBytesOfNamesAfterAnyChanges) {
  RandomDocuments documents(5);
  std::mt19937 random(7);
  MemoryPersister persister({"[A]\nx=1\n[N1]\ny=1\nz=2\n"}, "[B]\nx=1\n[TavixSettings/Data/DeletedGroups]\nC=C\n");
  SettingsManager store(&persister, nullptr, nullptr, false);
  ExpectSizesCountedAnew(store);
  for (int i = 0; i < 500 && !testing::Test::HasFailure(); ++i) {
    SCOPED_TRACE(i);
    MakeRandomChange(store, documents, random);
    ExpectSizesCountedAnew(store);
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
