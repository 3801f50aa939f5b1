#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/IIncludeFilter.h"
#include "tavix/settings/server/SettingsCombiner.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ServedStore.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::IIncludeFilter;
using tavix::settings::server::SettingsCombiner;
using tavix::settings::server::SettingsManager;
using tavix::test::AllSettingsOf;
using tavix::test::Change;
using tavix::test::DocumentOf;
using tavix::test::MemoryPersister;
using tavix::test::RecordingCallback;
using tavix::test::ServedStore;
using tavix::test::UserSettingsOf;
using testing::ElementsAre;
using testing::IsEmpty;

void Restore(SettingsManager& store, const std::set<std::string>& groups) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  store.RestoreToDefaults(matcher);
}

TEST(SettingsManager, RestoreBringsDefaultsBackAndLeavesOtherGroups) {
  ServedStore served({"[A]\nx=1\ny=2\n[B]\nz=1\n"}, "[A]\ny=3\nmore=3\n[B]\nz=3\n");
  Restore(served.store, {"A"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\ny=2\n[B]\nz=3\n");
}

// Deliberate: a restored group is pinned to the defaults of this moment, as user settings.
TEST(SettingsManager, RestorePinsTheDefaultsOfTheMoment) {
  ServedStore served({"[A]\nx=1\n"}, "[A]\nx=5\n");
  Restore(served.store, {"A"});
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=1\n");
  served.persister.SetDefaults({"[A]\nx=9\n"});
  EXPECT_EQ(AllSettingsOf(SettingsManager(&served.persister, nullptr, nullptr, false)), "[A]\nx=1\n");
}

TEST(SettingsManager, RestoreReadsTheDefaultsAnew) {
  ServedStore served({"[A]\nx=1\n"});
  served.persister.SetDefaults({"[A]\nx=2\n"});
  Restore(served.store, {"A"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\n");
}

// What the store asks a persister for that can leave groups out.
class WantedPersister : public MemoryPersister {
 public:
  using MemoryPersister::MemoryPersister;

  void LoadDefaultSettings(SettingsCombiner& combiner) override {
    const IniFile::GroupFilter& wanted = combiner.GetWanted();
    hasWanted = static_cast<bool>(wanted);
    areMatching.clear();
    for (const char* name : {"A", "B", "Net/1", "TavixSettings/LoadPriority"}) {
      if (hasWanted && wanted(name)) areMatching.insert(name);
    }
    MemoryPersister::LoadDefaultSettings(combiner);
  }

  bool hasWanted = false;
  std::set<std::string> areMatching;
};

TEST(SettingsManager, RestoreWantsItsGroupsAndThePrioritiesAlone) {
  WantedPersister persister({"[A]\nx=1\n[Net/1]\ny=1\n"});
  SettingsManager store(&persister, nullptr, nullptr, false);
  EXPECT_FALSE(persister.hasWanted);
  Restore(store, {"A", "Net/*"});
  EXPECT_THAT(persister.areMatching, ElementsAre("A", "Net/1", "TavixSettings/LoadPriority"));
}

TEST(SettingsManager, RestoreOfManyPatternsWantsAllGroups) {
  WantedPersister persister({"[A]\nx=1\n"});
  SettingsManager store(&persister, nullptr, nullptr, false);
  std::set<std::string> patterns;
  for (int i = 0; i < 100; ++i) patterns.insert("*" + std::to_string(i) + "*");
  Restore(store, patterns);
  EXPECT_FALSE(persister.hasWanted);
}

// Nobody knows what a host's filter looks at.
TEST(SettingsManager, RestoreWithAFilterOfTheHostWantsAllGroups) {
  class NoFilter : public IIncludeFilter {
    void FilterIni(IniFile&) override {}
  };
  NoFilter filter;
  WantedPersister persister({"[A]\nx=1\n"});
  SettingsManager store(&persister, nullptr, &filter, false);
  Restore(store, {"A"});
  EXPECT_FALSE(persister.hasWanted);
}

TEST(SettingsManager, RestoreAfterAnOverwriteLeavesTheRecord) {
  ServedStore served({"[A]\nx=1\ny=2\n"}, "[A]\ny=3\n");
  served.store.OverwriteSettings("A", DocumentOf("[A]\nz=1\n"));
  Restore(served.store, {"A"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\ny=2\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=1\ny=2\n[TavixSettings/Data/DeletedGroups]\nA=A\n");
}

TEST(SettingsManager, RestoreSavesOnceAndTellsOfWhatItBroughtBack) {
  ServedStore served({"[A]\nx=1\n[B]\ny=1\n"}, "[A]\nx=5\n");
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  Restore(served.store, {"A"});
  EXPECT_EQ(served.persister.CountSaves(), 1);
  EXPECT_EQ(served.persister.GetSaved(), "[A]\nx=1\n");
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A"}, "[A]\nx=1\n"}));
}

TEST(SettingsManager, AUserGroupWithoutDefaultsDisappears) {
  ServedStore served({"[A]\nx=1\n"}, "[B]\ny=1\n");
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  Restore(served.store, {"B"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "");
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"B"}, ""}));
}

// Deliberate: only groups of the user layer are removed first.
TEST(SettingsManager, RestoreOverwritesButDoesNotRemoveWhatWasNotPersisted) {
  ServedStore served({"[A]\nx=1\n"});
  served.store.MergeSettings(DocumentOf("[A]\nx=5\nmore=5\n[B]\n"), SettingsManager::kNoPersist);
  Restore(served.store, {"*"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nmore=5\nx=1\n[B]\n");
}

TEST(SettingsManager, RestoreByAPattern) {
  ServedStore served({"[Audio]\nv=1\n[Net]\nx=1\n[Net/Eth0]\ny=1\n"}, "[Audio]\nv=5\n[Net]\nx=5\n[Net/User]\n");
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  Restore(served.store, {"Net*"});
  EXPECT_EQ(AllSettingsOf(served.store), "[Audio]\nv=5\n[Net]\nx=1\n[Net/Eth0]\ny=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[Audio]\nv=5\n[Net]\nx=1\n[Net/Eth0]\ny=1\n");
  EXPECT_THAT(callback.GetChanges(),
              ElementsAre(Change{{"Net", "Net/Eth0", "Net/User"}, "[Net]\nx=1\n[Net/Eth0]\ny=1\n"}));
}

TEST(SettingsManager, RestoreOfNothingSavesAndTellsNobody) {
  ServedStore served({"[A]\nx=1\n"}, "[A]\nx=5\n");
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  Restore(served.store, {});
  Restore(served.store, {"None"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=5\n");
  EXPECT_EQ(served.persister.CountSaves(), 2);
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST(SettingsManager, RestoreWithoutAPersisterDoesNothingAtAll) {
  SettingsManager store;
  RecordingCallback callback;
  store.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  store.Subscribe(&callback, "*");
  Restore(store, {"*"});
  EXPECT_EQ(AllSettingsOf(store), "[A]\nx=1\n");
  EXPECT_EQ(UserSettingsOf(store), "[A]\nx=1\n");
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

// Deliberate: restoring does not ask which groups are restricted. A persister whose defaults may hold some strips them.
TEST(SettingsManager, RestoreBringsRestrictedDefaultsIn) {
  ServedStore served({"[Secure/K]\nkey=default\n"}, "", "[Secure/K]\nkey=1\nother=1\n");
  Restore(served.store, {"Secure/K"});
  EXPECT_EQ(AllSettingsOf(served.store), "[Secure/K]\nkey=default\nother=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[Secure/K]\nkey=default\n");
}

TEST(SettingsManager, RestoreDoesNotTouchRestrictedGroupsWithoutDefaults) {
  ServedStore served({"[A]\n"}, "", "[Secure/K]\nkey=1\n");
  Restore(served.store, {"*"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\n[Secure/K]\nkey=1\n");
}

TEST(SettingsManager, RestoreOfEverythingForgetsTheRecordOfDeletedGroups) {
  ServedStore served({"[A]\nx=1\n[B]\n"});
  served.store.OverwriteSettings("A", DocumentOf("[C]\n"));
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  Restore(served.store, {"*"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n[B]\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=1\n[B]\n");
  EXPECT_THAT(callback.GetChanges(),
              ElementsAre(Change{{"A", "B", "C", "TavixSettings/Data/DeletedGroups"}, "[A]\nx=1\n[B]\n"}));
}

TEST(SettingsManager, ARecordAmongTheDefaultsTakesThePlaceOfTheRecordAndStaysHidden) {
  ServedStore served({"[A]\n[TavixSettings/Data/DeletedGroups]\nk=B\n"});
  served.store.OverwriteSettings("A", IniFile());
  Restore(served.store, {"*"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\n[TavixSettings/Data/DeletedGroups]\nk=B\n");
}

TEST(SettingsManager, RestoreHeedsLoadPrioritiesAmongTheDefaults) {
  ServedStore served({"[A]\nx=1\n[TavixSettings/LoadPriority]\nA=5\n", "[A]\nx=2\n"});
  served.store.MergeSettings(DocumentOf("[A]\nx=7\n"), 0);
  Restore(served.store, {"*"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n");
}

// Deliberate: the store remembers the highest priority of each group for its whole life, so a source that was outranked
// by a later one while loading is outranked from the start in a restore.
TEST(SettingsManager, PrioritiesLearntWhileLoadingHoldInARestore) {
  ServedStore served(
      {"[A]\nfirst=1\n[TavixSettings/LoadPriority]\nA=5\n", "[A]\nsecond=2\n[TavixSettings/LoadPriority]\nA=9\n"});
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nfirst=1\nsecond=2\n");
  Restore(served.store, {"A"});
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nsecond=2\n");
}

TEST(SettingsManager, ARestoreWhoseDefaultsCanNotBeReadChangesNothing) {
  ServedStore served({"[A]\nx=1\n"}, "[A]\nx=5\n");
  served.persister.SetDefaults({"no settings"});
  EXPECT_THROW(Restore(served.store, {"A"}), Exception);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=5\n");
  EXPECT_EQ(served.persister.CountSaves(), 0);
}

TEST(SettingsManager, ARestoreWhoseSaveFailsStaysInMemoryAndTellsNobody) {
  ServedStore served({"[A]\nx=1\n"}, "[A]\nx=5\n");
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  served.persister.FailNextSave();
  EXPECT_THAT([&] { Restore(served.store, {"A"}); }, testing::ThrowsMessage<Exception>("No space left on the device"));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n") << "and the lock is free";
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

}  // namespace
