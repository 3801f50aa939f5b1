#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "programs/server/persistence/HistoryText.h"
#include "programs/server/persistence/Journal.h"
#include "tavix/settings/Amendment.h"
#include "tests/programs/server/persistence/PersisterTest.h"
#include "tests/programs/server/persistence/RandomChanges.h"
#include "tests/programs/server/persistence/SavedHistory.h"
#include "tests/support/BackgroundCall.h"

// The entries of the history in the journal.

namespace tavix::test {

using daemon::FoundUserSettings;
using settings::server::ChangeOrigin;
using settings::server::ChangeTicket;
using settings::server::ClientIdentity;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace {

constexpr char kJournal[] = "user.ini.journal";

struct HistoryStore : PersistedStore {
  explicit HistoryStore(MemoryFiles& files, daemon::Durability durability = kAlways, size_t bytes = kHistoryBytes)
      : PersistedStore(files, durability, "[Default]\nx=1\n", std::chrono::hours(1), bytes) {}
};

FoundUserSettings Find(const MemoryFiles& files) {
  MemoryFiles image(files.GetImage());
  return daemon::UserSettingsFiles(image, kUserFile).Find(false);
}

// Each record's first text.
std::vector<std::string> ReadRecords(const MemoryFiles& files) {
  const std::string journal = files.Get(kJournal);
  daemon::JournalReader reader(journal);
  std::vector<std::string> texts;
  while (reader.Next()) texts.emplace_back(reader.GetRemoved());
  return texts;
}

std::vector<uint64_t> RevisionsOf(const FoundUserSettings& found) {
  std::vector<uint64_t> revisions;
  for (const auto& entry : found.history.entries) revisions.push_back(entry.first);
  return revisions;
}

struct HistoryJournal : Persister {};

}  // namespace

TEST_F(HistoryJournal, HasWhoMadeAChangeAndTheOldValuesBeforeTheSettings) {
  HistoryStore store(_files);
  const ChangeOrigin origin{{ClientIdentity::Connection::kUnix, 1000, 100, 812}, "merge", "site 4"};
  ChangeTicket ticket = 0;
  store.GetManager().MergeSettings(DocumentOf("[A]\nx=2\ny=3\n"), 0, origin, ticket);
  store.AwaitDurable();
  const std::vector<std::string> records = ReadRecords(_files);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_THAT(records[0],
              MatchesRegex("#@ 1 [0-9]{19} merge unix 1000 100 812\n#n site 4\n#- \\[A\\]x=1\n#! \\[A\\]y\n"));
}

TEST_F(HistoryJournal, HasTheOldValuesOfEveryKindOfChange) {
  HistoryStore store(_files);
  store.GetManager().OverwriteSettings(std::string("A"), core::IniFile());
  store.AwaitDurable();
  store.GetManager().OverwriteSettings(std::string("Default"), core::IniFile());
  settings::Amendment amendment;
  amendment.set = DocumentOf("[B]\nx=1\n");
  EXPECT_TRUE(store.GetManager().Amend(amendment));
  store.AwaitDurable();
  const std::vector<std::string> records = ReadRecords(_files);
  ASSERT_EQ(records.size(), 3u);
  EXPECT_THAT(records[0], HasSubstr("\n#- [A]x=1\n#! [TavixSettings/Data/DeletedGroups]A\n[A]\n"));
  EXPECT_THAT(records[1], HasSubstr("- - -\n#! [TavixSettings/Data/DeletedGroups]Default\n"));
  EXPECT_THAT(records[2], HasSubstr("- - -\n#! [B]x\n"));
}

TEST_F(HistoryJournal, WithoutAHistoryHasTheSameBytesAsEver) {
  PersistedStore store(_files, kAlways);
  store.Merge("[A]\nx=2\n");
  store.AwaitDurable();
  EXPECT_EQ(ReadRecords(_files), std::vector<std::string>{""});
  EXPECT_TRUE(store.Finish());
  EXPECT_THAT(_files.Get(kUserFile), Not(HasSubstr("Revision")));
}

TEST_F(HistoryJournal, HasNoEntryOfWhatIsNotSavedOrDoesNotDiffer) {
  HistoryStore store(_files);
  store.GetManager().MergeSettings(DocumentOf("[A]\nx=7\n"), settings::server::SettingsManager::kNoPersist);
  store.Merge("[A]\nx=1\n");
  store.Merge("[A]\nx=3\n");
  store.AwaitDurable();
  EXPECT_EQ(RevisionsOf(Find(_files)), std::vector<uint64_t>{1});
}

TEST_F(HistoryJournal, CountsRevisionsThroughCrashesAndOrderedEnds) {
  for (uint64_t revision = 1; revision <= 6; ++revision) {
    HistoryStore store(_files);
    store.Merge("[A]\nrevision=" + std::to_string(revision) + "\n");
    store.AwaitDurable();
    EXPECT_EQ(RevisionsOf(Find(_files)).back(), revision);
    if (revision % 2 == 0) {
      EXPECT_TRUE(store.Finish());
    }
  }
  EXPECT_THAT(_files.Get(kUserFile), HasSubstr("\n# Revision 6\n"));
  EXPECT_EQ(Find(_files).history.snapshotRevision, 6u);
}

// Readers see [A]x change, and the user settings stay what they were.
TEST_F(HistoryJournal, CountsNoRevisionForWhatReadersAloneNotice) {
  HistoryStore store(_files);
  store.GetManager().MergeSettings(DocumentOf("[Default]\nx=7\n"), settings::server::SettingsManager::kNoPersist);
  settings::Amendment amendment;
  amendment.unset = DocumentOf("[Default]\nx=\n");
  EXPECT_TRUE(store.GetManager().Amend(amendment));
  store.Merge("[B]\nx=1\n");
  store.AwaitDurable();
  EXPECT_EQ(RevisionsOf(Find(_files)), std::vector<uint64_t>{1});
}

// The first change holds up the disk, so that the others are pending together.
TEST_F(HistoryJournal, HasTheEntriesOfAllChangesThatShareARecord) {
  Stop stop(_files, MemoryFiles::Operation::Kind::kSync, "user.ini.journal.new");
  HistoryStore store(_files);
  store.Merge("[B]\nx=1\n");
  stop.Await();
  store.Merge("[Large]\nx=" + std::string(2 * kLargeChange, 'x') + "\n");
  store.Merge("[Large]\ny=1\n");
  store.Merge("[Large]\ny=2\n");
  stop.GoOn();
  store.AwaitDurable();
  store.Crash();
  const SavedHistory saved(_files.GetImage());
  ASSERT_EQ(saved.GetRevisions(), (std::vector<uint64_t>{1, 2, 3, 4}));
  EXPECT_EQ(TextOf(saved.entries[2].is), "[Large]\ny=1\n");
  EXPECT_EQ(TextOf(saved.entries[3].is), "[Large]\ny=2\n");
}

TEST_F(HistoryJournal, LacksAnEntryThatIsMoreThanHalfOfTheHistory) {
  HistoryStore store(_files, kAlways, 16 * 1024);
  store.Merge("[A]\nx=" + std::string(9 * 1024, 'x') + "\n");
  store.Merge("[A]\ny=1\n");
  store.AwaitDurable();
  FoundUserSettings found = Find(_files);
  EXPECT_EQ(RevisionsOf(found), (std::vector<uint64_t>{1, 2}));
  EXPECT_EQ(found.history.entries[1].command, "gap");
}

TEST_F(HistoryJournal, GivesItsEntriesToTheFileBeforeItLosesItsName) {
  Stop stop(_files, MemoryFiles::Operation::Kind::kSync, "user.ini.new");
  HistoryStore store(_files);
  store.Merge("[A]\nlarge=" + std::string(kLargeChange + 1000, 'x') + "\n");
  stop.Await();
  store.Merge("[B]\ny=1\n");
  store.Merge("[B]\ny=2\n");
  stop.GoOn();
  store.AwaitDurable();
  ASSERT_TRUE(Eventually([&] { return _files.Get("user.ini.history").find("\n#. ") != std::string::npos; }));
  EXPECT_THAT(_files.Get("user.ini.history"), HasSubstr("\n#+ [A]large=xxx"));
  EXPECT_EQ(SavedHistory(_files.GetImage()).GetRevisions(), (std::vector<uint64_t>{1, 2, 3}));
}

TEST_F(HistoryJournal, LeavesAllEntriesInTheFileWhenTheDaemonEnds) {
  HistoryStore store(_files);
  store.Merge("[A]\nx=2\n");
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(_files.Get(kJournal), "");
  EXPECT_EQ(SavedHistory(_files.GetImage()).GetRevisions(), std::vector<uint64_t>{1});
}

// Neither is a change of the user settings, as a start finds them.
TEST_F(HistoryJournal, HasNoGapBehindACrashForWhatReadersAloneNotice) {
  {
    HistoryStore store(_files);
    store.GetManager().MergeSettings(DocumentOf("[Default]\nx=7\n"), settings::server::SettingsManager::kNoPersist);
    settings::Amendment amendment;
    amendment.unset = DocumentOf("[Default]\nx=\n");
    EXPECT_TRUE(store.GetManager().Amend(amendment));
    store.Merge("[B]\nx=1\n");
    store.AwaitDurable();
    store.GetManager().MergeSettings(DocumentOf("[Default]\nx=7\n"), settings::server::SettingsManager::kNoPersist);
    EXPECT_TRUE(store.GetManager().Amend(amendment));
    store.AwaitDurable();
    store.Crash();
  }
  EXPECT_EQ(SavedHistory(_files.GetImage()).GetRevisions(), std::vector<uint64_t>{1});
}

TEST_F(HistoryJournal, GivesNoRevisionTwiceWhenTheLastEntryIsTooLong) {
  {
    HistoryStore store(_files, kAlways, 16 * 1024);
    for (const char* value : {"1", "2"}) store.Merge("[A]\nx=" + std::string(9 * 1024, *value) + "\n");
    EXPECT_TRUE(store.Finish());
  }
  {
    PersistedStore store(_files, kAlways);
    store.Merge("[A]\nx=unrecorded\n");
    EXPECT_TRUE(store.Finish());
    EXPECT_THAT(_files.Get(kUserFile), HasSubstr("\n# Revision 3\n"));
  }
  HistoryStore store(_files, kAlways, 16 * 1024);
  EXPECT_EQ(store.GetHistory()->GetRange().last, 3u);
}

// Clients were shown revisions 2 and 3 of a file that has rotten since.
TEST_F(HistoryJournal, GivesNoRevisionTwiceWhenTheBackupIsUsed) {
  {
    HistoryStore store(_files);
    store.Merge("[A]\nx=2\n");
    EXPECT_TRUE(store.Finish());
  }
  {
    HistoryStore store(_files);
    store.Merge("[A]\nx=3\n");
    EXPECT_TRUE(store.Finish());
  }
  for (const bool isWithoutHistory : {false, true}) {
    MemoryFiles files(_files.GetImage());
    std::string damaged = files.Get(kUserFile);
    damaged[damaged.find("x=3")] = '\0';
    files.Put(kUserFile, damaged);
    if (isWithoutHistory) files.Remove("user.ini.history");
    HistoryStore store(files);
    EXPECT_EQ(UserSettingsOf(store.GetManager()), "[A]\nx=2\n");
    EXPECT_EQ(store.GetHistory()->GetRange().last, 3u);
    EXPECT_EQ(store.GetHistory()->GetRange().oldest, 3u);
  }
}

TEST_F(HistoryJournal, GivesNoRevisionTwiceWhenChangesAreLostWithTheJournal) {
  {
    HistoryStore store(_files);
    store.Merge("[A]\nx=2\n");
    store.Merge("[A]\nx=3\n");
    store.AwaitDurable();
    store.Crash();
  }
  std::string journal = _files.Get(kJournal);
  journal[journal.find("#@ 2") - 3] ^= 1;
  _files.Put(kJournal, journal);
  HistoryStore store(_files);
  EXPECT_EQ(UserSettingsOf(store.GetManager()), "[A]\nx=2\n");
  EXPECT_EQ(store.GetHistory()->GetRange().last, 3u);
  EXPECT_EQ(store.GetHistory()->GetRange().oldest, 3u);
}

// What the file did not get waits for the next snapshot.
TEST_F(HistoryJournal, GivesItsEntriesToTheFileOnceThatCanBeWritten) {
  {
    HistoryStore store(_files);
    store.Merge("[A]\nx=2\n");
    EXPECT_TRUE(store.Finish());
  }
  std::atomic<bool> fails{true};
  _files.AddObserver([&](const auto& operation) {
    if (fails && operation.kind == MemoryFiles::Operation::Kind::kOpen && operation.path == "user.ini.history")
      throw osa::Exception("Failed to open 'user.ini.history': Input/output error");
  });
  HistoryStore store(_files);
  store.Merge("[A]\nlarge=" + std::string(kLargeChange + 1000, 'x') + "\n");
  store.AwaitDurable();
  store.Merge("[B]\ny=1\n");
  ASSERT_TRUE(Eventually([&] { return _files.Get(kUserFile).find("large=xxx") != std::string::npos; }));
  store.AwaitDurable();
  fails = false;
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(SavedHistory(_files.GetImage()).GetRevisions(), (std::vector<uint64_t>{1, 2, 3}));
}

TEST_F(HistoryJournal, OfADaemonWithoutAHistoryHasAGapInItsPlace) {
  for (const size_t bytes : {kHistoryBytes, size_t{0}, kHistoryBytes}) {
    HistoryStore store(_files, kAlways, bytes);
    store.Merge("[A]\nbytes=" + std::to_string(bytes) + "\n");
    EXPECT_TRUE(store.Finish());
  }
  const SavedHistory saved(_files.GetImage());
  ASSERT_EQ(saved.GetRevisions(), (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_EQ(saved.entries[1].command, "gap");
}

// As daemons read it that know of no history.
TEST_F(HistoryJournal, HasTheSameSettingsWithoutItsEntries) {
  HistoryStore store(_files);
  store.Merge("[A]\nx=2\n[B]\n");
  store.GetManager().OverwriteSettings(std::string("B"), DocumentOf("[B]\nx=1\n"));
  store.AwaitDurable();
  const std::string journal = _files.Get(kJournal);
  core::IniFile settings = DocumentOf("[A]\nx=1\n");
  for (daemon::JournalReader reader(journal); reader.Next();) {
    const std::string removed(reader.GetRemoved());
    EXPECT_EQ(removed.front(), '#');
    daemon::ApplyChange(settings, TextOf(DocumentOf(removed)), reader.GetSet(), reader.Extends());
  }
  EXPECT_EQ(TextOf(settings), UserSettingsOf(store.GetManager()));
}

// Back from the last state to the first, entry by entry.
TEST_F(HistoryJournal, LeadsBackToEveryStateThatTheUserSettingsHad) {
  RandomChanges changes(1);
  HistoryStore store(_files);
  std::vector<std::string> states{UserSettingsOf(store.GetManager())};
  for (int i = 0; i < 300; ++i) {
    changes.MakeOne(store.GetManager());
    const std::string state = UserSettingsOf(store.GetManager());
    if (state != states.back()) states.push_back(state);
  }
  EXPECT_TRUE(store.Finish());
  const SavedHistory saved(_files.GetImage());
  ASSERT_EQ(saved.entries.size(), states.size() - 1);
  core::IniFile settings = DocumentOf(saved.settings);
  for (size_t i = saved.entries.size(); i > 0; --i) {
    EXPECT_EQ(TextOf(settings), states[i]);
    Undo(saved.entries[i - 1], settings);
  }
  EXPECT_EQ(TextOf(settings), states[0]);
}

}  // namespace tavix::test
