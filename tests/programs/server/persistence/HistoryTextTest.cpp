#include "programs/server/persistence/HistoryText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/DocumentText.h"

namespace tavix::test {

using core::IniFile;
using daemon::EncodeEntry;
using daemon::HistoryEntry;
using daemon::ReadEntries;
using daemon::SpellEntry;
using settings::server::ChangeOrigin;
using settings::server::ClientIdentity;
using testing::HasSubstr;
using testing::Not;

namespace {

HistoryEntry MakeEntry() {
  HistoryEntry entry;
  entry.revision = 118;
  entry.time = 1795311855000000000;
  entry.command = "merge";
  entry.by = "unix 1000 100 812";
  entry.note = "site 4";
  entry.trial = "t-3f9a";
  entry.was = DocumentOf("[Network]\nhostname=old\n[Gone]\n");
  entry.wasNot = DocumentOf("[Network]\naddress=\n[Came]\n");
  entry.is = DocumentOf("[Network]\nhostname=new\naddress=10.0.0.2\n[Came]\n");
  return entry;
}

// All that a text of settings has to escape, in a name, a key, a value and a note.
HistoryEntry MakeHostileEntry() {
  HistoryEntry entry = MakeEntry();
  entry.note = " \n# change 00000000 00000000 00000000\n\\";
  for (IniFile* document : {&entry.was, &entry.is}) {
    document->SetValue("a]b\n# change ", "k=\n#\\", " \n# change \n ");
    document->SetValue("", "", "");
    document->SetValue("# change ", "# change ", "[g]k=v");
    document->SetValue("[x", "]", "]=");
  }
  entry.wasNot.SetValue("a]b\n# change ", "\n=]", "");
  entry.wasNot.SetValue("Key without text", "", "");
  return entry;
}

std::string SpellAll(const HistoryEntry& entry) {
  const daemon::HistoryLines lines = EncodeEntry(entry);
  return SpellEntry(entry.revision, lines.change) + lines.now;
}

void ExpectEqual(const HistoryEntry& entry, const HistoryEntry& expected) {
  EXPECT_EQ(entry.revision, expected.revision);
  EXPECT_EQ(entry.time, expected.time);
  EXPECT_EQ(entry.command, expected.command);
  EXPECT_EQ(entry.by, expected.by);
  EXPECT_EQ(entry.note, expected.note);
  EXPECT_EQ(entry.trial, expected.trial);
  EXPECT_EQ(TextOf(entry.was), TextOf(expected.was));
  EXPECT_EQ(TextOf(entry.wasNot), TextOf(expected.wasNot));
  EXPECT_EQ(TextOf(entry.is), TextOf(expected.is));
}

std::string DescribeBy(const ChangeOrigin& origin) {
  const IniFile now = DocumentOf("[A]\nx=1\n");
  const IniFile nothing;
  const HistoryEntry entry = daemon::DescribeForHistory({now, {"A"}, nothing, origin, &nothing}, 7);
  return SpellEntry(1, EncodeEntry(entry).change);
}

}  // namespace

TEST(HistoryText, HasALineForTheChangeTheNoteAndEachSetting) {
  EXPECT_EQ(SpellAll(MakeEntry()),
            "#@ 118 1795311855000000000 merge unix 1000 100 812\n"
            "#n site 4\n"
            "#t t-3f9a\n"
            "#- [Gone]\n"
            "#- [Network]hostname=old\n"
            "#! [Came]\n"
            "#! [Network]address\n"
            "#+ [Came]\n"
            "#+ [Network]address=10.0.0.2\n"
            "#+ [Network]hostname=new\n");
}

TEST(HistoryText, SaysWhoMadeTheChangeAndADashForWhatIsNotKnown) {
  const ChangeOrigin unixClient{{ClientIdentity::Connection::kUnix, 1000, 100, 812}, "merge", "a\nb"};
  EXPECT_EQ(DescribeBy(unixClient), "#@ 1 7 merge unix 1000 100 812\n#n a\\nb\n#! [A]x\n");
  EXPECT_EQ(DescribeBy({{ClientIdentity::Connection::kTcp}, "overwrite", ""}), "#@ 1 7 overwrite tcp - - -\n#! [A]x\n");
  EXPECT_EQ(DescribeBy({}), "#@ 1 7 - local - - -\n#! [A]x\n");
}

TEST(HistoryText, HasTheTrialOnWhichAChangeWasPutOrWhichItReverts) {
  ChangeOrigin origin{{ClientIdentity::Connection::kTcp}, "merge", {}, " 90  t-1 "};
  EXPECT_EQ(DescribeBy(origin), "#@ 1 7 merge tcp - - -\n#t t-1\n#! [A]x\n");
  origin.trial = "t-1";
  EXPECT_EQ(DescribeBy(origin), "#@ 1 7 merge tcp - - -\n#t t-1\n#! [A]x\n");
}

TEST(HistoryText, HasAHeadThatNamesTheTrial) {
  const HistoryEntry head = daemon::ReadHead(SpellAll(MakeEntry()));
  EXPECT_EQ(head.note, "site 4");
  EXPECT_EQ(head.trial, "t-3f9a");
  EXPECT_TRUE(head.IsEmpty());
}

TEST(HistoryText, IsReadAsItWasWritten) {
  const std::string text =
      SpellAll(MakeEntry()) + SpellAll(MakeHostileEntry()) + "[Group]\nx=1\n#@ 2 2 merge tcp - - -\n";
  const std::vector<HistoryEntry> entries = ReadEntries(text);
  ASSERT_EQ(entries.size(), 2u);
  ExpectEqual(entries[0], MakeEntry());
  ExpectEqual(entries[1], MakeHostileEntry());
}

TEST(HistoryText, IsOfCommentsOnlyNoneOfWhichLooksLikeTheLineOfARecord) {
  const std::string text = SpellAll(MakeHostileEntry());
  EXPECT_TRUE(DocumentOf(text).IsEmpty());
  EXPECT_THAT("\n" + text, Not(HasSubstr("\n# change ")));
  EXPECT_THAT("\n" + text, Not(HasSubstr("\n# extend ")));
}

TEST(HistoryText, SkipsWhatIsNoLineOfAnEntry) {
  EXPECT_TRUE(ReadEntries("").empty());
  EXPECT_TRUE(ReadEntries("# Any comment\n#- [A]x=1\n[A]\nx=1\n").empty());
  EXPECT_TRUE(ReadEntries("#@ 1\n#@ x 1 merge tcp - - -\n#- [A]x=1\n").empty());
  const std::vector<HistoryEntry> entries = ReadEntries("#@ 1 2 merge tcp - - -\n#? what\n#-\n#- A]x\n#t 4\n");
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_TRUE(entries[0].IsEmpty());
}

}  // namespace tavix::test
