#include "programs/bridge/core/SharedGroups.h"

#include <algorithm>
#include <utility>
#include <variant>

#include "programs/bridge/formats/SharedGroup.h"
#include "programs/common/client/Spelling.h"

// What is reported to the mirror. What follows from it is in SharedGroupsWork.cpp.
namespace tavix::bridge {

SharedGroups::SharedGroups(const Rules& rules, const Limits& limits, const std::string& prefix, Engine& engine,
                           ILocalStore& local, IStateStore& state, Report& report, uint64_t seed)
    : _rules(rules),
      _limits(limits),
      _prefix(prefix + "/"),
      _engine(engine),
      _local(local),
      _report(report),
      _state(state),
      _guard(limits),
      _schedule(limits),
      _random(seed) {
  for (const auto& [group, agreed] : _state.GetAgreed()) Admit(group, agreed.keys);
}

ConnectOptions SharedGroups::GetConnectOptions() const {
  ConnectOptions options;
  options.source = _state.GetSource();
  return options;
}

void SharedGroups::OnEvent(const EngineEvent& event, Milliseconds now) {
  if (const auto* connected = std::get_if<Connected>(&event)) OnConnected(*connected);
  if (std::holds_alternative<Lost>(event)) OnLost();
  if (const auto* item = std::get_if<Item>(&event)) OnItem(*item, now);
  if (const auto* synced = std::get_if<Synced>(&event)) OnSynced(*synced);
  if (const auto* done = std::get_if<PutDone>(&event)) OnPutDone(*done, now);
}

void SharedGroups::OnConnected(const Connected& connected) {
  _isLinked = true;
  _isSynced = false;
  _seen.clear();
  _source = connected.source;
  const bool isResumed = connected.isResumed && connected.source == _state.GetSource();
  _followed = isResumed ? _state.GetFollowed() : 0;
  _engine.Follow({_prefix}, _followed);
}

void SharedGroups::OnLost() {
  _isLinked = false;
  _isSynced = false;
  _schedule.OnLost();
  _sent.clear();
}

void SharedGroups::OnLocalReady() {
  _isLocalReady = true;
  _isToCompare = true;
}

void SharedGroups::OnLocalLost() {
  _isLocalReady = false;
}

void SharedGroups::OnLocalChanged(const std::set<std::string>& groups) {
  for (const std::string& group : groups) {
    if (_rules.Find(group) == nullptr) continue;
    if (_dirty.size() < 2 * _limits.maxGroups) {
      _dirty.insert(group);
    } else {
      _isToCompare = true;
    }
    _refused.erase(group);
  }
}

void SharedGroups::OnItem(const Item& item, Milliseconds) {
  if (item.key.size() <= _prefix.size() || item.key.compare(0, _prefix.size(), _prefix) != 0) return;
  const std::string group = item.key.substr(_prefix.size());
  if (!_isSynced) _seen.insert(group);
  if (_rules.Find(group) == nullptr) return;

  // Behind the first look items come in their order; one that was agreed already is no news.
  const AgreedGroup* agreed = _state.FindAgreed(group);
  if (_isSynced && item.version < GetVersion(group)) return;
  const bool isKnown = agreed != nullptr && agreed->version == item.version && _source == _state.GetSource();
  if (isKnown && item.bytes && _remote.count(group) == 0) return;
  Remote remote = ReadItem(group, item);
  if (!Admit(group, remote.keys)) return;
  _remote[group] = std::move(remote);
  _dirty.insert(group);
}

SharedGroups::Remote SharedGroups::ReadItem(const std::string& group, const Item& item) {
  Remote remote;
  remote.version = item.version;
  remote.isThere = item.bytes.has_value();
  if (!remote.isThere) return remote;
  try {
    if (group.find('\n') != std::string::npos) throw BadDocument("the name of a group holds no line feed");
    remote.keys = WithoutMasked(group, ParseSharedGroup(*item.bytes, _limits.maxDocument));
  } catch (const BadDocument& error) {
    remote.isReadable = false;
    ++_report.counters.refused;
    _report.Fail("[" + programs::SpellName(group) + "] is left as it is there: " + error.what());
  }
  return remote;
}

void SharedGroups::OnSynced(const Synced& synced) {
  if (!_isSynced && synced.isComplete) {
    for (const auto& [group, agreed] : _state.GetAgreed()) {
      if (_seen.count(group) > 0) continue;
      Remote gone;
      gone.version = synced.version;
      _remote[group] = gone;
    }
    // What was reported of a link before, and never agreed, may be gone, too.
    for (auto& [group, remote] : _remote) {
      if (_seen.count(group) == 0 && _state.FindAgreed(group) == nullptr) {
        remote = Remote();
        remote.version = synced.version;
      }
    }
  }
  _followed = std::max(_followed, synced.version);
  if (_isSynced) return;
  _isSynced = true;
  _seen.clear();
  _isToCompare = true;
}

void SharedGroups::OnPutDone(const PutDone& done, Milliseconds now) {
  const std::string group = done.key.substr(std::min(done.key.size(), _prefix.size()));
  _schedule.OnDone(group);
  const auto sent = _sent.find(group);
  if (sent == _sent.end()) return;
  const Keys keys = std::move(sent->second);
  _sent.erase(sent);

  switch (done.outcome) {
    case PutDone::Outcome::kDone: {
      ++_report.counters.sent;
      const auto remote = _remote.find(group);
      if (remote != _remote.end() && remote->second.version <= done.version) _remote.erase(remote);
      _attempts.erase(group);
      _dirty.insert(group);
      _state.SetAgreed(group, {keys, done.version});
      _state.Commit();
      break;
    }
    case PutDone::Outcome::kConflict:
      ++_report.counters.retried;
      ++_attempts[group];
      OnItem(done.present, now);
      _dirty.insert(group);
      break;
    case PutDone::Outcome::kRefused:
      ++_report.counters.refused;
      _report.Fail("[" + programs::SpellName(group) + "] was not taken there: " + done.reason);
      _refused[group] = keys;
      break;
  }
}

std::optional<Milliseconds> SharedGroups::GetNext(Milliseconds now) const {
  if (!CanWork()) return std::nullopt;
  if (_isToCompare) return now;
  const bool hasWork = std::any_of(_dirty.begin(), _dirty.end(),
                                   [this](const std::string& group) { return !_schedule.IsInFlight(group); });
  if (hasWork) return now;
  std::optional<Milliseconds> next = _schedule.GetNext(now);
  for (const auto& [group, time] : _blocked) next = std::min(next.value_or(time), time);
  return next;
}

void SharedGroups::AcceptLosses() {
  const std::set<std::string> held = _guard.GetHeld();
  _guard.Accept();
  _dirty.insert(held.begin(), held.end());
}

void SharedGroups::Decide(Side side) {
  _decision = side;
  _dirty.insert(_undecided.begin(), _undecided.end());
}

void SharedGroups::CompareAgain() {
  _isToCompare = true;
  _refused.clear();
}

MirrorState SharedGroups::GetState() const {
  MirrorState state;
  state.groups = _admitted.size();
  state.waiting = _dirty.size() + _blocked.size() + _schedule.CountWaiting() + _schedule.CountInFlight();
  state.held = _guard.GetHeld().size();
  state.undecided = _undecided.size();
  state.left = _leftOut.size() + _refused.size() + _unsupported.size();
  for (const auto& [group, remote] : _remote) state.left += remote.isReadable ? 0 : 1;
  state.isInSync = CanWork() && !_isToCompare && state.waiting + state.held + state.undecided + state.left == 0;
  return state;
}

}  // namespace tavix::bridge
