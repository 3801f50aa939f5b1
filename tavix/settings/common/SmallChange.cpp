#include "tavix/settings/common/SmallChange.h"

#include <algorithm>
#include <functional>

namespace tavix::settings::common {

namespace {

constexpr size_t kMaxGroups = 16;
constexpr size_t kMaxBytes = 4096;
constexpr size_t kMaxTried = 256;
constexpr size_t kMaxFound = 1024;  // calls that others wait for, in one go

}  // namespace

bool SmallChange::IsSmall(const std::set<std::string>& changedGroups) {
  if (changedGroups.size() > kMaxGroups) return false;
  size_t bytes = 0;
  for (const std::string& group : changedGroups) bytes += group.size();
  return bytes <= kMaxBytes;
}

bool SmallChange::Match(const Subscriptions& subscriptions, const std::set<std::string>& changedGroups) {
  const size_t triedBefore = _search.GetTried();
  _search.SetMaxTried(kMaxTried);
  _found.clear();
  size_t texts = 0;
  Groups bit = 1;
  bool isDone = true;
  for (auto group = changedGroups.begin(); isDone && group != changedGroups.end(); ++group, bit <<= 1) {
    isDone = subscriptions.GetIndex().FindMatching(*group, _search);
    for (const PatternIndex::Id text : _search.GetFound()) {
      ++texts;
      for (const Subscriber* subscriber : subscriptions.GetSubscribersOf(text))
        _found.emplace_back(subscriber->callback, bit);
    }
    isDone = isDone && _found.size() <= kMaxFound;
  }
  _tried = _search.GetTried() - triedBefore;
  if (isDone && texts > 1) Unite();
  return isDone;
}

// Each callback once, by address. Those of one text are so already.
void SmallChange::Unite() {
  const auto isBefore = [](const auto& a, const auto& b) { return std::less<>()(a.first, b.first); };
  std::sort(_found.begin(), _found.end(), isBefore);
  size_t kept = 0;
  for (size_t i = 1; i < _found.size(); ++i) {
    if (_found[i].first == _found[kept].first) {
      _found[kept].second |= _found[i].second;
    } else {
      _found[++kept] = _found[i];
    }
  }
  _found.resize(std::min(_found.size(), kept + 1));
}

void SmallChange::CallAll(const std::set<std::string>& changedGroups, const core::IniFile& settings) const {
  const Groups all = static_cast<Groups>((uint64_t{1} << changedGroups.size()) - 1);
  Groups last = all;  // that "names" were made for; subscribers of the same groups often follow
  std::set<std::string> names;
  for (const auto& [callback, groups] : _found) {
    if (groups != all && groups != last) {
      names.clear();
      Groups bit = 1;
      for (auto group = changedGroups.begin(); group != changedGroups.end(); ++group, bit <<= 1) {
        if (groups & bit) names.insert(names.end(), *group);
      }
      last = groups;
    }
    callback->OnChange(groups == all ? changedGroups : names, settings);
  }
}

}  // namespace tavix::settings::common
