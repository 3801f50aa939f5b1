#include "programs/server/EventLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <utility>

#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr unsigned int kStackSize = 128 * 1024;
constexpr size_t kScratchSize = 64 * 1024;
constexpr int kTickMilliseconds = 1000;
constexpr int kMostEvents = 64;
constexpr int kReadsInARow = 16;
constexpr int kPauseAfterVainRead = 32;

int Checked(int descriptor, const char* what) {
  if (descriptor < 0) throw osa::Exception("Failed to make %s: %s", what, std::strerror(errno));
  return descriptor;
}

}  // namespace

EventLoop::EventLoop(settings::server::ServerEnv* env, const Limits& limits, Counters& counters, DurabilityGate* gate)
    : _env(env),
      _limits(limits),
      _counters(counters),
      _gate(gate),
      _poll(Checked(epoll_create1(EPOLL_CLOEXEC), "an epoll descriptor")),
      _wake(Checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "an event descriptor")),
      _scratch(new char[kScratchSize]),
      _thread("EventLoop", this, kStackSize, 0) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = nullptr;
  epoll_ctl(_poll, EPOLL_CTL_ADD, _wake, &event);
  _thread.Run();
}

EventLoop::~EventLoop() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _stop = true;
  }
  eventfd_write(_wake, 1);
  _thread.Join();
  for (int descriptor : _new) close(descriptor);
  close(_wake);
  close(_poll);
}

void EventLoop::Add(int descriptor) {
  ++_count;
  _counters.clients.Add();
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _new.push_back(descriptor);
  }
  eventfd_write(_wake, 1);
}

void EventLoop::Run() {
  epoll_event events[kMostEvents];
  while (true) {
    const int wait = !_busy.empty() ? 0 : _ticks ? kTickMilliseconds : -1;
    const int count = epoll_wait(_poll, events, kMostEvents, wait);
    for (int i = 0; i < count; ++i) {
      if (events[i].data.ptr) {
        HandleEvent(static_cast<Connection*>(events[i].data.ptr), events[i].events, count == 1);
        continue;
      }
      eventfd_t ignored = 0;
      eventfd_read(_wake, &ignored);
      {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_stop) return _connections.clear();
      }
      TakeNewConnections();
      _ticks = true;
    }
    if (!_busy.empty()) GiveTurns();
    if (_ticks && Connection::Clock::now() >= _nextTick) Tick();
  }
}

void EventLoop::TakeNewConnections() {
  std::vector<int> descriptors;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    descriptors.swap(_new);
  }
  for (int descriptor : descriptors) {
    try {
      auto connection = std::make_unique<Connection>(descriptor, _poll, _wake, _env, _limits, _counters, _gate);
      Connection* key = connection.get();
      _connections.emplace(key, std::move(connection));
    } catch (const std::exception& exception) {
      core::Logger::GetLogger("EventLoop")->Warning("Connection refused: %s", exception.what());
      _counters.Count(Refusal::kSetup);
      CountOneLess();
    }
  }
}

void EventLoop::HandleEvent(Connection* connection, unsigned int events, bool isAlone) {
  bool lives = true;
  if (events & EPOLLOUT) lives = connection->OnWritable();
  if (lives && (events & (EPOLLIN | EPOLLHUP | EPOLLERR))) {
    lives = connection->OnReadable(_scratch.get(), kScratchSize);
    if (lives && isAlone) lives = ReadOn(connection);
  }
  if (lives && (events & EPOLLHUP)) lives = connection->OnHangUp();
  if (!lives) return End(connection);
  if (connection->HasMore()) _busy.insert(connection);
}

// A client that waits for each reply may have sent its next request by the time the reply is out, above all on a single
// processor, where it ran meanwhile. Looking is cheaper than waiting, when it finds something: after a vain look, and
// for the sake of the others after some in a row, the next ones are left out.
bool EventLoop::ReadOn(Connection* connection) {
  if (_readsToLeaveOut > 0) {
    --_readsToLeaveOut;
    return true;
  }
  for (int reads = 0; reads < kReadsInARow; ++reads) {
    if (!connection->AwaitsRequest()) return true;
    const size_t before = connection->CountReads();
    if (!connection->OnReadable(_scratch.get(), kScratchSize)) return false;
    if (connection->CountReads() == before) {
      _readsToLeaveOut = kPauseAfterVainRead;
      return true;
    }
  }
  return true;
}

void EventLoop::GiveTurns() {
  std::set<Connection*> busy;
  busy.swap(_busy);
  for (Connection* connection : busy) {
    if (!connection->OnTurn()) {
      End(connection);
    } else if (connection->HasMore()) {
      _busy.insert(connection);
    }
  }
}

// Once a second while something must be watched.
void EventLoop::Tick() {
  const auto now = Connection::Clock::now();
  _nextTick = now + std::chrono::milliseconds(kTickMilliseconds);
  _ticks = false;
  for (auto next = _connections.begin(); next != _connections.end();) {
    Connection* connection = (next++)->first;
    if (!connection->OnTick(now)) {
      End(connection);
    } else if (connection->NeedsTicks()) {
      _ticks = true;
    }
  }
}

void EventLoop::End(Connection* connection) {
  _busy.erase(connection);
  _connections.erase(connection);
  CountOneLess();
}

void EventLoop::CountOneLess() {
  --_count;
  _counters.clients.Subtract();
}

}  // namespace tavix::daemon
