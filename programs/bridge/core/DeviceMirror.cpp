#include "programs/bridge/core/DeviceMirror.h"

#include <algorithm>
#include <variant>

#include "programs/common/client/Spelling.h"

// What is reported to the mirror. DeviceMirrorGovern.cpp applies documents, DeviceMirrorSend.cpp publishes.
namespace tavix::bridge {

DeviceMirror::DeviceMirror(const Rules& rules, const Limits& limits, const DeviceIdentity& identity, Engine& engine,
                           ILocalStore& local, IStateStore& state, Report& report)
    : _rules(rules),
      _limits(limits),
      _identity(identity),
      _topics(identity.root, identity.device, identity.deviceClass),
      _engine(engine),
      _local(local),
      _report(report),
      _book(state, limits, identity.device),
      _governed(state),
      _publications(state, identity.newEpoch),
      _guard(limits),
      _schedule(limits),
      _targets(_book.ComputeTargets()) {}

ConnectOptions DeviceMirror::GetConnectOptions() const {
  ConnectOptions options;
  options.will = LastWill{_topics.GetStatus(), ComposeOffline()};
  return options;
}

void DeviceMirror::OnEvent(const EngineEvent& event, Milliseconds now) {
  if (std::holds_alternative<Connected>(event)) {
    _phase = Phase::kReading;
    _seen.clear();
    _listed.clear();
    _syncedAt.reset();
    _isMissingAsked = false;
    _foundIndex.reset();
    _sentStatus.clear();
    FollowAll(false);
  } else if (std::holds_alternative<Lost>(event)) {
    _phase = Phase::kUnlinked;
    _schedule.OnLost();
  } else if (const auto* item = std::get_if<Item>(&event)) {
    OnItem(*item, now);
  } else if (const auto* synced = std::get_if<Synced>(&event)) {
    OnSynced(*synced, now);
  } else if (const auto* done = std::get_if<PutDone>(&event)) {
    OnPutDone(*done);
  }
}

std::vector<std::string> DeviceMirror::ListOthers() const {
  std::vector<std::string> prefixes = {_topics.GetDesiredPrefix(Level::kAll), _topics.GetDesiredIndex(),
                                       _topics.GetIndex()};
  if (!_identity.deviceClass.empty()) prefixes.push_back(_topics.GetDesiredPrefix(Level::kClass));
  return prefixes;
}

void DeviceMirror::FollowAll(bool isComparing) {
  std::vector<std::string> prefixes = ListOthers();
  prefixes.push_back(_topics.GetDesiredPrefix(Level::kDevice));
  if (isComparing) prefixes.push_back(_topics.GetReportedPrefix());
  _engine.Follow(prefixes, 0);
}

void DeviceMirror::OnItem(const Item& item, Milliseconds now) {
  if (item.key == _topics.GetIndex()) {
    _foundIndex = item.bytes;
  } else if (item.key == _topics.GetDesiredIndex()) {
    TakeDesiredIndex(item.bytes);
  } else if (const auto document = _topics.FindDocument(item.key)) {
    TakeDocument(*document, item.bytes, now);
  } else if (_phase == Phase::kComparing && item.bytes && !item.bytes->empty()) {
    try {
      _found[item.key] = ParseReported(*item.bytes, _limits.maxDocument);
    } catch (const BadDocument&) {
      _found[item.key] = std::nullopt;
    }
  }
}

void DeviceMirror::TakeDocument(const DocumentName& name, const std::optional<std::string>& bytes, Milliseconds now) {
  _seen.insert(name);
  if (!bytes || bytes->empty()) {
    _refused.erase(name);
    _book.Release(name);
    return;
  }
  Result result;
  result.state = ResultState::kRefused;
  try {
    const auto plain = DecodeFromTopic(name.name);
    if (!plain) throw BadDocument("the name is not percent-encoded as it has to be");
    if (plain->find('\0') != std::string::npos) throw BadDocument("the name holds a NUL");
    const DesiredDocument document = ParseDesired(*bytes, _limits.maxDocument);
    result.version = document.version;
    if (!CheckDocument(document, result)) return Refuse(name, result);
    _refused.erase(name);
    if (_book.Take(name, document, *bytes, now) == DocumentBook::Outcome::kStale) {
      ++_report.counters.stale;
      _report.Warn("Document '" + name.name + "': version " + std::to_string(document.version) +
                   " is not above the last one of its epoch, and is ignored");
    }
  } catch (const BadDocument& error) {
    result.reason = error.what();
    Refuse(name, result);
  }
}

void DeviceMirror::Refuse(const DocumentName& name, const Result& result) {
  const auto known = _refused.find(name);
  if (known != _refused.end() && ComposeResult(known->second) == ComposeResult(result)) return;
  if (known == _refused.end() && _refused.size() >= _limits.maxGroups) return;
  ++_report.counters.refused;
  const std::string key = result.keys.empty() ? "" : result.keys.begin()->first + ": " + result.keys.begin()->second;
  _report.Fail("Document '" + programs::SpellValue(name.name) + "' is refused: " + result.reason +
               (result.reason.empty() || key.empty() ? "" : ": ") + key);
  _refused[name] = result;
  MakeResults();
}

// One document is one step: a key that can't be taken refuses all of it.
bool DeviceMirror::CheckDocument(const DesiredDocument& document, Result& result) const {
  for (const auto& [group, keys] : document.groups) {
    const MapRule* rule = _rules.Find(group);
    std::string reason;
    if (_rules.IsNever(group)) {
      reason = "the group is never mirrored";
    } else if (rule == nullptr) {
      reason = "the group is not mirrored";
    } else if (rule->direction == Direction::kUp) {
      reason = "nothing is taken from outside";
    }
    if (!reason.empty() && keys.empty()) result.keys["[" + programs::SpellName(group) + "]"] = reason;
    for (const auto& [key, value] : keys) {
      const std::string why = reason.empty() && _rules.IsMasked(group, key) ? "the value is masked" : reason;
      if (!why.empty()) result.keys[programs::SpellSetting(group, key)] = why;
    }
  }
  return result.keys.empty();
}

void DeviceMirror::TakeDesiredIndex(const std::optional<std::string>& bytes) {
  _listed.clear();
  if (!bytes || bytes->empty()) return;
  try {
    _listed = ParseDesiredIndex(*bytes, _limits.maxDocument);
  } catch (const BadDocument& error) {
    ++_report.counters.refused;
    _report.Fail(std::string("The centre's list of documents is ignored: ") + error.what());
  }
}

void DeviceMirror::OnSynced(const Synced& synced, Milliseconds now) {
  if (_phase == Phase::kComparing) return FinishComparing();
  if (_phase != Phase::kReading) return;
  _syncedAt = now;
  if (synced.isComplete) ReleaseMissing();
  const bool isNew = !_foundIndex && _publications.GetAll().empty();
  const std::string own = ComposeIndex(_publications.GetEpoch(), _publications.ComputeHash());
  if (isNew || _foundIndex == own) {
    _phase = Phase::kFollowing;
    return;
  }
  _report.Info("The index at the broker is not ours: everything that was published is compared");
  _phase = Phase::kComparing;
  _found.clear();
  FollowAll(true);
}

// The centre took them away while nobody was there, or the broker lost them: then the centre's list has them.
void DeviceMirror::ReleaseMissing() {
  for (const auto& [name, origin] : _book.GetOrigins()) {
    const bool isListed = name.level == Level::kDevice && _listed.count(name.name) > 0;
    if (_seen.count(name) == 0 && !isListed) _book.Release(name);
  }
  for (auto entry = _refused.begin(); entry != _refused.end();) {
    entry = _seen.count(entry->first) == 0 ? _refused.erase(entry) : std::next(entry);
  }
}

void DeviceMirror::AskForMissing(Milliseconds now) {
  if (!_syncedAt || _isMissingAsked || now - *_syncedAt < _limits.missingAfter) return;
  _isMissingAsked = true;
  std::vector<std::string> missing;
  for (const auto& [name, version] : _listed) {
    const DocumentName document{Level::kDevice, name};
    if (_seen.count(document) == 0) missing.push_back(_topics.GetDesired(document));
  }
  if (missing.empty()) return;
  _report.Warn(std::to_string(missing.size()) + " documents that the centre lists have not come, and are asked for");
  // Reported is what was not followed before: each alone, then all of them again.
  std::vector<std::string> prefixes = ListOthers();
  _engine.Follow(prefixes, 0);
  prefixes.insert(prefixes.end(), missing.begin(), missing.end());
  _engine.Follow(prefixes, 0);
  FollowAll(false);
}

// Sends what differs, and clears what nobody needs any more.
void DeviceMirror::FinishComparing() {
  for (const auto& [topic, reported] : _found) {
    const auto group = _topics.FindReportedGroup(topic);
    const Publication* own = group ? _publications.Find(*group) : nullptr;
    if (own == nullptr) {
      _toClear.insert(topic);
      _schedule.Add(topic);
    } else if (!reported || reported->epoch != _publications.GetEpoch() || reported->version != own->version) {
      _forced.insert(topic);
      _schedule.Add(topic);
    }
  }
  for (const auto& [group, publication] : _publications.GetAll()) {
    const std::string topic = _topics.GetReported(group);
    if (publication.isGone || _found.count(topic) > 0) continue;
    _forced.insert(topic);
    _schedule.Add(topic);
  }
  for (const auto& [topic, content] : _publications.GetOthers()) {
    _forced.insert(topic);
    _schedule.Add(topic);
  }
  _found.clear();
  _foundIndex.reset();
  _phase = Phase::kFollowing;
  FollowAll(false);
}

void DeviceMirror::OnPutDone(const PutDone& done) {
  if (done.key == _topics.GetStatus() || done.key == _topics.GetIndex()) return;
  _schedule.OnDone(done.key);
  if (done.outcome == PutDone::Outcome::kDone) {
    ++_report.counters.sent;
    return;
  }
  ++_report.counters.refused;
  _report.Fail("'" + programs::SpellValue(done.key) + "' was not taken there: " + done.reason);
}

void DeviceMirror::OnLocalReady() {
  _isLocalReady = true;
  _isToQueue = true;
}

void DeviceMirror::OnLocalLost() {
  _isLocalReady = false;
}

void DeviceMirror::OnLocalChanged(const std::set<std::string>& groups) {
  for (const std::string& group : groups) {
    if (_rules.Find(group) == nullptr) continue;
    if (_targets.groups.count(group) > 0) _ungoverned.insert(group);
    if (_admitted.count(group) > 0 || _admitted.size() < _limits.maxGroups) {
      _schedule.Add(_topics.GetReported(group));
    } else {
      _isToQueue = true;  // it is left out, unless another one went
    }
  }
}

void DeviceMirror::AcceptLosses() {
  _guard.Accept();
  for (const auto& [group, keys] : _targets.groups) _ungoverned.insert(group);
}

void DeviceMirror::Decide(Side side) {
  _decision = side;
  for (const auto& [group, keys] : _targets.groups) _ungoverned.insert(group);
}

void DeviceMirror::CompareAgain() {
  _isToQueue = true;
  if (_phase != Phase::kFollowing) return;
  _phase = Phase::kComparing;
  _found.clear();
  FollowAll(true);
}

MirrorState DeviceMirror::GetState() const {
  MirrorState state;
  state.groups = _admitted.size();
  state.waiting = _schedule.CountWaiting() + _schedule.CountInFlight() + _ungoverned.size() + _book.CountWaiting();
  state.held = _guard.GetHeld().size();
  state.undecided = _undecided.size();
  state.left = _leftOut.size() + _refused.size() + _unsupported.size();
  state.isInSync = _phase == Phase::kFollowing && _isLocalReady && !_isToQueue && _blocked.empty() &&
                   state.waiting + state.held + state.undecided + state.left == 0;
  return state;
}

}  // namespace tavix::bridge
