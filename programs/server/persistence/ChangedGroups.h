#pragma once

#include <set>
#include <string>

namespace tavix::daemon {

// The groups that changed while a snapshot is made, and that its maker has not looked at again yet.
//
// Threads: one at a time.
class ChangedGroups {
 public:
  // Forgets all, and notes from now on, or no longer.
  void Begin();
  void End();

  // Does nothing before Begin and behind End. Never throws; what there is no memory for is told by Take.
  void Note(const std::set<std::string>& groups) noexcept;

  // Those that were noted since the last call. Throws std::bad_alloc when some could not be, until the next Begin or
  // End.
  std::set<std::string> Take();

  size_t Count() const { return _groups.size(); }

 private:
  bool _notes = false;
  bool _missesSome = false;
  std::set<std::string> _groups;
};

}  // namespace tavix::daemon
