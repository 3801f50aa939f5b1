#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/RandomDocument.h"
#include "tests/support/ServedStore.h"

// Changes that are so large that they are prepared before the store's lock is taken.

namespace {

using tavix::core::IniFile;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::SettingsCombiner;
using tavix::settings::server::SettingsManager;
using tavix::test::AllSettingsOf;
using tavix::test::BackgroundCall;
using tavix::test::DocumentOf;
using tavix::test::MemoryPersister;
using tavix::test::RandomDocuments;
using tavix::test::ServedStore;
using tavix::test::TextOf;
using tavix::test::UserSettingsOf;

constexpr size_t kGroups = 300;

GroupNameMatcher MatcherOf(const std::string& pattern) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(pattern);
  return matcher;
}

IniFile Numbered(size_t groups, const std::string& value) {
  IniFile document;
  for (size_t group = 0; group < groups; ++group) document.SetValue("Group " + std::to_string(group), "key", value);
  return document;
}

// Some of the groups, with some of three keys.
IniFile RandomChange(RandomDocuments& random) {
  IniFile change;
  for (size_t left = random.Below(2) ? random.Below(8) : 100 + random.Below(200); left > 0; --left) {
    IniFile::KeyMap& keys = change["Group " + std::to_string(random.Below(kGroups))];
    for (size_t key = random.Below(3); key > 0; --key)
      keys["k" + std::to_string(random.Below(3))] = "01"[random.Below(2)];
  }
  return change;
}

std::set<std::string> MatchingOf(const IniFile& document, const std::string& pattern) {
  std::set<std::string> groups;
  MatcherOf(pattern).GetMatchingGroups(document, groups);
  return groups;
}

void RemoveMatching(IniFile& document, const std::string& pattern) {
  for (const std::string& group : MatchingOf(document, pattern)) document.RemoveGroup(group);
}

TEST(SettingsManagerLarge, RandomChangesOfAnySizeAgreeWithPlainDocuments) {
  const IniFile defaults = Numbered(kGroups / 2, "default");
  MemoryPersister persister({TextOf(defaults)});
  SettingsManager store(&persister, nullptr, nullptr, false);
  RandomDocuments random(5);
  IniFile all = DocumentOf(TextOf(defaults));
  IniFile user;
  for (int step = 0; step < 300; ++step) {
    const IniFile change = RandomChange(random);
    const std::string pattern = "Group " + std::to_string(random.Below(30)) + "*";
    const size_t operation = random.Below(4);
    if (operation == 0) {
      store.MergeSettings(change, 0);
    } else if (operation == 1) {
      const IniFile test = RandomChange(random);
      const bool holds = all.ContainsSettings(test);
      ASSERT_EQ(store.TestAndMerge(test, change), holds);
      ASSERT_TRUE(store.TestAndMerge(all, change) || holds);
    } else if (operation == 2) {
      store.OverwriteSettings(pattern, change);
      RemoveMatching(all, pattern);
      RemoveMatching(user, pattern);
      user.ValueListAppendUnique(SettingsManager::kDeletedGroups, pattern);
    } else {
      store.RestoreToDefaults(MatcherOf(pattern));
      for (const std::string& group : MatchingOf(user, pattern)) all.RemoveGroup(group);
      RemoveMatching(user, pattern);
      for (const std::string& group : MatchingOf(defaults, pattern)) {
        all.MergeSettings(defaults, group);
        user.MergeSettings(defaults, group);
      }
    }
    if (operation < 3) {
      all.MergeSettings(change);
      user.MergeSettings(change);
    }
    ASSERT_EQ(AllSettingsOf(store), TextOf(all)) << step;
    ASSERT_EQ(UserSettingsOf(store), TextOf(user)) << step;
    ASSERT_EQ(persister.GetSaved(), TextOf(user)) << step;
  }
}

// What is merged between the matching and the lock goes, too: an overwrite of all leaves nothing that came before it.
TEST(SettingsManagerLarge, AnOverwriteBesideMergesLeavesAStateOfSomeOrder) {
  ServedStore served;
  for (int round = 0; round < 30; ++round) {
    served.store.MergeSettings(Numbered(3000, "old"), 0);
    std::atomic<int> next{0};
    std::atomic<bool> isDone{false};
    BackgroundCall writer([&] {
      while (!isDone) {
        IniFile change;
        change.SetInt("New " + std::to_string(next % 50), "number", next);
        served.store.MergeSettings(change, 0);
        ++next;
      }
    });
    const int before = next;
    served.store.OverwriteSettings("*", DocumentOf("[Only]\n"));
    const IniFile all = DocumentOf(AllSettingsOf(served.store));
    isDone = true;
    writer.Join();
    // What is left was merged behind the overwrite: numbers that follow one another without a gap.
    std::set<int> numbers;
    for (const auto& group : all) {
      if (group.first != "Only") numbers.insert(all.GetIntOrDefault(group.first, "number", -1));
    }
    EXPECT_TRUE(all.HasGroup("Only"));
    EXPECT_FALSE(all.HasGroup("Group 0"));
    EXPECT_LE(numbers.size(), 50u);
    if (!numbers.empty()) {
      EXPECT_GE(*numbers.begin(), before);
      EXPECT_EQ(*numbers.rbegin() - *numbers.begin() + 1, static_cast<int>(numbers.size()));
    }
    const IniFile user = DocumentOf(UserSettingsOf(served.store));
    for (const auto& group : DocumentOf(AllSettingsOf(served.store))) EXPECT_TRUE(user.HasGroup(group.first));
  }
}

TEST(SettingsManagerLarge, ARestoreBesideMergesLeavesNoUserGroupThatCameBefore) {
  MemoryPersister persister({TextOf(Numbered(500, "default"))});
  SettingsManager store(&persister, nullptr, nullptr, false);
  for (int round = 0; round < 20; ++round) {
    store.MergeSettings(Numbered(3000, "old"), 0);
    std::atomic<bool> isDone{false};
    BackgroundCall writer([&] {
      for (int change = 0; !isDone; ++change) store.MergeSettings(Numbered(100, std::to_string(change)), 0);
    });
    store.RestoreToDefaults(MatcherOf("*"));
    isDone = true;
    writer.Join();
    const IniFile all = DocumentOf(AllSettingsOf(store));
    EXPECT_EQ(all.GetGroups().size(), 500u);
    EXPECT_EQ(all.GetValueOrDefault("Group 400", "key"), "default");
    EXPECT_EQ(all.GetValueOrDefault("Group 0", "key"), all.GetValueOrDefault("Group 99", "key"));
  }
}

TEST(SettingsManagerLarge, NoOtherWriteComesBetweenALargeTestAndItsMerge) {
  ServedStore served;
  served.store.MergeSettings(Numbered(200, "0"), 0);
  const auto count = [&] {
    for (int done = 0; done < 50;) {
      const IniFile seen = DocumentOf(AllSettingsOf(served.store));
      const int value = seen.GetIntOrDefault("Group 0", "key", 0);
      if (served.store.TestAndMerge(seen, Numbered(200, std::to_string(value + 1)))) ++done;
    }
  };
  {
    BackgroundCall first(count);
    BackgroundCall second(count);
  }
  EXPECT_EQ(AllSettingsOf(served.store), TextOf(Numbered(200, "100")));
}

TEST(SettingsManagerLarge, ADeferredLoadThatThrowsLeavesAnEmptyStoreThatIsLoadedByTheNextCall) {
  struct FailingPersister : MemoryPersister {
    using MemoryPersister::MemoryPersister;
    void LoadUserSettings(SettingsCombiner& combiner) override {
      if (fails) throw tavix::osa::Exception("No such device");
      MemoryPersister::LoadUserSettings(combiner);
    }
    bool fails = true;
  } persister({"[A]\nx=1\n"}, "[A]\ny=2\n");
  SettingsManager store(&persister, nullptr, nullptr, true);
  EXPECT_THROW(store.LoadSettings(), tavix::osa::Exception);
  EXPECT_EQ(AllSettingsOf(store), "");
  store.MergeSettings(DocumentOf("[Lost]\n"), SettingsManager::kNoPersist);
  persister.fails = false;
  store.LoadSettings();
  EXPECT_EQ(AllSettingsOf(store), "[A]\nx=1\ny=2\n");
  EXPECT_EQ(UserSettingsOf(store), "[A]\ny=2\n");
  EXPECT_THROW(
      {
        persister.fails = true;
        SettingsManager atOnce(&persister, nullptr, nullptr, false);
      },
      tavix::osa::Exception);
}

}  // namespace
