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
constexpr char kLate[] = "late ";
constexpr char kLateGone[] = "late-gone ";
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

const char* NameOf(Intent::Where where) {
  if (where == Intent::Where::kNowhere) return "nowhere";
  return where == Intent::Where::kCentre ? "centre" : "device";
}

Intent::Where WhereOf(const std::string& name) {
  if (name == NameOf(Intent::Where::kNowhere)) return Intent::Where::kNowhere;
  return name == NameOf(Intent::Where::kCentre) ? Intent::Where::kCentre : Intent::Where::kDevice;
}

IniFile MakeRecord(const Intent& intent) {
  IniFile record;
  record.SetValue(kHead, kWhere, NameOf(intent.where));
  if (!intent.before.empty()) record[kBefore] = intent.before;
  if (!intent.after.empty()) record[kAfter] = intent.after;
  for (size_t i = 0; i < intent.late.size(); ++i) {
    for (const auto& [key, value] : intent.late[i])
      record.SetValue((value ? kLate : kLateGone) + std::to_string(i), key, value.value_or(""));
  }
  return record;
}

Intent ReadIntent(const IniFile& record) {
  Intent intent{WhereOf(record.GetValueOrDefault(kHead, kWhere)), KeysOf(record, kBefore), KeysOf(record, kAfter)};
  while (true) {
    const std::string number = std::to_string(intent.late.size());
    KeyChanges changes;
    for (const auto& [key, value] : KeysOf(record, kLate + number)) changes[key] = value;
    for (const auto& [key, value] : KeysOf(record, kLateGone + number)) changes[key] = std::nullopt;
    if (changes.empty()) return intent;
    intent.late.push_back(std::move(changes));
  }
}

}  // namespace

SharedState::SharedState(IStateStore& store) : _store(store) {
  _store.Load(StateKind::kAgreed, [this](const std::string& group, const IniFile& record) {
    _agreed[group] = {KeysOf(record, kKeys), VersionOf(record), !record.HasValue(kHead, kGone), HiddenOf(record),
                      KeysOf(record, kKept)};
    if (!_agreed[group].kept.empty()) ++_keeping;
  });
  _store.Load(StateKind::kIntent,
              [this](const std::string& group, const IniFile& record) { _intents[group] = ReadIntent(record); });
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

void SharedState::SetAgreed(const std::string& group, const AgreedGroup& agreed, const std::vector<KeyChanges>& late) {
  Add(StateKind::kAgreed, group, agreed.IsEmpty() ? std::nullopt : std::optional<IniFile>(MakeRecord(agreed)));
  _newAgreed[group] = agreed;
  if (!late.empty()) return SetIntent(group, {Intent::Where::kNowhere, {}, {}, late});
  Add(StateKind::kIntent, group, std::nullopt);
  _newIntents.erase(group);
}

void SharedState::SetIntent(const std::string& group, const Intent& intent) {
  Add(StateKind::kIntent, group, MakeRecord(intent));
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
    const AgreedGroup* before = FindAgreed(group);
    if (before != nullptr && !before->kept.empty()) --_keeping;
    if (!state.kept.empty()) ++_keeping;
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
