#include "programs/server/persistence/SharedUserLayer.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

using core::IniFile;
using daemon::ChangeInParts;
using daemon::FoundUserSettings;
using daemon::SharedUserLayer;

namespace {

// The threads' steps, one by one, in the order that the test wants.
class UserLayerSteps : public testing::Test {
 protected:
  UserLayerSteps() {
    FoundUserSettings found;
    _shared.Load(found);
  }

  void Change(const std::string& group, const std::string& value) {
    _layer.SetValue(group, "key", value);
    _shared.Save({_layer, {group}, {}, {}});
  }

  daemon::CloseResult Close(ChangeInParts& change, daemon::NotedChanges::Epoch epoch) {
    return _shared.ClosePending(change, epoch, _layer, true, _record);
  }

  // Up to the moment that the snapshot holds.
  void BeginSnapshot() {
    _shared.BeginToNote();
    const daemon::SnapshotMoment moment = _shared.BeginSnapshot();
    _snapshot.id = {moment.end.generation, 1};
    _snapshot.last = moment.last;
  }

  // The next journal gets all that was noted, and the changes that follow are pending.
  void FillNextJournal() {
    osa::PlainMutexLock names(_shared.GetNameMutex());
    _next = _shared.CreateNextJournal(_snapshot.id);
    _shared.TakeOver();
  }

  void Follow() {
    ChangeInParts change;
    const auto last = _shared.CloseChanges(change, _layer, true);
    ASSERT_TRUE(last);
    change.Seal();
    _next->Append(change.GetChange());
    _shared.Follow(_snapshot, _next, *last);
  }

  MemoryFiles _files;
  SharedUserLayer _shared{{_files, kUserFile, kAlways, [](bool, size_t) {}, {}, {}, 1}};  // all changes are large
  IniFile _layer;
  daemon::LateRecord _record;
  daemon::UserLayerState::Snapshot _snapshot;
  std::shared_ptr<daemon::Journal> _next;
};

}  // namespace

// Nobody notes any more what becomes of these groups: their texts may be older than what the next journal holds.
TEST_F(UserLayerSteps, WhatWasTakenBeforeTheNextJournalBeganIsNotWrittenBehindIt) {
  BeginSnapshot();
  FillNextJournal();
  Follow();
  Change("A", "1");
  daemon::PendingGroups pending = _shared.TakePending();
  ChangeInParts change;
  change.Add(std::move(pending.changes));
  EXPECT_FALSE(change.MakePart(_layer));
  BeginSnapshot();
  FillNextJournal();
  Change("A", "2");
  Follow();
  Change("B", "1");
  EXPECT_EQ(Close(change, pending.epoch), daemon::CloseResult::kDone);
  EXPECT_EQ(_record.journal, nullptr);
  const std::string journal = _files.Read(daemon::Journal::NewPathOf(kUserFile)).bytes;
  EXPECT_EQ(journal.find("key=1"), std::string::npos) << journal;
}

TEST_F(UserLayerSteps, WhatIsTakenAndClosedInOneEpochIsWritten) {
  BeginSnapshot();
  FillNextJournal();
  Follow();
  Change("A", "1");
  daemon::PendingGroups pending = _shared.TakePending();
  ChangeInParts change;
  change.Add(std::move(pending.changes));
  EXPECT_EQ(Close(change, pending.epoch), daemon::CloseResult::kToWrite);
  EXPECT_NE(_record.journal, nullptr);
}

}  // namespace tavix::test
