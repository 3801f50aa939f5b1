#include "tavix/core/IniFile.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"

namespace {

using tavix::core::IniFile;
using tavix::test::DocumentOf;
using tavix::test::RandomDocuments;

TEST(IniFile, AMergeLetsTheSourceWinAndRemovesNothing) {
  IniFile ini = DocumentOf("[a]\nkept=1\nchanged=1\n[only here]\nk=v\n");
  ini.MergeSettings(DocumentOf("[a]\nchanged=2\nadded=2\n[only there]\nk=v\n"));
  EXPECT_EQ(ini.GetGroups(),
            DocumentOf("[a]\nadded=2\nchanged=2\nkept=1\n[only here]\nk=v\n[only there]\nk=v\n").GetGroups());
}

TEST(IniFile, AMergeKeepsTheSourceAsItWas) {
  IniFile ini = DocumentOf("[a]\nk=1\n");
  const IniFile source = DocumentOf("[a]\nk=2\n[b]\nk=2\n");
  ini.MergeSettings(source);
  EXPECT_EQ(source.GetGroups(), DocumentOf("[a]\nk=2\n[b]\nk=2\n").GetGroups());
}

TEST(IniFile, AMergeCreatesGroupsWithoutKeys) {
  IniFile copied, moved;
  copied.MergeSettings(DocumentOf("[Empty]\n"));
  EXPECT_TRUE(copied.HasGroup("Empty"));
  const IniFile source = DocumentOf("[Empty]\n");
  moved.MergeSettings(source, "Empty");
  EXPECT_TRUE(moved.HasGroup("Empty"));
}

TEST(IniFile, MergingADocumentIntoItselfChangesNothing) {
  const IniFile expected = DocumentOf("[a]\nk=1\n[b]\n");
  IniFile ini = DocumentOf("[a]\nk=1\n[b]\n");
  const IniFile& same = ini;
  ini.MergeSettings(same);
  EXPECT_EQ(ini.GetGroups(), expected.GetGroups());
  ini.MergeSettings(same, "a");
  EXPECT_EQ(ini.GetGroups(), expected.GetGroups());
  ini.MergeSettings(std::move(ini));
  EXPECT_EQ(ini.GetGroups(), expected.GetGroups());
}

TEST(IniFile, MergingAnEmptyDocumentChangesNothing) {
  IniFile ini = DocumentOf("[a]\nk=1\n");
  const IniFile empty;
  ini.MergeSettings(empty);
  ini.MergeSettings(IniFile());
  ini.MergeSettings(empty, "a");
  EXPECT_EQ(ini.GetGroups(), DocumentOf("[a]\nk=1\n").GetGroups());
}

TEST(IniFile, AMergeOfOneGroupLeavesTheOthers) {
  IniFile ini = DocumentOf("[a]\nk=1\nkept=1\n");
  const IniFile source = DocumentOf("[a]\nk=2\n[b]\nk=2\n");
  ini.MergeSettings(source, "a");
  EXPECT_EQ(ini.GetGroups(), DocumentOf("[a]\nk=2\nkept=1\n").GetGroups());
}

TEST(IniFile, AGroupOfAnotherDocumentIsMergedByItsPlaceThere) {
  IniFile ini = DocumentOf("[a]\nk=1\nkept=1\n");
  const IniFile source = DocumentOf("[a]\nk=2\n[b]\nk=2\n[c]\n");
  for (IniFile::const_iterator group = source.begin(); group != source.end(); ++group) {
    if (group->first != "b") ini.MergeGroup(group);
  }
  EXPECT_EQ(ini.GetGroups(), DocumentOf("[a]\nk=2\nkept=1\n[c]\n").GetGroups());
}

TEST(IniFile, AMergeOfAMissingGroupChangesNothing) {
  IniFile ini = DocumentOf("[a]\nk=1\n");
  const IniFile source = DocumentOf("[b]\nk=2\n");
  ini.MergeSettings(source, "a");
  ini.MergeSettings(source, "c");
  EXPECT_EQ(ini.GetGroups(), DocumentOf("[a]\nk=1\n").GetGroups());
}

IniFile::GroupMap Merged(IniFile::GroupMap target, const IniFile::GroupMap& source) {
  for (const auto& [name, keys] : source) {
    IniFile::KeyMap& merged = target[name];
    for (const auto& [key, value] : keys) merged[key] = value;
  }
  return target;
}

TEST(IniFile, EveryKindOfMergeGivesTheSameDocument) {
  RandomDocuments documents(1);
  for (int round = 0; round < 2000; ++round) {
    const IniFile::GroupMap first = documents.Next();
    const IniFile::GroupMap second = documents.Next();
    const IniFile source(second);
    IniFile copied(first), moved(first), byGroup(first);
    copied.MergeSettings(source);
    moved.MergeSettings(IniFile(second));
    for (const auto& group : second) byGroup.MergeSettings(source, group.first);
    const IniFile::GroupMap expected = Merged(first, second);
    ASSERT_EQ(copied.GetGroups(), expected);
    ASSERT_EQ(moved.GetGroups(), expected);
    ASSERT_EQ(byGroup.GetGroups(), expected);
  }
}

TEST(IniFile, AMergeThatMovesEmptiesItsSource) {
  for (const char* target : {"", "[a]\nk=1\n", "[a]\n", "[b]\nk=1\n"}) {
    IniFile ini = DocumentOf(target);
    IniFile source = DocumentOf("[a]\nk=2\n[b]\nk=2\n");
    ini.MergeSettings(std::move(source));
    EXPECT_TRUE(source.IsEmpty()) << target;
    EXPECT_EQ(ini.GetValue("a", "k") + ini.GetValue("b", "k"), "22") << target;
  }
}

TEST(IniFile, AMergeThatMovesCopiesNoText) {
  const std::string text(1000, 'x');
  for (const char* target : {"", "[a]\n", "[a]\nother=1\n", "[a]\nk=1\n", "[b]\n"}) {
    IniFile ini = DocumentOf(target);
    IniFile source = DocumentOf("[a]\nk=" + text + "\n");
    const char* bytes = source.GetValue("a", "k").data();
    ini.MergeSettings(std::move(source));
    EXPECT_EQ(ini.GetValue("a", "k").data(), bytes) << target;
  }
}

TEST(IniFile, ContainsWhatStandsInIt) {
  const IniFile ini = DocumentOf("[a]\nk=1\nl=2\n[b]\nempty=\n");
  for (const char* part : {"", "[a]\nk=1\n", "[a]\nl=2\n[b]\nempty=\n", "[a]\nk=1\nl=2\n[b]\nempty=\n"})
    EXPECT_TRUE(ini.ContainsSettings(DocumentOf(part))) << part;
  EXPECT_TRUE(ini.ContainsSettings(ini));
}

TEST(IniFile, DoesNotContainWhatDiffersInOneByte) {
  const IniFile ini = DocumentOf("[a]\nk=value\n");
  for (const char* other : {"[a]\nk=Value\n", "[a]\nk=valu\n", "[a]\nk=value1\n", "[a]\nk=\n", "[a]\nk=value\\x00\n"})
    EXPECT_FALSE(ini.ContainsSettings(DocumentOf(other))) << other;
}

TEST(IniFile, DoesNotContainWhatItLacks) {
  const IniFile ini = DocumentOf("[a]\nk=1\n");
  for (const char* other : {"[a]\nk=1\nextra=\n", "[b]\nk=1\n", "[a]\nk=1\n[b]\nextra=1\n"})
    EXPECT_FALSE(ini.ContainsSettings(DocumentOf(other))) << other;
}

TEST(IniFile, GroupsWithoutKeysAreContainedEverywhere) {
  EXPECT_TRUE(IniFile().ContainsSettings(DocumentOf("[a]\n[b]\n")));
}

}  // namespace
