#include "programs/server/persistence/HistoryEntry.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/DocumentText.h"

namespace tavix::test {

using core::IniFile;
using daemon::AddDifference;
using daemon::HistoryEntry;

namespace {

const IniFile::KeyMap* FindGroup(const IniFile& document, const std::string& name) {
  const auto group = document.GetGroups().find(name);
  return group == document.GetGroups().end() ? nullptr : &group->second;
}

// What becomes of the group A.
HistoryEntry EntryOf(const std::string& before, const std::string& after) {
  const IniFile old = DocumentOf(before);
  const IniFile now = DocumentOf(after);
  HistoryEntry entry;
  AddDifference("A", FindGroup(old, "A"), FindGroup(now, "A"), entry);
  return entry;
}

}  // namespace

TEST(HistoryEntry, HasWhatDiffersAndNothingElse) {
  const HistoryEntry entry = EntryOf("[A]\nw=1\nx=1\ny=1\n", "[A]\nw=1\nx=2\nz=3\n");
  EXPECT_EQ(TextOf(entry.was), "[A]\nx=1\ny=1\n");
  EXPECT_EQ(TextOf(entry.wasNot), "[A]\nz=\n");
  EXPECT_EQ(TextOf(entry.is), "[A]\nx=2\nz=3\n");
  EXPECT_TRUE(EntryOf("[A]\nx=1\n", "[A]\nx=1\n").IsEmpty());
}

TEST(HistoryEntry, NamesAnEmptyGroupThatComesOrGoes) {
  EXPECT_EQ(TextOf(EntryOf("", "[A]\n").wasNot), "[A]\n");
  EXPECT_EQ(TextOf(EntryOf("", "[A]\n").is), "[A]\n");
  EXPECT_EQ(TextOf(EntryOf("[A]\n", "").was), "[A]\n");
  EXPECT_TRUE(EntryOf("[A]\n", "[A]\n").IsEmpty());
}

TEST(HistoryEntry, LeadsBackFromEachStateOfAGroupToEachOther) {
  const char* const states[] = {"", "[A]\n", "[A]\n=1\n", "[A]\nx=1\n", "[A]\nx=2\n", "[A]\nx=1\ny=1\n"};
  for (const std::string before : states) {
    for (const std::string after : states) {
      IniFile document = DocumentOf(after + "[B]\nx=1\n");
      Undo(EntryOf(before, after), document);
      EXPECT_EQ(TextOf(document), before + "[B]\nx=1\n") << before << " to " << after;
    }
  }
}

}  // namespace tavix::test
