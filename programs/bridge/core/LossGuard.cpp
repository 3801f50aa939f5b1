#include "programs/bridge/core/LossGuard.h"

#include <algorithm>

namespace tavix::bridge {

bool LossGuard::Allow(const std::set<std::string>& groups, size_t all, Milliseconds now) {
  Forget(now);
  std::set<std::string> losing = _held;
  for (const auto& [group, when] : _recent) losing.insert(group);
  for (const std::string& group : groups) {
    if (_accepted.count(group) == 0) losing.insert(group);
  }

  if (losing.size() > _limits.heldGroups && 2 * losing.size() > all) {
    for (const std::string& group : groups) {
      if (_accepted.count(group) == 0) _held.insert(group);
    }
    const bool areAccepted =
        std::all_of(groups.begin(), groups.end(), [this](const std::string& group) { return IsAccepted(group); });
    return areAccepted;
  }
  for (const std::string& group : groups) {
    _recent[group] = now;
    _held.erase(group);
  }
  return true;
}

void LossGuard::Release(const std::string& group) {
  _held.erase(group);
  _accepted.erase(group);
}

void LossGuard::Accept() {
  _accepted.insert(_held.begin(), _held.end());
  _held.clear();
  _recent.clear();
}

void LossGuard::Forget(Milliseconds now) {
  for (auto entry = _recent.begin(); entry != _recent.end();) {
    entry = now - entry->second > _limits.heldWindow ? _recent.erase(entry) : std::next(entry);
  }
}

}  // namespace tavix::bridge
