#include "programs/server/persistence/NotedChanges.h"

#include <new>
#include <utility>

#include "programs/server/persistence/LargeChange.h"

namespace tavix::daemon {

DurabilityGate::Ticket NotedChanges::Note(const std::set<std::string>& changedGroups, const core::IniFile& added,
                                          bool isHeld, bool isPending) {
  if (changedGroups.size() > kManyGroups && added.IsEmpty()) return NoteMany(changedGroups, isHeld, isPending);
  DurabilityGate::Ticket ticket = 0;
  try {
    std::set<std::string> groups = changedGroups;
    for (const auto& group : added) groups.insert(group.first);
    ticket = _gate.Add(&groups, isHeld);
  } catch (const std::bad_alloc&) {
    ticket = _gate.Add(nullptr, isHeld);  // without the names it holds all output
  }
  _changed.Note(changedGroups, added);
  if (isPending) _pending.Note(changedGroups, added);
  return ticket;
}

DurabilityGate::Ticket NotedChanges::NoteMany(const std::set<std::string>& changedGroups, bool isHeld, bool isPending) {
  ChangedGroups::Many groups;
  DurabilityGate::Ticket ticket = 0;
  try {
    groups = Share(changedGroups);
    ticket = _gate.AddMany(groups, isHeld);
  } catch (const std::bad_alloc&) {
    ticket = _gate.Add(nullptr, isHeld);
  }
  _changed.NoteMany(groups);
  if (isPending) _pending.NoteMany(groups);
  return ticket;
}

// To compare costs less than to copy, and different changes differ early, as a rule.
ChangedGroups::Many NotedChanges::Share(const std::set<std::string>& groups) {
  for (const auto& recent : _recent) {
    ChangedGroups::Many known = recent.lock();
    if (known && *known == groups) return known;
  }
  ChangedGroups::Many shared = std::make_shared<const std::set<std::string>>(groups);
  _recent[_oldestRecent] = shared;
  _oldestRecent = (_oldestRecent + 1) % _recent.size();
  return shared;
}

void NotedChanges::DropPending() {
  if (_pending.IsEmpty()) return;
  _pending.Begin();
  ++_epoch;
}

void NotedChanges::FollowSnapshot() {
  // What the next journal has not taken yet is just what it lacks as the current one.
  std::swap(_pending, _changed);
  _changed.End();
  ++_epoch;
}

}  // namespace tavix::daemon
