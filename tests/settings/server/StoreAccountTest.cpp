#include "tavix/settings/server/StoreAccount.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <functional>
#include <random>
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

GroupNameMatcher MatcherOf(const std::string& nameOrPattern) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(nameOrPattern);
  return matcher;
}

void MakeRandomChange(SettingsManager& store, RandomDocuments& documents, std::mt19937& random) {
  const IniFile document(documents.Next());
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

// By what factor the account is off for a document.
double FindFactor(const std::function<void(IniFile&)>& fill) {
  const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
  IniFile document;
  fill(document);
  const size_t after = mallinfo2().uordblks + mallinfo2().hblkhd;
  return static_cast<double>(StoreAccount::Count(document)) / static_cast<double>(after - before);
}

void FillWithEmptyGroups(IniFile& document) {
  for (int i = 0; i < 50'000; ++i) document[std::to_string(i)];
}

void FillWithSmallGroups(IniFile& document) {
  for (int i = 0; i < 10'000; ++i) {
    for (const char* key : {"enabled", "address", "a key of thirty characters here"})
      document.SetValue("Network/Interface " + std::to_string(i), key, "a value of the usual length, more or less");
  }
}

void FillWithLargeValues(IniFile& document) {
  for (int i = 0; i < 50; ++i) document.SetValue("G" + std::to_string(i), "k", std::string(200'000, 'v'));
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

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // these have allocators of their own
TEST(StoreAccount, IsAboutWhatTheAllocatorHasGiven) {
  for (const auto& fill : {FillWithEmptyGroups, FillWithSmallGroups, FillWithLargeValues}) {
    const double factor = FindFactor(fill);
    EXPECT_GT(factor, 1 / 1.5);
    EXPECT_LT(factor, 1.5);
  }
}
#endif

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
