#pragma once

#include <cstdint>

namespace tavix::daemon {

// Which journal is the current one, that changes are appended to, and which one has the name FILE.journal.new. A
// journal is named by a number, which no other journal of the object ever had.
//
// In order: a new journal gets the name and becomes the current one, at once or, the next journal of a snapshot, once
// it holds what it has to. It gives the name back when it takes its place. So before a next journal is made, the
// current one takes its place. A current journal that is given up may leave the name to a file that nobody needs; that
// file is removed, or the next new journal gets the name.
//
// Threads: one caller at a time.
class JournalNames {
 public:
  using Number = uint64_t;  // 0: none

  // A journal was found, which goes on.
  void OnFound(bool isInPlace);

  // A new journal is at FILE.journal.new.
  void OnOpened() { _current = OnNextCreated(); }
  Number OnNextCreated();

  // The next journal, or none, replaces the current one.
  void OnReplaced(Number next) { _current = next; }

  // isUseful: what its file holds may be all that there is of changes that were shown.
  void OnGivenUp(bool isUseful);

  // A journal may be renamed only while it is the current one and has the name.
  bool MayTakePlace(Number journal) const { return journal != 0 && journal == _current && journal == _owner; }
  void OnTookPlace(Number journal);

  // A next journal was given up. Whether its file is to be removed: the current one may have the name.
  bool ReleaseNext();

  // Whether a file that nobody needs has the name. Nothing has it from now on.
  bool TakeUselessName();

  Number GetCurrent() const { return _current; }
  Number GetOwner() const { return _owner; }

 private:
  Number _last = 0;  // that was given
  Number _current = 0;
  Number _owner = 0;        // of FILE.journal.new
  bool _isUseless = false;  // the owner was given up, and its file can be removed
};

}  // namespace tavix::daemon
