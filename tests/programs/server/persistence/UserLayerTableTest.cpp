#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "programs/server/persistence/UserLayerState.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/programs/server/persistence/UserLayerDriver.h"

// All beginnings and all events of UserLayerState: what each event leads to and asks for.

namespace tavix::test {

using daemon::Durability;
using daemon::UserLayerState;
using Phase = UserLayerState::Phase;
using Size = UserLayerState::Size;
using Steps = UserLayerState::Steps;

namespace {

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

struct Beginning {
  const char* name;
  std::function<void(UserLayerDriver&)> reach;
};

struct Event {
  const char* name;
  bool (*canHappen)(const UserLayerState&);
  std::function<Steps(UserLayerDriver&)> make;
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

const std::vector<Beginning> kBeginnings{
    {"no snapshot", [](UserLayerDriver& driver) { driver.Load(0); }},
    {"no journal", [](UserLayerDriver& driver) { driver.Load(1); }},
    {"journal", [](UserLayerDriver& driver) { driver.Load(1, true); }},
    {"failed", ReachFailed},
    {"first snapshot",
     [](UserLayerDriver& driver) {
       driver.Load(0);
       driver.Begin();
     }},
    {"snapshot, no journal",
     [](UserLayerDriver& driver) {
       driver.Load(1);
       driver.Begin();
     }},
    {"snapshot, journal",
     [](UserLayerDriver& driver) {
       driver.Load(1, true);
       driver.Begin();
     }},
    {"snapshot, failure meanwhile",
     [](UserLayerDriver& driver) {
       driver.Load(1, true);
       driver.Begin();
       FailAppend(driver);
     }},
    {"snapshot after a failure",
     [](UserLayerDriver& driver) {
       ReachFailed(driver);
       driver.Begin();
     }},
};

const std::vector<Event> kEvents{
    {"change", Always, [](UserLayerDriver& driver) { return driver.Change(); }},
    {"large change", Always, [](UserLayerDriver& driver) { return driver.Change(Size::kLarge); }},
    {"change without memory", Always, [](UserLayerDriver& driver) { return driver.Change(Size::kUnknown); }},
    {"short append", HasJournal, [](UserLayerDriver& driver) { return driver.SaveChange(); }},
    {"append that makes the journal long", HasJournal,
     [](UserLayerDriver& driver) { return driver.SaveChange(kSnapshotBytes + 1); }},
    {"failed append", HasJournal, FailAppend},
    {"large change that is written later", HasJournal, [](UserLayerDriver& driver) { return driver.WriteLater(); }},
    {"large change that can't be written later", HasJournal,
     [](UserLayerDriver& driver) { return driver.FailToWriteLater(); }},
    {"sync", HasJournal, [](UserLayerDriver& driver) { return driver.Sync(); }},
    {"failed sync", HasJournal, [](UserLayerDriver& driver) { return driver.FailSync(); }},
    {"failed snapshot", Always, [](UserLayerDriver& driver) { return driver.state.OnSnapshotFailed(kNow); }},
    {"snapshot begun", MayBegin,
     [](UserLayerDriver& driver) {
       driver.Begin();
       return Steps();
     }},
    {"take-over", IsSnapshotting,
     [](UserLayerDriver& driver) {
       driver.state.OnTakeOver();
       return Steps();
     }},
    {"change during the take-over", IsSnapshotting,
     [](UserLayerDriver& driver) {
       driver.state.OnTakeOver();
       return driver.Change();
     }},
    {"snapshot followed by a journal that lacks a change", IsSnapshotting,
     [](UserLayerDriver& driver) { return driver.FollowWithoutTheLast(); }},
    {"snapshot followed by a journal", IsSnapshotting, [](UserLayerDriver& driver) { return driver.Follow(true); }},
    {"snapshot followed by a long journal", IsSnapshotting,
     [](UserLayerDriver& driver) { return driver.Follow(true, kSnapshotBytes + 1); }},
    {"snapshot without a next journal", IsSnapshotting, [](UserLayerDriver& driver) { return driver.Follow(false); }},
    {"snapshot that can't be followed", IsSnapshotting, [](UserLayerDriver& driver) { return driver.FailToFollow(); }},
};

// What each event that can happen leads to and asks for, at each beginning.
std::string MakeTable(Durability durability) {
  std::string table;
  for (const Beginning& beginning : kBeginnings) {
    table += std::string(beginning.name) + "\n";
    for (const Event& event : kEvents) {
      UserLayerDriver driver(durability);
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

}  // namespace tavix::test
