#include "programs/server/connections/Acceptor.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "programs/server/connections/EventLoop.h"
#include "programs/server/options/ListenAddress.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tests/programs/server/connections/ConnectionSetup.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/ProtocolClient.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace {

using daemon::Acceptor;
using daemon::EventLoop;
using daemon::Listener;
using daemon::LoopPoll;

// The only change lasts until the test releases it.
class WaitingPersister : public settings::server::ISettingsPersister {
 public:
  void LoadDefaultSettings(settings::server::SettingsCombiner&) override {}
  void LoadUserSettings(settings::server::SettingsCombiner&) override {}
  void SaveUserSettings(const core::IniFile&) override {
    _begun.set_value();
    _released.get_future().wait();
  }

  void AwaitBegin() { _begun.get_future().wait(); }

  // Once at least.
  void Release() {
    if (!_isReleased.exchange(true)) _released.set_value();
  }

 private:
  std::promise<void> _begun;
  std::promise<void> _released;
  std::atomic<bool> _isReleased{false};
};

std::vector<Listener> Listen(const std::vector<std::string>& addresses) {
  daemon::Options options;
  for (const std::string& address : addresses) options.listen.push_back(daemon::ParseListenAddress(address));
  return Listener::OpenAll(options);
}

// An acceptor over two loops. Main's part is done by a thread, once it is started.
class Accepting {
 public:
  explicit Accepting(const std::vector<std::string>& addresses = {"127.0.0.1:0"}, size_t maxConnections = 1000)
      : _acceptor(Listen(addresses), {}, maxConnections, _setup.counters) {
    daemon::Connection::Shared shared = _setup.GetShared();
    shared.places = &_acceptor.GetPlaces();
    for (int i = 0; i < 2; ++i) loops.push_back(std::make_unique<EventLoop>(shared, [] {}));
    _acceptor.SetLoops({loops[0].get(), loops[1].get()});
  }

  // What a test has not released is, so that the loops can end.
  ~Accepting() {
    persister.Release();
    StopMain();
    _main.reset();
    Close();
    for (const auto& loop : loops) loop->Probe();
  }

  void StartMain() {
    _main.emplace([this] {
      while (!_ends) {
        std::vector<pollfd> watched{{_end.Get(), POLLIN, 0}};
        const int timeout = _acceptor.Watch(watched);
        if (timeout >= 0) ++_waits;
        EXPECT_GE(poll(watched.data(), watched.size(), timeout), 0);
        _acceptor.Serve(&watched[1]);
      }
    });
  }

  void EndMain() {
    StopMain();
    _main->Join();
    _main.reset();
  }

  void Close() { _acceptor.Close(); }

  // Does a step of main's part. Whether it leaves accepting to the loops then, and awaits nothing of it.
  bool DoLoopsAccept() {
    std::vector<pollfd> watched;
    _acceptor.Watch(watched);
    EXPECT_GE(poll(watched.data(), watched.size(), 0), 0);
    _acceptor.Serve(watched.data());
    watched.clear();
    return _acceptor.Watch(watched) < 0 && watched.back().fd < 0;
  }

  // How often main waited for a place.
  int GetWaits() const { return _waits; }

  std::string GetAddress(size_t index = 0) const { return _acceptor.GetAddresses()[index]; }

  WaitingPersister persister;

 private:
  void StopMain() {
    _ends = true;
    eventfd_write(_end.Get(), 1);
  }

  ConnectionSetup _setup{persister};
  const osa::Descriptor _end{eventfd(0, EFD_CLOEXEC)};
  Acceptor _acceptor;

 public:
  std::vector<std::unique_ptr<EventLoop>> loops;

 private:
  std::atomic<bool> _ends{false};
  std::atomic<int> _waits{0};
  std::optional<BackgroundCall> _main;
};

// Needs nothing of the store.
bool IsServed(ProtocolClient& client) {
  return client.TrySend("quit\n") && client.ReadToEnd().empty();
}

void ExpectAnswer(ProtocolClient& client) {
  client.Send("get delimited\n.\n");
  EXPECT_EQ(client.Read(7), "data\n.\n");
}

}  // namespace

TEST(Acceptor, EachConnectionGoesToOneLoop) {
  Accepting accepting;
  accepting.StartMain();
  std::list<ProtocolClient> clients;
  for (size_t count = 1; count <= 20; ++count) {
    ExpectAnswer(clients.emplace_back(accepting.GetAddress()));
    EXPECT_EQ(accepting.loops[0]->CountConnections() + accepting.loops[1]->CountConnections(), count);
  }
}

TEST(Acceptor, ConnectionsOfAllListenersAreTaken) {
  const TemporaryDirectory directory;
  Accepting accepting({"127.0.0.1:0", "unix:" + directory.GetPath() + "/socket", "127.0.0.1:0"});
  accepting.StartMain();
  for (int round = 0; round < 10; ++round) {
    for (size_t i = 0; i < 3; ++i) {
      ProtocolClient client(accepting.GetAddress(i));
      ExpectAnswer(client);
    }
  }
}

TEST(Acceptor, ManyThatConnectAtOnceAreAllServed) {
  Accepting accepting;
  accepting.StartMain();
  std::list<BackgroundCall> calls;
  for (int i = 0; i < 8; ++i) {
    calls.emplace_back([&accepting] {
      std::list<ProtocolClient> clients;
      for (int count = 0; count < 25; ++count) clients.emplace_back(accepting.GetAddress());
      for (ProtocolClient& client : clients) ExpectAnswer(client);
    });
  }
  for (BackgroundCall& call : calls) call.Join();
}

// The other one takes what comes, though the listeners are watched by both.
TEST(Acceptor, LoopThatIsStuckKeepsNobodyWaiting) {
  Accepting accepting;
  accepting.StartMain();
  ProtocolClient busy(accepting.GetAddress());
  busy.Send("merge\n[A]\nx=1\n.\n");
  accepting.persister.AwaitBegin();
  EXPECT_TRUE(Eventually([&] {
    const auto isStuck = [](const auto& loop) { return loop->GetPoll().GetLoad().IsStuck(); };
    return std::any_of(accepting.loops.begin(), accepting.loops.end(), isStuck);
  }));
  for (int i = 0; i < 100; ++i) {
    ProtocolClient client(accepting.GetAddress());
    EXPECT_TRUE(IsServed(client));
  }
  accepting.persister.Release();
  busy.AwaitHandled();
}

TEST(Acceptor, LoopsAcceptAgainOnceAPlaceIsFree) {
  Accepting accepting({"127.0.0.1:0"}, 1);
  accepting.StartMain();
  std::optional<ProtocolClient> first(std::in_place, accepting.GetAddress());
  ExpectAnswer(*first);
  ProtocolClient second(accepting.GetAddress());
  EXPECT_TRUE(Eventually([&] { return accepting.GetWaits() > 0; }));
  first.reset();
  second.Close();
  EXPECT_TRUE(Eventually([&] {
    ProtocolClient third(accepting.GetAddress());
    return third.TrySend("get delimited\n.\nquit\n") && third.ReadToEnd() == "data\n.\n";
  }));
  accepting.EndMain();
  EXPECT_TRUE(Eventually([&] { return accepting.DoLoopsAccept(); }));
}

// Both loops are woken for the connection, which takes the only place.
TEST(Acceptor, MainDoesNotWaitForAPlaceWhenNobodyElseDoes) {
  Accepting accepting({"127.0.0.1:0"}, 1);
  ProtocolClient client(accepting.GetAddress());
  accepting.StartMain();
  ExpectAnswer(client);
  accepting.EndMain();
  EXPECT_TRUE(accepting.DoLoopsAccept());
  EXPECT_EQ(accepting.GetWaits(), 0);
}

TEST(Acceptor, MainAcceptsWhereALoopCannotWatch) {
  std::vector<Listener> listeners = Listen({"127.0.0.1:0"});
  ConnectionSetup setup;
  struct Other : LoopPoll::ISource {
    void OnReadable(EventLoop&, size_t) override {}
  } other;
  EventLoop loop(setup.GetShared(), [] {});
  ASSERT_TRUE(loop.GetPoll().Watch(listeners.front().GetDescriptor(), other));  // a second time is refused
  Acceptor acceptor(std::move(listeners), {}, 10, setup.counters);
  acceptor.SetLoops({&loop});
  ProtocolClient client(acceptor.GetAddresses().front());
  std::vector<pollfd> watched;
  EXPECT_EQ(acceptor.Watch(watched), -1);
  EXPECT_EQ(poll(watched.data(), watched.size(), -1), 1);
  acceptor.Serve(watched.data());
  ExpectAnswer(client);
  acceptor.Close();
}

TEST(Acceptor, CloseEndsAcceptingWhileOthersConnect) {
  const TemporaryDirectory directory;
  Accepting accepting({"unix:" + directory.GetPath() + "/socket"});
  accepting.StartMain();
  std::atomic<bool> isRefused{false};
  std::atomic<int> served{0};
  BackgroundCall connecting([&] {
    const std::string address = accepting.GetAddress();
    try {
      while (true) {
        ProtocolClient client(address);
        if (IsServed(client)) ++served;
      }
    } catch (const std::exception&) {
      isRefused = true;
    }
  });
  EXPECT_TRUE(Eventually([&] { return served > 100; }));
  accepting.EndMain();
  accepting.Close();
  connecting.Join();
  EXPECT_TRUE(isRefused);
}

}  // namespace tavix::test
