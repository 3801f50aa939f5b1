#include "programs/server/connections/EventLoop.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <list>

#include "tavix/osa/Descriptor.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tests/programs/server/connections/ConnectionSetup.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ListeningSocket.h"

namespace tavix::test {

namespace {

using daemon::EventLoop;

// What it throws is no error that a connection's work may end with.
struct FailingPersister : settings::server::ISettingsPersister {
  void LoadDefaultSettings(settings::server::SettingsCombiner&) override {}
  void LoadUserSettings(settings::server::SettingsCombiner&) override {}
  void SaveUserSettings(const core::IniFile&) override { throw 1; }
};

class ServingLoop : public testing::Test {
 protected:
  osa::Descriptor Connect() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    _loop.Add(osa::Descriptor(ends[0]));
    return osa::Descriptor(ends[1]);
  }

  FailingPersister _persister;
  ConnectionSetup _setup{_persister};
  std::atomic<int> _failures{0};
  EventLoop _loop{_setup.GetShared(), [this] { ++_failures; }};
};

}  // namespace

TEST_F(ServingLoop, ServesAndComesRound) {
  const osa::Descriptor peer = Connect();
  EXPECT_TRUE(Send(peer, "get delimited\n.\n"));
  EXPECT_EQ(Receive(peer, 7), "data\n.\n");
  for (int i = 0; i < 100; ++i) _loop.Probe();
  EXPECT_FALSE(_loop.HasFailed());
}

TEST_F(ServingLoop, ManyThatProbeItAreAllAnswered) {
  std::list<BackgroundCall> probes;
  for (int i = 0; i < 4; ++i) {
    probes.emplace_back([this] {
      for (int round = 0; round < 500; ++round) _loop.Probe();
    });
  }
  for (BackgroundCall& probe : probes) probe.Join();
}

TEST_F(ServingLoop, ThatFailsSaysSoAndKeepsNobodyWaiting) {
  const osa::Descriptor bystander = Connect();
  const osa::Descriptor peer = Connect();
  EXPECT_TRUE(Send(peer, "merge\n[A]\nx=1\n.\n"));
  EXPECT_EQ(ReceiveAll(peer), "");
  EXPECT_EQ(ReceiveAll(bystander), "");
  _loop.Probe();
  EXPECT_TRUE(_loop.HasFailed());
  EXPECT_TRUE(Eventually([this] { return _failures == 1; }));
}

}  // namespace tavix::test
