#pragma once

#include <memory>
#include <vector>

#include "tests/programs/bridge/engines/EngineHost.h"
#include "tests/programs/bridge/engines/MemoryHost.h"

namespace tavix::test {

// A store in memory that can do what a broker of MQTT can, and one that can do what a cluster of etcd can.
inline EngineKind MakeMemoryKind(const char* name, bridge::Capabilities capabilities) {
  return {name, [=] { return std::make_unique<MemoryHost>(capabilities); }};
}

inline std::vector<EngineKind> ComparingEngines() {
  return {MakeMemoryKind("Memory", {true, true})};
}

inline std::vector<EngineKind> ResumableEngines() {
  return ComparingEngines();
}

inline std::vector<EngineKind> AllEngines() {
  std::vector<EngineKind> kinds = ComparingEngines();
  kinds.push_back(MakeMemoryKind("PlainMemory", {false, false}));
  return kinds;
}

}  // namespace tavix::test
