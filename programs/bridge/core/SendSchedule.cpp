#include "programs/bridge/core/SendSchedule.h"

#include <algorithm>

namespace tavix::bridge {

SendSchedule::SendSchedule(const Limits& limits) : _limits(limits) {}

void SendSchedule::Add(const std::string& group, Milliseconds notBefore) {
  const auto place = _places.find(group);
  if (place != _places.end()) {
    Waiting& waiting = _waiting.at(place->second);
    waiting.notBefore = std::min(waiting.notBefore, notBefore);
    return;
  }
  _places[group] = ++_lastNumber;
  _waiting[_lastNumber] = {group, notBefore};
}

void SendSchedule::Remove(const std::string& group) {
  const auto place = _places.find(group);
  if (place == _places.end()) return;
  _waiting.erase(place->second);
  _places.erase(place);
}

std::optional<std::string> SendSchedule::Take(Milliseconds now) {
  if (_inFlight.size() >= _limits.maxInFlight || GetDeviceTime(now) > now) return std::nullopt;
  for (auto entry = _waiting.begin(); entry != _waiting.end(); ++entry) {
    if (_inFlight.count(entry->second.group) > 0 || GetGroupTime(entry->second) > now) continue;
    std::string group = entry->second.group;
    _places.erase(group);
    _waiting.erase(entry);
    return group;
  }
  return std::nullopt;
}

void SendSchedule::OnSent(const std::string& group, Milliseconds now) {
  _inFlight.insert(group);
  _lastSent[group] = now;
  for (auto entry = _lastSent.begin(); _lastSent.size() > _limits.maxGroups && entry != _lastSent.end();) {
    entry = now - entry->second > _limits.groupInterval ? _lastSent.erase(entry) : std::next(entry);
  }
  const Milliseconds cost(1000 / std::max<size_t>(1, _limits.deviceRate));
  _fullAt = std::max(_fullAt, now) + cost;
}

void SendSchedule::OnDone(const std::string& group) {
  _inFlight.erase(group);
}

void SendSchedule::OnLost() {
  _inFlight.clear();
}

std::optional<Milliseconds> SendSchedule::GetNext(Milliseconds now) const {
  if (_inFlight.size() >= _limits.maxInFlight) return std::nullopt;
  std::optional<Milliseconds> next;
  for (const auto& [number, waiting] : _waiting) {
    if (_inFlight.count(waiting.group) > 0) continue;
    const Milliseconds time = GetGroupTime(waiting);
    if (!next || time < *next) next = time;
    if (*next <= now) break;
  }
  if (!next) return std::nullopt;
  return std::max({*next, GetDeviceTime(now), now});
}

Milliseconds SendSchedule::GetGroupTime(const Waiting& waiting) const {
  const auto sent = _lastSent.find(waiting.group);
  if (sent == _lastSent.end()) return waiting.notBefore;
  return std::max(waiting.notBefore, sent->second + _limits.groupInterval);
}

// When the budget holds a message again.
Milliseconds SendSchedule::GetDeviceTime(Milliseconds now) const {
  const Milliseconds cost(1000 / std::max<size_t>(1, _limits.deviceRate));
  const Milliseconds burst = cost * static_cast<Milliseconds::rep>(_limits.deviceBurst);
  return std::max(now, _fullAt + cost - burst);
}

}  // namespace tavix::bridge
