#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "programs/server/connections/EventLoop.h"
#include "programs/server/connections/SlowLane.h"
#include "tavix/osa/Descriptor.h"
#include "tests/programs/server/connections/ConnectionSetup.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/Threads.h"

namespace tavix::test {

namespace {

using daemon::EventLoop;

// Once it is told to, it reads the defaults for as long as the test wants.
struct SlowPersister : MemoryPersister {
  SlowPersister() : MemoryPersister({"[A]\nx=1\n"}) {}

  void LoadDefaultSettings(settings::server::SettingsCombiner& combiner) override {
    if (isSlow) {
      started.set_value();
      released.get_future().wait();
    }
    MemoryPersister::LoadDefaultSettings(combiner);
  }

  bool isSlow = false;
  std::promise<void> started;
  std::promise<void> released;
};

// How often that command was carried out to its end.
unsigned long long CountCalls(const std::string& name) {
  for (const auto& command : settings::server::ClientHandler::ReadStatistics().commands) {
    if (command.name == name) return command.count;
  }
  return 0;
}

// A loop whose clients have a slow lane, in which one request stays for as long as the test wants.
class RequestInLane : public testing::Test {
 protected:
  explicit RequestInLane(size_t places = 2) : _places(places) { _persister.isSlow = true; }
  ~RequestInLane() override { _lane.Stop(); }

  // A place is free shortly after its connection was counted as cut.
  osa::Descriptor Connect() {
    EXPECT_TRUE(Eventually([this] { return _places.Take(); }));
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    osa::Descriptor descriptor(ends[0]);
    EXPECT_TRUE(_loop->TryAdd(descriptor));
    return osa::Descriptor(ends[1]);
  }

  // One that has sent all and has left before the loop sees anything of it.
  void ConnectAndLeave(const std::string& requests) {
    EXPECT_TRUE(Eventually([this] { return _places.Take(); }));
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_TRUE(Send(osa::Descriptor(ends[1]), requests));
    osa::Descriptor descriptor(ends[0]);
    EXPECT_TRUE(_loop->TryAdd(descriptor));
  }

  // Returns when the lane works on it.
  void SendSlowRequest(const osa::Descriptor& peer, const std::string& behind = "") {
    EXPECT_TRUE(Send(peer, "restore\nA\n.\n" + behind));
    _persister.started.get_future().wait();
  }

  void Release() { _persister.released.set_value(); }

  // Returns when the loop has seen all that has happened.
  void AwaitSeen() {
    for (int i = 0; i < 3; ++i) _loop->Probe();
  }

  // Requests that the lane is left come behind the slow one and never wait themselves.
  void SendBehind(const osa::Descriptor& peer, const std::string& requests) {
    _persister.isSlow = false;
    EXPECT_TRUE(Send(peer, requests));
    AwaitSeen();
  }

  daemon::Connection::Shared GetShared() {
    daemon::Connection::Shared shared = _setup.GetShared(&_lane);
    shared.places = &_places;
    return shared;
  }

  unsigned long long CountCut(daemon::CutReason reason) const {
    return _setup.counters.cut[static_cast<size_t>(reason)].Get();
  }

  static std::string Ask(const osa::Descriptor& peer, const std::string& request, size_t count) {
    EXPECT_TRUE(Send(peer, request));
    return Receive(peer, count);
  }

  SlowPersister _persister;
  ConnectionSetup _setup{_persister};
  daemon::SlowLane _lane;
  daemon::Places _places;
  std::unique_ptr<EventLoop> _loop = std::make_unique<EventLoop>(GetShared(), [] {});
};

// With places for more clients.
class RequestsOfManyInLane : public RequestInLane {
 protected:
  RequestsOfManyInLane() : RequestInLane(8) {}
};

const std::string kGetA = "get delimited\nA\n.\n";
const std::string kA = "data\n[A]\nx=1\n.\n";

}  // namespace

TEST_F(RequestInLane, OtherClientsOfTheLoopAreServed) {
  const osa::Descriptor slow = Connect();
  const osa::Descriptor other = Connect();
  SendSlowRequest(slow);
  EXPECT_EQ(Ask(other, kGetA, kA.size()), kA);
  EXPECT_EQ(Ask(other, "test-and-merge\n.\n[B]\ny=2\n.\n", 10), "result\nok\n");
  _loop->Probe();
  Release();
}

TEST_F(RequestInLane, RequestsBehindItWaitAndAreAnsweredInTheirOrder) {
  const osa::Descriptor slow = Connect();
  SendSlowRequest(slow, kGetA + "merge\n[A]\nx=2\n.\n");
  EXPECT_TRUE(Send(slow, kGetA));
  _loop->Probe();
  char byte = 0;
  EXPECT_EQ(recv(slow.Get(), &byte, 1, MSG_DONTWAIT), -1);
  Release();
  EXPECT_EQ(Receive(slow, 2 * kA.size()), kA + "data\n[A]\nx=2\n.\n");
}

TEST_F(RequestInLane, NoticesAreSentMeanwhile) {
  const osa::Descriptor slow = Connect();
  const osa::Descriptor other = Connect();
  const std::string notice = "async change\nB\n.\n[B]\ny=2\n.\n";
  SendSlowRequest(slow);
  Release();
  EXPECT_EQ(Ask(slow, "subscribe\nB\n.\n" + kGetA, kA.size()), kA);
  _persister.started = std::promise<void>();
  _persister.released = std::promise<void>();
  SendSlowRequest(slow);
  EXPECT_TRUE(Send(other, "merge\n[B]\ny=2\n.\n"));
  EXPECT_EQ(Receive(slow, notice.size()), notice);
  Release();
}

TEST_F(RequestInLane, ClientThatLeavesMeanwhileKeepsNobodyBusyAndIsEndedBehindIt) {
  osa::Descriptor slow = Connect();
  SendSlowRequest(slow);
  slow.Reset();
  for (int i = 0; i < 3; ++i) _loop->Probe();
  EXPECT_EQ(_loop->CountConnections(), 1u);
  Release();
  EXPECT_TRUE(Eventually([this] { return _loop->CountConnections() == 0; }));
}

TEST_F(RequestInLane, ClientThatLeavesMeanwhileKeepsNeitherPlaceNorDescriptorAndItsChangesAreMade) {
  const osa::Descriptor other = Connect();
  AwaitSeen();  // a sanitizer may need descriptors of its own meanwhile
  const size_t descriptors = CountDescriptors(getpid());
  osa::Descriptor slow = Connect();
  SendSlowRequest(slow, "merge\n[A]\nx=2\n.\n");
  EXPECT_TRUE(Send(slow, "merge\n[A]\ny=3\n.\n"));  // is read once it has left
  EXPECT_EQ(_setup.counters.clients.Get(), 2u);
  slow.Reset();
  EXPECT_TRUE(Eventually([this] { return _places.Take(); }));
  AwaitSeen();
  EXPECT_TRUE(Eventually([&] { return CountDescriptors(getpid()) == descriptors; }));
  EXPECT_EQ(_setup.counters.clients.Get(), 1u);
  EXPECT_EQ(_loop->CountConnections(), 2u);
  Release();
  EXPECT_TRUE(Eventually([this] { return _loop->CountConnections() == 1; }));
  const std::string both = "data\n[A]\nx=2\ny=3\n.\n";
  EXPECT_EQ(Ask(other, kGetA, both.size()), both);
}

TEST_F(RequestInLane, EachClientThatLeavesFreesOnePlace) {
  osa::Descriptor slow = Connect();
  osa::Descriptor waiting = Connect();
  SendSlowRequest(slow);
  SendBehind(waiting, "restore\nA\n.\n");
  slow.Reset();
  waiting.Reset();
  EXPECT_TRUE(Eventually([this] { return _places.Take(); }));
  EXPECT_TRUE(Eventually([this] { return _places.Take(); }));
  Release();
  EXPECT_TRUE(Eventually([this] { return _loop->CountConnections() == 0; }));
  EXPECT_FALSE(_places.Take());
}

TEST_F(RequestInLane, AnswerThatWaitsIsWithdrawnWithItsConnectionWhenItsClientLeaves) {
  const osa::Descriptor slow = Connect();
  SendSlowRequest(slow);
  const size_t descriptors = CountDescriptors(getpid());
  const unsigned long long dumps = CountCalls("dump");
  const std::string names = std::string(3000, 'n') + "\n";
  std::string list;
  for (int i = 0; i < 12; ++i) list += std::to_string(i) + names;
  for (const std::string& request : std::vector<std::string>{"dump\n", "dump all\n", "info subscribed\n",
                                                             "get\n" + list + ".\n", "subscribe\n" + list + ".\n"}) {
    osa::Descriptor leaving = Connect();
    SendBehind(leaving, request);
    EXPECT_EQ(_loop->CountConnections(), 2u);
    leaving.Reset();
    EXPECT_TRUE(Eventually([&] { return CountDescriptors(getpid()) == descriptors && _loop->CountConnections() == 1; }))
        << request.substr(0, 10);
  }
  Release();
  EXPECT_EQ(Ask(slow, kGetA, kA.size()), kA);
  EXPECT_EQ(CountCalls("dump"), dumps);
}

TEST_F(RequestInLane, ChangesBehindAnAnswerThatIsWithdrawnAreMadeAtOnce) {
  const osa::Descriptor slow = Connect();
  const unsigned long long gets = CountCalls("get");
  SendSlowRequest(slow);
  {
    const osa::Descriptor leaving = Connect();
    SendBehind(leaving, "dump\nmerge\n[B]\ny=2\n.\ndump all\nget\n*\n.\nmerge\n[B]\nz=3\n.\n");
  }
  EXPECT_TRUE(Eventually([this] { return _loop->CountConnections() == 1; }));
  EXPECT_EQ(AllSettingsOf(_setup.store), "[A]\nx=1\n[B]\ny=2\nz=3\n");
  EXPECT_EQ(CountCalls("get"), gets);
  Release();
}

TEST_F(RequestInLane, ChangesThatWaitAreMadeInTheirOrderAlthoughTheirClientHasLeft) {
  const std::string value(100'000, 'v');
  const osa::Descriptor slow = Connect();
  const unsigned long long dumps = CountCalls("dump");
  SendSlowRequest(slow);
  {
    const osa::Descriptor leaving = Connect();
    SendBehind(leaving, "merge\n[B]\ny=" + value + "\n.\nmerge\n[B]\ny=1\n.\ndump\nmerge\n[B]\nz=" + value +
                            "\n.\nmerge\n[B]\nz=2\n.\n");
  }
  AwaitSeen();
  EXPECT_EQ(_loop->CountConnections(), 2u);
  EXPECT_EQ(AllSettingsOf(_setup.store), "[A]\nx=1\n");
  Release();
  EXPECT_TRUE(Eventually([this] { return _loop->CountConnections() == 1; }));
  EXPECT_EQ(AllSettingsOf(_setup.store), "[A]\nx=1\n[B]\ny=1\nz=2\n");
  EXPECT_EQ(CountCalls("dump"), dumps);
}

TEST_F(RequestsOfManyInLane, ChangesOfClientsThatLeaveAtOnceAreMadeInTheOrderInWhichTheyCame) {
  const std::string value(40'000, 'v');
  const osa::Descriptor slow = Connect();
  SendSlowRequest(slow);
  for (int i = 1; i <= 5; ++i) {
    ConnectAndLeave("merge\n[B]\nlong=" + value + "\ny=" + std::to_string(i) + "\n.\n");
    AwaitSeen();
  }
  EXPECT_EQ(_loop->CountConnections(), 6u);
  Release();
  EXPECT_TRUE(Eventually([this] { return _loop->CountConnections() == 1; }));
  EXPECT_EQ(AllSettingsOf(_setup.store), "[A]\nx=1\n[B]\nlong=" + value + "\ny=5\n");
}

// The store is locked until it is loaded, so the lane waits in the middle of the dump.
TEST(AnswerInLane, IsGivenUpWhenItsClientLeavesAndChangesBehindItAreMade) {
  MemoryPersister persister({"[A]\nx=1\n"});
  ConnectionSetup setup(persister, true);
  daemon::SlowLane lane;
  EventLoop loop(setup.GetShared(&lane), [] {});
  ASSERT_TRUE(Eventually([] { return FindThreads("SlowLane").size() == 1; }));
  const pid_t thread = FindThreads("SlowLane").front();
  AwaitAsleep(thread);
  const std::string idle = LookAtThread(thread);
  const unsigned long long dumps = CountCalls("dump");
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  osa::Descriptor peer(ends[1]);
  osa::Descriptor descriptor(ends[0]);
  EXPECT_TRUE(loop.TryAdd(descriptor));
  EXPECT_TRUE(Send(peer, "dump all\nmerge nopersist\n[A]\nx=2\n.\n"));
  for (int i = 0; i < 3; ++i) loop.Probe();  // the lane waits for no lock of the loop's any more
  const auto isIdle = [&] { return LookAtThread(thread).empty() || LookAtThread(thread) == idle; };
  EXPECT_TRUE(Eventually([&] { return !isIdle(); }));
  AwaitAsleep(thread);
  peer.Reset();
  for (int i = 0; i < 3; ++i) loop.Probe();
  setup.store.LoadSettings();
  EXPECT_TRUE(Eventually([&] { return loop.CountConnections() == 0; }));
  EXPECT_EQ(CountCalls("dump"), dumps);
  EXPECT_EQ(setup.counters.cut[static_cast<size_t>(daemon::CutReason::kError)].Get(), 0u);
  EXPECT_EQ(AllSettingsOf(setup.store), "[A]\nx=2\n");
}

// Ticks cut clients that have not read for too long. The last one shows that a tick has come behind the first.
TEST_F(RequestInLane, ClientThatIsCutMeanwhileIsReportedOnce) {
  using daemon::CutReason;
  _setup.limits.backlogBytes = 0;
  _setup.limits.backlogSeconds = 0;
  const osa::Descriptor slow = Connect();
  const osa::Descriptor other = Connect();
  for (const osa::Descriptor* peer : {&slow, &other})
    EXPECT_EQ(Ask(*peer, "subscribe\nB*\n.\n" + kGetA, kA.size()), kA);
  SendSlowRequest(slow);
  core::IniFile large;
  large.SetValue("B", "y", std::string(4'000'000, 'v'));
  _setup.store.MergeSettings(large, 0);
  EXPECT_TRUE(Eventually([&] { return CountCut(CutReason::kBacklog) == 2; }));
  const osa::Descriptor last = Connect();
  EXPECT_EQ(Ask(last, "subscribe\nB*\n.\n" + kGetA, kA.size()), kA);
  _setup.store.MergeSettings(large, 0);
  EXPECT_TRUE(Eventually([this] { return _loop->CountConnections() == 1; })) << "the one in the lane is left";
  _loop->Probe();
  EXPECT_EQ(CountCut(CutReason::kBacklog), 3u);
  Release();
}

TEST_F(RequestInLane, HalfClosedClientGetsTheRepliesToTheRequestsBehindIt) {
  const osa::Descriptor slow = Connect();
  SendSlowRequest(slow, kGetA);
  shutdown(slow.Get(), SHUT_WR);
  _loop->Probe();
  Release();
  EXPECT_EQ(ReceiveAll(slow), kA);
}

TEST_F(RequestInLane, QuitBehindItEndsTheConnection) {
  const osa::Descriptor slow = Connect();
  SendSlowRequest(slow, kGetA + "quit\n" + kGetA);
  Release();
  EXPECT_EQ(ReceiveAll(slow), kA);
}

TEST_F(RequestInLane, ThatThrowsEndsItsConnectionAlone) {
  const osa::Descriptor slow = Connect();
  const osa::Descriptor other = Connect();
  EXPECT_TRUE(Send(slow, "merge\n" + std::string(100'000, 'x') + "\n.\n"));
  EXPECT_EQ(ReceiveAll(slow), "");
  EXPECT_EQ(Ask(other, kGetA, kA.size()), kA);
  EXPECT_EQ(_setup.counters.cut[static_cast<size_t>(daemon::CutReason::kError)].Get(), 1u);
}

TEST_F(RequestInLane, LongChangeIsMadeBeforeTheRequestsBehindIt) {
  const osa::Descriptor peer = Connect();
  const std::string value(200'000, 'v');
  const std::string reply = "data\n[B]\ny=" + value + "\n.\n";
  EXPECT_TRUE(Send(peer, "merge\n[B]\ny=" + value + "\n.\nget delimited\nB\n.\n"));
  EXPECT_EQ(Receive(peer, reply.size()), reply);
}

TEST_F(RequestInLane, LoopEndsOnceTheLaneHasDoneWithIt) {
  const osa::Descriptor slow = Connect();
  SendSlowRequest(slow);
  BackgroundCall end([this] { _loop.reset(); });
  end.AwaitBlocked();
  EXPECT_FALSE(end.HasEnded());
  Release();
  end.Join();
  EXPECT_EQ(ReceiveAll(slow), "");
}

}  // namespace tavix::test
