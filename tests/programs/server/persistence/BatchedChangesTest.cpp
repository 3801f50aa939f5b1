#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "programs/server/persistence/ChangeBatch.h"
#include "programs/server/persistence/SharedUserLayer.h"
#include "tests/programs/server/persistence/AwaitedWork.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

using daemon::ChangeBatch;
using daemon::JournalWork;
using daemon::SharedUserLayer;

namespace {

constexpr daemon::SyncGather::Rule kLongGather{std::chrono::nanoseconds(0), 1e7};

// The calling thread makes changes, and does the syncing thread's steps one by one.
class ChangesInBatches : public testing::Test {
 protected:
  ChangesInBatches() {
    daemon::FoundUserSettings found;
    found.snapshot = {1, 1};
    _shared.Load(found);
    Change();  // opens the journal
    Sync();
  }

  void Change() {
    _layer.SetValue("A", "key", std::to_string(++_changes));
    _shared.Save({_layer, {"A"}, {}, {}});
  }

  daemon::SyncRound BeginSync() {
    const auto round = _shared.BeginSync();
    EXPECT_TRUE(round);
    return *round;
  }

  void Sync() { _shared.OnSynced(BeginSync()); }

  MemoryFiles _files;
  SharedUserLayer _shared{
      {_files, kUserFile, kAlways, [](bool, size_t) {}, {}, {}, kLargeChange, std::chrono::hours(1), kLongGather}};
  core::IniFile _layer;
  int _changes = 0;
};

}  // namespace

TEST_F(ChangesInBatches, AreWrittenByOneWriteAtTheEndOfTheBatch) {
  const size_t before = _files.CountOperations();
  {
    const ChangeBatch batch;
    for (int i = 0; i < 3; ++i) Change();
    EXPECT_EQ(_files.CountOperations(), before);
  }
  EXPECT_EQ(_files.CountOperations(), before + 1);
  EXPECT_THAT(_files.Get(daemon::Journal::NewPathOf(kUserFile)), testing::HasSubstr("key=4\n"));
}

TEST_F(ChangesInBatches, WakeTheSyncingThreadAtTheEndOfTheBatch) {
  AwaitedWork work(_shared);
  {
    const ChangeBatch batch;
    Change();
    EXPECT_TRUE(work.IsStillWaiting());
  }
  EXPECT_EQ(work.Get(), JournalWork::kSync);
}

TEST_F(ChangesInBatches, AreCoveredByASyncThatBeginsMeanwhile) {
  const ChangeBatch batch;
  Change();
  Change();
  EXPECT_EQ(BeginSync().sync.last, 3u);
  EXPECT_THAT(_files.Get(daemon::Journal::NewPathOf(kUserFile)), testing::HasSubstr("key=3\n"));
}

TEST_F(ChangesInBatches, AreWrittenBeforeASnapshotSaysWhereItsJournalGoesOn) {
  const ChangeBatch batch;
  Change();
  _shared.BeginToNote();
  const daemon::SnapshotMoment moment = _shared.BeginSnapshot();
  EXPECT_EQ(moment.end.journalEnd, _shared.GetJournal()->GetEnd());
  EXPECT_THAT(_files.Get(daemon::Journal::NewPathOf(kUserFile)), testing::HasSubstr("key=2\n"));
}

TEST_F(ChangesInBatches, ThatCanNotBeWrittenAreReleasedAndOwedToASnapshot) {
  {
    const ChangeBatch batch;
    Change();
    EXPECT_FALSE(_shared.GetGate().IsDurable(2));
    _files.FailAfter(0, true);
  }
  EXPECT_TRUE(_shared.HasFailed());
  EXPECT_TRUE(_shared.GetGate().IsDurable(2));
  EXPECT_EQ(_shared.GetJournal(), nullptr);
}

TEST_F(ChangesInBatches, WithoutHeldRepliesAreWrittenAtOnce) {
  SharedUserLayer shared{{_files, "other.ini", kHourly, [](bool, size_t) {}}};
  daemon::FoundUserSettings found;
  found.snapshot = {1, 1};
  shared.Load(found);
  _layer.SetValue("A", "key", "1");
  shared.Save({_layer, {"A"}, {}, {}});
  const ChangeBatch batch;
  const size_t before = _files.CountOperations();
  shared.Save({_layer, {"A"}, {}, {}});
  EXPECT_EQ(_files.CountOperations(), before + 1);
}

TEST_F(ChangesInBatches, SyncWaitsForAsManyAsCameBackFromTheLastOne) {
  for (int i = 0; i < 3; ++i) Change();
  const daemon::SyncRound round = BeginSync();
  Change();  // of another client, which waits already
  _shared.OnSynced(round);
  AwaitedWork work(_shared);
  for (int i = 0; i < 2; ++i) Change();
  EXPECT_TRUE(work.IsStillWaiting());
  Change();
  EXPECT_EQ(work.Get(), JournalWork::kSync);
  EXPECT_EQ(BeginSync().sync.last, 8u);
}

}  // namespace tavix::test
