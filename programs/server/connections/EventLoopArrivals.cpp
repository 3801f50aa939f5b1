#include <exception>
#include <string>
#include <utility>

#include "programs/server/connections/EventLoop.h"
#include "programs/server/connections/LogPeer.h"
#include "tavix/core/Logger.h"

// How connections come to a loop, and what their places are told.

namespace tavix::daemon {

namespace {

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("EventLoop");
  return logger;
}

}  // namespace

// One that there is no memory for is closed.
bool EventLoop::TryAdd(osa::Descriptor& descriptor) {
  try {
    osa::PlainMutexLock lock(_mutex);
    if (_syncs) return false;
    ++_count;
    _shared.counters.clients.Add();
    _new.push_back(std::move(descriptor));
  } catch (const std::exception& exception) {
    descriptor.Reset();
    Refuse(exception.what());
  }
  _poll.Wake();
  return true;
}

void EventLoop::TakeNewConnections() {
  std::vector<osa::Descriptor> descriptors;
  {
    osa::PlainMutexLock lock(_mutex);
    descriptors.swap(_new);
  }
  for (osa::Descriptor& descriptor : descriptors) {
    try {
      Peer peer(descriptor.Get());
      TakeNew(std::move(descriptor), std::move(peer));
    } catch (const std::exception& exception) {
      Refuse(exception.what());
    }
  }
}

void EventLoop::TakeAccepted(osa::Descriptor descriptor, const SocketAddress& address) noexcept {
  ++_count;
  _shared.counters.clients.Add();
  try {
    Peer peer(descriptor.Get(), address);
    TakeNew(std::move(descriptor), std::move(peer));
  } catch (const std::exception& exception) {
    Refuse(exception.what());
  }
}

// The lists get room for all connections here, so that serving them asks for no memory.
void EventLoop::TakeNew(osa::Descriptor descriptor, Peer peer) {
  for (std::vector<Connection*>* places : {&_busy, &_turns, &_inLane}) {
    if (places->capacity() <= _connections.size()) places->reserve(2 * _connections.size() + 1);
  }
  auto connection = std::make_unique<Connection>(std::move(peer), std::move(descriptor), _poll.GetDescriptor(),
                                                 _poll.GetWakeDescriptor(), _shared);
  connection->turn.lastServed = _round;  // those that wait already come first
  Connection* const key = connection.get();
  _connections.emplace(key, std::move(connection));
  _newest = key;
}

// A line that can't be written for want of memory is left out.
void EventLoop::Refuse(const char* reason) noexcept {
  static const std::string anybody = "all peers";
  const LogPeer peer(anybody);
  _shared.counters.Count(Refusal::kSetup);
  --_count;
  FreeOnePlace();
  try {
    Log()->Warning("Connection refused: %s", reason);
  } catch (const std::exception&) {
  }
}

void EventLoop::FreePlace(Connection* connection) {
  if (std::exchange(connection->hasPlace, false)) FreeOnePlace();
}

void EventLoop::FreeOnePlace() {
  if (_shared.places) _shared.places->Free();
  _shared.counters.clients.Subtract();
}

}  // namespace tavix::daemon
