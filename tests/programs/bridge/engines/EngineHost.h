#pragma once

#include <functional>
#include <memory>
#include <string>

#include "programs/bridge/engines/Engine.h"
#include "programs/bridge/engines/EventQueue.h"

namespace tavix::test {

// The other side of engines of one kind: what every engine's tests need of it.
//
// Threads: the test's main thread.
class EngineHost {
 public:
  virtual ~EngineHost() = default;

  // An engine whose link the host can fail, and one of somebody else, whose link always works.
  virtual std::unique_ptr<bridge::Engine> MakeEngine(bridge::EventQueue& events) = 0;
  virtual std::unique_ptr<bridge::Engine> MakeOther(bridge::EventQueue& events) = 0;

  // Breaks the engine's link, and lets none be made until Heal.
  virtual void Cut() = 0;
  virtual void Heal() = 0;

  // The engine's link stays, and nothing passes.
  virtual void Stall() = 0;
};

// How a suite names and makes a host. A plain value.
struct EngineKind {
  std::string name;
  std::function<std::unique_ptr<EngineHost>()> make;
};

inline void PrintTo(const EngineKind& kind, std::ostream* out) {
  *out << kind.name;
}

}  // namespace tavix::test
