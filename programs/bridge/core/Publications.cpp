#include "programs/bridge/core/Publications.h"

#include <utility>
#include <vector>

#include "programs/bridge/core/Hash.h"

namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr char kHead[] = "head";
constexpr char kVersion[] = "version";
constexpr char kContent[] = "content";
constexpr char kGone[] = "gone";
constexpr char kEpoch[] = "epoch";
constexpr char kGroupPrefix = 'g';
constexpr char kOtherPrefix = 'o';

std::uint64_t NumberOf(const IniFile& record, const char* key) {
  return std::stoull("0" + record.GetValueOrDefault(kHead, key));
}

}  // namespace

Publications::Publications(IStateStore& store, const std::string& newEpoch) : _store(store) {
  _store.Load(StateKind::kMeta, [this](const std::string& key, const IniFile& record) {
    if (key == kEpoch) _epoch = record.GetValueOrDefault(kHead, kEpoch);
  });
  _store.Load(StateKind::kReported, [this](const std::string& key, const IniFile& record) {
    if (key.at(0) == kGroupPrefix) {
      _groups[key.substr(1)] = {NumberOf(record, kVersion), NumberOf(record, kContent), record.HasValue(kHead, kGone)};
    } else {
      _others[key.substr(1)] = NumberOf(record, kContent);
    }
  });
  if (!_epoch.empty()) return;
  _epoch = newEpoch;
  _isEpochDue = true;
}

// The epoch is kept with what is first kept of it.
void Publications::Commit(std::vector<StateRecord> records) {
  if (_isEpochDue) {
    IniFile record;
    record.SetValue(kHead, kEpoch, _epoch);
    records.push_back({StateKind::kMeta, kEpoch, record});
  }
  if (records.empty()) return;
  _store.Commit(records);
  _isEpochDue = false;
}

const Publication* Publications::Find(const std::string& group) const {
  const auto found = _groups.find(group);
  return found == _groups.end() ? nullptr : &found->second;
}

const Publication& Publications::Advance(const std::string& group, std::uint64_t content, bool isGone) {
  const Publication* last = Find(group);
  const Publication next{(last == nullptr ? 0 : last->version) + 1, content, isGone};
  IniFile record;
  record.SetValue(kHead, kVersion, std::to_string(next.version));
  record.SetValue(kHead, kContent, std::to_string(next.content));
  if (isGone) record.SetValue(kHead, kGone, "1");
  Commit({{StateKind::kReported, kGroupPrefix + group, record}});
  return _groups[group] = next;
}

std::uint64_t Publications::ComputeHash() const {
  Hash hash;
  for (const auto& [group, publication] : _groups) {
    hash.Add(group);
    hash.Add(std::to_string(publication.version));
  }
  return hash.Get();
}

std::optional<std::uint64_t> Publications::FindOther(const std::string& topic) const {
  const auto found = _others.find(topic);
  if (found == _others.end()) return std::nullopt;
  return found->second;
}

void Publications::SetOthers(const std::map<std::string, std::optional<std::uint64_t>>& contents) {
  std::vector<StateRecord> records;
  for (const auto& [topic, content] : contents) {
    records.push_back({StateKind::kReported, kOtherPrefix + topic, std::nullopt});
    if (!content) continue;
    records.back().value.emplace();
    records.back().value->SetValue(kHead, kContent, std::to_string(*content));
  }
  Commit(std::move(records));
  for (const auto& [topic, content] : contents) {
    if (content) {
      _others[topic] = *content;
    } else {
      _others.erase(topic);
    }
  }
}

}  // namespace tavix::bridge
