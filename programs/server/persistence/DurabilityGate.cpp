#include "programs/server/persistence/DurabilityGate.h"

#include <algorithm>
#include <iterator>

#include "tavix/core/StringUtil.h"

namespace tavix::daemon {

namespace {

// Patterns on groups that wait for the disk: to try more of them would take longer than to wait as well.
constexpr size_t kMaxTried = 1000;

constexpr size_t kMaxMany = 4;  // large changes whose groups are kept as they came

bool MatchesAny(const std::set<std::string>& patterns, const std::string& name) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [&](const std::string& pattern) { return core::StringUtil::MatchesPattern(pattern, name); });
}

}  // namespace

DurabilityGate::Ticket DurabilityGate::Add(const std::set<std::string>* groups, bool isHeld) {
  const osa::PlainMutexLock lock(_mutex);
  const Ticket ticket = _last.load(std::memory_order_relaxed) + 1;
  if (IsHeld(isHeld) && groups) {
    for (const std::string& group : *groups) _groups[group] = ticket;
  } else if (IsHeld(isHeld)) {
    _lastOfAny = ticket;
  }
  return Publish(ticket, isHeld);
}

DurabilityGate::Ticket DurabilityGate::AddMany(Groups groups, bool isHeld) {
  const osa::PlainMutexLock lock(_mutex);
  const Ticket ticket = _last.load(std::memory_order_relaxed) + 1;
  if (IsHeld(isHeld)) NoteMany(ticket, std::move(groups));
  return Publish(ticket, isHeld);
}

// A change of the same groups as one before takes its place: output that waits for the later one waits for both.
void DurabilityGate::NoteMany(Ticket ticket, Groups groups) {
  const auto isSame = [&](const auto& many) { return many.second == groups; };
  const auto known = std::find_if(_manyGroups.begin(), _manyGroups.end(), isSame);
  if (known != _manyGroups.end()) {
    known->first = ticket;
    _manyGroups.splice(_manyGroups.end(), _manyGroups, known);
  } else {
    _manyGroups.emplace_back(ticket, std::move(groups));
    if (_manyGroups.size() > kMaxMany) MergeOldest();
  }
}

// Both are sorted: where they hold the same names, the hint is right and nothing is copied.
void DurabilityGate::MergeOldest() {
  const auto& [ticket, oldest] = _manyGroups.front();
  auto hint = _groups.begin();
  for (const std::string& name : *oldest) {
    const auto group = _groups.try_emplace(hint, name, ticket);
    group->second = std::max(group->second, ticket);
    hint = std::next(group);
  }
  _manyGroups.pop_front();
}

DurabilityGate::Ticket DurabilityGate::Publish(Ticket ticket, bool isHeld) {
  // In this order: who reads the new last ticket without the mutex finds it durable already, if nothing holds it.
  if (!IsHeld(isHeld)) _durable.store(ticket, std::memory_order_release);
  _last.store(ticket, std::memory_order_release);
  return ticket;
}

void DurabilityGate::SetDurable(Ticket ticket) {
  Release(ticket);
}

void DurabilityGate::StopHolding(Ticket last) {
  {
    const osa::PlainMutexLock lock(_mutex);
    _isHolding = false;
  }
  Release(last);
}

void DurabilityGate::Hold() {
  const osa::PlainMutexLock lock(_mutex);
  _isHolding = true;
}

void DurabilityGate::Release(Ticket ticket) {
  decltype(_waiting) released;
  decltype(_manyGroups) durableMany;  // these two outlive the lock: to destroy many takes long
  decltype(_groups) durable;
  {
    const osa::PlainMutexLock lock(_mutex);
    // One that is durable already may have become so while nothing was held, when no output was called.
    ticket = std::max(ticket, _durable.load(std::memory_order_relaxed));
    _durable.store(ticket, std::memory_order_release);
    if (ticket >= _last.load(std::memory_order_relaxed)) {
      durable.swap(_groups);
    } else {
      for (auto group = _groups.begin(); group != _groups.end();) {
        group = group->second <= ticket ? _groups.erase(group) : std::next(group);
      }
    }
    while (!_manyGroups.empty() && _manyGroups.front().first <= ticket)
      durableMany.splice(durableMany.end(), _manyGroups, _manyGroups.begin());
    for (auto waiting = _waiting.begin(); waiting != _waiting.end();) {
      const auto next = std::next(waiting);
      if (waiting->first <= ticket) released.splice(released.end(), _waiting, waiting);
      waiting = next;
    }
  }
  // With the mutex released: outputs take their own mutex, which stands outside of this one.
  for (const auto& waiting : released) waiting.second->OnDurable();
}

DurabilityGate::Ticket DurabilityGate::FindLast(const settings::common::GroupNameMatcher* groups) const {
  const Ticket last = _last.load(std::memory_order_acquire);
  if (!groups || IsDurable(last)) return last;
  const osa::PlainMutexLock lock(_mutex);
  Ticket found = _lastOfAny;
  for (const std::string& name : groups->GetNames()) {
    const auto group = _groups.find(name);
    if (group != _groups.end()) found = std::max(found, group->second);
    for (const auto& [ticket, many] : _manyGroups) {
      if (ticket > found && many->count(name) != 0) found = ticket;
    }
  }
  if (groups->GetPatterns().empty()) return found;
  if (_groups.size() > kMaxTried / groups->GetPatterns().size() || !_manyGroups.empty()) return last;
  for (const auto& [name, ticket] : _groups) {
    if (ticket > found && MatchesAny(groups->GetPatterns(), name)) found = ticket;
  }
  return found;
}

bool DurabilityGate::Await(Ticket ticket, std::shared_ptr<IHeldOutput> output) {
  const osa::PlainMutexLock lock(_mutex);
  if (IsDurable(ticket)) return false;
  _waiting.emplace_back(ticket, std::move(output));
  return true;
}

}  // namespace tavix::daemon
