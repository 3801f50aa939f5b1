#include "programs/server/persistence/UserSettingsPersister.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <optional>

#include "tavix/osa/Exception.h"
#include "tests/programs/server/persistence/LogOfFailure.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/LogOf.h"
#include "tests/support/MemoryFiles.h"
#include "tests/support/PowerCuts.h"

namespace tavix::test {

using settings::common::GroupNameMatcher;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Kind = MemoryFiles::Operation::Kind;

namespace {

bool IsSnapshot(const MemoryFiles::Operation& operation) {
  return operation.kind == Kind::kRename && operation.to == kUserFile;
}

size_t CountSnapshots(const MemoryFiles& files) {
  const auto operations = files.GetOperations();
  return static_cast<size_t>(std::count_if(operations.begin(), operations.end(), IsSnapshot));
}

size_t CountCreated(const MemoryFiles& files, const std::string& path) {
  const auto operations = files.GetOperations();
  return static_cast<size_t>(std::count_if(operations.begin(), operations.end(), [&](const auto& operation) {
    return operation.kind == Kind::kCreate && operation.path == path;
  }));
}

// What a daemon would find that is started on these files.
std::string Load(const MemoryFiles& files) {
  MemoryFiles image(files.GetImage());
  PersistedStore store(image, kAlways);
  return UserSettingsOf(store.GetManager());
}

bool IsHeld(PersistedStore& store, const std::string& group) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(group);
  return !store.GetGate().IsDurable(store.GetGate().FindLast(&matcher));
}

size_t CountRecords(const std::string& journal) {
  daemon::JournalReader reader(journal);
  size_t count = 0;
  while (reader.IsJournal() && reader.Next()) ++count;
  return count;
}

// Standard error as a pipe that is full, and whose reader rests until the end.
class FullStandardError {
 public:
  FullStandardError() : _before(dup(STDERR_FILENO)) {
    EXPECT_EQ(pipe2(_ends, O_CLOEXEC | O_NONBLOCK), 0);
    const std::string bytes(4096, 'x');
    while (write(_ends[1], bytes.data(), bytes.size()) > 0) continue;
    fcntl(_ends[1], F_SETFL, 0);
    dup2(_ends[1], STDERR_FILENO);
    close(_ends[1]);
  }

  ~FullStandardError() {
    dup2(_before, STDERR_FILENO);
    fcntl(_ends[0], F_SETFL, 0);
    for (char bytes[4096]; read(_ends[0], bytes, sizeof bytes) > 0;) continue;
    close(_ends[0]);
    close(_before);
  }

 private:
  const int _before;
  int _ends[2];
};

// Stops the first operation that is of that kind, and for that path, until it may go on.
class Stop {
 public:
  Stop(MemoryFiles& files, Kind kind, const std::string& path) {
    files.AddObserver([stop = _stop, kind, path](const auto& operation) {
      if (operation.kind != kind || operation.path != path || stop->isReached.exchange(true)) return;
      stop->reached.set_value();
      stop->mayGoOn.get_future().wait();
    });
  }

  ~Stop() {
    if (!_wentOn) GoOn();
  }

  void Await() { _stop->reached.get_future().wait(); }

  void GoOn() {
    _wentOn = true;
    _stop->mayGoOn.set_value();
  }

 private:
  struct State {
    std::atomic<bool> isReached{false};
    std::promise<void> reached;
    std::promise<void> mayGoOn;
  };

  const std::shared_ptr<State> _stop = std::make_shared<State>();
  bool _wentOn = false;
};

// Files of a store that was saved, and ended as it should.
class Persister : public testing::Test {
 protected:
  // Whether that is found after each of many power cuts that may happen now.
  testing::AssertionResult PowerCutsLeave(const std::string& settings) const {
    PowerCuts cuts(_image, _files.GetOperations(), 1);
    while (cuts.Advance()) continue;
    for (int i = 0; i < 100; ++i) {
      const std::string found = Load(MemoryFiles(cuts.Cut()));
      if (found.find(settings) == std::string::npos) return testing::AssertionFailure() << found.substr(0, 200);
    }
    return testing::AssertionSuccess();
  }

  static MemoryFiles::Image MakeImage() {
    MemoryFiles files;
    PersistedStore store(files, kAlways);
    store.Merge("[A]\nx=1\n");
    store.Finish();
    return files.GetImage();
  }

  const MemoryFiles::Image _image = MakeImage();
  MemoryFiles _files{_image};
};

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

TEST_F(Persister, NextJournalThatCanNotBeMadeLeavesTheOneBefore) {
  PersistedStore store(_files, kAlways);
  store.Merge("[B]\ny=1\n");
  store.AwaitDurable();
  bool isRefused = false;
  _files.AddObserver([&](const auto& operation) {
    if (operation.kind != Kind::kCreate || operation.path != "user.ini.journal.new" || isRefused) return;
    isRefused = true;
    throw osa::Exception("No journal");
  });
  const auto log = LogOf([&] { store.Merge("[Large]\nx=" + std::string(70 * 1000, 'x') + "\n"); }, 1);
  EXPECT_THAT(log,
              ElementsAre("WARNING UserSettings: No journal; the journal goes on, and the snapshot is tried again"));
  store.Merge("[B]\ny=2\n");
  store.AwaitDurable();
  EXPECT_TRUE(PowerCutsLeave("[B]\ny=2\n"));
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

TEST_F(Persister, DiskThatFailsLetsGoAndHasEverythingOnceItIsWell) {
  PersistedStore store(_files, kAlways);
  const auto log = LogOfFailure([&] {
    _files.FailAfter(0, true);
    store.Merge("[B]\ny=2\n");
    store.AwaitDurable();
    EXPECT_FALSE(IsHeld(store, "B"));
    _files.FailNoMore();
    EXPECT_TRUE(Eventually([&] { return Load(_files) == "[A]\nx=1\n[B]\ny=2\n"; }));
  });
  EXPECT_THAT(log, ElementsAre("ERROR UserSettings: Failed to create 'user.ini.journal.new': No space left on device; "
                               "changes are kept in memory and saved as soon as that is possible",
                               kSavedAgain));
  Stop sync(_files, Kind::kSync, "user.ini.journal.new");
  store.Merge("[C]\nz=3\n");
  EXPECT_TRUE(IsHeld(store, "C"));
}

TEST_F(Persister, FinishSaysWhetherEverythingIsOnTheDisk) {
  PersistedStore store(_files, kAlways);
  _files.FailAfter(0, true);
  store.Merge("[B]\ny=2\n");
  EXPECT_FALSE(store.Finish());
  _files.FailNoMore();
  EXPECT_EQ(Load(_files), "[A]\nx=1\n");
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(Load(_files), "[A]\nx=1\n[B]\ny=2\n");
}

TEST_F(Persister, SnapshotThatCanNotBeMadeAtTheEndLeavesTheJournal) {
  PersistedStore store(_files, kHourly);
  store.Merge("[B]\ny=2\n");
  _files.FailAfter(0, false);
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(Load(_files), "[A]\nx=1\n[B]\ny=2\n");
}

// Neither writers nor readers wait for whoever reads the log, and may not.
TEST_F(Persister, LogThatNobodyReadsHoldsUpNobody) {
  PersistedStore store(_files, kAlways);
  {
    const FullStandardError nobodyReads;
    _files.FailAfter(0, true);
    store.Merge("[B]\ny=2\n");
    store.Merge("[B]\ny=3\n");
    EXPECT_EQ(UserSettingsOf(store.GetManager()), "[A]\nx=1\n[B]\ny=3\n");
    _files.FailNoMore();
  }
  EXPECT_TRUE(Eventually([&] { return Load(_files) == "[A]\nx=1\n[B]\ny=3\n"; }));
}

TEST_F(Persister, EndThatTheDiskHoldsUpIsTold) {
  PersistedStore store(_files, kAlways);
  Stop sync(_files, Kind::kSync, "user.ini.journal.new");
  store.Merge("[B]\ny=2\n");
  sync.Await();
  std::promise<bool> isSaved;
  EXPECT_TRUE(store.Finish(std::chrono::milliseconds(1), [&](bool saved) {
    isSaved.set_value(saved);
    sync.GoOn();
  }));
  EXPECT_FALSE(isSaved.get_future().get());
}

// Nothing is lost when only the last snapshot can't be made.
TEST_F(Persister, EndThatOnlyASnapshotHoldsUpIsNoLoss) {
  PersistedStore store(_files, kAlways);
  store.Merge("[B]\ny=2\n");
  EXPECT_TRUE(Eventually([&] { return store.GetUnsavedSince() == 0; }));  // told once the sync has been noted
  Stop snapshot(_files, Kind::kSync, "user.ini.new");
  std::promise<bool> isSaved;
  store.Finish(std::chrono::milliseconds(1), [&](bool saved) {
    isSaved.set_value(saved);
    snapshot.GoOn();
  });
  EXPECT_TRUE(isSaved.get_future().get());
}

TEST_F(Persister, JournalThatWasGivenUpOnItsWayLeavesItsRoom) {
  PersistedStore store(_files, kAlways);
  Stop sync(_files, Kind::kSync, "user.ini.journal.new");
  store.Merge("[B]\ny=2\n");
  sync.Await();
  _files.FailAfter(0, false);
  store.Merge("[B]\ny=3\n");
  sync.GoOn();
  EXPECT_TRUE(Eventually([&] { return Load(_files) == "[A]\nx=1\n[B]\ny=3\n"; }));
  const auto names = _files.GetNames();
  EXPECT_THAT(names, Not(Contains("user.ini.journal.new")));
}

// Its name is that of the next one by then.
TEST_F(Persister, JournalThatWasGivenUpDuringASnapshotTakesNoOtherWithIt) {
  PersistedStore store(_files, kAlways);
  Stop sync(_files, Kind::kSync, "user.ini.journal.new");
  std::optional<Stop> snapshot(std::in_place, _files, Kind::kSync, "user.ini.new");
  store.Merge("[Large]\nx=" + std::string(70 * 1000, 'x') + "\n");
  sync.Await();
  snapshot->Await();
  const auto log = LogOf([&] {
    _files.FailAfter(0, false);
    store.Merge("[B]\ny=2\n");
    snapshot->GoOn();
    store.AwaitDurable();
    EXPECT_TRUE(Eventually([&] { return _files.Get("user.ini.journal.new").find("y=2\n") != std::string::npos; }));
    const size_t snapshots = CountSnapshots(_files);
    store.Merge("[Large]\nx=" + std::string(140 * 1000, 'y') + "\n");
    EXPECT_TRUE(Eventually([&] { return CountSnapshots(_files) > snapshots; }));
    sync.GoOn();
    store.AwaitDurable();
    EXPECT_TRUE(store.Finish());
  });
  EXPECT_THAT(log, Each(Not(HasSubstr("Failed to replace"))));
  EXPECT_EQ(Load(_files), UserSettingsOf(store.GetManager()));
}

TEST_F(Persister, IntervalSyncsByItself) {
  PersistedStore store(_files, {daemon::Durability::Kind::kInterval, std::chrono::milliseconds(1)});
  store.Merge("[B]\ny=2\n");
  EXPECT_TRUE(Eventually([&] { return !_files.Get("user.ini.journal").empty(); }));
}

// Whatever fails, once or for ever: what is found is a state that was current, and nothing is lost once it is well.
TEST_F(Persister, FailureOfAnyOperationLosesNothingInTheEnd) {
  for (size_t number = 0; number < 120; ++number) {
    MemoryFiles files(_files.GetImage());
    PersistedStore store(files, kAlways);
    files.FailAfter(number / 2, number % 2 == 0);
    store.Merge("[Large]\nx=" + std::string(70 * 1000, 'x') + "\n");
    for (int i = 2; i < 5; ++i) store.Merge("[A]\nx=" + std::to_string(i) + "\n[B]\nx=" + std::to_string(i) + "\n");
    store.AwaitDurable();
    const core::IniFile found = DocumentOf(Load(files));
    const std::string x = found.GetValue("A", "x");
    EXPECT_EQ(found.GetValueOrDefault("B", "x"), x == "1" ? "" : x) << number;
    files.FailNoMore();
    EXPECT_TRUE(store.Finish()) << number;
    EXPECT_EQ(Load(files), UserSettingsOf(store.GetManager())) << number;
  }
}

}  // namespace tavix::test
