#include "programs/bridge/core/DeviceMirror.h"

#include <algorithm>
#include <utility>
#include <variant>

#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"

// What is reported to the mirror. DeviceMirrorGovern.cpp applies documents, DeviceMirrorSend.cpp publishes.
namespace tavix::bridge {

namespace {

constexpr int kMaxMarks = 3;

}  // namespace

DeviceMirror::DeviceMirror(const Rules& rules, const Limits& limits, const DeviceIdentity& identity, Engine& engine,
                           ILocalStore& local, IStateStore& state, Report& report)
    : _rules(rules),
      _limits(limits),
      _identity(identity),
      _topics(identity.root, identity.device, identity.deviceClass),
      _engine(engine),
      _local(local),
      _report(report),
      _book(state, limits, programs::Join({identity.root, "/", identity.device}), identity.deviceClass),
      _governed(state),
      _publications(state, identity.newEpoch),
      _retry(report),
      _guard(limits),
      _admission(limits, report),
      _schedule(limits) {
  SetTargets({});
}

ConnectOptions DeviceMirror::GetConnectOptions() const {
  ConnectOptions options;
  options.will = LastWill{_topics.GetStatus(), ComposeOffline()};
  return options;
}

void DeviceMirror::OnEvent(const EngineEvent& event, Milliseconds now) {
  _isEngineFull = false;
  if (std::holds_alternative<Connected>(event)) OnConnected(now);
  if (std::holds_alternative<Lost>(event)) OnLost();
  if (const auto* item = std::get_if<Item>(&event)) OnItem(*item, now);
  if (std::holds_alternative<Synced>(event)) OnSynced(now);
  if (const auto* done = std::get_if<PutDone>(&event)) OnPutDone(*done, now);
}

void DeviceMirror::OnConnected(Milliseconds now) {
  Enter(Phase::kReading, now);
  _arrived.clear();
  _listed.reset();
  _missingSince.reset();
  _foundIndex.reset();
  _sentStatus.clear();
  _refusedPuts.RetryAll();
  FollowAll(false);
}

// Of what was on its way nobody knows. Reports are found by the index; results are sent again.
void DeviceMirror::OnLost() {
  _phase = Phase::kUnlinked;
  _schedule.OnLost();
  for (const auto& [topic, content] : _unconfirmed) _schedule.Add(topic);
  _unconfirmed.clear();
}

void DeviceMirror::Enter(Phase phase, Milliseconds now) {
  _phase = phase;
  _phaseSince = now;
  _marksAsked = 0;
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
    TakeDesiredIndex(item.bytes, now);
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
  _arrived.insert(name);
  _crowdedOut.erase(name);
  if (!bytes || bytes->empty()) {
    if (_refused.erase(name) > 0) _areResultsDue = true;
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
    const DocumentBook::Outcome outcome = _book.Take(name, document, *bytes, now);
    if (outcome == DocumentBook::Outcome::kFull) {
      _crowdedOut[name] = bytes->size();
      throw BadDocument("the device has as many documents, or of as many bytes, as its limits allow");
    }
    if (_refused.erase(name) > 0) _areResultsDue = true;
    if (outcome == DocumentBook::Outcome::kStale) {
      ++_report.counters.stale;
      _report.Warn(programs::Join({"Document '", name.name, "': version ", std::to_string(document.version),
                                   " is not above the last one of its epoch, and is ignored"}));
    }
  } catch (const BadDocument& error) {
    result.reason = error.what();
    Refuse(name, result);
  }
}

void DeviceMirror::Refuse(const DocumentName& name, const Result& result) {
  const auto known = _refused.find(name);
  if (known != _refused.end() && ComposeResult(known->second) == ComposeResult(result)) return;
  if (known == _refused.end() && _refused.size() >= _limits.maxGroups) {
    _crowdedOut.erase(name);
    return;
  }
  ++_report.counters.refused;
  const std::string key =
      result.keys.empty() ? "" : programs::Join({result.keys.begin()->first, ": ", result.keys.begin()->second});
  _report.Fail(programs::Join({"Document '", programs::SpellValue(name.name), "' is refused: ", result.reason,
                               (result.reason.empty() || key.empty() ? "" : ": "), key}));
  _refused[name] = result;
  _areResultsDue = true;
}

// Why keys of the group are not taken from outside; empty: they are.
std::string DeviceMirror::FindObstacle(const std::string& group) const {
  const MapRule* rule = _rules.Find(group);
  if (_rules.IsNever(group)) return "the group is never mirrored";
  if (rule == nullptr) return "the group is not mirrored";
  return rule->direction == Direction::kUp ? "nothing is taken from outside" : "";
}

std::string DeviceMirror::FindObstacle(const std::string& group, const std::string& key) const {
  const std::string reason = FindObstacle(group);
  return reason.empty() && _rules.IsMasked(group, key) ? "the value is masked" : reason;
}

// One document is one step: a key that can't be taken refuses all of it.
bool DeviceMirror::CheckDocument(const DesiredDocument& document, Result& result) const {
  for (const auto& [group, keys] : document.groups) {
    const std::string reason = FindObstacle(group);
    if (!reason.empty() && keys.empty()) result.keys[programs::Join({"[", programs::SpellName(group), "]"})] = reason;
    for (const auto& [key, value] : keys) {
      const std::string why = FindObstacle(group, key);
      if (!why.empty()) result.keys[programs::SpellSetting(group, key)] = why;
    }
  }
  return result.keys.empty();
}

void DeviceMirror::TakeDesiredIndex(const std::optional<std::string>& bytes, Milliseconds now) {
  _listed.reset();
  if (!bytes || bytes->empty()) return;
  try {
    _listed = ParseDesiredIndex(*bytes, _limits.maxDocument);
  } catch (const BadDocument& error) {
    ++_report.counters.refused;
    _report.Fail(std::string("The centre's list of documents is ignored: ") + error.what());
  }
  if (_phase == Phase::kUnlinked || _phase == Phase::kReading) return;
  ReleaseMissing();
  _missingSince = now;
}

void DeviceMirror::OnSynced(Milliseconds now) {
  if (_phase == Phase::kComparing) return FinishComparing(now);
  if (_phase != Phase::kReading) return;
  ReleaseMissing();
  _missingSince = now;
  const std::string own = ComposeIndex(_publications.GetEpoch(), _publications.ComputeHash());
  if (_foundIndex == own) return Enter(Phase::kFollowing, now);
  // Without one there may be reports all the same, of a state that was lost.
  const bool isNew = !_foundIndex && _publications.GetAll().empty();
  if (!isNew) _report.Info("The index at the broker is not ours: everything that was published is compared");
  Enter(Phase::kComparing, now);
  _found.clear();
  FollowAll(true);
}

// A document that neither came nor is listed was taken away while nobody was there. Without a list nothing is known of
// that: the broker may have lost it.
void DeviceMirror::ReleaseMissing() {
  if (!_listed) return;
  const auto isAway = [this](const DocumentName& name) {
    return name.level == Level::kDevice && _arrived.count(name) == 0 && _listed->count(name.name) == 0;
  };
  for (const auto& [name, origin] : _book.GetOrigins()) {
    if (isAway(name)) _book.Release(name);
  }
  for (auto entry = _refused.begin(); entry != _refused.end();) {
    const bool isGone = isAway(entry->first);
    if (isGone) _crowdedOut.erase(entry->first);
    _areResultsDue = _areResultsDue || isGone;
    entry = isGone ? _refused.erase(entry) : std::next(entry);
  }
}

// A broker may lose the mark that shows that everything has come, or let nobody read it.
void DeviceMirror::AwaitMark(Milliseconds now) {
  const bool isAwaited = _phase == Phase::kReading || _phase == Phase::kComparing;
  if (!isAwaited) return;
  if (!_phaseSince) _phaseSince = now;
  if (now - *_phaseSince < kMarkWait) return;
  if (++_marksAsked <= kMaxMarks) {
    _phaseSince = now;
    return FollowAll(_phase == Phase::kComparing);
  }
  _report.Fail("The broker does not show when it has sent everything: what came so far is taken as all of it");
  OnSynced(now);
}

void DeviceMirror::AskForMissing(Milliseconds now) {
  if (!_missingSince || now - *_missingSince < _limits.missingAfter) return;
  _missingSince.reset();
  if (!_listed) return;
  std::vector<std::string> missing;
  for (const auto& [name, version] : *_listed) {
    const DocumentName document{Level::kDevice, name};
    const bool isOld = _refused.count(document) == 0 && _book.FindVersion(document).value_or(0) < version;
    if (_arrived.count(document) == 0 || isOld) missing.push_back(_topics.GetDesired(document));
  }
  if (missing.empty()) return;
  _report.Warn(std::to_string(missing.size()) + " documents that the centre lists have not come, and are asked for");
  AskFor(missing);
}

// Reported is what was not followed before: each alone, then all of them again.
void DeviceMirror::AskFor(const std::vector<std::string>& topics) {
  std::vector<std::string> prefixes = ListOthers();
  _engine.Follow(prefixes, 0);
  prefixes.insert(prefixes.end(), topics.begin(), topics.end());
  _engine.Follow(prefixes, 0);
  FollowAll(false);
}

// What was refused for want of room comes once there is some.
void DeviceMirror::AskForFitting() {
  if (!std::exchange(_mayHaveRoom, false) || _crowdedOut.empty()) return;
  std::vector<std::string> topics;
  for (const DocumentName& name : _book.FindFitting(_crowdedOut)) topics.push_back(_topics.GetDesired(name));
  if (!topics.empty()) AskFor(topics);
}

// Sends what differs. What nobody needs any more is cleared when its turn comes, unless the device has it by then.
void DeviceMirror::FinishComparing(Milliseconds now) {
  for (const auto& [topic, reported] : _found) {
    const auto group = _topics.FindReportedGroup(topic);
    const Publication* own = group ? _publications.Find(*group) : nullptr;
    const bool isOurs =
        own != nullptr && reported && reported->epoch == _publications.GetEpoch() && reported->version == own->version;
    if (!isOurs) _forced.insert(topic);
  }
  for (const auto& [group, publication] : _publications.GetAll()) {
    const std::string topic = _topics.GetReported(group);
    if (!publication.isGone && _found.count(topic) == 0) _forced.insert(topic);
  }
  for (const auto& [topic, content] : _publications.GetOthers()) _forced.insert(topic);
  for (const std::string& topic : _forced) _schedule.Add(topic);
  _found.clear();
  Enter(Phase::kFollowing, now);
  FollowAll(false);
}

void DeviceMirror::OnPutDone(const PutDone& done, Milliseconds now) {
  const bool isStatus = done.key == _topics.GetStatus();
  const bool isIndex = done.key == _topics.GetIndex();
  _schedule.OnDone(done.key);
  const auto result = _unconfirmed.find(done.key);
  if (done.outcome == PutDone::Outcome::kDone) {
    if (!isStatus && !isIndex) ++_report.counters.sent;
    if (result != _unconfirmed.end()) _confirmed[done.key] = result->second;
    _refusedPuts.Remove(done.key);
  } else {
    ++_report.counters.refused;
    _report.Fail(programs::Join({"'", programs::SpellValue(done.key), "' was not taken there: ", done.reason}));
    _refusedPuts.Add(done.key, now);
    if (isStatus) _sentStatus.clear();
    if (isIndex) _foundIndex.reset();
  }
  if (result != _unconfirmed.end()) _unconfirmed.erase(result);
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
    const bool isFull = _admission.CountAdmitted() >= _limits.maxGroups && !_admission.IsAdmitted(group);
    if (isFull && !_admission.Admit(group, group.size())) continue;
    if (_schedule.CountWaiting() < 2 * _limits.maxGroups) {
      _schedule.Add(_topics.GetReported(group));
    } else {
      _isToQueue = true;
    }
  }
}

void DeviceMirror::AcceptLosses() {
  for (const DocumentName& name : _heldDocuments) {
    _acceptedDocuments.insert(name);
    for (const std::string& group : _groupsOf[name]) {
      _guard.Release(group);
      _ungoverned.insert(group);
    }
  }
  _heldDocuments.clear();
}

// Of keys that come later a person has not said anything.
void DeviceMirror::Decide(Side side) {
  for (const auto& [group, keys] : _undecided) {
    for (const std::string& key : keys) _decided[programs::SpellSetting(group, key)] = side;
    _ungoverned.insert(group);
  }
}

void DeviceMirror::CompareAgain() {
  _isToQueue = true;
  if (_phase != Phase::kFollowing) return;
  _phase = Phase::kComparing;
  _phaseSince.reset();
  _marksAsked = 0;
  _found.clear();
  FollowAll(true);
}

MirrorState DeviceMirror::GetState() const {
  MirrorState state;
  state.groups = _admission.CountAdmitted();
  state.waiting = _schedule.CountWaiting() + _schedule.CountInFlight() + _ungoverned.size() + _book.CountWaiting() +
                  _confirmed.size();
  state.held = _guard.GetHeld().size();
  for (const auto& [group, keys] : _undecided) state.undecided += keys.size();
  state.left = _admission.CountLeftOut() + _refused.size() + _unsupported.size() + _refusedPuts.Count();
  for (const auto& [name, blocked] : _blocked) {
    ++state.waiting;
    if (blocked.failures >= kReportedFailures) ++state.left;
  }
  state.hasStateFailed = _retry.HasFailed();
  state.isInSync = _phase == Phase::kFollowing && _isLocalReady && !_isToQueue && !_areResultsDue &&
                   !state.hasStateFailed && state.waiting + state.held + state.undecided + state.left == 0;
  return state;
}

}  // namespace tavix::bridge
