#include "programs/bridge/core/LossGuard.h"

#include <algorithm>

namespace tavix::bridge {

bool LossGuard::Allow(const std::set<std::string>& groups, size_t all, Milliseconds now) {
  Forget(now);
  const bool isTooMuch = IsTooMuch(groups, all);
  bool mayAll = true;
  for (const std::string& group : groups) {
    if (IsAccepted(group)) continue;
    if (isTooMuch) _held.insert(group);
    if (_held.count(group) > 0) {
      mayAll = false;
    } else {
      _recent[group] = {now, all};
    }
  }
  return mayAll;
}

// Groups that lost all of their values are no longer mirrored, but were part of what half of is meant.
bool LossGuard::IsTooMuch(const std::set<std::string>& groups, size_t all) const {
  std::set<std::string> losing = _held;
  for (const auto& [group, loss] : _recent) {
    losing.insert(group);
    all = std::max(all, loss.all);
  }
  for (const std::string& group : groups) {
    if (!IsAccepted(group)) losing.insert(group);
  }
  return losing.size() > _limits.heldGroups && 2 * losing.size() > all;
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
    entry = now - entry->second.when > _limits.heldWindow ? _recent.erase(entry) : std::next(entry);
  }
}

}  // namespace tavix::bridge
