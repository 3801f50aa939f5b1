#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "programs/bridge/core/Link.h"
#include "programs/bridge/core/Mirror.h"
#include "programs/bridge/core/Report.h"
#include "programs/bridge/engines/EventQueue.h"
#include "programs/bridge/engines/MemoryBroker.h"
#include "programs/bridge/engines/MemoryEngine.h"
#include "tests/programs/bridge/core/SimulatedStore.h"

// A device with a store and the core of a bridge, and a clock that the test moves.
namespace tavix::test {

using bridge::Milliseconds;

// A device whose bridge runs, or does not.
class SimulatedDevice {
 public:
  using MakeMirror = std::function<std::unique_ptr<bridge::Mirror>(SimulatedDevice&)>;

  SimulatedDevice(bridge::MemoryBroker& broker, const std::string& name, const bridge::Rules& ruled,
                  const bridge::Limits& limited, MakeMirror make, const std::string& defaults = "")
      : store(life, defaults),
        state(life),
        limits(limited),
        rules(ruled),
        _broker(broker),
        _name(name),
        _make(std::move(make)) {}

  ~SimulatedDevice() { Kill(); }

  bool IsRunning() const { return mirror != nullptr; }

  void Start() {
    engine = std::make_unique<bridge::MemoryEngine>(_broker, _name, queue);
    report = std::make_unique<bridge::Report>(
        limits, rules, [this](bridge::Severity, const std::string& line) { log.push_back(line); });
    link = std::make_unique<bridge::Link>(limits, *engine, ++_starts * 7919 + _name.size());
    mirror = _make(*this);  // nothing is written by that
    (void)store.TakeChanged();
    mirror->OnLocalReady();
  }

  void Kill() {
    if (report) {
      conflicts.insert(conflicts.end(), report->GetConflicts().begin(), report->GetConflicts().end());
      counted += report->counters.overridden;
    }
    mirror.reset();
    link.reset();
    report.reset();
    engine.reset();
    _events.clear();
  }

  // Takes what came, so that the queue is never full.
  void Drain() {
    while (auto event = queue.TryPop()) _events.push_back(std::move(*event));
  }

  // What a loop of the program does in one round. Ends the bridge when its life ends.
  void Step(Milliseconds now) {
    if (!IsRunning()) return;
    try {
      HandOver(now);
      link->Run(mirror->GetConnectOptions(), now);
      RunMirror(now);
    } catch (const Killed&) {
      Kill();
    }
  }

  Life life;
  StoreOfDevice store;
  MemoryState state;
  const bridge::Limits limits;
  const bridge::Rules rules;
  std::vector<std::string> log;
  std::vector<bridge::Conflict> conflicts;  // of bridges that were killed
  unsigned long long counted = 0;           // values that lost, likewise

  bridge::EventQueue queue;
  std::unique_ptr<bridge::MemoryEngine> engine;
  std::unique_ptr<bridge::Report> report;
  std::unique_ptr<bridge::Link> link;
  std::unique_ptr<bridge::Mirror> mirror;

 private:
  void HandOver(Milliseconds now) {
    Drain();
    for (; !_events.empty(); _events.pop_front()) {
      link->OnEvent(_events.front(), now);
      mirror->OnEvent(_events.front(), now);
    }
    const auto changed = store.TakeChanged();
    if (!changed.empty()) mirror->OnLocalChanged(changed);
  }

  // Until the mirror waits for something. One that never does would take all of a processor.
  void RunMirror(Milliseconds now) {
    constexpr int kMaxRounds = 20;
    for (int round = 0; round < kMaxRounds; ++round) {
      mirror->Run(now);
      const auto next = mirror->GetNext(now);
      if (!next || *next > now) return;
      const auto changed = store.TakeChanged();
      if (!changed.empty()) mirror->OnLocalChanged(changed);
    }
    ADD_FAILURE() << "The mirror of " << _name << " is never done, though nothing happens";
  }

  bridge::MemoryBroker& _broker;
  const std::string _name;
  const MakeMirror _make;
  uint64_t _starts = 0;
  std::deque<bridge::EngineEvent> _events;
};

// Several devices at one broker, and their common clock.
class Simulation {
 public:
  explicit Simulation(bridge::MemoryBroker& broker) : _broker(broker) {}

  void Add(SimulatedDevice& device) { _devices.push_back(&device); }

  void Step(Milliseconds time = Milliseconds(50)) {
    now += time;
    for (SimulatedDevice* device : _devices) {
      AwaitEvents();
      device->Step(now);
    }
  }

  // Until no device has anything to do; false: that took too long.
  bool RunUntilInSync(int maxSteps = 40'000) {
    for (int quiet = 0, steps = 0; steps < maxSteps; ++steps) {
      Step();
      bool isInSync = true;
      for (SimulatedDevice* device : _devices) {
        isInSync = isInSync && device->IsRunning() && device->mirror->GetState().isInSync;
      }
      quiet = isInSync ? quiet + 1 : 0;
      if (quiet == 5) return true;
    }
    return false;
  }

  Milliseconds now{0};

 private:
  void AwaitEvents() {
    while (!_broker.IsQuiet()) {
      for (SimulatedDevice* device : _devices) device->Drain();
      std::this_thread::yield();
    }
  }

  bridge::MemoryBroker& _broker;
  std::vector<SimulatedDevice*> _devices;
};

}  // namespace tavix::test
