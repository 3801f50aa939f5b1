#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "programs/bridge/core/ILocalStore.h"
#include "programs/bridge/core/IStateStore.h"
#include "tavix/settings/IChangeCallback.h"
#include "tests/support/ServedStore.h"

// What the core of a bridge has of its device: the disk and the store.
namespace tavix::test {

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
    if (isFull) throw osa::Exception("Failed to write the state: the disk is full");
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

  // What is kept is gone, as when the file was damaged.
  void Lose() { _records.clear(); }

  size_t commits = 0;
  bool isFull = false;  // nothing can be kept

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
    ++reads;
    if (beforeRead && namesAndPatterns.size() == 1) std::exchange(beforeRead, nullptr)();
    settings::common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(namesAndPatterns);
    core::IniFile settings;
    _served.store.GetGroups(settings, matcher);
    return settings;
  }

  core::IniFile ReadUsers(const std::set<std::string>& groups) override {
    core::IniFile users;
    _served.store.ReadUserSettings([&](const settings::server::LayerView& layer) {
      for (const std::string& group : groups) {
        if (const auto* const keys = layer.FindKeys(group)) users[group] = *keys;
      }
    });
    return users;
  }

  bool Amend(const settings::Amendment& amendment) override {
    if (beforeAmend) std::exchange(beforeAmend, nullptr)();
    _life.Step();
    const bool isDone = !isRefusing && _served.store.Amend(amendment);
    ++amends;
    if (std::exchange(isKillingAfterAmend, false)) throw Killed();
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

  // The defaults of another firmware.
  void SetDefaults(const std::string& defaults) {
    _served.persister.SetDefaults({defaults});
    _served.store.LoadSettings();
  }

  bridge::Keys Get(const std::string& group) {
    const core::IniFile settings = Read({group});
    return settings.HasGroup(group) ? settings[group] : bridge::Keys();
  }

  std::set<std::string> TakeChanged() { return std::exchange(_changed, {}); }

  bool canRemove = true;
  bool isRefusing = false;  // as a store does that is full
  size_t amends = 0;
  size_t reads = 0;
  bool isKillingAfterAmend = false;   // the next amendment is the last thing that the process does
  std::function<void()> beforeAmend;  // runs once: a neighbour that is faster
  std::function<void()> beforeRead;   // likewise, before one group or pattern is read

 private:
  void OnChange(const std::set<std::string>& changedGroups, const core::IniFile&) override {
    _changed.insert(changedGroups.begin(), changedGroups.end());
  }

  Life& _life;
  ServedStore _served;
  std::set<std::string> _changed;
};

}  // namespace tavix::test
