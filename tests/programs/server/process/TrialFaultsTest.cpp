#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/process/FileFaultsModule.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/FileFaults.h"
#include "tests/support/ReaderProcess.h"
#include "tests/support/RunLength.h"

// Changes on trial while clients and the daemon are killed, the disk is full, or the clock is moved.

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;

constexpr char kEnd[] = "\n.\n";
constexpr char kNothing[] = "data\n.\n";
constexpr std::chrono::hours kDay{24};

std::string Ask(ProtocolClient& client, const std::string& request, const std::string& end = kEnd) {
  client.Send(request);
  return client.ReadUntil(end);
}

void Set(ProtocolClient& client, const std::string& settings) {
  client.Send("merge\n" + settings + ".\n");
  client.AwaitHandled();
}

// Returns once the change is on trial, and shown.
void Try(ProtocolClient& client, const std::string& trial, const std::string& settings) {
  client.Send("try " + trial + "\n");
  Set(client, settings);
}

// A daemon whose file calls and clock are the test's.
class TrialFaults : public testing::Test {
 protected:
  void Start(const std::vector<std::string>& options = {}) {
    std::vector<std::string> arguments{"--user-settings", _directory.Path("user.ini")};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const FileFaults::Environment environment(_faults, FileFaultsModule());
    _daemon.emplace(_directory, arguments);
  }

  void Kill() { EXPECT_EQ(_daemon->Stop(SIGKILL), 128 + SIGKILL); }

  // Returns when the group has been announced with that text.
  static void AwaitNotice(ProtocolClient& client, const std::string& text) {
    while (client.ReadUntil(".\n").find(text) == std::string::npos) continue;
  }

  static ProtocolClient Watch(unsigned short port, const std::string& group) {
    ProtocolClient watcher(port);
    watcher.Send("subscribe\n" + group + "\n.\n");
    watcher.AwaitHandled();
    return watcher;
  }

  const TemporaryDirectory _directory;
  FileFaults _faults{_directory.GetPath()};
  std::optional<Daemon> _daemon;
};

}  // namespace

TEST_F(TrialFaults, AClientThatIsKilledLeavesOnTrialWhatItHasChangedAlone) {
  Start();
  ProtocolClient other(_daemon->GetPort());
  Set(other, "[A]\nx=1\n");
  ProtocolClient watcher = Watch(_daemon->GetPort(), "A");
  for (const char* change : {"", "merge\n[A]\nx=2\n"}) {  // none yet, and half of it
    ProtocolClient client(_daemon->GetPort());
    client.Send("try 3600 t\n");
    client.AwaitHandled();
    client.Send(change);
    const ReaderProcess killed(std::move(client));
  }
  Set(other, "[B]\nx=1\n");
  EXPECT_EQ(Ask(other, "trial\n"), kNothing);
  {
    ProtocolClient client(_daemon->GetPort());
    Try(client, "1 t", "[A]\nx=2\n");
    const ReaderProcess killed(std::move(client));
  }
  AwaitNotice(watcher, "x=1\n");
  EXPECT_THAT(Ask(other, "trial t\n"), HasSubstr("state=reverted\n"));
}

TEST_F(TrialFaults, OnAFullDiskWhatIsPendingGoesBackInTimeAndIsConfirmedOnceThereIsRoom) {
  Start();
  ProtocolClient client(_daemon->GetPort());
  Set(client, "[A]\nx=1\n");
  ProtocolClient watcher = Watch(_daemon->GetPort(), "A");
  Try(client, "3600 kept", "[B]\nx=2\n");
  Try(client, "1 t", "[A]\nx=2\n");
  _faults.Fail(ENOSPC);
  AwaitNotice(watcher, "x=1\n");
  const std::string refusal = "trial 'kept' is still pending: the disk takes no changes at the moment\n";
  EXPECT_EQ(Ask(client, "confirm kept\n", "moment\n"), "refused\n" + refusal);
  EXPECT_THAT(Ask(client, "trial kept\n"), HasSubstr("state=pending\n"));
  _faults.Succeed();
  EXPECT_TRUE(
      Eventually([&] { return Ask(client, "confirm kept\ntrial kept\n").find("=confirmed\n") != std::string::npos; }));
  Kill();
  Start();
  EXPECT_EQ(Converse(_daemon->GetPort(), "get\n*\n.\n"), "[A]\nx=1\n[B]\nx=2\n");
}

namespace {

// When the last change was made, in seconds since 1970 as the daemon has it.
std::chrono::seconds TimeOfLastChange(ProtocolClient& client) {
  const std::string answer = Ask(client, "history - 1\n");
  const std::string mark = "\ntime=";
  const std::chrono::nanoseconds time(std::stoll(answer.substr(answer.find(mark) + mark.size())));
  return std::chrono::duration_cast<std::chrono::seconds>(time);
}

}  // namespace

TEST_F(TrialFaults, AClockThatIsMovedNeitherEndsATrialNorKeepsIt) {
  Start({"--history", "65536"});
  ProtocolClient client(_daemon->GetPort());
  Set(client, "[B]\nx=1\n");
  ProtocolClient watcher = Watch(_daemon->GetPort(), "B");
  const std::chrono::seconds before = TimeOfLastChange(client);
  Try(client, "3600 kept", "[A]\nx=2\n");
  Try(client, "1 back", "[B]\nx=2\n");
  _faults.MoveClock(-kDay);
  AwaitNotice(watcher, "x=1\n");
  Try(client, "1 again", "[B]\nx=3\n");
  AwaitNotice(watcher, "x=1\n");
  _faults.MoveClock(kDay);
  Try(client, "1 later", "[B]\nx=4\n");
  AwaitNotice(watcher, "x=1\n");
  EXPECT_GE(TimeOfLastChange(client), before + kDay);
  EXPECT_THAT(Ask(client, "trial kept\n"), HasSubstr("state=pending\n"));
  EXPECT_THAT(Ask(client, "confirm kept\n"), HasSubstr("state=confirmed\n"));
}

namespace {

// What a client does, one step behind the other, and what the next start leads to once it has seen the step's end. The
// last trial is of more than the journal has before a snapshot takes over.
struct Step {
  std::string request;
  std::string reply;  // how it ends
  std::string left;
};

std::string BothOf(const std::string& value) {
  return "[A]\nx=" + value + "\n[B]\nx=" + value + "\n";
}

const std::string kLarge(300'000, 'v');

std::vector<Step> MakeSteps() {
  const std::string ask = "get delimited\nA\n.\n";
  const auto order = [&](const char* trial, const std::string& value) {
    return std::string("try 3600 ") + trial + "\nmerge\n" + BothOf(value) + ".\n" + ask;
  };
  return {{order("t", "2"), kEnd, BothOf("1")},    {"confirm t\n", kEnd, BothOf("2")},
          {order("u", "3"), kEnd, BothOf("2")},    {"revert u\n", kEnd, BothOf("2")},
          {order("v", kLarge), kEnd, BothOf("2")}, {"confirm v\n", kEnd, BothOf(kLarge)}};
}

class KilledTrials : public TrialFaults {
 protected:
  // Files with the two groups, and perhaps a trial of both that is pending.
  static void Prepare(const TemporaryDirectory& directory, bool hasTrial) {
    const std::string file = directory.Write("user.ini", BothOf("1"));
    Daemon daemon(directory, {"--user-settings", file, "--history", "65536"});
    ProtocolClient client(daemon.GetPort());
    Set(client, "[A]\nx=0\n");
    Set(client, "[A]\nx=1\n");
    if (hasTrial) Try(client, "3600 t", BothOf("2"));
    EXPECT_EQ(daemon.Stop(SIGKILL), 128 + SIGKILL);
    fs::remove(file + ".lock");
  }

  void StartOn(const TemporaryDirectory& files) {
    for (const fs::directory_entry& file : fs::directory_iterator(_directory.GetPath())) fs::remove(file);
    fs::copy(files.GetPath(), _directory.GetPath());
    StartAgain();
  }

  void StartAgain() { Start({"--history", "65536"}); }

  // Returns how many steps the client saw the end of.
  size_t TakeSteps() {
    size_t ended = 0;
    try {
      ProtocolClient client(_daemon->GetPort());
      for (const Step& step : _steps) {
        EXPECT_THAT(Ask(client, step.request, step.reply), testing::StartsWith("data\n"));
        ++ended;
      }
    } catch (const std::exception&) {  // it was killed
    }
    return ended;
  }

  void ExpectAfterRestart(const std::vector<std::string>& allowed) {
    _faults.KillBefore(0);
    StartAgain();
    ProtocolClient client(_daemon->GetPort());
    EXPECT_THAT(allowed, testing::Contains(Converse(_daemon->GetPort(), "get\nA\nB\n.\n")));
    EXPECT_EQ(Ask(client, "trial\n").find("state=pending"), std::string::npos);
    Kill();
  }

  // All calls in a long run, otherwise some of them.
  template <class Action>
  void ForCalls(uint64_t last, Action action) {
    constexpr uint64_t kInAShortRun = 6;
    const uint64_t stride = IsLongRun() ? 1 : std::max<uint64_t>(1, last / kInAShortRun);
    const uint64_t first = 1 + std::random_device()() % stride;
    for (uint64_t call = first; call <= last && !HasFailure(); call += stride) {
      SCOPED_TRACE("killed before call " + std::to_string(call));
      action(call);
    }
  }

  const std::vector<Step> _steps = MakeSteps();
};

}  // namespace

// What a client was shown of a trial's end is so. The step that was under way is made or not, for both groups.
TEST_F(KilledTrials, AtEachFileCallOfTheDaemonAreConfirmedOrPutBackAndNeverMixed) {
  const TemporaryDirectory files;
  Prepare(files, false);
  StartOn(files);
  const uint64_t before = _faults.CountCalls();
  EXPECT_EQ(TakeSteps(), _steps.size());
  _daemon->AwaitIdle();
  const uint64_t last = _faults.CountCalls() - before;
  EXPECT_GT(last, 10u);
  Kill();
  ForCalls(last, [&](uint64_t call) {
    StartOn(files);
    _daemon->GetPort();
    _faults.KillBefore(call);
    const size_t ended = TakeSteps();
    Kill();
    std::vector<std::string> allowed{ended == 0 ? BothOf("1") : _steps[ended - 1].left};
    if (ended < _steps.size()) allowed.push_back(_steps[ended].left);
    ExpectAfterRestart(allowed);
  });
}

TEST_F(KilledTrials, AtEachFileCallOfAStartThatPutsThemBackArePutBackByTheNext) {
  const TemporaryDirectory files;
  Prepare(files, true);
  const uint64_t before = _faults.CountCalls();
  StartOn(files);
  ProtocolClient(_daemon->GetPort()).AwaitHandled();
  _daemon->AwaitIdle();
  const uint64_t last = _faults.CountCalls() - before;
  EXPECT_GT(last, 5u);
  Kill();
  ForCalls(last, [&](uint64_t call) {
    _faults.KillBefore(call);
    StartOn(files);
    try {
      ProtocolClient(_daemon->GetPort()).AwaitHandled();
    } catch (const std::exception&) {  // it was killed
    }
    Kill();
    ExpectAfterRestart({BothOf("1")});
  });
}

}  // namespace tavix::test
