#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ServedStore.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
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

constexpr unsigned int kNoPersist = SettingsManager::kNoPersist;

TEST(SettingsManager, MergesIntoWhatReadersSeeAndIntoTheUserLayer) {
  ServedStore served({"[A]\nx=1\ny=1\n"});
  served.store.MergeSettings(DocumentOf("[A]\ny=2\n[B]\nz=2\n"), 0);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\ny=2\n[B]\nz=2\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\ny=2\n[B]\nz=2\n");
}

TEST(SettingsManager, AMergeSavesTheWholeUserLayerOnce) {
  ServedStore served({}, "[Old]\nk=1\n");
  served.store.MergeSettings(DocumentOf("[A]\nx=1\n[B]\n"), 0);
  EXPECT_EQ(served.persister.GetSaved(), "[A]\nx=1\n[B]\n[Old]\nk=1\n");
  EXPECT_EQ(served.persister.CountSaves(), 1);
}

// Deliberate: a subscriber is given the request's values, and told even when none differed from what was there.
TEST(SettingsManager, AMergeAnnouncesItsGroupsAndItsOwnValues) {
  ServedStore served({"[A]\nx=1\ny=1\n"});
  RecordingCallback callback;
  served.store.Subscribe(&callback, "A");
  served.store.MergeSettings(DocumentOf("[A]\nx=1\n[B]\nz=1\n"), 0);
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A"}, "[A]\nx=1\n[B]\nz=1\n"}));
}

TEST(SettingsManager, AMergeThatIsNotPersistedLivesUntilTheRestart) {
  ServedStore served({"[A]\nx=1\n"}, "[A]\ny=1\n");
  RecordingCallback callback;
  served.store.Subscribe(&callback, "A");
  served.store.MergeSettings(DocumentOf("[A]\nx=5\n"), kNoPersist);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=5\ny=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\ny=1\n");
  EXPECT_EQ(served.persister.CountSaves(), 0);
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A"}, "[A]\nx=5\n"}));
  EXPECT_EQ(AllSettingsOf(SettingsManager(&served.persister, nullptr, nullptr, false)), "[A]\nx=1\ny=1\n");
}

TEST(SettingsManager, OfTheMergeFlagsOnlyTheFirstBitIsLookedAt) {
  ServedStore served;
  for (const unsigned int flags : {2u, 4u, 0xFFFFFFFEu}) served.store.MergeSettings(DocumentOf("[A]\n"), flags);
  EXPECT_EQ(served.persister.CountSaves(), 3);
  for (const unsigned int flags : {1u, 3u, 0xFFFFFFFFu}) served.store.MergeSettings(DocumentOf("[B]\n"), flags);
  EXPECT_EQ(served.persister.CountSaves(), 3);
  EXPECT_EQ(served.persister.GetSaved(), "[A]\n");
}

TEST(SettingsManager, RestrictedGroupsInAMergeAreDroppedAndNotAnnounced) {
  ServedStore served({"[A]\nx=1\n"}, "", "[Secure/B]\nk=1\n");
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  for (const unsigned int flags : {0u, kNoPersist}) {
    served.store.MergeSettings(DocumentOf("[Secure/B]\nk=v\n[TrustedC]\n[A]\nx=5\n"), flags);
    EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=5\n[Secure/B]\nk=1\n");
  }
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=5\n");
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A"}, "[A]\nx=5\n"}, Change{{"A"}, "[A]\nx=5\n"}));
}

TEST(SettingsManager, AMergeOfNothingSavesAndTellsNobody) {
  ServedStore served({}, "[A]\n");
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  served.store.MergeSettings(IniFile(), 0);
  served.store.MergeSettings(DocumentOf("[Secure/B]\nk=v\n"), 0);
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
  EXPECT_EQ(served.persister.CountSaves(), 2);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\n");
}

// A client may write the record of deleted groups like any other group; readers see no more of it than ever.
TEST(SettingsManager, AMergedRecordOfDeletedGroupsIsKeptAndHidden) {
  ServedStore served({"[A]\n[B]\n"});
  served.store.MergeSettings(DocumentOf("[TavixSettings/Data/DeletedGroups]\nk=A\n"), 0);
  served.store.MergeSettings(DocumentOf("[TavixSettings/Data/DeletedGroups]\nl=B\n"), kNoPersist);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\n[B]\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[TavixSettings/Data/DeletedGroups]\nk=A\n");
  EXPECT_FALSE(served.store.TestAndMerge(DocumentOf("[TavixSettings/Data/DeletedGroups]\nk=A\n"), IniFile()));
  EXPECT_EQ(AllSettingsOf(SettingsManager(&served.persister, nullptr, nullptr, false)), "[B]\n");
}

TEST(SettingsManager, TheMergeItselfNeitherFiltersNorNotifies) {
  MemoryPersister persister;
  SettingsManager store(&persister, nullptr, nullptr, true);  // holds the lock that the merge asks for
  RecordingCallback callback;
  store.Subscribe(&callback, "*");
  store.PerformMergeUnlocked(DocumentOf("[Secure/A]\nx=1\n"), 0);
  store.PerformMergeUnlocked(DocumentOf("[B]\n"), kNoPersist);
  store.LoadSettings();
  EXPECT_EQ(persister.GetSaved(), "[Secure/A]\nx=1\n");
  EXPECT_EQ(persister.CountSaves(), 1);
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST(SettingsManager, ATestThatFailsChangesNothingAndTellsNobody) {
  ServedStore served({"[A]\nx=1\n"});
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  for (const char* test : {"[A]\nx=9\n", "[A]\nx=\n", "[A]\nx=1\ny=1\n", "[B]\nx=1\n", "[A]\nx=1\n[B]\nx=1\n"}) {
    EXPECT_FALSE(served.store.TestAndMerge(DocumentOf(test), DocumentOf("[A]\nx=2\n")));
  }
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "");
  EXPECT_EQ(served.persister.CountSaves(), 0);
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST(SettingsManager, ATestThatHoldsMergesSavesAndTells) {
  ServedStore served({"[A]\nx=1\ny=1\n"});
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  EXPECT_TRUE(served.store.TestAndMerge(DocumentOf("[A]\nx=1\n"), DocumentOf("[A]\nx=2\n[B]\n")));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\ny=1\n[B]\n");
  EXPECT_EQ(served.persister.GetSaved(), "[A]\nx=2\n[B]\n");
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A", "B"}, "[A]\nx=2\n[B]\n"}));
}

TEST(SettingsManager, TheTestLooksAtWhatReadersSee) {
  ServedStore served({"[A]\nx=1\ny=1\n"}, "[A]\nx=2\n");
  served.store.MergeSettings(DocumentOf("[A]\nz=3\n"), kNoPersist);
  EXPECT_FALSE(served.store.TestAndMerge(DocumentOf("[A]\nx=1\n"), IniFile()));
  EXPECT_TRUE(served.store.TestAndMerge(DocumentOf("[A]\nx=2\ny=1\nz=3\n"), IniFile()));
}

TEST(SettingsManager, AnEmptyTestAlwaysHolds) {
  ServedStore served;
  EXPECT_TRUE(served.store.TestAndMerge(IniFile(), DocumentOf("[A]\nx=1\n")));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n");
}

TEST(SettingsManager, ATestMayAskForRestrictedGroupsButNotChangeThem) {
  ServedStore served({}, "", "[Secure/K]\nkey=1\n");
  const IniFile change = DocumentOf("[Secure/K]\nkey=2\n[A]\nx=1\n");
  EXPECT_FALSE(served.store.TestAndMerge(DocumentOf("[Secure/K]\nkey=2\n"), change));
  EXPECT_TRUE(served.store.TestAndMerge(DocumentOf("[Secure/K]\nkey=1\n"), change));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n[Secure/K]\nkey=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=1\n");
}

TEST(SettingsManager, AMergeWhoseSaveFailsStaysInMemoryAndTellsNobody) {
  ServedStore served({"[A]\nx=1\n"});
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  served.persister.FailNextSave();
  EXPECT_THAT([&] { served.store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0); },
              testing::ThrowsMessage<Exception>("No space left on the device"));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\n") << "and the lock is free";
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=2\n");
  EXPECT_EQ(served.persister.GetSaved(), "");
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST(SettingsManager, TheNextSaveAfterAFailedOneHasBothChanges) {
  ServedStore served;
  served.persister.FailNextSave();
  EXPECT_THROW(served.store.TestAndMerge(IniFile(), DocumentOf("[A]\nx=2\n")), Exception);
  EXPECT_TRUE(served.store.TestAndMerge(DocumentOf("[A]\nx=2\n"), DocumentOf("[B]\n")));
  EXPECT_EQ(served.persister.GetSaved(), "[A]\nx=2\n[B]\n");
}

}  // namespace
