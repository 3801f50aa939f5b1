#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <list>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/UserFiles.h"
#include "tests/programs/server/process/FileFaultsModule.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/FileFaults.h"
#include "tests/support/RunLength.h"

// A disk that fails at every call there is, once or from then on: what was saved stays whole, clients are served, and
// when calls succeed again everything gets to the disk by itself.

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

constexpr size_t kAtATime = 24;  // daemons, most of which wait for their next try
constexpr int kChanges = 5;

struct Fault {
  const char* name;
  int error;
  bool isForEver;
};

// A call that is interrupted, or does half, succeeds when it is made again: so only once.
constexpr Fault kFaults[] = {
    {"ENOSPC once", ENOSPC, false},    {"EIO for ever", EIO, true},
    {"EINTR once", EINTR, false},      {"EIO once", EIO, false},
    {"ENOSPC for ever", ENOSPC, true}, {"short write once", FileFaults::kShortWrite, false},
    {"EROFS for ever", EROFS, true},   {"short writes for ever", FileFaults::kShortWrite, true},
};

// The third is more than a journal grows to before a snapshot takes over.
std::string ValueOf(int change) {
  return change == 3 ? std::string(300'000, 'v') : "v" + std::to_string(change);
}

std::string KeyOf(int change) {
  return "k" + std::to_string(change) + "=" + ValueOf(change) + "\n";
}

// What the files hold before the changes, and how they are kept.
struct Begin {
  std::string directory;  // the files are in
  std::string key;        // of group A; empty: there is no file
  std::string durability = "always";
};

// What the layer is after so many changes.
std::string StateAfter(int changes, const Begin& begin) {
  if (changes == 0 && begin.key.empty()) return "";
  std::string state = "[A]\n";
  for (int i = 1; i <= changes; ++i) state += KeyOf(i);
  return state + begin.key;
}

// A daemon over a snapshot and a journal, of whose file calls some fail.
class FaultyDaemon {
 public:
  FaultyDaemon(Begin begin, const Fault& fault, uint64_t call) : _begin(std::move(begin)), _fault(fault), _call(call) {
    fs::copy(_begin.directory, _directory.GetPath());
    _faults.Fail(fault.error, call, fault.isForEver ? FileFaults::kForEver : call);
    Start();
  }

  // On any thread.
  void Run() {
    const unsigned short port = _daemon->GetPort();
    ProtocolClient client(port);
    for (int change = 1; change <= kChanges; ++change) {
      client.Send("merge\n[A]\n" + KeyOf(change) + ".\n");
      EXPECT_EQ(client.Get("A\n"), "data\n" + After(change) + ".\n") << Name();
    }
    _daemon->AwaitIdle();  // a snapshot may be on its way
    _calls = _faults.CountCalls();
    if (_fault.isForEver && _calls >= _call) ExpectWholeState();
    _faults.Succeed();
    ProtocolClient other(port);
    // What is found before all is saved may be in a journal that was given up, and goes at any moment.
    const auto isSaved = [&] { return SaysThatAllIsSaved(other) && FindSavedText(_directory) == After(kChanges); };
    EXPECT_TRUE(Eventually(isSaved)) << Name() << Errors();
    EXPECT_EQ(other.Get("A\n"), "data\n" + After(kChanges) + ".\n") << Name();
  }

  // On the main thread.
  void KillAndRestart() {
    EXPECT_EQ(_daemon->Stop(SIGKILL), 128 + SIGKILL) << Name() << Errors();
    EXPECT_THAT(FindSaved(_directory.Path("user.ini")).problems, testing::IsEmpty()) << Name();
    Start();
    EXPECT_EQ(Converse(_daemon->GetPort(), "get\n*\n.\n"), After(kChanges)) << Name();
    EXPECT_EQ(_daemon->Stop(), 0) << Name();
    EXPECT_EQ(ReadSnapshot(_directory), After(kChanges)) << Name();
  }

  // How many file calls the changes took.
  uint64_t GetCalls() const { return _calls; }

 private:
  void Start() {
    const FileFaults::Environment environment(_faults, FileFaultsModule());
    _daemon.emplace(_directory, std::vector<std::string>{"--user-settings", _directory.Path("user.ini"), "--durability",
                                                         _begin.durability});
  }

  std::string After(int changes) const { return StateAfter(changes, _begin); }

  std::string Name() const { return std::string(_fault.name) + " at call " + std::to_string(_call) + "\n"; }
  std::string Errors() const { return _daemon->GetErrors(); }

  // Some moment's, whole, while the disk fails.
  void ExpectWholeState() {
    _daemon->Signal(SIGSTOP);
    EXPECT_TRUE(Eventually([&] { return IsStopped(); }));
    const daemon::FoundUserSettings found = FindSaved(_directory.Path("user.ini"));
    _daemon->Signal(SIGCONT);
    EXPECT_THAT(found.problems, testing::IsEmpty()) << Name();
    const std::string text = TextOf(found.settings);
    bool isWhole = false;
    for (int change = 0; change <= kChanges; ++change) isWhole = isWhole || text == After(change);
    EXPECT_TRUE(isWhole) << Name() << text;
  }

  // All its threads: one may be within a system call.
  bool IsStopped() const {
    const fs::directory_iterator tasks("/proc/" + std::to_string(_daemon->GetId()) + "/task");
    return std::all_of(begin(tasks), end(tasks), [](const fs::directory_entry& task) {
      std::ifstream file(task.path() / "stat");
      std::string text;
      std::getline(file, text);
      const size_t name = text.rfind(')');
      return name != std::string::npos && text.compare(name, 3, ") T") == 0;
    });
  }

  const Begin _begin;
  const Fault _fault;
  const uint64_t _call;
  const TemporaryDirectory _directory;
  FileFaults _faults{_directory.GetPath()};
  std::optional<Daemon> _daemon;
  uint64_t _calls = 0;
};

struct FaultCase {
  Fault fault;
  uint64_t call;
};

class FileFaultsOfADaemon : public testing::Test {
 protected:
  // A snapshot and a journal with a change.
  FileFaultsOfADaemon() {
    const std::string file = _template.Write("user.ini", "[A]\nold=0\n");
    Daemon daemon(_template, {"--user-settings", file});
    for (const char* value : {"2", "1"}) {
      ProtocolClient client(daemon.GetPort());
      client.Send("merge\n[A]\nold=" + std::string(value) + "\n.\n");
      client.AwaitHandled();
    }
    EXPECT_EQ(daemon.Stop(SIGKILL), 128 + SIGKILL);
    fs::remove(file + ".lock");
  }

  // How many calls there are when none fails.
  static uint64_t CountCalls(const Begin& begin) {
    FaultyDaemon daemon(begin, {"nothing fails", 0, false}, 0);
    daemon.Run();
    daemon.KillAndRestart();
    return daemon.GetCalls();
  }

  // Each call fails in some way, and in the long run in each way there is.
  void FailEachCall(const Begin& begin) {
    const uint64_t last = CountCalls(begin);
    EXPECT_GT(last, 15u);
    std::vector<FaultCase> cases;
    for (uint64_t call = 1; call <= last; ++call) {
      for (size_t i = 0; i < std::size(kFaults); ++i) {
        if (IsLongRun() || call % std::size(kFaults) == i) cases.push_back({kFaults[i], call});
      }
    }
    RunCases(begin, std::move(cases));
  }

  // In parallel: most of the time they wait for a next try.
  void RunCases(const Begin& begin, std::vector<FaultCase> cases) {
    while (!cases.empty() && !HasFailure()) {
      const size_t count = std::min(cases.size(), kAtATime);
      std::list<FaultyDaemon> daemons;
      for (size_t i = 0; i < count; ++i) daemons.emplace_back(begin, cases[i].fault, cases[i].call);
      cases.erase(cases.begin(), cases.begin() + static_cast<ptrdiff_t>(count));
      {
        std::list<BackgroundCall> calls;
        for (FaultyDaemon& daemon : daemons) calls.emplace_back([&daemon] { daemon.Run(); });
        for (BackgroundCall& call : calls) call.Join();
      }
      for (FaultyDaemon& daemon : daemons) daemon.KillAndRestart();
    }
  }

  const TemporaryDirectory _template;
};

}  // namespace

TEST_F(FileFaultsOfADaemon, LoseNothingWhichEverCallItIsAndHealByThemselves) {
  FailEachCall({_template.GetPath(), "old=1\n"});
}

TEST_F(FileFaultsOfADaemon, LoseNothingWhichEverCallItIsWhenThereIsNoFileYet) {
  const TemporaryDirectory empty;
  FailEachCall({empty.GetPath(), ""});
}

TEST_F(FileFaultsOfADaemon, LoseNothingWhichEverCallItIsWithoutDurabilityEither) {
  FailEachCall({_template.GetPath(), "old=1\n", "none"});
}

// The next journal has begun before the last change, which it gets alone, and is not synced.
TEST_F(FileFaultsOfADaemon, LoseNothingOfAJournalThatIsGivenUpWhenTheyAreKilledBeforeTheSnapshotStands) {
  const TemporaryDirectory directory;
  fs::copy(_template.GetPath(), directory.GetPath());
  FileFaults faults(directory.GetPath());
  const FileFaults::Environment environment(faults, FileFaultsModule());
  Daemon daemon(directory, {"--user-settings", directory.Path("user.ini")});
  ProtocolClient client(daemon.GetPort());
  const auto change = [&](int number) {
    client.Send("merge\n[A]\n" + KeyOf(number) + ".\n");
    client.AwaitHandled();
  };
  faults.HoldSyncs("user.ini.new");
  change(3);
  faults.AwaitHeldSync();
  change(4);
  faults.LetSyncsGo();
  daemon.AwaitIdle();
  EXPECT_TRUE(directory.Has("user.ini.journal.new"));
  faults.HoldSyncs(".new");  // the journal's, and that of another snapshot, where one is due
  client.Send("merge\n[A]\n" + KeyOf(5) + ".\n");
  faults.AwaitHeldSync();
  faults.Fail(EIO);
  faults.LetSyncsGo();
  daemon.AwaitErrors("Failed to sync '" + directory.Path("user.ini.journal.new") + "': Input/output error");
  daemon.AwaitIdle();
  faults.HoldSyncs("user.ini.new");
  faults.Succeed();
  faults.AwaitHeldSync();
  EXPECT_EQ(daemon.Stop(SIGKILL), 128 + SIGKILL);
  EXPECT_EQ(FindSavedText(directory), "[A]\n" + KeyOf(3) + KeyOf(4) + KeyOf(5) + "old=1\n");
}

TEST_F(FileFaultsOfADaemon, OnAReadOnlyFileSystemItServesWarnsAndTriesAgain) {
  const TemporaryDirectory directory;
  fs::copy(_template.GetPath(), directory.GetPath());
  FileFaults faults(directory.GetPath());
  faults.Fail(EROFS);
  const FileFaults::Environment environment(faults, FileFaultsModule());
  const std::string file = directory.Path("user.ini");
  Daemon daemon(directory, {"--user-settings", file});
  ProtocolClient client(daemon.GetPort());
  client.Send("merge\n[A]\nk1=v1\n.\n");
  EXPECT_EQ(client.Get("A\n"), "data\n[A]\nk1=v1\nold=1\n.\n");
  daemon.AwaitErrors("Read-only file system; changes are kept in memory and saved as soon as that is possible\n");
  daemon.AwaitErrors("WARNING UserSettings: Failed to remove '" + file + ".new': Read-only file system; it is tried");
  EXPECT_EQ(FindSavedText(directory), "[A]\nold=1\n");
  faults.Succeed();
  daemon.AwaitErrors("WARNING UserSettings: '" + file + "' is saved again\n");
  EXPECT_EQ(FindSavedText(directory), "[A]\nk1=v1\nold=1\n");
}

TEST_F(FileFaultsOfADaemon, ChangesOfAReadOnlyFileSystemAreNotSavedAtTheEnd) {
  const TemporaryDirectory directory;
  fs::copy(_template.GetPath(), directory.GetPath());
  FileFaults faults(directory.GetPath());
  faults.Fail(EROFS);
  const FileFaults::Environment environment(faults, FileFaultsModule());
  Daemon daemon(directory, {"--user-settings", directory.Path("user.ini")});
  Converse(daemon.GetPort(), "merge\n[A]\nk1=v1\n.\n");
  EXPECT_EQ(daemon.Stop(), 74);
  EXPECT_EQ(FindSavedText(directory), "[A]\nold=1\n");
}

}  // namespace tavix::test
