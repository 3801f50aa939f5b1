#pragma once

#include <string>
#include <thread>
#include <vector>

#include "programs/bridge/engines/Engine.h"

namespace tavix::bridge {

class EventQueue;
class MemoryBroker;

// A client of a MemoryBroker, for tests.
//
// Threads: as every engine's.
// Owns:    nothing; broker and queue outlive it.
class MemoryEngine : public Engine {
 public:
  // name: what the broker calls it; one engine of a name at a time.
  MemoryEngine(MemoryBroker& broker, const std::string& name, EventQueue& events);
  ~MemoryEngine() override;

  Capabilities GetCapabilities() const override;
  void Connect(const ConnectOptions& options) override;
  void Close() override;
  bool Put(const std::string& key, const std::optional<std::string>& bytes, const PutOptions& options) override;
  void Follow(const std::vector<std::string>& prefixes, Version from) override;

 private:
  void HandOver();

  MemoryBroker& _broker;
  const std::string _name;
  EventQueue& _events;
  std::thread _thread;
};

}  // namespace tavix::bridge
