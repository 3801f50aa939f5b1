#include "tavix/c/WatchedContent.h"

#include <utility>

namespace tavix::c {

using Kind = WatchedChange::Kind;

// A change is noted before it is made here, and what cancels out is removed after it: without memory for the one or the
// other, the next reading finds the difference again.

void WatchedContent::TakeReading(core::IniFile&& groups) {
  if (!_wasRead && !_reportsFirst) {
    _groups.swap(groups.GetMutableGroups());
    _wasRead = true;
    return;
  }
  for (auto known = _groups.begin(); known != _groups.end();) {
    const std::string& name = (known++)->first;
    if (!groups.HasGroup(name)) TakeGroup(std::string(name), nullptr);
  }
  for (const auto& [name, keys] : groups) TakeGroup(name, &keys);
  if (_wasRead) {
    for (auto pending = _pending.begin(); pending != _pending.end(); ++pending) {
      if (pending->kind != Kind::kResync) continue;
      _resync.splice(_resync.end(), _pending, pending);
      break;
    }
    _pending.splice(_pending.end(), _resync);
  }
  _wasRead = true;
}

void WatchedContent::TakeNotice(const settings::client::ProtocolNotice& notice) {
  for (const std::string& name : notice.groups) {
    const auto found = notice.settings.GetGroups().find(name);
    TakeGroup(name, found == notice.settings.end() ? nullptr : &found->second);
  }
}

void WatchedContent::TakeGroup(const std::string& group, const Keys* now) {
  const auto known = _groups.find(group);
  const bool existed = known != _groups.end();
  const bool exists = now != nullptr;
  if (existed != exists) Note(Kind::kGroup, group, {}, existed ? &group : nullptr);
  if (existed) DropKeys(group, known->second, now);
  if (exists) {
    TakeKeys(group, *now);
  } else if (existed) {
    _groups.erase(known);
  }
  const auto itself = _places.find(Place(group, Kind::kGroup, {}));
  if (itself != _places.end() && itself->second->old.has_value() == exists) Remove(itself->second);
}

void WatchedContent::DropKeys(const std::string& group, Keys& keys, const Keys* now) {
  for (auto key = keys.begin(); key != keys.end();) {
    if (now && now->count(key->first) > 0) {
      ++key;
      continue;
    }
    const auto pending = Note(Kind::kKey, group, key->first, &key->second);
    key = keys.erase(key);
    if (!pending->old) Remove(pending);
  }
}

void WatchedContent::TakeKeys(const std::string& group, const Keys& now) {
  Keys& keys = _groups[group];
  for (const auto& [key, value] : now) {
    const auto known = keys.find(key);
    if (known != keys.end() && known->second == value) continue;
    const auto pending = Note(Kind::kKey, group, key, known == keys.end() ? nullptr : &known->second);
    keys.insert_or_assign(known, key, value);
    if (pending->old == value) Remove(pending);
  }
}

WatchedContent::Pending::iterator WatchedContent::Note(Kind kind, const std::string& group, const std::string& key,
                                                       const std::string* old) {
  const auto known = _places.find(Place(group, kind, key));
  if (known != _places.end()) return known->second;
  Pending noted(1);
  WatchedChange& change = noted.front();
  change.kind = kind;
  change.group = group;
  change.key = key;
  if (old) change.old = *old;
  _places.emplace(PlaceOf(change), noted.begin());
  _pending.splice(_pending.end(), noted);
  return std::prev(_pending.end());
}

void WatchedContent::Remove(Pending::iterator pending) {
  _places.erase(PlaceOf(*pending));
  _pending.erase(pending);
}

// Filled in before anything is taken: without memory it stays pending.
std::optional<WatchedChange> WatchedContent::TakeChange() {
  while (!_pending.empty()) {
    const auto first = _pending.begin();
    if (first->kind == Kind::kResync) {
      _resync.splice(_resync.end(), _pending, first);
      return *first;
    }
    FillIn(*first);
    const bool isShown = first->kind == Kind::kGroup ? IsShownByKeys(*first) : first->old == first->now;
    _places.erase(PlaceOf(*first));
    WatchedChange change = std::move(*first);
    _pending.erase(first);
    if (isShown) continue;
    const auto itself = _places.find(Place(change.group, Kind::kGroup, {}));
    if (itself != _places.end()) Remove(itself->second);
    return change;
  }
  return std::nullopt;
}

// Whether a pending change of a key has the same to report about the group: it has keys, or had some.
bool WatchedContent::IsShownByKeys(const WatchedChange& itself) const {
  const auto key = _places.lower_bound(Place(itself.group, Kind::kKey, {}));
  return itself.old.has_value() == itself.now.has_value() ||
         (key != _places.end() && std::get<0>(key->first) == itself.group && std::get<1>(key->first) == Kind::kKey);
}

void WatchedContent::FillIn(WatchedChange& change) const {
  change.now.reset();
  const auto group = _groups.find(change.group);
  change.isGone = group == _groups.end();
  if (change.isGone) return;
  if (change.kind == Kind::kGroup) {
    change.now.emplace();
    return;
  }
  const auto key = group->second.find(change.key);
  if (key != group->second.end()) change.now = key->second;
}

}  // namespace tavix::c
