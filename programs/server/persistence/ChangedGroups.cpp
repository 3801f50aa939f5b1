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
  _groups.clear();
}

void ChangedGroups::Note(const std::set<std::string>& groups) noexcept {
  if (!_notes) return;
  try {
    _groups.insert(groups.begin(), groups.end());
  } catch (const std::bad_alloc&) {
    _missesSome = true;
  }
}

std::set<std::string> ChangedGroups::Take() {
  if (_missesSome) throw std::bad_alloc();
  return std::exchange(_groups, {});
}

}  // namespace tavix::daemon
