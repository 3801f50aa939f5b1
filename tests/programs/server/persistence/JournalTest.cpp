#include "programs/server/persistence/Journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tavix/osa/Exception.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

using daemon::Change;
using daemon::Journal;
using daemon::JournalReader;
using testing::ElementsAre;

namespace {

constexpr char kPath[] = "user.ini";
constexpr char kInPlace[] = "user.ini.journal";
constexpr char kOnItsWay[] = "user.ini.journal.new";

Change Setting(const std::string& value) {
  return {"", "[A]\nx=" + value + "\n"};
}

std::vector<std::string> ReadValues(const MemoryFiles& files, const std::string& path = kInPlace) {
  const std::string bytes = files.Get(path);
  JournalReader reader(bytes);
  std::vector<std::string> values;
  while (reader.IsJournal() && reader.Next()) {
    const std::string set(reader.GetSet());
    values.push_back(set.substr(6, set.size() - 7));
  }
  return values;
}

std::unique_ptr<Journal> Resume(MemoryFiles& files) {
  const std::string bytes = files.Get(kInPlace);
  JournalReader reader(bytes);
  while (reader.Next()) continue;
  return Journal::Resume(files, kPath, true, reader, bytes.size());
}

size_t CountDirectorySyncs(const MemoryFiles& files) {
  const auto operations = files.GetOperations();
  return static_cast<size_t>(std::count_if(operations.begin(), operations.end(), [](const auto& operation) {
    return operation.kind == MemoryFiles::Operation::Kind::kSyncDirectory;
  }));
}

}  // namespace

TEST(Journal, TakesItsPlaceWhenItIsSyncedForTheFirstTime) {
  MemoryFiles files;
  files.Put(kInPlace, "the one before");
  const auto journal = Journal::Create(files, kPath, {7, 0}, {Setting("1")});
  EXPECT_EQ(files.Get(kInPlace), "the one before");
  journal->Sync();
  EXPECT_THAT(files.GetNames(), ElementsAre(kInPlace));
  EXPECT_THAT(ReadValues(files), ElementsAre("1"));
}

TEST(Journal, WritesBufferedChangesByOneWrite) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {Setting("1")});
  const size_t before = files.CountOperations();
  for (const char* value : {"2", "3"}) journal->Append(Setting(value), Journal::Write::kBuffered);
  EXPECT_THAT(ReadValues(files, kOnItsWay), ElementsAre("1"));
  journal->WriteBuffered();
  EXPECT_EQ(files.CountOperations(), before + 1);
  EXPECT_THAT(ReadValues(files, kOnItsWay), ElementsAre("1", "2", "3"));
}

TEST(Journal, WritesWhatIsBufferedWithTheNextChange) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {Setting("1")});
  journal->Append(Setting("2"), Journal::Write::kBuffered);
  journal->Append(Setting("3"));
  EXPECT_THAT(ReadValues(files, kOnItsWay), ElementsAre("1", "2", "3"));
}

// The header says so, and must not before the change is there.
TEST(Journal, FirstChangeThatExtendsGroupsIsNotBuffered) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {Setting("1")});
  journal->Append({"", "[A]\nx=2\n", true}, Journal::Write::kBuffered);
  EXPECT_THAT(ReadValues(files, kOnItsWay), ElementsAre("1", "2"));
}

TEST(Journal, SyncsItsNameOnce) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {});
  journal->Sync();
  journal->Append(Setting("1"));
  journal->Sync();
  EXPECT_EQ(CountDirectorySyncs(files), 1u);
}

TEST(Journal, SyncsItsNameEvenWhenItTookItsPlaceBefore) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {});
  journal->TakePlace();
  EXPECT_EQ(CountDirectorySyncs(files), 0u);
  journal->Sync();
  EXPECT_EQ(CountDirectorySyncs(files), 1u);
}

TEST(Journal, TakesItsPlaceOnce) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {});
  journal->TakePlace();
  files.Put(kOnItsWay, "the next one");
  journal->TakePlace();
  EXPECT_EQ(files.Get(kOnItsWay), "the next one");
}

TEST(Journal, DoesNotGrowWithEachChange) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {});
  const size_t size = files.Get(kOnItsWay).size();
  for (int i = 0; i < 100; ++i) journal->Append(Setting(std::to_string(i)));
  EXPECT_EQ(files.Get(kOnItsWay).size(), size);
  EXPECT_EQ(ReadValues(files, kOnItsWay).size(), 100u);
}

TEST(Journal, TakesAChangeThatIsLongerThanAllThatIsFilledAhead) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {Setting("1")});
  const std::string large(3 * 1024 * 1024, 'x');
  journal->Append(Setting(large));
  journal->Append(Setting("3"));
  EXPECT_THAT(ReadValues(files, kOnItsWay), ElementsAre("1", large, "3"));
}

TEST(Journal, ChangeThatIsWrittenInPiecesIsLikeAnyOther) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {Setting("1")});
  const std::string text = Setting("2").set;
  journal->BeginAppend({false, 0, text.size()});
  const uint64_t end = journal->GetEnd();
  journal->WriteAppended([&](const auto& write) {
    for (const char character : text) write(std::string(1, character));
  });
  journal->EndAppend();
  EXPECT_EQ(journal->GetEnd(), end);
  journal->Append(Setting("3"));
  EXPECT_THAT(ReadValues(files, kOnItsWay), ElementsAre("1", "2", "3"));
}

TEST(Journal, ChangeThatCanNotBeWrittenIsNotThere) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {Setting("1")});
  const uint64_t end = journal->GetEnd();
  journal->BeginAppend({false, 0, 9});
  files.FailAfter(0, true);
  EXPECT_THROW(journal->WriteAppended([](const auto& write) { write("[A]\nx=22\n"); }), osa::Exception);
  journal->EndAppend();
  EXPECT_EQ(journal->GetEnd(), end);
}

// The room behind the records is where the change is being written.
TEST(Journal, GivesNoRoomBackWhileAChangeIsWritten) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {Setting("1")});
  const size_t size = files.Get(kOnItsWay).size();
  journal->BeginAppend({false, 0, 9});
  journal->GiveRoomBack(true);
  EXPECT_EQ(files.Get(kOnItsWay).size(), size);
  journal->EndAppend();
  journal->GiveRoomBack(true);
  EXPECT_EQ(files.Get(kOnItsWay).size(), journal->GetEnd());
}

TEST(Journal, GoesOnAfterARestart) {
  MemoryFiles files;
  Journal::Create(files, kPath, {7, 0}, {Setting("1")})->Sync();
  const auto journal = Resume(files);
  EXPECT_EQ(journal->GetFollowed().generation, 7u);
  journal->Append(Setting("2"));
  EXPECT_THAT(ReadValues(files), ElementsAre("1", "2"));
}

// A power cut took the second change and left the third.
TEST(Journal, ChangeThatIsMadeAgainDoesNotBringBackTheLostOnesThatFollowedIt) {
  MemoryFiles files;
  const auto before = Journal::Create(files, kPath, {7, 0}, {Setting("1")});
  before->TakePlace();
  const uint64_t second = before->GetEnd();
  before->Append(Setting("2"));
  before->Append(Setting("3"));
  files.Open(kInPlace)->WriteAt(second, std::string(8, '\0'));
  const auto journal = Resume(files);
  journal->Append(Setting("2"));
  EXPECT_THAT(ReadValues(files), ElementsAre("1", "2"));
}

// Its beginning may be on the disk before the rest is.
TEST(Journal, ThatHasNotBegunDoesNotCount) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0});
  journal->Append(Setting("1"));
  EXPECT_FALSE(JournalReader(files.Get(kOnItsWay)).IsJournal());
  journal->Append(Setting("2"));
  journal->Begin();
  EXPECT_THAT(ReadValues(files, kOnItsWay), ElementsAre("1", "2"));
  EXPECT_EQ(JournalReader(files.Get(kOnItsWay)).GetWholeFrom(), journal->GetEnd());
}

TEST(Journal, WithoutRoomForZerosTakesChangesAllTheSame) {
  MemoryFiles files;
  files.FailAfter(1, false);
  const auto journal = Journal::Create(files, kPath, {7, 0}, {Setting("1")});
  journal->Append(Setting("2"));
  EXPECT_THAT(ReadValues(files, kOnItsWay), ElementsAre("1", "2"));
}

TEST(Journal, ThatIsFilledAheadLateKeepsWhatItHas) {
  MemoryFiles files;
  files.FailAfter(1, false);
  const auto journal = Journal::Create(files, kPath, {7, 0}, {});
  journal->Append(Setting("1"));
  EXPECT_THAT(ReadValues(files, kOnItsWay), ElementsAre("1"));
}

TEST(Journal, ThatCanNotBeginLeavesNothing) {
  for (size_t failing = 3; failing < 5; ++failing) {
    MemoryFiles files;
    files.FailAfter(failing, false);
    EXPECT_THROW(Journal::Create(files, kPath, {7, 0}, {Setting("1")}), osa::Exception);
    EXPECT_THAT(files.GetNames(), ElementsAre());
  }
}

TEST(Journal, FailureIsThrownAndTheChangesBeforeStay) {
  MemoryFiles files;
  const auto journal = Journal::Create(files, kPath, {7, 0}, {Setting("1")});
  journal->Sync();
  files.FailAfter(0, false);
  EXPECT_THROW(journal->Append(Setting("2")), osa::Exception);
  EXPECT_THAT(ReadValues(files), ElementsAre("1"));
}

}  // namespace tavix::test
