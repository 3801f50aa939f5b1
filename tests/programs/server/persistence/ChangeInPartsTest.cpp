#include "programs/server/persistence/ChangeInParts.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>

#include "tests/support/DocumentText.h"

namespace tavix::test {

using core::IniFile;
using daemon::Change;
using daemon::ChangedGroups;
using daemon::ChangeInParts;

namespace {

ChangedGroups::Changes Groups(std::set<std::string> names, const IniFile& added = {}) {
  ChangedGroups::Changes changes;
  changes.groups = std::move(names);
  changes.added = added;
  return changes;
}

Change MakeAll(ChangeInParts& change, const IniFile& layer) {
  while (change.MakePart(layer)) continue;
  change.Seal();
  return change.GetChange();
}

void ExpectSame(const Change& change, const Change& expected) {
  EXPECT_EQ(change.removed, expected.removed);
  EXPECT_EQ(change.set, expected.set);
  EXPECT_EQ(change.extends, expected.extends);
}

}  // namespace

TEST(ChangeInParts, IsTheChangeThatIsDescribedAtOnce) {
  const IniFile layer = DocumentOf("[A]\nx=1\n[B]\n[C]\nz=3\n");
  const std::set<std::string> names{"A", "B", "Gone"};
  ChangeInParts change(1);
  change.Add(Groups(names));
  ExpectSame(MakeAll(change, layer), daemon::DescribeChange(layer, names));
}

TEST(ChangeInParts, HasWhatWasAddedToFurtherGroups) {
  const IniFile layer = DocumentOf("[A]\nx=1\n[List]\n1=one\n2=two\n");
  const IniFile added = DocumentOf("[A]\nx=1\n[List]\n2=two\n");
  ChangeInParts change;
  change.Add(Groups({"A", "Gone"}, added));
  ExpectSame(MakeAll(change, layer), daemon::DescribeChange(layer, {"A", "Gone"}, added));
}

TEST(ChangeInParts, IsThatOfTheLastMomentThoughGroupsChangedBetweenTheParts) {
  ChangeInParts change(1);
  change.Add(Groups({"A", "B"}));
  EXPECT_TRUE(change.MakePart(DocumentOf("[A]\nx=1\n[B]\nx=1\n")));
  const IniFile layer = DocumentOf("[B]\nx=2\n[C]\nx=2\n");
  change.Add(Groups({"A", "B", "C"}));
  ExpectSame(MakeAll(change, layer), daemon::DescribeChange(layer, {"A", "B", "C"}));
}

TEST(ChangeInParts, HasWhatAGroupGotWhoseTextWasMadeBefore) {
  ChangeInParts change;
  change.Add(Groups({"A"}));
  EXPECT_FALSE(change.MakePart(DocumentOf("[A]\nx=1\n")));
  const IniFile layer = DocumentOf("[A]\nx=1\ny=2\n");
  change.Add(Groups({}, DocumentOf("[A]\ny=2\n")));
  ExpectSame(MakeAll(change, layer), daemon::DescribeChange(layer, {"A"}));
}

TEST(ChangeInParts, TakesTheGroupsOfLargeChangesToo) {
  const IniFile layer = DocumentOf("[A]\nx=1\n[B]\nx=2\n");
  ChangedGroups::Changes changes = Groups({"A"});
  changes.many.push_back(std::make_shared<const std::set<std::string>>(std::set<std::string>{"B"}));
  ChangeInParts change;
  change.Add(std::move(changes));
  ExpectSame(MakeAll(change, layer), daemon::DescribeChange(layer, {"A", "B"}));
}

TEST(ChangeInParts, SealsTheLengthOfWhatItWrites) {
  const IniFile layer = DocumentOf("[A]\nx=1\n[B]\nx=2\n");
  ChangeInParts change;
  change.Add(Groups({"A", "B", "Gone"}));
  while (change.MakePart(layer)) continue;
  const daemon::RecordLine line = change.Seal();
  std::string written;
  change.WriteTexts([&](std::string_view text) { written += text; });
  EXPECT_EQ(written, change.GetChange().removed + change.GetChange().set);
  EXPECT_EQ(written.size(), line.removed + line.set);
}

TEST(ChangeInParts, GivesBackAllThatWasAdded) {
  ChangeInParts change(1);
  change.Add(Groups({"A", "B"}, DocumentOf("[List]\n1=one\n")));
  change.MakePart(DocumentOf("[A]\nx=1\n"));
  ChangedGroups::Changes changes = change.TakeBack();
  EXPECT_EQ(changes.TakeNames(), (std::set<std::string>{"A", "B", "List"}));
  EXPECT_TRUE(change.IsEmpty());
}

}  // namespace tavix::test
