#include "programs/server/persistence/UserSettingsPersister.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/programs/server/persistence/PersisterTest.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/LogOf.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Kind = MemoryFiles::Operation::Kind;

namespace {

size_t CountCreated(const MemoryFiles& files, const std::string& path) {
  const auto operations = files.GetOperations();
  return static_cast<size_t>(std::count_if(operations.begin(), operations.end(), [&](const auto& operation) {
    return operation.kind == Kind::kCreate && operation.path == path;
  }));
}

size_t CountRecords(const std::string& journal) {
  daemon::JournalReader reader(journal);
  size_t count = 0;
  while (reader.IsJournal() && reader.Next()) ++count;
  return count;
}

}  // namespace

TEST_F(Persister, LeavesOneTextWhenItFinishes) {
  EXPECT_THAT(_files.GetNames(), ElementsAre(kUserFile));
  EXPECT_EQ(TextOf(DocumentOf(_files.Get(kUserFile))), "[A]\nx=1\n");
}

TEST_F(Persister, WithoutAChangeWritesNothing) {
  const std::string before = _files.Get(kUserFile);
  const size_t snapshots = CountSnapshots(_files);
  EXPECT_TRUE(PersistedStore(_files, kAlways).Finish());
  EXPECT_EQ(_files.Get(kUserFile), before);
  EXPECT_EQ(CountSnapshots(_files), snapshots);
}

TEST_F(Persister, ChangeThatChangesNothingIsNotWritten) {
  PersistedStore store(_files, kAlways);
  const size_t operations = _files.CountOperations();
  store.Merge("[A]\nx=1\n");
  EXPECT_EQ(_files.CountOperations(), operations);
}

TEST_F(Persister, CrashLosesNothingWhateverTheDurabilityIs) {
  for (const daemon::Durability& durability : {kAlways, kHourly, kNever}) {
    PersistedStore store(_files, durability);
    store.Merge("[B]\ny=2\n");
    store.Merge("[A]\nx=3\n");
    EXPECT_EQ(Load(_files), "[A]\nx=3\n[B]\ny=2\n");
    store.Finish();
  }
}

TEST_F(Persister, ChangesAreAppendedAndNoSnapshotIsMade) {
  PersistedStore store(_files, kAlways);
  const std::string before = _files.Get(kUserFile);
  for (int i = 0; i < 100; ++i) store.Merge("[A]\nx=" + std::to_string(i) + "\n");
  store.AwaitDurable();
  EXPECT_EQ(_files.Get(kUserFile), before);
}

TEST_F(Persister, LongJournalIsReplacedByASnapshot) {
  PersistedStore store(_files, kAlways);
  const size_t before = CountSnapshots(_files);
  store.Merge("[Large]\nx=" + std::string(70 * 1000, 'x') + "\n");
  EXPECT_TRUE(Eventually([&] { return CountSnapshots(_files) == before + 1; }));
  EXPECT_THAT(_files.Get("user.ini.bak"), HasSubstr("x=1"));
}

TEST_F(Persister, ChangeIsHeldUntilItsSyncReturns) {
  PersistedStore store(_files, kAlways);
  Stop sync(_files, Kind::kSync, "user.ini.journal.new");
  store.Merge("[B]\ny=2\n");
  sync.Await();
  EXPECT_TRUE(IsHeld(store, "B"));
  EXPECT_FALSE(IsHeld(store, "A"));
  sync.GoOn();
  store.AwaitDurable();
  EXPECT_FALSE(IsHeld(store, "B"));
}

// The user layer never held it: only the record of what was overwritten changed.
TEST_F(Persister, DefaultGroupThatWasTakenAwayIsHeldTooAndNoOther) {
  PersistedStore store(_files, kAlways, "[Default]\nx=1\n[Other]\nx=1\n");
  Stop sync(_files, Kind::kSync, "user.ini.journal.new");
  store.GetManager().OverwriteSettings("Default", core::IniFile());
  EXPECT_TRUE(IsHeld(store, "Default"));
  EXPECT_FALSE(IsHeld(store, "Other"));
  sync.GoOn();
  store.AwaitDurable();
  EXPECT_THAT(Load(_files), HasSubstr("=Default\n"));
}

TEST_F(Persister, TellsSinceWhenTheDiskLacksAChange) {
  PersistedStore store(_files, kAlways);
  Stop sync(_files, Kind::kSync, "user.ini.journal.new");
  EXPECT_EQ(store.GetUnsavedSince(), 0);
  const std::time_t before = std::time(nullptr);
  store.Merge("[B]\ny=2\n");
  sync.Await();
  EXPECT_GE(store.GetUnsavedSince(), before);
  sync.GoOn();
  store.AwaitDurable();
  EXPECT_TRUE(Eventually([&] { return store.GetUnsavedSince() == 0; }));
}

TEST_F(Persister, ManyChangesWaitForOneSync) {
  PersistedStore store(_files, kAlways);
  {
    Stop sync(_files, Kind::kSync, "user.ini.journal.new");
    store.Merge("[B]\ny=0\n");
    sync.Await();
    for (int i = 1; i < 100; ++i) store.Merge("[B]\ny=" + std::to_string(i) + "\n");
    sync.GoOn();
    store.AwaitDurable();
  }
  const auto operations = _files.GetOperations();
  const auto isSync = [](const auto& operation) {
    return operation.kind == Kind::kSync && operation.path == "user.ini.journal.new";
  };
  EXPECT_EQ(std::count_if(operations.begin(), operations.end(), isSync), 2);
}

TEST_F(Persister, ChangesThatAreMadeWhileASnapshotIsWrittenAreKeptAndNeedNoOther) {
  MemoryFiles files;
  PersistedStore store(files, kAlways);
  Stop sync(files, Kind::kSync, "user.ini.new");
  store.Merge("[A]\nx=1\n");
  sync.Await();
  for (int i = 2; i < 10; ++i) store.Merge("[A]\nx=" + std::to_string(i) + "\n");
  sync.GoOn();
  store.AwaitDurable();
  EXPECT_EQ(Load(files), "[A]\nx=9\n");
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(CountSnapshots(files), 2u);
}

// The next journal is long from its beginning. Nobody has to change anything more.
TEST_F(Persister, MuchThatIsChangedWhileASnapshotIsWrittenTakesAnotherOne) {
  PersistedStore store(_files, kAlways);
  const size_t before = CountSnapshots(_files);
  Stop snapshot(_files, Kind::kSync, "user.ini.new");
  store.Merge("[Large]\nx=" + std::string(70 * 1000, 'x') + "\n");
  snapshot.Await();
  store.Merge("[Larger]\nx=" + std::string(90 * 1000, 'x') + "\n");
  snapshot.GoOn();
  EXPECT_TRUE(Eventually([&] { return CountSnapshots(_files) == before + 2; }));
}

// However many there are, and however long they are together.
TEST_F(Persister, ChangesThatAreMadeWhileASnapshotIsWrittenAreKeptOnceForEachGroup) {
  PersistedStore store(_files, kAlways);
  Stop snapshot(_files, Kind::kSync, "user.ini.new");
  store.Merge("[Large]\nx=" + std::string(70 * 1000, 'x') + "\n");
  snapshot.Await();
  for (int i = 0; i < 50; ++i) store.Merge("[B]\nx=" + std::string(1000, 'x') + std::to_string(i) + "\n");
  snapshot.GoOn();
  int value = 0;
  EXPECT_TRUE(Eventually([&] {  // the next journal takes its place with the first change that it holds alone
    store.Merge("[C]\nz=" + std::to_string(++value) + "\n");
    store.AwaitDurable();
    return CountRecords(_files.Get("user.ini.journal")) < 50;
  }));
  const std::string journal = _files.Get("user.ini.journal");
  EXPECT_THAT(journal, HasSubstr("x49\n"));
  EXPECT_THAT(journal, Not(HasSubstr("x48\n")));
  EXPECT_TRUE(PowerCutsLeave("x49\n"));
}

// The text of a large layer is made part by part, and is that of one moment all the same.
TEST_F(Persister, SnapshotOfALayerThatChangesMeanwhileIsOneStateOfIt) {
  std::atomic<size_t> snapshots{0};
  _files.AddObserver([&](const auto& operation) { snapshots += IsSnapshot(operation) ? 1 : 0; });
  PersistedStore store(_files, kNever);
  std::string large;
  for (int group = 0; group < 300; ++group)
    large += "[G" + std::to_string(group) + "]\nx=" + std::string(2000, 'x') + "\n";
  store.Merge(large);
  std::atomic<bool> isOver{false};
  BackgroundCall writer([&] {
    for (int i = 0; !isOver; ++i)
      store.Merge("[G0]\nn=" + std::to_string(i) + "\n[G299]\nn=" + std::to_string(i) + "\n");
  });
  for (size_t seen = snapshots, last = seen + 10; seen < last;) {
    if (!Eventually([&] { return snapshots > seen; })) break;
    seen = snapshots;
    const core::IniFile saved = DocumentOf(_files.Get(kUserFile));
    EXPECT_EQ(saved.GetValueOrDefault("G0", "n"), saved.GetValueOrDefault("G299", "n"));
  }
  isOver = true;
  writer.Join();
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(Load(_files), UserSettingsOf(store.GetManager()));
}

// The sync must not give the new one's name to the one that it has synced.
TEST_F(Persister, JournalThatIsReplacedDuringItsFirstSyncLeavesTheNewOneItsName) {
  PersistedStore store(_files, kAlways);
  Stop sync(_files, Kind::kSync, "user.ini.journal.new");
  Stop snapshot(_files, Kind::kSync, "user.ini.new");
  store.Merge("[Large]\nx=" + std::string(70 * 1000, 'x') + "\n");
  snapshot.Await();
  store.Merge("[B]\ny=2\n");
  snapshot.GoOn();
  EXPECT_TRUE(Eventually([&] { return CountCreated(_files, "user.ini.journal.new") == 2; }));
  sync.GoOn();
  store.AwaitDurable();
  EXPECT_TRUE(PowerCutsLeave("[B]\ny=2\n"));
}

TEST_F(Persister, JournalThatBeginsDuringTheFirstSyncOfAnOldOneKeepsItsName) {
  PersistedStore store(_files, kAlways);
  Stop sync(_files, Kind::kSync, "user.ini.journal.new");
  store.Merge("[Large]\nx=" + std::string(70 * 1000, 'x') + "\n");
  store.AwaitDurable();  // by the snapshot
  store.Merge("[B]\ny=2\n");
  const auto log = LogOf([&] {
    sync.GoOn();
    store.AwaitDurable();
  });
  EXPECT_THAT(log, Each(HasSubstr(": the disk ")));  // syncs slowly, on a machine that does
  EXPECT_TRUE(PowerCutsLeave("[B]\ny=2\n"));
}

TEST_F(Persister, IntervalSyncsByItself) {
  PersistedStore store(_files, {daemon::Durability::Kind::kInterval, std::chrono::milliseconds(1)});
  store.Merge("[B]\ny=2\n");
  EXPECT_TRUE(Eventually([&] { return !_files.Get("user.ini.journal").empty(); }));
}

}  // namespace tavix::test
