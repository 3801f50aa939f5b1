#include "programs/server/connections/EventLoop.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "programs/server/persistence/ChangeBatch.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/Semaphore.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tests/programs/server/connections/ConnectionSetup.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ListeningSocket.h"

namespace tavix::test {

namespace {

using daemon::EventLoop;

// Finds nothing, and saves nothing.
struct EmptyPersister : settings::server::ISettingsPersister {
  void LoadDefaultSettings(settings::server::SettingsCombiner&) override {}
  void LoadUserSettings(settings::server::SettingsCombiner&) override {}
  void SaveUserSettings(const core::IniFile&) override {}
};

// What it throws is no error that a connection's work may end with.
struct FailingPersister : EmptyPersister {
  void SaveUserSettings(const core::IniFile&) override { throw 1; }
};

// Notes the groups in the order in which they are changed. A change of a group whose name begins with "Wait" lasts for
// as long as the test wants.
class OrderedPersister : public EmptyPersister, public daemon::ChangeBatch::IMember {
 public:
  settings::server::ChangeTicket SaveChangedGroups(const core::IniFile&,
                                                   const std::set<std::string>& changedGroups) override {
    const std::string& group = *changedGroups.begin();
    order.push_back(group);
    EXPECT_TRUE(daemon::ChangeBatch::Join(*this));
    if (group.compare(0, 4, "Wait") == 0) {
      begun.Release();
      isReleased.Lock(osa::kWaitForever);
    }
    return 0;
  }

  void OnBatchEnd(const daemon::ChangeBatch::MayWait&) noexcept override { batches.push_back(order.size()); }

  osa::Semaphore begun{nullptr, 1, 0};
  osa::Semaphore isReleased{nullptr, 1, 0};
  std::vector<std::string> order;  // the loop's, until it has answered a probe
  std::vector<size_t> batches;     // likewise: how many changes there were at the end of each batch
};

// Has changes synced at the end of the batch: on its thread, for as long as the test wants, or else on another one.
class SyncingPersister : public EmptyPersister, public daemon::ChangeBatch::IMember {
 public:
  settings::server::ChangeTicket SaveChangedGroups(const core::IniFile&,
                                                   const std::set<std::string>& changedGroups) override {
    EXPECT_TRUE(daemon::ChangeBatch::Join(*this));
    return _last = gate.Add(&changedGroups);
  }

  settings::server::ChangeTicket FindLastTicket(const settings::common::GroupNameMatcher& groups) override {
    return gate.FindLast(&groups);
  }

  void OnBatchEnd(const daemon::ChangeBatch::MayWait& mayWait) noexcept override {
    if (mayWait && mayWait()) {
      begun.Release();
      isReleased.Lock(osa::kWaitForever);
      gate.SetDurable(_last);
    } else {
      isLeftToOthers.Release();
    }
  }

  daemon::DurabilityGate gate{true};
  osa::Semaphore begun{nullptr, 1, 0};
  osa::Semaphore isReleased{nullptr, 1, 0};
  osa::Semaphore isLeftToOthers{nullptr, 1, 0};

 private:
  settings::server::ChangeTicket _last = 0;
};

osa::Descriptor ConnectTo(EventLoop& loop) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  osa::Descriptor descriptor(ends[0]);
  EXPECT_TRUE(loop.TryAdd(descriptor));
  return osa::Descriptor(ends[1]);
}

class ServingLoop : public testing::Test {
 protected:
  osa::Descriptor Connect() { return ConnectTo(_loop); }

  FailingPersister _persister;
  ConnectionSetup _setup{_persister};
  std::atomic<int> _failures{0};
  EventLoop _loop{_setup.GetShared(), [this] { ++_failures; }};
};

// A loop whose order of service the test sees.
class OrderedLoop : public testing::Test {
 protected:
  static bool Change(const osa::Descriptor& peer, const std::string& group, const std::string& value) {
    return Send(peer, "test-and-merge\n.\n[" + group + "]\nx=" + value + "\n.\n");
  }

  static void AwaitReply(const osa::Descriptor& peer) { EXPECT_EQ(Receive(peer, 10), "result\nok\n"); }

  OrderedPersister _persister;
  ConnectionSetup _setup{_persister};
  EventLoop _loop{_setup.GetShared(), [] {}};
};

// A loop of two, as it believes.
class SyncingLoop : public testing::Test {
 protected:
  static constexpr char kChange[] = "test-and-merge\n.\n[A]\nx=1\n.\n";

  daemon::Connection::Shared GetShared() {
    daemon::Connection::Shared shared = _setup.GetShared();
    shared.gate = &_persister.gate;
    shared.hasOtherLoops = true;
    return shared;
  }

  static void AwaitReply(const osa::Descriptor& peer) { EXPECT_EQ(Receive(peer, 10), "result\nok\n"); }

  SyncingPersister _persister;
  ConnectionSetup _setup{_persister};
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

TEST_F(OrderedLoop, ChangesOfAllConnectionsThatARoundServesAreOneBatch) {
  const osa::Descriptor first = ConnectTo(_loop);
  std::vector<osa::Descriptor> others;
  while (others.size() < 5) others.push_back(ConnectTo(_loop));
  _loop.Probe();
  EXPECT_TRUE(Change(first, "Wait", "1"));
  _persister.begun.Lock(osa::kWaitForever);
  for (const osa::Descriptor& other : others) EXPECT_TRUE(Change(other, "Other", std::to_string(other.Get())));
  _persister.isReleased.Release();
  for (const osa::Descriptor& other : others) AwaitReply(other);
  _loop.Probe();
  EXPECT_EQ(_persister.batches, (std::vector<size_t>{1, 1 + others.size()}));
}

// The disk may stand still now: who watches the loop is not kept waiting, and the other loop gets new connections.
TEST_F(SyncingLoop, WithOneConnectionSyncsAndTakesNoOtherMeanwhile) {
  EventLoop loop(GetShared(), [] {});
  const osa::Descriptor peer = ConnectTo(loop);
  EXPECT_TRUE(Send(peer, kChange));
  _persister.begun.Lock(osa::kWaitForever);
  for (int i = 0; i < 10; ++i) loop.Probe();
  EXPECT_TRUE(loop.IsSyncing());
  osa::Descriptor other(dup(peer.Get()));
  EXPECT_FALSE(loop.TryAdd(other));
  EXPECT_TRUE(other);
  EXPECT_EQ(loop.CountConnections(), 1u);
  _persister.isReleased.Release();
  AwaitReply(peer);
  EXPECT_TRUE(Eventually([&] { return !loop.IsSyncing(); }));
  const osa::Descriptor second = ConnectTo(loop);
  EXPECT_TRUE(Send(second, "get delimited\nNothing\n.\n"));
  EXPECT_EQ(Receive(second, 7), "data\n.\n");
}

TEST_F(SyncingLoop, ThatIsProbedAllTheTimeKeepsNobodyWaiting) {
  EventLoop loop(GetShared(), [] {});
  const osa::Descriptor peer = ConnectTo(loop);
  std::atomic<bool> ends{false};
  BackgroundCall probes([&] {
    while (!ends) loop.Probe();
  });
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(Send(peer, "test-and-merge\n.\n[A]\nx=" + std::to_string(i) + "\n.\n"));
    _persister.begun.Lock(osa::kWaitForever);
    if (i == 99) {
      ends = true;
      probes.Join();  // while it syncs
    }
    _persister.isReleased.Release();
    AwaitReply(peer);
  }
}

TEST_F(SyncingLoop, WithAnotherConnectionLeavesItToOthers) {
  EventLoop loop(GetShared(), [] {});
  const osa::Descriptor peer = ConnectTo(loop);
  const osa::Descriptor other = ConnectTo(loop);
  EXPECT_TRUE(Send(peer, kChange));
  _persister.isLeftToOthers.Lock(osa::kWaitForever);
  _persister.gate.StopHolding();
  AwaitReply(peer);
}

TEST_F(SyncingLoop, WhoseClientDoesNotWaitLeavesItToOthers) {
  EventLoop loop(GetShared(), [] {});
  const osa::Descriptor peer = ConnectTo(loop);
  EXPECT_TRUE(Send(peer, "merge\n[A]\nx=1\n.\n"));
  _persister.isLeftToOthers.Lock(osa::kWaitForever);
}

TEST_F(SyncingLoop, ThatIsTheOnlyOneLeavesItToOthers) {
  daemon::Connection::Shared shared = GetShared();
  shared.hasOtherLoops = false;
  EventLoop loop(shared, [] {});
  const osa::Descriptor peer = ConnectTo(loop);
  EXPECT_TRUE(Send(peer, kChange));
  _persister.isLeftToOthers.Lock(osa::kWaitForever);
  _persister.gate.StopHolding();
  AwaitReply(peer);
}

// The round that takes the new ones in is held up by a second client. All send their requests meanwhile.
TEST_F(OrderedLoop, ServesWhoeverWaitsBeforeManyNewConnections) {
  const osa::Descriptor known = ConnectTo(_loop);
  const osa::Descriptor first = ConnectTo(_loop);
  const osa::Descriptor second = ConnectTo(_loop);
  EXPECT_TRUE(Change(known, "Known", "1"));
  AwaitReply(known);
  EXPECT_TRUE(Change(first, "Wait 1", "1"));
  _persister.begun.Lock(osa::kWaitForever);
  std::vector<osa::Descriptor> others;
  while (others.size() < 20) others.push_back(ConnectTo(_loop));
  EXPECT_TRUE(Change(second, "Wait 2", "1"));
  _persister.isReleased.Release();
  _persister.begun.Lock(osa::kWaitForever);
  for (const osa::Descriptor& other : others) EXPECT_TRUE(Change(other, "Other", std::to_string(other.Get())));
  EXPECT_TRUE(Change(known, "Known", "2"));
  _persister.isReleased.Release();
  for (const osa::Descriptor& other : others) AwaitReply(other);
  AwaitReply(known);
  _loop.Probe();
  EXPECT_EQ(_persister.order.size(), 4 + others.size());
  EXPECT_EQ(_persister.order[3], "Known");
}

}  // namespace tavix::test
