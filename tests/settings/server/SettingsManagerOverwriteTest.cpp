#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
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
using tavix::test::RecordingCallback;
using tavix::test::ServedStore;
using tavix::test::UserSettingsOf;
using testing::ElementsAre;
using testing::IsEmpty;

using Names = std::set<std::string>;

std::string SettingsAfterRestart(ServedStore& served) {
  return AllSettingsOf(SettingsManager(&served.persister, &served.restrictedLoader, nullptr, false));
}

TEST(SettingsManager, OverwriteReplacesAGroupWhole) {
  ServedStore served({"[A]\nx=1\ny=2\n"}, "[A]\ny=3\n");
  served.store.OverwriteSettings("A", DocumentOf("[A]\nz=1\n"));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nz=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nz=1\n[TavixSettings/Data/DeletedGroups]\nA=A\n");
}

TEST(SettingsManager, OverwrittenDefaultsDoNotComeBackAtTheNextStart) {
  ServedStore served({"[A]\nx=1\ny=2\n[B]\n"}, "[A]\ny=3\n");
  served.store.OverwriteSettings("A", DocumentOf("[A]\nz=1\n"));
  EXPECT_EQ(SettingsAfterRestart(served), "[A]\nz=1\n[B]\n");
}

TEST(SettingsManager, OverwriteSavesOnceAndTellsOfTheGroupsItNames) {
  ServedStore served({"[A]\nx=1\n[B]\n"});
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  served.store.OverwriteSettings(Names{"A"}, DocumentOf("[A]\nz=1\n[C]\n"));
  EXPECT_EQ(served.persister.CountSaves(), 1);
  EXPECT_EQ(served.persister.GetSaved(), UserSettingsOf(served.store));
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A", "C"}, "[A]\nz=1\n[C]\n"}));
}

TEST(SettingsManager, OverwriteByAPatternWithNothingDeletesWhatMatches) {
  ServedStore served({"[Audio]\n[Net]\nx=1\n[Net/Eth0]\n"}, "[Net/User]\n");
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  served.store.OverwriteSettings("Net*", IniFile());
  EXPECT_EQ(AllSettingsOf(served.store), "[Audio]\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[TavixSettings/Data/DeletedGroups]\nNet*=Net*\n");
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"Net", "Net/Eth0", "Net/User"}, ""}))
      << "a group that is named but not in the document is gone";
  EXPECT_EQ(SettingsAfterRestart(served), "[Audio]\n");
}

TEST(SettingsManager, OverwriteMergesWhatItBringsForOtherGroups) {
  ServedStore served({"[A]\nx=1\n[B]\ny=1\n"});
  served.store.OverwriteSettings("A", DocumentOf("[B]\nz=2\n"));
  EXPECT_EQ(AllSettingsOf(served.store), "[B]\ny=1\nz=2\n");
}

TEST(SettingsManager, OverwriteNeitherDeletesNorSetsRestrictedGroups) {
  ServedStore served({"[A]\n"}, "", "[Secure/K]\nkey=1\n[TrustedT]\n");
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  served.store.OverwriteSettings(Names{"*", "Secure/K"}, DocumentOf("[Secure/K]\nkey=2\n[Secure/L]\n"));
  EXPECT_EQ(AllSettingsOf(served.store), "[Secure/K]\nkey=1\n[TrustedT]\n");
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A"}, ""}));
  EXPECT_EQ(SettingsAfterRestart(served), "[Secure/K]\nkey=1\n[TrustedT]\n");
}

// Deliberate: the record holds what the client asked for, whether or not it was granted or found anything.
TEST(SettingsManager, OverwriteRecordsRestrictedAndUnknownNamesToo) {
  ServedStore served({"[A]\n"}, "", "[Secure/K]\n");
  served.store.OverwriteSettings(Names{"A", "None", "Secure/K", "Trusted*"}, IniFile());
  EXPECT_EQ(UserSettingsOf(served.store),
            "[TavixSettings/Data/DeletedGroups]\nA=A\nNone=None\nSecure/K=Secure/K\nTrusted*=Trusted*\n");
}

TEST(SettingsManager, OverwriteRecordsANameOnce) {
  ServedStore served({}, "[TavixSettings/Data/DeletedGroups]\nsome key=B\n");
  for (int round = 0; round < 2; ++round) served.store.OverwriteSettings(Names{"A", "B"}, IniFile());
  EXPECT_EQ(UserSettingsOf(served.store), "[TavixSettings/Data/DeletedGroups]\nA=A\nsome key=B\n");
}

TEST(SettingsManager, OverwriteAddsToARecordThatItBringsItself) {
  ServedStore served({"[A]\n"});
  served.store.OverwriteSettings("A", DocumentOf("[TavixSettings/Data/DeletedGroups]\nA=taken\n"));
  EXPECT_EQ(UserSettingsOf(served.store), "[TavixSettings/Data/DeletedGroups]\nA=taken\nA~=A\n");
  EXPECT_EQ(AllSettingsOf(served.store), "");
}

TEST(SettingsManager, OverwriteOfAnUnknownGroupTakesAwayItsFutureDefaults) {
  ServedStore served;
  served.store.OverwriteSettings("A", IniFile());
  served.persister.SetDefaults({"[A]\nx=1\n[B]\n"});
  EXPECT_EQ(SettingsAfterRestart(served), "[B]\n");
}

TEST(SettingsManager, OverwriteOfNothingIsAMergeThatRecordsNothing) {
  ServedStore served({"[A]\nx=1\n"});
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  served.store.OverwriteSettings(Names{}, DocumentOf("[A]\ny=1\n"));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\ny=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\ny=1\n");
  EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A"}, "[A]\ny=1\n"}));
  served.store.OverwriteSettings(Names{}, IniFile());
  EXPECT_EQ(served.persister.CountSaves(), 2) << "it is always saved";
}

TEST(SettingsManager, OverwriteRemovesWhatWasMergedWithoutBeingPersisted) {
  ServedStore served;
  served.store.MergeSettings(DocumentOf("[A]\nx=1\n"), SettingsManager::kNoPersist);
  served.store.OverwriteSettings("A", IniFile());
  EXPECT_EQ(AllSettingsOf(served.store), "");
}

TEST(SettingsManager, AnOverwriteWhoseSaveFailsStaysInMemoryAndTellsNobody) {
  ServedStore served({"[A]\nx=1\n"});
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  served.persister.FailNextSave();
  EXPECT_THAT([&] { served.store.OverwriteSettings("A", DocumentOf("[B]\n")); },
              testing::ThrowsMessage<Exception>("No space left on the device"));
  EXPECT_EQ(AllSettingsOf(served.store), "[B]\n") << "and the lock is free";
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

}  // namespace
