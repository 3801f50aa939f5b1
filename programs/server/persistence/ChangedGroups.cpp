#include "programs/server/persistence/ChangedGroups.h"

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
  _added = 0;
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

ChangedGroups::Changes ChangedGroups::TakeChanges() {
  if (_missesSome) throw std::bad_alloc();
  _added = 0;
  return std::exchange(_changes, {});
}

std::set<std::string> ChangedGroups::Take() {
  Changes changes = TakeChanges();
  for (const auto& group : changes.added) changes.groups.insert(group.first);
  return std::move(changes.groups);
}

}  // namespace tavix::daemon
