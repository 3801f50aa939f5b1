#include <algorithm>
#include <nlohmann/json.hpp>

#include "programs/bridge/core/DeviceMirror.h"
#include "programs/bridge/core/Hash.h"
#include "programs/bridge/formats/KeysJson.h"
#include "programs/common/client/Spelling.h"

// What the device publishes.
namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr std::chrono::hours kGoneExpiry(30 * 24);

bool IsMaskedCopy(const Rules& rules, const std::string& group, const Keys& keys, std::set<std::string>& masked) {
  for (const auto& [key, value] : keys) {
    if (rules.IsMasked(group, key)) masked.insert(key);
  }
  return !masked.empty();
}

}  // namespace

void DeviceMirror::Run(Milliseconds now) {
  if (!_isLocalReady) return;
  if (_isToQueue) QueueAll();
  AdvanceDocuments(now);
  Govern(now);
  if (_phase != Phase::kFollowing) return;
  AskForMissing(now);
  SendDue(now);
  SendIndex();
  SendStatus(now);
}

// Behind a new connection to the daemon nothing is known of what was missed.
void DeviceMirror::QueueAll() {
  const IniFile all = _local.Read(_rules.GetPatterns());
  for (const auto& [group, keys] : all) {
    if (_rules.Find(group) == nullptr) continue;
    const std::string topic = _topics.GetReported(group);
    _schedule.Add(topic);
  }
  for (const auto& [group, publication] : _publications.GetAll()) {
    if (!publication.isGone && !all.HasGroup(group)) _schedule.Add(_topics.GetReported(group));
  }
  for (const auto& [group, keys] : _targets.groups) _ungoverned.insert(group);
  _isToQueue = false;
}

void DeviceMirror::SendDue(Milliseconds now) {
  while (const auto topic = _schedule.Take(now)) {
    bool isSent = true;
    if (_toClear.count(*topic) > 0) {
      isSent = _engine.Put(*topic, std::nullopt, {});
      if (isSent) {
        _toClear.erase(*topic);
        _schedule.OnSent(*topic, now);
      }
    } else if (const auto group = _topics.FindReportedGroup(*topic)) {
      isSent = SendReported(*group, now);
    } else {
      isSent = SendResult(*topic, now);
    }
    if (isSent) continue;
    _schedule.Add(*topic);
    return;
  }
}

// Returns whether it is out, or nothing had to go. What differs from what was last published gets the next version.
bool DeviceMirror::SendReported(const std::string& group, Milliseconds now) {
  const IniFile settings = _local.Read({group});
  const Keys keys = settings.HasGroup(group) && _rules.Find(group) != nullptr ? settings[group] : Keys();
  std::set<std::string> masked;
  IsMaskedCopy(_rules, group, keys, masked);
  const std::string content = KeysToJson(keys, masked).dump();
  const std::string topic = _topics.GetReported(group);
  if (!keys.empty() && !Admit(group, content.size() + group.size())) return true;

  Hash hash;
  hash.Add(content);
  const Publication* last = _publications.Find(group);
  const bool isNew = last == nullptr ? !keys.empty() : last->content != hash.Get();
  if (!isNew && _forced.count(topic) == 0) return true;
  if (last == nullptr && keys.empty()) return true;
  if (isNew) last = &_publications.Advance(group, hash.Get(), keys.empty());
  PutOptions options;
  if (keys.empty()) options.expiry = kGoneExpiry;
  const std::string bytes = ComposeReported(_publications.GetEpoch(), last->version, keys, masked);
  if (!_engine.Put(topic, bytes, options)) {
    _forced.insert(topic);
    return false;
  }
  _forced.erase(topic);
  _schedule.OnSent(topic, now);
  return true;
}

bool DeviceMirror::SendResult(const std::string& topic, Milliseconds now) {
  const std::string name = topic.substr(_topics.GetResult("").size());
  const auto result = _results.find(name);
  const auto sent = _publications.FindOther(topic);
  const bool isForced = _forced.count(topic) > 0;
  PutOptions options;
  if (result == _results.end()) {
    if (!sent) return true;
    if (!_engine.Put(topic, std::nullopt, options)) return false;
    _publications.SetOther(topic, std::nullopt);
  } else {
    Hash hash;
    hash.Add(result->second);
    if (sent == hash.Get() && !isForced) return true;
    if (!_engine.Put(topic, result->second, options)) return false;
    _publications.SetOther(topic, hash.Get());
  }
  _forced.erase(topic);
  _schedule.OnSent(topic, now);
  return true;
}

// Behind everything that it is about.
void DeviceMirror::SendIndex() {
  if (!IsIdle() || (_publications.GetAll().empty() && !_foundIndex)) return;
  const std::string index = ComposeIndex(_publications.GetEpoch(), _publications.ComputeHash());
  if (_foundIndex == index || !_engine.Put(_topics.GetIndex(), index, {})) return;
  _foundIndex = index;
}

void DeviceMirror::SendStatus(Milliseconds now) {
  const std::string state = GetStatusState();
  const bool isDue = _sentStatus.empty() || state != _sentState || now - _statusAt >= _limits.statusInterval;
  if (!isDue) return;
  const std::string status = ComposeStatus(_identity.version, GetFigures(), state);
  if (status == _sentStatus) return;
  if (!_engine.Put(_topics.GetStatus(), status, {})) return;
  _sentStatus = status;
  _sentState = state;
  _statusAt = now;
}

std::string DeviceMirror::GetStatusState() const {
  const MirrorState state = GetState();
  if (state.held > 0) return "held";
  if (state.undecided > 0) return "undecided";
  return state.left > 0 ? "incomplete" : "mirroring";
}

std::map<std::string, unsigned long long> DeviceMirror::GetFigures() const {
  const Report::Counters& counters = _report.counters;
  return {
      {"groups", _admitted.size()},     {"documents", _book.GetOrigins().size()}, {"sent", counters.sent},
      {"applied", counters.applied},    {"overridden", counters.overridden},      {"refused", counters.refused},
      {"stale", counters.stale},        {"left-out", counters.leftOut},           {"unsupported", counters.unsupported},
      {"held", _guard.GetHeld().size()}};
}

bool DeviceMirror::IsIdle() const {
  return _schedule.IsIdle() && _ungoverned.empty() && !_isToQueue;
}

bool DeviceMirror::Admit(const std::string& group, size_t bytes) {
  const auto known = _admitted.find(group);
  const size_t before = known == _admitted.end() ? 0 : known->second;
  const bool isTooMuch = (known == _admitted.end() && _admitted.size() >= _limits.maxGroups) ||
                         (bytes > before && _admittedBytes - before + bytes > _limits.maxPendingBytes);
  if (isTooMuch) {
    if (_leftOut.size() < _limits.maxGroups && _leftOut.insert(group).second) {
      ++_report.counters.leftOut;
      _report.Fail("[" + programs::SpellName(group) + "] is left out: " + std::to_string(_admitted.size()) +
                   " groups of " + std::to_string(_admittedBytes) + " bytes are mirrored already");
    }
    return false;
  }
  _leftOut.erase(group);
  _admittedBytes += bytes - before;
  _admitted[group] = bytes;
  return true;
}

std::optional<Milliseconds> DeviceMirror::GetNext(Milliseconds now) const {
  std::optional<Milliseconds> next;
  const auto consider = [&next](std::optional<Milliseconds> time) {
    if (time) next = std::min(next.value_or(*time), *time);
  };
  if (!_isLocalReady) return std::nullopt;
  if (_isToQueue || !_ungoverned.empty()) return now;
  consider(_book.GetNext());
  for (const auto& [name, time] : _blocked) consider(time);
  if (_phase != Phase::kFollowing) return next;
  consider(_schedule.GetNext(now));
  consider(_statusAt + _limits.statusInterval);
  if (_syncedAt && !_isMissingAsked) consider(*_syncedAt + _limits.missingAfter);
  return next;
}

}  // namespace tavix::bridge
