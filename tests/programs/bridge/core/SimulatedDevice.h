#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "programs/bridge/core/ILocalStore.h"
#include "programs/bridge/core/IStateStore.h"
#include "programs/bridge/core/Link.h"
#include "programs/bridge/core/Mirror.h"
#include "programs/bridge/core/Report.h"
#include "programs/bridge/engines/EventQueue.h"
#include "programs/bridge/engines/MemoryBroker.h"
#include "programs/bridge/engines/MemoryEngine.h"
#include "tavix/settings/IChangeCallback.h"
#include "tests/support/ServedStore.h"

// A device with a store and the core of a bridge, and a clock that the test moves.
namespace tavix::test {

using bridge::Milliseconds;

// The process ends here, as by kill -9.
struct Killed {};

// How many steps a process still has; the disk and the daemon count them.
class Life {
 public:
  void EndIn(size_t steps) { _left = steps; }
  void Step() {
    if (_left && (*_left)-- == 0) {
      _left.reset();
      throw Killed();
    }
  }

 private:
  std::optional<size_t> _left;
};

class MemoryState : public bridge::IStateStore {
 public:
  explicit MemoryState(Life& life) : _life(life) {}

  void Load(bridge::StateKind kind, const Take& take) override {
    for (const auto& [place, value] : _records) {
      if (place.first == kind) take(place.second, value);
    }
  }

  void Commit(const std::vector<bridge::StateRecord>& records) override {
    _life.Step();
    for (const bridge::StateRecord& record : records) {
      if (record.value) {
        _records[{record.kind, record.key}] = *record.value;
      } else {
        _records.erase({record.kind, record.key});
      }
    }
    ++commits;
    _life.Step();
  }

  size_t commits = 0;

 private:
  Life& _life;
  std::map<std::pair<bridge::StateKind, std::string>, core::IniFile> _records;
};

// A store as the daemon serves it.
class StoreOfDevice : public bridge::ILocalStore, private settings::IChangeCallback {
 public:
  explicit StoreOfDevice(Life& life, const std::string& defaults = "") : _life(life), _served({defaults}) {
    _served.store.Subscribe(this, "*");
  }
  ~StoreOfDevice() override { _served.store.Unsubscribe(this); }

  bool CanRemove() const override { return canRemove; }

  core::IniFile Read(const std::set<std::string>& namesAndPatterns) override {
    settings::common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(namesAndPatterns);
    core::IniFile settings;
    _served.store.GetGroups(settings, matcher);
    return settings;
  }

  bool Amend(const settings::Amendment& amendment) override {
    if (beforeAmend) std::exchange(beforeAmend, nullptr)();
    _life.Step();
    const bool isDone = _served.store.Amend(amendment);
    ++amends;
    _life.Step();
    return isDone;
  }

  // What other processes of the device do.
  void Set(const std::string& group, const std::string& key, const std::string& value) {
    settings::Amendment amendment;
    amendment.set.SetValue(group, key, value);
    (void)_served.store.Amend(amendment);
  }
  void Unset(const std::string& group, const std::string& key) {
    settings::Amendment amendment;
    amendment.unset.SetValue(group, key, "");
    (void)_served.store.Amend(amendment);
  }
  void Delete(const std::string& group) { _served.store.OverwriteSettings({group}, core::IniFile()); }

  bridge::Keys Get(const std::string& group) {
    const core::IniFile settings = Read({group});
    return settings.HasGroup(group) ? settings[group] : bridge::Keys();
  }

  std::set<std::string> TakeChanged() { return std::exchange(_changed, {}); }

  bool canRemove = true;
  size_t amends = 0;
  std::function<void()> beforeAmend;  // runs once: a neighbour that is faster

 private:
  void OnChange(const std::set<std::string>& changedGroups, const core::IniFile&) override {
    _changed.insert(changedGroups.begin(), changedGroups.end());
  }

  Life& _life;
  ServedStore _served;
  std::set<std::string> _changed;
};

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
    mirror = _make(*this);
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
      Drain();
      for (; !_events.empty(); _events.pop_front()) {
        link->OnEvent(_events.front(), now);
        mirror->OnEvent(_events.front(), now);
      }
      const auto changed = store.TakeChanged();
      if (!changed.empty()) mirror->OnLocalChanged(changed);
      link->Run(mirror->GetConnectOptions(), now);
      mirror->Run(now);
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
