#include <gtest/gtest.h>

#include <csignal>
#include <list>
#include <string>
#include <vector>

#include "programs/server/ExitCode.h"
#include "tests/programs/server/NotifySocket.h"
#include "tests/programs/server/process/HeldOutput.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/Environment.h"

// A loop that syncs its only connection's changes itself, while the disk, which was quick so far, stands still.

namespace tavix::test {

namespace {

class StalledSyncOfALoop : public HeldOutput {
 protected:
  StalledSyncOfALoop() {
    _faults.SkipSyncs();
    StartWithTwoLoops();
  }

  void StartWithTwoLoops(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.end(), {"--loops", "2"});
    _writer.reset();
    _daemon.reset();
    Start(arguments);
  }

  // Until a loop stands still in a sync. The syncing thread does when it still had to do with the change before.
  void StallALoop() {
    ASSERT_TRUE(Eventually([this] {
      ++_value;
      _writer->Send(Request());
      EXPECT_EQ(_writer->Read(Reply().size()), Reply());
      _faults.HoldSyncs();
      ++_value;
      _writer->Send(Request());
      _faults.AwaitHeldSync();
      if (_faults.NameSyncingThread(_daemon->GetId()) == "EventLoop") return true;
      _faults.LetSyncsGo();
      EXPECT_EQ(_writer->Read(Reply().size()), Reply());
      return false;
    }));
  }

  void ExpectReplyOnceTheDiskGoesOn() { ExpectHeldUntilTheDiskGoesOn(*_writer, Reply()); }

 private:
  std::string Request() const { return Merge("A", _value) + Question("A\n"); }
  std::string Reply() const { return "data\n" + Document("A", _value); }

  int _value = 0;
};

}  // namespace

TEST_F(StalledSyncOfALoop, KeepsNobodyElseWaiting) {
  StallALoop();
  std::list<ProtocolClient> clients;
  for (int i = 0; i < 50; ++i) {
    ProtocolClient& client = clients.emplace_back(_daemon->GetPort());
    EXPECT_EQ(client.Get("C\n"), "data\n" + Document("C", 0));
  }
  ProtocolClient& other = clients.front();
  other.Send(Merge("B", 1) + Question("B\n"));
  EXPECT_EQ(clients.back().Get("C\n"), "data\n" + Document("C", 0));
  ASSERT_TRUE(_faults.IsSyncHeld());
  ExpectReplyOnceTheDiskGoesOn();
  EXPECT_EQ(other.ReadUntil(".\n"), "data\n" + Document("B", 1));
  ExpectNoErrors();
}

// It would not mend the disk.
TEST_F(StalledSyncOfALoop, IsNoReasonForTheServiceManagerToStartTheDaemonAnew) {
  NotifySocket manager;
  const ScopedEnvironment notify("NOTIFY_SOCKET", manager.GetPath().c_str());
  const ScopedEnvironment time("WATCHDOG_USEC", "600000");
  StartWithTwoLoops();
  StallALoop();
  while (manager.ReceiveFor(0)) continue;
  for (int i = 0; i < 3; ++i) manager.Await("WATCHDOG=1");
  ExpectReplyOnceTheDiskGoesOn();
}

TEST_F(StalledSyncOfALoop, DoesNotKeepTheDaemonFromItsEnd) {
  StartWithTwoLoops({"--stop-timeout", "1"});
  StallALoop();
  EXPECT_EQ(_daemon->Stop(SIGTERM), daemon::kExitNotSaved);
}

}  // namespace tavix::test
