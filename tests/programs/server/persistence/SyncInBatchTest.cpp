#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

#include "programs/server/persistence/ChangeBatch.h"
#include "programs/server/persistence/SharedUserLayer.h"
#include "tests/programs/server/persistence/AwaitedWork.h"
#include "tests/programs/server/persistence/PersisterTest.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

using daemon::ChangeBatch;
using daemon::JournalWork;
using daemon::SharedUserLayer;
using Kind = MemoryFiles::Operation::Kind;
using Rule = daemon::SyncGather::Rule;

namespace {

constexpr Rule kAllAreShort{std::chrono::hours(1), 0, std::chrono::hours(1)};
constexpr Rule kNoneIsShort{std::chrono::hours(1), 0, std::chrono::nanoseconds(-1)};

// Where a change is synced whose batch may be. The syncing thread does one thing at most: it waits for work.
class SyncInBatch : public testing::Test {
 protected:
  explicit SyncInBatch(const Rule& gather = kAllAreShort)
      : _shared{
            {_files, kUserFile, kAlways, [](bool, size_t) {}, {}, {}, kLargeChange, std::chrono::hours(1), gather}} {
    daemon::FoundUserSettings found;
    found.snapshot = {1, 1};
    _shared.Load(found);
  }

  // Opens the journal, and syncs it and its name as the syncing thread does.
  void Begin() {
    Change();
    Sync();
  }

  void Change() {
    _layer.SetValue("A", "key", std::to_string(++_changes));
    _shared.Save({_layer, {"A"}, {}, {}});
  }

  void ChangeInBatch(int count = 1) {
    ChangeBatch batch;
    for (int i = 0; i < count; ++i) Change();
    batch.Flush([this] { return ++_asked > 0; });
  }

  void Sync() {
    const std::optional<daemon::SyncRound> round = _shared.BeginSync();
    ASSERT_TRUE(round);
    round->journal->SyncRecords();
    EXPECT_TRUE(_shared.TakePlace(*round));
    round->journal->SyncName();
    _shared.OnSynced(*round);
  }

  bool IsLastDurable() { return _shared.GetGate().IsDurable(_shared.GetGate().FindLast(nullptr)); }

  size_t CountSyncs() const {
    const auto operations = _files.GetOperations();
    const auto isSync = [](const auto& operation) { return operation.kind == Kind::kSync; };
    return static_cast<size_t>(std::count_if(operations.begin(), operations.end(), isSync));
  }

  // A batch of one change is left to the syncing thread, if that waits for work.
  void ExpectLeftToTheSyncingThread() {
    AwaitedWork work(_shared);
    const size_t before = CountSyncs();
    ChangeInBatch();
    EXPECT_EQ(work.Get(), JournalWork::kSync);
    EXPECT_EQ(CountSyncs(), before);
    EXPECT_EQ(_asked, 0);
    EXPECT_FALSE(IsLastDurable());
  }

  MemoryFiles _files;
  SharedUserLayer _shared;
  core::IniFile _layer;
  int _changes = 0;
  int _asked = 0;  // whether the thread may wait for the disk, in batches
};

class SyncInBatchBehindALongOne : public SyncInBatch {
 protected:
  SyncInBatchBehindALongOne() : SyncInBatch(kNoneIsShort) {}
};

}  // namespace

TEST_F(SyncInBatch, MakesItsChangesDurableAndWakesNobody) {
  Begin();
  AwaitedWork work(_shared);
  for (int i = 0; i < 3; ++i) {
    ChangeInBatch();
    EXPECT_TRUE(IsLastDurable());
  }
  EXPECT_TRUE(work.IsStillWaiting());
  EXPECT_EQ(CountSyncs(), 4u);
}

TEST_F(SyncInBatch, IsNotForAThreadThatMayNotWait) {
  Begin();
  AwaitedWork work(_shared);
  {
    const ChangeBatch batch;
    Change();
  }
  EXPECT_EQ(work.Get(), JournalWork::kSync);
  EXPECT_FALSE(IsLastDurable());
}

// It has got another connection meanwhile.
TEST_F(SyncInBatch, IsNotForAThreadThatMayNotWaitAnyMore) {
  Begin();
  AwaitedWork work(_shared);
  {
    ChangeBatch batch;
    Change();
    batch.Flush([] { return false; });
  }
  EXPECT_EQ(work.Get(), JournalWork::kSync);
  EXPECT_FALSE(IsLastDurable());
}

// To give it its place may wait for a snapshot.
TEST_F(SyncInBatch, IsNotForANewJournal) {
  ExpectLeftToTheSyncingThread();
}

// The name of the next journal is not synced yet.
TEST_F(SyncInBatch, IsNotForTheJournalBehindASnapshot) {
  Begin();
  _shared.BeginToNote();
  const daemon::SnapshotMoment moment = _shared.BeginSnapshot();
  {
    const osa::PlainMutexLock names(_shared.GetNameMutex());
    const daemon::UserLayerState::Snapshot snapshot{{moment.end.generation, 1}, 0, moment.last};
    const std::shared_ptr<daemon::Journal> next = _shared.CreateNextJournal(snapshot.id);
    _shared.TakeOver();
    daemon::ChangeInParts change;
    const auto last = _shared.CloseChanges(change, _layer, true);
    ASSERT_TRUE(last);
    _shared.Follow(snapshot, next, *last);
    _shared.TakePlaceNamed(*next);
  }
  ExpectLeftToTheSyncingThread();
}

TEST_F(SyncInBatchBehindALongOne, IsLeftToTheSyncingThread) {
  Begin();
  ExpectLeftToTheSyncingThread();
}

// Its client does not wait for each.
TEST_F(SyncInBatch, IsNotForManyChanges) {
  Begin();
  AwaitedWork work(_shared);
  ChangeInBatch(4);
  EXPECT_TRUE(IsLastDurable());
  ChangeInBatch(5);
  EXPECT_EQ(work.Get(), JournalWork::kSync);
  EXPECT_FALSE(IsLastDurable());
}

TEST_F(SyncInBatch, IsNotBesideTheSyncingThread) {
  Begin();
  const size_t before = CountSyncs();
  ChangeInBatch();
  EXPECT_EQ(CountSyncs(), before);
  EXPECT_FALSE(IsLastDurable());
}

TEST_F(SyncInBatch, KeepsTheSyncingThreadWaitingWhichThenTakesTheChangesOfOthers) {
  Begin();
  AwaitedWork work(_shared);
  Stop sync(_files, Kind::kSync, daemon::Journal::NewPathOf(kUserFile));
  BackgroundCall batch([this] { ChangeInBatch(); });
  sync.Await();
  _shared.Save({_layer, {"B"}, {}, {}});
  BackgroundCall([this] {
    const ChangeBatch other;
    _shared.Save({_layer, {"C"}, {}, {}});
  }).Join();
  EXPECT_TRUE(work.IsStillWaiting());
  EXPECT_FALSE(_shared.GetGate().IsDurable(2));
  sync.GoOn();
  batch.Join();
  EXPECT_TRUE(_shared.GetGate().IsDurable(2));
  EXPECT_EQ(work.Get(), JournalWork::kSync);
  Sync();
  EXPECT_TRUE(_shared.GetGate().IsDurable(4));
}

TEST_F(SyncInBatch, ThatHangsDoesNotKeepTheSyncingThreadFromItsEnd) {
  Begin();
  AwaitedWork work(_shared);
  Stop sync(_files, Kind::kSync, daemon::Journal::NewPathOf(kUserFile));
  BackgroundCall batch([this] { ChangeInBatch(); });
  sync.Await();
  _shared.Stop();
  EXPECT_EQ(work.Get(), JournalWork::kStop);
  sync.GoOn();
  batch.Join();
  EXPECT_TRUE(IsLastDurable());
}

TEST_F(SyncInBatch, ThatFailsReleasesTheChangesAndOwesThemToASnapshot) {
  Begin();
  AwaitedWork work(_shared);
  _files.FailAfter(1, false);  // behind the write
  ChangeInBatch();
  EXPECT_TRUE(_shared.HasFailed());
  EXPECT_TRUE(IsLastDurable());
  EXPECT_EQ(_shared.GetJournal(), nullptr);
  EXPECT_TRUE(work.IsStillWaiting());
  ChangeInBatch();
  EXPECT_TRUE(IsLastDurable());
}

}  // namespace tavix::test
