#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <optional>

#include "tavix/osa/Exception.h"
#include "tests/programs/server/persistence/LogOfFailure.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/programs/server/persistence/PersisterTest.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/DocumentText.h"
#include "tests/support/LogOf.h"
#include "tests/support/MemoryFiles.h"
#include "tests/support/Threads.h"

namespace tavix::test {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Kind = MemoryFiles::Operation::Kind;

namespace {

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

}  // namespace

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
  store.LimitEnd(std::chrono::milliseconds(1), [&](bool saved) {
    isSaved.set_value(saved);
    sync.GoOn();
  });
  EXPECT_TRUE(store.Finish());
  EXPECT_FALSE(isSaved.get_future().get());
}

// A write hangs with the locks of the store and the persister held.
TEST_F(Persister, EndThatAWriteHoldsUpIsToldWithoutItsLocks) {
  PersistedStore store(_files, kAlways);
  Stop reserve(_files, Kind::kReserve, "user.ini.journal.new");
  BackgroundCall writer([&] { store.Merge("[B]\ny=2\n"); });
  reserve.Await();
  std::promise<bool> isSaved;
  store.LimitEnd(std::chrono::milliseconds(1), [&](bool saved) {
    isSaved.set_value(saved);
    reserve.GoOn();
  });
  EXPECT_TRUE(store.Finish());
  EXPECT_FALSE(isSaved.get_future().get());
  writer.Join();
}

TEST_F(Persister, LargeChangeWhoseWriteHangsIsReported) {
  const CapturedLog log;
  const auto isLogged = [&](const char* text) {
    return Eventually([&] { return testing::Value(log.GetMessages(), Contains(HasSubstr(text))); });
  };
  PersistedStore store(_files, kAlways, "", std::chrono::milliseconds(50));
  store.Merge("[B]\ny=1\n");
  store.AwaitDurable();
  Stop write(_files, Kind::kWrite, "user.ini.journal.new");
  store.Merge("[Large]\nx=" + std::string(70 * 1000, 'x') + "\n");
  write.Await();
  EXPECT_TRUE(isLogged("'user.ini': the disk takes long to sync the last changes"));
  write.GoOn();
  EXPECT_TRUE(isLogged("'user.ini': the disk syncs changes again"));
}

// Nothing is lost when only the last snapshot can't be made.
TEST_F(Persister, EndThatOnlyASnapshotHoldsUpIsNoLoss) {
  PersistedStore store(_files, kAlways);
  store.Merge("[B]\ny=2\n");
  EXPECT_TRUE(Eventually([&] { return store.GetUnsavedSince() == 0; }));  // told once the sync has been noted
  Stop snapshot(_files, Kind::kSync, "user.ini.new");
  std::promise<bool> isSaved;
  store.LimitEnd(std::chrono::milliseconds(1), [&](bool saved) {
    isSaved.set_value(saved);
    snapshot.GoOn();
  });
  store.Finish();
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
  EXPECT_TRUE(Eventually([&] { return !_files.Exists("user.ini.journal.new"); }));
  EXPECT_EQ(Load(_files), "[A]\nx=1\n[B]\ny=3\n");
}

// A daemon that is killed meanwhile finds what is in it.
TEST_F(Persister, JournalThatWasGivenUpOnItsWayStaysUntilTheSnapshotStands) {
  PersistedStore store(_files, kAlways);
  Stop sync(_files, Kind::kSync, "user.ini.journal.new");
  Stop replaced(_files, Kind::kRename, "user.ini.new");
  store.Merge("[B]\ny=2\n");
  sync.Await();
  _files.FailAfter(0, false);
  sync.GoOn();
  replaced.Await();
  EXPECT_EQ(Load(_files), "[A]\nx=1\n[B]\ny=2\n");
  replaced.GoOn();
  EXPECT_TRUE(Eventually([&] { return !_files.Exists("user.ini.journal.new"); }));
  EXPECT_EQ(Load(_files), "[A]\nx=1\n[B]\ny=2\n");
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
    // Changes that come before it is the current journal would wait for the thread that syncs.
    AwaitAsleep(FindThreads("Snapshot").back());
    const size_t snapshots = CountSnapshots(_files);
    for (const char value : {'1', '2', '3'}) store.Merge("[Large]\nx=" + std::string(60 * 1000, value) + "\n");
    EXPECT_TRUE(Eventually([&] { return CountSnapshots(_files) > snapshots; }));
    sync.GoOn();
    store.AwaitDurable();
    EXPECT_TRUE(store.Finish());
  });
  EXPECT_THAT(log, Each(Not(HasSubstr("Failed to replace"))));
  EXPECT_EQ(Load(_files), UserSettingsOf(store.GetManager()));
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
