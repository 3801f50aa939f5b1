#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "programs/server/persistence/ChangedGroups.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// Who has to know which groups a change had: the gate, the snapshot that is made, and JournalSyncer for changes that
// are written later.
//
// In order: each change is noted. What the snapshot lacks is noted from GetChanged().Begin on; once the next journal
// has taken its part of that, FollowSnapshot makes the rest pending for this journal. What is pending is taken and
// written, or dropped when a snapshot will hold it. Pending groups belong to an epoch: another journal, or a failure,
// begins the next one, and what was taken in an earlier epoch belongs to no record any more.
//
// The groups of a large change are copied once for all three. A change of the same groups as one that still waits
// shares its copy; so a client that makes one large change again and again takes no more memory.
//
// Threads: one at a time; the gate has its own lock.
// Errors:  none. Where memory is refused, the gate holds all output, and the next TakeChanges throws std::bad_alloc.
class NotedChanges {
 public:
  using Epoch = uint64_t;

  // gate: outlives the object.
  explicit NotedChanges(DurabilityGate& gate) : _gate(gate) { _pending.Begin(); }

  // Returns the ticket that the change gets. added: what further groups have got. isHeld: as DurabilityGate::Add.
  DurabilityGate::Ticket Note(const std::set<std::string>& changedGroups, const core::IniFile& added, bool isHeld,
                              bool isPending);

  // What the snapshot that is made, and then the next journal, lacks so far.
  ChangedGroups& GetChanged() { return _changed; }

  // What the current journal lacks while changes are written later.
  ChangedGroups& GetPending() { return _pending; }
  Epoch GetEpoch() const { return _epoch; }

  // A snapshot will hold all that is pending.
  void DropPending();

  // The next journal is the current one, and has all changes but those that are noted as changed now.
  void FollowSnapshot();

 private:
  DurabilityGate::Ticket NoteMany(const std::set<std::string>& changedGroups, bool isHeld, bool isPending);
  ChangedGroups::Many Share(const std::set<std::string>& groups);

  DurabilityGate& _gate;
  ChangedGroups _changed;
  ChangedGroups _pending;
  Epoch _epoch = 0;

  // The groups of the last large changes, for as long as somebody has them.
  std::array<std::weak_ptr<const std::set<std::string>>, ChangedGroups::kMaxMany> _recent;
  size_t _oldestRecent = 0;
};

}  // namespace tavix::daemon
