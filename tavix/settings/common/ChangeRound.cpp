#include "tavix/settings/common/ChangeRound.h"

#include <algorithm>
#include <utility>

namespace tavix::settings::common {

namespace {

// What is done while subscribers have to wait: some ten microseconds of work.
constexpr size_t kTriedInPiece = 256;
constexpr size_t kBytesInPiece = 4096;
constexpr size_t kSubscribersInPiece = 4096;

// What is called while other changes have to wait: about a millisecond of work, but one callback at least.
constexpr size_t kGroupsInCalls = 512;
constexpr size_t kCostOfCall = 8;  // in groups

}  // namespace

void GroupSubset::TurnIntoBits(size_t all) {
  if (!_bits.empty()) return;
  _bits.resize(all);
  for (const uint32_t group : _list) _bits[group] = true;
  _list = {};
}

void GroupSubset::Append(uint32_t group, size_t all) {
  constexpr size_t kBitsOfNumber = 32;
  if (!_bits.empty()) return Insert(group, all);
  if (!_list.empty() && _list.back() == group) return;
  _list.push_back(group);
  ++_size;
  if (_list.size() * kBitsOfNumber > all) TurnIntoBits(all);
}

void GroupSubset::Insert(uint32_t group, size_t all) {
  TurnIntoBits(all);
  if (_bits[group]) return;
  _bits[group] = true;
  ++_size;
}

ChangeRound::ChangeRound(const std::set<std::string>& changedGroups) : _changedGroups(changedGroups) {
  _groups.reserve(changedGroups.size());
  for (const std::string& group : changedGroups) _groups.push_back(&group);
}

GroupSubset& ChangeRound::FoundBy(uint32_t number) {
  if (number >= _found.size()) _found.resize(number + size_t{1});
  return _found[number];
}

bool ChangeRound::MatchPiece(const Subscriptions& subscriptions) {
  const size_t triedBefore = _search.GetTried();
  size_t bytes = 0;
  size_t subscribers = 0;
  for (; _next < _groups.size(); ++_next) {
    const bool isEnough = _search.GetTried() - triedBefore >= kTriedInPiece || bytes >= kBytesInPiece ||
                          subscribers >= kSubscribersInPiece;
    if (isEnough) return true;
    bytes += _groups[_next]->size();
    subscriptions.GetIndex().FindMatching(*_groups[_next], _search);
    for (const PatternIndex::Id text : _search.GetFound()) {
      for (const Subscriber* subscriber : subscriptions.GetSubscribersOf(text)) {
        FoundBy(subscriber->number).Append(static_cast<uint32_t>(_next), _groups.size());
        ++subscribers;
      }
    }
  }
  return false;
}

void ChangeRound::OnAdded(const Subscriber& subscriber, const std::vector<PatternIndex::Id>& texts) {
  if (_calls) return;
  for (const PatternIndex::Id text : texts) _added.emplace_back(subscriber.number, text);
}

void ChangeRound::OnRemoved(const Subscriber& subscriber) {
  if (subscriber.number < _found.size()) _found[subscriber.number] = GroupSubset();
  const auto isOfIt = [&](const auto& added) { return added.first == subscriber.number; };
  _added.erase(std::remove_if(_added.begin(), _added.end(), isOfIt), _added.end());
}

bool ChangeRound::IsOutdated() const {
  constexpr size_t kFewGroups = 1000;
  return !_added.empty() && _groups.size() > kFewGroups;
}

void ChangeRound::Restart() {
  _found.clear();
  _added.clear();
  _next = 0;
}

void ChangeRound::MatchAdded(const Subscriptions& subscriptions) {
  if (_added.empty()) return;
  PatternIndex index;
  std::vector<std::vector<uint32_t>> numbers;  // of subscribers, by the text's id in "index"
  for (const auto& [number, text] : _added) {
    const PatternIndex::Id id = index.Add(subscriptions.GetIndex().GetText(text));
    if (id >= numbers.size()) numbers.resize(id + size_t{1});
    numbers[id].push_back(number);
  }
  for (size_t group = 0; group < _groups.size(); ++group) {
    index.FindMatching(*_groups[group], _search);
    for (const PatternIndex::Id text : _search.GetFound()) {
      for (const uint32_t number : numbers[text]) {
        FoundBy(number).Insert(static_cast<uint32_t>(group), _groups.size());
      }
    }
  }
}

bool ChangeRound::CallPiece(const Subscriptions& subscriptions, const core::IniFile& settings, bool isPiece) {
  if (!std::exchange(_calls, true)) MatchAdded(subscriptions);
  const Subscriptions::Callbacks& callbacks = subscriptions.GetCallbacks();
  size_t cost = 0;
  for (auto next = callbacks.upper_bound(_lastCalled); next != callbacks.end(); ++next) {
    const auto& [callback, subscriber] = *next;
    if (subscriber.number >= _found.size()) continue;
    const GroupSubset& groups = _found[subscriber.number];
    if (groups.GetSize() == 0) continue;
    if (isPiece && cost >= kGroupsInCalls) return true;
    cost += kCostOfCall + groups.GetSize();
    _lastCalled = callback;
    callback->OnChange(groups.GetSize() == _groups.size() ? _changedGroups : NamesOf(groups), settings);
  }
  return false;
}

// Valid until the next call.
const std::set<std::string>& ChangeRound::NamesOf(const GroupSubset& groups) {
  if (_named == groups) return _names;
  _names.clear();
  groups.ForEach([&](size_t group) { _names.insert(_names.end(), *_groups[group]); });
  _named = groups;
  return _names;
}

}  // namespace tavix::settings::common
