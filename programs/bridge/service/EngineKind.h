#pragma once

#include <memory>

#include "programs/bridge/config/Configuration.h"
#include "programs/bridge/core/ILocalStore.h"
#include "programs/bridge/core/IStateStore.h"
#include "programs/bridge/core/Mirror.h"
#include "programs/bridge/core/Report.h"
#include "programs/bridge/engines/Engine.h"
#include "programs/bridge/engines/EventQueue.h"

namespace tavix::bridge {

// What a mirror is made with. All outlive it. A plain value.
struct MirrorParts {
  const Rules& rules;
  Engine& engine;
  ILocalStore& local;
  IStateStore& state;
  Report& report;
};

// What tells a program of the bridge from the others: its engine, and what mirrors groups by it.
//
// Threads: any.
class EngineKind {
 public:
  virtual ~EngineKind() = default;

  EngineKind() = default;
  EngineKind(const EngineKind&) = delete;
  EngineKind& operator=(const EngineKind&) = delete;

  virtual const char* GetProgram() const = 0;  // its name
  virtual const char* GetSection() const = 0;  // of the configuration, which is the engine's name, too
  virtual bool IsConfigured(const Configuration& configuration) const = 0;

  // events: outlives the engine. Throws osa::Exception when what is configured can't be right.
  virtual std::unique_ptr<Engine> MakeEngine(const Configuration& configuration, EventQueue& events) const = 0;

  // configuration: outlives the mirror. Throws osa::Exception of the state.
  virtual std::unique_ptr<Mirror> MakeMirror(const Configuration& configuration, const MirrorParts& parts) const = 0;
};

}  // namespace tavix::bridge
