#include "programs/server/persistence/JournalText.h"

#include <gtest/gtest.h>

#include <vector>

#include "tavix/osa/Exception.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"

namespace tavix::test {

using daemon::Change;
using daemon::JournalReader;

namespace {

const std::vector<Change> kChanges = {{"", "[A]\nx=1\n"}, {"[A]\n", "[B]\ny=2\n"}, {"", "[C]\n"}};

std::string MakeJournal(const std::vector<Change>& changes = kChanges, uint64_t follows = 7) {
  uint32_t checksum = daemon::BeginJournalChecksum({follows, 0});
  std::string journal = daemon::EncodeJournalHeader({follows, 0}, daemon::kJournalHeaderSize);
  for (const Change& change : changes) journal += daemon::EncodeRecord(change, checksum);
  return journal;
}

size_t CountRecords(const std::string& journal) {
  JournalReader reader(journal);
  size_t count = 0;
  while (reader.IsJournal() && reader.Next()) ++count;
  return count;
}

// What the change from one document to the other is, and makes.
core::IniFile ChangeTo(core::IniFile before, const core::IniFile& after) {
  std::set<std::string> groups;
  for (const auto& group : before) groups.insert(group.first);
  for (const auto& group : after) groups.insert(group.first);
  const Change change = daemon::DescribeChange(after, groups);
  daemon::ApplyChange(before, change.removed, change.set);
  return before;
}

}  // namespace

TEST(JournalText, ChangeHoldsTheGroupsThatChangedAndNoOthers) {
  const Change change = daemon::DescribeChange(DocumentOf("[A]\nx=1\n[B]\ny=2\n[C]\n"), {"A", "C", "gone"});
  EXPECT_EQ(change.removed, "[gone]\n");
  EXPECT_EQ(change.set, "[A]\nx=1\n[C]\n");
}

TEST(JournalText, ChangeReplacesWholeGroups) {
  core::IniFile document = DocumentOf("[A]\nold=1\n[B]\ny=2\n[C]\nz=3\n");
  daemon::ApplyChange(document, "[B]\n", "[A]\nx=1\n");
  EXPECT_EQ(TextOf(document), "[A]\nx=1\n[C]\nz=3\n");
}

TEST(JournalText, ChangeThatExtendsAGroupHoldsWhatTheGroupGotAndReplacesOthers) {
  core::IniFile document = DocumentOf("[A]\nold=1\n[B]\ny=2\n[List]\n1=one\n");
  const core::IniFile after = DocumentOf("[A]\nx=1\n[List]\n1=one\n2=two\n");
  const Change change = daemon::DescribeChange(after, {"A", "B"}, DocumentOf("[List]\n2=two\n"));
  EXPECT_TRUE(change.extends);
  EXPECT_EQ(change.removed, "[A]\n[B]\n");
  EXPECT_EQ(change.set, "[A]\nx=1\n[List]\n2=two\n");
  daemon::ApplyChange(document, change.removed, change.set, change.extends);
  EXPECT_EQ(TextOf(document), TextOf(after));
}

TEST(JournalText, GroupThatIsDifferentAltogetherIsNotExtended) {
  const core::IniFile after = DocumentOf("[List]\n2=two\n");
  const Change change = daemon::DescribeChange(after, {"List"}, DocumentOf("[List]\n2=two\n"));
  EXPECT_FALSE(change.extends);
  EXPECT_EQ(change.set, "[List]\n2=two\n");
}

TEST(JournalText, ChangesThatExtendAreToldFromOthers) {
  std::string journal = MakeJournal({{"", "[A]\nx=1\n", true}, {"", "[A]\ny=1\n", false}});
  journal[daemon::kJournalVersionAt] = daemon::kExtendingVersion;
  JournalReader reader(journal);
  ASSERT_TRUE(reader.IsJournal());
  EXPECT_TRUE(reader.HasExtendingVersion());
  EXPECT_TRUE(daemon::IsBeginOfJournal(journal));
  ASSERT_TRUE(reader.Next());
  EXPECT_TRUE(reader.Extends());
  ASSERT_TRUE(reader.Next());
  EXPECT_FALSE(reader.Extends());
  EXPECT_FALSE(reader.HasMore());
}

TEST(JournalText, RecordThatExtendsIsFoundBehindADamagedOne) {
  std::string journal = MakeJournal({{"", "[A]\nx=1\n"}, {"", "[A]\nx=2\n", true}, {"", "[A]\nx=3\n", true}});
  journal[journal.find("x=1")] = 'y';
  JournalReader reader(journal);
  EXPECT_FALSE(reader.Next());
  EXPECT_TRUE(reader.IsRotten());
  EXPECT_EQ(reader.FindLater(), journal.find("# extend "));
}

TEST(JournalText, ChangeThatIsNoTextChangesNothing) {
  core::IniFile document = DocumentOf("[A]\nx=1\n");
  EXPECT_THROW(daemon::ApplyChange(document, "[A]\n", "what\n"), osa::Exception);
  EXPECT_EQ(TextOf(document), "[A]\nx=1\n");
}

TEST(JournalText, AnyDocumentBecomesAnyOther) {
  RandomDocuments documents(1);
  core::IniFile before;
  for (int i = 0; i < 500; ++i) {
    const core::IniFile after(documents.Next());
    before = ChangeTo(std::move(before), after);
    ASSERT_EQ(TextOf(before), TextOf(after));
  }
}

TEST(JournalText, ReadsBackAsItWasWritten) {
  const std::string journal = MakeJournal();
  JournalReader reader(journal);
  ASSERT_TRUE(reader.IsJournal());
  EXPECT_EQ(reader.GetFollowed().generation, 7u);
  EXPECT_EQ(reader.GetEnd(), daemon::kJournalHeaderSize);
  for (const Change& change : kChanges) {
    ASSERT_TRUE(reader.Next());
    EXPECT_EQ(reader.GetRemoved(), change.removed);
    EXPECT_EQ(reader.GetSet(), change.set);
  }
  EXPECT_FALSE(reader.Next());
  EXPECT_EQ(reader.GetEnd(), journal.size());
}

TEST(JournalText, ZerosThatWereFilledAheadAreItsEnd) {
  const std::string journal = MakeJournal() + std::string(1000, '\0');
  JournalReader reader(journal);
  while (reader.Next()) continue;
  EXPECT_FALSE(reader.HasMore());
}

TEST(JournalText, EndsWithTheLastWholeRecordWhereverItIsTorn) {
  const std::string journal = MakeJournal();
  for (size_t size = 0; size < journal.size(); ++size) {
    size_t whole = 0;
    while (MakeJournal({kChanges.begin(), kChanges.begin() + static_cast<long>(whole) + 1}).size() <= size) ++whole;
    EXPECT_EQ(CountRecords(journal.substr(0, size)), whole) << size;
    EXPECT_EQ(CountRecords(journal.substr(0, size) + std::string(1000, '\0')), whole) << size;
  }
}

TEST(JournalText, TornRecordIsNoticed) {
  const std::string journal = MakeJournal();
  const std::string torn = journal.substr(0, journal.size() - 1);
  JournalReader reader(torn);
  while (reader.Next()) continue;
  EXPECT_TRUE(reader.HasMore());
}

TEST(JournalText, NoFlippedBitPasses) {
  const std::string journal = MakeJournal();
  for (size_t bit = 0; bit < 8 * journal.size(); ++bit) {
    std::string flipped = journal;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << (bit % 8)));
    EXPECT_LT(CountRecords(flipped), kChanges.size()) << bit;
  }
}

TEST(JournalText, RecordsOutOfOrderDoNotCount) {
  const std::string first = MakeJournal({kChanges[0]});
  const std::string second = MakeJournal({kChanges[0], kChanges[1]}).substr(first.size());
  EXPECT_EQ(CountRecords(first + second), 2u);
  EXPECT_EQ(CountRecords(first + second + second), 2u);
  EXPECT_EQ(CountRecords(first.substr(0, daemon::kJournalHeaderSize) + second), 0u);
}

TEST(JournalText, RecordsOfAnotherJournalDoNotCount) {
  const std::string other = MakeJournal(kChanges, 8);
  EXPECT_EQ(CountRecords(MakeJournal({}) + other.substr(daemon::kJournalHeaderSize)), 0u);
}

TEST(JournalText, FlippedBitIsToldFromAChangeThatWasNeverFinished) {
  const std::string journal = MakeJournal();
  // With a greater length the last one could have been written in part.
  const size_t lastLengths = MakeJournal({kChanges[0], kChanges[1]}).size() + std::string("# change ").size();
  for (size_t bit = 8 * daemon::kJournalHeaderSize; bit < 8 * (lastLengths + 17); ++bit) {
    std::string flipped = journal;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << (bit % 8)));
    if (flipped[bit / 8] == '\0') continue;  // looks like a byte that was never written
    JournalReader reader(flipped);
    while (reader.Next()) continue;
    EXPECT_TRUE(reader.IsRotten() || bit / 8 >= lastLengths) << bit;
  }
}

TEST(JournalText, TornChangeIsNotRotten) {
  const std::string journal = MakeJournal();
  for (size_t size = daemon::kJournalHeaderSize; size < journal.size(); ++size) {
    for (const size_t zeros : {0, 1000}) {
      const std::string torn = journal.substr(0, size) + std::string(zeros, '\0');
      JournalReader reader(torn);
      while (reader.Next()) continue;
      EXPECT_FALSE(reader.IsRotten()) << size;
    }
  }
}

TEST(JournalText, WholeChangesBehindOneThatWasNotWrittenAreFound) {
  std::string journal = MakeJournal();
  const size_t first = MakeJournal({}).size();
  const size_t second = MakeJournal({kChanges[0]}).size();
  const size_t third = MakeJournal({kChanges[0], kChanges[1]}).size();
  journal.replace(first, second - first, second - first, '\0');
  JournalReader reader(journal);
  EXPECT_FALSE(reader.Next());
  EXPECT_EQ(reader.FindLater(), third);
  EXPECT_FALSE(reader.IsRotten());
  EXPECT_EQ(reader.CountMore(), journal.size() - first);
}

TEST(JournalText, OtherBytesAreNoJournal) {
  for (const std::string& text : {std::string(), std::string(100, '\0'), std::string(kChanges[0].set)})
    EXPECT_FALSE(JournalReader(text).IsJournal());
}

}  // namespace tavix::test
