#include "programs/server/connections/EventLoop.h"

#include <sys/epoll.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <utility>

#include "programs/server/connections/LogPeer.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr size_t kScratchSize = 64 * 1024;
constexpr int kTickMilliseconds = 1000;
constexpr int kMaxEvents = 1024;
constexpr size_t kFewEvents = 16;                   // that are all served, in the order in which they came
constexpr std::chrono::milliseconds kRoundTime{2};  // for events, and for turns, before the loop looks for new events
constexpr size_t kMinAccepts = 8;                   // in a round that does more than that
constexpr int kReadsInARow = 64;
constexpr int kPauseAfterVainRead = 8;

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("EventLoop");
  return logger;
}

}  // namespace

EventLoop::EventLoop(const Connection::Shared& shared, std::function<void()> onFailure)
    : _shared(shared),
      _onFailure(std::move(onFailure)),
      _scratch(new char[kScratchSize]),
      _thread("EventLoop", [this] { Run(); }) {}

EventLoop::~EventLoop() {
  {
    osa::PlainMutexLock lock(_mutex);
    _stop = true;
  }
  _poll.Wake();
  _thread.Join();
}

void EventLoop::Probe() {
  osa::PlainMutexLock lock(_mutex);
  const unsigned long long probe = ++_probes;
  _poll.Wake();
  lock.Wait(_answered, [&]() TAVIX_REQUIRES(_mutex) { return _answers >= probe || _failed || _syncs; });
}

void EventLoop::Run() {
  try {
    ServeUntilStopped();
  } catch (const std::exception& exception) {
    Fail(exception.what());
  } catch (...) {
    Fail("unknown");
  }
}

// A daemon that listens and never answers helps nobody: it ends, and its service manager starts it anew.
void EventLoop::Fail(const char* reason) {
  {
    osa::PlainMutexLock lock(_mutex);
    _failed = true;
  }
  _answered.notify_all();
  _connections.clear();
  _onFailure();
  Log()->Error("An event loop failed: %s; the daemon ends", reason);
}

void EventLoop::ServeUntilStopped() {
  const std::unique_ptr<epoll_event[]> events(new epoll_event[kMaxEvents]);
  _waiting.reserve(kMaxEvents);
  while (true) {
    ++_round;
    _turns.swap(_busy);
    const int wait = !_turns.empty() ? 0 : _ticks ? kTickMilliseconds : -1;
    const size_t count = _poll.Wait(events.get(), kMaxEvents, wait);
    if (!ServeRound(events.get(), count)) return _connections.clear();
    if (_ticks && Connection::Clock::now() >= _nextTick) Tick();
  }
}

// False when the loop is to stop.
bool EventLoop::ServeRound(const epoll_event* events, size_t count) {
  ChangeBatch batch;
  if (count > 0 && !ServeEvents(events, count)) return false;
  // Not before all events are handled: one of them may be of a connection that ends here.
  if (std::exchange(_wasWoken, false)) TakeBackFromLane();
  if (!_turns.empty()) GiveTurns();
  if (MaySync(batch)) EndBatch(batch);
  return true;
}

bool EventLoop::MaySync(const ChangeBatch& batch) const {
  if (!_shared.hasOtherLoops || !batch.HasMember() || _connections.size() != 1) return false;
  return _busy.empty() && _inLane.empty() && _connections.begin()->second->HasKeptAnswers();
}

void EventLoop::EndBatch(ChangeBatch& batch) {
  batch.Flush([this] { return TryToWaitForDisk(); });
  osa::PlainMutexLock lock(_mutex);
  _syncs = false;
}

// From here on nobody adds a connection, nor waits for this loop to come round. Not before the changes are written: a
// disk that does not answer a write is for the watchdog to see.
bool EventLoop::TryToWaitForDisk() {
  osa::PlainMutexLock lock(_mutex);
  if (_count != 1) return false;
  _syncs = true;
  if (_answers < _probes) _answered.notify_all();
  return true;
}

// False when the loop is to stop.
bool EventLoop::ServeEvents(const epoll_event* events, size_t count) {
  bool hasSource = false;
  _waiting.clear();
  for (size_t i = 0; i < count; ++i) {
    if (LoopPoll::FindSource(events[i])) {
      hasSource = true;
      continue;
    }
    auto* const connection = static_cast<Connection*>(events[i].data.ptr);
    if (connection) {
      const bool isQueued = connection->turn.isQueued && events[i].events == EPOLLIN;  // first what has come before
      if (!isQueued) _waiting.push_back({connection, events[i].events});
    } else if (!TakeCall()) {
      return false;
    }
  }
  if (hasSource) CallSources(events, count);
  if (count == 1 && !_waiting.empty()) {
    const Event event = _waiting.front();
    TurnClock clock(TurnClock::Kind::kPassed);
    ServeTimed(event.connection, clock, [&] { return HandleEvent(event.connection, event.events, true); });
  } else {
    ServeInOrder();
  }
  return true;
}

// Before connections are served, which may take long: the kernel has woken no other loop for the new ones. The more
// connections a round serves, the longer it takes, and the more new ones may come in it.
void EventLoop::CallSources(const epoll_event* events, size_t count) {
  _newest = nullptr;
  const bool isAlone = count == 1 && _turns.empty();
  const size_t max = isAlone ? 1 : std::max(kMinAccepts, _waiting.size() + _turns.size());
  for (size_t i = 0; i < count; ++i) {
    if (LoopPoll::ISource* const source = LoopPoll::FindSource(events[i])) source->OnReadable(*this, max);
  }
  if (!isAlone || !_newest) return;
  TurnClock clock(TurnClock::Kind::kPassed);
  ServeTimed(_newest, clock, [this, newest = _newest] { return ReadFirst(newest); });
}

// Those that are left when the time is up are reported again in the next round.
void EventLoop::ServeInOrder() {
  const bool areMany = _waiting.size() > kFewEvents;
  if (areMany) Turn::Order(_waiting, [](const Event& event) -> const Turn& { return event.connection->turn; });
  const auto end = Connection::Clock::now() + kRoundTime;
  TurnClock clock(areMany ? TurnClock::Kind::kWork : TurnClock::Kind::kPassed);
  for (size_t i = 0; i < _waiting.size(); ++i) {
    const Event event = _waiting[i];
    ServeTimed(event.connection, clock, [&] { return HandleEvent(event.connection, event.events, false); });
    if (areMany && i >= Turn::kOldest && Connection::Clock::now() >= end) return;
  }
}

// Another thread wants something. Returns whether the loop goes on.
bool EventLoop::TakeCall() {
  _poll.TakeCall();
  _ticks = true;
  _wasWoken = true;
  {
    osa::PlainMutexLock lock(_mutex);
    if (_stop) return false;
    if (_answers < _probes) _answered.notify_all();
    _answers = _probes;
  }
  TakeNewConnections();
  return true;
}

// A connection whose request is in the lane already stays there.
void EventLoop::EnterLane(Connection* connection) {
  if (std::find(_inLane.begin(), _inLane.end(), connection) != _inLane.end()) return;
  connection->EnterLane();
  _inLane.push_back(connection);
}

// Connections whose requests the lane has carried out. They may enter it again, behind those that are looked at here.
// Those without a socket have no other event when they are to be cut.
void EventLoop::TakeBackFromLane() {
  size_t next = 0;
  for (size_t left = _inLane.size(); left > 0; --left) {
    Connection* const connection = _inLane[next];
    if (!connection->IsLaneDone()) {
      if (!connection->HasSocket() && connection->IsCut()) End(connection);
      if (next < _inLane.size() && _inLane[next] == connection) ++next;
      continue;
    }
    _inLane.erase(_inLane.begin() + static_cast<std::ptrdiff_t>(next));
    if (connection->IsAbandoned()) {
      End(connection);
    } else {
      Serve(connection, [&] { return connection->OnLaneDone(); });
    }
  }
}

// Whatever happens to one connection, the others are served. Returns whether it lives.
template <class Work>
bool EventLoop::Serve(Connection* connection, Work work) {
  bool lives = false;
  try {
    lives = !connection->IsCut() && work();
    if (lives && connection->IsInLane() && !connection->IsLaneDone()) EnterLane(connection);
  } catch (const std::exception& exception) {
    connection->OnFailure(exception);
    lives = false;  // the request that failed may be lost already
  }
  if (!lives) {
    End(connection);
  } else if (connection->HasMore() && !std::exchange(connection->turn.isQueued, true)) {
    _busy.push_back(connection);
  }
  return lives;
}

// The same, and notes what it cost.
template <class Work>
bool EventLoop::ServeTimed(Connection* connection, TurnClock& clock, Work work) {
  connection->turn.lastServed = _round;
  const bool lives = Serve(connection, work);
  const unsigned int cost = clock.EndTurn();
  if (lives) connection->turn.NoteCost(cost);
  return lives;
}

bool EventLoop::HandleEvent(Connection* connection, unsigned int events, bool isAlone) {
  if ((events & EPOLLOUT) && !connection->OnWritable()) return false;
  if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
    if (!connection->OnReadable(_scratch.get(), kScratchSize)) return false;
    if (isAlone && !ReadOn(connection)) return false;
  }
  const bool hangsUp = (events & EPOLLHUP) || ((events & EPOLLERR) && connection->IsInLane());
  if (!hangsUp) return true;
  const bool lives = connection->OnHangUp(_scratch.get(), kScratchSize);
  if (!connection->HasSocket()) FreePlace(connection);
  return lives;
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

// A client that connects has mostly sent its first request by the time it is accepted.
bool EventLoop::ReadFirst(Connection* connection) {
  if (_firstReadsToLeaveOut > 0) {
    --_firstReadsToLeaveOut;
    return true;
  }
  const bool lives = connection->OnReadable(_scratch.get(), kScratchSize);
  if (lives && connection->CountReads() == 0) _firstReadsToLeaveOut = kPauseAfterVainRead;
  return lives;
}

// Connections that were read in this round already had their turn. Those that are left when the time is up come first
// in the next round.
void EventLoop::GiveTurns() {
  const auto end = Connection::Clock::now() + kRoundTime;
  TurnClock clock(TurnClock::Kind::kWork);
  size_t given = 0;
  while (given < _turns.size() && (given == 0 || Connection::Clock::now() < end)) {
    Connection* const connection = _turns[given++];
    connection->turn.isQueued = false;
    ServeTimed(connection, clock, [&] { return connection->OnTurn(); });
  }
  _turns.erase(_turns.begin(), _turns.begin() + static_cast<std::ptrdiff_t>(given));
  _turns.insert(_turns.end(), _busy.begin(), _busy.end());
  _busy.clear();
  _busy.swap(_turns);
}

// Once a second while something must be watched.
void EventLoop::Tick() {
  const auto now = Connection::Clock::now();
  _nextTick = now + std::chrono::milliseconds(kTickMilliseconds);
  _ticks = false;
  for (auto next = _connections.begin(); next != _connections.end();) {
    Connection* connection = (next++)->first;
    if (connection->IsAbandoned()) continue;
    const bool lives = Serve(connection, [&] { return connection->OnTick(now); });
    if (lives && connection->NeedsTicks()) _ticks = true;
  }
}

// While the lane has a request of it that can't be skipped, it is only abandoned, and ended by TakeBackFromLane.
void EventLoop::End(Connection* connection) {
  FreePlace(connection);  // first: whose connection is closed here may come again at once
  const auto inLane = std::find(_inLane.begin(), _inLane.end(), connection);
  if (inLane != _inLane.end()) {
    if (!connection->TrySkipInLane()) return connection->Abandon();
    _inLane.erase(inLane);
  }
  if (connection->turn.isQueued) {
    for (std::vector<Connection*>* places : {&_busy, &_turns})
      places->erase(std::remove(places->begin(), places->end(), connection), places->end());
  }
  --_count;
  _connections.erase(connection);
}

}  // namespace tavix::daemon
