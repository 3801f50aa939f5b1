#pragma once

#include <memory>
#include <vector>

#include "tests/programs/bridge/engines/EngineHost.h"
#include "tests/programs/bridge/engines/MemoryHost.h"
#ifdef TAVIX_HAS_ETCD
#include "tests/programs/bridge/engines/EtcdHost.h"
#endif
#ifdef TAVIX_HAS_MQTT
#include "tests/programs/bridge/engines/MqttHost.h"
#endif

namespace tavix::test {

// A store in memory that can do what a broker of MQTT can, and one that can do what a cluster of etcd can.
inline EngineKind MakeMemoryKind(const char* name, bridge::Capabilities capabilities) {
  return {name, [=] { return std::make_unique<MemoryHost>(capabilities); }};
}

inline std::vector<EngineKind> ComparingEngines() {
  std::vector<EngineKind> kinds{MakeMemoryKind("Memory", {true, true})};
#ifdef TAVIX_HAS_ETCD
  kinds.push_back({"Etcd", [] { return std::make_unique<EtcdHost>(); }});
#endif
  return kinds;
}

inline std::vector<EngineKind> ResumableEngines() {
  return ComparingEngines();
}

inline std::vector<EngineKind> AllEngines() {
  std::vector<EngineKind> kinds = ComparingEngines();
  kinds.push_back(MakeMemoryKind("PlainMemory", {false, false}));
#ifdef TAVIX_HAS_MQTT
  kinds.push_back({"Mqtt", [] { return std::make_unique<MqttHost>(); }});
#endif
  return kinds;
}

}  // namespace tavix::test
