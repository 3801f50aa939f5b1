#include "programs/bridge/core/GovernedKeys.h"

#include <vector>

#include "programs/common/client/Join.h"

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

constexpr char kHead[] = "TavixSettings/Head";  // among the names of groups: one that is never mirrored
constexpr char kPresent[] = "=";
constexpr char kAbsent[] = "-";

std::string SpellDocument(const DocumentName& document) {
  return programs::Join({std::to_string(static_cast<int>(document.level)), "/", document.name});
}

// A mark stands before each value, as a key may have had none.
IniFile MakeIntentRecord(const StepIntent& intent) {
  IniFile record;
  record.SetValue(kHead, kEpoch, intent.epoch);
  record.SetValue(kHead, kVersion, std::to_string(intent.version));
  for (const auto& [group, keys] : intent.before) {
    for (const auto& [key, value] : keys) record.SetValue(group, key, value ? kPresent + *value : kAbsent);
  }
  return record;
}

StepIntent ReadIntentRecord(const IniFile& record) {
  StepIntent intent;
  intent.epoch = record.GetValueOrDefault(kHead, kEpoch);
  intent.version = std::stoull("0" + record.GetValueOrDefault(kHead, kVersion));
  for (const auto& [group, keys] : record) {
    if (group == kHead) continue;
    for (const auto& [key, value] : keys) {
      if (value.empty()) continue;
      intent.before[group][key] = value[0] == kPresent[0] ? std::optional<std::string>(value.substr(1)) : std::nullopt;
    }
  }
  return intent;
}

}  // namespace

GovernedKeys::GovernedKeys(IStateStore& store) : _store(store) {
  _store.Load(StateKind::kIntent, [this](const std::string& document, const IniFile& record) {
    _intents[document] = ReadIntentRecord(record);
  });
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

const StepIntent* GovernedKeys::FindIntent(const DocumentName& document) const {
  const auto found = _intents.find(SpellDocument(document));
  return found == _intents.end() ? nullptr : &found->second;
}

void GovernedKeys::SetIntent(const DocumentName& document, const StepIntent& intent) {
  _intents[SpellDocument(document)] = intent;
  _changedIntents.insert(SpellDocument(document));
}

void GovernedKeys::RemoveIntent(const DocumentName& document) {
  if (_intents.erase(SpellDocument(document)) > 0) _changedIntents.insert(SpellDocument(document));
}

void GovernedKeys::Commit() {
  std::vector<StateRecord> records;
  for (const std::string& group : _changed) {
    const auto keys = _groups.find(group);
    records.push_back({StateKind::kGoverned, group,
                       keys == _groups.end() ? std::nullopt : std::optional<IniFile>(MakeRecord(keys->second))});
  }
  for (const std::string& document : _changedIntents) {
    const auto intent = _intents.find(document);
    records.push_back(
        {StateKind::kIntent, document,
         intent == _intents.end() ? std::nullopt : std::optional<IniFile>(MakeIntentRecord(intent->second))});
  }
  if (records.empty()) return;
  _store.Commit(records);
  _changed.clear();
  _changedIntents.clear();
}

}  // namespace tavix::bridge
