#include <algorithm>
#include <utility>

#include "programs/bridge/core/SharedGroups.h"
#include "programs/bridge/formats/SharedGroup.h"

// What is sent, and what is kept of where the link stands.
namespace tavix::bridge {

void SharedGroups::SendDue(Milliseconds now) {
  while (!_isEngineFull) {
    const auto group = _schedule.Take(now);
    if (!group) return;
    try {
      if (SendGroup(*group, now)) continue;
    } catch (const osa::Exception&) {
      _schedule.Add(*group);
      throw;
    }
    _isEngineFull = true;
    _schedule.Add(*group);
  }
}

// Returns whether it is on its way, or need not be sent now.
bool SharedGroups::SendGroup(const std::string& group, Milliseconds now) {
  if (_rules.Find(group) == nullptr) return true;
  const Planned planned = PlanGroup(group, ReadGroup(group));
  if (!IsToSend(planned) && planned.plan.device == planned.view.device) {
    _refused.erase(group);
    return true;
  }
  // It changed since it was looked at: another look decides what is to be done, and asks the guard.
  const bool isAsPlanned = !planned.plan.isUndecided && planned.plan.device == planned.view.device &&
                           planned.plan.conflicts.empty() && _dirty.count(group) == 0 && IsLossAllowed(planned);
  if (isAsPlanned) return Send(planned, now);
  _dirty.insert(group);
  return true;
}

// Whether the guard has seen every key that the other end is to lose.
bool SharedGroups::IsLossAllowed(const Planned& planned) const {
  const std::set<std::string> lost = FindLost(planned.view.centre, planned.plan.centre);
  const auto allowed = _allowed.find(planned.group);
  return lost.empty() || (allowed != _allowed.end() &&
                          std::includes(allowed->second.begin(), allowed->second.end(), lost.begin(), lost.end()));
}

// Always against the version that is known: nobody else's change is overwritten without having been seen.
bool SharedGroups::Send(const Planned& planned, Milliseconds now) {
  const std::string& group = planned.group;
  const std::optional<std::string> bytes = Compose(planned);
  PutOptions options;
  options.expected = GetExpected(group);
  _state.SetIntent(group, {Intent::Where::kCentre, planned.view.centre, planned.plan.centre, FindLate(group)});
  _state.Commit();
  _answered.insert(group);
  if (!_engine.Put(_prefix + group, bytes, options)) return false;
  _answered.erase(group);
  _schedule.OnSent(group, now);
  AgreedGroup& sent = _sent[group];
  sent.keys = planned.plan.centre;
  sent.isThere = bytes.has_value();
  sent.hidden = planned.hidden;
  sent.kept = planned.kept;
  return true;
}

// An item of which nothing is left is removed, too.
bool SharedGroups::IsToSend(const Planned& planned) const {
  if (planned.plan.centre != planned.view.centre) return true;
  const bool isRest = GetExpected(planned.group) != 0 && !Compose(planned);
  return isRest && _rules.Find(planned.group)->direction != Direction::kDown;
}

// What stands there of keys that are masked stays as it is; of this device's own there is a mark. Nothing: the group is
// gone.
std::optional<std::string> SharedGroups::Compose(const Planned& planned) const {
  Keys keys = planned.plan.centre;
  std::set<std::string> masked = planned.masked;
  for (const auto& [key, value] : planned.hidden) {
    masked.insert(key);
    if (!value) continue;
    masked.erase(key);
    keys[key] = *value;
  }
  if (keys.empty() && masked.empty()) return std::nullopt;
  return ComposeSharedGroup(keys, masked);
}

// Items up to here are agreed, all of them: another start may go on behind them. Not each time, as disks wear out.
void SharedGroups::KeepFollowed(Milliseconds now) {
  if (IsFollowedKept() || now < _followedKeptAt + kFollowedInterval) return;
  _state.SetFollowed(GetStoredSource(), _followed);
  _state.Commit();
  _followedKeptAt = now;
}

bool SharedGroups::IsFollowedKept() const {
  if (!_remote.empty() || !_dirty.empty() || _isSomethingMissed) return true;
  return _followed == _state.GetFollowed() && GetStoredSource() == _state.GetSource();
}

// What puts without a known outcome may still change there: the link or the process ended before the reply, and the
// item has the version that they expect.
std::vector<KeyChanges> SharedGroups::FindLate(const std::string& group) const {
  const Intent* intent = _state.FindIntent(group);
  const AgreedGroup* agreed = _state.FindAgreed(group);
  const Version expected = agreed != nullptr && agreed->isThere ? agreed->version : 0;
  if (intent == nullptr || GetExpected(group) != expected) return {};
  std::vector<KeyChanges> late = intent->late;
  if (intent->where != Intent::Where::kCentre || _answered.count(group) > 0) return late;
  KeyChanges changes = FindKeyChanges(intent->before, intent->after);
  if (!changes.empty() && std::find(late.begin(), late.end(), changes) == late.end())
    late.push_back(std::move(changes));
  if (late.size() > kMaxLate) late.erase(late.begin());
  return late;
}

// Of the item that stands there, as far as it is known; 0: there is none.
Version SharedGroups::GetExpected(const std::string& group) const {
  const auto remote = _remote.find(group);
  if (remote != _remote.end()) return remote->second.isThere ? remote->second.version : 0;
  const AgreedGroup* agreed = _state.FindAgreed(group);
  return agreed != nullptr && agreed->isThere ? agreed->version : 0;
}

// The newest version that was heard of, also of a removal; 0: nothing was.
Version SharedGroups::GetLatest(const std::string& group) const {
  Version latest = 0;
  const AgreedGroup* agreed = _state.FindAgreed(group);
  const auto remote = _remote.find(group);
  if (remote != _remote.end()) {
    latest = remote->second.version;  // what is agreed may be of another source
  } else if (agreed != nullptr) {
    latest = agreed->version;
  }
  const auto confirmed = _confirmed.find(group);
  return confirmed == _confirmed.end() ? latest : std::max(latest, confirmed->second.version);
}

// Others who got ahead will try again, too: each at another moment, and ever later.
Milliseconds SharedGroups::FindRetry(const std::string& group, Milliseconds now) {
  const auto attempts = _attempts.find(group);
  if (attempts == _attempts.end()) return now;
  const bool isOver = attempts->second >= _limits.maxAttempts;
  std::uniform_int_distribution<Milliseconds::rep> within(
      isOver ? 5'000 : 0, isOver ? 60'000 : 100 << std::min<size_t>(attempts->second, 8));
  return now + Milliseconds(within(_random));
}

}  // namespace tavix::bridge
