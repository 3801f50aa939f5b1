#include "programs/bridge/core/Publications.h"

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
  IniFile record;
  record.SetValue(kHead, kEpoch, newEpoch);
  _store.Commit({{StateKind::kMeta, kEpoch, record}});
  _epoch = newEpoch;
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
  _store.Commit({{StateKind::kReported, kGroupPrefix + group, record}});
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

void Publications::SetOther(const std::string& topic, std::optional<std::uint64_t> content) {
  StateRecord record{StateKind::kReported, kOtherPrefix + topic, std::nullopt};
  if (content) {
    record.value.emplace();
    record.value->SetValue(kHead, kContent, std::to_string(*content));
  }
  _store.Commit({record});
  if (content) {
    _others[topic] = *content;
  } else {
    _others.erase(topic);
  }
}

}  // namespace tavix::bridge
