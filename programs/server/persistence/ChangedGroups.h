#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// Groups that changed, and that somebody has not looked at again yet: who makes a snapshot of the layer meanwhile, or
// who writes changes later.
//
// In order: nothing is noted before Begin. From then on groups are noted, by any number of changes, and taken, any
// number of times; what was taken is forgotten here. End, or another Begin, forgets all. When memory is refused, some
// are missed: then nothing can be taken until the next Begin or End, as the taker would believe that it has all.
//
// The groups of a large change are not copied, as long as few such changes wait. Those of more are merged, so that the
// memory that is taken depends on how many different groups there are, not on how many changes.
//
// Threads: one at a time.
class ChangedGroups {
 public:
  // The groups of one large change, which are shared rather than copied.
  using Many = std::shared_ptr<const std::set<std::string>>;

  static constexpr size_t kMaxMany = 4;  // large changes whose groups are kept as they came

  struct Changes {
    std::set<std::string> groups;  // that may be different altogether
    std::vector<Many> many;        // that may be, too
    core::IniFile added;           // what further groups have got since, which are the same else

    // Which groups these are.
    std::set<std::string> TakeNames();
  };

  // Forgets all, and notes from now on, or no longer.
  void Begin();
  void End();

  // Does nothing before Begin and behind End. Never throws; TakeChanges reports what there is no memory for.
  void Note(const std::set<std::string>& groups, const core::IniFile& added = {}) noexcept;

  // The same for a large change. null: there was no memory for its groups. Those of a set that waits already are not
  // noted twice.
  void NoteMany(const Many& groups) noexcept;

  // What was noted since the last call. Throws std::bad_alloc when some could not be, until the next Begin or End.
  Changes TakeChanges();

  // Whether there is nothing to take, and nothing was missed.
  bool IsEmpty() const { return Count() == 0 && !_missesSome; }

  // Groups, and settings that further ones have got. A group of several large changes may count several times.
  size_t Count() const { return _changes.groups.size() + _many + _added; }

 private:
  void MergeOldest();

  bool _notes = false;
  bool _missesSome = false;
  Changes _changes;
  size_t _many = 0;   // how many groups
  size_t _added = 0;  // how many settings
};

}  // namespace tavix::daemon
