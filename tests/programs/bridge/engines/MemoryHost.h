#pragma once

#include <memory>

#include "programs/bridge/engines/MemoryBroker.h"
#include "programs/bridge/engines/MemoryEngine.h"
#include "tests/programs/bridge/engines/EngineHost.h"

namespace tavix::test {

class MemoryHost : public EngineHost {
 public:
  explicit MemoryHost(bridge::Capabilities capabilities) : _broker(capabilities) {}

  std::unique_ptr<bridge::Engine> MakeEngine(bridge::EventQueue& events) override {
    return std::make_unique<bridge::MemoryEngine>(_broker, "engine", events);
  }
  std::unique_ptr<bridge::Engine> MakeOther(bridge::EventQueue& events) override {
    return std::make_unique<bridge::MemoryEngine>(_broker, "other", events);
  }
  void Cut() override { _broker.Cut("engine"); }
  void Heal() override { _broker.Heal("engine"); }
  void Stall() override { _broker.Stall("engine"); }

  bridge::MemoryBroker& GetBroker() { return _broker; }

 private:
  bridge::MemoryBroker _broker;
};

}  // namespace tavix::test
