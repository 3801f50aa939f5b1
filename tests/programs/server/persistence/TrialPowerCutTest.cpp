#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <random>
#include <set>
#include <string>

#include "programs/server/store/StoreTrials.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryFiles.h"
#include "tests/support/PowerCuts.h"

// What is on trial, across crashes, power cuts and disks that fail.

namespace tavix::test {

namespace {

using daemon::SharedTrials;
using daemon::StoreTrials;
using settings::server::ChangeOrigin;
using settings::server::ClientIdentity;

constexpr size_t kNoHistory = 0;
constexpr size_t kHistory = 64 * 1024;
const ClientIdentity kClient{ClientIdentity::Connection::kUnix, 1000, 100, 812};

// A store as the daemon has it: what was pending when the one before ended is reverted first.
class TrialStore {
 public:
  explicit TrialStore(daemon::FileSystem& files, size_t historyBytes = kNoHistory)
      : _store(files, kAlways, "[D]\nx=default\n", std::chrono::hours(1), historyBytes, &_trials),
        _ends(_store.GetManager(), _store.GetPersister(), _trials) {
    _ends.RevertAll();
  }

  void Try(const std::string& trial, const std::string& settings) {
    settings::server::ChangeTicket ticket = 0;
    _store.GetManager().MergeSettings(DocumentOf(settings), 0, ChangeOrigin{kClient, "merge", {}, trial}, ticket);
  }

  void TryToOverwrite(const std::string& trial, const std::string& group) {
    settings::server::ChangeTicket ticket = 0;
    _store.GetManager().OverwriteSettings({group}, core::IniFile(), ChangeOrigin{kClient, "overwrite", {}, trial},
                                          ticket);
  }

  void Merge(const std::string& settings) { _store.Merge(settings); }
  void Confirm(const std::string& name) { AwaitDurable(_store.GetGate(), _ends.Confirm(name, kClient)); }
  void Revert(const std::string& name) { _ends.Revert(name, ChangeOrigin{kClient, "revert", {}}); }
  void AwaitDurable() { _store.AwaitDurable(); }
  using Gate = daemon::DurabilityGate;
  static void AwaitDurable(Gate& gate, Gate::Ticket ticket) { test::AwaitDurable(gate, ticket); }

  // As an ordered end.
  bool Finish() {
    _ends.RevertAll();
    return _store.Finish();
  }
  void Crash() { _store.Crash(); }

  std::string GetUser() {
    std::string text;
    _store.GetManager().ReadUserSettings([&](const core::IniFile& user) { text = TextOf(user); });
    return text;
  }

  std::string GetState(const std::string& name) {
    core::IniFile answer;
    _ends.Describe("", answer);
    return answer.GetValueOrDefault(name, "state");
  }

  // More than a journal has before a snapshot is made.
  void MakeSnapshotDue() { Merge("[Large]\nx=" + std::string(kMinJournal + 1000, 'x') + "\n"); }

  // Returns when what is on trial stands in the file of its own, and a journal without it has taken the place of the
  // one that had it.
  void AwaitTrialsInFile(const MemoryFiles& files) {
    const std::string path = kUserFile;
    ASSERT_TRUE(Eventually([&] {
      Merge("[Large]\nx=" + std::to_string(files.CountOperations()) + "\n");
      AwaitDurable();
      return !files.Get(path + ".trials").empty() && files.Get(path + ".journal").find("#t") == std::string::npos;
    }));
  }

 private:
  SharedTrials _trials{16};
  PersistedStore _store;
  StoreTrials _ends;
};

std::string UserAfter(const MemoryFiles::Image& image) {
  MemoryFiles files(image);
  TrialStore store(files);
  return store.GetUser();
}

}  // namespace

TEST(TrialPowerCut, RevertsAtTheNextStartWhatACrashLeft) {
  for (const size_t history : {kNoHistory, kHistory}) {
    MemoryFiles files;
    {
      TrialStore store(files, history);
      store.Merge("[A]\nx=1\n[D]\nx=1\n");
      store.AwaitDurable();
      store.Try("60 t", "[A]\nx=2\ny=2\n");
      store.TryToOverwrite("60 u", "D");
      store.AwaitDurable();
      store.Crash();
    }
    TrialStore store(files, history);
    EXPECT_EQ(store.GetUser(), "[A]\nx=1\n[D]\nx=1\n");
    EXPECT_EQ(store.GetState("t"), "reverted");
  }
}

TEST(TrialPowerCut, RevertsAtAnOrderedEnd) {
  MemoryFiles files;
  TrialStore store(files);
  store.Merge("[A]\nx=1\n");
  store.Try("60 t", "[A]\nx=2\n");
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(UserAfter(files.GetImage()), "[A]\nx=1\n");
}

TEST(TrialPowerCut, KeepsWhatWasConfirmedBeforeACrash) {
  MemoryFiles files;
  {
    TrialStore store(files);
    store.Merge("[A]\nx=1\n");
    store.Try("60 t", "[A]\nx=2\n");
    store.Confirm("t");
    store.Crash();
  }
  EXPECT_EQ(UserAfter(files.GetImage()), "[A]\nx=2\n");
}

TEST(TrialPowerCut, ConfirmIsDurableBeforeItsReply) {
  MemoryFiles files;
  TrialStore store(files);
  store.Merge("[A]\nx=1\n");
  store.Try("60 t", "[A]\nx=2\n");
  store.AwaitDurable();
  store.Confirm("t");
  const auto operations = files.GetOperations();
  PowerCuts cuts({}, operations, 1);
  while (cuts.Advance()) continue;
  EXPECT_EQ(UserAfter(cuts.Cut()), "[A]\nx=2\n");
}

TEST(TrialPowerCut, KeepsWhatAnotherClientWroteBeforeACrash) {
  for (const char* other : {"2", "3"}) {
    MemoryFiles files;
    {
      TrialStore store(files);
      store.Merge("[A]\nx=1\ny=1\n");
      store.Try("60 t", "[A]\nx=2\ny=2\n");
      store.AwaitDurable();
      store.Merge(std::string("[A]\nx=") + other + "\n");
      store.AwaitDurable();
      store.Crash();
    }
    EXPECT_EQ(UserAfter(files.GetImage()), std::string("[A]\nx=") + other + "\ny=1\n");
  }
}

TEST(TrialPowerCut, KnowsWhatIsOnTrialBehindASnapshot) {
  for (const bool isConfirmed : {false, true}) {
    MemoryFiles files;
    {
      TrialStore store(files);
      store.Merge("[A]\nx=1\n");
      store.AwaitDurable();
      store.Try("60 t", "[A]\nx=2\n");
      store.MakeSnapshotDue();
      store.AwaitTrialsInFile(files);
      store.Merge("[Large]\nx=1\n");
      store.AwaitDurable();
      if (isConfirmed) store.Confirm("t");
      store.Crash();
    }
    EXPECT_EQ(UserAfter(files.GetImage()), isConfirmed ? "[A]\nx=2\n[Large]\nx=1\n" : "[A]\nx=1\n[Large]\nx=1\n");
  }
}

// One life after the other, each of which a crash ends.
TEST(TrialPowerCut, RevertsOnceAndNotAgain) {
  MemoryFiles files;
  {
    TrialStore store(files);
    store.Merge("[A]\nx=1\n");
    store.Try("60 t", "[A]\nx=2\n");
    store.AwaitDurable();
    store.Crash();
  }
  {
    TrialStore store(files);
    store.Merge("[A]\nx=2\n");
    store.AwaitDurable();
    store.Crash();
  }
  EXPECT_EQ(UserAfter(files.GetImage()), "[A]\nx=2\n");
}

namespace {

// Trials of all kinds, with snapshots between them, in the order of time. What is allowed behind each step: the user
// settings that a start may lead to.
class TrialLife {
 public:
  TrialLife() {
    TrialStore store(_files);
    Expect(
        store, {""}, [&] { store.Merge("[A]\nx=1\n"); }, "[A]\nx=1\n");
    Expect(
        store, {}, [&] { store.Try("60 t", "[A]\nx=2\n[B]\ny=2\n"); }, "[A]\nx=1\n");
    Expect(
        store, {}, [&] { store.MakeSnapshotDue(); }, "[A]\nx=1\n");
    Expect(
        store, {}, [&] { store.Merge("[B]\ny=2\n"); }, "[A]\nx=1\n[B]\ny=2\n");
    Expect(
        store, {}, [&] { store.Try("60 u", "[A]\nx=3\n"); }, "[A]\nx=1\n[B]\ny=2\n");
    Expect(
        store, {}, [&] { store.MakeSnapshotDue(); }, "[A]\nx=1\n[B]\ny=2\n");
    Expect(
        store, {}, [&] { store.Confirm("u"); }, "[A]\nx=3\n[B]\ny=2\n");
    Expect(
        store, {}, [&] { store.TryToOverwrite("60 v", "B"); }, "[A]\nx=3\n[B]\ny=2\n");
    Expect(
        store, {}, [&] { store.Revert("v"); }, "[A]\nx=3\n[B]\ny=2\n");
    Expect(
        store, {}, [&] { store.Try("60 w", "[A]\nx=4\n"); }, "[A]\nx=3\n[B]\ny=2\n");
    Expect(
        store, {}, [&] { EXPECT_TRUE(store.Finish()); }, "[A]\nx=3\n[B]\ny=2\n");
  }

  const MemoryFiles& GetFiles() const { return _files; }

  // Empty, or what is wrong with finding these files at that time.
  std::string FindFault(const MemoryFiles::Image& image, size_t time) const {
    core::IniFile document = DocumentOf(UserAfter(image));
    document.RemoveGroup("Large");
    const std::string found = TextOf(document);
    std::string allowed;
    for (const Step& step : _steps) {
      if (time >= step.begun && time <= step.ended && step.allowed.count(found) != 0) return "";
      if (time >= step.begun && time <= step.ended) allowed += *step.allowed.begin() + "or\n" + *step.allowed.rbegin();
    }
    return "at operation " + std::to_string(time) + " is found\n" + found + "and allowed are\n" + allowed;
  }

 private:
  struct Step {
    size_t begun = 0;
    size_t ended = 0;
    std::set<std::string> allowed;
  };

  // A step leads from what a start led to before to what it leads to from then on.
  template <class Action>
  void Expect(TrialStore& store, std::set<std::string> allowed, Action action, const std::string& after) {
    // Without a hole between two steps: a snapshot may go on there.
    Step step{_steps.empty() ? _files.CountOperations() : _steps.back().ended, 0, std::move(allowed)};
    if (!_steps.empty()) step.allowed.insert(_last);
    step.allowed.insert(after);
    action();
    store.AwaitDurable();
    step.ended = _files.CountOperations();
    _last = after;
    _steps.push_back(step);
  }

  MemoryFiles _files;
  std::vector<Step> _steps;
  std::string _last;
};

}  // namespace

TEST(TrialPowerCut, LeavesNoTrialAndMixesNothing) {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  const TrialLife life;
  PowerCuts cuts({}, life.GetFiles().GetOperations(), seed);
  do {
    for (int i = 0; i < 8; ++i) ASSERT_EQ(life.FindFault(cuts.Cut(), cuts.GetPosition()), "");
    ASSERT_EQ(life.FindFault(cuts.Keep(), cuts.GetPosition()), "");
  } while (cuts.Advance());
}

// Whatever fails, for once or for ever, the store goes on, and what is on trial goes back.
TEST(TrialPowerCut, AtEveryOperationThatFailsTheStoreRevertsAndGoesOn) {
  for (const bool forEver : {false, true}) {
    size_t operations = 1;
    for (size_t failing = 0; failing < operations; ++failing) {
      MemoryFiles files;
      TrialStore store(files);
      store.Merge("[A]\nx=1\n");
      store.AwaitDurable();
      files.FailAfter(failing, forEver);
      store.Try("60 t", "[A]\nx=2\n");
      store.MakeSnapshotDue();
      store.AwaitDurable();
      store.Revert("t");
      EXPECT_EQ(store.GetUser().substr(0, 8), "[A]\nx=1\n");
      static_cast<void>(store.Finish());
      operations = files.CountOperations();
      files.FailNoMore();
      EXPECT_EQ(UserAfter(files.GetImage()).substr(0, 8), "[A]\nx=1\n") << failing;
    }
  }
}

TEST(TrialPowerCut, StartsWithADamagedFileOfTrials) {
  MemoryFiles files;
  {
    TrialStore store(files);
    store.Merge("[A]\nx=1\n");
    store.AwaitDurable();
    store.Try("60 t", "[A]\nx=2\n");
    store.MakeSnapshotDue();
    store.AwaitTrialsInFile(files);
    store.Merge("[Large]\nx=1\n");
    store.AwaitDurable();
    store.Crash();
  }
  const std::string path = std::string(kUserFile) + ".trials";
  const std::string whole = files.Get(path);
  ASSERT_NE(whole, "");
  for (size_t size = 0; size <= whole.size(); ++size) {
    MemoryFiles damaged(files.GetImage());
    damaged.Put(path, whole.substr(0, size) + (size < whole.size() ? "\1" : ""));
    TrialStore store(damaged);
    EXPECT_EQ(store.GetUser(), std::string("[A]\nx=") + (size < whole.size() ? "2" : "1") + "\n[Large]\nx=1\n");
  }
}

}  // namespace tavix::test
