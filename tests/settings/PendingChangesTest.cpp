#include "tavix/settings/PendingChanges.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/support/DocumentText.h"

namespace tavix::settings {

using test::DocumentOf;
using test::TextOf;

TEST(PendingChanges, NothingIsPendingAtFirst) {
  PendingChanges pending;
  core::IniFile document = DocumentOf("[A]\nx=1\n");
  EXPECT_TRUE(pending.IsEmpty());
  pending.ApplyTo(document);
  EXPECT_EQ(TextOf(document), "[A]\nx=1\n");
}

TEST(PendingChanges, HoldsEachGroupAsItsLatestNoticeHadIt) {
  PendingChanges pending;
  core::IniFile document = DocumentOf("[A]\nold=1\n[B]\nold=1\n[C]\nold=1\n");
  pending.Add({"A", "B"}, DocumentOf("[A]\nx=1\n[B]\nx=1\n"));
  pending.Add({"A"}, DocumentOf("[A]\ny=2\n"));
  EXPECT_EQ(pending.GetGroups(), (std::set<std::string>{"A", "B"}));
  pending.ApplyTo(document);
  EXPECT_EQ(TextOf(document), "[A]\ny=2\n[B]\nx=1\n[C]\nold=1\n");
}

TEST(PendingChanges, AGroupThatANoticeNamesButLacksIsGone) {
  PendingChanges pending;
  core::IniFile document = DocumentOf("[A]\nold=1\n");
  pending.Add({"A"}, DocumentOf("[A]\nx=1\n"));
  pending.Add({"A"}, core::IniFile());
  EXPECT_FALSE(pending.IsEmpty());
  pending.ApplyTo(document);
  EXPECT_EQ(TextOf(document), "");
}

TEST(PendingChanges, GroupsThatANoticeDoesNotNameAreNotTakenOver) {
  PendingChanges pending;
  core::IniFile document = DocumentOf("[B]\nold=1\n");
  pending.Add({"A"}, DocumentOf("[A]\nx=1\n[B]\nx=1\n"));
  pending.ApplyTo(document);
  EXPECT_EQ(TextOf(document), "[A]\nx=1\n[B]\nold=1\n");
}

TEST(PendingChanges, AreForgottenOnceTheyAreApplied) {
  PendingChanges pending;
  core::IniFile document;
  pending.Add({"A"}, DocumentOf("[A]\nx=1\n"));
  pending.ApplyTo(document);
  EXPECT_TRUE(pending.IsEmpty());
  document.Clear();
  pending.ApplyTo(document);
  EXPECT_EQ(TextOf(document), "");
}

TEST(PendingChanges, AreForgottenWhenTheyAreCleared) {
  PendingChanges pending;
  core::IniFile document = DocumentOf("[A]\nold=1\n");
  pending.Add({"A"}, DocumentOf("[A]\nx=1\n"));
  pending.Clear();
  EXPECT_TRUE(pending.IsEmpty());
  pending.ApplyTo(document);
  EXPECT_EQ(TextOf(document), "[A]\nold=1\n");
}

}  // namespace tavix::settings
