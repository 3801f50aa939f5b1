#include "programs/bridge/engines/MemoryEngine.h"

#include <utility>

#include "programs/bridge/engines/EventQueue.h"
#include "programs/bridge/engines/MemoryBroker.h"

namespace tavix::bridge {

MemoryEngine::MemoryEngine(MemoryBroker& broker, const std::string& name, EventQueue& events)
    : _broker(broker), _name(name), _events(events) {}

MemoryEngine::~MemoryEngine() {
  Close();
}

Capabilities MemoryEngine::GetCapabilities() const {
  return _broker.GetCapabilities();
}

void MemoryEngine::Connect(const ConnectOptions& options) {
  Close();
  _events.Open();
  _broker.Connect(_name, options);
  _thread = std::thread(&MemoryEngine::HandOver, this);
}

void MemoryEngine::Close() {
  _events.Close();
  _broker.Close(_name);
  if (_thread.joinable()) _thread.join();
}

bool MemoryEngine::Put(const std::string& key, const std::optional<std::string>& bytes, const PutOptions& options) {
  return _broker.Put(_name, key, bytes, options);
}

void MemoryEngine::Follow(const std::vector<std::string>& prefixes, Version from) {
  _broker.Follow(_name, prefixes, from);
}

void MemoryEngine::HandOver() {
  while (std::optional<EngineEvent> event = _broker.AwaitEvent(_name)) {
    if (!_events.Push(std::move(*event))) return;
  }
}

}  // namespace tavix::bridge
