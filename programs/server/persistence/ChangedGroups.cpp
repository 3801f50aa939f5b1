#include "programs/server/persistence/ChangedGroups.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

namespace tavix::daemon {

void ChangedGroups::Begin() {
  End();
  _notes = true;
}

void ChangedGroups::End() {
  _notes = _missesSome = false;
  _changes = {};
  _many = _added = 0;
}

void ChangedGroups::Note(const std::set<std::string>& groups, const core::IniFile& added) noexcept {
  if (!_notes) return;
  try {
    _changes.groups.insert(groups.begin(), groups.end());
    _changes.added.MergeSettings(added);
    for (const auto& group : added) _added += group.second.size();
  } catch (const std::bad_alloc&) {
    _missesSome = true;
  }
}

void ChangedGroups::NoteMany(const Many& groups) noexcept {
  if (!_notes) return;
  if (!groups) _missesSome = true;
  // A client that repeats a large change comes with the same set (NotedChanges shares it); there are a few at most.
  if (!groups || std::count(_changes.many.begin(), _changes.many.end(), groups) > 0) return;
  try {
    _changes.many.push_back(groups);
    _many += groups->size();
    if (_changes.many.size() > kMaxMany) MergeOldest();
  } catch (const std::bad_alloc&) {
    _missesSome = true;
  }
}

// Both are sorted: where they hold the same names, the hint is right and nothing is copied.
void ChangedGroups::MergeOldest() {
  const Many oldest = _changes.many.front();
  auto hint = _changes.groups.begin();
  for (const std::string& name : *oldest) hint = std::next(_changes.groups.insert(hint, name));
  _changes.many.erase(_changes.many.begin());
  _many -= oldest->size();
}

ChangedGroups::Changes ChangedGroups::TakeChanges() {
  if (_missesSome) throw std::bad_alloc();
  _many = _added = 0;
  return std::exchange(_changes, {});
}

std::set<std::string> ChangedGroups::Changes::TakeNames() {
  std::set<std::string> names = std::move(groups);
  for (const Many& some : many) names.insert(some->begin(), some->end());
  for (const auto& group : added) names.insert(group.first);
  return names;
}

}  // namespace tavix::daemon
