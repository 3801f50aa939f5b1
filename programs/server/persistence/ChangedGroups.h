#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// The groups that changed while a snapshot is made, and that its maker has not looked at again yet.
//
// Threads: one at a time.
class ChangedGroups {
 public:
  struct Changes {
    std::set<std::string> groups;  // that may be different altogether
    core::IniFile added;           // what further groups have got since, which are the same else
  };

  // Forgets all, and notes from now on, or no longer.
  void Begin();
  void End();

  // Does nothing before Begin and behind End. Never throws; what there is no memory for is told by Take.
  void Note(const std::set<std::string>& groups, const core::IniFile& added = {}) noexcept;

  // What was noted since the last call. Throws std::bad_alloc when some could not be, until the next Begin or End.
  Changes TakeChanges();

  // The same; only which groups.
  std::set<std::string> Take();

  // Groups, and settings that further ones have got.
  size_t Count() const { return _changes.groups.size() + _added; }

 private:
  bool _notes = false;
  bool _missesSome = false;
  Changes _changes;
  size_t _added = 0;  // how many settings
};

}  // namespace tavix::daemon
