#include "programs/server/history/Rollback.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "programs/server/history/SettingsOfCheckpoint.h"
#include "programs/server/history/SettingsOfRevision.h"
#include "tests/programs/server/history/HistoryServer.h"
#include "tests/support/BackgroundCall.h"

// Rollbacks beside which others change the same settings.

namespace tavix::test {

using settings::server::ChangeOrigin;
using settings::server::ChangeTicket;

namespace {

// Has something done between the moment that a comparison is for, and the comparison.
class Interrupted : public daemon::EarlierSettings {
 public:
  Interrupted(daemon::EarlierSettings& inner, std::function<void(int round)> between, bool canBeginLocked = true)
      : _inner(inner), _between(std::move(between)), _canBeginLocked(canBeginLocked) {}

  uint64_t Begin() override {
    const uint64_t revision = _inner.Begin();
    _between(++rounds);
    return revision;
  }
  bool BeginLocked() override {
    ++lockedRounds;
    return _canBeginLocked && _inner.BeginLocked();
  }
  bool ComparePart(const settings::server::LayerView& userSettings, daemon::RollbackPlan& plan) override {
    return _inner.ComparePart(userSettings, plan);
  }

  int rounds = 0;
  int lockedRounds = 0;

 private:
  daemon::EarlierSettings& _inner;
  const std::function<void(int)> _between;
  const bool _canBeginLocked;
};

constexpr char kFirst[] = "[A]\nx=1\n";

struct BusyStore : testing::Test {
  BusyStore() {
    server.store.Merge(kFirst);
    server.store.Merge("[A]\nx=2\ny=2\n");
  }

  daemon::HistoryEntry RollBack(daemon::EarlierSettings& earlier) {
    ChangeTicket ticket = 0;
    return daemon::Rollback(server.store.GetManager(), history, earlier, all).Make(Origin(), ticket);
  }
  daemon::HistoryEntry Test(daemon::EarlierSettings& earlier) {
    return daemon::Rollback(server.store.GetManager(), history, earlier, all).Test(Origin());
  }

  static ChangeOrigin Origin() { return {{}, "rollback", {}}; }

  // Each is another change.
  void ChangeSomething(int round) {
    server.store.Merge("[B]\nx=" + std::to_string(round) + "\n[New/" + std::to_string(round) + "]\nx=1\n");
  }

  std::string GetUser() { return UserSettingsOf(server.store.GetManager()); }

  HistoryServer server;
  const daemon::KeptHistory& history = *server.store.GetHistory();
  const daemon::SettingsFilter all{""};
  daemon::SettingsOfRevision revision{history, all, 1, 0};
};

}  // namespace

TEST_F(BusyStore, IsBroughtBackWithWhatWasChangedMeanwhile) {
  for (const int rounds : {1, 2, 3, 50}) {
    Interrupted earlier(revision, [&](int round) {
      if (round <= rounds) ChangeSomething(100 * rounds + round);
    });
    const daemon::HistoryEntry entry = RollBack(earlier);
    EXPECT_EQ(GetUser(), kFirst);
    EXPECT_EQ(entry.revision, history.GetRange().last);
  }
}

TEST_F(BusyStore, IsBroughtBackToACheckpointWithWhatWasChangedMeanwhile) {
  for (const int rounds : {1, 50}) {
    daemon::SettingsOfCheckpoint checkpoint(history, DocumentOf("[A]\nx=1\n[C]\n"));
    Interrupted earlier(checkpoint, [&](int round) {
      if (round <= rounds) ChangeSomething(100 * rounds + round);
    });
    RollBack(earlier);
    EXPECT_EQ(GetUser(), "[A]\nx=1\n[C]\n");
  }
}

TEST_F(BusyStore, IsComparedInOneGoAtLast) {
  Interrupted earlier(revision, [&](int round) { ChangeSomething(round); });
  RollBack(earlier);
  EXPECT_EQ(earlier.rounds, 4);
  EXPECT_EQ(earlier.lockedRounds, 1);
  EXPECT_EQ(GetUser(), kFirst);
}

TEST_F(BusyStore, IsNotChangedWhenNoComparisonIsOfTheLastMoment) {
  Interrupted earlier(
      revision, [&](int round) { ChangeSomething(round % 2); }, false);
  EXPECT_THROW(RollBack(earlier), osa::Exception);
  EXPECT_EQ(GetUser(), "[A]\nx=2\ny=2\n[B]\nx=0\n[New/0]\nx=1\n[New/1]\nx=1\n");
}

TEST_F(BusyStore, IsShownAsItIsByTheTestOfARollback) {
  for (const int rounds : {1, 50}) {
    server.store.Merge("[B]\nx=0\n");
    Interrupted earlier(revision, [&](int round) {
      if (round <= rounds) ChangeSomething(round);
    });
    const daemon::HistoryEntry entry = Test(earlier);
    core::IniFile was = entry.was;
    EXPECT_EQ(was.GetValueOrDefault("A", "y"), "2");
    EXPECT_TRUE(was.HasGroup("New/1"));
    EXPECT_EQ(entry.revision, history.GetRange().last + 1);
    server.Serve("rollback 1\nrollback 2\n");
  }
}

TEST_F(BusyStore, IsNotShownWhenNoComparisonIsOfTheLastMoment) {
  Interrupted earlier(
      revision, [&](int round) { ChangeSomething(round); }, false);
  EXPECT_THROW(Test(earlier), osa::Exception);
}

// What is not a change of the user settings has nobody compare anew.
TEST_F(BusyStore, IsBroughtBackBesideChangesThatAreNotSaved) {
  Interrupted earlier(revision,
                      [&](int round) { server.Serve("merge nopersist\n[B]\nx=" + std::to_string(round) + "\n.\n"); });
  RollBack(earlier);
  EXPECT_EQ(earlier.rounds, 1);
  EXPECT_EQ(GetUser(), kFirst);
}

TEST_F(BusyStore, IsRefusedOnceTheHistoryIsNotKeptSoFarBack) {
  Interrupted earlier(revision, [&](int round) {
    if (round == 1) server.store.Merge("[A]\nz=" + std::string(kHistoryBytes / 2, 'z') + "\n");
  });
  EXPECT_THROW(RollBack(earlier), osa::Exception);
  EXPECT_EQ(DocumentOf(GetUser()).GetValueOrDefault("A", "x"), "2");
}

namespace {

// The user settings behind each change, from the history alone.
std::string FindBehind(uint64_t revision, const daemon::KeptHistory& history, const std::string& now) {
  core::IniFile settings = DocumentOf(now);
  uint64_t next = history.GetRange().last;
  for (uint64_t below = daemon::KeptHistory::kNewest; next > revision;) {
    const daemon::KeptHistory::Block block = history.ReadBelow(below, SIZE_MAX, SIZE_MAX);
    if (block.isEnd) return "entry " + std::to_string(next) + " is missing";
    for (const daemon::KeptHistory::Item& item : block.items) {
      if (next == revision) break;
      if (item.entry.revision != next--) return "entry " + std::to_string(next + 1) + " is missing";
      Undo(item.entry, settings);
    }
    below = block.next;
  }
  return TextOf(settings);
}

}  // namespace

TEST_F(BusyStore, IsExactlyAsItWasBehindEachOfSeveralRollbacksAtOnce) {
  constexpr int kRollbacks = 15;
  constexpr int kChanges = 500;
  BackgroundCall writer([&] {
    for (int value = 0; value < kChanges; ++value)
      server.store.Merge("[B/" + std::to_string(value % 7) + "]\nx=" + std::to_string(value) + "\n");
  });
  std::vector<std::pair<uint64_t, std::string>> expected;
  const auto rollBackTo = [&](uint64_t goal, const std::string& settings, auto& made) {
    for (int i = 0; i < kRollbacks; ++i) {
      daemon::SettingsOfRevision earlier(history, all, goal, 0);
      const daemon::HistoryEntry entry = RollBack(earlier);
      if (!entry.was.IsEmpty() || !entry.is.IsEmpty()) made.emplace_back(entry.revision, settings);
    }
  };
  std::vector<std::pair<uint64_t, std::string>> others;
  BackgroundCall other([&] { rollBackTo(2, "[A]\nx=2\ny=2\n", others); });
  rollBackTo(1, kFirst, expected);
  other.Join();
  writer.Join();
  expected.insert(expected.end(), others.begin(), others.end());
  EXPECT_FALSE(expected.empty());
  for (const auto& [made, settings] : expected) ASSERT_EQ(FindBehind(made, history, GetUser()), settings);
}

}  // namespace tavix::test
