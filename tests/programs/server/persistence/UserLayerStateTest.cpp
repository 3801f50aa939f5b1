#include "programs/server/persistence/UserLayerState.h"

#include <gtest/gtest.h>

#include <chrono>

#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/programs/server/persistence/UserLayerDriver.h"

namespace tavix::test {

using daemon::Durability;
using daemon::UserLayerState;
using Phase = UserLayerState::Phase;
using Size = UserLayerState::Size;
using Steps = UserLayerState::Steps;

// No change that is made during a sync is older than its begin.
TEST(UserLayerState, IntervalIsThatOfTheOldestChangeThatIsNotSynced) {
  UserLayerDriver driver({Durability::Kind::kInterval, std::chrono::seconds(10)});
  driver.Load(1, true);
  EXPECT_FALSE(driver.state.GetSyncTime());
  driver.SaveChange();
  driver.SaveChange();
  EXPECT_EQ(driver.state.GetSyncTime(), kNow + std::chrono::seconds(10));
  const auto sync = driver.state.OnSyncBegun(kNow + std::chrono::seconds(11), kTime);
  driver.SaveChange();
  driver.state.OnSynced(sync);
  EXPECT_EQ(driver.state.GetSyncTime(), kNow + std::chrono::seconds(21));
}

TEST(UserLayerState, SyncCoversWhatWasAppendedBeforeItBegan) {
  UserLayerDriver driver;
  driver.Load(1, true);
  driver.SaveChange();
  const auto sync = driver.state.OnSyncBegun(kNow, kTime);
  driver.SaveChange();
  EXPECT_EQ(driver.state.OnSynced(sync).unsavedSince, kTime);
  EXPECT_EQ(driver.state.GetSynced(), 1u);
  EXPECT_TRUE(driver.state.GetSyncTime());
}

TEST(UserLayerState, OfSeveralChangesThatWaitForTheirSyncNoneIsShownBeforeIt) {
  UserLayerDriver driver({Durability::Kind::kNone, std::chrono::seconds(0)});
  driver.Load(1, true);
  driver.state.OnChange(Size::kSmall, kNow, kTime);
  EXPECT_EQ(driver.state.OnAppended(1).shown, 1u);
  driver.state.OnChange(Size::kSmall, kNow, kTime, true);
  EXPECT_EQ(driver.state.OnAppended(1).shown, 1u);
  const auto sync = driver.state.OnSyncBegun(kNow, kTime);
  EXPECT_TRUE(driver.state.OnChange(Size::kSmall, kNow, kTime, true).holdsChange);
  EXPECT_EQ(driver.state.OnAppended(1).shown, 1u);
  driver.state.OnSynced(sync);
  EXPECT_TRUE(driver.state.OnChange(Size::kSmall, kNow, kTime).holdsChange);
  EXPECT_EQ(driver.state.OnAppended(1).shown, 2u);
  EXPECT_EQ(driver.state.OnSynced(driver.state.OnSyncBegun(kNow, kTime)).shown, 4u);
}

TEST(UserLayerState, FailureOfASyncWhoseJournalWasReplacedIsIgnored) {
  UserLayerDriver driver;
  driver.Load(1, true);
  driver.SaveChange();
  const auto sync = driver.state.OnSyncBegun(kNow, kTime);
  driver.Begin();
  driver.Follow(true);
  EXPECT_FALSE(driver.state.OnSyncFailed(sync, kNow));
  EXPECT_EQ(driver.state.GetPhase(), Phase::kJournalling);
}

TEST(UserLayerState, SnapshotSaysInWhichJournalChangesGoOn) {
  UserLayerDriver driver;
  driver.Load(4);
  EXPECT_EQ(driver.state.OnSnapshotBegun().journalFollows, 4u);
  UserLayerDriver first;
  first.Load(0);
  EXPECT_EQ(first.state.OnSnapshotBegun().journalFollows, 0u);
}

// The journal follows the snapshot before, whose generation it names.
TEST(UserLayerState, SnapshotThatCouldNotBeFollowedLeavesTheJournalItsGeneration) {
  UserLayerDriver driver;
  driver.Load(4, true);
  driver.Begin();
  driver.FailToFollow();
  EXPECT_EQ(driver.state.GetSnapshotId().generation, 5u);
  EXPECT_EQ(driver.state.OnSnapshotBegun().journalFollows, 4u);
}

TEST(UserLayerState, FailedSnapshotsAreTriedLessAndLessOften) {
  UserLayerDriver driver;
  driver.Load(0);
  driver.state.OnSnapshotFailed(kNow);
  EXPECT_EQ(driver.state.GetSnapshotTime(), kNow + std::chrono::seconds(1));
  driver.state.OnSnapshotFailed(kNow);
  EXPECT_EQ(driver.state.GetSnapshotTime(), kNow + std::chrono::seconds(2));
}

TEST(UserLayerState, IsSavedWhenTheDiskHasWhatTheDurabilityAsksFor) {
  UserLayerDriver always;
  always.Load(1, true);
  always.SaveChange();
  EXPECT_FALSE(always.state.IsSaved());
  always.Sync();
  EXPECT_TRUE(always.state.IsSaved());
  UserLayerDriver never(kNever);
  never.Load(1, true);
  never.SaveChange();
  EXPECT_TRUE(never.state.IsSaved());
}

TEST(UserLayerState, SmallChangeBehindALargeOneIsWrittenLaterToo) {
  UserLayerDriver driver;
  driver.Load(1, true);
  driver.Change(Size::kLarge);
  EXPECT_EQ(driver.Change().write, Steps::Write::kLater);
  const auto write = driver.state.OnLateWriteBegun();
  EXPECT_EQ(driver.Change().write, Steps::Write::kLater);
  driver.state.OnLateWritten(write, 1000);
  EXPECT_TRUE(driver.state.IsLateWriteDue());
  driver.state.OnAppended(1000);
  EXPECT_EQ(driver.Change().write, Steps::Write::kAppend);
}

TEST(UserLayerState, SyncDoesNotCoverWhatIsNotWritten) {
  UserLayerDriver driver;
  driver.Load(1, true);
  driver.SaveChange();
  driver.Change(Size::kLarge);
  driver.Sync();
  EXPECT_EQ(driver.state.GetSynced(), 1u);
  EXPECT_FALSE(driver.state.GetSyncTime());
}

// What the journal before got now would be lost with it.
TEST(UserLayerState, NothingIsWrittenBetweenTheTakeOverAndItsEnd) {
  UserLayerDriver driver;
  driver.Load(1, true);
  driver.Begin();
  driver.state.OnTakeOver();
  EXPECT_EQ(driver.Change().write, Steps::Write::kLater);
  EXPECT_FALSE(driver.state.IsLateWriteDue());
  EXPECT_TRUE(driver.FailToFollow().wakesSync);
  EXPECT_TRUE(driver.state.IsLateWriteDue());
}

TEST(UserLayerState, RecoveryIsReportedOnceAllIsOnTheDisk) {
  UserLayerDriver driver;
  ReachFailed(driver);
  driver.Begin();
  driver.Change();
  EXPECT_FALSE(driver.Follow(true).reportsRecovery);
  EXPECT_TRUE(driver.Sync().reportsRecovery);
  EXPECT_FALSE(driver.Sync().reportsRecovery);
}

// It was shown while the disk failed.
TEST(UserLayerState, RecoveryIsNotReportedBeforeAChangeThatIsWrittenLater) {
  UserLayerDriver driver;
  ReachFailed(driver);
  driver.Begin();
  EXPECT_FALSE(driver.FollowWithoutTheLast().reportsRecovery);
  EXPECT_FALSE(driver.Sync().reportsRecovery);
  EXPECT_FALSE(driver.state.OnLateWritten(driver.state.OnLateWriteBegun(), 1000).reportsRecovery);
  EXPECT_TRUE(driver.Sync().reportsRecovery);
}

TEST(UserLayerState, WithoutDurabilityRecoveryIsReportedOnceAllIsWritten) {
  UserLayerDriver driver(kNever);
  ReachFailed(driver);
  driver.Begin();
  EXPECT_FALSE(driver.FollowWithoutTheLast().reportsRecovery);
  EXPECT_TRUE(driver.state.OnLateWritten(driver.state.OnLateWriteBegun(), 1000).reportsRecovery);
}

// Changes that are made meanwhile are held until the disk has them.
TEST(UserLayerState, RecoveryIsReportedThoughChangesGoOn) {
  UserLayerDriver driver;
  ReachFailed(driver);
  driver.Begin();
  driver.Change();
  driver.Follow(true);
  driver.SaveChange();
  const auto sync = driver.state.OnSyncBegun(kNow, kTime);
  driver.SaveChange();
  EXPECT_TRUE(driver.state.OnSynced(sync).reportsRecovery);
}

TEST(UserLayerState, RecoveryIsNotReportedWhenTheDiskFailsAgainBefore) {
  UserLayerDriver driver;
  ReachFailed(driver);
  driver.Begin();
  driver.Change();
  driver.Follow(true);
  const auto sync = driver.state.OnSyncBegun(kNow, kTime);
  FailAppend(driver);
  EXPECT_FALSE(driver.state.OnSynced(sync).reportsRecovery);
  EXPECT_TRUE(driver.state.HasFailed());
}

}  // namespace tavix::test
