#include <gtest/gtest.h>

#include <cstdint>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>

#include "programs/server/persistence/Checkpoints.h"
#include "tavix/core/MemoryStream.h"
#include "tests/programs/server/persistence/TrialStore.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryFiles.h"
#include "tests/support/PowerCuts.h"

// What is on trial, across crashes, power cuts and disks that fail.

namespace tavix::test {

using daemon::Checkpoints;

namespace {

constexpr char kCheckpoint[] = "c";
constexpr size_t kNoHistory = 0;
constexpr size_t kHistory = 4 * 1024 * 1024;

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
  explicit TrialLife(size_t historyBytes) : _historyBytes(historyBytes) {
    TrialStore store(_files, historyBytes);
    Checkpoints checkpoints(_files, kUserFile, 1);
    const auto keep = [&] { KeepCheckpoint(store, checkpoints); };
    Expect(
        store, {""}, [&] { store.Merge("[A]\nx=1\n"); }, "[A]\nx=1\n");
    Expect(
        store, {}, [&] { store.Try("60 t", "[A]\nx=2\n[B]\ny=2\n"); }, "[A]\nx=1\n");
    Expect(
        store, {}, [&] { store.MakeSnapshotDue(); }, "[A]\nx=1\n");
    Expect(store, {}, keep, "[A]\nx=1\n");
    Expect(
        store, {}, [&] { store.Merge("[B]\ny=2\n"); }, "[A]\nx=1\n[B]\ny=2\n");
    Expect(
        store, {}, [&] { store.Try("60 u", "[A]\nx=3\n"); }, "[A]\nx=1\n[B]\ny=2\n");
    Expect(
        store, {}, [&] { store.MakeSnapshotDue(); }, "[A]\nx=1\n[B]\ny=2\n");
    Expect(
        store, {}, [&] { store.Confirm("u"); }, "[A]\nx=3\n[B]\ny=2\n");
    Expect(store, {}, keep, "[A]\nx=3\n[B]\ny=2\n");
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
    MemoryFiles files(image);
    TrialStore store(files, _historyBytes);
    std::string fault = _historyBytes > 0 ? FindHistoryFault(store, _states, FindShown(time).revision) : "";
    if (fault.empty() && _historyBytes > 0) fault = FindCheckpointFault(files, FindShown(time).checkpoint);
    if (!fault.empty()) return "at operation " + std::to_string(time) + " " + fault;
    core::IniFile document = DocumentOf(store.GetUser());
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
    uint64_t revision = 0;
    uint64_t checkpoint = 0;  // the revision that the checkpoint has; 0: there is none
  };

  // The last step that has ended at that time.
  Step FindShown(size_t time) const {
    Step shown;
    for (const Step& step : _steps) {
      if (step.ended <= time) shown = step;
    }
    return shown;
  }

  // As the word `checkpoint` does it.
  void KeepCheckpoint(TrialStore& store, Checkpoints& checkpoints) {
    if (_historyBytes == 0) return;
    core::StringOstream text;
    _checkpoint = store.GetStore().GetHistory()->GetRange().last;
    Checkpoints::Begin(text, _checkpoint);
    text.Append(store.GetUser());
    checkpoints.Save(kCheckpoint, text);
  }

  // shown: the revision of the checkpoint that somebody knows of.
  std::string FindCheckpointFault(MemoryFiles& files, uint64_t shown) const {
    const Checkpoints checkpoints(files, kUserFile, 1);
    if (checkpoints.List().empty()) return shown == 0 ? "" : "the checkpoint is lost";
    const Checkpoints::Checkpoint found = checkpoints.Load(kCheckpoint);
    const auto state = _states.find(found.revision);
    const bool isWhole = state != _states.end() && state->second == TextOf(found.settings);
    return isWhole && found.revision >= shown ? "" : "the checkpoint holds something else";
  }

  // A step leads from what a start led to before to what it leads to from then on.
  template <class Action>
  void Expect(TrialStore& store, std::set<std::string> allowed, Action action, const std::string& after) {
    // Without a hole between two steps: a snapshot may go on there.
    Step step{_steps.empty() ? _files.CountOperations() : _steps.back().ended, 0, std::move(allowed), 0, 0};
    if (!_steps.empty()) step.allowed.insert(_last);
    step.allowed.insert(after);
    action();
    store.AwaitDurable();
    if (_historyBytes > 0) {
      step.revision = store.GetStore().GetHistory()->GetRange().last;
      _states[step.revision] = store.GetUser();
    }
    step.checkpoint = _checkpoint;
    step.ended = _files.CountOperations();
    _last = after;
    _steps.push_back(step);
  }

  const size_t _historyBytes;
  MemoryFiles _files;
  std::vector<Step> _steps;
  std::map<uint64_t, std::string> _states{{0, ""}};  // by their revisions
  std::string _last;
  uint64_t _checkpoint = 0;
};

}  // namespace

TEST(TrialPowerCut, LeavesNoTrialAndMixesNothing) {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  for (const size_t history : {kNoHistory, kHistory}) {
    const TrialLife life(history);
    PowerCuts cuts({}, life.GetFiles().GetOperations(), seed);
    do {
      for (int i = 0; i < 8; ++i) ASSERT_EQ(life.FindFault(cuts.Cut(), cuts.GetPosition()), "");
      ASSERT_EQ(life.FindFault(cuts.Keep(), cuts.GetPosition()), "");
    } while (cuts.Advance());
  }
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
