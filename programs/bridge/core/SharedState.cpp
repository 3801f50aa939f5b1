#include "programs/bridge/core/SharedState.h"

#include <tuple>
#include <utility>

namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr char kHead[] = "head";
constexpr char kVersion[] = "version";
constexpr char kKeys[] = "keys";
constexpr char kGone[] = "gone";
constexpr char kHiddenValues[] = "hidden";
constexpr char kMasked[] = "masked";
constexpr char kKept[] = "kept";
constexpr char kWhere[] = "where";
constexpr char kBefore[] = "before";
constexpr char kAfter[] = "after";
constexpr char kFollowed[] = "followed";
constexpr char kSource[] = "source";

Keys KeysOf(const IniFile& record, const std::string& name) {
  return record.HasGroup(name) ? record[name] : Keys();
}

Version VersionOf(const IniFile& record) {
  return std::stoull("0" + record.GetValueOrDefault(kHead, kVersion));
}

HiddenKeys HiddenOf(const IniFile& record) {
  HiddenKeys hidden;
  for (const auto& [key, value] : KeysOf(record, kHiddenValues)) hidden[key] = value;
  for (const auto& [key, value] : KeysOf(record, kMasked)) hidden[key] = std::nullopt;
  return hidden;
}

IniFile MakeRecord(const AgreedGroup& agreed) {
  IniFile record;
  record.SetValue(kHead, kVersion, std::to_string(agreed.version));
  if (!agreed.isThere) record.SetValue(kHead, kGone, "1");
  if (!agreed.keys.empty()) record[kKeys] = agreed.keys;
  if (!agreed.kept.empty()) record[kKept] = agreed.kept;
  for (const auto& [key, value] : agreed.hidden) {
    record.SetValue(value ? kHiddenValues : kMasked, key, value.value_or(""));
  }
  return record;
}

}  // namespace

SharedState::SharedState(IStateStore& store) : _store(store) {
  _store.Load(StateKind::kAgreed, [this](const std::string& group, const IniFile& record) {
    _agreed[group] = {KeysOf(record, kKeys), VersionOf(record), !record.HasValue(kHead, kGone), HiddenOf(record),
                      KeysOf(record, kKept)};
  });
  _store.Load(StateKind::kIntent, [this](const std::string& group, const IniFile& record) {
    const bool isCentre = record.GetValueOrDefault(kHead, kWhere) == "centre";
    _intents[group] = {isCentre ? Intent::Where::kCentre : Intent::Where::kDevice, KeysOf(record, kBefore),
                       KeysOf(record, kAfter)};
  });
  _store.Load(StateKind::kMeta, [this](const std::string& key, const IniFile& record) {
    if (key != kFollowed) return;
    _source = record.GetValueOrDefault(kHead, kSource);
    _followed = VersionOf(record);
  });
}

const AgreedGroup* SharedState::FindAgreed(const std::string& group) const {
  const auto found = _agreed.find(group);
  return found == _agreed.end() ? nullptr : &found->second;
}

const Intent* SharedState::FindIntent(const std::string& group) const {
  const auto found = _intents.find(group);
  return found == _intents.end() ? nullptr : &found->second;
}

void SharedState::SetAgreed(const std::string& group, const AgreedGroup& agreed) {
  Add(StateKind::kAgreed, group, agreed.IsEmpty() ? std::nullopt : std::optional<IniFile>(MakeRecord(agreed)));
  Add(StateKind::kIntent, group, std::nullopt);
  _newAgreed[group] = agreed;
}

void SharedState::SetIntent(const std::string& group, const Intent& intent) {
  IniFile record;
  record.SetValue(kHead, kWhere, intent.where == Intent::Where::kCentre ? "centre" : "device");
  if (!intent.before.empty()) record[kBefore] = intent.before;
  if (!intent.after.empty()) record[kAfter] = intent.after;
  Add(StateKind::kIntent, group, record);
  _newIntents[group] = intent;
}

void SharedState::SetFollowed(const std::string& source, Version version) {
  IniFile record;
  record.SetValue(kHead, kSource, source);
  record.SetValue(kHead, kVersion, std::to_string(version));
  Add(StateKind::kMeta, kFollowed, record);
  _newFollowed = {source, version};
}

void SharedState::Add(StateKind kind, const std::string& key, std::optional<IniFile> value) {
  _records.push_back({kind, key, std::move(value)});
}

void SharedState::Commit() {
  const auto records = std::exchange(_records, {});
  auto agreed = std::exchange(_newAgreed, {});
  auto intents = std::exchange(_newIntents, {});
  const auto followed = std::exchange(_newFollowed, std::nullopt);
  if (records.empty()) return;
  _store.Commit(records);

  for (auto& [group, state] : agreed) {
    _intents.erase(group);
    if (state.IsEmpty()) {
      _agreed.erase(group);
    } else {
      _agreed[group] = std::move(state);
    }
  }
  for (auto& [group, intent] : intents) _intents[group] = std::move(intent);
  if (followed) std::tie(_source, _followed) = *followed;
}

}  // namespace tavix::bridge
