#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/Amendment.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ServedStore.h"

// Amendments: tavix/settings/Amendment.h is their contract.

namespace tavix::test {

using core::IniFile;
using settings::Amendment;
using settings::common::GroupNameMatcher;
using settings::server::RefusedChange;
using settings::server::SettingsManager;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

const std::string kRecord = std::string("[") + SettingsManager::kDeletedGroups + "]\n";

Amendment Set(const std::string& text) {
  Amendment amendment;
  amendment.set = DocumentOf(text);
  return amendment;
}

Amendment Unset(const std::string& text) {
  Amendment amendment;
  amendment.unset = DocumentOf(text);
  return amendment;
}

Amendment Replace(const std::string& text) {
  Amendment amendment;
  amendment.replace = DocumentOf(text);
  return amendment;
}

Amendment If(const std::string& present, const std::string& absent, Amendment then) {
  then.present = DocumentOf(present);
  then.absent = DocumentOf(absent);
  return then;
}

GroupNameMatcher MatcherOf(const std::string& nameOrPattern) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(nameOrPattern);
  return matcher;
}

std::string AllAfterAStart(ServedStore& served) {
  return AllSettingsOf(SettingsManager(&served.persister, &served.restrictedLoader, nullptr, false));
}

// It is made, and readers see then what they see after the next start.
void ExpectAmended(ServedStore& served, const Amendment& amendment, const std::string& all) {
  EXPECT_TRUE(served.store.Amend(amendment));
  EXPECT_EQ(AllSettingsOf(served.store), all);
  EXPECT_EQ(AllAfterAStart(served), all);
}

// It fails, and neither readers nor the persister nor subscribers learn of it.
void ExpectFailure(ServedStore& served, const Amendment& amendment) {
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  const std::string all = AllSettingsOf(served.store);
  const std::string user = UserSettingsOf(served.store);
  const int saves = served.persister.CountSaves();
  EXPECT_FALSE(served.store.Amend(amendment));
  EXPECT_EQ(AllSettingsOf(served.store), all);
  EXPECT_EQ(UserSettingsOf(served.store), user);
  EXPECT_EQ(served.persister.CountSaves(), saves);
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
  served.store.Unsubscribe(&callback);
}

}  // namespace

TEST(SettingsManagerAmend, IsMadeIfReadersSeeEveryPresentValue) {
  ServedStore served({"[A]\nx=1\ny=2\n"});
  ExpectFailure(served, If("[A]\nx=1\ny=9\n", "", Set("[A]\nx=5\n")));
  ExpectFailure(served, If("[B]\nx=\n", "", Set("[A]\nx=5\n")));
  ExpectAmended(served, If("[A]\nx=1\ny=2\n[None]\n", "", Set("[A]\nx=5\n")), "[A]\nx=5\ny=2\n");
}

TEST(SettingsManagerAmend, IsMadeIfNoAbsentKeyIsSet) {
  ServedStore served({"[A]\nx=1\n"});
  ExpectFailure(served, If("", "[A]\nx=\n", Set("[A]\ny=5\n")));
  ExpectFailure(served, If("", "[A]\nx=another\n", Set("[A]\ny=5\n")));
  ExpectAmended(served, If("", "[A]\ny=\n[B]\nx=\n", Set("[A]\ny=5\n")), "[A]\nx=1\ny=5\n");
}

TEST(SettingsManagerAmend, AnAbsentGroupWithoutKeysMustNotBeThere) {
  ServedStore served({"[A]\nx=1\n[Empty]\n"});
  ExpectFailure(served, If("", "[A]\n", Set("[B]\ny=5\n")));
  ExpectFailure(served, If("", "[Empty]\n", Set("[B]\ny=5\n")));
  ExpectAmended(served, If("", "[B]\n", Set("[B]\ny=5\n")), "[A]\nx=1\n[B]\ny=5\n[Empty]\n");
}

TEST(SettingsManagerAmend, ConditionsMayNameRestrictedGroups) {
  ServedStore served({}, "", "[Secure/K]\nk=1\n");
  ExpectFailure(served, If("[Secure/K]\nk=2\n", "", Set("[A]\nx=1\n")));
  ExpectFailure(served, If("", "[Secure/K]\nk=\n", Set("[A]\nx=1\n")));
  ExpectAmended(served, If("[Secure/K]\nk=1\n", "[Secure/L]\n", Set("[A]\nx=1\n")), "[A]\nx=1\n[Secure/K]\nk=1\n");
}

TEST(SettingsManagerAmend, AReplacedGroupIsExactlyThatAndItsDefaultsStayAway) {
  ServedStore served({"[A]\nx=1\ny=2\n[B]\nx=1\n"}, "[A]\ny=3\n");
  ExpectAmended(served, Replace("[A]\nz=4\n"), "[A]\nz=4\n[B]\nx=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nz=4\n" + kRecord + "A=A\n");
}

TEST(SettingsManagerAmend, AReplacedGroupWithoutKeysGoes) {
  ServedStore served({"[A]\nx=1\n[B]\nx=1\n"}, "[A]\ny=3\n");
  ExpectAmended(served, Replace("[A]\n[None]\n"), "[B]\nx=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), kRecord + "A=A\nNone=None\n");
}

TEST(SettingsManagerAmend, MergesWhatItSets) {
  ServedStore served({"[A]\nx=1\ny=1\n"}, "[A]\nz=1\n");
  ExpectAmended(served, Set("[A]\ny=2\n[B]\nk=1\n[Empty]\n"), "[A]\nx=1\ny=2\nz=1\n[B]\nk=1\n[Empty]\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\ny=2\nz=1\n[B]\nk=1\n[Empty]\n");
}

TEST(SettingsManagerAmend, TheDefaultOfAnUnsetKeyShowsAgain) {
  ServedStore served({"[A]\nx=1\ny=1\n"}, "[A]\nx=5\ny=6\nz=7\n");
  ExpectAmended(served, Unset("[A]\nx=ignored\nz=\nnone=\n"), "[A]\nx=1\ny=6\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\ny=6\n");
}

TEST(SettingsManagerAmend, AGroupGoesWithTheLastKeyThatIsUnset) {
  ServedStore served({"[B]\nx=1\n"}, "[A]\nx=5\n[B]\nx=2\n[Empty]\n");
  ExpectAmended(served, Unset("[A]\nx=\n[B]\nx=\n[Empty]\nx=\n"), "[B]\nx=1\n[Empty]\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[Empty]\n");
}

TEST(SettingsManagerAmend, UnsettingAGroupTakesItsUserValuesAndItsRecordAway) {
  ServedStore served({"[A]\nx=1\ny=1\n"}, "[A]\ny=5\nz=6\n" + kRecord + "A=A\nB=B\n");
  ExpectAmended(served, Unset("[A]\n"), "[A]\nx=1\ny=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), kRecord + "B=B\n");
}

TEST(SettingsManagerAmend, TheRecordGoesWithItsLastMember) {
  ServedStore served({"[A]\nx=1\n"}, kRecord + "edited by hand=A\nA=A\n");
  ExpectAmended(served, Unset("[A]\n"), "[A]\nx=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "");
}

TEST(SettingsManagerAmend, FailsWhereARecordedPatternHidesWhatIsUnset) {
  ServedStore served({"[Net/Eth0]\nx=1\n"}, "[Net/Eth0]\nx=2\n" + kRecord + "Net*=Net*\n");
  ExpectFailure(served, Unset("[Net/Eth0]\n"));
  ExpectFailure(served, Unset("[Net/Eth0]\n[Other*]\n"));
  ExpectAmended(served, Unset("[Net/Eth0]\n[Net*]\n"), "[Net/Eth0]\nx=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "");
}

TEST(SettingsManagerAmend, APatternThatLeavesTheRecordShowsAllThatItHid) {
  ServedStore served({"[A]\nx=1\n[Net/Eth0]\nx=1\ny=1\n[Net/Wlan0]\nx=1\n"});
  served.store.OverwriteSettings("Net*", DocumentOf("[Net/Eth0]\ny=2\n"));
  ASSERT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n[Net/Eth0]\ny=2\n");
  ExpectAmended(served, Unset("[Net*]\n"), "[A]\nx=1\n[Net/Eth0]\nx=1\ny=2\n[Net/Wlan0]\nx=1\n");
}

TEST(SettingsManagerAmend, AUserValueMayBeUnsetWhereTheDefaultStaysDeleted) {
  ServedStore served({"[A]\nx=1\n"}, "[A]\nx=5\ny=6\n" + kRecord + "A=A\n");
  ExpectAmended(served, Unset("[A]\nx=\n"), "[A]\ny=6\n");
}

TEST(SettingsManagerAmend, FailsWhenAKeyIsBothSetAndUnset) {
  ServedStore served({}, "[A]\nx=1\ny=1\n");
  Amendment amendment = Set("[A]\nx=2\n");
  amendment.unset = DocumentOf("[A]\nx=\n");
  ExpectFailure(served, amendment);
  amendment.unset = DocumentOf("[A]\n");
  ExpectFailure(served, amendment);
  amendment.unset = DocumentOf("[A]\ny=\n");
  ExpectAmended(served, amendment, "[A]\nx=2\n");
}

TEST(SettingsManagerAmend, FailsWhenAReplacedGroupIsSetOrUnset) {
  ServedStore served({}, "[A]\nx=1\n");
  Amendment amendment = Replace("[A]\nx=2\n");
  amendment.set = DocumentOf("[A]\ny=2\n");
  ExpectFailure(served, amendment);
  amendment.set.Clear();
  amendment.unset = DocumentOf("[A]\ny=\n");
  ExpectFailure(served, amendment);
}

TEST(SettingsManagerAmend, NamesAreNeverPatterns) {
  ServedStore served({"[Net/Eth0]\nx=1\n"}, "[Net/Eth0]\nx=2\n[Net*]\nx=3\n");
  ExpectFailure(served, If("", "[Net*]\n", Set("[A]\nx=1\n")));
  ExpectFailure(served, Replace("[Net*]\nx=4\n"));
  ExpectAmended(served, If("", "[N*]\n", Unset("[Net*]\n")), "[Net/Eth0]\nx=2\n");
  ExpectAmended(served, Set("[Net/*]\nx=4\n"), "[Net/*]\nx=4\n[Net/Eth0]\nx=2\n");
}

TEST(SettingsManagerAmend, RestrictedGroupsAreDroppedAndNotRecorded) {
  ServedStore served({}, "", "[Secure/K]\nk=1\n");
  Amendment amendment = Replace("[Secure/L]\nx=1\n[TrustedM]\n");
  amendment.set = DocumentOf("[A]\nx=1\n[Secure/K]\nk=2\n");
  amendment.unset = DocumentOf("[Secure/K]\nk=\n");
  ExpectAmended(served, amendment, "[A]\nx=1\n[Secure/K]\nk=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=1\n");
}

TEST(SettingsManagerAmend, AValueOfTheRestrictedLoaderStaysAboveWhatIsSet) {
  ServedStore served({"[A]\nx=0\n"}, "", "[A]\nx=1\n");
  ExpectAmended(served, Set("[A]\nx=2\ny=2\n"), "[A]\nx=1\ny=2\n");
  served.store.MergeSettings(DocumentOf("[A]\nx=3\n"), 0);
  ExpectAmended(served, Unset("[A]\nx=\n"), "[A]\nx=1\ny=2\n");
}

// Today's requests leave readers without the defaults until the next start.
TEST(SettingsManagerAmend, ComputesWhatTheNextStartWouldShow) {
  ServedStore served({"[A]\nx=1\ny=1\n"});
  served.store.OverwriteSettings("A", DocumentOf("[A]\nz=1\n"));
  served.store.RestoreToDefaults(MatcherOf("TavixSettings/*"));
  ASSERT_EQ(AllSettingsOf(served.store), "[A]\nz=1\n");
  EXPECT_TRUE(served.store.Amend(Unset("[A]\nx=\n")));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\nz=1\n");
  ExpectAmended(served, Unset("[A]\n"), "[A]\nx=1\ny=1\n");
}

TEST(SettingsManagerAmend, AGroupThatAppearsByItsDefaultsAloneIsWhole) {
  for (const char* key : {"nosuch", "x"}) {
    ServedStore served({"[A]\nx=1\ny=1\n"});
    served.store.OverwriteSettings("A", {});
    served.store.RestoreToDefaults(MatcherOf("TavixSettings/*"));
    ASSERT_EQ(AllSettingsOf(served.store), "");
    RecordingCallback callback;
    served.store.Subscribe(&callback, "*");
    ExpectAmended(served, Unset(std::string("[A]\n") + key + "=\n"), "[A]\nx=1\ny=1\n");
    EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A"}, "[A]\nx=1\ny=1\n"}));
  }
}

TEST(SettingsManagerAmend, TakesBackWhatAMergeIntoTheRecordHides) {
  ServedStore served({"[A]\nx=1\ny=1\n[B]\nx=1\n"});
  served.store.MergeSettings(DocumentOf(kRecord + "1=A\n2=B\n"), 0);
  ASSERT_EQ(AllSettingsOf(served.store), "[A]\nx=1\ny=1\n[B]\nx=1\n");
  EXPECT_TRUE(served.store.Amend(Set("[A]\nx=2\n")));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\ny=1\n[B]\nx=1\n");
  ExpectAmended(served, Unset("[A]\nx=\n[B]\n" + kRecord + "1=\n"), "[A]\nx=1\ny=1\n[B]\nx=1\n");
}

TEST(SettingsManagerAmend, ChangesOfTheRecordHideAndShowDefaults) {
  ServedStore served({"[A]\nx=1\n[B]\nx=1\n[Net]\nx=1\n"}, kRecord + "B=B\n");
  ExpectAmended(served, Set(kRecord + "1=A\n2=N*\n"), "");
  ExpectAmended(served, Unset(kRecord + "2=\n"), "[Net]\nx=1\n");
  ExpectAmended(served, Replace(kRecord + "x=Net\n"), "[A]\nx=1\n[B]\nx=1\n");
  EXPECT_EQ(UserSettingsOf(served.store), kRecord + "x=Net\n");
  ExpectAmended(served, Unset(kRecord), "[A]\nx=1\n[B]\nx=1\n[Net]\nx=1\n");
}

TEST(SettingsManagerAmend, WhatWasNotPersistedGoesFromTheKeysThatItTouches) {
  ServedStore served({"[A]\nx=1\ny=1\n[B]\nx=1\n"}, "[A]\nz=1\n");
  served.store.MergeSettings(DocumentOf("[A]\nx=9\ny=9\nz=9\nw=9\n[B]\nx=9\ny=9\n"), SettingsManager::kNoPersist);
  EXPECT_TRUE(served.store.Amend(Unset("[A]\nx=\nz=\nw=\n[B]\n")));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\ny=9\n[B]\nx=1\n");
  ExpectAmended(served, Set("[A]\ny=1\n"), "[A]\nx=1\ny=1\n[B]\nx=1\n");
}

TEST(SettingsManagerAmend, ReadsNoFile) {
  ServedStore served({"[A]\nx=1\n"}, "[A]\nx=2\n");
  served.persister.SetDefaults({"[A]\nx=another\n"});
  EXPECT_TRUE(served.store.Amend(Unset("[A]\nx=\n")));
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n");
}

TEST(SettingsManagerAmend, AnnouncesTheGroupsThatReadersSeeDifferentlyAndNoOthers) {
  ServedStore served({"[A]\nx=1\ny=1\n[B]\nx=1\n[C]\nx=1\n"}, "[A]\ny=2\nz=3\n[B]\nx=1\n");
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  Amendment amendment = Set("[C]\nx=1\n[D]\nx=5\n");
  amendment.unset = DocumentOf("[A]\ny=\nz=\n[B]\n");
  amendment.replace = DocumentOf("[E]\n[F]\nk=1\n");
  EXPECT_TRUE(served.store.Amend(amendment));
  EXPECT_THAT(callback.TakeChanges(), ElementsAre(Change{{"A", "D", "F"}, "[A]\ny=1\n[D]\nx=5\n[F]\nk=1\n"}));
  EXPECT_TRUE(served.store.Amend(Replace("[C]\n")));
  EXPECT_THAT(callback.TakeChanges(), ElementsAre(Change{{"C"}, ""}));
}

TEST(SettingsManagerAmend, OneThatChangesNothingForReadersIsSavedAndAnnouncedToNobody) {
  ServedStore served({"[A]\nx=1\n"});
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  ExpectAmended(served, Set("[A]\nx=1\n"), "[A]\nx=1\n");
  EXPECT_EQ(served.persister.GetSaved(), "[A]\nx=1\n");
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST(SettingsManagerAmend, IsSavedOnce) {
  ServedStore served({"[A]\nx=1\n"}, "[A]\nx=2\n[B]\nx=1\n");
  Amendment amendment = Set("[C]\nx=1\n");
  amendment.unset = DocumentOf("[A]\nx=\n");
  amendment.replace = DocumentOf("[B]\n");
  ExpectAmended(served, amendment, "[A]\nx=1\n[C]\nx=1\n");
  EXPECT_EQ(served.persister.CountSaves(), 1);
  EXPECT_EQ(served.persister.GetSaved(), "[C]\nx=1\n" + kRecord + "B=B\n");
}

TEST(SettingsManagerAmend, IsMadeInAStoreWithoutAPersister) {
  SettingsManager store;
  EXPECT_TRUE(store.Amend(If("", "[A]\n", Set("[A]\nx=1\ny=1\n"))));
  EXPECT_TRUE(store.Amend(Unset("[A]\nx=\n")));
  EXPECT_EQ(AllSettingsOf(store), "[A]\ny=1\n");
}

TEST(SettingsManagerAmend, IsRefusedInAChangeCallback) {
  ServedStore served({"[A]\nx=1\n"});
  RecordingCallback callback([&] { static_cast<void>(served.store.Amend(Set("[A]\nx=3\n"))); });
  served.store.Subscribe(&callback, "A");
  EXPECT_THROW(static_cast<void>(served.store.Amend(Set("[A]\nx=2\n"))), osa::Exception);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\n");
}

TEST(SettingsManagerAmend, ASaveThatFailsKeepsTheChangeInMemoryAndTellsNobody) {
  ServedStore served({"[A]\nx=1\n"});
  RecordingCallback callback;
  served.store.Subscribe(&callback, "*");
  served.persister.FailNextSave();
  EXPECT_THROW(static_cast<void>(served.store.Amend(Set("[A]\nx=2\n"))), osa::Exception);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\n");
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST(SettingsManagerAmend, IsRefusedWhenTheStoreIsFullUnlessItDoesNotGrow) {
  ServedStore served({"[A]\nx=1\n"}, "[B]\nx=5\n");
  served.store.SetMaxBytes(1);
  const std::string user = UserSettingsOf(served.store);
  EXPECT_THROW(static_cast<void>(served.store.Amend(Set("[C]\nx=1\n"))), RefusedChange);
  EXPECT_THROW(static_cast<void>(served.store.Amend(Set("[A]\nx=2\n"))), RefusedChange);
  EXPECT_EQ(UserSettingsOf(served.store), user);
  ExpectAmended(served, Set("[B]\nx=6\n"), "[A]\nx=1\n[B]\nx=6\n");
  ExpectAmended(served, Unset("[B]\nx=\n"), "[A]\nx=1\n");
}

// So that whoever administrates a full store can make room.
TEST(SettingsManagerAmend, ErasesAGroupOfTheDefaultsWhenTheStoreIsFull) {
  ServedStore served({"[A]\nx=1\ny=2\n"});
  served.store.SetMaxBytes(1);
  ExpectAmended(served, Replace("[A]\n"), "");
}

TEST(SettingsManagerAmend, IsRefusedWhenTheRecordWouldHoldTooManyPatterns) {
  ServedStore served({"[A]\nx=1\n"}, kRecord + "B*=B*\n");
  served.store.SetMaxDeletedPatterns(1);
  EXPECT_THROW(static_cast<void>(served.store.Amend(Set(kRecord + "C*=C*\n"))), RefusedChange);
  EXPECT_THAT(UserSettingsOf(served.store), Not(HasSubstr("C*")));
  ExpectAmended(served, Replace("[A]\n"), "");
  Amendment exchange = Set(kRecord + "C*=C*\n");
  exchange.unset = DocumentOf("[B*]\n");
  ExpectAmended(served, exchange, "");
}

}  // namespace tavix::test
