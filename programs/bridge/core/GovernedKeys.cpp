#include "programs/bridge/core/GovernedKeys.h"

#include <vector>

namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr char kLevel[] = "level";
constexpr char kDocument[] = "document";
constexpr char kEpoch[] = "epoch";
constexpr char kVersion[] = "version";
constexpr char kShown[] = "shown";
constexpr char kOverridden[] = "overridden";

IniFile MakeRecord(const GovernedKeys::Group& group) {
  IniFile record;
  for (const auto& [key, governed] : group) {
    IniFile::KeyMap& keys = record[key];
    keys[kLevel] = std::to_string(static_cast<int>(governed.origin.document.level));
    keys[kDocument] = governed.origin.document.name;
    keys[kEpoch] = governed.origin.epoch;
    keys[kVersion] = std::to_string(governed.origin.version);
    if (governed.shown) keys[kShown] = *governed.shown;
    if (governed.isOverridden) keys[kOverridden] = std::to_string(1);
  }
  return record;
}

GovernedKey ReadRecord(const IniFile& record, const std::string& key) {
  GovernedKey governed;
  governed.origin.document.level = static_cast<Level>(record.GetIntOrDefault(key, kLevel, 0));
  governed.origin.document.name = record.GetValueOrDefault(key, kDocument);
  governed.origin.epoch = record.GetValueOrDefault(key, kEpoch);
  governed.origin.version = std::stoull("0" + record.GetValueOrDefault(key, kVersion));
  if (record.HasValue(key, kShown)) governed.shown = record.GetValue(key, kShown);
  governed.isOverridden = record.HasValue(key, kOverridden);
  return governed;
}

}  // namespace

GovernedKeys::GovernedKeys(IStateStore& store) : _store(store) {
  _store.Load(StateKind::kGoverned, [this](const std::string& group, const IniFile& record) {
    for (const auto& [key, values] : record) _groups[group][key] = ReadRecord(record, key);
  });
}

const GovernedKey* GovernedKeys::Find(const std::string& group, const std::string& key) const {
  const auto keys = _groups.find(group);
  if (keys == _groups.end()) return nullptr;
  const auto found = keys->second.find(key);
  return found == keys->second.end() ? nullptr : &found->second;
}

void GovernedKeys::Set(const std::string& group, const std::string& key, const GovernedKey& governed) {
  _groups[group][key] = governed;
  _changed.insert(group);
}

void GovernedKeys::Remove(const std::string& group, const std::string& key) {
  const auto keys = _groups.find(group);
  if (keys == _groups.end() || keys->second.erase(key) == 0) return;
  if (keys->second.empty()) _groups.erase(keys);
  _changed.insert(group);
}

void GovernedKeys::Commit() {
  if (_changed.empty()) return;
  std::vector<StateRecord> records;
  for (const std::string& group : _changed) {
    const auto keys = _groups.find(group);
    records.push_back({StateKind::kGoverned, group,
                       keys == _groups.end() ? std::nullopt : std::optional<IniFile>(MakeRecord(keys->second))});
  }
  _store.Commit(records);
  _changed.clear();
}

}  // namespace tavix::bridge
