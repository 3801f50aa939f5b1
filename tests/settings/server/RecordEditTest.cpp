#include "tavix/settings/server/RecordEdit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

using core::IniFile;
using settings::server::DeletedGroupsRecord;
using settings::server::RecordEdit;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

// A record with a name, a name under another key, and a pattern.
struct RecordEditTest : testing::Test {
  RecordEditTest() { record.Read(user); }

  const IniFile user = DocumentOf("[Record]\nA=A\nby hand=B\nN*=N*\n");
  DeletedGroupsRecord record{"Record"};
  RecordEdit edit{record, user["Record"]};
};

}  // namespace

TEST_F(RecordEditTest, KnowsMembersUnderWhateverKeyTheyStand) {
  for (const char* member : {"A", "B", "N*"}) {
    EXPECT_TRUE(edit.Holds(member)) << member;
    EXPECT_TRUE(edit.HeldBefore(member)) << member;
  }
  EXPECT_FALSE(edit.Holds("by hand"));
}

TEST_F(RecordEditTest, AddsAMemberOnce) {
  edit.Add("A");
  edit.Add("B");
  edit.Add("C");
  edit.Add("C");
  EXPECT_THAT(edit.GetSet(), ElementsAre(Pair("C", "C")));
  EXPECT_TRUE(edit.OnlyAdds());
}

TEST_F(RecordEditTest, AddsAMemberWhoseKeyIsTakenUnderAnother) {
  edit.Add("by hand");
  EXPECT_THAT(edit.GetSet(), ElementsAre(Pair("by hand~", "by hand")));
}

TEST_F(RecordEditTest, ErasesAMemberUnderAllItsKeys) {
  edit.Set("again", "B");
  edit.EraseMember("B");
  EXPECT_THAT(edit.GetErased(), ElementsAre("by hand"));
  EXPECT_THAT(edit.GetSet(), IsEmpty());
  EXPECT_FALSE(edit.Holds("B"));
  EXPECT_TRUE(edit.HeldBefore("B"));
  EXPECT_FALSE(edit.OnlyAdds());
}

TEST_F(RecordEditTest, ErasesMembersWhoseKeysChangeBetweenTheErasures) {
  edit.Set("1", "C");
  edit.EraseMember("B");
  edit.Set("2", "C");
  edit.Set("1", "D");
  edit.Erase("3");
  edit.Set("by hand", "D");
  edit.EraseMember("C");
  EXPECT_THAT(edit.GetSet(), ElementsAre(Pair("1", "D"), Pair("by hand", "D")));
  edit.EraseMember("D");
  EXPECT_THAT(edit.GetSet(), IsEmpty());
  EXPECT_THAT(edit.GetErased(), ElementsAre("by hand"));
}

// A walk through the record for each of them would take billions of steps.
TEST(RecordEdit, ErasesManyMembersUnderOtherKeysInOneWalk) {
  constexpr int kMembers = 100000;
  IniFile user;
  for (int i = 0; i < kMembers; ++i) user["Record"][std::to_string(i)] = "A" + std::to_string(i);
  DeletedGroupsRecord record("Record");
  record.Read(user);
  RecordEdit edit(record, user["Record"]);
  for (int i = 0; i < kMembers; ++i) edit.EraseMember("A" + std::to_string(i));
  EXPECT_TRUE(edit.IsEmptied());
}

TEST_F(RecordEditTest, WhatComesBackUnderItsKeyIsNoChange) {
  edit.Erase("A");
  edit.Set("A", "A");
  EXPECT_THAT(edit.GetErased(), IsEmpty());
  EXPECT_THAT(edit.GetSet(), IsEmpty());
}

TEST_F(RecordEditTest, IsReplacedByOtherMembers) {
  edit.Replace({{"A", "C"}, {"N*", "N*"}});
  EXPECT_THAT(edit.GetErased(), ElementsAre("by hand"));
  EXPECT_THAT(edit.GetSet(), ElementsAre(Pair("A", "C")));
  EXPECT_THAT(edit.GetTouched(), ElementsAre("A", "B", "C"));
}

TEST_F(RecordEditTest, FindsThePatternsOfBeforeAndOfThen) {
  edit.EraseMember("N*");
  edit.Add("M*");
  EXPECT_THAT(edit.FindPatternsBefore().GetPatterns(), ElementsAre("N*"));
  EXPECT_THAT(edit.FindPatterns().GetPatterns(), ElementsAre("M*"));
  EXPECT_EQ(edit.GetCounts().patterns, 0);
}

TEST_F(RecordEditTest, KnowsThatNothingIsLeft) {
  EXPECT_FALSE(edit.IsEmptied());
  edit.Replace({});
  EXPECT_TRUE(edit.IsEmptied());
  edit.Add("C");
  EXPECT_FALSE(edit.IsEmptied());
}

}  // namespace tavix::test
