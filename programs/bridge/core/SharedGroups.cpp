#include "programs/bridge/core/SharedGroups.h"

#include <algorithm>
#include <utility>
#include <variant>

#include "programs/bridge/core/Hash.h"
#include "programs/bridge/formats/SharedGroup.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"

// What is reported to the mirror: nothing is written here. What follows from it is in SharedGroupsWork.cpp.
namespace tavix::bridge {

namespace {

constexpr Milliseconds kFirstRefusedWait{5 * 60'000};
constexpr Milliseconds kLastRefusedWait{60 * 60'000};

// Versions of another prefix, or that were followed for other groups, are of no use, though the cluster is the same.
std::string MakeBinding(const std::string& prefix, const Rules& rules) {
  Hash hash;
  hash.Add(prefix);
  for (const MapRule& map : rules.GetMaps()) hash.Add(map.pattern);
  for (const std::string& never : rules.GetNever()) hash.Add(never);
  return std::to_string(hash.Get()) + " ";
}

}  // namespace

SharedGroups::SharedGroups(const Rules& rules, const Limits& limits, const std::string& prefix, Engine& engine,
                           ILocalStore& local, IStateStore& state, Report& report, uint64_t seed)
    : _rules(rules),
      _limits(limits),
      _prefix(prefix + "/"),
      _binding(MakeBinding(prefix, rules)),
      _engine(engine),
      _local(local),
      _report(report),
      _state(state),
      _retry(report),
      _guard(limits),
      _admission(limits, report),
      _schedule(limits),
      _random(seed) {
  for (const auto& [group, agreed] : _state.GetAgreed()) _admission.Admit(group, CountBytes(group, agreed.keys));
}

ConnectOptions SharedGroups::GetConnectOptions() const {
  ConnectOptions options;
  const std::string& stored = _state.GetSource();
  if (stored.compare(0, _binding.size(), _binding) == 0) options.source = stored.substr(_binding.size());
  return options;
}

void SharedGroups::OnEvent(const EngineEvent& event, Milliseconds now) {
  _isEngineFull = false;
  if (const auto* connected = std::get_if<Connected>(&event)) OnConnected(*connected);
  if (std::holds_alternative<Lost>(event)) OnLost();
  if (std::holds_alternative<Reread>(event)) OnReread();
  if (const auto* item = std::get_if<Item>(&event)) {
    _isPartial = _isPartial || item->version > _followed;
    OnItem(*item);
  }
  if (const auto* synced = std::get_if<Synced>(&event)) OnSynced(*synced);
  if (const auto* done = std::get_if<PutDone>(&event)) OnPutDone(*done, now);
}

void SharedGroups::OnConnected(const Connected& connected) {
  _phase = Phase::kReading;
  _listed.clear();
  _isPartial = false;
  if (connected.source != _source) _confirmed.clear();  // their versions mean nothing here
  _source = connected.source;
  _isSomethingMissed = false;
  const bool isResumed = connected.isResumed && GetStoredSource() == _state.GetSource();
  _followed = isResumed ? _state.GetFollowed() : 0;
  for (auto& [group, refused] : _refused) refused.next = Milliseconds(0);
  _engine.Follow({_prefix}, _followed);
}

void SharedGroups::OnLost() {
  _phase = Phase::kUnlinked;
  _schedule.OnLost();
  _sent.clear();
}

void SharedGroups::OnReread() {
  if (_phase == Phase::kFollowing) _phase = Phase::kRereading;
  _listed.clear();
  _isSomethingMissed = false;
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

void SharedGroups::OnItem(const Item& item) {
  if (item.key.size() <= _prefix.size() || item.key.compare(0, _prefix.size(), _prefix) != 0) return;
  const std::string group = item.key.substr(_prefix.size());
  if (_state.FindAgreed(group) != nullptr || _remote.count(group) > 0) List(group);
  if (_rules.Find(group) == nullptr) return;

  // Within a link versions grow: an older one is what a reply or a reread shows behind the watch, or behind a put.
  if (_phase != Phase::kReading && item.version < GetLatest(group)) return;
  const AgreedGroup* agreed = _state.FindAgreed(group);
  const bool isKnown = agreed != nullptr && agreed->isThere && agreed->version == item.version &&
                       (_phase == Phase::kRereading || GetStoredSource() == _state.GetSource());
  if (isKnown && item.bytes && _remote.count(group) == 0) return;
  if (_remote.size() >= 2 * _limits.maxGroups && _remote.count(group) == 0) {
    _isSomethingMissed = true;
    return;
  }
  Remote remote = ReadItem(group, item);
  if (remote.isThere && !_admission.Admit(group, CountBytes(group, remote.keys))) {
    remote.keys.clear();
    remote.hidden.clear();
    remote.isUsable = false;
    remote.isLeftOut = true;
  }
  _remote[group] = std::move(remote);
  _dirty.insert(group);
  List(group);
}

// Of groups that nothing is known of nobody asks later whether they came.
void SharedGroups::List(const std::string& group) {
  if (_phase != Phase::kFollowing) _listed.insert(group);
}

SharedGroups::Remote SharedGroups::ReadItem(const std::string& group, const Item& item) {
  Remote remote;
  remote.version = item.version;
  remote.isThere = item.bytes.has_value();
  if (!remote.isThere) return remote;
  try {
    if (group.find('\n') != std::string::npos) throw BadDocument("the name of a group holds no line feed");
    TakeKeys(group, *item.bytes, remote);
  } catch (const BadDocument& error) {
    remote.isUsable = false;
    ++_report.counters.refused;
    _report.Fail(programs::Join({"[", programs::SpellName(group), "] is left as it is there: ", error.what()}));
  }
  return remote;
}

// The value of a key that is masked here is refused, and stays there for whom it is.
void SharedGroups::TakeKeys(const std::string& group, const std::string& bytes, Remote& remote) {
  const AgreedGroup* agreed = _state.FindAgreed(group);
  const HiddenKeys before = agreed == nullptr ? HiddenKeys() : agreed->hidden;
  SharedGroup shared = ParseSharedGroup(bytes, _limits.maxDocument);
  for (const std::string& key : shared.masked) remote.hidden[key] = std::nullopt;
  for (auto& [key, value] : shared.keys) {
    if (!_rules.IsMasked(group, key)) {
      remote.keys[key] = std::move(value);
      continue;
    }
    const auto known = before.find(key);
    if (known == before.end() || known->second != value) {
      ++_report.counters.refused;
      _report.Fail(programs::SpellSetting(group, key) + " is not taken from there: the value is masked");
    }
    remote.hidden[key] = std::move(value);
  }
}

void SharedGroups::OnSynced(const Synced& synced) {
  if (_phase == Phase::kUnlinked) return;
  _isPartial = false;
  if (synced.isComplete && _phase != Phase::kFollowing) AddRemovals(synced.version);
  _followed = std::max(_followed, synced.version);
  if (_phase == Phase::kFollowing) return;
  _phase = Phase::kFollowing;
  _listed.clear();
  _isToCompare = true;
}

// Everything that there is has been listed: what was not is gone, unless it was put meanwhile.
void SharedGroups::AddRemovals(Version version) {
  const bool isRereading = _phase == Phase::kRereading;
  const auto add = [&](const std::string& group) {
    if (_listed.count(group) > 0 || (isRereading && GetLatest(group) > version)) return;
    Remote gone;
    gone.version = version;
    _remote[group] = gone;
  };
  for (const auto& [group, agreed] : _state.GetAgreed()) {
    if (agreed.isThere) add(group);
  }
  std::set<std::string> others;  // that came before, and were never agreed
  for (const auto& [group, remote] : _remote) others.insert(group);
  for (const std::string& group : others) add(group);
}

void SharedGroups::OnPutDone(const PutDone& done, Milliseconds now) {
  const std::string group = done.key.substr(std::min(done.key.size(), _prefix.size()));
  _schedule.OnDone(group);
  const auto sent = _sent.find(group);
  if (sent == _sent.end()) return;
  AgreedGroup agreed = std::move(sent->second);
  _sent.erase(sent);
  _answered.insert(group);
  _dirty.insert(group);

  switch (done.outcome) {
    case PutDone::Outcome::kDone:
      ++_report.counters.sent;
      _attempts.erase(group);
      _refused.erase(group);
      agreed.version = done.version;
      _confirmed[group] = std::move(agreed);
      break;
    case PutDone::Outcome::kConflict:
      OnConflict(group, done.present);
      break;
    case PutDone::Outcome::kRefused:
      OnRefused(group, agreed.keys, done.reason, now);
      break;
  }
}

// What the reply shows may be older than what the watch has reported since.
void SharedGroups::OnConflict(const std::string& group, const Item& present) {
  ++_report.counters.retried;
  ++_attempts[group];
  if (present.version > _followed) OnItem(present);
}

void SharedGroups::OnRefused(const std::string& group, const Keys& keys, const std::string& reason, Milliseconds now) {
  ++_report.counters.refused;
  _report.Fail(programs::Join({"[", programs::SpellName(group), "] was not taken there: ", reason}));
  Refused& refused = _refused[group];
  const bool isSame = refused.wait.count() > 0 && refused.keys == keys;
  refused.wait = isSame ? std::min(2 * refused.wait, kLastRefusedWait) : kFirstRefusedWait;
  refused.next = now + refused.wait;
  refused.keys = keys;
}

std::optional<Milliseconds> SharedGroups::GetNext(Milliseconds now) const {
  if (!CanWork()) return std::nullopt;
  if (_retry.HasFailed()) return _retry.GetNext();
  const bool hasWork = _isToCompare || !_confirmed.empty() ||
                       std::any_of(_dirty.begin(), _dirty.end(), [this](const std::string& group) {
                         const auto blocked = _blocked.find(group);
                         return !_schedule.IsInFlight(group) && (blocked == _blocked.end() || !blocked->second.next);
                       });
  if (hasWork) return now;
  std::optional<Milliseconds> next = _isEngineFull ? std::nullopt : _schedule.GetNext(now);
  const auto consider = [&next](Milliseconds time) { next = std::min(next.value_or(time), time); };
  for (const auto& [group, blocked] : _blocked) {
    if (blocked.next) consider(*blocked.next);
  }
  for (const auto& [group, refused] : _refused) consider(refused.next);
  if (!IsFollowedKept()) consider(_followedKeptAt + kFollowedInterval);
  return next;
}

void SharedGroups::AcceptLosses() {
  const std::set<std::string> held = _guard.GetHeld();
  _guard.Accept();
  _dirty.insert(held.begin(), held.end());
}

// Of groups that come later a person has not said anything.
void SharedGroups::Decide(Side side) {
  for (const std::string& group : _undecided) _decided[group] = side;
  _dirty.insert(_undecided.begin(), _undecided.end());
}

void SharedGroups::CompareAgain() {
  _isToCompare = true;
  _refused.clear();
}

MirrorState SharedGroups::GetState() const {
  MirrorState state;
  state.groups = _admission.CountAdmitted();
  state.waiting = _dirty.size() + _confirmed.size() + _schedule.CountWaiting() + _schedule.CountInFlight();
  state.held = _guard.GetHeld().size();
  state.undecided = _undecided.size();
  state.left = _admission.CountLeftOut() + _refused.size();
  for (const auto& [group, blocked] : _blocked) {
    ++state.waiting;
    if (blocked.failures >= kReportedFailures) ++state.left;
  }
  state.left += _state.CountKeeping();
  for (const auto& [group, remote] : _remote) state.left += remote.isUsable ? 0 : 1;
  state.hasStateFailed = _retry.HasFailed();
  state.isInSync = CanWork() && !_isToCompare && !state.hasStateFailed &&
                   state.waiting + state.held + state.undecided + state.left == 0;
  return state;
}

}  // namespace tavix::bridge
