#include "programs/server/persistence/UserLayerState.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/programs/server/persistence/PersistedStore.h"

namespace tavix::test {

using daemon::Durability;
using daemon::UserLayerState;
using Phase = UserLayerState::Phase;
using Size = UserLayerState::Size;
using Steps = UserLayerState::Steps;

namespace {

constexpr size_t kSnapshotBytes = 100'000;
const UserLayerState::Clock::time_point kNow = UserLayerState::Clock::now();
constexpr std::time_t kTime = 1'000'000;

std::string NameOf(Phase phase) {
  constexpr const char* kNames[] = {"no snapshot", "journalling", "snapshotting", "failed"};
  return kNames[static_cast<size_t>(phase)];
}

std::string Describe(const Steps& steps) {
  constexpr const char* kWrites[] = {"", ", append", ", open journal", ", write later"};
  constexpr const char* kOutputs[] = {"", ", hold", ", release"};
  constexpr const char* kReports[] = {"", ", report failure", ", report retry", ", report that the journal goes on"};
  std::string text = kWrites[static_cast<size_t>(steps.write)];
  text += kOutputs[static_cast<size_t>(steps.output)];
  text += kReports[static_cast<size_t>(steps.report)];
  if (steps.holdsChange) text += ", hold the change";
  if (steps.shown != 0) text += ", show";
  if (steps.reportsRecovery) text += ", report recovery";
  if (steps.wakesSync) text += ", wake sync";
  if (steps.wakesSnapshot) text += ", wake snapshot";
  if (steps.unsavedSince) text += *steps.unsavedSince == 0 ? ", all saved" : ", unsaved";
  return text;
}

std::string Describe(const UserLayerState& state) {
  std::string text = NameOf(state.GetPhase());
  if (state.HasFailed() && state.IsSnapshotting()) text += " after a failure";
  text += state.GetNames().GetCurrent() != 0 ? " with a journal" : " without";
  if (state.AreChangesLate()) text += state.IsLateWriteDue() ? ", to write later" : ", late";
  if (state.GetSnapshotTime()) text += ", due";
  return text;
}

UserLayerState::Snapshot Written(const UserLayerState::SnapshotBegin& begin) {
  return {{begin.generation, 7}, kSnapshotBytes, begin.last};
}

// A state that was brought somewhere, and the snapshot that is under way there, if there is one.
class Driver {
 public:
  explicit Driver(Durability durability = kAlways) : state(durability) {}

  void Load(uint64_t generation, bool hasJournal = false) {
    UserLayerState::Found found;
    found.snapshot.generation = generation;
    found.nextGeneration = generation + 1;
    found.snapshotBytes = kSnapshotBytes;
    found.hasJournal = found.isInPlace = hasJournal;
    found.journalFollows = generation;
    state.Load(found);
  }

  Steps Change(Size size = Size::kSmall) { return state.OnChange(size, kNow, kTime); }

  // Written as the state asks for.
  Steps SaveChange(uint64_t journalEnd = 1000) {
    if (Change().write == Steps::Write::kOpenJournal) state.OnOpened();
    return state.OnAppended(journalEnd);
  }

  void Begin() { _begin = state.OnSnapshotBegun(); }

  Steps Follow(bool hasNext, uint64_t journalEnd = 1000) {
    const auto next = hasNext ? state.GetNames().OnNextCreated() : 0;
    return state.OnFollowed(Written(_begin), next, state.GetLast(), journalEnd);
  }

  Steps FollowWithoutTheLast() {
    const auto last = state.GetLast();
    state.OnTakeOver();
    Change();
    return state.OnFollowed(Written(_begin), state.GetNames().OnNextCreated(), last, 1000);
  }

  Steps WriteLater() {
    Change(Size::kLarge);
    return state.OnLateWritten(state.OnLateWriteBegun(), 1000);
  }

  Steps FailToWriteLater() {
    Change(Size::kLarge);
    return state.OnLateWriteFailed(state.OnLateWriteBegun(), kNow).value_or(Steps());
  }

  Steps FailToFollow() { return state.OnFollowFailed(Written(_begin), kNow); }
  Steps Sync() { return state.OnSynced(state.OnSyncBegun(kNow, kTime)); }
  Steps FailSync() { return state.OnSyncFailed(state.OnSyncBegun(kNow, kTime), kNow).value_or(Steps()); }

  UserLayerState state;

 private:
  UserLayerState::SnapshotBegin _begin;
};

struct Beginning {
  const char* name;
  std::function<void(Driver&)> reach;
};

struct Event {
  const char* name;
  bool (*canHappen)(const UserLayerState&);
  std::function<Steps(Driver&)> make;
};

bool Always(const UserLayerState&) {
  return true;
}

bool HasJournal(const UserLayerState& state) {
  return state.GetNames().GetCurrent() != 0;
}

bool IsSnapshotting(const UserLayerState& state) {
  return state.IsSnapshotting();
}

bool MayBegin(const UserLayerState& state) {
  return !state.IsSnapshotting();
}

// A change that was to be appended, and was not.
Steps FailAppend(Driver& driver) {
  driver.SaveChange();
  return driver.state.OnAppendFailed(kNow);
}

void ReachFailed(Driver& driver) {
  driver.Load(1);
  FailAppend(driver);
}

const std::vector<Beginning> kBeginnings{
    {"no snapshot", [](Driver& driver) { driver.Load(0); }},
    {"no journal", [](Driver& driver) { driver.Load(1); }},
    {"journal", [](Driver& driver) { driver.Load(1, true); }},
    {"failed", ReachFailed},
    {"first snapshot",
     [](Driver& driver) {
       driver.Load(0);
       driver.Begin();
     }},
    {"snapshot, no journal",
     [](Driver& driver) {
       driver.Load(1);
       driver.Begin();
     }},
    {"snapshot, journal",
     [](Driver& driver) {
       driver.Load(1, true);
       driver.Begin();
     }},
    {"snapshot, failure meanwhile",
     [](Driver& driver) {
       driver.Load(1, true);
       driver.Begin();
       FailAppend(driver);
     }},
    {"snapshot after a failure",
     [](Driver& driver) {
       ReachFailed(driver);
       driver.Begin();
     }},
};

const std::vector<Event> kEvents{
    {"change", Always, [](Driver& driver) { return driver.Change(); }},
    {"large change", Always, [](Driver& driver) { return driver.Change(Size::kLarge); }},
    {"change without memory", Always, [](Driver& driver) { return driver.Change(Size::kUnknown); }},
    {"short append", HasJournal, [](Driver& driver) { return driver.SaveChange(); }},
    {"append that makes the journal long", HasJournal,
     [](Driver& driver) { return driver.SaveChange(kSnapshotBytes + 1); }},
    {"failed append", HasJournal, FailAppend},
    {"large change that is written later", HasJournal, [](Driver& driver) { return driver.WriteLater(); }},
    {"large change that can't be written later", HasJournal, [](Driver& driver) { return driver.FailToWriteLater(); }},
    {"sync", HasJournal, [](Driver& driver) { return driver.Sync(); }},
    {"failed sync", HasJournal, [](Driver& driver) { return driver.FailSync(); }},
    {"failed snapshot", Always, [](Driver& driver) { return driver.state.OnSnapshotFailed(kNow); }},
    {"snapshot begun", MayBegin,
     [](Driver& driver) {
       driver.Begin();
       return Steps();
     }},
    {"take-over", IsSnapshotting,
     [](Driver& driver) {
       driver.state.OnTakeOver();
       return Steps();
     }},
    {"change during the take-over", IsSnapshotting,
     [](Driver& driver) {
       driver.state.OnTakeOver();
       return driver.Change();
     }},
    {"snapshot followed by a journal that lacks a change", IsSnapshotting,
     [](Driver& driver) { return driver.FollowWithoutTheLast(); }},
    {"snapshot followed by a journal", IsSnapshotting, [](Driver& driver) { return driver.Follow(true); }},
    {"snapshot followed by a long journal", IsSnapshotting,
     [](Driver& driver) { return driver.Follow(true, kSnapshotBytes + 1); }},
    {"snapshot without a next journal", IsSnapshotting, [](Driver& driver) { return driver.Follow(false); }},
    {"snapshot that can't be followed", IsSnapshotting, [](Driver& driver) { return driver.FailToFollow(); }},
};

// What each event that can happen leads to and asks for, at each beginning.
std::string MakeTable(Durability durability) {
  std::string table;
  for (const Beginning& beginning : kBeginnings) {
    table += std::string(beginning.name) + "\n";
    for (const Event& event : kEvents) {
      Driver driver(durability);
      beginning.reach(driver);
      if (!event.canHappen(driver.state)) continue;
      const Steps steps = event.make(driver);
      table += std::string("    ") + event.name + ": " + Describe(driver.state) + Describe(steps) + "\n";
    }
  }
  return table;
}

constexpr char kTableOfAlways[] = R"(no snapshot
    change: no snapshot without, due, hold the change, wake snapshot, unsaved
    large change: no snapshot without, due, hold the change, wake snapshot, unsaved
    change without memory: failed without, due, release, report failure, show, wake snapshot, unsaved
    failed snapshot: failed without, due, release, report failure, wake snapshot
    snapshot begun: snapshotting without
no journal
    change: journalling without, open journal, unsaved
    large change: journalling without, to write later, write later, hold the change, wake sync, unsaved
    change without memory: failed without, due, release, report failure, show, wake snapshot, unsaved
    failed snapshot: journalling without, due, report that the journal goes on, wake snapshot
    snapshot begun: snapshotting without
journal
    change: journalling with a journal, append, unsaved
    large change: journalling with a journal, to write later, write later, hold the change, wake sync, unsaved
    change without memory: failed without, due, release, report failure, show, wake snapshot, unsaved
    short append: journalling with a journal, wake sync
    append that makes the journal long: journalling with a journal, due, wake sync, wake snapshot
    failed append: failed without, due, release, report failure, show, wake snapshot
    large change that is written later: journalling with a journal, wake sync
    large change that can't be written later: failed without, due, release, report failure, show, wake snapshot
    sync: journalling with a journal, all saved
    failed sync: failed without, due, release, report failure, wake snapshot
    failed snapshot: journalling with a journal, due, report that the journal goes on, wake snapshot
    snapshot begun: snapshotting with a journal
failed
    change: failed without, due, wake snapshot
    large change: failed without, due, wake snapshot
    change without memory: failed without, due, release, report retry, show, wake snapshot
    failed snapshot: failed without, due, release, report retry, show, wake snapshot
    snapshot begun: snapshotting after a failure without
first snapshot
    change: snapshotting without, hold the change, unsaved
    large change: snapshotting without, hold the change, unsaved
    change without memory: snapshotting after a failure without, due, release, report failure, show, wake snapshot, unsaved
    failed snapshot: failed without, due, release, report failure, wake snapshot
    take-over: snapshotting without
    change during the take-over: snapshotting without, hold the change, unsaved
    snapshot followed by a journal that lacks a change: journalling with a journal, to write later, wake sync
    snapshot followed by a journal: journalling with a journal, all saved
    snapshot followed by a long journal: journalling with a journal, due, wake snapshot, all saved
    snapshot without a next journal: journalling without, all saved
    snapshot that can't be followed: failed without, due, release, report failure, wake snapshot
snapshot, no journal
    change: snapshotting without, hold the change, unsaved
    large change: snapshotting without, hold the change, unsaved
    change without memory: snapshotting after a failure without, due, release, report failure, show, wake snapshot, unsaved
    failed snapshot: journalling without, due, report that the journal goes on, wake snapshot
    take-over: snapshotting without
    change during the take-over: snapshotting without, hold the change, unsaved
    snapshot followed by a journal that lacks a change: journalling with a journal, to write later, wake sync
    snapshot followed by a journal: journalling with a journal, all saved
    snapshot followed by a long journal: journalling with a journal, due, wake snapshot, all saved
    snapshot without a next journal: journalling without, all saved
    snapshot that can't be followed: failed without, due, release, report failure, wake snapshot
snapshot, journal
    change: snapshotting with a journal, append, unsaved
    large change: snapshotting with a journal, to write later, write later, hold the change, wake sync, unsaved
    change without memory: snapshotting after a failure without, due, release, report failure, show, wake snapshot, unsaved
    short append: snapshotting with a journal, wake sync
    append that makes the journal long: snapshotting with a journal, wake sync
    failed append: snapshotting after a failure without, due, release, report failure, show, wake snapshot
    large change that is written later: snapshotting with a journal, wake sync
    large change that can't be written later: snapshotting after a failure without, due, release, report failure, show, wake snapshot
    sync: snapshotting with a journal, all saved
    failed sync: snapshotting after a failure without, due, release, report failure, wake snapshot
    failed snapshot: journalling with a journal, due, report that the journal goes on, wake snapshot
    take-over: snapshotting with a journal, late
    change during the take-over: snapshotting with a journal, late, write later, hold the change, wake sync, unsaved
    snapshot followed by a journal that lacks a change: journalling with a journal, to write later, wake sync
    snapshot followed by a journal: journalling with a journal, all saved
    snapshot followed by a long journal: journalling with a journal, due, wake snapshot, all saved
    snapshot without a next journal: journalling without, all saved
    snapshot that can't be followed: journalling with a journal, due, report that the journal goes on, wake snapshot, all saved
snapshot, failure meanwhile
    change: snapshotting after a failure without, due
    large change: snapshotting after a failure without, due
    change without memory: snapshotting after a failure without, due, release, report retry, show, wake snapshot
    failed snapshot: failed without, due, release, report retry, show, wake snapshot
    take-over: snapshotting after a failure without, due
    change during the take-over: snapshotting after a failure without, due
    snapshot followed by a journal that lacks a change: journalling with a journal, to write later, hold, wake sync
    snapshot followed by a journal: journalling with a journal, hold, wake sync
    snapshot followed by a long journal: journalling with a journal, due, hold, wake sync, wake snapshot
    snapshot without a next journal: journalling without, hold, wake sync
    snapshot that can't be followed: failed without, due, release, report retry, show, wake snapshot
snapshot after a failure
    change: snapshotting after a failure without
    large change: snapshotting after a failure without
    change without memory: snapshotting after a failure without, due, release, report retry, show, wake snapshot
    failed snapshot: failed without, due, release, report retry, show, wake snapshot
    take-over: snapshotting after a failure without
    change during the take-over: snapshotting after a failure without
    snapshot followed by a journal that lacks a change: journalling with a journal, to write later, hold, wake sync
    snapshot followed by a journal: journalling with a journal, hold, report recovery, wake snapshot, all saved
    snapshot followed by a long journal: journalling with a journal, due, hold, report recovery, wake snapshot, all saved
    snapshot without a next journal: journalling without, hold, report recovery, wake snapshot, all saved
    snapshot that can't be followed: failed without, due, release, report retry, show, wake snapshot
)";

constexpr char kTableOfNone[] = R"(no snapshot
    change: no snapshot without, due, hold the change, wake snapshot, unsaved
    large change: no snapshot without, due, hold the change, wake snapshot, unsaved
    change without memory: failed without, due, release, report failure, show, wake snapshot, unsaved
    failed snapshot: failed without, due, release, report failure, wake snapshot
    snapshot begun: snapshotting without
no journal
    change: journalling without, open journal, unsaved
    large change: journalling without, to write later, write later, hold the change, wake sync, unsaved
    change without memory: failed without, due, release, report failure, show, wake snapshot, unsaved
    failed snapshot: journalling without, due, report that the journal goes on, wake snapshot
    snapshot begun: snapshotting without
journal
    change: journalling with a journal, append, unsaved
    large change: journalling with a journal, to write later, write later, hold the change, wake sync, unsaved
    change without memory: failed without, due, release, report failure, show, wake snapshot, unsaved
    short append: journalling with a journal, show
    append that makes the journal long: journalling with a journal, due, show, wake snapshot
    failed append: failed without, due, release, report failure, show, wake snapshot
    large change that is written later: journalling with a journal, show
    large change that can't be written later: failed without, due, release, report failure, show, wake snapshot
    sync: journalling with a journal, all saved
    failed sync: failed without, due, release, report failure, wake snapshot
    failed snapshot: journalling with a journal, due, report that the journal goes on, wake snapshot
    snapshot begun: snapshotting with a journal
failed
    change: failed without, due, wake snapshot
    large change: failed without, due, wake snapshot
    change without memory: failed without, due, release, report retry, show, wake snapshot
    failed snapshot: failed without, due, release, report retry, show, wake snapshot
    snapshot begun: snapshotting after a failure without
first snapshot
    change: snapshotting without, hold the change, unsaved
    large change: snapshotting without, hold the change, unsaved
    change without memory: snapshotting after a failure without, due, release, report failure, show, wake snapshot, unsaved
    failed snapshot: failed without, due, release, report failure, wake snapshot
    take-over: snapshotting without
    change during the take-over: snapshotting without, hold the change, unsaved
    snapshot followed by a journal that lacks a change: journalling with a journal, to write later, release, wake sync
    snapshot followed by a journal: journalling with a journal, release, all saved
    snapshot followed by a long journal: journalling with a journal, due, release, wake snapshot, all saved
    snapshot without a next journal: journalling without, release, all saved
    snapshot that can't be followed: failed without, due, release, report failure, wake snapshot
snapshot, no journal
    change: snapshotting without, hold the change, unsaved
    large change: snapshotting without, hold the change, unsaved
    change without memory: snapshotting after a failure without, due, release, report failure, show, wake snapshot, unsaved
    failed snapshot: journalling without, due, report that the journal goes on, wake snapshot
    take-over: snapshotting without
    change during the take-over: snapshotting without, hold the change, unsaved
    snapshot followed by a journal that lacks a change: journalling with a journal, to write later, release, wake sync
    snapshot followed by a journal: journalling with a journal, release, all saved
    snapshot followed by a long journal: journalling with a journal, due, release, wake snapshot, all saved
    snapshot without a next journal: journalling without, release, all saved
    snapshot that can't be followed: failed without, due, release, report failure, wake snapshot
snapshot, journal
    change: snapshotting with a journal, append, unsaved
    large change: snapshotting with a journal, to write later, write later, hold the change, wake sync, unsaved
    change without memory: snapshotting after a failure without, due, release, report failure, show, wake snapshot, unsaved
    short append: snapshotting with a journal, show
    append that makes the journal long: snapshotting with a journal, show
    failed append: snapshotting after a failure without, due, release, report failure, show, wake snapshot
    large change that is written later: snapshotting with a journal, show
    large change that can't be written later: snapshotting after a failure without, due, release, report failure, show, wake snapshot
    sync: snapshotting with a journal, all saved
    failed sync: snapshotting after a failure without, due, release, report failure, wake snapshot
    failed snapshot: journalling with a journal, due, report that the journal goes on, wake snapshot
    take-over: snapshotting with a journal, late
    change during the take-over: snapshotting with a journal, late, write later, hold the change, wake sync, unsaved
    snapshot followed by a journal that lacks a change: journalling with a journal, to write later, release, wake sync
    snapshot followed by a journal: journalling with a journal, release, all saved
    snapshot followed by a long journal: journalling with a journal, due, release, wake snapshot, all saved
    snapshot without a next journal: journalling without, release, all saved
    snapshot that can't be followed: journalling with a journal, due, release, report that the journal goes on, wake snapshot, all saved
snapshot, failure meanwhile
    change: snapshotting after a failure without, due
    large change: snapshotting after a failure without, due
    change without memory: snapshotting after a failure without, due, release, report retry, show, wake snapshot
    failed snapshot: failed without, due, release, report retry, show, wake snapshot
    take-over: snapshotting after a failure without, due
    change during the take-over: snapshotting after a failure without, due
    snapshot followed by a journal that lacks a change: journalling with a journal, to write later, release, show, wake sync
    snapshot followed by a journal: journalling with a journal, release, show, report recovery, wake sync, wake snapshot
    snapshot followed by a long journal: journalling with a journal, due, release, show, report recovery, wake sync, wake snapshot
    snapshot without a next journal: journalling without, release, show, report recovery, wake sync, wake snapshot
    snapshot that can't be followed: failed without, due, release, report retry, show, wake snapshot
snapshot after a failure
    change: snapshotting after a failure without
    large change: snapshotting after a failure without
    change without memory: snapshotting after a failure without, due, release, report retry, show, wake snapshot
    failed snapshot: failed without, due, release, report retry, show, wake snapshot
    take-over: snapshotting after a failure without
    change during the take-over: snapshotting after a failure without
    snapshot followed by a journal that lacks a change: journalling with a journal, to write later, release, show, wake sync
    snapshot followed by a journal: journalling with a journal, release, show, report recovery, wake snapshot, all saved
    snapshot followed by a long journal: journalling with a journal, due, release, show, report recovery, wake snapshot, all saved
    snapshot without a next journal: journalling without, release, show, report recovery, wake snapshot, all saved
    snapshot that can't be followed: failed without, due, release, report retry, show, wake snapshot
)";

}  // namespace

TEST(UserLayerState, LeadsWhereTheTableSaysFromAllBeginningsByAllEvents) {
  EXPECT_EQ(MakeTable(kAlways), kTableOfAlways);
}

TEST(UserLayerState, WithoutDurabilityReleasesOutputOnceASnapshotStandsAndSyncsNothing) {
  EXPECT_EQ(MakeTable(kNever), kTableOfNone);
}

// No change that is made during a sync is older than its begin.
TEST(UserLayerState, IntervalIsThatOfTheOldestChangeThatIsNotSynced) {
  Driver driver({Durability::Kind::kInterval, std::chrono::seconds(10)});
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
  Driver driver;
  driver.Load(1, true);
  driver.SaveChange();
  const auto sync = driver.state.OnSyncBegun(kNow, kTime);
  driver.SaveChange();
  EXPECT_EQ(driver.state.OnSynced(sync).unsavedSince, kTime);
  EXPECT_EQ(driver.state.GetSynced(), 1u);
  EXPECT_TRUE(driver.state.GetSyncTime());
}

TEST(UserLayerState, FailureOfASyncWhoseJournalWasReplacedIsIgnored) {
  Driver driver;
  driver.Load(1, true);
  driver.SaveChange();
  const auto sync = driver.state.OnSyncBegun(kNow, kTime);
  driver.Begin();
  driver.Follow(true);
  EXPECT_FALSE(driver.state.OnSyncFailed(sync, kNow));
  EXPECT_EQ(driver.state.GetPhase(), Phase::kJournalling);
}

TEST(UserLayerState, SnapshotSaysInWhichJournalChangesGoOn) {
  Driver driver;
  driver.Load(4);
  EXPECT_EQ(driver.state.OnSnapshotBegun().journalFollows, 4u);
  Driver first;
  first.Load(0);
  EXPECT_EQ(first.state.OnSnapshotBegun().journalFollows, 0u);
}

// The journal follows the snapshot before, whose generation it names.
TEST(UserLayerState, SnapshotThatCouldNotBeFollowedLeavesTheJournalItsGeneration) {
  Driver driver;
  driver.Load(4, true);
  driver.Begin();
  driver.FailToFollow();
  EXPECT_EQ(driver.state.GetSnapshotId().generation, 5u);
  EXPECT_EQ(driver.state.OnSnapshotBegun().journalFollows, 4u);
}

TEST(UserLayerState, FailedSnapshotsAreTriedLessAndLessOften) {
  Driver driver;
  driver.Load(0);
  driver.state.OnSnapshotFailed(kNow);
  EXPECT_EQ(driver.state.GetSnapshotTime(), kNow + std::chrono::seconds(1));
  driver.state.OnSnapshotFailed(kNow);
  EXPECT_EQ(driver.state.GetSnapshotTime(), kNow + std::chrono::seconds(2));
}

TEST(UserLayerState, IsSavedWhenTheDiskHasWhatTheDurabilityAsksFor) {
  Driver always;
  always.Load(1, true);
  always.SaveChange();
  EXPECT_FALSE(always.state.IsSaved());
  always.Sync();
  EXPECT_TRUE(always.state.IsSaved());
  Driver never(kNever);
  never.Load(1, true);
  never.SaveChange();
  EXPECT_TRUE(never.state.IsSaved());
}

TEST(UserLayerState, SmallChangeBehindALargeOneIsWrittenLaterToo) {
  Driver driver;
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
  Driver driver;
  driver.Load(1, true);
  driver.SaveChange();
  driver.Change(Size::kLarge);
  driver.Sync();
  EXPECT_EQ(driver.state.GetSynced(), 1u);
  EXPECT_FALSE(driver.state.GetSyncTime());
}

// What the journal before got now would be lost with it.
TEST(UserLayerState, NothingIsWrittenBetweenTheTakeOverAndItsEnd) {
  Driver driver;
  driver.Load(1, true);
  driver.Begin();
  driver.state.OnTakeOver();
  EXPECT_EQ(driver.Change().write, Steps::Write::kLater);
  EXPECT_FALSE(driver.state.IsLateWriteDue());
  EXPECT_TRUE(driver.FailToFollow().wakesSync);
  EXPECT_TRUE(driver.state.IsLateWriteDue());
}

TEST(UserLayerState, RecoveryIsReportedOnceAllIsOnTheDisk) {
  Driver driver;
  ReachFailed(driver);
  driver.Begin();
  driver.Change();
  EXPECT_FALSE(driver.Follow(true).reportsRecovery);
  EXPECT_TRUE(driver.Sync().reportsRecovery);
  EXPECT_FALSE(driver.Sync().reportsRecovery);
}

// It was shown while the disk failed.
TEST(UserLayerState, RecoveryIsNotReportedBeforeAChangeThatIsWrittenLater) {
  Driver driver;
  ReachFailed(driver);
  driver.Begin();
  EXPECT_FALSE(driver.FollowWithoutTheLast().reportsRecovery);
  EXPECT_FALSE(driver.Sync().reportsRecovery);
  EXPECT_FALSE(driver.state.OnLateWritten(driver.state.OnLateWriteBegun(), 1000).reportsRecovery);
  EXPECT_TRUE(driver.Sync().reportsRecovery);
}

TEST(UserLayerState, WithoutDurabilityRecoveryIsReportedOnceAllIsWritten) {
  Driver driver(kNever);
  ReachFailed(driver);
  driver.Begin();
  EXPECT_FALSE(driver.FollowWithoutTheLast().reportsRecovery);
  EXPECT_TRUE(driver.state.OnLateWritten(driver.state.OnLateWriteBegun(), 1000).reportsRecovery);
}

// Changes that are made meanwhile are held until the disk has them.
TEST(UserLayerState, RecoveryIsReportedThoughChangesGoOn) {
  Driver driver;
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
  Driver driver;
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
