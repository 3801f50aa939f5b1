#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/SettingsCombiner.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/EditingFilter.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ServedStore.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::SettingsCombiner;
using tavix::settings::server::SettingsManager;
using tavix::test::AllSettingsOf;
using tavix::test::BackgroundCall;
using tavix::test::DocumentOf;
using tavix::test::EditingFilter;
using tavix::test::MemoryPersister;
using tavix::test::MemoryRestrictedLoader;
using tavix::test::RecordingCallback;
using tavix::test::ServedStore;
using tavix::test::TextOf;
using tavix::test::UserSettingsOf;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(SettingsManager, WithoutSourcesIsEmptyAndUsable) {
  SettingsManager store;
  RecordingCallback callback;
  store.Subscribe(&callback, "*");
  EXPECT_EQ(AllSettingsOf(store), "");
  store.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  store.OverwriteSettings("B", DocumentOf("[B]\ny=1\n"));
  EXPECT_EQ(AllSettingsOf(store), "[A]\nx=1\n[B]\ny=1\n");
  EXPECT_EQ(UserSettingsOf(store), "[A]\nx=1\n[B]\ny=1\n[TavixSettings/Data/DeletedGroups]\nB=B\n");
  EXPECT_EQ(callback.GetChanges().size(), 2u);
}

TEST(SettingsManager, LaysUserSettingsOverDefaultsKeyByKey) {
  const ServedStore served({"[A]\nx=1\ny=2\n"}, "[A]\ny=3\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\ny=3\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\ny=3\n");
}

TEST(SettingsManager, UserSettingsNeedNoDefaults) {
  const ServedStore served({"[A]\nx=1\n"}, "[A]\nnew=1\n[B]\nz=1\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nnew=1\nx=1\n[B]\nz=1\n");
}

TEST(SettingsManager, LaterDefaultsOverrideEarlierOnes) {
  const ServedStore served({"[A]\nx=1\ny=1\n", "[A]\ny=2\n"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\ny=2\n");
}

TEST(SettingsManager, RestrictedGroupsComeNeitherFromDefaultsNorFromTheUser) {
  const ServedStore served({"[A]\n[Secure/D]\nk=1\n[TrustedD]\n"}, "[B]\n[Secure/U]\nk=1\n[TrustedU]\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\n[B]\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[B]\n") << "the user layer itself is rid of them";
}

TEST(SettingsManager, RestrictedGroupsComeFromTheirLoader) {
  const ServedStore served({"[Secure/K]\nold=1\n"}, "[Secure/K]\nuser=1\n", "[Secure/K]\nkey=1\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[Secure/K]\nkey=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "");
}

// Deliberate: the loader is not held to restricted groups.
TEST(SettingsManager, WhatTheRestrictedLoaderBringsWinsOverEverything) {
  const ServedStore served({"[A]\nx=1\ny=1\nz=1\n"}, "[A]\ny=2\nz=2\n", "[A]\nz=3\n[B]\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\ny=2\nz=3\n[B]\n");
}

TEST(SettingsManager, ARecordOfDeletedGroupsTakesTheirDefaultsAwayWhole) {
  const ServedStore served({"[A]\nx=1\ny=1\n[B]\n"},
                           "[A]\nz=2\n[TavixSettings/Data/DeletedGroups]\nany key=A\nother=C\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nz=2\n[B]\n") << "what the user set survives";
}

TEST(SettingsManager, ARecordOfDeletedGroupsMayHoldPatterns) {
  const ServedStore served({"[Audio]\n[Net]\n[Net/Eth0]\nx=1\n[Network]\n"},
                           "[Net/Eth0]\ny=2\n[TavixSettings/Data/DeletedGroups]\nk=Net*\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[Audio]\n[Net/Eth0]\ny=2\n");
}

TEST(SettingsManager, ARecordOfDeletedGroupsDoesNotTouchWhatTheRestrictedLoaderBrings) {
  const ServedStore served({"[A]\n"}, "[TavixSettings/Data/DeletedGroups]\nk=*\n", "[Secure/K]\nkey=1\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[Secure/K]\nkey=1\n");
}

TEST(SettingsManager, ReadersNeverSeeTheRecordOfDeletedGroups) {
  const std::string record = "[TavixSettings/Data/DeletedGroups]\nk=X\n";
  const ServedStore served({record}, record, record);
  EXPECT_EQ(AllSettingsOf(served.store), "");
  EXPECT_EQ(UserSettingsOf(served.store), record);
}

TEST(SettingsManager, LoadingSavesNothingAndTellsNobody) {
  MemoryPersister persister({"[A]\nx=1\n"}, "[A]\ny=1\n[Secure]\n");
  RecordingCallback callback;
  SettingsManager store(&persister, nullptr, nullptr, true);
  store.Subscribe(&callback, "*");
  store.LoadSettings();
  EXPECT_EQ(persister.CountSaves(), 0);
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST(SettingsManager, ADeferredStoreMakesEverybodyWaitUntilItIsLoaded) {
  MemoryPersister persister({"[A]\nx=1\n"});
  SettingsManager store(&persister, nullptr, nullptr, true);
  std::string seen;
  BackgroundCall reader([&] { seen = AllSettingsOf(store); });
  BackgroundCall writer([&] { store.MergeSettings(DocumentOf("[B]\n"), 0); });
  for (const BackgroundCall* call : {&reader, &writer}) {
    call->AwaitBlocked();
    EXPECT_FALSE(call->HasEnded());
  }
  BackgroundCall([&] { store.LoadSettings(); }).Join();  // any thread may load it
  reader.Join();
  writer.Join();
  EXPECT_THAT(seen, testing::StartsWith("[A]\nx=1\n"));
  EXPECT_EQ(AllSettingsOf(store), "[A]\nx=1\n[B]\n");
}

// Deliberate: loading returns at once without a persister and so never releases the lock. The test needs a process of
// its own, because a reader of such a store can never be freed.
TEST(SettingsManager, MadeWithANullPersisterStaysLockedForEver) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const auto readInVain = [](bool deferLoad) {
    SettingsManager store(nullptr, nullptr, nullptr, deferLoad);
    store.LoadSettings();
    BackgroundCall reader([&] { AllSettingsOf(store); });
    reader.AwaitBlocked();
    _exit(reader.HasEnded() ? 1 : 0);
  };
  EXPECT_EXIT(readInVain(false), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(readInVain(true), testing::ExitedWithCode(0), "");
}

// Trying each pattern on each group would be 200 million tries.
TEST(SettingsManager, LoadsManyDeletedPatternsWithFewTries) {
  std::string defaults;
  for (int i = 0; i < 20'000; ++i) defaults += "[Device/" + std::to_string(i) + "/End]\nx=1\n";
  std::string record = "[TavixSettings/Data/DeletedGroups]\n";
  for (int i = 0; i < 10'000; ++i) {
    const std::string pattern = (i % 2 ? "*/" : "Device/") + std::to_string(i) + (i % 2 ? "/E*d" : "/*");
    record += pattern + "=" + pattern + "\n";
  }
  const unsigned long long triedBefore = GroupNameMatcher::CountTriedPatterns();
  const ServedStore served({defaults}, record);
  const unsigned long long tried = GroupNameMatcher::CountTriedPatterns() - triedBefore;
  EXPECT_EQ(served.store.GetSizes().allGroups, 10'000u);
  EXPECT_GE(tried, 10'000u);
  EXPECT_LT(tried, 2'000'000u);
}

TEST(SettingsManager, LoadingUserSettingsNeedsAPersister) {
  SettingsManager store;
  store.LoadUserSettings();
  EXPECT_EQ(UserSettingsOf(store), "");
}

TEST(SettingsManager, DefaultsAndRestrictedSettingsAreFilteredAndUserSettingsAreNot) {
  MemoryPersister persister({"[D]\n"}, "[U]\n");
  MemoryRestrictedLoader loader("[Secure/R]\n");
  std::vector<std::string> seen;
  EditingFilter filter([&](IniFile& ini) {
    seen.push_back(TextOf(ini));
    ini["filtered"];
  });
  const SettingsManager store(&persister, &loader, &filter, false);
  EXPECT_THAT(seen, ElementsAre("[D]\n", "[Secure/R]\n"));
  EXPECT_EQ(UserSettingsOf(store), "[U]\n");
}

TEST(SettingsManager, TheCallersFilterRunsBeforeTheOneOfLoadPriorities) {
  MemoryPersister persister({"[A]\nx=1\n", "[A]\nx=2\n"});
  EditingFilter filter([](IniFile& ini) {
    if (ini.GetValueOrDefault("A", "x") == "1") ini.SetValue("TavixSettings/LoadPriority", "A", "5");
  });
  const SettingsManager store(&persister, nullptr, &filter, false);
  EXPECT_EQ(AllSettingsOf(store), "[A]\nx=1\n") << "the priority that the filter gave was heeded and removed";
}

TEST(SettingsManager, LoadPrioritiesHoldAcrossSources) {
  const ServedStore served({"[A]\nx=1\n[TavixSettings/LoadPriority]\nA=5\n", "[A]\nx=2\ny=2\n"}, "", "[A]\nx=3\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n") << "also against the restricted loader's sources";
}

TEST(SettingsManager, UserSettingsOverrideWhateverThePriorityOfTheDefaults) {
  const ServedStore served({"[A]\nx=1\n[TavixSettings/LoadPriority]\nA=5\n"}, "[A]\nx=2\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\n");
}

TEST(SettingsManager, ConfiguresCombinersWithItsFilters) {
  EditingFilter filter([](IniFile& ini) { ini["seen"]; });
  MemoryPersister persister({"[A]\n[TavixSettings/LoadPriority]\nA=5\n"});
  const SettingsManager store(&persister, nullptr, &filter, false);
  IniFile target;
  SettingsCombiner combiner(target);
  store.ConfigureSettingsCombiner(combiner);
  combiner.LoadFromString("[A]\n[B]\n[TavixSettings/LoadPriority]\n");
  EXPECT_EQ(TextOf(target), "[B]\n[seen]\n") << "the store's own priorities, and the caller's filter";
}

TEST(SettingsManager, AnErrorWhileLoadingLeavesTheConstructor) {
  MemoryPersister good({"[A]\n"});
  MemoryPersister badDefaults({"no settings"});
  MemoryPersister badUser({}, "no settings");
  MemoryRestrictedLoader badLoader("no settings");
  EditingFilter badFilter([](IniFile&) { throw Exception("not this one"); });
  EXPECT_THROW(SettingsManager(&badDefaults, nullptr, nullptr, false), Exception);
  EXPECT_THROW(SettingsManager(&badUser, nullptr, nullptr, false), Exception);
  EXPECT_THROW(SettingsManager(&good, &badLoader, nullptr, false), Exception);
  EXPECT_THAT([&] { SettingsManager(&good, nullptr, &badFilter, false); },
              testing::ThrowsMessage<Exception>("not this one"));
}

TEST(SettingsManager, OfTwoOverOnePersisterTheSecondLoadsWhatTheFirstSaved) {
  MemoryPersister persister({"[A]\nx=1\n"});
  SettingsManager(&persister, nullptr, nullptr, false).MergeSettings(DocumentOf("[A]\nx=2\n[B]\n"), 0);
  EXPECT_EQ(AllSettingsOf(SettingsManager(&persister, nullptr, nullptr, false)), "[A]\nx=2\n[B]\n");
}

}  // namespace
